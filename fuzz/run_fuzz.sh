#!/bin/sh
# Builds the fuzz target (clang, AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs it for a bounded number of executions, starting from the seed
# corpus in fuzz/corpus (new inputs go to BUILD_DIR/fuzz-corpus; the seed
# corpus is only read). A crash leaves its input as BUILD_DIR/crash-* and
# fails the script.
# Usage: fuzz/run_fuzz.sh [BUILD_DIR] [RUNS]
#   (defaults: build-fuzz, 3000 executions; at most VQX_FUZZ_SECONDS, 600)
# Environment: VQX_FUZZ_SEED (1), VQX_FUZZ_FAULTS (fault classes, see
# fuzz/driver_fuzz.cpp; default all).
set -eu
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
runs=${2:-3000}
./scripts/deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVQX_BUILD_FUZZ=ON -DVQX_BUILD_TESTS=OFF \
  -DVQX_BUILD_BENCH=OFF -DVQX_BUILD_TOOLS=OFF -DVQX_SANITIZE=address,undefined >/dev/null
cmake --build "$build" --target driver_fuzz
mkdir -p "$build/fuzz-corpus"
cd "$build"
exec ./fuzz/driver_fuzz -runs="$runs" -max_total_time="${VQX_FUZZ_SECONDS:-600}" \
  -seed="${VQX_FUZZ_SEED:-1}" -timeout=30 -max_len=512 -print_final_stats=1 \
  fuzz-corpus ../fuzz/corpus
