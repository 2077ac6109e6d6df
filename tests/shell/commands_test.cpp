// The main window's commands through the headless window: the check marks
// that are settings, the navigation item and its dialog, the About box in
// both languages, the open dialog, the Dashboard's ids, and event 4 after
// each command.
#include "shell/commands.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "diffusion/clients.h"
#include "navigation/worker.h"
#include "platform/headless/ui_dialog_headless.h"
#include "platform/headless/ui_headless.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/errors.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/navigation_dialog.h"
#include "shell/window.h"
#include "support/fresh_process.h"
#include "support/program_environment.h"
#include "support/serve_events.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// The program runs in French; a fresh copy of it, started by the About test,
// in English, since the language is settled once per process.
bool in_fresh_copy() {
    const char* marker = std::getenv("NORVANTA_FRESH_PROCESS");
    return marker && std::string(marker) == "1";
}

[[maybe_unused]] const auto* const commands_environment = ::testing::AddGlobalTestEnvironment(
    new testing::ProgramEnvironment(in_fresh_copy() ? "LANG ENGLISH\n" : "LANG FRANCAIS\n", true));

class Commands : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::serve_until_idle();
        headless::reset();
        headless::reset_dialogs();
    }
    void TearDown() override {
        headless::reset_dialogs();
        testing::serve_until_idle();
    }
    static int posted(int32_t event) {
        int count = 0;
        for (const headless::Message& message : headless::pending_messages())
            count += message.event == event;
        return count;
    }
};

// Each item's mark flips, the new state reaches its module, and event 4
// follows; twice, so that a handler that only ever sets is caught.
TEST_F(Commands, CheckMarksAreTheSettingsTheyPassOn) {
    struct Row {
        const char* description;
        int32_t id;
        bool (*setting)();
    };
    const Row rows[] = {
        {"navigation log", menu_navigation_log, is_nmea_log_enabled},
        {"raw phase log", menu_raw_phase_log, is_raw_log_enabled},
        {"diffusion", menu_diffusion, [] { return DiffuseOn.load() != 0; }},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        for (int round = 0; round < 2; ++round) {
            const bool before = ui_menu_checked(row.id);
            headless::reset();
            command(row.id, 0);
            EXPECT_EQ(ui_menu_checked(row.id), !before);
            EXPECT_EQ(row.setting(), !before);
            EXPECT_EQ(posted(event_draw), 1);
            EXPECT_EQ(CommandInProgress.load(), 0);
        }
    }
    // The raw log's item is gray: a hand never gets there.
    headless::choose_menu_item(menu_raw_phase_log);
    EXPECT_FALSE(ui_menu_checked(menu_raw_phase_log));
    // An id of no command only posts event 4.
    headless::reset();
    command(12345, 0);
    EXPECT_EQ(headless::pending_messages().size(), 1u);
    EXPECT_EQ(posted(event_draw), 1);
}

TEST_F(Commands, NavigationItemOpensTheDialogAndCancelTakesTheMarkBack) {
    headless::choose_menu_item(menu_navigation);
    EXPECT_TRUE(ui_menu_checked(menu_navigation));
    ASSERT_TRUE(navigation_dialog_open());
    EXPECT_FALSE(headless::main_window_enabled());
    headless::click(navigation_cancel_button);
    EXPECT_FALSE(navigation_dialog_open());
    EXPECT_FALSE(ui_menu_checked(menu_navigation));
    EXPECT_TRUE(headless::main_window_enabled());

    // Unchecking stops navigation and opens nothing.
    ui_menu_check(menu_navigation, true);
    command(menu_navigation, 0);
    EXPECT_FALSE(ui_menu_checked(menu_navigation));
    EXPECT_FALSE(navigation_dialog_open());
    EXPECT_EQ(current_link_id(), 0);
}

void expect_about_box(const char* caption_and_text) {
    headless::reset();
    headless::choose_menu_item(menu_about);
    const std::vector<std::string> boxes = headless::boxes();
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_EQ(boxes.front(), caption_and_text);
}

TEST_F(Commands, AboutBoxSaysItsFourLinesInEachLanguage) {
    if (!in_fresh_copy())
        expect_about_box("Norvanta v1.0.2: Diffusion de trames NMEA de navigation GPS\n"
                         "Norvanta Version 1.0.2 du 19 d\xC3\xA9"
                         "cembre 2007\n"
                         "https://norvanta.org\n"
                         "Ce programme est gratuit.");
    testing::in_fresh_process([] {
        expect_about_box("Norvanta v1.0.2: NMEA sentences diffuser of GPS navigation\n"
                         "Norvanta Version 1.0.2  19-DEC-2007\n"
                         "https://norvanta.org\n"
                         "This software is free of charge.");
    });
}

TEST_F(Commands, OpenServesTheChosenFilesLastFirstAndRemembersTheirDirectory) {
    testing::TestHome files;
    const std::string directory = files.path().substr(0, files.path().size() - 1);
    std::vector<std::string> chosen;
    for (const char* name : {"a.gpx", "b.trw", "c.nmea"}) {
        testing::write_file(files.file(name), "x");
        chosen.push_back(files.file(name));
    }
    // A directory among the answers is no regular file: it is skipped.
    mkdir(files.file("folder").c_str(), 0700);
    chosen.insert(chosen.begin() + 1, files.file("folder"));

    headless::answer_file_chooser(chosen);
    headless::choose_menu_item(menu_open);
    const auto request = headless::last_file_request();
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->caption, "Chargement de fichier GPS");
    EXPECT_EQ(request->filter_name, "GPS data files");
    EXPECT_EQ(request->filter_pattern,
              "*.trw;*.trt;*.trr;*.gpx;*.wpt;*.trk;*.rte;*.plt;*.pnt;*.evt;*.mglt;*.mglw;"
              "*.gtm;*.txt;*.nmea;*.trl;*.wpr;*.wpo;*.usr;*.trn;*.emt");
    EXPECT_TRUE(request->multiple);

    std::vector<std::string> loads;
    for (const headless::Message& message : headless::pending_messages())
        if (message.event == event_load_file) loads.push_back(message.data.value_or("<none>"));
    const std::vector<std::string> expected = {
        "1" + files.file("c.nmea"), "1" + files.file("b.trw"), "1" + files.file("a.gpx")};
    EXPECT_EQ(loads, expected);
    EXPECT_EQ(std::string(last_open_directory()), directory);
    headless::reset();
    set_event_state(event_load_file, event_state_idle);

    // The next chooser starts there; a cancelled one loads nothing and
    // keeps the directory.
    headless::choose_menu_item(menu_open);
    ASSERT_TRUE(headless::last_file_request().has_value());
    EXPECT_EQ(headless::last_file_request()->start_directory, directory);
    EXPECT_EQ(posted(event_load_file), 0);
    EXPECT_EQ(std::string(last_open_directory()), directory);
}

TEST_F(Commands, DashboardIdsReachTheDashboard) {
    ui_enable_control(dashboard_time_factor_entry, true);
    ui_set_control_text(dashboard_time_factor_entry, "12");
    headless::notify_main_control(dashboard_time_factor_entry, entry_text_changed);
    const auto value = headless::control(dashboard_field_id(DashboardField::time_factor_value));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->text, "12");
    EXPECT_EQ(value->look, UiValueLook::edited);
    ui_set_value_look(value->id, UiValueLook::settled);
    ui_enable_control(dashboard_time_factor_entry, false);
}

TEST(CommandsEntry, NumbersReadAsTheFieldsWantThem) {
    struct Row {
        const char* text;
        int32_t number;
    };
    const Row rows[] = {
        {"", 0},
        {"7551", 7551},
        {"12ab", 12},
        {"abc", 0},
        {"2147483647", 2147483647},
        {"99999999999999999999", 2147483647},
    };
    for (const Row& row : rows)
        EXPECT_EQ(entry_number(row.text), row.number) << '"' << row.text << '"';
    EXPECT_EQ(entry_number(nullptr), 0);
}

} // namespace
} // namespace norvanta
