#!/usr/bin/env bash
# Runs every libkarvex benchmark and writes bench/RESULTS.md.
#
#   bench/run.sh                 configure and build build/bench (Release), then run
#   BUILD_DIR=build/h8 bench/run.sh   use (and build) another build directory
#   NICE=-10 bench/run.sh        run at another priority (root only for negative values)
#   BASE_BUILD_DIR=/path/to/other/tree/build/bench bench/run.sh
#                                also run the library's round trips and pin event
#                                latency of another build (say, of the main branch) right
#                                after each of this build's runs: "before" and "after"
#                                tables of one run. That build must already be configured
#                                with -DKARVEX_BUILD_BENCH=ON; it is brought up to date.
#
# Needs umockdev-wrapper, valgrind, libbenchmark-dev and libhidapi-dev. Takes
# about five minutes; the machine should be as quiet as it can be.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${BUILD_DIR:-$root/build/bench}
case "$build" in /*) ;; *) build=$root/$build ;; esac
loops=1000

cmake -S "$root" -B "$build" -DKARVEX_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target karvex_bench -j2 >/dev/null
bench=$build/bench/karvex_bench
base=${BASE_BUILD_DIR:-}
if [ -n "$base" ]; then
  cmake --build "$base" --target karvex_bench -j2 >/dev/null
fi

# The raw results stay in the build directory: make_results.py can turn them
# into RESULTS.md again (python3 bench/make_results.py <dir> > bench/RESULTS.md).
out=$build/bench-results
rm -rf "$out"
mkdir -p "$out"

prio=()
if [ -n "${NICE:-}" ]; then
  prio=(nice -n "$NICE")
fi
run() {
  "${prio[@]}" umockdev-wrapper "$bench" "$@"
}
# run_base <name> <args>: the library's runs of the baseline build, into base_<name>.json.
run_base() {
  local name=$1
  shift
  [ -n "$base" ] || return 0
  echo "   (baseline build)"
  "${prio[@]}" umockdev-wrapper "$base/bench/karvex_bench" "$@" --benchmark_enable_random_interleaving=true \
    --benchmark_out="$out/base_$name.json" --benchmark_out_format=json
}

{
  echo "date: $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "host: $(uname -n)"
  echo "kernel: $(uname -sr)"
  echo "cpu: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ //')"
  echo "cores: $(nproc)"
  echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "build: $(grep -m1 CMAKE_BUILD_TYPE: "$build/CMakeCache.txt" | cut -d= -f2), $(cd "$root" && git rev-parse --short HEAD 2>/dev/null || echo unknown) plus working tree"
  echo "priority: nice ${NICE:-0}"
  echo "callgrind loops: $loops"
  if [ -n "$base" ]; then
    echo "baseline: $(cd "$(grep -m1 CMAKE_HOME_DIRECTORY: "$base/CMakeCache.txt" | cut -d= -f2)" && git rev-parse --short HEAD 2>/dev/null || echo unknown)"
  fi
} >"$out/machine.txt"

# Every measurement but the paced pin events is repeated; the repetitions of
# all benchmarks of a run are interleaved in random order, so that a change of
# the machine's load during the run does not favour one client over another.
echo "== round trips, allocations, pin events (answer in write())"
run --benchmark_filter='^(RoundTrip|Reference/(Thread|Firmware)|PinEvent)' --benchmark_enable_random_interleaving=true \
  --benchmark_out="$out/main.json" --benchmark_out_format=json
run_base main --benchmark_filter='^(RoundTrip/.*/library|PinEvent/Latency/library)'
echo "== one adapter against two (answer in write())"
run --benchmark_filter='^(Parallel|Reference/CpuSpin)' --benchmark_enable_random_interleaving=true \
  --benchmark_out="$out/parallel.json" --benchmark_out_format=json
echo "== the same with a firmware thread"
run --answer=thread --benchmark_filter='^(RoundTrip|Parallel)' --benchmark_enable_random_interleaving=true \
  --benchmark_out="$out/thread.json" --benchmark_out_format=json
echo "== round trips with a firmware thread answering after 250 us"
run --answer=thread --latency-us=250 --benchmark_filter='RoundTrip' --benchmark_enable_random_interleaving=true \
  --benchmark_out="$out/thread250.json" --benchmark_out_format=json
run_base thread250 --answer=thread --latency-us=250 --benchmark_filter='^RoundTrip/.*/library'
for n in 10 100 1000; do
  echo "== enumeration and open among $n hidraw devices"
  run --mode=enum --devices="$n" --benchmark_out="$out/enum_$n.json" --benchmark_out_format=json
done
echo "== instructions per call (callgrind)"
"${prio[@]}" umockdev-wrapper valgrind --tool=callgrind --callgrind-out-file="$out/cg.out" \
  "$bench" --mode=callgrind --loops=$loops 2>"$out/valgrind.log"
# The client requests dump the three loops as parts 1 (library), 2 (raw), 3 (hidapi).
i=1
for client in library raw hidapi; do
  callgrind_annotate --inclusive=yes --threshold=100 "$out/cg.out.$i" >"$out/cg_$client.txt"
  i=$((i + 1))
done

echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" >>"$out/machine.txt"
python3 "$here/make_results.py" "$out" >"$here/RESULTS.md"
echo "wrote $here/RESULTS.md (raw results in $out)"
