#!/usr/bin/env bash
# Peak memory of norvanta-cli on a GPX of about 200 MB, with the memory budget
# at its floor (MAXMEM 100): --info (load and count) and --export-nmea (load
# and write the NMEA log), each under /usr/bin/time -v.
# Usage: bench/big_gpx_memory.sh [points]   (2 150 000 points make about 200 MB)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"
ensure_packages "${build_packages[@]}" libbenchmark-dev python3 time

points=${1:-2150000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
gpx="$work/big.gpx"
python3 "$root/bench/track_gpx.py" "$points" "$gpx"
echo "GPX: $(du -h "$gpx" | cut -f1), $points track points"

cmake -S "$root" -B "$root/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNORVANTA_BENCH=ON \
    -DNORVANTA_TESTS=OFF >/dev/null
ninja -C "$root/build-bench" norvanta-cli >/dev/null

mkdir -p "$work/home"
printf 'MAXMEM 100\nLANG ENGLISH\n' >"$work/home/norvanta.cfg"

# Runs the program under time -v and prints wall time and peak resident set.
measure() {
    local title=$1
    shift
    echo "== $title"
    NORVANTA_HOME="$work/home" /usr/bin/time -v "$root/build-bench/bin/norvanta-cli" "$@" \
        >"$work/out.txt" 2>"$work/time.txt" || {
        cat "$work/time.txt"
        return 1
    }
    grep -E 'Elapsed \(wall clock\)|Maximum resident set size' "$work/time.txt"
}

measure "norvanta-cli --info" --info "$gpx"
grep -A1 -E '^Number of trackpoints' "$work/out.txt" | tr '\n' ' '
echo
measure "norvanta-cli --export-nmea" --export-nmea "$gpx" "$work/big.nmea"
echo "NMEA log: $(du -h "$work/big.nmea" | cut -f1)"
