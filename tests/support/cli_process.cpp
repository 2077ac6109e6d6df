// Running norvanta-cli as a child process.
#include "support/cli_process.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern char** environ;

namespace norvanta::testing {

namespace {

constexpr auto process_deadline = std::chrono::seconds(30);
constexpr auto poll_interval = std::chrono::milliseconds(10);

} // namespace

pid_t spawn_program(const char* path, const TestHome& home, std::vector<std::string> args,
                    char* const* environment) {
    args.insert(args.begin(), path);
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
    EXPECT_EQ(posix_spawn(&pid, path, &actions, nullptr, argv.data(),
                          environment ? environment : environ),
              0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

pid_t start_cli(const TestHome& home, std::vector<std::string> args) {
    home.make_current();
    return spawn_program(NORVANTA_CLI_PATH, home, std::move(args));
}

// Not a fork before the exec: the program itself.
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

Outcome finish_cli(const TestHome& home, pid_t pid) {
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
    outcome.out = read_file(home.file("stdout.txt"));
    outcome.err += read_file(home.file("stderr.txt"));
    return outcome;
}

Outcome run_cli(const TestHome& home, const std::vector<std::string>& args) {
    return finish_cli(home, start_cli(home, args));
}

Outcome run_cli_then_signal(const TestHome& home, const std::vector<std::string>& args,
                            int number) {
    pid_t pid = start_cli(home, args);
    EXPECT_TRUE(wait_until_taking_signals(pid)) << "norvanta-cli never came up";
    if (pid > 0) kill(pid, number);
    return finish_cli(home, pid);
}

} // namespace norvanta::testing
