#!/usr/bin/env bash
# Builds the plug-in, the reference host library and gpumon, then runs gpumon
# with the arguments given (for example --machine machines/desktop-no-gpu).
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j"$(nproc)" --target gpumon zev_machines >/dev/null
exec ./build/bin/gpumon "$@"
