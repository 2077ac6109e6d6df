// The dialog seam: the program's own dialog windows, made from a table of
// control rows, and the platform's open-file chooser.
//
// A dialog here is modal to the user, not to the code: opening it disables
// the main window and returns at once; from then on the dialog lives on its
// notifications (a click, a change of text, a key) until the shell ends it.
// So the shell writes every rule of a dialog as a reaction to a
// notification, and the same code serves a toolkit's window and the
// headless backend, where tests press the buttons. Only one dialog is open
// at a time, since the main window that opens them is disabled meanwhile.
//
// Everything here runs on the UI thread. The texts are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/ui.h"

namespace norvanta {

// A dialog's handle word; no_dialog never names an open one.
using UiDialog = int32_t;
inline constexpr UiDialog no_dialog = 0;

// ---- finer points the backends read from a control's style word ----
//
// The words are those of the Windows controls, which the Windows backend
// uses as they are; the others read these bits.

// A radio option with this bit starts a group, which runs up to the next
// control that carries it: clicking an option checks it and clears the
// others of its group.
inline constexpr uint32_t ui_style_group = 0x00020000;
// An entry that takes digits only; other characters typed are refused.
inline constexpr uint32_t ui_entry_digits_only = 0x2000;
// A text button that stands for the dialog's usual answer.
inline constexpr uint32_t ui_button_default = 0x0001;

// ---- notifications ----

// Codes of a command notification.
inline constexpr int32_t ui_notify_clicked = 0;           // a button, check box or option
inline constexpr int32_t ui_notify_selection_changed = 1; // the user chose a row
inline constexpr int32_t ui_notify_edit_changed = 5;      // text typed in an editable combo
inline constexpr int32_t ui_notify_text_changed = 768;    // text typed in an entry

// The keys a dialog hears. They are reported after the control has taken
// them, so a typed colon already stands in the entry's text. The backend
// does nothing else with Tab and Escape in a dialog (no focus walk, no
// closing): the shell decides what they do.
inline constexpr int32_t ui_key_tab = 9;
inline constexpr int32_t ui_key_return = 13;
inline constexpr int32_t ui_key_escape = 27;
inline constexpr int32_t ui_key_colon = 58;

// What a dialog sends back. Changes that the shell itself makes to a control
// send nothing; only the user's acts do.
struct UiDialogCallbacks {
    // A control's act: its id and one of the ui_notify_* codes.
    void (*command)(UiDialog dialog, int32_t id, int32_t code);
    // One of the four keys, in the control of that id, or 0 when the dialog
    // window itself has the focus. May be null: the dialog hears no key.
    void (*key)(UiDialog dialog, int32_t id, int32_t key);
    // The window is asked to close (the window manager's close, for one).
    // May be null: the request is refused and the dialog stays.
    void (*close)(UiDialog dialog);
};

struct UiDialogTemplate {
    const char* french_title;
    const char* english_title;
    int32_t language; // 1 French, 2 English: which texts of the rows to show
    // The client area, placed from the main window's client origin; a window
    // manager may move it.
    UiRect client;
    const UiControl* controls; // the rows, in creation (and tab) order
    std::size_t control_count;
};

// Makes the dialog with its controls, shows it, disables the main window and
// returns its handle; no_dialog when it cannot be made. The rows' texts are
// copied, the callbacks kept until the dialog ends.
UiDialog ui_dialog_open(const UiDialogTemplate& dialog, const UiDialogCallbacks& callbacks);
// Destroys the dialog and enables the main window again. A handle that is
// not open is ignored, so ending twice is harmless.
void ui_dialog_end(UiDialog dialog);
bool ui_dialog_is_open(UiDialog dialog);

// ---- acting on a dialog's controls by id ----
//
// An id that names no control of an open dialog is ignored, and a reader
// answers as for an empty control.

void ui_dialog_set_text(UiDialog dialog, int32_t id, const char* text);
// The text of an entry, a label, a button, or the shown text of a combo
// (the selected row's, or what was typed in an editable one). Copies it cut
// to capacity with its terminator and returns the whole length, as
// ui_control_text does.
std::size_t ui_dialog_text(UiDialog dialog, int32_t id, char* out, std::size_t capacity);
// The same text as a string, cut as above to capacity - 1 characters.
inline std::string ui_dialog_string(UiDialog dialog, int32_t id, std::size_t capacity) {
    std::string text(capacity, '\0');
    const std::size_t length = ui_dialog_text(dialog, id, text.data(), capacity);
    text.resize(length < capacity ? length : (capacity > 0 ? capacity - 1 : 0));
    return text;
}
void ui_dialog_enable(UiDialog dialog, int32_t id, bool enabled);
// Check boxes and radio options; checking an option here leaves the others
// of its group as they are, as a window system's plain check does.
void ui_dialog_check(UiDialog dialog, int32_t id, bool checked);
bool ui_dialog_checked(UiDialog dialog, int32_t id);
void ui_dialog_focus(UiDialog dialog, int32_t id);

// Rows of combos and list boxes: a text and an item data word each. Lists
// are never sorted by the backend: rows stay where they were added.
// Appends a row; returns its number, -1 when id names no such control.
int32_t ui_dialog_add_row(UiDialog dialog, int32_t id, const char* text, intptr_t item_data);
// Removes a row; those after it move up one. A list's selection moves with
// its rows.
void ui_dialog_delete_row(UiDialog dialog, int32_t id, int32_t row);
void ui_dialog_clear_rows(UiDialog dialog, int32_t id);
int32_t ui_dialog_row_count(UiDialog dialog, int32_t id);
// The item data of a row; -1 for a row that does not exist.
intptr_t ui_dialog_row_data(UiDialog dialog, int32_t id, int32_t row);
// A combo's one selection: a row number that does not exist leaves no row
// selected (and an editable combo's text empty).
void ui_dialog_select_row(UiDialog dialog, int32_t id, int32_t row);
// The selected row of a combo, -1 for none.
int32_t ui_dialog_selected_row(UiDialog dialog, int32_t id);
// The selected rows of a multiple-selection list box, in ascending order, at
// most capacity of them; returns how many were written.
int32_t ui_dialog_selected_rows(UiDialog dialog, int32_t id, int32_t* out, int32_t capacity);
// The first row in view of a list box, and scrolling to put a row there, so
// that rows taken out of a list do not make the user lose their place.
int32_t ui_dialog_top_row(UiDialog dialog, int32_t id);
void ui_dialog_set_top_row(UiDialog dialog, int32_t id, int32_t row);

// ---- the open-file chooser ----

struct UiFileRequest {
    const char* caption;
    const char* filter_name;     // the one filter row's name
    const char* filter_pattern;  // "*.a;*.b": patterns separated by semicolons
    bool multiple;               // several files may be chosen
    const char* start_directory; // null or empty: the chooser's own choice
};

// Blocks until the user answers; the chosen paths, absolute, in the order the
// chooser gives them; empty when the user cancels.
std::vector<std::string> ui_choose_files(const UiFileRequest& request);

} // namespace norvanta
