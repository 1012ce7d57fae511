#!/usr/bin/env bash
# Builds every fuzz target (fuzz/fuzz_*.cpp) with clang into build/fuzz and
# runs each, for a fixed time or for a fixed number of executions. Fails on a
# build error or on any finding (crash, sanitizer report, leak, timeout,
# out-of-memory), and in runs mode also when a target did fewer executions.
#
#   scripts/run-fuzz.sh [SECONDS]                 each target for SECONDS (default 20)
#   scripts/run-fuzz.sh --runs N [--runs-for TARGET=M]... [--time-for TARGET=S]... [--parallel J]
#                                                 each target for N executions (TARGET for M
#                                                 executions, or for S seconds)
#
# --parallel J runs up to J targets at the same time (default 1; the
# umockdev-backed targets spend much of their time waiting on umockdev's
# thread, so two of them share two cores well). FUZZ_BUILD sets the build
# directory (default build/fuzz), FUZZ_JOBS the build's parallelism.
#
# Seeds come from fuzz/corpus/<name without fuzz_>/ and are not modified; new
# inputs go to <build>/corpus/<target>/, findings to <build>/artifacts/<target>/,
# each target's output to <build>/<target>.log. Per-target libFuzzer flags and
# the wrapper a target runs under come from fuzz/CMakeLists.txt.
set -uo pipefail
usage() {
  echo "usage: $0 [SECONDS] | --runs N [--runs-for TARGET=M]... [--time-for TARGET=S]... [--parallel J]" >&2
  exit 2
}
seconds=20
runs=0
parallel=1
declare -A runs_for=()
declare -A time_for=()
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) [ $# -ge 2 ] || usage; runs=$2; shift 2 ;;
    --runs-for)
      [ $# -ge 2 ] && [[ "$2" =~ ^(fuzz_[A-Za-z0-9_]+)=([0-9]+)$ ]] || usage
      runs_for[${BASH_REMATCH[1]}]=${BASH_REMATCH[2]}
      shift 2 ;;
    --time-for)
      [ $# -ge 2 ] && [[ "$2" =~ ^(fuzz_[A-Za-z0-9_]+)=([0-9]+)$ ]] || usage
      time_for[${BASH_REMATCH[1]}]=${BASH_REMATCH[2]}
      shift 2 ;;
    --parallel) [ $# -ge 2 ] || usage; parallel=$2; shift 2 ;;
    -*) usage ;;
    *) seconds=$1; shift ;;
  esac
done
for n in "$seconds" "$runs" "$parallel"; do
  [[ "$n" =~ ^[0-9]+$ ]] || usage
done
[ "$seconds" -gt 0 ] && [ "$parallel" -gt 0 ] || usage

root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD:-$root/build/fuzz}
jobs=${FUZZ_JOBS:-2}
cxx=${FUZZ_CXX:-$(command -v clang++-14 || command -v clang++)}
cc=${FUZZ_CC:-$(command -v clang-14 || command -v clang)}
if [ -z "$cxx" ] || [ -z "$cc" ]; then
  echo "run-fuzz: clang not found" >&2
  exit 1
fi

shopt -s nullglob
targets=("$root"/fuzz/fuzz_*.cpp)
if [ ${#targets[@]} -eq 0 ]; then
  echo "run-fuzz: no fuzz targets in $root/fuzz" >&2
  exit 1
fi

echo "=== fuzz build ==="
cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" -DKARVEX_WERROR=ON >/dev/null || exit 1
cmake --build "$build" -j"$jobs" || exit 1

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:verify_asan_link_order=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

# Runs one target; the verdict goes to <log>.result ("ok" or the reason).
run_target() {
  local name=$1
  local exe="$build/$name"
  local seeds="$root/fuzz/corpus/${name#fuzz_}"
  local work="$build/corpus/$name"
  local artifacts="$build/artifacts/$name"
  local log="$build/$name.log"
  mkdir -p "$work" "$artifacts"
  rm -f "$artifacts"/* "$log.result"
  local wrapper=() flags=()
  [ -s "$build/$name.wrapper" ] && read -r -a wrapper <"$build/$name.wrapper"
  [ -s "$build/$name.flags" ] && read -r -a flags <"$build/$name.flags"
  local dirs=("$work")
  [ -d "$seeds" ] && dirs+=("$seeds")
  local want=${runs_for[$name]:-$runs}
  local limit=(-max_total_time="$seconds")
  [ "$runs" -gt 0 ] && limit=(-runs="$want")
  # A target whose executions can each wait out an adapter's time-out (a
  # descriptor the firmware cannot answer for) is bounded by time instead.
  if [ "$runs" -gt 0 ] && [ "${time_for[$name]:-0}" -gt 0 ]; then
    limit=(-max_total_time="${time_for[$name]}")
    want=0
  fi
  local start=$SECONDS
  "${wrapper[@]}" "$exe" "${limit[@]}" -timeout=10 -rss_limit_mb=2048 "${flags[@]}" \
    -artifact_prefix="$artifacts/" -print_final_stats=1 "${dirs[@]}" >"$log" 2>&1
  local rc=$?
  local findings=("$artifacts"/*)
  local executed
  executed=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  if [ $rc -ne 0 ] || [ ${#findings[@]} -ne 0 ]; then
    echo "exit code $rc, ${#findings[@]} finding(s) in $artifacts" >"$log.result"
  elif [ "$runs" -gt 0 ] && [ "${executed:-0}" -lt "$want" ]; then
    echo "only ${executed:-0} of $want executions" >"$log.result"
  else
    echo "ok ${executed:-?} executions in $((SECONDS - start)) s" >"$log.result"
  fi
}

names=()
for src in "${targets[@]}"; do
  names+=("$(basename "$src" .cpp)")
done
if [ "$runs" -gt 0 ]; then
  echo "=== fuzzing: ${#names[@]} target(s), $runs executions each, $parallel at a time ==="
else
  echo "=== fuzzing: ${#names[@]} target(s), ${seconds}s each, $parallel at a time ==="
fi
running=0
for name in "${names[@]}"; do
  if [ "$running" -ge "$parallel" ]; then
    wait -n
    running=$((running - 1))
  fi
  echo "--- $name started"
  run_target "$name" &
  running=$((running + 1))
done
wait

failed=0
for name in "${names[@]}"; do
  log="$build/$name.log"
  result=$(cat "$log.result" 2>/dev/null || echo "no result")
  if [[ "$result" == ok* ]]; then
    echo "=== $name: $result"
    grep -E '^stat::(average_exec_per_sec|new_units_added|peak_rss_mb)' "$log" | sed "s/^/  /"
  else
    echo "*** $name: $result; end of $log:"
    tail -n 40 "$log"
    failed=$((failed + 1))
  fi
done
[ "$failed" -eq 0 ]
