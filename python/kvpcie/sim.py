"""Control of the simulated card: create cards, set and read their registers, play a channel's
injected frames back into its capture channel, make frames and post status blocks.

Cards are numbered from 0; the first is listed as 'sim:xdma0'.
"""

from ._kvpcie import sim as _sim

configure = _sim.configure
add_card = _sim.add_card
poke_register = _sim.poke_register
peek_register = _sim.peek_register
set_loopback = _sim.set_loopback
produce_frames = _sim.produce_frames
post_status = _sim.post_status
counters = _sim.counters

__all__ = ["configure", "add_card", "poke_register", "peek_register", "set_loopback",
           "produce_frames", "post_status", "counters"]
