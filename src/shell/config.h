// The configuration file and the program's directories.
//
// One text file, a setting per line: the key at column 0, blanks or tabs, the
// value to the end of the line. A line that begins with no key is a note. The
// file is looked for on first use, seeded once from the example file beside
// the program, scanned anew at every look-up and never written. Directories
// are computed on first use and kept.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

namespace norvanta {

// ---- the file ----

// The value of the first line that begins with key, or null. Presence and an
// empty value are different answers. The text stays valid until the next call
// on the same thread: each thread has its own result buffer.
const char* config_get(const char* key);
// The same scan over an open file, for a given key; writes into value
// (at least config_value_capacity bytes). False when no line matches.
inline constexpr int config_line_limit = 497; // characters that go into one line
inline constexpr int config_value_capacity = config_line_limit + 3;
bool config_scan(std::FILE* file, const char* key, char* value);
// The file in use, or null when there is none.
const char* config_path();
// Use this file, and look for no other (the command line's --config). Nothing
// is seeded. Settings already cached keep their values.
void config_use_file(const char* path);

// A directory key, checked: on a local disk, made if missing (one level),
// ending in a separator. True with the answer in directory; false when the
// key is absent or empty or the value is refused (directory untouched), or
// when the directory cannot be made (directory emptied). Refusals go to the
// error log only.
bool config_directory(const char* key, std::string& directory);
// The checks of config_directory on a value already read.
bool directory_from_value(const char* value, std::string& directory);

// Every key the program reads, in the order of the documentation, with what
// it means and what holds without it.
struct ConfigKeyInfo {
    const char* name;
    const char* meaning;
    const char* default_text;
};
std::span<const ConfigKeyInfo> config_known_keys();
// Prints the file in use, the directories, the language and every known key
// with its value or "(absent)" and the default that then holds.
void config_print(std::FILE* out);

// ---- cached settings ----

uint32_t background_colour(); // 0x00RRGGBB
bool error_log_enabled();
const char* web_setting();   // "1" direct, "2 host port" proxy, "0..." no web
const char* language_code(); // "FR" or "EN"
int language_index();        // 1 French, 2 English
bool monothread();
int max_memory(); // megabytes, 100 to 1000

// The rules behind the cached settings, on a value as config_get gives it
// (null for an absent key).
uint32_t background_colour_from(const char* value);
std::string web_setting_from(const char* value);
const char* language_code_from(const char* value, bool user_is_french);
int max_memory_from(const char* value);

// The text of the language in use.
inline const char* localized(const char* french, const char* english) {
    return language_index() == 1 ? french : english;
}

// ---- directories; each ends in a separator ----

void set_program_dir(const char* executable_path);
const char* program_dir();
const char* system_dir();
const char* user_data_dir();
const char* log_dir();
const char* reduced_image_dir(); // may be null
const char* temp_prefix();       // a file-name prefix, not a directory; may be null
const char* nav_log_dir();

// Removes the regular files that earlier runs left in the temporary
// directory, sparing those named "<pid>_..." for another running process.
void clean_temp_directory(const char* directory, long own_pid);

// Running instances of this program.
int process_count();

} // namespace norvanta
