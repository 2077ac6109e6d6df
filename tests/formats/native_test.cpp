// Tests of the native text formats: each reader on files written here, the
// column flags and the state they leave, string delimiters, times with and
// without milliseconds, blank and comment lines, files that are malformed or
// cut anywhere, and recognition by the magic line.
#include "formats/native.h"

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "formats/detection.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "support/fresh_process.h"
#include "support/gps_store.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string narrow(const wchar_t* text) {
    if (!text) return "<null>";
    std::string out;
    for (; *text; ++text)
        out += static_cast<char>(*text);
    return out;
}

// To the millisecond, from the day with its fraction, which keeps the
// precision that the packed date loses.
std::string time_text(const JulianTime& time) {
    if (time.date == 0.0) return "-";
    int year = 0;
    int month = 0;
    double day = 0.0;
    julian_split(time.date, time.day, &year, &month, &day);
    const long long ms = std::llround((day - std::floor(day)) * 86400000.0);
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02lld:%02lld:%02lld.%03lld", year, month,
                  static_cast<int>(day), ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
    return text;
}

template <class T>
std::vector<T*> members(ObjectId set) {
    std::vector<T*> found;
    void* address = nullptr;
    for (ObjectId id = 0; ds_next_of_type(set, T::object_type, id, &address), id != 0;)
        found.push_back(static_cast<T*>(address));
    return found;
}

std::string waypoint_text(const Waypoint& point) {
    return narrow(point.name) + "|" + narrow(point.comment) + "|" + number(point.longitude) + "," +
           number(point.latitude) + "|alt " + number(point.altitude) + "|sym " +
           std::to_string(point.symbol) + "|disp " + std::to_string(point.display_mode);
}

std::string track_text(const Track& track) {
    std::string text = narrow(track.name) + " rgb " + std::to_string(track.color.red) + "," +
                       std::to_string(track.color.green) + "," + std::to_string(track.color.blue) +
                       " w " + std::to_string(track.width);
    for (ObjectId id = track.first_segment; id != 0;) {
        const auto* segment = find_obj_adr<TrackSegment>(id);
        text += " [";
        for (int32_t i = 0; i < pair_list_count(segment->points); ++i) {
            const auto* point =
                reinterpret_cast<const TrackPoint*>(segment->points->pairs[i].value);
            text += " " + number(point->longitude) + "," + number(point->latitude) + " " +
                    number(point->altitude) + "m " + time_text(point->time) + " " +
                    number(point->temperature) + "C";
        }
        text += " ]";
        id = segment->next;
    }
    return text;
}

std::string sample_text(const NavSample& sample) {
    return number(sample.longitude) + "," + number(sample.latitude) + " " + time_text(sample.time) +
           " alt " + number(sample.altitude) + " eh " + number(sample.ellipsoid_height) + " v " +
           number(sample.speed) + " c " + number(sample.course) + " sats " +
           std::to_string(sample.satellites) + "/" + std::to_string(sample.satellites_used);
}

template <class T>
std::vector<std::string> texts(ObjectId set, std::string (*show)(const T&)) {
    std::vector<std::string> out;
    for (const T* record : members<T>(set))
        out.push_back(show(*record));
    return out;
}

// Writes the content to a new file, detects it and reads it into the
// emptied set; the error that the reader left, cleared.
ErrorCode read_into(ObjectId set, const std::string& content) {
    static const testing::TestHome directory;
    static int files = 0;
    ds_delete_tree(set);
    const std::string path = directory.file("file" + std::to_string(++files) + ".txt");
    testing::write_file(path, content);
    ObjectId file = testing::disk_file(path);
    detect_format(file, 0, true);
    read_native_file(file, set);
    const ErrorCode code = current_error();
    set_gblerr(ErrorCode::none);
    testing::drop_file(file);
    return code;
}

class NativeFormats : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/"); }
    void SetUp() override { ds_create(set_); }
    void TearDown() override {
        ds_delete_tree(set_);
        ds_destroy(set_);
    }
    ErrorCode read(const std::string& content) { return read_into(set_, content); }
    int32_t member_count() const { return ds_count(set_, ObjectType::None); }

    ObjectId set_ = 0;
};

const std::string waypoints_head = "TRW-V2_Tavoren_Waypoint\nGarmin eTrex 130 D108\n";
const std::string tracks_head = "TRT-V2_Tavoren_Tracklog\nGarmin GPSMAP 60 D310\n";
const std::string log_head =
    std::string(native_navigation_magic) + "\n#Globalsat Data Logger ID 7\n" + nav_log_column_line;

// Three delimiters, CR LF and blank lines; then a file that flags name and
// position only, whose other columns keep the last row's values.
TEST_F(NativeFormats, WaypointColumnsFollowTheirFlags) {
    ASSERT_EQ(read(waypoints_head +
                   "1;1;1;1;1;1;1;1;1;1;1;0;0;0;0;0;0;0;0;0;\n"
                   "\"CAMP\";2.35;48.85;'say \"hi\"';3;17;1;010;020;030;1.25e+02;\n"
                   "\n\r\n"
                   "\x14it's \"odd\"\x14;-1.5;-2.5;|c2|;5;0;0;0;0;0;7;\r\n"),
              ErrorCode::none);
    EXPECT_EQ(texts<Waypoint>(set_, waypoint_text),
              (std::vector<std::string>{"CAMP|say \"hi\"|2.35,48.85|alt 125|sym 3|disp 1",
                                        "it's \"odd\"|c2|-1.5,-2.5|alt 7|sym 5|disp 0"}));
    for (const Waypoint* point : members<Waypoint>(set_))
        EXPECT_EQ(point->color.red, waypoint_color.red) << "file colours are read, not kept";
    EXPECT_EQ(ds_count(set_, ObjectType::GeoReference), 1);

    ASSERT_EQ(read(waypoints_head + "1;1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n\"P\";1;2;\n"),
              ErrorCode::none);
    EXPECT_EQ(texts<Waypoint>(set_, waypoint_text),
              (std::vector<std::string>{"P|c2|1,2|alt 7|sym 5|disp 0"}))
        << "an absent column keeps what the last file left";
}

TEST_F(NativeFormats, WriterDelimitersReadBackUnchanged) {
    struct Row {
        const char* text;
        char delimiter;
    };
    for (const Row& row : {Row{"plain", '"'}, Row{"say \"hi\"", '\''}, Row{"it's \"odd\"", '\x14'},
                           Row{"\x14 \" '", '\x15'}}) {
        SCOPED_TRACE(row.text);
        const char delimiter = native_delimiter(row.text);
        EXPECT_EQ(delimiter, row.delimiter);
        const std::string quoted = delimiter + std::string(row.text) + delimiter;
        ASSERT_EQ(read(waypoints_head + "1;1;1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n" + quoted +
                       ";0;0;" + quoted + ";\n"),
                  ErrorCode::none);
        const auto points = members<Waypoint>(set_);
        ASSERT_EQ(points.size(), 1u);
        EXPECT_EQ(narrow(points[0]->name), row.text);
        EXPECT_EQ(narrow(points[0]->comment), row.text);
    }
}

// Segments start at the first point and at each flagged one; times come with
// and without milliseconds; a track whose count runs past the file ends
// there; a receiver's file without track headers carries the count alone,
// and its points do not inherit the last file's altitudes.
TEST_F(NativeFormats, TracklogSegmentsTimesAndShortEnd) {
    ASSERT_EQ(read(tracks_head + "1;0;1;1;1;1;0;1;\n1;1;1;1;1;0;1;\n"
                                 "\"ACTIVE LOG\";010;020;030;3.7;3;\n"
                                 "1;2;\"2007-12-19T12:00:00\";0;100;21.5;\n"
                                 "1.5;2.5;\"2007-12-19T12:00:01.250\";0;101;21;\n\n"
                                 "2;3;\"2007-12-19T12:00:05\";1;102;20;\n"
                                 "\"SECOND\";1;2;3;1;5;\n"
                                 "5;6;\"2008-01-01T00:00:00\";0;55;9;\n"),
              ErrorCode::none);
    EXPECT_EQ(texts<Track>(set_, track_text),
              (std::vector<std::string>{
                  "ACTIVE LOG rgb 10,20,30 w 3 [ 1,2 100m 2007-12-19T12:00:00.000 21.5C 1.5,2.5 "
                  "101m 2007-12-19T12:00:01.250 21C ] [ 2,3 102m 2007-12-19T12:00:05.000 20C ]",
                  "SECOND rgb 1,2,3 w 1 [ 5,6 55m 2008-01-01T00:00:00.000 9C ]"}));

    ASSERT_EQ(read("TRT-V2_Tavoren_Tracklog\nGarmin eTrex 130 A300\n0;0;0;0;0;0;0;1;\n"
                   "1;1;1;1;0;0;0;\n2;\n7;8;\"2009-05-01T10:00:00\";1;\n"
                   "7.5;8.5;'2009-05-01T10:00:10';0;\n"),
              ErrorCode::none);
    EXPECT_EQ(texts<Track>(set_, track_text),
              (std::vector<std::string>{"<null> rgb 255,0,0 w 2 [ 7,8 0m 2009-05-01T10:00:00.000 "
                                        "0C 7.5,8.5 0m 2009-05-01T10:00:10.000 0C ]"}));
}

std::string route_text(const Route& route) {
    std::string text = std::to_string(route.number) + " " + narrow(route.comment) + ":";
    for (int32_t i = 0; i < pair_list_count(route.points); ++i)
        text +=
            " " + waypoint_text(*reinterpret_cast<const Waypoint*>(route.points->pairs[i].value));
    return text;
}

// In a fresh process, so that no earlier file left a latitude in the table.
TEST_F(NativeFormats, RouteWithoutLatitudesLiesOnTheEquator) {
    testing::in_fresh_process([] {
        testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/");
        ObjectId set = 0;
        ds_create(set);
        EXPECT_EQ(read_into(set, "TRR-V2_Tavoren_Route\nGarmin eTrex 130 D201\n1;0;1;0;0;0;1;\n"
                                 "1;1;0;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n"
                                 "3;\"to the sea\";2;\n\"A\";1;\"first\";\n\"B\";2;\"second\";\n"
                                 "4;\"back\";1;\n\"C\";3;\"\";\n"),
                  ErrorCode::none);
        EXPECT_EQ(texts<Route>(set, route_text),
                  (std::vector<std::string>{"3 to the sea: A|first|1,0|alt 0|sym 0|disp 0 "
                                            "B|second|2,0|alt 0|sym 0|disp 0",
                                            "4 back: C||3,0|alt 0|sym 0|disp 0"}));
    });
}

// The three row forms of a logger download, the bare empty time field
// among them, with comment and blank lines between rows.
TEST_F(NativeFormats, NavigationLogRowsAndComments) {
    ASSERT_EQ(read(log_head +
                   "2.000000000000000;48.000000000000000;;;;;;;;;;;;;;;\n"
                   "#a comment between rows\n"
                   "2.1;48.1;\"2010-06-01T08:00:00\";;;;;;12.50000;;;;;;;;\n\n"
                   "2.2;48.2;\"2010-06-01T08:00:05\";;1.5e+02;;;;13.00000;;;;;;;;\n"
                   "1;2;\"2010-06-01T08:00:06.500\";1;100;45.5;3;20;14;270;9;7;1;3;1.2;2;\n"
                   "#the end\n"),
              ErrorCode::none);
    const std::vector<std::string> expected{
        "2,48 - alt 0 eh 0 v 0 c 0 sats 0/0",
        "2.1,48.1 2010-06-01T08:00:00.000 alt 0 eh 0 v 12.5 c 0 sats 0/0",
        "2.2,48.2 2010-06-01T08:00:05.000 alt 150 eh 150 v 13 c 0 sats 0/0",
        "1,2 2010-06-01T08:00:06.500 alt 100 eh 145.5 v 14 c 270 sats 9/7"};
    EXPECT_EQ(texts<NavSample>(set_, sample_text), expected);
    const auto lists = members<PositionList>(set_);
    ASSERT_EQ(lists.size(), 1u);
    std::vector<std::string> listed;
    for (int32_t i = 0; i < pair_list_count(lists[0]->points); ++i)
        listed.push_back(
            sample_text(*reinterpret_cast<const NavSample*>(lists[0]->points->pairs[i].value)));
    EXPECT_EQ(listed, expected) << "the trip's list holds every sample, in order";

    EXPECT_EQ(read(log_head + "#no rows\n\n"), ErrorCode::none);
    EXPECT_EQ(member_count(), 0) << "a set with the GeoReference alone is emptied";
}

TEST_F(NativeFormats, OlderFormatsInSemicircles) {
    ASSERT_EQ(read("TRW-waypoint\nHOME,268435456,536870912,\n,5,1\n"
                   "WORK,-268435456,0,\nthe office,2,0\n"),
              ErrorCode::none);
    EXPECT_EQ(texts<Waypoint>(set_, waypoint_text),
              (std::vector<std::string>{"HOME||22.5,45|alt 0|sym 5|disp 1",
                                        "WORK|the office|-22.5,0|alt 0|sym 2|disp 0"}));

    ASSERT_EQ(read("TRT-tracklog\n268435456,0,0,0\n0,268435456,1,1\n0,0,2,0\n"), ErrorCode::none);
    EXPECT_EQ(texts<Track>(set_, track_text),
              (std::vector<std::string>{"<null> rgb 255,0,0 w 2 [ 0,22.5 0m "
                                        "1989-12-31T00:00:01.000 0C 0,0 0m "
                                        "1989-12-31T00:00:02.000 0C ]"}));
    EXPECT_EQ(ds_count(set_, ObjectType::TrackPoint), 3)
        << "the unflagged first point stands in the set, in no segment";
}

TEST_F(NativeFormats, MalformedFilesLeaveNothing) {
    const std::string all_flags = "1;1;1;1;1;1;1;1;1;1;1;1;1;1;1;1;1;1;1;1;\n";
    const std::string position_flags = "1;1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n";
    struct Row {
        const char* description;
        std::string content;
        ErrorCode error;
    };
    const Row rows[] = {
        {"waypoints flag name and comment only",
         waypoints_head + "1;0;0;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n\"A\";\"B\";\n",
         ErrorCode::invalid_file},
        {"a flag line short of columns", waypoints_head + "1;1;1;\n\"A\";1;2;\n",
         ErrorCode::invalid_file},
        {"a real column holding text", waypoints_head + all_flags + "\"A\";east;2;\n",
         ErrorCode::invalid_file},
        {"a row cut before a string field", waypoints_head + all_flags + "\"A\";1;2;",
         ErrorCode::invalid_file},
        {"a row cut inside its last number", waypoints_head + position_flags + "\"A\";1;2",
         ErrorCode::invalid_file},
        {"a row cut inside a string", waypoints_head + position_flags + "\"A\";1;2;\n\"B",
         ErrorCode::invalid_file},
        {"tracks without the point count", tracks_head + "1;0;0;0;0;0;0;0;\n1;1;0;0;0;0;0;\n",
         ErrorCode::invalid_file},
        {"track points without latitude", tracks_head + "0;0;0;0;0;0;0;1;\n1;0;0;0;0;0;0;\n",
         ErrorCode::invalid_file},
        {"route waypoints without name",
         "TRR-V2_Tavoren_Route\nx\n0;0;0;0;0;0;1;\n0;1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n",
         ErrorCode::invalid_file},
        {"an old waypoint without its second line", "TRW-waypoint\nHOMEPLACE,268435456,536,\n",
         ErrorCode::invalid_file},
        {"an old track row of three fields", "TRT-tracklog\n1,2,3,1\n4,5,6\n7,8,9,0\n",
         ErrorCode::invalid_file},
        {"shorter than the longest magic", "TRW-waypoint\nA,1,2,\n,0,0\n", ErrorCode::file_access},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(read(row.content), row.error);
        EXPECT_EQ(member_count(), 0);
    }
}

// Every prefix of a good file either reads or is invalid, and an invalid one
// leaves nothing; none may read out of bounds (the sanitizer build).
TEST_F(NativeFormats, FilesCutAnywhere) {
    const std::string files[] = {
        waypoints_head + "1;1;1;1;1;1;1;1;1;1;1;0;0;0;0;0;0;0;0;0;\n"
                         "\"CAMP\";2.35;48.85;'x';3;17;1;010;020;030;1.25e+02;\n",
        tracks_head + "1;0;1;1;1;1;0;1;\n1;1;1;1;1;0;1;\n\"T\";1;2;3;3.7;2;\n"
                      "1;2;\"2007-12-19T12:00:00\";0;100;21.5;\n2;3;'2007-12-19T12:00:01';1;1;2;\n",
        log_head + "2.1;48.1;\"2010-06-01T08:00:00\";;;;;;12.5;;;;;;;;\n#c\n1;2;;;;;;;;;;;;;;;\n"};
    for (const std::string& file : files) {
        for (std::size_t length = native_navigation_magic.size(); length < file.size(); ++length) {
            SCOPED_TRACE(file.substr(0, length));
            const ErrorCode error = read(file.substr(0, length));
            EXPECT_TRUE(error == ErrorCode::none || error == ErrorCode::invalid_file);
            if (error != ErrorCode::none) {
                EXPECT_EQ(member_count(), 0);
            }
        }
    }
}

TEST_F(NativeFormats, RecognitionByMagic) {
    EXPECT_EQ(read("TRN-Tavoren_NMEA_logfile\nnothing that is read here\n"), ErrorCode::none);
    EXPECT_EQ(member_count(), 0) << "a native magic without a reader yields nothing";

    EXPECT_EQ(
        read("$PKLNH,NMEA File Header\r\n" +
             testing::with_tails({"$GPRMC,120000,A,4851.000,N,00221.000,E,10.0,90.0,191207,,",
                                  "$GPRMC,120001,A,4851.010,N,00221.000,E,10.0,90.0,191207,,"})),
        ErrorCode::none);
    EXPECT_EQ(ds_count(set_, ObjectType::NavSample), 2) << "an NMEA log goes to the log reader";
    EXPECT_EQ(ds_count(set_, ObjectType::GeoReference), 1);
}

} // namespace
} // namespace norvanta
