// The replay's costs on a large track: from a GPX file to a ReplayTrack that
// can play (NavPoints built, both indexes made), the CPU of one clock step
// (what every 400 ms tick costs), and the memory of one NavPoint.
//
// The GPX is the file named by NORVANTA_BENCH_GPX (bench/gpx_vs_gpsbabel.sh
// makes it); without it the benchmarks are skipped with a message.
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include "core/object_sets.h"
#include "core/object_store.h"
#include "formats/detection.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "replay/conversion.h"
#include "replay/engine.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "shell/main.h"

namespace norvanta {
namespace {

constexpr const char* gpx_variable = "NORVANTA_BENCH_GPX";

// The track of the benchmark file, made once: -1 when it could not be.
int32_t track_index = -1;
int32_t track_points = 0;

void BM_FileToReadyTrack(benchmark::State& state) {
    const char* path = std::getenv(gpx_variable);
    if (!path || !bench::modules_ready()) return state.SkipWithError("set NORVANTA_BENCH_GPX");
    const double resident_before = bench::peak_resident_mib();
    for (auto _ : state) {
        ObjectId file = new_file_mobj(0, nullptr, path, false);
        file = detect_format(file, 0, false);
        prepare_nav_points(file);
        const ObjectId data_set = file_data_set_of(file);
        replay_add_track(data_set, file, track_index, "bench");
        if (track_index < 0) return state.SkipWithError("no track was made");
        track_points = ds_count(data_set, ObjectType::NavPoint);
    }
    state.counters["nav_points"] = track_points;
    state.counters["peak_MiB"] = bench::peak_resident_mib();
    state.counters["bytes_per_point"] = (bench::peak_resident_mib() - resident_before) * 1024.0 *
                                        1024.0 / (track_points ? track_points : 1);
}
BENCHMARK(BM_FileToReadyTrack)->Unit(benchmark::kMillisecond)->Iterations(1);

// The clock's arithmetic and the two strict searches, at a time that moves
// through the whole track: what a tick does before it sends.
JulianTime bench_now{};
void bench_clock(JulianTime& out) {
    out = bench_now;
}

void BM_ClockStep(benchmark::State& state) {
    if (track_index < 0) return state.SkipWithError("the track benchmark did not run");
    replay_select(track_index);
    set_replay_clock(bench_clock);
    now_julian(bench_now);
    replay_set_time_factor(1.0);
    replay_play();
    const double track_days = seconds_to_days(static_cast<double>(track_points));
    double step = 0.0;
    for (auto _ : state) {
        JulianTime now = bench_now;
        julian_add_days(now, step);
        ObjectId point = 0;
        replay_locate(now, point);
        benchmark::DoNotOptimize(point);
        step += track_days / 1000.0;
        if (step > track_days) step = 0.0;
    }
    replay_stop();
    set_replay_clock(nullptr);
}
BENCHMARK(BM_ClockStep)->Unit(benchmark::kMicrosecond);

} // namespace
} // namespace norvanta
