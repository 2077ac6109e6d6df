#!/usr/bin/env python3
"""Draws the program's icon and the six Dashboard button icons into system/.

Run:  python3 tools/icons/make_button_icons.py [--output DIR]

Each picture goes out as NAME.ico, which the window loads, and NAME.png at its
largest size (the program's at 128 pixels: the desktop entry's icon).  Standard library
only.  The .ico files hold uncompressed 32-bit images (a BITMAPINFOHEADER, BGRA
rows bottom up, then the 1-bit mask), the form every reader of icons takes,
at several sizes so that a window system picks one without scaling.

Files:  valid (validate a setting: a check mark), boucle (loop: a circling
arrow), rev (play backward), start (play forward), pause, stop, and norvanta
(the program: a position mark sending waves).

Drawing: a picture is a list of filled shapes in a 0..1 square, y down,
painted opaque in order onto a grid four times finer than the output; each
output pixel averages its 16 samples with premultiplied alpha.
"""
import argparse
import math
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))

SUPERSAMPLE = 4
BUTTON_SIZES = (16, 22, 24, 32)
PROGRAM_SIZES = (16, 24, 32, 48, 64)
PROGRAM_PNG_SIZE = 128  # the desktop entry's icon

INK = (40, 44, 52, 255)
GREEN = (34, 150, 64, 255)
BLUE = (30, 104, 196, 255)
RED = (204, 40, 40, 255)
WHITE = (255, 255, 255, 255)
NAVY = (22, 58, 112, 255)
ORANGE = (240, 140, 30, 255)


# ---- shapes: each answers whether a point of the unit square is inside ----

def polygon(points):
    def inside(x, y):
        hit = False
        j = len(points) - 1
        for i, (xi, yi) in enumerate(points):
            xj, yj = points[j]
            if (yi > y) != (yj > y) and x < (xj - xi) * (y - yi) / (yj - yi) + xi:
                hit = not hit
            j = i
        return hit
    return inside


def circle(cx, cy, r):
    return lambda x, y: (x - cx) ** 2 + (y - cy) ** 2 <= r * r


def ring(cx, cy, r_in, r_out, start_deg, end_deg):
    """An annulus between two angles, clockwise from east (y down)."""
    def inside(x, y):
        d2 = (x - cx) ** 2 + (y - cy) ** 2
        if not r_in * r_in <= d2 <= r_out * r_out:
            return False
        a = math.degrees(math.atan2(y - cy, x - cx)) % 360
        return (a - start_deg) % 360 <= (end_deg - start_deg) % 360
    return inside


def thick_line(points, width):
    half = width / 2

    def inside(x, y):
        for (ax, ay), (bx, by) in zip(points, points[1:]):
            dx, dy = bx - ax, by - ay
            t = max(0.0, min(1.0, ((x - ax) * dx + (y - ay) * dy) / (dx * dx + dy * dy)))
            if (x - ax - t * dx) ** 2 + (y - ay - t * dy) ** 2 <= half * half:
                return True
        return False
    return inside


def rounded_square(margin, radius):
    lo, hi = margin, 1 - margin

    def inside(x, y):
        if not (lo <= x <= hi and lo <= y <= hi):
            return False
        cx = min(max(x, lo + radius), hi - radius)
        cy = min(max(y, lo + radius), hi - radius)
        return (x - cx) ** 2 + (y - cy) ** 2 <= radius * radius
    return inside


# ---- the pictures: (colour, shape) painted in order ----

def arrow_head(tip, back, half_width):
    (tx, ty), (bx, by) = tip, back
    dx, dy = tx - bx, ty - by
    length = math.hypot(dx, dy)
    nx, ny = -dy / length * half_width, dx / length * half_width
    return polygon([tip, (bx + nx, by + ny), (bx - nx, by - ny)])


PICTURES = {
    "valid": [(GREEN, thick_line([(0.16, 0.52), (0.40, 0.76), (0.86, 0.24)], 0.17))],
    "boucle": [
        (BLUE, ring(0.5, 0.5, 0.22, 0.36, 110, 20)),
        (BLUE, arrow_head((0.69, 0.83), (0.79, 0.56), 0.16)),
    ],
    "rev": [(GREEN, polygon([(0.20, 0.5), (0.78, 0.16), (0.78, 0.84)]))],
    "start": [(GREEN, polygon([(0.80, 0.5), (0.22, 0.16), (0.22, 0.84)]))],
    "pause": [
        (INK, polygon([(0.22, 0.18), (0.42, 0.18), (0.42, 0.82), (0.22, 0.82)])),
        (INK, polygon([(0.58, 0.18), (0.78, 0.18), (0.78, 0.82), (0.58, 0.82)])),
    ],
    "stop": [(RED, polygon([(0.20, 0.20), (0.80, 0.20), (0.80, 0.80), (0.20, 0.80)]))],
    "norvanta": [
        (NAVY, rounded_square(0.03, 0.18)),
        # the waves going out from the position
        (WHITE, ring(0.40, 0.40, 0.36, 0.44, 300, 60)),
        (WHITE, ring(0.40, 0.40, 0.48, 0.55, 305, 55)),
        # the position mark: a drop standing on its point
        (ORANGE, circle(0.40, 0.40, 0.20)),
        (ORANGE, polygon([(0.22, 0.48), (0.58, 0.48), (0.40, 0.86)])),
        (WHITE, circle(0.40, 0.40, 0.08)),
    ],
}
PROGRAM = "norvanta"


def render(picture, size):
    """RGBA bytes, rows top down, of a picture at size pixels square."""
    grid = size * SUPERSAMPLE
    out = bytearray(size * size * 4)
    for py in range(size):
        for px in range(size):
            r = g = b = a = 0
            for sy in range(SUPERSAMPLE):
                for sx in range(SUPERSAMPLE):
                    x = (px * SUPERSAMPLE + sx + 0.5) / grid
                    y = (py * SUPERSAMPLE + sy + 0.5) / grid
                    colour = None
                    for paint, inside in picture:
                        if inside(x, y):
                            colour = paint
                    if colour:
                        alpha = colour[3]
                        r += colour[0] * alpha
                        g += colour[1] * alpha
                        b += colour[2] * alpha
                        a += alpha
            samples = SUPERSAMPLE * SUPERSAMPLE
            at = (py * size + px) * 4
            if a:
                out[at:at + 4] = bytes((r // a, g // a, b // a, a // samples))
    return bytes(out)


def png(size, rgba):
    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))
    rows = b"".join(b"\0" + rgba[y * size * 4:(y + 1) * size * 4] for y in range(size))
    header = struct.pack(">IIBBBBB", size, size, 8, 6, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows, 9))
            + chunk(b"IEND", b""))


def ico_image(size, rgba):
    """One icon image: the header, BGRA rows bottom up, then the AND mask."""
    header = struct.pack("<IiiHHIIiiII", 40, size, size * 2, 1, 32, 0, 0, 0, 0, 0, 0)
    pixels = bytearray()
    for y in reversed(range(size)):
        for x in range(size):
            r, g, b, a = rgba[(y * size + x) * 4:(y * size + x) * 4 + 4]
            pixels += bytes((b, g, r, a))
    mask_row = ((size + 31) // 32) * 4
    mask = bytearray()
    for y in reversed(range(size)):
        row = bytearray(mask_row)
        for x in range(size):
            if rgba[(y * size + x) * 4 + 3] == 0:
                row[x // 8] |= 0x80 >> (x % 8)
        mask += row
    return header + bytes(pixels) + bytes(mask)


def ico(images):
    directory = struct.pack("<HHH", 0, 1, len(images))
    offset = 6 + 16 * len(images)
    entries, data = b"", b""
    for size, rgba in images:
        body = ico_image(size, rgba)
        side = 0 if size >= 256 else size
        entries += struct.pack("<BBBBHHII", side, side, 0, 0, 1, 32, len(body), offset + len(data))
        data += body
    return directory + entries + data


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", default=os.path.join(REPO, "system"))
    args = parser.parse_args()
    for name, picture in PICTURES.items():
        sizes = PROGRAM_SIZES if name == PROGRAM else BUTTON_SIZES
        images = [(size, render(picture, size)) for size in sizes]
        with open(os.path.join(args.output, name + ".ico"), "wb") as out:
            out.write(ico(images))
        largest = images[-1]
        if name == PROGRAM:
            largest = (PROGRAM_PNG_SIZE, render(picture, PROGRAM_PNG_SIZE))
        with open(os.path.join(args.output, name + ".png"), "wb") as out:
            out.write(png(*largest))


if __name__ == "__main__":
    main()
