// The Dashboard on the headless window: the number printer and reader, the
// fields of a shown point, the repaint from the current track, the locking
// of the controls, the file list, and the status output that follows it all
// in the program with no window.
#include "shell/dashboard.h"

#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "diffusion/clients.h"
#include "platform/headless/status_output.h"
#include "platform/headless/ui_headless.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

class DashboardEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        object_store_create();
        nav_point_register_type();
        socket_startup();
        create_main_window();
        build_main_menu();
        create_dashboard();
        ASSERT_TRUE(main_window_exists());
    }
};
[[maybe_unused]] const auto* const dashboard_environment =
    ::testing::AddGlobalTestEnvironment(new DashboardEnvironment);

std::string text_of(int32_t id) {
    std::optional<headless::Control> control = headless::control(id);
    return control ? control->text : "<no control " + std::to_string(id) + ">";
}

std::string field_text(DashboardField field) {
    return text_of(dashboard_field_id(field));
}

bool enabled(int32_t id) {
    std::optional<headless::Control> control = headless::control(id);
    return control && control->enabled;
}

int32_t slider_position() {
    return headless::control(dashboard_position_slider)->slider_position;
}

std::string formatted(double value) {
    char text[64];
    format_number(value, text, sizeof text);
    return text;
}

// A track with no points of its own, made current; its fields are the test's.
ReplayTrack& current_track(const char* name) {
    int32_t index = -1;
    replay_add_track(0, 0, index, name);
    EXPECT_GE(index, 0);
    return *replay_current();
}

// The shown values of a point, in the order of the record.
struct PointValues {
    double time;     // days
    double distance; // metres
    double latitude;
    double longitude;
    double altitude;
    double speed;
    double course;
    int32_t satellites;
};

NavPoint nav_point(const PointValues& v, const char* text) {
    NavPoint point{};
    point.time = v.time;
    point.distance = v.distance;
    point.latitude = v.latitude;
    point.longitude = v.longitude;
    point.altitude = v.altitude;
    point.speed = v.speed;
    point.course = v.course;
    point.satellites = v.satellites;
    point.text = const_cast<char*>(text);
    return point;
}

const std::vector<int32_t> replay_control_ids = {
    dashboard_forward_button,   dashboard_backward_button,
    dashboard_pause_button,     dashboard_stop_button,
    dashboard_loop_button,      dashboard_time_factor_entry,
    dashboard_speed_entry,      dashboard_time_factor_slider,
    dashboard_speed_slider,     dashboard_time_factor_validation,
    dashboard_speed_validation, dashboard_position_slider,
};

TEST(Dashboard, FormatNumberKeepsFifteenDigitsAndDropsTrailingZeros) {
    struct Row {
        const char* description;
        double value;
        const char* expected;
    };
    const Row rows[] = {
        {"decimal", 12.5, "12.5"},
        {"negative gets one more column", -3, "-3"},
        {"zero has no digits: no decimals, padded", 0, "               0"},
        {"a third: digits count as one below 1", 1.0 / 3, "0.33333333333333"},
        {"fifteen digits leave no decimals, padded", 123456789012345.0, " 123456789012345"},
        {"more than sixteen digits: no decimals, zeros kept", 1e20, "100000000000000000000"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(formatted(row.value), row.expected);
    }
    char small[4];
    format_number(12345.5, small, sizeof small);
    EXPECT_STREQ(small, "123") << "cut to the capacity";
}

TEST(Dashboard, ParseNumberReadsWhatAUserTypesUpToTheFirstOtherCharacter) {
    struct Row {
        const char* text;
        double expected;
    };
    const Row rows[] = {
        {"12,5", 12.5}, {"-3", -3},       {"+-2", -2},
        {"-+2", 0},     {"99999", 99999}, {"1,5e2", 150},
        {"1e", 1},      {"1E3", 1},       {"1.2.3", 1.2},
        {" 5", 0},      {"", 0},          {"12345678901234567890", 12345678901234567890.0}};
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string("\"") + row.text + "\"");
        EXPECT_DOUBLE_EQ(parse_number(row.text), row.expected);
    }
    EXPECT_EQ(parse_number("1e999"), HUGE_VAL) << "an exponent past any double";
}

// The point's fields in the order of the panel, joined by '|'.
std::string point_fields_text() {
    std::string out;
    for (DashboardField field :
         {DashboardField::longitude, DashboardField::latitude, DashboardField::altitude,
          DashboardField::speed, DashboardField::direction, DashboardField::satellites,
          DashboardField::distance, DashboardField::duration})
        out += field_text(field) + "|";
    out.pop_back();
    return out;
}

TEST(Dashboard, ShowPointPrintsEveryFieldInItsOwnFormat) {
    struct Row {
        const char* description;
        PointValues point;
        double total_distance;
        int32_t slider;
        const char* fields; // longitude|latitude|altitude|speed|direction|satellites|km|duration
    };
    const Row rows[] = {
        {"west and north, a day and a half",
         {1.5, 500, 45.25, -1.5, 123.4, 5, 7.5, 8},
         1000,
         500,
         " W 001.500000| N  45.250000|   123.4|   5.00| 007.50|8|   0.50|36:00:00"},
        {"east and south; the slider and the seconds truncate",
         {2 + 59.9 / 86400, 999.9, -0.5, 179.25, -12.25, 123.456, 359.99, 12},
         1000,
         999,
         " E 179.250000| S  00.500000|   -12.2| 123.46| 359.99|12|   1.00|48:00:59"},
        {"live: no length, the slider at its low end",
         {0, 1234567, 0, 0, 0, 0, 0, 0},
         0,
         0,
         " E 000.000000| N  00.000000|     0.0|   0.00| 000.00|0|1234.57|0:00:00"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        ui_set_slider_position(dashboard_position_slider, 321);
        show_point(nav_point(row.point, "$GPRMC,x*00\r\n"), row.total_distance);
        EXPECT_EQ(slider_position(), row.slider);
        EXPECT_EQ(field_text(DashboardField::sentences), "$GPRMC,x*00\r\n");
        EXPECT_EQ(point_fields_text(), row.fields);
    }
    show_sentence("$GPGSV,1*00\r\n");
    EXPECT_EQ(field_text(DashboardField::sentences), "$GPGSV,1*00\r\n");
    EXPECT_EQ(point_fields_text(),
              " E 000.000000| N  00.000000|     0.0|   0.00| 000.00|0|1234.57|0:00:00")
        << "only the sentence box";
}

TEST(Dashboard, RefreshShowsTheCurrentTracksModeSettingsTitleAndLoop) {
    struct Row {
        int32_t mode;
        double time_factor;
        double speed;
        int32_t loop;
        const char* mode_french;
        const char* mode_english;
        const char* factor;
        bool replay_controls;
    };
    const Row rows[] = {
        {REPLAY_TIME, 2.5, 50, 1, "Rejeu temps", "Replay time", "2.5", true},
        {REPLAY_SPEED, 2.5, 120, 0, "Rejeu vitesse", "Replay speed", "120", true},
        {REPLAY_LIVE, 1, 50, 0, "Navigation", "Navigation", "", false},
        {REPLAY_TIME, 0, -5, 0, "Rejeu temps", "Replay time", "", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.mode_english + std::string(" factor ") + std::to_string(row.time_factor));
        ReplayTrack& track = current_track("trip.gpx");
        track.mode = row.mode;
        track.time_factor = row.time_factor;
        track.speed = row.speed;
        track.loop = row.loop;
        enable_replay_controls(!row.replay_controls);
        refresh_dashboard();
        EXPECT_EQ(field_text(DashboardField::mode), localized(row.mode_french, row.mode_english));
        EXPECT_EQ(field_text(DashboardField::factor), row.factor);
        EXPECT_EQ(field_text(DashboardField::time_factor_value),
                  row.time_factor > 0 ? formatted(row.time_factor) : "");
        EXPECT_EQ(field_text(DashboardField::speed_value),
                  row.speed > 0 ? formatted(row.speed) : "");
        for (int32_t id : replay_control_ids)
            EXPECT_EQ(enabled(id), row.replay_controls) << "control " << id;
        EXPECT_EQ(headless::control(dashboard_loop_button)->checked, row.loop != 0);
        EXPECT_EQ(headless::title(), "Norvanta   trip.gpx   ");
    }
}

TEST(Dashboard, RefreshShowsTheCurrentPointOrEmptiesThePointFields) {
    ReplayTrack& track = current_track("walk");
    track.total_distance = 2000;
    NavPoint* point = cre_obj<NavPoint>(&track.current_point);
    point->time = 0.5;
    point->distance = 500;
    point->longitude = -1.5;
    refresh_dashboard();
    EXPECT_EQ(slider_position(), 250);
    EXPECT_EQ(point_fields_text(),
              " W 001.500000| N  00.000000|     0.0|   0.00| 000.00|0|   0.50|12:00:00");

    track.current_point = 0;
    refresh_dashboard();
    EXPECT_EQ(slider_position(), 0);
    EXPECT_EQ(point_fields_text(), "|||||||");
    EXPECT_EQ(field_text(DashboardField::sentences), "");
    EXPECT_NE(field_text(DashboardField::mode), "") << "the track's own fields stay";
}

TEST(Dashboard, WithoutATrackTheSettingsAndTitleClearButNoControlChangesState) {
    current_track("gone");
    refresh_dashboard();
    replay_select(-1);
    ASSERT_EQ(replay_current(), nullptr);
    for (DashboardField field :
         {DashboardField::mode, DashboardField::factor, DashboardField::time_factor_value,
          DashboardField::speed_value, DashboardField::duration})
        EXPECT_EQ(field_text(field), "") << "field " << static_cast<int>(field);
    EXPECT_EQ(headless::title(), "Norvanta      ");
    for (int32_t id : replay_control_ids)
        EXPECT_TRUE(enabled(id)) << "control " << id << " kept the state of the last track";
}

TEST(Dashboard, MadeWithEveryControlAndTheReplayControlsDisabled) {
    // A second Dashboard on a fresh window: the one of the environment has
    // been used by other tests.
    headless::destroy_main_window();
    create_main_window();
    create_dashboard();
    const std::vector<headless::Control> controls = headless::controls();
    EXPECT_EQ(controls.size(), 42u);
    for (int32_t id : replay_control_ids)
        EXPECT_FALSE(enabled(id)) << "control " << id << " before any track";
    EXPECT_TRUE(enabled(dashboard_file_combo));
    ASSERT_FALSE(controls.empty());
    EXPECT_EQ(controls.front().text, localized("Fichier", "File")) << "in the language in use";
}

TEST(Dashboard, NavigationLocksAllButItsOwnCommandAndUnlockSelectsTheListsTrack) {
    int32_t first = -1;
    int32_t second = -1;
    replay_add_track(0, 0, first, "first");
    add_file_row("/data/first.gpx", first);
    replay_add_track(0, 0, second, "second");
    add_file_row("/data/second.gpx", second);
    const auto rows = static_cast<int32_t>(headless::control(dashboard_file_combo)->rows.size());
    ui_combo_select(dashboard_file_combo, rows - 2);
    ui_menu_check(menu_navigation, true);
    set_title("COM4");

    navigation_lock();
    EXPECT_FALSE(headless::menu_enabled(menu_open));
    EXPECT_TRUE(headless::menu_enabled(menu_navigation)) << "to stop navigation with it";
    EXPECT_FALSE(enabled(dashboard_position_slider));
    EXPECT_FALSE(enabled(dashboard_file_combo));
    EXPECT_FALSE(headless::drops_accepted());

    navigation_unlock();
    EXPECT_TRUE(headless::menu_enabled(menu_open));
    EXPECT_TRUE(headless::menu_enabled(menu_navigation));
    EXPECT_FALSE(ui_menu_checked(menu_navigation));
    EXPECT_TRUE(enabled(dashboard_position_slider));
    EXPECT_TRUE(enabled(dashboard_file_combo));
    EXPECT_TRUE(headless::drops_accepted());
    EXPECT_EQ(replay_current(), replay_track(first));
    EXPECT_EQ(headless::title(), "Norvanta      ") << "the selected track lost its name";

    ui_combo_select(dashboard_file_combo, -1);
    navigation_unlock();
    EXPECT_EQ(replay_current(), nullptr) << "no row selected: no track";

    lock_controls(true);
    EXPECT_FALSE(headless::menu_enabled(menu_navigation)) << "a run locks navigation as well";
    EXPECT_FALSE(headless::drops_accepted());
    lock_controls(false);
    EXPECT_TRUE(headless::menu_enabled(menu_navigation));
}

// Every use of the list also sends a STOP mark, to a client of the test's own.
TEST(Dashboard, FileRowsTakeTheTrackIndexAsRowAndTheListSelectsByItemData) {
    testing::UdpListener client;
    add_client("127.0.0.1", client.port(), nullptr, nullptr);
    refresh_snapshot();
    replay_init();
    int32_t live = -1;
    replay_add_track(0, 0, live, "");
    const int32_t row = static_cast<int32_t>(headless::control(dashboard_file_combo)->rows.size());
    int32_t index = -1;
    replay_add_track(0, 0, index, "named");
    client.drain();
    // A track without a row (the LiveTrack) puts the index past the last
    // row: nothing is selected, as a user sees after a load once navigation
    // has run.
    ASSERT_GT(index, row);
    add_file_row("/data/named.gpx", index);
    EXPECT_EQ(ui_combo_selected(dashboard_file_combo), -1);
    EXPECT_EQ(ui_combo_item_data(dashboard_file_combo, row), index);
    EXPECT_EQ(client.drain(), std::vector<std::string>{diffuse_stop_mark}) << "row added";

    ui_combo_select(dashboard_file_combo, row);
    dashboard_command(dashboard_file_combo, 7);
    EXPECT_EQ(replay_current(), replay_track(index)) << "only a change of selection selects";
    EXPECT_EQ(client.drain(), std::vector<std::string>{diffuse_stop_mark}) << "list opened";
    replay_select(live);
    client.drain();
    dashboard_command(dashboard_file_combo, combo_selection_changed);
    EXPECT_EQ(replay_current(), replay_track(index));
    EXPECT_EQ(replay_current()->name, nullptr) << "chosen from the list, a track loses its name";
    EXPECT_EQ(client.drain(), std::vector<std::string>(2, diffuse_stop_mark)) << "selection";
    forget_client_lists();
    set_current_track_test(nullptr);
}

TEST(Dashboard, TypedAndDraggedValuesShowRedUntilValidated) {
    struct Row {
        const char* typed;
        const char* shown;
    };
    // 0.29 x 100 is 28.999... before the truncation.
    const Row rows[] = {{"12,5", "12.5"},  {"-3", "3"},      {"99999", "9999"},
                        {"1.239", "1.23"}, {"0.29", "0.28"}, {"abc", "               0"}};
    const int32_t value_id = dashboard_field_id(DashboardField::time_factor_value);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.typed);
        ui_set_value_look(value_id, UiValueLook::settled);
        ui_set_control_text(dashboard_time_factor_entry, row.typed);
        dashboard_command(dashboard_time_factor_entry, entry_text_changed);
        EXPECT_EQ(text_of(value_id), row.shown);
        EXPECT_EQ(headless::control(value_id)->look, UiValueLook::edited);
    }

    const int32_t speed_id = dashboard_field_id(DashboardField::speed_value);
    ui_set_control_text(speed_id, "50");
    ui_set_value_look(speed_id, UiValueLook::settled);
    dashboard_slider_moved(dashboard_speed_slider, 0, 700);
    EXPECT_EQ(text_of(speed_id), "50") << "a click in the channel is no drag";
    EXPECT_EQ(headless::control(speed_id)->look, UiValueLook::settled);
    ui_set_control_text(dashboard_speed_entry, "80");
    dashboard_slider_moved(dashboard_speed_slider, slider_thumb_tracking, 700);
    EXPECT_EQ(text_of(speed_id), "700");
    EXPECT_EQ(headless::control(speed_id)->look, UiValueLook::edited);
    EXPECT_EQ(text_of(dashboard_speed_entry), "80") << "the entry does not follow the slider";
}

// The load thread and the worker repaint while the UI thread shows points.
TEST(Dashboard, RepaintsFromAnotherThreadWhileTheUiThreadShowsPoints) {
    constexpr int rounds = 200;
    current_track("busy");
    std::thread loader([] {
        for (int i = 0; i < rounds; ++i) {
            refresh_dashboard();
            set_title(i % 2 ? "odd" : "even");
        }
    });
    for (int i = 0; i < rounds; ++i) {
        show_point(nav_point({0, 0, 0, 1, 0, 0, 0, i}, "$X\r\n"), 1);
        dashboard_text(DashboardField::satellites);
        set_title("ui");
    }
    loader.join();
    const std::string title = headless::title();
    EXPECT_TRUE(title == "Norvanta   odd   " || title == "Norvanta   ui   ") << title;
}

TEST(Dashboard, TitleJoinsItsPartsAndAnEventEndRestoresIt) {
    set_title("trip");
    EXPECT_EQ(headless::title(), "Norvanta   trip   ");
    ui_set_title("Loading /data/trip.gpx");
    dispatch_event(event_end, nullptr);
    EXPECT_EQ(headless::title(), "Norvanta   trip   ");
    set_title(nullptr);
    EXPECT_EQ(headless::title(), "Norvanta      ");
}

// ---- the status output ----

class StatusOutput : public ::testing::Test {
  protected:
    void SetUp() override {
        file_ = std::tmpfile();
        ASSERT_NE(file_, nullptr);
        set_status_stream(file_);
        current_track("status");
    }
    void TearDown() override {
        set_status_style(StatusStyle::none);
        set_status_stream(nullptr);
        std::fclose(file_);
    }
    std::string printed() {
        std::fflush(file_);
        std::rewind(file_);
        std::string out;
        for (int c; (c = std::fgetc(file_)) != EOF;)
            out += static_cast<char>(c);
        return out;
    }
    static NavPoint sample_point() {
        return nav_point({1.5, 12345.6, 45.25, -1.5, 123.4, 5, 7.5, 8}, "$GPRMC*00\r\n");
    }
    std::FILE* file_ = nullptr;
};

TEST_F(StatusOutput, TsvPrintsOneTrimmedLinePerShownPointAndNothingPerSentence) {
    refresh_dashboard();
    set_status_style(StatusStyle::tsv);
    show_point(sample_point(), 20000);
    show_sentence("$GPGSV*00\r\n");
    show_point(sample_point(), 20000);
    const std::string line =
        std::string(localized("Rejeu temps", "Replay time")) +
        "\t12.35\t36:00:00\tW 001.500000\tN  45.250000\t123.4\t5.00\t007.50\t8\n";
    EXPECT_EQ(printed(), line + line);
}

TEST_F(StatusOutput, LineRewritesItselfInPlaceAndNotesABatchWithoutFix) {
    set_status_style(StatusStyle::line);
    show_sentence("$GPGSV*00\r\n");
    replay_current()->mode = REPLAY_LIVE;
    refresh_dashboard();
    show_point(sample_point(), 0);
    show_sentence("$GPGSV*00\r\n");
    status_output_end_line();
    status_output_end_line();
    const std::string fields = "Navigation | 12.35 km | 36:00:00 | W 001.500000  N  45.250000 | "
                               "123.4 m | 5.00 km/h | 007.50 deg | 8 sats";
    EXPECT_EQ(printed(),
              "\r(no fix)\x1b[K\r" + fields + "\x1b[K\r" + fields + "  (no fix)\x1b[K\n");
}

TEST_F(StatusOutput, NoneIsSilentAndOnlyTheThreeNamesAreStyles) {
    set_status_style(StatusStyle::none);
    show_point(sample_point(), 1);
    status_output_end_line();
    EXPECT_EQ(printed(), "");

    StatusStyle style = StatusStyle::none;
    EXPECT_TRUE(parse_status_style("tsv", style));
    EXPECT_EQ(style, StatusStyle::tsv);
    EXPECT_TRUE(parse_status_style("line", style));
    EXPECT_EQ(style, StatusStyle::line);
    EXPECT_FALSE(parse_status_style("TSV", style));
    EXPECT_FALSE(parse_status_style(nullptr, style));
    EXPECT_EQ(style, StatusStyle::line) << "a refused name leaves the style as it was";
}

} // namespace
} // namespace norvanta
