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

// Whatever the tests reach of the configuration in this process is formed
// under a private home, never the user's.
class PrivateHome : public ::testing::Environment {
  public:
    void SetUp() override {
        home_ = std::make_unique<TestHome>();
        home_->make_current();
    }
    void TearDown() override { home_.reset(); }

  private:
    std::unique_ptr<TestHome> home_;
};
[[maybe_unused]] ::testing::Environment* const private_home =
    ::testing::AddGlobalTestEnvironment(new PrivateHome);

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
        {1, "Pas assez de memoire", "Not enough memory space", "Probleme memoire", "Memory error"},
        {2, "Impossible d'acceder au fichier", "No access to the file", "Fichier invalide",
         "Invalid file"},
        {3, "Format inconnu", "Unknown format", "Format de fichier inconnu", "Unknown file format"},
        {4, "Erreur d'ouverture du port COM", "Open COM port error", "Communication impossible",
         "No communication"},
        {5, "Pas de communication", "No communication", "Communication impossible",
         "No communication"},
        {6, "Erreur lors de la transformation", "Transformation error", "Erreur interne",
         "Internal error"},
        {7, "Erreur lors du chargement", "Loading error", "Erreur de chargement", "Loading error"},
        {8, "Affichage impossible", "Display error", "Erreur d'affichage", "Display error"},
        {9, "Erreur lors de l'initialisation", "Initialisation error", "Erreur d'initialisation",
         "Initialisation error"},
        {10, "Erreur interne (objet)", "Object internal error", "Erreur interne", "Internal error"},
        {11, "Erreur du systeme d'exploitation", "OS error", "Erreur systeme", "System error"},
        {12, "Erreur interne (valeur)", "Value internal error\n.", "Erreur interne",
         "Internal error"},
        {13, "Probleme geographique", "Geographic error", "Erreur geographique",
         "Geographic error"},
        {14, "Fichier invalide", "Invalid file", "Fichier invalide", "Invalid file"},
        {15, "Parametres incorrects", "Wrong parameters", "Erreur applicative",
         "Application error"},
        {16, "Cas non traite", "Unknown error", "Erreur interne", "Internal error"},
        {17, "Protocole non defini", "Undefine protocol", "Communication impossible",
         "No communication"},
        {18, "Erreur de pile", "Heap error", "Probleme memoire", "Memory error"},
        {19, "Erreur web http", "Web http error", "Communication impossible", "No communication"},
    };
    ASSERT_EQ(rows.size(), static_cast<std::size_t>(error_code_count));
    for (const Row& row : rows) {
        SCOPED_TRACE("code " + std::to_string(row.code));
        auto code = static_cast<ErrorCode>(row.code);
        EXPECT_STREQ(error_text_of(code, french), row.french);
        EXPECT_STREQ(error_text_of(code, english), row.english);
        EXPECT_STREQ(error_class_text_of(code, french), row.class_french);
        EXPECT_STREQ(error_class_text_of(code, english), row.class_english);
    }
}

TEST(ErrorTable, ValuesOutsideTheTableReadAsEmpty) {
    for (int code : {-1, error_code_count, 1000}) {
        SCOPED_TRACE("code " + std::to_string(code));
        EXPECT_STREQ(error_text_of(static_cast<ErrorCode>(code), french), "");
        EXPECT_STREQ(error_class_text_of(static_cast<ErrorCode>(code), english), "");
    }
}

TEST(ErrorWord, TextIsTheCurrentCodesInTheLanguageInUse) {
    for (int code = 0; code < error_code_count; ++code) {
        SCOPED_TRACE("code " + std::to_string(code));
        set_gblerr(static_cast<ErrorCode>(code));
        EXPECT_STREQ(error_text(), error_text_of(static_cast<ErrorCode>(code), language_index()));
    }
    set_gblerr(ErrorCode::none);
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

    set_gblerr(ErrorCode::heap_error);
    log_and_keep_error("kept");
    EXPECT_EQ(current_error(), ErrorCode::heap_error);
    set_gblerr(ErrorCode::none);
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
        set_gblerr(ErrorCode::file_access);
        message_box("texte", "Titre");
        EXPECT_FALSE(error_pending());
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

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    if (start < text.size()) lines.push_back(text.substr(start));
    return lines;
}

// Thirty hyphens, the time as year/month/day:hour:minute:second with two
// digits but for the year, thirty hyphens. The middle must print back to
// itself, which pins the widths and the zeros.
bool is_separator_line(const std::string& line) {
    const std::string hyphens(30, '-');
    if (line.size() < 2 * hyphens.size() || line.rfind(hyphens, 0) != 0 ||
        line.compare(line.size() - hyphens.size(), hyphens.size(), hyphens) != 0)
        return false;
    std::string time = line.substr(hyphens.size(), line.size() - 2 * hyphens.size());
    int year, month, day, hour, minute, second;
    if (std::sscanf(time.c_str(), "%d/%d/%d:%d:%d:%d", &year, &month, &day, &hour, &minute,
                    &second) != 6)
        return false;
    char printed[64];
    std::snprintf(printed, sizeof printed, "%d/%02d/%02d:%02d:%02d:%02d", year, month, day, hour,
                  minute, second);
    return time == printed && year >= 2000 && month >= 1 && month <= 12 && day >= 1 && day <= 31 &&
           hour < 24 && minute < 60 && second < 61;
}

TEST(ErrorLog, EntriesAreADatedSeparatorAndTheirText) {
    in_fresh_process([] {
        auto home = home_with("LOGERROR\n");
        EXPECT_STREQ(log_path(), home->file("logs/zz_QLMX.log").c_str());
        log_entry("ERREUR get_obj_adr type 27 id 5");
        log_stamp();
        log_text("Unable to load ");
        log_line("wpt35.png");
        set_gblerr(ErrorCode::invalid_file);
        log_entry("");
        EXPECT_EQ(current_error(), ErrorCode::invalid_file) << "a log write leaves the word";
        set_gblerr(ErrorCode::none);

        std::string log = read_file(home->file("logs/zz_QLMX.log"));
        std::vector<std::string> lines = lines_of(log);
        ASSERT_EQ(lines.size(), 6u) << "two lines per entry:\n" << log;
        EXPECT_EQ(log.back(), '\n');
        for (std::size_t index : {0u, 2u, 4u})
            EXPECT_TRUE(is_separator_line(lines[index])) << lines[index];
        EXPECT_EQ(lines[1], "ERREUR get_obj_adr type 27 id 5");
        EXPECT_EQ(lines[3], "Unable to load wpt35.png");
        EXPECT_EQ(lines[5], "");
    });
}

TEST(ErrorLog, AnyLogerrorLineTurnsTheLogOn) {
    in_fresh_process([] {
        auto home = home_with("LANG ENGLISH\nLOGERROR 0\n");
        log_entry("on");
        EXPECT_EQ(lines_of(read_file(home->file("logs/zz_QLMX.log"))).size(), 2u);
    });
}

TEST(ErrorLog, WithoutLogerrorNoFileIsMade) {
    in_fresh_process([] {
        auto home = home_with("# LOGERROR\n LOGERROR\nLANG ENGLISH\n");
        log_entry("off");
        log_stamp();
        log_text("off");
        log_line("off");
        EXPECT_FALSE(file_exists(home->file("logs/zz_QLMX.log")));
        // Cached: a line added now does not turn it on.
        write_file(home->file("norvanta.cfg"), "LOGERROR\n");
        log_entry("still off");
        EXPECT_FALSE(file_exists(home->file("logs/zz_QLMX.log")));
    });
}

TEST(ErrorLog, TextFollowsTheConfiguredEnglish) {
    in_fresh_process([] {
        auto home = home_with("LANG ENGLISH\nLOGERROR\n");
        set_gblerr(ErrorCode::value_internal);
        EXPECT_STREQ(error_text(), "Value internal error\n.");
        log_and_keep_error(error_text());
        EXPECT_EQ(current_error(), ErrorCode::value_internal);
        set_gblerr(ErrorCode::none);
        std::vector<std::string> lines = lines_of(read_file(home->file("logs/zz_QLMX.log")));
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[1], "Value internal error");
        EXPECT_EQ(lines[2], ".");
    });
}

TEST(ErrorLog, TextFollowsTheConfiguredFrench) {
    in_fresh_process([] {
        auto home = home_with("LANG FRANCAIS\n");
        set_gblerr(ErrorCode::undefined_protocol);
        EXPECT_STREQ(error_text(), "Protocole non defini");
        set_gblerr(ErrorCode::none);
    });
}

// Runs out_of_memory in a forked child whose stderr goes to a file, and
// returns the child's exit status.
int run_out_of_memory(const std::string& stderr_path) {
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        int fd = open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        out_of_memory();
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

TEST(OutOfMemory, ShowsTheFrenchBoxLogsAnEmptyLineAndEnds) {
    in_fresh_process([] {
        auto home = home_with("LANG ENGLISH\nLOGERROR\n");
        object_store_create();
        create_main_window();
        ASSERT_TRUE(main_window_exists());
        int status = run_out_of_memory(home->file("stderr.txt"));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        EXPECT_EQ(read_file(home->file("stderr.txt")),
                  "Plus de mémoire: Il n'y a plus de mémoire disponible.\n"
                  "L'application va être fermée.\n")
            << "the French box, also in English";
        std::vector<std::string> lines = lines_of(read_file(home->file("logs/zz_QLMX.log")));
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_TRUE(is_separator_line(lines[0])) << lines[0];
        EXPECT_EQ(lines[1], "") << "the box cleared the word: the text of no error";
    });
}

} // namespace
} // namespace norvanta
