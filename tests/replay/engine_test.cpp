// The replay clock on hand-made tracks, with a clock of the test's own: what
// each tick, command and button sends to a real client on loopback, where
// the track rests afterwards, and what the Dashboard's replay controls do.
#include "replay/engine.h"

#include <atomic>
#include <ctime>
#include <iterator>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "diffusion/clients.h"
#include "platform/headless/ui_headless.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "support/program_environment.h"
#include "support/serve_events.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

[[maybe_unused]] const auto* const engine_environment =
    ::testing::AddGlobalTestEnvironment(new testing::ReplayEnvironment([] {
        object_store_create();
        nav_point_register_type();
    }));

testing::UdpListener& client() {
    return testing::ReplayEnvironment::client();
}

// ---- the clock and the tracks ----

constexpr std::time_t clock_start = 1710072000; // 2024-03-10 12:00:00 UTC
std::time_t fake_seconds = clock_start;

void fake_now(JulianTime& out) {
    julian_from_time(out, fake_seconds);
}

struct PointRow {
    double seconds;
    double metres;
};

// Off whole seconds and off 10 m, so that no target of the clock lands on a
// point, where the last bits of the arithmetic would decide.
constexpr PointRow walk[] = {{0, 0}, {1.3, 13}, {2.6, 26}, {3.8, 38}};

// A track of points named P0, P1... by their text, made current.
ReplayTrack& make_track(std::span<const PointRow> points) {
    ObjectId set = 0;
    ds_create(set);
    for (std::size_t i = 0; i < points.size(); ++i) {
        ObjectId id = 0;
        NavPoint* point = cre_obj<NavPoint>(&id);
        point->time = points[i].seconds * one_second_days;
        point->distance = points[i].metres;
        const std::string text = "P" + std::to_string(i) + "\r\n";
        str_copy(text.c_str(), point->text);
        point->text_length = static_cast<int32_t>(text.size());
        ds_add(set, ObjectType::NavPoint, id);
    }
    int32_t index = -1;
    // Any file id tells a file's track from the LiveTrack; the set stands in.
    replay_add_track(set, set, index, "walk");
    EXPECT_GE(index, 0);
    return *replay_current();
}

// What the client received, oldest first: START and STOP for the marks alone,
// a point by its name, "STOP+P2" for a mark and a point in one datagram.
std::string received() {
    std::string out;
    for (std::string datagram : client().drain()) {
        if (datagram == diffuse_start_mark) datagram = "START";
        if (datagram.rfind(diffuse_stop_mark, 0) == 0)
            datagram.replace(0, sizeof diffuse_stop_mark - 1,
                             datagram.size() == sizeof diffuse_stop_mark - 1 ? "STOP" : "STOP+");
        if (datagram.ends_with("\r\n")) datagram.resize(datagram.size() - 2);
        out += (out.empty() ? "" : " ") + datagram;
    }
    return out;
}

bool clock_runs(const ReplayTrack& track) {
    return track.clock_origin.date != 0.0 || track.clock_origin.day != 0.0;
}

std::string text_of(int32_t id) {
    std::optional<headless::Control> control = headless::control(id);
    return control ? control->text : "<no control " + std::to_string(id) + ">";
}

bool checked(int32_t id) {
    return ui_control_checked(id);
}

// A click as the window system makes it: a radio button goes in and its
// partner out, a check box flips, and then the command comes.
constexpr int32_t button_clicked = 0;
void press(int32_t id) {
    if (id == dashboard_forward_button || id == dashboard_backward_button) {
        ui_check_control(dashboard_forward_button, id == dashboard_forward_button);
        ui_check_control(dashboard_backward_button, id == dashboard_backward_button);
    }
    if (id == dashboard_loop_button) ui_check_control(id, !checked(id));
    dashboard_command(id, button_clicked);
}

// Whether a run holds the controls: the open command, the file list, the
// position slider and drops.
bool controls_locked() {
    return !headless::menu_enabled(menu_open) &&
           !headless::control(dashboard_file_combo)->enabled &&
           !headless::control(dashboard_position_slider)->enabled && !headless::drops_accepted();
}

void stop_and_open_controls() {
    replay_stop();
    lock_controls(false);
    release_direction_buttons();
    ui_check_control(dashboard_loop_button, false);
}

class Replay : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::serve_until_idle();
        headless::reset();
        DiffuseOn.store(1);
        fake_seconds = clock_start;
        set_replay_clock(fake_now);
        stop_and_open_controls();
        track_ = &make_track(walk);
        client().drain();
    }
    void TearDown() override {
        stop_and_open_controls();
        set_replay_clock(nullptr);
        testing::serve_until_idle();
    }
    ReplayTrack* track_ = nullptr;
};

// ---- runs and commands ----

// The buttons go through the Dashboard as a click; the rest straight to the
// engine.
enum class Act : int32_t {
    tick,
    factor,
    speed,
    seek,
    diffusion_off,
    forward = dashboard_forward_button,
    backward = dashboard_backward_button,
    pause = dashboard_pause_button,
    stop = dashboard_stop_button,
    loop = dashboard_loop_button,
};

struct Step {
    Act act;
    int second; // after the start of the test's clock
    double value = 0;
};

void run(const Step& step) {
    fake_seconds = clock_start + step.second;
    if (step.act == Act::tick) return replay_tick();
    if (step.act == Act::factor) return replay_set_time_factor(step.value);
    if (step.act == Act::speed) return replay_set_speed(step.value);
    if (step.act == Act::seek) return replay_seek(step.value);
    if (step.act == Act::diffusion_off) return DiffuseOn.store(0);
    press(static_cast<int32_t>(step.act));
}

constexpr double running = -1; // a row whose run goes on at its end

// Walk: P0 at 0 s and 0 m, P1 at 1.3 s and 13 m, P2 at 2.6 s and 26 m, P3 at
// 3.8 s and 38 m. A tick at second n samples the clock at whole second n.
TEST_F(Replay, EachStepSendsWhatTheClockReachesAndTheTrackRestsWhereItStopped) {
    using enum Act;
    struct Row {
        const char* description;
        std::vector<Step> steps;
        const char* sent;
        double rests_at_seconds; // position_time once the clock stands, or `running`
    };
    const Row rows[] = {
        {"forward: the first target, 0, is strictly past P0; P3 goes out through the final "
         "second and the next second ends the run",
         {{forward, 0},
          {tick, 0},
          {tick, 0},
          {tick, 1},
          {tick, 2},
          {tick, 3},
          {tick, 4},
          {tick, 4},
          {tick, 5}},
         "START P1 P1 P1 P2 P3 P3 P3 STOP",
         3.8},
        {"back from the start: P0 by the one-second rule, then the end",
         {{backward, 0}, {tick, 0}, {tick, 0}, {tick, 1}},
         "START P0 P0 STOP",
         0},
        {"back with loop from the start: over at the last point, and over again",
         {{loop, 0}, {backward, 0}, {tick, 0}, {tick, 1}, {tick, 2}, {tick, 3}, {tick, 4}},
         "START STOP START P3 P2 P1 P0 STOP START P3",
         running},
        {"factor 9999: the point after the position, then the end by the one-second rule, "
         "then nothing",
         {{factor, 0, 9999}, {forward, 0}, {tick, 0}, {tick, 1}, {tick, 1}, {tick, 2}},
         "START P1 P3 P3 STOP",
         3.8},
        {"speed 36 km/h with loop: starts over at the first point",
         {{speed, 0, 36},
          {loop, 0},
          {forward, 0},
          {tick, 0},
          {tick, 1},
          {tick, 2},
          {tick, 3},
          {tick, 4},
          {tick, 5}},
         "START P1 P1 P2 P3 STOP START P0 P1",
         running},
        {"speed 72 km/h: the end of the distance index, not the point found a second back",
         {{speed, 0, 72}, {forward, 0}, {tick, 0}, {tick, 1}, {tick, 2}, {tick, 3}},
         "START P1 P2 P3 STOP",
         3.8},
        {"the running direction's button again changes nothing",
         {{forward, 0}, {tick, 0}, {forward, 1}, {tick, 1}},
         "START P1 P1",
         running},
        {"the other direction on the run: a pause, then back from where the clock stood",
         {{forward, 0}, {tick, 0}, {tick, 2}, {backward, 2}, {tick, 2}, {tick, 3}, {tick, 4}},
         "START P1 P2 STOP STOP START P1 P1 P0",
         running},
        {"a factor changed on the run: pause and play around it, the position kept",
         {{forward, 0}, {tick, 0}, {factor, 1, 2}, {tick, 1}, {tick, 2}},
         "START P1 STOP STOP START P2 P3",
         running},
        {"a factor changed in pause sends nothing",
         {{forward, 0}, {tick, 0}, {pause, 1}, {factor, 1, 2}},
         "START P1 STOP STOP",
         1.3},
        {"a pause once the end has been passed goes back to the start",
         {{factor, 0, 9999}, {forward, 0}, {tick, 0}, {pause, 2}},
         "START P1 STOP STOP",
         0},
        {"stop goes back to the start",
         {{forward, 0}, {tick, 0}, {tick, 2}, {stop, 2}},
         "START P1 P2 STOP STOP",
         0},
        {"seek on the run is refused",
         {{forward, 0}, {tick, 0}, {seek, 1, 0.5}, {tick, 1}},
         "START P1 P1",
         running},
        {"seek on a standing track: one send, and play goes on from the point found",
         {{seek, 0, 0.5}, {forward, 1}, {tick, 1}},
         "STOP+P2 START P3",
         running},
        {"a pause on a standing track steps back one point: the backward search is strict",
         {{seek, 0, 0.5}, {pause, 0}},
         "STOP+P2 STOP STOP",
         1.3},
        {"diffusion off: the run goes on as usual and nothing leaves, not even a mark",
         {{diffusion_off, 0}, {forward, 0}, {tick, 0}, {tick, 4}, {tick, 5}},
         "",
         3.8},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        ReplayTrack& track = make_track(walk);
        DiffuseOn.store(1);
        client().drain();
        for (const Step& step : row.steps)
            run(step);
        EXPECT_EQ(received(), row.sent);

        const bool runs = row.rests_at_seconds == running;
        EXPECT_EQ(clock_runs(track), runs);
        EXPECT_EQ(track.running_direction != 0.0, runs);
        EXPECT_EQ(controls_locked(), runs);
        EXPECT_EQ(checked(dashboard_forward_button) || checked(dashboard_backward_button), runs)
            << "the direction buttons";
        if (!runs) {
            EXPECT_NEAR(track.position_time / one_second_days, row.rests_at_seconds, 1e-9);
        }
        const NavPoint* shown = find_obj_adr<NavPoint>(track.current_point);
        EXPECT_EQ(text_of(dashboard_field_id(DashboardField::sentences)), shown ? shown->text : "")
            << "the Dashboard shows the current point";
        stop_and_open_controls();
    }
}

// A user pressing anything in any order, the clock ticking between: the
// controls are held exactly while the clock runs, and the position never
// leaves the track.
TEST_F(Replay, ButtonsInAnyOrderKeepTheControlsHeldExactlyWhileTheClockRuns) {
    using enum Act;
    constexpr Act acts[] = {forward, backward, pause, stop, loop, tick, tick, factor, speed, seek};
    constexpr double track_end_days = 3.8 * one_second_days;
    std::mt19937 random(20261122);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (int i = 0; i < 3000; ++i) {
        const Act act = acts[random() % std::size(acts)];
        const double value = act == factor  ? 0.5 + 50 * unit(random)
                             : act == speed ? 1 + 200 * unit(random)
                                            : unit(random);
        run({act, i / 4, value});
        ASSERT_EQ(controls_locked(), track_->running_direction != 0.0)
            << "step " << i << ", act " << static_cast<int>(act);
        ASSERT_GE(track_->position_time, 0.0) << "step " << i;
        ASSERT_LE(track_->position_time, track_end_days) << "step " << i;
    }
}

TEST_F(Replay, SeekTakesTheFirstPointNotBelowTheFractionOfTheDistance) {
    constexpr PointRow round_metres[] = {{0, 0}, {1, 10}, {2, 20}, {4, 40}};
    struct Row {
        const char* description;
        double fraction;
        const char* sent;
        double rests_at_metres;
    };
    const Row rows[] = {
        {"the start", 0, "STOP+P0", 0},
        {"on a point: not below counts it", 0.25, "STOP+P1", 10},
        {"between two points: the one beyond", 0.3, "STOP+P2", 20},
        {"the end", 1, "STOP+P3", 40},
        {"past the end: the last point", 1.5, "STOP+P3", 40},
    };
    ReplayTrack& track = make_track(round_metres);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        client().drain();
        replay_seek(row.fraction);
        EXPECT_EQ(received(), row.sent);
        EXPECT_EQ(track.position_distance, row.rests_at_metres);
        EXPECT_EQ(track.position_time, row.rests_at_metres * 0.1 * one_second_days);
        EXPECT_FALSE(clock_runs(track)) << "seeking does not start the clock";
    }
    dashboard_slider_moved(dashboard_position_slider, slider_thumb_tracking, 300);
    EXPECT_EQ(received(), "STOP+P2") << "the position slider's thumb: 0.3 of the distance";
    EXPECT_EQ(headless::control(dashboard_position_slider)->slider_position, 500)
        << "the point found is shown";
}

// The clock is left at its start: every tick finds P1.
TEST_F(Replay, TicksComeThroughTheEventMachineAndOneOnItsWayAfterAPauseDies) {
    static std::atomic<int> points_shown{0};
    points_shown = 0;
    set_dashboard_listener([](bool point_shown) {
        if (point_shown) ++points_shown;
    });
    press(dashboard_forward_button);
    EXPECT_EQ(event_state(event_replay_tick), event_state_posted) << "the first tick at once";
    ASSERT_TRUE(testing::serve_until([] { return points_shown == 1; }));
    EXPECT_EQ(event_state(event_replay_tick), event_state_delayed) << "each tick arms the next";
    ASSERT_TRUE(testing::serve_until([] { return points_shown == 2; }));

    press(dashboard_pause_button);
    EXPECT_EQ(event_state(event_replay_tick), event_state_idle);
    testing::serve_until_idle();
    EXPECT_EQ(event_state(event_replay_tick), event_state_idle) << "no tick armed after it";
    EXPECT_EQ(received(), "START P1 P1 STOP STOP");
    EXPECT_EQ(points_shown, 2);
    set_dashboard_listener(nullptr);
}

// ---- the Dashboard's settings ----

TEST_F(Replay, ValidatedSettingsAndTheLoopButtonReachTheTrack) {
    const int32_t time_value = dashboard_field_id(DashboardField::time_factor_value);
    const int32_t speed_value = dashboard_field_id(DashboardField::speed_value);
    struct Row {
        const char* description;
        int32_t entry;
        const char* typed;
        bool by_return_key;
        double expected;
        const char* shown;
    };
    const Row rows[] = {
        {"a comma is a decimal mark", dashboard_time_factor_entry, "12,5", false, 12.5, "12.5"},
        {"the sign goes", dashboard_time_factor_entry, "-3", true, 3, "3"},
        {"up to the limit", dashboard_time_factor_entry, "99999", false, 9999, "9999"},
        {"a speed selects its mode", dashboard_speed_entry, "80", true, 80, "80"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const bool time = row.entry == dashboard_time_factor_entry;
        const int32_t value_id = time ? time_value : speed_value;
        ui_set_control_text(row.entry, row.typed);
        dashboard_command(row.entry, entry_text_changed);
        EXPECT_EQ(text_of(value_id), row.shown);
        EXPECT_EQ(headless::control(value_id)->look, UiValueLook::edited) << "red while typed";
        EXPECT_NE(time ? track_->time_factor : track_->speed, row.expected)
            << "nothing reaches the track before validation";

        if (row.by_return_key) {
            dashboard_key_down(row.entry, key_return);
        } else {
            press(time ? dashboard_time_factor_validation : dashboard_speed_validation);
        }
        EXPECT_EQ(time ? track_->time_factor : track_->speed, row.expected);
        EXPECT_EQ(track_->mode, time ? REPLAY_TIME : REPLAY_SPEED);
        EXPECT_EQ(text_of(value_id), row.shown);
        EXPECT_EQ(headless::control(value_id)->look, UiValueLook::settled) << "black once valid";
        EXPECT_EQ(text_of(dashboard_field_id(DashboardField::factor)), row.shown);
        EXPECT_EQ(text_of(dashboard_field_id(DashboardField::mode)),
                  time ? localized("Rejeu temps", "Replay time")
                       : localized("Rejeu vitesse", "Replay speed"));
    }

    ui_set_control_text(dashboard_time_factor_entry, "12");
    dashboard_command(dashboard_time_factor_entry, entry_text_changed);
    dashboard_slider_moved(dashboard_time_factor_slider, slider_thumb_tracking, 40);
    EXPECT_EQ(track_->time_factor, 9999) << "nothing reaches the track before validation";
    dashboard_key_down(dashboard_time_factor_entry, 'a');
    EXPECT_EQ(track_->time_factor, 9999) << "only Return validates";
    dashboard_key_down(dashboard_time_factor_entry, key_return);
    EXPECT_EQ(track_->time_factor, 40) << "validation follows the slider dragged last";

    press(dashboard_loop_button);
    EXPECT_EQ(track_->loop, 1) << "the loop button's check";
    press(dashboard_loop_button);
    EXPECT_EQ(track_->loop, 0) << "the loop button's check";
}

} // namespace
} // namespace norvanta
