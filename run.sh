#!/bin/sh
# Installs what is missing, builds the library, the simulated scan engine and
# the vqxscan tool, and scans the default simulated barcode end to end.
# Usage: ./run.sh [vqxscan options...]
set -eu
cd "$(dirname "$0")"
./scripts/deps.sh
cmake -S . -B build -G Ninja >/dev/null
cmake --build build -j "$(nproc)" --target vqxscan
exec ./build/tools/vqxscan "$@"
