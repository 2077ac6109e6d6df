// The common long options, read one token at a time so that each program
// reads its own options around them.
#include "shell/program_options.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diffusion/clients.h"
#include "diffusion/sockets.h"
#include "platform/ui.h"
#include "shell/command_line.h"
#include "shell/menu.h"
#include "version.h"

namespace norvanta {

namespace {

constexpr double largest_setting = 9999.0; // the Dashboard's own limit
constexpr int usage_error_status = 2;

// The replay options that take a number, with the range they accept.
struct NumberOption {
    const char* name;
    double low;
    double high;
    void (*store)(PlaybackOptions& playback, double value);
};
constexpr NumberOption number_options[] = {
    {"--factor", 0.01, largest_setting, [](PlaybackOptions& p, double v) { p.time_factor = v; }},
    {"--speed", 0.01, largest_setting, [](PlaybackOptions& p, double v) { p.speed_kmh = v; }},
    {"--seek", 0.0, 1.0, [](PlaybackOptions& p, double v) { p.seek_fraction = v; }},
    {"--select", 0.0, largest_setting,
     [](PlaybackOptions& p, double v) { p.select = static_cast<int32_t>(v); }},
};

bool is(const char* token, const char* name) {
    return std::strcmp(token, name) == 0;
}

// "--name" alone or "--name=...".
bool named(const char* token, const char* name) {
    const std::size_t length = std::strlen(name);
    return std::strncmp(token, name, length) == 0 &&
           (token[length] == '\0' || token[length] == '=');
}

// The value of a named option: behind its '=', or the next argument.
const char* value_of(int argc, char** argv, int& i, const char* name) {
    const char* token = argv[i];
    const std::size_t length = std::strlen(name);
    if (token[length] == '=') return token + length + 1;
    return i + 1 < argc ? argv[++i] : nullptr;
}

OptionRead refuse(const char* program, const char* message, const char* option) {
    std::fprintf(stderr, "%s: ", program);
    std::fprintf(stderr, message, option);
    std::fputc('\n', stderr);
    return OptionRead::refused;
}

OptionRead read_number(int argc, char** argv, int& i, const char* program,
                       const NumberOption& option, CommonOptions& options) {
    const char* text = value_of(argc, argv, i, option.name);
    char* end = nullptr;
    const double value = text ? std::strtod(text, &end) : 0.0;
    if (!text || end == text || *end != '\0' || !(value >= option.low && value <= option.high)) {
        std::fprintf(stderr, "%s: option '%s' needs a number from %g to %g\n", program, option.name,
                     option.low, option.high);
        return OptionRead::refused;
    }
    option.store(options.playback, value);
    options.playback_asked = true;
    return OptionRead::taken;
}

} // namespace

bool parse_client_address(const char* text, ClientAddress& out) {
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

OptionRead read_common_option(int argc, char** argv, int& i, const char* program,
                              CommonOptions& options) {
    const char* token = argv[i];
    if (named(token, "--config")) {
        options.config_file = value_of(argc, argv, i, "--config");
        if (!options.config_file)
            return refuse(program, "option '%s' needs a file name", "--config");
        return OptionRead::taken;
    }
    if (named(token, "--client")) {
        const char* value = value_of(argc, argv, i, "--client");
        ClientAddress client;
        if (!value || !parse_client_address(value, client))
            return refuse(program, "option '%s' needs HOST:PORT", "--client");
        options.clients.push_back(client);
        return OptionRead::taken;
    }
    if (is(token, "--no-diffusion")) {
        options.no_diffusion = true;
        return OptionRead::taken;
    }
    if (is(token, "--play") || is(token, "--backward")) {
        options.playback.direction = is(token, "--play") ? 1 : -1;
        options.playback_asked = true;
        return OptionRead::taken;
    }
    if (is(token, "--loop")) {
        options.playback.loop = true;
        options.playback_asked = true;
        return OptionRead::taken;
    }
    for (const NumberOption& option : number_options)
        if (named(token, option.name)) return read_number(argc, argv, i, program, option, options);
    return OptionRead::not_common;
}

int answer_help_or_version(int argc, char** argv, const char* program, const char* help_text) {
    for (int i = 1; i < argc; ++i) {
        if (is(argv[i], "--help")) {
            std::fputs(help_text, stdout);
            return 0;
        }
        if (is(argv[i], "--version")) {
            std::printf("%s (%s) %s\n", program, program_name, program_version);
            return 0;
        }
    }
    return -1;
}

int read_program_options(int argc, char** argv, const char* program, CommonOptions& options,
                         const OwnOptionReader& own, std::vector<const char*>& tokens) {
    for (int i = 1; i < argc; ++i) {
        OptionRead read = read_common_option(argc, argv, i, program, options);
        if (read == OptionRead::not_common) read = own(argc, argv, i);
        if (read == OptionRead::refused) return usage_error_status;
        if (read == OptionRead::taken) continue;
        const char* token = argv[i];
        if (token[0] == '-' && !is_navigation_token(token)) {
            refuse(program, "unknown option '%s' (see --help)", token);
            return usage_error_status;
        }
        tokens.push_back(token);
    }
    return 0;
}

void apply_client_options(const CommonOptions& options) {
    for (const ClientAddress& client : options.clients)
        add_client(client.host.c_str(), client.port, nullptr, nullptr);
    if (!options.clients.empty()) refresh_snapshot();
    if (options.no_diffusion) {
        ui_menu_check(menu_diffusion, false);
        set_diffusion(0);
    }
}

} // namespace norvanta
