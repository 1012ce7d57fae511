"""Drive Karvex USB GPIO + I2C adapters from Python.

A thin layer over the C library libkarvex.so.1 (through ctypes)::

    import karvex

    for path in karvex.list_adapters():
        with karvex.Adapter(path) as a:
            print(path, a.serial, a.usb_id)
            a.set_pin_mode(3, karvex.PinMode.OUTPUT_LOW)
            a.set_pin(3, 1)
            eeprom = a.i2c_transfer(bus=0, address=0x50, write=b"\\x00", read=4)

The library is loaded from ``KARVEX_LIBRARY`` (a file name) when that is set,
else as ``libkarvex.so.1`` the way the system loader finds it. Importing the
package sets the library's trace mask to 0 (no trace on stdout) unless
``KARVEX_TRACE`` holds a mask ("0x30").

Every library call releases the GIL while it runs. Callbacks run on the
library's threads and hold the GIL only while their Python code runs; an
exception that escapes one goes to ``sys.unraisablehook`` and the library's
thread goes on.
"""
from __future__ import annotations

import atexit
import ctypes
import enum
import operator
import os
import threading
import warnings
import weakref
from typing import Callable, List, NamedTuple, Optional, Tuple, Union

from . import _errors
from ._errors import (
    DeviceRemovedError,
    InUseError,
    KarvexError,
    NotFoundError,
    TimeoutError,
    check,
    status_name,
)
from ._events import AsyncEventIterator, EventIterator, Hub
from ._native import (
    DEVICE_CHANGE_CB,
    NO_DEVICE_CHANGE_CB,
    NO_PIN_EVENT_CB,
    PIN_EVENT_CB,
    lib,
)

__version__ = "1.0.0"

__all__ = [
    "Adapter",
    "AsyncEventIterator",
    "DeviceEvent",
    "DeviceRemovedError",
    "EventIterator",
    "InUseError",
    "KarvexError",
    "NotFoundError",
    "PinMode",
    "TimeoutError",
    "UsbId",
    "api_version",
    "device_changes",
    "device_changes_async",
    "get_trace_mask",
    "list_adapters",
    "on_device_change",
    "set_trace_mask",
    "status_name",
]

MAX_I2C_LENGTH = 256
MAX_I2C_TIMEOUT_MS = 30000


class PinMode(enum.IntEnum):
    """How a pin is configured (``KARVEX_GPIOMode``)."""

    INPUT = 0
    INPUT_EVENT = 1  # an input that reports every change to on_pin_event / pin_events
    OUTPUT_LOW = 2
    OUTPUT_HIGH = 3


class DeviceEvent(enum.IntEnum):
    """What happened to an adapter (``KARVEXDeviceEvent``)."""

    ATTACHED = 1
    REMOVED = 2


class UsbId(NamedTuple):
    """USB identity of an adapter; compares equal to a plain (vid, pid, release) tuple."""

    vendor: int
    product: int
    release: int  # bcdDevice: 0x0100 is release 1.00


# ---- argument checks (before any call, so the library only sees what it can judge)

def _int(value: object, what: str, low: int, high: int) -> int:
    try:
        number = operator.index(value)  # type: ignore[arg-type]
    except TypeError:
        raise TypeError("%s must be an int, not %s" % (what, type(value).__name__)) from None
    if not low <= number <= high:
        raise ValueError("%s must be in %d..%d, got %d" % (what, low, high, number))
    return number


def _uint32(value: object, what: str) -> int:
    return _int(value, what, 0, 0xFFFFFFFF)


# ---- versions and trace

def api_version() -> Tuple[int, int]:
    """The loaded library's API version as (major, minor), e.g. (1, 0)."""
    v = lib.KARVEX_GetApiVersion()
    return (v >> 16, v & 0xFFFF)


def set_trace_mask(mask: int) -> None:
    """Sets the library's trace mask (KARVEX_TRACE_* bits; 0 silences the trace on stdout)."""
    lib.TPosixSetTraceMask(_uint32(mask, "mask"))


def get_trace_mask() -> int:
    """The library's current trace mask."""
    return int(lib.TPosixGetTraceMask())


def _initial_trace_mask() -> int:
    text = os.environ.get("KARVEX_TRACE")
    if text is None:
        return 0
    try:
        return _uint32(int(text, 0), "KARVEX_TRACE")
    except ValueError:
        warnings.warn("KARVEX_TRACE=%r is not a mask; the trace stays off" % text, RuntimeWarning)
        return 0


lib.TPosixSetTraceMask(_initial_trace_mask())


# ---- enumeration and hot-plug

# The library keeps one snapshot of the attached adapters: enumerating and
# reading the ids of that snapshot must not interleave across threads.
_enum_lock = threading.Lock()


def list_adapters() -> List[str]:
    """Instance ids (hidraw node paths such as "/dev/hidraw0") of the attached adapters."""
    with _enum_lock:
        count = ctypes.c_uint(0)
        st = lib.KARVEX_EnumerateDevices(ctypes.byref(count))
        if st & 0xFFFFFFFF == _errors.NO_DEVICES:
            return []
        check(st, "KARVEX_EnumerateDevices")
        paths = []
        buffer = ctypes.create_string_buffer(4096)
        for index in range(count.value):
            check(lib.KARVEX_GetDeviceInstanceId(index, buffer, len(buffer)), "KARVEX_GetDeviceInstanceId")
            paths.append(os.fsdecode(buffer.value))
        return paths


class _DeviceChanges:
    """The hot-plug registration. The library's callback carries only the
    event; the paths come from comparing enumerations before and after."""

    def __init__(self) -> None:
        self.known: set = set()
        self.trampoline = DEVICE_CHANGE_CB(self._on_event)  # kept alive while registered
        self.hub = Hub(self._register, self._unregister, "KARVEX_RegisterDeviceChangeCallback")

    def _register(self) -> int:
        self.known = set(list_adapters())
        return lib.KARVEX_RegisterDeviceChangeCallback(self.trampoline, None)

    def _unregister(self) -> int:
        return lib.KARVEX_RegisterDeviceChangeCallback(NO_DEVICE_CHANGE_CB, None)

    def _on_event(self, _context: object, event: int) -> None:
        try:
            kind: Union[DeviceEvent, int] = DeviceEvent(event)
        except ValueError:
            kind = event
        try:
            now = set(list_adapters())
        except KarvexError:
            now = set(self.known)
        if kind == DeviceEvent.ATTACHED:
            paths = now - self.known
        elif kind == DeviceEvent.REMOVED:
            paths = self.known - now
        else:
            paths = set()
        self.known = now
        if not paths:
            # A remove and re-attach faster than the enumeration: the event
            # is real, the adapter it concerns cannot be told apart.
            self.hub.deliver(kind, None)
        for path in sorted(paths):
            self.hub.deliver(kind, path)


_device_changes = _DeviceChanges()

DeviceChangeCallback = Callable[[DeviceEvent, Optional[str]], object]


def on_device_change(callback: Optional[DeviceChangeCallback]) -> None:
    """Calls ``callback(event, path)`` when an adapter is attached or removed.

    ``event`` is a DeviceEvent, ``path`` the adapter's instance id (None in
    the rare case that a remove and re-attach came too fast to tell which
    adapter it was). The callback runs on the library's hot-plug thread; it
    may use every function of this package except on_device_change itself.
    ``None`` unregisters. A removal is only reported: close the Adapter.
    """
    if callback is not None and not callable(callback):
        raise TypeError("callback must be callable or None")
    _device_changes.hub.set_callback(callback)


def device_changes(timeout: Optional[float] = None) -> EventIterator:
    """Iterator of (event, path) pairs; ends after ``timeout`` seconds without one."""
    return EventIterator(_device_changes.hub, timeout)


def device_changes_async(timeout: Optional[float] = None) -> AsyncEventIterator:
    """Asynchronous iterator of (event, path) pairs for the running event loop."""
    return AsyncEventIterator(_device_changes.hub, timeout)


# ---- adapters

PinCallback = Callable[[int, int], object]

_open_adapters: "weakref.WeakSet[Adapter]" = weakref.WeakSet()
# Trampolines of handles the library would not close (a close from inside
# the adapter's own pin callback): the library may still call them.
_kept_alive: list = []


class Adapter:
    """An open adapter. Use it as a context manager, or call close().

    Calls on one adapter run one at a time in the library; calls on
    different adapters run in parallel. Closing from another thread makes a
    call that waits for the adapter raise KarvexError (TSTATUS_ABORTED).
    After close(), methods raise ValueError.
    """

    def __init__(self, path: Union[str, bytes, "os.PathLike[str]"]) -> None:
        """Opens the adapter with that instance id, e.g. "/dev/hidraw0".

        Raises NotFoundError when no supported adapter has that id,
        InUseError when it is already open.
        """
        self._handle = 0
        if not isinstance(path, (str, bytes, os.PathLike)):
            raise TypeError("path must be a str, bytes or os.PathLike, not %s" % type(path).__name__)
        raw = os.fsencode(path)
        if b"\0" in raw:
            raise ValueError("path contains a NUL byte")
        self.path: str = os.fsdecode(raw)
        handle = ctypes.c_uint(0)
        check(lib.KARVEX_OpenDevice(raw, ctypes.byref(handle)), "KARVEX_OpenDevice(%s)" % self.path)
        self._handle = handle.value
        self._trampoline = PIN_EVENT_CB(self._on_pin_event)
        self._pins = Hub(self._register, self._unregister, "KARVEX_RegisterPinEventCallback")
        _open_adapters.add(self)

    def __repr__(self) -> str:
        state = "open" if self._handle else "closed"
        return "<karvex.Adapter %s %s>" % (self.path, state)

    def __enter__(self) -> "Adapter":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", 0):
            try:
                self.close()
            except Exception:
                _kept_alive.append(self._trampoline)

    def close(self) -> None:
        """Closes the adapter; stops its pin events. Closing twice is harmless.

        The library refuses (KarvexError, TSTATUS_NOT_ALLOWED) a close from
        inside this adapter's own pin callback.
        """
        handle = self._handle
        if not handle:
            return
        check(lib.KARVEX_CloseDevice(handle), "KARVEX_CloseDevice")
        self._handle = 0
        self._pins.closed()
        _open_adapters.discard(self)

    @property
    def closed(self) -> bool:
        """True after close()."""
        return not self._handle

    def _h(self) -> int:
        handle = self._handle
        if not handle:
            raise ValueError("the adapter %s is closed" % self.path)
        return handle

    # ---- identity and connection

    @property
    def serial(self) -> Optional[str]:
        """The adapter's serial number ("KVX000001"), None when it has none."""
        buffer = ctypes.create_string_buffer(256)
        st = lib.KARVEX_GetDeviceSerialNumber(self._h(), buffer, len(buffer))
        if st & 0xFFFFFFFF == 0xE0000030:  # TSTATUS_NOT_SUPPORTED: no serial number
            return None
        check(st, "KARVEX_GetDeviceSerialNumber")
        return buffer.value.decode("utf-8", "replace")

    @property
    def usb_id(self) -> UsbId:
        """(vendor id, product id, release), e.g. (0x1209, 0x7A01, 0x0100)."""
        vid, pid, bcd = ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
        check(
            lib.KARVEX_GetDeviceUsbInfo(self._h(), ctypes.byref(vid), ctypes.byref(pid), ctypes.byref(bcd)),
            "KARVEX_GetDeviceUsbInfo",
        )
        return UsbId(vid.value, pid.value, bcd.value)

    @property
    def connected(self) -> bool:
        """False once the adapter was unplugged (close it then)."""
        st = lib.KARVEX_CheckDeviceConnection(self._h()) & 0xFFFFFFFF
        if st == _errors.DEVICE_REMOVED:
            return False
        check(st, "KARVEX_CheckDeviceConnection")
        return True

    # ---- pins (pin numbers go to the adapter, which decides which exist)

    def set_pin_mode(self, pin: int, mode: Union[PinMode, int]) -> None:
        """Configures a pin: PinMode.INPUT, INPUT_EVENT, OUTPUT_LOW or OUTPUT_HIGH."""
        pin = _uint32(pin, "pin")
        mode = PinMode(_int(mode, "mode", 0, 3))
        check(lib.KARVEX_SetPinMode(self._h(), pin, int(mode)), "KARVEX_SetPinMode(%d)" % pin)

    def get_pin_mode(self, pin: int) -> PinMode:
        """The pin's configured mode."""
        pin = _uint32(pin, "pin")
        mode = ctypes.c_int(0)
        check(lib.KARVEX_GetPinMode(self._h(), pin, ctypes.byref(mode)), "KARVEX_GetPinMode(%d)" % pin)
        return PinMode(mode.value)

    def set_pin(self, pin: int, level: int) -> None:
        """Drives an output pin low (0) or high (1)."""
        pin = _uint32(pin, "pin")
        level = _int(level, "level", 0, 1)
        check(lib.KARVEX_SetPinState(self._h(), pin, level), "KARVEX_SetPinState(%d)" % pin)

    def get_pin(self, pin: int) -> int:
        """Reads a pin's level: 0 or 1."""
        pin = _uint32(pin, "pin")
        state = ctypes.c_int(0)
        check(lib.KARVEX_GetPinState(self._h(), pin, ctypes.byref(state)), "KARVEX_GetPinState(%d)" % pin)
        return state.value

    # ---- pin events

    def _register(self) -> int:
        return lib.KARVEX_RegisterPinEventCallback(self._h(), self._trampoline, None)

    def _unregister(self) -> int:
        return lib.KARVEX_RegisterPinEventCallback(self._h(), NO_PIN_EVENT_CB, None)

    def _on_pin_event(self, _context: object, pin: int, level: int) -> None:
        self._pins.deliver(pin, level)

    def on_pin_event(self, callback: Optional[PinCallback]) -> None:
        """Calls ``callback(pin, level)`` for each change of a PinMode.INPUT_EVENT pin.

        The callback runs on the adapter's pin event thread. It may call this
        adapter's methods except close(); an exception it raises goes to
        sys.unraisablehook. ``None`` unregisters.
        """
        if callback is not None and not callable(callback):
            raise TypeError("callback must be callable or None")
        self._h()
        self._pins.set_callback(callback)

    def pin_events(self, timeout: Optional[float] = None) -> EventIterator:
        """Iterator of (pin, level) pairs; ends after ``timeout`` seconds without an event.

        ``for pin, level in a.pin_events(timeout=1.0): ...``
        """
        self._h()
        return EventIterator(self._pins, timeout)

    def pin_events_async(self, timeout: Optional[float] = None) -> AsyncEventIterator:
        """Asynchronous iterator of (pin, level) pairs for the running event loop.

        ``async for pin, level in a.pin_events_async(timeout=1.0): ...``
        """
        self._h()
        return AsyncEventIterator(self._pins, timeout)

    # ---- I2C

    def i2c_transfer(
        self,
        bus: int,
        address: int,
        write: Union[bytes, bytearray, memoryview] = b"",
        read: int = 0,
        *,
        speed: int = 100000,
        timeout_ms: int = 1000,
    ) -> bytes:
        """One I2C transfer: write ``write`` (0..256 bytes), then read ``read`` (0..256) bytes.

        ``address`` goes to the adapter unchanged (the emulated EEPROM is at
        0x50); ``speed`` is the bus clock in Hz; ``timeout_ms`` (1..30000) is
        the adapter's limit for the transfer (the library waits twice that,
        at least 1 s). A slave that does not answer raises KarvexError with
        the adapter's status (0xE00011xx).
        """
        bus = _int(bus, "bus", 0, 255)
        address = _int(address, "address", 0, 255)
        if isinstance(write, str):
            raise TypeError("write must be bytes-like, not str")
        try:
            data = bytes(memoryview(write))  # type: ignore[arg-type]
        except TypeError:
            raise TypeError("write must be bytes-like, not %s" % type(write).__name__) from None
        if len(data) > MAX_I2C_LENGTH:
            raise ValueError("write holds %d bytes, at most %d" % (len(data), MAX_I2C_LENGTH))
        read = _int(read, "read", 0, MAX_I2C_LENGTH)
        speed = _uint32(speed, "speed")
        timeout_ms = _int(timeout_ms, "timeout_ms", 1, MAX_I2C_TIMEOUT_MS)
        buffer = ctypes.create_string_buffer(max(read, 1))
        check(
            lib.KARVEX_I2cTransaction(
                self._h(), bus, speed, address, data or None, len(data),
                buffer if read else None, read, timeout_ms,
            ),
            "KARVEX_I2cTransaction(bus %d, address 0x%02X)" % (bus, address),
        )
        return buffer.raw[:read]


@atexit.register
def _shutdown() -> None:
    # Before the interpreter goes away: no library thread may call into it later.
    for adapter in list(_open_adapters):
        try:
            adapter.close()
        except Exception:
            pass
    try:
        _device_changes.hub.closed()
        lib.KARVEX_RegisterDeviceChangeCallback(NO_DEVICE_CHANGE_CB, None)
    except Exception:
        pass
