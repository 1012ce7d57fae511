#!/usr/bin/env bash
# Builds the library and every test three ways (plain, ASan+UBSan, TSan) and
# runs the whole suite in each; any failure or sanitizer report fails the run.
# FUZZ_SECONDS (default 20) bounds each fuzz target's run.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" || exit 1
jobs=$(nproc)
passed=0
failed=0
run_config() {
  local name=$1 sanitize=$2 type=$3
  local dir="$root/build/$name"
  echo "=== $name build ==="
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DKARVEX_SANITIZE="$sanitize" >/dev/null || return 1
  cmake --build "$dir" -j"$jobs" || return 1
  (cd "$dir" && ctest --output-on-failure -j"$jobs")
}
for cfg in "plain::RelWithDebInfo" "asan:address:Debug" "tsan:thread:RelWithDebInfo"; do
  IFS=: read -r name sanitize type <<<"$cfg"
  if run_config "$name" "$sanitize" "$type"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "*** $name build failed"; fi
done
if [ -x "$root/scripts/run-fuzz.sh" ]; then
  if "$root/scripts/run-fuzz.sh" "${FUZZ_SECONDS:-20}"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "*** fuzzing failed"; fi
fi
echo "test configurations: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
