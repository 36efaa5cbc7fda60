#!/usr/bin/env bash
# Checks the Debian package of a build: makes it with `cpack -G DEB`, checks
# it with lintian (no errors), installs it with dpkg -i, runs the installed
# gpumon on installed recorded machines (a DRM one and an NVIDIA one with its
# fakes), checks the unit, man page and completion are there, and removes it.
#   tools/package-test.sh BUILD_DIR
# Needs root (dpkg, and the machines' private mount namespaces).
set -euo pipefail
cd "$(dirname "$0")/.."
build="$(cd "${1:?usage: tools/package-test.sh BUILD_DIR}" && pwd)"
version="$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")"
deb="$build/zev-gpumon_${version}_amd64.deb"
machines=/usr/share/zev-gpumon/machines

fail() {
  echo "package test: $*" >&2
  exit 1
}

rm -f "$deb"
(cd "$build" && cpack -G DEB >/dev/null)
[ -f "$deb" ] || fail "cpack made no $deb"
lintian --fail-on error --display-level ">=error" "$deb" || fail "lintian reports errors"
# Every package dpkg-shlibdeps finds for the binaries is among those declared.
work="$(mktemp -d)"
mkdir "$work/debian" && touch "$work/debian/control"
needed="$(cd "$work" && dpkg-shlibdeps -O -l"$build/bin" "$build/bin/gpumon" \
  "$build/bin/plugin_zev_gpumon_x64.so" "$build/bin/libzev_r_linux_x64.so" 2>/dev/null)"
rm -rf "$work"
names() { sed 's/^shlibs:Depends=//; s/ ([^)]*)//g; s/,/ /g' <<<"$1" | xargs; }
declared=" $(names "$(dpkg-deb -f "$deb" Depends)") "
for package in $(names "$needed"); do
  [[ "$declared" == *" $package "* ]] || fail "Depends lacks $package (it has:$declared)"
done

trap 'dpkg -r zev-gpumon >/dev/null 2>&1 || true' EXIT
dpkg -i "$deb" >/dev/null
for f in /usr/bin/gpumon /usr/lib/zev/plugin_zev_gpumon_x64.so /usr/lib/libzev_r_linux_x64.so \
  /usr/include/zev/gpu_monitor.h /usr/lib/cmake/zev_gpumon/zev_gpumonConfig.cmake \
  /usr/lib/systemd/system/gpumon.service /usr/share/man/man1/gpumon.1.gz \
  /usr/share/bash-completion/completions/gpumon "$machines/amd-multi-card-gaps/README.md"; do
  [ -e "$f" ] || fail "$f is not installed"
done
# The installed gpumon, from elsewhere than the source tree, on installed machines.
cd /tmp
unset LD_LIBRARY_PATH
out="$(/usr/bin/gpumon --machine "$machines/amd-multi-card-gaps")"
grep -q "^1    AMD Radeon RX 6400     0000:45:00.0" <<<"$out" || fail "gpumon on amd-multi-card-gaps: $out"
out="$(/usr/bin/gpumon --machine "$machines/nvidia-h100-sxm" -i 0 --query-gpu=name,clocks.sm \
  --format=csv,noheader)"
[ "$out" = "NVIDIA H100 80GB HBM3, 1755 MHz" ] || fail "gpumon on nvidia-h100-sxm: $out"
bash -c 'source /usr/share/bash-completion/completions/gpumon && complete -p gpumon' >/dev/null ||
  fail "the bash completion does not load"

dpkg -r zev-gpumon >/dev/null
trap - EXIT
[ ! -e /usr/bin/gpumon ] && [ ! -e "$machines" ] || fail "dpkg -r left files behind"
echo "package test: $(basename "$deb") passes lintian, installs, runs and is removed"
