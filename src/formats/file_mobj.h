// FileMobj: one source of data, from the moment its path is known until it is
// closed: a file on disk, a URL, a member of an archive or a memory file.
//
// Every reader reaches its bytes through the stream reader, which resolves a
// FileMobj to a disk file (path, start_offset, size), a stored member inside
// an archive (archive_path or archive_memory, member_offset, member_size) or a
// paged memory block (memory). Detection and the load dispatcher fill in
// file_class and format.
//
// Beside the record stand the path rules (URLs, normalisation, examination),
// the open-file index that finds a FileMobj by its path, the file lists and
// the directory walk.
//
// Threads: the open-file index is shared by the load thread, which makes most
// files, and whoever looks a path up; one mutex guards it and each record's
// path_key, which is the index's key. The rest of a record belongs to the
// thread that works on the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "core/mobj.h"

namespace norvanta {

// What a source is. Detection only ever looks at regular_file, http_url and
// ecwp_url; unusable is the normal answer for content it does not know.
enum class FileClass : int32_t {
    unexamined = 0,
    directory = 1,
    raster = 2,
    vector = 3,
    gps_data = 4,
    regular_file = 7, // not identified yet; also every memory file
    http_url = 8,
    file_list = 9,
    web_page = 10,
    ecwp_url = 12,
    xml = 14, // until the root element says more
    unusable = 125,
    unchecked = 126, // exists, but is neither a directory nor a regular file
    compressed = 128,
};

// Which reader reads a source. Numbers below 25 are raster formats, named by
// the image module; 25 stands for nothing but a name.
enum class FileFormat : int32_t {
    none = 0, // also the Windows bitmap, which shares the number
    bitmap = 0,
    jpeg = 1,
    gif = 2,
    tiff = 3,
    png = 4,
    xpm = 5,
    netpbm_first = 6, // "P1" to "P6" are 6 to 11
    netpbm_last = 11,
    pcx = 12,
    sun_raster = 13,
    targa = 14,
    ecw = 16,
    mrsid = 18,
    bsb = 22,
    shapefile = 26,
    mapinfo = 27,
    tavoren_tracklog_v1 = 28,
    tavoren_waypoints_v1 = 29,
    gpx = 30,
    mapsend = 32,
    trackmaker_211 = 33,
    ozi = 34,
    tavoren_tracklog = 35,
    tavoren_waypoints = 36,
    magellan_log = 37,
    kml = 38,
    nmea_log = 39,
    tavoren_nmea_log_v1 = 40,
    tavoren_routes = 41,
    winaprs_map = 42,
    sgi = 43,
    trackmaker_212 = 44,
    pcx5 = 45,
    s57 = 46,
    polish_map = 47,
    mapshow_trl = 48,
    mapshow_wpr = 49,
    mapshow_wpo = 50,
    mapshow_trk = 51,
    gzip = 52,
    zip = 53,
    file_list_v1 = 54,
    tav_file_list = 55,
    alanmap_map = 56,
    mapdekode_dbx = 57,
    ascii_overlay = 58,
    geonames = 59,
    ozi_map = 60,
    garmin_xml = 61,
    wms_capabilities = 62,
    emtac_log = 64,
    lowrance_usr = 65,
    tavoren_navigation = 66,
    gml = 67,
    missing_file = 125, // the answer of the accessor for a file that is gone
};

// Bytes of a file-list tag; a tag of this length has no closing NUL.
inline constexpr std::size_t file_tag_bytes = 8;

struct FileMobj {
    static constexpr ObjectType object_type = ObjectType::FileMobj;

    ObjectId id;                 // object header
    ObjectType type;             // object header: ObjectType::FileMobj
    ObjectId owner_id;           // owner when linked
    ObjectType owner_type;       // owner's ObjectType
    ObjectId children;           // OrderedSet of child files on path_key
    char* path;                  // owned; path or URL as it is used
    char* path_key;              // owned; key of the open-file index, see path_key_form
    FileClass file_class;        // what the source is; unexamined until examined
    FileFormat format;           // which reader reads it
    uint32_t size;               // bytes
    int32_t walk_depth;          // depth at which a directory walk found it
    int32_t lazy_load;           // 1 when the content may be read on demand
    char tag[file_tag_bytes];    // the tag of a file-list entry, NUL-padded
    double modified;             // packed date, the later of modification and status change
    int32_t start_offset;        // bytes before the data in the file on disk
    ObjectId memory;             // Mobj of a memory file, or of an archive's expanded data
    ObjectId sibling;            // a second FileMobj deleted with this one
    int32_t archive_opened;      // 1 once the container was expanded into memory
    int32_t walk_temporary;      // 1 for an entry that a directory walk made
    int32_t url_flags;           // flags of a URL
    char* info;                  // owned; the information text
    ObjectId data_set;           // the DataSet once loaded; 0 before
    char* archive_path;          // owned; the archive that holds this member
    ObjectId archive_memory;     // Mobj of that archive when it lies in memory
    int32_t member_offset;       // bytes before the member in the archive
    int32_t member_size;         // bytes of the member as it is stored
    int32_t container_class;     // container_class_compressed when the data are packed
    FileFormat container_format; // gzip or zip
    int32_t is_member;           // 1 for a member of an archive
    char* mime_type;             // owned; the type a web server gave
};
static_assert(std::is_trivially_copyable_v<FileMobj> && std::is_standard_layout_v<FileMobj>);

// The container_class of data that must be expanded before it can be read.
inline constexpr int32_t container_class_compressed = 128;

// Links a file to a displayed data set; linked under its parent FileView.
struct FileView {
    static constexpr ObjectType object_type = ObjectType::FileView;

    ObjectId id;           // object header
    ObjectType type;       // object header: ObjectType::FileView
    ObjectId owner_id;     // the parent FileView when linked
    ObjectType owner_type; // owner's ObjectType
    ObjectId children;     // child FileViews
    char* name;            // owned; copy of the file's path
    ObjectId file;         // the FileMobj
    ObjectId data_set;     // the DataSet shown
};
static_assert(std::is_trivially_copyable_v<FileView> && std::is_standard_layout_v<FileView>);

// ---- start-up ----

// Registers FileMobj and FileView with their destructors and the copy hook,
// and makes the open-file index. The store must exist. Later calls do nothing
// more than the first.
void file_objects_init();

// ---- paths ----

// 0 (unexamined) when the configuration turns web access off. Otherwise the
// scheme of "http://" and "ecwp://" is folded to lower case in place, and the
// answer is http_url, ecwp_url or unexamined for anything else.
FileClass is_url(char* path);

// A path as a user gives it, made canonical in place:
//  1. a path that is not absolute becomes "http://" and the path (a name
//     typed without a directory is taken for a web address); absolute means
//     starting with "/" or "\\", or holding ":" followed by a separator;
//  2. a URL with no "/" after its host gets one at the end;
//  3. "file://" and the slashes behind it go; one "/" comes back unless the
//     rest holds a ":";
//  4. leading slashes are reduced to one.
// Command-line names are made absolute before they come here, so that a
// relative name is not taken for a web address.
void normalise_path(char*& path);

// The key of the open-file index for a path: "\" becomes "/", and a URL's
// scheme is in lower case. Case is otherwise kept: file names on Linux differ
// by case. Replaces what key holds.
void path_key_form(const char* path, char*& key);

// What examination finds of a path.
struct PathFacts {
    FileClass file_class; // directory, regular_file, unusable, unchecked, or a URL's class
    uint32_t size;        // bytes; 0 for a URL
    double modified;      // packed UTC date, the later of modification and status change
};
// A URL gives its class alone. A path is looked at on disk, without a
// trailing separator: missing, unreadable or 2 GiB and more is unusable, a
// directory or a regular file is what it is, and anything else (a FIFO, a
// device, a socket) stays unchecked. With class_only, a file already open
// under this path answers from its record.
PathFacts examine_path(char* path, bool class_only);

// ---- creation and the open-file index ----

// The parent of a file that is neither registered nor linked.
inline constexpr ObjectId no_parent = -1;

// Joins directory and name (either may be null) and makes a FileMobj of the
// result, examined. With reuse, a registered file of this path that has been
// examined is returned as it stands. With a parent other than no_parent the
// file is registered, and with a parent other than 0 also linked under it.
// An empty path gives 0.
ObjectId new_file_mobj(ObjectId parent, const char* directory, const char* name, bool reuse);
// A user's path: normalised, examined, made a new registered FileMobj; a
// directory gets its closing "/" and a DataSet filled by the directory walk.
// 0 for an empty path; a walk that fails leaves gblerr set.
ObjectId open_path(const char* path);
// The registered file whose path has the same key, or 0.
ObjectId find_open_file(const char* path);
// Fills in path_key from path and (re)inserts the file in the index.
void register_file(ObjectId file);
// A FileMobj of class regular_file whose data live in a paged block of the
// store, written through the paged memory.
ObjectId new_memory_file();

// ---- accessors; each looks the file up and has an answer for a missing one ----

const char* file_path_of(ObjectId file);  // "" when missing
FileClass file_class_of(ObjectId file);   // unusable when missing
FileFormat file_format_of(ObjectId file); // missing_file when missing
uint32_t file_size_of(ObjectId file);     // member_size for a member with no memory
ObjectId file_data_set_of(ObjectId file); // 0 when the set is gone
// The path, or for a file with no path but a memory block the name of the
// block's swap file, after all its pages were written there ("" when the block
// takes more than one swap file).
std::string get_filemobj_name(ObjectId file);

// Deletes the file's DataSet tree and its memory block; the file returns to
// the state before its load.
void unload_file(ObjectId file);

// ---- lists and directories ----

// The first line of each kind of file list.
inline constexpr std::string_view file_list_magic = "FileList V1.0";
inline constexpr std::string_view tav_file_list_magic = "TavFileList V2.0";

// Reads a "FileList V1.0" or "TavFileList V2.0" file: each line that names a
// file (or a URL) becomes a FileMobj linked under the list and added to
// data_set. Sets gblerr file_access when the list cannot be opened.
void read_file_list(ObjectId list_file, ObjectId data_set);
// Depth-first walk of the directory file's path: every regular file found, at
// any depth, becomes a FileMobj with its walk_depth and walk_temporary 1,
// added to data_set. Symbolic links are followed, but a directory is never
// entered again below itself, and FIFOs, devices and sockets are passed over.
// A directory that cannot be opened sets wrong_parameters at the top and
// os_error below it, and ends the walk.
void walk_directory(ObjectId directory_file, ObjectId data_set);

} // namespace norvanta
