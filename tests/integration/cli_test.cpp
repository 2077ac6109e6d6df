// norvanta-cli run as a user runs it: a child process with its own
// NORVANTA_HOME, its output captured in files, its end awaited with a
// generous deadline.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_home.h"

extern char** environ;

namespace norvanta {
namespace {

using testing::TestHome;

constexpr auto process_deadline = std::chrono::seconds(30);
constexpr auto poll_interval = std::chrono::milliseconds(10);
constexpr int usage_error_status = 2;

struct Outcome {
    bool exited = false; // ended by itself, not by a signal nor killed at the deadline
    int status = -1;
    std::string out;
    std::string err;
};

// Starts the program with home as its NORVANTA_HOME; its output goes to files there.
pid_t start(const TestHome& home, std::vector<std::string> args) {
    home.make_current();
    args.insert(args.begin(), NORVANTA_CLI_PATH);
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, home.file("stdout.txt").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, home.file("stderr.txt").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

// True once the program itself (not a fork before the exec) catches SIGINT and
// SIGTERM and blocks them in its main thread: start-up is ready for them.
bool wait_until_taking_signals(pid_t pid) {
    const unsigned long wanted = (1UL << (SIGINT - 1)) | (1UL << (SIGTERM - 1));
    const std::string proc = "/proc/" + std::to_string(pid);
    std::error_code ignored;
    const auto program = std::filesystem::canonical(NORVANTA_CLI_PATH, ignored);
    for (auto deadline = std::chrono::steady_clock::now() + process_deadline;
         std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(poll_interval)) {
        if (std::filesystem::read_symlink(proc + "/exe", ignored) != program) continue;
        unsigned long caught = 0;
        unsigned long blocked = 0;
        std::ifstream status(proc + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("SigCgt:")) caught = std::strtoul(&line[7], nullptr, 16);
            if (line.starts_with("SigBlk:")) blocked = std::strtoul(&line[7], nullptr, 16);
        }
        if ((caught & wanted) == wanted && (blocked & wanted) == wanted) return true;
    }
    return false;
}

// Waits for the end, killing the program at the deadline.
Outcome finish(const TestHome& home, pid_t pid) {
    Outcome outcome;
    if (pid <= 0) return outcome;
    int raw = 0;
    auto deadline = std::chrono::steady_clock::now() + process_deadline;
    while (waitpid(pid, &raw, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "norvanta-cli did not end before the deadline";
            kill(pid, SIGKILL);
            waitpid(pid, &raw, 0);
            return outcome;
        }
        std::this_thread::sleep_for(poll_interval);
    }
    outcome.exited = WIFEXITED(raw);
    if (outcome.exited) outcome.status = WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) outcome.err = strsignal(WTERMSIG(raw));
    outcome.out = testing::read_file(home.file("stdout.txt"));
    outcome.err += testing::read_file(home.file("stderr.txt"));
    return outcome;
}

Outcome run(const TestHome& home, const std::vector<std::string>& args) {
    return finish(home, start(home, args));
}

// Runs the program until it waits for work, then ends it with a signal.
Outcome run_then_signal(const TestHome& home, const std::vector<std::string>& args, int number) {
    pid_t pid = start(home, args);
    EXPECT_TRUE(wait_until_taking_signals(pid)) << "norvanta-cli never came up";
    if (pid > 0) kill(pid, number);
    return finish(home, pid);
}

long line_count(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

TEST(Cli, VersionAndHelpExitZero) {
    TestHome home;
    Outcome version = run(home, {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "norvanta-cli (Norvanta) 1.0.2\n");

    Outcome help = run(home, {"--help"});
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
        Outcome outcome = run(home, row.args);
        EXPECT_EQ(outcome.status, usage_error_status);
        EXPECT_EQ(line_count(outcome.err), 1) << outcome.err;
        EXPECT_NE(outcome.err.find("'" + row.named + "'"), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
}

TEST(Cli, FirstRunSeedsTheConfigurationOnce) {
    TestHome home;
    const std::string copy = home.file("norvanta.cfg");
    Outcome first = run(home, {"--print-config"});
    EXPECT_EQ(first.status, 0);
    ASSERT_TRUE(testing::file_exists(copy));
    EXPECT_EQ(testing::read_file(copy),
              testing::read_file(NORVANTA_SYSTEM_SOURCE_DIR "/norvanta_exemple.cfg"))
        << "the copy is byte for byte";
    EXPECT_NE(first.out.find(copy), std::string::npos) << first.out;

    const std::string edited = testing::read_file(copy) + "# the user's own line\n";
    testing::write_file(copy, edited);
    EXPECT_EQ(run(home, {"--print-config"}).status, 0);
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
        Outcome printed = run(home, {"--config", path, "--print-config"});
        EXPECT_EQ(printed.status, 0) << printed.err;
        EXPECT_NE(printed.out.find("max_memory: 1000"), std::string::npos) << printed.out;
        EXPECT_NE(printed.out.find("error_log_enabled: 0"), std::string::npos) << printed.out;
        EXPECT_FALSE(testing::file_exists(home.file("norvanta.cfg")))
            << "with --config nothing is seeded";

        Outcome started = run_then_signal(home, {"--config", path}, SIGTERM);
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
        {"a file is queued, but cannot be loaded yet", {"@track.gpx"}, SIGTERM, 1, "1 file"},
        {"live navigation is not built yet",
         {"-NAVIGLOGCOM4", "-COMSPEED4800"},
         SIGINT,
         1,
         "\"COM4\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        testing::write_file(home.file("track.gpx"), "<gpx/>");
        std::vector<std::string> args;
        for (const std::string& arg : row.args)
            args.push_back(arg[0] == '@' ? home.file(arg.substr(1)) : arg);
        Outcome outcome = run_then_signal(home, args, row.signal);
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
        Outcome outcome = run(home, args);
        EXPECT_TRUE(outcome.exited);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, row.out);
        EXPECT_EQ(outcome.err, row.err);
    }
}

TEST(Cli, NoDiffusionAndExtraClientsRunUntilASignal) {
    TestHome home;
    Outcome outcome =
        run_then_signal(home, {"--no-diffusion", "--client", "127.0.0.1:10110"}, SIGTERM);
    EXPECT_TRUE(outcome.exited) << outcome.err;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
}

} // namespace
} // namespace norvanta
