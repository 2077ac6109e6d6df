// The main window's record and title.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/mobj.h"

namespace norvanta {

// The first window record made; 0 until then.
extern std::atomic<ObjectId> MainWindow;

// Registers the window and makes it; reports through gblerr.
void create_main_window();
bool main_window_exists();

} // namespace norvanta
