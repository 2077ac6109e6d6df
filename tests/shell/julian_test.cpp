// Dates and times: normalisation and its stop at the turn of the year, the
// differences, parsers, epochs, printers and the month table. Results that can
// be computed another way are checked against std::chrono's calendar.
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
#include "support/test_home.h"

namespace norvanta {
namespace {

using namespace std::chrono;

// The store may log, and the log reads the configuration: a private home first.
[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// The month table lives in the store, which is made once per process.
class StoreEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        object_store_create();
        month_table_init();
        ASSERT_FALSE(error_pending()) << "the month table could not be made";
    }
};
[[maybe_unused]] const auto* const store_environment =
    ::testing::AddGlobalTestEnvironment(new StoreEnvironment);

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
        {"a file date's month 0 has 31 days and is not walked on", 2008, 0, 4.0, 20080005.0, 5.0},
        {"400 years are 146097 days: still normalised", 2000, 1, 146097.0, 24000101.0, 1.0},
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
    // From January the walk never reaches the turn of the year with days to spare.
    int failures = 0;
    for (int base_year : {1899, 1900, 1999, 2000, 2007, 2008, 2100}) {
        for (int offset = -1500; offset <= 1500; offset += 7) {
            const double date = date_pack(base_year, 1, offset + 0.25);
            const year_month_day expected{sys_days{year{base_year} / 1 / 1} + days{offset}};
            const double calendar = static_cast<int>(expected.year()) * 10000.0 +
                                    static_cast<unsigned>(expected.month()) * 100.0 +
                                    static_cast<unsigned>(expected.day()) + 0.25;
            if (date != calendar && ++failures <= 10)
                ADD_FAILURE() << "year " << base_year << " offset " << offset << " gave "
                              << std::to_string(date) << ", calendar says "
                              << std::to_string(calendar);
        }
    }
    EXPECT_EQ(failures, 0);
}

TEST(Julian, NormaliseLeavesNonsenseUnchanged) {
    JulianTime julian{};
    date_normalise(julian, 2008, 1, std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isinf(julian.date));
    date_normalise(julian, 2008, 1, std::nan(""));
    EXPECT_TRUE(std::isnan(julian.date));
    date_normalise(julian, 2008, 1, 1e300);
    EXPECT_EQ(julian.day, 1e300 + 1.0);
}

TEST(Julian, NmeaTimeAndDateFields) {
    EXPECT_NEAR(packed_to_unix_seconds(pack_hhmmss_ddmmyy(123456, 191207)),
                unix_seconds(sys_days{2007y / 12 / 19}, 45296.0), packed_tolerance_seconds);
    EXPECT_EQ(pack_hhmmss_ddmmyy(0, 311299), 19991231.0) << "year 99 is 1999";
    EXPECT_NEAR(hhmmss_to_day(123456.5, nullptr), (12 * 3600 + 34 * 60 + 56.5) / 86400.0, 1e-13);
    EXPECT_NEAR(hhmmss_to_day(5959.75, nullptr), (59 * 60 + 59.75) / 86400.0, 1e-13) << "no hour";
    double fraction = -1.0;
    EXPECT_EQ(hhmmss_to_day(235959.0, &fraction), fraction);
    EXPECT_NEAR(fraction, 86399.0 / 86400.0, 1e-13);
    int hour = 0;
    int minute = 0;
    double second = 0.0;
    seconds_split(3725.5, &hour, &minute, &second);
    EXPECT_EQ(hour, 1);
    EXPECT_EQ(minute, 2);
    EXPECT_EQ(second, 5.5);
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

    parse_iso_julian("2007-12-31T23:59:30", a);
    parse_iso_julian("2008-01-01T00:00:30", b);
    EXPECT_NEAR(julian_difference(a, b), 60 * one_second_days, 1e-8);
    EXPECT_NEAR(julian_difference(b, a), -60 * one_second_days, 1e-8);
}

TEST(Julian, AddingDays) {
    JulianTime julian{20080301.25, 1.25};
    julian_add_days(julian, -1.0);
    EXPECT_EQ(julian.date, 20080160.25) << "back from March the walk stops at January";
    EXPECT_EQ(julian.day, 60.25);

    julian = JulianTime{20071219.5, 19.5};
    julian_add_ms(1000.0, julian);
    EXPECT_NEAR(julian.day, 19.5 + 1.0 / 86400.0, 1e-12);
    EXPECT_NEAR(julian.date - 20071200.0, julian.day, 1e-8);

    EXPECT_EQ(date_add_days(20080229.0, 1.0), 20080301.0) << "out of 29 February";
    EXPECT_EQ(date_add_days(20070101.0, -1.0), 20061231.0) << "back into the old year";
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
        {"a month one character short is not read", "2007-1", 2007, 1, 1, 0.0},
        {"a day one character short is not read", "2007-12-1", 2007, 12, 1, 0.0},
        {"milliseconds need all three digits' room", "2007-12-19T12:34:56.7", 2007, 12, 19,
         45296.0},
        {"the separators are not looked at", "2007/12/19 12h34m56", 2007, 12, 19, 45296.0},
        {"too short for a year: all defaults", "07", 2000, 1, 1, 0.0},
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

TEST(Julian, CompactAndYearFirstDates) {
    struct Row {
        const char* description;
        const char* text;
        double expected;
    };
    const Row rows[] = {
        {"8: two-digit day, four-digit year", "19122007", 20071219.0},
        {"5: one-digit day, two-digit year", "91207", 20071209.0},
        {"year 70 is 1970", "010170", 19700101.0},
        {"year 69 is 2069", "010169", 20690101.0},
        {"4 characters: no date", "1912", 0.0},
        {"9 characters: no date", "191220071", 0.0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(parse_compact_date(row.text), row.expected);
    }
    JulianTime julian{};
    parse_compact_date_time("191207", 0.5, julian);
    EXPECT_EQ(julian.date, 20071219.5);
    EXPECT_EQ(julian.day, 19.5);
    parse_year_first_date("071219", 0.25, julian);
    EXPECT_EQ(julian.date, 20071219.25);
    EXPECT_EQ(julian.day, 19.25);
}

TEST(Julian, SlashDateAndClockText) {
    JulianTime julian{};
    parse_slash_date("19/12/2007", julian);
    EXPECT_EQ(julian.date, 20071219.0);
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
        {"January", "Jan", 1},
        {"December is 11, as the table has it", "DEC", 11},
        {"only three characters count", "December", 11},
        {"a near miss", "JAM", 0},
        {"null", nullptr, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(month_from_name(row.text), row.expected);
    }
    EXPECT_FALSE(error_pending()) << "a month that is not there is no error";
    month_table_init();
    EXPECT_EQ(obj_slot_count(ObjectType::MonthName), 12) << "a second start makes no more months";

    const auto month_name_date = [](const char* text) {
        JulianTime julian{};
        parse_month_name_date(text, julian);
        return julian.date;
    };
    EXPECT_EQ(month_name_date("19-DEC-07"), 20071119.0) << "December reads as month 11";
    EXPECT_EQ(month_name_date("05-jan-70"), 19700105.0) << "a two-digit year of 70 is 1970";
    EXPECT_EQ(month_name_date("05-XYZ-07"), 20070005.0) << "an unknown name is month 0";
}

TEST(Julian, EpochsAgreeWithTheCalendar) {
    for (long seconds : {86399L, 86400L, -1L}) {
        SCOPED_TRACE("seconds from 2000: " + std::to_string(seconds));
        JulianTime julian{};
        julian_from_seconds_2000(seconds, julian);
        EXPECT_NEAR(packed_to_unix_seconds(julian.date),
                    unix_seconds(sys_days{2000y / 1 / 1}, static_cast<double>(seconds)),
                    packed_tolerance_seconds);
        EXPECT_NEAR(julian.date - std::floor(julian.date / 100.0) * 100.0, julian.day, 1e-8);
    }
    for (double days : {1.5, -0.5}) {
        SCOPED_TRACE("days from 1900: " + std::to_string(days));
        JulianTime julian{};
        julian_from_days_1900(days, julian);
        EXPECT_NEAR(packed_to_unix_seconds(julian.date),
                    unix_seconds(sys_days{1900y / 1 / 1}, days * 86400.0),
                    packed_tolerance_seconds);
    }
    for (int32_t seconds :
         {int32_t{0}, int32_t{2000000000}, int32_t{-1}, std::numeric_limits<int32_t>::min()}) {
        SCOPED_TRACE("GPS seconds, day 0 of 1990, read unsigned: " + std::to_string(seconds));
        EXPECT_NEAR(packed_to_unix_seconds(date_from_gps_seconds(seconds)),
                    unix_seconds(sys_days{1989y / 12 / 31},
                                 static_cast<double>(static_cast<uint32_t>(seconds))),
                    packed_tolerance_seconds);
    }
}

TEST(Julian, Printing) {
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
        {"no Z after a date alone", date, 0, true, "2007-12-19"},
        {"Z after the time", date, 1, true, "2007-12-19T12:02:27Z"},
        {"milliseconds and Z", date, 2, true, "2007-12-19T12:02:27.656Z"},
        {"kept: the width of 2 does not pad seconds with decimals", 20071219.5, 2, false,
         "2007-12-19T12:00:0.000"},
        {"an unknown precision prints nothing", date, 3, true, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        char text[date_text_capacity] = "garbage";
        format_iso(row.date, row.precision, row.zulu, text);
        EXPECT_STREQ(text, row.expected);
    }
    char text[date_text_capacity] = {};
    format_log_time(JulianTime{date, 19.501708984375}, text);
    EXPECT_STREQ(text, "2007/12/19:12:02:27");
    format_log_time(JulianTime{20071219.0, 19.75}, text);
    EXPECT_STREQ(text, "2007/12/19:18:00:00") << "the log's time comes from the day field";
}

TEST(Julian, TheClockIsUtc) {
    const auto noon = sys_days{2007y / 12 / 19} + 12h;
    JulianTime julian{};
    julian_from_time(julian, system_clock::to_time_t(noon));
    EXPECT_EQ(julian.date, 20071219.5);
    EXPECT_EQ(julian.day, 19.5);

    now_julian(julian);
    EXPECT_NEAR(packed_to_unix_seconds(julian.date), static_cast<double>(std::time(nullptr)), 2.0);
    EXPECT_NEAR(packed_to_unix_seconds(now_date()), static_cast<double>(std::time(nullptr)), 2.0);
}

TEST(Julian, FileStampIsTheLocalTime) {
    char* name = nullptr;
    str_copy("NMEA_", name);
    const std::time_t before = std::time(nullptr);
    append_file_stamp(name);
    const std::time_t after = std::time(nullptr);
    bool matches = false;
    for (std::time_t t : {before, after}) {
        std::tm local{};
        localtime_r(&t, &local);
        char expected[64];
        std::snprintf(expected, sizeof expected, "NMEA_%4d-%02d-%02d_%02dh%02dm%02ds",
                      local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                      local.tm_min, local.tm_sec);
        matches = matches || std::strcmp(name, expected) == 0;
    }
    EXPECT_TRUE(matches) << name;
    free_mem(name);
}

} // namespace
} // namespace norvanta
