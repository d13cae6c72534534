"""KvPCIeInjectSdk for Python.

Capture frames from FPGA PCI Express frame cards as NumPy arrays, inject NumPy frames, send
commands, receive status blocks, and read and write registers and card memory. With
KVPCIE_SIM=1 in the environment (or kvpcie.sim.configure) a simulated card 'sim:xdma0' is listed.

    import kvpcie
    with kvpcie.Card() as card, card.capture(0, 640, 480, "Y8") as stream:
        frame = stream.get()          # numpy.ndarray, shape (480, 640), uint8
"""

import atexit as _atexit

from ._kvpcie import Card, CaptureStream, CardLostError, __version__, list_cards, list_riffa
from ._kvpcie import record_root, set_record_root
from ._kvpcie import _close_all
from . import sim

__all__ = ["Card", "CaptureStream", "CardLostError", "__version__", "list_cards", "list_riffa",
           "record_root", "set_record_root", "sim"]

# Captures and cards still open when the interpreter ends are closed before its threads go.
_atexit.register(_close_all)
