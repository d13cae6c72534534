"""kvpcie closed from any thread or callback while others wait: every waiter ends, saying so;
waits take any time-out and end on Ctrl-C; a card and a GStreamer source share one card."""

import math
import os
import signal
import threading
import time

import numpy as np
import pytest

import kvpcie

CONTROL = 0x1F1000  # the simulated card's control block of channel 0; 0x1000 per channel
INJECT_ENABLE_MASK = 0x10001C
INJECT_FRAME_PERIOD = 0x111024  # of inject channel 0


def control(channel, offset):
    return CONTROL + channel * 0x1000 + offset


def quiet(sim_card, channel):
    """The channel's outside source stops: get() then waits."""
    kvpcie.sim.poke_register(sim_card, control(channel, 0x04), 0)


class Waiter(threading.Thread):
    """Runs `call` in a thread and keeps what it returned or raised."""

    def __init__(self, call):
        super().__init__(daemon=True)
        self.call = call
        self.result = None
        self.error = None
        self.started_waiting = threading.Event()

    def run(self):
        self.started_waiting.set()
        try:
            self.result = self.call()
        except BaseException as error:  # noqa: B036 - the test reads it
            self.error = error

    def wait_until_blocked(self):
        assert self.started_waiting.wait(5.0)
        time.sleep(0.2)  # into the wait; a waiter that ended already shows in is_alive
        assert self.is_alive(), f"returned at once: {self.result!r} {self.error!r}"


def iterate(stream):
    return [frame for frame in stream]


@pytest.mark.parametrize(
    "how, closes, expected",
    [
        ("get", "stream", RuntimeError),
        ("get", "card", RuntimeError),
        ("get_inf", "stream", RuntimeError),
        ("iterate", "stream", None),
        ("iterate", "card", None),
    ],
)
def test_a_close_in_another_thread_ends_every_waiting_get(card, sim_card, how, closes, expected):
    quiet(sim_card, 1)
    stream = card.capture(1, 64, 32, card_timing=False)
    calls = {
        "get": lambda: stream.get(timeout=None),
        "get_inf": lambda: stream.get(timeout=math.inf),
        "iterate": lambda: iterate(stream),
    }
    waiter = Waiter(calls[how])
    waiter.start()
    waiter.wait_until_blocked()
    (stream if closes == "stream" else card).close()
    waiter.join(5.0)
    assert not waiter.is_alive(), "still waiting after the close"
    if expected is None:
        assert waiter.error is None and waiter.result == []
    else:
        assert isinstance(waiter.error, expected) and "closed" in str(waiter.error)


@pytest.mark.parametrize("timeout", [math.inf, 1e12, 1e300])
def test_any_long_timeout_waits_instead_of_failing_at_once(card, sim_card, timeout):
    quiet(sim_card, 2)
    with card.capture(2, 64, 32, card_timing=False) as stream:
        waiter = Waiter(lambda: stream.get(timeout=timeout))
        waiter.start()
        waiter.wait_until_blocked()
        kvpcie.sim.produce_frames(sim_card, 2, 1)
        waiter.join(5.0)
        assert waiter.error is None and waiter.result.shape == (32, 64)


def interrupt_main_after(seconds):
    main = threading.main_thread().ident
    timer = threading.Timer(seconds, lambda: signal.pthread_kill(main, signal.SIGINT))
    timer.start()
    return timer


def test_ctrl_c_ends_a_timed_get_promptly(card, sim_card):
    quiet(sim_card, 0)
    with card.capture(0, 64, 32, card_timing=False) as stream:
        interrupt_main_after(0.2)
        started = time.monotonic()
        with pytest.raises(KeyboardInterrupt):
            stream.get(timeout=20)
        assert time.monotonic() - started < 3.0


def test_ctrl_c_ends_a_wait_on_a_full_queue_promptly(card):
    frame = np.zeros((32, 64), np.uint8)
    for _ in range(16):  # one frame a second: the queue fills at once
        card.inject(0, frame, frame_rate=1)
    # The longest frame period (43 s) from the card's next play on; its freed slot is refilled.
    card.write_reg(INJECT_FRAME_PERIOD, 0xFFFFFFFF)
    played = card.read_reg(control(0, 0x10))
    deadline = time.monotonic() + 5.0
    while card.read_reg(control(0, 0x10)) == played and time.monotonic() < deadline:
        time.sleep(0.01)
    card.inject(0, frame, frame_rate=1, timeout=5.0)
    interrupt_main_after(0.2)
    started = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        for _ in range(20):
            card.inject(0, frame, frame_rate=1, timeout=20)
    assert time.monotonic() - started < 3.0
    card.stop_inject(0, drain=False)


def test_a_drain_ends_when_another_thread_closes_the_card(card):
    frame = np.zeros((32, 64), np.uint8)
    for _ in range(15):  # 15 frames at one a second: a drain of about 23 s
        card.inject(3, frame, frame_rate=1)
    waiter = Waiter(lambda: card.stop_inject(3, drain=True))
    waiter.start()
    waiter.wait_until_blocked()
    card.close()
    waiter.join(5.0)
    assert not waiter.is_alive(), "the drain still waits"
    assert isinstance(waiter.error, RuntimeError) and "closed" in str(waiter.error)


def test_closing_the_card_inside_its_status_callback(card, sim_card):
    closed = threading.Event()

    def on_block(_data):
        card.close()
        closed.set()

    card.on_status(1, on_block)
    kvpcie.sim.post_status(sim_card, 1, b"\x01\x02\x03\x04")
    assert closed.wait(5.0)
    assert card.closed
    # The card and its thread are free again: a new card opens and works.
    with kvpcie.Card() as again:
        assert again.read_reg(0x1F0000) == 0x53494D31


def test_a_frame_that_inject_accepted_is_played_or_counted_when_close_races_it(sim_card):
    frame = np.zeros((32, 64), np.uint8)
    keeper = kvpcie.Card()  # keeps the card open, so that its counts can be read after
    for _ in range(10):
        card = kvpcie.Card()
        accepted = []

        def feed():
            try:
                while True:
                    card.inject(2, frame, frame_rate=200)
                    accepted.append(1)
            except RuntimeError:
                pass  # the close

        feeder = threading.Thread(target=feed)
        feeder.start()
        time.sleep(0.02 + 0.01 * len(accepted))
        card.close()
        feeder.join(5.0)
        assert not feeder.is_alive()
        stats = keeper.inject_stats(2)
        # No frame went in after the close's stop: the channel is stopped and nothing waits.
        assert keeper.read_reg(INJECT_ENABLE_MASK) & (1 << 2) == 0
        assert stats["frames_waiting"] == 0
        assert stats["frames_queued"] == len(accepted)
        assert stats["frames_to_card"] + stats["frames_dropped_at_stop"] == len(accepted)
    keeper.close()


def test_closing_from_another_thread_while_a_capture_starts_leaves_the_channel_free(sim_card):
    for _ in range(5):
        card = kvpcie.Card()
        starter = Waiter(lambda: card.capture(0, 64, 32))
        starter.start()
        card.close()
        starter.join(5.0)
        assert not starter.is_alive()
        if starter.result is not None:
            starter.result.close()
        with kvpcie.Card() as again, again.capture(0, 64, 32) as stream:
            assert stream.get(timeout=2.0).shape == (32, 64)


def test_a_card_and_a_gstreamer_source_in_one_process_share_the_card(card, sim_card, tmp_path):
    plugin_dir = os.environ.get("KVPCIE_GST_PLUGIN_DIR")
    if not plugin_dir:
        pytest.skip("the GStreamer plugin was not built (KVPCIE_GST_PLUGIN_DIR is not set)")
    gi = pytest.importorskip("gi", reason="PyGObject is not installed (Debian: python3-gi)")
    gi.require_version("Gst", "1.0")
    from gi.repository import Gst  # noqa: E402 - after the version is chosen

    os.environ["GST_PLUGIN_PATH"] = plugin_dir
    os.environ["GST_REGISTRY"] = str(tmp_path / "registry.bin")  # not the user's cache
    Gst.init(None)
    with card.capture(0, 64, 32) as stream:
        pipeline = Gst.parse_launch(
            f"kvpciesrc device={card.path} channel=1 num-buffers=5 ! "
            "video/x-raw,format=GRAY8,width=64,height=32 ! appsink name=out sync=false")
        try:
            assert pipeline.set_state(Gst.State.PLAYING) != Gst.StateChangeReturn.FAILURE
            out = pipeline.get_by_name("out")
            samples = [out.emit("try-pull-sample", 5 * Gst.SECOND) for _ in range(5)]
            error = pipeline.get_bus().pop_filtered(Gst.MessageType.ERROR)
            assert error is None, error.parse_error()
            assert all(sample is not None for sample in samples)
            assert stream.get(timeout=2.0).shape == (32, 64)  # the card's own channel still runs
        finally:
            pipeline.set_state(Gst.State.NULL)
