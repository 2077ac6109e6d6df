// The headless dialogs, seen from a test: what a dialog shows, and the
// user's acts, which send the notifications a window would send.
//
// Everything runs on the caller's thread, which thereby acts as the UI
// thread: an act calls the dialog's callbacks before it returns.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ui_dialog.h"

namespace norvanta::headless {

// A control of the open dialog as the program left it.
struct DialogControl {
    UiControlKind kind;
    int32_t id;
    UiRect where;
    uint32_t style;
    std::string text;
    bool enabled;
    bool checked;
    std::vector<std::string> rows;
    std::vector<intptr_t> row_data;
    std::vector<bool> row_selected; // list boxes
    int32_t selected;               // combos: the row, -1 for none
    int32_t top_row;                // list boxes: the first row in view
};

struct DialogView {
    UiDialog handle;
    std::string title;
    UiRect client;
    int32_t focus; // id of the control with the focus, 0 for the window
    std::vector<DialogControl> controls;
};

// The dialog opened last of those still open; none when none is.
std::optional<DialogView> open_dialog();
std::optional<DialogControl> dialog_control(int32_t id);
// False while a dialog holds the main window disabled.
bool main_window_enabled();

// ---- the user's acts on the open dialog; an act on a disabled or missing
// control does nothing, as a window would ----

// A button is pressed, a check box flipped, an option chosen (the others of
// its group cleared); then the clicked notification.
void click(int32_t id);
// The control takes the focus and each character in turn. "\t", "\x1b" and
// "\r" are the keys Tab, Escape and Return, which insert nothing. An entry
// refuses what its style refuses; each character taken sends the change
// notification, and then a key of the four sends its key notification.
void type_text(int32_t id, std::string_view text);
// The control's text is selected and deleted; a change notification follows
// when there was text.
void erase_text(int32_t id);
// A key with the focus on the control of that id, or on the window (0).
void press_key(int32_t id, int32_t key);
// A row of a combo is chosen (an editable combo shows its text); then the
// selection notification.
void choose_row(int32_t id, int32_t row);
// The rows of a list box that are selected, all others cleared.
void select_rows(int32_t id, const std::vector<int32_t>& rows);
// The window manager's close.
void request_dialog_close();

// ---- the user's acts on the main window, routed as a window routes them ----

// A menu item is chosen: command(id, 0), unless the item is gray or absent.
void choose_menu_item(int32_t id);
// A control of the main window notifies: command(id, code), unless it is
// disabled or absent.
void notify_main_control(int32_t id, int32_t code);

// ---- the open-file chooser ----

struct FileRequestSeen {
    std::string caption;
    std::string filter_name;
    std::string filter_pattern;
    bool multiple;
    std::string start_directory;
};
// What the next chooser answers; without an answer it is cancelled.
void answer_file_chooser(std::vector<std::string> paths);
// The request of the last chooser shown.
std::optional<FileRequestSeen> last_file_request();

// Closes every dialog without notice, forgets answers and requests.
void reset_dialogs();

} // namespace norvanta::headless
