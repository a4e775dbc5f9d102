"""Fixtures for the binding's tests.

They run inside ztuvc-sim, which provides the readers:

    ztuvc-sim --model 30 --readers 2 --pattern -- /usr/bin/python3 -m pytest tests/python -m "not unplug"
    ztuvc-sim --model 30 --readers 2 --pattern -- /usr/bin/python3 -m pytest tests/python -m unplug

(PYTHONPATH=python and ZTUVC_LIBRARY=<build>/libztuvc.so.3 to test a build;
ctest does all of this.)  The unplug cases leave no reader behind, so they
run in a session of their own.
"""

from __future__ import annotations

import os
from typing import Iterator

import numpy as np
import numpy.typing as npt
import pytest

import ztuvc

READERS = 2
VENDOR = 0x3A5C
PRODUCT = 0x000D  # model 30: 1280 x 1024
ROWS, COLS = 1024, 1280


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "unplug: unplugs every simulated reader (run on its own)")


@pytest.fixture(scope="session")
def infos() -> list[ztuvc.ReaderInfo]:
    found = ztuvc.readers()
    if len(found) != READERS:
        pytest.fail(f"expected {READERS} simulated readers, found {len(found)}: run under "
                    "ztuvc-sim --model 30 --readers 2 --pattern")
    return found


@pytest.fixture
def cam(infos: list[ztuvc.ReaderInfo]) -> Iterator[ztuvc.Camera]:
    with ztuvc.open(0) as c:
        yield c


@pytest.fixture
def sim_pid() -> int:
    """The ztuvc-sim process serving the readers (our parent)."""
    pid = os.getppid()
    if not os.readlink(f"/proc/{pid}/exe").endswith("/ztuvc-sim"):
        pytest.fail("the parent process is not ztuvc-sim")
    return pid


# The simulator's test pattern, written out here from its definition:
# bytes 0..3 hold the frame number (little-endian), every other byte is a
# hash of (frame, offset).
def pattern(frame: int, size: int) -> npt.NDArray[np.uint8]:
    off = np.arange(size, dtype=np.uint32)
    x = off * np.uint32(0x9E3779B1) ^ np.uint32((frame * 0x85EBCA77 + 0x165667B1) & 0xFFFFFFFF)
    x ^= x >> np.uint32(15)
    x *= np.uint32(0x2C1B3C6D)
    x ^= x >> np.uint32(12)
    x *= np.uint32(0x297A2D39)
    x ^= x >> np.uint32(15)
    out = (x >> np.uint32(24)).astype(np.uint8)
    out[:4] = np.frombuffer(frame.to_bytes(4, "little"), np.uint8)
    return out


def flash_byte(address: int) -> int:
    address %= 1 << 20
    x = (address * 0x45D9F3B + 0x1234567) & 0xFFFFFFFF
    x ^= x >> 16
    return (x ^ (address >> 8)) & 0xFF


def default_register(address: int) -> int:
    if address == 0xF000:
        return 0
    return ((address * 31) ^ (address >> 8) ^ 0x5A) & 0xFF
