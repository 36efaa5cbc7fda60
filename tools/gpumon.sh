#!/usr/bin/env bash
# Builds the plug-in, the reference host library and gpumon, then runs gpumon
# with the arguments given (for example --machine machines/desktop-no-gpu).
# It installs only what building and running gpumon needs, and builds in
# build/ with CMake's default generator, as the README's commands do, so the
# two share the folder.
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j"$(nproc)" --target gpumon zev_machines >/dev/null
exec ./build/bin/gpumon "$@"
