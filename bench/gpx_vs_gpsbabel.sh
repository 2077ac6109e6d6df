#!/usr/bin/env bash
# A GPX of a million track points, loaded and written as NMEA in memory by
# Norvanta, made into a track ready to replay, and converted GPX to NMEA by
# GPSBabel on the same file: wall time and peak memory of each.
# Usage: bench/gpx_vs_gpsbabel.sh [points]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"
ensure_packages "${build_packages[@]}" libbenchmark-dev gpsbabel python3 time

points=${1:-1000000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
gpx="$work/track.gpx"

python3 - "$points" "$gpx" <<'PY'
import math, sys
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
PY
echo "GPX: $(du -h "$gpx" | cut -f1), $points track points"

cmake -S "$root" -B "$root/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNORVANTA_BENCH=ON \
    -DNORVANTA_TESTS=OFF >/dev/null
ninja -C "$root/build-bench" gpx_load_bench replay_bench >/dev/null

echo "== Norvanta: GPX to DataSet, then to NMEA in a memory file"
NORVANTA_HOME="$work/home" NORVANTA_BENCH_GPX="$gpx" \
    "$root/build-bench/bin/gpx_load_bench" --benchmark_counters_tabular=true

echo "== Norvanta: GPX to a track ready to replay (NavPoints and both indexes), then a clock step"
NORVANTA_HOME="$work/home" NORVANTA_BENCH_GPX="$gpx" \
    "$root/build-bench/bin/replay_bench" --benchmark_counters_tabular=true

echo "== GPSBabel: gpsbabel -i gpx -f track.gpx -o nmea -F track.nmea"
/usr/bin/time -f "wall %e s, peak %M KiB" gpsbabel -i gpx -f "$gpx" -o nmea -F "$work/track.nmea"
echo "GPSBabel's NMEA: $(du -h "$work/track.nmea" | cut -f1)"
