// norvanta: the desktop program. The window shows what norvanta-cli prints;
// the command line is the same, less what only a terminal needs (the status
// line, the ending at the end of a track, and the file and client reports,
// which norvanta-cli gives).
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/wx/wx_app.h"
#include "shell/command_line.h"
#include "shell/config.h"
#include "shell/main.h"
#include "shell/program_options.h"
#include "version.h"

namespace {

constexpr int usage_error_status = 2;
constexpr int no_display_status = 1;
constexpr const char* program_file_name = "norvanta";

constexpr const char* help_text =
    "Usage: norvanta [options] [-NAVIG[LOG]<link>] [-COMSPEED<baud>] [file...]\n"
    "\n"
    "Turns GPS data into NMEA 0183 sentences, shows them in a window and sends\n"
    "them as UDP datagrams to the clients of the configuration.\n"
    "\n"
    "Options:\n"
    "  --help             show this help and exit\n"
    "  --version          show the version and exit\n"
    "  --config FILE      use this configuration file and no other\n"
    "  --client HOST:PORT also send to this address (an active client);\n"
    "                     may be given more than once\n"
    "  --no-diffusion     start with diffusion off: nothing is sent to the clients\n"
    "\n"
    "Replay of the files given, as the window's controls would set it:\n"
    "  --play             play forward once the files are loaded\n"
    "  --backward         play backward\n"
    "  --factor X         time factor: X seconds of the track per second\n"
    "  --speed KMH        replay at this speed in km/h (wins over --factor)\n"
    "  --loop             start over at the end\n"
    "  --seek FRACTION    start from this fraction of the track's length (0 to 1)\n"
    "  --select N         play track N (0 is the first file loaded)\n"
    "\n"
    "  -NAVIG<link>       start live navigation on a link: a serial device path,\n"
    "                     COM<n> for /dev/ttyS<n-1>, or UDP<port>; -NAVIGLOG<link>\n"
    "                     also logs what the receiver sends\n"
    "  -COMSPEED<baud>    the speed of a serial link (4800 by default)\n"
    "  file...            GPS files to load\n"
    "\n"
    "The toolkit's own options (--display and the like) are taken as well.\n"
    "norvanta-cli does the same with no window, and also reports on files\n"
    "(--info, --export-nmea) and on the client lists (--list-clients).\n"
    "NORVANTA_HOME=DIR puts the configuration, the logs and the temporary files\n"
    "under DIR.\n";

norvanta::CommonOptions options;
std::vector<const char*> tokens;

bool is(const char* token, const char* name) {
    return std::strcmp(token, name) == 0;
}

// Reads the program's options; the rest are tokens of the start-up's
// command-line walk. Returns 0, or the status to end with.
int read_options(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const char* token = argv[i];
        switch (norvanta::read_common_option(argc, argv, i, program_file_name, options)) {
        case norvanta::OptionRead::taken:
            continue;
        case norvanta::OptionRead::refused:
            return usage_error_status;
        case norvanta::OptionRead::not_common:
            break;
        }
        if (token[0] == '-' && !norvanta::is_navigation_token(token)) {
            std::fprintf(stderr, "%s: unknown option '%s' (see --help)\n", program_file_name,
                         token);
            return usage_error_status;
        }
        tokens.push_back(token);
    }
    return 0;
}

// Once the client lists are loaded and the line is walked.
void after_command_line(const norvanta::CommandLine&) {
    norvanta::apply_client_options(options);
    if (options.playback_asked) norvanta::schedule_playback(options.playback);
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (is(argv[i], "--help")) {
            std::fputs(help_text, stdout);
            return 0;
        }
        if (is(argv[i], "--version")) {
            std::printf("%s (%s) %s\n", program_file_name, norvanta::program_name,
                        norvanta::program_version);
            return 0;
        }
    }
    if (!norvanta::wx_start(argc, argv)) {
        std::fprintf(stderr, "%s: no display to open the window on (norvanta-cli needs none)\n",
                     program_file_name);
        return no_display_status;
    }
    if (int status = read_options(argc, argv)) return status;
    if (options.config_file) norvanta::config_use_file(options.config_file);
    return norvanta::start_up(tokens, after_command_line);
}
