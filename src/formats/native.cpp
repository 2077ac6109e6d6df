// The readers of the native text formats, and the recognition of a native
// file by its magic line.
//
// The self-describing formats are read through fixed column tables: a flag
// line says which columns a file holds, and each row then holds those
// columns, in table order, each closed by ';'. The values of the last row
// read stay in the tables from one file to the next (see ColumnTable). The
// two older formats are fixed comma-separated rows read with fscanf.
#include "formats/native.h"

#include <array>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <span>
#include <string>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/pair_list.h"
#include "core/stream.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "geodesy/tables.h"
#include "replay/conversion.h"
#include "shell/errors.h"
#include "shell/julian.h"

namespace norvanta {

namespace {

// The window of the self-describing readers.
constexpr int32_t native_buffer_bytes = 0x100000;
// Longest text a line read keeps; the rest of a longer line is dropped.
constexpr int32_t native_line_limit = 998;
// Bytes read to recognise a format: the longest magic.
constexpr int32_t magic_bytes = static_cast<int32_t>(native_navigation_magic.size());
// Semicircles of the older formats to degrees: 180 / 2^31.
constexpr double semicircle_degrees = 8.381903171539307e-8;
// The first byte a writer tries after the two quotes.
constexpr int first_plain_delimiter = 20;

// ---- column tables ----

enum class ColumnKind : uint8_t {
    number, // read_native_long
    real,   // read_native_double
    string, // read_native_string
};

// Each table is one list of its columns in file order, name and kind; the
// enum of column indexes and the array of kinds both come from it.
// clang-format off
#define NORVANTA_WAYPOINT_COLUMNS(X)                                           \
    X(name, string)                                                            \
    X(longitude, real)                                                         \
    X(latitude, real)                                                          \
    X(comment, string)                                                         \
    X(symbol, number)           /* index of the symbol images */               \
    X(garmin_symbol, number)                                                   \
    X(display_mode, number)                                                    \
    X(red, number)                                                             \
    X(green, number)                                                           \
    X(blue, number)                                                            \
    X(altitude, real)                                                          \
    X(depth, real)                                                             \
    X(proximity, real)          /* distance */                                 \
    X(state, string)                                                           \
    X(unused, number)           /* read, not used, as the texts behind it */   \
    X(facility, string)                                                        \
    X(city, string)                                                            \
    X(address, string)                                                         \
    X(crossroad, string)                                                       \
    X(further_text, string)

#define NORVANTA_TRACK_COLUMNS(X)                                              \
    X(name, string)                                                            \
    X(number, number)                                                          \
    X(red, number)                                                             \
    X(green, number)                                                           \
    X(blue, number)                                                            \
    X(width, real)              /* truncated */                                \
    X(unused, number)                                                          \
    X(point_count, number)

#define NORVANTA_TRACK_POINT_COLUMNS(X)                                        \
    X(longitude, real)                                                         \
    X(latitude, real)                                                          \
    X(time, string)                                                            \
    X(new_segment, number)                                                     \
    X(altitude, real)                                                          \
    X(depth, real)              /* read, not used */                           \
    X(temperature, real)

#define NORVANTA_ROUTE_COLUMNS(X)                                              \
    X(number, number)                                                          \
    X(name, string)                                                            \
    X(comment, string)                                                         \
    X(red, number)                                                             \
    X(green, number)                                                           \
    X(blue, number)                                                            \
    X(waypoint_count, number)

// Read whole; depth, temperature, starttrack, dgps, fix and the dilutions are
// not stored.
#define NORVANTA_NAV_COLUMNS(X)                                                \
    X(longitude, real)                                                         \
    X(latitude, real)                                                          \
    X(time, string)                                                            \
    X(starttrack, number)                                                      \
    X(altitude, real)                                                          \
    X(geoidh, real)                                                            \
    X(depth, real)                                                             \
    X(temperature, real)                                                       \
    X(speed, real)                                                             \
    X(direction, real)                                                         \
    X(nbsatsinvue, number)                                                     \
    X(nbsatsused, number)                                                      \
    X(dgps, number)                                                            \
    X(fix, number)                                                             \
    X(hdop, real)                                                              \
    X(pdop, real)

#define NORVANTA_COLUMN_KIND(name, kind) ColumnKind::kind,
#define NORVANTA_WAYPOINT_INDEX(name, kind) wpt_##name,
#define NORVANTA_TRACK_INDEX(name, kind) trk_##name,
#define NORVANTA_TRACK_POINT_INDEX(name, kind) tpt_##name,
#define NORVANTA_ROUTE_INDEX(name, kind) rte_##name,
#define NORVANTA_NAV_INDEX(name, kind) nav_##name,

enum WaypointColumn : int32_t { NORVANTA_WAYPOINT_COLUMNS(NORVANTA_WAYPOINT_INDEX) };
enum TrackColumn : int32_t { NORVANTA_TRACK_COLUMNS(NORVANTA_TRACK_INDEX) };
enum TrackPointColumn : int32_t { NORVANTA_TRACK_POINT_COLUMNS(NORVANTA_TRACK_POINT_INDEX) };
enum RouteColumn : int32_t { NORVANTA_ROUTE_COLUMNS(NORVANTA_ROUTE_INDEX) };
enum NavColumn : int32_t { NORVANTA_NAV_COLUMNS(NORVANTA_NAV_INDEX) };

constexpr ColumnKind waypoint_columns[] = {NORVANTA_WAYPOINT_COLUMNS(NORVANTA_COLUMN_KIND)};
constexpr ColumnKind track_columns[] = {NORVANTA_TRACK_COLUMNS(NORVANTA_COLUMN_KIND)};
constexpr ColumnKind track_point_columns[] = {NORVANTA_TRACK_POINT_COLUMNS(NORVANTA_COLUMN_KIND)};
constexpr ColumnKind route_columns[] = {NORVANTA_ROUTE_COLUMNS(NORVANTA_COLUMN_KIND)};
constexpr ColumnKind nav_columns[] = {NORVANTA_NAV_COLUMNS(NORVANTA_COLUMN_KIND)};
// clang-format on

#undef NORVANTA_COLUMN_KIND
#undef NORVANTA_WAYPOINT_INDEX
#undef NORVANTA_TRACK_INDEX
#undef NORVANTA_TRACK_POINT_INDEX
#undef NORVANTA_ROUTE_INDEX
#undef NORVANTA_NAV_INDEX

static_assert(std::size(waypoint_columns) == waypoint_column_count);
static_assert(std::size(track_columns) == track_column_count);
static_assert(std::size(track_point_columns) == track_point_column_count);
static_assert(std::size(route_columns) == route_column_count);
static_assert(std::size(nav_columns) == nav_column_count);

constexpr std::size_t max_column_count = waypoint_column_count;

struct ColumnValue {
    long number; // a number column
    double real; // a real column
    char* text;  // owned; a string column
};

// A table's flags for the file being read and the values of the last row.
// The values are kept from one file to the next: a file that leaves a column
// out takes what an earlier file left there, unless its reader zeroes the
// table first (the track points and the navigation log do). Kept on purpose:
// it is how files of the library have always read. Only the thread that loads
// files touches the tables, one file at a time.
struct ColumnTable {
    std::span<const ColumnKind> columns;
    std::array<bool, max_column_count> present;
    std::array<ColumnValue, max_column_count> values;
};

ColumnTable waypoint_table{waypoint_columns, {}, {}};
ColumnTable track_table{track_columns, {}, {}};
ColumnTable track_point_table{track_point_columns, {}, {}};
ColumnTable route_table{route_columns, {}, {}};
ColumnTable nav_table{nav_columns, {}, {}};

void zero_values(ColumnTable& table) {
    for (ColumnValue& value : table.values) {
        value.number = 0;
        value.real = 0.0;
        free_mem(value.text);
    }
}

// ---- reading lines and fields ----

bool read_text_line(char* line) {
    int32_t remaining = stream_remaining();
    if (remaining <= 0) return false;
    read_line(native_line_limit, remaining, line);
    return true;
}

// Opens the stream and reads past the lines before the first flag line or
// row; a file that ends there fails at what should follow.
bool open_native(ObjectId file, int32_t header_lines) {
    if (open_stream(file, native_buffer_bytes, true) != 0) {
        set_gblerr(ErrorCode::file_access);
        return false;
    }
    char line[native_line_limit + 1];
    for (int32_t i = 0; i < header_lines && read_text_line(line); ++i) {
    }
    return true;
}

// One value per column, each closed by ';'. False for a line that does not
// hold them all.
bool read_flag_line(ColumnTable& table) {
    char line[native_line_limit + 1];
    if (!read_text_line(line)) return false;
    const char* cursor = line;
    for (std::size_t column = 0; column < table.columns.size(); ++column) {
        char* end = nullptr;
        const long flag = std::strtol(cursor, &end, 10);
        if (*end != ';') return false;
        table.present[column] = flag != 0;
        cursor = end + 1;
    }
    return true;
}

uint8_t peek_byte() {
    const uint8_t byte = read_byte();
    seek_stream(-1, stream_from_position);
    return byte;
}

// A string field is written as its delimiter, the text and the delimiter
// again, but a logger leaves an empty one out as its bare ';' (a row such as
// "2.35;48.85;;;;..."). Read as a delimiter, that ';' would swallow the two
// fields behind it and put every later row out of step; here it closes an
// empty field.
void read_string_field(char*& text) {
    if (peek_byte() == ';') {
        seek_stream(1, stream_from_position);
        str_copy("", text);
        return;
    }
    read_native_string(text);
}

// The present columns of one row, in table order, then the line end and any
// blank lines. False on a field that does not read.
bool read_row(ColumnTable& table) {
    for (std::size_t column = 0; column < table.columns.size(); ++column) {
        if (!table.present[column]) continue;
        ColumnValue& value = table.values[column];
        switch (table.columns[column]) {
        case ColumnKind::number:
            read_native_long(value.number);
            break;
        case ColumnKind::real:
            read_native_double(value.real);
            break;
        case ColumnKind::string:
            read_string_field(value.text);
            break;
        }
        if (error_pending()) return false;
    }
    skip_blanks();
    return true;
}

bool next_row_starts() {
    skip_blanks();
    return stream_remaining() > 0;
}

// Comment lines may stand before, between and after the rows of a log.
bool next_log_row_starts() {
    while (next_row_starts()) {
        if (peek_byte() != '#') return true;
        int32_t remaining = stream_remaining();
        skip_line(remaining);
    }
    return false;
}

// What a malformed file leaves: nothing, and the error.
void reject(ObjectId data_set) {
    ds_delete_tree(data_set);
    set_gblerr(ErrorCode::invalid_file);
}

// A time field in either form, with or without milliseconds; an empty field
// is no time.
JulianTime time_of(const char* text) {
    JulianTime time{};
    if (text && text[0]) parse_iso_julian(text, time);
    return time;
}

// A width out of the range of int (or not a number) means nothing; it reads
// as 0 instead of overflowing the conversion.
int32_t truncated(double value) {
    constexpr double below_range = static_cast<double>(INT32_MIN) - 1.0;
    constexpr double above_range = static_cast<double>(INT32_MAX) + 1.0;
    if (!(value > below_range && value < above_range)) return 0;
    return static_cast<int32_t>(value);
}

Rgb color_of(const ColumnTable& table, int32_t red, int32_t green, int32_t blue) {
    return {static_cast<uint8_t>(table.values[red].number),
            static_cast<uint8_t>(table.values[green].number),
            static_cast<uint8_t>(table.values[blue].number)};
}

bool all_present(const ColumnTable& table, std::initializer_list<int32_t> columns) {
    for (const int32_t column : columns) {
        if (!table.present[static_cast<std::size_t>(column)]) return false;
    }
    return true;
}

// Colours of a waypoint row are read, and the waypoint keeps its default.
Waypoint* waypoint_from_row(ObjectId data_set) {
    const auto& values = waypoint_table.values;
    return new_waypoint(
        values[wpt_longitude].real, values[wpt_latitude].real, values[wpt_name].text,
        values[wpt_comment].text, static_cast<int32_t>(values[wpt_symbol].number),
        static_cast<int32_t>(values[wpt_display_mode].number), values[wpt_altitude].real, data_set);
}

void finish_waypoints(ObjectId data_set) {
    attach_symbols(data_set, ObjectType::Waypoint);
    index_waypoints(data_set, ObjectType::Waypoint);
}

// ---- the self-describing formats ----

void read_waypoints_v2(ObjectId file, ObjectId data_set) {
    if (!open_native(file, 2)) return;
    if (!read_flag_line(waypoint_table) ||
        !all_present(waypoint_table, {wpt_longitude, wpt_latitude}))
        return reject(data_set);
    while (next_row_starts()) {
        if (!read_row(waypoint_table)) return reject(data_set);
        if (!waypoint_from_row(data_set)) return;
    }
    finish_waypoints(data_set);
}

void fill_track(Track& track) {
    const auto& values = track_table.values;
    if (track_table.present[trk_name]) wstr_from_str(values[trk_name].text, track.name);
    track.number = static_cast<int32_t>(values[trk_number].number);
    if (all_present(track_table, {trk_red, trk_green, trk_blue}))
        track.color = color_of(track_table, trk_red, trk_green, trk_blue);
    if (track_table.present[trk_width]) track.width = truncated(values[trk_width].real);
}

// The points of one track, as many as its row says, fewer at the end of the
// file. The first point starts a segment, and so does each flagged one.
bool read_track_points(ObjectId track, ObjectId data_set) {
    const long count = track_table.values[trk_point_count].number;
    const auto& values = track_point_table.values;
    ObjectId segment_id = 0;
    TrackSegment* segment = nullptr;
    for (long index = 0; index < count && next_row_starts(); ++index) {
        if (!read_row(track_point_table)) return false;
        if (index == 0 || values[tpt_new_segment].number != 0)
            segment = new_segment(segment_id, track, data_set, &segment_id);
        TrackPoint* point = new_track_point(values[tpt_longitude].real, values[tpt_latitude].real,
                                            time_of(values[tpt_time].text),
                                            values[tpt_altitude].real, segment, track, data_set);
        if (!point) return true;
        point->temperature = values[tpt_temperature].real;
    }
    return true;
}

void read_tracks_v2(ObjectId file, ObjectId data_set) {
    if (!open_native(file, 2)) return;
    zero_values(track_point_table);
    if (!read_flag_line(track_table) || !all_present(track_table, {trk_point_count}) ||
        !read_flag_line(track_point_table) ||
        !all_present(track_point_table, {tpt_longitude, tpt_latitude}))
        return reject(data_set);
    while (next_row_starts()) {
        if (!read_row(track_table)) return reject(data_set);
        ObjectId track_id = 0;
        Track* track = new_track(data_set, &track_id);
        if (!track) return;
        fill_track(*track);
        if (!read_track_points(track_id, data_set)) return reject(data_set);
        if (error_pending()) return;
    }
    finish_tracks(data_set, false);
}

// Number, name, comment and colour of a route are taken whether flagged or
// not, so that an unflagged one keeps the value of the table (kept on
// purpose, as every column state is).
void fill_route(Route& route) {
    const auto& values = route_table.values;
    route.number = static_cast<int32_t>(values[rte_number].number);
    wstr_from_str(values[rte_name].text, route.name);
    wstr_from_str(values[rte_comment].text, route.comment);
    route.color = color_of(route_table, rte_red, rte_green, rte_blue);
}

// A route's waypoints need a name and a longitude; a file without latitudes
// puts them on the equator.
void read_routes_v2(ObjectId file, ObjectId data_set) {
    if (!open_native(file, 2)) return;
    if (!read_flag_line(route_table) || !all_present(route_table, {rte_waypoint_count}) ||
        !read_flag_line(waypoint_table) || !all_present(waypoint_table, {wpt_name, wpt_longitude}))
        return reject(data_set);
    while (next_row_starts()) {
        if (!read_row(route_table)) return reject(data_set);
        ObjectId route_id = 0;
        Route* route = new_route(data_set, &route_id);
        if (!route) return;
        fill_route(*route);
        const long count = route_table.values[rte_waypoint_count].number;
        for (long index = 0; index < count && next_row_starts(); ++index) {
            if (!read_row(waypoint_table)) return reject(data_set);
            Waypoint* point = waypoint_from_row(data_set);
            if (!point) return;
            append_point(route->points, point);
        }
    }
    finish_waypoints(data_set);
    finish_routes(data_set, ObjectType::Route, true);
}

NavSample* sample_from_row(ObjectId data_set) {
    ObjectId id = 0;
    auto* sample = cre_obj<NavSample>(&id);
    if (!sample) return nullptr;
    ds_add(data_set, ObjectType::NavSample, id);
    const auto& values = nav_table.values;
    sample->longitude = values[nav_longitude].real;
    sample->latitude = values[nav_latitude].real;
    sample->time = time_of(values[nav_time].text);
    sample->altitude = values[nav_altitude].real;
    sample->ellipsoid_height = values[nav_altitude].real + values[nav_geoidh].real;
    sample->speed = values[nav_speed].real;
    sample->course = values[nav_direction].real;
    sample->satellites = static_cast<int32_t>(values[nav_nbsatsinvue].number);
    sample->satellites_used = static_cast<int32_t>(values[nav_nbsatsused].number);
    return sample;
}

// Every row holds all sixteen columns; there is no flag line.
void read_nav_log(ObjectId file, ObjectId data_set) {
    if (!open_native(file, 1)) return;
    zero_values(nav_table);
    nav_table.present.fill(true);
    PairList* samples = nullptr;
    while (next_log_row_starts()) {
        if (!read_row(nav_table)) {
            pair_list_free(samples);
            return reject(data_set);
        }
        NavSample* sample = sample_from_row(data_set);
        if (!sample) break;
        append_point(samples, sample);
    }
    if (pair_list_count(samples) > 0) {
        if (PositionList* list = new_position_list(ObjectType::NavSample, data_set)) {
            list->points = samples;
            samples = nullptr;
            finish_trail(data_set);
        }
    }
    pair_list_free(samples);
}

// ---- the older formats ----

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// The older readers read the file itself, a memory file through the name of
// its swap file, and pass the magic line.
FileHandle open_old(ObjectId file) {
    FileHandle handle(std::fopen(get_filemobj_name(file).c_str(), "r"));
    if (!handle) {
        set_gblerr(ErrorCode::file_access);
        return handle;
    }
    int byte = 0;
    while ((byte = std::fgetc(handle.get())) != EOF && byte != '\n') {
    }
    return handle;
}

// The name and comment fields keep up to the line limit.
static_assert(native_line_limit == 998, "the scan formats below carry the limit");
constexpr const char* old_waypoint_position_scan = "%998[^,],%ld,%ld,\n";
constexpr const char* old_waypoint_comment_scan = "%998[^,]";
constexpr const char* old_waypoint_symbol_scan = ",%d,%d\n";
constexpr const char* old_track_point_scan = "%ld,%ld,%ld,%d\n";

// Each waypoint is two lines: "name,longitude,latitude," and
// "comment,symbol,display mode", positions in semicircles. The end of the
// file ends the list; a row cut short is an error.
void read_waypoints_v1(ObjectId file, ObjectId data_set) {
    FileHandle handle = open_old(file);
    if (!handle) return;
    char name[native_line_limit + 1];
    char comment[native_line_limit + 1];
    for (;;) {
        long longitude = 0;
        long latitude = 0;
        const int fields =
            std::fscanf(handle.get(), old_waypoint_position_scan, name, &longitude, &latitude);
        if (fields == EOF) break;
        if (fields != 3) return reject(data_set);
        comment[0] = '\0';
        // No match is an empty comment; only the end of the file cuts the row.
        if (std::fscanf(handle.get(), old_waypoint_comment_scan, comment) == EOF)
            return reject(data_set);
        int symbol = 0;
        int display_mode = 0;
        if (std::fscanf(handle.get(), old_waypoint_symbol_scan, &symbol, &display_mode) != 2)
            return reject(data_set);
        if (!new_waypoint(static_cast<double>(longitude) * semicircle_degrees,
                          static_cast<double>(latitude) * semicircle_degrees, name, comment, symbol,
                          display_mode, 0.0, data_set))
            return;
    }
    finish_waypoints(data_set);
}

// One track of rows "longitude,latitude,time,new segment": semicircles and
// receiver seconds. A flagged row starts a segment; points before the first
// flagged row belong to no segment, as the receiver sent them.
void read_tracks_v1(ObjectId file, ObjectId data_set) {
    FileHandle handle = open_old(file);
    if (!handle) return;
    ObjectId track = 0;
    if (!new_track(data_set, &track)) return;
    ObjectId segment_id = 0;
    TrackSegment* segment = nullptr;
    for (;;) {
        long longitude = 0;
        long latitude = 0;
        long seconds = 0;
        int new_segment_flag = 0;
        const int fields = std::fscanf(handle.get(), old_track_point_scan, &longitude, &latitude,
                                       &seconds, &new_segment_flag);
        if (fields == EOF) break;
        if (fields != 4) return reject(data_set);
        if (new_segment_flag != 0) segment = new_segment(segment_id, track, data_set, &segment_id);
        JulianTime time{};
        julian_from_date(time, date_from_gps_seconds(static_cast<int32_t>(seconds)));
        if (!new_track_point(static_cast<double>(longitude) * semicircle_degrees,
                             static_cast<double>(latitude) * semicircle_degrees, time, 0.0, segment,
                             track, data_set))
            return;
    }
    finish_tracks(data_set, false);
}

// ---- recognition ----

using NativeReader = void (*)(ObjectId file, ObjectId data_set);

struct MagicRow {
    std::string_view magic;
    std::size_t compared_bytes;
    NativeReader reader;
};
// clang-format off
constexpr MagicRow magic_rows[] = {
    {native_waypoints_v1_magic, 12, read_waypoints_v1},
    {native_tracklog_v1_magic,  12, read_tracks_v1},
    // The last letter is not compared: kept on purpose, any letter there reads.
    {native_waypoints_magic,    22, read_waypoints_v2},
    {native_tracklog_magic,     23, read_tracks_v2},
    {native_routes_magic,       20, read_routes_v2},
    {native_navigation_magic,   33, read_nav_log},
};
// clang-format on
static_assert(std::size(magic_rows) == 6);

// The set's system is WGS 84 for every native format, and a set that holds
// nothing else is emptied. Coordinates stay as read: the chain to WGS 84 is
// built where they are written out, and for these files it is none.
void settle_georeference(ObjectId data_set) {
    ErrorHold hold;
    ObjectId reference = 0;
    ds_next_of_type(data_set, ObjectType::GeoReference, reference, nullptr);
    const int32_t members = ds_count(data_set, ObjectType::None);
    if (reference != 0 && members == 1) {
        ds_delete_tree(data_set);
        return;
    }
    if (reference != 0 || members == 0) return;
    make_default_georeference(reference);
    ds_add(data_set, ObjectType::GeoReference, reference);
}

} // namespace

char native_delimiter(const char* text) {
    if (!text) text = "";
    if (!std::strchr(text, '"')) return '"';
    if (!std::strchr(text, '\'')) return '\'';
    for (int code = first_plain_delimiter; code <= UCHAR_MAX; ++code) {
        // ';' would read as an empty field.
        if (code != ';' && !std::strchr(text, code)) return static_cast<char>(code);
    }
    // A text that holds every byte from 20 up cannot be delimited whole.
    return '"';
}

void read_native_file(ObjectId file, ObjectId data_set) {
    if (file_format_of(file) == FileFormat::nmea_log) {
        read_nmea_log(file, data_set);
    } else {
        if (open_stream(file, native_buffer_bytes, true) != 0) {
            set_gblerr(ErrorCode::file_access);
            return;
        }
        // A file shorter than the longest magic fails here, whatever it
        // holds: kept on purpose, it is the same read for every format.
        char magic[magic_bytes] = {};
        read_bytes(magic, magic_bytes);
        close_stream(file);
        if (error_pending()) return;
        ObjectId reference = 0;
        make_default_georeference(reference);
        ds_add(data_set, ObjectType::GeoReference, reference);
        if (error_pending()) return;
        // A native magic without a reader (the first NMEA log format) reads
        // as nothing.
        for (const MagicRow& row : magic_rows) {
            if (std::memcmp(magic, row.magic.data(), row.compared_bytes) != 0) continue;
            row.reader(file, data_set);
            break;
        }
    }
    settle_georeference(data_set);
}

} // namespace norvanta
