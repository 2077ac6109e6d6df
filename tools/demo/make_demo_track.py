#!/usr/bin/env python3
"""Writes the demo track that the README's first command replays.

Six minutes of a drive at one point a second: out of a village, along a
valley road that climbs, a stop at a junction, then faster on an open road
and down again. Speeds change smoothly between the legs; the elevation
follows a made-up valley profile. The output is GPX 1.1 with times, written
to system/demo_track.gpx beside this program's other system files.

The track is computed, not recorded, so it is the same on every run.
"""
import math
import os
import sys

START = (45.1885, 5.7245)          # degrees: latitude, longitude of the start
START_TIME = (2024, 6, 15, 9, 30, 0)
EARTH_RADIUS_M = 6371000.0

# Legs: seconds, speed at the end of the leg (km/h), heading change per
# second (degrees), climb per 100 m travelled (metres).
LEGS = [
    (20, 30.0, 0.0, 0.5),    # out of the village
    (60, 50.0, 0.4, 3.0),    # valley road, gentle bend, climbing
    (40, 45.0, -0.8, 4.0),   # switchbacks
    (25, 0.0, 0.0, 0.0),     # slowing down to the junction
    (15, 0.0, 0.0, 0.0),     # standing at the junction
    (30, 70.0, 1.5, 1.0),    # turning onto the open road
    (90, 90.0, -0.2, -1.0),  # open road, slight descent
    (50, 60.0, 0.6, -3.0),   # down into the next valley
    (30, 0.0, 0.0, -0.5),    # into the next village and stop
]


def points():
    lat, lon = START
    heading = 35.0
    speed = 0.0
    elevation = 212.0
    t = 0
    yield t, lat, lon, elevation
    for seconds, end_speed, turn, climb in LEGS:
        start_speed = speed
        for step in range(1, seconds + 1):
            fraction = step / seconds
            # a smooth change of speed over the leg
            speed = start_speed + (end_speed - start_speed) * (1 - math.cos(math.pi * fraction)) / 2
            metres = speed / 3.6
            heading = (heading + turn) % 360
            lat += math.degrees(metres * math.cos(math.radians(heading)) / EARTH_RADIUS_M)
            lon += math.degrees(metres * math.sin(math.radians(heading)) /
                                (EARTH_RADIUS_M * math.cos(math.radians(lat))))
            elevation += climb * metres / 100.0
            t += 1
            yield t, lat, lon, elevation


def stamp(offset):
    year, month, day, hour, minute, second = START_TIME
    total = hour * 3600 + minute * 60 + second + offset
    return "%04d-%02d-%02dT%02d:%02d:%02dZ" % (year, month, day, total // 3600,
                                             total // 60 % 60, total % 60)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    target = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "..", "system",
                                                                "demo_track.gpx")
    lines = ['<?xml version="1.0" encoding="UTF-8"?>',
             '<gpx version="1.1" creator="Norvanta demo track generator" '
             'xmlns="http://www.topografix.com/GPX/1/1">',
             '  <trk>', '    <name>Demo drive</name>', '    <trkseg>']
    for offset, lat, lon, elevation in points():
        lines.append('      <trkpt lat="%.7f" lon="%.7f"><ele>%.1f</ele><time>%s</time></trkpt>'
                     % (lat, lon, elevation, stamp(offset)))
    lines += ['    </trkseg>', '  </trk>', '</gpx>', '']
    with open(target, "w", encoding="utf-8", newline="\n") as out:
        out.write("\n".join(lines))


if __name__ == "__main__":
    main()
