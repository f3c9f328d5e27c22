#!/bin/sh
# Builds the benchmark programs (Release) and runs them all, each benchmark
# repeated (default 9 times) with the repetitions of a program interleaved
# at random, so that the driver and its bare baselines share the machine's
# moods. Writes
#   OUT_DIR/benchmarks.json   every repetition of every benchmark
#   OUT_DIR/benchmarks.md     a short table: median, spread, counters, and
#                             where the driver stands against its targets
# Usage: bench/run_benchmarks.sh [BUILD_DIR] [OUT_DIR]
#   (defaults: build-bench, BUILD_DIR/bench-results)
# Environment: VQX_BENCH_REPETITIONS (9), VQX_BENCH_MIN_TIME (0.3 s per
# repetition), VQX_BENCH_RESOLUTIONS ("1280x800 640x480"),
# VQX_BENCH_REPORT_ONLY=1 (remake the two files from OUT_DIR's results).
set -eu
cd "$(dirname "$0")/.."
build=${1:-build-bench}
out=${2:-$build/bench-results}
reps=${VQX_BENCH_REPETITIONS:-9}
min_time=${VQX_BENCH_MIN_TIME:-0.3}
resolutions=${VQX_BENCH_RESOLUTIONS:-"1280x800 640x480"}

if [ "${VQX_BENCH_REPORT_ONLY:-0}" = 1 ]; then
  # Only remake benchmarks.json and benchmarks.md from an earlier run.
  names=$(cd "$out" && ls ./*.csv | sed 's|^\./||; s|\.csv$||' | tr '\n' ' ')
else
  ./scripts/deps.sh
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVQX_BUILD_TESTS=OFF \
    -DVQX_BUILD_TOOLS=OFF -DVQX_SANITIZE= >/dev/null
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

# The table, from the aggregate rows (mean, median, stddev) of the CSVs.
for n in $names; do cat "$out/$n.csv"; done | awk -F, '
function unq(s) { gsub(/"/, "", s); return s }
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
  print "| Target | Goal | Now |"
  print "|---|---|---|"
  # Paired: driver and bare round trips alternate frame by frame in one
  # benchmark; the median ratio of the repetitions. Separate: the ratio
  # of the medians of two benchmarks run at different moments.
  pu = counter("RoundTrip_Paired/pinned:0", "driver_per_bare")
  pp = counter("RoundTrip_Paired/pinned:1", "driver_per_bare")
  printf "| Round trip vs bare, unpinned, paired / separate | at most 1.10x | %s / %s |\n", (pu == "" ? "n/a" : sprintf("%.2fx", pu)), ratio(value("RoundTrip_Driver/pinned:0"), value("RoundTrip_Bare/pinned:0"))
  printf "| Round trip vs bare, pinned to two CPUs, paired / separate | at most 1.10x | %s / %s |\n", (pp == "" ? "n/a" : sprintf("%.2fx", pp)), ratio(value("RoundTrip_Driver/pinned:1"), value("RoundTrip_Bare/pinned:1"))
  w = value("WaitingFrame_Driver")
  printf "| GetNewScan + UnlockBuffer, frame waiting | at most 250 ns | %s |\n", (w == "" ? "n/a" : sprintf("%.0f ns", w))
  printf "| GetNewScan + UnlockBuffer vs a bare take and give-back | (reference) | %s |\n", ratio(w, value("WaitingFrame_Bare"))
  # Paced: every frame reaches the client, as every frame reaches the bare
  # consumer. Unpaced: the hardware layer delivers at once and a frame not
  # yet taken is replaced by a newer one, so the frames the client takes are fewer
  # than the sensor frames; its CPU is also given per sensor frame.
  f = item("Throughput_Driver/paced:1/real_time (1280x800)")
  fu = item("Throughput_Driver/paced:0/real_time (1280x800)")
  fb = item("Throughput_Bare/real_time (1280x800)")
  printf "| Frames per second at 1280x800, paced / unpaced | at least 50000 | %s / %s |\n", (f == "" ? "n/a" : sprintf("%.0f", f)), (fu == "" ? "n/a" : sprintf("%.0f", fu))
  printf "| Throughput vs the bare pipeline, 1280x800, paced / unpaced | at least 0.50x | %s / %s |\n", ratio(f, fb), ratio(fu, fb)
  c = counter("Throughput_Driver/paced:1/real_time .1280x800", "cpu_us_per_frame")
  cu = counter("Throughput_Driver/paced:0/real_time .1280x800", "cpu_us_per_sensor_frame")
  printf "| CPU per frame, all threads, 1280x800, paced / unpaced per sensor frame | at most 10 us | %s / %s |\n", (c == "" ? "n/a" : c " us"), (cu == "" ? "n/a" : cu " us")
  cb = counter("Throughput_Bare/real_time .1280x800", "cpu_us_per_frame")
  printf "| CPU per frame vs the bare pipeline, 1280x800, paced / unpaced | (reference) | %s / %s |\n", ratio(c, cb), ratio(cu, cb)
  f6 = item("Throughput_Driver/paced:1/real_time (640x480)")
  printf "| Frames per second, 640x480 vs 1280x800, paced | about 1x | %s |\n", ratio(f6, f)
  a = counter("Throughput_Driver/paced:1/real_time .1280x800", "allocs_per_frame")
  printf "| Heap allocations per frame | 0 | %s |\n", (a == "" ? "n/a" : a)
}' >"$out/benchmarks.md"

cat "$out/benchmarks.md"
echo "results: $out/benchmarks.json, $out/benchmarks.md"
