#!/usr/bin/env bash
# Builds the library and every test three ways (plain, ASan+UBSan, TSan) and
# runs the whole suite in each; runs the integration tests of the plain build
# once more under valgrind memcheck; then the fuzz targets. Any failure, any
# sanitizer or memcheck report fails the run.
#
# FUZZ_SECONDS (default 20) bounds each fuzz target's run; 0 leaves fuzzing
# out (CI runs scripts/run-fuzz.sh --runs afterwards instead).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" || exit 1
jobs=$(nproc)
passed=0
failed=0
timings=()
# Runs a stage and notes how long it took (shown at the end).
timed() {
  local label=$1 start=$SECONDS rc
  shift
  "$@"
  rc=$?
  timings+=("$(printf '%-28s %4d s' "$label" $((SECONDS - start)))")
  return $rc
}
run_config() {
  local name=$1 sanitize=$2 type=$3
  local dir="$root/build/$name"
  echo "=== $name build ==="
  # The emulator is asked for (a missing umockdev fails here rather than
  # dropping the suites that need it) and a warning fails the build.
  cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE="$type" -DKARVEX_SANITIZE="$sanitize" \
    -DKARVEX_BUILD_EMULATOR=ON -DKARVEX_WERROR=ON >/dev/null || return 1
  timed "$name build" cmake --build "$dir" -j"$jobs" || return 1
  timed "$name ctest" bash -c 'cd "$1" && ctest --output-on-failure -j"$2"' _ "$dir" "$jobs"
}

# The integration tests (library internals against emulated adapters) under
# valgrind memcheck: no error, no definitely lost block. valgrind and
# umockdev's preload library work together; tests/valgrind.supp holds the
# few umockdev/GLib artefacts (and nothing of the library).
memcheck_one() {
  local exe=$1 log="$1.memcheck.log"
  if umockdev-wrapper valgrind -q --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
      --errors-for-leak-kinds=definite --suppressions="$root/tests/valgrind.supp" "$exe" >"$log" 2>&1; then
    echo "  $(basename "$exe"): no errors, no definite leaks"
  else
    echo "*** $(basename "$exe") under valgrind failed; end of $log:"
    tail -n 60 "$log"
    return 1
  fi
}
run_memcheck() {
  echo "=== memcheck (plain build, integration tests) ==="
  command -v valgrind >/dev/null || { echo "valgrind not installed"; return 1; }
  local exes=()
  mapfile -t exes < <("$root/scripts/integration-tests.sh" "$root/build/plain")
  [ "${#exes[@]}" -gt 0 ] && [ -x "${exes[0]}" ] || { echo "no integration tests in build/plain"; return 1; }
  export -f memcheck_one
  export root
  printf '%s\n' "${exes[@]}" | xargs -P "$jobs" -I{} bash -c 'memcheck_one "$@"' _ {}
}

for cfg in "plain::RelWithDebInfo" "asan:address:Debug" "tsan:thread:RelWithDebInfo"; do
  IFS=: read -r name sanitize type <<<"$cfg"
  if run_config "$name" "$sanitize" "$type"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "*** $name build failed"; fi
  if [ "$name" = plain ]; then
    if timed "memcheck" run_memcheck; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "*** memcheck failed"; fi
  fi
done
if [ "${FUZZ_SECONDS:-20}" = 0 ]; then
  echo "=== fuzzing left out (FUZZ_SECONDS=0) ==="
elif [ -x "$root/scripts/run-fuzz.sh" ]; then
  if timed "fuzzing" "$root/scripts/run-fuzz.sh" "${FUZZ_SECONDS:-20}"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "*** fuzzing failed"; fi
fi
echo "=== time per stage ==="
printf '%s\n' "${timings[@]}"
echo "configurations: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
