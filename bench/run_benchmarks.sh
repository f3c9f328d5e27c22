#!/bin/sh
# Builds the benchmark programs (Release) and runs them all, each benchmark
# repeated (default 9 times) with the repetitions of a program interleaved
# at random, so that the driver and its bare baselines share the machine's
# moods; then runs the unpaced throughput in ten processes of its own (its
# figure depends on where the scheduler places the client and the pump,
# which is settled once per process, so it is judged across processes).
# Writes
#   OUT_DIR/benchmarks.json   every repetition of every benchmark
#   OUT_DIR/benchmarks.md     a short table: median, spread, counters, and
#                             each goal beside its figure
# Usage: bench/run_benchmarks.sh [BUILD_DIR] [OUT_DIR]
#   (defaults: build-bench, BUILD_DIR/bench-results)
# A BUILD_DIR that already holds a CMake build is reused as it is (only the
# benchmark programs are brought up to date); it must be a Release build
# without sanitizers, or the script stops. A new BUILD_DIR is configured as
# one, after scripts/deps.sh.
# Environment: VQX_BENCH_REPETITIONS (9), VQX_BENCH_MIN_TIME (0.3 s per
# repetition), VQX_BENCH_RESOLUTIONS ("1280x800 640x480"),
# VQX_BENCH_UNPACED_RUNS (10), VQX_BENCH_REPORT_ONLY=1 (remake the two
# files from OUT_DIR's results).
set -eu
cd "$(dirname "$0")/.."
build=${1:-build-bench}
out=${2:-$build/bench-results}
reps=${VQX_BENCH_REPETITIONS:-9}
min_time=${VQX_BENCH_MIN_TIME:-0.3}
resolutions=${VQX_BENCH_RESOLUTIONS:-"1280x800 640x480"}
unpaced_runs=${VQX_BENCH_UNPACED_RUNS:-10}

# cached NAME: the value of NAME in the build's CMake cache (empty if unset).
cached() {
  sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt" | head -n 1
}

if [ "${VQX_BENCH_REPORT_ONLY:-0}" = 1 ]; then
  # Only remake benchmarks.json and benchmarks.md from an earlier run.
  names=$(cd "$out" && ls ./*.csv | sed 's|^\./||; s|\.csv$||' | grep -v '^unpaced_runs$' | tr '\n' ' ')
else
  if [ -f "$build/CMakeCache.txt" ]; then
    type=$(cached CMAKE_BUILD_TYPE)
    sanitize=$(cached VQX_SANITIZE)
    if [ "$type" != Release ] || [ -n "$sanitize" ]; then
      echo "run_benchmarks: $build is a '${type:-no type}' build${sanitize:+ with VQX_SANITIZE=$sanitize};" \
        "benchmarks need a Release build without sanitizers (give another BUILD_DIR)" >&2
      exit 2
    fi
    if [ "$(cached VQX_BUILD_BENCH)" = OFF ]; then
      echo "run_benchmarks: $build was configured with VQX_BUILD_BENCH=OFF" >&2
      exit 2
    fi
    echo "reusing the Release build in $build"
  else
    ./scripts/deps.sh
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVQX_BUILD_TESTS=OFF \
      -DVQX_BUILD_TOOLS=OFF -DVQX_SANITIZE= >/dev/null
  fi
  cmake --build "$build" --target driver_bench monitor_bench throughput_bench exposure_bench
  mkdir -p "$out"

  # run NAME PROGRAM: NAME.json (all repetitions), NAME.csv (aggregates).
  run() {
    name=$1
    program=$2
    echo "running $name"
    "$program" --benchmark_repetitions="$reps" --benchmark_enable_random_interleaving=true \
      --benchmark_min_time="$min_time" --benchmark_display_aggregates_only=true \
      --benchmark_out="$out/$name.json" --benchmark_out_format=json \
      --benchmark_format=csv >"$out/$name.csv" 2>"$out/$name.log"
  }

  names=""
  run monitor "$build/bench/monitor_bench"; names="$names monitor"
  run driver "$build/bench/driver_bench"; names="$names driver"
  for r in $resolutions; do
    VQX_BENCH_RESOLUTION=$r run "throughput_$r" "$build/bench/throughput_bench"
    names="$names throughput_$r"
  done
  run exposure "$build/bench/exposure_bench"; names="$names exposure"

  # The unpaced throughput at 1280x800, once in each of ten processes:
  # client frames per second, one line a run.
  echo "running the unpaced throughput $unpaced_runs times"
  : >"$out/unpaced_runs.csv"
  i=0
  while [ "$i" -lt "$unpaced_runs" ]; do
    VQX_BENCH_RESOLUTION=1280x800 "$build/bench/throughput_bench" \
      --benchmark_filter='BM_Throughput_Driver/paced:0' --benchmark_min_time="$min_time" \
      --benchmark_format=csv 2>>"$out/unpaced_runs.log" |
      awk -F, '$1 == "name" { for (i = 1; i <= NF; ++i) if ($i == "items_per_second") c = i; next }
               c { print $c }' >>"$out/unpaced_runs.csv"
    i=$((i + 1))
  done
fi

# One JSON document: {"monitor": {...}, "driver": {...}, ...}
{
  printf '{\n'
  sep=""
  for n in $names; do
    printf '%s"%s": ' "$sep" "$n"
    cat "$out/$n.json"
    sep=","
  done
  printf '}\n'
} >"$out/benchmarks.json"

# The table, from the aggregate rows (mean, median, stddev) of the CSVs,
# and the unpaced runs (a line "unpaced,FRAMES_PER_SECOND" each).
{
  for n in $names; do cat "$out/$n.csv"; done
  if [ -f "$out/unpaced_runs.csv" ]; then sed 's/^/unpaced,/' "$out/unpaced_runs.csv"; fi
} | awk -F, '
function unq(s) { gsub(/"/, "", s); return s }
$1 == "unpaced" {
  if ($2 == "") next
  runs++
  if (runs == 1 || $2 < umin) umin = $2
  if (runs == 1 || $2 > umax) umax = $2
  next
}
$1 == "name" {
  split("", col)
  for (i = 1; i <= NF; ++i) col[unq($i)] = i
  ncol = NF
  next
}
{
  name = unq($1)
  kind = name; sub(/.*_/, "", kind)
  base = name; sub(/_[a-z]+$/, "", base)
  lab = ("label" in col) ? unq($(col["label"])) : ""
  if (lab != "") base = base " (" lab ")"
  if (kind == "median") {
    if (!(base in seen)) { order[++count] = base; seen[base] = 1 }
    median[base] = $(col["real_time"]); unit[base] = $(col["time_unit"])
    ips[base] = $(col["items_per_second"])
    extra = ""
    for (c in col) if (col[c] > 10 && $(col[c]) != "") extra = extra sprintf("%s=%.4g ", c, $(col[c]))
    counters[base] = extra
  } else if (kind == "mean") {
    mean[base] = $(col["real_time"])
  } else if (kind == "stddev") {
    sd[base] = $(col["real_time"])
  }
}
function value(pattern,   k) {
  for (k = 1; k <= count; ++k) if (order[k] ~ pattern) return median[order[k]]
  return ""
}
function item(pattern,   k) {
  for (k = 1; k <= count; ++k) if (index(order[k], pattern)) return ips[order[k]]
  return ""
}
function counter(pattern, name,   k, s, i) {
  for (k = 1; k <= count; ++k) if (order[k] ~ pattern) {
    s = counters[order[k]]; i = index(s, name "=")
    if (i) { s = substr(s, i + length(name) + 1); sub(/ .*/, "", s); return s }
  }
  return ""
}
function ratio(a, b) { return (a == "" || b == "" || b == 0) ? "n/a" : sprintf("%.2fx", a / b) }
# goal(TEXT, GOAL, NOW, MET): one row; MET is 1, 0, or "" (a reference row
# or a figure that is missing).
function goal(text, g, now, met) {
  printf "| %s | %s | %s | %s |\n", text, g, now, (met == "" ? "" : (met ? "yes" : "no"))
}
function atmost(x, limit) { return x == "" ? "" : (x + 0 <= limit) }
END {
  print "| Benchmark | Median | Spread (CV) | Items/s | Counters |"
  print "|---|---|---|---|---|"
  for (k = 1; k <= count; ++k) {
    b = order[k]
    cv = (mean[b] > 0) ? sprintf("%.1f %%", 100 * sd[b] / mean[b]) : "n/a"
    it = (ips[b] == "") ? "" : sprintf("%.0f", ips[b])
    printf "| %s | %.4g %s | %s | %s | %s|\n", b, median[b], unit[b], cv, it, counters[b]
  }
  print ""
  print "| Target | Goal | Now | Met |"
  print "|---|---|---|---|"
  # Paired: driver and bare round trips alternate frame by frame in one
  # benchmark; the median ratio of the repetitions. Separate: the ratio
  # of the medians of two benchmarks run at different moments.
  pu = counter("RoundTrip_Paired/pinned:0", "driver_per_bare")
  pp = counter("RoundTrip_Paired/pinned:1", "driver_per_bare")
  goal("Round trip vs bare, unpinned, paired", "at most 1.15x", (pu == "" ? "n/a" : sprintf("%.2fx", pu)), atmost(pu, 1.15))
  goal("Round trip vs bare, pinned to two CPUs, paired", "at most 1.15x", (pp == "" ? "n/a" : sprintf("%.2fx", pp)), atmost(pp, 1.15))
  goal("Round trip vs bare, unpinned / pinned, separate benchmarks", "(reference)", ratio(value("RoundTrip_Driver/pinned:0"), value("RoundTrip_Bare/pinned:0")) " / " ratio(value("RoundTrip_Driver/pinned:1"), value("RoundTrip_Bare/pinned:1")), "")
  w = value("WaitingFrame_Driver")
  goal("GetNewScan + UnlockBuffer, frame waiting", "at most 250 ns", (w == "" ? "n/a" : sprintf("%.0f ns", w)), atmost(w, 250))
  goal("GetNewScan + UnlockBuffer vs a bare take and give-back", "(reference)", ratio(w, value("WaitingFrame_Bare")), "")
  # Paced: every frame reaches the client, one frame in flight, as in the
  # paced bare pipeline. Unpaced: the hardware layer delivers into every
  # armed buffer at once and a frame not yet taken is replaced by a newer
  # one, as the bare producer runs up to 4 buffers ahead.
  c = counter("Throughput_Driver/paced:1/real_time .1280x800", "cpu_us_per_frame")
  cu = counter("Throughput_Driver/paced:0/real_time .1280x800", "cpu_us_per_frame")
  cb = counter("Throughput_Bare/paced:1/real_time .1280x800", "cpu_us_per_frame")
  cbu = counter("Throughput_Bare/paced:0/real_time .1280x800", "cpu_us_per_frame")
  r = (c == "" || cb == "") ? "" : c / cb
  goal("CPU per delivered frame (all threads, 1280x800), paced, vs the bare pipeline paced alike", "at most 2x", (r == "" ? "n/a" : sprintf("%.2fx (%s / %s us)", r, c, cb)), atmost(r, 2))
  r = (cu == "" || cbu == "") ? "" : cu / cbu
  goal("CPU per delivered frame, unpaced, vs the bare pipeline running ahead", "(reference)", (r == "" ? "n/a" : sprintf("%.2fx (%s / %s us)", r, cu, cbu)), "")
  goal("CPU per delivered frame, paced driver vs the bare pipeline running ahead", "(reference: the paced bare pipeline gives " ratio(cb, cbu) ")", ratio(c, cbu), "")
  s = counter("Throughput_Driver/paced:0/real_time .1280x800", "switches_per_frame")
  sp = counter("Throughput_Driver/paced:1/real_time .1280x800", "switches_per_frame")
  sb = counter("Throughput_Bare/paced:1/real_time .1280x800", "switches_per_frame")
  goal("Thread switches per delivered frame, unpaced", "at most 1.2", (s == "" ? "n/a" : s), atmost(s, 1.2))
  goal("Thread switches per delivered frame, paced", "at most as many as the paced bare pipeline" (sb == "" ? "" : " (" sb ")"), (sp == "" ? "n/a" : sp), (sp == "" || sb == "") ? "" : (sp + 0 <= sb + 0))
  goal("Unpaced client frames per second, " runs " processes, largest / smallest", "at most 2x", (runs ? sprintf("%.2fx (%.0f to %.0f)", umax / umin, umin, umax) : "n/a"), (runs ? (umax <= 2 * umin) : ""))
  f = item("Throughput_Driver/paced:1/real_time (1280x800)")
  fu = item("Throughput_Driver/paced:0/real_time (1280x800)")
  goal("Frames per second at 1280x800, paced / unpaced", "(reference)", (f == "" ? "n/a" : sprintf("%.0f", f)) " / " (fu == "" ? "n/a" : sprintf("%.0f", fu)), "")
  f6 = item("Throughput_Driver/paced:1/real_time (640x480)")
  goal("Frames per second, 640x480 vs 1280x800, paced", "(reference)", ratio(f6, f), "")
  a = counter("Throughput_Driver/paced:1/real_time .1280x800", "allocs_per_frame")
  goal("Heap allocations per frame", "0", (a == "" ? "n/a" : a), (a == "" ? "" : (a + 0 == 0)))
}' >"$out/benchmarks.md"

cat "$out/benchmarks.md"
echo "results: $out/benchmarks.json, $out/benchmarks.md"
