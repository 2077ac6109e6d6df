// Starts the current test again in a new process and reports its verdict.
#include "support/fresh_process.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_home.h"

extern char** environ;

namespace norvanta::testing {

namespace {

constexpr const char* fresh_marker = "NORVANTA_FRESH_PROCESS";

} // namespace

void in_fresh_process(void (*scenario)()) {
    const char* marker = std::getenv(fresh_marker);
    if (marker && std::string(marker) == "1") {
        scenario();
        return;
    }
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    ASSERT_NE(test, nullptr);
    std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();

    TestHome scratch;
    std::string output_path = scratch.file("output.txt");
    std::vector<std::string> environment{std::string(fresh_marker) + "=1"};
    for (char** variable = environ; *variable; ++variable)
        if (std::string(*variable).rfind(std::string(fresh_marker) + "=", 0) != 0)
            environment.emplace_back(*variable);
    std::vector<char*> envp;
    for (std::string& variable : environment)
        envp.push_back(variable.data());
    envp.push_back(nullptr);
    std::string program = "/proc/self/exe";
    std::vector<char*> argv{program.data(), filter.data(), nullptr};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t child = 0;
    int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_EQ(spawned, 0) << "cannot start a fresh copy of the test program";
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the fresh process failed; its output:\n"
        << read_file(output_path);
}

} // namespace norvanta::testing
