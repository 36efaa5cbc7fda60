#!/usr/bin/env bash
# Renders docs/overlay.png, the overlay picture of the README: gpumon on the
# recorded RX 7900 XTX machine, whose sensors follow a game starting, with the
# usage of 120 refreshes as the curve (the machine moves its values on once
# reads pause for 50 ms, hence the period). Builds first when needed.
set -euo pipefail
cd "$(dirname "$0")/.."
./tools/install-deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j"$(nproc)" --target gpumon zev_machines >/dev/null
mkdir -p docs
./build/bin/gpumon --machine machines/amd-rdna3-rx7900xtx --watch 0.08 --count 120 \
  --overlay docs/overlay.png --size 800x400 >/dev/null
echo "docs/overlay.png written"
