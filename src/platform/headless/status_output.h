// What the program with no window shows of the Dashboard on its standard
// output: nothing, one line kept up to date in place on a terminal, or one
// tab-separated line per shown point for other programs to read.
#pragma once

#include <cstdint>
#include <cstdio>

namespace norvanta {

enum class StatusStyle : int32_t { none, line, tsv };

// "none", "line" or "tsv"; false for anything else, which the caller reports.
bool parse_status_style(const char* text, StatusStyle& out);
// line when standard output is a terminal, none otherwise.
StatusStyle status_style_default();
// Follows the Dashboard in that style from now on; none stops following.
void set_status_style(StatusStyle style);
// Where the status goes: standard output until set; null sets it back.
void set_status_stream(std::FILE* stream);
// Closes a line kept in place, so that what is printed next starts on a line
// of its own.
void status_output_end_line();

} // namespace norvanta
