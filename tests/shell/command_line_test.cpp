// The command-line walk on the headless window: what it keeps for start-up,
// the menu's log switch, and the loads it posts.
#include "shell/command_line.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "platform/headless/ui_headless.h"
#include "platform/ui.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// A file of the private home.
std::string home_file(const std::string& name) {
    return std::getenv("NORVANTA_HOME") + name;
}

class CommandLineWalk : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        object_store_create();
        create_main_window();
        build_main_menu();
        testing::write_file(home_file("track.gpx"), "track");
        testing::write_file(home_file("other.nmea"), "other");
    }
    void SetUp() override {
        headless::reset();
        ui_menu_check(menu_navigation_log, false);
    }
    void TearDown() override { headless::reset(); }
};

TEST_F(CommandLineWalk, KeepsLinkSpeedAndLog) {
    struct Row {
        const char* description;
        std::vector<const char*> tokens;
        bool navigation_named;
        std::string link_text;
        int32_t speed_baud;
        bool navigation_log;
    };
    constexpr int32_t largest = std::numeric_limits<int32_t>::max();
    const Row rows[] = {
        {"nothing given", {}, false, "", 0, false},
        {"-NAVIG alone names navigation with an empty link", {"-NAVIG"}, true, "", 0, false},
        {"LOG: logging on, not in the link", {"-NAVIGLOGUDP7551"}, true, "UDP7551", 0, true},
        {"LOG twice flips it back", {"-NAVIGLOGCOM4", "-NAVIGLOGCOM5"}, true, "COM5", 0, false},
        {"a lower-case log stays in the link", {"-NAVIGlogCOM1"}, true, "logCOM1", 0, false},
        {"digits stop at the first other character", {"-COMSPEED48x00"}, false, "", 48, false},
        {"no digits read as 0", {"-COMSPEEDfast"}, false, "", 0, false},
        {"too large stops growing", {"-COMSPEED99999999999999999999"}, false, "", largest, false},
        {"lower case: missing files", {"-navigCOM4", "-comspeed48"}, false, "", 0, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        CommandLine line;
        walk_command_line(row.tokens, line);
        EXPECT_EQ(line.navigation_named, row.navigation_named);
        EXPECT_EQ(line.link_text, row.link_text);
        EXPECT_EQ(line.speed_baud, row.speed_baud);
        EXPECT_EQ(line.navigation_log, row.navigation_log);
        EXPECT_EQ(ui_menu_checked(menu_navigation_log), row.navigation_log)
            << "the check mark holds the log switch";
        EXPECT_EQ(headless::pending_count(), 0u);
    }
}

TEST_F(CommandLineWalk, QueuesExistingFilesInOrderMadeAbsolute) {
    const std::string track = home_file("track.gpx");
    const std::string missing = home_file("missing.gpx");
    const std::string folder = home_file("");
    const char* tokens[] = {track.c_str(), missing.c_str(), folder.c_str(), "./other.nmea"};
    std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    CommandLine line;
    walk_command_line(tokens, line);
    std::filesystem::current_path(before);

    std::vector<std::string> queued;
    for (const headless::Message& message : headless::pending_messages())
        queued.push_back(std::to_string(message.event) + ":" + message.data.value_or(""));
    ASSERT_EQ(queued.size(), 2u) << "a missing name and a directory are ignored";
    EXPECT_EQ(line.files_queued, 2);
    EXPECT_EQ(queued[0], "14:1" + track);
    // Absolute, not canonical: that belongs to the file objects.
    const std::string second = queued[1].substr(std::string("14:1").size());
    EXPECT_TRUE(std::filesystem::path(second).is_absolute()) << second;
    EXPECT_TRUE(std::filesystem::equivalent(second, home_file("other.nmea"))) << second;
}

} // namespace
} // namespace norvanta
