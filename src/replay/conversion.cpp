// From a file to what the replay plays, and from a log to GPS records: the
// line loop over an NMEA log through the sentence parser, the flow of the
// load event that turns any GPS file into NavPoints by way of a log in
// memory, and the reader that turns a log into NavSamples, Waypoints and
// Routes.
#include "replay/conversion.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "core/strings.h"
#include "formats/detection.h"
#include "formats/dispatch.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "navigation/nmea_parser.h"
#include "navigation/nmea_writer.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/errors.h"
#include "shell/events.h"
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

// ---- a file to NavPoints ----

namespace {

// Texts of the load flow, French then English.
constexpr const char* loading_title[] = {"Chargement ", "Loading "};
constexpr const char* load_error_caption[] = {"Erreur en cours de chargement", "Loading error"};
constexpr const char* load_end_caption[] = {"Chargement terminé", "End of loading"};
constexpr const char* no_track_text[] = {"\nPas de données de trajet GPS", "\nNo track GPS data"};
// "Unkown" is the program's own spelling, kept on purpose: users and their
// scripts have seen this text.
constexpr const char* unknown_format_text[] = {"\nFormat de fichier inconnu.",
                                               "\nUnkown File Format"};
constexpr const char* no_nmea_text[] = {"\nAucune donnee NMEA.", "\nNo NMEA data."};

const char* in_language(const char* const (&texts)[2]) {
    return localized(texts[0], texts[1]);
}

// The path, then the text, in a box.
void path_box(const char* path, const char* const (&text)[2], const char* const (&caption)[2]) {
    char* message = nullptr;
    str_copy(path, message);
    str_append(in_language(text), message);
    message_box(message, in_language(caption));
    free_mem(message);
}

const char* base_name(const char* path) {
    const char* name = path;
    for (const char* c = path; *c; ++c)
        if (*c == '/' || *c == '\\') name = c + 1;
    return name;
}

// The state of one build_nav_points run.
struct NavBuild {
    ObjectId data_set;
    bool no_times;
    double first_time;     // time of day of the first timed sentence; first_time_unset before
    double last_time;      // time of day of the current epoch, a day lower per day passed
    double last_date;      // packed date of the current epoch; 0 while none was seen
    double last_good_time; // time of day of the last accepted position
    double last_longitude; // WGS 84 degrees of the last accepted position
    double last_latitude;
    bool first_position; // no position accepted yet
    double total_distance_m;
    bool speed_seen;    // the epoch has a speed, given or computed
    bool position_seen; // the epoch has a position
    double max_speed_kmh;
    double clock; // packed date of the invented clock; 0 until it starts
    FixMark pending_mark;
    char* pending_text; // owned; the mark sentences waiting for a point
    NavPoint* point;    // the epoch in progress, outside the set; null before the first
};

// A time of day that says no time was seen yet: above any real one.
constexpr double first_time_unset = 50.0;

void append_text(NavPoint& point, const char* text, int32_t length) {
    str_append(text, point.text);
    point.text_length += length;
}

// The values a sentence gives an epoch, each under its flag.
void copy_fix_values(const NavFix& fix, NavBuild& build) {
    NavPoint& point = *build.point;
    if (fix.speed_valid) build.speed_seen = true;
    if (fix.altitude_valid) point.altitude = fix.altitude;
    if (fix.speed_valid) point.speed = fix.speed_kmh;
    if (fix.course_valid) point.course = fix.course_true;
    if (fix.satellites_valid) point.satellites = fix.satellites_in_view;
}

// Metres from the last accepted position to the fix's, which is taken to
// WGS 84 degrees in longitude and latitude.
double distance_from_last(LogRun& run, const NavBuild& build, double& longitude, double& latitude) {
    double height = 0.0;
    log_to_wgs84(run, longitude, latitude, height);
    return std::fabs(
        distance(wgs84_datum, build.last_longitude, build.last_latitude, longitude, latitude));
}

// The mark sentences wait in pending_text until a point takes them. A mark
// not delivered keeps pending_mark and makes its text again at the next line.
void gather_marks(const NavFix& fix, NavBuild& build) {
    if (fix.mark == FixMark::start || build.pending_mark == FixMark::start) {
        build.pending_mark = FixMark::start;
        str_append(start_mark_sentence(), build.pending_text);
    }
    if (fix.mark == FixMark::stop || build.pending_mark == FixMark::stop) {
        build.pending_mark = FixMark::stop;
        str_append(stop_mark_sentence(), build.pending_text);
    }
}

void deliver_to_point(LogRun& run, NavBuild& build) {
    NavPoint& point = *build.point;
    copy_fix_values(log_fix(run), build);
    if (build.pending_text && point.mark == 0) {
        append_text(point, build.pending_text,
                    static_cast<int32_t>(std::strlen(build.pending_text)));
        point.mark = static_cast<int32_t>(build.pending_mark);
        build.pending_mark = FixMark::none;
    }
    append_text(point, run.line, run.line_length);
}

// Without times, a clock runs at 27 knots over the distance moved: a line
// that does not move gets no time and stays in the epoch before.
void invent_time(LogRun& run, NavBuild& build) {
    NavFix& fix = log_fix(run);
    if (build.clock == 0.0) {
        fix.time_valid = 1;
        fix.date_valid = 1;
        fix.date = invented_start_date;
        fix.time_of_day = invented_start_time_of_day;
        build.clock = fix.date + fix.time_of_day;
        return;
    }
    if (build.first_position) return;
    double longitude = fix.longitude, latitude = fix.latitude;
    const double metres = distance_from_last(run, build, longitude, latitude);
    if (!(metres > 0.0)) return;
    // Only a line that itself carries the START mark is sped up; with one
    // line per batch no position line does, kept on purpose.
    double days = metres * invented_day_per_metre;
    if (fix.mark == FixMark::start) days /= invented_start_speedup;
    build.clock = date_add_days(build.clock, days);
    fix.time_valid = 1;
    fix.date_valid = 1;
    fix.date = std::floor(build.clock);
    fix.time_of_day = build.clock - fix.date;
}

// Days passed: the scale of the times moves down by a day per day, so that
// differences across midnight stay right. Without dates only one midnight is
// seen: last_date then stands at 1, and the branch of dates, which needs a
// date in the sentence, takes over; kept on purpose.
void follow_day(const NavFix& fix, NavBuild& build) {
    double days = 0.0;
    if (build.last_date == 0.0) {
        if (fix.time_of_day + 0.5 >= build.last_time) return;
        days = 1.0;
        build.last_date += 1.0;
    } else {
        if (!fix.date_valid || fix.date == build.last_date) return;
        days = std::trunc(date_difference(build.last_date, fix.date));
    }
    build.last_time -= days;
    build.first_time -= days;
    build.last_good_time -= days;
}

// A new time closes the epoch in progress: it joins the set when it has a
// position and a speed and no jump, without the line that closed it, and a
// new epoch starts with that line.
void start_epoch(LogRun& run, NavBuild& build, double time_of_day) {
    if (NavPoint* point = build.point) {
        if (build.position_seen && build.speed_seen && build.max_speed_kmh < jump_speed_kmh) {
            ds_add(build.data_set, ObjectType::NavPoint, point->id);
            // text_length keeps counting the cut line, kept on purpose: the
            // text is sent up to its terminator and nothing reads the length.
            point->text[point->text_length - run.line_length] = '\0';
        } else {
            del_obj(ObjectType::NavPoint, point->id);
        }
        build.point = nullptr;
    }
    build.max_speed_kmh = 0.0;
    build.position_seen = false;
    build.speed_seen = false;
    ObjectId id = 0;
    build.point = cre_obj<NavPoint>(&id);
    if (!build.point) return;
    build.point->time = time_of_day - build.first_time;
    build.last_time = time_of_day;
    append_text(*build.point, run.line, run.line_length);
}

void place_position(LogRun& run, NavBuild& build, double time_of_day) {
    NavPoint& point = *build.point;
    build.position_seen = true;
    double height = 0.0;
    log_to_wgs84(run, point.longitude, point.latitude, height);
    if (!build.first_position) {
        const double metres =
            std::fabs(distance(wgs84_datum, build.last_longitude, build.last_latitude,
                               point.longitude, point.latitude));
        if (time_of_day > build.last_good_time) {
            const double speed_kmh =
                metres * 0.001 / (time_of_day - build.last_good_time) * one_hour_days;
            if (!build.speed_seen) {
                point.speed = speed_kmh;
                build.speed_seen = true;
            }
            if (speed_kmh > build.max_speed_kmh) build.max_speed_kmh = speed_kmh;
        }
        if (!build.speed_seen) return;
        if (build.max_speed_kmh < jump_speed_kmh) {
            build.total_distance_m += metres;
            point.distance = build.total_distance_m;
        }
    }
    if ((build.speed_seen || build.first_position) && build.max_speed_kmh < jump_speed_kmh) {
        build.last_good_time = time_of_day;
        build.first_position = false;
        build.last_longitude = point.longitude;
        build.last_latitude = point.latitude;
    }
}

void build_line(LogRun& run, NavBuild& build) {
    NavFix& fix = log_fix(run);
    parse_log_line(run);
    if (error_pending()) return;
    if (build.no_times) {
        fix.time_valid = 0;
        fix.date_valid = 0;
    }
    gather_marks(fix, build);
    if (build.point) deliver_to_point(run, build);
    free_mem(build.pending_text);
    if (build.no_times && fix.position_valid) invent_time(run, build);
    if (!fix.time_valid) return;

    double time_of_day = fix.time_of_day;
    if (build.first_time == first_time_unset) build.first_time = time_of_day;
    follow_day(fix, build);
    if (times_are_one_epoch(time_of_day, build.last_time)) time_of_day = build.last_time;
    // Sentences older than the epoch are passed over.
    if (build.last_time > time_of_day || (build.last_time == 0.0 && time_of_day == 0.0)) return;
    if (time_of_day == build.last_time) {
        if (build.max_speed_kmh >= jump_speed_kmh) return;
    } else {
        start_epoch(run, build, time_of_day);
    }
    if (!build.point) return;

    if (fix.date_valid) build.last_date = fix.date;
    fix.altitude_valid = 1;
    if (fix.position_valid) {
        build.point->latitude = fix.latitude;
        build.point->longitude = fix.longitude;
    }
    copy_fix_values(fix, build);
    if (fix.position_valid) place_position(run, build, time_of_day);
}

// One interpolated point of the gap between a and b, at a of b's side.
void add_fill_point(const NavPoint& a, const NavPoint& b, double at_b, double distance_m,
                    ObjectId data_set) {
    const double at_a = 1.0 - at_b;
    ObjectId id = 0;
    NavPoint* point = cre_obj<NavPoint>(&id);
    if (!point) return;
    point->latitude = at_a * a.latitude + at_b * b.latitude;
    point->longitude = at_a * a.longitude + at_b * b.longitude;
    point->altitude = at_a * a.altitude + at_b * b.altitude;
    // Two decimals, cut rather than rounded.
    point->speed = std::trunc((at_a * a.speed + at_b * b.speed) * 100.0) * 0.01;
    point->distance = distance_m;
    point->time = at_a * a.time + at_b * b.time;
    write_nav_point_text(*point);
    ds_add(data_set, ObjectType::NavPoint, id);
}

void fill_gap(const NavPoint& a, const NavPoint& b, ObjectId data_set) {
    const double gap = b.time - a.time - one_second_days;
    // No interpolation crosses a start of track.
    if (b.mark == static_cast<int32_t>(FixMark::start) || !(gap > one_second_days)) return;
    double last_distance = a.distance;
    for (double t = one_second_days; t < gap && !error_pending(); t += fill_step_days) {
        const double at_b = t / gap;
        const double d = (1.0 - at_b) * a.distance + at_b * b.distance;
        if (d < last_distance + fill_least_metres) continue;
        last_distance = d;
        add_fill_point(a, b, at_b, d, data_set);
    }
}

} // namespace

bool log_has_times(ObjectId file) {
    LogRun run;
    bool found = false;
    if (new_nav_parser(file, run)) {
        // The day logic moves the scale of the epochs, never the time of a
        // sentence, so the first time other than 0 decides alone.
        while (!found && next_log_line(run)) {
            parse_log_line(run);
            const NavFix& fix = log_fix(run);
            found = fix.time_valid && fix.time_of_day != 0.0;
        }
    }
    free_nav_parser(run);
    return found;
}

void build_nav_points(ObjectId file) {
    const auto* record = get_obj_adr<FileMobj>(file);
    if (!record || record->size == 0) return;
    NavBuild build{};
    build.data_set = record->data_set;
    build.no_times = !log_has_times(file);
    build.first_time = first_time_unset;
    build.first_position = true;
    if (error_pending()) return;
    LogRun run;
    if (new_nav_parser(file, run)) {
        while (next_log_line(run))
            build_line(run, build);
    }
    // The last epoch never closes: it is not kept.
    if (build.point) del_obj(ObjectType::NavPoint, build.point->id);
    free_mem(build.pending_text);
    free_nav_parser(run);
}

void fill_gaps(ObjectId data_set) {
    ObjectId by_time = 0;
    oset_fill(data_set, ObjectType::NavPoint, FieldKind::real, offsetof(NavPoint, time), by_time);
    const int32_t count = oset_count(by_time);
    for (int32_t i = 0; i + 1 < count && !error_pending(); ++i) {
        const auto* a = find_obj_adr<NavPoint>(oset_at(by_time, i));
        const auto* b = find_obj_adr<NavPoint>(oset_at(by_time, i + 1));
        if (a && b) fill_gap(*a, *b, data_set);
    }
    oset_delete(by_time);
}

void convert_to_nmea(bool& done, bool& recognised, ObjectId file) {
    done = true;
    recognised = true;
    if (file_format_of(file) == FileFormat::nmea_log) return;
    recognised = false;
    const ObjectId loaded = load_file(file, nullptr, false);
    if (error_pending()) {
        set_gblerr(ErrorCode::none);
        return;
    }
    recognised = true;
    done = false;
    if (loaded == 0 || first_position_object(loaded) == 0) return;
    done = true;
    const ObjectId memory_file = new_memory_file();
    if (memory_file == 0) return;
    write_data_set_nmea(nullptr, memory_file, loaded);
    unload_file(file);
    close_stream(file);
    auto* log = get_obj_adr<FileMobj>(memory_file);
    auto* target = get_obj_adr<FileMobj>(file);
    if (log && target) {
        target->format = FileFormat::nmea_log;
        target->file_class = FileClass::gps_data;
        target->memory = std::exchange(log->memory, 0);
        const auto* block = find_obj_adr<Mobj>(target->memory);
        target->size = block ? static_cast<uint32_t>(block->size) : 0;
    }
    del_obj(ObjectType::FileMobj, memory_file);
}

void prepare_nav_points(ObjectId file) {
    bool done = true;
    bool recognised = false;
    if (file_class_of(file) == FileClass::gps_data) convert_to_nmea(done, recognised, file);
    const char* path = file_path_of(file);
    if (!recognised) return path_box(path, unknown_format_text, load_error_caption);
    if (file_format_of(file) != FileFormat::nmea_log || !done)
        return path_box(path, no_nmea_text, load_end_caption);
    auto* record = get_obj_adr<FileMobj>(file);
    if (!record) return;
    if (!ds_exists(record->data_set)) ds_create(record->data_set);
    build_nav_points(file);
    if (!error_pending()) fill_gaps(file_data_set_of(file));
}

void load_navigation_file(const char* path) {
    refresh_cursor(cursor_busy);
    char* title = nullptr;
    str_copy(in_language(loading_title), title);
    str_append(path, title);
    set_title(title);
    free_mem(title);
    if (find_open_file(path) == 0) {
        ObjectId file = new_file_mobj(0, nullptr, path, false);
        if (file != 0) file = detect_format(file, 0, false);
        if (file != 0) {
            prepare_nav_points(file);
            const ObjectId data_set = file_data_set_of(file);
            if (file_format_of(file) == FileFormat::nmea_log) {
                if (ds_count(data_set, ObjectType::NavPoint) > 0) {
                    int32_t index = -1;
                    replay_add_track(data_set, file, index, base_name(file_path_of(file)));
                    if (index >= 0) add_file_row(file_path_of(file), index);
                    refresh_cursor(cursor_normal);
                } else {
                    path_box(file_path_of(file), no_track_text, load_error_caption);
                }
            }
        }
    }
    refresh_dashboard();
    post_event(event_draw);
}

void conversion_init() {
    set_event_handler(event_load_file, [] {
        // The first character is the loader's flag, which says nothing here.
        const char* data = current_data();
        if (data && *data) load_navigation_file(data + 1);
    });
}

} // namespace norvanta
