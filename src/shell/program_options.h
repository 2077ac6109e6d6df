// The long options that both programs take, the desktop one and the one with
// no window: the configuration file, extra clients, diffusion off, and the
// replay a user would otherwise start with the mouse.
#pragma once

#include <cstdint>
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

// "HOST:PORT", split at the last colon; false when the port is not digits.
bool parse_client_address(const char* text, ClientAddress& out);

// Once the client lists are loaded: the extra clients join the active list,
// and diffusion goes off when asked.
void apply_client_options(const CommonOptions& options);

} // namespace norvanta
