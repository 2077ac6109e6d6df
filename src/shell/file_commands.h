// What the programs do with a file on the user's behalf without replaying
// it: tell what it holds, or write its data as an NMEA log.
#pragma once

#include <cstdio>

namespace norvanta {

// Loads the file and prints its information text, in the language in use.
// A file that cannot be read gets one line on err naming it and the reason.
// Returns 0, or 1 when the file could not be described.
int print_file_information(const char* path, std::FILE* out, std::FILE* err);
// Loads the file and writes its waypoints, routes, tracks and samples to
// output as an NMEA log. Returns 0, or 1 with one line on err.
int export_file_nmea(const char* path, const char* output, std::FILE* err);

} // namespace norvanta
