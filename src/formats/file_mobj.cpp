// FileMobj: the record's life (registration, destructor, copy hook), the path
// rules, the open-file index, the accessors, the file lists and the directory
// walk.
#include "formats/file_mobj.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/stream.h"
#include "core/strings.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/julian.h"

namespace norvanta {

namespace {

// A file of 2 GiB or more does not fit the 32-bit sizes of the readers.
constexpr int64_t unusable_size_bytes = int64_t{1} << 31;

// The web setting's first character when the configuration turns the web off.
constexpr char web_access_off = '0';

constexpr std::string_view scheme_mark = "://";
constexpr std::string_view file_scheme = "file://";
constexpr std::string_view http_scheme = "http://";

struct UrlScheme {
    std::string_view prefix;
    FileClass file_class;
};
constexpr std::array<UrlScheme, 2> url_schemes = {{
    {"http://", FileClass::http_url},
    {"ecwp://", FileClass::ecwp_url},
}};

// File lists: the stream's window, and the longest line kept.
constexpr int32_t file_list_buffer_bytes = 0x20000;
constexpr int32_t file_list_line_limit = 990;
// A FileList line is trimmed of trailing blanks down to this many characters,
// and a line shorter than that names nothing.
constexpr std::size_t file_list_shortest_line = 2;

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

char lower_ascii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The class of the scheme that begins path, whatever its case, which is
// folded to lower case in place; unexamined for any other beginning.
FileClass fold_url_scheme(char* path) {
    for (const UrlScheme& scheme : url_schemes) {
        std::size_t i = 0;
        while (i < scheme.prefix.size() && path[i] && lower_ascii(path[i]) == scheme.prefix[i])
            ++i;
        if (i < scheme.prefix.size()) continue;
        std::memcpy(path, scheme.prefix.data(), scheme.prefix.size());
        return scheme.file_class;
    }
    return FileClass::unexamined;
}

bool is_absolute(std::string_view path) {
    return path.starts_with("/") || path.starts_with("\\\\") ||
           path.find(":/") != std::string_view::npos || path.find(":\\") != std::string_view::npos;
}

std::string joined(const char* directory, const char* name) {
    std::string path = directory ? directory : "";
    if (name) path += name;
    return path;
}

// ---- the open-file index ----

// The index is an OrderedSet over path_key. Its lock also covers every
// record's path_key, which the index's searches read: a key is only written
// or freed with the lock held.
struct OpenFileIndex {
    std::mutex mutex;
    ObjectId handle = 0;
};
constinit OpenFileIndex open_files;

ObjectId index_handle_locked() {
    if (open_files.handle == 0)
        oset_create(0, 0, ObjectType::FileMobj, FieldKind::byte_string,
                    offsetof(FileMobj, path_key), open_files.handle);
    return open_files.handle;
}

// ---- the record's life ----

// Another FileMobj holds the same block: a memory file handed over, or a
// copy made by copy_obj.
bool memory_shared(ObjectId self, ObjectId memory) {
    ObjectId other = 0;
    while (const auto* file =
               static_cast<const FileMobj*>(next_obj(ObjectType::FileMobj, other, nullptr))) {
        if (other != self && file->memory == memory) return true;
    }
    return false;
}

void delete_data_set(ObjectId set) {
    if (set == 0 || !ds_exists(set)) return;
    ds_delete_tree(set);
    ds_destroy(set);
}

// Every resource is taken out of the record before it is released: deleting
// the sibling, the set or the block may come back to this very record.
void destroy_file_mobj(void* record) {
    auto* file = static_cast<FileMobj*>(record);
    const ObjectId self = file->id;
    {
        std::lock_guard lock(open_files.mutex);
        if (file->path_key) oset_remove(open_files.handle, self);
        free_mem(file->path_key);
    }
    const ObjectId memory = std::exchange(file->memory, 0);
    const ObjectId sibling = std::exchange(file->sibling, 0);
    const ObjectId set = std::exchange(file->data_set, 0);
    char* owned[] = {std::exchange(file->path, nullptr), std::exchange(file->info, nullptr),
                     std::exchange(file->archive_path, nullptr),
                     std::exchange(file->mime_type, nullptr)};

    // The stream goes first: a window may point straight into the block.
    close_stream(self);
    if (memory != 0 && !memory_shared(self, memory)) del_obj(ObjectType::Mobj, memory);
    if (sibling != 0) del_obj(ObjectType::FileMobj, sibling);
    delete_data_set(set);
    for (char*& text : owned)
        free_mem(text);
}

// A copy owns its strings; sharing them would free them twice.
void copy_file_mobj(const void*, void* destination) {
    auto* file = static_cast<FileMobj*>(destination);
    for (char** field : {&file->path, &file->info, &file->archive_path, &file->mime_type}) {
        const char* shared = std::exchange(*field, nullptr);
        if (shared) str_copy(shared, *field);
    }
    std::lock_guard lock(open_files.mutex);
    const char* shared_key = std::exchange(file->path_key, nullptr);
    if (shared_key) str_copy(shared_key, file->path_key);
}

void destroy_file_view(void* record) {
    free_mem(static_cast<FileView*>(record)->name);
}

} // namespace

void file_objects_init() {
    set_obj_type<FileMobj>();
    set_obj_destructor(ObjectType::FileMobj, destroy_file_mobj);
    set_obj_copy_hook(ObjectType::FileMobj, copy_file_mobj);
    set_obj_type<FileView>();
    set_obj_destructor(ObjectType::FileView, destroy_file_view);
    std::lock_guard lock(open_files.mutex);
    index_handle_locked();
}

// ---- paths ----

FileClass is_url(char* path) {
    if (!path || web_setting()[0] == web_access_off) return FileClass::unexamined;
    return fold_url_scheme(path);
}

void normalise_path(char*& path) {
    if (!path || !path[0]) return;
    std::string text = path;
    if (!is_absolute(text)) text.insert(0, http_scheme);
    const std::size_t mark = text.find(scheme_mark);
    if (mark != std::string::npos && text.find('/', mark + scheme_mark.size()) == std::string::npos)
        text += '/';
    if (text.starts_with(file_scheme)) {
        std::size_t rest = file_scheme.size();
        while (rest < text.size() && is_separator(text[rest]))
            ++rest;
        const bool has_drive = text.find(':', rest) != std::string::npos;
        text.erase(0, has_drive ? rest : rest - 1);
        if (!has_drive) text[0] = '/';
    }
    const std::size_t leading = std::min(text.find_first_not_of('/'), text.size());
    if (leading > 1) text.erase(0, leading - 1);
    str_copy(text.c_str(), path);
}

void path_key_form(const char* path, char*& key) {
    str_copy(path ? path : "", key);
    fold_url_scheme(key);
    std::replace(key, key + std::strlen(key), '\\', '/');
}

PathFacts examine_path(char* path, bool class_only) {
    PathFacts facts{FileClass::unchecked, 0, 0.0};
    if (!path) {
        facts.file_class = FileClass::unusable;
        return facts;
    }
    if (FileClass url = is_url(path); url != FileClass::unexamined) {
        facts.file_class = url;
        return facts;
    }
    if (class_only) {
        if (ObjectId open = find_open_file(path)) {
            facts.file_class = file_class_of(open);
            return facts;
        }
    }
    std::string on_disk = path;
    if (!on_disk.empty() && is_separator(on_disk.back())) on_disk.pop_back();
    struct stat status {};
    if (::stat(on_disk.c_str(), &status) != 0 || status.st_size >= unusable_size_bytes) {
        facts.file_class = FileClass::unusable;
        return facts;
    }
    if (S_ISDIR(status.st_mode)) facts.file_class = FileClass::directory;
    if (S_ISREG(status.st_mode)) facts.file_class = FileClass::regular_file;
    facts.size = static_cast<uint32_t>(status.st_size);
    facts.modified = date_from_time(std::max(status.st_mtime, status.st_ctime));
    return facts;
}

// ---- creation and the open-file index ----

ObjectId new_file_mobj(ObjectId parent, const char* directory, const char* name, bool reuse) {
    const std::string path = joined(directory, name);
    if (path.empty()) return 0;
    if (reuse) {
        const ObjectId open = find_open_file(path.c_str());
        if (open != 0 && file_class_of(open) != FileClass::unexamined) return open;
    }
    ObjectId id = 0;
    auto* file = cre_obj<FileMobj>(&id);
    if (!file) return 0;
    str_copy(path.c_str(), file->path);
    const PathFacts facts = examine_path(file->path, false);
    file->file_class = facts.file_class;
    file->size = facts.size;
    file->modified = facts.modified;
    if (parent == no_parent) return id;
    register_file(id);
    if (parent == 0) return id;
    auto* owner = get_obj_adr<FileMobj>(parent);
    if (!owner) return id;
    if (owner->children == 0)
        cre_obj_children(ObjectType::FileMobj, parent, ObjectType::FileMobj, FieldKind::byte_string,
                         offsetof(FileMobj, path_key));
    link_obj_owner(ObjectType::FileMobj, parent, ObjectType::FileMobj, id);
    return id;
}

ObjectId open_path(const char* path) {
    if (!path || !path[0]) return 0;
    char* normal = nullptr;
    str_copy(path, normal);
    normalise_path(normal);
    if (examine_path(normal, false).file_class == FileClass::directory &&
        !is_separator(normal[std::strlen(normal) - 1])) {
        str_append_char('/', normal);
    }
    const ObjectId id = new_file_mobj(0, nullptr, normal, false);
    free_mem(normal);
    auto* file = find_obj_adr<FileMobj>(id);
    if (!file || file->file_class != FileClass::directory) return id;
    ds_create(file->data_set);
    walk_directory(id, file->data_set);
    return id;
}

ObjectId find_open_file(const char* path) {
    if (!path) return 0;
    char* key = nullptr;
    path_key_form(path, key);
    bool exact = false;
    ObjectId found = 0;
    {
        std::lock_guard lock(open_files.mutex);
        found = oset_search(index_handle_locked(), key, &exact);
    }
    free_mem(key);
    return exact ? found : 0;
}

void register_file(ObjectId id) {
    std::lock_guard lock(open_files.mutex);
    auto* file = get_obj_adr<FileMobj>(id);
    if (!file) return;
    const ObjectId index = index_handle_locked();
    if (file->path_key) oset_remove(index, id);
    path_key_form(file->path, file->path_key);
    oset_insert(index, id);
}

ObjectId new_memory_file() {
    ObjectId id = 0;
    auto* file = cre_obj<FileMobj>(&id);
    if (!file) return 0;
    file->file_class = FileClass::regular_file;
    cre_memory_block(file->memory);
    return id;
}

// ---- accessors ----
//
// The look-ups are silent: a file that is gone is an answer, not an error.

const char* file_path_of(ObjectId id) {
    const auto* file = find_obj_adr<FileMobj>(id);
    return file && file->path ? file->path : "";
}

FileClass file_class_of(ObjectId id) {
    const auto* file = find_obj_adr<FileMobj>(id);
    return file ? file->file_class : FileClass::unusable;
}

FileFormat file_format_of(ObjectId id) {
    const auto* file = find_obj_adr<FileMobj>(id);
    return file ? file->format : FileFormat::missing_file;
}

uint32_t file_size_of(ObjectId id) {
    const auto* file = find_obj_adr<FileMobj>(id);
    if (!file) return 0;
    if (file->memory != 0) {
        const auto* block = find_obj_adr<Mobj>(file->memory);
        return block ? static_cast<uint32_t>(block->size) : 0;
    }
    return file->is_member ? static_cast<uint32_t>(file->member_size) : file->size;
}

ObjectId file_data_set_of(ObjectId id) {
    const auto* file = find_obj_adr<FileMobj>(id);
    return file && ds_exists(file->data_set) ? file->data_set : 0;
}

std::string get_filemobj_name(ObjectId id) {
    const auto* file = find_obj_adr<FileMobj>(id);
    if (!file) return {};
    if (file->path && file->path[0]) return file->path;
    Mobj* block = find_obj_adr<Mobj>(file->memory);
    return block ? get_filemobj_name(*block) : std::string{};
}

void unload_file(ObjectId id) {
    auto* file = get_obj_adr<FileMobj>(id);
    if (!file) return;
    delete_data_set(std::exchange(file->data_set, 0));
    const ObjectId memory = std::exchange(file->memory, 0);
    if (memory == 0) return;
    file->archive_opened = 0;
    close_stream(id);
    del_obj(ObjectType::Mobj, memory);
}

// ---- file lists ----

namespace {

using ClassTest = bool (*)(FileClass);

bool names_file_or_url(FileClass file_class) {
    return file_class == FileClass::regular_file || file_class == FileClass::http_url ||
           file_class == FileClass::ecwp_url;
}

bool names_file_or_web_page(FileClass file_class) {
    return file_class == FileClass::regular_file || file_class == FileClass::http_url;
}

// The entry of one list line, when examination says it names something that
// can be read.
ObjectId add_list_entry(ObjectId list_file, ObjectId data_set, char* path, ClassTest accepted) {
    if (!accepted(examine_path(path, true).file_class)) return 0;
    const ObjectId entry = new_file_mobj(list_file, nullptr, path, false);
    ds_add(data_set, ObjectType::FileMobj, entry);
    return entry;
}

} // namespace

void read_file_list(ObjectId list_file, ObjectId data_set) {
    if (open_stream(list_file, file_list_buffer_bytes, true) != 0) {
        set_gblerr(ErrorCode::file_access);
        return;
    }
    int32_t remaining = stream_remaining();
    char line[file_list_line_limit + 1];
    read_line(file_list_line_limit, remaining, line);
    const std::string_view first = line;
    const bool plain = first.starts_with(file_list_magic);
    if (!plain && !first.starts_with(tav_file_list_magic)) return;

    while (remaining > 0 && !error_pending()) {
        std::size_t length =
            static_cast<std::size_t>(read_line(file_list_line_limit, remaining, line));
        if (plain) {
            while (length > file_list_shortest_line && is_blank(line[length - 1]))
                line[--length] = '\0';
            if (length < file_list_shortest_line) continue;
            add_list_entry(list_file, data_set, line, names_file_or_url);
            continue;
        }
        char tag[file_tag_bytes + 1];
        const char* text = line;
        scan_word(static_cast<int32_t>(file_tag_bytes), text, tag);
        skip_space(text);
        char* path = line + (text - line);
        if (!*path) continue;
        const ObjectId entry = add_list_entry(list_file, data_set, path, names_file_or_web_page);
        if (auto* file = find_obj_adr<FileMobj>(entry)) {
            std::memset(file->tag, 0, file_tag_bytes);
            std::memcpy(file->tag, tag, std::strlen(tag));
        }
    }
}

// ---- the directory walk ----
//
// The walk is a machine over the levels of open directories. Each level holds
// the names of its directory, read at once and sorted, so that no directory
// stays open while the walk is deeper and the order does not depend on the
// file system. A step reads the next name of the deepest level and classifies
// it; the table says what to do with it and which state follows.

namespace {

enum class WalkState : uint8_t { open_level, read_entry, close_level, finished };
enum class WalkEvent : uint8_t {
    level_opened,
    level_refused,
    dot_name,        // "." and ".."
    directory_found, // not one of the directories the walk is inside
    file_found,      // a regular file, through symbolic links
    other_found,     // FIFO, device, socket, dangling link, or a loop back up
    level_done,
    parent_resumed,
    root_done,
};
enum class WalkAction : uint8_t { none, refuse, pass_over, enter, add_file, leave };

struct WalkRow {
    WalkState state;
    WalkEvent event;
    WalkAction action;
    WalkState next;
};

constexpr std::array walk_table = {
    WalkRow{WalkState::open_level, WalkEvent::level_opened, WalkAction::none,
            WalkState::read_entry},
    WalkRow{WalkState::open_level, WalkEvent::level_refused, WalkAction::refuse,
            WalkState::finished},
    WalkRow{WalkState::read_entry, WalkEvent::dot_name, WalkAction::pass_over,
            WalkState::read_entry},
    WalkRow{WalkState::read_entry, WalkEvent::directory_found, WalkAction::enter,
            WalkState::open_level},
    WalkRow{WalkState::read_entry, WalkEvent::file_found, WalkAction::add_file,
            WalkState::read_entry},
    WalkRow{WalkState::read_entry, WalkEvent::other_found, WalkAction::pass_over,
            WalkState::read_entry},
    WalkRow{WalkState::read_entry, WalkEvent::level_done, WalkAction::leave,
            WalkState::close_level},
    WalkRow{WalkState::close_level, WalkEvent::parent_resumed, WalkAction::none,
            WalkState::read_entry},
    WalkRow{WalkState::close_level, WalkEvent::root_done, WalkAction::none, WalkState::finished},
};
static_assert(walk_table.size() == 9);

const WalkRow* walk_row(WalkState state, WalkEvent event) {
    for (const WalkRow& row : walk_table) {
        if (row.state == state && row.event == event) return &row;
    }
    return nullptr;
}

struct WalkLevel {
    std::vector<std::string> names;
    std::size_t next_name;
    std::size_t parent_length; // of the walk's path before this level's name
    dev_t device;
    ino_t inode;
};

struct Walk {
    std::string path; // the deepest level's directory, ending in '/'
    std::vector<WalkLevel> levels;
    std::string name; // the entry just read
    ObjectId data_set;
};

WalkEvent open_level(Walk& walk, std::size_t parent_length) {
    struct stat status {};
    DIR* directory = ::opendir(walk.path.c_str());
    if (!directory) return WalkEvent::level_refused;
    WalkLevel level{{}, 0, parent_length, 0, 0};
    if (::fstat(::dirfd(directory), &status) == 0) {
        level.device = status.st_dev;
        level.inode = status.st_ino;
    }
    while (const dirent* entry = ::readdir(directory))
        level.names.emplace_back(entry->d_name);
    ::closedir(directory);
    std::sort(level.names.begin(), level.names.end());
    walk.levels.push_back(std::move(level));
    return WalkEvent::level_opened;
}

bool inside(const Walk& walk, const struct stat& status) {
    return std::any_of(walk.levels.begin(), walk.levels.end(), [&](const WalkLevel& level) {
        return level.device == status.st_dev && level.inode == status.st_ino;
    });
}

WalkEvent read_entry(Walk& walk) {
    WalkLevel& level = walk.levels.back();
    if (level.next_name >= level.names.size()) return WalkEvent::level_done;
    walk.name = level.names[level.next_name++];
    if (walk.name == "." || walk.name == "..") return WalkEvent::dot_name;
    struct stat status {};
    if (::stat((walk.path + walk.name).c_str(), &status) != 0) return WalkEvent::other_found;
    if (S_ISDIR(status.st_mode))
        return inside(walk, status) ? WalkEvent::other_found : WalkEvent::directory_found;
    return S_ISREG(status.st_mode) ? WalkEvent::file_found : WalkEvent::other_found;
}

void add_walked_file(Walk& walk) {
    const ObjectId id = new_file_mobj(no_parent, walk.path.c_str(), walk.name.c_str(), false);
    auto* file = find_obj_adr<FileMobj>(id);
    if (!file) return;
    file->walk_depth = static_cast<int32_t>(walk.levels.size());
    file->walk_temporary = 1;
    ds_add(walk.data_set, ObjectType::FileMobj, id);
}

} // namespace

void walk_directory(ObjectId directory_file, ObjectId data_set) {
    const auto* root = get_obj_adr<FileMobj>(directory_file);
    if (!root || !root->path) return;
    Walk walk{root->path, {}, {}, data_set};
    if (walk.path.empty() || !is_separator(walk.path.back())) walk.path += '/';

    WalkState state = WalkState::open_level;
    std::size_t entering_from = walk.path.size();
    while (state != WalkState::finished && !error_pending()) {
        WalkEvent event = WalkEvent::root_done;
        switch (state) {
        case WalkState::open_level:
            event = open_level(walk, entering_from);
            break;
        case WalkState::read_entry:
            event = read_entry(walk);
            break;
        case WalkState::close_level:
            event = walk.levels.empty() ? WalkEvent::root_done : WalkEvent::parent_resumed;
            break;
        case WalkState::finished:
            break;
        }
        const WalkRow* row = walk_row(state, event);
        if (!row) break;
        switch (row->action) {
        case WalkAction::none:
        case WalkAction::pass_over:
            break;
        case WalkAction::refuse:
            set_gblerr(walk.levels.empty() ? ErrorCode::wrong_parameters : ErrorCode::os_error);
            break;
        case WalkAction::enter:
            entering_from = walk.path.size();
            walk.path += walk.name;
            walk.path += '/';
            break;
        case WalkAction::add_file:
            add_walked_file(walk);
            break;
        case WalkAction::leave:
            walk.path.resize(walk.levels.back().parent_length);
            walk.levels.pop_back();
            break;
        }
        state = row->next;
    }
}

} // namespace norvanta
