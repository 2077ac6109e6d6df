// Format detection: the magic table over the first 64 bytes, the text
// sniffers over the first 4000, the XML roots, the OziExplorer refinement, the
// extension rows, and the format names.
//
// The run over a regular file, in order: a file under 20 bytes is unusable;
// an unopened Zip member is expanded; the magic table decides what it can;
// containers are listed or expanded, and an expanded GZip file is detected
// again on its content; file lists are read; XML is refined by its root;
// OziExplorer text by the word after its signature; whatever is still
// unknown goes through the text sniffers and last the extension.
#include "formats/detection.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <string_view>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "core/strings.h"
#include "navigation/nmea_parser.h"
#include "shell/config.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

using namespace std::string_view_literals;

// Sizes of the run.
constexpr int32_t smallest_detectable_bytes = 20;
constexpr int32_t detection_buffer_bytes = 4096;
constexpr int32_t magic_block_bytes = 64;
constexpr int32_t text_search_bytes = 4000;
// How much of a container is expanded to recognise its content, on a first
// run; a nested run expands all.
constexpr int32_t zip_member_probe_bytes = 300;
constexpr int32_t gzip_probe_bytes = 1024;
// A GZip file whose content is GZip again is expanded this many times at most:
// a file that expands to itself would otherwise never end.
constexpr int container_depth_limit = 8;

// The switch of the MrSID decoder, which this program does not carry.
constexpr bool mrsid_switch_on = false;
// Raster formats that the image module lists but cannot read.
constexpr std::array unreadable_raster_formats = {FileFormat{17}, FileFormat{19}, FileFormat{24}};

std::atomic<const ArchiveHooks*> archive_hooks{nullptr};
std::atomic<const WebHooks*> web_hooks{nullptr};

// What a stage decided.
struct Verdict {
    FileClass file_class;
    FileFormat format;
    int32_t lazy_load;
};

void apply(FileMobj& file, const Verdict& verdict) {
    file.file_class = verdict.file_class;
    file.format = verdict.format;
    file.lazy_load = verdict.lazy_load;
}

// ---- the magic table ----

// A row's bytes are compared at its offset; a bit set in skipped_bytes leaves
// that byte of the row out of the comparison. Text signatures compare over
// their own length, as strncmp would: none of them holds a NUL.
enum class MagicCheck : uint8_t {
    none,
    shapefile, // a record number under 50, or no verdict at all
    magellan,  // a Magellan keyword first, or else an NMEA log
};

struct MagicRow {
    std::string_view bytes;
    int32_t offset;
    uint8_t skipped_bytes;
    Verdict verdict;
    MagicCheck check;
};

constexpr FileClass R = FileClass::raster;
constexpr FileClass V = FileClass::vector;
constexpr FileClass G = FileClass::gps_data;
constexpr FileClass X = FileClass::xml;
constexpr FileClass L = FileClass::file_list;
constexpr FileClass C = FileClass::compressed;
using F = FileFormat;
constexpr MagicCheck no_check = MagicCheck::none;

// In the order of the search; the first row that matches decides.
constexpr std::array magic_table = {
    // raster images
    MagicRow{"\xFF\xD8\xFF"sv, 0, 0, {R, F::jpeg, 1}, no_check},
    MagicRow{"\x49\x49\x2A"sv, 0, 0, {R, F::tiff, 1}, no_check},
    MagicRow{"\x4D\x4D\x00\x2A"sv, 0, 0b0100, {R, F::tiff, 1}, no_check},
    MagicRow{"\x89\x50\x4E\x47"sv, 0, 0, {R, F::png, 0}, no_check},
    MagicRow{"\x59\xA6\x6A\x95"sv, 0, 0, {R, F::sun_raster, 0}, no_check},
    MagicRow{"\x0A\x00\x00"sv, 0, 0b0010, {R, F::pcx, 0}, no_check},
    MagicRow{"\x0A\x00\x01"sv, 0, 0b0010, {R, F::pcx, 0}, no_check},
    MagicRow{"\x65\x02\x01"sv, 0, 0, {R, F::ecw, 1}, no_check},
    MagicRow{"\x01\xDA"sv, 0, 0, {R, F::sgi, 0}, no_check},
    // the shapefile; when its check fails, the search ends without a verdict
    MagicRow{"\x00\x00\x27\x0A"sv, 0, 0, {V, F::shapefile, 1}, MagicCheck::shapefile},
    // binary GPS files
    MagicRow{"\x0D"
             "4D5333"sv,
             0,
             0,
             {G, F::mapsend, 1},
             no_check},
    MagicRow{"\x00\xA6\x38\x5C"sv, 0, 0, {G, F::mapshow_wpr, 1}, no_check},
    MagicRow{"\x31\xA6\x38\x5C"sv, 0, 0, {G, F::mapshow_wpo, 1}, no_check},
    MagicRow{"\xA2\x12\xCB\x38"sv, 0, 0, {G, F::mapshow_trk, 1}, no_check},
    MagicRow{"\x02\x00\x00\x00"sv, 0, 0, {G, F::lowrance_usr, 1}, no_check},
    // text signatures
    MagicRow{"BM"sv, 0, 0, {R, F::bitmap, 0}, no_check},
    MagicRow{"GIF"sv, 0, 0, {R, F::gif, 0}, no_check},
    MagicRow{"P1"sv, 0, 0, {R, FileFormat{6}, 0}, no_check},
    MagicRow{"P2"sv, 0, 0, {R, FileFormat{7}, 0}, no_check},
    MagicRow{"P3"sv, 0, 0, {R, FileFormat{8}, 0}, no_check},
    MagicRow{"P4"sv, 0, 0, {R, FileFormat{9}, 0}, no_check},
    MagicRow{"P5"sv, 0, 0, {R, FileFormat{10}, 0}, no_check},
    MagicRow{"P6"sv, 0, 0, {R, FileFormat{11}, 0}, no_check},
    MagicRow{"BSB/"sv, 0, 0, {R, F::bsb, 0}, no_check},
    MagicRow{"msid"sv, 0, 0, {R, F::mrsid, 1}, no_check},
    MagicRow{"<?xml"sv, 0, 0, {X, F::none, 1}, no_check},
    MagicRow{"APRS"sv, 0, 0, {V, F::winaprs_map, 1}, no_check},
    MagicRow{"WU2Z"sv, 0, 0, {V, F::winaprs_map, 1}, no_check},
    MagicRow{"100K"sv, 0, 0, {V, F::winaprs_map, 1}, no_check},
    MagicRow{"DCW "sv, 0, 0, {V, F::winaprs_map, 1}, no_check},
    MagicRow{"TGR "sv, 0, 0, {V, F::winaprs_map, 1}, no_check},
    MagicRow{"TrackMaker"sv, 2, 0, {G, F::trackmaker_211, 1}, no_check},
    MagicRow{"OziExplorer "sv, 0, 0, {G, F::ozi, 1}, no_check},
    MagicRow{"Version,212"sv, 0, 0, {G, F::trackmaker_212, 1}, no_check},
    MagicRow{"TRT-tracklog"sv, 0, 0, {G, F::tavoren_tracklog_v1, 1}, no_check},
    MagicRow{"TRW-waypoint"sv, 0, 0, {G, F::tavoren_waypoints_v1, 1}, no_check},
    MagicRow{"TRT-V2_Tavoren_Tracklog"sv, 0, 0, {G, F::tavoren_tracklog, 1}, no_check},
    MagicRow{"TRW-V2_Tavoren_Waypoint"sv, 0, 0, {G, F::tavoren_waypoints, 1}, no_check},
    MagicRow{"$PMGN"sv, 0, 0, {G, F::magellan_log, 1}, MagicCheck::magellan},
    MagicRow{"TRN-Tavoren_NMEA_logfile"sv, 0, 0, {G, F::tavoren_nmea_log_v1, 1}, no_check},
    MagicRow{"TRR-V2_Tavoren_Route"sv, 0, 0, {G, F::tavoren_routes, 1}, no_check},
    MagicRow{"$PKLNH,NMEA File Header"sv, 0, 0, {G, F::nmea_log, 1}, no_check},
    MagicRow{file_list_magic, 0, 0, {L, F::file_list_v1, 1}, no_check},
    MagicRow{tav_file_list_magic, 0, 0, {L, F::tav_file_list, 1}, no_check},
    MagicRow{"$PEMT16"sv, 0, 0, {G, F::emtac_log, 1}, no_check},
    MagicRow{"TRN-V3_Tavoren_Navigation_logfile"sv, 0, 0, {G, F::tavoren_navigation, 1}, no_check},
    MagicRow{"[Symbol 1]"sv, 0, 0, {V, F::ascii_overlay, 1}, no_check},
    // containers
    MagicRow{"\x1F\x8B\x08"sv, 0, 0, {C, F::gzip, 1}, no_check},
    MagicRow{"\x50\x4B\x03\x04"sv, 0, 0, {C, F::zip, 1}, no_check},
};
static_assert(magic_table.size() == 49);
static_assert(std::all_of(magic_table.begin(), magic_table.end(), [](const MagicRow& row) {
    return row.offset + static_cast<int32_t>(row.bytes.size()) <= magic_block_bytes;
}));

bool row_matches(const MagicRow& row, const uint8_t* block) {
    constexpr std::size_t mask_bits = 8;
    for (std::size_t i = 0; i < row.bytes.size(); ++i) {
        if (i < mask_bits && (row.skipped_bytes >> i & 1u)) continue;
        if (block[row.offset + static_cast<int32_t>(i)] != static_cast<uint8_t>(row.bytes[i]))
            return false;
    }
    return true;
}

// The shapefile's magic is shared by its index file, whose first record
// offset (50, in 16-bit words) stands where a shapefile has its first record
// number.
constexpr int32_t shapefile_smallest_bytes = 111;
constexpr int32_t shapefile_record_number_offset = 100;
constexpr int32_t shapefile_record_number_limit = 50;

bool is_shapefile() {
    if (stream_size() < shapefile_smallest_bytes) return false;
    uint8_t word[4] = {};
    read_at(word, shapefile_record_number_offset, sizeof word);
    const uint8_t* cursor = word;
    return scan_int32_swapped(cursor) < shapefile_record_number_limit;
}

// The sentences a Magellan file is made of: those of the transfer, which
// writes the files, and those it knows and passes over. Anything else behind
// "$PMGN" (the status sentence of a receiver's NMEA output) is NMEA.
constexpr std::array magellan_keywords = {
    "PMGNCSM"sv, "PMGNRTE"sv, "PMGNTRK"sv, "PMGNVER"sv, "PMGNWPL"sv,
    "PMGNCMD"sv, "PMGNALM"sv, "PMGNMPH"sv, "PMGNPIH"sv, "PMGNFMT"sv,
};

bool is_magellan_file(const uint8_t* block) {
    const std::string_view text(reinterpret_cast<const char*>(block) + 1, magic_block_bytes - 1);
    return std::any_of(magellan_keywords.begin(), magellan_keywords.end(), [&](auto keyword) {
        return text.starts_with(keyword) &&
               (text[keyword.size()] == ',' || text[keyword.size()] == '*');
    });
}

// The first row that matches, with its check; false for no verdict.
bool match_magic(const uint8_t* block, Verdict& verdict) {
    for (const MagicRow& row : magic_table) {
        if (!row_matches(row, block)) continue;
        verdict = row.verdict;
        switch (row.check) {
        case MagicCheck::none:
            break;
        case MagicCheck::shapefile:
            return is_shapefile();
        case MagicCheck::magellan:
            if (!is_magellan_file(block)) verdict.format = FileFormat::nmea_log;
            break;
        }
        return true;
    }
    return false;
}

// ---- text ----

// The first bytes of the data, with what the searches need to know.
struct TextBlock {
    std::array<uint8_t, text_search_bytes> bytes;
    int32_t count;     // bytes held, at most text_search_bytes
    int32_t file_size; // bytes of the whole data
    bool any_talker;   // NMEA fixes of any talker count, not only GP
};

constexpr uint8_t last_binary_byte = 8;

// The search of the text stages, kept as it always was on purpose, since the
// formats it tells apart were written against it: a byte from 0 to 8 means a
// binary file and ends the search; without exact, the letters A to Y (not Z)
// are folded to lower case before the comparison, so a folding pattern is
// written in lower case; after a mismatch the match starts over at the next
// byte, so that "<<html" holds no "<html"; and a match that ends on the last
// byte of the file does not count.
bool search_text(const TextBlock& block, std::string_view pattern, bool exact) {
    std::size_t matched = 0;
    for (int32_t i = 0; i < block.count; ++i) {
        uint8_t byte = block.bytes[static_cast<std::size_t>(i)];
        if (byte <= last_binary_byte) return false;
        if (!exact && byte >= 'A' && byte <= 'Y') byte = static_cast<uint8_t>(byte - 'A' + 'a');
        if (byte != static_cast<uint8_t>(pattern[matched])) {
            matched = 0;
            continue;
        }
        if (++matched == pattern.size()) return i + 1 < block.file_size;
    }
    return false;
}

std::string_view block_text(const TextBlock& block) {
    return {reinterpret_cast<const char*>(block.bytes.data()),
            static_cast<std::size_t>(block.count)};
}

bool is_blank_byte(char c) {
    return char_class(static_cast<unsigned char>(c)) == CharClass::space;
}

// "/* XPM */" after any white space.
bool starts_xpm_comment(const TextBlock& block) {
    std::string_view text = block_text(block);
    auto skip_blanks = [&text] {
        while (!text.empty() && is_blank_byte(text.front()))
            text.remove_prefix(1);
    };
    skip_blanks();
    if (!text.starts_with("/*")) return false;
    text.remove_prefix(2);
    skip_blanks();
    return text.starts_with("XPM");
}

// Whether text equals word, a lower-case word, with text's letters folded.
bool equals_folded(std::string_view text, std::string_view word) {
    return text.size() == word.size() &&
           std::equal(text.begin(), text.end(), word.begin(), [](char c, char lower) {
               return (c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) == lower;
           });
}

// MapInfo interchange: the word "version" first, in any case, then a blank or a tab.
bool starts_version_word(const TextBlock& block) {
    constexpr std::string_view word = "version";
    const std::string_view text = block_text(block);
    return text.size() > word.size() && equals_folded(text.substr(0, word.size()), word) &&
           (text[word.size()] == ' ' || text[word.size()] == '\t');
}

bool has_pcx5_line(const TextBlock& block) {
    return search_text(block, "I  PCX5", true);
}

constexpr std::array nmea_fix_kinds = {"RMC"sv, "GGA"sv, "GLL"sv};
constexpr std::size_t nmea_fix_prefix_bytes = 6; // "$GPRMC"

bool is_upper(char c) {
    return c >= 'A' && c <= 'Z';
}

// "$GPRMC", "$GPGGA" or "$GPGLL" anywhere in the block, NULs included; with
// any_talker, the same after any standard two-letter talker (a first letter P
// opens a maker's sentence instead).
bool has_nmea_fix(const TextBlock& block) {
    const std::string_view text = block_text(block);
    for (std::size_t at = text.find('$'); at != std::string_view::npos;
         at = text.find('$', at + 1)) {
        const std::string_view sentence = text.substr(at + 1);
        if (sentence.size() + 1 < nmea_fix_prefix_bytes) return false;
        const bool gp = sentence.starts_with("GP");
        const bool other_talker = block.any_talker && is_upper(sentence[0]) && sentence[0] != 'P' &&
                                  is_upper(sentence[1]);
        if (!gp && !other_talker) continue;
        const std::string_view kind = sentence.substr(2, 3);
        if (std::find(nmea_fix_kinds.begin(), nmea_fix_kinds.end(), kind) != nmea_fix_kinds.end())
            return true;
    }
    return false;
}

bool has_bsb_header(const TextBlock& block) {
    return search_text(block, "BSB/", true);
}

bool has_html_tag(const TextBlock& block) {
    return search_text(block, "<html", false);
}

bool has_xml_declaration(const TextBlock& block) {
    return search_text(block, "<?xml", true);
}

struct TextSniff {
    bool (*found)(const TextBlock& block);
    Verdict verdict;
};

// In the order of the search; the first find decides.
constexpr std::array text_sniffs = {
    TextSniff{starts_xpm_comment, {R, F::xpm, 0}},
    TextSniff{starts_version_word, {V, F::mapinfo, 1}},
    TextSniff{has_pcx5_line, {G, F::pcx5, 1}},
    TextSniff{has_nmea_fix, {G, F::nmea_log, 1}},
    TextSniff{has_bsb_header, {R, F::bsb, 1}},
    TextSniff{has_html_tag, {FileClass::web_page, F::none, 1}},
    TextSniff{has_xml_declaration, {X, F::none, 1}},
};
static_assert(text_sniffs.size() == 7);

bool sniff_text(const TextBlock& block, Verdict& verdict) {
    for (const TextSniff& sniff : text_sniffs) {
        if (!sniff.found(block)) continue;
        verdict = sniff.verdict;
        return true;
    }
    return false;
}

struct XmlRoot {
    std::string_view pattern;
    FileClass file_class;
    FileFormat format;
};

// In the order of the search: each pattern is looked for in the whole block
// before the next one, so that "<History" only decides when nothing before it
// is there.
constexpr std::array xml_roots = {
    XmlRoot{"<gpx", G, F::gpx},
    XmlRoot{"<kml", V, F::kml},
    XmlRoot{"<geonames", V, F::geonames},
    XmlRoot{"<TrainingCenterDatabase", G, F::garmin_xml},
    XmlRoot{"<HistoryDatabase", G, F::garmin_xml},
    XmlRoot{"<Placemark", V, F::kml},
    XmlRoot{"<GroundOverlay", V, F::kml},
    XmlRoot{"<History", G, F::garmin_xml},
};
static_assert(xml_roots.size() == 8);

// An XML document by its root element; unusable when none is known.
void sniff_xml(const TextBlock& block, FileMobj& file) {
    for (const XmlRoot& root : xml_roots) {
        if (!search_text(block, root.pattern, true)) continue;
        file.file_class = root.file_class;
        file.format = root.format;
        return;
    }
    file.file_class = FileClass::unusable;
}

// ---- OziExplorer ----

constexpr int32_t ozi_signature_bytes = 12; // "OziExplorer "
constexpr int32_t ozi_word_limit = 255;
constexpr std::string_view ozi_pocket_word = "CE";
constexpr std::string_view ozi_map_word = "Map";
constexpr std::array ozi_data_words = {"Waypoint"sv, "Track"sv, "Route"sv, "Event"sv, "Point"sv};

// The word after the signature says what the file holds: a map calibration is
// a raster companion, the data kinds stay OziExplorer, and anything else is
// unknown. The pocket edition writes "CE" before the word.
void refine_ozi(FileMobj& file) {
    if (stream_size() < ozi_signature_bytes) {
        set_gblerr(ErrorCode::invalid_file);
        return;
    }
    seek_stream(ozi_signature_bytes, stream_from_start);
    int32_t remaining = stream_remaining();
    char word[ozi_word_limit + 1] = {};
    char delimiter = 0;
    read_word(ozi_word_limit, remaining, word, delimiter);
    if (word == ozi_pocket_word) read_word(ozi_word_limit, remaining, word, delimiter);
    if (word == ozi_map_word) {
        apply(file, {R, F::ozi_map, 0});
        return;
    }
    if (std::find(ozi_data_words.begin(), ozi_data_words.end(), word) == ozi_data_words.end())
        file.file_class = FileClass::unusable;
}

// ---- extensions ----

struct ExtensionRow {
    std::string_view extension;
    Verdict verdict;
};

constexpr std::array extension_table = {
    ExtensionRow{"tga", {R, F::targa, 0}},
    ExtensionRow{"trl", {G, F::mapshow_trl, 1}},
};
static_assert(extension_table.size() == 2);

// The extension of the path's last name, compared without regard to case:
// paths keep their case on Linux, and "TRACK.TRL" is still a tracklog.
void match_extension(FileMobj& file) {
    if (!file.path) return;
    const std::string_view path = file.path;
    const std::size_t dot = path.rfind('.');
    if (dot == std::string_view::npos || path.find_first_of("/\\", dot) != std::string_view::npos)
        return;
    const std::string_view extension = path.substr(dot + 1);
    for (const ExtensionRow& row : extension_table) {
        if (!equals_folded(extension, row.extension)) continue;
        apply(file, row.verdict);
        return;
    }
}

// ---- the run ----

bool is_unopened_zip_member(const FileMobj& file) {
    return file.is_member && file.container_format == FileFormat::zip &&
           file.container_class == container_class_compressed && file.memory == 0 &&
           !file.archive_opened;
}

bool memory_holds_data(const FileMobj& file) {
    const auto* block = find_obj_adr<Mobj>(file.memory);
    return block && block->size > 0;
}

// Runs a container's entry point with gblerr clear; a failure is cleared and
// makes the file unusable. False when the file is gone or failed.
template <class Call>
bool run_container(ObjectId id, Call call) {
    call();
    auto* file = find_obj_adr<FileMobj>(id);
    if (!file) return false;
    if (!error_pending()) return true;
    set_gblerr(ErrorCode::none);
    file->file_class = FileClass::unusable;
    return false;
}

void detect_content(ObjectId id, ObjectId data_set, bool nested, int depth);

// A GZip file is taken for a member of itself: the packed file is the
// archive, and its expanded data the member.
void expand_gzip(ObjectId id, ObjectId data_set, bool nested, int depth) {
    auto* file = find_obj_adr<FileMobj>(id);
    const ArchiveHooks* hooks = archive_hooks.load(std::memory_order_acquire);
    if (!file || !hooks || !hooks->gzip_open) return;
    if (depth >= container_depth_limit) {
        file->file_class = FileClass::unusable;
        return;
    }
    str_copy(file->path, file->archive_path);
    file->container_class = container_class_compressed;
    file->container_format = FileFormat::gzip;
    file->member_size = static_cast<int32_t>(file->size);
    file->is_member = 1;
    const int32_t limit = nested ? 0 : gzip_probe_bytes;
    if (!run_container(id, [&] { hooks->gzip_open(id, limit); })) return;
    file = find_obj_adr<FileMobj>(id);
    if (!memory_holds_data(*file)) return;
    file->file_class = FileClass::regular_file;
    detect_content(id, data_set, true, depth + 1);
}

void open_container(ObjectId id, ObjectId data_set, bool nested, int depth) {
    auto* file = find_obj_adr<FileMobj>(id);
    if (file->format == FileFormat::gzip) {
        expand_gzip(id, data_set, nested, depth);
        return;
    }
    if (file->url_flags) {
        file->file_class = FileClass::unusable;
        return;
    }
    const ArchiveHooks* hooks = archive_hooks.load(std::memory_order_acquire);
    if (data_set == 0 || !hooks || !hooks->zip_list) return;
    run_container(id, [&] { hooks->zip_list(id, data_set); });
}

void detect_content(ObjectId id, ObjectId data_set, bool nested, int depth) {
    auto* file = find_obj_adr<FileMobj>(id);
    if (!file) return;
    apply(*file, {FileClass::unusable, F::none, 0});
    if (static_cast<int64_t>(file_size_of(id)) < smallest_detectable_bytes) return;

    const ArchiveHooks* hooks = archive_hooks.load(std::memory_order_acquire);
    if (is_unopened_zip_member(*file) && hooks && hooks->zip_member_open) {
        const int32_t limit = nested ? 0 : zip_member_probe_bytes;
        if (!run_container(id, [&] { hooks->zip_member_open(id, limit); })) return;
        file = find_obj_adr<FileMobj>(id);
        file->file_class = FileClass::unusable;
    }
    if (open_stream(id, detection_buffer_bytes, true) != 0) return;

    uint8_t magic[magic_block_bytes] = {};
    read_at(magic, 0, std::min(stream_size(), magic_block_bytes));
    Verdict verdict{};
    if (match_magic(magic, verdict)) apply(*file, verdict);

    if (file->file_class == FileClass::compressed) {
        open_container(id, data_set, nested, depth);
        return;
    }
    if (file->file_class == FileClass::file_list) {
        if (data_set != 0) read_file_list(id, data_set);
        return;
    }
    if (file->file_class == FileClass::raster &&
        (std::find(unreadable_raster_formats.begin(), unreadable_raster_formats.end(),
                   file->format) != unreadable_raster_formats.end() ||
         (file->format == F::mrsid && !mrsid_switch_on))) {
        file->file_class = FileClass::unusable;
    }

    // The text stages and the XML roots read the first bytes as one block.
    TextBlock block;
    block.file_size = stream_size();
    block.count = std::min(block.file_size, text_search_bytes);
    read_at(block.bytes.data(), 0, block.count);
    block.any_talker = config_get(any_talker_key) != nullptr;

    if (file->file_class == FileClass::xml) sniff_xml(block, *file);
    if (file->format == F::ozi) refine_ozi(*file);
    if (file->file_class != FileClass::unusable) return;
    if (sniff_text(block, verdict)) apply(*file, verdict);
    if (file->file_class == FileClass::xml) sniff_xml(block, *file);
    const WebHooks* web = web_hooks.load(std::memory_order_acquire);
    if (file->file_class == FileClass::web_page && data_set != 0 && web && web->gather_links)
        web->gather_links(id, data_set);
    if (file->file_class == FileClass::unusable) match_extension(*file);
}

ObjectId detect_url(ObjectId id, ObjectId data_set) {
    const WebHooks* web = web_hooks.load(std::memory_order_acquire);
    const ObjectId loaded = web && web->load_url ? web->load_url(id, data_set) : 0;
    if (loaded != 0 && !error_pending()) return loaded;
    set_gblerr(ErrorCode::none);
    if (auto* file = find_obj_adr<FileMobj>(id)) file->file_class = FileClass::unusable;
    if (data_set != 0) ds_clear(data_set);
    return id;
}

// ---- names ----

constexpr int32_t first_named_format = 25;

// By number from 25. Kept on purpose: the shapefile's name stands at 25, where
// no format is, so that 26 prints the MapInfo name and 27 and 28 the
// trackpoint and waypoint names, as the information texts always have.
constexpr std::array format_names = {
    "ESRI Shapefile",                         // 25
    "Mapinfo Interchange File",               // 26
    "Tavoren Trackpoints",                    // 27
    "Tavoren Waypoints",                      // 28
    "",                                       // 29
    "GPS eXchange",                           // 30
    "",                                       // 31
    "Magellan Mapsend",                       // 32
    "GPS TrackMaker 211",                     // 33
    "OziExplorer",                            // 34
    "Tavoren Trackpoints",                    // 35
    "Tavoren Waypoints",                      // 36
    "Magellan log",                           // 37
    "Keyhole Markup Language (Google Earth)", // 38
    "NMEA log",                               // 39
    "",                                       // 40
    "Tavoren Routes",                         // 41
    "WinAPRS Map",                            // 42
    "",                                       // 43
    "GPS TrackMaker 212",                     // 44
    "Garmin PCX5",                            // 45
    "S-57 ENC Electronic Navigational Chart", // 46
    "cGPSmapper Polish map",                  // 47
    "MapShow (ALAN Map) TRL tracklog",        // 48
    "MapShow (ALAN Map) WPR waypoints",       // 49
    "MapShow (Holux) WPO waypoints",          // 50
    "MapShow (Holux) TRK tracklog",           // 51
    "GZip",                                   // 52
    "Zip",                                    // 53
    "FileList",                               // 54
    "TavFileList ",                           // 55
    "AlanMap 500 Map",                        // 56
    "MapDekode DBX",                          // 57
    "ASCII Overlay",                          // 58
    "GeoNames XML (geonames.org)",            // 59
    "Ozi Map",                                // 60
    "Garmin Forerunner XML",                  // 61
    "WMS GetCapabilities response",           // 62
    "",                                       // 63
    "Emtac Trine log",                        // 64
    "Lowrance USR",                           // 65
    "Tavoren Navigation",                     // 66
    "Geography Markup Language",              // 67
};
static_assert(format_names.size() == 43);

} // namespace

void set_archive_hooks(const ArchiveHooks* hooks) {
    archive_hooks.store(hooks, std::memory_order_release);
}

void set_web_hooks(const WebHooks* hooks) {
    web_hooks.store(hooks, std::memory_order_release);
}

ObjectId detect_format(ObjectId id, ObjectId data_set, bool nested) {
    set_gblerr(ErrorCode::none);
    auto* file = find_obj_adr<FileMobj>(id);
    if (!file) return 0;
    ObjectId result = id;
    switch (file->file_class) {
    case FileClass::ecwp_url:
        file->format = F::ecw;
        file->lazy_load = 1;
        break;
    case FileClass::http_url:
        result = detect_url(id, data_set);
        break;
    case FileClass::regular_file:
        detect_content(id, data_set, nested, 0);
        break;
    default:
        break;
    }
    set_gblerr(ErrorCode::none);
    return result;
}

const char* format_name(FileFormat format) {
    const int32_t index = static_cast<int32_t>(format) - first_named_format;
    if (index < 0 || index >= static_cast<int32_t>(format_names.size())) return "";
    return format_names[static_cast<std::size_t>(index)];
}

} // namespace norvanta
