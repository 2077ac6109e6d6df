// Dates and times: normalisation and its stop at the turn of the year, the
// splits, differences, parsers, epochs, printers and the month table. Results
// that can be computed another way are checked against std::chrono's calendar.
#include "shell/julian.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "shell/errors.h"

namespace norvanta {
namespace {

using namespace std::chrono;

// The month table lives in the store, which is made once per process.
class StoreEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        object_store_create();
        month_table_init();
        ASSERT_FALSE(error_pending()) << "the month table could not be made";
    }
};
const auto* const store_environment = ::testing::AddGlobalTestEnvironment(new StoreEnvironment);

// A packed date as seconds since 1970, read through the calendar: the first
// of its month plus its day value, which may run past the month's end.
double packed_to_unix_seconds(double date) {
    int year_value = 0;
    int month_value = 0;
    double day_value = 0.0;
    date_split(date, &year_value, &month_value, &day_value);
    const sys_days first{year{year_value} / month{static_cast<unsigned>(month_value)} / 1};
    return static_cast<double>(first.time_since_epoch().count()) * 86400.0 +
           (day_value - 1.0) * 86400.0;
}

double unix_seconds(sys_days day, double extra_seconds = 0.0) {
    return static_cast<double>(day.time_since_epoch().count()) * 86400.0 + extra_seconds;
}

// A millisecond, a little more than the resolution of a packed date today.
constexpr double packed_tolerance_seconds = 2e-3;

TEST(Julian, NormaliseStopsAtTheTurnOfTheYear) {
    struct Row {
        const char* description;
        int year;
        int month;
        double days;
        double expected_date;
        double expected_day;
    };
    const Row rows[] = {
        {"noon on 19 December 2007", 2007, 12, 18.5, 20071219.5, 19.5},
        {"the last day of December plus one: 1 January", 2007, 12, 31.0, 20080101.0, 1.0},
        {"one day before January: 31 December", 2008, 1, -1.0, 20071231.0, 31.0},
        {"one day before March steps back a whole year and stops at January", 2008, 3, -1.0,
         20080160.0, 60.0},
        {"100 days from December stop in January", 2007, 12, 100.0, 20080170.0, 70.0},
        {"29 February of a leap year", 2008, 2, 28.0, 20080229.0, 29.0},
        {"no 29 February in 2007", 2007, 2, 28.0, 20070301.0, 1.0},
        {"a whole year forward from March counts February of the next year", 2007, 3, 400.0,
         20080404.0, 4.0},
        {"400 days back from January", 2009, 1, -400.0, 20071128.0, 28.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        JulianTime julian{};
        date_normalise(julian, row.year, row.month, row.days);
        EXPECT_EQ(julian.date, row.expected_date);
        EXPECT_EQ(julian.day, row.expected_day);
        EXPECT_EQ(date_pack(row.year, row.month, row.days), row.expected_date);
    }
}

TEST(Julian, NormaliseFromJanuaryAgreesWithTheCalendar) {
    // From January the walk never reaches the turn of the year with days to
    // spare, so every offset must land on the calendar's own date.
    int failures = 0;
    for (int base_year : {1899, 1900, 1999, 2000, 2007, 2008, 2100}) {
        for (int offset = -1500; offset <= 1500; offset += 7) {
            const double days = offset + 0.25;
            const double date = date_pack(base_year, 1, days);
            const year_month_day expected{sys_days{year{base_year} / 1 / 1} +
                                          std::chrono::days{offset}};
            int y = 0;
            int m = 0;
            double d = 0.0;
            date_split(date, &y, &m, &d);
            const bool same = y == static_cast<int>(expected.year()) &&
                              m == static_cast<int>(static_cast<unsigned>(expected.month())) &&
                              d == static_cast<unsigned>(expected.day()) + 0.25;
            if (!same && ++failures <= 10)
                ADD_FAILURE() << "year " << base_year << " offset " << days << " gave "
                              << std::to_string(date) << ", calendar says "
                              << static_cast<int>(expected.year()) << "-"
                              << static_cast<unsigned>(expected.month()) << "-"
                              << static_cast<unsigned>(expected.day());
        }
    }
    EXPECT_EQ(failures, 0);
}

TEST(Julian, FileDatesKeepMonthZero) {
    // A file's date is packed with the months 0 to 11: a January date stays
    // in month 0 instead of being walked into a neighbour.
    EXPECT_EQ(date_pack(2008, 0, 4.0), 20080005.0);
    EXPECT_EQ(date_pack(2008, 11, 4.0), 20081105.0) << "December as 11";
}

TEST(Julian, NormaliseReturnsAtOnceOnNonsense) {
    JulianTime julian{};
    date_normalise(julian, 2008, 1, std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isinf(julian.date));
    date_normalise(julian, 2008, 1, -std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isinf(julian.date));
    date_normalise(julian, 2008, 1, std::nan(""));
    EXPECT_TRUE(std::isnan(julian.date));
    date_normalise(julian, 2008, 1, 1e300);
    EXPECT_EQ(julian.day, 1e300 + 1.0);
    // Large but meaningful offsets are still normalised.
    EXPECT_EQ(date_pack(2000, 1, 146097.0), 24000101.0) << "400 years are 146097 days";
}

TEST(Julian, NoonOfNineteenDecemberFromTheClock) {
    const auto noon = sys_days{2007y / 12 / 19} + 12h;
    JulianTime julian{};
    julian_from_time(julian, system_clock::to_time_t(noon));
    EXPECT_EQ(julian.date, 20071219.5);
    EXPECT_EQ(julian.day, 19.5);
    EXPECT_EQ(date_from_time(system_clock::to_time_t(noon)), 20071219.5);
}

TEST(Julian, SplitsReadTheDigits) {
    int year = 0;
    int month = 0;
    double day = 0.0;
    date_split(20071219.75, &year, &month, &day);
    EXPECT_EQ(year, 2007);
    EXPECT_EQ(month, 12);
    EXPECT_EQ(day, 19.75);
    julian_split(20071219.75, 19.125, &year, &month, &day);
    EXPECT_EQ(day, 19.125) << "the day comes from the day value";
    date_split(20071219.75, nullptr, nullptr, nullptr); // every output may be absent

    JulianTime julian{};
    julian_from_date(julian, 20080160.5);
    EXPECT_EQ(julian.date, 20080160.5);
    EXPECT_EQ(julian.day, 60.5);
}

TEST(Julian, DaySplitTruncatesEachStep) {
    struct Row {
        const char* description;
        double value;
        int day;
        int hour;
        int minute;
        double second;
    };
    const Row rows[] = {
        {"noon", 19.5, 19, 12, 0, 0.0},
        {"six in the evening", 19.75, 19, 18, 0, 0.0},
        {"a 1/1024 day past midnight", 3.0009765625, 3, 0, 1, 24.375},
        {"nothing", 0.0, 0, 0, 0, 0.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        int day = -1;
        int hour = -1;
        int minute = -1;
        double second = -1.0;
        day_split(row.value, &day, &hour, &minute, &second);
        EXPECT_EQ(day, row.day);
        EXPECT_EQ(hour, row.hour);
        EXPECT_EQ(minute, row.minute);
        EXPECT_EQ(second, row.second);
    }
    day_split(19.5, nullptr, nullptr, nullptr, nullptr);
}

TEST(Julian, ComposeAndNmeaTime) {
    struct Row {
        const char* description;
        double hhmmss;
        double expected_seconds;
    };
    const Row rows[] = {
        {"with hundredths", 123456.5, 12 * 3600 + 34 * 60 + 56.5},
        {"midnight", 0.0, 0.0},
        {"the last second", 235959.0, 86399.0},
        {"one minute", 100.0, 60.0},
        {"minutes and seconds only", 5959.75, 59 * 60 + 59.75},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        double fraction = -1.0;
        const double result = hhmmss_to_day(row.hhmmss, &fraction);
        EXPECT_NEAR(result, row.expected_seconds / 86400.0, 1e-13);
        EXPECT_EQ(fraction, result);
    }
    int hour = 0;
    int minute = 0;
    double second = 0.0;
    seconds_split(3725.5, &hour, &minute, &second);
    EXPECT_EQ(hour, 1);
    EXPECT_EQ(minute, 2);
    EXPECT_EQ(second, 5.5);
    seconds_split(86399.0, &hour, &minute, &second);
    EXPECT_EQ(hour, 23);
    EXPECT_EQ(minute, 59);
    EXPECT_EQ(second, 59.0);
}

TEST(Julian, YearLengthsAndDayOfYear) {
    EXPECT_EQ(days_in_year(1900), 365);
    EXPECT_EQ(days_in_year(2000), 366);
    EXPECT_EQ(days_in_year(2004), 366);
    EXPECT_EQ(days_in_year(2007), 365);
    EXPECT_EQ(days_in_year(2100), 365);
    EXPECT_EQ(day_of_year(20070101.0), 0.0);
    EXPECT_EQ(day_of_year(20080301.25), 60.25);
    EXPECT_EQ(day_of_year(20071231.5), 364.5);
}

TEST(Julian, DateDifference) {
    struct Row {
        const char* description;
        double a;
        double b;
        double expected;
    };
    const Row rows[] = {
        {"equal values", 20071219.5, 20071219.5, 0.0},
        {"no date first gives the later value", 0.0, 20071219.5, 20071219.5},
        {"no date second gives the later value, unsigned", 20071219.5, 0.0, 20071219.5},
        {"over new year", 20071231.0, 20080101.0, 1.0},
        {"backwards over new year", 20080101.0, 20071231.0, -1.0},
        {"a year that holds 29 February", 20070301.0, 20080301.0, 366.0},
        {"a year that does not", 20080301.0, 20090301.0, 365.0},
        {"ten years with three leap days", 20000101.0, 20100101.0, 3653.0},
        {"fractions of days", 20071219.25, 20071220.75, 1.5},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(date_difference(row.a, row.b), row.expected);
    }
    const double calendar =
        static_cast<double>((sys_days{2024y / 2 / 29} - sys_days{1970y / 1 / 1}).count()) + 0.5;
    EXPECT_NEAR(date_difference(19700101.0, 20240229.5), calendar, 1e-6);
    EXPECT_NEAR(date_difference(20240229.5, 19700101.0), -calendar, 1e-6);
}

TEST(Julian, JulianDifferenceOnOneDayAndOverMidnight) {
    JulianTime a{};
    JulianTime b{};
    parse_iso_julian("2007-12-19T10:00:00", a);
    parse_iso_julian("2007-12-19T10:00:01", b);
    EXPECT_NEAR(julian_difference(a, b), one_second_days, 1e-13) << "the day fields decide";
    EXPECT_NEAR(julian_difference(a, b), date_difference(a.date, b.date), 1e-8);

    parse_iso_julian("2007-12-31T23:59:30", a);
    parse_iso_julian("2008-01-01T00:00:30", b);
    EXPECT_NEAR(julian_difference(a, b), 60 * one_second_days, 1e-8);
    EXPECT_NEAR(julian_difference(b, a), -60 * one_second_days, 1e-8);
}

TEST(Julian, AddingDays) {
    JulianTime julian{20071231.5, 31.5};
    julian_add_days(julian, 1.0);
    EXPECT_EQ(julian.date, 20080101.5);
    EXPECT_EQ(julian.day, 1.5);

    julian = JulianTime{20080301.25, 1.25};
    julian_add_days(julian, -1.0);
    EXPECT_EQ(julian.date, 20080160.25) << "back from March the walk stops at January";

    julian = JulianTime{20071219.5, 19.5};
    julian_add_ms(1000.0, julian);
    EXPECT_NEAR(julian.day, 19.5 + 1.0 / 86400.0, 1e-12);
    EXPECT_NEAR(julian.date - 20071200.0, julian.day, 1e-8);

    struct Row {
        const char* description;
        double date;
        double delta;
        double expected;
    };
    const Row rows[] = {
        {"into 29 February", 20080228.0, 1.0, 20080229.0},
        {"out of 29 February", 20080229.0, 1.0, 20080301.0},
        {"into a new year with a fraction", 20081231.5, 1.0, 20090101.5},
        {"back into the old year", 20070101.0, -1.0, 20061231.0},
        {"back from March stops at January", 20080301.0, -1.0, 20080160.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(date_add_days(row.date, row.delta), row.expected);
    }
}

TEST(Julian, IsoColumnsAreReadOnlyWhenTheTextReachesThem) {
    struct Row {
        const char* description;
        const char* text;
        int year;
        int month;
        int day;
        double seconds_of_day;
    };
    const Row rows[] = {
        {"everything", "2007-12-19T12:34:56.789Z", 2007, 12, 19, 45296.789},
        {"the year alone", "2007", 2007, 1, 1, 0.0},
        {"year and month", "2007-12", 2007, 12, 1, 0.0},
        {"a month one character short is not read", "2007-1", 2007, 1, 1, 0.0},
        {"a day one character short is not read", "2007-12-1", 2007, 12, 1, 0.0},
        {"up to the hour", "2007-12-19T12", 2007, 12, 19, 43200.0},
        {"up to the seconds", "2007-12-19T12:34:56", 2007, 12, 19, 45296.0},
        {"milliseconds need all three digits' room", "2007-12-19T12:34:56.7", 2007, 12, 19,
         45296.0},
        {"the separators are not looked at", "2007/12/19 12h34m56", 2007, 12, 19, 45296.0},
        {"too short for a year: all defaults", "07", 2000, 1, 1, 0.0},
        {"nothing: all defaults", "", 2000, 1, 1, 0.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const double expected =
            unix_seconds(sys_days{year{row.year} / month{static_cast<unsigned>(row.month)} /
                                  day{static_cast<unsigned>(row.day)}},
                         row.seconds_of_day);
        EXPECT_NEAR(packed_to_unix_seconds(parse_iso_date(row.text)), expected,
                    packed_tolerance_seconds);
        JulianTime julian{};
        parse_iso_julian(row.text, julian);
        EXPECT_NEAR(packed_to_unix_seconds(julian.date), expected, packed_tolerance_seconds);
        EXPECT_NEAR((julian.day - row.day) * 86400.0, row.seconds_of_day, 1e-6)
            << "the day field keeps the milliseconds";
    }
}

TEST(Julian, CompactDatesByLength) {
    struct Row {
        const char* description;
        const char* text;
        double expected;
    };
    const Row rows[] = {
        {"8: two-digit day, four-digit year", "19122007", 20071219.0},
        {"7: one-digit day, four-digit year", "9122007", 20071209.0},
        {"6: two-digit day, two-digit year", "191207", 20071219.0},
        {"5: one-digit day, two-digit year", "91207", 20071209.0},
        {"year 70 is 1970", "010170", 19700101.0},
        {"year 69 is 2069", "010169", 20690101.0},
        {"4 characters: no date", "1912", 0.0},
        {"9 characters: no date", "191220071", 0.0},
        {"empty: no date", "", 0.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(parse_compact_date(row.text), row.expected);
    }
    JulianTime julian{};
    parse_compact_date_time("191207", 0.5, julian);
    EXPECT_EQ(julian.date, 20071219.5);
    EXPECT_EQ(julian.day, 19.5);
}

TEST(Julian, YearFirstDatesPivotAtSeventy) {
    struct Row {
        const char* description;
        const char* text;
        double fraction;
        double expected_date;
        double expected_day;
    };
    const Row rows[] = {
        {"69 is 2069", "690101", 0.25, 20690101.25, 1.25},
        {"70 is 1970", "700101", 0.0, 19700101.0, 1.0},
        {"07 is 2007", "071219", 0.5, 20071219.5, 19.5},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        JulianTime julian{};
        parse_year_first_date(row.text, row.fraction, julian);
        EXPECT_EQ(julian.date, row.expected_date);
        EXPECT_EQ(julian.day, row.expected_day);
    }
}

TEST(Julian, RmcTimeAndDate) {
    const double date = pack_hhmmss_ddmmyy(123456, 191207);
    EXPECT_NEAR(packed_to_unix_seconds(date), unix_seconds(sys_days{2007y / 12 / 19}, 45296.0),
                packed_tolerance_seconds);
    EXPECT_EQ(pack_hhmmss_ddmmyy(0, 10100), 20000101.0) << "year 00 is 2000";
    EXPECT_EQ(pack_hhmmss_ddmmyy(0, 311299), 19991231.0) << "year 99 is 1999";
}

TEST(Julian, SlashDateAndClockText) {
    JulianTime julian{};
    parse_slash_date("19/12/2007", julian);
    EXPECT_EQ(julian.date, 20071219.0);
    EXPECT_EQ(julian.day, 19.0);
    add_clock_text("12:34:56", julian);
    EXPECT_NEAR((julian.day - 19.0) * 86400.0, 45296.0, 1e-6);
    EXPECT_NEAR(julian.date - 20071200.0, julian.day, 1e-8) << "both fields move";

    parse_slash_date("01/01/2008", julian);
    add_clock_text("18", julian); // the fields the text does not fill add nothing
    EXPECT_EQ(julian.day, 1.75);
}

TEST(Julian, MonthNames) {
    struct Row {
        const char* description;
        const char* text;
        int expected;
    };
    const Row rows[] = {
        {"December is 11, as the table has it", "DEC", 11},
        {"lower case is read as upper case", "dec", 11},
        {"only three characters count", "December", 11},
        {"November is 11 too", "nov", 11},
        {"January", "Jan", 1},
        {"September", "sep", 9},
        {"no month", "xyz", 0},
        {"a near miss", "JAM", 0},
        {"too short", "ja", 0},
        {"empty", "", 0},
        {"null", nullptr, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(month_from_name(row.text), row.expected);
    }
    EXPECT_FALSE(error_pending()) << "a month that is not there is no error";
    month_table_init();
    EXPECT_EQ(obj_slot_count(ObjectType::MonthName), 12) << "a second start makes no more months";
}

TEST(Julian, MonthNameDates) {
    struct Row {
        const char* description;
        const char* text;
        double expected;
    };
    const Row rows[] = {
        {"December reads as month 11", "19-DEC-07", 20071119.0},
        {"a two-digit year of 70 is 1970", "05-jan-70", 19700105.0},
        {"a two-digit year of 69 is 2069", "05-Jan-69", 20690105.0},
        {"an unknown name is month 0", "05-XYZ-07", 20070005.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        JulianTime julian{};
        parse_month_name_date(row.text, julian);
        EXPECT_EQ(julian.date, row.expected);
    }
}

TEST(Julian, EpochsAgreeWithTheCalendar) {
    const sys_days base_2000{2000y / 1 / 1};
    for (long seconds : {0L, 1L, 59L, 86399L, 86400L, 31622400L, 1000000000L, -1L, -31622400L}) {
        SCOPED_TRACE("seconds from 2000: " + std::to_string(seconds));
        JulianTime julian{};
        julian_from_seconds_2000(seconds, julian);
        EXPECT_NEAR(packed_to_unix_seconds(julian.date),
                    unix_seconds(base_2000, static_cast<double>(seconds)),
                    packed_tolerance_seconds);
        int y = 0;
        int m = 0;
        date_split(julian.date, &y, &m, nullptr);
        EXPECT_NEAR(julian.date - (y * 10000.0 + m * 100.0), julian.day, 1e-8);
    }

    const sys_days base_1900{1900y / 1 / 1};
    for (double days : {0.0, 1.5, 36524.0, 45000.25, -0.5}) {
        SCOPED_TRACE("days from 1900: " + std::to_string(days));
        JulianTime julian{};
        julian_from_days_1900(days, julian);
        EXPECT_NEAR(packed_to_unix_seconds(julian.date), unix_seconds(base_1900, days * 86400.0),
                    packed_tolerance_seconds);
    }

    const sys_days base_1990{1990y / 1 / 1};
    struct DayRow {
        long day_number;
        double seconds;
    };
    for (const DayRow row :
         {DayRow{1, 0.0}, DayRow{366, 3600.5}, DayRow{10000, 86399.0}, DayRow{0, 43200.0}}) {
        SCOPED_TRACE("day " + std::to_string(row.day_number));
        EXPECT_NEAR(packed_to_unix_seconds(date_from_day_and_seconds(row.day_number, row.seconds)),
                    unix_seconds(base_1990, (row.day_number - 1) * 86400.0 + row.seconds),
                    packed_tolerance_seconds);
    }

    const sys_days base_gps{1989y / 12 / 31};
    for (int32_t seconds : {int32_t{0}, int32_t{86400}, int32_t{1000000000}, int32_t{2000000000},
                            int32_t{-1}, std::numeric_limits<int32_t>::min()}) {
        SCOPED_TRACE("GPS seconds " + std::to_string(seconds));
        const double as_unsigned = static_cast<double>(static_cast<uint32_t>(seconds));
        EXPECT_NEAR(packed_to_unix_seconds(date_from_gps_seconds(seconds)),
                    unix_seconds(base_gps, as_unsigned), packed_tolerance_seconds);
    }
    EXPECT_EQ(date_from_gps_seconds(0), 19891231.0);
}

TEST(Julian, IsoPrinting) {
    // 12:02:27.65625, exactly representable, so that truncation shows.
    const double date = 20071219.501708984375;
    struct Row {
        const char* description;
        double date;
        int precision;
        bool zulu;
        const char* expected;
    };
    const Row rows[] = {
        {"the date alone", date, 0, false, "2007-12-19"},
        {"no Z after a date alone", date, 0, true, "2007-12-19"},
        {"whole seconds are truncated", date, 1, false, "2007-12-19T12:02:27"},
        {"Z after the time", date, 1, true, "2007-12-19T12:02:27Z"},
        {"milliseconds", date, 2, false, "2007-12-19T12:02:27.656"},
        {"milliseconds and Z", date, 2, true, "2007-12-19T12:02:27.656Z"},
        {"kept: the width of 2 does not pad seconds with decimals", 20071219.5, 2, false,
         "2007-12-19T12:00:0.000"},
        {"an unknown precision prints nothing", date, 3, true, ""},
        {"a negative precision prints nothing", date, -1, false, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        char text[date_text_capacity] = "garbage";
        format_iso(row.date, row.precision, row.zulu, text);
        EXPECT_STREQ(text, row.expected);
    }
}

TEST(Julian, LogTimeTakesTheTimeFromTheDayField) {
    char text[date_text_capacity] = {};
    format_log_time(JulianTime{20071219.501708984375, 19.501708984375}, text);
    EXPECT_STREQ(text, "2007/12/19:12:02:27");
    format_log_time(JulianTime{20071219.0, 19.75}, text);
    EXPECT_STREQ(text, "2007/12/19:18:00:00");
}

TEST(Julian, NowHasWholeSeconds) {
    const std::time_t before = std::time(nullptr);
    JulianTime julian{};
    now_julian(julian);
    const std::time_t after = std::time(nullptr);
    const double seconds = packed_to_unix_seconds(julian.date);
    EXPECT_GE(seconds, static_cast<double>(before) - packed_tolerance_seconds);
    EXPECT_LE(seconds, static_cast<double>(after) + packed_tolerance_seconds);
    const double second_of_day = (julian.day - std::floor(julian.day)) * 86400.0;
    EXPECT_NEAR(second_of_day, std::round(second_of_day), packed_tolerance_seconds)
        << "whole seconds, to the resolution of a packed date";
    int y = 0;
    int m = 0;
    date_split(julian.date, &y, &m, nullptr);
    EXPECT_EQ(julian.day, julian.date - (m * 100.0 + y * 10000.0));
    const double date = now_date();
    EXPECT_GE(packed_to_unix_seconds(date), static_cast<double>(before) - packed_tolerance_seconds);
}

TEST(Julian, FileStampIsTheLocalTime) {
    char* name = nullptr;
    str_copy("NMEA_", name);
    const std::time_t before = std::time(nullptr);
    append_file_stamp(name);
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(std::strlen(name), 5u + 20u) << name;
    std::tm read{};
    char tail = 0;
    const int fields =
        std::sscanf(name, "NMEA_%4d-%2d-%2d_%2dh%2dm%2d%c", &read.tm_year, &read.tm_mon,
                    &read.tm_mday, &read.tm_hour, &read.tm_min, &read.tm_sec, &tail);
    EXPECT_EQ(fields, 7) << name;
    EXPECT_EQ(tail, 's');
    bool matches = false;
    for (std::time_t t : {before, after}) {
        std::tm local{};
        localtime_r(&t, &local);
        matches =
            matches || (read.tm_year == local.tm_year + 1900 && read.tm_mon == local.tm_mon + 1 &&
                        read.tm_mday == local.tm_mday && read.tm_hour == local.tm_hour &&
                        read.tm_min == local.tm_min && read.tm_sec == local.tm_sec);
    }
    EXPECT_TRUE(matches) << name;
    free_mem(name);
}

} // namespace
} // namespace norvanta
