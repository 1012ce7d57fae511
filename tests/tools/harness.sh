# Minimal shunit2-style harness for the tool tests: every function named
# test_* in the sourcing script is run in order; assertions record failures
# and the script's exit status is 0 only when all passed.
#
# run_prog CMD...  runs CMD with a time limit and stores $status, $output
#                  (stdout) and $errors (stderr).
# emu [OPTS] -- CMD...   runs CMD under karvex-emu (through run_prog).
# emuc [OPTS] -- CMD...  the same with a control FIFO whose path is in $CTL_FIFO
#                  (and in the command's environment): a command script acts
#                  with 'echo "unplug 0" >"$CTL_FIFO"' when it is ready.
# wait_for FILE REGEX [WHAT]  (also inside commands) waits until a line of
#                  FILE matches REGEX; after $WAIT_LIMIT s it says what it
#                  waited for on stderr and returns 1.
# wait_cmd REGEX CMD...  the same for the output of CMD, run again and again.
# $TEST_TMP        an empty directory of the running test's own, for files a
#                  background command writes and wait_for reads.

set -u
HARNESS_FAILURES=0
HARNESS_CURRENT=""
HARNESS_TMP=$(mktemp -d)
trap 'rm -rf "$HARNESS_TMP"' EXIT
RUN_TIMEOUT=${RUN_TIMEOUT:-90}
export WAIT_LIMIT=${WAIT_LIMIT:-60}
export CTL_FIFO="$HARNESS_TMP/control"

wait_for() {
    local end=$((SECONDS + WAIT_LIMIT))
    until grep -Eq -- "$2" "$1" 2>/dev/null; do
        if [ "$SECONDS" -ge "$end" ]; then
            echo "timed out after ${WAIT_LIMIT}s waiting for ${3:-/$2/ in $1}" >&2
            return 1
        fi
        sleep 0.02
    done
}

wait_cmd() {
    local re=$1 end=$((SECONDS + WAIT_LIMIT))
    shift
    until "$@" 2>/dev/null | grep -Eq -- "$re"; do
        if [ "$SECONDS" -ge "$end" ]; then
            echo "timed out after ${WAIT_LIMIT}s waiting for /$re/ from $*" >&2
            return 1
        fi
        sleep 0.02
    done
}
export -f wait_for wait_cmd

fail() {
    echo "FAIL: $HARNESS_CURRENT: $*" >&2
    HARNESS_FAILURES=$((HARNESS_FAILURES + 1))
}

run_prog() {
    timeout --kill-after=5 "$RUN_TIMEOUT" "$@" >"$HARNESS_TMP/out" 2>"$HARNESS_TMP/err"
    status=$?
    output=$(cat "$HARNESS_TMP/out")
    errors=$(cat "$HARNESS_TMP/err")
}

emu() {
    run_prog "$KARVEX_EMU" "$@"
}

emuc() {
    run_prog "$KARVEX_EMU" --control "$CTL_FIFO" "$@"
}

status_is() {
    if [ "$status" -ne "$1" ]; then
        fail "exit status $status, expected $1${2:+ ($2)}"
        echo "  stdout: $output" >&2
        echo "  stderr: $errors" >&2
    fi
}

output_is() {
    if [ "$output" != "$1" ]; then
        fail "unexpected output${2:+ ($2)}"
        diff <(printf '%s\n' "$1") <(printf '%s\n' "$output") | sed 's/^/  /' >&2
    fi
}

output_matches() { # extended regex against the whole output: ^ and $ are its ends, \n matches a newline
    if ! [[ "$output" =~ $1 ]]; then
        fail "output does not match /$1/${2:+ ($2)}"
        echo "  stdout: $output" >&2
    fi
}

errors_contain() {
    if [[ "$errors" != *"$1"* ]]; then
        fail "stderr lacks '$1'${2:+ ($2)}"
        echo "  stderr: $errors" >&2
    fi
}

errors_empty() {
    if [ -n "$errors" ]; then
        fail "unexpected stderr: $errors"
    fi
}

# Prints the value at a JSON path (list of keys/indices, ';'-separated) of the
# JSON text in $output; fails the test when the text is not valid JSON.
json_get() {
    printf '%s' "$output" >"$HARNESS_TMP/json"
    if ! cmake -DFILE="$HARNESS_TMP/json" -DQUERY="$1" -P "$HARNESS_DIR/json-get.cmake" 2>"$HARNESS_TMP/jerr"; then
        fail "JSON query '$1' failed: $(cat "$HARNESS_TMP/jerr")"
        echo "  json: $output" >&2
    fi
}

json_is() { # PATH EXPECTED
    local got
    got=$(json_get "$1")
    if [ "$got" != "$2" ]; then
        fail "JSON $1 is '$got', expected '$2'"
    fi
}

run_tests() {
    local t
    for t in $(declare -F | awk '{print $3}' | grep '^test_'); do
        HARNESS_CURRENT=$t
        # A directory of its own for each test's scratch files: a file left by
        # an earlier test would satisfy a wait_for before the command under
        # test has even truncated it.
        TEST_TMP="$HARNESS_TMP/$t"
        mkdir -p "$TEST_TMP"
        local before=$HARNESS_FAILURES
        "$t"
        if [ "$HARNESS_FAILURES" -eq "$before" ]; then
            echo "ok   $t"
        else
            echo "FAIL $t"
        fi
    done
    if [ "$HARNESS_FAILURES" -ne 0 ]; then
        echo "$HARNESS_FAILURES failure(s)"
        exit 1
    fi
    echo "all passed"
}
