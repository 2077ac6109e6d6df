// Bad input as a user meets it: files of each reader cut short or damaged, a
// wrong magic, broken markup, paths that are no regular file, and names with
// blanks and accents. Each ends in its designed answer (unusable content, the
// error word, one line naming the file and the reason), never a crash or a
// hang. And the replay log of a large track leaves memory for its swap file.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/stream.h"
#include "formats/dispatch.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "formats/gpx.h"
#include "replay/conversion.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "support/cli_process.h"
#include "support/gps_store.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

using testing::TestHome;

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

// The private home's configuration, in place before anything reads it: 50
// megabytes is below the floor of the memory budget.
constexpr const char* private_configuration = "MAXMEM 50\n";
constexpr int budget_floor_mb = 100;

const std::string waypoints_head = "TRW-V2_Tavoren_Waypoint\nGarmin eTrex 130 D108\n"
                                   "1;1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n";
const std::string gpx_head = "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\" creator=\"test\">\n";

// A track of count points one second and about ten metres apart, from eight
// in the morning (a time of day 0 would not start an epoch).
std::string track_gpx(int count) {
    std::string text = gpx_head + "<trk><name>long</name><trkseg>\n";
    char row[160];
    for (int i = 0; i < count; ++i) {
        std::snprintf(row, sizeof row,
                      "<trkpt lat=\"%.6f\" lon=\"2.350000\"><ele>35.0</ele>"
                      "<time>2024-01-%02dT%02d:%02d:%02dZ</time></trkpt>\n",
                      48.0 + 0.0001 * i, 1 + i / 57600, (8 + i / 3600) % 24, i / 60 % 60, i % 60);
        text += row;
    }
    return text + "</trkseg></trk></gpx>\n";
}

// Every byte of the file's data, through the stream as any reader gets them.
std::string stream_bytes(ObjectId file) {
    std::string bytes;
    if (open_stream(file, log_buffer_bytes, true) != 0) return bytes;
    bytes.resize(static_cast<std::size_t>(stream_size()));
    read_bytes(bytes.data(), stream_size());
    close_stream(file);
    return bytes;
}

class BadInput : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        const char* private_home = std::getenv("NORVANTA_HOME");
        ASSERT_NE(private_home, nullptr);
        testing::write_file(std::string(private_home) + "norvanta.cfg", private_configuration);
        testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/");
        gpx_init();
    }
    void TearDown() override { set_gblerr(ErrorCode::none); }

    ObjectId file_of(const std::string& content) {
        const std::string path = directory_.file("input" + std::to_string(++files_) + ".dat");
        testing::write_file(path, content);
        return new_file_mobj(no_parent, nullptr, path.c_str(), false);
    }

    TestHome directory_;
    int files_ = 0;
};

// Through the load that every use of a file starts with. A failed load keeps
// its error and leaves no set; unusable content loads as an empty set with no
// error; the information text is built either way without fault.
TEST_F(BadInput, DamagedFilesEndInTheirDesignedAnswer) {
    struct Row {
        const char* description;
        std::string content;
        FileClass file_class;
        ErrorCode error;
    };
    const FileClass gps = FileClass::gps_data;
    const FileClass unusable = FileClass::unusable;
    const std::string comment(4000, 'x');
    const Row rows[] = {
        {"an empty file", "", unusable, ErrorCode::none},
        {"19 bytes of a waypoint file", "TRW-V2_Tavoren_Wayp", unusable, ErrorCode::none},
        {"a waypoint magic with a wrong letter", "TRW-V2_Tavoren_Waypoxnt\nx\n1;1;1;\n", unusable,
         ErrorCode::none},
        {"binary bytes", std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8) + comment, unusable,
         ErrorCode::none},
        {"waypoints cut in the flag line", "TRW-V2_Tavoren_Waypoint\nGarmin\n1;1;1;0;0;", gps,
         ErrorCode::invalid_file},
        {"waypoints cut inside a number", waypoints_head + "\"CAMP\";2.35;48.8", gps,
         ErrorCode::invalid_file},
        {"waypoints cut inside a name", waypoints_head + "\"CAMP\";2.35;48.85;\n\"LA", gps,
         ErrorCode::invalid_file},
        {"a tracklog cut inside a point",
         "TRT-V2_Tavoren_Tracklog\nx\n0;0;0;0;0;0;0;1;\n1;1;0;0;0;0;0;\n2;\n1;2;\n3;", gps,
         ErrorCode::invalid_file},
        {"routes cut inside a waypoint",
         "TRR-V2_Tavoren_Route\nx\n0;0;0;0;0;0;1;\n1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;\n"
         "1;\n\"A\";",
         gps, ErrorCode::invalid_file},
        {"a navigation log cut inside a row",
         "TRN-V3_Tavoren_Navigation_logfile\n1;2;\"2010-06-01T08:00:00\";;;;", gps,
         ErrorCode::invalid_file},
        {"an old waypoint file cut inside its second line",
         "TRW-waypoint\nHOME,268435456,536870912,\nnear the", gps, ErrorCode::invalid_file},
        {"an old tracklog with a row of words", "TRT-tracklog\n1,2,3,1\nfour,five,six,seven\n", gps,
         ErrorCode::invalid_file},
        {"a native file shorter than the longest magic", "TRT-tracklog\n1,2,3,1\n", gps,
         ErrorCode::file_access},
        {"a GPX whose route is named after its first point",
         gpx_head + "<rte><rtept lat=\"1\" lon=\"2\"/><name>late</name></rte></gpx>", gps,
         ErrorCode::invalid_file},
        {"a GPX of broken markup", gpx_head + "<wpt lat=\"1\" lon=\"2\"><name>A</nam<<>&;<</wpt",
         gps, ErrorCode::none},
        {"a GPX cut inside a tag", gpx_head + "<trk><trkseg><trkpt lat=\"4", gps, ErrorCode::none},
        {"XML of another kind", gpx_head.substr(0, 22) + "<svg><path d=\"M0 0\"/></svg>\n",
         unusable, ErrorCode::none},
        {"a GPX root behind 4000 bytes of comment",
         gpx_head.substr(0, 22) + "<!--" + comment + "--><gpx></gpx>\n", unusable, ErrorCode::none},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const ObjectId file = file_of(row.content);
        const ObjectId set = load_file(file, nullptr, true);
        EXPECT_EQ(current_error(), row.error);
        EXPECT_EQ(file_class_of(file), row.file_class);
        if (row.error == ErrorCode::none) {
            EXPECT_NE(set, 0);
            EXPECT_EQ(file_data_set_of(file), set);
        } else {
            EXPECT_EQ(set, 0);
            EXPECT_EQ(file_data_set_of(file), 0) << "a failed load leaves no set";
        }
        set_gblerr(ErrorCode::none);
        describe_file(file, 2);
        const auto* record = find_obj_adr<FileMobj>(file);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(std::string(record->info).rfind("Name\n", 0), 0u) << record->info;
        ObjectId doomed = file;
        del_obj_adr(ObjectType::FileMobj, doomed);
    }
}

// What the user of norvanta-cli sees: one line on standard error naming the
// file and the reason, and status 1; nothing is written for an export that
// fails. A name with blanks and accents is as good as any.
TEST(BadInputCli, NamesTheFileAndTheReason) {
    TestHome home;
    testing::write_file(home.file("norvanta.cfg"), "LANG ENGLISH\n");
    const std::string odd_directory = home.file("trips of été/");
    std::filesystem::create_directories(odd_directory);
    const std::string odd_name = odd_directory + "day one, Zürich.gpx";
    testing::write_file(odd_name, gpx_head + "<wpt lat=\"47.37\" lon=\"8.54\"><name>Zürich</name>"
                                             "</wpt></gpx>\n");
    testing::write_file(home.file("unknown.dat"), std::string(64, '\x01'));
    testing::write_file(home.file("cut.txt"), waypoints_head + "\"CAMP\";2.35;48.8");
    const std::string fifo = home.file("pipe.gpx");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

    struct Row {
        const char* description;
        std::vector<std::string> arguments;
        int status;
        std::string out;
        std::string err;
    };
    const std::string out_log = home.file("out.nmea");
    const Row rows[] = {
        {"blanks and accents in the path", {"--info", odd_name}, 0, odd_name, ""},
        {"its export", {"--export-nmea", odd_name, out_log}, 0, "", ""},
        {"unknown content",
         {"--info", home.file("unknown.dat")},
         1,
         "",
         "unknown.dat: Unkown File Format"},
        {"a file cut short", {"--info", home.file("cut.txt")}, 1, "", "cut.txt: Invalid file"},
        {"a file cut short, exported",
         {"--export-nmea", home.file("cut.txt"), out_log + "2"},
         1,
         "",
         "cut.txt: Invalid file"},
        {"a directory", {"--info", home.path()}, 1, "", ": No access to the file"},
        {"a FIFO, never waited on", {"--info", fifo}, 1, "", "pipe.gpx: No access to the file"},
        {"a missing file",
         {"--info", home.file("gone.gpx")},
         1,
         "",
         "gone.gpx: No access to the file"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const testing::Outcome outcome = testing::run_cli(home, row.arguments);
        EXPECT_TRUE(outcome.exited);
        EXPECT_EQ(outcome.status, row.status) << outcome.err;
        EXPECT_NE(outcome.out.find(row.out), std::string::npos) << outcome.out;
        EXPECT_NE(outcome.err.find(row.err), std::string::npos) << outcome.err;
    }
    EXPECT_NE(testing::read_file(out_log).find("$GPWPL,4722.2000,N,00832.4000,E,"),
              std::string::npos)
        << "the waypoint of the odd path is exported";
    EXPECT_FALSE(testing::file_exists(out_log + "2")) << "a failed export writes nothing";
}

// A file the user may not read is reported as such. Root reads it anyway, so
// the case only holds for an ordinary user.
TEST(BadInputCli, UnreadableFileIsNamed) {
    TestHome home;
    testing::write_file(home.file("norvanta.cfg"), "LANG ENGLISH\n");
    const std::string locked = home.file("locked.gpx");
    testing::write_file(locked, gpx_head + "</gpx>\n");
    ASSERT_EQ(::chmod(locked.c_str(), 0), 0);
    if (::access(locked.c_str(), R_OK) == 0)
        GTEST_SKIP() << "this user reads a file of mode 000 (root): nothing to refuse";
    const testing::Outcome outcome = testing::run_cli(home, {"--info", locked});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("locked.gpx: No access to the file"), std::string::npos)
        << outcome.err;
}

// The replay turns a track into an NMEA log in memory. Once the log is
// loaded, its pages live in their swap file and no longer in memory, and the
// replay's later pass reads them back from there. The configured budget is
// held to its floor.
TEST_F(BadInput, LargeTrackLogLeavesMemoryForItsSwapFile) {
    EXPECT_EQ(max_memory(), budget_floor_mb) << "the private configuration is in effect";
    constexpr int point_count = 20000;
    const std::string path = directory_.file("long.gpx");
    testing::write_file(path, track_gpx(point_count));
    const ObjectId file = testing::disk_file(path);
    ASSERT_NE(file, 0);

    bool done = false;
    bool recognised = false;
    convert_to_nmea(done, recognised, file);
    ASSERT_TRUE(done && recognised);
    const auto* record = find_obj_adr<FileMobj>(file);
    ASSERT_NE(record, nullptr);
    Mobj* log = find_obj_adr<Mobj>(record->memory);
    ASSERT_NE(log, nullptr);
    const int64_t log_bytes = log->size;
    EXPECT_GT(log_bytes, 32 * memory_file_page_bytes) << "the log spans many pages";

    const std::string written = stream_bytes(file);
    const int64_t resident_before = resident_page_bytes();
    const ObjectId set = load_file(file, nullptr, false);
    ASSERT_NE(set, 0);
    EXPECT_EQ(ds_count_tree(set, ObjectType::NavSample), point_count);
    log = find_obj_adr<Mobj>(find_obj_adr<FileMobj>(file)->memory);
    ASSERT_NE(log, nullptr);
    int64_t swapped_bytes = 0;
    for (int32_t number = 0; number < swap_file_count(*log); ++number) {
        std::error_code error;
        swapped_bytes +=
            static_cast<int64_t>(std::filesystem::file_size(swap_file_name(*log, number), error));
    }
    EXPECT_EQ(swapped_bytes, log_bytes) << "every page is in a swap file";
    EXPECT_LE(resident_page_bytes(), resident_before - log_bytes + memory_file_page_bytes)
        << "and out of memory";
    EXPECT_TRUE(stream_bytes(file) == written) << "the log reads back whole from swap";

    build_nav_points(file);
    EXPECT_EQ(ds_count_tree(set, ObjectType::NavPoint), point_count - 2)
        << "the replay's pass over the swapped log: the first epoch has no speed yet, and the "
           "last never closes";
    ObjectId doomed = file;
    del_obj_adr(ObjectType::FileMobj, doomed);
}

} // namespace
} // namespace norvanta
