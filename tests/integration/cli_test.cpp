// norvanta-cli run as a user runs it: a child process with its own
// NORVANTA_HOME, its output captured in files, its end awaited with a
// generous deadline.
#include <cerrno>
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
    bool exited = false; // ended by itself (not by a signal, not killed at the deadline)
    int status = -1;     // exit status when exited
    int signal = 0;      // the signal that ended it otherwise
    std::string out;     // stdout
    std::string err;     // stderr
};

class Child {
  public:
    // Starts the program with NORVANTA_HOME set to home; output goes to files in home.
    Child(const TestHome& home, const std::vector<std::string>& args)
        : out_path_(home.file("stdout.txt")), err_path_(home.file("stderr.txt")) {
        std::vector<std::string> env_strings;
        for (char** e = environ; *e; ++e) {
            if (std::strncmp(*e, "NORVANTA_HOME=", 14) != 0) env_strings.emplace_back(*e);
        }
        env_strings.push_back("NORVANTA_HOME=" + home.path());
        std::vector<char*> envp;
        for (std::string& s : env_strings)
            envp.push_back(s.data());
        envp.push_back(nullptr);
        std::vector<std::string> argv_strings = {NORVANTA_CLI_PATH};
        argv_strings.insert(argv_strings.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& s : argv_strings)
            argv.push_back(s.data());
        argv.push_back(nullptr);

        pid_ = fork();
        if (pid_ == 0) {
            int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int in = open("/dev/null", O_RDONLY);
            if (out < 0 || err < 0 || in < 0) _exit(127);
            dup2(in, 0);
            dup2(out, 1);
            dup2(err, 2);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        EXPECT_GT(pid_, 0) << "fork failed";
    }
    ~Child() {
        if (pid_ > 0 && !reaped_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    // True once the program catches SIGINT and SIGTERM and blocks them in its
    // main thread, that is once start-up has set up its way to take them.
    // The masks are read only once the program runs (not the test's fork of
    // itself before the exec, which may block everything for a moment).
    bool wait_until_taking_signals() {
        const unsigned long wanted = (1UL << (SIGINT - 1)) | (1UL << (SIGTERM - 1));
        const std::string proc = "/proc/" + std::to_string(pid_);
        std::error_code ignored;
        const auto program = std::filesystem::canonical(NORVANTA_CLI_PATH, ignored);
        auto deadline = std::chrono::steady_clock::now() + process_deadline;
        while (std::chrono::steady_clock::now() < deadline) {
            bool running = std::filesystem::read_symlink(proc + "/exe", ignored) == program;
            unsigned long caught = 0;
            unsigned long blocked = 0;
            std::ifstream status(proc + "/status");
            std::string line;
            while (std::getline(status, line)) {
                if (line.rfind("SigCgt:", 0) == 0)
                    caught = std::strtoul(line.c_str() + 7, nullptr, 16);
                if (line.rfind("SigBlk:", 0) == 0)
                    blocked = std::strtoul(line.c_str() + 7, nullptr, 16);
            }
            if (running && (caught & wanted) == wanted && (blocked & wanted) == wanted) return true;
            std::this_thread::sleep_for(poll_interval);
        }
        return false;
    }

    void signal(int number) { kill(pid_, number); }

    Outcome wait() {
        Outcome outcome;
        auto deadline = std::chrono::steady_clock::now() + process_deadline;
        int raw = 0;
        for (;;) {
            pid_t done = waitpid(pid_, &raw, WNOHANG);
            if (done == pid_) break;
            if (done < 0 && errno != EINTR) break;
            if (std::chrono::steady_clock::now() > deadline) {
                kill(pid_, SIGKILL);
                waitpid(pid_, &raw, 0);
                ADD_FAILURE() << "norvanta-cli did not end before the deadline";
                raw = -1;
                break;
            }
            std::this_thread::sleep_for(poll_interval);
        }
        reaped_ = true;
        if (raw != -1 && WIFEXITED(raw)) {
            outcome.exited = true;
            outcome.status = WEXITSTATUS(raw);
        } else if (raw != -1 && WIFSIGNALED(raw)) {
            outcome.signal = WTERMSIG(raw);
        }
        outcome.out = testing::read_file(out_path_);
        outcome.err = testing::read_file(err_path_);
        return outcome;
    }

  private:
    std::string out_path_;
    std::string err_path_;
    pid_t pid_ = -1;
    bool reaped_ = false;
};

Outcome run(const TestHome& home, const std::vector<std::string>& args) {
    Child child(home, args);
    return child.wait();
}

// Runs the program until it waits for work, then ends it with a signal.
Outcome run_then_signal(const TestHome& home, const std::vector<std::string>& args,
                        int number = SIGTERM) {
    Child child(home, args);
    EXPECT_TRUE(child.wait_until_taking_signals()) << "norvanta-cli never came up";
    child.signal(number);
    return child.wait();
}

int line_count(const std::string& text) {
    int lines = 0;
    for (char c : text)
        lines += c == '\n';
    return lines;
}

std::string example_config() {
    return testing::read_file(std::string(NORVANTA_SYSTEM_SOURCE_DIR) + "/norvanta_exemple.cfg");
}

TEST(Cli, VersionAndHelpExitZero) {
    TestHome home;
    Outcome version = run(home, {"--version"});
    EXPECT_TRUE(version.exited);
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "norvanta-cli (Norvanta) 1.0.2\n");

    Outcome help = run(home, {"--help"});
    EXPECT_TRUE(help.exited);
    EXPECT_EQ(help.status, 0);
    for (const char* option :
         {"--help", "--version", "--config FILE", "--print-config", "-NAVIG", "-COMSPEED"}) {
        EXPECT_NE(help.out.find(option), std::string::npos) << "help does not list " << option;
    }
}

TEST(Cli, UnknownOptionExitsTwoWithOneLineNamingIt) {
    struct Row {
        const char* description;
        std::vector<std::string> args;
        std::string named;
    };
    const std::vector<Row> rows = {
        {"a short option", {"-x"}, "-x"},
        {"a long option", {"--verbose"}, "--verbose"},
        {"a lone dash", {"-"}, "-"},
        {"a lower-case navigation option", {"-navigCOM4"}, "-navigCOM4"},
        {"after good tokens", {"-NAVIGCOM4", "-COMSPEED4800", "--bogus"}, "--bogus"},
        {"--config without its file", {"--config"}, "--config"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        Outcome outcome = run(home, row.args);
        EXPECT_TRUE(outcome.exited);
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
    EXPECT_TRUE(first.exited);
    EXPECT_EQ(first.status, 0);
    ASSERT_TRUE(testing::file_exists(copy));
    EXPECT_EQ(testing::read_file(copy), example_config()) << "the copy is byte for byte";
    EXPECT_NE(first.out.find(copy), std::string::npos) << first.out;

    const std::string edited = testing::read_file(copy) + "# the user's own line\n";
    testing::write_file(copy, edited);
    Outcome second = run(home, {"--print-config"});
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(testing::read_file(copy), edited) << "a second run does not copy again";
}

TEST(Cli, BadConfigurationsKeepDefaults) {
    struct Row {
        const char* description;
        const char* file_name; // in the home; empty for a file that does not exist
        std::string content;
        bool directory;
    };
    const std::string binary("LOG\0ERROR\xff\xfe\x01\nMAX\0MEM 1\r\n\0\0\0", 25);
    const std::vector<Row> rows = {
        {"a line of 600 characters", "long.cfg", std::string(600, 'z') + "\n", false},
        {"a binary file", "binary.cfg", binary, false},
        {"a missing file", "", "", false},
        {"a file that cannot be read (a directory)", "folder.cfg", "", true},
        {"MAXMEM in letters", "letters.cfg", "MAXMEM lots\n", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        TestHome home;
        std::string path = row.file_name[0] ? home.file(row.file_name) : home.file("absent.cfg");
        if (row.directory) {
            mkdir(path.c_str(), 0755);
        } else if (row.file_name[0]) {
            testing::write_file(path, row.content);
        }
        Outcome printed = run(home, {"--config", path, "--print-config"});
        EXPECT_TRUE(printed.exited);
        EXPECT_EQ(printed.status, 0) << printed.err;
        EXPECT_NE(printed.out.find("max_memory: 1000"), std::string::npos) << printed.out;
        EXPECT_NE(printed.out.find("error_log_enabled: 0"), std::string::npos) << printed.out;
        EXPECT_FALSE(testing::file_exists(home.file("norvanta.cfg")))
            << "with --config nothing is seeded";

        Outcome started = run_then_signal(home, {"--config", path});
        EXPECT_TRUE(started.exited)
            << "start-up with this configuration crashed: signal " << started.signal << "\n"
            << started.err;
        EXPECT_EQ(started.status, 0) << started.err;
    }
}

TEST(Cli, SignalsEndTheProgramWithStatusZero) {
    for (int number : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(number));
        TestHome home;
        Outcome outcome = run_then_signal(home, {}, number);
        EXPECT_TRUE(outcome.exited) << "ended by the signal instead of the exit path";
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_FALSE(testing::file_exists(home.file("logs/zz_QLMX.log")))
            << "without LOGERROR no log file is ever made";
    }
}

TEST(Cli, FileArguments) {
    TestHome home;
    Outcome missing = run_then_signal(home, {home.file("missing.gpx")});
    EXPECT_EQ(missing.status, 0);
    EXPECT_EQ(missing.err, "") << "a missing file is ignored without a word";

    testing::write_file(home.file("track.gpx"), "<gpx/>");
    Outcome present = run_then_signal(home, {home.file("track.gpx")});
    EXPECT_EQ(present.status, 0);
    EXPECT_EQ(line_count(present.err), 1)
        << "a queued file that this build cannot load yet is reported in one line: " << present.err;
}

TEST(Cli, NavigationNotBuiltIsReportedInOneLine) {
    TestHome home;
    Outcome outcome = run_then_signal(home, {"-NAVIGLOGCOM4", "-COMSPEED4800"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(line_count(outcome.err), 1) << outcome.err;
    EXPECT_NE(outcome.err.find("COM4"), std::string::npos) << outcome.err;
}

} // namespace
} // namespace norvanta
