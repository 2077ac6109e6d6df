// The reduced-image cache and the session file that lists it between runs.
//
// A reduced image is a paged block whose pages live in a file of their own
// under the reduced-image directory, named by a ten-digit counter with a
// directory level per digit ("0/0/0/0/0/0/0/0/0/1"). An ImageCacheEntry ties
// that file to the version of the source image it was made from. The entries
// are kept in two OrderedSets, by source path and by cache name, and written
// at exit to "mof2.sot", a little-endian dump of all records of one type laid
// out from the type's layout string.
//
// Threads: start-up, the thread that makes a reduced image, and exit, one
// after another.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "core/mobj.h"
#include "core/paged_memory.h"

namespace norvanta {

struct ImageCacheEntry {
    static constexpr ObjectType object_type = ObjectType::ImageCacheEntry;

    ObjectId id;       // object header
    ObjectType type;   // object header: ObjectType::ImageCacheEntry
    char* source_path; // owned; the image
    char* cache_name;  // owned; ten digits with '/' between, relative to the cache directory
    int32_t complete;  // 1 once every page of the block is in the file
    int32_t spare;     // kept in the file, unused
    double offset;     // bytes; these three identify the source's version
    double length;     // bytes
    double modified;   // date value
    char* full_path;   // owned; the cache directory and cache_name; not saved
};
static_assert(std::is_trivially_copyable_v<ImageCacheEntry> &&
              std::is_standard_layout_v<ImageCacheEntry>);

// Name of the session file, in the reduced-image directory.
inline constexpr const char* session_file_name = "mof2.sot";
// Appended to the session file's name for the copy that a save keeps until it
// has written the new file.
inline constexpr const char* session_backup_suffix = "sav";

// Registers ObjectType ImageCacheEntry with its layout and destructor.
void image_cache_register_type();
// Start-up: with a reduced-image directory, makes the two indexes and reads
// the session file into them.
void load_image_cache();
// Exit: writes every scheduled (set, file) pair; nothing while gblerr is set.
void save_session();
// Notes an OrderedSet of records of one type to be written to path at exit;
// a set already noted is not noted twice.
void schedule_save(ObjectId set, ObjectType type, const char* path);

// The session store on any OrderedSet of one record type, laid out from the
// type's layout string: reading makes new records (the file's ids only check
// the sum) and inserts them in the set; writing dumps the set's records. A
// file that does not match leaves the set empty, a write that fails leaves the
// previous file in place; either way gblerr is clear afterwards.
void read_session_file(ObjectId set, ObjectType type, const char* path);
void write_session_file(ObjectId set, ObjectType type, const char* path);

// The entry for this version of the source image: found by path and version,
// or made with the next free cache name. 0 without a cache directory, or once
// the disk ran short.
ObjectId find_cache_entry(const CacheSource& source);
// Called when every page of an entry's block is in its file: the entry is
// complete, and the session file will be written at exit.
void cache_entry_completed(ObjectId entry);
// False once the disk of the cache directory was found nearly full; no entry
// is made after that.
bool image_cache_enabled();
// Checked before a cache file is created: below a tenth of a gigabyte free,
// the cache stops for good.
bool cache_disk_has_room(const char* path);

// The two indexes (0 before load_image_cache).
ObjectId cache_path_index();
ObjectId cache_name_index();

// The counter step of cache names: "0/0/9" gives "0/1/0". False when every
// digit overflows; name is then all zeros.
bool next_cache_name(std::string& name);

} // namespace norvanta
