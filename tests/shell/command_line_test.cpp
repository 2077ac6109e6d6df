// The command-line walk on the headless window: what it keeps for start-up,
// the menu's log switch, and the loads it posts.
#include "shell/command_line.h"

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "platform/headless/ui_headless.h"
#include "platform/ui.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

class CommandLineWalk : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        home_ = new testing::TestHome;
        home_->make_current();
        object_store_create();
        create_main_window();
        build_main_menu();
        testing::write_file(home_->file("track.gpx"), "track");
        testing::write_file(home_->file("other.nmea"), "other");
        std::filesystem::create_directory(home_->file("folder"));
    }
    static void TearDownTestSuite() {
        delete home_;
        home_ = nullptr;
    }
    void SetUp() override {
        headless::reset();
        ui_menu_check(menu_navigation_log, false);
    }
    void TearDown() override { headless::reset(); }

    // "@name" stands for that name in the test's directory.
    static std::string expand(const std::string& token) {
        return token.rfind('@', 0) == 0 ? home_->file(token.substr(1)) : token;
    }

    static testing::TestHome* home_;
};
testing::TestHome* CommandLineWalk::home_ = nullptr;

struct Row {
    const char* description;
    std::vector<std::string> tokens;
    bool navigation_named;
    std::string link_text;
    int32_t speed_baud;
    bool navigation_log;
    std::vector<std::string> loads; // data of the posted loads, "@" expanded
};

constexpr int32_t largest_speed = std::numeric_limits<int32_t>::max();

const Row rows[] = {
    {"nothing given", {}, false, "", 0, false, {}},
    {"-NAVIG alone names navigation with an empty link", {"-NAVIG"}, true, "", 0, false, {}},
    {"a serial link", {"-NAVIGCOM4"}, true, "COM4", 0, false, {}},
    {"LOG turns logging on and is not part of the link",
     {"-NAVIGLOGUDP7551"},
     true,
     "UDP7551",
     0,
     true,
     {}},
    {"LOG alone", {"-NAVIGLOG"}, true, "", 0, true, {}},
    {"LOG given twice flips logging back off; the last link stands",
     {"-NAVIGLOGCOM4", "-NAVIGLOGCOM5"},
     true,
     "COM5",
     0,
     false,
     {}},
    {"a lower-case log is part of the link", {"-NAVIGlogCOM1"}, true, "logCOM1", 0, false, {}},
    {"a speed", {"-COMSPEED4800"}, false, "", 4800, false, {}},
    {"digits stop at the first other character", {"-COMSPEED48x00"}, false, "", 48, false, {}},
    {"no digits read as 0", {"-COMSPEEDfast"}, false, "", 0, false, {}},
    {"a speed too large to hold stops growing",
     {"-COMSPEED99999999999999999999"},
     false,
     "",
     largest_speed,
     false,
     {}},
    {"speed and link in any order",
     {"-COMSPEED9600", "-NAVIG/dev/ttyUSB0"},
     true,
     "/dev/ttyUSB0",
     9600,
     false,
     {}},
    {"existing files are queued in order; a missing name and a directory are ignored",
     {"@track.gpx", "@missing.gpx", "@folder", "@other.nmea"},
     false,
     "",
     0,
     false,
     {"1@track.gpx", "1@other.nmea"}},
    {"options written in lower case are file names, and missing ones",
     {"-navigCOM4", "-comspeed4800"},
     false,
     "",
     0,
     false,
     {}},
};

TEST_F(CommandLineWalk, KeepsLinkSpeedAndLogAndQueuesFiles) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        SetUp();
        std::vector<std::string> expanded;
        for (const std::string& token : row.tokens)
            expanded.push_back(expand(token));
        std::vector<const char*> tokens;
        for (const std::string& token : expanded)
            tokens.push_back(token.c_str());

        CommandLine line;
        walk_command_line(tokens, line);

        EXPECT_EQ(line.navigation_named, row.navigation_named);
        EXPECT_EQ(line.link_text, row.link_text);
        EXPECT_EQ(line.speed_baud, row.speed_baud);
        EXPECT_EQ(line.navigation_log, row.navigation_log);
        EXPECT_EQ(ui_menu_checked(menu_navigation_log), row.navigation_log)
            << "the check mark holds the log switch";
        std::vector<std::string> loads;
        for (const headless::Message& message : headless::pending_messages()) {
            EXPECT_EQ(message.event, event_load_file);
            loads.push_back(message.data.value_or("(no data)"));
        }
        std::vector<std::string> expected_loads;
        for (const std::string& load : row.loads)
            expected_loads.push_back(load.substr(0, 1) + expand(load.substr(1)));
        EXPECT_EQ(loads, expected_loads);
        EXPECT_EQ(line.files_queued, static_cast<int32_t>(expected_loads.size()));
    }
}

TEST_F(CommandLineWalk, RelativeFileNamesAreMadeAbsolute) {
    std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(home_->path());
    const char* tokens[] = {"track.gpx", "./other.nmea"};
    CommandLine line;
    walk_command_line(tokens, line);
    std::filesystem::current_path(before);

    std::vector<headless::Message> messages = headless::pending_messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].data.value_or(""), "1" + home_->file("track.gpx"));
    // The name is made absolute, not canonical: that belongs to the file objects.
    std::string second = messages[1].data.value_or("");
    EXPECT_EQ(second.substr(0, 1), "1");
    EXPECT_TRUE(std::filesystem::path(second.substr(1)).is_absolute()) << second;
    EXPECT_TRUE(std::filesystem::equivalent(second.substr(1), home_->file("other.nmea"))) << second;
}

TEST(CommandLineTokens, NavigationTokensAreTheTwoPrefixes) {
    struct Case {
        const char* token;
        bool navigation;
    };
    const Case cases[] = {
        {"-NAVIG", true},         {"-NAVIGLOGCOM1", true}, {"-COMSPEED", true},
        {"-COMSPEED19200", true}, {"-NAV", false},         {"-navig", false},
        {"--NAVIG", false},       {"track.gpx", false},    {"", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(is_navigation_token(c.token), c.navigation) << "token \"" << c.token << "\"";
    }
}

} // namespace
} // namespace norvanta
