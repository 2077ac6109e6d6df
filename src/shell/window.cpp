// The main window: made once through the window seam, recorded in the store.
#include "shell/window.h"

#include "core/object_store.h"
#include "platform/ui.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/main.h"

namespace norvanta {

std::atomic<ObjectId> MainWindow{0};

namespace {

constexpr const char* main_window_title = "Norvanta";

} // namespace

void create_main_window() {
    uint32_t background_rgb = background_colour();
    intptr_t handle = ui_create_main_window(main_window_title, background_rgb);
    if (handle == 0) {
        set_gblerr(ErrorCode::os_error);
        return;
    }
    if (MainWindow.load() == 0) set_obj_type<WindowRecord>();
    ObjectId id = 0;
    WindowRecord* record = cre_obj<WindowRecord>(&id);
    if (!record) return;
    record->background_rgb = background_rgb;
    record->handle = handle;
    record->draw_width = window_draw_width;
    record->draw_height = window_draw_height;
    // Later windows do not replace the first one.
    ObjectId none = 0;
    MainWindow.compare_exchange_strong(none, id);
}

bool main_window_exists() {
    return MainWindow.load() != 0;
}

void main_window_close() {
    exit_path(0);
}

} // namespace norvanta
