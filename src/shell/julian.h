// Dates and times.
//
// A date is not a count from an epoch: it is a calendar date packed into the
// digits of a double, year * 10000 + month * 100 + day, with the time of day as
// its fraction, so that 20071219.5 is noon on 19 December 2007. It prints as a
// date and sorts in time order, but cannot be subtracted directly; a
// JulianTime keeps the day with its fraction beside it for that. 0.0 is "no
// date". The day arithmetic multiplies by the constants below, whose last bits
// decide results that are compared for equality elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <type_traits>

#include "core/mobj.h"
#include "core/object_types.h"

namespace norvanta {

struct JulianTime {
    double date; // packed date, yyyymmdd.fraction
    double day;  // day of the month with the fraction of the day
};

inline constexpr double one_hour_days = 0.041666666666666664;    // 1/24
inline constexpr double one_minute_days = 0.0006944444444444445; // 1/1440
inline constexpr double one_second_days = 1.1574074074074073e-5; // 1/86400
inline constexpr double one_ms_days = 1.1574074074074074e-8;
inline constexpr double seconds_to_hours = 0.0002777777777777778;  // 1/3600
inline constexpr double seconds_to_minutes = 0.016666666666666666; // 1/60

// ---- core ----
void date_normalise(JulianTime& out, int year, int month, double days);
double date_pack(int year, int month, double days);
void julian_from_date(JulianTime& out, double date);
void date_split(double date, int* year, int* month, double* day);
void julian_split(double date, double day_value, int* year, int* month, double* day);
void day_split(double day_value, int* day, int* hour, int* minute, double* second);
double day_compose(double day, int hour, int minute, double second);
void seconds_split(double seconds, int* hour, int* minute, double* second);
double hhmmss_to_day(double value, double* fraction);
double seconds_to_days(double value);
void date_zero(double& value);
void julian_zero(JulianTime& julian);
bool is_zero(double value);
int days_in_year(int year);
double day_of_year(double date);

// ---- clock ----
void now_julian(JulianTime& out);
double now_date();
double date_from_time(std::time_t time);
void julian_from_time(JulianTime& out, std::time_t time);

// ---- arithmetic ----
void julian_add_days(JulianTime& julian, double delta);
void julian_add_ms(double ms, JulianTime& julian);
double date_add_days(double date, double delta);
double date_difference(double a, double b);
double julian_difference(const JulianTime& a, const JulianTime& b);

// ---- parsers: none reports failure ----
void parse_slash_date(const char* text, JulianTime& out);
void add_clock_text(const char* text, JulianTime& julian);
void parse_month_name_date(const char* text, JulianTime& out);
double parse_compact_date(const char* text);
void parse_compact_date_time(const char* text, double fraction, JulianTime& out);
void parse_year_first_date(const char* text, double fraction, JulianTime& out);
double pack_hhmmss_ddmmyy(long hhmmss, long ddmmyy);
double parse_iso_date(const char* text);
void parse_iso_julian(const char* text, JulianTime& out);
// One month of the table, an object of the store so that month names are
// found through an ordered set on the name.
struct MonthName {
    static constexpr ObjectType object_type = ObjectType::MonthName;

    ObjectId id;      // object header
    ObjectType type;  // object header: ObjectType::MonthName
    const char* name; // three upper-case letters, a static text (not owned)
    int32_t number;   // the month's number as the table gives it
};
static_assert(std::is_trivially_copyable_v<MonthName> && std::is_standard_layout_v<MonthName>);

// The first three letters of text, in upper case, looked up in the month
// table: 0 for a text shorter than 3, a name not in the table, or before
// month_table_init.
int month_from_name(const char* text);
// Registers the MonthName type and fills the month table; the store must
// exist. Runs once; later calls do nothing.
void month_table_init();

// ---- epochs of outside formats ----
void julian_from_days_1900(double days, JulianTime& out);
void julian_from_seconds_2000(long seconds, JulianTime& out);
double date_from_day_and_seconds(long day_number, double seconds);
double date_from_gps_seconds(int32_t seconds);

// ---- printing ----
inline constexpr std::size_t date_text_capacity = 40;
// "%d/%02d/%02d:%02d:%02d:%02d", whole seconds: the log's time.
void format_log_time(const JulianTime& time, char* out);
// precision 0 date, 1 with time, 2 with milliseconds; other precisions: "".
void format_iso(double date, int precision, bool zulu, char* out);
// Appends the local time as "%4d-%02d-%02d_%02dh%02dm%02ds" (log file names).
void append_file_stamp(char*& text);

} // namespace norvanta
