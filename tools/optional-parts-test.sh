#!/usr/bin/env bash
# Checks that the tests and the benchmarks are optional parts of the build.
# With GoogleTest and Google Benchmark hidden from CMake, as on a machine
# without them, the default configure still makes the plug-in, the host
# library and gpumon and skips both parts with a message; asking for the
# tests there stops with a clear error; and both parts turned off configure.
# It only configures: the plain build compiles the same code.
set -euo pipefail
cd "$(dirname "$0")/.."
tmp="$(mktemp -d /tmp/zev-optional-parts.XXXXXX)"
trap 'rm -rf "$tmp"' EXIT
build="$tmp/build"

fail() {
  cat "$tmp/log" >&2
  echo "optional parts test: $*" >&2
  exit 1
}

cmake -S . -B "$build" -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON >"$tmp/log" 2>&1 ||
  fail "the configure without GoogleTest and Google Benchmark failed"
grep -q "Tests skipped: GoogleTest, gmock not found" "$tmp/log" || fail "no message for the tests"
grep -q "Benchmarks skipped: Google Benchmark not found" "$tmp/log" ||
  fail "no message for the benchmarks"
cmake --build "$build" --target help >"$tmp/targets"
for target in plugin_zev_gpumon_x64 zev_r gpumon; do
  grep -q "^\.\.\. $target\$" "$tmp/targets" || fail "no target $target"
done
if grep -q "_test\$\|_bench\$" "$tmp/targets"; then fail "tests or benchmarks configured"; fi

if cmake -S . -B "$build" -DZEV_BUILD_TESTS=ON >"$tmp/log" 2>&1; then
  fail "ZEV_BUILD_TESTS=ON configured without GoogleTest"
fi
grep -q "ZEV_BUILD_TESTS is ON, but GoogleTest, gmock was not found" "$tmp/log" ||
  fail "no clear error for ZEV_BUILD_TESTS=ON without GoogleTest"

cmake -S . -B "$build" -DZEV_BUILD_TESTS=OFF -DZEV_BUILD_BENCHMARKS=OFF >"$tmp/log" 2>&1 ||
  fail "the configure with ZEV_BUILD_TESTS=OFF and ZEV_BUILD_BENCHMARKS=OFF failed"
echo "optional parts test: the build configures without its test and benchmark packages"
