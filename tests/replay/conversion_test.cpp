// The log reader: a data set written as a log and read back, real receiver
// logs against a count made here from their lines, the rules of epochs,
// lists, duplicates and datums on small logs, and GPSBabel's reading of a
// written log where it is installed.
#include "replay/conversion.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "formats/detection.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "geodesy/tables.h"
#include "navigation/nmea_writer.h"
#include "shell/errors.h"
#include "support/gps_store.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

using testing::utc;
using testing::with_tails;

// A position written with four decimals of minutes comes back this close.
constexpr double written_degrees_tolerance = 1e-6;

std::vector<NavSample*> samples_of(const PositionList& list) {
    std::vector<NavSample*> samples;
    for (int32_t i = 0; i < pair_list_count(list.points); ++i)
        samples.push_back(reinterpret_cast<NavSample*>(list.points->pairs[i].value));
    return samples;
}

template <class Record>
std::vector<Record*> members(ObjectId set) {
    std::vector<Record*> records;
    void* address = nullptr;
    for (ObjectId id = 0; ds_next_of_type(set, Record::object_type, id, &address), id;)
        records.push_back(static_cast<Record*>(address));
    return records;
}

std::string narrow(const wchar_t* text) {
    std::string bytes;
    for (const wchar_t* c = text; c && *c; ++c)
        bytes.push_back(static_cast<char>(*c));
    return bytes;
}

class Conversion : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/");
        ds_create(written_);
        ds_create(read_);
    }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        for (ObjectId* set : {&written_, &read_}) {
            ds_delete_tree(*set);
            ds_destroy(*set);
        }
    }

    // Reads the file, or the text as a file, into a fresh read_.
    void read_log_text(const std::string& text) {
        const std::string path = place_.file("log.nmea");
        testing::write_file(path, text);
        read_log_file(path);
    }
    void read_log_file(const std::string& path) {
        ds_delete_tree(read_);
        ds_destroy(read_);
        ds_create(read_);
        ObjectId file = testing::disk_file(path);
        ASSERT_NE(file, 0) << path;
        read_nmea_log(file, read_);
        testing::drop_file(file);
    }

    testing::TestHome place_;
    ObjectId written_ = 0;
    ObjectId read_ = 0;
};

// ---- write, then read ----

// What a point of a written list must come back as.
struct Expected {
    double longitude, latitude, altitude, speed;
    JulianTime time;
    double course;
};

TEST_F(Conversion, DataSetComesBackThroughItsLog) {
    ObjectId reference = 0;
    make_default_georeference(reference);
    ds_add(written_, ObjectType::GeoReference, reference);
    std::vector<Waypoint*> waypoints;
    Route* route = new_route(written_);
    wstr_copy(L"COAST", route->name);
    for (int i = 0; i < 7; ++i) {
        const std::wstring name = L"WP" + std::to_wstring(i);
        waypoints.push_back(new_waypoint(-1.25 - i * 0.01, 47.5 + i * 0.01, name.c_str(), nullptr,
                                         0, display_name, 0.0, written_));
        append_point(route->points, waypoints.back());
    }
    // Two segments of a track, then a list of samples: three lists to come.
    std::vector<std::vector<Expected>> lists(3);
    ObjectId track = 0, segment = 0;
    new_track(written_, &track);
    for (int s = 0; s < 2; ++s) {
        TrackSegment* record = new_segment(segment, track, written_, &segment);
        for (int i = 0; i < 3; ++i) {
            const Expected e{-4.5 + (s * 10 + i) * 0.001,         48.25, 12.5 + i, 10.0 * i,
                             utc(2021, 3, 14, 8, s * 10 + i, 30), 0.0};
            new_track_point(e.longitude, e.latitude, e.time, e.altitude, record, track, written_)
                ->speed = e.speed;
            lists[s].push_back(e);
        }
    }
    PositionList* list = new_position_list(ObjectType::NavSample, written_);
    for (int i = 0; i < 3; ++i) {
        // A VTG follows RMC when there is speed, and its empty magnetic pair
        // stores 0 over the true course: only a sample at rest keeps it.
        const Expected e{
            2.3 + i * 0.002,    -48.8, 35.0, 18.52 * i, utc(2021, 3, 14, 9, 0, 15.25 + i),
            i == 0 ? 90.0 : 0.0};
        append_point(list->points, testing::new_sample(written_, {.longitude = e.longitude,
                                                                  .latitude = e.latitude,
                                                                  .altitude = e.altitude,
                                                                  .time = e.time,
                                                                  .ellipsoid_height = 80.5,
                                                                  .speed = e.speed,
                                                                  .course = 90.0,
                                                                  .hdop = 1.5,
                                                                  .satellites = 7,
                                                                  .fix_acquired = 1,
                                                                  .differential = 1}));
        lists[2].push_back(e);
    }
    ASSERT_FALSE(error_pending());
    const std::string path = place_.file("trip.nmea");
    write_data_set_nmea(path.c_str(), 0, written_);
    read_log_file(path);
    ASSERT_FALSE(error_pending());

    const auto read_waypoints = members<Waypoint>(read_);
    ASSERT_EQ(read_waypoints.size(), waypoints.size()) << "each waypoint once";
    const auto routes = members<Route>(read_);
    ASSERT_EQ(routes.size(), 1u);
    EXPECT_EQ(narrow(routes[0]->name), "COAST");
    ASSERT_EQ(pair_list_count(routes[0]->points), 7) << "two sentences make one route";
    for (std::size_t i = 0; i < waypoints.size(); ++i) {
        SCOPED_TRACE("waypoint " + std::to_string(i));
        EXPECT_EQ(narrow(read_waypoints[i]->name), narrow(waypoints[i]->name));
        EXPECT_NEAR(read_waypoints[i]->longitude, waypoints[i]->longitude,
                    written_degrees_tolerance);
        EXPECT_NEAR(read_waypoints[i]->latitude, waypoints[i]->latitude, written_degrees_tolerance);
        EXPECT_EQ(routes[0]->points->pairs[i].value, reinterpret_cast<intptr_t>(read_waypoints[i]))
            << "the route's point is the waypoint of its name";
    }

    const auto read_lists = members<PositionList>(read_);
    ASSERT_EQ(read_lists.size(), lists.size()) << "each START to STOP is a list";
    for (std::size_t l = 0; l < lists.size(); ++l) {
        const auto back = samples_of(*read_lists[l]);
        ASSERT_EQ(back.size(), lists[l].size());
        for (std::size_t i = 0; i < back.size(); ++i) {
            SCOPED_TRACE("list " + std::to_string(l) + " point " + std::to_string(i));
            const Expected& e = lists[l][i];
            EXPECT_NEAR(back[i]->longitude, e.longitude, written_degrees_tolerance);
            EXPECT_NEAR(back[i]->latitude, e.latitude, written_degrees_tolerance);
            EXPECT_DOUBLE_EQ(back[i]->altitude, e.altitude);
            EXPECT_NEAR(back[i]->speed, e.speed, 1e-6) << "VTG's km/h has the last word";
            EXPECT_EQ(std::floor(back[i]->time.date), std::floor(e.time.date));
            EXPECT_NEAR(back[i]->time.day, e.time.day, 1e-8);
            EXPECT_EQ(back[i]->course, e.course);
        }
    }
    const NavSample& sample = *samples_of(*read_lists[2])[1];
    EXPECT_DOUBLE_EQ(sample.ellipsoid_height, 80.5);
    EXPECT_DOUBLE_EQ(sample.hdop, 1.5);
    EXPECT_EQ(sample.satellites, 7);
    EXPECT_TRUE(sample.fix_acquired && sample.differential);
    EXPECT_EQ(ds_count(read_, ObjectType::NavSample), 9) << "no sample outside the lists";
}

// ---- real logs ----

// What a log holds by a count made from its lines alone: the epochs (times
// that a GP sentence with a good checksum states, a new one each time the
// time changes), their last positions, and the runs of equal positions
// that the reader thins.
struct LineCount {
    int samples = 0;
    int positioned = 0;
    int thinned = 0;
};

bool good_checksum(const std::string& line) {
    const std::size_t star = line.rfind('*');
    if (line.empty() || line[0] != '$' || star == std::string::npos || star + 1 >= line.size())
        return false;
    unsigned sum = 0;
    for (std::size_t i = 1; i < star; ++i)
        sum ^= static_cast<unsigned char>(line[i]);
    char* end = nullptr;
    const std::string digits = line.substr(star + 1);
    for (char c : digits)
        if (std::islower(static_cast<unsigned char>(c))) return false;
    return std::strtoul(digits.c_str(), &end, 16) == sum && *end == '\0';
}

std::vector<std::string> fields_of(const std::string& line) {
    std::vector<std::string> fields;
    std::stringstream stream(line.substr(0, line.rfind('*')));
    for (std::string field; std::getline(stream, field, ',');)
        fields.push_back(field);
    const std::size_t star = line.rfind('*');
    if (star != std::string::npos && star > 0 && line[star - 1] == ',') fields.emplace_back();
    return fields;
}

double seconds_of_day(const std::string& hhmmss) {
    const double value = std::atof(hhmmss.c_str());
    const long whole = static_cast<long>(value);
    return (whole / 10000) * 3600.0 + (whole / 100 % 100) * 60.0 + std::fmod(value, 100.0);
}

LineCount count_by_lines(const std::string& text) {
    LineCount count;
    std::vector<std::pair<std::string, std::string>> positions; // of each positioned epoch
    double last_time = 0.0;
    bool epoch = false, epoch_placed = false;
    std::stringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!good_checksum(line)) continue;
        const auto f = fields_of(line);
        auto field = [&f](std::size_t i) { return i < f.size() ? f[i] : std::string(); };
        std::string time, latitude, longitude;
        bool timed = false, placed = false;
        if (f[0] == "$GPRMC" && field(2) == "A") {
            timed = placed = true;
            time = field(1);
            latitude = field(3) + field(4);
            longitude = field(5) + field(6);
        } else if (f[0] == "$GPGGA" && (field(6).empty() || std::atoi(field(6).c_str()) != 0)) {
            timed = placed = true;
            time = field(1);
            latitude = field(2) + field(3);
            longitude = field(4) + field(5);
        } else if (f[0] == "$GPGLL") {
            int filled = 0;
            for (std::size_t i = 1; i < f.size(); ++i)
                filled += !f[i].empty();
            timed = filled > 4;
            if (timed && field(6) != "A") continue;
            placed = true;
            time = field(5);
            latitude = field(1) + field(2);
            longitude = field(3) + field(4);
        } else if (f[0] == "$GPZDA") {
            timed = true;
            time = field(1);
        }
        if (timed) {
            const double seconds = seconds_of_day(time);
            if (std::fabs(seconds - last_time) >= 0.1) {
                ++count.samples;
                epoch = true;
                epoch_placed = false;
                last_time = seconds;
            }
        }
        if (placed && epoch) {
            if (!epoch_placed) positions.emplace_back();
            positions.back() = {latitude, longitude};
            epoch_placed = true;
        }
    }
    count.positioned = static_cast<int>(positions.size());
    for (std::size_t start = 0; start < positions.size();) {
        std::size_t end = start + 1;
        while (end < positions.size() && positions[end] == positions[start])
            ++end;
        if (end - start >= 3) count.thinned += static_cast<int>(end - start - 2);
        start = end;
    }
    return count;
}

TEST_F(Conversion, RealLogsHoldWhatTheirLinesSay) {
    const struct {
        const char* log;
        int minimum_samples; // guards the line count itself against reading nothing
    } cases[] = {
        {"foretrex-201.log", 5},
        {"garmin48.log", 10},
        {"firefly-II.log", 10},
        {"bu353-glonass.log", 10},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        const std::string path = std::string(NORVANTA_TEST_DATA_DIR "/nmea/") + c.log;
        const LineCount lines = count_by_lines(testing::read_file(path));
        EXPECT_GE(lines.samples, c.minimum_samples);
        read_log_file(path);
        EXPECT_FALSE(error_pending());
        set_gblerr(ErrorCode::none);
        EXPECT_EQ(ds_count(read_, ObjectType::NavSample), lines.samples - lines.thinned);
        const auto lists = members<PositionList>(read_);
        ASSERT_EQ(lists.size(), 1u) << "no marks: one trip";
        EXPECT_EQ(pair_list_count(lists[0]->points), lines.positioned - lines.thinned);
        EXPECT_EQ(ds_count(read_, ObjectType::Waypoint), 0) << "no destination in these logs";
        EXPECT_EQ(ds_count(read_, ObjectType::Route), 0) << "their routes name no waypoint";
        EXPECT_EQ(ds_count(read_, ObjectType::GeoReference), 1);
    }
}

// ---- rules on small logs ----

std::string gga(const char* time, const char* latitude, const char* longitude) {
    return with_tails({std::string("$GPGGA,") + time + "," + latitude + ",N," + longitude +
                       ",E,1,05,1.0,10.0,M,,,,"});
}

TEST_F(Conversion, EpochsListsWaypointsAndRoutesOfSmallLogs) {
    const std::string wpl_a = with_tails({"$GPWPL,4530.0000,N,00130.0000,E,A"});
    const std::string wpl_b = with_tails({"$GPWPL,4531.0000,N,00131.0000,E,B"});
    const std::string route_ab = with_tails({"$GPRTE,1,1,c,AB,A,B"});
    const struct {
        const char* description;
        std::string log;
        std::array<int, 3> counts;          // samples, waypoints, routes
        std::vector<int> list_sizes;        // of each PositionList, in order
        std::vector<double> altitudes = {}; // of the samples in order, when given
        ErrorCode error = ErrorCode::none;
    } cases[] = {
        {"an empty log cannot be read, and leaves nothing",
         "",
         {0, 0, 0},
         {},
         {},
         ErrorCode::file_access},
        {"a time within a tenth of a second joins the epoch",
         gga("120000.00", "4530.0", "00130.0") + gga("120000.05", "4530.1", "00130.1") +
             gga("120000.20", "4530.2", "00130.2"),
         {2, 0, 0},
         {2}},
        {"a STOP ends a list: the next position starts another",
         gga("120000", "4530.0", "00130.0") + stop_mark_sentence() +
             gga("120001", "4530.1", "00130.1") + gga("120002", "4530.2", "00130.2"),
         {3, 0, 0},
         {1, 2}},
        {"only the last list is thinned, to the ends of each run of equal positions",
         gga("120000", "4530.0", "00130.0") + gga("120001", "4530.0", "00130.0") +
             gga("120002", "4530.0", "00130.0") + stop_mark_sentence() +
             gga("120003", "4530.0", "00130.0") + gga("120004", "4530.0", "00130.0") +
             gga("120005", "4530.0", "00130.0") + gga("120006", "4530.0", "00130.0") +
             gga("120007", "4530.5", "00130.0"),
         {6, 0, 0},
         {3, 3}},
        {"a time that goes back starts an epoch as well",
         gga("120002", "4530.0", "00130.0") + gga("120001", "4530.1", "00130.1"),
         {2, 0, 0},
         {2}},
        {"an altitude belongs to its epoch: one without GGA keeps none",
         gga("120000", "4530.0", "00130.0") +
             with_tails({"$GPRMC,120001,A,4530.1,N,00130.1,E,,,140321,,"}),
         {2, 0, 0},
         {2},
         {10.0, 0.0}},
        {"a time alone makes a sample outside any list",
         with_tails({"$GPZDA,120000.00,14,03,2021,,"}),
         {1, 0, 0},
         {}},
        {"the same destination twice is one waypoint, the same name elsewhere another",
         wpl_a + wpl_a + with_tails({"$GPWPL,4530.0000,N,00130.0001,E,A"}),
         {0, 2, 0},
         {}},
        {"a route takes the first waypoint of each name; the same route again is dropped",
         wpl_a + wpl_b + route_ab + route_ab + with_tails({"$GPRTE,1,1,c,AB,B,A"}),
         {0, 2, 2},
         {}},
        {"a route of unknown names is dropped, and so is a working route",
         wpl_a + with_tails({"$GPRTE,1,1,c,X,Y,Z", "$GPRTE,1,1,w,W,A"}),
         {0, 1, 0},
         {}},
        {"a line too long for the reader loses its sentence, not the next",
         gga("120000", "4530.0", "00130.0") + "$GPTXT," + std::string(120, 'x') + "\r\n" +
             gga("120001", "4530.1", "00130.1"),
         {2, 0, 0},
         {2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        read_log_text(c.log);
        EXPECT_EQ(current_error(), c.error);
        set_gblerr(ErrorCode::none);
        EXPECT_EQ((std::array<int, 3>{ds_count(read_, ObjectType::NavSample),
                                      ds_count(read_, ObjectType::Waypoint),
                                      ds_count(read_, ObjectType::Route)}),
                  c.counts);
        std::vector<int> list_sizes;
        for (const PositionList* list : members<PositionList>(read_))
            list_sizes.push_back(pair_list_count(list->points));
        EXPECT_EQ(list_sizes, c.list_sizes);
        if (c.altitudes.empty()) continue;
        std::vector<double> altitudes;
        for (const NavSample* sample : members<NavSample>(read_))
            altitudes.push_back(sample->altitude);
        EXPECT_EQ(altitudes, c.altitudes);
    }
}

TEST_F(Conversion, PositionsFollowTheDatumTheLogNames) {
    const std::string position = gga("120000", "4530.0000", "00130.0000");
    const struct {
        const char* description;
        std::string log;
        double least_shift_m, most_shift_m;
    } cases[] = {
        {"WGS 84 by default: as written", position, 0.0, 0.0},
        {"a datum the dictionary does not know keeps WGS 84",
         with_tails({"$PGRMM,Nowhere 1900"}) + position, 0.0, 0.0},
        {"European 1950 moves the point by its shift",
         with_tails({"$PGRMM,European 1950"}) + position, 50.0, 250.0},
        {"back to WGS 84 after another datum",
         with_tails({"$PGRMM,European 1950", "$PGRMM,WGS 84"}) + position, 0.0, 0.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        read_log_text(c.log);
        EXPECT_FALSE(error_pending());
        set_gblerr(ErrorCode::none);
        const auto samples = members<NavSample>(read_);
        ASSERT_EQ(samples.size(), 1u);
        const double north_m = (samples[0]->latitude - 45.5) * 111132.0;
        const double east_m =
            (samples[0]->longitude - 1.5) * 111132.0 * std::cos(45.5 * std::numbers::pi / 180);
        const double shift_m = std::hypot(north_m, east_m);
        EXPECT_GE(shift_m, c.least_shift_m);
        EXPECT_LE(shift_m, c.most_shift_m + 1e-6);
        EXPECT_DOUBLE_EQ(samples[0]->altitude, 10.0);
        const auto references = members<GeoReference>(read_);
        ASSERT_EQ(references.size(), 1u);
        EXPECT_EQ(references[0]->datum, find_by_code(ObjectType::Datum, 214))
            << "whatever the log's datum, the set is in WGS 84";
        EXPECT_EQ(references[0]->pre_transform, 0);
    }
}

// ---- GPSBabel as a second reader ----

TEST_F(Conversion, GpsbabelReadsTheSamePositions) {
    if (std::system("command -v gpsbabel > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "gpsbabel is not installed";
    ObjectId reference = 0;
    make_default_georeference(reference);
    ds_add(written_, ObjectType::GeoReference, reference);
    PositionList* list = new_position_list(ObjectType::NavSample, written_);
    std::vector<std::pair<double, double>> points;
    for (int i = 0; i < 5; ++i) {
        points.emplace_back(-122.25 + i * 0.0123, 37.5 - i * 0.0456);
        append_point(list->points,
                     testing::new_sample(written_, {.longitude = points.back().first,
                                                    .latitude = points.back().second,
                                                    .altitude = 100.0 + i,
                                                    .time = utc(2015, 6, 30, 23, 59, 50 + i),
                                                    .satellites = 5,
                                                    .fix_acquired = 1}));
    }
    const std::string path = place_.file("babel.nmea");
    write_data_set_nmea(path.c_str(), 0, written_);
    ASSERT_FALSE(error_pending());

    const std::string command = "gpsbabel -t -i nmea -f '" + path + "' -o unicsv -F - 2>/dev/null";
    std::FILE* pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    std::array<char, 4096> chunk{};
    for (std::size_t n; (n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;)
        output.append(chunk.data(), n);
    ASSERT_EQ(::pclose(pipe), 0) << output;

    std::stringstream lines(output);
    std::string header;
    std::getline(lines, header);
    if (!header.empty() && header.back() == '\r') header.pop_back();
    const auto columns = fields_of(header + "*");
    auto column = [&columns](const char* name) {
        for (std::size_t i = 0; i < columns.size(); ++i)
            if (columns[i].find(name) != std::string::npos) return static_cast<int>(i);
        return -1;
    };
    const int latitude = column("Latitude"), longitude = column("Longitude"), time = column("Time");
    ASSERT_TRUE(latitude >= 0 && longitude >= 0 && time >= 0) << header;
    struct Row {
        double longitude, latitude;
        std::string time;
    };
    std::vector<Row> read;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const auto f = fields_of(line + "*");
        if (static_cast<int>(f.size()) <= std::max({latitude, longitude, time})) continue;
        read.push_back({std::atof(f[longitude].c_str()), std::atof(f[latitude].c_str()), f[time]});
    }
    ASSERT_EQ(read.size(), points.size()) << output << "from\n" << testing::read_file(path);
    for (std::size_t i = 0; i < points.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(read[i].longitude, points[i].first, written_degrees_tolerance);
        EXPECT_NEAR(read[i].latitude, points[i].second, written_degrees_tolerance);
        EXPECT_EQ(read[i].time, "23:59:5" + std::to_string(i));
    }
}

// ---- a file to NavPoints ----

class NavPoints : public Conversion {
  protected:
    // The file (a log or any GPS file) through the whole preparation; its
    // NavPoints in time order.
    std::vector<NavPoint*> prepare_text(const std::string& name, const std::string& text) {
        const std::string path = place_.file(name);
        testing::write_file(path, text);
        testing::drop_file(file_);
        file_ = detect_format(testing::disk_file(path), 0, false);
        prepare_nav_points(file_);
        std::vector<NavPoint*> points = members<NavPoint>(file_data_set_of(file_));
        std::sort(points.begin(), points.end(),
                  [](const NavPoint* a, const NavPoint* b) { return a->time < b->time; });
        return points;
    }
    void TearDown() override {
        testing::drop_file(file_);
        Conversion::TearDown();
    }
    ObjectId file_ = 0;
};

std::vector<long> seconds_of(const std::vector<NavPoint*>& points) {
    std::vector<long> seconds;
    for (const NavPoint* point : points)
        seconds.push_back(std::lround(point->time / one_second_days));
    return seconds;
}

// A north-bound walk: latitude in minutes from 45 degrees 30 minutes, so
// that one minute is about 1852 metres.
std::string walk(const char* time, double minutes) {
    char latitude[32];
    std::snprintf(latitude, sizeof latitude, "%09.4f", 4530.0 + minutes);
    return gga(time, latitude, "00130.0000");
}

TEST_F(NavPoints, EpochsOfLogsBecomeNavPoints) {
    const struct {
        const char* description;
        std::string log;
        std::vector<long> seconds;     // time of each NavPoint
        std::vector<double> distances; // metres, about
        int stop_marks;                // points holding the STOP sentence
    } cases[] = {
        {"one epoch, never closed, gives none",
         walk("120000", 0.0) + walk("120000", 0.0),
         {},
         {},
         0},
        {"the first epoch has no speed and the last never closes",
         walk("120000", 0.0) + walk("120001", 0.01) + walk("120002", 0.02),
         {1},
         {18.5},
         0},
        {"a jump above 2000 km/h drops its epoch; the next is measured from the last good one",
         walk("120000", 0.0) + walk("120001", 0.01) + walk("120002", 1.0) + walk("120003", 0.012) +
             walk("120004", 0.03),
         {1, 3},
         {18.5, 22.2},
         0},
        {"a midnight without dates keeps the scale going",
         walk("235958", 0.0) + walk("235959", 0.01) + walk("000000", 0.02) + walk("000001", 0.03),
         {1, 2},
         {18.5, 37.0},
         0},
        {"a time within a tenth of a second joins the epoch",
         walk("120000", 0.0) + walk("120001", 0.01) + walk("120001.05", 0.01) +
             walk("120002", 0.02),
         {1},
         {18.5},
         0},
        {"a STOP lands in the epoch that ends next",
         walk("120000", 0.0) + walk("120001", 0.01) + walk("120002", 0.02) + stop_mark_sentence() +
             walk("120003", 0.03) + walk("120004", 0.04),
         {1, 2, 3},
         {18.5, 37.0, 55.5},
         1},
        {"the STOP of the last epoch is lost with it",
         walk("120000", 0.0) + walk("120001", 0.01) + walk("120002", 0.02) + stop_mark_sentence(),
         {1},
         {18.5},
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        const std::vector<NavPoint*> points = prepare_text("log.nmea", c.log);
        EXPECT_EQ(current_error(), ErrorCode::none);
        EXPECT_EQ(seconds_of(points), c.seconds);
        int stop_marks = 0;
        for (std::size_t i = 0; i < points.size(); ++i) {
            if (i < c.distances.size()) {
                EXPECT_NEAR(points[i]->distance, c.distances[i], c.distances[i] * 0.02) << i;
            }
            ASSERT_NE(points[i]->text, nullptr);
            if (std::strstr(points[i]->text, stop_mark_sentence())) {
                ++stop_marks;
                EXPECT_EQ(points[i]->mark, 2);
            }
            // The line that closed an epoch is cut from it; a line of the
            // same tenth of a second stays.
            const bool joined = std::strstr(points[i]->text, "120001.05") != nullptr;
            EXPECT_EQ(std::string(points[i]->text).rfind("$GPGGA") != 0, joined) << points[i]->text;
        }
        EXPECT_EQ(stop_marks, c.stop_marks);
    }
}

// Two epochs a minute apart, far enough (about 300 m) or not at all.
TEST_F(NavPoints, LongGapsAreFilledOnlyWhereTheTrackMoves) {
    const struct {
        const char* description;
        double second_step_minutes;
        std::size_t filled;
    } cases[] = {
        {"300 m in 59 s: a point every 4.99 s, each over 5 m", 0.162, 12},
        {"a pause adds nothing", 0.0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        const std::vector<NavPoint*> points = prepare_text(
            "gap.nmea", walk("120000", 0.0) + walk("120100", 0.162) +
                            walk("120200", 0.162 + c.second_step_minutes) + walk("120300", 0.5));
        ASSERT_EQ(points.size(), 2 + c.filled);
        EXPECT_EQ(seconds_of({points.front(), points.back()}), (std::vector<long>{60, 120}));
        const NavPoint& a = *points.front();
        const NavPoint& b = *points.back();
        for (std::size_t i = 1; i + 1 < points.size(); ++i) {
            const NavPoint& fill = *points[i];
            EXPECT_GE(fill.distance, points[i - 1]->distance + 5.0) << i;
            EXPECT_GT(fill.latitude, a.latitude) << i;
            EXPECT_LT(fill.latitude, b.latitude) << i;
            EXPECT_EQ(fill.speed, std::trunc(fill.speed * 100.0) * 0.01) << i;
            ASSERT_NE(fill.text, nullptr);
            EXPECT_EQ(std::string(fill.text).rfind("$GPGGA,,", 0), 0u) << "no time field";
        }
    }
}

std::string gpx_track(bool with_times) {
    std::string text =
        "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\" creator=\"test\" "
        "xmlns=\"http://www.topografix.com/GPX/1/1\">\n<trk><name>T</name><trkseg>\n";
    for (int i = 0; i < 4; ++i) {
        char point[200];
        std::snprintf(
            point, sizeof point, "<trkpt lat=\"%.6f\" lon=\"1.5\">%s</trkpt>\n", 45.5 + i * 0.001,
            with_times
                ? ("<time>2021-03-14T12:00:" + std::to_string(10 + i * 10) + "Z</time>").c_str()
                : "");
        text += point;
    }
    return text + "</trkseg></trk>\n</gpx>\n";
}

TEST_F(NavPoints, GpxFilesBecomeLogsAndPlay) {
    {
        SCOPED_TRACE("a timed track keeps its times, its sentences carrying them");
        const std::vector<NavPoint*> points = prepare_text("timed.gpx", gpx_track(true));
        EXPECT_EQ(file_format_of(file_), FileFormat::nmea_log);
        std::vector<NavPoint*> real;
        for (NavPoint* point : points)
            if (point->text && std::strstr(point->text, "$GPRMC,1200")) real.push_back(point);
        EXPECT_EQ(seconds_of(real), (std::vector<long>{10, 20}));
        if (real.size() == 2) {
            EXPECT_NE(std::strstr(real[0]->text, "$GPRMC,120020"), nullptr) << real[0]->text;
            EXPECT_NEAR(real[1]->distance - real[0]->distance, 111.1, 2.0);
        }
    }
    {
        SCOPED_TRACE("a track without times plays at 27 knots");
        const std::vector<NavPoint*> points = prepare_text("untimed.gpx", gpx_track(false));
        ASSERT_FALSE(points.empty());
        const NavPoint& last = *points.back();
        EXPECT_NEAR(last.speed, 27 * 1.852, 0.01);
        // The clock is a packed date: its last digits are about this fine.
        EXPECT_NEAR(last.time, last.distance * invented_day_per_metre, 1e-8);
    }
    {
        SCOPED_TRACE("waypoints alone become a log without NavPoints");
        const std::vector<NavPoint*> points = prepare_text(
            "points.gpx", "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\" creator=\"t\">"
                          "<wpt lat=\"45.5\" lon=\"1.5\"><name>A</name></wpt></gpx>\n");
        EXPECT_EQ(file_format_of(file_), FileFormat::nmea_log);
        EXPECT_TRUE(points.empty());
    }
    {
        SCOPED_TRACE("a file without GPS data is left as it is");
        prepare_text("empty.gpx", "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\"></gpx>\n");
        EXPECT_EQ(file_format_of(file_), FileFormat::gpx);
        EXPECT_EQ(current_error(), ErrorCode::none);
    }
}

} // namespace
} // namespace norvanta
