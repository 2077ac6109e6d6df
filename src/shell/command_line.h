// The command line of the programs: a navigation link, a serial speed, and
// files to load.
//
// Each element of argv is one token. "-NAVIG" names the link of live
// navigation ("-NAVIGLOG" also flips the logging switch of the menu),
// "-COMSPEED" gives the serial speed, and any other token is taken for a file:
// an existing regular file is queued for loading, anything else is ignored
// without a word. The programs check their own long options before this walk.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace norvanta {

inline constexpr const char navig_prefix[] = "-NAVIG";
inline constexpr const char navig_log_prefix[] = "LOG";
inline constexpr const char comspeed_prefix[] = "-COMSPEED";

// What start-up reads once the line is walked.
struct CommandLine {
    bool navigation_named = false; // a -NAVIG token was given
    std::string link_text;         // what followed -NAVIG (and LOG); may be empty
    int32_t speed_baud = 0;        // -COMSPEED value; 0 when none was given
    bool navigation_log = false;   // the check of the navigation log item after the walk
    int32_t files_queued = 0;      // files posted for loading
};

// True for a token that the walk reads as an option rather than a file name.
bool is_navigation_token(const char* token);

// Reads the digits at the start of text: the value read so far stands at
// the first other character. A value past the largest speed stops growing.
int32_t read_speed_digits(const char* text);

// Walks the tokens in order; later -NAVIG and -COMSPEED tokens replace earlier
// ones. Files go to load_path made absolute.
void walk_command_line(std::span<const char* const> tokens, CommandLine& out);

} // namespace norvanta
