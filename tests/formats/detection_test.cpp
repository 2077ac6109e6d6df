// Tests of format detection: every signature on a real sample where one
// exists and on the bytes it names otherwise, the near misses, the quirks of
// the text search, containers and web addresses through stand-in hooks, and
// sources that cannot be read.
#include "formats/detection.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "navigation/nmea_parser.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

const std::string sample_dir = std::string(NORVANTA_TEST_DATA_DIR) + "/formats/";

using F = FileFormat;
constexpr FileClass R = FileClass::raster;
constexpr FileClass V = FileClass::vector;
constexpr FileClass G = FileClass::gps_data;
constexpr FileClass L = FileClass::file_list;
constexpr FileClass C = FileClass::compressed;
constexpr FileClass U = FileClass::unusable;

struct Expected {
    FileClass file_class;
    FileFormat format;
    int32_t lazy_load;
};
constexpr Expected unusable{U, F::none, 0};

// Format and lazy_load say nothing once the class is unusable.
std::string shown(FileClass file_class, FileFormat format, int32_t lazy_load) {
    std::string text = "class " + std::to_string(static_cast<int>(file_class));
    if (file_class == U) return text;
    return text + " format " + std::to_string(static_cast<int>(format)) + " lazy " +
           std::to_string(lazy_load);
}
std::string shown(const Expected& expected) {
    return shown(expected.file_class, expected.format, expected.lazy_load);
}

// Bytes padded with blanks to 64, so that no row trips over the smallest size.
std::string padded(std::string head) {
    if (head.size() < 64) head.append(64 - head.size(), ' ');
    return head;
}

// The configuration is named once (a name given to the configuration is kept
// for the life of the process) and written anew by each test.
const std::string& configuration_file() {
    static const testing::TestHome directory;
    static const std::string path = [] {
        const std::string file = directory.file("norvanta.cfg");
        testing::write_file(file, "");
        config_use_file(file.c_str());
        return file;
    }();
    return path;
}

class Detection : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        object_store_create();
        file_objects_init();
        configuration_file();
    }
    void SetUp() override {
        set_gblerr(ErrorCode::none);
        use_configuration("");
    }
    void TearDown() override {
        set_archive_hooks(nullptr);
        set_web_hooks(nullptr);
        set_gblerr(ErrorCode::none);
        for (ObjectId id : files_)
            del_obj(ObjectType::FileMobj, id);
        use_configuration("");
    }

    static void use_configuration(const std::string& text) {
        testing::write_file(configuration_file(), text);
    }
    ObjectId kept(ObjectId id) {
        files_.push_back(id);
        return id;
    }
    ObjectId file_at(const std::string& path) {
        return kept(new_file_mobj(no_parent, nullptr, path.c_str(), false));
    }
    ObjectId written(const std::string& name, const std::string& bytes) {
        testing::write_file(dir_.file(name), bytes);
        return file_at(dir_.file(name));
    }
    static FileMobj& record(ObjectId id) { return *find_obj_adr<FileMobj>(id); }
    static std::string result_of(ObjectId id) {
        const FileMobj& file = record(id);
        return shown(file.file_class, file.format, file.lazy_load);
    }
    std::string detected(ObjectId id, ObjectId data_set = 0, bool nested = false) {
        detect_format(id, data_set, nested);
        EXPECT_FALSE(error_pending()) << "detection leaves gblerr clear";
        return result_of(id);
    }

    testing::TestHome dir_;
    std::vector<ObjectId> files_;
};

TEST_F(Detection, RealSamplesAndTheirNearMisses) {
    struct Row {
        const char* file;
        Expected expected;
        const char* legend;
    };
    const Row rows[] = {
        {"gpxpassthrough10.gpx", {G, F::gpx, 1}, "GPX root after the XML declaration"},
        {"basecamp.gpx", {G, F::gpx, 1}, "a byte order mark hides the declaration from the magic"},
        {"opentracks.kml", {V, F::kml, 1}, "KML root"},
        {"kona2013.tcx", {G, F::garmin_xml, 1}, "TrainingCenterDatabase root"},
        {"garmin_logbook.xml", {G, F::garmin_xml, 1}, "History root"},
        {"max-requests-exceeded.xml", {V, F::geonames, 1}, "geonames root"},
        {"barnet.xml", unusable, "a geoname root is not a geonames answer"},
        {"ozitracks-gpx.plt", {G, F::ozi, 1}, "OziExplorer Track"},
        {"ozi.rte", {G, F::ozi, 1}, "OziExplorer Route"},
        {"pcx.trk", {G, F::pcx5, 1}, "PCX5 line on the second line"},
        {"gpsutil-1.pcx", unusable, "GPS Utility text is not PCX5"},
        {"magexplorist.rte", {G, F::magellan_log, 1}, "Magellan waypoint sentences"},
        {"mapsend.trk", {G, F::mapsend, 1}, "Mapsend magic"},
        {"sample.gtm", {G, F::trackmaker_211, 1}, "TrackMaker at offset 2"},
        {"lowrance.usr", {G, F::lowrance_usr, 1}, "USR version 2 word"},
        {"lowrance-v3.usr", unusable, "USR version 3 has no signature here"},
        {"alanwpr.wpr", {G, F::mapshow_wpr, 1}, "ALAN waypoints magic"},
        {"holux.wpo", {G, F::mapshow_wpo, 1}, "Holux waypoints magic"},
        {"alantrl.trl", {G, F::mapshow_trl, 1}, "no magic at the start: the extension decides"},
        {"small.mif", {V, F::mapinfo, 1}, "MapInfo 'Version 300'"},
        {"gis.osm_railways_free_1.shp", {V, F::shapefile, 1}, "shapefile, record 1 at 100"},
        {"gis.osm_railways_free_1.shx", unusable, "the index's word at 100 is 50"},
        {"ggv_ovl.ovl", {V, F::ascii_overlay, 1}, "[Symbol 1]"},
        {"ggv_bin-sample-v2.ovl", unusable, "the binary overlay is not the ASCII one"},
        {"waypoints.nmea.gz", {C, F::gzip, 1}, "GZip, no archive module to open it"},
        {"bundle-deflate.zip", {C, F::zip, 1}, "Zip, no archive module to list it"},
        {"garmin17n.log", {G, F::nmea_log, 1}, "NMEA sentences without a header"},
        {"garmin38-with-header.log", {G, F::nmea_log, 1}, "NMEA after comment lines"},
        {"humminbird-M37.log", unusable, "fixes of talker IN only"},
        {"nmea_utf16.nmea", unusable, "UTF-16 puts a NUL between the letters"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.file) + ": " + row.legend);
        EXPECT_EQ(detected(file_at(sample_dir + row.file)), shown(row.expected));
    }
}

TEST_F(Detection, SignaturesWithoutASample) {
    struct Row {
        const char* legend;
        std::string bytes;
        Expected expected;
    };
    const std::string xml = "<?xml version=\"1.0\"?>\n";
    const Row rows[] = {
        {"JPEG", padded("\xFF\xD8\xFF\xE0"), {R, F::jpeg, 1}},
        {"TIFF, little-endian", padded(std::string("II*\0", 4)), {R, F::tiff, 1}},
        {"TIFF, big-endian, byte 2 not compared", padded("MM\x7F*"), {R, F::tiff, 1}},
        {"PNG", padded("\x89PNG\r\n"), {R, F::png, 0}},
        {"Sun raster", padded("\x59\xA6\x6A\x95"), {R, F::sun_raster, 0}},
        {"PCX, byte 2 zero", padded(std::string("\x0A\x05\x00", 3)), {R, F::pcx, 0}},
        {"ECW", padded("\x65\x02\x01"), {R, F::ecw, 1}},
        {"SGI", padded("\x01\xDA"), {R, F::sgi, 0}},
        {"Holux TRK", padded("\xA2\x12\xCB\x38"), {G, F::mapshow_trk, 1}},
        {"BM", padded("BM"), {R, F::bitmap, 0}},
        {"GIF", padded("GIF89a"), {R, F::gif, 0}},
        {"P1", padded("P1\n"), {R, FileFormat{6}, 0}},
        {"BSB/ at the start", padded("BSB/NA=chart"), {R, F::bsb, 0}},
        {"BSB/ further on, by the text search", padded("VER/3.0\r\nBSB/NA=chart"), {R, F::bsb, 1}},
        {"msid: the decoder is off", padded("msid"), unusable},
        {"XPM comment after blanks", padded(" \n/*  XPM */"), {R, F::xpm, 0}},
        {"APRS", padded("APRS"), {V, F::winaprs_map, 1}},
        {"TGR ", padded("TGR "), {V, F::winaprs_map, 1}},
        {"GPS TrackMaker text", padded("Version,212\n"), {G, F::trackmaker_212, 1}},
        {"TRT-tracklog", padded("TRT-tracklog\n"), {G, F::tavoren_tracklog_v1, 1}},
        {"TRT-V2", padded("TRT-V2_Tavoren_Tracklog\n"), {G, F::tavoren_tracklog, 1}},
        {"TRN v1", padded("TRN-Tavoren_NMEA_logfile\n"), {G, F::tavoren_nmea_log_v1, 1}},
        {"TRR-V2", padded("TRR-V2_Tavoren_Route\n"), {G, F::tavoren_routes, 1}},
        {"NMEA file header", padded("$PKLNH,NMEA File Header\n"), {G, F::nmea_log, 1}},
        {"Emtac", padded("$PEMT16,1\n"), {G, F::emtac_log, 1}},
        {"TRN-V3", padded("TRN-V3_Tavoren_Navigation_logfile\n"), {G, F::tavoren_navigation, 1}},
        {"FileList, no data set", padded("FileList V1.0\n"), {L, F::file_list_v1, 1}},
        {"TavFileList, no data set", padded("TavFileList V2.0\n"), {L, F::tav_file_list, 1}},
        {"$PMGN of a receiver's status is NMEA",
         padded("$PMGNST,02.12,3,T,534,05.0,+03327,00*40\n"),
         {G, F::nmea_log, 1}},
        {"$PMGNTRK is Magellan",
         padded("$PMGNTRK,4122.991,N,08244.336,W,00190,M*67\n"),
         {G, F::magellan_log, 1}},
        {"OziExplorer map", padded("OziExplorer Map Data File Version 2.2\n"), {R, F::ozi_map, 0}},
        {"OziExplorer CE waypoints",
         padded("OziExplorer CE Waypoint File Version 1.1\n"),
         {G, F::ozi, 1}},
        {"OziExplorer, unknown word", padded("OziExplorer Palette File\n"), unusable},
        {"XML, Placemark without kml", padded(xml + "<Placemark><name>a</name>"), {V, F::kml, 1}},
        {"XML, HistoryDatabase", padded(xml + "<HistoryDatabase>"), {G, F::garmin_xml, 1}},
        {"XML, unknown root", padded(xml + "<svg width=\"1\"/>"), unusable},
        {"HTML", padded("<!DOCTYPE x>\n<html><body>"), {FileClass::web_page, F::none, 1}},
        {"HTML in upper case, folded", padded("<HTML><BODY>"), {FileClass::web_page, F::none, 1}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        EXPECT_EQ(detected(written("sample.bin", row.bytes)), shown(row.expected));
    }
}

TEST_F(Detection, BoundariesAndQuirks) {
    struct Row {
        const char* legend;
        const char* name;
        std::string bytes;
        Expected expected;
    };
    auto shapefile = [](int32_t record_number, std::size_t size) {
        std::string bytes(size, '\0');
        bytes.replace(0, 4, "\x00\x00\x27\x0A", 4);
        for (int i = 0; i < 4; ++i)
            bytes[100 + i] = static_cast<char>((record_number >> (24 - 8 * i)) & 0xFF);
        return bytes;
    };
    const std::string comment = "<!--" + std::string(4000, '-') + "-->";
    const Row rows[] = {
        {"19 bytes are too few, whatever they say", "a.log", "$GPRMC,1,A,2,N,3,E\n", unusable},
        {"20 bytes are enough", "a.log", "$GPRMC,1,A,2,N,3,E,\n", {G, F::nmea_log, 1}},
        {"NMEA past the first 4000 bytes", "a.log", std::string(4000, ' ') + "$GPRMC,1,A\n",
         unusable},
        {"<gpx behind a long comment", "a.gpx", "<?xml version=\"1.0\"?>" + comment + "<gpx>",
         unusable},
        {"<gpx behind a short comment",
         "a.gpx",
         "<?xml version=\"1.0\"?><!-- -->\n<gpx>\n",
         {G, F::gpx, 1}},
        {"'version ' is MapInfo whatever the name",
         "a.gpx",
         padded("VERSION 300\n"),
         {V, F::mapinfo, 1}},
        {"'version' and a letter", "a.txt", padded("versions\n"), unusable},
        {"shapefile, record number 49", "a.shp", shapefile(49, 200), {V, F::shapefile, 1}},
        {"shapefile magic, record number 50", "a.shp", shapefile(50, 200), unusable},
        {"shapefile magic, 110 bytes", "a.shp", shapefile(1, 110), unusable},
        {"extension tga, no magic", "picture.tga", padded("no magic"), {R, F::targa, 0}},
        {"extension in upper case", "TRACK.TRL", padded("no magic"), {G, F::mapshow_trl, 1}},
        {"a match starts over after a mismatch: '<<html' holds no '<html'", "a.txt",
         padded("<<html>"), unusable},
        {"a byte under 9 ends the search as binary", "a.txt", padded("\x01<html>"), unusable},
        {"a match ending on the last byte does not count", "a.txt", "a first line\nI  PCX5",
         unusable},
        {"one byte more and it counts", "a.txt", "a first line\nI  PCX5\n", {G, F::pcx5, 1}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        EXPECT_EQ(detected(written(row.name, row.bytes)), shown(row.expected));
    }
    ASSERT_EQ(::mkdir(dir_.file("maps.trl").c_str(), 0700), 0);
    EXPECT_EQ(detected(written("maps.trl/plain", padded("no magic"))), shown(unusable))
        << "a dot in a directory's name is no extension";
}

TEST_F(Detection, AnyTalkerOnlyWithTheConfigurationKey) {
    const std::string foreign = sample_dir + "humminbird-M37.log";
    EXPECT_EQ(detected(file_at(foreign)), shown(unusable)) << "GP only by default";
    use_configuration(std::string(any_talker_key) + "\n");
    EXPECT_EQ(detected(file_at(foreign)), shown({G, F::nmea_log, 1})) << "any talker with the key";
    EXPECT_EQ(detected(written("maker.log", padded("$PZRMC,1,2,3\n$PZGGA,1\n"))), shown(unusable))
        << "P opens a maker's sentence, not a talker";
}

TEST_F(Detection, OnlyFilesAndAddressesAreExamined) {
    const ObjectId directory = file_at(dir_.path());
    EXPECT_EQ(detected(directory), shown({FileClass::directory, F::none, 0}));

    const ObjectId ecw = file_at("ecwp://server/image.ecw");
    EXPECT_EQ(detected(ecw), shown({FileClass::ecwp_url, F::ecw, 1}));

    const ObjectId url = file_at("http://localhost/track.gpx");
    ObjectId set = 0;
    ds_create(set);
    ds_add(set, ObjectType::FileMobj, directory);
    EXPECT_EQ(detect_format(url, set, false), url);
    EXPECT_EQ(result_of(url), shown(unusable)) << "no web module to fetch it";
    EXPECT_EQ(ds_count(set, ObjectType::None), 0) << "the set's members are dropped";
    ds_destroy(set);
}

TEST_F(Detection, SourcesThatCannotBeReadNeverHang) {
    const std::string fifo = dir_.file("pipe.gpx");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const ObjectId pipe = file_at(fifo);
    EXPECT_EQ(result_of(pipe), shown({FileClass::unchecked, F::none, 0})) << "examination";
    EXPECT_EQ(detected(pipe), shown({FileClass::unchecked, F::none, 0})) << "not examined";
    record(pipe).file_class = FileClass::regular_file;
    record(pipe).size = 100;
    EXPECT_EQ(detected(pipe), shown(unusable)) << "a FIFO taken for a file is not opened";

    const ObjectId directory = file_at(dir_.path());
    record(directory).file_class = FileClass::regular_file;
    EXPECT_EQ(detected(directory), shown(unusable)) << "a directory taken for a file";

    const ObjectId gone = written("gone.gpx", padded("<?xml version=\"1.0\"?><gpx>"));
    std::remove(dir_.file("gone.gpx").c_str());
    EXPECT_EQ(detected(gone), shown(unusable)) << "removed after examination";
}

TEST_F(Detection, MemoryFilesAreDetectedFromTheirBlock) {
    const ObjectId memory = kept(new_memory_file());
    const std::string log = "$GPGGA,120000,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,,,*47\r\n";
    append_bytes(*find_obj_adr<Mobj>(record(memory).memory), log.data(),
                 static_cast<int32_t>(log.size()));
    EXPECT_EQ(detected(memory), shown({G, F::nmea_log, 1}));
}

// ---- containers and web pages, through stand-in hooks ----

struct HookLog {
    std::vector<ObjectId> files;
    std::vector<int32_t> limits;
    std::string content; // what an expansion writes into the file's memory
    bool fail = false;
};
HookLog hook_log;

void expand_into_memory(ObjectId id, int32_t limit) {
    hook_log.files.push_back(id);
    hook_log.limits.push_back(limit);
    if (hook_log.fail) {
        set_gblerr(ErrorCode::invalid_file);
        return;
    }
    auto* file = find_obj_adr<FileMobj>(id);
    if (file->memory != 0) del_obj(ObjectType::Mobj, file->memory);
    Mobj* block = cre_memory_block(file->memory);
    append_bytes(*block, hook_log.content.data(), static_cast<int32_t>(hook_log.content.size()));
    file->archive_opened = 1;
}

void list_members(ObjectId archive, ObjectId data_set) {
    hook_log.files.push_back(archive);
    ds_add(data_set, ObjectType::FileMobj, archive);
}

ObjectId load_nothing(ObjectId file, ObjectId) {
    hook_log.files.push_back(file);
    return 0;
}

ObjectId redirected_to = 0;
ObjectId load_redirected(ObjectId file, ObjectId) {
    hook_log.files.push_back(file);
    return redirected_to;
}

void gather_links(ObjectId page, ObjectId) {
    hook_log.files.push_back(page);
}

constexpr ArchiveHooks test_archive_hooks{expand_into_memory, list_members, expand_into_memory};

class Containers : public Detection {
  protected:
    void SetUp() override {
        Detection::SetUp();
        hook_log = HookLog{};
        set_archive_hooks(&test_archive_hooks);
    }
};

TEST_F(Containers, GzipIsExpandedAndDetectedOnItsContent) {
    hook_log.content = padded("<?xml version=\"1.0\"?>\n<gpx version=\"1.1\">");
    const ObjectId packed = file_at(sample_dir + "waypoints.nmea.gz");
    EXPECT_EQ(detected(packed), shown({G, F::gpx, 1}));
    const FileMobj& file = record(packed);
    EXPECT_STREQ(file.archive_path, file.path);
    EXPECT_EQ(file.is_member, 1);
    EXPECT_EQ(file.container_class, container_class_compressed);
    EXPECT_EQ(file.container_format, F::gzip);
    EXPECT_EQ(file.member_size, 188) << "the packed file's size";
    EXPECT_EQ(hook_log.limits, std::vector<int32_t>{1024}) << "a first run expands a probe";

    const ObjectId nested = file_at(sample_dir + "waypoints.nmea.gz");
    detected(nested, 0, true);
    EXPECT_EQ(hook_log.limits.back(), 0) << "a nested run expands all";
}

TEST_F(Containers, AFailedOrEndlessExpansionIsUnusable) {
    hook_log.fail = true;
    EXPECT_EQ(detected(file_at(sample_dir + "waypoints.nmea.gz")), shown(unusable));

    hook_log = HookLog{};
    hook_log.content = testing::read_file(sample_dir + "waypoints.nmea.gz");
    EXPECT_EQ(detected(file_at(sample_dir + "waypoints.nmea.gz")), shown(unusable))
        << "a GZip file that expands to GZip again, for ever";
    EXPECT_EQ(hook_log.limits.size(), 8u);
}

TEST_F(Containers, ZipIsListedOnlyIntoADataSetAndNeverFromTheWeb) {
    const std::string zip = sample_dir + "bundle-deflate.zip";
    EXPECT_EQ(detected(file_at(zip)), shown({C, F::zip, 1}));
    EXPECT_TRUE(hook_log.files.empty()) << "nothing to list into";

    ObjectId set = 0;
    ds_create(set);
    const ObjectId archive = file_at(zip);
    EXPECT_EQ(detected(archive, set), shown({C, F::zip, 1}));
    EXPECT_EQ(hook_log.files, std::vector<ObjectId>{archive});
    EXPECT_EQ(ds_count(set, ObjectType::FileMobj), 1);

    const ObjectId from_web = file_at(zip);
    record(from_web).url_flags = 1;
    EXPECT_EQ(detected(from_web, set), shown(unusable)) << "an archive from the web";
    EXPECT_EQ(hook_log.files.size(), 1u);
    ds_destroy(set);
}

TEST_F(Containers, AZipMemberIsExpandedBeforeItIsLookedAt) {
    hook_log.content = padded("$GPRMC,120000,A,4807.038,N,01131.000,E,0,0,010100,,*00\r\n");
    const ObjectId member = file_at(sample_dir + "bundle-deflate.zip");
    FileMobj& file = record(member);
    str_copy(file.path, file.archive_path);
    file.is_member = 1;
    file.container_class = container_class_compressed;
    file.container_format = F::zip;
    file.member_offset = 100;
    file.member_size = 333;
    EXPECT_EQ(detected(member), shown({G, F::nmea_log, 1}));
    EXPECT_EQ(hook_log.limits, std::vector<int32_t>{300});
}

TEST_F(Containers, WebAddressesGoThroughTheWebModule) {
    constexpr WebHooks failing{load_nothing, gather_links};
    constexpr WebHooks redirecting{load_redirected, gather_links};
    const ObjectId url = file_at("http://localhost/a.gpx");
    set_web_hooks(&failing);
    EXPECT_EQ(detect_format(url, 0, false), url);
    EXPECT_EQ(result_of(url), shown(unusable));

    set_web_hooks(&redirecting);
    record(url).file_class = FileClass::http_url;
    redirected_to = file_at("http://localhost/b.gpx");
    EXPECT_EQ(detect_format(url, 0, false), redirected_to);

    ObjectId set = 0;
    ds_create(set);
    hook_log.files.clear();
    const ObjectId page = written("page.htm", padded("<html><a href=\"x.gpx\">"));
    EXPECT_EQ(detected(page, set), shown({FileClass::web_page, F::none, 1}));
    EXPECT_EQ(hook_log.files, std::vector<ObjectId>{page}) << "the links are gathered";
    ds_destroy(set);
}

TEST(FormatNames, TheNameTableStandsOneAboveItsFormats) {
    struct Row {
        int32_t format;
        const char* name;
    };
    const Row rows[] = {
        {24, ""},
        {25, "ESRI Shapefile"},
        {29, ""},
        {55, "TavFileList "},
        {67, "Geography Markup Language"},
        {68, ""},
    };
    for (const Row& row : rows)
        EXPECT_STREQ(format_name(FileFormat{row.format}), row.name) << "format " << row.format;
}

} // namespace
} // namespace norvanta
