#!/bin/sh
# Installs what is missing, builds everything and runs the whole test suite.
# Usage: ./test.sh [BUILD_DIR] [extra cmake arguments...]
set -eu
cd "$(dirname "$0")"
./scripts/deps.sh
build=${1:-build}
[ $# -gt 0 ] && shift
cmake -S . -B "$build" -G Ninja "$@" >/dev/null
cmake --build "$build" -j "$(nproc)"
cd "$build"
ctest --output-on-failure -j "$(nproc)" --timeout 600
