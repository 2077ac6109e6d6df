// The Linux operating system layer: the language from the locale variables,
// the home and XDG directories, /proc process counting, the local-disk test,
// directory making and file copying.
#include "platform/os.h"

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_home.h"

extern char** environ;

namespace norvanta {
namespace {

using testing::file_exists;
using testing::read_file;
using testing::TestHome;
using testing::write_file;

// Sets or unsets variables for the life of the object, then puts them back.
class ScopedEnvironment {
  public:
    ScopedEnvironment(std::initializer_list<std::pair<const char*, const char*>> values) {
        for (const auto& [name, value] : values) {
            const char* old = std::getenv(name);
            saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
            value ? setenv(name, value, 1) : unsetenv(name);
        }
    }
    ~ScopedEnvironment() {
        for (const auto& [name, value] : saved_) {
            value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
        }
    }

  private:
    std::map<std::string, std::optional<std::string>> saved_;
};

TEST(OsLanguage, TheFirstSetVariableDecides) {
    struct Row {
        const char* description;
        const char* lc_all;
        const char* lc_messages;
        const char* lang;
        bool french;
    };
    const Row rows[] = {
        {"LANG French", nullptr, nullptr, "fr_FR.UTF-8", true},
        {"LANG Basque", nullptr, nullptr, "eu_ES.UTF-8", true},
        {"nothing set", nullptr, nullptr, nullptr, false},
        {"LC_ALL over LANG", "C", nullptr, "fr_FR.UTF-8", false},
        {"LC_MESSAGES over LANG", nullptr, "fr_CA.UTF-8", "en_US.UTF-8", true},
        {"LC_ALL over LC_MESSAGES", "en_US", "fr_FR", nullptr, false},
        {"an empty variable is passed over", "", "", "fr_CH", true},
        {"upper case is not a language code", nullptr, nullptr, "FR", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        ScopedEnvironment environment{
            {"LC_ALL", row.lc_all}, {"LC_MESSAGES", row.lc_messages}, {"LANG", row.lang}};
        EXPECT_EQ(os::user_language_is_french(), row.french);
    }
}

TEST(OsDirectories, NorvantaHomeThenXdgThenTheHome) {
    TestHome home;
    const std::string previous = os::absolute_path("");
    ASSERT_EQ(chdir(home.path().c_str()), 0);
    {
        ScopedEnvironment environment{{"NORVANTA_HOME", "relative"}};
        EXPECT_EQ(os::user_data_base(), home.file("relative/")) << "made absolute";
        EXPECT_EQ(os::user_local_base(), home.file("relative/cache/"));
        EXPECT_TRUE(os::is_directory(home.file("relative/cache").c_str())) << "made if need be";
    }
    {
        ScopedEnvironment environment{{"NORVANTA_HOME", nullptr},
                                      {"XDG_CONFIG_HOME", home.file("config").c_str()},
                                      {"XDG_CACHE_HOME", home.file("cache").c_str()}};
        EXPECT_EQ(os::user_data_base(), home.file("config/"));
        EXPECT_EQ(os::user_local_base(), home.file("cache/"));
    }
    {
        ScopedEnvironment environment{{"NORVANTA_HOME", nullptr},
                                      {"HOME", home.path().c_str()},
                                      {"XDG_CONFIG_HOME", "relative/is/ignored"},
                                      {"XDG_CACHE_HOME", nullptr}};
        EXPECT_EQ(os::user_data_base(), home.file(".config/"));
        EXPECT_EQ(os::user_local_base(), home.file(".cache/"));
        EXPECT_TRUE(os::is_directory(home.file(".config/").c_str()));
    }
    ASSERT_EQ(chdir(previous.c_str()), 0);
}

TEST(OsProcesses, CountsByNameCutTo15CharactersIgnoringCase) {
    // /bin/sleep under another name: its /proc/*/comm is that name cut to 15 characters.
    TestHome home;
    std::string link = home.file("norvanta-count-check");
    ASSERT_EQ(symlink("/bin/sleep", link.c_str()), 0);
    std::string seconds = "60";
    std::vector<char*> argv{link.data(), seconds.data(), nullptr};
    pid_t pid = 0;
    // glibc returns from posix_spawn once the child has run exec.
    ASSERT_EQ(posix_spawn(&pid, link.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    EXPECT_EQ(os::process_count("norvanta-count-check"), 1);
    EXPECT_EQ(os::process_count("NORVANTA-COUNT-CHECK"), 1) << "case is ignored";
    EXPECT_EQ(os::process_count("norvanta-count-"), 1) << "the 15 characters the kernel keeps";
    EXPECT_EQ(os::process_count("norvanta-count"), 0) << "a shorter name is another name";
    EXPECT_TRUE(os::process_alive(pid));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    EXPECT_FALSE(os::process_alive(pid)) << "ended and waited for";
    EXPECT_TRUE(os::process_alive(os::process_id()));
    EXPECT_FALSE(os::process_alive(0));
    EXPECT_FALSE(os::process_alive(-1));
}

TEST(OsFiles, MakeParentDirectoriesMakesEveryLevel) {
    TestHome home;
    EXPECT_TRUE(os::make_parent_directories(home.file("a/b/c/file.txt").c_str()));
    EXPECT_TRUE(os::is_directory(home.file("a/b/c").c_str()));
    EXPECT_FALSE(file_exists(home.file("a/b/c/file.txt")));
    EXPECT_TRUE(os::make_parent_directories(home.file("d/e/").c_str()));
    EXPECT_TRUE(os::is_directory(home.file("d/e").c_str()));
    write_file(home.file("plain"), "x");
    EXPECT_FALSE(os::make_parent_directories(home.file("plain/f/g.txt").c_str()))
        << "a file stands in the way";

    EXPECT_FALSE(os::make_directory(home.file("x/y").c_str())) << "one level only";
    EXPECT_TRUE(os::make_directory(home.file("x").c_str()));
    EXPECT_TRUE(os::make_directory(home.file("x").c_str())) << "already there";
    EXPECT_FALSE(os::make_directory(home.file("plain").c_str())) << "a file of that name";
}

TEST(OsFiles, CopyIsByteForByte) {
    TestHome home;
    std::string content;
    for (int index = 0; index < 200000; ++index)
        content += static_cast<char>(index * 7 % 256);
    write_file(home.file("source"), content);
    EXPECT_TRUE(os::copy_file(home.file("source").c_str(), home.file("copy").c_str()));
    EXPECT_EQ(read_file(home.file("copy")), content);

    EXPECT_FALSE(os::copy_file(home.file("missing").c_str(), home.file("copy2").c_str()));
    EXPECT_FALSE(file_exists(home.file("copy2")));
    EXPECT_FALSE(os::copy_file(home.file("source").c_str(), home.file("no/dir/copy").c_str()));
}

TEST(OsFiles, LocalDiskNeedsAnAbsolutePath) {
    TestHome home;
    EXPECT_TRUE(os::is_local_disk(home.path().c_str()));
    EXPECT_TRUE(os::is_local_disk(home.file("not/yet/made").c_str()))
        << "judged by the nearest existing directory";
    EXPECT_FALSE(os::is_local_disk("relative/path"));
    EXPECT_FALSE(os::is_local_disk(""));
}

TEST(OsFiles, ListingsAndPaths) {
    TestHome home;
    write_file(home.file("one"), "1");
    write_file(home.file("two"), "2");
    ASSERT_TRUE(os::make_directory(home.file("three").c_str()));
    std::set<std::string> names;
    os::list_directory(home.path().c_str(), [&](const char* name) { names.insert(name); });
    EXPECT_EQ(names, (std::set<std::string>{"one", "two", "three"}));
    EXPECT_FALSE(os::list_directory_raw(home.file("missing").c_str(), nullptr, nullptr));

    EXPECT_EQ(os::absolute_path("/already/absolute"), "/already/absolute");
    EXPECT_EQ(os::absolute_path("some/file"), std::filesystem::current_path() / "some/file");
    EXPECT_TRUE(os::executable_path().ends_with("/os_posix_test")) << os::executable_path();
}

TEST(OsMemory, FiguresAreConsistent) {
    os::MemoryFigures figures = os::memory_figures();
    EXPECT_GT(figures.physical_total_mb, 0u);
    EXPECT_LE(figures.physical_free_mb, figures.physical_total_mb);
    EXPECT_LE(figures.working_set_mb, figures.physical_total_mb);
}

} // namespace
} // namespace norvanta
