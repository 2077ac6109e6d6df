// The configuration file, the settings cached from it, and the directories
// the program reads from and writes to.
//
// The file is found at the first look-up: the user's own copy in the user
// data directory, else a copy made once, byte for byte, from the file that
// comes with the program in the system directory. Every look-up opens the
// file and scans it from the start, so an uncached key follows edits made
// while the program runs; the settings below are cached at their first use
// and do not.
//
// Values computed once are kept in never-freed text: detached threads may
// still read them while the process ends. Values that more than one thread
// may form first are published through atomic pointers or function-local
// statics, whose initialisation the language makes thread-safe.
#include "shell/config.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

#include "platform/os.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

constexpr const char* program_name = "Norvanta";
// The program's name in lower case, with the extension, and the example
// file's name with its French word.
constexpr const char* config_file_name = "norvanta.cfg";
constexpr const char* example_file_name = "norvanta_exemple.cfg";
constexpr const char* system_dir_name = "system/";
// Where the system files stand, relative to the program, once installed.
constexpr const char* installed_system_dir = "../share/norvanta/system/";
constexpr const char* logs_dir_name = "logs/";
constexpr const char* reduced_image_version_dir = "v2/";

constexpr int colour_component_default = 200;
constexpr int colour_component_count = 3;
constexpr uint32_t colour_component_mask = 0xFF;

constexpr int max_memory_default_mb = 1000;
constexpr int max_memory_floor_mb = 100;
constexpr int max_memory_ceiling_mb = 1000;
constexpr double max_memory_rounding_mb = 0.1;

constexpr int language_french = 1;
constexpr int language_english = 2;

// A tri-state word: all ones until the first look-up, then 1 or 0.
constexpr int32_t tri_state_unknown = -1;

constexpr std::size_t pid_text_capacity = 32;
// Linux gives no process a number above 2^22 (the ceiling of pid_max).
constexpr long pid_ceiling = 1L << 22;

// An HTTP value that begins with this word names a proxy.
constexpr const char* proxy_word = "PROXY";
constexpr std::size_t proxy_word_length = 5;

// ---- the keys ----

// Every key the program reads, in the order of the documentation: the enum,
// the names and the printed table all come from these rows.
#define NORVANTA_CONFIG_KEYS(X)                                                                    \
    X(back_color_rgb, "BACK_COLOR_RGB", "window colour, \"red green blue\"", "200 200 200")        \
    X(logerror, "LOGERROR", "present, whatever follows: write the error log", "no error log")      \
    X(http, "HTTP", "\"PROXY host port\": through a proxy; anything else: no web", "direct web")   \
    X(lang, "LANG", "FRANCAIS or ENGLISH, exactly", "the user's language")                         \
    X(monothread, "MONOTHREAD", "present, whatever follows: start no thread", "threads")           \
    X(maxmem, "MAXMEM", "memory budget in megabytes, 100 to 1000", "1000")                         \
    X(reduce_image_dir, "REDUCE_IMAGE_DIR", "reduced image cache, local disk", "no cache")         \
    X(temp_dir, "TEMP_DIR", "temporary files, local disk", "the user's cache directory")           \
    X(navig_log_dir, "NAVIG_LOG_DIR", "navigation logs, local disk", "the logs directory")         \
    X(nmea_any_talker, "NMEA_ANY_TALKER", "present: any two-letter talker reads as GP", "GP only") \
    X(active_client_1, "ACTIVE_NMEA_UDP_DIFFUSE_ADR1", "active client: host port", "none")         \
    X(active_client_2, "ACTIVE_NMEA_UDP_DIFFUSE_ADR2", "active client: host port", "none")         \
    X(active_client_3, "ACTIVE_NMEA_UDP_DIFFUSE_ADR3", "active client: host port", "none")         \
    X(active_client_4, "ACTIVE_NMEA_UDP_DIFFUSE_ADR4", "active client: host port", "none")         \
    X(active_client_5, "ACTIVE_NMEA_UDP_DIFFUSE_ADR5", "active client: host port", "none")         \
    X(active_client_6, "ACTIVE_NMEA_UDP_DIFFUSE_ADR6", "active client: host port", "none")         \
    X(active_client_7, "ACTIVE_NMEA_UDP_DIFFUSE_ADR7", "active client: host port", "none")         \
    X(active_client_8, "ACTIVE_NMEA_UDP_DIFFUSE_ADR8", "active client: host port", "none")         \
    X(active_client_9, "ACTIVE_NMEA_UDP_DIFFUSE_ADR9", "active client: host port", "none")         \
    X(inactive_client_1, "INACTIVE_NMEA_UDP_DIFFUSE_ADR1", "inactive client: host port", "none")   \
    X(inactive_client_2, "INACTIVE_NMEA_UDP_DIFFUSE_ADR2", "inactive client: host port", "none")   \
    X(inactive_client_3, "INACTIVE_NMEA_UDP_DIFFUSE_ADR3", "inactive client: host port", "none")   \
    X(inactive_client_4, "INACTIVE_NMEA_UDP_DIFFUSE_ADR4", "inactive client: host port", "none")   \
    X(inactive_client_5, "INACTIVE_NMEA_UDP_DIFFUSE_ADR5", "inactive client: host port", "none")   \
    X(inactive_client_6, "INACTIVE_NMEA_UDP_DIFFUSE_ADR6", "inactive client: host port", "none")   \
    X(inactive_client_7, "INACTIVE_NMEA_UDP_DIFFUSE_ADR7", "inactive client: host port", "none")   \
    X(inactive_client_8, "INACTIVE_NMEA_UDP_DIFFUSE_ADR8", "inactive client: host port", "none")   \
    X(inactive_client_9, "INACTIVE_NMEA_UDP_DIFFUSE_ADR9", "inactive client: host port", "none")

enum class ConfigKey {
#define NORVANTA_CONFIG_KEY_ENUM(id, name, meaning, default_text) id,
    NORVANTA_CONFIG_KEYS(NORVANTA_CONFIG_KEY_ENUM)
#undef NORVANTA_CONFIG_KEY_ENUM
};

constexpr std::size_t config_key_count = 28;

constexpr std::array<ConfigKeyInfo, config_key_count> config_keys = {{
#define NORVANTA_CONFIG_KEY_ROW(id, name, meaning, default_text) {name, meaning, default_text},
    NORVANTA_CONFIG_KEYS(NORVANTA_CONFIG_KEY_ROW)
#undef NORVANTA_CONFIG_KEY_ROW
}};
static_assert(config_keys.size() == static_cast<std::size_t>(ConfigKey::inactive_client_9) + 1,
              "one row per key");

constexpr const char* key_name(ConfigKey key) {
    return config_keys[static_cast<std::size_t>(key)].name;
}

// ---- kept values ----

// A copy that lives as long as the process.
const char* keep(const std::string& text) {
    char* kept = new char[text.size() + 1];
    text.copy(kept, text.size());
    kept[text.size()] = '\0';
    return kept;
}

// Publishes a value formed on first use unless another thread got there
// first; either way every caller sees the same text.
const char* publish(std::atomic<const char*>& slot, const std::string& text) {
    const char* kept = keep(text);
    const char* expected = nullptr;
    if (slot.compare_exchange_strong(expected, kept, std::memory_order_acq_rel)) return kept;
    delete[] kept;
    return expected;
}

// The text up to and including the last separator; empty without one.
std::string directory_part(std::string path) {
    std::size_t last = path.find_last_of("/\\");
    path.resize(last == std::string::npos ? 0 : last + 1);
    return path;
}

std::string with_separator(std::string path) {
    if (!path.empty() && !os::is_separator(path.back())) path += os::path_separator;
    return path;
}

std::atomic<const char*> ProgramDir{nullptr};
std::atomic<const char*> ConfigPath{nullptr};
std::atomic<const char*> NavLogDir{nullptr};
std::atomic<int32_t> LogErrorWord{tri_state_unknown};
std::atomic<int32_t> MonothreadWord{tri_state_unknown};
// Held while the file is looked for, so that one thread seeds the user's copy.
std::mutex config_find_mutex;

// ---- the scan ----

// One line of at most config_line_limit characters; a longer line goes on as
// the next one. A line ends at LF, CR or the end of the file, and the partner
// of a CR LF or LF CR pair goes with it. NUL bytes are kept in the line: they
// end the key comparison and the value as they would in a C string. False at
// the end of the file with nothing read.
bool read_config_line(std::FILE* file, char* line) {
    int length = 0;
    while (length < config_line_limit) {
        int c = std::getc(file);
        if (c == EOF) {
            line[length] = '\0';
            return length > 0;
        }
        if (c == '\n' || c == '\r') {
            int partner = c == '\n' ? '\r' : '\n';
            int next = std::getc(file);
            if (next != partner && next != EOF) std::ungetc(next, file);
            line[length] = '\0';
            return true;
        }
        line[length++] = static_cast<char>(c);
    }
    line[length] = '\0';
    return true;
}

// ---- looking for the file ----

std::string lexically_normal_directory(const std::string& path) {
    return with_separator(std::filesystem::path(path).lexically_normal().string());
}

// The user's copy first; without it, the file beside the program or its
// example is copied there once, and the copy is the file from then on. Without
// a user data directory there is nowhere to copy to, and the file beside the
// program is read where it stands.
const char* config_find() {
    std::string user_directory = user_data_dir();
    std::string user_file = user_directory.empty() ? "" : user_directory + config_file_name;
    if (!user_file.empty() && os::is_regular_file(user_file.c_str())) return keep(user_file);

    std::string system_directory = system_dir();
    const std::array<std::string, 2> sources = {system_directory + config_file_name,
                                                system_directory + example_file_name};
    for (const std::string& source : sources) {
        if (!os::is_regular_file(source.c_str())) continue;
        if (user_file.empty()) return keep(source);
        // A failed copy leaves no file; the look-ups then find nothing.
        os::copy_file(source.c_str(), user_file.c_str());
        break;
    }
    return user_file.empty() ? nullptr : keep(user_file);
}

const char* current_config_path() {
    if (const char* path = ConfigPath.load(std::memory_order_acquire)) return path;
    std::lock_guard<std::mutex> lock(config_find_mutex);
    const char* path = ConfigPath.load(std::memory_order_acquire);
    if (!path) {
        path = config_find();
        if (path) ConfigPath.store(path, std::memory_order_release);
    }
    return path;
}

bool tri_state(std::atomic<int32_t>& word, ConfigKey key) {
    int32_t state = word.load(std::memory_order_relaxed);
    if (state == tri_state_unknown) {
        state = config_get(key_name(key)) ? 1 : 0;
        word.store(state, std::memory_order_relaxed);
    }
    return state == 1;
}

// "%d" as the C library reads it: blanks, a sign, decimal digits.
bool read_int(const char*& text, long& value) {
    char* end = nullptr;
    long read = std::strtol(text, &end, 10);
    if (end == text) return false;
    value = read;
    text = end;
    return true;
}

// The leading process number of a temporary file's name, "<pid>_...".
long pid_prefix(const char* name) {
    long pid = 0;
    const char* c = name;
    for (; *c >= '0' && *c <= '9'; ++c) {
        pid = pid * 10 + (*c - '0');
        if (pid > pid_ceiling) return 0;
    }
    return c != name && *c == '_' ? pid : 0;
}

} // namespace

// ---- the file ----

bool config_scan(std::FILE* file, const char* key, char* value) {
    if (!file || !key || !value) return false;
    char line[config_line_limit + 1];
    std::size_t key_length = std::strlen(key);
    while (read_config_line(file, line)) {
        // A prefix match in column 0: LANG also matches LANGUAGE, and the
        // active client key never matches its inactive twin.
        if (std::strncmp(line, key, key_length) != 0) continue;
        const char* rest = line + key_length;
        while (*rest == ' ' || *rest == '\t')
            ++rest;
        // Trailing blanks are part of the value.
        std::memcpy(value, rest, std::strlen(rest) + 1);
        return true;
    }
    return false;
}

const char* config_get(const char* key) {
    // One buffer per thread: the navigation worker asks for its directory on
    // its own thread while the UI thread reads other keys.
    thread_local char value[config_value_capacity];
    if (!key) return nullptr;
    const char* path = current_config_path();
    if (!path) return nullptr;
    std::FILE* file = std::fopen(path, "rb");
    if (!file) return nullptr;
    bool found = config_scan(file, key, value);
    std::fclose(file);
    return found ? value : nullptr;
}

const char* config_path() {
    return current_config_path();
}

void config_use_file(const char* path) {
    if (!path || !*path) return;
    // Made absolute: the directory walk of the loader changes the current
    // directory while the program runs.
    ConfigPath.store(keep(os::absolute_path(path)), std::memory_order_release);
}

bool directory_from_value(const char* value, std::string& directory) {
    if (!value || !*value) return false;
    std::string text(value);
    if (!os::is_local_disk(text.c_str())) {
        std::string message =
            std::string(localized("Le fichier <", "File <")) + text +
            localized("> n'est pas sur un disque local", "> is not on a local harddrive");
        log_entry(message.c_str());
        return false;
    }
    std::string made = with_separator(text);
    if (!os::is_directory(made.c_str()) && !os::make_directory(made.c_str())) {
        std::string message =
            std::string(localized("Creation du repertoire ", "Unable to create directory ")) +
            made + localized(" impossible", "");
        log_entry(message.c_str());
        directory.clear();
        return false;
    }
    directory = made;
    return true;
}

bool config_directory(const char* key, std::string& directory) {
    const char* value = config_get(key);
    if (!value || !*value) return false;
    // A copy: the log entries of a refusal may read the file again.
    std::string text(value);
    return directory_from_value(text.c_str(), directory);
}

std::span<const ConfigKeyInfo> config_known_keys() {
    return config_keys;
}

void config_print(std::FILE* out) {
    if (!out) return;
    const char* path = config_path();
    std::fprintf(out, "ConfigPath: %s\n", path ? path : "(none)");
    std::fprintf(out, "UserDataDir: %s\n", user_data_dir());
    std::fprintf(out, "SystemDir: %s\n", system_dir());
    std::fprintf(out, "LogDir: %s\n", log_dir());
    std::fprintf(out, "Language: %s %d\n", language_code(), language_index());
    for (const ConfigKeyInfo& key : config_keys) {
        const char* value = config_get(key.name);
        if (value)
            std::fprintf(out, "%s: \"%s\"\n", key.name, value);
        else
            std::fprintf(out, "%s: (absent), default: %s\n", key.name, key.default_text);
    }
    uint32_t colour = background_colour();
    std::fprintf(out, "background_colour: %u %u %u\n", (colour >> 16) & colour_component_mask,
                 (colour >> 8) & colour_component_mask, colour & colour_component_mask);
    std::fprintf(out, "error_log_enabled: %d\n", error_log_enabled() ? 1 : 0);
    std::fprintf(out, "web_setting: \"%s\"\n", web_setting());
    std::fprintf(out, "monothread: %d\n", monothread() ? 1 : 0);
    std::fprintf(out, "max_memory: %d\n", max_memory());
}

// ---- cached settings ----

uint32_t background_colour_from(const char* value) {
    std::array<long, colour_component_count> rgb = {
        colour_component_default, colour_component_default, colour_component_default};
    // As "%d %d %d": the numbers read before the first that fails are kept,
    // the others stay at their default.
    const char* text = value;
    for (std::size_t index = 0; text && index < rgb.size(); ++index)
        if (!read_int(text, rgb[index])) break;
    uint32_t colour = 0;
    for (long component : rgb)
        colour = (colour << 8) | (static_cast<uint32_t>(static_cast<unsigned long>(component)) &
                                  colour_component_mask);
    return colour;
}

std::string web_setting_from(const char* value) {
    if (!value) return "1";
    if (std::strncmp(value, proxy_word, proxy_word_length) == 0) {
        // The loader reads host and port behind the "2" with "%s%d".
        const char* blank = std::strchr(value + proxy_word_length, ' ');
        return std::string("2") + (blank ? blank : "");
    }
    // The first character becomes '0': no web access at all.
    std::string setting(value);
    if (setting.empty()) return "0";
    setting[0] = '0';
    return setting;
}

const char* language_code_from(const char* value, bool user_is_french) {
    // Whole-string comparison: a trailing blank spoils the match.
    if (value && std::strcmp(value, "FRANCAIS") == 0) return "FR";
    if (value && std::strcmp(value, "ENGLISH") == 0) return "EN";
    return user_is_french ? "FR" : "EN";
}

int max_memory_from(const char* value) {
    if (!value || !*value) return max_memory_default_mb;
    double megabytes = std::atof(value) + max_memory_rounding_mb;
    // Bounded before the truncation, which would overflow for huge values.
    if (std::isnan(megabytes)) return max_memory_default_mb;
    if (megabytes >= max_memory_ceiling_mb + 1) return max_memory_ceiling_mb;
    if (megabytes <= -1) return max_memory_floor_mb;
    int truncated = static_cast<int>(megabytes);
    if (truncated == 0) return max_memory_default_mb;
    if (truncated < max_memory_floor_mb) return max_memory_floor_mb;
    return truncated;
}

uint32_t background_colour() {
    static const uint32_t colour =
        background_colour_from(config_get(key_name(ConfigKey::back_color_rgb)));
    return colour;
}

bool error_log_enabled() {
    return tri_state(LogErrorWord, ConfigKey::logerror);
}

bool monothread() {
    return tri_state(MonothreadWord, ConfigKey::monothread);
}

const char* web_setting() {
    static const char* const setting =
        keep(web_setting_from(config_get(key_name(ConfigKey::http))));
    return setting;
}

const char* language_code() {
    static const char* const code =
        language_code_from(config_get(key_name(ConfigKey::lang)), os::user_language_is_french());
    return code;
}

int language_index() {
    static const int index =
        std::strcmp(language_code(), "FR") == 0 ? language_french : language_english;
    return index;
}

int max_memory() {
    static const int megabytes = max_memory_from(config_get(key_name(ConfigKey::maxmem)));
    return megabytes;
}

// ---- directories ----

void set_program_dir(const char* executable_path) {
    std::string path = os::absolute_path(executable_path ? executable_path : "");
    ProgramDir.store(keep(directory_part(path)), std::memory_order_release);
}

const char* program_dir() {
    if (const char* directory = ProgramDir.load(std::memory_order_acquire)) return directory;
    return publish(ProgramDir, directory_part(os::executable_path()));
}

const char* system_dir() {
    static const char* const directory = [] {
        std::string beside = std::string(program_dir()) + system_dir_name;
        if (os::is_directory(beside.c_str())) return keep(beside);
        std::string installed =
            lexically_normal_directory(std::string(program_dir()) + installed_system_dir);
        return keep(os::is_directory(installed.c_str()) ? installed : beside);
    }();
    return directory;
}

const char* user_data_dir() {
    static const char* const directory = [] {
        std::string base = os::user_data_base();
        if (base.empty()) return keep("");
        // NORVANTA_HOME is the user data directory itself.
        if (!os::norvanta_home().empty()) return keep(base);
        std::string made = base + program_name + os::path_separator;
        if (!os::is_directory(made.c_str())) os::make_directory(made.c_str());
        return keep(made);
    }();
    return directory;
}

const char* log_dir() {
    static const char* const directory = keep(std::string(user_data_dir()) + logs_dir_name);
    // The answer stands whatever mkdir says; the log writers then fail quietly.
    if (!os::is_directory(directory)) os::make_directory(directory);
    return directory;
}

const char* reduced_image_dir() {
    static const char* const directory = [] {
        std::string configured;
        if (!config_directory(key_name(ConfigKey::reduce_image_dir), configured))
            return static_cast<const char*>(nullptr);
        return keep(configured + reduced_image_version_dir);
    }();
    return directory;
}

const char* nav_log_dir() {
    if (const char* directory = NavLogDir.load(std::memory_order_acquire)) return directory;
    // Asked again at each call until the key gives an answer.
    std::string configured;
    if (config_directory(key_name(ConfigKey::navig_log_dir), configured))
        return publish(NavLogDir, configured);
    return log_dir();
}

void clean_temp_directory(const char* directory, long own_pid) {
    if (!directory || !*directory) return;
    std::vector<std::string> names;
    os::list_directory(directory, [&names](const char* name) { names.emplace_back(name); });
    std::string prefix = with_separator(directory);
    for (const std::string& name : names) {
        std::string path = prefix + name;
        if (!os::is_regular_file(path.c_str())) continue;
        // Another instance's swap files are in use: only a dead process's go.
        long pid = pid_prefix(name.c_str());
        if (pid != 0 && pid != own_pid && os::process_alive(pid)) continue;
        os::remove_file(path.c_str());
    }
}

const char* temp_prefix() {
    static const char* const prefix = [] {
        std::string directory;
        if (!config_directory(key_name(ConfigKey::temp_dir), directory)) {
            directory = os::user_local_base();
            if (directory.empty()) return static_cast<const char*>(nullptr);
        }
        directory += program_name;
        // What earlier runs left is removed at every start, but a running
        // instance's files are spared: their names begin with its number.
        clean_temp_directory(directory.c_str(), os::process_id());
        char pid_text[pid_text_capacity];
        std::snprintf(pid_text, sizeof pid_text, "%ld_", os::process_id());
        return keep(directory + os::path_separator + pid_text);
    }();
    return prefix;
}

int process_count() {
    std::string executable = os::executable_path();
    std::size_t last = executable.find_last_of('/');
    std::string name = last == std::string::npos ? executable : executable.substr(last + 1);
    return os::process_count(name.c_str());
}

} // namespace norvanta
