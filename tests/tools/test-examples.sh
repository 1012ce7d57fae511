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
    emu --replug 0:1000:300 -- "$EX/hotplug"
    status_is 0
    output_matches $'an adapter left; 0 adapter\\(s\\) attached now\n'
    output_matches $'an adapter arrived; 1 adapter\\(s\\) attached now\n'
    output_matches $'\n1 removal\\(s\\), 1 arrival\\(s\\)$'
}

test_session() {
    emu --adapters 2 --toggle 5:100 --replug 1:1500:300 -- "$EX/session"
    status_is 0
    output_matches $'\n  done: every step worked$'
    output_matches 'read back: 48 65 6c 6c 6f 20 66 72 6f 6d 20 6c 69 62 6b 61 72 76 65 78'
    output_matches 'now says TSTATUS_DEVICE_REMOVED'
}

run_tests
