"""The C interface through a foreign-function call alone, as LabVIEW's Call Library Function
Node or MATLAB's calllib reach it: ctypes pulls the frames it injected back through the
simulated card's loopback, with their records."""

import ctypes
import os
import time

import pytest

LIBRARY = os.environ.get("KVPCIE_LIBRARY")
pytestmark = pytest.mark.skipif(not LIBRARY, reason="KVPCIE_LIBRARY names no library to load")

OK = 0
Y16 = 2
CONTROL = 0x1F1000  # the simulated card's control block of channel 0; 0x1000 per channel
WIDTH, HEIGHT = 64, 32


class PulledFrame(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("channel", ctypes.c_int32),
                ("bytes", ctypes.c_uint64), ("width", ctypes.c_int32),
                ("height", ctypes.c_int32), ("pixel_type", ctypes.c_int32),
                ("error_frame", ctypes.c_int32), ("sequence", ctypes.c_uint64),
                ("received_ns", ctypes.c_int64), ("frames_lost", ctypes.c_uint64)]


@pytest.fixture
def lib():
    lib = ctypes.CDLL(LIBRARY)
    lib.kvpcie_open.restype = ctypes.c_void_p
    lib.kvpcie_open.argtypes = [ctypes.c_char_p]
    lib.kvpcie_close.argtypes = [ctypes.c_void_p]
    lib.kvpcie_last_error.restype = ctypes.c_char_p
    lib.kvpcie_sim_configure.argtypes = [ctypes.c_char_p]
    lib.kvpcie_write_reg.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.c_uint32]
    lib.kvpcie_start_pull.argtypes = [ctypes.c_void_p] + [ctypes.c_int32] * 6
    lib.kvpcie_pull.argtypes = [ctypes.c_void_p, ctypes.c_int32, ctypes.c_void_p,
                                ctypes.c_uint64, ctypes.POINTER(PulledFrame), ctypes.c_int32]
    lib.kvpcie_stop_capture.argtypes = [ctypes.c_void_p, ctypes.c_int32]
    lib.kvpcie_inject.argtypes = [ctypes.c_void_p] + [ctypes.c_int32] * 5 + [ctypes.c_void_p]
    lib.kvpcie_stop_inject.argtypes = [ctypes.c_void_p, ctypes.c_int32]
    assert lib.kvpcie_sim_configure(b"xdma:1,riffa:1") == OK
    yield lib
    lib.kvpcie_sim_configure(b"")


@pytest.fixture
def card(lib):
    handle = lib.kvpcie_open(None)
    assert handle, lib.kvpcie_last_error()
    yield handle
    lib.kvpcie_close(handle)


def pull(lib, card, channel, buffer, timeout_ms=2000):
    record = PulledFrame(size=ctypes.sizeof(PulledFrame))
    status = lib.kvpcie_pull(card, channel, buffer, len(buffer), ctypes.byref(record),
                             timeout_ms)
    return status, record


def test_injected_frames_come_back_through_the_loopback_byte_for_byte(lib, card):
    channel = 1
    frame_bytes = WIDTH * HEIGHT * 2
    # Each frame its own content; the card stamps its playout number over the first pixel.
    frames = [bytes((n * 7 + k) % 251 for k in range(frame_bytes)) for n in range(40)]
    assert lib.kvpcie_write_reg(card, CONTROL + channel * 0x1000, 1) == OK  # loopback
    assert lib.kvpcie_start_pull(card, channel, 1, WIDTH, HEIGHT, Y16, 8) == OK
    queued = 0
    deadline = time.monotonic() + 20
    while queued < len(frames) and time.monotonic() < deadline:
        status = lib.kvpcie_inject(card, channel, 50, WIDTH, HEIGHT, Y16, frames[queued])
        if status == OK:
            queued += 1
        else:
            time.sleep(0.005)  # 15 frames wait: offer it again later
    assert queued == len(frames)
    buffer = ctypes.create_string_buffer(frame_bytes)
    matched = 0
    for _ in range(200):
        status, record = pull(lib, card, channel, buffer)
        assert status == OK, lib.kvpcie_last_error()
        assert (record.channel, record.bytes, record.width, record.height,
                record.pixel_type) == (channel, frame_bytes, WIDTH, HEIGHT, Y16)
        captured = buffer.raw
        if not any(captured):
            continue  # the card played nothing yet
        number = int.from_bytes(captured[:2], "little")
        assert number < len(frames)
        assert captured[2:] == frames[number][2:]
        matched += 1
        if matched >= 10:
            break
    assert matched >= 10
    assert lib.kvpcie_stop_inject(card, channel) == OK
    assert lib.kvpcie_stop_capture(card, channel) == OK
