// The window seam. The shell holds all logic; a backend (headless for
// terminals and tests, wxWidgets for the desktop) shows it. Chosen at link
// time. Everything here runs on the UI thread except ui_post, which any
// thread may call.
#pragma once

#include <cstdint>

namespace norvanta {

// A DeferredEvent message to the main window: event number and owned data
// text (or null). Served in order of posting on the UI thread by
// dispatch_event. Dropped when the main window does not exist.
void ui_post(int32_t event, char* data);

// Makes the main window; false when the system refuses.
bool ui_create_main_window(const char* title, uint32_t background_rgb);
bool ui_main_window_exists();
void ui_set_title(const char* title);

// Runs the message loop until ui_quit; returns the code given to ui_quit.
int ui_run_loop();
void ui_quit(int code);
// True when a message waits in the loop (idle work yields to it).
bool ui_work_pending();

// Boxes: a window blocks until answered; the headless backend prints the
// caption and text on stderr and goes on.
void ui_message_box(const char* text, const char* caption, int icon);
void ui_message_box_wide(const wchar_t* text, const wchar_t* caption);

inline constexpr int ui_icon_none = 0;
inline constexpr int ui_icon_hand = 16;
inline constexpr int ui_icon_user = 128;

} // namespace norvanta
