// A GPX of a million track points, loaded into a DataSet and written as an
// NMEA log into a memory file: the road every file takes before it can be
// replayed. bench/gpx_vs_gpsbabel.sh runs GPSBabel's GPX to NMEA conversion
// on the same file beside it.
//
// The GPX is the file named by NORVANTA_BENCH_GPX (the script makes it);
// without it the benchmarks are skipped with a message. Counters: points
// per second, and the process's peak resident memory in MiB after the run.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include "bench_support.h"

#include "core/object_sets.h"
#include "core/object_store.h"
#include "formats/dispatch.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "navigation/nmea_writer.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/main.h"

namespace norvanta {
namespace {

constexpr const char* gpx_variable = "NORVANTA_BENCH_GPX";

// Loads the file anew; the DataSet, or 0.
ObjectId load(const char* path, ObjectId& out_file) {
    out_file = open_path(path);
    return out_file ? load_file(out_file, nullptr, false) : 0;
}

void BM_LoadGpx(benchmark::State& state) {
    const char* path = std::getenv(gpx_variable);
    if (!path || !bench::modules_ready()) return state.SkipWithError("set NORVANTA_BENCH_GPX");
    int32_t points = 0;
    for (auto _ : state) {
        ObjectId file = 0;
        const ObjectId data_set = load(path, file);
        if (data_set == 0) return state.SkipWithError(error_text());
        points = ds_count_tree(data_set, ObjectType::TrackPoint);
        state.PauseTiming();
        del_obj(ObjectType::FileMobj, file);
        state.ResumeTiming();
    }
    state.counters["points"] = points;
    state.counters["points_per_second"] = benchmark::Counter(
        static_cast<double>(points), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["peak_MiB"] = bench::peak_resident_mib();
}
BENCHMARK(BM_LoadGpx)->Unit(benchmark::kMillisecond)->Iterations(1);

void BM_LoadGpxAndWriteNmeaInMemory(benchmark::State& state) {
    const char* path = std::getenv(gpx_variable);
    if (!path || !bench::modules_ready()) return state.SkipWithError("set NORVANTA_BENCH_GPX");
    int64_t bytes = 0;
    for (auto _ : state) {
        ObjectId file = 0;
        const ObjectId data_set = load(path, file);
        const ObjectId log = new_memory_file();
        write_data_set_nmea(nullptr, log, data_set);
        if (error_pending()) return state.SkipWithError(error_text());
        bytes = file_size_of(log);
        state.PauseTiming();
        del_obj(ObjectType::FileMobj, log);
        del_obj(ObjectType::FileMobj, file);
        state.ResumeTiming();
    }
    state.counters["nmea_bytes"] = static_cast<double>(bytes);
    state.counters["peak_MiB"] = bench::peak_resident_mib();
}
BENCHMARK(BM_LoadGpxAndWriteNmeaInMemory)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace
} // namespace norvanta
