// The operating system seam on Linux: paths from the environment and /proc,
// the user's language from the locale variables, memory figures from
// /proc/meminfo and /proc/self/statm, running processes from /proc/*/comm,
// and the local-disk test from the file system's statfs magic number.
#include "platform/os.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include <dirent.h>
#include <pwd.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>
#include <unistd.h>

namespace norvanta::os {

namespace {

// The kernel keeps a process's name in 16 bytes with the NUL, so /proc/*/comm
// holds at most the first 15 characters of the program's file name.
constexpr std::size_t comm_length_max = 15;
constexpr std::size_t copy_chunk_bytes = 65536;
constexpr std::size_t first_path_capacity = 4096;
constexpr std::size_t passwd_buffer_bytes = 16384;
constexpr uint64_t kib_per_mib = 1024;
constexpr uint64_t bytes_per_mib = 1024 * 1024;

// File systems whose files live on another machine: a path on one of them is
// not on a local disk. FUSE counts as remote, since sshfs and the like are
// the reason one would point a directory there.
constexpr std::array<uint32_t, 5> remote_fs_magic = {
    0x6969,     // NFS
    0x517B,     // SMB
    0xFE534D42, // SMB2
    0xFF534D42, // CIFS
    0x65735546, // FUSE
};

std::string with_separator(std::string path) {
    if (!path.empty() && !is_separator(path.back())) path += path_separator;
    return path;
}

std::string home_directory() {
    const char* home = std::getenv("HOME");
    if (home && home[0] == '/') return home;
    std::vector<char> buffer(passwd_buffer_bytes);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir && found->pw_dir[0] == '/')
        return found->pw_dir;
    return {};
}

// An XDG base directory: the variable when it holds an absolute path (relative
// values are to be ignored), else the fallback under the home directory.
std::string xdg_directory(const char* variable, const char* fallback_in_home) {
    const char* value = std::getenv(variable);
    if (value && value[0] == '/') return with_separator(value);
    std::string home = home_directory();
    if (home.empty()) return {};
    return with_separator(with_separator(home) + fallback_in_home);
}

// Makes every missing level of a directory path ending in a separator.
std::string made_directory(std::string directory) {
    if (directory.empty()) return directory;
    if (!is_directory(directory.c_str())) make_parent_directories(directory.c_str());
    return is_directory(directory.c_str()) ? directory : std::string();
}

bool starts_with_french(const char* locale) {
    return std::strncmp(locale, "fr", 2) == 0 || std::strncmp(locale, "eu", 2) == 0;
}

// Reads a "Name:   12345 kB" line of /proc/meminfo; 0 when absent.
uint64_t meminfo_kib(const char* text, const char* name) {
    const char* line = std::strstr(text, name);
    if (!line) return 0;
    return std::strtoull(line + std::strlen(name), nullptr, 10);
}

std::string read_small_file(const char* path) {
    std::string content;
    std::FILE* file = std::fopen(path, "rb");
    if (!file) return content;
    char buffer[4096];
    std::size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0)
        content.append(buffer, count);
    std::fclose(file);
    return content;
}

bool all_digits(const char* text) {
    if (!*text) return false;
    for (; *text; ++text)
        if (*text < '0' || *text > '9') return false;
    return true;
}

// A path that may not exist yet lies on the file system of its nearest
// existing ancestor.
std::string nearest_existing(std::string path) {
    struct stat info {};
    while (!path.empty() && stat(path.c_str(), &info) != 0) {
        while (!path.empty() && is_separator(path.back()))
            path.pop_back();
        std::size_t cut = path.find_last_of("/\\");
        if (cut == std::string::npos) return {};
        path.resize(cut + 1);
    }
    return path;
}

} // namespace

std::string executable_path() {
    std::vector<char> buffer(first_path_capacity);
    for (;;) {
        ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
        if (length < 0) return {};
        if (static_cast<std::size_t>(length) < buffer.size())
            return std::string(buffer.data(), static_cast<std::size_t>(length));
        buffer.resize(buffer.size() * 2);
    }
}

std::string norvanta_home() {
    const char* home = std::getenv("NORVANTA_HOME");
    if (!home || !*home) return {};
    return with_separator(absolute_path(home));
}

std::string user_data_base() {
    std::string home = norvanta_home();
    if (!home.empty()) return made_directory(home);
    return made_directory(xdg_directory("XDG_CONFIG_HOME", ".config"));
}

std::string user_local_base() {
    std::string home = norvanta_home();
    if (!home.empty()) return made_directory(home + "cache/");
    return made_directory(xdg_directory("XDG_CACHE_HOME", ".cache"));
}

// The first of the three variables that is set and not empty decides, as it
// does for the C library's message catalogue.
bool user_language_is_french() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value && *value) return starts_with_french(value);
    }
    return false;
}

MemoryFigures memory_figures() {
    MemoryFigures figures{};
    std::string meminfo = read_small_file("/proc/meminfo");
    figures.physical_total_mb = meminfo_kib(meminfo.c_str(), "MemTotal:") / kib_per_mib;
    uint64_t available_kib = meminfo_kib(meminfo.c_str(), "MemAvailable:");
    if (available_kib == 0) available_kib = meminfo_kib(meminfo.c_str(), "MemFree:");
    figures.physical_free_mb = available_kib / kib_per_mib;

    // statm: total program size, then resident pages.
    std::string statm = read_small_file("/proc/self/statm");
    char* after_size = nullptr;
    std::strtoull(statm.c_str(), &after_size, 10);
    uint64_t resident_pages = after_size ? std::strtoull(after_size, nullptr, 10) : 0;
    long page_bytes = sysconf(_SC_PAGESIZE);
    if (page_bytes > 0)
        figures.working_set_mb = resident_pages * static_cast<uint64_t>(page_bytes) / bytes_per_mib;
    return figures;
}

int process_count(const char* image_name) {
    DIR* proc = opendir("/proc");
    if (!proc) return 1;
    std::string wanted(image_name ? image_name : "");
    if (wanted.size() > comm_length_max) wanted.resize(comm_length_max);
    int count = 0;
    while (dirent* entry = readdir(proc)) {
        if (!all_digits(entry->d_name)) continue;
        std::string comm_path = std::string("/proc/") + entry->d_name + "/comm";
        std::string comm = read_small_file(comm_path.c_str());
        while (!comm.empty() && (comm.back() == '\n' || comm.back() == '\0'))
            comm.pop_back();
        if (!comm.empty() && strcasecmp(comm.c_str(), wanted.c_str()) == 0) ++count;
    }
    closedir(proc);
    return count;
}

long process_id() {
    return static_cast<long>(getpid());
}

bool process_alive(long pid) {
    if (pid <= 0 || pid != static_cast<long>(static_cast<pid_t>(pid))) return false;
    // EPERM: the process exists but belongs to someone else.
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

bool is_regular_file(const char* path) {
    struct stat info {};
    return path && stat(path, &info) == 0 && S_ISREG(info.st_mode);
}

bool is_directory(const char* path) {
    struct stat info {};
    return path && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool is_local_disk(const char* path) {
    if (!path || path[0] != '/') return false;
    std::string existing = nearest_existing(path);
    if (existing.empty()) return false;
    struct statfs info {};
    if (statfs(existing.c_str(), &info) != 0) return false;
    uint32_t magic = static_cast<uint32_t>(info.f_type);
    for (uint32_t remote : remote_fs_magic)
        if (magic == remote) return false;
    return true;
}

bool make_directory(const char* path) {
    if (!path || !*path) return false;
    if (mkdir(path, 0777) == 0) return true;
    return errno == EEXIST && is_directory(path);
}

bool make_parent_directories(const char* file_path) {
    if (!file_path || !*file_path) return false;
    std::string path(file_path);
    std::size_t last = path.find_last_of("/\\");
    if (last == std::string::npos) return true; // the current directory
    for (std::size_t position = 1; position <= last; ++position) {
        if (!is_separator(path[position])) continue;
        std::string level = path.substr(0, position);
        if (!is_directory(level.c_str())) make_directory(level.c_str());
    }
    std::string parent = path.substr(0, last ? last : 1);
    return is_directory(parent.c_str());
}

bool copy_file(const char* source, const char* destination) {
    std::FILE* in = std::fopen(source, "rb");
    if (!in) return false;
    std::FILE* out = std::fopen(destination, "wb");
    if (!out) {
        std::fclose(in);
        return false;
    }
    std::vector<char> buffer(copy_chunk_bytes);
    bool ok = true;
    std::size_t count;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), in)) > 0)
        if (std::fwrite(buffer.data(), 1, count, out) != count) {
            ok = false;
            break;
        }
    if (std::ferror(in)) ok = false;
    std::fclose(in);
    if (std::fclose(out) != 0) ok = false;
    // A half copy would pass for the user's settings at the next start.
    if (!ok) std::remove(destination);
    return ok;
}

std::string absolute_path(const char* path) {
    if (path && path[0] == '/') return path;
    std::vector<char> buffer(first_path_capacity);
    while (!getcwd(buffer.data(), buffer.size())) {
        if (errno != ERANGE) return path ? path : "";
        buffer.resize(buffer.size() * 2);
    }
    std::string absolute = with_separator(buffer.data());
    if (path) absolute += path;
    return absolute;
}

bool list_directory_raw(const char* directory, void (*visit)(const char* name, void* context),
                        void* context) {
    DIR* listing = directory ? opendir(directory) : nullptr;
    if (!listing) return false;
    while (dirent* entry = readdir(listing)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        visit(entry->d_name, context);
    }
    closedir(listing);
    return true;
}

bool remove_file(const char* path) {
    return path && unlink(path) == 0;
}

void sleep_ms(int milliseconds) {
    if (milliseconds < 0) milliseconds = 0;
    timespec remaining{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

} // namespace norvanta::os
