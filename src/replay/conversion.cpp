// The log side of the conversion: the line loop over an NMEA log, through the
// sentence parser, and the reader that turns a log into NavSamples, Waypoints
// and Routes.
#include "replay/conversion.h"

#include <cmath>
#include <cstddef>
#include <cstring>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "core/strings.h"
#include "formats/gps_model.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "navigation/nmea_parser.h"
#include "shell/errors.h"
#include "shell/julian.h"

namespace norvanta {

namespace {

constexpr const char* line_end = "\r\n";
constexpr int32_t line_end_length = 2;
// A run of equal positions shorter than this is left whole.
constexpr int32_t thinned_run_minimum = 3;

// Drops the chain and the unit step of the GeoReference, both ours.
void release_transform(LogRun& run) {
    del_obj_adr(ObjectType::CoordBuffer, run.transform);
    if (auto* reference = find_obj_adr<GeoReference>(run.geo_reference)) {
        ObjectId scale = reference->pre_transform;
        reference->pre_transform = 0;
        reference->pre_op = 0;
        if (scale != 0) del_obj_adr(ObjectType::GeodesyCompanion57, scale);
    }
}

// The chain from the GeoReference's datum, in arc-seconds, to WGS 84.
void build_transform(LogRun& run, ObjectId datum) {
    release_transform(run);
    auto* reference = get_obj_adr<GeoReference>(run.geo_reference);
    if (!reference) return;
    if (datum == 0) {
        log_entry("Journal NMEA : systeme geodesique inconnu, WGS 84 garde");
        datum = find_by_code(ObjectType::Datum, default_datum_code);
    }
    reference->kind = georeference_geographic;
    reference->datum = datum;
    reference->unit = angle_unit_second;
    georeference_fix_units(run.geo_reference);
    make_chain(run.geo_reference, run.transform);
}

bool times_are_one_epoch(double a, double b) {
    return std::fabs(a - b) < same_epoch_days;
}

// ---- read_nmea_log ----

// What read_nmea_log keeps between lines.
struct LogReading {
    ObjectId data_set;
    ObjectId waypoint_index; // OrderedSet of the Waypoints on name
    ObjectId route_index;    // OrderedSet of the Routes on name
    NavSample* sample;       // the sample of the current epoch, or null
    bool sample_listed;      // it stands in a PositionList
    // The sample's ellipsoid height as the log gave it: a second position line
    // of the epoch converts this again, never the converted value.
    double sample_log_height;
    PositionList* list; // the list the next positioned sample joins; null to start one
    double last_time;   // time of day of the current epoch; 0 before the first
};

void copy_fix_to_sample(LogRun& run, LogReading& reading) {
    const NavFix& fix = log_fix(run);
    NavSample& sample = *reading.sample;
    if (fix.position_valid) {
        sample.longitude = fix.longitude;
        sample.latitude = fix.latitude;
    }
    if (fix.altitude_valid) {
        sample.altitude = fix.altitude;
        sample.ellipsoid_height = fix.ellipsoid_height;
        reading.sample_log_height = fix.ellipsoid_height;
    }
    if (fix.speed_valid) sample.speed = fix.speed_kmh;
    if (fix.course_valid) sample.course = fix.course_true;
    if (fix.satellites_valid) sample.satellites = fix.satellites_in_view;
    if (fix.quality_valid) {
        sample.hdop = fix.hdop;
        sample.fix_acquired = fix.fix_acquired;
        sample.differential = fix.differential;
    }
    julian_from_date(sample.time, std::floor(fix.date) + fix.time_of_day);
}

void place_sample(LogRun& run, LogReading& reading) {
    NavSample& sample = *reading.sample;
    double height = reading.sample_log_height;
    log_to_wgs84(run, sample.longitude, sample.latitude, height);
    sample.ellipsoid_height = height;
    if (!reading.list) {
        reading.list = new_position_list(ObjectType::NavSample, reading.data_set);
        if (!reading.list) return;
    }
    if (!reading.sample_listed) {
        append_point(reading.list->points, &sample);
        reading.sample_listed = true;
    }
}

void add_destination(LogRun& run, LogReading& reading) {
    const NavFix& fix = log_fix(run);
    double longitude = fix.destination_longitude, latitude = fix.destination_latitude;
    double height = 0.0;
    log_to_wgs84(run, longitude, latitude, height);
    ObjectId id = 0;
    if (!new_waypoint(longitude, latitude, fix.destination_id, nullptr, 0, display_name, 0.0, 0,
                      &id)) {
        return;
    }
    merge_waypoint(reading.waypoint_index, id, reading.data_set);
}

// Each name of the route, the first waypoint of that name; unknown names are
// passed over.
void route_from_names(const char* names, ObjectId waypoint_index, Route& route) {
    wchar_t* wide = nullptr;
    for (const char* name = names; name && *name; name = strlist_next(name)) {
        wstr_from_str(name, wide);
        ObjectId found = 0;
        void* address = nullptr;
        if (oset_next_equal(waypoint_index, wide, found, &address)) {
            append_point(route.points, address);
        }
    }
    free_mem(wide);
}

void add_route(LogRun& run, LogReading& reading) {
    const NavFix& fix = log_fix(run);
    ObjectId id = 0;
    Route* route = new_route(0, &id);
    if (!route) return;
    wstr_from_str(fix.route_id, route->name);
    route_from_names(fix.route_waypoints, reading.waypoint_index, *route);
    if (error_pending()) return;
    if (pair_list_count(route->points) == 0) {
        del_obj(ObjectType::Route, id);
        return;
    }
    void* address = nullptr;
    for (ObjectId same = 0; oset_next_equal(reading.route_index, route->name, same, &address);) {
        const auto* other = static_cast<const Route*>(address);
        if (same != id && other && pair_list_equal(other->points, route->points)) {
            del_obj(ObjectType::Route, id);
            return;
        }
    }
    ds_add(reading.data_set, ObjectType::Route, id);
    oset_insert(reading.route_index, id);
}

void read_log_line(LogRun& run, LogReading& reading) {
    NavFix& fix = log_fix(run);
    fix.destination_valid = 0;
    fix.route_complete = 0;
    parse_log_line(run);
    if (error_pending()) return;
    if (fix.mark == FixMark::stop) reading.list = nullptr;

    if (times_are_one_epoch(fix.time_of_day, reading.last_time))
        fix.time_of_day = reading.last_time;
    if (fix.time_valid && fix.time_of_day != reading.last_time) {
        ObjectId id = 0;
        reading.sample = cre_obj<NavSample>(&id);
        if (!reading.sample) return;
        ds_add(reading.data_set, ObjectType::NavSample, id);
        reading.sample_listed = false;
        reading.sample_log_height = 0.0;
        reading.last_time = fix.time_of_day;
    }
    if (reading.sample) {
        copy_fix_to_sample(run, reading);
        if (fix.position_valid) place_sample(run, reading);
    }
    if (error_pending()) return;
    if (fix.destination_valid) add_destination(run, reading);
    if (error_pending()) return;
    if (fix.route_complete) add_route(run, reading);
}

// The passes that every reader of such records runs at its end.
void finish_log_data_set(ObjectId data_set) {
    if (ds_count(data_set, ObjectType::NavSample) > 0) finish_trail(data_set);
    attach_symbols(data_set, ObjectType::Waypoint);
    index_waypoints(data_set, ObjectType::Waypoint);
    finish_routes(data_set, ObjectType::Route, true);
}

bool same_position(const Pair& a, const Pair& b) {
    const auto* first = reinterpret_cast<const NavSample*>(a.value);
    const auto* second = reinterpret_cast<const NavSample*>(b.value);
    return first->longitude == second->longitude && first->latitude == second->latitude;
}

} // namespace

// ---- the line loop ----

bool new_nav_parser(ObjectId file, LogRun& run) {
    run = LogRun{};
    run.file = file;
    if (error_pending()) return false;
    if (open_stream(file, log_buffer_bytes, true) != 0) {
        set_gblerr(ErrorCode::file_access);
        return false;
    }
    run.remaining = stream_size();
    run.parser = new_nmea_parser(nullptr, nullptr);
    if (!run.parser) return false;
    new_nav_fix(run.parser->fix);
    if (!cre_obj<GeoReference>(&run.geo_reference)) return false;
    build_transform(run, find_by_code(ObjectType::Datum, default_datum_code));
    str_copy(run.parser->fix->datum_name, run.datum_seen);
    return !error_pending();
}

bool next_log_line(LogRun& run) {
    if (run.remaining <= 0 || error_pending()) return false;
    const int32_t stored = read_line(log_line_limit, run.remaining, run.line);
    if (error_pending()) return false;
    std::memcpy(run.line + stored, line_end, line_end_length + 1);
    run.line_length = stored + line_end_length;
    return true;
}

void parse_log_line(LogRun& run) {
    clear_fix_flags(log_fix(run));
    feed_nmea(run.line, static_cast<std::size_t>(run.line_length), *run.parser);
}

NavFix& log_fix(LogRun& run) {
    return *run.parser->fix;
}

void follow_log_datum(LogRun& run) {
    const NavFix& fix = log_fix(run);
    if (run.datum_seen && std::strcmp(run.datum_seen, fix.datum_name) == 0) return;
    str_copy(fix.datum_name, run.datum_seen);
    build_transform(
        run, find_alias(ObjectType::Datum, static_cast<int32_t>(fix.datum_naming), fix.datum_name));
}

void log_to_wgs84(LogRun& run, double& longitude, double& latitude, double& height) {
    follow_log_datum(run);
    chain_apply(run.transform, longitude, latitude, height);
}

void free_nav_parser(LogRun& run, bool keep_reference) {
    ErrorHold hold;
    release_transform(run);
    if (!keep_reference) del_obj_adr(ObjectType::GeoReference, run.geo_reference);
    free_nmea_parser(run.parser);
    free_mem(run.datum_seen);
}

// ---- read_nmea_log ----

void read_nmea_log(ObjectId file, ObjectId data_set) {
    LogRun run;
    LogReading reading{};
    reading.data_set = data_set;
    if (new_nav_parser(file, run)) {
        oset_create(0, 0, ObjectType::Waypoint, FieldKind::wide_string, offsetof(Waypoint, name),
                    reading.waypoint_index);
        oset_create(0, 0, ObjectType::Route, FieldKind::wide_string, offsetof(Route, name),
                    reading.route_index);
        while (next_log_line(run))
            read_log_line(run, reading);
    }
    const bool complete = !error_pending();
    if (complete) {
        if (reading.list) thin_positions(reading.list->points, data_set);
        // The samples stand in WGS 84 degrees now, and so must the system
        // that the set names.
        release_transform(run);
        if (auto* reference = get_obj_adr<GeoReference>(run.geo_reference)) {
            reference->datum = find_by_code(ObjectType::Datum, default_datum_code);
            georeference_take_unit(run.geo_reference);
            ds_add(data_set, ObjectType::GeoReference, run.geo_reference);
        }
    }
    free_nav_parser(run, complete && !error_pending());
    if (!error_pending()) finish_log_data_set(data_set);
    oset_delete(reading.waypoint_index);
    oset_delete(reading.route_index);
}

void thin_positions(PairList* list, ObjectId data_set) {
    const int32_t count = pair_list_count(list);
    if (count < thinned_run_minimum) return;
    int32_t kept = 0;
    for (int32_t start = 0; start < count;) {
        int32_t end = start + 1;
        while (end < count && same_position(list->pairs[start], list->pairs[end]))
            ++end;
        const bool thinned = end - start >= thinned_run_minimum;
        for (int32_t i = start; i < end; ++i) {
            if (thinned && i != start && i != end - 1) {
                ObjectId id = reinterpret_cast<const NavSample*>(list->pairs[i].value)->id;
                ds_remove(data_set, id);
                del_obj(ObjectType::NavSample, id);
            } else {
                list->pairs[kept++] = list->pairs[i];
            }
        }
        start = end;
    }
    pair_list_set_count(list, kept);
}

} // namespace norvanta
