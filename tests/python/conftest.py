"""The kvpcie module on the simulated card: one simulated XDMA card, fresh for every test."""

import pytest

import kvpcie


@pytest.fixture
def sim_card():
    """The number of the one simulated card; its path is 'sim:xdma0'."""
    kvpcie.sim.configure("xdma:1,riffa:1")
    yield 0
    kvpcie._close_all()


@pytest.fixture
def card(sim_card):
    with kvpcie.Card() as opened:
        yield opened
