#!/usr/bin/env bash
# Installs what is missing, builds, and runs a whole session against two
# emulated adapters: list, open, pins, EEPROM write and read-back, pin events,
# an unplug and replug seen on the callbacks, close. Then the same adapters
# through karvexctl.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build/plain"
"$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target karvex karvexctl karvex-emu example_session

emu="$build/tools/karvex-emu"
ctl="$build/tools/karvexctl"

echo "### examples/session.c under: karvex-emu --adapters 2 --toggle 5:150 --replug 1:1500:500"
"$emu" --adapters 2 --toggle 5:150 --replug 1:1500:500 -- "$build/examples/session"

echo
echo "### karvexctl against one emulated adapter"
"$emu" -- bash -c '
set -e
ctl="$1"
run() { echo "$ karvexctl $*"; "$ctl" "$@"; }
run list
run gpio set /dev/hidraw0 0=1 1=0
run gpio get /dev/hidraw0 0 1
run i2c transfer /dev/hidraw0 0 w5@0x50 0x00 0x10+
run i2c transfer /dev/hidraw0 0 w1@0x50 0x00 r4
run i2c scan /dev/hidraw0 0 0x48 0x57
' demo "$ctl"
