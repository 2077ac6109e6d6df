// The main window's record: the one top-level window, the destination of
// every posted event and the owner of every box.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "core/mobj.h"

namespace norvanta {

inline constexpr int32_t window_draw_width = 500;  // nominal drawing area, pixels
inline constexpr int32_t window_draw_height = 300; // pixels

struct WindowRecord {
    static constexpr ObjectType object_type = ObjectType::WindowRecord;

    ObjectId id;             // object header
    ObjectType type;         // object header: ObjectType::WindowRecord
    uint32_t background_rgb; // 0x00RRGGBB of the window's background
    intptr_t handle;         // the backend's handle word of the window
    int32_t draw_width;      // pixels, window_draw_width
    int32_t draw_height;     // pixels, window_draw_height
};
static_assert(std::is_trivially_copyable_v<WindowRecord> &&
              std::is_standard_layout_v<WindowRecord>);

// The first window record made; 0 until then.
extern std::atomic<ObjectId> MainWindow;

// Makes the window titled "Norvanta" in the configured background colour and
// its record; a refusal of the system stores os_error.
void create_main_window();
// True once MainWindow is made. Any thread.
bool main_window_exists();
// The window's close box, and the signals that stand for it: the way out.
[[noreturn]] void main_window_close();

} // namespace norvanta
