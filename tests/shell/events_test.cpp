// The DeferredEvent machine on the headless window: the test's thread is the
// UI thread. Threaded handlers block on a gate the test opens, so that what
// arrives "during a load" arrives during it for certain.
#include "shell/events.h"

#include <chrono>
#include <mutex>
#include <semaphore>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "platform/headless/ui_headless.h"
#include "platform/ui.h"
#include "shell/window.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

// Generous: a deadline that only a broken machine reaches.
constexpr int serve_deadline_ms = 10000;
constexpr int serve_poll_ms = 5;

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// The machine posts to the main window, which lives in the store.
class WindowEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        object_store_create();
        set_pending_work_test(ui_work_pending);
        create_main_window();
        ASSERT_TRUE(main_window_exists());
    }
};
[[maybe_unused]] const auto* const window_environment =
    ::testing::AddGlobalTestEnvironment(new WindowEnvironment);

// What the handlers saw, in the order they ran: "event" or "event:data".
std::mutex journal_mutex;
std::vector<std::string> journal;

void note(int32_t event) {
    std::string entry = std::to_string(event);
    if (const char* data = current_data()) entry += std::string(":") + data;
    std::lock_guard lock(journal_mutex);
    journal.push_back(entry);
}

std::vector<std::string> journal_copy() {
    std::lock_guard lock(journal_mutex);
    return journal;
}

template <int32_t Event>
void noting_handler() {
    note(Event);
}

std::atomic<int> idle_rounds{0};
void counting_idle() {
    idle_rounds.fetch_add(1);
}

// Threaded handlers wait here for a permit each; counts who entered and how many ran at once.
struct Gate {
    std::counting_semaphore<> permits{0};
    std::atomic<int> entered{0};
    std::atomic<int> running{0};
    std::atomic<int> max_running{0};

    void pass(int32_t event) {
        entered.fetch_add(1);
        int now = running.fetch_add(1) + 1;
        for (int seen = max_running.load(); now > seen;)
            max_running.compare_exchange_weak(seen, now);
        permits.acquire();
        running.fetch_sub(1);
        note(event);
    }
    void clear() {
        while (permits.try_acquire()) {
        }
        entered = running = max_running = 0;
    }
} gate;

template <int32_t Event>
void gated_handler() {
    gate.pass(Event);
}

// Serves the window's queue until done() holds; false at the deadline. A
// delayed post's thread counts itself out just after posting, so waits are
// short ones, repeated.
template <class Done>
bool serve_until(Done done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(serve_deadline_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        headless::serve_one(serve_poll_ms);
    }
    return true;
}

void run_until_idle() {
    EXPECT_TRUE(serve_until([] { return headless::pending_count() == 0 && event_machine_idle(); }))
        << "the machine did not come to rest; CurrentEvent " << CurrentEvent.load()
        << ", delayed posts " << delayed_posts_in_flight();
}

bool serve_until_entered(int count) {
    return serve_until([count] { return gate.entered.load() >= count; });
}

class Events : public ::testing::Test {
  protected:
    void SetUp() override {
        headless::reset();
        for (int32_t e = 0; e < event_count; ++e) {
            cancel_event(e);
            set_event_handler(e, nullptr);
        }
        set_event_handler(event_idle, counting_idle);
        set_event_handler(event_replay_tick, noting_handler<event_replay_tick>);
        set_event_handler(event_send_list, noting_handler<event_send_list>);
        idle_rounds.store(0);
        gate.clear();
        std::lock_guard lock(journal_mutex);
        journal.clear();
    }
    void TearDown() override {
        gate.permits.release(100);
        run_until_idle();
        for (int32_t e = 0; e < event_count; ++e)
            set_event_handler(e, nullptr);
    }

    // Starts a load of "1a" that holds its thread until the gate opens.
    void start_blocked_load() {
        set_event_handler(event_load_file, gated_handler<event_load_file>);
        queue_load("a", 1);
        ASSERT_TRUE(serve_until_entered(1));
        ASSERT_EQ(CurrentEvent.load(), event_load_file);
    }
};

TEST_F(Events, AnEventEndsWithOneIdleRound) {
    struct Row {
        const char* description;
        int32_t event;
        std::vector<std::string> served;
    };
    const Row rows[] = {
        {"inline event with a handler", event_send_list, {"17"}},
        {"threaded event with no loader registered", event_load_file, {}},
        {"inline event with no handler", 7, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        post_event(row.event);
        run_until_idle();
        EXPECT_EQ(journal_copy(), row.served);
        EXPECT_EQ(idle_rounds.load(), 1);
        EXPECT_EQ(event_state(row.event), event_state_idle);
    }
}

TEST_F(Events, WaitingEventsAreServedAfterTheLoadInArrivalOrder) {
    struct Row {
        const char* description;
        std::vector<int32_t> arrivals; // a negative number: that event's message again, no post
        std::vector<std::string> served;
    };
    const Row rows[] = {
        {"a tick, then the send list", {16, 17}, {"14:1a", "16", "17"}},
        {"the send list, then a tick", {17, 16}, {"14:1a", "17", "16"}},
        {"a command's drawing pass stays behind a later tick", {4, 16}, {"14:1a", "16", "4"}},
        {"a tick, a command, the send list", {16, 4, 17}, {"14:1a", "16", "17", "4"}},
        {"a waiting event arriving again goes to the front", {16, 17, -17}, {"14:1a", "17", "16"}},
        {"both at the front: the higher number first", {16, 17, -17, -16}, {"14:1a", "17", "16"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        set_event_handler(event_draw, gated_handler<event_draw>);
        start_blocked_load();
        for (int32_t event : row.arrivals) {
            if (event > 0) {
                post_event(event);
            } else {
                ui_post(-event, nullptr);
            }
        }
        headless::serve_pending();
        EXPECT_TRUE(journal_copy().empty()) << "nothing is served while the load runs";
        gate.permits.release(static_cast<std::ptrdiff_t>(row.served.size()));
        run_until_idle();
        EXPECT_EQ(journal_copy(), row.served);
        EXPECT_EQ(idle_rounds.load(), 1);
    }
}

TEST_F(Events, OneThreadedEventRunsAtATime) {
    set_event_handler(event_load_file, gated_handler<event_load_file>);
    set_event_handler(5, gated_handler<5>);
    set_event_handler(6, gated_handler<6>);
    set_event_handler(8, gated_handler<8>);
    queue_load("a", 1);
    post_event(5);
    post_event(6);
    queue_load("b", 1);
    post_event(8);
    headless::serve_pending();
    const int expected_runs = 5;
    for (int run = 1; run <= expected_runs; ++run) {
        SCOPED_TRACE("threaded run " + std::to_string(run));
        ASSERT_TRUE(serve_until_entered(run));
        headless::serve_pending();
        EXPECT_EQ(gate.entered.load(), run) << "another threaded event started";
        gate.permits.release();
    }
    run_until_idle();
    EXPECT_EQ(gate.max_running.load(), 1);
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1a", "5", "6", "14:1b", "8"}));
}

TEST_F(Events, LoadsArrivingDuringALoadQueueTheirDataAndGoFirst) {
    // Serving one file while more wait posts the load again; arriving during
    // the load, that message puts it at the front of the line.
    start_blocked_load();
    queue_load("b", 0);
    queue_load("c", 7);
    post_event(event_replay_tick);
    headless::serve_pending();
    EXPECT_EQ(event_queue_length(event_load_file), 2);
    EXPECT_STREQ(current_data(), "1a");
    gate.permits.release(3);
    run_until_idle();
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1a", "14:0b", "14:0c", "16"}));
}

TEST_F(Events, DroppedFilesLoadLastFirst) {
    set_event_handler(event_load_file, noting_handler<event_load_file>);
    testing::TestHome files;
    const std::string first = files.file("first.gpx");
    const std::string second = files.file("second.gpx");
    const std::string missing = files.file("missing.gpx");
    testing::write_file(first, "x");
    testing::write_file(second, "y");
    const char* drop[] = {first.c_str(), files.path().c_str(), second.c_str(), missing.c_str()};
    drop_files(drop, 4);
    run_until_idle();
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1" + second, "14:1" + first}))
        << "a directory and a missing name are no regular files and load nothing";
}

TEST_F(Events, ArmingWithADelay) {
    struct Row {
        const char* description;
        int second_delay_ms;
        const char* second_data;
        int expected_serves;
    };
    const Row rows[] = {
        {"a delayed post without data while one is on its way is not made", 1, nullptr, 1},
        {"a delayed post with data is made anyway", 1, "x", 2},
        {"a post without delay is made anyway", 0, nullptr, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        arm_event(event_replay_tick, 1, nullptr);
        EXPECT_EQ(event_state(event_replay_tick), event_state_delayed);
        arm_event(event_replay_tick, row.second_delay_ms, row.second_data);
        run_until_idle();
        EXPECT_EQ(static_cast<int>(journal_copy().size()), row.expected_serves);
        EXPECT_EQ(delayed_posts_in_flight(), 0);
    }
}

TEST_F(Events, CancelEmptiesTheQueue) {
    start_blocked_load();
    queue_load("b", 1);
    headless::serve_pending();
    ASSERT_EQ(event_queue_length(event_load_file), 1);
    cancel_event(event_load_file);
    EXPECT_EQ(event_queue_length(event_load_file), 0);
    EXPECT_EQ(event_state(event_load_file), event_state_idle);
    gate.permits.release(2);
    run_until_idle();
    EXPECT_EQ(journal_copy(), std::vector<std::string>{"14:1a"});
}

TEST_F(Events, IgnoredStateDropsOneMessage) {
    post_event_with_data(event_send_list, 42);
    set_event_state(event_send_list, event_state_ignore);
    run_until_idle();
    EXPECT_TRUE(journal_copy().empty());
    EXPECT_EQ(event_state(event_send_list), event_state_idle);
    EXPECT_EQ(idle_rounds.load(), 0) << "an ignored message serves nothing, so nothing ends";
    post_event_with_data(event_send_list, -12345);
    run_until_idle();
    EXPECT_EQ(journal_copy(), std::vector<std::string>{"17:-12345"});
}

TEST_F(Events, IdleEventArrivingWhileBusyIsForgotten) {
    start_blocked_load();
    post_event(event_idle);
    headless::serve_pending();
    EXPECT_EQ(idle_rounds.load(), 0);
    EXPECT_EQ(event_state(event_idle), event_state_posted) << "not put in the waiting line";
    gate.permits.release();
    run_until_idle();
    EXPECT_EQ(idle_rounds.load(), 1);
}

TEST_F(Events, BusyCursorFollowsTheChoiceButLeavesForeignOnes) {
    refresh_cursor(cursor_busy);
    EXPECT_EQ(ui_cursor(), UiCursor::busy);
    ui_set_cursor(UiCursor::arrow);
    refresh_cursor(cursor_refresh);
    EXPECT_EQ(ui_cursor(), UiCursor::busy) << "a refresh applies the chosen cursor again";
    ui_set_cursor(UiCursor::foreign);
    refresh_cursor(cursor_normal);
    EXPECT_EQ(ui_cursor(), UiCursor::foreign) << "a dialog's own cursor is left alone";
    ui_set_cursor(UiCursor::busy);
    post_event(event_send_list);
    run_until_idle();
    EXPECT_EQ(ui_cursor(), UiCursor::arrow) << "the end of an event brings the arrow back";
}

} // namespace
} // namespace norvanta
