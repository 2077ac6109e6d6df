// Tests of the GPX reader: the sample files against their known counts, GPX
// written by GPSBabel against what GPSBabel itself reads back from it, the
// handlers' rules on small documents, the files that are invalid, and hostile
// files that must only be survived.
#include "formats/gpx.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/pair_list.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "support/gps_store.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

constexpr const char* system_directory = NORVANTA_SYSTEM_SOURCE_DIR "/";
const std::string sample_directory = NORVANTA_TEST_DATA_DIR "/gpx/";

void set_up_once() {
    static const bool done = [] {
        testing::set_up_gps_store(system_directory);
        gpx_init();
        load_symbol_images(system_directory);
        return !error_pending();
    }();
    EXPECT_TRUE(done) << "the store and the GPX tables come up";
    set_gblerr(ErrorCode::none);
}

const testing::TestHome& scratch() {
    static const testing::TestHome directory;
    return directory;
}

// A GPX 1.1 document around body.
std::string gpx(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<gpx version=\"1.1\" creator=\"test\" "
           "xmlns=\"http://www.topografix.com/GPX/1/1\" "
           "xmlns:gpxx=\"http://www.garmin.com/xmlschemas/GpxExtensions/v3\">" +
           body + "</gpx>\n";
}

std::wstring wide(const wchar_t* text) {
    return text ? text : L"";
}

std::wstring from_utf8(const std::string& text) {
    wchar_t* converted = nullptr;
    wstr_from_utf8(text.c_str(), converted);
    std::wstring result = converted;
    free_mem(converted);
    return result;
}

uint32_t rgb(const Rgb& color) {
    return static_cast<uint32_t>(color.red << 16 | color.green << 8 | color.blue);
}

bool same_time(const JulianTime& a, const JulianTime& b) {
    return std::fabs(julian_difference(a, b)) < one_ms_days;
}

// A document read from memory, with no file on disk.
struct Text {
    std::string bytes;
};

// What one read made, in the order of creation, and the error it left.
class Loaded {
  public:
    explicit Loaded(const std::string& path) : Loaded(on_disk(path)) {}
    explicit Loaded(const Text& text) : Loaded(in_memory(text.bytes)) {}
    ~Loaded() {
        ds_delete_tree(set_);
        ds_destroy(set_);
        testing::drop_file(file_);
    }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    ErrorCode error;
    std::vector<Waypoint*> waypoints;
    std::vector<Route*> routes;
    std::vector<Track*> tracks;
    std::vector<TrackSegment*> segments;
    std::vector<TrackPoint*> points;
    int32_t georeferences = 0;

  private:
    explicit Loaded(ObjectId file) : file_(file) {
        ds_create(set_);
        read_gpx(file_, set_);
        error = current_error();
        set_gblerr(ErrorCode::none);
        collect(waypoints);
        collect(routes);
        collect(tracks);
        collect(segments);
        collect(points);
        georeferences = ds_count(set_, ObjectType::GeoReference);
    }
    static ObjectId on_disk(const std::string& path) {
        set_up_once();
        return testing::disk_file(path);
    }
    static ObjectId in_memory(const std::string& bytes) {
        set_up_once();
        const ObjectId file = new_memory_file();
        const auto* record = get_obj_adr<FileMobj>(file);
        if (Mobj* block = record ? get_obj_adr<Mobj>(record->memory) : nullptr)
            append_bytes(*block, bytes.data(), static_cast<int32_t>(bytes.size()));
        return file;
    }
    template <class T>
    void collect(std::vector<T*>& out) {
        void* address = nullptr;
        for (ObjectId member = 0; ds_next_of_type(set_, T::object_type, member, &address), member;)
            out.push_back(static_cast<T*>(address));
    }
    ObjectId file_ = 0;
    ObjectId set_ = 0;
};

// ---- the samples ----

struct SampleRow {
    const char* file;
    int waypoints; // wpt and rtept, both Waypoints of the set
    int routes, route_points, tracks, segments, points;
    JulianTime first, last; // of the track points; zero when untimed
};

TEST(Gpx, SamplesGiveTheirKnownCounts) {
    const SampleRow rows[] = {
        {"basecamp.gpx", 4, 1, 2, 1, 1, 2, {}, {}},
        {"gpxpassthrough10.gpx", 6, 1, 3, 1, 1, 3, testing::utc(2002, 5, 25, 17, 6, 21.25),
         testing::utc(2002, 5, 25, 17, 12, 0.2)},
        {"empty.gpx", 0, 0, 0, 0, 0, 0, {}, {}},
        {"GC7FA4.gpx", 1, 0, 0, 0, 0, 0, {}, {}},
        {"bounds-test.gpx", 119, 3, 108, 0, 0, 0, {}, {}},
        {"expertgps.gpx", 132, 1, 46, 1, 1, 64, testing::utc(2002, 5, 25, 17, 6, 21),
         testing::utc(2002, 5, 25, 19, 5, 57)},
    };
    for (const SampleRow& row : rows) {
        SCOPED_TRACE(row.file);
        const Loaded read(sample_directory + row.file);
        EXPECT_EQ(read.error, ErrorCode::none);
        EXPECT_EQ(read.georeferences, 1);
        EXPECT_EQ(std::ssize(read.waypoints), row.waypoints);
        EXPECT_EQ(std::ssize(read.routes), row.routes);
        int route_points = 0;
        for (const Route* route : read.routes)
            route_points += pair_list_count(route->points);
        EXPECT_EQ(route_points, row.route_points);
        EXPECT_EQ(std::ssize(read.tracks), row.tracks);
        EXPECT_EQ(std::ssize(read.segments), row.segments);
        ASSERT_EQ(std::ssize(read.points), row.points);
        if (row.points == 0) continue;
        EXPECT_TRUE(same_time(read.points.front()->time, row.first));
        EXPECT_TRUE(same_time(read.points.back()->time, row.last));
    }
}

TEST(Gpx, SamplesKeepTheirDetails) {
    {
        const Loaded read(sample_directory + "basecamp.gpx");
        ASSERT_EQ(read.waypoints.size(), 4u);
        EXPECT_EQ(wide(read.waypoints[0]->label), L" Hwy 119") << "DisplayMode SymbolAndName";
        EXPECT_EQ(read.waypoints[0]->symbol, 0) << "\"Flag, Blue\" is not in the table";
        ASSERT_EQ(read.tracks.size(), 1u);
        EXPECT_EQ(rgb(read.tracks[0]->color), 0x808080u) << "DarkGray in a TrackExtension";
        ASSERT_EQ(read.routes.size(), 1u);
        EXPECT_EQ(rgb(read.routes[0]->color), rgb(route_color))
            << "a DisplayColor inside RouteExtension is ignored";
        EXPECT_EQ(wide(read.routes[0]->name), L"Hwy 119 to Hwy 72");
    }
    {
        const Loaded read(sample_directory + "GC7FA4.gpx");
        ASSERT_EQ(read.waypoints.size(), 1u);
        EXPECT_EQ(wide(read.waypoints[0]->name), L"GC7FA4") << "not the cache's own name";
        EXPECT_EQ(read.waypoints[0]->symbol, 32);
        EXPECT_NE(read.waypoints[0]->symbol_image, 0) << "attach_symbols ran";
        EXPECT_DOUBLE_EQ(read.waypoints[0]->latitude, 46.1333333333333);
        EXPECT_DOUBLE_EQ(read.waypoints[0]->longitude, -73.0);
    }
    {
        // Bridge 33, Crossing 29, Cemetery 28, Danger Area 30, Fishing Area 4;
        // Summit, Parking Area, Museum and the rest are not registered.
        const Loaded read(sample_directory + "expertgps.gpx");
        std::map<int32_t, int> histogram;
        for (const Waypoint* point : read.waypoints)
            ++histogram[point->symbol];
        const std::map<int32_t, int> expected = {{0, 116}, {4, 1},  {28, 1},
                                                 {29, 4},  {30, 6}, {33, 4}};
        EXPECT_EQ(histogram, expected);
        ASSERT_EQ(read.tracks.size(), 1u);
        EXPECT_EQ(read.tracks[0]->number, 1);
        EXPECT_NEAR(read.tracks[0]->center.latitude, 30.0, 0.5) << "finish_tracks ran";
    }
}

// ---- the handlers, on waypoints ----

struct PointFields {
    std::wstring name{}, comment{}, label{};
    int32_t symbol = 0, display_mode = display_name;
    Rgb color = waypoint_color;
    double latitude = 0.0, longitude = 0.0, altitude = 0.0, proximity = 0.0, temperature = 0.0;
};

struct WaypointRow {
    const char* description;
    std::string body;
    PointFields expected; // of the one Waypoint of the set
};

TEST(Gpx, HandlersFillTheWaypoint) {
    const auto ext = [](const std::string& inner) {
        return "<extensions><gpxx:WaypointExtension>" + inner +
               "</gpxx:WaypointExtension></extensions>";
    };
    const WaypointRow rows[] = {
        {"lat and lon in degrees, with no range check",
         R"(<wpt lat="95.5" lon="-200"/>)",
         {.latitude = 95.5, .longitude = -200.0}},
        {"a name gives the label",
         "<wpt><name>Hwy 72</name></wpt>",
         {.name = L"Hwy 72", .label = L" Hwy 72"}},
        {"a comment keeps 63 bytes",
         "<wpt><cmt>" + std::string(100, 'x') + "</cmt></wpt>",
         {.comment = std::wstring(63, L'x')}},
        {"SymbolOnly empties the label, a later cmt shows the comment",
         "<wpt><name>N</name>" + ext("<gpxx:DisplayMode>SymbolOnly</gpxx:DisplayMode>") +
             "<cmt>C</cmt></wpt>",
         {.name = L"N", .comment = L"C", .label = L" C", .display_mode = display_comment}},
        {"sym Airport", "<wpt><sym>Airport</sym></wpt>", {.symbol = 20}},
        {"sym House, the last registered row", "<wpt><sym>House</sym></wpt>", {.symbol = 1}},
        {"sym is case-sensitive", "<wpt><sym>airport</sym></wpt>", {}},
        {"sym Summit is past the registered rows", "<wpt><sym>Summit</sym></wpt>", {}},
        {"color through an unknown wrapper",
         "<wpt><extensions><color>00fF7f</color></extensions></wpt>",
         {.color = {0, 255, 127}}},
        {"color behind a '#'", "<wpt><color>#0A0B0C</color></wpt>", {.color = {10, 11, 12}}},
        {"color too short", "<wpt><color>12AB</color></wpt>", {}},
        {"DisplayColor in an unknown wrapper",
         "<wpt><extensions><x><gpxx:DisplayColor>DarkCyan</gpxx:DisplayColor></x></extensions></"
         "wpt>",
         {.color = {0, 192, 192}}},
        {"DisplayColor inside WaypointExtension is ignored",
         "<wpt>" + ext("<gpxx:DisplayColor>Blue</gpxx:DisplayColor>") + "</wpt>",
         {}},
        {"Proximity and Temperature of the extension",
         "<wpt>" +
             ext("<gpxx:Proximity>50</gpxx:Proximity><gpxx:Temperature>-4.5</gpxx:Temperature>") +
             "</wpt>",
         {.proximity = 50.0, .temperature = -4.5}},
        {"Proximity outside the extension is ignored",
         "<wpt><extensions><gpxx:Proximity>50</gpxx:Proximity></extensions></wpt>",
         {}},
        {"Depth after ele lowers the altitude",
         "<wpt><ele>100</ele>" + ext("<gpxx:Depth>3</gpxx:Depth>") + "</wpt>",
         {.altitude = 97.0}},
        {"an unknown tag hides ele", "<wpt><x><ele>5</ele></x></wpt>", {}},
        {"a wpt out of place makes nothing; its texts fall on the one before",
         R"(<wpt><name>A</name></wpt><x><wpt lat="9"><name>B</name></wpt></x>)",
         {.name = L"B", .label = L" B", .latitude = 9.0}},
        {"a route point is a Waypoint with name and sym, not cmt",
         R"(<rte><rtept lat="1" lon="2"><name>R</name><cmt>C</cmt><sym>Bank</sym></rtept></rte>)",
         {.name = L"R", .label = L" R", .symbol = 24, .latitude = 1.0, .longitude = 2.0}},
        {"a route point without a route is dropped with its texts",
         "<x><rte><rtept lat=\"1\"><name>R</name></rtept></rte></x><wpt/>",
         {}},
    };
    for (const WaypointRow& row : rows) {
        SCOPED_TRACE(row.description);
        const Loaded read(Text{gpx(row.body)});
        EXPECT_EQ(read.error, ErrorCode::none);
        ASSERT_EQ(read.waypoints.size(), 1u);
        const Waypoint& point = *read.waypoints[0];
        const PointFields& want = row.expected;
        EXPECT_EQ(wide(point.name), want.name);
        EXPECT_EQ(wide(point.comment), want.comment);
        EXPECT_EQ(wide(point.label), want.label);
        EXPECT_EQ(point.symbol, want.symbol);
        EXPECT_EQ(point.display_mode, want.display_mode);
        EXPECT_EQ(rgb(point.color), rgb(want.color));
        EXPECT_DOUBLE_EQ(point.latitude, want.latitude);
        EXPECT_DOUBLE_EQ(point.longitude, want.longitude);
        EXPECT_DOUBLE_EQ(point.altitude, want.altitude);
        EXPECT_DOUBLE_EQ(point.proximity, want.proximity);
        EXPECT_DOUBLE_EQ(point.temperature, want.temperature);
    }
}

// ---- tracks and routes ----

TEST(Gpx, TracksChainTheirSegmentsAndRoutesHoldTheirPoints) {
    const Loaded read(Text{gpx(R"(
        <trk><name>T</name><number>7</number><color>FF8000</color>
          <trkseg><trkpt lat="1" lon="10"><ele>5</ele><time>2024-03-01T23:59:59.500Z</time>
            <speed>2.5</speed><extensions><gpxx:TrackPointExtension>
              <gpxx:Temperature>21</gpxx:Temperature><gpxx:Depth>2</gpxx:Depth>
            </gpxx:TrackPointExtension></extensions></trkpt></trkseg>
          <trkseg><trkpt lat="3" lon="30"/></trkseg></trk>
        <x><trkseg><trkpt lat="5" lon="50"/></trkseg></x>
        <trk><extensions><DisplayColor>Blue</DisplayColor></extensions><trkseg/></trk>
        <rte><name>R</name><cmt>C</cmt><number>4</number>
          <rtept lat="2" lon="20"/><rtept lat="4" lon="40"/></rte>
        <rte><name>empty</name></rte>)")});
    EXPECT_EQ(read.error, ErrorCode::none);
    ASSERT_EQ(read.tracks.size(), 2u);
    ASSERT_EQ(read.segments.size(), 3u);
    ASSERT_EQ(read.points.size(), 3u);
    const Track& first = *read.tracks[0];
    EXPECT_EQ(wide(first.name), L"T");
    EXPECT_EQ(first.number, 7);
    EXPECT_EQ(rgb(first.color), 0xFF8000u);
    EXPECT_EQ(first.first_segment, read.segments[0]->id);
    EXPECT_EQ(read.segments[0]->next, read.segments[1]->id);
    EXPECT_EQ(read.segments[1]->track, first.id);
    EXPECT_EQ(pair_list_count(read.segments[1]->points), 2)
        << "a trkseg out of place adds its points to the segment before";
    EXPECT_DOUBLE_EQ(first.center.latitude, 3.0);
    EXPECT_EQ(read.tracks[1]->first_segment, read.segments[2]->id);
    EXPECT_EQ(rgb(read.tracks[1]->color), 0x0000FFu);

    const TrackPoint& timed = *read.points[0];
    EXPECT_EQ(timed.track, first.id);
    EXPECT_DOUBLE_EQ(timed.altitude, 3.0) << "ele 5, Depth 2";
    EXPECT_DOUBLE_EQ(timed.temperature, 21.0);
    EXPECT_DOUBLE_EQ(timed.speed, 2.5) << "stored as written";
    EXPECT_TRUE(same_time(timed.time, testing::utc(2024, 3, 1, 23, 59, 59.5)));

    ASSERT_EQ(read.routes.size(), 1u) << "the route without points is dropped";
    const Route& route = *read.routes[0];
    EXPECT_EQ(wide(route.name), L"R");
    EXPECT_EQ(wide(route.comment), L"C");
    EXPECT_EQ(route.number, 4);
    ASSERT_EQ(pair_list_count(route.points), 2);
    ASSERT_EQ(read.waypoints.size(), 2u);
    intptr_t second = 0;
    pair_list_get(route.points, 1, nullptr, &second);
    EXPECT_EQ(reinterpret_cast<Waypoint*>(second), read.waypoints[1]);
    EXPECT_DOUBLE_EQ(route.center.longitude, 30.0);
}

// ---- invalid files ----

TEST(Gpx, TextsUnderAnObjectOfTheWrongTypeMakeTheFileInvalid) {
    const std::pair<const char*, const char*> rows[] = {
        {"route name after its first point", "<rte><rtept/><name>x</name></rte>"},
        {"route comment after its first point", "<rte><rtept/><cmt>x</cmt></rte>"},
        {"route number after its first point", "<rte><rtept/><number>1</number></rte>"},
        {"track name after its first segment", "<trk><trkseg/><name>x</name></trk>"},
        {"track number after its first point",
         "<trk><trkseg><trkpt/></trkseg><number>1</number></trk>"},
        {"time in a trkpt that made nothing",
         "<trk><trkpt><time>2020-01-01T00:00:00Z</time></trkpt></trk>"},
        {"speed in a trkpt that made nothing", "<trk><trkpt><speed>1</speed></trkpt></trk>"},
        {"sym in a wpt out of place, after a track", "<trk/><x><wpt><sym>Bank</sym></wpt></x>"},
        {"name in a wpt out of place, before any object", "<x><wpt><name>a</name></wpt></x>"},
        {"cmt of a route point without a route, after a track point",
         "<trk><trkseg><trkpt/></trkseg></trk><x><wpt><cmt>a</cmt></wpt></x>"},
        {"time of a track point that has no segment, after a waypoint",
         "<wpt/><x><trkseg><trkpt/></trkseg></x><trk><trkpt><time>1</time></trkpt></trk>"},
    };
    for (const auto& [description, body] : rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(Loaded(Text{gpx(body)}).error, ErrorCode::invalid_file);
    }
}

// ---- hostile files ----

int32_t live_count(ObjectType type) {
    int32_t count = 0;
    for (ObjectId id = 0; next_obj(type, id, nullptr), id != 0;)
        ++count;
    return count;
}

TEST(Gpx, HostileFilesAreSurvivedAndLeaveNothingBehind) {
    set_up_once();
    const ObjectType kinds[] = {ObjectType::Waypoint,   ObjectType::Route,
                                ObjectType::Track,      ObjectType::TrackSegment,
                                ObjectType::TrackPoint, ObjectType::XmlName,
                                ObjectType::ImageObj,   ObjectType::GeoReference};
    std::vector<int32_t> before;
    for (ObjectType kind : kinds)
        before.push_back(live_count(kind));

    const std::string whole = testing::read_file(sample_directory + "basecamp.gpx");
    for (std::size_t length = 1; length < whole.size(); ++length) {
        const Loaded read(Text{whole.substr(0, length)});
        if (read.error != ErrorCode::none || read.waypoints.size() > 4 || read.points.size() > 2) {
            ADD_FAILURE() << "cut at " << length << " bytes";
            break;
        }
    }

    std::string noise;
    for (int i = 0; i < 512; ++i)
        noise += static_cast<char>(i & 0xFF);
    std::string utf16 = "\xFF\xFE";
    for (char c : gpx("<wpt lat=\"1\"/>"))
        utf16 += std::string{c, '\0'};
    const std::string deep(100000 * 3, 'x');
    std::string nested;
    for (int i = 0; i < 100000; ++i)
        nested += "<a>";
    nested += "<wpt lat=\"1\"><name>deep</name></wpt>";
    for (int i = 0; i < 100000; ++i)
        nested += "</a>";
    struct Row {
        const char* description;
        std::string content;
        std::size_t waypoints, points, name_length;
    };
    const Row rows[] = {
        {"binary noise", noise, 0, 0, 0},
        {"UTF-16 is not read", utf16, 0, 0, 0},
        {"malformed tags recover at the next '>'",
         gpx(R"(<wpt lat="1" <name>a</name></wpt><wpt lat=2><wpt lat="3"/>)"), 2, 0, 0},
        {"100000 nested tags; the wpt past the stack is dropped",
         gpx(nested + "<wpt><name>n</name></wpt>"), 1, 0, 1},
        {"a 300000-byte name", gpx("<wpt><name>" + deep + "</name></wpt>"), 1, 0, deep.size()},
        {"a 300000-byte tag", gpx("<wpt><" + deep + ">1</" + deep + "><name>n</name></wpt>"), 1, 0,
         1},
        {"cut inside a CDATA name", gpx("<wpt><name><![CDATA[abc"), 1, 0, 0},
        {"nothing closed", "<gpx><trk><trkseg><trkpt lat=\"1\"><ele>5", 0, 1, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const Loaded read(Text{row.content});
        EXPECT_EQ(read.error, ErrorCode::none);
        ASSERT_EQ(read.waypoints.size(), row.waypoints);
        EXPECT_EQ(read.points.size(), row.points);
        if (row.waypoints == 0) continue;
        EXPECT_EQ(wide(read.waypoints.back()->name).size(), row.name_length);
    }
    for (std::size_t i = 0; i < std::size(kinds); ++i)
        EXPECT_EQ(live_count(kinds[i]), before[i]) << "type " << static_cast<int>(kinds[i]);
}

// ---- GPX written by GPSBabel ----

// The rows of GPSBabel's unicsv, each a map from the header's names to the
// fields. Names hold no comma here, so a field is what stands between commas,
// without its quotes; lines end in CR LF.
using CsvRow = std::map<std::string, std::string>;

std::vector<std::string> csv_fields(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream stream(line.substr(0, line.find('\r')));
    for (std::string field; std::getline(stream, field, ',');) {
        if (field.size() >= 2 && field.front() == '"') field = field.substr(1, field.size() - 2);
        fields.push_back(field);
    }
    return fields;
}

std::vector<CsvRow> csv_rows(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    const std::vector<std::string> header = csv_fields(line);
    std::vector<CsvRow> rows;
    while (std::getline(lines, line)) {
        const std::vector<std::string> fields = csv_fields(line);
        CsvRow& row = rows.emplace_back();
        for (std::size_t i = 0; i < header.size() && i < fields.size(); ++i)
            row[header[i]] = fields[i];
    }
    return rows;
}

std::string field(const CsvRow& row, const char* column) {
    const auto found = row.find(column);
    return found == row.end() ? std::string() : found->second;
}

double number(const CsvRow& row, const char* column) {
    return std::atof(field(row, column).c_str());
}

JulianTime csv_time(const CsvRow& row) {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0;
    double second = 0.0;
    std::sscanf(field(row, "Date").c_str(), "%d/%d/%d", &year, &month, &day);
    std::sscanf(field(row, "Time").c_str(), "%d:%d:%lf", &hour, &minute, &second);
    return testing::utc(year, month, day, hour, minute, second);
}

class GpxFromGpsbabel : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        if (std::system("gpsbabel -V >/dev/null 2>&1") != 0)
            GTEST_SKIP() << "gpsbabel is not installed: GPX written by GPSBabel is not checked";
    }
    // GPSBabel's own reading of the file, as unicsv; kind is -w, -r or -t.
    static std::vector<CsvRow> gpsbabel_reads(const std::string& gpx_path, const char* kind) {
        const std::string out = gpx_path + kind + ".csv";
        const std::string command = std::string("gpsbabel ") + kind + " -i gpx -f '" + gpx_path +
                                    "' -o unicsv -F '" + out + "'";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        return csv_rows(testing::read_file(out));
    }
};

// 150 points over the globe, crossing midnight, with special names and some
// Garmin extension values, written as waypoints, one route and one track.
std::string generated_unicsv() {
    constexpr int count = 150;
    std::string csv = "lat,lon,name,ele,date,time,prox,temp,depth\n";
    char line[256];
    for (int i = 0; i < count; ++i) {
        const double seconds = 22.5 * 3600 + i * 37.5;
        const int day = 1 + static_cast<int>(seconds / 86400);
        const double in_day = std::fmod(seconds, 86400);
        const std::string name = i == 1 ? "Ch\xC3\xA2teau & <Eau> \xE2\x82\xAC \xF0\x9F\x9A\x80"
                                        : "P" + std::to_string(i);
        std::snprintf(
            line, sizeof line, "%.6f,%.6f,\"%s\",%.1f,2024/03/%02d,%02d:%02d:%04.1f,%s,%s,%s\n",
            std::fmod(i * 37.123457, 170.0) - 85.0, std::fmod(i * 71.654321, 358.0) - 179.0,
            name.c_str(), i * 3.5 - 100.0, day, static_cast<int>(in_day / 3600),
            static_cast<int>(std::fmod(in_day, 3600) / 60), std::fmod(in_day, 60),
            i % 3 ? "" : std::to_string(i * 2).c_str(),
            i % 4 ? "" : std::to_string(i * 0.5 - 10).c_str(),
            i % 5 ? "" : std::to_string(i * 0.25).c_str());
        csv += line;
    }
    return csv;
}

TEST_P(GpxFromGpsbabel, ReadsWhatGpsbabelReadsBack) {
    const std::string input = scratch().file("generated.csv");
    testing::write_file(input, generated_unicsv());
    const std::string output = scratch().file(std::string("gpsbabel-") + GetParam() + ".gpx");
    const std::string command = "gpsbabel -i unicsv -f '" + input +
                                "' -x transform,trk=wpt,rte=wpt -o gpx," + GetParam() + " -F '" +
                                output + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;

    const Loaded read(output);
    EXPECT_EQ(read.error, ErrorCode::none);
    const std::vector<CsvRow> waypoints = gpsbabel_reads(output, "-w");
    const std::vector<CsvRow> route = gpsbabel_reads(output, "-r");
    const std::vector<CsvRow> track = gpsbabel_reads(output, "-t");
    ASSERT_EQ(read.waypoints.size(), waypoints.size() + route.size());
    ASSERT_EQ(read.routes.size(), 1u);
    EXPECT_EQ(pair_list_count(read.routes[0]->points), std::ssize(route));
    ASSERT_EQ(read.points.size(), track.size());

    // The route's points follow the waypoints in the set; GPSBabel gives
    // the depth apart, which lowers our altitude.
    for (std::size_t i = 0; i < read.waypoints.size(); ++i) {
        const bool in_route = i >= waypoints.size();
        const CsvRow& row = in_route ? route[i - waypoints.size()] : waypoints[i];
        const Waypoint& point = *read.waypoints[i];
        SCOPED_TRACE((in_route ? "route point " : "waypoint ") + field(row, "No"));
        EXPECT_NEAR(point.latitude, number(row, "Latitude"), 5e-7);
        EXPECT_NEAR(point.longitude, number(row, "Longitude"), 5e-7);
        EXPECT_NEAR(point.altitude, number(row, "Altitude") - number(row, "Depth"), 0.051);
        EXPECT_NEAR(point.proximity, number(row, "Proximity"), 1e-6);
        EXPECT_NEAR(point.temperature, number(row, "Temperature"), 5e-4);
        EXPECT_EQ(wide(point.name), from_utf8(field(row, "Name")));
    }
    for (std::size_t i = 0; i < track.size(); ++i) {
        SCOPED_TRACE("track point " + field(track[i], "No"));
        const TrackPoint& point = *read.points[i];
        EXPECT_NEAR(point.latitude, number(track[i], "Latitude"), 5e-7);
        EXPECT_NEAR(point.longitude, number(track[i], "Longitude"), 5e-7);
        EXPECT_NEAR(point.altitude, number(track[i], "Altitude"), 0.051);
        EXPECT_TRUE(same_time(point.time, csv_time(track[i])));
    }
}

INSTANTIATE_TEST_SUITE_P(Versions, GpxFromGpsbabel,
                         ::testing::Values("gpxver=1.0", "gpxver=1.1,garminextensions=1"),
                         [](const auto& info) {
                             return std::string(info.index == 0 ? "Gpx10" : "Gpx11Garmin");
                         });

} // namespace
} // namespace norvanta
