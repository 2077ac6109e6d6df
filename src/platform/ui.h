// The window seam. The shell holds all logic; a backend (headless for
// terminals and tests, wxWidgets for the desktop) shows it. Chosen at link
// time. Everything here runs on the UI thread except where a function says
// that any thread may call it.
//
// What comes back from the backend to the shell: each posted message goes to
// dispatch_event (shell/events.h) on the UI thread, in the order of posting;
// a request to close the window goes to main_window_close (shell/window.h).
#pragma once

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

} // namespace norvanta
