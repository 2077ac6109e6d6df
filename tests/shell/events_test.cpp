// The DeferredEvent machine driven on the headless window: the test's thread
// is the UI thread and serves the window's queue itself, step by step or
// until the machine rests. Threaded handlers block on a gate that the test
// opens, so that what arrives "during a load" arrives during it for certain.
#include "shell/events.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "platform/headless/ui_headless.h"
#include "platform/ui.h"
#include "shell/window.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

// Generous: a deadline that only a broken machine reaches.
constexpr int serve_deadline_ms = 10000;
constexpr int gate_poll_ms = 5;

class EventsEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        home_ = std::make_unique<testing::TestHome>();
        home_->make_current();
        object_store_create();
        set_pending_work_test(ui_work_pending);
        create_main_window();
        ASSERT_TRUE(main_window_exists());
    }
    void TearDown() override { home_.reset(); }

  private:
    std::unique_ptr<testing::TestHome> home_;
};

[[maybe_unused]] ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new EventsEnvironment);

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

// Threaded handlers wait here until the test lets them through, one permit
// each; the gate counts who entered and how many ran at once.
class Gate {
  public:
    void pass(int32_t event) {
        std::unique_lock lock(mutex_);
        ++entered_;
        ++running_;
        max_running_ = std::max(max_running_, running_);
        changed_.notify_all();
        changed_.wait(lock, [&] { return permits_ > 0; });
        --permits_;
        --running_;
        lock.unlock();
        note(event);
    }
    void release(int permits = 1) {
        std::lock_guard lock(mutex_);
        permits_ += permits;
        changed_.notify_all();
    }
    int entered() {
        std::lock_guard lock(mutex_);
        return entered_;
    }
    int max_running() {
        std::lock_guard lock(mutex_);
        return max_running_;
    }
    // Waits a little for a handler to enter; true when the count is reached.
    bool wait_entered(int count, int timeout_ms) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                 [&] { return entered_ >= count; });
    }
    void clear() {
        std::lock_guard lock(mutex_);
        entered_ = running_ = max_running_ = permits_ = 0;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int entered_ = 0;
    int running_ = 0;
    int max_running_ = 0;
    int permits_ = 0;
};

Gate gate;

template <int32_t Event>
void gated_handler() {
    gate.pass(Event);
}

bool machine_resting() {
    return headless::pending_count() == 0 && event_machine_idle();
}

// Serves the window's queue until the machine rests. A delayed post's thread
// counts itself out just after posting, so the wait is a short one, repeated.
void run_until_idle() {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(serve_deadline_ms);
    while (!machine_resting()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "the machine did not come to rest; CurrentEvent "
                          << CurrentEvent.load() << ", delayed posts " << delayed_posts_in_flight();
            return;
        }
        headless::serve_one(gate_poll_ms);
    }
}

// Serves until the count-th gated handler has entered its thread.
bool serve_until_entered(int count) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(serve_deadline_ms);
    while (!gate.wait_entered(count, 0)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        if (headless::pending_count() > 0) {
            headless::serve_one(0);
        } else {
            gate.wait_entered(count, gate_poll_ms);
        }
    }
    return true;
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
        idle_rounds.store(0);
        gate.clear();
        std::lock_guard lock(journal_mutex);
        journal.clear();
    }
    void TearDown() override {
        gate.release(100);
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

void post_all(const std::vector<int32_t>& events) {
    for (int32_t event : events)
        post_event(event);
}

TEST_F(Events, InlineEventEndsWithOneIdleRound) {
    set_event_handler(event_send_list, noting_handler<event_send_list>);
    post_event(event_send_list);
    EXPECT_EQ(event_state(event_send_list), event_state_posted);
    run_until_idle();
    EXPECT_EQ(journal_copy(), std::vector<std::string>{"17"});
    EXPECT_EQ(idle_rounds.load(), 1)
        << "event 2 runs once after a busy period, then the machine rests";
    EXPECT_EQ(event_state(event_send_list), event_state_idle);
    EXPECT_EQ(CurrentEvent.load(), 0);
}

TEST_F(Events, EventWithoutHandlerIsServedAsNothingToDo) {
    struct Row {
        const char* description;
        int32_t event;
    };
    const Row rows[] = {
        {"threaded event with no loader registered", event_load_file},
        {"inline event with no handler", 7},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        idle_rounds.store(0);
        post_event(row.event);
        run_until_idle();
        EXPECT_EQ(idle_rounds.load(), 1);
        EXPECT_EQ(event_state(row.event), event_state_idle);
    }
}

TEST_F(Events, WaitingEventsAreServedAfterTheLoadInArrivalOrder) {
    struct Row {
        const char* description;
        std::vector<int32_t> arrivals;
        std::vector<std::string> served;
    };
    const Row rows[] = {
        {"a tick, then the send list", {16, 17}, {"14:1a", "16", "17"}},
        {"the send list, then a tick", {17, 16}, {"14:1a", "17", "16"}},
        {"a live fix, a tick, the send list", {10, 16, 17}, {"14:1a", "10", "16", "17"}},
        {"a command's drawing pass stays behind a later tick", {4, 16}, {"14:1a", "16", "4"}},
        {"a tick, a command, the send list", {16, 4, 17}, {"14:1a", "16", "17", "4"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        set_event_handler(event_live_fix, noting_handler<event_live_fix>);
        set_event_handler(event_replay_tick, noting_handler<event_replay_tick>);
        set_event_handler(event_send_list, noting_handler<event_send_list>);
        set_event_handler(event_draw, gated_handler<event_draw>);
        start_blocked_load();
        post_all(row.arrivals);
        headless::serve_pending();
        EXPECT_TRUE(journal_copy().empty()) << "nothing is served while the load runs";
        gate.release(static_cast<int>(row.served.size()));
        run_until_idle();
        EXPECT_EQ(journal_copy(), row.served);
        EXPECT_EQ(idle_rounds.load(), 1);
    }
}

TEST_F(Events, SettlingNumbersTheWaitingOrder) {
    struct Step {
        const char* description;
        int32_t event;
        bool through_post_event; // else the message comes with no new post
        int32_t expected_state;
        int32_t expected_draw_state;
    };
    // Places start above 4; the drawing event 4 is always moved behind the
    // last place given, also when it is the one being settled.
    const Step steps[] = {
        {"a tick takes the first place", event_replay_tick, true, 5, 0},
        {"the send list the next", event_send_list, true, 6, 0},
        {"a command's drawing pass goes behind, one further", event_draw, true, 8, 8},
        {"a live fix after it, and the drawing pass behind that", event_live_fix, true, 9, 10},
        {"a waiting event arriving again without a post takes place 3", event_send_list, false, 3,
         11},
        {"a new post marks it on its way, so it goes to the back", event_replay_tick, true, 12, 13},
    };
    start_blocked_load();
    for (const Step& step : steps) {
        SCOPED_TRACE(step.description);
        if (step.through_post_event) {
            post_event(step.event);
        } else {
            ui_post(step.event, nullptr);
        }
        headless::serve_pending();
        EXPECT_EQ(event_state(step.event), step.expected_state);
        EXPECT_EQ(event_state(event_draw), step.expected_draw_state);
    }
}

TEST_F(Events, EqualPlacesServeTheHigherNumberFirst) {
    set_event_handler(event_replay_tick, noting_handler<event_replay_tick>);
    set_event_handler(event_send_list, noting_handler<event_send_list>);
    start_blocked_load();
    post_event(event_replay_tick);
    post_event(event_send_list);
    headless::serve_pending();
    // Both arrive once more without a new post: both take place 3.
    ui_post(event_replay_tick, nullptr);
    ui_post(event_send_list, nullptr);
    headless::serve_pending();
    EXPECT_EQ(event_state(event_replay_tick), 3);
    EXPECT_EQ(event_state(event_send_list), 3);
    gate.release();
    run_until_idle();
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1a", "17", "16"}));
}

TEST_F(Events, OneThreadedEventRunsAtATime) {
    const std::vector<int32_t> threaded = {event_load_file, 5, 6, 8};
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
        EXPECT_EQ(gate.entered(), run) << "another threaded event started while one runs";
        EXPECT_TRUE(std::find(threaded.begin(), threaded.end(), CurrentEvent.load()) !=
                    threaded.end())
            << "CurrentEvent " << CurrentEvent.load();
        gate.release();
    }
    run_until_idle();
    EXPECT_EQ(gate.max_running(), 1);
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1a", "5", "6", "14:1b", "8"}));
}

TEST_F(Events, LoadDataIsServedOldestFirst) {
    set_event_handler(event_load_file, noting_handler<event_load_file>);
    queue_load("/data/first.gpx", 1);
    queue_load("/data/second.gpx", 0);
    queue_load("/data/third.gpx", 7);
    run_until_idle();
    EXPECT_EQ(journal_copy(),
              (std::vector<std::string>{"14:1/data/first.gpx", "14:0/data/second.gpx",
                                        "14:0/data/third.gpx"}));
    EXPECT_EQ(event_queue_length(event_load_file), 0);
}

TEST_F(Events, LoadDataArrivingDuringALoadWaitsInItsQueue) {
    start_blocked_load();
    queue_load("b", 1);
    queue_load("c", 1);
    headless::serve_pending();
    EXPECT_EQ(event_queue_length(event_load_file), 2);
    EXPECT_STREQ(current_data(), "1a");
    gate.release(3);
    run_until_idle();
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1a", "14:1b", "14:1c"}));
}

TEST_F(Events, FilesQueuedTogetherLoadBeforeATickThatCameBetween) {
    // Serving one file while more wait behind it posts the load again; that
    // message, arriving during the load, puts it at the front of the line.
    set_event_handler(event_replay_tick, noting_handler<event_replay_tick>);
    start_blocked_load();
    queue_load("b", 1);
    queue_load("c", 1);
    post_event(event_replay_tick);
    headless::serve_pending();
    gate.release(3);
    run_until_idle();
    EXPECT_EQ(journal_copy(), (std::vector<std::string>{"14:1a", "14:1b", "14:1c", "16"}));
}

TEST_F(Events, DroppedFilesLoadLastFirst) {
    set_event_handler(event_load_file, noting_handler<event_load_file>);
    testing::TestHome files;
    const std::string first = files.file("first.gpx");
    const std::string second = files.file("second.gpx");
    testing::write_file(first, "x");
    testing::write_file(second, "y");
    std::filesystem::create_directory(files.file("folder"));
    const std::string folder = files.file("folder");
    const std::string missing = files.file("missing.gpx");
    const char* drop[] = {first.c_str(), folder.c_str(), second.c_str(), missing.c_str()};
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
    set_event_handler(event_replay_tick, noting_handler<event_replay_tick>);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        set_event_handler(event_replay_tick, noting_handler<event_replay_tick>);
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
    queue_load("c", 1);
    headless::serve_pending();
    ASSERT_EQ(event_queue_length(event_load_file), 2);
    cancel_event(event_load_file);
    EXPECT_EQ(event_queue_length(event_load_file), 0);
    EXPECT_EQ(event_state(event_load_file), event_state_idle);
    gate.release(3);
    run_until_idle();
    EXPECT_EQ(journal_copy(), std::vector<std::string>{"14:1a"});
}

TEST_F(Events, IgnoredStateDropsOneMessage) {
    set_event_handler(event_send_list, noting_handler<event_send_list>);
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
    EXPECT_EQ(CurrentEvent.load(), event_load_file);
    EXPECT_EQ(event_state(event_idle), event_state_posted) << "not put in the waiting line";
    gate.release();
    run_until_idle();
    EXPECT_EQ(idle_rounds.load(), 1);
}

TEST_F(Events, BusyCursorFollowsTheChoiceButLeavesForeignOnes) {
    refresh_cursor(cursor_busy);
    EXPECT_EQ(ui_cursor(), UiCursor::busy);
    EXPECT_EQ(event_state(event_cursor), event_state_posted);
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

TEST_F(Events, MachineHasItsOwnIdleAndDrawingWork) {
    // The machine's own idle work (the store's purge) and drawing pass run on
    // their threads and end like any other event.
    set_event_handler(event_idle, nullptr);
    post_event(event_send_list);
    post_event(event_draw);
    run_until_idle();
    EXPECT_EQ(CurrentEvent.load(), 0);
    EXPECT_TRUE(event_has_handler(event_idle));
    EXPECT_TRUE(event_has_handler(event_draw));
    EXPECT_FALSE(event_has_handler(event_load_file));
}

TEST(HeadlessWindow, PostsAreDroppedWithoutAWindow) {
    headless::reset();
    headless::destroy_main_window();
    char* data = nullptr;
    str_copy("dropped", data);
    ui_post(event_send_list, data); // freed by the backend; a leak shows under ASan
    EXPECT_EQ(headless::pending_count(), 0u);
    ASSERT_NE(ui_create_main_window("Norvanta", 0), 0);
    ui_post(event_send_list, nullptr);
    EXPECT_EQ(headless::pending_count(), 1u);
    headless::reset();
}

TEST(HeadlessWindow, BoxesGoToTheJournalWithTheirCaption) {
    headless::reset();
    ui_message_box("Fin", "Erreur", ui_icon_hand);
    ui_message_box_wide(L"Navigation temps r\u00e9el", L"Titre");
    std::vector<std::string> boxes = headless::boxes();
    ASSERT_EQ(boxes.size(), 2u);
    EXPECT_EQ(boxes[0], "Erreur: Fin");
    EXPECT_EQ(boxes[1].rfind("Titre: Navigation temps r", 0), 0u) << boxes[1];
    headless::reset();
}

TEST(HeadlessWindow, LoopReturnsTheQuitCodeAfterServingWhatCameFirst) {
    headless::reset();
    set_event_handler(event_send_list, noting_handler<event_send_list>);
    {
        std::lock_guard lock(journal_mutex);
        journal.clear();
    }
    post_event(event_send_list);
    ui_quit(7);
    // The quit request is seen before the queue; what was posted stays.
    EXPECT_EQ(ui_run_loop(), 7);
    run_until_idle();
    EXPECT_EQ(journal_copy(), std::vector<std::string>{"17"});
    set_event_handler(event_send_list, nullptr);
}

} // namespace
} // namespace norvanta
