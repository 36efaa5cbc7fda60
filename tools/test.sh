#!/usr/bin/env bash
# Builds everything and runs every test: once plain, once under
# AddressSanitizer with UndefinedBehaviorSanitizer; then the update thread's
# tests under ThreadSanitizer; between the two, it builds the plug-in for
# 64-bit Arm boards. The plain build is also installed into a temporary
# prefix and a host is built against it, and packaged, checked, installed
# and removed as a Debian package.
# The tests lay out fake machines in private mount namespaces: run as root
# (or where unprivileged user namespaces are allowed).
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh --test
jobs="$(nproc)"

echo "== format: the hand-written sources against .clang-format"
./tools/format-check.sh

# The plain build uses the Unix Makefiles generator, the others Ninja: both
# generators build everything.
echo "== plain build (Unix Makefiles)"
cmake -S . -B build-make -G "Unix Makefiles" >/dev/null
cmake --build build-make -j"$jobs"
ctest --test-dir build-make -j"$jobs" --output-on-failure

echo "== install: the plain build into a prefix, a host built against it; optional parts"
./tools/install-test.sh build-make
./tools/optional-parts-test.sh

echo "== Debian package: cpack -G DEB, lintian, dpkg -i, the installed gpumon, dpkg -r"
./tools/package-test.sh build-make

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B build-asan -G Ninja -DZEV_SANITIZE=address -DZEV_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build build-asan -j"$jobs"
# Leaks are reported except Mesa's own (the overlay tests draw with it),
# which tools/lsan.supp names.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
  LSAN_OPTIONS="suppressions=$PWD/tools/lsan.supp" \
  ctest --test-dir build-asan -j"$jobs" --output-on-failure

echo "== arm64 cross build of the plug-in (Raspberry Pi boards)"
cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DZEV_PLUGIN_ONLY=ON >/dev/null
cmake --build build-arm64 -j"$jobs"
readelf -h build-arm64/bin/plugin_zev_gpumon_x64.so | grep -q 'Machine:.*AArch64'
echo "build-arm64/bin/plugin_zev_gpumon_x64.so: AArch64 shared library"

echo "== ThreadSanitizer build: the update thread and the refresh it runs"
# Only the races the design has (tools/tsan.supp names them) are allowed.
cmake -S . -B build-tsan -G Ninja -DZEV_SANITIZE=thread -DZEV_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build build-tsan -j"$jobs" --target dispatch_test
TSAN_OPTIONS="suppressions=$PWD/tools/tsan.supp halt_on_error=1 second_deadlock_stack=1" \
  ctest --test-dir build-tsan -j"$jobs" --output-on-failure \
  -R '^(UpdateThread|UpdateThreadThroughThePlugin|UpdateThroughThePlugin|UpdateLoop|Dispatch)\.'
