// norvanta-cli: the program with no window. It reads its own long options,
// hands everything else to the start-up's command-line walk, and then runs
// the engine until Ctrl-C or SIGTERM.
#include <cstdio>
#include <cstring>
#include <vector>

#include "shell/command_line.h"
#include "shell/config.h"
#include "shell/events.h"
#include "shell/main.h"
#include "version.h"

namespace {

constexpr int usage_error_status = 2;
constexpr const char* program_file_name = "norvanta-cli";

constexpr const char* help_text =
    "Usage: norvanta-cli [options] [-NAVIG[LOG]<link>] [-COMSPEED<baud>] [file...]\n"
    "\n"
    "Turns GPS data into NMEA 0183 sentences and sends them as UDP datagrams to\n"
    "the clients of the configuration. Runs until Ctrl-C or SIGTERM.\n"
    "\n"
    "Options:\n"
    "  --help             show this help and exit\n"
    "  --version          show the version and exit\n"
    "  --config FILE      use this configuration file and no other\n"
    "  --print-config     print the configuration file in use, the directories,\n"
    "                     the language and the value of every key, then exit\n"
    "\n"
    "  -NAVIG<link>       start live navigation on a link (COM4, /dev/ttyUSB0,\n"
    "                     UDP7551, USB); -NAVIGLOG<link> also logs it\n"
    "  -COMSPEED<baud>    the speed of a serial link\n"
    "  file...            GPS files to load; a name that is not an existing file\n"
    "                     is ignored\n"
    "\n"
    "NORVANTA_HOME=DIR puts the configuration, the logs and the temporary files\n"
    "under DIR.\n";

bool is_option(const char* token, const char* name) {
    return std::strcmp(token, name) == 0;
}

// What the walk was given that this build cannot do yet, each in one line.
void report_unbuilt(const norvanta::CommandLine& line) {
    if (line.files_queued > 0 && !norvanta::event_has_handler(norvanta::event_load_file))
        std::fprintf(stderr,
                     "%s: %d file(s) queued, but this build cannot load files yet; "
                     "they are not replayed\n",
                     program_file_name, static_cast<int>(line.files_queued));
    if (line.navigation_named)
        std::fprintf(stderr,
                     "%s: live navigation is not part of this build yet; link \"%s\" is not "
                     "opened\n",
                     program_file_name, line.link_text.c_str());
    std::fflush(stderr);
}

} // namespace

int main(int argc, char** argv) {
    const char* config_file = nullptr;
    bool print_config = false;
    std::vector<const char*> tokens;
    for (int i = 1; i < argc; ++i) {
        const char* token = argv[i];
        if (is_option(token, "--help")) {
            std::fputs(help_text, stdout);
            return 0;
        }
        if (is_option(token, "--version")) {
            std::printf("%s (%s) %s\n", program_file_name, norvanta::program_name,
                        norvanta::program_version);
            return 0;
        }
        if (is_option(token, "--config")) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s: option '--config' needs a file name\n",
                             program_file_name);
                return usage_error_status;
            }
            config_file = argv[++i];
            continue;
        }
        if (std::strncmp(token, "--config=", std::strlen("--config=")) == 0) {
            config_file = token + std::strlen("--config=");
            continue;
        }
        if (is_option(token, "--print-config")) {
            print_config = true;
            continue;
        }
        if (token[0] == '-' && !norvanta::is_navigation_token(token)) {
            std::fprintf(stderr, "%s: unknown option '%s' (see --help)\n", program_file_name,
                         token);
            return usage_error_status;
        }
        tokens.push_back(token);
    }

    if (config_file) norvanta::config_use_file(config_file);
    if (print_config) {
        norvanta::locate_program();
        norvanta::config_print(stdout);
        return 0;
    }
    return norvanta::start_up(tokens, report_unbuilt);
}
