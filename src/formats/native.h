// The library's own text formats: waypoints, tracks and routes as a receiver
// download writes them, the navigation log of a data logger, and the two
// older waypoint and track formats that came before them.
//
// The later formats describe themselves: after the magic line and a free
// line, a line of column flags says which columns of a fixed table each row
// holds. Fields end with ';', numbers print with a point, angles are WGS 84
// degrees, and a string field starts with its own delimiter byte and runs to
// the next occurrence of it.
#pragma once

#include <cstdint>
#include <string_view>

#include "core/mobj.h"

namespace norvanta {

// The first line of each format. The older two have no version in their name.
inline constexpr std::string_view native_waypoints_v1_magic = "TRW-waypoint";
inline constexpr std::string_view native_tracklog_v1_magic = "TRT-tracklog";
inline constexpr std::string_view native_waypoints_magic = "TRW-V2_Tavoren_Waypoint";
inline constexpr std::string_view native_tracklog_magic = "TRT-V2_Tavoren_Tracklog";
inline constexpr std::string_view native_routes_magic = "TRR-V2_Tavoren_Route";
inline constexpr std::string_view native_navigation_magic = "TRN-V3_Tavoren_Navigation_logfile";

// Columns of each table; a flag line holds one value per column.
inline constexpr int32_t waypoint_column_count = 20;
inline constexpr int32_t track_column_count = 8;
inline constexpr int32_t track_point_column_count = 7;
inline constexpr int32_t route_column_count = 7;
inline constexpr int32_t nav_column_count = 16;

// The comment lines a logger download writes behind the magic line of a
// navigation log; the first takes the logger's identifier.
inline constexpr const char* nav_log_logger_line = "#Globalsat Data Logger ID %s\n";
inline constexpr const char* nav_log_column_line =
    "#longitude;latitude;time;starttrack;altitude;geoidh;depth;temperature;speed;direction;"
    "nbsatsinvue;nbsatsused;dgps;fix;hdop;pdop;\n";

// The delimiter a writer puts around text: the double quote, else the
// apostrophe, else the first byte from 20 up that the text does not hold.
char native_delimiter(const char* text);

// The dispatcher's reader for every GPS format without a reader of its own:
// the NMEA log (through the log reader of the replay), the formats above by
// their magic, and anything else as an empty data set. On success the set
// holds the records and one WGS 84 GeoReference; a set that would hold the
// GeoReference alone is left empty. Reports by gblerr: file_access for a file
// that cannot be read (or is shorter than the longest magic), invalid_file
// for a malformed file, whose records are then all deleted.
void read_native_file(ObjectId file, ObjectId data_set);

} // namespace norvanta
