// FileMobj: one source of data, from the moment its path is known until it is
// closed: a file on disk, a URL, a member of an archive or a memory file.
//
// Every reader reaches its bytes through the stream reader, which resolves a
// FileMobj to a disk file (path, start_offset, size), a stored member inside
// an archive (archive_path or archive_memory, member_offset, member_size) or a
// paged memory block (memory). Detection and the load dispatcher fill in
// file_class and format.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/mobj.h"

namespace norvanta {

struct FileMobj {
    static constexpr ObjectType object_type = ObjectType::FileMobj;

    ObjectId id;              // object header
    ObjectType type;          // object header: ObjectType::FileMobj
    ObjectId owner_id;        // owner when linked
    ObjectType owner_type;    // owner's ObjectType
    ObjectId children;        // OrderedSet of child files on path_key
    char* path;               // owned; path or URL as it is used
    char* path_key;           // owned; the path in lower case with '\' as '/'
    int32_t file_class;       // what the source is; 0 until examined
    int32_t format;           // which reader reads it
    uint32_t size;            // bytes
    int32_t walk_depth;       // depth at which a directory walk found it
    int32_t lazy_load;        // 1 when the content may be read on demand
    char tag[8];              // the tag of a file-list entry
    double modified;          // date value, the later of modification and status change
    int32_t start_offset;     // bytes before the data in the file on disk
    ObjectId memory;          // Mobj of a memory file, or of an archive's expanded data
    ObjectId sibling;         // a second FileMobj deleted with this one
    int32_t archive_opened;   // 1 once the container was expanded into memory
    int32_t walk_temporary;   // 1 for an entry that a directory walk made
    int32_t url_flags;        // flags of a URL
    char* info;               // owned; the information text
    ObjectId data_set;        // the DataSet once loaded; 0 before
    char* archive_path;       // owned; the archive that holds this member
    ObjectId archive_memory;  // Mobj of that archive when it lies in memory
    int32_t member_offset;    // bytes before the member in the archive
    int32_t member_size;      // bytes of the member as it is stored
    int32_t container_class;  // container_class_compressed when the data are packed
    int32_t container_format; // 52 GZip, 53 Zip
    int32_t is_member;        // 1 for a member of an archive
    char* mime_type;          // owned; the type a web server gave
};
static_assert(std::is_trivially_copyable_v<FileMobj> && std::is_standard_layout_v<FileMobj>);

// The container_class of data that must be expanded before it can be read.
inline constexpr int32_t container_class_compressed = 128;

} // namespace norvanta
