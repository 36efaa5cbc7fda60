#!/usr/bin/env bash
# Builds the plug-in, the reference host library and gpumon, then runs gpumon
# with the arguments given (for example --machine tests/machines/desktop-no-gpu).
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
# The fakes and the NVIDIA machines assembled with them come with the tests.
cmake --build build -j"$(nproc)" --target gpumon zev_test_fakes >/dev/null
exec ./build/bin/gpumon "$@"
