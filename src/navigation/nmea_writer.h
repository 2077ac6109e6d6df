// The NMEA sentence writer: everything this program says in NMEA, apart from
// what the Garmin PVT records compose. A GPS data set of any format becomes
// replayable by being written out as a sentence log, and a NavPoint gets the
// sentences of its epoch; commands to a receiver take the same checksum and
// tail. There is one checksum rule and three ways to finish a sentence: into
// an open file, into a memory file, and onto a NavPoint's text.
//
// A log written here reads back through the sentence parser unchanged, its
// PKLNT marks included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "core/mobj.h"

namespace norvanta {

struct NavPoint;
struct TrackPoint;
struct Waypoint;
struct Route;
struct SerialPort;

// "*", two upper-case hexadecimal digits, CR, LF.
inline constexpr std::size_t checksum_tail_length = 5;
inline constexpr std::size_t checksum_tail_capacity = checksum_tail_length + 1;
// A command to a receiver, tail included, is cut to this.
inline constexpr std::size_t command_capacity = 100;
// Waypoint names on one RTE sentence.
inline constexpr int32_t route_names_per_sentence = 6;

// XOR of every byte of text up to its terminator; 0 for an empty or null
// text. Callers pass what follows the '$'.
uint8_t nmea_checksum(const char* text);
// Fills tail with the checksum tail of a sentence given with its '$'.
void format_checksum_tail(const char* sentence, char* tail);

// The marks that frame a stream for the clients, each a sentence of its own
// with its tail and line end.
inline constexpr char start_mark_text[] = "$PKLNT,START*21\r\n";
inline constexpr char stop_mark_text[] = "$PKLNT,STOP*79\r\n";
const char* start_mark_sentence();
const char* stop_mark_sentence();

// ---- finishing a sentence ----

// Appends the sentence and its tail to the paged block of a memory file.
void append_sentence(Mobj* stream, const char* sentence);
// Writes the sentence, then its tail, to an open file.
void file_sentence(std::FILE* file, const char* sentence);
// "%s*%02X\r\n" of a sentence given with its '$', cut to command_capacity,
// written to the port in one piece.
void send_nmea_command(SerialPort* port, const char* sentence);

// ---- records ----
// Where a writer takes both a file and a stream, a non-null file wins. A
// transform is a chain (CoordBuffer) to WGS 84, 0 for none.

// Appends the GGA, RMC and, when it moves, VTG sentences of the point to its
// text. They carry no time: the replay clock gives that.
void write_nav_point_text(NavPoint& point);
// GLL, GGA, RMC, and VTG and ZDA where they have something to say.
void write_nav_sample(ObjectId sample, std::FILE* file, Mobj* stream);
void write_track_point(const TrackPoint& point, std::FILE* file, Mobj* stream, ObjectId transform);
void write_waypoint(const Waypoint& waypoint, std::FILE* file, Mobj* stream, ObjectId transform);
// RTE sentences of route_names_per_sentence names each; none for a route
// without waypoints.
void write_route(const Route& route, std::FILE* file, Mobj* stream);

// The whole data set as a log: a header, its waypoints, routes, tracks
// (each segment between START and STOP marks), then its position lists of
// NavSamples. With a path the log goes to a new file of that name; with a
// null path, to the memory file target. A set without waypoints, track
// points or samples writes nothing; one without a GeoReference stores
// ErrorCode::geographic.
void write_data_set_nmea(const char* path, ObjectId target, ObjectId data_set);

} // namespace norvanta
