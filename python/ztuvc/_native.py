"""ctypes prototypes of the 41 ``camera_*`` functions of libztuvc.so.3.

Every function gets explicit ``argtypes`` and ``restype``: without them ctypes
passes and returns C ``int``, which would cut 64-bit handles and frame
addresses in half.  This module only loads and declares; the package's
public layer decides what the result codes mean.
"""

from __future__ import annotations

import ctypes
import os
import threading
from ctypes import POINTER, c_char, c_char_p, c_int32, c_uint16, c_uint32, c_void_p
from typing import Optional

SONAME = "libztuvc.so.3"

OK = 0
ERR_FAILURE = -1
ERR_NO_DEVICE = -2
ERR_TIMEOUT = -110

TRAILER_SIZE = 12


class CameraFormat(ctypes.Structure):
    """``CAMERA_FORMAT``: filled by ``camera_set_format``."""

    _fields_ = [
        ("dwFourCC", c_uint32),
        ("dwWidth", c_uint32),
        ("dwHeight", c_uint32),
        ("dwImageSize", c_uint32),
        ("dwReserved", c_uint32),
    ]


class TimeStamp(ctypes.Structure):
    """``CAMERA_TIME_STAMP``: the 12-byte trailer behind every image."""

    _fields_ = [
        ("szSignature", c_char * 4),
        ("dwFrameStart", c_uint32),
        ("dwFrameReturned", c_uint32),
    ]


# name: (restype, argtypes).  Handles travel as void pointers.
_H = c_void_p
_PROTOTYPES: dict[str, tuple[object, list[object]]] = {
    # lifecycle and registry
    "camera_init": (None, []),
    "camera_cleanup": (None, []),
    "camera_device_enumerate": (None, [c_void_p, c_int32]),
    "camera_device_count": (c_uint32, []),
    "camera_get_by_index": (_H, [c_uint32]),
    "camera_get_by_vid_pid": (_H, [c_uint16, c_uint16]),
    # opening and identity
    "camera_open": (c_int32, [_H]),
    "camera_close": (None, [_H]),
    "camera_get_filename": (c_char_p, [_H]),
    "camera_get_vid": (c_int32, [_H]),
    "camera_get_pid": (c_int32, [_H]),
    "camera_get_revision": (c_int32, [_H]),
    "camera_get_product_name": (c_char_p, [_H]),
    "camera_get_manufacturer_name": (c_char_p, [_H]),
    "camera_get_serialnumber": (c_char_p, [_H]),
    # capture
    "camera_start_capture": (c_int32, [_H, c_uint32]),
    "camera_stop_capture": (c_int32, [_H]),
    "camera_get_image": (c_int32, [_H, c_uint32, POINTER(c_void_p)]),
    "camera_put_image": (c_int32, [_H, c_void_p]),
    "camera_flush": (c_int32, [_H]),
    # format and frame interval
    "camera_get_format": (c_int32, [_H, POINTER(CameraFormat)]),
    "camera_set_format": (c_int32, [_H, POINTER(CameraFormat)]),
    "camera_get_frame_interval": (c_int32, [_H, POINTER(c_uint32)]),
    "camera_set_frame_interval": (c_int32, [_H, POINTER(c_uint32)]),
    # extension unit
    "camera_xu_sensor_read": (c_int32, [_H, c_uint32]),
    "camera_xu_sensor_write": (c_int32, [_H, c_uint32, c_int32]),
    "camera_xu_get_finger": (c_int32, [_H]),
    "camera_xu_set_finger": (c_int32, [_H, c_int32]),
    "camera_xu_flash_read": (c_int32, [_H, c_uint32, c_int32, c_void_p]),
    # controls the readers do not have (each returns 0)
    "camera_get_controls": (c_int32, [_H, c_void_p, POINTER(c_uint32)]),
    "camera_get_control_info": (c_int32, [_H, c_uint32, c_void_p]),
    "camera_get_control": (c_int32, [_H, c_uint32, POINTER(c_int32)]),
    "camera_set_control": (c_int32, [_H, c_uint32, c_int32]),
    "camera_button_state": (c_int32, [_H, POINTER(c_int32)]),
    "camera_wait_for_button": (c_int32, [_H, c_uint32]),
    "camera_xu_get_flip": (c_int32, [_H, POINTER(c_int32)]),
    "camera_xu_set_flip": (c_int32, [_H, c_int32]),
    "camera_xu_get_mirror": (c_int32, [_H, POINTER(c_int32)]),
    "camera_xu_set_mirror": (c_int32, [_H, c_int32]),
    "camera_xu_set_leds_mode": (c_int32, [_H, c_int32]),
    "camera_xu_set_leds": (c_int32, [_H, c_int32]),
}

_lock = threading.Lock()
_lib: Optional[ctypes.CDLL] = None


def library_path() -> str:
    """The file name handed to the dynamic loader: ``$ZTUVC_LIBRARY`` or the soname."""
    return os.environ.get("ZTUVC_LIBRARY") or SONAME


def load() -> ctypes.CDLL:
    """Loads libztuvc once per process and declares every exported function."""
    global _lib
    with _lock:
        if _lib is None:
            path = library_path()
            try:
                lib = ctypes.CDLL(path)
            except OSError as exc:
                raise ImportError(
                    f"cannot load {path}: {exc} (install libztuvc, or set ZTUVC_LIBRARY "
                    "to the library's path)"
                ) from exc
            for name, (restype, argtypes) in _PROTOTYPES.items():
                fn = getattr(lib, name)
                fn.restype = restype
                fn.argtypes = argtypes
            _lib = lib
        return _lib
