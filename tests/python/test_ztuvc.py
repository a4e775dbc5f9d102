"""The Python binding against simulated readers (model 30, test pattern)."""

from __future__ import annotations

import ctypes
import os
import signal
import struct
import time
from typing import Any

import numpy as np
import pytest

import ztuvc
from conftest import COLS, PRODUCT, READERS, ROWS, VENDOR, default_register, flash_byte, pattern

SIZE = ROWS * COLS


def test_readers_and_identity(infos: list[ztuvc.ReaderInfo]) -> None:
    assert [i.index for i in infos] == list(range(READERS))
    for n, info in enumerate(infos, start=1):
        assert info.name == f"3a5c_000d_0100_001_1-{n}"
        assert (info.vendor_id, info.product_id, info.revision) == (VENDOR, PRODUCT, 0x0100)
        assert info.product == "Tessary 30 Fingerprint Reader"
        assert info.manufacturer == "Tessary Biometrics"
        assert info.serial == f"SIM{n:08d}"
    assert ztuvc.readers() == infos  # the same readers keep their places

    second = infos[1]
    keys: list[Any] = [1, second.name, second.serial, second, np.int64(1)]
    for key in keys:
        with ztuvc.open(key) as cam:
            got = (cam.name, cam.vendor_id, cam.product_id, cam.revision, cam.product, cam.manufacturer, cam.serial)
            assert got == (second.name, second.vendor_id, second.product_id, second.revision,
                           second.product, second.manufacturer, second.serial)
            with pytest.raises(ztuvc.Failure) as busy:
                ztuvc.open(second.serial)  # already open
            assert busy.value.code == -1
        assert cam.closed
        with pytest.raises(ValueError):
            cam.serial
    with ztuvc.open(second.name) as again:  # closing on exit let it be opened again
        assert again.serial == second.serial

    with pytest.raises(ztuvc.NoDevice) as exc:
        ztuvc.open(READERS)
    assert exc.value.code == -2 and isinstance(exc.value, ztuvc.Error)
    with pytest.raises(ztuvc.NoDevice):
        ztuvc.open("SIM99999999")
    for bad, err in ((1.0, TypeError), (True, TypeError), (None, TypeError), (-1, ValueError), ("", ValueError)):
        with pytest.raises(err):
            ztuvc.open(bad)  # type: ignore[arg-type]
    with pytest.raises(TypeError):
        ztuvc.Camera(0xDEADBEEF)
    # Handles cross ctypes as full 64-bit pointers; a made-up one is refused.
    assert ztuvc._native.load().camera_get_vid(0xDEAD0000BEEF) == -2


def test_format_and_interval(cam: ztuvc.Camera) -> None:
    assert cam.format == ztuvc.Format("YUYV", COLS, ROWS // 2, SIZE)
    assert cam.format.shape == (ROWS, COLS)
    assert cam.interval_ms == 66  # 666666 x 100 ns
    cam.interval_ms = 0
    assert cam.interval_ms == 66  # raised to the reader's shortest
    assert cam.set_interval(250) == 250
    assert cam.interval_ms == 250
    for bad, err in (("100", TypeError), (1.5, TypeError), (-1, ValueError), (1 << 32, ValueError)):
        with pytest.raises(err):
            cam.interval_ms = bad  # type: ignore[assignment]
    assert cam.interval_ms == 250


def test_registers_and_flash(cam: ztuvc.Camera) -> None:
    assert cam.sensor[0x1234] == default_register(0x1234)
    assert cam.sensor[0xFFFF] == default_register(0xFFFF)
    cam.sensor[0x1234] = 0xFF
    assert cam.sensor[0x1234] == 0xFF  # a byte of 255 is a value, not a failure code
    cam.sensor[0x1234] = 0x00
    assert cam.sensor[0x1234] == 0
    with ztuvc.open(1) as other:  # registers belong to their reader
        assert other.sensor[0x1234] == default_register(0x1234)

    assert cam.finger == 0
    cam.finger = 0x5A
    assert (cam.finger, cam.sensor[0xF000]) == (0x5A, 0x5A)
    cam.finger = 0
    assert cam.finger == 0

    for address, length in ((0x100, 20), (0x7, 1), (0xFFF0, 16)):
        assert cam.flash.read(address, length) == bytes(flash_byte(address + i) for i in range(length))

    for bad in (-1, 0x10000):
        with pytest.raises(ValueError):
            cam.sensor[bad]
    with pytest.raises(ValueError):
        cam.sensor[0x10] = 256
    with pytest.raises(TypeError):
        cam.sensor["0x10"]  # type: ignore[index]
    with pytest.raises(ValueError):
        cam.finger = -1
    for address, length in ((0, 0), (0, -8), (0xFFF8, 9), (0x10000, 1)):
        with pytest.raises(ValueError):
            cam.flash.read(address, length)


def test_frames_in_place_match_the_pattern(cam: ztuvc.Camera) -> None:
    numbers: list[int] = []
    starts: list[int] = []
    previous = None
    with cam.stream(slots=4) as s:
        assert s.running
        for frame in s:
            if previous is not None:  # the loop moved on: the last frame went back
                assert previous.released
                with pytest.raises(ValueError):
                    previous.image
            image = frame.image
            assert image.shape == (ROWS, COLS) and image.dtype == np.uint8
            assert not image.flags.writeable and not image.flags.owndata
            # Zero copy: the array is the slot camera_get_image handed out.
            assert image.__array_interface__["data"][0] == frame.address
            assert frame.image is image

            trailer = ctypes.string_at(frame.address + SIZE, 12)
            assert trailer == b"TmSt" + struct.pack("<II", frame.start_ms, frame.returned_ms)
            assert frame.start_ms <= frame.returned_ms

            number = int.from_bytes(ctypes.string_at(frame.address, 4), "little")
            mismatch = np.flatnonzero(image.reshape(-1) != pattern(number, SIZE))
            assert mismatch.size == 0, f"frame {number}: first wrong byte at {mismatch[:1]}"
            numbers.append(number)
            starts.append(frame.start_ms)

            kept = frame.copy()
            assert kept.flags.owndata and np.array_equal(kept, image)
            del image
            previous = frame
            if len(numbers) == 6:
                break
        assert previous is not None and previous.released  # leaving the loop released the last one

        # A flush drops the frames ready and the one being stored: the next
        # frame handed out was begun after it, at least two numbers on. (The
        # pause lets frames queue up at the rate seen, so that a flush doing
        # nothing shows.)
        with s.get(timeout_ms=2000) as before:
            number = int.from_bytes(before.image[0, :4].tobytes(), "little")
        time.sleep(3 * (starts[-1] - starts[0]) / (len(starts) - 1) / 1000)
        s.flush()
        with s.get(timeout_ms=3000) as after:
            assert int.from_bytes(after.image[0, :4].tobytes(), "little") >= number + 2
    assert not s.running
    assert numbers == sorted(set(numbers)), numbers


def test_timeout_release_twice_and_stop(cam: ztuvc.Camera) -> None:
    with cam.stream(slots=1) as s:
        first = s.get(timeout_ms=2000)
        first.release()
        with s.get(timeout_ms=2000) as second:
            assert second.address == first.address  # one slot
            first.release()  # already released: must not give back the slot `second` holds
            assert not second.released
            t0 = time.monotonic()
            with pytest.raises(ztuvc.Timeout) as exc:
                s.get(timeout_ms=0)  # the only slot is held
            assert exc.value.code == -110 and isinstance(exc.value, TimeoutError)
            assert time.monotonic() - t0 >= 1.4  # the library adds 1.5 s to every wait
        assert second.released
        third = s.get(timeout_ms=2000)  # the slot came back exactly once
        view = third.image
        with pytest.warns(ResourceWarning):
            third.release()  # while `view` is still referenced
        del view

        held = s.get(timeout_ms=2000)
        for bad, err in ((-1, ValueError), ("1", TypeError)):
            with pytest.raises(err):
                s.get(timeout_ms=bad)
    # Leaving the block stopped the stream and took back the frame still held.
    assert held.released and not s.running
    with pytest.raises(ValueError):
        held.copy()
    held.release()
    with pytest.raises(ztuvc.Failure):
        s.get()
    for bad in (0, 5):
        with pytest.raises(ValueError):
            cam.stream(slots=bad)


def test_close_invalidates_frames(infos: list[ztuvc.ReaderInfo]) -> None:
    cam = ztuvc.open(1)
    s = cam.stream(slots=2)
    frame = s.get(timeout_ms=2000)
    cam.close()  # frees the slots; the frame must not reach them any more
    assert frame.released and not s.running and cam.closed
    with pytest.raises(ValueError):
        frame.image
    frame.release()
    s.stop()
    cam.close()
    with pytest.raises(ValueError):
        cam.stream()


@pytest.mark.unplug
def test_unplug_mid_stream(infos: list[ztuvc.ReaderInfo], sim_pid: int) -> None:
    cam = ztuvc.open(0)
    s = cam.stream(slots=4)
    held = s.get(timeout_ms=2000)
    os.kill(sim_pid, signal.SIGUSR1)  # unplugs both readers
    error = None
    for _ in range(100):  # frames finished before the unplug may still come out
        try:
            s.get(timeout_ms=2000).release()
        except ztuvc.Error as exc:
            error = exc
            break
    assert isinstance(error, ztuvc.NoDevice), repr(error)
    assert error.code == -2
    with pytest.raises(ztuvc.NoDevice):
        cam.sensor[0x10]
    held.release()

    # The enumeration that no longer finds the reader drops it and frees its
    # frame memory: the camera's handle is then unknown to the library. The
    # simulator takes the readers out of sysfs just after they stop answering.
    deadline = time.monotonic() + 10
    while ztuvc.readers() and time.monotonic() < deadline:
        time.sleep(0.02)
    assert ztuvc.readers() == []
    assert cam.closed
    with pytest.raises(ztuvc.NoDevice):
        cam.serial
    with pytest.raises(ztuvc.NoDevice):
        cam.stream()
    with pytest.raises(ztuvc.NoDevice):
        ztuvc.open(0)
    cam.close()
