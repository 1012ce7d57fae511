"""Loads libkarvex.so.1 and declares the C prototypes the package calls."""
from __future__ import annotations

import ctypes
import os

c_uint = ctypes.c_uint
c_int = ctypes.c_int
c_void_p = ctypes.c_void_p
c_char_p = ctypes.c_char_p
POINTER = ctypes.POINTER

# Callback types. Both run on a library thread; ctypes takes the GIL for the
# time the Python function runs and gives it back when it returns.
DEVICE_CHANGE_CB = ctypes.CFUNCTYPE(None, c_void_p, c_int)
PIN_EVENT_CB = ctypes.CFUNCTYPE(None, c_void_p, c_uint, c_int)


def _load() -> ctypes.CDLL:
    path = os.environ.get("KARVEX_LIBRARY")
    if path:
        if not os.path.isfile(path):
            raise ImportError("KARVEX_LIBRARY names %r, which is not a file" % path)
        return ctypes.CDLL(os.path.abspath(path))
    try:
        # Found the way the system loader finds it (ld.so.cache, LD_LIBRARY_PATH).
        return ctypes.CDLL("libkarvex.so.1")
    except OSError as e:
        raise ImportError(
            "cannot load libkarvex.so.1 (%s); install the library or set KARVEX_LIBRARY to its file" % e
        ) from None


# CDLL (not PyDLL): every call below releases the GIL while the library runs,
# so a call that waits for the adapter never stalls other Python threads.
lib = _load()

_PROTOTYPES = {
    "KARVEX_GetApiVersion": (c_uint, []),
    "KARVEX_RegisterDeviceChangeCallback": (c_int, [DEVICE_CHANGE_CB, c_void_p]),
    "KARVEX_EnumerateDevices": (c_int, [POINTER(c_uint)]),
    "KARVEX_GetDeviceInstanceId": (c_int, [c_uint, c_char_p, c_uint]),
    "KARVEX_OpenDevice": (c_int, [c_char_p, POINTER(c_uint)]),
    "KARVEX_CloseDevice": (c_int, [c_uint]),
    "KARVEX_CheckDeviceConnection": (c_int, [c_uint]),
    "KARVEX_GetDeviceUsbInfo": (c_int, [c_uint, POINTER(c_uint), POINTER(c_uint), POINTER(c_uint)]),
    "KARVEX_GetDeviceSerialNumber": (c_int, [c_uint, c_char_p, c_uint]),
    "KARVEX_SetPinMode": (c_int, [c_uint, c_uint, c_int]),
    "KARVEX_SetPinState": (c_int, [c_uint, c_uint, c_int]),
    "KARVEX_GetPinState": (c_int, [c_uint, c_uint, POINTER(c_int)]),
    "KARVEX_GetPinMode": (c_int, [c_uint, c_uint, POINTER(c_int)]),
    "KARVEX_RegisterPinEventCallback": (c_int, [c_uint, PIN_EVENT_CB, c_void_p]),
    "KARVEX_I2cTransaction": (
        c_int,
        [c_uint, c_uint, c_uint, c_uint, c_char_p, c_uint, c_void_p, c_uint, c_uint],
    ),
    "TStatusStringA": (c_char_p, [c_int]),
    "TPosixSetTraceMask": (None, [c_uint]),
    "TPosixGetTraceMask": (c_uint, []),
}

for _name, (_restype, _argtypes) in _PROTOTYPES.items():
    _fn = getattr(lib, _name)
    _fn.restype = _restype
    _fn.argtypes = _argtypes

# A null function pointer of each callback type (unregisters).
NO_DEVICE_CHANGE_CB = ctypes.cast(None, DEVICE_CHANGE_CB)
NO_PIN_EVENT_CB = ctypes.cast(None, PIN_EVENT_CB)
