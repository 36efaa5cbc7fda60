#!/usr/bin/env bash
# Checks a build's installation on its own: installs BUILD_DIR into a
# temporary prefix, runs the installed gpumon (which must find the installed
# plug-in), builds the example host (examples/host) against the installed
# package with find_package(zev_gpumon), and runs it: on this machine, on
# recorded machines, with a missing plug-in and with a library that is no
# plug-in. Also checks that the README carries the example verbatim.
#   tools/install-test.sh BUILD_DIR
# The recorded machine runs in a private mount namespace: run as root (or
# where unprivileged user namespaces are allowed).
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:?usage: tools/install-test.sh BUILD_DIR}"
jobs="$(nproc)"
tmp="$(mktemp -d /tmp/zev-install-test.XXXXXX)"
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/prefix"

fail() {
  echo "install test: $*" >&2
  exit 1
}

# Runs a command that must exit with CODE and print TEXT (on stdout or stderr).
expect() {
  local code="$1" text="$2"
  shift 2
  local got=0
  "$@" >"$tmp/out" 2>&1 || got=$?
  [ "$got" = "$code" ] || { cat "$tmp/out" >&2; fail "$* exited $got, not $code"; }
  grep -qF -- "$text" "$tmp/out" || { cat "$tmp/out" >&2; fail "$* did not print '$text'"; }
}

# The README's host example is examples/host/main.cpp, word for word.
awk '/<!-- examples\/host\/main.cpp -->/ {on = 1; next}
     on == 1 && /^```cpp$/ {on = 2; next}
     on == 2 && /^```$/ {exit}
     on == 2 {print}' README.md >"$tmp/readme-example.cpp"
diff -u examples/host/main.cpp "$tmp/readme-example.cpp" >&2 ||
  fail "README.md's host example differs from examples/host/main.cpp"

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/gpumon lib/libzev_r_linux_x64.so lib/zev/plugin_zev_gpumon_x64.so \
  include/zev/gpu_monitor.h include/zev/trace.h lib/cmake/zev_gpumon/zev_gpumonConfig.cmake; do
  [ -f "$prefix/$f" ] || fail "$f is not installed"
done

# The installed programs find their libraries and the plug-in relative to
# themselves, without any search path from here.
unset LD_LIBRARY_PATH
expect 0 "--plugin" "$prefix/bin/gpumon" --help
expect 0 "CPU" "$prefix/bin/gpumon"
expect 0 "1002:744C" "$prefix/bin/gpumon" --wide --machine machines/amd-rdna3-rx7900xtx

cmake -S examples/host -B "$tmp/host" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build "$tmp/host" -j"$jobs" >/dev/null
host="$tmp/host/zev_host_example"
# This machine, with or without a GPU; recorded machines with an AMD and an
# NVIDIA GPU (which needs the fakes the build assembled it with).
expect 0 "OS:" "$host"
expect 0 "GPU 0: Sapphire PULSE RX 7900 XTX [1002:744C]" \
  "$build/bin/machine_run" machines/amd-rdna3-rx7900xtx "$host"
expect 0 "GPU 0: NVIDIA H100 80GB HBM3 [10DE:2330]" \
  "$build/bin/machine_run" "$build/machines/nvidia-h100-sxm" "$host"
expect 1 "cannot load the plug-in" "$host" "$tmp/none.so"
expect 1 "is no GPU monitor plug-in" "$host" "$prefix/lib/libzev_r_linux_x64.so"
echo "install test: $build installs, and a host builds and runs against it"
