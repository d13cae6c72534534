"""kvpcie on the simulated card: what the module adds to the library (arrays of each pixel type,
streams, time-outs, exceptions, callbacks on its threads) and the interpreter's exit."""

import os
import re
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import kvpcie

CONTROL = 0x1F1000  # the simulated card's control block of channel 0; 0x1000 per channel


def control(channel, offset):
    return CONTROL + channel * 0x1000 + offset


def pattern_number(frame):
    """The card's test pattern: number, channel, then byte k is (k + number) % 256."""
    raw = frame.reshape(-1).view(np.uint8)
    return int(raw[:4].view("<u4")[0]), int(raw[4:8].view("<u4")[0])


def is_pattern(frame, channel):
    raw = frame.reshape(-1).view(np.uint8)
    number, on_channel = pattern_number(frame)
    expected = ((np.arange(8, raw.size) + number) % 256).astype(np.uint8)
    return on_channel == channel and np.array_equal(raw[8:], expected)


def test_listing_and_version(sim_card):
    assert kvpcie.list_cards() == ["sim:xdma0"]
    riffa = kvpcie.list_riffa()
    assert len(riffa) == 1 and riffa[0]["name"] == "KvSimRiffa"
    assert riffa[0]["vendor_id"] == 0x10EE
    assert kvpcie.__version__.count(".") == 2


def test_registers_and_memory(card, sim_card):
    assert card.path == "sim:xdma0"
    assert card.read_reg(0x1F0000) == 0x53494D31  # the simulated card's identity
    card.write_reg(control(2, 0x04), 10)
    assert kvpcie.sim.peek_register(sim_card, control(2, 0x04)) == 10
    kvpcie.sim.poke_register(sim_card, control(2, 0x04), 25)
    assert card.read_reg(control(2, 0x04)) == 25
    block = np.arange(4096, dtype=np.uint16)
    card.write_mem(0x1000000, block)
    assert card.read_mem(0x1000000, block.nbytes) == block.tobytes()
    card.write_mem(0x1000000, b"\x01\x02\x03\x04")
    assert card.read_mem(0x1000000, 4) == b"\x01\x02\x03\x04"


@pytest.mark.parametrize(
    "pixel_type, shape, dtype",
    [
        ("Y8", (32, 64), np.uint8),
        ("Y16", (32, 64), np.uint16),
        ("UYVY422", (32, 64, 2), np.uint8),
        ("BGR24", (32, 64, 3), np.uint8),
        ("Y16_Y8", (32, 64, 3), np.uint8),
        ("PIXEL32", (32, 64, 4), np.uint8),
    ],
)
def test_every_frame_of_each_pixel_type_is_the_cards_pattern(card, pixel_type, shape, dtype):
    with card.capture(1, 64, 32, pixel_type) as stream:
        assert stream.pixel_type == pixel_type
        numbers = []
        for _ in range(5):
            frame = stream.get(timeout=2.0)
            assert frame.shape == shape and frame.dtype == dtype
            assert is_pattern(frame, 1)
            numbers.append(pattern_number(frame)[0])
        assert numbers == sorted(numbers) and len(set(numbers)) == 5
        assert stream.stats["frames_taken"] == 5


def test_frames_not_taken_in_time_are_counted_not_lost_silently(card, sim_card):
    with card.capture(0, 64, 32, card_timing=False) as stream:
        kvpcie.sim.poke_register(sim_card, control(0, 0x04), 0)  # the outside source is quiet
        for _ in range(3):
            kvpcie.sim.produce_frames(sim_card, 0, 8)  # 24 frames for a ring of 8
            time.sleep(0.05)
        taken = []
        while True:
            try:
                taken.append(pattern_number(stream.get(timeout=0.2))[0])
            except TimeoutError:
                break
        stats = stream.stats
        assert len(taken) == 8
        assert stats["frames_not_taken"] == stats["frames_delivered"] - 8 > 0


def test_a_frame_that_get_returned_is_already_counted_as_delivered(card, sim_card):
    kvpcie.sim.poke_register(sim_card, control(2, 0x04), 0)  # frames only when asked for
    with card.capture(2, 64, 32, card_timing=False) as stream:
        # get() wakes once the callback queued the frame: the statistics must count it already.
        for taken in range(1, 41):
            kvpcie.sim.produce_frames(sim_card, 2, 1)
            stream.get(timeout=2.0)
            assert stream.stats["frames_delivered"] >= taken


def test_get_times_out_and_iteration_ends_at_close(card, sim_card):
    kvpcie.sim.poke_register(sim_card, control(3, 0x04), 0)
    stream = card.capture(3, 64, 32, card_timing=False)
    started = time.monotonic()
    with pytest.raises(TimeoutError, match="no frame of channel 3"):
        stream.get(timeout=0.3)
    assert 0.25 <= time.monotonic() - started
    kvpcie.sim.produce_frames(sim_card, 3, 2)
    frames = []
    for frame in stream:
        frames.append(frame)
        if len(frames) == 2:
            stream.close()
    assert len(frames) == 2 and stream.closed


def numbered_frames(count):
    """(32, 64) uint16 frames whose every element says which frame it is."""
    index = np.arange(32 * 64, dtype=np.uint32).reshape(32, 64)
    return [((index * 7 + n * 131 + 1) % 65521).astype(np.uint16) for n in range(count)]


def test_loopback_is_exact_apart_from_the_counter_stamp(card, sim_card):
    kvpcie.sim.set_loopback(sim_card, 2, True)
    frames = numbered_frames(40)
    matched = 0
    with card.capture(2, 64, 32, "Y16") as stream:
        feeder = threading.Thread(
            target=lambda: [card.inject(2, f, frame_rate=50) for f in frames])
        feeder.start()
        # Captures at 25 of frames played at 50 sample the ring: check what comes until the end.
        for _ in range(200):
            captured = stream.get(timeout=5.0)
            if not captured.any():
                continue  # the card played nothing yet
            number = int(captured[0, 0])  # the stamp: the frame's number from the start
            assert number < len(frames)
            assert np.array_equal(captured.reshape(-1)[1:], frames[number].reshape(-1)[1:])
            matched += 1
            if not feeder.is_alive() and matched >= 10:
                break
        feeder.join()
    card.stop_inject(2)
    assert matched >= 10
    assert card.inject_stats(2)["frames_to_card"] == 40


def test_recordings_go_below_the_chosen_root(card, sim_card, tmp_path):
    kvpcie.set_record_root(str(tmp_path / "takes"))
    try:
        assert kvpcie.record_root() == str(tmp_path / "takes")
        with card.capture(1, 64, 32, "Y8", record=True) as stream:
            for _ in range(3):
                stream.get(timeout=5.0)
        files = list((tmp_path / "takes" / "Capture2").glob("*/0_64x32_ParamLine0_Fps25_Y8.raw"))
        assert len(files) == 1
        assert files[0].stat().st_size > 0 and files[0].stat().st_size % 2048 == 0
    finally:
        kvpcie.set_record_root("")
    assert kvpcie.record_root().endswith("VideoRecord")


def statistics_table(macro):
    """The field names of one of the library's statistics tables, read from its header."""
    header = os.path.join(os.path.dirname(__file__), "..", "..", "include", "KvPCIeInjectSdk",
                          "KvPCIeStatisticsFields.h")
    with open(header) as source:
        text = source.read().replace("\\\n", " ")
    body = re.search(r"#define %s\(X\)(.*)" % macro, text).group(1)
    return re.findall(r"X\(\w+,\s*(\w+),", body)


@pytest.mark.parametrize("macro, read", [
    ("KVPCIE_CAPTURE_STATISTICS_FIELDS", lambda card: card.capture(0, 64, 32, "Y8").stats),
    ("KVPCIE_INJECT_STATISTICS_FIELDS", lambda card: card.inject_stats(0)),
])
def test_the_statistics_carry_every_field_of_the_librarys_table(card, macro, read):
    names = statistics_table(macro)
    assert len(names) >= 12 and "card_lost" in names
    stats = read(card)
    assert set(names) <= set(stats), set(names) - set(stats)
    assert stats["card_lost"] is False


def test_a_full_queue_waits_then_times_out(card):
    frame = np.zeros((32, 64), np.uint8)
    started = time.monotonic()
    with pytest.raises(TimeoutError, match="queue of 15 frames stayed full"):
        for _ in range(40):  # 1 frame per second: 15 queued and 8 in the card's buffers
            card.inject(0, frame, frame_rate=1, timeout=0.3)
    assert time.monotonic() - started >= 0.3
    stats = card.inject_stats(0)
    assert stats["frames_refused"] > 0 and stats["frames_waiting"] == 15
    card.stop_inject(0, drain=False)
    assert card.inject_stats(0)["frames_dropped_at_stop"] == 15


def test_stop_inject_drains_the_queue_first(card):
    for n in range(20):
        card.inject(1, np.full((32, 64), n, np.uint8), frame_rate=100)
    card.stop_inject(1)
    stats = card.inject_stats(1)
    assert stats["frames_to_card"] == 20 and stats["frames_dropped_at_stop"] == 0


def test_status_blocks_reach_the_callback_and_commands_the_card(card, sim_card):
    received = []
    arrived = threading.Event()

    def on_block(data):
        received.append((threading.get_ident(), data))
        arrived.set()

    card.on_status(1, on_block)
    kvpcie.sim.post_status(sim_card, 1, b"\x10\x20\x30\x40\x50")
    assert arrived.wait(2.0)
    assert received[0][1] == b"\x10\x20\x30\x40\x50"
    assert received[0][0] != threading.get_ident()  # a thread of the module
    card.on_status(1, None)

    assert card.send_command(2, b"\xAA\xBB\xCC")
    assert kvpcie.sim.peek_register(sim_card, control(2, 0x2C)) == 3  # the last command's length


def test_bad_input_says_what_was_wrong(card):
    frame = np.zeros((32, 64), np.uint8)
    cases = [
        (lambda: card.capture(4, 64, 32), ValueError, "channel 4 is outside 0 to 3"),
        (lambda: card.capture(0, 64, 32, "NV12"), ValueError, "unknown pixel type"),
        (lambda: card.capture(0, 0, 32), ValueError, "width 0 is outside 1 to 65535"),
        (lambda: card.capture(0, 4096, 2048, "PIXEL32"), ValueError, "exceeds the 20 MiB card buffer"),
        (lambda: card.inject(-1, frame), ValueError, "channel -1 is outside"),
        (lambda: card.inject(0, frame.astype(np.float32)), ValueError, "uint8 or uint16"),
        (lambda: card.inject(0, np.zeros((32, 64, 5), np.uint8)), ValueError, "third dimension"),
        (lambda: card.inject(0, np.zeros(64, np.uint8)), ValueError, "shape"),
        (lambda: card.inject(0, np.zeros((32, 64, 4), np.uint8)), ValueError, "PIXEL32"),
        (lambda: card.inject(0, frame, pixel_type="Y16"), ValueError, "dtype uint16"),
        (lambda: card.inject(0, np.zeros((4096, 4096), np.uint16)), ValueError, "exceeds the 20 MiB"),
        (lambda: card.inject(0, frame, frame_rate=0), ValueError, "frame_rate"),
        (lambda: card.send_command(0, b""), ValueError, "1 to 1024 bytes"),
        (lambda: card.send_command(0, bytes(1025)), ValueError, "1 to 1024 bytes"),
        (lambda: card.read_reg(-4), ValueError, "outside 0 to 0xFFFFFFFF"),
        (lambda: card.write_reg(0x100, 1 << 32), ValueError, "32 bits"),
        (lambda: card.read_mem(0x7FFFFFF0, 64), RuntimeError, "failed"),
        (lambda: card.read_mem(0, 0), ValueError, "size"),
        (lambda: card.write_mem(0, np.zeros((8, 8), np.uint8)[:, ::2]), ValueError, "contiguous"),
        (lambda: card.on_status(0, 5), ValueError, "callable"),
        (lambda: kvpcie.Card("sim:xdma7"), RuntimeError, "would not open"),
        (lambda: kvpcie.sim.configure("xdma:99"), ValueError, "names no simulated devices"),
        (lambda: kvpcie.sim.poke_register(5, 0x100, 1), ValueError, "no simulated card 5"),
        (lambda: kvpcie.sim.produce_frames(0, 0, 9), ValueError, "1 to 8"),
    ]
    for call, error, message in cases:
        with pytest.raises(error, match=message):
            call()
    # The card still works after all of that.
    card.inject(0, frame)
    card.stop_inject(0)
    with card.capture(0, 64, 32) as stream:
        assert is_pattern(stream.get(timeout=2.0), 0)


def test_a_format_change_needs_a_stop_and_a_channel_one_stream(card):
    card.inject(3, np.zeros((32, 64), np.uint8))
    with pytest.raises(ValueError, match="plays 64x32 Y8 frames since its start"):
        card.inject(3, np.zeros((16, 16), np.uint8))
    card.stop_inject(3, drain=False)
    card.inject(3, np.zeros((16, 16), np.uint8))
    card.stop_inject(3, drain=False)
    with card.capture(2, 64, 32):
        with pytest.raises(RuntimeError, match="already captured"):
            card.capture(2, 64, 32)


def test_two_cards_in_one_process_each_reach_their_own(sim_card):
    kvpcie.sim.configure("xdma:2")
    with kvpcie.Card("sim:xdma0") as a, kvpcie.Card("sim:xdma1") as b:
        a.write_reg(control(0, 0x04), 100)
        b.write_reg(control(0, 0x04), 20)
        assert (a.path, b.path) == ("sim:xdma0", "sim:xdma1")
        assert a.read_reg(control(0, 0x04)) == 100
        assert b.read_reg(control(0, 0x04)) == 20
        assert kvpcie.sim.peek_register(1, control(0, 0x04)) == 20
        a.close()
        assert b.read_reg(control(0, 0x04)) == 20


def test_a_card_that_goes_away_ends_the_stream_and_tells_the_callback(sim_card):
    told = []
    got = threading.Event()
    with kvpcie.Card("sim:xdma0") as card:
        card.on_lost(lambda path: (told.append(path), got.set()))
        with card.capture(0, 64, 32, card_timing=False) as stream:
            stream.get(timeout=2.0)
            assert not card.lost
            card.write_reg(0x1F0008, 1)  # the simulated card drops off the bus
            with pytest.raises(kvpcie.CardLostError, match="gone"):
                for _ in range(100):  # the frames that came before are still handed out
                    stream.get(timeout=2.0)
            assert stream.stats["card_lost"]
        assert got.wait(2.0)
        assert told == ["sim:xdma0"]
        assert card.lost
        late = []
        card.on_lost(late.append)  # set after the loss: told at once
        assert late == ["sim:xdma0"]
        card.on_lost(None)  # and switched off again
    # Back on the bus, the card opens afresh.
    kvpcie.sim.configure("xdma:1")
    with kvpcie.Card("sim:xdma0") as card:
        assert not card.lost
        assert card.read_reg(0x1F0000) == 0x53494D31


def test_no_card_and_a_closed_card_raise_runtime_errors(sim_card):
    kvpcie.sim.configure("xdma:0")
    with pytest.raises(RuntimeError, match="no XDMA card is listed"):
        kvpcie.Card()
    kvpcie.sim.configure("xdma:1")
    card = kvpcie.Card("sim:xdma0")
    card.close()
    with pytest.raises(RuntimeError, match="closed"):
        card.read_reg(0)


def test_the_interpreter_exits_with_a_capture_running():
    script = (
        "import kvpcie\n"
        "kvpcie.sim.configure('xdma:1')\n"
        "card = kvpcie.Card()\n"
        "stream = card.capture(0, 640, 480, 'Y16')\n"
        "card.on_status(0, print)\n"
        "stream.get(timeout=2.0)\n"
        "print('capturing')\n"
    )
    started = time.monotonic()
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                          timeout=30, env=dict(os.environ))
    assert done.returncode == 0, done.stderr
    assert "capturing" in done.stdout
    print(f"exit with a capture running took {time.monotonic() - started:.2f} s")
