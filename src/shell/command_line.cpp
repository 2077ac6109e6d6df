// The command line walk: link, speed and files.
#include "shell/command_line.h"

#include <cstring>
#include <limits>

#include "platform/os.h"
#include "platform/ui.h"
#include "shell/events.h"
#include "shell/menu.h"

namespace norvanta {

namespace {

bool starts_with(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

constexpr int32_t decimal_base = 10;

} // namespace

bool is_navigation_token(const char* token) {
    return token && (starts_with(token, navig_prefix) || starts_with(token, comspeed_prefix));
}

int32_t read_speed_digits(const char* text) {
    constexpr int32_t largest = std::numeric_limits<int32_t>::max();
    int32_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        int32_t digit = *text - '0';
        if (value > (largest - digit) / decimal_base) return largest;
        value = value * decimal_base + digit;
    }
    return value;
}

void walk_command_line(std::span<const char* const> tokens, CommandLine& out) {
    for (const char* token : tokens) {
        if (!token) continue;
        if (starts_with(token, navig_prefix)) {
            const char* rest = token + std::strlen(navig_prefix);
            if (starts_with(rest, navig_log_prefix)) {
                // The menu's check mark holds the switch; a second LOG turns it off again.
                bool log = !ui_menu_checked(menu_navigation_log);
                ui_menu_check(menu_navigation_log, log);
                out.navigation_log = log;
                rest += std::strlen(navig_log_prefix);
            }
            out.navigation_named = true;
            out.link_text = rest;
        } else if (starts_with(token, comspeed_prefix)) {
            out.speed_baud = read_speed_digits(token + std::strlen(comspeed_prefix));
        } else if (os::is_regular_file(token)) {
            std::string path = os::absolute_path(token);
            load_path(path.c_str());
            ++out.files_queued;
        }
    }
}

} // namespace norvanta
