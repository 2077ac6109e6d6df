// The sentence writer: tails and marks against known sentences, the golden
// sentences of each record on hand-made values (signs, minutes that round to
// 60, absent fields, names beyond ASCII), a whole data set in order, to a
// file and to a memory file, its refusals, and commands on a serial line.
#include "navigation/nmea_writer.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "core/paged_memory.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "geodesy/tables.h"
#include "navigation/serial_link.h"
#include "shell/errors.h"
#include "support/gps_store.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

using testing::utc;
using testing::with_tails;

constexpr double munich_longitude = 11.0 + 31.0 / 60.0;
constexpr double munich_latitude = 48.1173;

// What a writer puts into a file.
std::string written(const std::function<void(std::FILE*)>& write) {
    char* buffer = nullptr;
    std::size_t size = 0;
    std::FILE* file = ::open_memstream(&buffer, &size);
    write(file);
    std::fclose(file);
    std::string text(buffer, size);
    std::free(buffer);
    return text;
}

// The keyword of each sentence of a log.
std::vector<std::string> heads_of(const std::string& log) {
    std::vector<std::string> heads;
    std::stringstream lines(log);
    for (std::string line; std::getline(lines, line);)
        heads.push_back(line.substr(0, line.find(',')));
    return heads;
}

TEST(NmeaWriter, TailsMatchKnownSentences) {
    const struct {
        const char* sentence;
        const char* tail;
    } cases[] = {
        {"$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,", "*47\r\n"},
        {"$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W", "*6A\r\n"},
        {"$PGRMV,0.0,0.0,0.0", "*5C\r\n"},
        {"$", "*00\r\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sentence);
        char tail[checksum_tail_capacity];
        std::memset(tail, 'x', sizeof tail);
        format_checksum_tail(c.sentence, tail);
        EXPECT_STREQ(tail, c.tail);
    }
}

TEST(NmeaWriter, ChecksumAndMarks) {
    EXPECT_EQ(nmea_checksum(nullptr), 0);
    EXPECT_EQ(nmea_checksum("\xFF\x0F"), 0xF0) << "bytes above 127 count as unsigned";
    EXPECT_STREQ(start_mark_sentence(), "$PKLNT,START*21\r\n");
    EXPECT_STREQ(stop_mark_sentence(), "$PKLNT,STOP*79\r\n");
}

// ---- records ----

class NmeaRecords : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/");
        ds_create(set_);
    }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        ds_delete_tree(set_);
        ds_destroy(set_);
    }

    Waypoint* waypoint(const wchar_t* name, double longitude = 0.0, double latitude = 0.0) {
        return new_waypoint(longitude, latitude, name, nullptr, 0, display_name, 0.0, set_);
    }
    ObjectId geo_reference() {
        ObjectId reference = 0;
        make_default_georeference(reference);
        ds_add(set_, ObjectType::GeoReference, reference);
        return reference;
    }

    ObjectId set_ = 0;
};

TEST_F(NmeaRecords, NavPointTextHasNoTimeAndMovesOnlyWithSpeed) {
    const struct {
        const char* description;
        double latitude, longitude, altitude, speed, course;
        int32_t satellites;
        std::string expected;
    } cases[] = {
        {"standing still: GGA with satellites, RMC without speed, no VTG", munich_latitude,
         munich_longitude, 545.4, 0.0, 84.4, 8,
         with_tails({"$GPGGA,,4807.0380,N,01131.0000,E,,8,,545.40,M,,,,",
                     "$GPRMC,,A,4807.0380,N,01131.0000,E,,,,,"})},
        {"moving south-west without satellites: three sentences", -33.5, -70.25, -12.5, 18.52,
         225.0, 0,
         with_tails({"$GPGGA,,3330.0000,S,07015.0000,W,,,,-12.50,M,,,,",
                     "$GPRMC,,A,3330.0000,S,07015.0000,W,10.0000,225.0000,,,",
                     "$GPVTG,225.0000,T,,,10.0000,N,18.5200,K"})},
        {"minutes that round up print 60 without carry; zero is north and east",
         10.0 + 59.99996 / 60.0, 0.0, 0.0, 0.0, 0.0, 0,
         with_tails({"$GPGGA,,1060.0000,N,00000.0000,E,,,,0.00,M,,,,",
                     "$GPRMC,,A,1060.0000,N,00000.0000,E,,,,,"})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        ObjectId id = 0;
        auto* point = cre_obj<NavPoint>(&id);
        ASSERT_NE(point, nullptr);
        ds_add(set_, ObjectType::NavPoint, id);
        point->latitude = c.latitude;
        point->longitude = c.longitude;
        point->altitude = c.altitude;
        point->speed = c.speed;
        point->course = c.course;
        point->satellites = c.satellites;
        str_copy("$PKLNT,START*21\r\n", point->text);
        write_nav_point_text(*point);
        const std::string expected = "$PKLNT,START*21\r\n" + c.expected;
        EXPECT_EQ(point->text, expected) << "appended behind what the text held";
        EXPECT_EQ(point->text_length, static_cast<int32_t>(expected.size()));
    }
}

TEST_F(NmeaRecords, NavSampleSentencesLeaveAbsentFieldsEmpty) {
    const struct {
        const char* description;
        testing::SampleValues sample;
        std::string expected;
    } cases[] = {
        {"a full fix: every field, date, VTG and ZDA",
         {.longitude = munich_longitude,
          .latitude = munich_latitude,
          .altitude = 545.4,
          .time = utc(2007, 12, 19, 12, 35, 19),
          .ellipsoid_height = 592.3,
          .speed = 41.4848,
          .course = 84.4,
          .hdop = 0.9,
          .satellites = 8,
          .fix_acquired = 1},
         with_tails({"$GPGLL,4807.0380,N,01131.0000,E,123519.000,A",
                     "$GPGGA,123519.000,4807.0380,N,01131.0000,E,1,8,0.90,545.40,M,46.90,M,,",
                     "$GPRMC,123519.000,A,4807.0380,N,01131.0000,E,22.4000,84.4000,191207,,",
                     "$GPVTG,84.4000,T,,,22.4000,N,41.4848,K", "$GPZDA,123519.000,19,12,2007,,"})},
        {"a fix and a time of day alone: three empty fields behind the quality, then five",
         {.longitude = 2.25, .latitude = 1.5, .time = {0.75, 0.75}, .fix_acquired = 1},
         with_tails({"$GPGLL,0130.0000,N,00215.0000,E,180000.000,A",
                     "$GPGGA,180000.000,0130.0000,N,00215.0000,E,1,,,,,,,,",
                     "$GPRMC,180000.000,A,0130.0000,N,00215.0000,E,,,,,"})},
        {"differential wins; a negative altitude is known; no course leaves VTG's empty",
         {.longitude = -179.75,
          .latitude = -0.5,
          .altitude = -12.5,
          .time = utc(2010, 7, 8, 0, 59, 47.5),
          .ellipsoid_height = -12.5,
          .speed = 3.704,
          .satellites = 12,
          .fix_acquired = 1,
          .differential = 1},
         with_tails({"$GPGLL,0030.0000,S,17945.0000,W,005947.500,A",
                     "$GPGGA,005947.500,0030.0000,S,17945.0000,W,2,12,,-12.50,M,,,,",
                     "$GPRMC,005947.500,A,0030.0000,S,17945.0000,W,2.0000,,080710,,",
                     "$GPVTG,,,,,2.0000,N,3.7040,K", "$GPZDA,005947.500,08,07,2010,,"})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        const NavSample* sample = testing::new_sample(set_, c.sample);
        ASSERT_NE(sample, nullptr);
        EXPECT_EQ(written([&](std::FILE* file) { write_nav_sample(sample->id, file, nullptr); }),
                  c.expected);
    }
}

TEST_F(NmeaRecords, TrackPointSentencesAndTheirOwnQuirks) {
    const struct {
        const char* description;
        double longitude, latitude, altitude;
        JulianTime time;
        double speed;
        std::string expected;
    } cases[] = {
        {"no altitude, speed or date: an empty GGA tail and four empty fields after the speed",
         2.25,
         1.5,
         0.0,
         {0.75, 0.75},
         0.0,
         with_tails({"$GPGLL,0130.0000,N,00215.0000,E,180000.000,A",
                     "$GPGGA,180000.000,0130.0000,N,00215.0000,E,,,,,,,,,",
                     "$GPRMC,180000.000,A,0130.0000,N,00215.0000,E,,,,,"})},
        {"altitude, speed and date: VTG with six decimals, then ZDA", munich_longitude,
         munich_latitude, 545.4, utc(2007, 12, 19, 12, 35, 19), 10.0,
         with_tails({"$GPGLL,4807.0380,N,01131.0000,E,123519.000,A",
                     "$GPGGA,123519.000,4807.0380,N,01131.0000,E,,,,545.40,M,,,,",
                     "$GPRMC,123519.000,A,4807.0380,N,01131.0000,E,5.3996,,191207,,",
                     "$GPVTG,,,,,5.399568,N,10.000000,K", "$GPZDA,123519.000,19,12,2007,,"})},
        {"a negative altitude is written",
         -3.0,
         -4.0,
         -7.25,
         {0.0, 0.0},
         0.0,
         with_tails({"$GPGLL,0400.0000,S,00300.0000,W,000000.000,A",
                     "$GPGGA,000000.000,0400.0000,S,00300.0000,W,,,,-7.25,M,,,,",
                     "$GPRMC,000000.000,A,0400.0000,S,00300.0000,W,,,,,"})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        TrackPoint point{};
        point.longitude = c.longitude;
        point.latitude = c.latitude;
        point.altitude = c.altitude;
        point.time = c.time;
        point.speed = c.speed;
        EXPECT_EQ(written([&](std::FILE* file) { write_track_point(point, file, nullptr, 0); }),
                  c.expected);
    }
}

TEST_F(NmeaRecords, WaypointNamesGoOutAsTheCLocaleNarrowsThem) {
    const struct {
        const char* description;
        const wchar_t* name;
        std::string expected;
    } cases[] = {
        {"a plain name", L"HOME", with_tails({"$GPWPL,4807.0380,N,01131.0000,E,HOME"})},
        {"no name leaves the last field empty", nullptr,
         with_tails({"$GPWPL,4807.0380,N,01131.0000,E,"})},
        {"a character of one byte stays that byte, a wider one becomes '?'", L"Caf\u00e9 \u20ac",
         with_tails({"$GPWPL,4807.0380,N,01131.0000,E,Caf\xE9 ?"})},
        {"what would break the sentence or forge another becomes a blank", L"A,B*C\r\n$GPRMC!",
         with_tails({"$GPWPL,4807.0380,N,01131.0000,E,A B C   GPRMC "})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        const Waypoint* point = waypoint(c.name, munich_longitude, munich_latitude);
        ASSERT_NE(point, nullptr);
        EXPECT_EQ(written([&](std::FILE* file) { write_waypoint(*point, file, nullptr, 0); }),
                  c.expected);
    }
}

TEST_F(NmeaRecords, RoutesTakeSixNamesPerSentence) {
    const wchar_t* names[] = {L"A", L"B", L"C", L"D", L"E", L"F", L"G"};
    const struct {
        const char* description;
        const wchar_t* name;
        int32_t number;
        int waypoints;
        std::string expected;
    } cases[] = {
        {"seven waypoints: two sentences, of six names and of one", L"TRIP", 3, 7,
         with_tails({"$GPRTE,2,1,c,TRIP,A,B,C,D,E,F", "$GPRTE,2,2,c,TRIP,G"})},
        {"six fit in one; an empty name gives way to the number", L"", 12, 6,
         with_tails({"$GPRTE,1,1,c,12,A,B,C,D,E,F"})},
        {"a route without waypoints says nothing", L"EMPTY", 1, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        Route* route = new_route(set_);
        ASSERT_NE(route, nullptr);
        wstr_copy(c.name, route->name);
        route->number = c.number;
        for (int i = 0; i < c.waypoints; ++i)
            append_point(route->points, waypoint(names[i]));
        EXPECT_EQ(written([&](std::FILE* file) { write_route(*route, file, nullptr); }),
                  c.expected);
    }
}

// ---- data sets ----

// A set of every kind, made in an order unlike the log's: samples, a track
// of two segments, a route, its waypoints. Its system counts in arc-seconds,
// so every record but the samples, which are WGS 84 degrees by nature, goes
// through the transform.
class NmeaDataSet : public NmeaRecords {
  protected:
    void SetUp() override {
        NmeaRecords::SetUp();
        GeoReference* reference = get_obj_adr<GeoReference>(geo_reference());
        ASSERT_NE(reference, nullptr);
        reference->unit = angle_unit_second;
        georeference_fix_units(reference->id);

        PositionList* list = new_position_list(ObjectType::NavSample, set_);
        for (int i = 0; i < 2; ++i) {
            append_point(list->points,
                         testing::new_sample(set_, {.longitude = 1.0 + i,
                                                    .latitude = 2.0,
                                                    .time = utc(2020, 5, 1, 10, 0, 7 + i)}));
        }
        ObjectId track = 0, first = 0, second = 0;
        new_track(set_, &track);
        TrackSegment* segment = new_segment(0, track, set_, &first);
        for (int i = 0; i < 2; ++i) {
            new_track_point(3600.0 * (3.5 + i), 3600.0 * 4.5, utc(2020, 5, 1, 9, 0, i), 0.0,
                            segment, track, set_);
        }
        segment = new_segment(first, track, set_, &second);
        new_track_point(3600.0 * 5.5, 3600.0 * 4.5, utc(2020, 5, 1, 9, 30, 30), 0.0, segment, track,
                        set_);
        Route* route = new_route(set_);
        wstr_copy(L"R", route->name);
        for (const wchar_t* name : {L"P", L"Q"})
            append_point(route->points, waypoint(name, 3600.0 * 6.5, -3600.0 * 7.5));
        ASSERT_FALSE(error_pending());
    }
};

TEST_F(NmeaDataSet, LogGoesByKindAndFramesEachSegmentAndList) {
    testing::TestHome place;
    const std::string path = place.file("set.nmea");
    write_data_set_nmea(path.c_str(), 0, set_);
    EXPECT_FALSE(error_pending());
    const std::string log = testing::read_file(path);
    const std::vector<std::string> point = {"$GPGLL", "$GPGGA", "$GPRMC", "$GPZDA"};
    std::vector<std::string> expected = {"$PKLNH", "$PGRMM", "$GPWPL",
                                         "$GPWPL", "$GPRTE", "$PKLNT"};
    for (int segment_points : {2, 1}) {
        for (int i = 0; i < segment_points; ++i)
            expected.insert(expected.end(), point.begin(), point.end());
        expected.insert(expected.end(), {"$PKLNT", "$PKLNT"});
    }
    for (int i = 0; i < 2; ++i)
        expected.insert(expected.end(), point.begin(), point.end());
    expected.push_back("$PKLNT");
    EXPECT_EQ(heads_of(log), expected);

    const std::string first_lines =
        with_tails({"$PKLNH,NMEA File Header", "$PGRMM,WGS 84", "$GPWPL,0730.0000,S,00630.0000,E,P",
                    "$GPWPL,0730.0000,S,00630.0000,E,Q", "$GPRTE,1,1,c,R,P,Q", "$PKLNT,START",
                    "$GPGLL,0430.0000,N,00330.0000,E,090000.000,A"});
    EXPECT_EQ(log.substr(0, first_lines.size()), first_lines)
        << "waypoints and track points pass the transform";
    EXPECT_NE(log.find(with_tails({"$GPGLL,0200.0000,N,00100.0000,E,100007.000,A"})),
              std::string::npos)
        << "samples are written as they stand:\n"
        << log;
    EXPECT_NE(log.find(with_tails({"$PKLNT,STOP", "$PKLNT,START"})), std::string::npos);
}

TEST_F(NmeaDataSet, MemoryFileHoldsTheSameLogAsAFile) {
    testing::TestHome place;
    const std::string path = place.file("set.nmea");
    write_data_set_nmea(path.c_str(), 0, set_);
    ObjectId file = new_memory_file();
    const auto* record = find_obj_adr<FileMobj>(file);
    ASSERT_NE(record, nullptr);
    write_data_set_nmea(nullptr, file, set_);
    EXPECT_FALSE(error_pending());
    Mobj* block = find_obj_adr<Mobj>(record->memory);
    ASSERT_NE(block, nullptr);
    std::string held;
    for (int32_t offset = 0; offset < block->size;) {
        int32_t length = block->size - offset;
        const uint8_t* bytes = read_pointer(*block, offset, length);
        ASSERT_GT(length, 0);
        held.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
        offset += length;
    }
    EXPECT_EQ(held, testing::read_file(path));
    del_obj_adr(ObjectType::FileMobj, file);
}

TEST_F(NmeaRecords, DataSetLogRefusals) {
    testing::TestHome place;
    const struct {
        const char* description;
        bool with_waypoint;
        bool with_reference;
        bool broken_track;
        std::string path;
        ErrorCode error;
        bool file_made;
    } cases[] = {
        {"a set with only a route and an empty track writes nothing", false, true, false,
         place.file("empty.nmea"), ErrorCode::none, false},
        {"a set without a system is refused, its file left empty", true, false, false,
         place.file("no_system.nmea"), ErrorCode::geographic, true},
        {"a file that cannot be made stops the writer quietly", true, true, false,
         place.file("missing/dir/log.nmea"), ErrorCode::none, false},
        {"a segment that is gone stops the writer after what it wrote", true, true, true,
         place.file("broken.nmea"), ErrorCode::object_internal, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        ds_delete_tree(set_);
        ds_destroy(set_);
        ds_create(set_);
        new_route(set_);
        Track* track = new_track(set_);
        if (c.with_waypoint) waypoint(L"W");
        if (c.with_reference) geo_reference();
        if (c.broken_track) track->first_segment = draw_object_id();
        write_data_set_nmea(c.path.c_str(), 0, set_);
        EXPECT_EQ(current_error(), c.error);
        set_gblerr(ErrorCode::none);
        EXPECT_EQ(testing::file_exists(c.path), c.file_made);
        if (c.broken_track) {
            EXPECT_EQ(testing::read_file(c.path),
                      with_tails({"$PKLNH,NMEA File Header", "$PGRMM,WGS 84",
                                  "$GPWPL,0000.0000,N,00000.0000,E,W"}));
        }
    }
}

// ---- commands ----

TEST(NmeaWriter, CommandsGoOutWithTheirTailInOnePiece) {
    int master = -1, slave = -1;
    std::array<char, 128> name{};
    ASSERT_EQ(::openpty(&master, &slave, name.data(), nullptr, nullptr), 0);
    SerialPort* port = nullptr;
    open_serial(name.data(), 4800, port);
    ASSERT_NE(port, nullptr);
    const std::string long_command = "$PMGNCMD," + std::string(120, 'X');
    const struct {
        const char* description;
        std::string command;
        std::string expected;
    } cases[] = {
        {"a command and its tail", "$PMGNCMD,NMEAON", with_tails({"$PMGNCMD,NMEAON"})},
        {"a long one is cut to what the buffer holds", long_command,
         with_tails({long_command}).substr(0, command_capacity - 1)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        send_nmea_command(port, c.command.c_str());
        std::string got;
        std::array<char, 256> chunk{};
        while (got.size() < c.expected.size()) {
            pollfd watch{.fd = master, .events = POLLIN, .revents = 0};
            if (::poll(&watch, 1, 5000) != 1) break;
            const ssize_t n = ::read(master, chunk.data(), chunk.size());
            if (n <= 0) break;
            got.append(chunk.data(), static_cast<std::size_t>(n));
        }
        EXPECT_EQ(got, c.expected);
    }
    free_serial(port);
    ::close(master);
    ::close(slave);
}

} // namespace
} // namespace norvanta
