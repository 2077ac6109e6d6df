// norvanta-cli: the program with no window. It reads its own long options,
// hands everything else to the start-up's command-line walk, and then runs
// the engine until Ctrl-C or SIGTERM.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/object_store.h"
#include "diffusion/clients.h"
#include "navigation/worker.h"
#include "platform/headless/status_output.h"
#include "shell/command_line.h"
#include "shell/config.h"
#include "shell/file_commands.h"
#include "shell/program_options.h"
#include "shell/main.h"

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
    "  --client HOST:PORT also send to this address (an active client);\n"
    "                     may be given more than once\n"
    "  --no-diffusion     start with diffusion off: nothing is sent to the clients\n"
    "  --list-clients     print the active and inactive clients with their slot\n"
    "                     numbers and addresses, then exit\n"
    "  --info FILE...     print what each file holds (format, counts, times),\n"
    "                     in the language of the configuration, then exit\n"
    "  --export-nmea FILE OUT\n"
    "                     write the waypoints, routes, tracks and logs of FILE to\n"
    "                     OUT as an NMEA log, then exit\n"
    "\n"
    "Replay of the files given (each file becomes a track; the last one loaded\n"
    "is played unless --select says otherwise):\n"
    "  --play             play forward once the files are loaded\n"
    "  --backward         play backward\n"
    "  --factor X         time factor: X seconds of the track per second\n"
    "  --speed KMH        replay at this speed in km/h instead of the track's times\n"
    "                     (wins over --factor)\n"
    "  --loop             start over at the end\n"
    "  --seek FRACTION    start from this fraction of the track's length (0 to 1)\n"
    "  --select N         play track N (0 is the first file loaded)\n"
    "  --exit-at-end      end the program when the track ends and its STOP mark\n"
    "                     has gone out\n"
    "\n"
    "  --status=STYLE     what to print of each shown position: 'line' keeps one\n"
    "                     line up to date (the default on a terminal), 'tsv' prints\n"
    "                     one tab-separated line per position (mode, distance km,\n"
    "                     duration, longitude, latitude, altitude, speed, direction,\n"
    "                     satellites), 'none' prints nothing (the default otherwise)\n"
    "\n"
    "  -NAVIG<link>       start live navigation on a link: a serial device path\n"
    "                     (/dev/ttyUSB0, /dev/serial/by-id/...), COM<n> for\n"
    "                     /dev/ttyS<n-1>, or UDP<port> to take NMEA from the network;\n"
    "                     -NAVIGLOG<link> also writes what a serial receiver sends to\n"
    "                     NMEA_<time>.nmea in the navigation log directory\n"
    "  -COMSPEED<baud>    the speed of a serial link: 4800 (the default), 9600,\n"
    "                     19200, 38400, 57600 or 115200\n"
    "  file...            GPS files to load; a name that is not an existing file\n"
    "                     is ignored\n"
    "\n"
    "NORVANTA_HOME=DIR puts the configuration, the logs and the temporary files\n"
    "under DIR.\n";

bool is_option(const char* token, const char* name) {
    return std::strcmp(token, name) == 0;
}

// What only this program takes beside the common options.
struct CliOptions {
    bool print_config = false;
    bool list_clients = false;
    norvanta::StatusStyle status = norvanta::status_style_default();
};
CliOptions cli_options;
norvanta::CommonOptions common_options;

// The file commands run once the program is up, instead of the message loop.
struct FileCommands {
    bool info = false;
    std::vector<const char*> info_files;
    const char* export_input = nullptr;
    const char* export_output = nullptr;
};
FileCommands file_commands;

// Runs the file commands and ends the program; the status is 1 when one of
// them failed.
void run_file_commands() {
    int status = 0;
    for (const char* path : file_commands.info_files)
        status |= norvanta::print_file_information(path, stdout, stderr);
    if (file_commands.export_input)
        status |= norvanta::export_file_nmea(file_commands.export_input,
                                             file_commands.export_output, stderr);
    norvanta::exit_path(status);
}

// What parse_link_name takes, so that a name it refuses is told rather than
// ignored.
bool navigation_link_known(const std::string& text) {
    norvanta::ObjectId id = 0;
    norvanta::parse_link_name(text.c_str(), 0, id);
    if (id == 0) return false;
    norvanta::del_obj(norvanta::ObjectType::ReceiverLink, id);
    return true;
}

// Once the client lists are loaded and the line is walked: the file
// commands, the client options, a link name that names nothing, the status
// output and the replay options.
void after_command_line(const norvanta::CommandLine& line) {
    norvanta::apply_client_options(common_options);
    if (file_commands.info || file_commands.export_input) run_file_commands();
    if (cli_options.list_clients) {
        norvanta::print_client_lists(stdout);
        norvanta::exit_path(0);
    }
    if (line.navigation_named && !navigation_link_known(line.link_text))
        std::fprintf(stderr,
                     "%s: \"%s\" names no link: give a serial device path, COM<n> or "
                     "UDP<port>\n",
                     program_file_name, line.link_text.c_str());
    std::fflush(stderr);
    norvanta::set_status_style(cli_options.status);
    if (common_options.playback_asked) norvanta::schedule_playback(common_options.playback);
}

// The options of this program alone.
norvanta::OptionRead read_cli_option(int argc, char** argv, int& i) {
    const char* token = argv[i];
    if (is_option(token, "--print-config")) {
        cli_options.print_config = true;
    } else if (is_option(token, "--list-clients")) {
        cli_options.list_clients = true;
    } else if (std::strncmp(token, "--status=", 9) == 0) {
        if (!norvanta::parse_status_style(token + 9, cli_options.status)) {
            std::fprintf(stderr, "%s: option '--status' takes line, tsv or none\n",
                         program_file_name);
            return norvanta::OptionRead::refused;
        }
    } else if (is_option(token, "--exit-at-end")) {
        common_options.playback.exit_at_end = true;
        common_options.playback_asked = true;
    } else if (is_option(token, "--info")) {
        file_commands.info = true;
    } else if (is_option(token, "--export-nmea")) {
        if (i + 2 >= argc) {
            std::fprintf(stderr, "%s: option '--export-nmea' needs FILE and OUT\n",
                         program_file_name);
            return norvanta::OptionRead::refused;
        }
        file_commands.export_input = argv[++i];
        file_commands.export_output = argv[++i];
    } else {
        return norvanta::OptionRead::not_common;
    }
    return norvanta::OptionRead::taken;
}

} // namespace

int main(int argc, char** argv) {
    const int answered = norvanta::answer_help_or_version(argc, argv, program_file_name, help_text);
    if (answered >= 0) return answered;
    std::vector<const char*> tokens;
    if (int status = norvanta::read_program_options(argc, argv, program_file_name, common_options,
                                                    read_cli_option, tokens))
        return status;
    // With --info the files on the line are the ones to describe, not to load.
    if (file_commands.info) {
        std::erase_if(tokens, [](const char* token) {
            if (norvanta::is_navigation_token(token)) return false;
            file_commands.info_files.push_back(token);
            return true;
        });
    }
    if (file_commands.info && file_commands.info_files.empty()) {
        std::fprintf(stderr, "%s: option '--info' needs at least one file\n", program_file_name);
        return usage_error_status;
    }

    if (common_options.config_file) norvanta::config_use_file(common_options.config_file);
    if (cli_options.print_config) {
        norvanta::locate_program();
        norvanta::config_print(stdout);
        return 0;
    }
    return norvanta::start_up(tokens, after_command_line);
}
