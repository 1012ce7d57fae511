"""Pin events from the toggling pin 5, hot-plug from the replugged adapter 1."""
import asyncio
import os
import sys
import time

import pytest

import karvex
import conftest
from conftest import ADAPTER1, DEADLINE, Recorder, hotplug, replugs_seen

PIN = 5  # toggled by karvex-emu


def _threads():
    return len(os.listdir("/proc/self/task"))


def test_callback_gets_the_toggles_and_none_unregisters(adapter):
    adapter.set_pin_mode(PIN, karvex.PinMode.INPUT_EVENT)
    threads = _threads()
    got = Recorder()
    adapter.on_pin_event(got)
    items = got.wait_for(lambda items: len(items) >= 3, "three events of pin %d" % PIN)
    assert all(pin == PIN and level in (0, 1) for pin, level in items)
    assert all(a[1] != b[1] for a, b in zip(items, items[1:])), "levels alternate"
    adapter.on_pin_event(None)
    assert _threads() == threads, "the pin event thread stopped"


def test_iterator_and_its_timeout(adapter):
    adapter.set_pin_mode(PIN, karvex.PinMode.INPUT_EVENT)
    got = []
    for pin, level in adapter.pin_events(timeout=DEADLINE):
        got.append((pin, level))
        if len(got) == 2:
            break
    assert [p for p, _ in got] == [PIN, PIN] and got[0][1] != got[1][1]
    adapter.set_pin_mode(PIN, karvex.PinMode.INPUT)  # no more events
    start = time.monotonic()
    list(adapter.pin_events(timeout=0.3))  # a last event may still have been under way
    assert list(adapter.pin_events(timeout=0.3)) == []
    assert time.monotonic() - start >= 0.6


def test_async_iterator(adapter):
    adapter.set_pin_mode(PIN, karvex.PinMode.INPUT_EVENT)

    async def two_events():
        got = []
        async for item in adapter.pin_events_async(timeout=DEADLINE):
            got.append(item)
            if len(got) == 2:
                return got
        return got

    got = asyncio.run(two_events())
    assert len(got) == 2 and got[0][0] == PIN and got[0][1] != got[1][1]


def test_raising_callback_reaches_unraisablehook(adapter, monkeypatch):
    reported = Recorder()
    monkeypatch.setattr(sys, "unraisablehook", lambda args: reported(args.exc_type, str(args.exc_value)))
    calls = Recorder()

    def callback(pin, level):
        calls(pin, level)
        if len(calls.items) == 1:
            raise ValueError("from the callback")

    adapter.set_pin_mode(PIN, karvex.PinMode.INPUT_EVENT)
    adapter.on_pin_event(callback)
    calls.wait_for(lambda items: len(items) >= 3, "events after the one whose callback raised")
    adapter.on_pin_event(None)
    assert reported.items == [(ValueError, "from the callback")]


def test_unplug_and_replug(replug_over):
    # Both watchers were listening before the tests started.
    items = hotplug.items
    assert all(isinstance(e, karvex.DeviceEvent) for e, _ in items)
    conftest.async_hotplug.wait_for(lambda items: replugs_seen(items) >= 1,
                                    "a replug of %s through device_changes_async()" % ADAPTER1)
    old = conftest.held_adapter1
    assert old.connected is False
    with pytest.raises(karvex.DeviceRemovedError):
        old.get_pin(0)
    old.close()
    with karvex.Adapter(ADAPTER1) as a:
        assert a.serial == "KVX000002" and a.connected


def test_callback_may_unregister_itself(adapter):
    got = Recorder()

    def once(pin, level):
        got(pin, level)
        adapter.on_pin_event(None)  # on the pin event thread: must not wait for itself

    adapter.set_pin_mode(PIN, karvex.PinMode.INPUT_EVENT)
    adapter.on_pin_event(once)
    got.wait_for(lambda items: len(items) >= 1, "the first event")
    with adapter.pin_events(timeout=DEADLINE) as events:
        next(events), next(events)
    assert len(got.items) == 1
