#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Reads the 8-bit RGB PNGs vorta writes and answers what the picture tests ask.

    png_check.py colours FILE        pixels near the plot's red, green, blue and text colours
    png_check.py black-span FILE Y   first and last x of black pixels in line Y
    png_check.py same FILE FILE      exit 0 when both pictures have the same pixels
"""
import struct
import sys
import zlib


def read(path):
    with open(path, "rb") as f:
        data = f.read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise SystemExit("%s: not a PNG" % path)
    pos, idat, width, height = 8, b"", 0, 0
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos : pos + 8])
        body = data[pos + 8 : pos + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
            if depth != 8 or colour != 2:
                raise SystemExit("%s: not 8-bit RGB" % path)
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    raw = zlib.decompress(idat)
    stride = width * 3
    rows, previous = [], bytearray(stride)
    for y in range(height):
        kind = raw[y * (stride + 1)]
        line = bytearray(raw[y * (stride + 1) + 1 : (y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - 3] if i >= 3 else 0
            b = previous[i]
            c = previous[i - 3] if i >= 3 else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(line))
        previous = line
    return width, height, rows


def main():
    command = sys.argv[1]
    if command == "colours":
        width, height, rows = read(sys.argv[2])
        wanted = {"red": (235, 64, 52), "green": (70, 200, 80), "blue": (70, 120, 240), "text": (220, 220, 225)}
        counts = dict.fromkeys(wanted, 0)
        for row in rows:
            for x in range(width):
                pixel = tuple(row[3 * x : 3 * x + 3])
                for name, colour in wanted.items():
                    if pixel == colour:
                        counts[name] += 1
        print(" ".join("%s=%d" % item for item in counts.items()))
    elif command == "black-span":
        width, height, rows = read(sys.argv[2])
        row = rows[int(sys.argv[3])]
        xs = [x for x in range(width) if row[3 * x : 3 * x + 3] == b"\0\0\0"]
        print("%d %d %d" % (xs[0], xs[-1], width) if xs else "none")
    elif command == "same":
        return 0 if read(sys.argv[2]) == read(sys.argv[3]) else 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
