#!/usr/bin/env python3
"""Writes a GPX of one track of COUNT points, one second apart, to PATH.

Usage: bench/track_gpx.py COUNT PATH
"""
import math
import sys

count, path = int(sys.argv[1]), sys.argv[2]
with open(path, "w") as out:
    out.write('<?xml version="1.0" encoding="UTF-8"?>\n'
              '<gpx version="1.1" creator="bench" xmlns="http://www.topografix.com/GPX/1/1">\n'
              '<trk><name>bench</name><trkseg>\n')
    for i in range(count):
        seconds = i % 86400
        day = 1 + i // 86400
        out.write('<trkpt lat="%.7f" lon="%.7f"><ele>%.1f</ele>'
                  '<time>2024-01-%02dT%02d:%02d:%02dZ</time></trkpt>\n'
                  % (45 + 0.00001 * i, 5 + 0.001 * math.sin(i / 1000), 100 + (i % 500) / 10,
                     day, seconds // 3600, seconds // 60 % 60, seconds % 60))
    out.write('</trkseg></trk></gpx>\n')
