"""Exceptions that carry the library's status code."""
from __future__ import annotations

import builtins
from typing import Dict, Type

from ._native import lib

SUCCESS = 0x00000000
TIMEOUT = 0xE0000003
ABORTED = 0xE0000005
IN_USE = 0xE0000006
NOT_ALLOWED = 0xE0000032
NO_DEVICES = 0xE0000023
DEVICE_REMOVED = 0xE0000071
LINUX_ENODEV = 0xE0010013  # what a call on an unplugged adapter's node fails with
OBJECT_NOT_FOUND = 0xE0000081


def status_name(status: int) -> str:
    """The library's name of a status code ("TSTATUS_TIMEOUT"), or "unknown"."""
    status &= 0xFFFFFFFF
    signed = status - 0x100000000 if status & 0x80000000 else status
    name = lib.TStatusStringA(signed)
    return name.decode("ascii", "replace") if name else "unknown"


class KarvexError(Exception):
    """A library call failed.

    ``status`` is the library's 32-bit status code as an unsigned int
    (0xE0000003 for TSTATUS_TIMEOUT), ``name`` its name as the library
    spells it (``TStatusStringA``).
    """

    status: int
    name: str

    def __init__(self, status: int, what: str = "") -> None:
        self.status = status & 0xFFFFFFFF
        self.name = status_name(self.status)
        self.what = what
        text = "0x%08X %s" % (self.status, self.name)
        super().__init__("%s: %s" % (what, text) if what else text)

    def __reduce__(self):  # keeps the status through pickling and copying
        return (type(self), (self.status, self.what))


class TimeoutError(KarvexError, builtins.TimeoutError):
    """The adapter did not answer in time (TSTATUS_TIMEOUT); also a built-in TimeoutError."""


class DeviceRemovedError(KarvexError):
    """The adapter was unplugged; close the Adapter.

    Raised for TSTATUS_DEVICE_REMOVED and for TSTATUS_LINUX_ENODEV, the
    status of a call that finds the adapter's node gone; ``status`` says which.
    """


class InUseError(KarvexError):
    """The adapter is already open, in this process or another (TSTATUS_IN_USE)."""


class NotFoundError(KarvexError):
    """No supported adapter has that instance id (TSTATUS_OBJECT_NOT_FOUND)."""


_BY_STATUS: Dict[int, Type[KarvexError]] = {
    TIMEOUT: TimeoutError,
    DEVICE_REMOVED: DeviceRemovedError,
    LINUX_ENODEV: DeviceRemovedError,
    IN_USE: InUseError,
    OBJECT_NOT_FOUND: NotFoundError,
}


def error(status: int, what: str = "") -> KarvexError:
    """The exception for a failed status: the most specific KarvexError subclass."""
    status &= 0xFFFFFFFF
    return _BY_STATUS.get(status, KarvexError)(status, what)


def check(status: int, what: str) -> None:
    """Raises the matching KarvexError unless status is TSTATUS_SUCCESS."""
    if status != 0:
        raise error(status, what)
