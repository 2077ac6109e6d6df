// From a file to what the replay plays. Whatever its format, a file's data
// are written out as an NMEA log, and every log is then read back through
// the ordinary sentence parser, one line at a time, so that a GPX track and a
// recorded receiver stream take the same road.
//
// This holds both roads: a file given to the replay becomes NavPoints (the
// load thread's work), and read_nmea_log reads a log into NavSamples,
// Waypoints and Routes (the load path of NMEA logs). Both run the one line
// loop below.
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

// ---- a file to NavPoints ----

// Above this computed speed, km/h, an epoch is a jump in position and is
// dropped with its sentences.
inline constexpr double jump_speed_kmh = 2000.0;
// One metre at 27 knots, in days: a log without times is played at that pace.
inline constexpr double invented_day_per_metre = 8.332666719995734e-07;
// A point starting a track moves this much faster on the invented clock.
inline constexpr double invented_start_speedup = 20.0;
// The invented clock starts at noon on 1 January 2000.
inline constexpr double invented_start_date = 20000101.0;
inline constexpr double invented_start_time_of_day = 0.5;
// Gap filling: only gaps above one second get points, one every 4.99 s, and
// only where at least this many metres were covered since the last one.
inline constexpr double fill_step_days = 5.775462962962963e-05;
inline constexpr double fill_least_metres = 5.0;

// The whole flow for one file given to the replay: the handler of the load
// event, on the load thread (on the UI thread with MONOTHREAD). Shows the
// path in the title under the hourglass; a file already open is not read
// again; a file that yields NavPoints becomes a ReplayTrack with its row in
// the file list, and anything else gets its message box. Ends with a
// refresh of the Dashboard and the drawing event.
void load_navigation_file(const char* path);
// Registers load_navigation_file as the handler of the load event (its data
// is a flag character, which is ignored, then the path). At start-up, after
// the replay engine.
void conversion_init();
// Makes sure that the file holds NMEA text, then builds its NavPoints into
// its DataSet (made when it has none) and fills the gaps. An unknown format,
// or a file without GPS data, gets its message box.
void prepare_nav_points(ObjectId file);
// Any GPS file becomes a log in memory: loaded, written out as sentences,
// and the file turned into that log (format nmea_log). recognised is false
// when the dispatcher could not read it, done false when it held nothing to
// replay. A log is left as it is.
void convert_to_nmea(bool& done, bool& recognised, ObjectId file);
// True at the first sentence with a time of day other than 0. A log whose
// time fields are all empty or zero is played on the invented clock.
bool log_has_times(ObjectId file);
// Reads the log into NavPoints, one per epoch, added to the file's DataSet;
// the last epoch never closes, so it is not among them.
void build_nav_points(ObjectId file);
// Adds NavPoints in the long gaps between the NavPoints of data_set.
void fill_gaps(ObjectId data_set);

// ---- a log to GPS records ----

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
