#!/usr/bin/env bash
# karvexctl against emulated adapters: every command, its output format, the
# exit codes 0/1/2, i2ctransfer syntax and its refusals, --json, --trace.
# Usage: test-karvexctl.sh KARVEXCTL KARVEX_EMU
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
CTL=$1
KARVEX_EMU=$2

ctl() { run_prog "$CTL" "$@"; }
# karvexctl under the emulator with its default single adapter.
emuctl() { emu -- "$CTL" "$@"; }

test_help_on_every_level() {
    local level
    for level in "" "list" "info" "gpio" "gpio mode" "gpio get" "gpio set" "gpio monitor" "i2c" "i2c transfer" \
        "i2c scan" "watch"; do
        # shellcheck disable=SC2086
        ctl $level --help
        status_is 0 "karvexctl $level --help"
        output_matches "^Usage: karvexctl ${level:+$level }" "karvexctl $level --help"
        errors_empty
    done
    ctl i2c scan --help
    output_matches "1-byte read" "scan help says how it probes"
    ctl i2c transfer --help
    output_matches "7-bit" "transfer help says which addresses it takes"
    ctl --version
    status_is 0
    output_matches "^karvexctl [0-9.]+ \(libkarvex API 1\.0\)$"
}

test_usage_errors_exit_2() {
    local args
    while IFS= read -r args; do
        # shellcheck disable=SC2086
        ctl $args
        status_is 2 "karvexctl $args"
        errors_contain "Try 'karvexctl" "karvexctl $args"
        [ -z "$output" ] || fail "karvexctl $args printed on stdout: $output"
    done <<'CASES'

frobnicate
--bogus list
list --bogus
list extra
info
info /dev/hidraw0 extra
gpio
gpio toggle /dev/hidraw0 1
gpio mode /dev/hidraw0 1 sideways
gpio mode /dev/hidraw0 256 input
gpio mode /dev/hidraw0 -1 input
gpio get /dev/hidraw0
gpio get /dev/hidraw0 x
gpio set /dev/hidraw0 3=2
gpio set /dev/hidraw0 3
gpio set /dev/hidraw0 =1
gpio monitor -n 0 /dev/hidraw0 1
i2c
i2c probe /dev/hidraw0 0
i2c transfer /dev/hidraw0 256 r1@0x50
i2c transfer /dev/hidraw0 0
i2c transfer --timeout 0 /dev/hidraw0 0 r1@0x50
i2c transfer --timeout 30001 /dev/hidraw0 0 r1@0x50
i2c scan /dev/hidraw0 0 0x50
i2c scan /dev/hidraw0 0 0x02 0x10
i2c scan /dev/hidraw0 0 0x50 0x40
watch extra
--trace zz list
gpio get --trace -1 /dev/hidraw0 1
CASES
    ctl frobnicate
    errors_contain "karvexctl: unknown command 'frobnicate'"
    ctl gpio mode /dev/hidraw0 1 sideways
    errors_contain "karvexctl gpio mode: invalid mode 'sideways'"
}

# Every way a transfer can fall outside the adapter's one write-then-read
# transaction, or outside the syntax, is refused before any adapter is opened
# (so these run without the emulator).
test_i2c_transfer_refusals() {
    local expect args
    while IFS='|' read -r args expect; do
        # shellcheck disable=SC2086
        ctl i2c transfer /dev/hidraw0 0 $args
        status_is 2 "i2c transfer $args"
        errors_contain "$expect" "i2c transfer $args"
    done <<'CASES'
r1@0x50 w1 0x00|cannot write after a read
w1@0x50 0x00 w1 0x01|cannot run two writes
r1@0x50 r1|cannot run two reads
w1@0x50 0x00 r1@0x51|must go to the same address
w1@0x50 0x00 r1 r1|at most two messages
w257@0x50 0x00=|longer than the adapter's 256 bytes
r257@0x50|longer than the adapter's 256 bytes
r1@0x80|not a 7-bit address
r1@0xa0|not a 7-bit address
r1@0x03|reserved
r1@0x78|reserved
r1|needs an address
w2@0x50 0x00|needs 2 data bytes, got 1
w1@0x50 0x100|invalid data byte '0x100'
w1@0x50 zz|invalid data byte 'zz'
w2@0x50 0x00* 0x01|invalid data byte '0x00*'
x1@0x50|invalid message 'x1@0x50'
r@0x50|invalid length
r1@|invalid address
r1@0x50 0x00|invalid message '0x00'
CASES
}

test_list_text_and_json() {
    emu --adapters 2 --serial KVXA --serial KVXB -- "$CTL" list
    status_is 0
    errors_empty
    output_is '/dev/hidraw0 1209:7a01 1.00 "KVXA" "Karvex" "Karvex GPIO/I2C Adapter"
/dev/hidraw1 1209:7a01 1.00 "KVXB" "Karvex" "Karvex GPIO/I2C Adapter"'

    emu --adapters 2 --serial 'say "hi"\' -- "$CTL" list --json
    status_is 0
    json_is "" 2
    json_is "0;path" /dev/hidraw0
    json_is "0;vendor_id" 4617
    json_is "0;product_id" 31233
    json_is "0;bcd_device" 256
    json_is "0;release" 1.00
    json_is "0;serial" 'say "hi"\'
    json_is "0;manufacturer" Karvex
    json_is "1;serial" KVX000002
}

test_list_without_adapters() {
    # The unplug runs on karvex-emu's own thread: the list shows it a moment later.
    emuc -- bash -c '
        echo "unplug 0" >"$CTL_FIFO"
        wait_cmd "^\[\]$" "$1" list --json || exit 10
        "$1" list --json; "$1" list' sh "$CTL"
    status_is 0
    output_is '[]'
}

test_info() {
    emu --serial KVX123 -- bash -c '"$1" gpio set /dev/hidraw0 4=1 && "$1" info /dev/hidraw0' sh "$CTL"
    status_is 0
    errors_empty
    output_matches $'^path          /dev/hidraw0\nusb id        1209:7a01\nrelease       1\\.00\nserial        KVX123\nmanufacturer  Karvex\nproduct       Karvex GPIO/I2C Adapter\n'
    output_matches $'\npins          16\n'
    output_matches $'\n  pin   4     output-high  high\n'
    output_matches $'\n  pin  15     input        low$'

    emuctl info --json /dev/hidraw0
    status_is 0
    json_is "path" /dev/hidraw0
    json_is "serial" KVX000001
    json_is "pins;#" 16
    json_is "pins;15;pin" 15
    json_is "pins;0;mode" input
    json_is "pins;0;level" 0
}

test_missing_adapter_exits_1_with_status_name() {
    emuctl info /dev/hidraw7
    status_is 1
    errors_contain "karvexctl info: cannot open /dev/hidraw7: TSTATUS_"
    emuctl gpio get /dev/hidraw7 1
    status_is 1
    errors_contain "karvexctl gpio get: cannot open /dev/hidraw7: TSTATUS_"
}

test_adapter_in_use_by_another_program() {
    # flock(1) holds the node's lock, as any program with the adapter open does.
    emu -- flock -n /dev/hidraw0 "$CTL" gpio get /dev/hidraw0 1
    status_is 1
    errors_contain "karvexctl gpio get: cannot open /dev/hidraw0: TSTATUS_IN_USE"
    errors_contain "the adapter is in use by another program"
}

test_gpio_set_get_mode() {
    emu -- bash -c '
        c=$1
        $c gpio set /dev/hidraw0 2=1 3=0 || exit 10
        $c gpio get /dev/hidraw0 2 3 4 || exit 11
        $c gpio set /dev/hidraw0 2=0 || exit 12       # already an output: level only
        $c gpio mode /dev/hidraw0 5 output-high || exit 13
        $c gpio mode /dev/hidraw0 6 high || exit 14
        $c gpio get /dev/hidraw0 2 5 6 || exit 15
        $c gpio mode /dev/hidraw0 5 input || exit 16
        $c gpio get --json /dev/hidraw0 2 5' sh "$CTL"
    status_is 0
    errors_empty
    output_is '2=1 3=0 4=0
2=0 5=1 6=1
{"path": "/dev/hidraw0", "pins": [{"pin": 2, "level": 0}, {"pin": 5, "level": 0}]}'
    output=$(printf '%s' "$output" | tail -n 1)
    json_is "pins;#" 2
    json_is "pins;0;pin" 2
}

test_gpio_adapter_refusal_exits_1() {
    emuctl gpio get /dev/hidraw0 16
    status_is 1
    errors_contain "karvexctl gpio get: cannot read pin 16: 0xE0001110: the adapter refused the command with status 0x10"
    emuctl gpio set /dev/hidraw0 16=1
    status_is 1
    emuctl gpio mode /dev/hidraw0 200 input
    status_is 1
}

test_gpio_monitor_counts_events() {
    emu --toggle 3:40 --toggle 4:45 -- "$CTL" gpio monitor -n 4 /dev/hidraw0 3
    status_is 0
    errors_empty
    local lines
    lines=$(printf '%s\n' "$output" | grep -Ec $'^[0-9]+\\.[0-9]{9}\t(rising|falling)\t3$')
    [ "$lines" = 4 ] || fail "expected 4 event lines for pin 3 only, got: $output"
    # The pin flips each period, so the edges alternate (which one comes first
    # depends on when monitoring started).
    output=$(printf '%s\n' "$output" | cut -f2 | tr '\n' ' ')
    [[ "$output" == "rising falling rising falling " || "$output" == "falling rising falling rising " ]] ||
        fail "edges do not alternate: $output"
}

test_gpio_monitor_stops_on_sigint() {
    # Interrupted once it has printed an event, so it is surely monitoring.
    emu --toggle 3:50 -- bash -c '
        stdbuf -oL "$1" gpio monitor /dev/hidraw0 3 >"$2" & p=$!
        wait_for "$2" "(rising|falling)" "the first event" || exit 10
        kill -INT $p; wait $p; s=$?; cat "$2"; exit $s' sh "$CTL" "$TEST_TMP/monitor.out"
    status_is 0
    output_matches $'\t(rising|falling)\t3'
}

test_gpio_monitor_reports_unplug() {
    # Unplugged once the monitor has put the pin in input-event mode, its last
    # step before it waits (its function trace says so).
    emuc -- bash -c '
        stdbuf -oL "$1" gpio monitor -t 0x10 /dev/hidraw0 3 >"$2" & p=$!
        wait_for "$2" "KARVEX_SetPinMode.*<-- err=0x00000000" "the monitor to listen" || exit 10
        echo "unplug 0" >"$CTL_FIFO"
        wait $p' sh "$CTL" "$TEST_TMP/monitor.out"
    status_is 1
    errors_contain "karvexctl gpio monitor: /dev/hidraw0 was unplugged"
}

test_i2c_transfer_roundtrip_and_fill_suffixes() {
    emu -- bash -c '
        c=$1
        $c i2c transfer /dev/hidraw0 0 w5@0x50 0x10 0x41 0x42 0x43 0x44 || exit 10
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x10 r4 || exit 11
        $c i2c transfer /dev/hidraw0 0 w5@0x50 0x20 0x07= || exit 12
        $c i2c transfer /dev/hidraw0 0 w5@0x50 0x30 0xfe+ || exit 13
        $c i2c transfer /dev/hidraw0 0 w5@0x50 0x40 0x01- || exit 14
        $c i2c transfer /dev/hidraw0 0 w6@0x50 0x50 0x01p || exit 15
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x20 r4@0x50 || exit 16
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x30 r4 || exit 17
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x40 r4 || exit 18
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x50 r5 || exit 19
        $c i2c transfer --speed 400000 --timeout 50 -y /dev/hidraw0 0 r2@80 || exit 20
        $c i2c transfer /dev/hidraw0 0 w0@0x50 || exit 21' sh "$CTL"
    status_is 0
    errors_empty
    # 0x01p: the 8-bit LFSR x^8+x^6+x^5+x^4+1 seeded with 1. The last read
    # continues from the pointer the previous read left at 0x55.
    output_is '0x41 0x42 0x43 0x44
0x07 0x07 0x07 0x07
0xfe 0xff 0x00 0x01
0x01 0x00 0xff 0xfe
0x01 0xb8 0x5c 0x2e 0x17
0xff 0xff'
}

test_i2c_transfer_full_length() {
    # 256 bytes written: offset 0x00, then 0x00, 0x01, ... 0xfe at addresses
    # 0..254; address 255 keeps its erased 0xff. So a 256-byte read from 0
    # returns 0x00..0xff.
    emu -- bash -c '
        c=$1
        $c i2c transfer /dev/hidraw0 0 w256@0x50 0x00 0x00+ || exit 10
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x00 r256' sh "$CTL"
    status_is 0
    local expected="" i
    for i in $(seq 0 255); do
        expected+=$(printf '0x%02x' "$i")
        [ "$i" -lt 255 ] && expected+=" "
    done
    output_is "$expected"
}

test_i2c_transfer_nack_exits_1() {
    emuctl i2c transfer /dev/hidraw0 0 r1@0x51
    status_is 1
    errors_contain "karvexctl i2c transfer: transfer to 0x51 on bus 0 failed: 0xE0001120"
    emuctl i2c transfer -a /dev/hidraw0 0 r1@0x03
    status_is 1
    emuctl i2c transfer /dev/hidraw0 1 r1@0x50
    status_is 1 "no EEPROM on bus 1 by default"
}

test_i2c_scan_grid() {
    emu --eeprom 0:0x50 --eeprom 0:0x23 --eeprom 1:0x57 -- "$CTL" i2c scan /dev/hidraw0 0
    status_is 0
    errors_empty
    # Byte for byte as i2cdetect prints it, trailing blanks included.
    output_is "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f
00:                         -- -- -- -- -- -- -- -- 
10: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
20: -- -- -- 23 -- -- -- -- -- -- -- -- -- -- -- -- 
30: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
40: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
50: 50 -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
60: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
70: -- -- -- -- -- -- -- --                         "

    emu --eeprom 1:0x57 -- "$CTL" i2c scan -a /dev/hidraw0 1 0x55 0x7f
    status_is 0
    output_is "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f
00:                                                 
10:                                                 
20:                                                 
30:                                                 
40:                                                 
50:                -- -- 57 -- -- -- -- -- -- -- -- 
60: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- 
70: -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- "
}

test_i2c_scan_missing_bus_says_so() {
    emuctl i2c scan /dev/hidraw0 9 0x50 0x51
    status_is 0
    errors_contain "does bus 9 exist?"
}

test_watch_prints_unplug_and_replug() {
    emuc --adapters 2 -- bash -c '
        stdbuf -oL "$1" watch -n 2 -t 0x10 >"$2" & p=$!
        wait_for "$2" "KARVEX_RegisterDeviceChangeCallback.*<-- err=0x00000000" "the watcher to listen" || exit 10
        echo "unplug 1" >"$CTL_FIFO"
        wait_for "$2" "removed" "the removal" || exit 11
        echo "plug 1" >"$CTL_FIFO"
        wait $p || exit 12
        grep -v "^TSTATUS KARVEX_" "$2"' sh "$CTL" "$TEST_TMP/watch.out"
    status_is 0
    errors_empty
    output_matches $'^[0-9]+\\.[0-9]{9}\tremoved\t/dev/hidraw1\n[0-9]+\\.[0-9]{9}\tattached\t/dev/hidraw1$'
}

test_watch_stops_on_sigterm() {
    # Terminated once it has reported the unplug, so it is surely watching.
    emuc -- bash -c '
        stdbuf -oL "$1" watch -t 0x10 >"$2" & p=$!
        wait_for "$2" "KARVEX_RegisterDeviceChangeCallback.*<-- err=0x00000000" "the watcher to listen" || exit 10
        echo "unplug 0" >"$CTL_FIFO"
        wait_for "$2" removed "the removal" || exit 11
        kill -TERM $p; wait $p; s=$?; grep -v "^TSTATUS KARVEX_" "$2"; exit $s' sh "$CTL" "$TEST_TMP/watch.out"
    status_is 0
    output_matches $'^[0-9.]+\tremoved\t/dev/hidraw0$'
}

test_trace_option_on_every_level() {
    local args
    for args in "--trace 0x10 gpio get /dev/hidraw0 1" "gpio -t 0x10 get /dev/hidraw0 1" "gpio get -t 16 /dev/hidraw0 1"; do
        # shellcheck disable=SC2086
        emuctl $args
        status_is 0 "$args"
        output_matches $'TSTATUS KARVEX_GetPinState\\(KARVEXDeviceHandle, unsigned int, KARVEX_GPIOState\\*\\): --> deviceHandle=0x[0-9A-F]{8}, pinId=1, state=0x[0-9a-f]+\n' "$args"
        output_matches $'KARVEX_GPIOState\\*\\): <-- err=0x00000000 TSTATUS_SUCCESS\n' "$args"
        output_matches $'\n1=0$' "$args"
    done
    # Without --trace the library stays silent even when something fails.
    emuctl gpio get /dev/hidraw0 16
    output_is ""
}

run_tests
