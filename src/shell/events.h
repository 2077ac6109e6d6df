// The DeferredEvent machine: the program's scheduler.
//
// An event is a numbered message to the main window, served on the UI thread
// by dispatch_event. There is no timer: a delay is a short-lived thread that
// sleeps and then posts. Long work runs on a thread while CurrentEvent keeps
// every other event waiting, so events above 2 are served one at a time, in
// their order of arrival, and the drawing event 4 always comes last.
//
// Who touches what: post_event, post_event_with_data, arm_event, send_event
// and refresh_cursor may be called from any thread. Everything else is the UI
// thread's. The state words and CurrentEvent are read by other threads, so
// they are atomic; each event's queue of data is the UI thread's alone.
#pragma once

#include <atomic>
#include <cstdint>

namespace norvanta {

inline constexpr int32_t event_count = 22; // events 0 to 21

// The events in use.
inline constexpr int32_t event_cursor = 0;     // refreshes the cursor, nothing more
inline constexpr int32_t event_end = 1;        // closes the current event, starts the next
inline constexpr int32_t event_idle = 2;       // idle work when nothing waits
inline constexpr int32_t event_draw = 4;       // after each command: the drawing pass
inline constexpr int32_t event_live_fix = 10;  // a live fix is waiting
inline constexpr int32_t event_load_file = 14; // load a file; data "1" or "0" then the path
inline constexpr int32_t event_replay_tick = 16;
inline constexpr int32_t event_send_list = 17; // refresh the list of clients
// The playback asked for on the command line, served after the files that
// the same line queued, since events wait their turn in order of arrival.
inline constexpr int32_t event_command_line_playback = 18;

// Values of a state word. 3 and above: the event waits its turn, and the
// number is its place in the waiting order (lowest first).
inline constexpr int32_t event_state_ignore = -1;
inline constexpr int32_t event_state_idle = 0;
inline constexpr int32_t event_state_posted = 1;
inline constexpr int32_t event_state_delayed = 2;
inline constexpr int32_t event_state_waiting = 3;

// CurrentEvent: the event being served; 0 when idle, -1 while a handler runs
// inline on the UI thread.
inline constexpr int32_t current_event_inline = -1;
extern std::atomic<int32_t> CurrentEvent;

// A module's handler for an event. An inline handler runs on the UI thread; a
// threaded one (events 2, 4, 5, 6, 8, 14) runs on a thread of its own while
// CurrentEvent holds its number, and the machine posts event 1 when it
// returns. Both read their data with current_data(); it may be null, also
// for an event that normally has data (an event posted with none).
using EventHandler = void (*)();

// Registers a module's handler, at start-up. Null restores the machine's own:
// the idle work for event 2, the empty drawing pass for event 4, and for the
// others none, which serves the event as "nothing to do".
void set_event_handler(int32_t event, EventHandler handler);
bool event_has_handler(int32_t event);
bool event_runs_threaded(int32_t event);

// The window title is the Dashboard's: it registers the function that the
// machine calls before each event (rewrite false: only parts that changed)
// and when an event ends (rewrite true).
void set_title_refresher(void (*refresh)(bool rewrite));

// ---- posting; any thread ----

// State 1, then the message.
void post_event(int32_t event);
// The same with the number as decimal text for data.
void post_event_with_data(int32_t event, long number);
// Posts now (delay 0) or after delay_ms. A delayed post without data that is
// asked for while the event is not idle is not made: the one on its way
// stands for it. data is copied.
void arm_event(int32_t event, int delay_ms, const char* data);
// Posts the message, now or from a thread that sleeps first. Takes data.
void send_event(int32_t event, int delay_ms, char* data);

// ---- the UI thread ----

// State 0, and all data waiting for the event freed. A message on its way
// still arrives.
void cancel_event(int32_t event);
// The handler of the main window's event messages.
void dispatch_event(int32_t event, char* data);
// Runs function on a thread while CurrentEvent holds event; the function
// must post event 1 when it ends.
void run_event_in_thread(int32_t event, void (*function)(void*));
// The data of the event being served; the machine owns it.
const char* current_data();

// 0 applies the chosen cursor again, 1 chooses the arrow, 2 the hourglass.
// Any thread.
inline constexpr int cursor_refresh = 0;
inline constexpr int cursor_normal = 1;
inline constexpr int cursor_busy = 2;
void refresh_cursor(int state);

// ---- files ----

// Queues a file for loading when it is a regular file.
void load_path(const char* path);
// Posts event 14 with "1" (flag 1) or "0" (any other) and the path as data.
void queue_load(const char* path, int flag);
// Files dropped on the window: from the last to the first, each to load_path.
void drop_files(const char* const* paths, int count);

// ---- looking in; tests and the idle test of the programs ----

int32_t event_state(int32_t event);
void set_event_state(int32_t event, int32_t state);
int32_t event_queue_length(int32_t event);
// Delayed posts whose thread has not posted yet.
int32_t delayed_posts_in_flight();
// Nothing served, nothing waiting, no delayed post on its way. Messages
// already in the window's queue are not counted.
bool event_machine_idle();

} // namespace norvanta
