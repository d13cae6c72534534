"""Injects ten frames into channel 0 and checks that the card plays them back byte for byte.
On the simulated card: KVPCIE_SIM=1 python3 loopback_check.py"""
import numpy as np
import kvpcie

kvpcie.sim.set_loopback(0, 0, True)  # the simulated card shows inject channel 0 in capture channel 0
with kvpcie.Card() as card, card.capture(0, 320, 240, "Y16") as stream:
    sent = [np.random.randint(0, 65536, (240, 320), dtype=np.uint16) for _ in range(10)]
    for frame in sent:
        card.inject(0, frame, frame_rate=50)
    back = next(f for f in stream if f.any())  # the first frame the card played back
    n = back[0, 0]  # its first pixel: the number the library stamped on it
    assert np.array_equal(back.ravel()[1:], sent[n].ravel()[1:]), f"frame {n} came back changed"
print("PASS")
