#!/usr/bin/env bash
# Our NMEA parser side by side with gpsd's decoder, gpsdecode, on the same
# bytes: the receiver logs of the test data repeated to about 50 MB.
#
# gpsdecode is timed as a whole process (best of three, wall and CPU time),
# once doing its normal work (decode, one JSON report per epoch, to
# /dev/null) and once with -m, where it prints only the shortest packet of
# each type, so that the cost of its JSON output shows apart.
# Our parser is timed by nmea_parser_bench over the same file in the
# worker's 2000-byte batches, best of three repetitions.
#
# Usage: bench/parser_vs_gpsdecode.sh [target-megabytes]
set -euo pipefail
export LC_ALL=C

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build-bench"
target_mb="${1:-50}"
attempts=3

# shellcheck source=scripts/packages.sh
source "$root/scripts/packages.sh"
ensure_packages "${build_packages[@]}" libbenchmark-dev gpsd-clients python3

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DNORVANTA_BENCH=ON >/dev/null
ninja -C "$build" nmea_parser_bench >/dev/null

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
log="$work/large.log"

# One round is every log in name order; whole rounds until the target size,
# exactly as the benchmark builds its own log when given no file.
cat "$root"/tests/data/nmea/*.log >"$work/round.log"
round_bytes=$(stat -c %s "$work/round.log")
rounds=$(((target_mb * 1024 * 1024 + round_bytes - 1) / round_bytes))
for ((i = 0; i < rounds; i++)); do cat "$work/round.log"; done >"$log"
log_bytes=$(stat -c %s "$log")
sentences=$(tr -cd '$' <"$log" | wc -c)
printf 'Log: %d bytes, %d sentences (%d rounds of %d bytes)\n' \
    "$log_bytes" "$sentences" "$rounds" "$round_bytes"

# Prints "wall cpu" in seconds for the best (shortest wall) of the attempts;
# cpu is user plus system time, as the benchmark's CPU time is.
best_of() {
    local best_wall="" best_cpu="" timing wall user system
    for ((attempt = 0; attempt < attempts; attempt++)); do
        timing=$({ TIMEFORMAT='%R %U %S'; time "$@" <"$log" >/dev/null 2>&1; } 2>&1)
        read -r wall user system <<<"$timing"
        if [ -z "$best_wall" ] || awk -v a="$wall" -v b="$best_wall" 'BEGIN { exit !(a < b) }'; then
            best_wall=$wall
            best_cpu=$(awk -v u="$user" -v s="$system" 'BEGIN { printf "%.3f", u + s }')
        fi
    done
    echo "$best_wall $best_cpu"
}

reports=$(gpsdecode <"$log" 2>/dev/null | wc -l)
read -r gpsd_wall gpsd_cpu <<<"$(best_of gpsdecode)"
read -r quiet_wall quiet_cpu <<<"$(best_of gpsdecode -m)"

NORVANTA_BENCH_NMEA_LOG="$log" "$build/bin/nmea_parser_bench" \
    --benchmark_repetitions="$attempts" --benchmark_format=json >"$work/ours.json"

python3 - "$work/ours.json" "$log_bytes" "$sentences" "$reports" \
    "$gpsd_wall" "$gpsd_cpu" "$quiet_wall" "$quiet_cpu" <<'EOF'
import json
import sys

path = sys.argv[1]
log_bytes, sentences, reports = (int(value) for value in sys.argv[2:5])
gpsd_wall, gpsd_cpu, quiet_wall, quiet_cpu = (float(value) for value in sys.argv[5:9])
runs = [run for run in json.load(open(path))["benchmarks"] if run.get("run_type") == "iteration"]
if not runs or any(run.get("error_occurred") for run in runs):
    sys.exit("nmea_parser_bench gave no result: " + str(runs[:1]))
best = min(runs, key=lambda run: run["real_time"])
scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[best["time_unit"]]
ours_wall = best["real_time"] * scale
ours_cpu = best["cpu_time"] * scale
mb = log_bytes / 1e6

def row(name, wall, cpu):
    print(f"{name:<38} {wall:8.3f} s wall {cpu:8.3f} s CPU "
          f"{mb / wall:8.1f} MB/s {sentences / wall / 1e6:6.2f} M sentences/s")

print(f"{'':<38} (best of {len(runs)}; MB = 10^6 bytes)")
row("gpsdecode (decode + JSON)", gpsd_wall, gpsd_cpu)
row("gpsdecode -m (no JSON output)", quiet_wall, quiet_cpu)
row("norvanta feed_nmea, 2000-byte batches", ours_wall, ours_cpu)
print(f"gpsdecode wrote {reports} JSON reports; our parser ended "
      f"{int(best['fixes'])} batches with a position")
print(f"Ratio, gpsdecode time / ours: {gpsd_wall / ours_wall:.2f} wall, "
      f"{gpsd_cpu / ours_cpu:.2f} CPU "
      f"(gpsdecode -m: {quiet_wall / ours_wall:.2f} wall)")
EOF
