// The long options that both programs take, the desktop one and the one with
// no window: the configuration file, extra clients, diffusion off, and the
// replay a user would otherwise start with the mouse.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "shell/playback_options.h"

namespace norvanta {

struct ClientAddress {
    std::string host;
    int32_t port; // 0 for a number past the last port, which add_client refuses
};

struct CommonOptions {
    const char* config_file = nullptr;
    std::vector<ClientAddress> clients;
    bool no_diffusion = false;
    bool playback_asked = false;
    PlaybackOptions playback;
};

enum class OptionRead { not_common, taken, refused };

// Reads argv[i] when it is a common option, with its value ("--name VALUE" or
// "--name=VALUE"), which moves i on. A missing or bad value is told on
// stderr after the program's name, and gives refused.
OptionRead read_common_option(int argc, char** argv, int& i, const char* program,
                              CommonOptions& options);

// A program's own options: reads argv[i] as read_common_option does.
using OwnOptionReader = std::function<OptionRead(int argc, char** argv, int& i)>;

// --help prints help_text, --version the program's name and version: the
// status to end with, 0; -1 when neither is asked for.
int answer_help_or_version(int argc, char** argv, const char* program, const char* help_text);

// Walks the arguments: the common options, then the program's own; what
// neither takes is a token of the start-up's command-line walk, unless it
// looks like an option, which is refused as unknown. Returns 0, or the
// status of a usage error to end with.
int read_program_options(int argc, char** argv, const char* program, CommonOptions& options,
                         const OwnOptionReader& own, std::vector<const char*>& tokens);

// "HOST:PORT", split at the last colon; false when the port is not digits.
bool parse_client_address(const char* text, ClientAddress& out);

// Once the client lists are loaded: the extra clients join the active list,
// and diffusion goes off when asked.
void apply_client_options(const CommonOptions& options);

} // namespace norvanta
