// From a file to what the replay plays. Whatever its format, a file's data
// are written out as an NMEA log, and every log is then read back through
// the ordinary sentence parser, one line at a time, so that a GPX track and a
// recorded receiver stream take the same road.
//
// This holds the log side: the line loop shared by the log readers, and
// read_nmea_log, which reads a log into NavSamples, Waypoints and Routes (the
// load path of NMEA logs).
#pragma once

#include <cstdint>

#include "core/mobj.h"
#include "core/pair_list.h"

namespace norvanta {

struct NmeaParser;
struct NavFix;

// Bytes of a log line kept for the parser; the rest of a longer line is
// dropped, and with it, by its checksum, the sentence.
inline constexpr int32_t log_line_limit = 100;
// Two times closer than this (a tenth of a second, in days) are one epoch.
inline constexpr double same_epoch_days = 1.1574074074074074e-06;
// The stream window of a log.
inline constexpr int32_t log_buffer_bytes = 0x20000;

// One pass over a log. Each line, with CR LF put back behind it, is one batch
// for the parser: the fix's flags are lowered before it goes in. Positions of
// the fix are arc-seconds in the datum the log names (WGS 84 until a PGRMM
// says otherwise); log_to_wgs84 gives WGS 84 degrees.
struct LogRun {
    ObjectId file;                 // the FileMobj of the log
    NmeaParser* parser;            // owned, with its NavFix
    ObjectId geo_reference;        // the log's system: its datum, in arc-seconds
    ObjectId transform;            // CoordBuffer from that system to WGS 84 degrees
    char* datum_seen;              // owned; the datum name the transform was built for
    int32_t remaining;             // bytes of the log not read yet
    int32_t line_length;           // bytes of line, CR LF included
    char line[log_line_limit + 3]; // the line, CR, LF and a NUL
};

// Opens the log with a log_buffer_bytes window (ErrorCode::file_access when it
// cannot be read, an empty log included) and makes the parser, its fix and the
// WGS 84 system. True when the run can start.
bool new_nav_parser(ObjectId file, LogRun& run);
// The next line into run.line; false at the end of the log or with gblerr set.
bool next_log_line(LogRun& run);
// Lowers the fix's flags and feeds the line to the parser.
void parse_log_line(LogRun& run);
NavFix& log_fix(LogRun& run);
// When the fix names another datum than the transform was built for, the
// transform is built again from that datum. A name the dictionary does not
// know keeps the data in WGS 84.
void follow_log_datum(LogRun& run);
// Arc-seconds of the log's datum to WGS 84 degrees, height with them; the
// datum is followed first.
void log_to_wgs84(LogRun& run, double& longitude, double& latitude, double& height);
// Frees the parser, the transform and its records, and the GeoReference
// unless keep_reference; the stream stays open for the caller.
void free_nav_parser(LogRun& run, bool keep_reference = false);

// Reads the log into data_set: a NavSample per epoch, gathered in
// PositionLists (a STOP mark ends one), the destinations as Waypoints without
// duplicates, the complete routes whose waypoints are known, and the
// GeoReference of their system, WGS 84 degrees. Reports by gblerr.
void read_nmea_log(ObjectId file, ObjectId data_set);

// In each run of three or more successive NavSamples of the list at exactly
// the same longitude and latitude, those between the first and the last
// are taken out of the list and the data set and deleted.
void thin_positions(PairList* list, ObjectId data_set);

} // namespace norvanta
