"""Runs under karvex-emu with two adapters, pin 5 toggling, adapter 1 replugged once:

    karvex-emu --adapters 2 --toggle 5:40 --replug 1:4000:1000 -- \
        python3 -m pytest python/tests

The hot-plug recorder and the handle on adapter 1 are set up when this file
is imported, before any test, so that the first unplug finds them in place.
"""
import asyncio
import os
import threading

import pytest

if "UMOCKDEV_DIR" not in os.environ:
    raise pytest.UsageError("run the tests under karvex-emu (see python/tests/conftest.py)")

import karvex  # noqa: E402

ADAPTER0 = "/dev/hidraw0"
ADAPTER1 = "/dev/hidraw1"  # unplugged and plugged back once
DEADLINE = 60.0  # liveness limit for anything the emulator does


class Recorder:
    """Collects callback arguments; waits for a condition with a deadline."""

    def __init__(self):
        self.items = []
        self.cond = threading.Condition()

    def __call__(self, *item):
        with self.cond:
            self.items.append(item)
            self.cond.notify_all()

    def wait_for(self, predicate, what, timeout=DEADLINE):
        with self.cond:
            if not self.cond.wait_for(lambda: predicate(self.items), timeout):
                raise AssertionError("waited %.0f s for %s; got %r" % (timeout, what, self.items))
            return list(self.items)


hotplug = Recorder()
karvex.on_device_change(hotplug)
held_adapter1 = karvex.Adapter(ADAPTER1)
async_hotplug = Recorder()  # the same events through device_changes_async()


def _async_watch():
    async def watch():
        async for event, path in karvex.device_changes_async():
            async_hotplug(event, path)

    loop = asyncio.new_event_loop()
    task = loop.create_task(watch())
    loop.run_until_complete(asyncio.sleep(0))  # the stream listens from here on
    _loop_ready.set()
    loop.run_until_complete(task)


_loop_ready = threading.Event()
threading.Thread(target=_async_watch, daemon=True, name="async-hotplug").start()
if not _loop_ready.wait(DEADLINE):
    raise RuntimeError("the asyncio hot-plug watcher did not start")


def replugs_seen(items, path=ADAPTER1):
    """Number of REMOVED-then-ATTACHED pairs for path."""
    pairs, removed = 0, False
    for event, p in items:
        if p != path:
            continue
        if event == karvex.DeviceEvent.REMOVED:
            removed = True
        elif removed:
            pairs, removed = pairs + 1, False
    return pairs


@pytest.fixture
def replug_over():
    """The world holds still: the replug of adapter 1 is over."""
    hotplug.wait_for(lambda items: replugs_seen(items) >= 1, "the replug of %s" % ADAPTER1, 3 * DEADLINE)


@pytest.fixture
def adapter():
    with karvex.Adapter(ADAPTER0) as a:
        yield a
