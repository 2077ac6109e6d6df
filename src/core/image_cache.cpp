// The reduced-image cache: entries, their names and files, and the session
// file that carries them from one run to the next.
//
// The session file is a dump of every record of one type, field by field as
// the type's layout string lists them: numbers with their own bytes, strings
// with their NUL and zero-padded to the longest one of the field. Records read
// back are new objects; the ids in the file serve only the checksum. A save
// first copies the old file aside ("sav"), and a read that finds such a copy
// puts it back, so a save cut short never loses the previous state.
#include "core/image_cache.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <memory>
#include <atomic>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "core/strings.h"
#include "platform/os.h"
#include "shell/config.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

static_assert(std::endian::native == std::endian::little,
              "numbers go to the session file as they lie in memory");

constexpr std::array<char, 8> session_magic = {'T', 'a', 'v', 'o', 'r', 'e', 'n', '\0'};
constexpr uint32_t session_version = 1;
constexpr std::size_t session_buffer_bytes = 0x20000;
constexpr std::size_t session_word_bytes = 4;

constexpr double bytes_per_gib = 1024.0 * 1024.0 * 1024.0;
constexpr double cache_min_free_gib = 0.1;
constexpr int cache_name_digits = 10;
constexpr char cache_name_separator = '/';
// The directory the top levels pass through when the counter overflows.
constexpr const char* cache_rotation_dir = "z";

// ---- the table of field widths ----

constexpr std::size_t field_kind_count = 9;
// Bytes of a field of each kind in the file; a string field is widened to
// its longest value.
constexpr std::array<uint32_t, field_kind_count> stored_field_bytes = {0, 4, 4, 4, 8, 8, 16, 4, 4};
// Bytes of a field of each kind in a record in memory.
constexpr std::array<std::size_t, field_kind_count> record_field_bytes = {
    0, 4, 4, 4, 8, 8, 16, sizeof(void*), sizeof(void*)};
constexpr std::size_t record_max_alignment = 8;
// A wide character is one 16-bit unit in the file.
constexpr std::size_t wide_unit_bytes = 2;
constexpr char16_t wide_unit_unknown = u'?';

constexpr std::size_t kind_index(uint8_t kind) {
    return kind < field_kind_count ? kind : 0;
}

bool is_string_kind(uint8_t kind) {
    return kind == static_cast<uint8_t>(FieldKind::wide_string) ||
           kind == static_cast<uint8_t>(FieldKind::byte_string);
}

// Where a field lies in a record: each at the natural alignment of its kind.
constexpr std::size_t field_offset(const uint8_t* layout, int field) {
    std::size_t offset = 0;
    for (int index = 0;; ++index) {
        const std::size_t width = record_field_bytes[kind_index(layout[1 + index])];
        const std::size_t alignment = std::clamp<std::size_t>(width, 1, record_max_alignment);
        offset = (offset + alignment - 1) / alignment * alignment;
        if (index == field) return offset;
        offset += width;
    }
}

constexpr uint8_t kind(FieldKind value) {
    return static_cast<uint8_t>(value);
}

// Field count, then the kind of each field, in the record's order; full_path
// lies beyond and is not saved.
constexpr std::array<uint8_t, 10> image_cache_layout = {
    9,
    kind(FieldKind::id),          // id
    kind(FieldKind::integer),     // type
    kind(FieldKind::byte_string), // source_path
    kind(FieldKind::byte_string), // cache_name
    kind(FieldKind::integer),     // complete
    kind(FieldKind::integer),     // spare
    kind(FieldKind::real),        // offset
    kind(FieldKind::real),        // length
    kind(FieldKind::real),        // modified
};
static_assert(image_cache_layout[0] + 1 == image_cache_layout.size());
static_assert(field_offset(image_cache_layout.data(), 2) == offsetof(ImageCacheEntry, source_path));
static_assert(field_offset(image_cache_layout.data(), 3) == offsetof(ImageCacheEntry, cache_name));
static_assert(field_offset(image_cache_layout.data(), 5) == offsetof(ImageCacheEntry, spare));
static_assert(field_offset(image_cache_layout.data(), 8) == offsetof(ImageCacheEntry, modified));

// The id and the type lead every record and are never restored.
constexpr int first_restored_field = 2;

bool layout_is_storable(const uint8_t* layout) {
    if (!layout || layout[0] < first_restored_field) return false;
    for (int field = 0; field < layout[0]; ++field) {
        const uint8_t value = layout[1 + field];
        if (value == 0 || value >= field_kind_count) return false;
    }
    return true;
}

// ---- the cache's state ----

struct ScheduledSave {
    ObjectId set;
    ObjectType type;
    std::string path;
};

// One mutex: entries are made on whichever thread makes a reduced image. The
// paged memory calls in here with its own lock held, never the other way.
struct CacheState {
    std::recursive_mutex mutex;
    ObjectId path_index = 0;
    ObjectId name_index = 0;
    std::string directory; // the reduced-image directory, ending in a separator
    std::vector<ScheduledSave> scheduled;
};
CacheState cache;
std::atomic<bool> cache_stopped{false};

using CacheLock = std::lock_guard<std::recursive_mutex>;

void destroy_entry(void* record) {
    auto* entry = static_cast<ImageCacheEntry*>(record);
    free_mem(entry->source_path);
    free_mem(entry->cache_name);
    free_mem(entry->full_path);
}

// ---- writing ----

uint32_t round_up_to_word(std::size_t bytes) {
    return static_cast<uint32_t>((bytes + session_word_bytes - 1) / session_word_bytes *
                                 session_word_bytes);
}

template <class T>
const T& field_at(const uint8_t* record, std::size_t offset) {
    return *reinterpret_cast<const T*>(record + offset);
}

std::size_t string_value_bytes(uint8_t field_kind, const uint8_t* record, std::size_t offset) {
    if (field_kind == kind(FieldKind::byte_string)) {
        const char* text = field_at<const char*>(record, offset);
        return (text ? std::strlen(text) : 0) + 1;
    }
    const wchar_t* text = field_at<const wchar_t*>(record, offset);
    return ((text ? std::wcslen(text) : 0) + 1) * wide_unit_bytes;
}

void put_bytes(std::vector<uint8_t>& out, const void* data, std::size_t count) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    out.insert(out.end(), bytes, bytes + count);
}

void put_word(std::vector<uint8_t>& out, uint32_t value) {
    put_bytes(out, &value, sizeof value);
}

void put_field(std::vector<uint8_t>& out, uint8_t field_kind, uint32_t stored_bytes,
               const uint8_t* record, std::size_t offset) {
    const std::size_t start = out.size();
    if (field_kind == kind(FieldKind::byte_string)) {
        const char* text = field_at<const char*>(record, offset);
        if (text) put_bytes(out, text, std::strlen(text));
    } else if (field_kind == kind(FieldKind::wide_string)) {
        const wchar_t* text = field_at<const wchar_t*>(record, offset);
        for (; text && *text; ++text) {
            const auto unit = *text > 0xFFFF ? wide_unit_unknown : static_cast<char16_t>(*text);
            put_bytes(out, &unit, wide_unit_bytes);
        }
    } else {
        put_bytes(out, record + offset, record_field_bytes[field_kind]);
    }
    out.resize(start + stored_bytes, 0);
}

void write_session_body(ObjectId set, ObjectType type, const char* path) {
    const uint8_t* layout = get_obj_layout(type);
    if (!layout_is_storable(layout) || !path) return;
    const int field_count = layout[0];

    std::vector<const uint8_t*> records;
    for (ObjectId id = oset_next(set, 0); id != 0; id = oset_next(set, id)) {
        if (const void* record = find_obj_adr(type, id, nullptr))
            records.push_back(static_cast<const uint8_t*>(record));
    }
    if (error_pending()) return;

    std::vector<uint32_t> sizes(static_cast<std::size_t>(field_count));
    for (int field = 0; field < field_count; ++field) {
        const uint8_t field_kind = layout[1 + field];
        uint32_t& size = sizes[static_cast<std::size_t>(field)];
        size = stored_field_bytes[field_kind];
        if (!is_string_kind(field_kind)) continue;
        const std::size_t offset = field_offset(layout, field);
        for (const uint8_t* record : records)
            size = std::max(size, round_up_to_word(string_value_bytes(field_kind, record, offset)));
    }

    std::vector<uint8_t> out;
    put_bytes(out, session_magic.data(), session_magic.size());
    put_word(out, session_version);
    put_word(out, static_cast<uint32_t>(type));
    put_word(out, static_cast<uint32_t>(records.size()));
    put_word(out, static_cast<uint32_t>(field_count));
    for (uint32_t size : sizes)
        put_word(out, size);
    uint32_t id_sum = 0;
    for (const uint8_t* record : records) {
        id_sum += static_cast<uint32_t>(field_at<ObjectId>(record, 0));
        for (int field = 0; field < field_count; ++field)
            put_field(out, layout[1 + field], sizes[static_cast<std::size_t>(field)], record,
                      field_offset(layout, field));
    }
    put_word(out, id_sum);

    const std::string backup = std::string(path) + session_backup_suffix;
    if (os::is_regular_file(path)) os::copy_file(path, backup.c_str());
    std::FILE* file = open_for_write(path, "wb");
    if (!file) return;
    bool written = std::fwrite(out.data(), 1, out.size(), file) == out.size();
    written = std::fclose(file) == 0 && written;
    // Without a complete new file, the copy stays to be put back at the next start.
    if (written) os::remove_file(backup.c_str());
}

// ---- reading ----

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

bool read_exact(std::FILE* file, void* destination, std::size_t count) {
    return std::fread(destination, 1, count, file) == count;
}

bool read_word(std::FILE* file, uint32_t& value) {
    return read_exact(file, &value, sizeof value);
}

void restore_backup(const char* path) {
    const std::string backup = std::string(path) + session_backup_suffix;
    if (!os::is_regular_file(backup.c_str())) return;
    os::remove_file(path);
    std::rename(backup.c_str(), path);
}

void restore_field(uint8_t field_kind, const uint8_t* stored, uint32_t stored_bytes,
                   uint8_t* record, std::size_t offset) {
    if (field_kind == kind(FieldKind::byte_string)) {
        // The last byte is a NUL whatever the file says.
        std::string text(reinterpret_cast<const char*>(stored),
                         strnlen(reinterpret_cast<const char*>(stored), stored_bytes - 1));
        str_copy(text.c_str(), *reinterpret_cast<char**>(record + offset));
    } else if (field_kind == kind(FieldKind::wide_string)) {
        std::wstring text;
        for (uint32_t at = 0; at + wide_unit_bytes <= stored_bytes; at += wide_unit_bytes) {
            char16_t unit = 0;
            std::memcpy(&unit, stored + at, wide_unit_bytes);
            if (unit == 0) break;
            text.push_back(static_cast<wchar_t>(unit));
        }
        wstr_copy(text.c_str(), *reinterpret_cast<wchar_t**>(record + offset));
    } else {
        std::memcpy(record + offset, stored, record_field_bytes[field_kind]);
    }
}

// Field sizes that this layout can take, and the bytes of one record.
bool check_sizes(const uint8_t* layout, const std::vector<uint32_t>& sizes,
                 uint64_t& record_bytes) {
    record_bytes = 0;
    for (std::size_t field = 0; field < sizes.size(); ++field) {
        const uint8_t field_kind = layout[1 + field];
        const uint32_t size = sizes[field];
        const bool fits = is_string_kind(field_kind) ? size >= stored_field_bytes[field_kind] &&
                                                           size % session_word_bytes == 0
                                                     : size == stored_field_bytes[field_kind];
        if (!fits) return false;
        record_bytes += size;
    }
    return true;
}

void read_session_body(ObjectId set, ObjectType type, const char* path) {
    const uint8_t* layout = get_obj_layout(type);
    if (!layout_is_storable(layout) || !path) return;
    restore_backup(path);
    std::error_code failure;
    const uintmax_t file_bytes = std::filesystem::file_size(path, failure);
    if (failure) return;
    FileHandle file(std::fopen(path, "rb"));
    if (!file) return;
    std::setvbuf(file.get(), nullptr, _IOFBF, session_buffer_bytes);

    std::array<char, session_magic.size()> magic{};
    uint32_t version = 0;
    uint32_t stored_type = 0;
    uint32_t count = 0;
    uint32_t field_count = 0;
    if (!read_exact(file.get(), magic.data(), magic.size()) || magic != session_magic ||
        !read_word(file.get(), version) || version != session_version ||
        !read_word(file.get(), stored_type) || stored_type != static_cast<uint32_t>(type) ||
        !read_word(file.get(), count) || !read_word(file.get(), field_count) ||
        field_count != layout[0])
        return;
    std::vector<uint32_t> sizes(field_count);
    for (uint32_t& size : sizes) {
        if (!read_word(file.get(), size)) return;
    }
    uint64_t record_bytes = 0;
    const uint64_t header_bytes = session_magic.size() + session_word_bytes * (4 + field_count);
    // A count that the file can't hold is not believed, so nothing is sized from it.
    if (!check_sizes(layout, sizes, record_bytes) ||
        header_bytes + record_bytes * count + session_word_bytes > file_bytes)
        return;

    std::vector<uint8_t> stored(static_cast<std::size_t>(record_bytes));
    std::vector<ObjectId> made;
    uint32_t id_sum = 0;
    for (uint32_t record_number = 0; record_number < count; ++record_number) {
        if (!read_exact(file.get(), stored.data(), stored.size())) break;
        ObjectId id = 0;
        auto* record = static_cast<uint8_t*>(cre_obj(type, &id, nullptr));
        if (!record) break;
        made.push_back(id);
        id_sum += field_at<uint32_t>(stored.data(), 0);
        std::size_t at = sizes[0] + sizes[1];
        for (std::size_t field = first_restored_field; field < field_count; ++field) {
            restore_field(layout[1 + field], stored.data() + at, sizes[field], record,
                          field_offset(layout, static_cast<int>(field)));
            at += sizes[field];
        }
    }
    uint32_t stored_sum = 0;
    if (made.size() == count && read_word(file.get(), stored_sum) && stored_sum == id_sum &&
        !error_pending()) {
        for (ObjectId id : made)
            oset_insert(set, id);
        return;
    }
    set_gblerr(ErrorCode::none);
    for (ObjectId id : made)
        del_obj(type, id);
}

// ---- cache names ----

uint64_t name_number(const std::string& name) {
    uint64_t number = 0;
    for (char c : name) {
        if (c != cache_name_separator) number = number * 10 + static_cast<uint64_t>(c - '0');
    }
    return number;
}

std::string name_of_number(uint64_t number, std::size_t digits) {
    std::string name(digits * 2 - 1, cache_name_separator);
    for (std::size_t digit = digits; digit-- > 0;) {
        name[digit * 2] = static_cast<char>('0' + number % 10);
        number /= 10;
    }
    return name;
}

std::size_t digit_count(const std::string& name) {
    return (name.size() + 1) / 2;
}

std::string entry_name(ObjectId id) {
    const auto* entry = find_obj_adr<ImageCacheEntry>(id);
    return entry && entry->cache_name ? entry->cache_name : "";
}

void set_entry_name(ImageCacheEntry& entry, const std::string& name) {
    str_copy(name.c_str(), entry.cache_name);
    str_copy((cache.directory + name).c_str(), entry.full_path);
}

// Every digit has overflowed: the whole tree goes one level down, under "0",
// by way of a directory beside it, and every name gains that level.
// Prefixing every name alike keeps the name index in order.
void rotate_cache_tree() {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path root = cache.directory;
    const fs::path aside = root / cache_rotation_dir;
    fs::create_directories(aside, ignored);
    for (char digit = '0'; digit <= '9'; ++digit)
        fs::rename(root / std::string(1, digit), aside / std::string(1, digit), ignored);
    fs::rename(aside, root / "0", ignored);
    for (ObjectId id = oset_next(cache.name_index, 0); id != 0;
         id = oset_next(cache.name_index, id)) {
        if (auto* entry = find_obj_adr<ImageCacheEntry>(id))
            set_entry_name(*entry, std::string("0") + cache_name_separator + entry_name(id));
    }
}

// The name after the last one; when entries were removed on the way, the
// lowest number that no entry holds.
std::string next_free_name() {
    const ObjectId last = oset_prev(cache.name_index, 0);
    if (last == 0) return name_of_number(0, cache_name_digits);
    std::string name = entry_name(last);
    if (!next_cache_name(name)) {
        rotate_cache_tree();
        name = entry_name(last);
        next_cache_name(name);
    }
    uint64_t live_count = 0;
    for (ObjectId id = oset_next(cache.name_index, 0); id != 0;
         id = oset_next(cache.name_index, id))
        ++live_count;
    if (name_number(name) <= live_count) return name;
    uint64_t position = 0;
    for (ObjectId id = oset_next(cache.name_index, 0); id != 0;
         id = oset_next(cache.name_index, id), ++position) {
        if (name_number(entry_name(id)) != position) break;
    }
    return name_of_number(position, digit_count(name));
}

void schedule_locked(ObjectId set, ObjectType type, const char* path) {
    if (!path) return;
    const bool noted =
        std::any_of(cache.scheduled.begin(), cache.scheduled.end(), [&](const ScheduledSave& save) {
            return save.set == set && save.path == path;
        });
    if (!noted) cache.scheduled.push_back(ScheduledSave{set, type, path});
}

} // namespace

void image_cache_register_type() {
    set_obj_type<ImageCacheEntry>(image_cache_layout.data());
    set_obj_destructor(ObjectType::ImageCacheEntry, destroy_entry);
}

void load_image_cache() {
    const char* directory = reduced_image_dir();
    if (!directory) return;
    CacheLock lock(cache.mutex);
    cache.directory = directory;
    if (cache.name_index == 0) {
        oset_create(0, 0, ObjectType::ImageCacheEntry, FieldKind::byte_string,
                    offsetof(ImageCacheEntry, source_path), cache.path_index);
        oset_create(0, 0, ObjectType::ImageCacheEntry, FieldKind::byte_string,
                    offsetof(ImageCacheEntry, cache_name), cache.name_index);
    }
    read_session_file(cache.name_index, ObjectType::ImageCacheEntry,
                      (cache.directory + session_file_name).c_str());
    for (ObjectId id = oset_next(cache.name_index, 0); id != 0;
         id = oset_next(cache.name_index, id)) {
        if (auto* entry = find_obj_adr<ImageCacheEntry>(id)) set_entry_name(*entry, entry_name(id));
    }
    oset_rebuild(cache.path_index, 0);
}

void save_session() {
    // A failure pending at exit may have left the records half made.
    if (error_pending()) return;
    std::vector<ScheduledSave> saves;
    {
        CacheLock lock(cache.mutex);
        saves.swap(cache.scheduled);
    }
    for (const ScheduledSave& save : saves)
        write_session_file(save.set, save.type, save.path.c_str());
}

void schedule_save(ObjectId set, ObjectType type, const char* path) {
    CacheLock lock(cache.mutex);
    schedule_locked(set, type, path);
}

void read_session_file(ObjectId set, ObjectType type, const char* path) {
    ErrorHold hold;
    read_session_body(set, type, path);
    set_gblerr(ErrorCode::none);
}

void write_session_file(ObjectId set, ObjectType type, const char* path) {
    ErrorHold hold;
    write_session_body(set, type, path);
    set_gblerr(ErrorCode::none);
}

ObjectId find_cache_entry(const CacheSource& source) {
    CacheLock lock(cache.mutex);
    if (!image_cache_enabled() || cache.path_index == 0 || !source.path) return 0;
    ObjectId id = 0;
    void* address = nullptr;
    while (oset_next_equal(cache.path_index, source.path, id, &address)) {
        const auto* entry = static_cast<const ImageCacheEntry*>(address);
        if (entry->modified == source.modified && entry->length == source.length &&
            entry->offset == source.offset)
            return id;
    }
    const std::string name = next_free_name();
    auto* entry = cre_obj<ImageCacheEntry>(&id);
    if (!entry) return 0;
    str_copy(source.path, entry->source_path);
    set_entry_name(*entry, name);
    entry->offset = source.offset;
    entry->length = source.length;
    entry->modified = source.modified;
    oset_insert(cache.path_index, id);
    oset_insert(cache.name_index, id);
    return id;
}

void cache_entry_completed(ObjectId entry_id) {
    CacheLock lock(cache.mutex);
    auto* entry = find_obj_adr<ImageCacheEntry>(entry_id);
    if (!entry || entry->complete) return;
    entry->complete = 1;
    schedule_locked(cache.name_index, ObjectType::ImageCacheEntry,
                    (cache.directory + session_file_name).c_str());
}

bool image_cache_enabled() {
    return !cache_stopped.load(std::memory_order_acquire);
}

bool cache_disk_has_room(const char* path) {
    namespace fs = std::filesystem;
    std::error_code failure;
    fs::path existing = path ? path : "";
    while (!existing.empty() && !fs::exists(existing, failure)) {
        fs::path parent = existing.parent_path();
        if (parent == existing) break;
        existing = parent;
    }
    const fs::space_info space = fs::space(existing, failure);
    // Unknown room lets the write try, and fail on its own if it must.
    if (failure) return true;
    if (static_cast<double>(space.available) >= cache_min_free_gib * bytes_per_gib) return true;
    cache_stopped.store(true, std::memory_order_release);
    return false;
}

ObjectId cache_path_index() {
    CacheLock lock(cache.mutex);
    return cache.path_index;
}

ObjectId cache_name_index() {
    CacheLock lock(cache.mutex);
    return cache.name_index;
}

bool next_cache_name(std::string& name) {
    for (std::size_t at = name.size(); at-- > 0;) {
        char& c = name[at];
        if (c == cache_name_separator) continue;
        if (c != '9') {
            ++c;
            return true;
        }
        c = '0';
    }
    return false;
}

} // namespace norvanta
