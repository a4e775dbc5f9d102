"""Fingerprint readers through libztuvc, with frames as NumPy arrays.

>>> import ztuvc
>>> ztuvc.readers()                           # doctest: +SKIP
[ReaderInfo(index=0, name='3a5c_000d_0100_001_1-1', ...)]
>>> with ztuvc.open(0) as cam:                # doctest: +SKIP
...     with cam.stream(slots=4) as s:
...         with s.get(timeout_ms=1000) as frame:
...             print(frame.image.shape, frame.image.mean())

The package loads ``libztuvc.so.3`` by its soname (or the file that
``ZTUVC_LIBRARY`` names), initialises the library once per process and
cleans it up at exit.

Frames are not copied: ``Frame.image`` is a read-only view of the library's
frame slot.  The slot is handed back by ``Frame.release()`` (or at the end of
a ``with`` block, or when a ``for frame in stream`` loop moves on), and the
library fills it again with a later frame.  A view must therefore not be kept
past the release of its frame: take ``frame.copy()`` to keep an image.  After
the release the frame refuses ``.image`` and ``.copy()`` (``ValueError``), and
a view still referenced elsewhere at that moment is reported with a
``ResourceWarning`` (shown by ``python -X dev`` and by pytest).

Errors of the library are exceptions: ``Error`` with the library's ``code``,
and its subclasses ``Failure`` (-1), ``NoDevice`` (-2) and ``Timeout``
(-110).  Bad arguments raise ``TypeError`` or ``ValueError`` before anything
reaches the library.
"""

from __future__ import annotations

import atexit
import builtins
import ctypes
import errno
import fcntl
import os
import sys
import threading
import warnings
import weakref
from dataclasses import dataclass
from typing import Any, Callable, Iterator, List, NoReturn, Optional, Union

import numpy as np
import numpy.typing as npt

from . import _native
from ._native import ERR_FAILURE, ERR_NO_DEVICE, ERR_TIMEOUT, TRAILER_SIZE

__all__ = [
    "Camera",
    "Error",
    "Failure",
    "Flash",
    "Format",
    "Frame",
    "NoDevice",
    "ReaderInfo",
    "Sensor",
    "Stream",
    "Timeout",
    "open",
    "readers",
]

__version__ = "3.0.0"

_U32_MAX = 0xFFFFFFFF
_USBDEVFS_CONNECTINFO = 0x40085511  # _IOW('U', 17, struct usbdevfs_connectinfo)
_GONE_ERRNOS = (errno.ENOENT, errno.ENODEV, errno.ENXIO)
_ADDRESS_SPACE = 0x10000  # register and flash addresses travel as 16 bits

# ---------------------------------------------------------------- errors


class Error(Exception):
    """A libztuvc call failed; ``code`` is the library's result code."""

    code: int = ERR_FAILURE

    def __init__(self, message: str, code: Optional[int] = None) -> None:
        super().__init__(message)
        if code is not None:
            self.code = code


class Failure(Error):
    """The reader did not do what was asked (result code -1)."""

    code = ERR_FAILURE


class NoDevice(Error):
    """The reader is not there: unknown, closed, unplugged or not openable (-2)."""

    code = ERR_NO_DEVICE


class Timeout(Error, TimeoutError):
    """No frame within the time allowed (-110)."""

    code = ERR_TIMEOUT


_BY_CODE = {ERR_FAILURE: Failure, ERR_NO_DEVICE: NoDevice, ERR_TIMEOUT: Timeout}


def _error(code: int, what: str) -> Error:
    cls = _BY_CODE.get(code, Error)
    return cls(f"{what} failed ({code})", code)


# ------------------------------------------------------ library lifetime

_state_lock = threading.RLock()
_initialised = False
_open_cameras: weakref.WeakSet[Camera] = weakref.WeakSet()


def _lib() -> ctypes.CDLL:
    """The loaded library, initialised once (``camera_init``)."""
    global _initialised
    lib = _native.load()
    if not _initialised:
        with _state_lock:
            if not _initialised:
                lib.camera_init()
                _initialised = True
                atexit.register(_shutdown)
    return lib


def _shutdown() -> None:
    """At exit: close what is still open, then the one ``camera_cleanup``."""
    global _initialised
    with _state_lock:
        for cam in list(_open_cameras):
            cam.close()
        if _initialised:
            _native.load().camera_cleanup()
            _initialised = False


def _text(raw: Optional[bytes]) -> str:
    return raw.decode("utf-8", "replace") if raw is not None else ""


def _check_int(value: object, what: str, lo: int, hi: int) -> int:
    if isinstance(value, bool) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"{what} must be an int, not {type(value).__name__}")
    v = int(value)
    if not lo <= v <= hi:
        raise ValueError(f"{what} {v} is out of range ({lo}..{hi})")
    return v


# ------------------------------------------------------------- registry


@dataclass(frozen=True)
class ReaderInfo:
    """One attached reader as the last enumeration found it."""

    index: int
    name: str
    vendor_id: int
    product_id: int
    revision: int
    product: str
    manufacturer: str
    serial: str


def _enumerate() -> List[int]:
    """Refreshes the registry; returns the handles in registry order.

    An enumeration frees the records (and frame memory) of readers that are
    gone, so open cameras whose handle vanished are marked dead here, before
    anything can touch their frames again.
    """
    lib = _lib()
    with _state_lock:
        lib.camera_device_enumerate(None, 0)
        handles = [lib.camera_get_by_index(i) for i in range(lib.camera_device_count())]
        present = set(handles)
        for cam in list(_open_cameras):
            # A new record may reuse a freed one's address; ours is open
            # (the interval query fails on a closed camera).
            if cam._handle not in present or lib.camera_get_frame_interval(cam._handle, None) != 0:
                cam._forget()
    return [h for h in handles if h]


def _describe(index: int, handle: int) -> ReaderInfo:
    lib = _lib()
    return ReaderInfo(
        index=index,
        name=_text(lib.camera_get_filename(handle)),
        vendor_id=lib.camera_get_vid(handle),
        product_id=lib.camera_get_pid(handle),
        revision=lib.camera_get_revision(handle),
        product=_text(lib.camera_get_product_name(handle)),
        manufacturer=_text(lib.camera_get_manufacturer_name(handle)),
        serial=_text(lib.camera_get_serialnumber(handle)),
    )


def readers() -> List[ReaderInfo]:
    """Enumerates the attached readers and describes each one."""
    return [_describe(i, h) for i, h in enumerate(_enumerate())]


def open(reader: Union[int, str, ReaderInfo] = 0) -> Camera:  # noqa: A001 - the package's verb
    """Opens a reader by index, camera name or serial number (or a ``ReaderInfo``).

    Enumerates first.  Raises ``NoDevice`` when no reader matches or the reader
    cannot be opened (gone, busy in another process, no permission).
    """
    if isinstance(reader, ReaderInfo):
        reader = reader.name
    if isinstance(reader, bool) or not isinstance(reader, (int, np.integer, str)):
        raise TypeError(f"reader must be an index, a name or a serial number, not {type(reader).__name__}")
    if isinstance(reader, str) and not reader:
        raise ValueError("reader name must not be empty")
    if not isinstance(reader, str) and reader < 0:
        raise ValueError(f"reader index {reader} is negative")
    handles = _enumerate()
    chosen: Optional[int] = None
    if isinstance(reader, str):
        for h in handles:
            info = _describe(0, h)
            if reader in (info.name, info.serial):
                chosen = h
                break
    elif int(reader) < len(handles):
        chosen = handles[int(reader)]
    if chosen is None:
        raise NoDevice(f"no reader {reader!r} ({len(handles)} attached)")
    return Camera._open(chosen)


# ------------------------------------------------------------- camera


@dataclass(frozen=True)
class Format:
    """The reader's image format as ``camera_set_format`` reports it.

    ``fourcc``, ``width`` and ``height`` describe the stream (YUYV, two bytes
    per pixel); the delivered image is 8-bit grey of ``shape`` = (rows, columns).
    """

    fourcc: str
    width: int
    height: int
    image_size: int

    @property
    def shape(self) -> tuple[int, int]:
        """(rows, columns) of the grey image: ``image_size // width`` x ``width``."""
        return (self.image_size // self.width, self.width)


class Sensor:
    """``camera.sensor[address]``: one sensor register byte, read or written."""

    def __init__(self, camera: Camera) -> None:
        self._camera = camera

    def __getitem__(self, address: int) -> int:
        a = _check_int(address, "register address", 0, _ADDRESS_SPACE - 1)
        cam = self._camera
        return cam._value(_lib().camera_xu_sensor_read(cam._live(), a), "reading sensor register")

    def __setitem__(self, address: int, value: int) -> None:
        a = _check_int(address, "register address", 0, _ADDRESS_SPACE - 1)
        v = _check_int(value, "register value", 0, 255)
        cam = self._camera
        cam._value(_lib().camera_xu_sensor_write(cam._live(), a, v), "writing sensor register")


class Flash:
    """``camera.flash``: the reader's flash memory (read only)."""

    def __init__(self, camera: Camera) -> None:
        self._camera = camera

    def read(self, address: int, length: int) -> bytes:
        """Reads ``length`` bytes from ``address`` (the flash's 64 KiB window)."""
        a = _check_int(address, "flash address", 0, _ADDRESS_SPACE - 1)
        n = _check_int(length, "flash length", 1, _ADDRESS_SPACE - a)
        buf = ctypes.create_string_buffer(n)
        cam = self._camera
        cam._value(_lib().camera_xu_flash_read(cam._live(), a, n, buf), "reading flash")
        return buf.raw


class Camera:
    """An open reader: identity, format, interval, registers, flash and streams.

    Made by ``ztuvc.open()``; a context manager that closes the reader on exit.
    """

    sensor: Sensor
    """Sensor registers: ``cam.sensor[address]`` (0..0xFFFF) reads or writes a byte."""
    flash: Flash
    """Flash memory: ``cam.flash.read(address, length) -> bytes``."""

    _handle: int
    _name: str
    _closed: bool
    _gone: bool
    _stream: Optional[Stream]
    _node: Optional[str]
    _format: Format

    def __init__(self, *_args: object) -> None:
        raise TypeError("cameras are opened with ztuvc.open()")

    @classmethod
    def _open(cls, handle: int) -> Camera:
        lib = _lib()
        self = cls.__new__(cls)
        self._handle = handle
        self._closed = True  # until camera_open succeeds
        self._gone = False
        self._stream = None
        self._name = _text(lib.camera_get_filename(handle))
        rc = lib.camera_open(handle)
        if rc == ERR_FAILURE:
            raise Failure(f"reader {self._name} is already open", rc)
        if rc != 0:
            raise NoDevice(f"cannot open reader {self._name} (gone, busy in another process, or no permission)", rc)
        self._node = self._usbfs_node()
        fmt = _native.CameraFormat()
        rc = lib.camera_set_format(handle, ctypes.byref(fmt))
        if rc != 0 or fmt.dwWidth == 0:
            lib.camera_close(handle)
            raise _error(rc, f"reading the image format of {self._name}")
        self._closed = False
        fourcc = bytes((fmt.dwFourCC >> s) & 0xFF for s in (0, 8, 16, 24)).decode("ascii", "replace")
        self._format = Format(fourcc, fmt.dwWidth, fmt.dwHeight, fmt.dwImageSize)
        self.sensor = Sensor(self)
        self.flash = Flash(self)
        _open_cameras.add(self)
        return self

    # -- presence: the library reports a vanished reader as a plain failure,
    # so ask the reader's usbfs node, which answers ENODEV from the moment of
    # the unplug (sysfs may still show the device for a while).
    def _usbfs_node(self) -> Optional[str]:
        # Camera names are "vvvv_pppp_rrrr_BUS_SYSNAME".
        parts = self._name.split("_", 4)
        if len(parts) != 5 or "/" in parts[4] or not parts[4]:
            return None
        sysfs = f"/sys/bus/usb/devices/{parts[4]}"
        try:
            with builtins.open(f"{sysfs}/busnum") as f:
                bus = int(f.read())
            with builtins.open(f"{sysfs}/devnum") as f:
                dev = int(f.read())
        except (OSError, ValueError):
            return None
        root = os.environ.get("USB_DEVFS_PATH") or "/dev/bus/usb"
        return f"{root}/{bus:03d}/{dev:03d}"

    def _present(self) -> bool:
        """Whether the reader opened is still attached; True when it cannot tell."""
        if self._gone:
            return False
        if self._node is None:
            return True
        try:
            fd = os.open(self._node, os.O_RDWR | os.O_CLOEXEC)
        except OSError as exc:
            return exc.errno not in _GONE_ERRNOS
        try:
            fcntl.ioctl(fd, _USBDEVFS_CONNECTINFO, bytearray(8))
        except OSError as exc:
            return exc.errno not in _GONE_ERRNOS
        finally:
            os.close(fd)
        return True

    def _raise(self, code: int, what: str) -> NoReturn:
        if code == ERR_FAILURE and not self._present():
            raise NoDevice(f"{what} failed: reader {self._name} is gone", ERR_NO_DEVICE)
        raise _error(code, f"{what} on {self._name}")

    def _value(self, code: int, what: str) -> int:
        if code < 0:
            self._raise(code, what)
        return code

    def _live(self) -> int:
        if self._gone:
            raise NoDevice(f"reader {self._name} is gone", ERR_NO_DEVICE)
        if self._closed:
            raise ValueError(f"reader {self._name} is closed")
        return self._handle

    def _forget(self) -> None:
        """The registry dropped this reader (and freed its frame memory)."""
        self._gone = True
        if self._stream is not None:
            self._stream._abandon()
            self._stream = None
        _open_cameras.discard(self)

    # -- identity
    def _string(self, fn: Callable[[int], Optional[bytes]], what: str) -> str:
        raw = fn(self._live())
        if raw is None:
            raise NoDevice(f"{what}: reader {self._name} is not in the registry", ERR_NO_DEVICE)
        return _text(raw)

    @property
    def name(self) -> str:
        """The library's unique name of the attached reader."""
        return self._string(_lib().camera_get_filename, "name")

    @property
    def vendor_id(self) -> int:
        """USB vendor id."""
        return self._value(_lib().camera_get_vid(self._live()), "vendor id")

    @property
    def product_id(self) -> int:
        """USB product id."""
        return self._value(_lib().camera_get_pid(self._live()), "product id")

    @property
    def revision(self) -> int:
        """Device release number (bcdDevice)."""
        return self._value(_lib().camera_get_revision(self._live()), "revision")

    @property
    def product(self) -> str:
        """Product string."""
        return self._string(_lib().camera_get_product_name, "product")

    @property
    def manufacturer(self) -> str:
        """Manufacturer string."""
        return self._string(_lib().camera_get_manufacturer_name, "manufacturer")

    @property
    def serial(self) -> str:
        """Serial number string ("" when the reader has none)."""
        return self._string(_lib().camera_get_serialnumber, "serial")

    @property
    def format(self) -> Format:
        """The image format (selected when the camera was opened)."""
        self._live()
        return self._format

    # -- frame interval
    @property
    def interval_ms(self) -> int:
        """Frame interval in milliseconds; setting it stores the value in effect.

        The reader's shortest interval is the lower bound; a new interval is
        used from the next ``stream()``.
        """
        value = ctypes.c_uint32(0)
        rc = _lib().camera_get_frame_interval(self._live(), ctypes.byref(value))
        self._value(rc, "reading the frame interval")
        return value.value

    @interval_ms.setter
    def interval_ms(self, ms: int) -> None:
        self.set_interval(ms)

    def set_interval(self, ms: int) -> int:
        """Requests a frame interval and returns the one in effect."""
        value = ctypes.c_uint32(_check_int(ms, "interval_ms", 0, _U32_MAX))
        rc = _lib().camera_set_frame_interval(self._live(), ctypes.byref(value))
        self._value(rc, "setting the frame interval")
        return value.value

    # -- finger register
    @property
    def finger(self) -> int:
        """The finger register (sensor address 0xF000)."""
        return self._value(_lib().camera_xu_get_finger(self._live()), "reading the finger register")

    @finger.setter
    def finger(self, value: int) -> None:
        v = _check_int(value, "finger value", 0, 255)
        self._value(_lib().camera_xu_set_finger(self._live(), v), "writing the finger register")

    # -- streaming
    def stream(self, slots: int = 4) -> Stream:
        """Starts capture with 1..4 frame slots; the ``Stream`` stops it on exit."""
        n = _check_int(slots, "slots", 1, 4)
        handle = self._live()
        if self._stream is not None and self._stream.running:
            raise ValueError(f"reader {self._name} is already streaming")
        rc = _lib().camera_start_capture(handle, n)
        if rc != 0:
            self._raise(rc, "starting capture")
        self._stream = Stream(self, n)
        return self._stream

    # -- closing
    @property
    def closed(self) -> bool:
        """True after ``close()`` or once the reader has left the registry."""
        return self._closed or self._gone

    def close(self) -> None:
        """Stops any stream and closes the reader; frames become invalid."""
        with _state_lock:
            if self._closed:
                return
            if self._stream is not None:
                self._stream._abandon()
                self._stream = None
            self._closed = True
            _open_cameras.discard(self)
            if not self._gone:
                _lib().camera_close(self._handle)

    def __enter__(self) -> Camera:
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        # A camera nobody can reach any more would stay open (and unopenable)
        # until exit.
        if getattr(self, "_handle", None) is not None and not self.closed:
            try:
                self.close()
            except Exception:
                pass

    def __repr__(self) -> str:
        state = "gone" if self._gone else "closed" if self._closed else "open"
        return f"<ztuvc.Camera {self._name} {state}>"


class Stream:
    """A running capture; ``get()`` hands out frames, ``stop()`` (or ``with``) ends it.

    Iterating yields frames one after the other and releases each one when
    the loop moves on (or ends); it waits up to ``timeout_ms`` (an attribute,
    1000 by default) per frame.
    """

    timeout_ms: int = 1000

    def __init__(self, camera: Camera, slots: int) -> None:
        self._camera = camera
        self._lib = _lib()
        self._handle = camera._handle
        self.slots = slots
        self._running = True
        # Frames handed out and not yet released, by slot address: a frame
        # dropped without release() keeps its slot until the stream stops.
        self._outstanding: dict[int, Frame] = {}
        self._release_lock = threading.Lock()
        self._shape = camera._format.shape
        self._size = self._shape[0] * self._shape[1]
        self._buffer_type = ctypes.c_uint8 * (self._size + TRAILER_SIZE)

    @property
    def running(self) -> bool:
        """True until ``stop()``, the end of the ``with`` block or the reader's loss."""
        return self._running

    def get(self, timeout_ms: int = 1000) -> Frame:
        """Waits for the next frame (up to ``timeout_ms`` + 1500 ms in the library).

        Raises ``Timeout`` when none comes (for example while all slots are
        held), ``NoDevice`` when the reader is gone, ``Failure`` when the stream
        is not running.
        """
        t = _check_int(timeout_ms, "timeout_ms", 0, _U32_MAX - 1500)
        if not self._running:
            raise Failure("the stream is stopped", ERR_FAILURE)
        ptr = ctypes.c_void_p()
        rc = self._lib.camera_get_image(self._handle, t, ctypes.byref(ptr))
        if rc != 0 or not ptr.value:
            self._camera._raise(rc if rc != 0 else ERR_FAILURE, "waiting for a frame")
        frame = Frame(self, ptr.value)
        self._outstanding[frame.address] = frame
        # A stop or close from another thread while this call waited: the
        # slot is not ours any more (_abandon clears _running first).
        if not self._running:
            frame._invalidate()
            raise Failure("the stream was stopped while waiting for a frame", ERR_FAILURE)
        return frame

    def __iter__(self) -> Iterator[Frame]:
        while True:
            frame = self.get(self.timeout_ms)
            try:
                yield frame
            finally:
                frame.release()

    def flush(self) -> None:
        """Discards the finished frames not yet handed out."""
        if self._running:
            rc = self._lib.camera_flush(self._handle)
            if rc != 0:
                self._camera._raise(rc, "flushing")

    def _abandon(self) -> None:
        # Frame memory is about to be reused or freed: no frame may reach it.
        self._running = False
        for frame in list(self._outstanding.values()):
            frame._invalidate()
        self._outstanding.clear()

    def stop(self) -> None:
        """Releases the frames still held and stops capture."""
        if not self._running:
            return
        for frame in list(self._outstanding.values()):
            try:
                frame.release()
            except Error:
                pass  # the slot is freed by the stop anyway
        self._abandon()
        if self._camera._stream is self:
            self._camera._stream = None
        if not self._camera.closed:
            rc = self._lib.camera_stop_capture(self._handle)
            if rc != 0:
                self._camera._raise(rc, "stopping capture")

    def __enter__(self) -> Stream:
        return self

    def __exit__(self, exc_type: object, *exc: object) -> None:
        try:
            self.stop()
        except Error:
            if exc_type is None:
                raise
            # The error that ended the block (a reader gone, say) is the news.


class Frame:
    """One frame handed out by ``Stream.get()``: the image in place plus its times.

    ``image`` is a read-only ``numpy.uint8`` view (rows x columns) of the
    library's frame slot, valid until ``release()``; ``copy()`` gives an owned
    array.  ``start_ms`` and ``returned_ms`` come from the frame's trailer
    (milliseconds since the library's time base).  A context manager that
    releases on exit.
    """

    __slots__ = ("_stream", "address", "start_ms", "returned_ms", "_view", "_released")

    def __init__(self, stream: Stream, address: int) -> None:
        self._stream = stream
        self.address = address  # the frame slot, as camera_get_image returned it
        ts = _native.TimeStamp.from_address(address + stream._size)
        self.start_ms: int = ts.dwFrameStart
        self.returned_ms: int = ts.dwFrameReturned
        self._view: Optional[npt.NDArray[np.uint8]] = None
        self._released = False

    @property
    def released(self) -> bool:
        """True once the slot has gone back to the library."""
        return self._released

    @property
    def image(self) -> npt.NDArray[np.uint8]:
        """The grey image as a read-only view of the frame slot (no copy)."""
        view = self._view
        if view is None:
            if self._released:
                raise ValueError("the frame has been released; keep frame.copy() instead of the view")
            s = self._stream
            raw = memoryview(s._buffer_type.from_address(self.address)).toreadonly()
            view = np.frombuffer(raw, np.uint8, s._size).reshape(s._shape)
            self._view = view
        return view

    def copy(self) -> npt.NDArray[np.uint8]:
        """An owned copy of the image, valid after the release."""
        return self.image.copy()

    def release(self) -> None:
        """Gives the slot back to the library; a second call does nothing."""
        s = self._stream
        with s._release_lock:  # exactly one release reaches the library
            if self._released:
                return
            self._released = True
            s._outstanding.pop(self.address, None)
        self._drop_view()
        rc = s._lib.camera_put_image(s._handle, self.address)
        if rc != 0:
            s._camera._raise(rc, "releasing a frame")

    def _invalidate(self) -> None:
        self._released = True
        self._drop_view()

    def _drop_view(self) -> None:
        view = self._view
        if view is None:
            return
        self._view = None
        # Besides the local name and getrefcount's argument, someone still holds it.
        if sys.getrefcount(view) > 2:
            warnings.warn(
                "a view of a released frame's image is still in use; it now shows another "
                "frame (or freed memory after close): use frame.copy() to keep an image",
                ResourceWarning,
                stacklevel=3,
            )

    def __enter__(self) -> Frame:
        return self

    def __exit__(self, *exc: object) -> None:
        self.release()

    def __repr__(self) -> str:
        state = "released" if self._released else "held"
        return f"<ztuvc.Frame at 0x{self.address:x} start={self.start_ms} ms {state}>"
