// The operating system seam: paths, directories, the user's language and the
// memory figures. Implemented per platform (platform/posix for Linux); the
// shell reaches the system only through here.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

namespace norvanta::os {

// Full path of the running executable; empty when it cannot be read.
std::string executable_path();

// The per-user data directory (the roaming application data on Windows) and
// the per-user local directory, each ending in a separator and created if
// need be; empty when there is none. Both lie under $NORVANTA_HOME when it is
// set, so that tests never touch a real home.
std::string user_data_base();
std::string user_local_base();
// $NORVANTA_HOME as a directory ending in a separator, or empty.
std::string norvanta_home();

// True when the user's language is French (or Basque), from LC_ALL,
// LC_MESSAGES or LANG.
bool user_language_is_french();

struct MemoryFigures {
    uint64_t physical_total_mb;
    uint64_t physical_free_mb;
    uint64_t working_set_mb;
};
MemoryFigures memory_figures();

// Running processes whose program name equals image_name, ignoring case.
int process_count(const char* image_name);
long process_id();
// True when a process of this number is running.
bool process_alive(long pid);

bool is_regular_file(const char* path);
bool is_directory(const char* path);
// An absolute path on a local file system (not NFS, SMB/CIFS or remote FUSE).
bool is_local_disk(const char* path);
// One level.
bool make_directory(const char* path);
// Every missing level of an absolute path to the file's directory.
bool make_parent_directories(const char* file_path);
// Byte-for-byte copy; false on any failure.
bool copy_file(const char* source, const char* destination);
// Relative paths are taken from the current directory; absolute ones stand.
std::string absolute_path(const char* path);

// Calls visit(name) for every entry of a directory but "." and "..".
template <class Visit>
void list_directory(const char* directory, Visit&& visit);
bool list_directory_raw(const char* directory, void (*visit)(const char* name, void* context),
                        void* context);
bool remove_file(const char* path);

void sleep_ms(int milliseconds);

// The separator the program adds to paths it forms.
inline constexpr char path_separator = '/';
inline bool is_separator(char c) {
    return c == '/' || c == '\\';
}

template <class Visit>
void list_directory(const char* directory, Visit&& visit) {
    list_directory_raw(
        directory,
        [](const char* name, void* context) {
            (*static_cast<std::remove_reference_t<Visit>*>(context))(name);
        },
        &visit);
}

} // namespace norvanta::os
