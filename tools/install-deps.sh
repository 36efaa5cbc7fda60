#!/usr/bin/env bash
# Installs the Debian packages the build, gpumon and the tests need, when a
# machine lacks them. Safe to run again.
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config python3
  libgtest-dev libgmock-dev libbenchmark-dev
  nlohmann-json3-dev
  libegl-dev libgl-dev libegl-mesa0 libgl1-mesa-dri
  libpng-dev libfreetype-dev libstb-dev fonts-dejavu-core
  g++-aarch64-linux-gnu
  libmicrohttpd-dev prometheus prometheus-node-exporter
)

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
