#!/usr/bin/env bash
# Installs the Debian packages a machine lacks. Safe to run again.
#   tools/install-deps.sh          what building and running gpumon needs
#   tools/install-deps.sh --test   that, and what the tests and CI need
set -euo pipefail

# Building the plug-in, the host library and gpumon, and running them.
build_packages=(
  cmake g++ make pkg-config
  nlohmann-json3-dev
  libegl-dev libgl-dev libegl-mesa0 libgl1-mesa-dri
  libpng-dev libfreetype-dev libstb-dev fonts-dejavu-core
  libmicrohttpd-dev libncurses-dev
)
# The tests, the benchmarks and the rest of CI: the second generator, the
# arm64 cross build, a Prometheus server to scrape --serve, tmux for the live
# view, the Debian package's checks, clang-format for the format check.
test_packages=(
  ninja-build python3 clang-format
  libgtest-dev libgmock-dev libbenchmark-dev
  g++-aarch64-linux-gnu
  prometheus prometheus-node-exporter tmux lintian
)

packages=("${build_packages[@]}")
case "${1:-}" in
  "") ;;
  --test) packages+=("${test_packages[@]}") ;;
  *)
    echo "usage: tools/install-deps.sh [--test]" >&2
    exit 2
    ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
