#!/usr/bin/env bash
# Builds every fuzz target (fuzz/fuzz_*.cpp) with clang into build/fuzz and
# runs each for SECONDS seconds. Fails on a build error or on any finding
# (crash, sanitizer report, leak, timeout, out-of-memory).
#
#   scripts/run-fuzz.sh [SECONDS]      (default 20)
#
# Seeds come from fuzz/corpus/<name without fuzz_>/ and are not modified; new
# inputs go to build/fuzz/corpus/<target>/, findings to build/fuzz/artifacts/<target>/.
set -uo pipefail
seconds=${1:-20}
if ! [[ "$seconds" =~ ^[0-9]+$ ]] || [ "$seconds" -eq 0 ]; then
  echo "usage: $0 SECONDS" >&2
  exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/fuzz"
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
cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" >/dev/null || exit 1
cmake --build "$build" -j"$jobs" || exit 1

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:verify_asan_link_order=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=0
for src in "${targets[@]}"; do
  name=$(basename "$src" .cpp)
  exe="$build/$name"
  seeds="$root/fuzz/corpus/${name#fuzz_}"
  work="$build/corpus/$name"
  artifacts="$build/artifacts/$name"
  log="$build/$name.log"
  mkdir -p "$work" "$artifacts"
  rm -f "$artifacts"/*
  wrapper=()
  if [ -s "$build/$name.wrapper" ]; then
    read -r -a wrapper <"$build/$name.wrapper"
  fi
  dirs=("$work")
  [ -d "$seeds" ] && dirs+=("$seeds")
  echo "=== $name: ${seconds}s ==="
  "${wrapper[@]}" "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$artifacts/" -print_final_stats=1 "${dirs[@]}" >"$log" 2>&1
  rc=$?
  findings=("$artifacts"/*)
  if [ $rc -ne 0 ] || [ ${#findings[@]} -ne 0 ]; then
    echo "*** $name: exit code $rc, ${#findings[@]} finding(s) in $artifacts; end of $log:"
    tail -n 40 "$log"
    failed=$((failed + 1))
  else
    grep -E '^stat::number_of_executed_units|^stat::new_units_added' "$log" | sed "s/^/  /"
  fi
done
[ "$failed" -eq 0 ]
