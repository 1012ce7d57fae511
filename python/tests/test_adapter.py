"""Methods, argument checks and library errors of karvex.Adapter and the module functions."""
import builtins
import os
import threading

import pytest

import karvex
from karvex import _errors
from conftest import ADAPTER0, DEADLINE


def test_versions_listing_and_trace_mask(capfd):
    assert isinstance(karvex.__version__, str) and karvex.__version__
    assert karvex.api_version() == (1, 0)
    assert ADAPTER0 in karvex.list_adapters()
    assert "KARVEX_TRACE" not in os.environ and karvex.get_trace_mask() == 0
    karvex.set_trace_mask(0x10)
    try:
        karvex.list_adapters()
    finally:
        karvex.set_trace_mask(0)
    assert "KARVEX_EnumerateDevices(unsigned int*): -->" in capfd.readouterr().out


def test_identity_pins_and_modes(adapter):
    assert adapter.serial == "KVX000001"
    assert adapter.usb_id == (0x1209, 0x7A01, 0x0100)
    assert adapter.connected is True
    adapter.set_pin_mode(3, karvex.PinMode.OUTPUT_LOW)
    assert adapter.get_pin_mode(3) is karvex.PinMode.OUTPUT_LOW
    assert adapter.get_pin(3) == 0
    adapter.set_pin(3, 1)
    assert adapter.get_pin(3) == 1
    adapter.set_pin(3, False)
    assert adapter.get_pin(3) == 0
    adapter.set_pin_mode(4, 3)  # a plain int is taken as the PinMode of that value
    assert (adapter.get_pin_mode(4), adapter.get_pin(4)) == (karvex.PinMode.OUTPUT_HIGH, 1)


def test_eeprom_round_trip(adapter):
    data = os.urandom(8)
    assert adapter.i2c_transfer(bus=0, address=0x50, write=b"\x10" + data) == b""
    assert adapter.i2c_transfer(bus=0, address=0x50, write=bytearray(b"\x10"), read=8) == data
    # The adapter's maximum both ways.
    assert len(adapter.i2c_transfer(0, 0x50, memoryview(b"\x00"), 256, speed=400000, timeout_ms=30000)) == 256


BAD_CALLS = [
    (TypeError, lambda a: a.get_pin("3")),
    (ValueError, lambda a: a.get_pin(-1)),
    (ValueError, lambda a: a.set_pin(2 ** 32, 0)),
    (ValueError, lambda a: a.set_pin(3, 2)),
    (ValueError, lambda a: a.set_pin_mode(3, 4)),
    (TypeError, lambda a: a.set_pin_mode(3, 1.0)),
    (ValueError, lambda a: a.i2c_transfer(256, 0x50)),
    (ValueError, lambda a: a.i2c_transfer(0, 0x100)),
    (ValueError, lambda a: a.i2c_transfer(0, 0x50, bytes(257))),
    (TypeError, lambda a: a.i2c_transfer(0, 0x50, "\x00")),
    (ValueError, lambda a: a.i2c_transfer(0, 0x50, read=257)),
    (ValueError, lambda a: a.i2c_transfer(0, 0x50, read=-1)),
    (ValueError, lambda a: a.i2c_transfer(0, 0x50, read=1, timeout_ms=0)),
    (ValueError, lambda a: a.i2c_transfer(0, 0x50, read=1, timeout_ms=30001)),
    (ValueError, lambda a: a.i2c_transfer(0, 0x50, read=1, speed=-1)),
    (TypeError, lambda a: a.on_pin_event(42)),
    (ValueError, lambda a: a.pin_events(timeout=-1)),
    (TypeError, lambda a: karvex.Adapter(0)),
    (ValueError, lambda a: karvex.Adapter("/dev/hidraw0\0")),
    (TypeError, lambda a: karvex.on_device_change("no")),
    (ValueError, lambda a: karvex.set_trace_mask(-1)),
]


@pytest.mark.parametrize("exc, call", BAD_CALLS)
def test_checked_before_the_call(adapter, capfd, exc, call):
    karvex.set_trace_mask(0x10)  # every library entry would show here
    try:
        with pytest.raises(exc):
            call(adapter)
    finally:
        karvex.set_trace_mask(0)
    assert "-->" not in capfd.readouterr().out


def test_library_refusals_keep_their_status(adapter):
    with pytest.raises(karvex.KarvexError) as e:
        adapter.get_pin(16)  # the emulated adapter has pins 0..15
    assert 0xE0001101 <= e.value.status <= 0xE00011FF
    with pytest.raises(karvex.KarvexError) as e:
        adapter.i2c_transfer(0, 0x51, b"\x00", 1)  # nobody acknowledges 0x51
    assert e.value.status == 0xE0001120 and e.value.name == karvex.status_name(0xE0001120)
    with pytest.raises(karvex.NotFoundError) as e:
        karvex.Adapter("/dev/hidraw9")
    assert (e.value.status, e.value.name) == (0xE0000081, "TSTATUS_OBJECT_NOT_FOUND")


def test_second_open_is_in_use(adapter):
    with pytest.raises(karvex.InUseError) as e:
        karvex.Adapter(ADAPTER0)
    assert (e.value.status, e.value.name) == (0xE0000006, "TSTATUS_IN_USE")


@pytest.mark.parametrize("status, cls", [
    (0xE0000003, karvex.TimeoutError), (0xE0000071, karvex.DeviceRemovedError),
    (0xE0010013, karvex.DeviceRemovedError), (0xE0000006, karvex.InUseError),
    (0xE0000081, karvex.NotFoundError), (0xE0000005, karvex.KarvexError),
])
def test_status_classes(status, cls):
    # The statuses the emulator cannot be made to produce here (a time-out).
    e = _errors.error(status - 2 ** 32, "call")  # as the C int arrives
    assert type(e) is cls and e.status == status and e.name == karvex.status_name(status)
    assert e.name.startswith("TSTATUS_") and str(e) == "call: 0x%08X %s" % (status, e.name)
    assert isinstance(karvex.TimeoutError(3), builtins.TimeoutError)


def test_exception_inside_with_closes(adapter):
    with pytest.raises(RuntimeError):
        with adapter as a:
            handle = a._handle
            raise RuntimeError("boom")
    assert adapter.closed
    # The library forgot the handle, and the adapter opens again.
    assert karvex._native.lib.KARVEX_CheckDeviceConnection(handle) & 0xFFFFFFFF == 0xE0000048
    with karvex.Adapter(ADAPTER0) as again:
        assert again.get_pin_mode(0) in karvex.PinMode
    with pytest.raises(ValueError, match="closed"):
        adapter.get_pin(0)
    adapter.close()  # twice is harmless


def test_close_from_another_thread_aborts_a_waiting_call():
    # A round trip spends most of its time waiting for the answer, so a close
    # lands there in most tries; the others find the handle already gone.
    seen = set()
    for _ in range(200):
        a = karvex.Adapter(ADAPTER0)
        running, outcome = threading.Event(), []

        def hammer():
            try:
                while True:
                    a.get_pin(0)
                    running.set()
            except Exception as e:  # noqa: BLE001 - the point is which one
                outcome.append(e)

        t = threading.Thread(target=hammer)
        t.start()
        assert running.wait(DEADLINE), "no get_pin round trip finished"
        a.close()
        t.join(DEADLINE)
        assert not t.is_alive(), "a call kept waiting after close"
        e = outcome[0]
        assert isinstance(e, ValueError) or e.name in ("TSTATUS_ABORTED", "TSTATUS_INVALID_HANDLE"), e
        seen.add(getattr(e, "name", "closed"))
        if "TSTATUS_ABORTED" in seen:
            return
    pytest.fail("no close landed while a call waited in 200 tries: %s" % seen)


def _fds_and_threads():
    return len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))


def test_nothing_left_after_close(replug_over):
    before = _fds_and_threads()
    for _ in range(3):
        with karvex.Adapter(ADAPTER0) as a:
            a.set_pin_mode(5, karvex.PinMode.INPUT_EVENT)
            a.on_pin_event(lambda pin, level: None)
            with a.pin_events(timeout=DEADLINE) as events:
                next(events)
            assert _fds_and_threads() > before
    assert _fds_and_threads() == before
