// The error word: the texts of every code and class, the hold that keeps a
// code across clean-up, the message boxes and, each in a fresh process, the
// error log and the out-of-memory path.
#include "shell/errors.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "platform/headless/ui_headless.h"
#include "shell/config.h"
#include "shell/window.h"
#include "support/fresh_process.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

using testing::file_exists;
using testing::in_fresh_process;
using testing::read_file;
using testing::TestHome;
using testing::write_file;

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

constexpr int french = 1;
constexpr int english = 2;

TEST(ErrorTable, EveryCodeHasItsTwoTextsAndClass) {
    struct Row {
        int code;
        const char* french;
        const char* english;
        const char* class_french;
        const char* class_english;
    };
    const std::vector<Row> rows = {
        {0, "", "", "", ""},
        // The first and last rows, and the two whose odd texts are kept on purpose.
        {1, "Pas assez de memoire", "Not enough memory space", "Probleme memoire", "Memory error"},
        {12, "Erreur interne (valeur)", "Value internal error\n.", "Erreur interne",
         "Internal error"},
        {17, "Protocole non defini", "Undefine protocol", "Communication impossible",
         "No communication"},
        {19, "Erreur web http", "Web http error", "Communication impossible", "No communication"},
        // Outside the table: empty rather than read past its end.
        {-1, "", "", "", ""},
        {error_code_count, "", "", "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("code " + std::to_string(row.code));
        auto code = static_cast<ErrorCode>(row.code);
        EXPECT_STREQ(error_text_of(code, french), row.french);
        EXPECT_STREQ(error_text_of(code, english), row.english);
        EXPECT_STREQ(error_class_text_of(code, french), row.class_french);
        EXPECT_STREQ(error_class_text_of(code, english), row.class_english);
    }
}

TEST(ErrorHold, ClearsTheWordAndStoresTheNotedCodeAgain) {
    set_gblerr(ErrorCode::invalid_file);
    {
        ErrorHold hold;
        EXPECT_EQ(hold.code(), ErrorCode::invalid_file);
        EXPECT_FALSE(error_pending()) << "clear while held";
        set_gblerr(ErrorCode::object_internal);
    }
    EXPECT_EQ(current_error(), ErrorCode::invalid_file) << "the noted code wins";

    set_gblerr(ErrorCode::none);
    {
        ErrorHold hold;
        set_gblerr(ErrorCode::object_internal);
    }
    EXPECT_EQ(current_error(), ErrorCode::object_internal) << "nothing noted: a new code stands";

    set_gblerr(ErrorCode::unknown_format);
    {
        ErrorHold hold;
        hold.release();
    }
    EXPECT_FALSE(error_pending()) << "a released hold stores nothing";
}

TEST(MessageBox, ClearsTheWordAndShowsOnlyWithAMainWindow) {
    in_fresh_process([] {
        set_gblerr(ErrorCode::file_access);
        message_box("avant", "Titre");
        EXPECT_FALSE(error_pending()) << "cleared although no box was shown";
        set_gblerr(ErrorCode::file_access);
        message_box_wide(L"avant", L"Titre");
        EXPECT_FALSE(error_pending());
        EXPECT_TRUE(headless::boxes().empty()) << "nothing is shown before the main window";

        object_store_create();
        create_main_window();
        ASSERT_TRUE(main_window_exists());
        message_box("texte", "Titre");
        message_box_wide(L"large", L"Titre");
        EXPECT_EQ(headless::boxes(), (std::vector<std::string>{"Titre: texte", "Titre: large"}));
    });
}

// ---- the error log, each in a fresh process ----

// A home with the given configuration, the log path formed under it.
std::unique_ptr<TestHome> home_with(const std::string& configuration) {
    auto home = std::make_unique<TestHome>();
    home->make_current();
    write_file(home->file("norvanta.cfg"), configuration);
    config_use_file(home->file("norvanta.cfg").c_str());
    log_set_path("QLMX");
    return home;
}

// The log with each dated separator line (thirty hyphens, the time as
// "%d/%02d/%02d:%02d:%02d:%02d", thirty hyphens) replaced by "<stamp>".
std::string masked(const std::string& log) {
    const std::string hyphens(30, '-');
    std::string result;
    std::size_t start = 0;
    for (std::size_t end; (end = log.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = log.substr(start, end - start);
        int t[6] = {};
        char time[64] = {};
        if (std::sscanf(line.c_str(), "------------------------------%d/%d/%d:%d:%d:%d", &t[0],
                        &t[1], &t[2], &t[3], &t[4], &t[5]) == 6)
            std::snprintf(time, sizeof time, "%d/%02d/%02d:%02d:%02d:%02d", t[0], t[1], t[2], t[3],
                          t[4], t[5]);
        if (line == hyphens + time + hyphens && t[0] >= 2000 && t[1] >= 1 && t[1] <= 12)
            line = "<stamp>";
        result += line + "\n";
    }
    return result + log.substr(start);
}

TEST(ErrorLog, AnyLogerrorLineWritesDatedEntriesInTheConfiguredLanguage) {
    in_fresh_process([] {
        auto home = home_with("LANG ENGLISH\nLOGERROR 0\n");
        EXPECT_STREQ(log_path(), home->file("logs/zz_QLMX.log").c_str());
        log_entry("ERREUR get_obj_adr type 27 id 5");
        log_stamp();
        log_text("Unable to load ");
        log_line("wpt35.png");
        set_gblerr(ErrorCode::value_internal);
        EXPECT_STREQ(error_text(), "Value internal error\n.");
        log_and_keep_error(error_text());
        EXPECT_EQ(current_error(), ErrorCode::value_internal) << "a log write leaves the word";
        set_gblerr(ErrorCode::none);

        EXPECT_EQ(masked(read_file(home->file("logs/zz_QLMX.log"))),
                  "<stamp>\nERREUR get_obj_adr type 27 id 5\n<stamp>\nUnable to load wpt35.png\n"
                  "<stamp>\nValue internal error\n.\n");
    });
}

TEST(ErrorLog, WithoutLogerrorNoFileIsMade) {
    in_fresh_process([] {
        auto home = home_with("# LOGERROR\n LOGERROR\nLANG FRANCAIS\n");
        log_entry("off");
        log_stamp();
        log_text("off");
        log_line("off");
        EXPECT_FALSE(file_exists(home->file("logs/zz_QLMX.log")));
        set_gblerr(ErrorCode::undefined_protocol);
        EXPECT_STREQ(error_text(), "Protocole non defini");
        set_gblerr(ErrorCode::none);
        // Cached: a line added now does not turn it on.
        write_file(home->file("norvanta.cfg"), "LOGERROR\n");
        log_entry("still off");
        EXPECT_FALSE(file_exists(home->file("logs/zz_QLMX.log")));
    });
}

TEST(OutOfMemory, ShowsTheFrenchBoxLogsAnEmptyLineAndEnds) {
    in_fresh_process([] {
        auto home = home_with("LANG ENGLISH\nLOGERROR\n");
        object_store_create();
        create_main_window();
        ASSERT_TRUE(main_window_exists());
        const std::string stderr_path = home->file("stderr.txt");
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            dup2(open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
            out_of_memory();
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        EXPECT_EQ(read_file(stderr_path), "Plus de mémoire: Il n'y a plus de mémoire disponible.\n"
                                          "L'application va être fermée.\n")
            << "the French box, also in English";
        EXPECT_EQ(masked(read_file(home->file("logs/zz_QLMX.log"))), "<stamp>\n\n")
            << "the box cleared the word: the text of no error";
    });
}

} // namespace
} // namespace norvanta
