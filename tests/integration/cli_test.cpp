// norvanta-cli run as a user runs it: options, seeding, signals and the
// client lists.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/cli_process.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

using testing::Outcome;
using testing::TestHome;

constexpr int usage_error_status = 2;

long line_count(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST(Cli, VersionAndHelpExitZero) {
    TestHome home;
    Outcome version = testing::run_cli(home, {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "norvanta-cli (Norvanta) 1.0.2\n");

    Outcome help = testing::run_cli(home, {"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--config FILE", "--print-config", "-NAVIG", "-COMSPEED",
                               "--client HOST:PORT", "--no-diffusion", "--list-clients"})
        EXPECT_NE(help.out.find(option), std::string::npos) << "help does not list " << option;
}

TEST(Cli, UnknownOptionExitsTwoWithOneLineNamingIt) {
    struct Row {
        const char* description;
        std::vector<std::string> args;
        std::string named;
    };
    const Row rows[] = {
        {"a long option", {"--verbose"}, "--verbose"},
        {"a lone dash", {"-"}, "-"},
        {"a lower-case navigation option", {"-navigCOM4"}, "-navigCOM4"},
        {"after good tokens", {"-NAVIGCOM4", "-COMSPEED4800", "--bogus"}, "--bogus"},
        {"--config without its file", {"--config"}, "--config"},
        {"--client without its address", {"--client"}, "--client"},
        {"--client without a port", {"--client", "localhost"}, "--client"},
        {"--client with a port in letters", {"--client=localhost:x"}, "--client"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        Outcome outcome = testing::run_cli(home, row.args);
        EXPECT_EQ(outcome.status, usage_error_status);
        EXPECT_EQ(line_count(outcome.err), 1) << outcome.err;
        EXPECT_NE(outcome.err.find("'" + row.named + "'"), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
}

TEST(Cli, FirstRunSeedsTheConfigurationOnce) {
    TestHome home;
    const std::string copy = home.file("norvanta.cfg");
    Outcome first = testing::run_cli(home, {"--print-config"});
    EXPECT_EQ(first.status, 0);
    ASSERT_TRUE(testing::file_exists(copy));
    EXPECT_EQ(testing::read_file(copy),
              testing::read_file(NORVANTA_SYSTEM_SOURCE_DIR "/norvanta_exemple.cfg"))
        << "the copy is byte for byte";
    EXPECT_NE(first.out.find(copy), std::string::npos) << first.out;

    const std::string edited = testing::read_file(copy) + "# the user's own line\n";
    testing::write_file(copy, edited);
    EXPECT_EQ(testing::run_cli(home, {"--print-config"}).status, 0);
    EXPECT_EQ(testing::read_file(copy), edited) << "a second run does not copy again";
}

TEST(Cli, BadConfigurationsKeepDefaults) {
    struct Row {
        const char* description;
        const char* file_name;
        std::string content; // none: the file does not exist; "/": it is a directory
    };
    const std::string binary("LOG\0ERROR\xff\xfe\x01\nMAX\0MEM 1\r\n\0\0\0", 25);
    const Row rows[] = {
        {"a line of 600 characters", "long.cfg", std::string(600, 'z') + "\n"},
        {"a binary file", "binary.cfg", binary},
        {"a missing file", "absent.cfg", ""},
        {"a file that cannot be read (a directory)", "folder.cfg", "/"},
        {"MAXMEM in letters", "letters.cfg", "MAXMEM lots\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        const std::string path = home.file(row.file_name);
        if (row.content == "/") {
            mkdir(path.c_str(), 0755);
        } else if (!row.content.empty()) {
            testing::write_file(path, row.content);
        }
        Outcome printed = testing::run_cli(home, {"--config", path, "--print-config"});
        EXPECT_EQ(printed.status, 0) << printed.err;
        EXPECT_NE(printed.out.find("max_memory: 1000"), std::string::npos) << printed.out;
        EXPECT_NE(printed.out.find("error_log_enabled: 0"), std::string::npos) << printed.out;
        EXPECT_FALSE(testing::file_exists(home.file("norvanta.cfg")))
            << "with --config nothing is seeded";

        Outcome started = testing::run_cli_then_signal(home, {"--config", path}, SIGTERM);
        EXPECT_TRUE(started.exited) << "start-up with this configuration crashed: " << started.err;
        EXPECT_EQ(started.status, 0) << started.err;
    }
}

TEST(Cli, SignalsEndTheProgramCleanlyAfterAOneLineReportOfWhatItCannotDo) {
    struct Row {
        const char* description;
        std::vector<std::string> args; // "@" stands for the test's directory
        int signal;
        long report_lines;
        const char* named;
    };
    const Row rows[] = {
        {"SIGTERM", {}, SIGTERM, 0, ""},
        {"SIGINT", {}, SIGINT, 0, ""},
        {"a missing file is ignored without a word", {"@missing.gpx"}, SIGTERM, 0, ""},
        {"a link name that names no link is told",
         {"-NAVIGLOGFOO", "-COMSPEED4800"},
         SIGINT,
         1,
         "\"FOO\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        std::vector<std::string> args;
        for (const std::string& arg : row.args)
            args.push_back(arg[0] == '@' ? home.file(arg.substr(1)) : arg);
        Outcome outcome = testing::run_cli_then_signal(home, args, row.signal);
        EXPECT_TRUE(outcome.exited) << "ended by the signal instead of the exit path";
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(line_count(outcome.err), row.report_lines) << outcome.err;
        EXPECT_NE(outcome.err.find(row.named), std::string::npos) << outcome.err;
        EXPECT_FALSE(testing::file_exists(home.file("logs/zz_QLMX.log")))
            << "without LOGERROR no log file is ever made";
    }
}

TEST(Cli, ListClientsPrintsBothListsThenExits) {
    const std::string defaults_inactive =
        "inactive clients:\n  0 localhost:7553\n  1 localhost:7554\n  2 localhost:7555\n"
        "  3 localhost:7556\n  4 localhost:7557\n  5 localhost:7558\n  6 localhost:7559\n";
    struct Row {
        const char* description;
        std::string configuration; // empty: the seeded example
        std::vector<std::string> args;
        std::string out;
        std::string err;
    };
    const Row rows[] = {
        {"the defaults",
         "",
         {"--list-clients"},
         "active clients:\n  0 localhost:7551\n  1 localhost:7552\n" + defaults_inactive,
         ""},
        {"--client adds active clients; a known address stays where it is",
         "",
         {"--client", "127.0.0.1:10110", "--client=localhost:7553", "--list-clients", "--client",
          "10.1.2.3:2000"},
         "active clients:\n  0 localhost:7551\n  1 localhost:7552\n  2 127.0.0.1:10110\n"
         "  3 10.1.2.3:2000\n" +
             defaults_inactive,
         ""},
        {"an unresolvable client gives its box and the others stand",
         "LANG ENGLISH\n",
         {"--client", "nosuch.invalid:7000", "--list-clients"},
         "active clients:\n  0 localhost:7551\n  1 localhost:7552\n" + defaults_inactive,
         "Invalid address: nosuch.invalid\nInvalid server name or\ninvalid IP adress\n"},
        {"configured keys",
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\nACTIVE_NMEA_UDP_DIFFUSE_ADR1 "
         "192.168.1.20 10110\n",
         {"--list-clients"},
         "active clients:\n  0 localhost:7552\n  1 192.168.1.20:10110\n"
         "inactive clients:\n  0 localhost:7551\n  1 localhost:7553\n  2 localhost:7554\n"
         "  3 localhost:7555\n  4 localhost:7556\n  5 localhost:7557\n  6 localhost:7558\n"
         "  7 localhost:7559\n",
         ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        std::vector<std::string> args = row.args;
        if (!row.configuration.empty()) {
            testing::write_file(home.file("test.cfg"), row.configuration);
            args.insert(args.begin(), {"--config", home.file("test.cfg")});
        }
        Outcome outcome = testing::run_cli(home, args);
        EXPECT_TRUE(outcome.exited);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, row.out);
        EXPECT_EQ(outcome.err, row.err);
    }
}

// Live navigation from the network, as a user runs it: the clients get the
// fix as it came between the marks, and the status prints one line per fix.
TEST(Cli, RelaysAUdpSourceToItsClientsUntilASignal) {
    TestHome home;
    testing::write_file(home.file("relay.cfg"), "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n"
                                                "INACTIVE_NMEA_UDP_DIFFUSE_ADR2 localhost 7552\n");
    testing::UdpListener client;
    testing::UdpListener sender;
    const int32_t port = testing::free_udp_port();
    const pid_t pid = testing::start_cli(
        home, {"--config", home.file("relay.cfg"), "-NAVIGUDP" + std::to_string(port), "--client",
               "127.0.0.1:" + std::to_string(client.port()), "--status=tsv"});
    ASSERT_TRUE(testing::wait_until_taking_signals(pid));
    for (int round = 0; round < 500 && !testing::udp_port_bound(port); ++round)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::string fix =
        "$GPRMC,120000,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*64\r\n"
        "$GPGGA,120000,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*49\r\n";
    sender.send_to(port, fix);
    // The display starts, and the list of clients is renewed without the
    // program's own port: each says STOP.
    std::string text = client.next();
    for (int marks = 0; text == "$PKLNT,STOP*79\r\n" && marks < 3; ++marks)
        text = client.next();
    EXPECT_EQ(text, "$PKLNT,START*21\r\n");
    EXPECT_EQ(client.next(), fix);
    kill(pid, SIGTERM);
    const Outcome outcome = testing::finish_cli(home, pid);
    EXPECT_EQ(client.next(), "$PKLNT,STOP*79\r\n") << "the exit path's mark";
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out,
              "Navigation\t0.00\t0:00:00\tE 011.516667\tN  48.117300\t545.4\t41.48\t084.40\t8\n");
    EXPECT_EQ(outcome.err, "");
}

// A file replayed to the end: the clients get START, the sentences of the
// track in order, and STOP; with --exit-at-end the program then ends by
// itself, after the exit path's own STOP.
TEST(Cli, PlaysAFileToTheEndAndExits) {
    TestHome home;
    testing::write_file(home.file("play.cfg"), "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n"
                                               "INACTIVE_NMEA_UDP_DIFFUSE_ADR2 localhost 7552\n");
    std::string gpx = "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\"><trk><trkseg>\n";
    for (int i = 0; i < 30; ++i)
        gpx += "<trkpt lat=\"45." + std::to_string(100 + i) +
               "\" lon=\"5.5\"><ele>10</ele>"
               "<time>2024-06-15T10:00:" +
               (i < 10 ? "0" : "") + std::to_string(i) + "Z</time></trkpt>\n";
    testing::write_file(home.file("play.gpx"), gpx + "</trkseg></trk></gpx>\n");
    testing::UdpListener client;
    const testing::Outcome outcome =
        testing::run_cli(home, {"--config", home.file("play.cfg"), "--client",
                                "127.0.0.1:" + std::to_string(client.port()), home.file("play.gpx"),
                                "--play", "--factor", "20", "--exit-at-end", "--status=none"});
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const std::vector<std::string> received = client.drain();
    const std::string start = "$PKLNT,START*21\r\n";
    const std::string stop = "$PKLNT,STOP*79\r\n";
    const auto first = std::find(received.begin(), received.end(), start);
    ASSERT_NE(first, received.end()) << "no START mark";
    std::string last_time;
    auto at = first + 1;
    for (; at != received.end() && *at != stop; ++at) {
        const std::size_t rmc = at->find("$GPRMC,");
        ASSERT_NE(rmc, std::string::npos) << *at;
        const std::string time = at->substr(rmc + 7, 6);
        EXPECT_GE(time, last_time) << "out of track order";
        last_time = time;
    }
    EXPECT_EQ(last_time, "100028") << "the end of the track went out (the last epoch stays out)";
    ASSERT_NE(at, received.end()) << "no STOP at the end of the track";
    EXPECT_EQ(std::vector<std::string>(at, received.end()), (std::vector<std::string>{stop, stop}))
        << "the end's STOP, then the exit path's";
}

// The replay options wait for the files: a file that holds no track gets
// its loading box first, and with nothing to play the program says so and
// ends with status 1.
TEST(Cli, AFileWithNoTrackIsToldAndThereIsNothingToPlay) {
    TestHome home;
    testing::write_file(home.file("english.cfg"), "LANG ENGLISH\n");
    testing::write_file(home.file("track.gpx"), "<gpx/>");
    const testing::Outcome outcome =
        testing::run_cli(home, {"--config", home.file("english.cfg"), home.file("track.gpx"),
                                "--play", "--exit-at-end"});
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "Loading error: " + home.file("track.gpx") +
                               "\nUnkown File Format\nNorvanta: no track to play: no file was "
                               "loaded as a track\n");
}

TEST(Cli, NoDiffusionAndExtraClientsRunUntilASignal) {
    TestHome home;
    Outcome outcome = testing::run_cli_then_signal(
        home, {"--no-diffusion", "--client", "127.0.0.1:10110"}, SIGTERM);
    EXPECT_TRUE(outcome.exited) << outcome.err;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
}

} // namespace
} // namespace norvanta
