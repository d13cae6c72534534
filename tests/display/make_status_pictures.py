#!/usr/bin/env python3
"""Writes the solid-colour status pictures that stand in for a host's under GLBackImg/.

The colours must match kStatusColours in test_gl_widget.cpp.
"""
import pathlib
import struct
import zlib

WIDTH, HEIGHT = 32, 24
PICTURES = {
    "Normal.png": (0, 128, 128),
    "WrongImgSize.png": (128, 0, 0),
    "NoInterEvent.png": (0, 128, 0),
    "ChannelLinkFail.png": (128, 128, 0),
    "ChannelEncodeFail.png": (128, 0, 128),
    "LinkFailAndEncodeFail.png": (0, 0, 128),
}


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))


def png(rgb):
    header = struct.pack(">IIBBBBB", WIDTH, HEIGHT, 8, 2, 0, 0, 0)  # 8-bit RGB
    rows = b"".join(b"\x00" + bytes(rgb) * WIDTH for _ in range(HEIGHT))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            chunk(b"IDAT", zlib.compress(rows, 9)) + chunk(b"IEND", b""))


def main():
    directory = pathlib.Path(__file__).resolve().parent / "GLBackImg"
    directory.mkdir(exist_ok=True)
    for name, rgb in PICTURES.items():
        (directory / name).write_bytes(png(rgb))


if __name__ == "__main__":
    main()
