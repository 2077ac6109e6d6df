// The error word, the code and class texts in both languages, the error log
// and the message boxes.
//
// The log is one text file that exists only when the configuration holds a
// LOGERROR line. Each write opens it for appending, prints and closes it, so
// that a crash loses nothing and several instances and threads can share it
// with no lock: their lines interleave, whole.
#include "shell/errors.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/ui.h"
#include "shell/config.h"
#include "shell/julian.h"
#include "shell/main.h"
#include "shell/window.h"

namespace norvanta {

std::atomic<int32_t> gblerr{0};

namespace {

constexpr int language_french = 1;

struct ErrorRow {
    ErrorCode code;
    const char* french;
    const char* english;
    int error_class; // index into class_texts
};

constexpr std::array<ErrorRow, error_code_count> error_rows = {{
#define NORVANTA_ERROR_ROW(name, number, french, english, error_class)                             \
    {ErrorCode::name, french, english, error_class},
    NORVANTA_ERROR_CODES(NORVANTA_ERROR_ROW)
#undef NORVANTA_ERROR_ROW
}};

struct ClassTexts {
    const char* french;
    const char* english;
};

// The coarser classes of the codes. No feature of this program reads them;
// they belong to the library's data.
constexpr std::array<ClassTexts, error_class_count> class_texts = {{
    {"", ""},
    {"Probleme memoire", "Memory error"},
    {"Fichier invalide", "Invalid file"},
    {"Format de fichier inconnu", "Unknown file format"},
    {"Communication impossible", "No communication"},
    {"Erreur interne", "Internal error"},
    {"Erreur de chargement", "Loading error"},
    {"Erreur d'affichage", "Display error"},
    {"Erreur d'initialisation", "Initialisation error"},
    {"Erreur systeme", "System error"},
    {"Erreur applicative", "Application error"},
    {"Erreur geographique", "Geographic error"},
}};

consteval bool rows_are_in_code_order() {
    for (std::size_t index = 0; index < error_rows.size(); ++index)
        if (static_cast<std::size_t>(error_rows[index].code) != index) return false;
    return true;
}
consteval bool classes_are_known() {
    for (const ErrorRow& row : error_rows)
        if (row.error_class < 0 || row.error_class >= error_class_count) return false;
    return true;
}
static_assert(rows_are_in_code_order(), "error rows must stand at the index of their code");
static_assert(classes_are_known(), "every error class must have its texts");

const ErrorRow* row_of(ErrorCode code) {
    auto index = static_cast<int32_t>(code);
    if (index < 0 || index >= error_code_count) return nullptr;
    return &error_rows[static_cast<std::size_t>(index)];
}

// The error log's path, formed once by log_set_path and never freed: threads
// may still be writing when the process ends.
std::atomic<const char*> log_file_path{nullptr};

// The separator line: thirty hyphens, the time of the call, thirty hyphens.
constexpr const char* stamp_format =
    "------------------------------%s------------------------------\n";

void print_stamp(std::FILE* file) {
    JulianTime now{};
    now_julian(now);
    char time_text[date_text_capacity] = {};
    format_log_time(now, time_text);
    std::fprintf(file, stamp_format, time_text);
}

// One complete open, print and close; nothing when the log is off, and
// nothing said when the file cannot be opened.
template <class Print>
void append_to_log(Print&& print) {
    if (!error_log_enabled()) return;
    const char* path = log_file_path.load(std::memory_order_acquire);
    if (!path) return;
    std::FILE* file = std::fopen(path, "a");
    if (!file) return;
    print(file);
    std::fclose(file);
}

const char* or_empty(const char* text) {
    return text ? text : "";
}

} // namespace

ErrorCode set_gblerr(ErrorCode code) {
    gblerr.store(static_cast<int32_t>(code), std::memory_order_relaxed);
    return code;
}

const char* error_text() {
    return error_text_of(current_error(), language_index());
}

const char* error_text_of(ErrorCode code, int language) {
    const ErrorRow* row = row_of(code);
    if (!row) return "";
    return language == language_french ? row->french : row->english;
}

const char* error_class_text_of(ErrorCode code, int language) {
    const ErrorRow* row = row_of(code);
    if (!row) return "";
    const ClassTexts& texts = class_texts[static_cast<std::size_t>(row->error_class)];
    return language == language_french ? texts.french : texts.english;
}

ErrorHold::ErrorHold() : noted_(current_error()) {
    set_gblerr(ErrorCode::none);
}

ErrorHold::~ErrorHold() {
    if (noted_ != ErrorCode::none) set_gblerr(noted_);
}

void log_and_keep_error(const char* text) {
    ErrorHold hold;
    log_entry(text);
}

namespace {
// Written and read by the thread that starts the program, before any other
// thread of its own runs; the lock keeps a late writer sound all the same.
std::mutex start_failure_mutex;
std::string start_failure_text;
} // namespace

void note_start_failure(const char* text) {
    std::lock_guard<std::mutex> lock(start_failure_mutex);
    start_failure_text = or_empty(text);
}

const char* start_failure_note() {
    std::lock_guard<std::mutex> lock(start_failure_mutex);
    return start_failure_text.empty() ? nullptr : start_failure_text.c_str();
}

void log_set_path(const char* tag) {
    std::string path = std::string(log_dir()) + "zz_" + or_empty(tag) + ".log";
    char* kept = new char[path.size() + 1];
    path.copy(kept, path.size());
    kept[path.size()] = '\0';
    // A second call replaces the path; the old text stays readable for a
    // writer that already holds it.
    log_file_path.store(kept, std::memory_order_release);
}

const char* log_path() {
    return log_file_path.load(std::memory_order_acquire);
}

void log_stamp() {
    append_to_log([](std::FILE* file) { print_stamp(file); });
}

void log_line(const char* text) {
    append_to_log([text](std::FILE* file) { std::fprintf(file, "%s\n", or_empty(text)); });
}

void log_text(const char* text) {
    append_to_log([text](std::FILE* file) { std::fprintf(file, "%s", or_empty(text)); });
}

void log_entry(const char* text) {
    append_to_log([text](std::FILE* file) {
        print_stamp(file);
        std::fprintf(file, "%s\n", or_empty(text));
    });
}

void message_box(const char* text, const char* caption) {
    if (error_pending()) set_gblerr(ErrorCode::none);
    if (main_window_exists()) ui_message_box(or_empty(text), or_empty(caption), ui_icon_none);
}

void message_box_wide(const wchar_t* text, const wchar_t* caption) {
    if (error_pending()) set_gblerr(ErrorCode::none);
    if (main_window_exists()) ui_message_box_wide(text ? text : L"", caption ? caption : L"");
}

void out_of_memory() {
    // The box, the log and the exit path may themselves ask for memory; a
    // second failure on the way out ends the process at once instead of
    // recursing until the stack is gone.
    thread_local bool on_the_way_out = false;
    if (on_the_way_out) std::_Exit(EXIT_FAILURE);
    on_the_way_out = true;

    set_gblerr(ErrorCode::no_memory);
    // Kept on purpose: the test asks for a non-zero language index, which
    // both languages have, so the French box shows whatever the language.
    const char* text = language_index() != 0
                           ? "Il n'y a plus de mémoire disponible.\nL'application va être fermée."
                           : "There is not enough memory.\nThe application is shuting down.";
    const char* caption = language_index() != 0 ? "Plus de mémoire" : "Out of memory";
    message_box(text, caption);
    // The box has cleared the word, so this is the empty text of no error: the
    // log gets its dated line and an empty line.
    log_entry(error_text());
    set_gblerr(ErrorCode::none);
    exit_path();
}

} // namespace norvanta
