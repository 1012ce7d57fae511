#!/usr/bin/env bash
# karvex-emu itself: its options, the environment it gives the command, the
# exit status it passes on, signal forwarding, EEPROM images, and that the
# emulated adapters work from the child process (ioctls, reports and uevents
# cross the process boundary through the test bed's sockets).
# Usage: test-karvex-emu.sh KARVEX_EMU KARVEXCTL
HARNESS_DIR=$(cd "$(dirname "$0")" && pwd)
. "$HARNESS_DIR/harness.sh"
KARVEX_EMU=$1
CTL=$2

test_help_and_version() {
    emu --help
    status_is 0
    output_matches "^Usage: karvex-emu \[OPTIONS\] -- COMMAND \[ARGS\]\.\.\."
    output_matches "--replug=ADAPTER:DELAY_MS"
    output_matches "--control=FIFO"
    emu --version
    status_is 0
    output_matches "^karvex-emu \(libkarvex\) [0-9.]+$"
}

test_usage_errors_exit_2() {
    local args
    while IFS= read -r args; do
        # shellcheck disable=SC2086
        emu $args
        status_is 2 "karvex-emu $args"
        errors_contain "karvex-emu: " "karvex-emu $args"
    done <<'CASES'

--adapters 0 -- true
--adapters 33 -- true
--adapters x -- true
--serial A --serial B -- true
--eeprom 0 -- true
--eeprom 0:0x100 -- true
--eeprom 0:0x50:/nonexistent/image -- true
--toggle 3 -- true
--toggle 16:100 -- true
--toggle 3:0 -- true
--replug 1:100 -- true
--replug 0:x -- true
--bogus -- true
CASES
}

test_child_environment_and_cleanup() {
    emu -- sh -c 'echo "$UMOCKDEV_DIR"; test -d "$UMOCKDEV_DIR/sys" || exit 3
                  case "$LD_PRELOAD" in *libumockdev-preload.so*) ;; *) exit 4;; esac
                  test -z "$KARVEX_EMU_REEXEC" || exit 5'
    status_is 0
    [ -n "$output" ] || fail "no UMOCKDEV_DIR in the child"
    [ ! -e "$output" ] || fail "test bed $output left behind"
}

test_exit_status_is_the_childs() {
    emu -- sh -c 'exit 7'
    status_is 7
    emu -- sh -c 'kill -TERM $$'
    status_is 143 "128 + SIGTERM"
    emu -- /nonexistent/command
    status_is 127
    errors_contain "karvex-emu: cannot run '/nonexistent/command'"
}

test_forwards_sigterm_and_sigint() {
    local sig ready="$HARNESS_TMP/ready"
    for sig in TERM INT HUP; do
        rm -f "$ready"
        # The child traps the signal and exits 42; karvex-emu exits with its
        # status. The signal is sent once the child runs (karvex-emu is set up
        # by then), and the child gives up by itself after 60 s.
        run_prog bash -c '
            ready=$2
            "$1" -- bash -c "trap \"exit 42\" '"$sig"'; echo up >\"$ready\"; for i in \$(seq 1200); do sleep 0.05; done; exit 3" &
            p=$!
            wait_for "$ready" up "the child to start" || exit 4
            kill -'"$sig"' $p
            wait $p' sh "$KARVEX_EMU" "$ready"
        status_is 42 "SIG$sig forwarded"
    done
}

test_adapters_and_serials_reach_the_child() {
    emu --adapters 3 --serial S-ONE --serial S-TWO -- "$CTL" list
    status_is 0
    output_is '/dev/hidraw0 1209:7a01 1.00 "S-ONE" "Karvex" "Karvex GPIO/I2C Adapter"
/dev/hidraw1 1209:7a01 1.00 "S-TWO" "Karvex" "Karvex GPIO/I2C Adapter"
/dev/hidraw2 1209:7a01 1.00 "KVX000003" "Karvex" "Karvex GPIO/I2C Adapter"'
}

test_eeprom_image_and_placement() {
    local image="$HARNESS_TMP/image.bin"
    printf '\x11\x22\x33' >"$image"
    emu --eeprom "1:0x2a:$image" -- bash -c '
        c=$1
        $c i2c transfer /dev/hidraw0 1 w1@0x2a 0x00 r5 || exit 10
        # the default EEPROM is replaced by the one given
        $c i2c transfer /dev/hidraw0 0 r1@0x50 2>/dev/null && exit 11
        exit 0' sh "$CTL"
    status_is 0
    output_is "0x11 0x22 0x33 0xff 0xff"

    head -c 257 /dev/zero >"$image"
    emu --eeprom "0:0x50:$image" -- true
    status_is 2
    errors_contain "larger than 256 bytes"
}

test_eeprom_is_per_adapter() {
    emu --adapters 2 -- bash -c '
        c=$1
        $c i2c transfer /dev/hidraw0 0 w2@0x50 0x00 0xaa || exit 10
        $c i2c transfer /dev/hidraw0 0 w1@0x50 0x00 r1 || exit 11
        $c i2c transfer /dev/hidraw1 0 w1@0x50 0x00 r1' sh "$CTL"
    status_is 0
    output_is "0xaa
0xff"
}

test_toggle_reaches_every_adapter() {
    emu --adapters 2 --toggle 2:60 -- bash -c '
        c=$1
        $c gpio monitor -n 2 /dev/hidraw0 2 >/dev/null & a=$!
        $c gpio monitor -n 2 /dev/hidraw1 2 >/dev/null & b=$!
        wait $a || exit 10
        wait $b || exit 11' sh "$CTL"
    status_is 0
}

# The FIFO commands act at once; the watcher's function trace (-t 0x10) says
# when it listens, so the unplug is sent only then.
test_control_fifo_unplugs_and_replugs_across_processes() {
    emuc -v -- bash -c '
        stdbuf -oL "$1" watch -n 2 -t 0x10 >"$2" & p=$!
        wait_for "$2" "KARVEX_RegisterDeviceChangeCallback.*<-- err=0x00000000" "the watcher to listen" || exit 10
        echo "unplug 0" >"$CTL_FIFO"
        wait_for "$2" $'"'"'\tremoved\t/dev/hidraw0$'"'"' "the removal" || exit 11
        echo "plug 0" >"$CTL_FIFO"
        wait $p || exit 12
        grep -Pv "^TSTATUS KARVEX_" "$2"' sh "$CTL" "$HARNESS_TMP/watch.out"
    status_is 0
    output_matches $'\tremoved\t/dev/hidraw0\n[0-9.]+\tattached\t/dev/hidraw0$'
    errors_contain "karvex-emu: unplugging /dev/hidraw0"
    errors_contain "karvex-emu: plugged /dev/hidraw0 back in"
    [ ! -e "$CTL_FIFO" ] || fail "control FIFO left behind"
    emu --control /nonexistent/dir/fifo -- true
    status_is 1
    errors_contain "karvex-emu: cannot create FIFO /nonexistent/dir/fifo"
}

test_schedule_waits_for_start_with_control() {
    # --replug counts from "start": nothing happens before it, the unplug after it.
    emuc --replug 0:0:60000 -- bash -c '
        "$1" list --json | grep -q hidraw0 || exit 10
        echo start >"$CTL_FIFO"
        wait_cmd "^\[\]$" "$1" list --json || exit 11' sh "$CTL"
    status_is 0
}

test_adapter_works_after_replug() {
    emuc -- bash -c '
        echo "unplug 0" >"$CTL_FIFO"
        wait_cmd "^\[\]$" "$1" list --json || exit 10
        echo "plug 0" >"$CTL_FIFO"
        wait_cmd hidraw0 "$1" list --json || exit 11
        "$1" gpio set /dev/hidraw0 1=1 && "$1" gpio get /dev/hidraw0 1' sh "$CTL"
    status_is 0
    output_is "1=1"
}

run_tests
