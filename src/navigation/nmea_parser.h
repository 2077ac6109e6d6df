// The NMEA sentence parser and the NavFix it fills.
//
// Bytes from any live source (a serial burst, a datagram, a log read back)
// go through a table-driven character machine that recognises
// "$KEYWORD,data*CS\r\n" one byte at a time, so that a sentence may be split
// across any number of feeds. A sentence with a good checksum reaches the
// handler that its keyword names, and the handler merges its fields into one
// persistent NavFix, raising a validity flag for each kind of value it set.
// Nothing here reports an error: a bad sentence is dropped in silence.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <type_traits>

#include "core/mobj.h"
#include "shell/julian.h"

namespace norvanta {

// ---- NavFix ----

inline constexpr std::size_t datum_name_capacity = 80;
inline constexpr std::size_t origin_id_capacity = 20;
inline constexpr std::size_t destination_id_capacity = 24;
inline constexpr std::size_t route_id_capacity = 200;
inline constexpr std::size_t fix_satellite_capacity = 12;
// The naming scheme of datum_name in the geodetic dictionary: the NMEA names.
inline constexpr uint32_t nmea_datum_naming = 4;
// The geodetic system a fix is in until a receiver names another: WGS 84.
inline constexpr int32_t default_datum_code = 214;

struct FixSatellite {
    int32_t prn;       // satellite number
    int32_t elevation; // degrees
    int32_t azimuth;   // degrees
    int32_t snr;       // dB-Hz
};

enum class FixMark : uint32_t { none = 0, start = 1, stop = 2 };

// The merged state of everything a source has sent. Values persist between
// sentences and batches; a consumer reads a value only under its flag.
struct NavFix {
    double latitude;         // arc-seconds (NMEA path) or radians (PVT path), north positive
    double longitude;        // arc-seconds (NMEA path) or radians (PVT path), east positive
    double time_of_day;      // UTC, fraction of a day, 0 to below 1
    double date;             // packed date yyyymmdd; 0 when none was ever received
    double altitude;         // metres above mean sea level
    double ellipsoid_height; // metres: altitude plus geoid separation
    double speed_kmh;        // km/h
    double speed_knots;      // knots
    double course_true;      // degrees
    double course_magnetic;  // degrees
    double horizontal_error; // metres, from PGRME
    double vertical_error;   // metres, from PGRME
    double hdop;             // horizontal dilution of precision
    uint32_t fix_acquired;   // 1 when the GGA quality is above 0
    uint32_t differential;   // 1 when the GGA quality is 2 or more
    char datum_name[datum_name_capacity]; // geodetic system of the stream
    uint32_t datum_naming;                // naming scheme of datum_name; always nmea_datum_naming
    uint32_t arrived;                     // 1 when the RMB arrival flag is A
    char origin_id[origin_id_capacity];   // origin waypoint
    char destination_id[destination_id_capacity]; // destination waypoint
    double destination_latitude;                  // arc-seconds
    double destination_longitude;                 // arc-seconds
    double bearing_true;                          // degrees
    double bearing_magnetic;                      // degrees
    double destination_range;                     // nautical miles, as sent
    double closing_velocity;                      // knots, as sent
    char route_id[route_id_capacity];             // route identifier
    char* route_waypoints;                        // owned string list of waypoint names
    uint32_t destination_valid;                   // 1 when RMB or WPL filled the destination
    uint32_t route_complete;    // 1 when the last sentence of a route series came in
    int32_t satellites_in_view; // satellite count
    FixSatellite satellites[fix_satellite_capacity];
    uint32_t time_valid;       // flag: time_of_day set in this batch
    uint32_t position_valid;   // flag: latitude and longitude set in this batch
    uint32_t altitude_valid;   // flag
    uint32_t speed_valid;      // flag
    uint32_t course_valid;     // flag
    uint32_t satellites_valid; // flag
    uint32_t quality_valid;    // raised by GGA and never lowered by clear_fix_flags
    uint32_t date_valid;       // flag
    JulianTime epoch_time;     // date and time of the batch, set by the worker
    FixMark mark;              // START or STOP seen in this batch
    char* text;                // owned raw text of the batch; the worker's copy only
};
static_assert(std::is_trivially_copyable_v<NavFix> && std::is_standard_layout_v<NavFix>);

// Allocates a zeroed NavFix into slot (freeing what it held) naming the
// default geodetic system.
NavFix* new_nav_fix(NavFix*& slot);
// Frees the fix and the strings it owns; the slot becomes null.
void free_nav_fix(NavFix*& slot);
// Lowers the per-batch flags and the mark; quality_valid stays.
void clear_fix_flags(NavFix& fix);

// ---- The parser ----

struct NmeaParser;
using NmeaHandler = void (*)(NmeaParser& parser);
// The byte source of a link: up to capacity bytes into buffer; a negative
// count is a failed read.
using ReadBytes = long (*)(void* port, std::size_t capacity, char* buffer);

struct NmeaKeyword {
    const char* keyword;    // exact, case-sensitive
    uint32_t handler_index; // into the handler table; 0 does nothing
};

inline constexpr std::size_t keyword_capacity = 10;
inline constexpr std::size_t keyword_stored_limit = 8;
inline constexpr std::size_t sentence_data_capacity = 80;
inline constexpr std::size_t checksum_capacity = 6;
inline constexpr std::size_t checksum_stored_limit = 4;
inline constexpr std::size_t talker_capacity = 3; // two letters and the terminator

enum class NmeaState : uint32_t { idle, after_dollar, keyword, data, checksum, after_cr };
inline constexpr std::size_t nmea_state_count = 6;
const char* nmea_state_name(NmeaState state);

struct NmeaParser {
    void* port;                            // first argument of read_bytes
    std::FILE* log_file;                   // raw log of the stream, may be null
    ReadBytes read_bytes;                  // the byte source of this link
    std::span<const NmeaKeyword> keywords; // the shared keyword table
    NavFix* fix;                           // owned; filled by the handlers
    std::span<const NmeaHandler> handlers; // the shared handler table
    char keyword[keyword_capacity];        // keyword as received, NUL-terminated
    // Between the first comma and '*': sentence_data_capacity characters, the
    // terminator Dispatch writes after them, and a NUL that nothing writes,
    // which bounds the field reader when a handler reads past the sentence.
    char data[sentence_data_capacity + 2];
    char checksum[checksum_capacity];  // checksum digits as received
    char* keyword_end;                 // write position in keyword
    char* checksum_end;                // write position in checksum
    char* cursor;                      // write position in data; the field reader's read position
    uint32_t handler_index;            // chosen by the keyword; 0 after a bad checksum
    uint32_t checksum_count;           // characters received, stored or not
    uint32_t keyword_count;            // characters received, stored or not
    uint32_t data_count;               // characters received, stored or not
    NmeaState state;                   // of the character machine
    uint32_t route_total;              // sentences announced by the running GPRTE series
    uint32_t any_talker;               // read any two-letter talker as GP
    uint32_t foreign_talker_candidate; // this sentence is a fix of another talker
    char foreign_talker[talker_capacity]; // talker of the last such sentence with a good checksum
};

// The sixteen handlers of the NMEA table, index 0 doing nothing.
inline constexpr std::size_t nmea_handler_count = 17;
inline constexpr std::size_t nmea_keyword_count = 36;
std::span<const NmeaKeyword> nmea_keywords();
std::span<const NmeaHandler> nmea_handlers();

// The handler index of a keyword in a table; 0 when absent.
uint32_t find_keyword(std::span<const NmeaKeyword> table, const char* keyword);

// A parser on the NMEA tables; fix is still null. The NMEA_ANY_TALKER key of
// the configuration is read here, once.
NmeaParser* new_nmea_parser(void* port, ReadBytes read_bytes);
// The same on other tables (the Magellan and Emtac sentences).
NmeaParser* new_sentence_parser(void* port, ReadBytes read_bytes,
                                std::span<const NmeaKeyword> keywords,
                                std::span<const NmeaHandler> handlers);
// Frees the fix and the parser; the variable becomes null.
void free_nmea_parser(NmeaParser*& parser);

// Runs the machine over the bytes; stops early when gblerr is set after an
// action. A feed is one batch for the talker hint.
void feed_nmea(const char* bytes, std::size_t count, NmeaParser& parser);

// The field reader of the handlers, from parser.cursor: skips blanks, copies
// up to the next comma or the end into out (capacity sentence_data_capacity),
// steps over the delimiter. A field of sentence_data_capacity characters or
// more is not copied: out is empty and the cursor stays. Past the sentence's
// end it reads what earlier sentences left in data, never past data itself.
void next_field(NmeaParser& parser, char* out);

// The configuration key that lets any talker through.
inline constexpr const char* any_talker_key = "NMEA_ANY_TALKER";
// Whether the one-time talker hint was given in this process.
bool talker_hint_given();

// ---- Datum follow-up ----

// What the link keeps of the datum: the name last acted on (owned), the
// change flag, and the GeoReference whose Datum follows the stream.
struct DatumFollow {
    char*& datum_seen;
    uint32_t& datum_changed;
    ObjectId geo_reference;
};
// Compares the fix's datum name with the one last seen; on a first name or a
// change, raises datum_changed, stores the named Datum in the GeoReference
// and remembers the name; otherwise lowers datum_changed.
void follow_datum(const NavFix& fix, DatumFollow link);

} // namespace norvanta
