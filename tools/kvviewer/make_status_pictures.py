#!/usr/bin/env python3
"""Writes the viewer's status pictures under GLBackImg/: dark tiles with a coloured band.

The display widget shows them while a channel has no pictures; run this again after a change.
test_kvviewer recognises Normal.png by its background and band colours.
"""
import pathlib
import struct
import zlib

WIDTH, HEIGHT = 64, 48
BACKGROUND = (12, 24, 48)
# The band across the middle third, one colour per status (two for the double failure).
PICTURES = {
    "Normal.png": [(40, 70, 120)],
    "WrongImgSize.png": [(160, 120, 20)],
    "NoInterEvent.png": [(50, 120, 60)],
    "ChannelLinkFail.png": [(160, 40, 40)],
    "ChannelEncodeFail.png": [(120, 50, 140)],
    "LinkFailAndEncodeFail.png": [(160, 40, 40), (120, 50, 140)],
}


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))


def pixel(x, y, band):
    if HEIGHT // 3 <= y < 2 * HEIGHT // 3 and WIDTH // 8 <= x < WIDTH - WIDTH // 8:
        return band[x * len(band) // WIDTH]
    return BACKGROUND


def png(band):
    header = struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 2, 0, 0, 0)  # 8-bit RGB
    rows = b"".join(
        b"\x00" + b"".join(bytes(pixel(x, y, band)) for x in range(WIDTH)) for y in range(HEIGHT))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b""))


def main():
    directory = pathlib.Path(__file__).resolve().parent / "GLBackImg"
    directory.mkdir(exist_ok=True)
    for name, band in PICTURES.items():
        (directory / name).write_bytes(png(band))


if __name__ == "__main__":
    main()
