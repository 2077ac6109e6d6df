// The load dispatcher: from a FileMobj to its DataSet through the reader
// table, and the file information text.
#include "formats/dispatch.h"

#include <iterator>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/stream.h"
#include "core/strings.h"
#include "formats/detection.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "formats/gpx.h"
#include "formats/native.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/events.h"

namespace norvanta {

namespace {

using F = FileFormat;
constexpr FileClass vector_data = FileClass::vector;
constexpr FileClass gps_data = FileClass::gps_data;
// The row of a class that catches every format without a row of its own.
constexpr FileFormat other_format = static_cast<FileFormat>(-1);

struct ReaderRow {
    FileClass file_class;
    FileFormat format;
    FormatReader reader; // null: the file is of unknown format
};

// The first row that matches decides. A null reader on a named format is a
// reader this program does not have yet: until it has, such a file is
// refused as of unknown format, as the other vector formats always are.
// clang-format off
constexpr ReaderRow reader_rows[] = {
    {vector_data, F::shapefile,          nullptr}, // not written yet
    {vector_data, F::mapinfo,            nullptr}, // not written yet
    {vector_data, F::kml,                nullptr}, // not written yet
    {vector_data, F::winaprs_map,        nullptr}, // not written yet
    {vector_data, F::ascii_overlay,      nullptr}, // not written yet
    {vector_data, F::geonames,           nullptr}, // not written yet
    {vector_data, other_format,          nullptr},
    {gps_data,    F::gpx,                read_gpx},
    {gps_data,    F::mapsend,            nullptr}, // not written yet
    {gps_data,    F::trackmaker_211,     nullptr}, // not written yet
    {gps_data,    F::ozi,                nullptr}, // not written yet
    {gps_data,    F::magellan_log,       nullptr}, // not written yet
    {gps_data,    F::trackmaker_212,     nullptr}, // not written yet
    {gps_data,    F::pcx5,               nullptr}, // not written yet
    {gps_data,    F::mapshow_trl,        nullptr}, // not written yet
    {gps_data,    F::mapshow_wpr,        nullptr}, // not written yet
    {gps_data,    F::mapshow_wpo,        nullptr}, // not written yet
    {gps_data,    F::mapshow_trk,        nullptr}, // not written yet
    {gps_data,    F::garmin_xml,         nullptr}, // not written yet
    {gps_data,    F::emtac_log,          nullptr}, // not written yet
    {gps_data,    F::lowrance_usr,       nullptr}, // not written yet
    {gps_data,    other_format,          read_native_file},
};
// clang-format on
static_assert(std::size(reader_rows) == 22);

void run_reader(const FileMobj& file, ObjectId data_set) {
    for (const ReaderRow& row : reader_rows) {
        if (row.file_class != file.file_class) continue;
        if (row.format != file.format && row.format != other_format) continue;
        if (!row.reader) {
            set_gblerr(ErrorCode::unknown_format);
            return;
        }
        row.reader(file.id, data_set);
        return;
    }
}

// Which counts of GPS records the information text adds for a format.
enum class Counts : uint8_t {
    gps,               // waypoints, tracks with their segments and points, routes
    interest_then_gps, // points and lines of interest, then the above
    interest,          // points and lines of interest
    log,               // positions, waypoints, routes
};

struct CountsRow {
    FileFormat format;
    Counts counts;
};
// Formats without a row add no counts.
// clang-format off
constexpr CountsRow counts_rows[] = {
    {F::tavoren_tracklog_v1,  Counts::gps},
    {F::tavoren_waypoints_v1, Counts::gps},
    {F::gpx,                  Counts::gps},
    {F::mapsend,              Counts::gps},
    {F::trackmaker_211,       Counts::gps},
    {F::tavoren_tracklog,     Counts::gps},
    {F::tavoren_waypoints,    Counts::gps},
    {F::magellan_log,         Counts::gps},
    {F::trackmaker_212,       Counts::gps},
    {F::pcx5,                 Counts::gps},
    {F::garmin_xml,           Counts::gps},
    {F::lowrance_usr,         Counts::gps},
    {F::tavoren_navigation,   Counts::gps},
    {F::ozi,                  Counts::interest_then_gps},
    {F::kml,                  Counts::interest},
    {F::winaprs_map,          Counts::interest},
    {F::gml,                  Counts::interest},
    {F::nmea_log,             Counts::log},
    {F::emtac_log,            Counts::log},
};
// clang-format on
static_assert(std::size(counts_rows) == 19);

void describe_counts(FileFormat format, ObjectId data_set, char*& text, int language) {
    for (const CountsRow& row : counts_rows) {
        if (row.format != format) continue;
        switch (row.counts) {
        case Counts::gps:
            describe_gps(data_set, text, language);
            break;
        case Counts::interest_then_gps:
            describe_interest(data_set, text, language);
            describe_gps(data_set, text, language);
            break;
        case Counts::interest:
            describe_interest(data_set, text, language);
            break;
        case Counts::log:
            describe_log(data_set, text, language);
            break;
        }
        return;
    }
}

constexpr int language_french = 1;

struct Title {
    const char* french;
    const char* english;
    const char* in(int language) const { return language == language_french ? french : english; }
};
constexpr Title name_title{"Nom\n", "Name\n"};
constexpr Title total_title{"\nNombre total d'objets\n", "\nTotal number of objects\n"};
constexpr Title images_title{"\nNombre d'images\n", "\nNumber of images\n"};
constexpr const char* format_title = "\nFormat\n";
constexpr const char* gzip_compression = "\nCompression\nGzip";
constexpr const char* zip_compression = "\nCompression\nZip";

// The parts of a load that follow a reader's success.
ObjectId finish_load(FileMobj& file, ObjectId data_set, bool want_info) {
    close_stream(file.id);
    // A memory file's pages can be read again from swap; the loaded set is
    // what stays in use.
    if (file.memory != 0) release_pages(file.memory);
    file.data_set = data_set;
    if (want_info) describe_file(file.id);
    // The map viewer adds the set's display scale here; this program draws
    // no map, and makes none.
    return data_set;
}

} // namespace

ObjectId load_file(ObjectId file_id, int32_t* request, bool want_info) {
    refresh_cursor(cursor_busy);
    auto* file = find_obj_adr<FileMobj>(file_id);
    if (!file) {
        set_gblerr(ErrorCode::none);
        return 0;
    }
    if (file->data_set != 0 && !find_obj_adr<Mobj>(file->data_set)) file->data_set = 0;
    if (file->data_set != 0) {
        if (want_info && (!file->info || !file->info[0])) describe_file(file_id);
        return file->data_set;
    }

    ObjectId data_set = 0;
    ds_create(data_set);
    if (file->file_class == FileClass::regular_file || file->file_class == FileClass::http_url) {
        detect_format(file_id, data_set, true);
        file = find_obj_adr<FileMobj>(file_id);
        if (!file) {
            ds_destroy(data_set);
            set_gblerr(ErrorCode::none);
            return 0;
        }
        if (ds_count(data_set, ObjectType::None) > 0) file->data_set = data_set;
    }
    if (request && *request != 0 && file->lazy_load == 0) {
        *request = -1;
        set_gblerr(ErrorCode::none);
        // The empty set would otherwise stay in the store for nothing.
        if (file->data_set != data_set) ds_destroy(data_set);
        return 0;
    }

    switch (file->file_class) {
    case FileClass::directory:
    case FileClass::unusable:
    case FileClass::unchecked:
        set_gblerr(ErrorCode::none);
        return finish_load(*file, data_set, want_info);
    case FileClass::raster:
        // The raster decoders serve the map viewer only: an image offered
        // here is of unknown format.
        set_gblerr(ErrorCode::unknown_format);
        break;
    case FileClass::vector:
    case FileClass::gps_data:
        run_reader(*file, data_set);
        break;
    default:
        break;
    }

    if (error_pending()) {
        ErrorHold hold;
        ds_delete_tree(data_set);
        if (file->data_set == data_set) file->data_set = 0;
        ds_destroy(data_set);
        return 0;
    }
    return finish_load(*file, data_set, want_info);
}

void describe_file(ObjectId file_id, int language) {
    auto* file = find_obj_adr<FileMobj>(file_id);
    if (!file) return;
    if (language == 0) language = language_index();
    char*& text = file->info;
    free_mem(text);
    str_append(name_title.in(language), text);
    str_append(file->path, text);
    if (file->container_class == container_class_compressed) {
        if (file->container_format == F::gzip) str_append(gzip_compression, text);
        if (file->container_format == F::zip) str_append(zip_compression, text);
    }
    // Images are not loaded in this program, so a raster file has no set and
    // no image line.
    if (file->file_class != FileClass::vector && file->file_class != FileClass::gps_data) return;
    const ObjectId data_set = file_data_set_of(file_id);
    str_append(format_title, text);
    str_append(format_name(file->format), text);
    str_append(total_title.in(language), text);
    str_append_long(ds_count_tree(data_set, ObjectType::None), text);
    const int32_t images = ds_count_tree(data_set, ObjectType::ImageObj);
    if (images > 0) {
        str_append(images_title.in(language), text);
        str_append_long(images, text);
    }
    describe_counts(file->format, data_set, text, language);
}

} // namespace norvanta
