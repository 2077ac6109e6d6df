// Start-up pieces that can run inside a test process: the module start-up,
// and the fatal path in a child process with its log entry.
#include "shell/main.h"

#include <string>

#include <gtest/gtest.h>

#include "shell/config.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

constexpr int separator_hyphens = 30;

class StartUp : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        home_ = new testing::TestHome;
        home_->make_current();
        // The error log is on for this whole process.
        testing::write_file(home_->file("norvanta.cfg"), "LOGERROR\n");
    }
    static void TearDownTestSuite() {
        delete home_;
        home_ = nullptr;
    }
    static testing::TestHome* home_;
};
testing::TestHome* StartUp::home_ = nullptr;

TEST_F(StartUp, ModulesComeUpWithAPendingErrorCleared) {
    set_gblerr(ErrorCode::invalid_file);
    init_modules();
    EXPECT_FALSE(error_pending()) << "code " << gblerr.load();
    ASSERT_NE(log_path(), nullptr);
    EXPECT_EQ(std::string(log_path()), home_->file("logs/zz_QLMX.log"));
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

    std::string log = testing::read_file(home_->file("logs/zz_QLMX.log"));
    const std::string hyphens(separator_hyphens, '-');
    const std::string entry = "Erreur d'init : 2\n";
    ASSERT_GE(log.size(), entry.size()) << log;
    EXPECT_EQ(log.substr(log.size() - entry.size()), entry) << log;
    std::size_t stamp_end = log.size() - entry.size();
    std::size_t stamp_start = log.rfind('\n', stamp_end - 2);
    std::string stamp =
        log.substr(stamp_start == std::string::npos ? 0 : stamp_start + 1,
                   stamp_end - (stamp_start == std::string::npos ? 0 : stamp_start + 1));
    EXPECT_EQ(stamp.substr(0, separator_hyphens), hyphens) << stamp;
    EXPECT_EQ(stamp.substr(stamp.size() - 1 - separator_hyphens), hyphens + "\n") << stamp;
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
