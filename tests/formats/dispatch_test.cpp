// Tests of the load dispatcher: a set is loaded once, a failed reader leaves
// nothing behind, the classes and formats without a reader, on-demand
// requests, file lists, and the information text in both languages.
#include "formats/dispatch.h"

#include <cstdint>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "shell/errors.h"
#include "support/gps_store.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

constexpr int french = 1;
constexpr int english = 2;

const std::string waypoints = "TRW-V2_Tavoren_Waypoint\nGarmin eTrex 130 D103\n"
                              "1;1;1;1;1;1;1;0;0;0;0;0;0;0;0;0;0;0;0;0;\n"
                              "\"A\";2.35;48.85;\"\";0;0;0;\n\"B\";2.4;48.9;\"\";3;3;0;\n";
const std::string tracklog =
    "TRT-V2_Tavoren_Tracklog\nGarmin eTrex 130 A300\n0;0;0;0;0;0;0;1;\n"
    "1;1;1;1;0;0;0;\n3;\n1;2;\"2009-05-01T10:00:00\";1;\n"
    "1.1;2.1;\"2009-05-01T10:00:05\";0;\n1.2;2.2;\"2009-05-01T10:00:09\";1;\n";
const std::string navigation_log =
    "TRN-V3_Tavoren_Navigation_logfile\n#Globalsat Data Logger ID 7\n"
    "1;2;\"2010-06-01T08:00:00\";;;;;;12.5;;;;;;;;\n"
    "1.1;2.1;\"2010-06-01T08:00:05\";;;;;;12.5;;;;;;;;\n";
const std::string nmea_log =
    "$PKLNH,NMEA File Header\r\n" +
    testing::with_tails({"$GPRMC,120000,A,4851.000,N,00221.000,E,10.0,90.0,191207,,",
                         "$GPRMC,120001,A,4851.010,N,00221.000,E,10.0,90.0,191207,,"});

class Dispatch : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/");
        load_symbol_images(NORVANTA_SYSTEM_SOURCE_DIR "/");
    }
    void TearDown() override { set_gblerr(ErrorCode::none); }

    // A new file of this content, not looked at yet.
    ObjectId file_of(const std::string& content, std::string* path_out = nullptr) {
        const std::string path = directory_.file("file" + std::to_string(++files_) + ".txt");
        testing::write_file(path, content);
        if (path_out) *path_out = path;
        return testing::disk_file(path);
    }
    // A file whose class and format are set by hand, with no content.
    static ObjectId file_as(FileClass file_class, FileFormat format) {
        const ObjectId id = new_file_mobj(no_parent, nullptr, "/nonexistent/file.dat", false);
        auto* file = find_obj_adr<FileMobj>(id);
        file->file_class = file_class;
        file->format = format;
        return id;
    }

    testing::TestHome directory_;
    int files_ = 0;
};

TEST_F(Dispatch, LoadsOnceThenReturnsTheSameSet) {
    std::string path;
    const ObjectId file = file_of(waypoints, &path);
    const ObjectId set = load_file(file, nullptr, false);
    ASSERT_NE(set, 0);
    EXPECT_EQ(ds_count(set, ObjectType::Waypoint), 2);
    EXPECT_EQ(find_obj_adr<FileMobj>(file)->info, nullptr);

    ::unlink(path.c_str());
    EXPECT_EQ(load_file(file, nullptr, true), set) << "nothing is read again";
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_NE(find_obj_adr<FileMobj>(file)->info, nullptr) << "the text is built when wanted";

    ObjectId gone = set;
    ds_delete_tree(gone);
    ds_destroy(gone);
    EXPECT_EQ(load_file(file, nullptr, false), 0);
    EXPECT_EQ(current_error(), ErrorCode::file_access)
        << "a deleted set is forgotten, and the file, read anew, is gone";
    EXPECT_EQ(file_data_set_of(file), 0);
}

TEST_F(Dispatch, FailedReaderLeavesNoSet) {
    const ObjectId file = file_of("TRW-V2_Tavoren_Waypoint\nx\n1;0;0;1;0;0;0;0;0;0;0;0;0;0;0;0;"
                                  "0;0;0;0;\n\"A\";\"B\";\n");
    for (int attempt = 1; attempt <= 2; ++attempt) {
        SCOPED_TRACE(attempt);
        EXPECT_EQ(load_file(file, nullptr, true), 0);
        EXPECT_EQ(current_error(), ErrorCode::invalid_file);
        EXPECT_EQ(file_data_set_of(file), 0);
        set_gblerr(ErrorCode::none);
    }
}

TEST_F(Dispatch, ClassesAndFormatsWithoutAReader) {
    struct Row {
        const char* description;
        FileClass file_class;
        FileFormat format;
        ErrorCode error_before;
        ErrorCode error_after;
        bool empty_set;
    };
    const Row rows[] = {
        {"unusable content", FileClass::unusable, FileFormat::none, ErrorCode::none,
         ErrorCode::none, true},
        {"an error pending on entry is cleared", FileClass::unusable, FileFormat::none,
         ErrorCode::invalid_file, ErrorCode::none, false},
        {"a vector format no reader handles", FileClass::vector, FileFormat::s57, ErrorCode::none,
         ErrorCode::unknown_format, false},
        {"a GPS reader not written yet", FileClass::gps_data, FileFormat::ozi, ErrorCode::none,
         ErrorCode::unknown_format, false},
        {"an image", FileClass::raster, FileFormat::png, ErrorCode::none, ErrorCode::unknown_format,
         false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const ObjectId file = file_as(row.file_class, row.format);
        set_gblerr(row.error_before);
        const ObjectId set = load_file(file, nullptr, false);
        EXPECT_EQ(current_error(), row.error_after);
        set_gblerr(ErrorCode::none);
        EXPECT_EQ(set != 0, row.empty_set);
        EXPECT_EQ(file_data_set_of(file), set);
        if (row.empty_set) {
            EXPECT_EQ(ds_count(set, ObjectType::None), 0);
        }
    }
}

TEST_F(Dispatch, RequestOnAFileNotReadOnDemand) {
    const ObjectId file = file_as(FileClass::unusable, FileFormat::none);
    int32_t request = 1;
    EXPECT_EQ(load_file(file, &request, false), 0);
    EXPECT_EQ(request, -1);
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_EQ(file_data_set_of(file), 0);

    request = 0;
    EXPECT_NE(load_file(file, &request, false), 0) << "no request loads as usual";
}

TEST_F(Dispatch, FileListMembersBecomeItsSet) {
    std::string first;
    std::string second;
    file_of(waypoints, &first);
    file_of(tracklog, &second);
    const ObjectId list = file_of("FileList V1.0\n" + first + "\n" + second + "\n");
    const ObjectId set = load_file(list, nullptr, false);
    EXPECT_EQ(ds_count(set, ObjectType::FileMobj), 2);
    EXPECT_EQ(file_class_of(list), FileClass::file_list);
}

TEST_F(Dispatch, GpxGoesToItsReader) {
    const ObjectId file = file_of("<?xml version=\"1.0\"?>\n<gpx version=\"1.1\" creator=\"t\">"
                                  "<wpt lat=\"48.85\" lon=\"2.35\"><name>A</name></wpt></gpx>\n");
    const ObjectId set = load_file(file, nullptr, false);
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_EQ(ds_count(set, ObjectType::Waypoint), 1);
}

TEST_F(Dispatch, DescribesFilesInBothLanguages) {
    struct Row {
        const char* description;
        const std::string& content;
        int language;
        const char* text; // after the name and the path
    };
    const Row rows[] = {
        {"waypoints with their symbol images", waypoints, english,
         "\nFormat\nTavoren Waypoints\nTotal number of objects\n5\nNumber of images\n2"
         "\nNumber of waypoints\n2"},
        {"waypoints with their symbol images", waypoints, french,
         "\nFormat\nTavoren Waypoints\nNombre total d'objets\n5\nNombre d'images\n2"
         "\nNombre de waypoints\n2"},
        {"a tracklog has no waypoint line", tracklog, english,
         "\nFormat\nTavoren Trackpoints\nTotal number of objects\n7\nNumber of tracklogs\n1"
         "\nNumber of tracksegments\n2\nNumber of trackpoints\n3"},
        {"a navigation log counts as waypoints and tracks, so only the total shows", navigation_log,
         english, "\nFormat\nTavoren Navigation\nTotal number of objects\n4"},
        {"an NMEA log counts its positions", nmea_log, french,
         "\nFormat\nNMEA log\nNombre total d'objets\n4\nNombre de positions GPS\n2"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        std::string path;
        const ObjectId file = file_of(row.content, &path);
        ASSERT_NE(load_file(file, nullptr, false), 0);
        describe_file(file, row.language);
        const char* name = row.language == french ? "Nom\n" : "Name\n";
        EXPECT_EQ(find_obj_adr<FileMobj>(file)->info, name + path + row.text);
    }

    std::string path;
    const ObjectId packed = file_of(tracklog, &path);
    load_file(packed, nullptr, false);
    find_obj_adr<FileMobj>(packed)->container_class = container_class_compressed;
    find_obj_adr<FileMobj>(packed)->container_format = FileFormat::gzip;
    describe_file(packed, english);
    const std::string packed_head = "Name\n" + path + "\nCompression\nGzip\nFormat\n";
    EXPECT_EQ(std::string(find_obj_adr<FileMobj>(packed)->info).substr(0, packed_head.size()),
              packed_head);

    const ObjectId unusable = file_as(FileClass::unusable, FileFormat::none);
    load_file(unusable, nullptr, false);
    describe_file(unusable, english);
    EXPECT_STREQ(find_obj_adr<FileMobj>(unusable)->info, "Name\n/nonexistent/file.dat");
}

} // namespace
} // namespace norvanta
