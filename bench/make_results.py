#!/usr/bin/env python3
"""Turns the raw output of bench/run.sh (a directory of Google Benchmark JSON
files, callgrind_annotate listings and machine facts) into bench/RESULTS.md
on standard output."""

import json
import os
import re
import sys

REAL_ADAPTER_US = 250.0  # round trip of a real adapter at USB high speed

out_dir = sys.argv[1]


def load(name):
    path = os.path.join(out_dir, name)
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return json.load(f).get("benchmarks", [])


def find(runs, prefix, threads=None):
    """The first run whose name starts with prefix; of repeated runs, the median."""
    found = None
    for r in runs:
        name = r.get("name", "")
        if not name.startswith(prefix):
            continue
        if threads is not None and f"threads:{threads}" not in name:
            continue
        if r.get("run_type") == "aggregate":
            if r.get("aggregate_name") == "median":
                return r
            continue
        if found is None:
            found = r
    return found


def val(run, key, default=None):
    if run is None or run.get("error_occurred"):
        return default
    return run.get(key, default)


def fmt(x, digits=1):
    if x is None:
        return "n/a"
    if isinstance(x, float) and abs(x) >= 1000:
        return f"{x:,.0f}"
    return f"{x:.{digits}f}"


def ratio(a, b, digits=2):
    if a is None or b is None or b == 0:
        return "n/a"
    return f"{a / b:.{digits}f}x"


def mark(ok):
    return "met" if ok else "**missed**"


machine = {}
with open(os.path.join(out_dir, "machine.txt")) as f:
    for line in f:
        if ":" in line:
            k, v = line.split(":", 1)
            machine[k.strip()] = v.strip()

main = load("main.json")
parallel = load("parallel.json")
thread0 = load("thread.json")
thread250 = load("thread250.json")
enums = {n: load(f"enum_{n}.json") for n in (10, 100, 1000)}
base_main = load("base_main.json")
base_thread250 = load("base_thread250.json")

lines = []
p = lines.append
p("# libkarvex benchmarks")
p("")
p("Written by `bench/run.sh` (do not edit by hand); the numbers are one run of it.")
p("")
p("## Machine")
p("")
for key in ("date", "host", "kernel", "cpu", "cores", "load before", "load after", "build", "baseline", "priority"):
    if key in machine:
        p(f"- {key}: {machine[key]}")
p("")
p("The machine is shared: the load averages above tell how much other work ran beside the")
p("benchmarks. Latencies are given as medians (p50) and 99th percentiles of per-call times,")
p("which stand up to that better than means. Each figure is the median over repeated runs whose")
p("order was shuffled across all benchmarks of a run (paced pin events: one run each).")
p("")

# ---- Round trips ---------------------------------------------------------------------------
p("## 1. Round trip per call")
p("")
p("One call against an emulated adapter that answers inside `write()` (the lowest-overhead")
p("transport: `BenchHidrawShim` serves `/dev/hidrawN` of the umockdev testbed in-process over a")
p("`SOCK_SEQPACKET` socketpair; udev enumeration still goes through umockdev). *raw* is the same")
p("exchange written by hand with write/poll/read on the calling thread: the transport's own floor.")
p("*hidapi* is the exchange on libhidapi-hidraw (hid_write + hid_read_timeout). Same node, same run.")
p("")
p("| call | client | p50 µs | p99 µs | mean µs | CPU µs/call (all threads) | context switches/call | allocations/call |")
p("|---|---|---|---|---|---|---|---|")
ops = [("SetPinState", "SetPinState"), ("GetPinState", "GetPinState"), ("I2c256", "I2C 256+256 bytes")]
rt = {}
for op, label in ops:
    for client in ("raw", "hidapi", "library"):
        r = find(main, f"RoundTrip/{op}/{client}")
        rt[(op, client)] = r
        mean = val(r, "real_time")
        p(f"| {label} | {client} | {fmt(val(r, 'p50_us'))} | {fmt(val(r, 'p99_us'))} | "
          f"{fmt(mean / 1000 if mean else None)} | {fmt(val(r, 'cpu_us_per_op'))} | "
          f"{fmt(val(r, 'ctxsw_per_op'), 2)} | {fmt(val(r, 'allocs_per_op'), 3)} |")
p("")
p("| call | library / raw floor (p50) | library / hidapi (p50) | library − raw, µs | that on a 250 µs adapter |")
p("|---|---|---|---|---|")
worst_floor_ratio = 0.0
worst_hidapi_ratio = 0.0
for op, label in ops:
    lib, raw, hid = (val(rt[(op, c)], "p50_us") for c in ("library", "raw", "hidapi"))
    extra = lib - raw if lib is not None and raw is not None else None
    if lib and raw:
        worst_floor_ratio = max(worst_floor_ratio, lib / raw)
    if lib and hid:
        worst_hidapi_ratio = max(worst_hidapi_ratio, lib / hid)
    share = f"{extra / REAL_ADAPTER_US * 100:.1f} % ({(REAL_ADAPTER_US + extra) / REAL_ADAPTER_US:.3f}x)" if extra is not None else "n/a"
    p(f"| {label} | {ratio(lib, raw)} | {ratio(lib, hid)} | {fmt(extra)} | {share} |")
p("")
ping = find(main, "Reference/ThreadPingPong/")
ping_idle = find(main, "Reference/ThreadPingPongAfterIdle")
fw = find(main, "Reference/FirmwareProcess")
spin1 = val(find(parallel, "Reference/CpuSpin", 1), "items_per_second")
spin2 = val(find(parallel, "Reference/CpuSpin", 2), "items_per_second")
p("Reference points of this machine:")
p("")
p(f"- two thread hand-offs through futexes (wake a thread, be woken by it), back to back: p50 "
  f"{fmt(val(ping, 'p50_us'))} µs, p99 {fmt(val(ping, 'p99_us'))} µs;")
p(f"- the same after 250 µs of idleness (as between calls to a real adapter): p50 "
  f"{fmt(val(ping_idle, 'p50_us'))} µs, p99 {fmt(val(ping_idle, 'p99_us'))} µs;")
p(f"- pure computation on two threads against one: {ratio(spin2, spin1)} (what this machine gives a second thread);")
p(f"- the emulated firmware's own work per command: {fmt(val(fw, 'real_time'), 0)} ns.")
p("")

# ---- Answer modes --------------------------------------------------------------------------
p("### The same calls with an asynchronous adapter")
p("")
p("`--answer=thread`: a firmware thread reads each command from the socket and answers, as a")
p("device answers asynchronously; with `--latency-us=250` it answers 250 µs after the command")
p("arrived, the round trip of a real adapter at USB high speed (timer wake-up adds to that).")
p("")
p("| transport | call | raw p50 µs | hidapi p50 µs | library p50 µs | library / raw | library − raw µs |")
p("|---|---|---|---|---|---|---|")
for label, runs in (("answer in write()", main), ("firmware thread", thread0), ("firmware thread, 250 µs", thread250)):
    for op, oplabel in ops:
        raw = val(find(runs, f"RoundTrip/{op}/raw"), "p50_us")
        hid = val(find(runs, f"RoundTrip/{op}/hidapi"), "p50_us")
        lib = val(find(runs, f"RoundTrip/{op}/library"), "p50_us")
        if raw is None and lib is None:
            continue
        p(f"| {label} | {oplabel} | {fmt(raw)} | {fmt(hid)} | {fmt(lib)} | {ratio(lib, raw)} | "
          f"{fmt(lib - raw if lib is not None and raw is not None else None)} |")
p("")

# ---- Before and after ----------------------------------------------------------------------
if base_main or base_thread250:
    p("### Before and after")
    p("")
    p(f"The library of the baseline build ({machine.get('baseline', 'n/a')}) ran its round trips and")
    p("pin event latency right after this build's runs of the same transport, in the same run of")
    p("`bench/run.sh`; *hidapi* and *raw* are from this build's run.")
    p("")
    p("| transport | call | before p50 µs | after p50 µs | before p99 µs | after p99 µs | "
      "CPU µs/call before → after | context switches/call before → after | after / hidapi p50 | after / hidapi p99 | after / raw p50 |")
    p("|---|---|---|---|---|---|---|---|---|---|---|")
    for label, after_runs, before_runs in (("answer in write()", main, base_main),
                                           ("firmware thread, 250 µs", thread250, base_thread250)):
        for op, oplabel in ops:
            a = find(after_runs, f"RoundTrip/{op}/library")
            b = find(before_runs, f"RoundTrip/{op}/library")
            h = find(after_runs, f"RoundTrip/{op}/hidapi")
            r = find(after_runs, f"RoundTrip/{op}/raw")
            if a is None and b is None:
                continue
            p(f"| {label} | {oplabel} | {fmt(val(b, 'p50_us'))} | {fmt(val(a, 'p50_us'))} | "
              f"{fmt(val(b, 'p99_us'))} | {fmt(val(a, 'p99_us'))} | "
              f"{fmt(val(b, 'cpu_us_per_op'))} → {fmt(val(a, 'cpu_us_per_op'))} | "
              f"{fmt(val(b, 'ctxsw_per_op'), 2)} → {fmt(val(a, 'ctxsw_per_op'), 2)} | "
              f"{ratio(val(a, 'p50_us'), val(h, 'p50_us'))} | {ratio(val(a, 'p99_us'), val(h, 'p99_us'))} | "
              f"{ratio(val(a, 'p50_us'), val(r, 'p50_us'))} |")
    a = find(main, "PinEvent/Latency/library")
    b = find(base_main, "PinEvent/Latency/library")
    r = find(main, "PinEvent/Latency/raw")
    p("")
    p("| pin event, injection → callback | p50 µs | p99 µs | CPU µs/event | context switches/event | / raw reader p50 |")
    p("|---|---|---|---|---|---|")
    for label, x in (("before", b), ("after", a), ("raw reader (this run)", r)):
        p(f"| {label} | {fmt(val(x, 'p50_us'))} | {fmt(val(x, 'p99_us'))} | {fmt(val(x, 'cpu_us_per_op'))} | "
          f"{fmt(val(x, 'ctxsw_per_op'), 2)} | {ratio(val(x, 'p50_us'), val(r, 'p50_us'))} |")
    p("")

# ---- Allocations ---------------------------------------------------------------------------
p("## 2. Heap allocations in steady state")
p("")
p("Counted in the benchmark process by its own malloc/calloc/realloc/aligned-alloc definitions")
p("(operator new ends there too), over all threads, during each measured loop:")
p("")
max_allocs = 0.0
p("| loop | allocations per operation |")
p("|---|---|")
for r in main + parallel:
    if r.get("run_type") == "aggregate" and r.get("aggregate_name") != "median":
        continue
    if "allocs_per_op" in r and not r.get("error_occurred") and "/library" in r["name"]:
        a = r["allocs_per_op"]
        if "Parallel" not in r["name"]:
            max_allocs = max(max_allocs, a)
        p(f"| {r['name']} | {a:.4f} |")
p("")
p("(The parallel runs count Google Benchmark's own thread start-up inside the loop: a few")
p("allocations per run, i.e. about 1e-5 per call.)")
p("")

# ---- Parallel ------------------------------------------------------------------------------
p("## 3. Two adapters from two threads")
p("")
p("SetPinState in a loop, one thread per adapter (each adapter has its own reader thread in the")
p("library). Throughput over wall-clock time, median of 5 runs of 0.5 s, 1- and 2-adapter runs in")
p("random order:")
p("")
p("| transport | client | 1 adapter, calls/s | 2 adapters, calls/s | ratio | CPU µs/call |")
p("|---|---|---|---|---|---|")
par_ratio = {}
for label, runs in (("answer in write()", parallel), ("firmware thread", thread0)):
    for client in ("raw", "library"):
        one = val(find(runs, f"Parallel/SetPinState/{client}", 1), "items_per_second")
        two = val(find(runs, f"Parallel/SetPinState/{client}", 2), "items_per_second")
        cpu = val(find(runs, f"Parallel/SetPinState/{client}", 2), "cpu_us_per_op")
        if one is None and two is None:
            continue
        par_ratio[(label, client)] = two / one if one and two else None
        p(f"| {label} | {client} | {fmt(one, 0)} | {fmt(two, 0)} | {ratio(two, one)} | {fmt(cpu)} |")
p("")

# ---- Pin events ----------------------------------------------------------------------------
p("## 4. Pin events")
p("")
p("Events are injected as the adapter's input reports on the node; the library delivers them to")
p("a trivial callback on its pin event thread (reader thread → 10-slot queue → pin event thread),")
p("the hand-written client reads them on one thread blocked in poll().")
p("")
lr = find(main, "PinEvent/Latency/raw")
ll = find(main, "PinEvent/Latency/library")
p("| one event at a time | p50 µs | p99 µs | context switches/event | allocations/event |")
p("|---|---|---|---|---|")
for label, r in (("raw read (injection → read() returns)", lr), ("library (injection → callback)", ll)):
    p(f"| {label} | {fmt(val(r, 'p50_us'))} | {fmt(val(r, 'p99_us'))} | {fmt(val(r, 'ctxsw_per_op'), 2)} | "
      f"{fmt(val(r, 'allocs_per_op'), 3)} |")
p("")
tr = find(main, "PinEvent/Throughput/raw")
tl = find(main, "PinEvent/Throughput/library")
p("Most events per second with at most 8 events between injection and callback (fewer than the")
p("library's 10 queue slots, so none can be overrun):")
p("")
p("| client | events/s | lost |")
p("|---|---|---|")
for label, r in (("raw", tr), ("library", tl)):
    p(f"| {label} | {fmt(val(r, 'items_per_second'), 0)} | {fmt(val(r, 'overruns'), 0)} |")
p("")
p("Paced like a USB high-speed interrupt endpoint, for one second (k reports per 125 µs")
p("microframe; a late microframe is not made up with a burst):")
p("")
p("| per microframe | offered/s | delivered/s | lost in the library | delivered before the first loss | p50 µs | p99 µs | max µs |")
p("|---|---|---|---|---|---|---|---|")
for k in (1, 3, 8):
    r = find(main, f"PinEvent/Paced/library/{k}/")
    p(f"| {k} | {fmt(val(r, 'offered_per_sec'), 0)} | {fmt(val(r, 'delivered_per_sec'), 0)} | "
      f"{fmt(val(r, 'lost_in_library'), 0)} | {fmt(val(r, 'delivered_before_first_loss'), 0)} | "
      f"{fmt(val(r, 'p50_us'))} | {fmt(val(r, 'p99_us'))} | {fmt(val(r, 'max_us'))} |")
p("")

# ---- Enumeration ---------------------------------------------------------------------------
p("## 5. Enumeration and open")
p("")
p("3 adapters among N emulated hidraw devices (the others are keyboards), all through umockdev's")
p("testbed (every sysfs access goes through its preload library). `KARVEX_OpenDevice` enumerates")
p("again, opens the node, starts the reader thread and exchanges the protocol version.")
p("")
p("| hidraw devices | KARVEX_EnumerateDevices ms | per device µs | hid_enumerate(vid) ms | KARVEX_OpenDevice ms | allocations per enumeration |")
p("|---|---|---|---|---|---|")
per_device = {}
for n in (10, 100, 1000):
    runs = enums[n]
    e = find(runs, f"Enumerate/library/{n}")
    h = find(runs, f"Enumerate/hidapi/{n}")
    o = find(runs, f"Open/library/{n}")
    et = val(e, "real_time")
    if et is not None:
        per_device[n] = et * 1000 / n  # ms -> µs per device
    p(f"| {n} | {fmt(et, 2)} | {fmt(per_device.get(n))} | {fmt(val(h, 'real_time'), 2)} | "
      f"{fmt(val(o, 'real_time'), 2)} | {fmt(val(e, 'allocs_per_op'), 0)} |")
p("")
linear = None
if 10 in per_device and 1000 in per_device:
    linear = per_device[1000] / per_device[10]
    p(f"Time per device at 1000 devices / at 10 devices: {linear:.2f} (1.00 is exactly linear).")
    p("")

# ---- Callgrind -----------------------------------------------------------------------------
p("## 6. Instructions per SetPinState round trip (callgrind)")
p("")


def inclusive(listing, pattern):
    total = 0
    for line in listing:
        m = re.match(r"\s*([\d,]+)\s+\([^)]*\)\s+(.*)$", line)
        if m and re.search(pattern, m.group(2)):
            total += int(m.group(1).replace(",", ""))
    return total


def listing(name):
    path = os.path.join(out_dir, name)
    if not os.path.exists(path):
        return None
    with open(path) as f:
        return f.readlines()


loops = int(machine.get("callgrind loops", "1000"))
cg = {c: listing(f"cg_{c}.txt") for c in ("library", "raw", "hidapi")}
lib_total = None
if all(cg.values()):
    emu_write = r"^\?\?\?:write \[.*karvex_bench\]"
    emu_read = r"^\?\?\?:read \[.*karvex_bench\]"
    lib = cg["library"]
    totals = inclusive(lib, r"^PROGRAM TOTALS")
    caller = inclusive(lib, r":KARVEX_SetPinState \[") - inclusive(lib, emu_write)
    driver = inclusive(lib, r"^\?\?\?:main \[") - inclusive(lib, r":KARVEX_SetPinState \[")
    glib = inclusive(lib, r":g_main_loop_run \[")
    reader = totals - inclusive(lib, r"^\?\?\?:main \[") - inclusive(lib, emu_read) - glib
    lib_total = (caller + reader) / loops
    raw = cg["raw"]
    raw_own = (inclusive(raw, r"BenchRawClient::SetPinState") - inclusive(raw, emu_write) - inclusive(raw, emu_read)) / loops
    hid = cg["hidapi"]
    hid_own = (inclusive(hid, r"BenchHidapiClient::SetPinState") - inclusive(hid, emu_write) - inclusive(hid, emu_read)) / loops
    emu = (inclusive(lib, emu_write) + inclusive(lib, emu_read)) / loops
    p(f"`valgrind --tool=callgrind`, {loops} calls after a warm-up, counters zeroed before and dumped")
    p("after the loop (all threads). The emulated side (the shim's write(), which runs the firmware")
    p("and sends the answer, and its read()) is subtracted; system calls themselves are kernel")
    p("work and not counted by callgrind.")
    p("")
    p("| client | user-space instructions per call |")
    p("|---|---|")
    p(f"| library, calling thread (KARVEX_SetPinState → ExecuteCommand → poll, ReadReport on the node) | {caller / loops:,.0f} |")
    p(f"| library, reader and pin event threads (standing aside while commands run) | {reader / loops:,.0f} |")
    p(f"| **library, total** | **{lib_total:,.0f}** |")
    p(f"| hand-written client | {raw_own:,.0f} |")
    p(f"| hidapi | {hid_own:,.0f} |")
    p(f"| (emulated adapter, excluded above) | {emu:,.0f} |")
    p("")
    top = []
    for line in lib:
        m = re.match(r"\s*([\d,]+)\s+\([^)]*\)\s+\S*:(pthread_mutex_(un)?lock)\S* \[", line)
        if m:
            top.append(int(m.group(1).replace(",", "")))
    if top:
        p(f"Of the library's share, pthread_mutex_lock/unlock take {sum(top[:2]) / loops:,.0f} instructions per call")
        p("(the device, API, queue and event mutexes, all recursive as the design asks).")
        p("")

# ---- Targets -------------------------------------------------------------------------------
p("## Targets")
p("")
p("| target | measured | |")
p("|---|---|---|")


def worst(runs, key, num, den):
    w = None
    for op, _ in ops:
        x = val(find(runs, f"RoundTrip/{op}/{num}"), key)
        y = val(find(runs, f"RoundTrip/{op}/{den}"), key)
        if x is not None and y:
            w = x / y if w is None else max(w, x / y)
    return w


def show(x):
    return "n/a" if x is None else f"worst {x:.2f}x"


t50 = worst(thread250, "p50_us", "library", "hidapi")
t99 = worst(thread250, "p99_us", "library", "hidapi")
w50 = worst(main, "p50_us", "library", "raw")
cpu_w = worst(main, "cpu_us_per_op", "library", "raw")
cpu_t = worst(thread250, "cpu_us_per_op", "library", "raw")
ev = None
if val(ll, "p50_us") is not None and val(lr, "p50_us"):
    ev = val(ll, "p50_us") / val(lr, "p50_us")
p(f"| firmware thread, 250 µs: library / hidapi p50 ≤ 1.00 (3 calls) | {show(t50)} | {mark(t50 is not None and t50 <= 1.0)} |")
p(f"| firmware thread, 250 µs: library / hidapi p99 ≤ 1.10 (3 calls) | {show(t99)} | {mark(t99 is not None and t99 <= 1.1)} |")
p(f"| answer in write(): library / raw p50 ≤ 1.5 (3 calls) | {show(w50)} | {mark(w50 is not None and w50 <= 1.5)} |")
p(f"| pin event injection → callback p50 ≤ 2x the raw reader | {'n/a' if ev is None else f'{ev:.2f}x'} | {mark(ev is not None and ev <= 2.0)} |")
p(f"| CPU per call (all threads) ≤ 1.5x raw's, answer in write() | {show(cpu_w)} | {mark(cpu_w is not None and cpu_w <= 1.5)} |")
p(f"| CPU per call (all threads) ≤ 1.5x raw's, firmware thread 250 µs | {show(cpu_t)} | {mark(cpu_t is not None and cpu_t <= 1.5)} |")
p(f"| 0 allocations per transaction | max {max_allocs:.4f} per call | {mark(max_allocs < 0.001)} |")
pr = par_ratio.get(("answer in write()", "library"))
prr = par_ratio.get(("answer in write()", "raw"))
p(f"| two adapters from two threads: reported beside a second thread's share of this machine | "
  f"library {'n/a' if pr is None else f'{pr:.2f}x'}, raw {'n/a' if prr is None else f'{prr:.2f}x'}, "
  f"pure computation {ratio(spin2, spin1)} | reported |")
p(f"| enumeration linear in the number of hidraw devices | per-device time ratio 1000/10: {'n/a' if linear is None else f'{linear:.2f}'} | "
  f"{mark(linear is not None and linear < 1.5)} |")
p("")
notes = os.path.join(os.path.dirname(os.path.abspath(__file__)), "RESULTS-notes.md")
if os.path.exists(notes):
    with open(notes) as f:
        p(f.read().rstrip())
        p("")
print("\n".join(lines))
