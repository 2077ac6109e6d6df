// The DeferredEvent machine: states, queues, serving and settling.
//
// The shape of the machine. Every event number has a state word:
//   0 idle, 1 a message is on its way, 2 a delayed message is on its way,
//   3 and above waiting (the number is its place in line), -1 ignore once.
// A message that arrives while the machine is idle (CurrentEvent 0) is
// served at once: its oldest queued data becomes CurrentData, its handler
// runs inline or on a thread, and event 1 closes it. A message that arrives
// while the machine is busy is settled into the waiting order and served
// when event 1 finds it, lowest place first. Event 1 with nothing waiting
// posts event 2, the idle work, once; then the machine rests.
#include "shell/events.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <deque>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/strings.h"
#include "platform/os.h"
#include "platform/ui.h"
#include "shell/config.h"
#include "shell/main.h"
#include "shell/window.h"

namespace norvanta {

std::atomic<int32_t> CurrentEvent{0};

namespace {

// One row per event number: whether its handler runs on a thread, and what
// the event is for.
struct EventRow {
    int32_t event;
    bool threaded;
    const char* role;
};

constexpr std::array<EventRow, event_count> event_table = {{
    {0, false, "cursor refresh"},
    {1, false, "end of an event"},
    {2, true, "idle work of the object store"},
    {3, false, "unused"},
    {4, true, "drawing pass, after each command"},
    {5, true, "drawing and printing"},
    {6, true, "drawing and printing"},
    {7, false, "drawing and printing"},
    {8, true, "drawing and printing"},
    {9, false, "unused"},
    {10, false, "a live fix is waiting"},
    {11, false, "unused"},
    {12, false, "unused"},
    {13, false, "unused"},
    {14, true, "load a file"},
    {15, false, "unused"},
    {16, false, "replay tick"},
    {17, false, "refresh the send list"},
    {18, false, "unused"},
    {19, false, "unused"},
    {20, false, "unused"},
    {21, false, "unused"},
}};

consteval bool event_rows_in_order() {
    for (int32_t i = 0; i < event_count; ++i)
        if (event_table[static_cast<std::size_t>(i)].event != i) return false;
    return true;
}
static_assert(event_rows_in_order(), "one row per event, in number order");

// The "at least" of the settling rule: waiting numbers start above it.
constexpr int32_t settle_floor = 4;
// Digits of a long, its sign and the terminator.
constexpr std::size_t number_text_capacity = 24;
// "1" or "0" before the path of a file to load.
constexpr char load_flag_set = '1';
constexpr char load_flag_clear = '0';

std::array<std::atomic<int32_t>, event_count> EventStateTable{};
std::array<std::deque<char*>, event_count> EventQueue; // UI thread only
char* CurrentData = nullptr;                           // UI thread, and the event's thread
std::array<std::atomic<EventHandler>, event_count> handlers{};
std::atomic<void (*)(bool)> title_refresher{nullptr};
std::atomic<int32_t> delayed_in_flight{0};
std::atomic<UiCursor> chosen_cursor{UiCursor::arrow};

bool valid_event(int32_t event) {
    return event >= 0 && event < event_count;
}

std::size_t slot(int32_t event) {
    return static_cast<std::size_t>(event);
}

std::atomic<int32_t>& state_of(int32_t event) {
    return EventStateTable[slot(event)];
}

// Nothing to draw: the program has no view, so the pass only ends.
void draw_nothing() {}

void idle_work() {
    purge_obj_tables();
    compact_page_list(ui_work_pending);
}

EventHandler default_handler(int32_t event) {
    if (event == event_idle) return idle_work;
    if (event == event_draw) return draw_nothing;
    return nullptr;
}

EventHandler handler_of(int32_t event) {
    EventHandler handler = handlers[slot(event)].load();
    return handler ? handler : default_handler(event);
}

void refresh_title(bool rewrite) {
    if (auto refresh = title_refresher.load()) refresh(rewrite);
}

// The thread of a threaded event: its handler, then event 1. The data
// argument is ignored (it is the function's own address in MONOTHREAD mode);
// the handler is found by CurrentEvent, which stays put until event 1.
void threaded_event_thread(void*) {
    int32_t event = CurrentEvent.load();
    if (valid_event(event)) {
        if (EventHandler handler = handler_of(event)) handler();
    }
    post_event(event_end);
}

struct DelayedPost {
    int32_t event;
    int delay_ms;
    char* data;
};

// Sleeps, then posts. The event, the delay and the data travel in one block
// that the thread owns; the data pointer is never turned into text.
void delayed_post_thread(void* argument) {
    // In MONOTHREAD mode the function receives its own address instead of its
    // block: the delayed post cannot work there, and is lost (the sender
    // frees the block).
    if (argument == reinterpret_cast<void*>(&delayed_post_thread)) return;
    DelayedPost* post = static_cast<DelayedPost*>(argument);
    int32_t event = post->event;
    int delay_ms = post->delay_ms;
    char* data = post->data;
    free_mem(post);
    thread_sleep(delay_ms);
    send_event(event, 0, data);
    delayed_in_flight.fetch_sub(1);
}

// Brings a state word to a wanted value v (0 or 3) while keeping the waiting
// order: a newly waiting event goes behind all others, and the drawing event
// 4 behind it. Kept on purpose: an event that is already waiting and is
// settled with 3 again takes place 3, the front of the line.
void settle_state(int32_t event, int32_t v) {
    std::atomic<int32_t>& state = state_of(event);
    int32_t current = state.load();
    if (v == event_state_idle && !EventQueue[slot(event)].empty()) {
        if (current > event_state_delayed) return;
        v = event_state_waiting;
    }
    int32_t next = settle_floor;
    for (int32_t e = 1; e < event_count; ++e)
        next = std::max(next, state_of(e).load());
    next += 1;
    if (v < event_state_waiting || current > event_state_delayed) {
        state.store(v);
    } else {
        state.store(next);
        next += 1;
    }
    if (state_of(event_draw).load() > event_state_delayed) state_of(event_draw).store(next);
}

// The waiting event with the lowest place; the higher number wins a tie.
// 0 when none waits.
int32_t next_waiting_event() {
    int32_t found = 0;
    int32_t lowest = 0;
    for (int32_t e = event_count - 1; e >= event_idle; --e) {
        int32_t state = state_of(e).load();
        if (state < event_state_waiting) continue;
        if (found == 0 || state < lowest) {
            found = e;
            lowest = state;
        }
    }
    return found;
}

void free_queue(int32_t event) {
    std::deque<char*>& queue = EventQueue[slot(event)];
    for (char*& data : queue)
        free_mem(data);
    queue.clear();
}

// Event 2: if some event waits after all, it goes first and the machine is
// free again; otherwise the idle work runs on its thread.
void serve_idle() {
    if (int32_t waiting = next_waiting_event()) {
        post_event(waiting);
        CurrentEvent.store(0);
        return;
    }
    run_event_in_thread(event_idle, threaded_event_thread);
}

void serve(int32_t event) {
    CurrentEvent.store(current_event_inline);
    free_mem(CurrentData);
    std::deque<char*>& queue = EventQueue[slot(event)];
    if (!queue.empty()) {
        CurrentData = queue.front();
        queue.pop_front();
        if (!queue.empty()) post_event(event);
    }
    settle_state(event, event_state_idle);

    if (event == event_idle) {
        serve_idle();
    } else if (event_runs_threaded(event)) {
        if (handler_of(event)) run_event_in_thread(event, threaded_event_thread);
    } else if (EventHandler handler = handler_of(event)) {
        handler();
    }
    if (CurrentEvent.load() == current_event_inline) post_event(event_end);
}

// Event 1: the event being served has ended; the next waiting one is posted,
// or the idle work when the machine falls idle after anything but itself.
void end_current_event() {
    refresh_cursor(cursor_normal);
    int32_t ended = CurrentEvent.exchange(0);
    refresh_title(true);
    if (int32_t waiting = next_waiting_event()) {
        post_event(waiting);
        return;
    }
    if (ended != event_idle) post_event(event_idle);
}

} // namespace

void set_event_handler(int32_t event, EventHandler handler) {
    if (valid_event(event)) handlers[slot(event)].store(handler);
}

bool event_has_handler(int32_t event) {
    return valid_event(event) && handler_of(event);
}

bool event_runs_threaded(int32_t event) {
    return valid_event(event) && event_table[slot(event)].threaded;
}

void set_title_refresher(void (*refresh)(bool rewrite)) {
    title_refresher.store(refresh);
}

void post_event(int32_t event) {
    if (!valid_event(event)) return;
    state_of(event).store(event_state_posted);
    send_event(event, 0, nullptr);
}

void post_event_with_data(int32_t event, long number) {
    if (!valid_event(event)) return;
    char text[number_text_capacity];
    std::snprintf(text, sizeof text, "%ld", number);
    char* data = nullptr;
    str_copy(text, data);
    state_of(event).store(event_state_posted);
    send_event(event, 0, data);
}

void arm_event(int32_t event, int delay_ms, const char* data) {
    if (!valid_event(event)) return;
    if (state_of(event).load() != event_state_idle && delay_ms != 0 && data == nullptr) return;
    state_of(event).store(delay_ms != 0 ? event_state_delayed : event_state_posted);
    char* copy = nullptr;
    if (data) str_copy(data, copy);
    send_event(event, delay_ms, copy);
}

void send_event(int32_t event, int delay_ms, char* data) {
    if (delay_ms == 0) {
        if (main_window_exists()) {
            ui_post(event, data);
        } else {
            free_mem(data);
        }
        return;
    }
    DelayedPost* post = nullptr;
    alloc_mem(post, sizeof(DelayedPost));
    *post = DelayedPost{event, delay_ms, data};
    delayed_in_flight.fetch_add(1);
    start_worker(delayed_post_thread, post);
    if (monothread()) {
        // The function ran inline without its block, and will never post.
        free_mem(post->data);
        free_mem(post);
        delayed_in_flight.fetch_sub(1);
    }
}

void cancel_event(int32_t event) {
    if (!valid_event(event)) return;
    state_of(event).store(event_state_idle);
    free_queue(event);
}

void dispatch_event(int32_t event, char* data) {
    if (!valid_event(event)) {
        free_mem(data);
        return;
    }
    refresh_title(false);
    if (event == event_end) {
        free_mem(data);
        end_current_event();
        return;
    }
    refresh_cursor(cursor_refresh);
    if (event == event_cursor) {
        free_mem(data);
        return;
    }
    if (state_of(event).load() == event_state_ignore) {
        settle_state(event, event_state_idle);
        free_mem(data);
        return;
    }
    if (data) {
        if (event > event_idle) {
            EventQueue[slot(event)].push_back(data);
        } else {
            free_mem(data);
        }
    }
    if (CurrentEvent.load() != 0) {
        // Busy. Event 2 is forgotten: the machine runs it again when it falls idle.
        if (event > event_idle) settle_state(event, event_state_waiting);
        return;
    }
    serve(event);
}

void run_event_in_thread(int32_t event, void (*function)(void*)) {
    CurrentEvent.store(event);
    start_worker(function, nullptr);
}

const char* current_data() {
    return CurrentData;
}

void refresh_cursor(int state) {
    if (state > cursor_refresh) {
        chosen_cursor.store(state == cursor_busy ? UiCursor::busy : UiCursor::arrow);
        post_event(event_cursor);
    }
    UiCursor chosen = chosen_cursor.load();
    UiCursor present = ui_cursor();
    if (present != chosen && present != UiCursor::foreign) ui_set_cursor(chosen);
}

// The name goes as it is given; making it canonical belongs to the file
// objects, which are not part of the program yet.
void load_path(const char* path) {
    if (!path || !os::is_regular_file(path)) return;
    queue_load(path, 1);
}

void queue_load(const char* path, int flag) {
    char* data = nullptr;
    str_append_char(flag == 1 ? load_flag_set : load_flag_clear, data);
    str_append(path, data);
    state_of(event_load_file).store(event_state_posted);
    send_event(event_load_file, 0, data);
}

void drop_files(const char* const* paths, int count) {
    for (int i = count - 1; i >= 0; --i)
        load_path(paths[i]);
}

int32_t event_state(int32_t event) {
    return valid_event(event) ? state_of(event).load() : 0;
}

void set_event_state(int32_t event, int32_t state) {
    if (valid_event(event)) state_of(event).store(state);
}

int32_t event_queue_length(int32_t event) {
    return valid_event(event) ? static_cast<int32_t>(EventQueue[slot(event)].size()) : 0;
}

int32_t delayed_posts_in_flight() {
    return delayed_in_flight.load();
}

bool event_machine_idle() {
    return CurrentEvent.load() == 0 && delayed_in_flight.load() == 0 && next_waiting_event() == 0;
}

} // namespace norvanta
