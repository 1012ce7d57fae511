#!/usr/bin/env bash
# Runs the integration, API and tool suites of one build directory ROUNDS
# times in a row while CPU hogs keep every core busy, and stops at the first
# failure with its log. With --memcheck, each round runs the integration
# tests under valgrind memcheck instead (as scripts/test-all.sh does).
# The hogs are killed however the script ends.
#
# --tests REGEX narrows the ctest selection (default '^(it_|api_|tools_)').
#
# Usage: scripts/stress-tests.sh [--rounds N] [--hogs N] [--tests REGEX] [--memcheck] BUILD_DIR
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
rounds=5
hogs=$(nproc)
memcheck=0
tests='^(it_|api_|tools_)'
while [ $# -gt 1 ]; do
  case $1 in
    --rounds) rounds=$2; shift 2 ;;
    --hogs) hogs=$2; shift 2 ;;
    --memcheck) memcheck=1; shift ;;
    --tests) tests=$2; shift 2 ;;
    *) echo "usage: $0 [--rounds N] [--hogs N] [--tests REGEX] [--memcheck] BUILD_DIR" >&2; exit 2 ;;
  esac
done
[ $# -eq 1 ] && [ -f "$1/CTestTestfile.cmake" ] || { echo "usage: $0 [--rounds N] [--hogs N] [--tests REGEX] [--memcheck] BUILD_DIR" >&2; exit 2; }
build=$(cd "$1" && pwd)
logdir=$(mktemp -d "${TMPDIR:-/tmp}/karvex-stress.XXXXXX")

hog_pids=()
suite_pid=
stop_hogs() {
  # The running suite too, when the script is interrupted: its own process group.
  [ -n "$suite_pid" ] && kill -- -"$suite_pid" 2>/dev/null
  local p
  for p in "${hog_pids[@]}"; do kill "$p" 2>/dev/null; done
  for p in "${hog_pids[@]}"; do wait "$p" 2>/dev/null; done
  hog_pids=()
}
trap stop_hogs EXIT
trap 'exit 130' INT TERM
for _ in $(seq "$hogs"); do
  ( while :; do :; done ) &
  hog_pids+=($!)
done

memcheck_all() {
  local exe log exes=()
  mapfile -t exes < <("$root/scripts/integration-tests.sh" "$build")
  [ "${#exes[@]}" -gt 0 ] || { echo "*** no integration tests in $build"; return 1; }
  for exe in "${exes[@]}"; do
    log="$logdir/$(basename "$exe").memcheck.log"
    if ! umockdev-wrapper valgrind -q --error-exitcode=99 --leak-check=full --show-leak-kinds=definite \
        --errors-for-leak-kinds=definite --suppressions="$root/tests/valgrind.supp" "$exe" >"$log" 2>&1; then
      echo "*** $(basename "$exe") failed under valgrind; end of its log ($log):"
      tail -n 80 "$log"
      return 1
    fi
  done
}

echo "stress: $rounds round(s) of $build with $hogs CPU hog(s); logs in $logdir"
total_start=$SECONDS
for round in $(seq "$rounds"); do
  start=$SECONDS
  if [ "$memcheck" = 1 ]; then
    memcheck_all || { echo "stress: round $round of $rounds FAILED"; exit 1; }
  else
    log="$logdir/round$round.log"
    # One test at a time: the hogs take the cores.
    (cd "$build" && exec setsid ctest -R "$tests" --output-on-failure --stop-on-failure) >"$log" 2>&1 &
    suite_pid=$!
    wait "$suite_pid"
    rc=$?
    suite_pid=
    if [ "$rc" -ne 0 ]; then
      echo "*** round $round failed; the failing test's output ($log):"
      sed -n '/Start /,$p' "$log" | grep -v -E '^ +[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed' | tail -n 150
      echo "stress: round $round of $rounds FAILED"
      exit 1
    fi
    grep -E 'tests passed|Total Test time' "$log" | sed 's/^/  /'
  fi
  echo "stress: round $round of $rounds passed in $((SECONDS - start)) s"
done
echo "stress: all $rounds round(s) passed in $((SECONDS - total_start)) s"
