#!/bin/sh
# Builds the fuzz targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs each for a bounded number of executions from its seed corpus: the
# table loader (fuzz/corpus-tables), then the driver (fuzz/corpus). New
# inputs go to BUILD_DIR/fuzz-corpus(-tables); the seeds are only read. A
# crash leaves its input as BUILD_DIR/crash-* and fails the script.
# Usage: fuzz/run_fuzz.sh [BUILD_DIR] [RUNS]
#   (defaults: build-fuzz, 3000 driver executions; the table target runs 20
#   times as many; both together take at most VQX_FUZZ_SECONDS, 600, of
#   which the table target has a tenth)
# Environment: VQX_FUZZ_SEED (1), VQX_FUZZ_FAULTS (fault classes) and
# VQX_FUZZ_ENGINES (engine types) for the driver target, see
# fuzz/driver_fuzz.cpp; default all.
set -eu
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
runs=${2:-3000}
seconds=${VQX_FUZZ_SECONDS:-600}
./scripts/deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVQX_BUILD_FUZZ=ON -DVQX_BUILD_TESTS=OFF \
  -DVQX_BUILD_BENCH=OFF -DVQX_BUILD_TOOLS=OFF -DVQX_SANITIZE=address,undefined >/dev/null
cmake --build "$build" --target table_fuzz driver_fuzz
mkdir -p "$build/fuzz-corpus" "$build/fuzz-corpus-tables"
cd "$build"
./fuzz/table_fuzz -runs=$((runs * 20)) -max_total_time=$((seconds >= 20 ? seconds / 10 : 2)) \
  -seed="${VQX_FUZZ_SEED:-1}" -timeout=10 -max_len=8192 -print_final_stats=1 \
  fuzz-corpus-tables ../fuzz/corpus-tables
exec ./fuzz/driver_fuzz -runs="$runs" -max_total_time=$((seconds >= 20 ? seconds - seconds / 10 : seconds)) \
  -seed="${VQX_FUZZ_SEED:-1}" -timeout=30 -max_len=512 -print_final_stats=1 \
  fuzz-corpus ../fuzz/corpus
