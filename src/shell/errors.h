// The error word, the error texts and the error log.
//
// Failure in Norvanta is a code in one process-wide word, `gblerr`, not a
// result value: a function that fails stores a code and returns, callers test
// the word once after a run of calls, and whoever decides to go on clears it.
// Beside it stand the dated error log (written only when the configuration
// holds a LOGERROR line) and the message boxes, which clear the word first.
#pragma once

#include <atomic>
#include <cstdint>

namespace norvanta {

// One row per code; the French and English texts are the program's own and
// must stay exactly as they are (no accents, the stray line of code 12).
#define NORVANTA_ERROR_CODES(X)                                                                    \
    X(none, 0, "", "", 0)                                                                          \
    X(no_memory, 1, "Pas assez de memoire", "Not enough memory space", 1)                          \
    X(file_access, 2, "Impossible d'acceder au fichier", "No access to the file", 2)               \
    X(unknown_format, 3, "Format inconnu", "Unknown format", 3)                                    \
    X(com_port, 4, "Erreur d'ouverture du port COM", "Open COM port error", 4)                     \
    X(no_communication, 5, "Pas de communication", "No communication", 4)                          \
    X(transformation, 6, "Erreur lors de la transformation", "Transformation error", 5)            \
    X(loading, 7, "Erreur lors du chargement", "Loading error", 6)                                 \
    X(display, 8, "Affichage impossible", "Display error", 7)                                      \
    X(initialisation, 9, "Erreur lors de l'initialisation", "Initialisation error", 8)             \
    X(object_internal, 10, "Erreur interne (objet)", "Object internal error", 5)                   \
    X(os_error, 11, "Erreur du systeme d'exploitation", "OS error", 9)                             \
    X(value_internal, 12, "Erreur interne (valeur)", "Value internal error\n.", 5)                 \
    X(geographic, 13, "Probleme geographique", "Geographic error", 11)                             \
    X(invalid_file, 14, "Fichier invalide", "Invalid file", 2)                                     \
    X(wrong_parameters, 15, "Parametres incorrects", "Wrong parameters", 10)                       \
    X(unknown_error, 16, "Cas non traite", "Unknown error", 5)                                     \
    X(undefined_protocol, 17, "Protocole non defini", "Undefine protocol", 4)                      \
    X(heap_error, 18, "Erreur de pile", "Heap error", 1)                                           \
    X(web_http, 19, "Erreur web http", "Web http error", 4)

enum class ErrorCode : int32_t {
#define NORVANTA_ERROR_ENUM(name, code, french, english, error_class) name = code,
    NORVANTA_ERROR_CODES(NORVANTA_ERROR_ENUM)
#undef NORVANTA_ERROR_ENUM
};

inline constexpr int error_code_count = 20;

// The process-wide error word. Shared by every thread and guarded by nothing
// but its atomicity: a thread may see another thread's code, which the
// program accepts. Store only through set_gblerr.
extern std::atomic<int32_t> gblerr;

// Stores the code and returns it, so that failing is a one-line return.
ErrorCode set_gblerr(ErrorCode code);

inline bool error_pending() {
    return gblerr.load(std::memory_order_relaxed) != 0;
}
inline ErrorCode current_error() {
    return static_cast<ErrorCode>(gblerr.load(std::memory_order_relaxed));
}

// The text of the code that gblerr holds now, in the language in use.
const char* error_text();
// The text of any code in a given language (1 French, anything else English).
// A value outside the table reads as "" rather than past its end.
const char* error_text_of(ErrorCode code, int language);
// The coarser class text of a code, kept with the library's data.
inline constexpr int error_class_count = 12;
const char* error_class_text_of(ErrorCode code, int language);

// The "note the code, clear it, work, restore" pattern. Store operations do
// nothing while the word is set, so a function that must clean up (delete a
// half-made set) or report and then hand the failure on to its caller holds
// the code here: the word is clear for the life of the hold, and a noted code
// is stored again when the hold ends, over whatever was stored meanwhile. With
// nothing noted, a code stored during the hold stands.
class ErrorHold {
  public:
    ErrorHold();
    ~ErrorHold();
    ErrorHold(const ErrorHold&) = delete;
    ErrorHold& operator=(const ErrorHold&) = delete;

    ErrorCode code() const { return noted_; }
    // The failure is dealt with: the end of the hold stores nothing.
    void release() { noted_ = ErrorCode::none; }

  private:
    ErrorCode noted_;
};

// A dated log entry written while a failure is pending, leaving gblerr as it
// found it; the common case of ErrorHold.
void log_and_keep_error(const char* text);

// What a module found wrong while the program comes up (a table missing, a
// row it cannot read), kept for the start-up's failure path, which shows it
// to the user beside its fixed box. The last note wins.
void note_start_failure(const char* text);
const char* start_failure_note(); // null when nothing was noted

// The error log: LogDir "zz_" tag ".log", formed once at start-up.
void log_set_path(const char* tag);
const char* log_path();           // null until log_set_path has run
void log_stamp();                 // the dated separator line
void log_line(const char* text);  // text and a line feed
void log_text(const char* text);  // text alone
void log_entry(const char* text); // dated separator, then the text and a line feed

// Message boxes: clear gblerr, then show the text, owned by the main window.
// Nothing is shown (and nothing reported) before the main window exists.
void message_box(const char* text, const char* caption);
void message_box_wide(const wchar_t* text, const wchar_t* caption);

// The allocator's way out: box, log, shutdown. Never returns.
[[noreturn]] void out_of_memory();

} // namespace norvanta
