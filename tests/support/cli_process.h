// norvanta-cli run as a user runs it: a child process with its own
// NORVANTA_HOME, its output captured in files there, its end awaited with a
// generous deadline.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "support/test_home.h"

namespace norvanta::testing {

struct Outcome {
    bool exited = false; // ended by itself, not by a signal nor killed at the deadline
    int status = -1;
    std::string out;
    std::string err;
};

// Starts the program at path with the arguments and environment given (null:
// this process's), its input empty and its output in stdout.txt and
// stderr.txt of home.
pid_t spawn_program(const char* path, const TestHome& home, std::vector<std::string> args,
                    char* const* environment = nullptr);
// Starts the program with home as its NORVANTA_HOME; its output goes to
// stdout.txt and stderr.txt there.
pid_t start_cli(const TestHome& home, std::vector<std::string> args);
// True once the program itself catches SIGINT and SIGTERM and blocks them in
// its main thread: start-up is ready for them.
bool wait_until_taking_signals(pid_t pid);
// Waits for the end, killing the program at the deadline.
Outcome finish_cli(const TestHome& home, pid_t pid);
Outcome run_cli(const TestHome& home, const std::vector<std::string>& args);
// Runs the program until it waits for work, then ends it with a signal.
Outcome run_cli_then_signal(const TestHome& home, const std::vector<std::string>& args, int number);

} // namespace norvanta::testing
