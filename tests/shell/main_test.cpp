// Start-up pieces that can run inside a test process: the module start-up,
// and the ways out in a child process.
#include "shell/main.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "shell/config.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// A file of the private home.
std::string home_file(const std::string& name) {
    return std::getenv("NORVANTA_HOME") + name;
}

constexpr std::size_t stamp_hyphens = 30;

class StartUp : public ::testing::Test {
  protected:
    // The configuration is read once, at the first test: the error log is on for this process.
    static void SetUpTestSuite() { testing::write_file(home_file("norvanta.cfg"), "LOGERROR\n"); }
};

TEST_F(StartUp, ModulesComeUpWithAPendingErrorCleared) {
    set_gblerr(ErrorCode::invalid_file);
    init_modules();
    EXPECT_FALSE(error_pending()) << "code " << gblerr.load();
    ASSERT_NE(log_path(), nullptr);
    EXPECT_EQ(std::string(log_path()), home_file("logs/zz_QLMX.log"));
    EXPECT_EQ(month_from_name("JAN"), 1) << "the month table is made";
}

TEST_F(StartUp, FatalErrorShowsTheFrenchBoxLogsTheCodeAndFails) {
    GTEST_FLAG_SET(death_test_style, "fast");
    if (!log_path()) log_set_path("QLMX");
    EXPECT_EXIT(
        {
            set_gblerr(ErrorCode::file_access);
            fatal_init_error();
        },
        ::testing::ExitedWithCode(fatal_init_status),
        "Erreur lors de l'initialisation: Erreur lors de l'initialisation\nFin de l'application");
    const std::string log = testing::read_file(home_file("logs/zz_QLMX.log"));
    EXPECT_TRUE(log.ends_with(std::string(stamp_hyphens, '-') + "\nErreur d'init : 2\n"))
        << "a stamped entry with the code:\n"
        << log;
}

TEST(ExitPath, EndsWithTheGivenStatusWhileAThreadRuns) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(
        {
            start_worker([](void*) { thread_sleep(60000); }, nullptr);
            exit_path(3);
        },
        ::testing::ExitedWithCode(3), "");
}

} // namespace
} // namespace norvanta
