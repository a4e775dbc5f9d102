#!/usr/bin/python3
"""What the Python package costs per frame, against the C calls it makes.

Run inside ztuvc-sim (bench/run does), with PYTHONPATH naming python/ and
ZTUVC_LIBRARY the library to measure:

    bench_python.py overhead N   CPU time per get + image + release spent in the package,
                                 outside the C calls it makes
    bench_python.py fps N        frames/s of a plain Python loop over the stream

Prints "figure <key> <value>" lines for bench/run.
"""

from __future__ import annotations

import ctypes
import statistics
import sys
import time

import ztuvc
from ztuvc import _native

SLOTS = 4
# CPU time of the calling thread: the cost of the calls themselves, not
# waiting for the reader nor for a core on a loaded machine.
clock = time.thread_time_ns


class TimedLibrary:
    """The loaded library, with the time spent in the two frame calls summed up."""

    def __init__(self, lib: ctypes.CDLL) -> None:
        self._lib = lib
        self.spent = 0

    def camera_get_image(self, *args: object) -> int:
        t0 = clock()
        rc: int = self._lib.camera_get_image(*args)
        self.spent += clock() - t0
        return rc

    def camera_put_image(self, *args: object) -> int:
        t0 = clock()
        rc: int = self._lib.camera_put_image(*args)
        self.spent += clock() - t0
        return rc

    def nothing(self) -> None:
        """The wrapper's own timing, around no call (for calibration)."""
        t0 = clock()
        self.spent += clock() - t0

    def __getattr__(self, name: str) -> object:
        return getattr(self._lib, name)


def overhead(n: int) -> None:
    """Per frame: time in get + image + release minus the time inside the C calls.

    What is left is the package's own code and the ctypes dispatch of its
    calls; waiting for the reader happens inside camera_get_image and drops
    out. Two ways of taking frames:

    - behind: the application was busy while the slots filled up and takes
      the waiting frames one after the other (the figure against the target);
    - paced: every frame is waited for, so the package's code runs right
      after the thread slept (on a loaded machine, with cold caches).
    """
    with ztuvc.open(0) as cam, cam.stream(slots=SLOTS) as s:
        timed = TimedLibrary(_native.load())
        s._lib = timed  # type: ignore[assignment]
        starts = []
        for _ in range(SLOTS + 1):
            with s.get(timeout_ms=2000) as frame:
                starts.append(frame.start_ms)
        # Time for every slot to fill at the rate the simulator reaches here.
        fill = (starts[-1] - starts[0]) / 1000 * 1.5
        copied = 0

        def take() -> tuple[int, int]:
            nonlocal copied
            timed.spent = 0
            t0 = clock()
            frame = s.get(2000)
            image = frame.image
            t1 = clock()
            if image.__array_interface__["data"][0] != frame.address or image.flags.owndata:
                copied += 1
            del image
            t2 = clock()
            frame.release()
            t3 = clock()
            return t1 - t0 + t3 - t2 - timed.spent, timed.spent

        def clocks_only() -> int:
            # The same readings of the clock around nothing: what the
            # measurement itself costs (the thread clock is a system call).
            timed.spent = 0
            t0 = clock()
            timed.nothing()
            t1 = clock()
            t2 = clock()
            t3 = clock()
            return t1 - t0 + t3 - t2 - timed.spent

        timer = statistics.median(clocks_only() for _ in range(2000))
        behind: list[int] = []
        paced: list[int] = []
        inside: list[int] = []
        while len(behind) < n:
            time.sleep(fill)
            for _ in range(SLOTS):
                own, c = take()
                behind.append(own)
                inside.append(c)
        for _ in range(n):
            own, c = take()
            paced.append(own)

    behind_us = (statistics.median(behind) - timer) / 1000
    paced_us = (statistics.median(paced) - timer) / 1000
    inside_us = statistics.median(inside) / 1000
    print(f"{len(behind)} waiting frames: median {behind_us:.1f} us CPU in the package per get + image + "
          f"release, {inside_us:.1f} us in camera_get_image + camera_put_image", file=sys.stderr)
    print(f"{n} frames waited for: median {paced_us:.1f} us CPU in the package", file=sys.stderr)
    print(f"(the clock readings, {timer / 1000:.1f} us per frame, are subtracted)", file=sys.stderr)
    print(f"figure py_overhead_us {behind_us:.2f}")
    print(f"figure py_overhead_paced_us {paced_us:.2f}")
    print(f"figure py_c_calls_us {inside_us:.2f}")
    print(f"figure py_copied_frames {copied}")


def fps(n: int) -> None:
    with ztuvc.open(0) as cam, cam.stream(slots=SLOTS) as s:
        starts = []
        checksum = 0
        t0 = time.monotonic()
        try:
            for frame in s:
                checksum += int(frame.image[0, 0])  # touch the image, as a user would
                starts.append(frame.start_ms)
                if len(starts) == n:
                    break
        except ztuvc.Timeout:
            print(f"the stream stalled after {len(starts)} frames (machine too busy?)", file=sys.stderr)
            if len(starts) < 2:
                return
        elapsed = time.monotonic() - t0
    # As the C tool counts: frames after the first over the span of their starts.
    span = (starts[-1] - starts[0]) & 0xFFFFFFFF
    rate = (len(starts) - 1) * 1000 / span if span else 0.0
    print(f"{len(starts)} frames in {elapsed:.2f} s: {rate:.1f} frames/s", file=sys.stderr)
    print(f"figure py_fps {rate:.2f}")


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] not in ("overhead", "fps") or not sys.argv[2].isdigit():
        sys.exit(__doc__)
    {"overhead": overhead, "fps": fps}[sys.argv[1]](max(2, int(sys.argv[2])))
