// Benchmarks of the ObjectStore and the OrderedSet at the scale of a large
// track: a million records created, looked up in random order and deleted,
// and a million time-sorted points indexed and searched by time.
//
// Each benchmark iteration handles `record_count` records; the time_per_op
// counter gives the CPU cost of one operation.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "shell/errors.h"

namespace norvanta {
namespace {

constexpr int32_t record_count = 1'000'000;
constexpr uint32_t shuffle_seed = 20240101;
constexpr double first_day = 2460000.5; // a Julian day
constexpr double seconds_per_day = 86400.0;

// About the size of a waypoint: the ownership header and a few fields.
struct BenchRecord {
    static constexpr ObjectType object_type = ObjectType::Waypoint;
    ObjectId id;
    ObjectType type;
    ObjectId owner_id;
    ObjectType owner_type;
    ObjectId children;
    int32_t flags;
    double longitude;
    double latitude;
    double altitude;
};

// A replayable point keyed by its time, one second apart.
struct BenchPoint {
    static constexpr ObjectType object_type = ObjectType::NavPoint;
    ObjectId id;
    ObjectType type;
    ObjectId owner_id;
    ObjectType owner_type;
    ObjectId children;
    int32_t text_length;
    double time_days;
    double distance_km;
    char* text;
};

void set_up_store_once() {
    static const bool done = [] {
        object_store_create();
        set_obj_type<BenchRecord>();
        set_obj_type<BenchPoint>();
        return true;
    }();
    (void)done;
}

void count_operations(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * record_count);
    // Seconds per operation, printed with its SI prefix ("81.9n" is 81.9 ns).
    state.counters["time_per_op"] = benchmark::Counter(
        record_count, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

std::vector<ObjectId> create_records() {
    std::vector<ObjectId> ids(record_count);
    for (ObjectId& id : ids)
        cre_obj<BenchRecord>(&id);
    return ids;
}

void delete_records(std::vector<ObjectId>& ids) {
    for (ObjectId& id : ids)
        del_obj_adr(ObjectType::Waypoint, id);
    purge_obj_tables();
}

void StoreCreate(benchmark::State& state) {
    set_up_store_once();
    for (auto _ : state) {
        std::vector<ObjectId> ids = create_records();
        benchmark::DoNotOptimize(ids.data());
        state.PauseTiming();
        delete_records(ids);
        state.ResumeTiming();
    }
    count_operations(state);
}

void StoreLookupRandom(benchmark::State& state) {
    set_up_store_once();
    std::vector<ObjectId> ids = create_records();
    std::vector<ObjectId> order = ids;
    std::shuffle(order.begin(), order.end(), std::mt19937(shuffle_seed));
    for (auto _ : state) {
        for (ObjectId id : order)
            benchmark::DoNotOptimize(get_obj_adr<BenchRecord>(id));
    }
    count_operations(state);
    if (error_pending()) state.SkipWithError("a look-up failed");
    delete_records(ids);
}

void StoreDelete(benchmark::State& state) {
    set_up_store_once();
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<ObjectId> ids = create_records();
        state.ResumeTiming();
        for (ObjectId& id : ids)
            del_obj_adr(ObjectType::Waypoint, id);
        state.PauseTiming();
        purge_obj_tables();
        state.ResumeTiming();
    }
    count_operations(state);
}

std::vector<ObjectId> create_points() {
    std::vector<ObjectId> ids(record_count);
    for (int32_t i = 0; i < record_count; ++i) {
        cre_obj<BenchPoint>(&ids[static_cast<std::size_t>(i)])->time_days =
            first_day + i / seconds_per_day;
    }
    return ids;
}

ObjectId create_time_index() {
    ObjectId handle = 0;
    oset_create(0, 0, ObjectType::NavPoint, FieldKind::real, offsetof(BenchPoint, time_days),
                handle);
    return handle;
}

void OrderedSetInsertSorted(benchmark::State& state) {
    set_up_store_once();
    std::vector<ObjectId> points = create_points();
    for (auto _ : state) {
        state.PauseTiming();
        ObjectId handle = create_time_index();
        state.ResumeTiming();
        for (ObjectId id : points)
            oset_insert(handle, id);
        state.PauseTiming();
        if (oset_count(handle) != record_count) state.SkipWithError("points missing");
        oset_delete(handle);
        state.ResumeTiming();
    }
    count_operations(state);
    for (ObjectId& id : points)
        del_obj_adr(ObjectType::NavPoint, id);
    purge_obj_tables();
}

void OrderedSetSearch(benchmark::State& state) {
    set_up_store_once();
    std::vector<ObjectId> points = create_points();
    ObjectId handle = create_time_index();
    for (ObjectId id : points)
        oset_insert(handle, id);
    std::mt19937 random(shuffle_seed);
    std::uniform_real_distribution<double> offset_days(0.0, record_count / seconds_per_day);
    std::vector<double> keys(record_count);
    for (double& key : keys)
        key = first_day + offset_days(random);
    for (auto _ : state) {
        for (const double& key : keys) {
            bool exact = false;
            benchmark::DoNotOptimize(oset_search(handle, &key, &exact));
        }
    }
    count_operations(state);
    oset_delete(handle);
    for (ObjectId& id : points)
        del_obj_adr(ObjectType::NavPoint, id);
    purge_obj_tables();
}

BENCHMARK(StoreCreate)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(StoreLookupRandom)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(StoreDelete)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(OrderedSetInsertSorted)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(OrderedSetSearch)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace
} // namespace norvanta
