// The configuration: the scan of the file, the rules of the cached settings,
// the directory checks, the temporary directory's cleaning, and, each in a
// fresh process, the finding and seeding of the file and the caching.
#include "shell/config.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "shell/errors.h"
#include "support/fresh_process.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

using namespace std::string_literals;
using testing::file_exists;
using testing::in_fresh_process;
using testing::read_file;
using testing::TestHome;
using testing::write_file;

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

TEST(ConfigScan, FindsTheFirstLineThatBeginsWithTheKey) {
    struct Row {
        const char* description;
        std::string content;
        const char* key;
        bool found;
        std::string value;
    };
    const std::string long_run(config_line_limit, 'x');
    const std::string tail(600 - config_line_limit - 5, 'v');
    const std::vector<Row> rows = {
        {"blanks and tabs before the value go, those after stay", "LANG \t ENGLISH  \n", "LANG",
         true, "ENGLISH  "},
        {"a key alone gives the empty value, not null", "LOGERROR\n", "LOGERROR", true, ""},
        {"last line without a line end", "A 1\nMAXMEM 50", "MAXMEM", true, "50"},
        {"the key is a prefix, and the first match wins", "LANGUAGE FR\nLANG ENGLISH\n", "LANG",
         true, "UAGE FR"},
        {"the key must stand in column 0", " LANG ENGLISH\n\tLANG X\n", "LANG", false, ""},
        {"the active key does not match an inactive line",
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n", "ACTIVE_NMEA_UDP_DIFFUSE_ADR1", false,
         ""},
        {"empty file", "", "LANG", false, ""},
        {"CR LF: no CR in the value", "A 1\r\nLANG x\r\nB 2\r\n", "LANG", true, "x"},
        {"LF CR line ends", "A 1\n\rLANG x\n\rB 2", "LANG", true, "x"},
        {"CR CR is two line ends", "A 1\r\rLANG x\r", "LANG", true, "x"},
        {"in a 600-character line, a key at column 497 starts a line of its own",
         long_run + "LANG " + tail + "\n", "LANG", true, tail},
        {"a key at column 496 stays inside the first line",
         std::string(config_line_limit - 1, 'x') + "LANG ENGLISH\n", "LANG", false, ""},
        {"a value is cut where the line is cut", "LANG " + std::string(600, 'v') + "\n", "LANG",
         true, std::string(config_line_limit - 5, 'v')},
        {"a line of exactly 497 characters, then its line end", long_run + "\nLANG x\n", "LANG",
         true, "x"},
        {"NUL inside the key spoils the match", "LA\0NG x\nLANG y\n"s, "LANG", true, "y"},
        {"NUL ends the value", "LANG a\0b\n"s, "LANG", true, "a"},
        {"binary bytes before the line", "\xff\xfe\0\x01\x1a\nLANG z\n"s, "LANG", true, "z"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        std::FILE* file = std::tmpfile();
        ASSERT_NE(file, nullptr);
        std::fwrite(row.content.data(), 1, row.content.size(), file);
        std::rewind(file);
        char value[config_value_capacity];
        std::memset(value, '#', sizeof value);
        EXPECT_EQ(config_scan(file, row.key, value), row.found);
        if (row.found) {
            EXPECT_EQ(std::string(value), row.value);
        }
        std::fclose(file);
    }
}

// The rules behind the cached settings, each answer as text so that one table
// holds them all.
std::string megabytes(const char* value) {
    return std::to_string(max_memory_from(value));
}
std::string web(const char* value) {
    return web_setting_from(value);
}
std::string french_user(const char* value) {
    return language_code_from(value, true);
}
std::string english_user(const char* value) {
    return language_code_from(value, false);
}
std::string rgb(const char* value) {
    char text[16];
    std::snprintf(text, sizeof text, "%06X", background_colour_from(value));
    return text;
}

TEST(ConfigSettings, RulesOnTheValues) {
    struct Row {
        const char* description;
        std::string (*rule)(const char*);
        const char* value;
        std::string expected;
    };
    const Row rows[] = {
        {"MAXMEM absent", megabytes, nullptr, "1000"},
        {"MAXMEM below the floor", megabytes, "50", "100"},
        {"MAXMEM letters read as 0", megabytes, "abc", "1000"},
        {"MAXMEM with leading blanks and a unit", megabytes, "  300MB", "300"},
        {"MAXMEM: 0.1 is added before truncation", megabytes, "250.95", "251"},
        {"MAXMEM truncated, not rounded", megabytes, "250.85", "250"},
        {"MAXMEM: a fraction that truncates to 0", megabytes, "0.5", "1000"},
        {"MAXMEM: a fraction that truncates to 1", megabytes, "0.95", "100"},
        {"MAXMEM at the ceiling after rounding", megabytes, "1000.95", "1000"},
        {"MAXMEM too large to truncate", megabytes, "1e30", "1000"},
        {"MAXMEM too negative to truncate", megabytes, "-1e30", "100"},
        {"MAXMEM not a number", megabytes, "nan", "1000"},
        {"colour absent", rgb, nullptr, "C8C8C8"},
        {"colour of three numbers", rgb, "10 20 30", "0A141E"},
        {"colour of two numbers: blue stays 200", rgb, "10 20", "0A14C8"},
        {"colour: a word stops the reading", rgb, "10 x 30", "0AC8C8"},
        {"colour: the low byte of each", rgb, "300 -1 256", "2CFF00"},
        {"no HTTP line: direct", web, nullptr, "1"},
        {"HTTP through a proxy", web, "PROXY host 8080", "2 host 8080"},
        {"HTTP from the first blank behind PROXY", web, "PROXYhost 8080", "2 8080"},
        {"HTTP PROXY alone", web, "PROXY", "2"},
        {"HTTP any other value: its first character becomes 0", web, "DIRECT", "0IRECT"},
        {"HTTP empty turns the web off", web, "", "0"},
        {"FRANCAIS over an English user", english_user, "FRANCAIS", "FR"},
        {"ENGLISH over a French user", french_user, "ENGLISH", "EN"},
        {"LANG with a trailing blank falls through", french_user, "ENGLISH ", "FR"},
        {"LANG with a longer word falls through", english_user, "FRANCAISE", "EN"},
        {"LANG absent: the user's language, French", french_user, nullptr, "FR"},
        {"LANG absent: the user's language, English", english_user, nullptr, "EN"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(row.rule(row.value), row.expected);
    }
}

TEST(ConfigKeys, EveryKeyIsListedInOrderAndNoneIsAPrefixOfAnother) {
    std::vector<std::string> expected = {
        "BACK_COLOR_RGB", "LOGERROR",         "HTTP",     "LANG",         "MONOTHREAD",
        "MAXMEM",         "REDUCE_IMAGE_DIR", "TEMP_DIR", "NAVIG_LOG_DIR", "NMEA_ANY_TALKER"};
    for (const char* kind : {"ACTIVE", "INACTIVE"})
        for (int slot = 1; slot <= 9; ++slot)
            expected.push_back(kind + "_NMEA_UDP_DIFFUSE_ADR"s + std::to_string(slot));
    std::vector<std::string> names;
    for (const ConfigKeyInfo& key : config_known_keys())
        names.emplace_back(key.name);
    EXPECT_EQ(names, expected);
    // A key that is a prefix of another would take that key's lines.
    for (const std::string& key : names)
        for (const std::string& other : names)
            EXPECT_TRUE(&key == &other || other.rfind(key, 0) != 0) << key << " / " << other;
}

TEST(ConfigDirectory, AcceptsOnlyAbsoluteLocalDirectoriesAndMakesOneLevel) {
    TestHome home;
    std::string directory = "untouched";
    EXPECT_FALSE(directory_from_value(nullptr, directory));
    EXPECT_FALSE(directory_from_value("", directory));
    EXPECT_FALSE(directory_from_value("relative/dir", directory));
    EXPECT_EQ(directory, "untouched") << "a refusal leaves the directory as it was";

    std::string existing = home.path() + "existing";
    ASSERT_EQ(mkdir(existing.c_str(), 0700), 0);
    EXPECT_TRUE(directory_from_value(existing.c_str(), directory));
    EXPECT_EQ(directory, existing + "/") << "a separator is added";

    EXPECT_TRUE(directory_from_value((home.path() + "made/").c_str(), directory));
    EXPECT_EQ(directory, home.path() + "made/") << "no second separator";
    EXPECT_TRUE(os::is_directory((home.path() + "made").c_str())) << "one missing level is made";

    EXPECT_FALSE(directory_from_value((home.path() + "a/b").c_str(), directory));
    EXPECT_EQ(directory, "") << "two missing levels: the answer is emptied";
    EXPECT_FALSE(file_exists(home.path() + "a"));
}

TEST(ConfigTemp, CleaningSparesTheFilesOfRunningInstances) {
    TestHome home;
    const long own = static_cast<long>(getpid());
    const long running = static_cast<long>(getppid());
    // A child that has ended and been waited for: a number no process has.
    const pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    const long ended = static_cast<long>(child);
    ASSERT_TRUE(os::process_alive(running));
    ASSERT_FALSE(os::process_alive(ended));
    struct Row {
        const char* description;
        std::string name;
        bool kept;
    };
    const std::vector<Row> rows = {
        {"a running instance's swap file", std::to_string(running) + "_12_0", true},
        {"an ended instance's swap file", std::to_string(ended) + "_12_0", false},
        {"a file of our own number, left by an earlier process", std::to_string(own) + "_3_0",
         false},
        {"a name without a process number", "notes.txt", false},
        {"digits without the underscore", std::to_string(running), false},
    };
    for (const Row& row : rows)
        write_file(home.file(row.name), "page");
    ASSERT_EQ(mkdir(home.file("subdirectory").c_str(), 0700), 0);

    clean_temp_directory(home.path().c_str(), own);

    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(file_exists(home.file(row.name)), row.kept);
    }
    EXPECT_TRUE(os::is_directory(home.file("subdirectory").c_str())) << "only files are removed";
    EXPECT_GE(process_count(), 1) << "this program counts itself";
}

// ---- fresh processes ----

// A private home and, inside it, a program directory with a system/ folder, so
// that the files beside the program are the test's own.
struct FreshHome : TestHome {
    std::string program = path() + "program/";
    FreshHome() {
        make_current();
        mkdir(program.c_str(), 0700);
        mkdir((program + "system").c_str(), 0700);
        set_program_dir((program + "norvanta-cli").c_str());
    }
};

TEST(ConfigProcess, SeedsTheUserCopyFromTheExampleOnce) {
    in_fresh_process([] {
        FreshHome home;
        const std::string example = "MAXMEM 50\r\nLANG ENGLISH\r\n# note\r\n";
        write_file(home.program + "system/norvanta_exemple.cfg", example);
        EXPECT_STREQ(system_dir(), (home.program + "system/").c_str());
        EXPECT_STREQ(user_data_dir(), home.path().c_str()) << "NORVANTA_HOME is the data dir";
        const char* value = config_get("MAXMEM");
        EXPECT_STREQ(value ? value : "(null)", "50");
        EXPECT_STREQ(config_path(), home.file("norvanta.cfg").c_str());
        EXPECT_EQ(read_file(home.file("norvanta.cfg")), example) << "a byte-for-byte copy";
        EXPECT_EQ(max_memory(), 100);
        EXPECT_EQ(language_index(), 2);

        // The file is read anew at each look-up; the cached settings stay.
        write_file(home.file("norvanta.cfg"), "MAXMEM 300\nLANG FRANCAIS\n");
        value = config_get("MAXMEM");
        EXPECT_STREQ(value ? value : "(null)", "300");
        EXPECT_EQ(max_memory(), 100);
        EXPECT_STREQ(language_code(), "EN");
    });
}

TEST(ConfigProcess, TheFileBesideTheProgramWinsOverTheExample) {
    in_fresh_process([] {
        FreshHome home;
        write_file(home.program + "system/norvanta.cfg", "LANG FRANCAIS\n");
        write_file(home.program + "system/norvanta_exemple.cfg", "LANG ENGLISH\n");
        EXPECT_EQ(language_index(), 1);
        EXPECT_EQ(read_file(home.file("norvanta.cfg")), "LANG FRANCAIS\n");
    });
}

TEST(ConfigProcess, TheUsersCopyIsNeverReplaced) {
    in_fresh_process([] {
        FreshHome home;
        write_file(home.file("norvanta.cfg"), "LANG ENGLISH\n");
        write_file(home.program + "system/norvanta.cfg", "LANG FRANCAIS\n");
        EXPECT_STREQ(language_code(), "EN");
        EXPECT_EQ(read_file(home.file("norvanta.cfg")), "LANG ENGLISH\n");
    });
}

TEST(ConfigProcess, WithoutAnyFileEveryDefaultHolds) {
    in_fresh_process([] {
        FreshHome home;
        for (const ConfigKeyInfo& key : config_known_keys())
            EXPECT_EQ(config_get(key.name), nullptr) << key.name;
        EXPECT_STREQ(config_path(), home.file("norvanta.cfg").c_str());
        EXPECT_FALSE(file_exists(home.file("norvanta.cfg")));
        EXPECT_EQ(max_memory(), 1000);
        EXPECT_STREQ(web_setting(), "1");
        EXPECT_EQ(background_colour(), 0xC8C8C8u);
        EXPECT_FALSE(error_log_enabled());
        EXPECT_FALSE(monothread());
        EXPECT_EQ(reduced_image_dir(), nullptr);
        EXPECT_STREQ(log_dir(), home.file("logs/").c_str());
        EXPECT_TRUE(os::is_directory(log_dir()));
        EXPECT_STREQ(nav_log_dir(), log_dir());
    });
}

TEST(ConfigProcess, AGivenFileIsUsedAndNothingIsSeeded) {
    in_fresh_process([] {
        FreshHome home;
        write_file(home.program + "system/norvanta_exemple.cfg", "MAXMEM 200\n");
        write_file(home.file("given.cfg"), "MONOTHREAD\nHTTP PROXY cache.lan 3128\n");
        config_use_file(home.file("given.cfg").c_str());
        EXPECT_STREQ(config_path(), home.file("given.cfg").c_str());
        EXPECT_TRUE(monothread());
        EXPECT_STREQ(web_setting(), "2 cache.lan 3128");
        EXPECT_EQ(max_memory(), 1000);
        EXPECT_FALSE(file_exists(home.file("norvanta.cfg")));
    });
}

TEST(ConfigProcess, ConfiguredDirectoriesAreMadeOrRefusedWithALogEntry) {
    in_fresh_process([] {
        FreshHome home;
        write_file(home.file("norvanta.cfg"),
                   "LOGERROR\nLANG ENGLISH\nTEMP_DIR scratch/temp\nNAVIG_LOG_DIR " + home.path() +
                       "nav\nREDUCE_IMAGE_DIR " + home.path() + "images/\n");
        log_set_path("QLMX");
        EXPECT_STREQ(nav_log_dir(), home.file("nav/").c_str());
        EXPECT_TRUE(os::is_directory(home.file("nav").c_str()));
        EXPECT_STREQ(reduced_image_dir(), home.file("images/v2/").c_str());
        const std::string pid = std::to_string(getpid());
        EXPECT_STREQ(temp_prefix(), (home.path() + "cache/Norvanta/" + pid + "_").c_str())
            << "a refused TEMP_DIR gives the default";
        const std::string log = read_file(home.file("logs/zz_QLMX.log"));
        EXPECT_NE(log.find("\nFile <scratch/temp> is not on a local harddrive\n"),
                  std::string::npos)
            << log;
    });
}

TEST(ConfigProcess, FirstUseFromManyThreadsAgrees) {
    in_fresh_process([] {
        FreshHome home;
        write_file(home.program + "system/norvanta_exemple.cfg",
                   "LOGERROR\nLANG FRANCAIS\nMAXMEM 300\nNAVIG_LOG_DIR " + home.path() +
                       "nav\nTEMP_DIR " + home.path() + "temp\n");
        log_set_path("QLMX");
        constexpr int thread_count = 8;
        struct Seen {
            std::string lang;
            int index;
            int megabytes;
            const char* nav;
            const char* temp;
        };
        std::vector<Seen> seen(thread_count);
        std::vector<std::thread> threads;
        for (int slot = 0; slot < thread_count; ++slot)
            threads.emplace_back([&seen, slot] {
                const char* lang = config_get("LANG");
                seen[static_cast<std::size_t>(slot)] = {lang ? lang : "(null)", language_index(),
                                                        max_memory(), nav_log_dir(), temp_prefix()};
                log_entry("entry");
            });
        for (std::thread& thread : threads)
            thread.join();
        for (const Seen& one : seen) {
            EXPECT_EQ(one.lang, "FRANCAIS");
            EXPECT_EQ(one.index, 1);
            EXPECT_EQ(one.megabytes, 300);
            EXPECT_EQ(one.nav, seen[0].nav) << "one published directory";
            EXPECT_EQ(one.temp, seen[0].temp);
        }
        EXPECT_STREQ(seen[0].nav, home.file("nav/").c_str());
        const std::string pid = std::to_string(getpid());
        EXPECT_STREQ(seen[0].temp, (home.path() + "temp/Norvanta/" + pid + "_").c_str());
        const std::string log = read_file(home.file("logs/zz_QLMX.log"));
        std::size_t entries = 0;
        for (std::size_t at = 0; (at = log.find("\nentry\n", at)) != std::string::npos; ++at)
            ++entries;
        EXPECT_EQ(entries, static_cast<std::size_t>(thread_count)) << log;
    });
}

} // namespace
} // namespace norvanta
