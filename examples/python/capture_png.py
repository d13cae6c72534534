"""Captures one frame of channel 0 and writes it as an 8-bit greyscale PNG, with nothing but the
standard library and NumPy. On the simulated card: KVPCIE_SIM=1 python3 capture_png.py out.png"""
import struct
import sys
import zlib

import kvpcie


def write_png(path, image):
    """`image`: a (height, width) uint8 array."""
    height, width = image.shape
    rows = b"".join(b"\x00" + image[row].tobytes() for row in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 0)  # 8-bit greyscale
    with open(path, "wb") as png:
        png.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows))
                  + chunk(b"IEND", b""))


path = sys.argv[1] if len(sys.argv) > 1 else "channel0.png"
with kvpcie.Card() as card, card.capture(0, 640, 480, "Y8") as stream:
    write_png(path, stream.get(timeout=2.0))
print("wrote", path)
