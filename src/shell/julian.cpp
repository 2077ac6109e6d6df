// Dates and times: the packed date and the JulianTime, their arithmetic, the
// parsers and printers of text dates, the epochs of outside formats and the
// month table.
//
// Every constructor of a date goes through date_normalise, whose month walk
// stops at the turn of a year; the results that this gives (a day larger than
// its month) are settled behaviour that stored and compared values rely on.
#include "shell/julian.h"

#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// The digits of a packed date: year * 10000 + month * 100 + day.
constexpr int64_t year_scale = 10000;
constexpr int64_t month_scale = 100;

// The two-digit fields of NMEA times and dates, hhmmss and ddmmyy.
constexpr int64_t digit_pair_scale = 100;
constexpr int64_t two_digit_pairs_scale = 10000;
// A tenth of a day of guard when a whole day is read back from a packed date.
constexpr double whole_day_guard = 0.1;

constexpr int months_per_year = 12;
constexpr double hours_per_day = 24.0;
constexpr double minutes_per_hour = 60.0;
constexpr double seconds_per_minute = 60.0;
constexpr double seconds_per_hour = 3600.0;
constexpr double ms_to_seconds = 0.001;

// The walk by months starts only once fewer than this many days remain, so
// that whole years are first taken off a year at a time.
constexpr double days_before_month_walk = 370.0;
// An offset beyond some 400 000 years is not normalised at all: stepping a
// year at a time would take too long, and no caller means it. Such a value,
// like an infinite one, comes back unchanged in the day.
constexpr double normalise_limit_days = 146097.0 * 1000.0;
// Real spans of years are summed a year at a time, which decides the last
// bits of a difference; longer ones, which only nonsense dates give, are
// counted in one step so that they cannot hold the thread.
constexpr int64_t year_loop_limit = 100000;

// Two-digit years below the pivot are in the 2000s, the others in the 1900s.
constexpr int year_pivot = 70;
constexpr int century_2000 = 2000;
constexpr int century_1900 = 1900;

constexpr int gmtime_fallback_year = 2000;
constexpr double unsigned_32_span = 4294967296.0;

// The epochs.
constexpr int epoch_1900_year = 1900;
constexpr int epoch_2000_year = 2000;
constexpr int epoch_1990_year = 1990; // day 1 is its first of January

constexpr int month_days[months_per_year] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
static_assert(std::size(month_days) == months_per_year);
constexpr int february = 2;
constexpr int leap_february_days = 29;
// A month outside 1..12 is taken as 31 days. File dates hand the months 0 to
// 11 to date_pack, so a January file date is month 0, and it must stay there
// rather than be walked into the next month.
constexpr int other_month_days = 31;

// The month table. DEC is 11, like NOV: kept on purpose, since the dates read
// from month names have always come out that way and stored values match it.
struct MonthRow {
    const char* name;
    int32_t number;
};
constexpr MonthRow month_rows[] = {
    {"JAN", 1},  // January
    {"FEB", 2},  // February
    {"MAR", 3},  // March
    {"APR", 4},  // April
    {"MAY", 5},  // May
    {"JUN", 6},  // June
    {"JUL", 7},  // July
    {"AUG", 8},  // August
    {"SEP", 9},  // September
    {"OCT", 10}, // October
    {"NOV", 11}, // November
    {"DEC", 11}, // December: 11, kept on purpose
};
static_assert(std::size(month_rows) == months_per_year);
constexpr std::size_t month_name_length = 3;

// The OrderedSet of the month table; 0 until month_table_init has run.
std::atomic<ObjectId> month_set{0};

bool is_leap(int64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int64_t year_length(int64_t year) {
    return is_leap(year) ? 366 : 365;
}

int64_t month_length(int64_t year, int64_t month) {
    if (month < 1 || month > months_per_year) return other_month_days;
    if (month == february && is_leap(year)) return leap_february_days;
    return month_days[month - 1];
}

// Leap years in 1..year, extended to any year, so that a span of years can be
// counted without a loop.
int64_t floor_div(int64_t a, int64_t b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}
int64_t leap_years_through(int64_t year) {
    return floor_div(year, 4) - floor_div(year, 100) + floor_div(year, 400);
}

// The integer part of a double as an int, held to the int range (0 for NaN),
// so that a nonsense value reads as a nonsense number rather than undefined
// behaviour.
int truncate_to_int(double value) {
    if (!(value == value)) return 0;
    constexpr double int_low = -2147483648.0;
    constexpr double int_high = 2147483647.0;
    if (value <= int_low) return static_cast<int>(int_low);
    if (value >= int_high) return static_cast<int>(int_high);
    return static_cast<int>(value);
}

// The integer part of a packed date, held to the dates whose year an int holds.
int64_t date_integer(double date) {
    constexpr double date_limit = 2.0e13;
    if (!(date > -date_limit && date < date_limit)) return 0;
    return static_cast<int64_t>(date);
}

int pivot_year(int two_digit_year) {
    return two_digit_year < year_pivot ? two_digit_year + century_2000
                                       : two_digit_year + century_1900;
}

char ascii_upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// The day of a packed date read back from its digits, with a tenth of a day
// of guard against a value just below a whole day, plus the fraction.
double day_from_packed(double date, double fraction) {
    return std::trunc(std::fmod(date, static_cast<double>(month_scale)) + whole_day_guard) +
           fraction;
}

struct IsoFields {
    int year = 2000;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int milliseconds = 0;
};

// Fixed columns, each read only when the text reaches the end of its field;
// the separators are never looked at.
struct IsoColumn {
    std::size_t column;
    std::size_t needed_length;
    const char* format;
    int IsoFields::*field;
};
constexpr IsoColumn iso_columns[] = {
    {0, 4, "%4d", &IsoFields::year},           // 2007
    {5, 7, "%2d", &IsoFields::month},          // 2007-12
    {8, 10, "%2d", &IsoFields::day},           // 2007-12-19
    {11, 13, "%2d", &IsoFields::hour},         // 2007-12-19T12
    {14, 16, "%2d", &IsoFields::minute},       // 2007-12-19T12:34
    {17, 19, "%2d", &IsoFields::second},       // 2007-12-19T12:34:56
    {20, 23, "%3d", &IsoFields::milliseconds}, // 2007-12-19T12:34:56.789
};
static_assert(std::size(iso_columns) == 7);

IsoFields read_iso_fields(const char* text) {
    IsoFields fields;
    if (!text) return fields;
    const std::size_t length = std::strlen(text);
    for (const IsoColumn& column : iso_columns)
        if (length >= column.needed_length)
            std::sscanf(text + column.column, column.format, &(fields.*column.field));
    return fields;
}

double iso_days(const IsoFields& fields) {
    const double seconds = fields.second + fields.milliseconds * ms_to_seconds;
    return day_compose(fields.day - 1, fields.hour, fields.minute, seconds);
}

struct CompactLayout {
    std::size_t length;
    const char* format;
    bool two_digit_year;
};
constexpr CompactLayout compact_layouts[] = {
    {5, "%1d%2d%2d", true},
    {6, "%2d%2d%2d", true},
    {7, "%1d%2d%4d", false},
    {8, "%2d%2d%4d", false},
};
static_assert(std::size(compact_layouts) == 4);

} // namespace

// ---- core ----

// days is an offset from the first of month at midnight, of any size or sign.
// Whole years go first, a year at a time, each counted with the February it
// crosses: going back from a month before March crosses the previous year's,
// otherwise this year's; going forward, the same rule read from the year
// reached. Then months are walked forward, and the walk stops when the year
// turns, whatever days still holds: from a late month, the result may be the
// sixtieth of January (kept on purpose, see the file's header).
void date_normalise(JulianTime& out, int year_in, int month_in, double days) {
    int64_t year = year_in;
    int64_t month = month_in;
    if (std::isfinite(days) && std::fabs(days) <= normalise_limit_days) {
        while (days < 0.0) {
            const int64_t tested = month < 3 ? year - 1 : year;
            --year;
            days += static_cast<double>(year_length(tested));
        }
        while (std::trunc(days) > days_before_month_walk) {
            ++year;
            const int64_t tested = month < 3 ? year - 1 : year;
            days -= static_cast<double>(year_length(tested));
        }
        for (;;) {
            const int64_t length = month_length(year, month);
            if (std::trunc(days) < static_cast<double>(length)) break;
            days -= static_cast<double>(length);
            if (++month > months_per_year) {
                ++year;
                month = 1;
                break;
            }
        }
        while (days < 0.0) {
            if (--month < 1) {
                month = months_per_year;
                --year;
            }
            days += static_cast<double>(month_length(year, month));
        }
    }
    out.day = days + 1.0;
    out.date = static_cast<double>(year * year_scale + month * month_scale) + out.day;
}

double date_pack(int year, int month, double days) {
    JulianTime julian;
    date_normalise(julian, year, month, days);
    return julian.date;
}

void julian_from_date(JulianTime& out, double date) {
    int year = 0;
    int month = 0;
    double day = 0.0;
    date_split(date, &year, &month, &day);
    out.date = date;
    out.day = day;
}

void date_split(double date, int* year, int* month, double* day) {
    const int64_t whole = date_integer(date);
    const int64_t y = whole / year_scale;
    const int64_t m = (whole % year_scale) / month_scale;
    if (year) *year = static_cast<int>(y);
    if (month) *month = static_cast<int>(m);
    if (day) *day = date - static_cast<double>(m * month_scale + y * year_scale);
}

void julian_split(double date, double day_value, int* year, int* month, double* day) {
    date_split(date, year, month, nullptr);
    if (day) *day = day_value;
}

void day_split(double day_value, int* day, int* hour, int* minute, double* second) {
    const double whole_day = std::trunc(day_value);
    double rest = (day_value - whole_day) * hours_per_day;
    const double whole_hour = std::trunc(rest);
    rest = (rest - whole_hour) * minutes_per_hour;
    const double whole_minute = std::trunc(rest);
    rest = (rest - whole_minute) * seconds_per_minute;
    if (day) *day = truncate_to_int(whole_day);
    if (hour) *hour = truncate_to_int(whole_hour);
    if (minute) *minute = truncate_to_int(whole_minute);
    if (second) *second = rest;
}

double day_compose(double day, int hour, int minute, double second) {
    return day + hour * one_hour_days + minute * one_minute_days + second * one_second_days;
}

void seconds_split(double seconds, int* hour, int* minute, double* second) {
    if (hour) *hour = truncate_to_int(seconds * seconds_to_hours);
    if (minute)
        *minute = truncate_to_int(std::fmod(seconds, seconds_per_hour) * seconds_to_minutes);
    if (second) *second = std::fmod(seconds, seconds_per_minute);
}

// value is an NMEA time, hhmmss.ss.
double hhmmss_to_day(double value, double* fraction) {
    const int64_t whole = truncate_to_int(value);
    const int64_t hour = whole / two_digit_pairs_scale;
    const int64_t minute = (whole - hour * two_digit_pairs_scale) / digit_pair_scale;
    const double second = std::fmod(value, static_cast<double>(digit_pair_scale));
    const double result = second * one_second_days + static_cast<double>(minute) * one_minute_days +
                          static_cast<double>(hour) * one_hour_days;
    if (fraction) *fraction = result;
    return result;
}

double seconds_to_days(double value) {
    return value * one_second_days;
}

void date_zero(double& value) {
    value = 0.0;
}

void julian_zero(JulianTime& julian) {
    julian = JulianTime{0.0, 0.0};
}

bool is_zero(double value) {
    return value == 0.0;
}

int days_in_year(int year) {
    return static_cast<int>(year_length(year));
}

double day_of_year(double date) {
    int year = 0;
    int month = 0;
    double day = 0.0;
    date_split(date, &year, &month, &day);
    double before = 0.0;
    for (int m = 1; m < month && m <= months_per_year; ++m)
        before += static_cast<double>(month_length(year, m));
    return before + day - 1.0;
}

// ---- clock ----

void now_julian(JulianTime& out) {
    julian_from_time(out, std::time(nullptr));
}

double now_date() {
    return date_from_time(std::time(nullptr));
}

double date_from_time(std::time_t time) {
    std::tm fields{};
    if (!gmtime_r(&time, &fields))
        return date_pack(gmtime_fallback_year, 1, day_compose(1, 1, 1, 1.0));
    return date_pack(fields.tm_year + century_1900, fields.tm_mon + 1,
                     day_compose(fields.tm_mday - 1, fields.tm_hour, fields.tm_min, fields.tm_sec));
}

void julian_from_time(JulianTime& out, std::time_t time) {
    julian_from_date(out, date_from_time(time));
}

// ---- arithmetic ----

void julian_add_days(JulianTime& julian, double delta) {
    int year = 0;
    int month = 0;
    double day = 0.0;
    julian_split(julian.date, julian.day, &year, &month, &day);
    date_normalise(julian, year, month, day - 1.0 + delta);
}

void julian_add_ms(double ms, JulianTime& julian) {
    julian_add_days(julian, ms * one_ms_days);
}

double date_add_days(double date, double delta) {
    int year = 0;
    int month = 0;
    double day = 0.0;
    date_split(date, &year, &month, &day);
    return date_pack(year, month, day - 1.0 + delta);
}

// Days from a to b. When the earlier of the two is 0.0 (no date) the later is
// returned as it stands, whatever the order: the caller learns nothing
// better, and callers test for it.
double date_difference(double a, double b) {
    if (a == b) return 0.0;
    const bool swapped = b < a;
    const double from = swapped ? b : a;
    const double to = swapped ? a : b;
    if (from == 0.0) return to;
    int from_year = 0;
    int to_year = 0;
    date_split(from, &from_year, nullptr, nullptr);
    date_split(to, &to_year, nullptr, nullptr);
    double result = day_of_year(to) - day_of_year(from);
    const int64_t span = int64_t{to_year} - from_year;
    if (span <= year_loop_limit) {
        for (int64_t year = from_year; year < to_year; ++year)
            result += static_cast<double>(year_length(year));
    } else {
        result += static_cast<double>(365 * span + leap_years_through(to_year - 1) -
                                      leap_years_through(int64_t{from_year} - 1));
    }
    return swapped ? -result : result;
}

double julian_difference(const JulianTime& a, const JulianTime& b) {
    if (std::trunc(a.date) == std::trunc(b.date)) return b.day - a.day;
    return date_difference(a.date, b.date);
}

// ---- parsers ----
//
// None reports failure. A field that the text does not fill stays at 0 (or at
// the default named for the format), and gives whatever date that makes.

void parse_slash_date(const char* text, JulianTime& out) {
    int day = 0;
    int month = 0;
    int year = 0;
    if (text) std::sscanf(text, "%2d/%2d/%4d", &day, &month, &year);
    date_normalise(out, year, month, day - 1.0);
}

void add_clock_text(const char* text, JulianTime& julian) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (text) std::sscanf(text, "%2d:%2d:%2d", &hour, &minute, &second);
    const double fraction = day_compose(0.0, hour, minute, second);
    julian.date += fraction;
    julian.day += fraction;
}

void parse_month_name_date(const char* text, JulianTime& out) {
    int day = 0;
    char name[month_name_length + 1] = {};
    int year = 0;
    if (text) std::sscanf(text, "%2d-%3s-%2d", &day, name, &year);
    date_normalise(out, pivot_year(year), month_from_name(name), day - 1.0);
}

double parse_compact_date(const char* text) {
    if (!text) return 0.0;
    const std::size_t length = std::strlen(text);
    for (const CompactLayout& layout : compact_layouts) {
        if (layout.length != length) continue;
        int day = 0;
        int month = 0;
        int year = 0;
        std::sscanf(text, layout.format, &day, &month, &year);
        if (layout.two_digit_year) year = pivot_year(year);
        return date_pack(year, month, day - 1.0);
    }
    return 0.0;
}

void parse_compact_date_time(const char* text, double fraction, JulianTime& out) {
    const double date = parse_compact_date(text);
    out.date = date + fraction;
    out.day = day_from_packed(date, fraction);
}

void parse_year_first_date(const char* text, double fraction, JulianTime& out) {
    int year = 0;
    int month = 0;
    int day = 0;
    if (text) std::sscanf(text, "%2d%2d%2d", &year, &month, &day);
    const double date = date_pack(pivot_year(year), month, day - 1.0);
    out.date = date + fraction;
    out.day = day_from_packed(date, fraction);
}

// The time and date fields of an RMC sentence, hhmmss and ddmmyy.
double pack_hhmmss_ddmmyy(long hhmmss, long ddmmyy) {
    const long day = ddmmyy / two_digit_pairs_scale;
    const long month = (ddmmyy / digit_pair_scale) % digit_pair_scale;
    const long year = ddmmyy % digit_pair_scale;
    const long hour = hhmmss / two_digit_pairs_scale;
    const long minute = (hhmmss / digit_pair_scale) % digit_pair_scale;
    const long second = hhmmss % digit_pair_scale;
    return date_pack(pivot_year(static_cast<int>(year)), static_cast<int>(month),
                     day_compose(static_cast<double>(day - 1), static_cast<int>(hour),
                                 static_cast<int>(minute), static_cast<double>(second)));
}

double parse_iso_date(const char* text) {
    const IsoFields fields = read_iso_fields(text);
    return date_pack(fields.year, fields.month, iso_days(fields));
}

void parse_iso_julian(const char* text, JulianTime& out) {
    const IsoFields fields = read_iso_fields(text);
    date_normalise(out, fields.year, fields.month, iso_days(fields));
}

// ---- the month table ----

void month_table_init() {
    if (month_set.load(std::memory_order_acquire)) return;
    set_obj_type<MonthName>();
    ObjectId handle = 0;
    oset_create(0, 0, ObjectType::MonthName, FieldKind::byte_string, offsetof(MonthName, name),
                handle);
    for (const MonthRow& row : month_rows) {
        ObjectId id = 0;
        MonthName* month = cre_obj<MonthName>(&id);
        if (!month) return;
        month->name = row.name;
        month->number = row.number;
        oset_insert(handle, id);
    }
    if (!error_pending()) month_set.store(handle, std::memory_order_release);
}

int month_from_name(const char* text) {
    if (!text || strnlen(text, month_name_length) < month_name_length) return 0;
    const ObjectId handle = month_set.load(std::memory_order_acquire);
    if (!handle) return 0;
    char key[month_name_length + 1] = {};
    for (std::size_t i = 0; i < month_name_length; ++i)
        key[i] = ascii_upper(text[i]);
    bool exact = false;
    const ObjectId id = oset_search(handle, key, &exact);
    if (!id || !exact) return 0;
    const MonthName* month = get_obj_adr<MonthName>(id);
    return month ? month->number : 0;
}

// ---- epochs of outside formats ----

void julian_from_days_1900(double days, JulianTime& out) {
    date_normalise(out, epoch_1900_year, 1, days);
}

void julian_from_seconds_2000(long seconds, JulianTime& out) {
    date_normalise(out, epoch_2000_year, 1, seconds_to_days(static_cast<double>(seconds)));
}

double date_from_day_and_seconds(long day_number, double seconds) {
    return date_pack(epoch_1990_year, 1,
                     static_cast<double>(day_number) - 1.0 + seconds_to_days(seconds));
}

// GPS time in seconds from 31 December 1989, day 0 of the function above; the
// field is unsigned, so a negative value as read counts from 2^32.
double date_from_gps_seconds(int32_t seconds) {
    const double value = seconds < 0 ? seconds + unsigned_32_span : static_cast<double>(seconds);
    return date_from_day_and_seconds(0, value);
}

// ---- printing ----

void format_log_time(const JulianTime& time, char* out) {
    int year = 0;
    int month = 0;
    double day_value = 0.0;
    julian_split(time.date, time.day, &year, &month, &day_value);
    int day = 0;
    int hour = 0;
    int minute = 0;
    double second = 0.0;
    day_split(day_value, &day, &hour, &minute, &second);
    std::snprintf(out, date_text_capacity, "%d/%02d/%02d:%02d:%02d:%02d", year, month, day, hour,
                  minute, truncate_to_int(second));
}

void format_iso(double date, int precision, bool zulu, char* out) {
    int year = 0;
    int month = 0;
    double day_value = 0.0;
    date_split(date, &year, &month, &day_value);
    int day = 0;
    int hour = 0;
    int minute = 0;
    double second = 0.0;
    day_split(day_value, &day, &hour, &minute, &second);
    int written = 0;
    switch (precision) {
    case 0:
        written = std::snprintf(out, date_text_capacity, "%04d-%02d-%02d", year, month, day);
        break;
    case 1:
        written = std::snprintf(out, date_text_capacity, "%04d-%02d-%02dT%02d:%02d:%02d", year,
                                month, day, hour, minute, truncate_to_int(second));
        break;
    case 2:
        written = std::snprintf(out, date_text_capacity, "%04d-%02d-%02dT%02d:%02d:%02.3lf", year,
                                month, day, hour, minute, second);
        break;
    default:
        out[0] = '\0';
        return;
    }
    if (zulu && precision > 0 && written > 0 &&
        static_cast<std::size_t>(written) + 1 < date_text_capacity) {
        out[written] = 'Z';
        out[written + 1] = '\0';
    }
}

void append_file_stamp(char*& text) {
    const std::time_t now = std::time(nullptr);
    std::tm fields{};
    localtime_r(&now, &fields);
    char stamp[date_text_capacity];
    std::snprintf(stamp, sizeof stamp, "%4d-%02d-%02d_%02dh%02dm%02ds",
                  fields.tm_year + century_1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                  fields.tm_min, fields.tm_sec);
    str_append(stamp, text);
}

} // namespace norvanta
