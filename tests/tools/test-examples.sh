#!/usr/bin/env bash
# Every example runs without arguments against emulated adapters and does
# what it says.
# Usage: test-examples.sh KARVEX_EMU EXAMPLES_DIR
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
KARVEX_EMU=$1
EX=$2

test_version() {
    emu -- "$EX/version"
    status_is 0
    output_matches "^libkarvex API version 1\.0 \(compatible with 1\.0: yes\)"
}

test_list_adapters() {
    emu --adapters 2 -- "$EX/list_adapters"
    status_is 0
    output_is '2 adapter(s)
/dev/hidraw0  1209:7a01  release 1.00  serial "KVX000001"
/dev/hidraw1  1209:7a01  release 1.00  serial "KVX000002"'
}

test_blink() {
    emu -- "$EX/blink"
    status_is 0
    output_is "$(for i in 1 2 3 4 5; do printf '/dev/hidraw0: pin 0 on\n/dev/hidraw0: pin 0 off\n'; done)"
}

test_eeprom() {
    emu -- "$EX/eeprom"
    status_is 0
    output_is 'wrote "Hello, Karvex!", read back "Hello, Karvex!": match'
    # Without an EEPROM at 0x50 the write is refused and the status is named.
    emu --eeprom 0:0x51 -- "$EX/eeprom"
    status_is 1
    errors_contain "EEPROM write failed: "
}

test_pin_events() {
    emu --toggle 3:50 -- "$EX/pin_events"
    status_is 0
    output_matches $'^watching pin 3 of /dev/hidraw0\n'
    output_matches $'\n6 event\\(s\\)$'
    # No toggling: nothing arrives within the 3 s, and the example says so.
    emu -- "$EX/pin_events"
    status_is 1
    output_matches $'\n0 event\\(s\\)$'
}

test_hotplug() {
    # The example registers right after its first line; an unplug before that
    # goes unseen, so the adapter goes and comes back until the example has
    # seen both (one removal and one arrival in the normal case).
    emuc -- bash -c '
        stdbuf -oL "$1" >"$2" & p=$!
        wait_for "$2" "waiting for changes" "the example to start" || exit 10
        while kill -0 $p 2>/dev/null; do
            echo "unplug 0" >"$CTL_FIFO"
            WAIT_LIMIT=2 wait_for "$2" "adapter left" 2>/dev/null
            echo "plug 0" >"$CTL_FIFO"
            WAIT_LIMIT=2 wait_for "$2" "removal" 2>/dev/null
        done
        wait $p; s=$?; cat "$2"; exit $s' sh "$EX/hotplug" "$TEST_TMP/hotplug.out"
    status_is 0
    output_matches $'an adapter left; 0 adapter\\(s\\) attached now\n'
    output_matches $'an adapter arrived; 1 adapter\\(s\\) attached now\n'
    output_matches $'\n[1-9][0-9]* removal\\(s\\), [1-9][0-9]* arrival\\(s\\)$'
}

test_session() {
    # The second adapter leaves once the example waits for it, and comes back
    # once the example has seen it go (line-buffered output shows each step as
    # it happens). The toggling starts at once.
    emuc --adapters 2 --toggle 5:100 -- bash -c '
        echo start >"$CTL_FIFO"
        stdbuf -oL "$1" >"$2" & p=$!
        wait_for "$2" "waiting for it to leave" "step 6 of the example" || exit 10
        echo "unplug 1" >"$CTL_FIFO"
        wait_for "$2" "now says" "the example to see the removal" || exit 11
        echo "plug 1" >"$CTL_FIFO"
        wait $p; s=$?; cat "$2"; exit $s' sh "$EX/session" "$TEST_TMP/session.out"
    status_is 0
    output_matches $'\n  done: every step worked$'
    output_matches 'read back: 48 65 6c 6c 6f 20 66 72 6f 6d 20 6c 69 62 6b 61 72 76 65 78'
    output_matches 'now says TSTATUS_DEVICE_REMOVED'
}

run_tests
