"""What is to be seen on a desktop's display, read from the memory of its screen."""

import os
import struct
import zlib


def picture(desktop, place=None):
    """The pixels of a part of the screen (x, y, width, height; all of it by default) as rows of
    RGB bytes."""
    with open(os.path.join(desktop.home, "Xvfb_screen0"), "rb") as file:
        screen = file.read()
    header = struct.unpack(">25I", screen[:100])
    begin, line = header[0] + header[19] * 12, header[12]
    x, y, width, height = place or (0, 0, header[4], header[5])
    rows = []
    for top in range(y, y + height):
        start = begin + top * line + x * 4
        blue_first = screen[start:start + width * 4]
        row = bytearray(width * 3)
        row[0::3], row[1::3], row[2::3] = blue_first[2::4], blue_first[1::4], blue_first[0::4]
        rows.append(bytes(row))
    return rows


def save(rows, path):
    """As a PNG file."""
    def chunk(kind, data):
        return (struct.pack(">I", len(data)) + kind + data
                + struct.pack(">I", zlib.crc32(kind + data)))
    size = struct.pack(">IIBBBBB", len(rows[0]) // 3, len(rows), 8, 2, 0, 0, 0)
    pixels = zlib.compress(b"".join(b"\0" + row for row in rows))
    with open(path, "wb") as file:
        file.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", size) + chunk(b"IDAT", pixels)
                   + chunk(b"IEND", b""))
