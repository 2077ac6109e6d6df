// norvanta: the desktop program. The window shows what norvanta-cli prints;
// the command line is the same, less what only a terminal needs (the status
// line, the ending at the end of a track, and the file and client reports,
// which norvanta-cli gives).
#include <cstdio>
#include <vector>

#include "platform/wx/wx_app.h"
#include "shell/command_line.h"
#include "shell/config.h"
#include "shell/main.h"
#include "shell/program_options.h"

namespace {

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

// Once the client lists are loaded and the line is walked.
void after_command_line(const norvanta::CommandLine&) {
    norvanta::apply_client_options(options);
    if (options.playback_asked) norvanta::schedule_playback(options.playback);
}

} // namespace

int main(int argc, char** argv) {
    const int answered = norvanta::answer_help_or_version(argc, argv, program_file_name, help_text);
    if (answered >= 0) return answered;
    if (!norvanta::wx_start(argc, argv)) {
        std::fprintf(stderr, "%s: no display to open the window on (norvanta-cli needs none)\n",
                     program_file_name);
        return no_display_status;
    }
    const auto none_of_its_own = [](int, char**, int&) { return norvanta::OptionRead::not_common; };
    if (int status = norvanta::read_program_options(argc, argv, program_file_name, options,
                                                    none_of_its_own, tokens))
        return status;
    if (options.config_file) norvanta::config_use_file(options.config_file);
    return norvanta::start_up(tokens, after_command_line);
}
