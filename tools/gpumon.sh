#!/usr/bin/env bash
# Builds the plug-in, the reference host library and gpumon, then runs gpumon
# with the arguments given (for example --machine tests/machines/desktop-no-gpu).
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j"$(nproc)" --target gpumon >/dev/null
exec ./build/bin/gpumon "$@"
