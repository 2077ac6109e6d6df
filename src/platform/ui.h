// The window seam. The shell holds all logic; a backend (headless for
// terminals and tests, wxWidgets for the desktop) shows it. Chosen at link
// time. Everything here runs on the UI thread except where a function says
// that any thread may call it.
//
// What comes back from the backend to the shell: each posted message goes to
// dispatch_event (shell/events.h) on the UI thread, in the order of posting;
// a request to close the window goes to main_window_close (shell/window.h).
#pragma once

#include <cstddef>
#include <cstdint>

namespace norvanta {

// ---- the main window and its message loop ----

// A DeferredEvent message to the main window: event number and owned data
// text (or null). Served in order of posting on the UI thread by
// dispatch_event. Dropped, its data freed, when the main window does not
// exist. Any thread may call it.
void ui_post(int32_t event, char* data);

// Asks the UI thread to close the main window, as the window's close box
// does. Any thread may call it; signals come in this way. A request made
// before the loop runs is served as soon as it does.
void ui_request_close();

// Makes the main window; returns its handle word, 0 when the system refuses.
intptr_t ui_create_main_window(const char* title, uint32_t background_rgb);
bool ui_main_window_exists();
void ui_set_title(const char* title);

// Runs the message loop until ui_quit; returns the code given to ui_quit.
int ui_run_loop();
void ui_quit(int code);
// The process is about to end: the backend finishes what it shows (the
// headless one ends its status line, so that the shell's prompt starts on a
// line of its own).
void ui_closing();
// True when a message waits in the loop (idle work yields to it). Any
// thread may call it.
bool ui_work_pending();

// ---- boxes ----

// A window blocks until answered; the headless backend prints "caption: text"
// on stderr and goes on.
void ui_message_box(const char* text, const char* caption, int icon);
void ui_message_box_wide(const wchar_t* text, const wchar_t* caption);

inline constexpr int ui_icon_none = 0;
inline constexpr int ui_icon_hand = 16;
inline constexpr int ui_icon_user = 128;

// ---- the cursor ----

// The two cursors the program chooses between, and whatever else a window
// may have put up (a dialog's own), which the program leaves alone. Any
// thread may read or set the cursor; a backend that must draw it on the UI
// thread hands it over itself.
enum class UiCursor : int32_t { arrow = 0, busy = 1, foreign = 2 };
UiCursor ui_cursor();
void ui_set_cursor(UiCursor cursor);

// ---- the menu bar ----

// Menus are made empty, filled at a running position and attached once; a
// popup is inserted into its parent by its handle. Items are then found by
// command id anywhere in the attached bar.
using UiMenu = int32_t;
UiMenu ui_menu_create_bar();
UiMenu ui_menu_create_popup();
void ui_menu_insert_popup(UiMenu menu, int position, UiMenu popup, const char* text);
void ui_menu_insert_item(UiMenu menu, int position, int32_t id, const char* text);
void ui_menu_insert_separator(UiMenu menu, int position);
// Gives the window its bar and draws it.
void ui_menu_attach(UiMenu bar);

// The check mark is the only place where some settings live (the navigation
// switch, the logging switches, diffusion), so reading it back is part of
// the seam.
void ui_menu_check(int32_t id, bool checked);
bool ui_menu_checked(int32_t id);
// A disabled item is shown gray and cannot be chosen.
void ui_menu_enable(int32_t id, bool enabled);

// ---- controls of the main window ----
//
// Any thread may act on a control: the load thread and the navigation worker
// repaint the Dashboard when a track or a link starts. A backend that must
// touch its widgets on the UI thread hands the change over itself.

// What a control is to the program; a backend picks its widget from this and
// may read finer points (alignment, frame) from the style word.
enum class UiControlKind : int32_t {
    label,        // fixed text
    value,        // text the program writes: a value or a field
    separator,    // a sunken line
    combo_box,    // a drop-down list of rows, each with an item data word
    entry,        // one line the user types into
    text_box,     // several lines, read-only
    slider,       // a horizontal track with a thumb
    push_button,  // an icon button
    check_button, // a push-like button that stays in or out on each click
    radio_button, // a push-like button of a group of which one stays in
    // Made in dialogs (platform/ui_dialog.h):
    text_button,  // a plain push button showing its text
    check_box,    // a box with a check mark and its text beside it
    radio_option, // a round option with its text; groups as ui_style_group says
    group_frame,  // a titled frame drawn around other controls
    list_box,     // rows with item data, several selected at once
    combo_entry,  // a combo whose text the user may also type
};

struct UiRect {
    int32_t x; // client pixels
    int32_t y;
    int32_t width;
    int32_t height;
};

struct UiFont {
    const char* face;
    int32_t height; // pixels
    int32_t width;  // pixels, average character
    int32_t weight; // 400 normal, 700 bold
};

// One control as a table row, with both texts; the backend is given the one
// of the language in use. A button's text is the file of its icon in the
// system directory, shown at icon_size; one that does not load leaves the
// button blank, and nobody is told.
struct UiControl {
    UiControlKind kind;
    UiRect where;
    int32_t id;              // what the program finds it by; 0 for one it never touches
    const char* french;      // text, UTF-8
    const char* english;     // text, UTF-8
    const UiFont* font;      // null: the default control font
    uint32_t style;          // the Windows style word, which the Windows backend uses as is
    uint32_t extended_style; // the Windows extended style word
    int32_t icon_size;       // pixels, square; buttons only
};

// Makes the control as a child of the main window, showing text. A control
// made after the window has gone is dropped.
void ui_create_control(const UiControl& control, const char* text);
void ui_set_control_text(int32_t id, const char* text);
// Copies the text, cut to capacity with its terminator; returns the length of
// the whole text, so that a caller may ask again with room for it. out may be
// null when capacity is 0.
std::size_t ui_control_text(int32_t id, char* out, std::size_t capacity);
void ui_enable_control(int32_t id, bool enabled);
// Check and radio buttons.
void ui_check_control(int32_t id, bool checked);
bool ui_control_checked(int32_t id);
// A slider keeps its position inside its range, as a window system's does.
void ui_set_slider_range(int32_t id, int32_t low, int32_t high);
void ui_set_slider_position(int32_t id, int32_t position);
// Appends a row; returns its number.
int32_t ui_combo_add_row(int32_t id, const char* text, intptr_t item_data);
// A row number that does not exist leaves no row selected.
void ui_combo_select(int32_t id, int32_t row);
// The selected row, -1 for none.
int32_t ui_combo_selected(int32_t id);
// The item data of a row; -1 for a row that does not exist.
intptr_t ui_combo_item_data(int32_t id, int32_t row);

// How a value text is drawn: black and right-aligned once it is the setting,
// red and left-aligned while it is a value that has not been validated.
enum class UiValueLook : int32_t { settled = 0, edited = 1 };
void ui_set_value_look(int32_t id, UiValueLook look);

// Whether files dropped on the window are taken.
void ui_accept_drops(bool accept);

} // namespace norvanta
