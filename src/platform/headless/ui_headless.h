// The headless window, seen from a test: what the program has put on it,
// and the handles to serve its message queue step by step.
//
// The backend keeps everything a window would show in memory (title, cursor,
// menu, controls, boxes) so that shell logic is tested without a display. Serving
// functions run dispatch_event on the caller's thread, which thereby acts as
// the UI thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/ui.h"

namespace norvanta::headless {

std::string title();
uint32_t background_rgb();

// One entry of the attached menu bar, in menu order, depth first: a popup is
// followed by its entries one level deeper.
enum class MenuEntryKind { popup, item, separator };
struct MenuEntry {
    int level;
    MenuEntryKind kind;
    int32_t id;
    std::string text;
    bool checked;
    bool enabled;
};
std::vector<MenuEntry> menu_entries();
bool menu_enabled(int32_t id);

// A control of the main window as the program left it.
struct Control {
    UiControlKind kind;
    int32_t id;
    UiRect where;
    const UiFont* font;
    uint32_t style;
    std::string text;
    bool enabled;
    bool checked;
    int32_t slider_low;
    int32_t slider_high;
    int32_t slider_position;
    std::vector<std::string> rows;
    std::vector<intptr_t> row_data;
    int32_t selected; // row, -1 for none
    UiValueLook look;
};
// In order of creation.
std::vector<Control> controls();
// The control of that id; none for 0 or an id not made.
std::optional<Control> control(int32_t id);
bool drops_accepted();

// "caption: text" of every box shown, oldest first.
std::vector<std::string> boxes();

// A message of the window's queue.
struct Message {
    int32_t event;
    std::optional<std::string> data;
};
// The messages waiting, oldest first, left in place.
std::vector<Message> pending_messages();
std::size_t pending_count();
// Serves the oldest message, waiting for one up to timeout_ms; false when
// none came.
bool serve_one(int timeout_ms);
// Serves what waits now, without waiting; returns how many were served.
int serve_pending();

// Drops waiting messages (their data freed), boxes, a close or quit request,
// and sets the cursor to the arrow. The window and its menu stay.
void reset();
// The window goes away with its controls: posts are dropped until
// ui_create_main_window runs again.
void destroy_main_window();

} // namespace norvanta::headless
