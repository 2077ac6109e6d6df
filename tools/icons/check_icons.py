#!/usr/bin/env python3
"""Checks the 36 waypoint symbol images that the program loads at start-up.

Run:  python3 tools/icons/check_icons.py [DIR]

DIR defaults to system/.  Each of wpt0.png .. wpt35.png must exist, decode as a
PNG (chunk CRCs, IHDR, zlib stream, every row filter), be 8 bits a channel, not
interlaced, 24 by 24, hold both transparent and visible pixels, and differ from
every other icon by a visible amount.  Prints every fault found and exits 1 if
there was one.  Standard library only; the PNG is decoded here.
"""
import os
import struct
import sys
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))

SYMBOL_COUNT = 36
ICON_PX = 24
PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
CHANNELS_BY_COLOUR_TYPE = {0: 1, 2: 3, 4: 2, 6: 4}  # grey, RGB, grey+alpha, RGBA
# Two icons count as distinct when at least this many pixels differ by more
# than the channel step below; a recoloured or nudged copy stays under it.
MIN_DIFFERENT_PIXELS = 24
VISIBLE_CHANNEL_STEP = 48


class PngError(Exception):
    pass


def paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def unfilter(data, width, height, channels):
    stride = width * channels
    rows, previous, offset = [], bytearray(stride), 0
    for _ in range(height):
        if offset + 1 + stride > len(data):
            raise PngError("image data ends early")
        kind = data[offset]
        row = bytearray(data[offset + 1 : offset + 1 + stride])
        offset += 1 + stride
        if kind > 4:
            raise PngError("unknown row filter %d" % kind)
        for i in range(stride if kind else 0):
            left = row[i - channels] if i >= channels else 0
            up = previous[i]
            up_left = previous[i - channels] if i >= channels else 0
            if kind == 1:
                row[i] = (row[i] + left) & 0xFF
            elif kind == 2:
                row[i] = (row[i] + up) & 0xFF
            elif kind == 3:
                row[i] = (row[i] + (left + up) // 2) & 0xFF
            else:
                row[i] = (row[i] + paeth(left, up, up_left)) & 0xFF
        rows.append(row)
        previous = row
    if offset != len(data):
        raise PngError("%d bytes after the last row" % (len(data) - offset))
    return rows


def decode_png(blob):
    """Returns (width, height, rows of RGBA tuples) or raises PngError."""
    if not blob.startswith(PNG_SIGNATURE):
        raise PngError("no PNG signature")
    offset, header, idat, ended = len(PNG_SIGNATURE), None, b"", False
    while offset < len(blob) and not ended:
        if offset + 8 > len(blob):
            raise PngError("truncated chunk header")
        length, kind = struct.unpack(">I4s", blob[offset : offset + 8])
        body = blob[offset + 4 : offset + 8 + length]
        if offset + 12 + length > len(blob):
            raise PngError("truncated %r chunk" % kind)
        (crc,) = struct.unpack(">I", blob[offset + 8 + length : offset + 12 + length])
        if zlib.crc32(body) != crc:
            raise PngError("bad CRC on %r" % kind)
        data = body[4:]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", data)
        elif kind == b"IDAT":
            idat += data
        elif kind == b"IEND":
            ended = True
        offset += 12 + length
    if header is None or not ended:
        raise PngError("IHDR or IEND missing")
    width, height, depth, colour_type, _compression, _filter, interlace = header
    if depth != 8 or colour_type not in CHANNELS_BY_COLOUR_TYPE or interlace:
        raise PngError("depth %d, colour type %d, interlace %d: not 8-bit plain"
                       % (depth, colour_type, interlace))
    channels = CHANNELS_BY_COLOUR_TYPE[colour_type]
    try:
        raw = zlib.decompress(idat)
    except zlib.error as error:
        raise PngError("image data: %s" % error)
    pixels = []
    for row in unfilter(raw, width, height, channels):
        line = []
        for x in range(width):
            p = row[x * channels : (x + 1) * channels]
            if channels == 1:
                line.append((p[0], p[0], p[0], 255))
            elif channels == 2:
                line.append((p[0], p[0], p[0], p[1]))
            elif channels == 3:
                line.append((p[0], p[1], p[2], 255))
            else:
                line.append(tuple(p))
        pixels.append(line)
    return width, height, pixels


def visible(pixel):
    """Colour premultiplied by alpha, so all fully transparent pixels compare equal."""
    return tuple(channel * pixel[3] // 255 for channel in pixel[:3]) + (pixel[3],)


def different_pixels(a, b):
    count = 0
    for row_a, row_b in zip(a, b):
        for pa, pb in zip(row_a, row_b):
            va, vb = visible(pa), visible(pb)
            if max(abs(x - y) for x, y in zip(va, vb)) > VISIBLE_CHANNEL_STEP:
                count += 1
    return count


def check(directory):
    faults, icons = [], {}
    for number in range(SYMBOL_COUNT):
        name = "wpt%d.png" % number
        try:
            with open(os.path.join(directory, name), "rb") as source:
                width, height, pixels = decode_png(source.read())
        except (OSError, PngError) as error:
            faults.append("%s: %s" % (name, error))
            continue
        if (width, height) != (ICON_PX, ICON_PX):
            faults.append("%s: %d by %d, not %d by %d" % (name, width, height, ICON_PX, ICON_PX))
            continue
        alphas = [p[3] for row in pixels for p in row]
        if min(alphas) != 0:
            faults.append("%s: no transparent pixel, the background must be clear" % name)
        if max(alphas) != 255:
            faults.append("%s: no opaque pixel, nothing drawn" % name)
        icons[number] = pixels
    numbers = sorted(icons)
    for i, first in enumerate(numbers):
        for second in numbers[i + 1 :]:
            count = different_pixels(icons[first], icons[second])
            if count < MIN_DIFFERENT_PIXELS:
                faults.append("wpt%d.png and wpt%d.png differ in only %d pixels"
                              % (first, second, count))
    return faults


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else os.path.join(REPO, "system")
    faults = check(directory)
    for fault in faults:
        print(fault)
    if faults:
        return 1
    print("%d waypoint icons in %s: all good" % (SYMBOL_COUNT, directory))
    return 0


if __name__ == "__main__":
    sys.exit(main())
