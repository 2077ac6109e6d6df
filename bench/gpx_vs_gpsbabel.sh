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

python3 "$root/bench/track_gpx.py" "$points" "$gpx"
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
