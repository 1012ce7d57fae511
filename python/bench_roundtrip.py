"""Pin round trip from Python against the same from C, one emulated adapter, one run.

    karvex-emu -- python3 python/bench_roundtrip.py [N]

with KARVEX_LIBRARY naming the built library (or libkarvex.so.1 installed).
Times N single get_pin calls three ways (Adapter.get_pin, the bare ctypes
function, and KARVEX_GetPinState in a C loop built here with cc), then the
same for Adapter.connected (KARVEX_CheckDeviceConnection, no round trip),
which shows the binding's own cost without the emulator's noise. Prints the
median and the 10th/90th percentiles in microseconds.
"""
import ctypes
import os
import statistics
import subprocess
import sys
import tempfile
import time

import karvex
from karvex._native import lib

HERE = os.path.dirname(os.path.abspath(__file__))


def spread(samples):
    samples = sorted(samples)
    n = len(samples)
    return statistics.median(samples), samples[n // 10], samples[n * 9 // 10]


def time_calls(call, n):
    for _ in range(n // 10):
        call()  # warm-up
    out = []
    clock = time.perf_counter_ns
    for _ in range(n):
        t = clock()
        call()
        out.append((clock() - t) / 1000.0)
    return spread(out)


def c_loop(path, n):
    libfile = lib._name
    with tempfile.TemporaryDirectory() as tmp:
        exe = os.path.join(tmp, "roundtrip")
        subprocess.run(["cc", "-O2", "-o", exe, os.path.join(HERE, "bench_roundtrip.c"),
                        "-I", os.path.join(HERE, "..", "include"), libfile], check=True)
        env = dict(os.environ, LD_LIBRARY_PATH=os.path.dirname(os.path.realpath(libfile)))
        out = subprocess.run([exe, path, str(n)], check=True, capture_output=True, text=True, env=env)
    lines = out.stdout.splitlines()
    return [tuple(float(x) for x in line.split()) for line in lines]


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 5000
    path = karvex.list_adapters()[0]
    rows = []
    with karvex.Adapter(path) as a:
        a.set_pin_mode(0, karvex.PinMode.INPUT)
        rows.append(("Adapter.get_pin (Python)", time_calls(lambda: a.get_pin(0), n)))
        state = ctypes.c_int()
        ref = ctypes.byref(state)
        fn, h = lib.KARVEX_GetPinState, a._handle
        rows.append(("bare ctypes call (Python)", time_calls(lambda: fn(h, 0, ref), n)))
        check = lib.KARVEX_CheckDeviceConnection
        local = [("Adapter.connected (Python)", time_calls(lambda: a.connected, n)),
                 ("bare ctypes call (Python)", time_calls(lambda: check(h), n))]
    c_pin, c_check = c_loop(path, n)
    rows.append(("KARVEX_GetPinState (C)", c_pin))
    local.append(("KARVEX_CheckDeviceConnection (C)", c_check))
    for title, table in (("pin round trip (get_pin)", rows), ("no round trip (connected)", local)):
        print("%s, %d calls each, microseconds: median (p10 .. p90)" % (title, n))
        for name, (med, p10, p90) in table:
            print("  %-33s %8.2f  (%.2f .. %.2f)" % (name, med, p10, p90))


if __name__ == "__main__":
    main()
