#!/bin/sh
# Installs what is missing, builds the library, the simulated scan engine and
# the vqxscan tool, and scans the default simulated barcode end to end.
# Usage: ./run.sh [vqxscan options...]
#        ./run.sh --java [--frames N]   the same scan from Java (org.vqxscan, zxing's Java library)
set -eu
cd "$(dirname "$0")"
./scripts/deps.sh
cmake -S . -B build -G Ninja >/dev/null
if [ "${1:-}" = "--java" ]; then
  shift
  cmake --build build -j "$(nproc)" --target vqxscan_java_demo
  exec ./build/java/vqxscan-java "$@"
fi
cmake --build build -j "$(nproc)" --target vqxscan
exec ./build/tools/vqxscan "$@"
