// The configuration: the scan of the file, the rules of the cached settings,
// the directory checks, the temporary directory's cleaning, and, each in a
// fresh process, the finding and seeding of the file and the caching.
#include "shell/config.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
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

struct ScanResult {
    bool found;
    std::string value;
};

ScanResult scan(const std::string& content, const char* key) {
    std::FILE* file = std::tmpfile();
    if (!file) {
        ADD_FAILURE() << "no temporary file";
        return {false, ""};
    }
    std::fwrite(content.data(), 1, content.size(), file);
    std::rewind(file);
    char value[config_value_capacity];
    std::memset(value, '#', sizeof value);
    bool found = config_scan(file, key, value);
    std::fclose(file);
    return {found, found ? std::string(value) : std::string()};
}

struct ScanRow {
    const char* description;
    std::string content;
    const char* key;
    bool found;
    std::string value;
};

TEST(ConfigScan, FindsTheFirstLineThatBeginsWithTheKey) {
    const std::string long_run(config_line_limit, 'x');
    const std::vector<ScanRow> rows = {
        {"value behind blanks and tabs", "LANG \t ENGLISH\n", "LANG", true, "ENGLISH"},
        {"trailing blanks stay in the value", "LANG ENGLISH  \n", "LANG", true, "ENGLISH  "},
        {"a key alone gives the empty value, not null", "LOGERROR\n", "LOGERROR", true, ""},
        {"a key with blanks only gives the empty value", "LOGERROR \t \n", "LOGERROR", true, ""},
        {"last line without a line end", "A 1\nMAXMEM 50", "MAXMEM", true, "50"},
        {"the key is a prefix: LANG matches LANGUAGE", "LANGUAGE FR\n", "LANG", true, "UAGE FR"},
        {"first match wins, even a longer key", "LANGUAGE X\nLANG ENGLISH\n", "LANG", true,
         "UAGE X"},
        {"first match wins", "LANG FRANCAIS\nLANG ENGLISH\n", "LANG", true, "FRANCAIS"},
        {"the key must stand in column 0", " LANG ENGLISH\n\tLANG X\n", "LANG", false, ""},
        {"the active key does not match an inactive line",
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n", "ACTIVE_NMEA_UDP_DIFFUSE_ADR1", false,
         ""},
        {"the inactive key finds its line after an active one",
         "ACTIVE_NMEA_UDP_DIFFUSE_ADR1 a 1\nINACTIVE_NMEA_UDP_DIFFUSE_ADR1 b 2\n",
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1", true, "b 2"},
        {"a note line is skipped", "# LANG FRANCAIS\nLANG ENGLISH\n", "LANG", true, "ENGLISH"},
        {"no such key", "A 1\nB 2\n", "LANG", false, ""},
        {"empty file", "", "LANG", false, ""},
        {"CR line ends", "A 1\rLANG x\rB 2\r", "LANG", true, "x"},
        {"CR LF: no CR in the value", "A 1\r\nLANG x\r\nB 2\r\n", "LANG", true, "x"},
        {"LF CR line ends", "A 1\n\rLANG x\n\rB 2", "LANG", true, "x"},
        {"CR CR is two line ends", "A 1\r\rLANG x\r", "LANG", true, "x"},
        {"LF LF is two line ends", "A 1\n\nLANG x\n", "LANG", true, "x"},
        {"a key at column 497 of a long line starts a line of its own",
         long_run + "LANG " + std::string(600 - config_line_limit - 5, 'v') + "\n", "LANG", true,
         std::string(600 - config_line_limit - 5, 'v')},
        {"a key at column 496 stays inside the first line",
         std::string(config_line_limit - 1, 'x') + "LANG ENGLISH\n", "LANG", false, ""},
        {"a key at column 994 starts the third line", long_run + long_run + "LANG ENGLISH\n",
         "LANG", true, "ENGLISH"},
        {"a value is cut where the line is cut", "LANG " + std::string(600, 'v') + "\n", "LANG",
         true, std::string(config_line_limit - 5, 'v')},
        {"a line of exactly 497 characters, then its line end", long_run + "\nLANG x\n", "LANG",
         true, "x"},
        {"NUL inside the key spoils the match", "LA\0NG x\nLANG y\n"s, "LANG", true, "y"},
        {"NUL ends the value", "LANG a\0b\n"s, "LANG", true, "a"},
        {"binary bytes before the line", "\xff\xfe\0\x01\x1a\nLANG z\n"s, "LANG", true, "z"},
        {"NUL at the start of a line", "\0LANG x\nLANG y"s, "LANG", true, "y"},
    };
    for (const ScanRow& row : rows) {
        SCOPED_TRACE(row.description);
        ScanResult result = scan(row.content, row.key);
        EXPECT_EQ(result.found, row.found);
        EXPECT_EQ(result.value, row.value);
    }
}

TEST(ConfigSettings, MaxMemoryIsBoundedAndRounded) {
    struct Row {
        const char* description;
        const char* value;
        int megabytes;
    };
    const Row rows[] = {
        {"absent", nullptr, 1000},
        {"empty", "", 1000},
        {"zero", "0", 1000},
        {"below the floor", "50", 100},
        {"above the ceiling", "5000", 1000},
        {"letters read as 0", "abc", 1000},
        {"in range", "300", 300},
        {"leading blanks and a unit", "  300MB", 300},
        {"0.1 is added before truncation", "250.95", 251},
        {"truncated, not rounded", "250.85", 250},
        {"a fraction that truncates to 0", "0.5", 1000},
        {"a fraction that truncates to 1", "0.95", 100},
        {"negative", "-5", 100},
        {"at the ceiling after rounding", "1000.95", 1000},
        {"too large to truncate", "1e30", 1000},
        {"not a number", "nan", 1000},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(max_memory_from(row.value), row.megabytes);
    }
}

TEST(ConfigSettings, BackgroundColourKeepsWhatParsesAndItsLowByte) {
    struct Row {
        const char* description;
        const char* value;
        uint32_t rgb;
    };
    const Row rows[] = {
        {"absent", nullptr, 0xC8C8C8},
        {"empty", "", 0xC8C8C8},
        {"three numbers", "10 20 30", 0x0A141E},
        {"two numbers: blue stays 200", "10 20", 0x0A14C8},
        {"a word stops the reading", "10 x 30", 0x0AC8C8},
        {"letters only", "abc", 0xC8C8C8},
        {"tabs between", "1\t2\t3", 0x010203},
        {"the low byte of each", "300 -1 256", 0x2CFF00},
        {"a sign", "+5 5 5", 0x050505},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(background_colour_from(row.value), row.rgb);
    }
}

TEST(ConfigSettings, WebSettingTellsDirectProxyOrNone) {
    struct Row {
        const char* description;
        const char* value;
        const char* setting;
    };
    const Row rows[] = {
        {"no HTTP line: direct", nullptr, "1"},
        {"a proxy", "PROXY host 8080", "2 host 8080"},
        {"from the first blank behind PROXY", "PROXYhost 8080", "2 8080"},
        {"PROXY alone", "PROXY", "2"},
        {"any other value: its first character becomes 0", "DIRECT", "0IRECT"},
        {"lower case is another value", "proxy host 80", "0roxy host 80"},
        {"an empty value turns the web off", "", "0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(web_setting_from(row.value), row.setting);
    }
}

TEST(ConfigSettings, LanguageNeedsTheExactWord) {
    struct Row {
        const char* description;
        const char* value;
        bool user_is_french;
        const char* code;
    };
    const Row rows[] = {
        {"FRANCAIS over an English user", "FRANCAIS", false, "FR"},
        {"ENGLISH over a French user", "ENGLISH", true, "EN"},
        {"a trailing blank falls through to a French user", "ENGLISH ", true, "FR"},
        {"a trailing blank falls through to an English user", "FRANCAIS ", false, "EN"},
        {"absent: the user's language, French", nullptr, true, "FR"},
        {"absent: the user's language, English", nullptr, false, "EN"},
        {"lower case falls through", "francais", false, "EN"},
        {"a longer word falls through", "FRANCAISE", false, "EN"},
        {"empty falls through", "", true, "FR"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_STREQ(language_code_from(row.value, row.user_is_french), row.code);
    }
}

TEST(ConfigKeys, EveryKeyIsKnownOnceWithItsTexts) {
    auto keys = config_known_keys();
    EXPECT_EQ(keys.size(), 27u);
    std::set<std::string> names;
    for (const ConfigKeyInfo& key : keys) {
        SCOPED_TRACE(key.name);
        EXPECT_TRUE(names.insert(key.name).second) << "listed twice";
        EXPECT_GT(std::strlen(key.meaning), 0u);
        EXPECT_GT(std::strlen(key.default_text), 0u);
        for (const ConfigKeyInfo& other : keys) {
            if (&other == &key) continue;
            EXPECT_NE(std::strncmp(other.name, key.name, std::strlen(key.name)), 0)
                << "is a prefix of " << other.name << ", whose lines it would take";
        }
    }
    for (const char* name : {"BACK_COLOR_RGB", "LOGERROR", "HTTP", "LANG", "MONOTHREAD", "MAXMEM",
                             "REDUCE_IMAGE_DIR", "TEMP_DIR", "NAVIG_LOG_DIR"})
        EXPECT_EQ(names.count(name), 1u) << name;
    for (int slot = 1; slot <= 9; ++slot) {
        EXPECT_EQ(names.count("ACTIVE_NMEA_UDP_DIFFUSE_ADR" + std::to_string(slot)), 1u) << slot;
        EXPECT_EQ(names.count("INACTIVE_NMEA_UDP_DIFFUSE_ADR" + std::to_string(slot)), 1u) << slot;
    }
}

TEST(ConfigDirectory, AcceptsOnlyAbsoluteLocalDirectoriesAndMakesOneLevel) {
    TestHome home;
    std::string directory = "untouched";
    EXPECT_FALSE(directory_from_value(nullptr, directory));
    EXPECT_FALSE(directory_from_value("", directory));
    EXPECT_FALSE(directory_from_value("relative/dir", directory)) << "a relative path";
    EXPECT_FALSE(directory_from_value("C:\\temp", directory)) << "a drive letter";
    EXPECT_EQ(directory, "untouched") << "a refusal leaves the directory as it was";

    std::string existing = home.path() + "existing";
    ASSERT_EQ(mkdir(existing.c_str(), 0700), 0);
    EXPECT_TRUE(directory_from_value(existing.c_str(), directory));
    EXPECT_EQ(directory, existing + "/") << "a separator is added";

    EXPECT_TRUE(directory_from_value((home.path() + "made/").c_str(), directory));
    EXPECT_EQ(directory, home.path() + "made/") << "no second separator";
    EXPECT_TRUE(os::is_directory((home.path() + "made").c_str())) << "one missing level is made";

    EXPECT_FALSE(directory_from_value((home.path() + "a/b").c_str(), directory))
        << "two missing levels";
    EXPECT_EQ(directory, "") << "a directory that cannot be made empties the answer";
    EXPECT_FALSE(file_exists(home.path() + "a"));
}

// A process number that no process has: a child that has ended and been
// waited for.
long ended_process_id() {
    pid_t child = fork();
    if (child == 0) _exit(0);
    int status = 0;
    waitpid(child, &status, 0);
    return static_cast<long>(child);
}

TEST(ConfigTemp, CleaningSparesTheFilesOfRunningInstances) {
    TestHome home;
    long own = static_cast<long>(getpid());
    long running = static_cast<long>(getppid());
    long ended = ended_process_id();
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
        {"an underscore first", "_" + std::to_string(running) + "_1", false},
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
}

TEST(ConfigProcess, CountsThisProgram) {
    EXPECT_GE(process_count(), 1);
}

// ---- fresh processes ----

// A program directory inside the home with a system/ folder, so that the
// files beside the program are the test's own.
std::string make_program_dir(const TestHome& home) {
    std::string program = home.path() + "program/";
    mkdir(program.c_str(), 0700);
    mkdir((program + "system").c_str(), 0700);
    set_program_dir((program + "norvanta-cli").c_str());
    return program;
}

TEST(ConfigProcess, SeedsTheUserCopyFromTheExampleOnce) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        std::string program = make_program_dir(home);
        const std::string example = "MAXMEM 50\r\nLANG ENGLISH\r\n# note\r\n";
        write_file(program + "system/norvanta_exemple.cfg", example);

        EXPECT_STREQ(system_dir(), (program + "system/").c_str());
        EXPECT_STREQ(user_data_dir(), home.path().c_str()) << "NORVANTA_HOME is the data dir";
        const char* value = config_get("MAXMEM");
        ASSERT_NE(value, nullptr);
        EXPECT_STREQ(value, "50");
        EXPECT_STREQ(config_path(), home.file("norvanta.cfg").c_str());
        EXPECT_EQ(read_file(home.file("norvanta.cfg")), example) << "a byte-for-byte copy";
        EXPECT_EQ(max_memory(), 100);
        EXPECT_EQ(language_index(), 2);

        // The file is read anew at each look-up; the cached settings stay.
        write_file(home.file("norvanta.cfg"), "MAXMEM 300\nLANG FRANCAIS\n");
        value = config_get("MAXMEM");
        ASSERT_NE(value, nullptr);
        EXPECT_STREQ(value, "300");
        EXPECT_EQ(max_memory(), 100);
        EXPECT_STREQ(language_code(), "EN");
    });
}

TEST(ConfigProcess, TheFileBesideTheProgramWinsOverTheExample) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        std::string program = make_program_dir(home);
        write_file(program + "system/norvanta.cfg", "LANG FRANCAIS\n");
        write_file(program + "system/norvanta_exemple.cfg", "LANG ENGLISH\n");
        EXPECT_STREQ(language_code(), "FR");
        EXPECT_EQ(language_index(), 1);
        EXPECT_EQ(read_file(home.file("norvanta.cfg")), "LANG FRANCAIS\n");
    });
}

TEST(ConfigProcess, TheUsersCopyIsNeverReplaced) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        std::string program = make_program_dir(home);
        write_file(home.file("norvanta.cfg"), "LANG ENGLISH\n");
        write_file(program + "system/norvanta.cfg", "LANG FRANCAIS\n");
        EXPECT_STREQ(language_code(), "EN");
        EXPECT_EQ(read_file(home.file("norvanta.cfg")), "LANG ENGLISH\n");
    });
}

TEST(ConfigProcess, WithoutAnyFileEveryDefaultHolds) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        make_program_dir(home);
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
        TestHome home;
        home.make_current();
        std::string program = make_program_dir(home);
        write_file(program + "system/norvanta_exemple.cfg", "MAXMEM 200\n");
        write_file(home.file("given.cfg"), "MONOTHREAD\nHTTP PROXY cache.lan 3128\n");
        config_use_file(home.file("given.cfg").c_str());
        EXPECT_STREQ(config_path(), home.file("given.cfg").c_str());
        EXPECT_TRUE(monothread());
        EXPECT_STREQ(web_setting(), "2 cache.lan 3128");
        EXPECT_EQ(max_memory(), 1000);
        EXPECT_FALSE(file_exists(home.file("norvanta.cfg")));
    });
}

TEST(ConfigProcess, ConfiguredDirectoriesAreMadeAndKept) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        make_program_dir(home);
        write_file(home.file("norvanta.cfg"), "TEMP_DIR " + home.path() + "temp\n" +
                                                  "NAVIG_LOG_DIR " + home.path() + "nav\n" +
                                                  "REDUCE_IMAGE_DIR " + home.path() + "images/\n");
        std::string pid = std::to_string(getpid());
        EXPECT_STREQ(temp_prefix(), (home.path() + "temp/Norvanta/" + pid + "_").c_str());
        EXPECT_TRUE(os::is_directory(home.file("temp").c_str()));
        EXPECT_STREQ(nav_log_dir(), home.file("nav/").c_str());
        EXPECT_TRUE(os::is_directory(home.file("nav").c_str()));
        EXPECT_STREQ(reduced_image_dir(), home.file("images/v2/").c_str());
    });
}

TEST(ConfigProcess, ARefusedTempDirIsLoggedAndTheDefaultUsed) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        make_program_dir(home);
        write_file(home.file("norvanta.cfg"), "LOGERROR\nLANG ENGLISH\nTEMP_DIR scratch/temp\n");
        log_set_path("QLMX");
        std::string pid = std::to_string(getpid());
        EXPECT_STREQ(temp_prefix(), (home.path() + "cache/Norvanta/" + pid + "_").c_str());
        std::string log = read_file(home.file("logs/zz_QLMX.log"));
        EXPECT_NE(log.find("\nFile <scratch/temp> is not on a local harddrive\n"),
                  std::string::npos)
            << log;
    });
}

TEST(ConfigProcess, FirstUseFromManyThreadsAgrees) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        std::string program = make_program_dir(home);
        write_file(program + "system/norvanta_exemple.cfg",
                   "LOGERROR\nLANG FRANCAIS\nMAXMEM 300\nNAVIG_LOG_DIR " + home.path() + "nav\n");
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
        std::string log = read_file(home.file("logs/zz_QLMX.log"));
        std::size_t entries = 0;
        for (std::size_t at = 0; (at = log.find("\nentry\n", at)) != std::string::npos; ++at)
            ++entries;
        EXPECT_EQ(entries, static_cast<std::size_t>(thread_count)) << log;
    });
}

TEST(ConfigProcess, PrintShowsFilesDirectoriesAndEveryKey) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        std::string program = make_program_dir(home);
        write_file(home.file("norvanta.cfg"), "LANG ENGLISH \nBACK_COLOR_RGB 10 20\nLOGERROR\n");
        std::FILE* out = std::tmpfile();
        ASSERT_NE(out, nullptr);
        config_print(out);
        std::string printed(static_cast<std::size_t>(std::ftell(out)), '\0');
        std::rewind(out);
        printed.resize(std::fread(printed.data(), 1, printed.size(), out));
        std::fclose(out);

        std::string expected_head = "ConfigPath: " + home.file("norvanta.cfg") + "\n" +
                                    "UserDataDir: " + home.path() + "\n" + "SystemDir: " + program +
                                    "system/\n" + "LogDir: " + home.path() + "logs/\n";
        EXPECT_EQ(printed.rfind(expected_head, 0), 0u) << printed;
        std::string language =
            os::user_language_is_french() ? "Language: FR 1\n" : "Language: EN 2\n";
        EXPECT_NE(printed.find(language), std::string::npos) << "a trailing blank falls through";
        for (const char* line : {"BACK_COLOR_RGB: \"10 20\"\n", "LOGERROR: \"\"\n",
                                 "LANG: \"ENGLISH \"\n", "MAXMEM: (absent), default: 1000\n",
                                 "background_colour: 10 20 200\n", "error_log_enabled: 1\n",
                                 "web_setting: \"1\"\n", "monothread: 0\n", "max_memory: 1000\n"})
            EXPECT_NE(printed.find(line), std::string::npos) << line << "in\n" << printed;
        std::size_t position = 0;
        for (const ConfigKeyInfo& key : config_known_keys()) {
            std::size_t found = printed.find("\n" + std::string(key.name) + ":", position);
            EXPECT_NE(found, std::string::npos) << key.name << " in table order";
            if (found != std::string::npos) position = found + 1;
        }
    });
}

} // namespace
} // namespace norvanta
