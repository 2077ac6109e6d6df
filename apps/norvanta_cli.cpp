// norvanta-cli: the program with no window. It reads its own long options,
// hands everything else to the start-up's command-line walk, and then runs
// the engine until Ctrl-C or SIGTERM.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/object_store.h"
#include "diffusion/clients.h"
#include "navigation/worker.h"
#include "platform/headless/status_output.h"
#include "platform/ui.h"
#include "shell/command_line.h"
#include "shell/config.h"
#include "shell/events.h"
#include "shell/file_commands.h"
#include "shell/playback_options.h"
#include "shell/main.h"
#include "shell/menu.h"
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

// The client options act once the lists are loaded, before the message loop.
struct ClientOptions {
    struct Client {
        std::string host;
        int32_t port;
    };
    std::vector<Client> extra;
    bool no_diffusion = false;
    bool list_clients = false;
    norvanta::StatusStyle status = norvanta::status_style_default();
};
ClientOptions client_options;

// The file commands run once the program is up, instead of the message loop.
struct FileCommands {
    bool info = false;
    std::vector<const char*> info_files;
    const char* export_input = nullptr;
    const char* export_output = nullptr;
};
FileCommands file_commands;

bool playback_asked = false;
norvanta::PlaybackOptions playback;

// The replay options that take a number, with the range they accept.
struct NumberOption {
    const char* name;
    double low;
    double high;
    void (*store)(double value);
};
constexpr double largest_setting = 9999.0; // the Dashboard's own limit
constexpr NumberOption number_options[] = {
    {"--factor", 0.01, largest_setting, [](double v) { playback.time_factor = v; }},
    {"--speed", 0.01, largest_setting, [](double v) { playback.speed_kmh = v; }},
    {"--seek", 0.0, 1.0, [](double v) { playback.seek_fraction = v; }},
    {"--select", 0.0, largest_setting, [](double v) { playback.select = static_cast<int32_t>(v); }},
};

bool option_named(const char* token, const char* name) {
    const std::size_t length = std::strlen(name);
    return std::strncmp(token, name, length) == 0 &&
           (token[length] == '\0' || token[length] == '=');
}

const NumberOption* number_option_of(const char* token) {
    for (const NumberOption& option : number_options)
        if (option_named(token, option.name)) return &option;
    return nullptr;
}

// The value from "--name=V" or the next argument; false with a message when
// it is missing or not a number in the option's range.
bool number_option(int argc, char** argv, int& i, const NumberOption& option, double& out) {
    const char* token = argv[i];
    const std::size_t length = std::strlen(option.name);
    const char* text =
        token[length] == '=' ? token + length + 1 : (i + 1 < argc ? argv[++i] : nullptr);
    char* end = nullptr;
    const double value = text ? std::strtod(text, &end) : 0.0;
    if (!text || end == text || *end != '\0' || !(value >= option.low && value <= option.high)) {
        std::fprintf(stderr, "%s: option '%s' needs a number from %g to %g\n", program_file_name,
                     option.name, option.low, option.high);
        return false;
    }
    out = value;
    return true;
}

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
constexpr int32_t largest_port = 65535;

// "HOST:PORT", split at the last colon; the port is decimal digits. A port
// out of range is kept as 0, which the client list refuses with its own box.
bool parse_client(const char* text, ClientOptions::Client& out) {
    const char* colon = std::strrchr(text, ':');
    if (!colon || colon[1] == '\0') return false;
    int32_t port = 0;
    for (const char* digit = colon + 1; *digit; ++digit) {
        if (*digit < '0' || *digit > '9') return false;
        if (port <= largest_port) port = port * 10 + (*digit - '0');
    }
    out.host.assign(text, static_cast<std::size_t>(colon - text));
    out.port = port > largest_port ? 0 : port;
    return true;
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
    for (const ClientOptions::Client& client : client_options.extra)
        norvanta::add_client(client.host.c_str(), client.port, nullptr, nullptr);
    if (!client_options.extra.empty()) norvanta::refresh_snapshot();
    if (file_commands.info || file_commands.export_input) run_file_commands();
    if (client_options.list_clients) {
        norvanta::print_client_lists(stdout);
        norvanta::exit_path(0);
    }
    if (client_options.no_diffusion) {
        norvanta::ui_menu_check(norvanta::menu_diffusion, false);
        norvanta::set_diffusion(0);
    }
    if (line.navigation_named && !navigation_link_known(line.link_text))
        std::fprintf(stderr,
                     "%s: \"%s\" names no link: give a serial device path, COM<n> or "
                     "UDP<port>\n",
                     program_file_name, line.link_text.c_str());
    std::fflush(stderr);
    norvanta::set_status_style(client_options.status);
    if (playback_asked) norvanta::schedule_playback(playback);
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
        if (is_option(token, "--no-diffusion")) {
            client_options.no_diffusion = true;
            continue;
        }
        if (is_option(token, "--list-clients")) {
            client_options.list_clients = true;
            continue;
        }
        if (std::strncmp(token, "--status=", 9) == 0) {
            if (!norvanta::parse_status_style(token + 9, client_options.status)) {
                std::fprintf(stderr, "%s: option '--status' takes line, tsv or none\n",
                             program_file_name);
                return usage_error_status;
            }
            continue;
        }
        if (is_option(token, "--play") || is_option(token, "--backward")) {
            playback.direction = is_option(token, "--play") ? 1 : -1;
            playback_asked = true;
            continue;
        }
        if (is_option(token, "--loop") || is_option(token, "--exit-at-end")) {
            (is_option(token, "--loop") ? playback.loop : playback.exit_at_end) = true;
            playback_asked = true;
            continue;
        }
        if (const NumberOption* option = number_option_of(token)) {
            double value = 0.0;
            if (!number_option(argc, argv, i, *option, value)) return usage_error_status;
            option->store(value);
            playback_asked = true;
            continue;
        }
        if (is_option(token, "--info")) {
            file_commands.info = true;
            continue;
        }
        if (is_option(token, "--export-nmea")) {
            if (i + 2 >= argc) {
                std::fprintf(stderr, "%s: option '--export-nmea' needs FILE and OUT\n",
                             program_file_name);
                return usage_error_status;
            }
            file_commands.export_input = argv[++i];
            file_commands.export_output = argv[++i];
            continue;
        }
        if (is_option(token, "--client") || std::strncmp(token, "--client=", 9) == 0) {
            const char* value = token[8] == '=' ? token + 9 : (i + 1 < argc ? argv[++i] : nullptr);
            ClientOptions::Client client;
            if (!value || !parse_client(value, client)) {
                std::fprintf(stderr, "%s: option '--client' needs HOST:PORT\n", program_file_name);
                return usage_error_status;
            }
            client_options.extra.push_back(client);
            continue;
        }
        if (token[0] == '-' && !norvanta::is_navigation_token(token)) {
            std::fprintf(stderr, "%s: unknown option '%s' (see --help)\n", program_file_name,
                         token);
            return usage_error_status;
        }
        tokens.push_back(token);
    }
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

    if (config_file) norvanta::config_use_file(config_file);
    if (print_config) {
        norvanta::locate_program();
        norvanta::config_print(stdout);
        return 0;
    }
    return norvanta::start_up(tokens, after_command_line);
}
