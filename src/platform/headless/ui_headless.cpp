// The window seam with no window: for terminals, servers and tests.
//
// The message queue is a FIFO of (event, data) guarded by one mutex, with a
// condition variable that wakes the loop; any thread may post. Everything a
// window would show (title, menu, controls) is kept in memory under the same
// mutex, and boxes go to stderr without waiting for anyone.
#include "platform/ui.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "core/memory.h"
#include "core/strings.h"
#include "platform/headless/status_output.h"
#include "platform/headless/ui_headless.h"
#include "shell/events.h"
#include "shell/window.h"

namespace norvanta {

namespace {

using headless::MenuEntryKind;

struct MenuSlot {
    MenuEntryKind kind;
    int32_t id;
    std::string text;
    UiMenu submenu; // popups only
    bool checked;
    bool enabled;
};

struct PostedMessage {
    int32_t event;
    char* data; // owned
};

// The handle word of the one window; any non-zero value would do.
constexpr intptr_t main_window_handle = 1;
constexpr UiMenu no_menu = -1;

struct HeadlessWindow {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<PostedMessage> queue;
    bool exists = false;
    bool close_requested = false;
    bool quit_requested = false;
    int quit_code = 0;
    std::string title;
    uint32_t background_rgb = 0;
    std::vector<std::vector<MenuSlot>> menus;
    UiMenu bar = no_menu;
    std::vector<std::string> boxes;
    std::vector<headless::Control> controls;
    bool drops_accepted = true;
};

// Never destroyed, on purpose: detached threads (a delayed post, the end of
// a load) may still post while the process ends.
HeadlessWindow& window() {
    static HeadlessWindow* const instance = new HeadlessWindow;
    return *instance;
}

std::atomic<UiCursor> cursor_shown{UiCursor::arrow};

bool valid_menu(const HeadlessWindow& w, UiMenu menu) {
    return menu >= 0 && static_cast<std::size_t>(menu) < w.menus.size();
}

void insert_slot(HeadlessWindow& w, UiMenu menu, int position, MenuSlot slot) {
    if (!valid_menu(w, menu)) return;
    std::vector<MenuSlot>& entries = w.menus[static_cast<std::size_t>(menu)];
    std::size_t at = position < 0 ? 0 : static_cast<std::size_t>(position);
    if (at > entries.size()) at = entries.size();
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(at), std::move(slot));
}

// The first item of the id in the attached bar, depth first; popups carry no id.
MenuSlot* find_item(HeadlessWindow& w, UiMenu menu, int32_t id, int depth = 0) {
    if (!valid_menu(w, menu) || depth > static_cast<int>(w.menus.size())) return nullptr;
    for (MenuSlot& slot : w.menus[static_cast<std::size_t>(menu)]) {
        if (slot.kind == MenuEntryKind::item && slot.id == id) return &slot;
        if (slot.kind == MenuEntryKind::popup) {
            if (MenuSlot* found = find_item(w, slot.submenu, id, depth + 1)) return found;
        }
    }
    return nullptr;
}

void list_entries(const HeadlessWindow& w, UiMenu menu, int level,
                  std::vector<headless::MenuEntry>& out) {
    if (!valid_menu(w, menu) || level > static_cast<int>(w.menus.size())) return;
    for (const MenuSlot& slot : w.menus[static_cast<std::size_t>(menu)]) {
        out.push_back({level, slot.kind, slot.id, slot.text, slot.checked, slot.enabled});
        if (slot.kind == MenuEntryKind::popup) list_entries(w, slot.submenu, level + 1, out);
    }
}

headless::Control* find_control(HeadlessWindow& w, int32_t id) {
    if (id == 0) return nullptr;
    for (headless::Control& control : w.controls)
        if (control.id == id) return &control;
    return nullptr;
}

// What act gives for the control of that id, run under the window's lock, or
// fallback when there is none: an id that names no control is ignored, as a
// window system ignores a message to a window that is not there.
template <class T, class Act>
T on_control(int32_t id, T fallback, Act&& act) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    headless::Control* control = find_control(w, id);
    return control ? act(*control) : fallback;
}

template <class Change>
void change_control(int32_t id, Change&& change) {
    on_control(id, 0, [&](headless::Control& c) {
        change(c);
        return 0;
    });
}

void show_box(const char* text, const char* caption) {
    std::string line = std::string(caption ? caption : "") + ": " + (text ? text : "");
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.boxes.push_back(std::move(line));
}

void drop_messages(std::deque<PostedMessage>& queue) {
    for (PostedMessage& message : queue)
        free_mem(message.data);
    queue.clear();
}

// Takes the oldest message, waiting up to the deadline; false when none came.
template <class Wait>
bool take_message(PostedMessage& out, Wait&& wait) {
    HeadlessWindow& w = window();
    std::unique_lock lock(w.mutex);
    if (!wait(lock)) return false;
    out = w.queue.front();
    w.queue.pop_front();
    return true;
}

} // namespace

void ui_post(int32_t event, char* data) {
    HeadlessWindow& w = window();
    {
        std::lock_guard lock(w.mutex);
        if (w.exists) {
            w.queue.push_back({event, data});
            data = nullptr;
        }
    }
    w.arrived.notify_all();
    free_mem(data);
}

void ui_request_close() {
    HeadlessWindow& w = window();
    {
        std::lock_guard lock(w.mutex);
        w.close_requested = true;
    }
    w.arrived.notify_all();
}

intptr_t ui_create_main_window(const char* title, uint32_t background_rgb) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.exists = true;
    w.title = title ? title : "";
    w.background_rgb = background_rgb;
    return main_window_handle;
}

bool ui_main_window_exists() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.exists;
}

void ui_set_title(const char* title) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.title = title ? title : "";
}

int ui_run_loop() {
    HeadlessWindow& w = window();
    for (;;) {
        std::unique_lock lock(w.mutex);
        w.arrived.wait(lock,
                       [&] { return w.close_requested || w.quit_requested || !w.queue.empty(); });
        if (w.close_requested) {
            w.close_requested = false;
            lock.unlock();
            main_window_close();
        }
        if (w.quit_requested) {
            w.quit_requested = false;
            return w.quit_code;
        }
        PostedMessage message = w.queue.front();
        w.queue.pop_front();
        lock.unlock();
        dispatch_event(message.event, message.data);
    }
}

void ui_closing() {
    status_output_end_line();
}

void ui_quit(int code) {
    HeadlessWindow& w = window();
    {
        std::lock_guard lock(w.mutex);
        w.quit_requested = true;
        w.quit_code = code;
    }
    w.arrived.notify_all();
}

bool ui_work_pending() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return !w.queue.empty() || w.close_requested || w.quit_requested;
}

void ui_message_box(const char* text, const char* caption, int) {
    show_box(text, caption);
}

void ui_message_box_wide(const wchar_t* text, const wchar_t* caption) {
    char* narrow_text = nullptr;
    char* narrow_caption = nullptr;
    str_from_wstr(text, narrow_text);
    str_from_wstr(caption, narrow_caption);
    show_box(narrow_text, narrow_caption);
    free_mem(narrow_text);
    free_mem(narrow_caption);
}

UiCursor ui_cursor() {
    return cursor_shown.load();
}

void ui_set_cursor(UiCursor cursor) {
    cursor_shown.store(cursor);
}

UiMenu ui_menu_create_bar() {
    return ui_menu_create_popup();
}

UiMenu ui_menu_create_popup() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.menus.emplace_back();
    return static_cast<UiMenu>(w.menus.size() - 1);
}

void ui_menu_insert_popup(UiMenu menu, int position, UiMenu popup, const char* text) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    insert_slot(w, menu, position, {MenuEntryKind::popup, 0, text ? text : "", popup, false, true});
}

void ui_menu_insert_item(UiMenu menu, int position, int32_t id, const char* text) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    insert_slot(w, menu, position,
                {MenuEntryKind::item, id, text ? text : "", no_menu, false, true});
}

void ui_menu_insert_separator(UiMenu menu, int position) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    insert_slot(w, menu, position, {MenuEntryKind::separator, 0, "", no_menu, false, true});
}

void ui_menu_attach(UiMenu bar) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.bar = bar;
}

void ui_menu_check(int32_t id, bool checked) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    if (MenuSlot* slot = find_item(w, w.bar, id)) slot->checked = checked;
}

bool ui_menu_checked(int32_t id) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    MenuSlot* slot = find_item(w, w.bar, id);
    return slot && slot->checked;
}

void ui_menu_enable(int32_t id, bool enabled) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    if (MenuSlot* slot = find_item(w, w.bar, id)) slot->enabled = enabled;
}

void ui_create_control(const UiControl& control, const char* text) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    if (!w.exists) return;
    headless::Control made{};
    made.kind = control.kind;
    made.id = control.id;
    made.where = control.where;
    made.font = control.font;
    made.style = control.style;
    made.text = text ? text : "";
    made.enabled = true;
    made.selected = -1;
    made.look = UiValueLook::settled;
    w.controls.push_back(std::move(made));
}

void ui_set_control_text(int32_t id, const char* text) {
    change_control(id, [text](headless::Control& c) { c.text = text ? text : ""; });
}

std::size_t ui_control_text(int32_t id, char* out, std::size_t capacity) {
    if (capacity > 0) out[0] = '\0';
    return on_control(id, std::size_t{0}, [&](const headless::Control& c) {
        if (capacity > 0) out[c.text.copy(out, capacity - 1)] = '\0';
        return c.text.size();
    });
}

void ui_enable_control(int32_t id, bool enabled) {
    change_control(id, [enabled](headless::Control& c) { c.enabled = enabled; });
}

void ui_check_control(int32_t id, bool checked) {
    change_control(id, [checked](headless::Control& c) { c.checked = checked; });
}

bool ui_control_checked(int32_t id) {
    return on_control(id, false, [](const headless::Control& c) { return c.checked; });
}

void ui_set_slider_range(int32_t id, int32_t low, int32_t high) {
    change_control(id, [low, high](headless::Control& c) {
        c.slider_low = low;
        c.slider_high = std::max(low, high);
        c.slider_position = std::clamp(c.slider_position, c.slider_low, c.slider_high);
    });
}

void ui_set_slider_position(int32_t id, int32_t position) {
    change_control(id, [position](headless::Control& c) {
        c.slider_position = std::clamp(position, c.slider_low, c.slider_high);
    });
}

int32_t ui_combo_add_row(int32_t id, const char* text, intptr_t item_data) {
    return on_control(id, int32_t{-1}, [&](headless::Control& c) {
        c.rows.emplace_back(text ? text : "");
        c.row_data.push_back(item_data);
        return static_cast<int32_t>(c.rows.size()) - 1;
    });
}

void ui_combo_select(int32_t id, int32_t row) {
    change_control(id, [row](headless::Control& c) {
        const bool exists = row >= 0 && static_cast<std::size_t>(row) < c.rows.size();
        c.selected = exists ? row : -1;
    });
}

int32_t ui_combo_selected(int32_t id) {
    return on_control(id, int32_t{-1}, [](const headless::Control& c) { return c.selected; });
}

intptr_t ui_combo_item_data(int32_t id, int32_t row) {
    return on_control(id, intptr_t{-1}, [row](const headless::Control& c) {
        const bool exists = row >= 0 && static_cast<std::size_t>(row) < c.row_data.size();
        return exists ? c.row_data[static_cast<std::size_t>(row)] : intptr_t{-1};
    });
}

void ui_set_value_look(int32_t id, UiValueLook look) {
    change_control(id, [look](headless::Control& c) { c.look = look; });
}

void ui_accept_drops(bool accept) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.drops_accepted = accept;
}

namespace headless {

std::string title() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.title;
}

uint32_t background_rgb() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.background_rgb;
}

std::vector<MenuEntry> menu_entries() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    std::vector<MenuEntry> out;
    list_entries(w, w.bar, 0, out);
    return out;
}

bool menu_enabled(int32_t id) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    MenuSlot* slot = find_item(w, w.bar, id);
    return slot && slot->enabled;
}

std::vector<Control> controls() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.controls;
}

std::optional<Control> control(int32_t id) {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    if (const Control* found = find_control(w, id)) return *found;
    return std::nullopt;
}

bool drops_accepted() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.drops_accepted;
}

std::vector<std::string> boxes() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.boxes;
}

std::vector<Message> pending_messages() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    std::vector<Message> out;
    for (const PostedMessage& message : w.queue) {
        Message copy{message.event, std::nullopt};
        if (message.data) copy.data = std::string(message.data);
        out.push_back(std::move(copy));
    }
    return out;
}

std::size_t pending_count() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    return w.queue.size();
}

bool serve_one(int timeout_ms) {
    PostedMessage message{};
    bool taken = take_message(message, [timeout_ms](std::unique_lock<std::mutex>& lock) {
        HeadlessWindow& w = window();
        return w.arrived.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                  [&] { return !w.queue.empty(); });
    });
    if (taken) dispatch_event(message.event, message.data);
    return taken;
}

int serve_pending() {
    int served = 0;
    PostedMessage message{};
    auto now = [](std::unique_lock<std::mutex>&) { return !window().queue.empty(); };
    while (take_message(message, now)) {
        dispatch_event(message.event, message.data);
        ++served;
    }
    return served;
}

void reset() {
    HeadlessWindow& w = window();
    {
        std::lock_guard lock(w.mutex);
        drop_messages(w.queue);
        w.boxes.clear();
        w.close_requested = false;
        w.quit_requested = false;
    }
    cursor_shown.store(UiCursor::arrow);
}

void destroy_main_window() {
    HeadlessWindow& w = window();
    std::lock_guard lock(w.mutex);
    w.exists = false;
    w.controls.clear();
    w.drops_accepted = true;
    drop_messages(w.queue);
}

} // namespace headless

} // namespace norvanta
