// The sentence parser: each handler on sample sentences, the drop rules of the
// character machine, resumption at every split, hostile bytes, the talker
// rule, the datum follow-up, and a golden corpus of real receiver logs.
#include "navigation/nmea_parser.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_store.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "navigation/nmea_writer.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

// "$" body "*CS\r\n" with the right checksum.
std::string sentence(const std::string& body) {
    char tail[checksum_tail_capacity];
    format_checksum_tail(("$" + body).c_str(), tail);
    return "$" + body + tail;
}

struct ParserHolder {
    NmeaParser* parser;
    ParserHolder() {
        set_gblerr(ErrorCode::none);
        parser = new_sentence_parser(nullptr, nullptr, nmea_keywords(), nmea_handlers());
        new_nav_fix(parser->fix);
    }
    ~ParserHolder() { free_nmea_parser(parser); }
    ParserHolder(const ParserHolder&) = delete;
    ParserHolder& operator=(const ParserHolder&) = delete;
    void feed(const std::string& bytes) { feed_nmea(bytes.data(), bytes.size(), *parser); }
    NavFix& fix() { return *parser->fix; }
};

constexpr double arc_seconds(double degrees, double minutes) {
    return degrees * 3600.0 + minutes * 60.0;
}

double day_fraction(int hours, int minutes, double seconds) {
    return seconds * one_second_days + minutes * one_minute_days + hours * one_hour_days;
}

std::vector<std::string> waypoints(const NavFix& fix) {
    std::vector<std::string> names;
    for (const char* name = fix.route_waypoints; name && *name; name += std::strlen(name) + 1) {
        names.emplace_back(name);
    }
    return names;
}

// Every value of a fix as text, in field order: what the golden files hold
// and what the split test compares.
std::vector<std::pair<std::string, std::string>> describe(const NavFix& fix) {
    std::vector<std::pair<std::string, std::string>> out;
    auto real = [&](const char* name, double value) {
        char text[64];
        std::snprintf(text, sizeof text, "%.9g", value);
        out.emplace_back(name, text);
    };
    auto integer = [&](const char* name, long value) {
        out.emplace_back(name, std::to_string(value));
    };
    real("latitude", fix.latitude);
    real("longitude", fix.longitude);
    real("time_of_day", fix.time_of_day);
    real("date", fix.date);
    real("altitude", fix.altitude);
    real("ellipsoid_height", fix.ellipsoid_height);
    real("speed_kmh", fix.speed_kmh);
    real("speed_knots", fix.speed_knots);
    real("course_true", fix.course_true);
    real("course_magnetic", fix.course_magnetic);
    real("horizontal_error", fix.horizontal_error);
    real("vertical_error", fix.vertical_error);
    real("hdop", fix.hdop);
    integer("fix_acquired", fix.fix_acquired);
    integer("differential", fix.differential);
    out.emplace_back("datum_name", fix.datum_name);
    integer("arrived", fix.arrived);
    out.emplace_back("origin_id", fix.origin_id);
    out.emplace_back("destination_id", fix.destination_id);
    real("destination_latitude", fix.destination_latitude);
    real("destination_longitude", fix.destination_longitude);
    real("bearing_true", fix.bearing_true);
    real("bearing_magnetic", fix.bearing_magnetic);
    real("destination_range", fix.destination_range);
    real("closing_velocity", fix.closing_velocity);
    out.emplace_back("route_id", fix.route_id);
    std::string names;
    for (const std::string& name : waypoints(fix))
        names += name + "|";
    out.emplace_back("route_waypoints", names);
    integer("destination_valid", fix.destination_valid);
    integer("route_complete", fix.route_complete);
    integer("satellites_in_view", fix.satellites_in_view);
    for (std::size_t i = 0; i < fix_satellite_capacity; ++i) {
        const FixSatellite& s = fix.satellites[i];
        out.emplace_back("satellite" + std::to_string(i),
                         std::to_string(s.prn) + "/" + std::to_string(s.elevation) + "/" +
                             std::to_string(s.azimuth) + "/" + std::to_string(s.snr));
    }
    std::string flags;
    auto flag = [&](const char* name, uint32_t value) {
        if (value) flags += std::string(flags.empty() ? "" : " ") + name;
    };
    flag("time", fix.time_valid);
    flag("position", fix.position_valid);
    flag("altitude", fix.altitude_valid);
    flag("speed", fix.speed_valid);
    flag("course", fix.course_valid);
    flag("satellites", fix.satellites_valid);
    flag("quality", fix.quality_valid);
    flag("date", fix.date_valid);
    out.emplace_back("flags", flags);
    integer("mark", static_cast<long>(fix.mark));
    return out;
}

std::string describe_text(const NavFix& fix) {
    std::string text;
    for (const auto& [name, value] : describe(fix))
        text += name + "=" + value + "\n";
    return text;
}

// ---- Handlers ----

struct HandlerCase {
    const char* description;
    std::vector<std::string> bodies; // sentences fed in order, without '$' and tail
    std::function<void(const NavFix&)> check;
};

void run_cases(const std::vector<HandlerCase>& cases) {
    for (const HandlerCase& c : cases) {
        SCOPED_TRACE(c.description);
        ParserHolder holder;
        for (const std::string& body : c.bodies)
            holder.feed(sentence(body));
        c.check(holder.fix());
    }
}

TEST(NmeaParser, PositionSentencesFillPositionTimeAndQuality) {
    run_cases({
        {"GGA with a fix",
         {"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.latitude, arc_seconds(48, 7.038));
             EXPECT_DOUBLE_EQ(f.longitude, arc_seconds(11, 31.0));
             EXPECT_NEAR(f.time_of_day, day_fraction(12, 35, 19), 1e-12);
             EXPECT_EQ(f.fix_acquired, 1u);
             EXPECT_EQ(f.differential, 0u);
             EXPECT_EQ(f.satellites_in_view, 8);
             EXPECT_DOUBLE_EQ(f.hdop, 0.9);
             EXPECT_DOUBLE_EQ(f.altitude, 545.4);
             EXPECT_DOUBLE_EQ(f.ellipsoid_height, 545.4 + 46.9);
             EXPECT_EQ(f.position_valid + f.time_valid + f.quality_valid + f.satellites_valid +
                           f.altitude_valid,
                       5u);
         }},
        {"GGA south and west, differential",
         {"GPGGA,000001,3348.452,S,11821.142,W,2,05,1.8,38.4,M,-32.4,M,,"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.latitude, -arc_seconds(33, 48.452));
             EXPECT_DOUBLE_EQ(f.longitude, -arc_seconds(118, 21.142));
             EXPECT_EQ(f.differential, 1u);
             EXPECT_DOUBLE_EQ(f.ellipsoid_height, 38.4 - 32.4);
         }},
        {"GGA of quality 0 keeps no position but still gives satellites and altitude",
         {"GPGGA,123519,4807.038,N,01131.000,E,0,03,9.9,12.0,M,,,,"},
         [](const NavFix& f) {
             EXPECT_EQ(f.position_valid, 0u);
             EXPECT_EQ(f.time_valid, 0u);
             EXPECT_EQ(f.quality_valid, 0u);
             EXPECT_EQ(f.latitude, 0.0);
             EXPECT_EQ(f.satellites_valid, 1u);
             EXPECT_EQ(f.altitude_valid, 1u);
             EXPECT_DOUBLE_EQ(f.altitude, 12.0);
         }},
        {"GGA with an empty quality counts as a fix without acquisition",
         {"GPGGA,005947.00,4458.3020,N,09326.5180,W,,05,2.0,250.0,M,,,,"},
         [](const NavFix& f) {
             EXPECT_EQ(f.position_valid, 1u);
             EXPECT_EQ(f.fix_acquired, 0u);
         }},
        {"GGA with a foot altitude sets no altitude",
         {"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,F,46.9,M,,"},
         [](const NavFix& f) { EXPECT_EQ(f.altitude_valid, 0u); }},
        {"RMC active",
         {"GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W"},
         [](const NavFix& f) {
             EXPECT_NEAR(f.time_of_day, day_fraction(12, 35, 19), 1e-12);
             EXPECT_DOUBLE_EQ(f.latitude, arc_seconds(48, 7.038));
             EXPECT_DOUBLE_EQ(f.speed_knots, 22.4);
             EXPECT_DOUBLE_EQ(f.speed_kmh, 22.4 * 1.852);
             EXPECT_DOUBLE_EQ(f.course_true, 84.4);
             EXPECT_DOUBLE_EQ(f.course_magnetic, 84.4 + 3.1);
             EXPECT_DOUBLE_EQ(f.date, 19940323.0);
             EXPECT_EQ(f.time_valid + f.position_valid + f.speed_valid + f.course_valid +
                           f.date_valid,
                       5u);
         }},
        {"RMC easterly variation, empty speed, course still flagged",
         {"GPRMC,000000,A,0000.000,N,00000.000,E,,10.0,010170,2.0,E"},
         [](const NavFix& f) {
             EXPECT_EQ(f.speed_valid, 0u);
             EXPECT_EQ(f.course_valid, 1u);
             EXPECT_DOUBLE_EQ(f.course_magnetic, 8.0);
             EXPECT_DOUBLE_EQ(f.date, 19700101.0);
         }},
        {"RMC void sets nothing at all",
         {"GPRMC,123519,V,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W"},
         [](const NavFix& f) {
             EXPECT_EQ(f.time_valid + f.position_valid + f.speed_valid + f.course_valid +
                           f.date_valid,
                       0u);
             EXPECT_EQ(f.time_of_day, 0.0);
         }},
        {"RMC dates of 5, 7 and 8 characters; a year below 70 is 20yy",
         {"GPRMC,0,A,0,N,0,E,,,10519,,"},
         [](const NavFix& f) { EXPECT_DOUBLE_EQ(f.date, 20190501.0); }},
        {"RMC date of 7 characters",
         {"GPRMC,0,A,0,N,0,E,,,1012019,,"},
         [](const NavFix& f) { EXPECT_DOUBLE_EQ(f.date, 20190101.0); }},
        {"RMC date of 8 characters",
         {"GPRMC,0,A,0,N,0,E,,,24122021,,"},
         [](const NavFix& f) { EXPECT_DOUBLE_EQ(f.date, 20211224.0); }},
        {"RMC date of another length gives no date, still flagged",
         {"GPRMC,0,A,0,N,0,E,,,2412,,"},
         [](const NavFix& f) {
             EXPECT_EQ(f.date, 0.0);
             EXPECT_EQ(f.date_valid, 1u);
         }},
        {"GLL with time and status",
         {"GPGLL,4916.45,N,12311.12,W,225444,A"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.latitude, arc_seconds(49, 16.45));
             EXPECT_DOUBLE_EQ(f.longitude, -arc_seconds(123, 11.12));
             EXPECT_NEAR(f.time_of_day, day_fraction(22, 54, 44), 1e-12);
             EXPECT_EQ(f.time_valid, 1u);
             EXPECT_EQ(f.position_valid, 1u);
         }},
        {"GLL of four fields gives a position with no time",
         {"GPGLL,4916.45,N,12311.12,W"},
         [](const NavFix& f) {
             EXPECT_EQ(f.position_valid, 1u);
             EXPECT_EQ(f.time_valid, 0u);
         }},
        {"GLL void keeps nothing",
         {"GPGLL,4916.45,N,12311.12,W,225444,V"},
         [](const NavFix& f) {
             EXPECT_EQ(f.position_valid, 0u);
             EXPECT_EQ(f.latitude, 0.0);
         }},
    });
}

TEST(NmeaParser, MotionAndTimeSentences) {
    run_cases({
        {"VTG in the usual order",
         {"GPVTG,054.7,T,034.4,M,005.5,N,010.2,K"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.course_true, 54.7);
             EXPECT_DOUBLE_EQ(f.course_magnetic, 34.4);
             EXPECT_DOUBLE_EQ(f.speed_knots, 5.5);
             EXPECT_DOUBLE_EQ(f.speed_kmh, 10.2);
             EXPECT_EQ(f.course_valid + f.speed_valid, 2u);
         }},
        {"VTG with the letters swapped goes by the letters",
         {"GPVTG,1,M,2,T,3,K,4,N"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.course_magnetic, 1.0);
             EXPECT_DOUBLE_EQ(f.course_true, 2.0);
             EXPECT_DOUBLE_EQ(f.speed_kmh, 3.0);
             EXPECT_DOUBLE_EQ(f.speed_knots, 4.0);
         }},
        {"ZDA",
         {"GPZDA,201530.00,04,07,2002,00,00"},
         [](const NavFix& f) {
             EXPECT_NEAR(f.time_of_day, day_fraction(20, 15, 30), 1e-12);
             EXPECT_DOUBLE_EQ(f.date, 20020704.0);
             EXPECT_EQ(f.time_valid + f.date_valid, 2u);
         }},
        {"PGRMV speed from the velocity vector, knots left alone",
         {"PGRMV,3.0,-4.0,0.0"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.speed_kmh, 18.0);
             EXPECT_EQ(f.speed_knots, 0.0);
             EXPECT_EQ(f.speed_valid, 1u);
         }},
        {"PGRMF of a Garmin 17N",
         {"PGRMF,290,293895,160305,093802,13,5213.1439,N,02100.6511,E,A,2,0,226,2,1"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.date, 20050316.0);
             EXPECT_NEAR(f.time_of_day, day_fraction(9, 38, 2), 1e-12);
             EXPECT_DOUBLE_EQ(f.latitude, arc_seconds(52, 13.1439));
             EXPECT_DOUBLE_EQ(f.longitude, arc_seconds(21, 0.6511));
             EXPECT_EQ(f.position_valid, 1u);
             EXPECT_DOUBLE_EQ(f.course_true, 226.0);
             EXPECT_EQ(f.speed_valid + f.course_valid + f.date_valid + f.time_valid, 4u);
         }},
        {"PGRMF without date and time takes the date from week and seconds, the week as sent "
         "(here rolled over)",
         {"PGRMF,290,293895,,,13,5213.1439,S,02100.6511,W,A,0,36,226,2,1"},
         [](const NavFix& f) {
             EXPECT_EQ(std::trunc(f.date), 19950726.0);
             EXPECT_EQ(f.time_valid, 0u);
             EXPECT_EQ(f.position_valid, 0u);
             EXPECT_DOUBLE_EQ(f.latitude, -arc_seconds(52, 13.1439));
             EXPECT_DOUBLE_EQ(f.speed_kmh, 36.0);
             EXPECT_DOUBLE_EQ(f.speed_knots, 36.0 * 1000.0 / 1852.0);
         }},
        {"PKLNT START",
         {"PKLNT,START"},
         [](const NavFix& f) { EXPECT_EQ(f.mark, FixMark::start); }},
        {"PKLNT STOP", {"PKLNT,STOP"}, [](const NavFix& f) { EXPECT_EQ(f.mark, FixMark::stop); }},
        {"PKLNT of another word",
         {"PKLNT,PAUSE"},
         [](const NavFix& f) { EXPECT_EQ(f.mark, FixMark::none); }},
    });
}

TEST(NmeaParser, SatelliteCountsFollowTheLastSentenceRule) {
    const char* gsv_9[] = {"GPGSV,3,1,09,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45",
                           "GPGSV,3,2,09,15,18,138,00,18,20,079,00,25,27,172,46,31,27,263,38",
                           "GPGSV,3,3,09,32,10,010,20"};
    run_cases({
        {"nine satellites in three sentences are all stored",
         {gsv_9[0], gsv_9[1], gsv_9[2]},
         [](const NavFix& f) {
             EXPECT_EQ(f.satellites_in_view, 9);
             EXPECT_EQ(f.satellites[0].prn, 1);
             EXPECT_EQ(f.satellites[0].elevation, 40);
             EXPECT_EQ(f.satellites[0].azimuth, 83);
             EXPECT_EQ(f.satellites[0].snr, 46);
             EXPECT_EQ(f.satellites[7].prn, 31);
             EXPECT_EQ(f.satellites[8].prn, 32);
             EXPECT_EQ(f.satellites[8].snr, 20);
         }},
        {"a count divisible by four stores nothing of its last sentence",
         {"GPGSV,2,1,08,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45",
          "GPGSV,2,2,08,15,18,138,00,18,20,079,00,25,27,172,46,31,27,263,38"},
         [](const NavFix& f) {
             EXPECT_EQ(f.satellites_in_view, 8);
             EXPECT_EQ(f.satellites[3].prn, 14);
             EXPECT_EQ(f.satellites[4].prn, 0);
             EXPECT_EQ(f.satellites_valid, 1u);
         }},
        {"a fourth sentence stores nothing, whatever the count",
         {"GPGSV,4,4,13,40,10,010,20"},
         [](const NavFix& f) {
             EXPECT_EQ(f.satellites_in_view, 13);
             for (const FixSatellite& s : f.satellites)
                 EXPECT_EQ(s.prn, 0);
         }},
        {"a sentence number beyond the total is dropped whole",
         {"GPGSV,2,3,09,40,10,010,20"},
         [](const NavFix& f) {
             EXPECT_EQ(f.satellites_valid, 0u);
             EXPECT_EQ(f.satellites_in_view, 0);
         }},
    });
}

TEST(NmeaParser, GarminSentencesAndTheirQuirks) {
    run_cases({
        {"PGRME in metres keeps the vertical error as it was (inverted test)",
         {"PGRME,15.0,M,45.0,M,25.0,M"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.horizontal_error, 15.0);
             EXPECT_EQ(f.vertical_error, 0.0);
         }},
        {"PGRME with another vertical unit stores it",
         {"PGRME,15.0,F,45.0,F,25.0,M"},
         [](const NavFix& f) {
             EXPECT_EQ(f.horizontal_error, 0.0);
             EXPECT_DOUBLE_EQ(f.vertical_error, 45.0);
         }},
        {"PGRMM names the datum, cut to the record",
         {"PGRMM,NAD27 Canada"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.datum_name, "NAD27 Canada");
             EXPECT_EQ(f.datum_naming, nmea_datum_naming);
         }},
    });
}

TEST(NmeaParser, NavigationSentencesFillDestinationAndRoute) {
    run_cases({
        {"RMB active, arrived",
         {"GPRMB,A,0.66,L,003,004,4917.24,S,12309.57,W,001.3,052.5,000.5,A"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.origin_id, "003");
             EXPECT_STREQ(f.destination_id, "004");
             EXPECT_DOUBLE_EQ(f.destination_latitude, -arc_seconds(49, 17.24));
             EXPECT_DOUBLE_EQ(f.destination_longitude, -arc_seconds(123, 9.57));
             EXPECT_DOUBLE_EQ(f.destination_range, 1.3);
             EXPECT_DOUBLE_EQ(f.bearing_true, 52.5);
             EXPECT_DOUBLE_EQ(f.closing_velocity, 0.5);
             EXPECT_EQ(f.destination_valid, 1u);
             EXPECT_EQ(f.arrived, 1u);
         }},
        {"RMB void changes nothing",
         {"GPRMB,V,0.66,L,003,004,4917.24,N,12309.57,W,1,2,3,A"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.origin_id, "");
             EXPECT_EQ(f.destination_latitude, 0.0);
         }},
        {"RMB with a bad hemisphere stops after the latitude, destination invalid",
         {"GPWPL,1,N,1,E,X", "GPRMB,A,,,,,4917.24,Q,12309.57,W,1,2,3,V"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.destination_id, " ");
             EXPECT_DOUBLE_EQ(f.destination_latitude, arc_seconds(49, 17.24));
             EXPECT_DOUBLE_EQ(f.destination_longitude, arc_seconds(0, 1));
             EXPECT_EQ(f.destination_valid, 0u);
         }},
        {"RMB identifiers longer than the record are cut",
         {"GPRMB,A,,,ORIGIN6789012345678901234,DESTINATION34567890123456789,0,N,0,E,,,,V"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.origin_id, "ORIGIN6789012345678");
             EXPECT_STREQ(f.destination_id, "DESTINATION345678901234");
         }},
        {"BOD bearings and names; the destination falls",
         {"GPWPL,4917.16,N,12310.64,W,003", "GPBOD,099.3,T,105.6,M,POINTB,POINTA"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.bearing_true, 99.3);
             EXPECT_DOUBLE_EQ(f.bearing_magnetic, 105.6);
             EXPECT_STREQ(f.destination_id, "POINTB");
             EXPECT_STREQ(f.origin_id, "POINTA");
             EXPECT_EQ(f.destination_valid, 0u);
         }},
        {"WPL",
         {"GPWPL,4917.16,N,12310.64,W,003"},
         [](const NavFix& f) {
             EXPECT_DOUBLE_EQ(f.destination_latitude, arc_seconds(49, 17.16));
             EXPECT_DOUBLE_EQ(f.destination_longitude, -arc_seconds(123, 10.64));
             EXPECT_STREQ(f.destination_id, "003");
             EXPECT_EQ(f.destination_valid, 1u);
         }},
        {"RTE complete route in two sentences",
         {"GPRTE,2,1,c,0,PBRCPK,PBRTO,PTELGR,PPLAND,PYAMBU,PPFAIR,PWARRN",
          "GPRTE,2,2,c,0,PKYLAN,PSKYNL"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.route_id, "0");
             EXPECT_EQ(waypoints(f),
                       (std::vector<std::string>{"PBRCPK", "PBRTO", "PTELGR", "PPLAND", "PYAMBU",
                                                 "PPFAIR", "PWARRN", "PKYLAN", "PSKYNL"}));
             EXPECT_EQ(f.route_complete, 1u);
         }},
        {"RTE a new series starts an empty list; a working route is not kept",
         {"GPRTE,1,1,c,R1,A,B", "GPRTE,1,1,w,R2,C,D"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.route_id, "R1");
             EXPECT_TRUE(waypoints(f).empty());
             EXPECT_EQ(f.route_complete, 1u);
         }},
        {"RTE of another total and not first is dropped",
         {"GPRTE,2,1,c,R1,A", "GPRTE,3,2,c,R2,B"},
         [](const NavFix& f) {
             EXPECT_STREQ(f.route_id, "R1");
             EXPECT_EQ(waypoints(f), std::vector<std::string>{"A"});
             EXPECT_EQ(f.route_complete, 0u);
         }},
        {"R00 replaces the list with its names",
         {"GPRTE,1,1,c,R1,A", "GPR00,EGLL,EGLM,,EGTB,,,"},
         [](const NavFix& f) {
             EXPECT_EQ(waypoints(f), (std::vector<std::string>{"EGLL", "EGLM"}));
             EXPECT_EQ(f.route_complete, 1u);
         }},
    });
}

TEST(NmeaParser, IgnoredAndUnknownSentencesChangeNothing) {
    for (const char* body :
         {"GPGSA,A,3,03,,11,14,,,25,31,,,,,3.3,1.8,2.8", "PGRMZ,125,f,3", "GPXYZ,1,2,3",
          "GNRMC,081411.000,A,5541.1955,N,03737.2872,E,0.60,"
          "301.29,260514,,,A"}) {
        SCOPED_TRACE(body);
        ParserHolder holder;
        const std::string before = describe_text(holder.fix());
        holder.feed(sentence(body));
        EXPECT_EQ(describe_text(holder.fix()), before);
    }
}

// ---- The machine ----

TEST(NmeaParser, MalformedSentencesAreDropped) {
    const std::string rmc = "GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W";
    const std::string good = sentence(rmc);
    std::string bad_checksum = good;
    bad_checksum[bad_checksum.size() - 3] ^= 1;
    std::string lower_checksum = sentence("PGRMM,NAD27 Canada"); // checksum with a letter
    const std::string::size_type star = lower_checksum.find('*');
    for (std::size_t i = star + 1; i < star + 3; ++i) {
        lower_checksum[i] = static_cast<char>(std::tolower(lower_checksum[i]));
    }
    ASSERT_NE(lower_checksum, sentence("PGRMM,NAD27 Canada")) << "the sample needs a letter digit";
    const struct {
        const char* description;
        std::string bytes;
    } cases[] = {
        {"a wrong checksum", bad_checksum},
        {"a lower-case checksum digit", lower_checksum},
        {"no checksum at all", "$" + rmc + "\r\n"},
        {"closed by LF alone", good.substr(0, good.size() - 2) + "\n"},
        {"a '$' inside the sentence loses it and the next", "$GPGGA,12" + good},
        {"a byte above 127 in the data", "$GPRMC,12\xB0" + rmc.substr(9) + "*00\r\n"},
        {"a keyword that starts with a digit", sentence("1PRMC" + rmc.substr(5))},
        {"a keyword of more than eight characters", sentence("GPRMCXXXXX" + rmc.substr(5))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        ParserHolder holder;
        holder.feed(c.bytes);
        EXPECT_EQ(holder.fix().position_valid + holder.fix().time_valid, 0u);
        EXPECT_STREQ(holder.fix().datum_name, "") << "PGRMM was read";
        EXPECT_EQ(holder.parser->state, NmeaState::idle)
            << "left in " << nmea_state_name(holder.parser->state);
        holder.feed(good);
        EXPECT_EQ(holder.fix().position_valid, 1u) << "the next good sentence is read";
    }
}

TEST(NmeaParser, DataOfEightyCharactersIsTheLongestRead) {
    const std::string rmc = "123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W";
    for (const auto& [length, read] :
         {std::pair{sentence_data_capacity, 1u}, std::pair{sentence_data_capacity + 1, 0u}}) {
        SCOPED_TRACE(length);
        ParserHolder holder;
        holder.feed(sentence("GPRMC," + rmc + std::string(length - rmc.size(), ',')));
        EXPECT_EQ(holder.fix().position_valid, read);
    }
}

TEST(NmeaParser, LowerCaseDataIsKept) {
    ParserHolder holder;
    holder.feed(sentence("PGRMM,wgs 84"));
    EXPECT_STREQ(holder.fix().datum_name, "wgs 84");
}

TEST(NmeaParser, CrCrLfRunsTheHandlerOnEmptyData) {
    ParserHolder holder;
    std::string bytes = sentence("GPZDA,201530.00,04,07,2002,00,00");
    bytes.insert(bytes.size() - 1, "\r");
    holder.feed(bytes);
    EXPECT_EQ(holder.fix().time_valid, 1u) << "the ZDA handler ran";
    EXPECT_EQ(holder.fix().date_valid, 1u);
    EXPECT_NE(holder.fix().date, 20020704.0) << "it did not read the sentence's own fields";
}

// A stream of every handler's sentences with noise between them.
std::string sample_stream() {
    std::string text = "garbage\r\n$GPGGA,trunc";
    for (const char* body : {
             "GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,",
             "GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W",
             "GPGSV,3,1,09,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45",
             "GPGSV,3,2,09,15,18,138,00,18,20,079,00,25,27,172,46,31,27,263,38",
             "GPGSV,3,3,09,32,10,010,20",
             "GPRMB,A,0.66,L,003,004,4917.24,N,12309.57,W,001.3,052.5,000.5,V",
             "GPVTG,054.7,T,034.4,M,005.5,N,010.2,K",
             "GPBOD,099.3,T,105.6,M,POINTB,POINTA",
             "PGRMM,NAD27 Canada",
             "PGRME,15.0,M,45.0,F,25.0,M",
             "GPZDA,201530.00,04,07,2002,00,00",
             "GPWPL,4917.16,N,12310.64,W,003",
             "GPRTE,2,1,c,0,PBRCPK,PBRTO,PTELGR,PPLAND,PYAMBU,PPFAIR,PWARRN",
             "GPRTE,2,2,c,0,PKYLAN,PSKYNL",
             "GPR00,EGLL,EGLM,EGTB",
             "PGRMF,290,293895,160305,093802,13,5213.1439,N,02100.6511,E,A,2,0,226,2,1",
             "PKLNT,START",
             "PGRMV,3.0,-4.0,0.0",
             "GPGLL,4916.45,N,12311.12,W,225444,A",
         }) {
        text += sentence(body) + "\x01\xFF";
    }
    return text;
}

TEST(NmeaParser, SplitAtEveryByteEqualsOneWholeFeed) {
    const std::string stream = sample_stream();
    ParserHolder whole;
    whole.feed(stream);
    const std::string expected = describe_text(whole.fix());
    ASSERT_NE(expected.find("EGTB"), std::string::npos) << "the sample reaches every handler";
    for (std::size_t split = 1; split < stream.size(); ++split) {
        ParserHolder parts;
        parts.feed(stream.substr(0, split));
        parts.feed(stream.substr(split));
        const std::string got = describe_text(parts.fix());
        if (got != expected) {
            ADD_FAILURE() << "split at byte " << split << " differs:\n" << got;
            break;
        }
    }
    ParserHolder bytewise;
    for (const char byte : stream)
        bytewise.feed(std::string(1, byte));
    EXPECT_EQ(describe_text(bytewise.fix()), expected) << "one byte at a time";
}

TEST(NmeaParser, HostileBytesAreBoundedAndHarmless) {
    ParserHolder holder;
    // An over-long sentence, however long, keeps at most the buffers' worth.
    std::string long_data = "$GPRMC," + std::string(100000, '9') + "*00\r\n";
    holder.feed(long_data);
    EXPECT_EQ(holder.fix().position_valid, 0u);
    // A long keyword, NUL bytes, and noise from a fixed generator.
    holder.feed("$GPRMCGPRMCGPRMCGPRMC,1,2*00\r\n");
    holder.feed(std::string("$GPR\0MC,1\0\0*00\r\n", 17));
    std::string noise(64 * 1024, '\0');
    uint32_t seed = 12345;
    for (char& byte : noise) {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<char>(seed >> 24);
    }
    holder.feed(noise);
    // Handlers that read past the sentence's end stay inside the buffer.
    holder.feed(sentence("GPRTE,1,1,c," + std::string(60, 'R')));
    holder.feed(sentence("GPRMB,A"));
    holder.feed(sentence("GPGSV,1,1,3"));
    holder.feed("\r\n" + sentence("GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,"));
    EXPECT_EQ(holder.fix().position_valid, 1u) << "a good sentence after the noise is read";
    EXPECT_FALSE(error_pending());
}

TEST(NmeaParser, RouteListStopsGrowingOnAnEndlessSeries) {
    ParserHolder holder;
    const std::string next = sentence("GPRTE,2,2,c,R,ABCDEFGHIJ,ABCDEFGHIJ,ABCDEFGHIJ,ABCDEFGHIJ");
    holder.feed(sentence("GPRTE,2,1,c,R,A"));
    for (int i = 0; i < 5000; ++i)
        holder.feed(next);
    const std::size_t names = waypoints(holder.fix()).size();
    EXPECT_GT(names, 1000u);
    EXPECT_LT(names, 10000u);
}

TEST(NmeaParser, KeywordTableRowsAreUniqueAndReachEveryHandler) {
    std::vector<bool> reached(nmea_handler_count, false);
    const auto table = nmea_keywords();
    EXPECT_EQ(table.size(), nmea_keyword_count);
    EXPECT_EQ(nmea_handlers().size(), nmea_handler_count);
    for (std::size_t i = 0; i < table.size(); ++i) {
        EXPECT_LT(table[i].handler_index, nmea_handler_count) << table[i].keyword;
        if (table[i].handler_index < nmea_handler_count) reached[table[i].handler_index] = true;
        for (std::size_t j = i + 1; j < table.size(); ++j) {
            EXPECT_STRNE(table[i].keyword, table[j].keyword) << "rows " << i << " and " << j;
        }
    }
    for (std::size_t h = 0; h < nmea_handler_count; ++h)
        EXPECT_TRUE(reached[h]) << "handler " << h;
}

TEST(NmeaParser, ClearFixFlagsKeepsQualityAndValues) {
    ParserHolder holder;
    holder.feed(sentence("GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,") +
                sentence("GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W") +
                sentence("PKLNT,STOP"));
    clear_fix_flags(holder.fix());
    const NavFix& f = holder.fix();
    EXPECT_EQ(f.date_valid + f.time_valid + f.satellites_valid + f.course_valid + f.speed_valid +
                  f.altitude_valid + f.position_valid,
              0u);
    EXPECT_EQ(f.mark, FixMark::none);
    EXPECT_EQ(f.quality_valid, 1u);
    EXPECT_DOUBLE_EQ(f.latitude, arc_seconds(48, 7.038));
}

// ---- Talkers ----

TEST(NmeaParser, AnyTalkerReadsEveryTalkerAsGp) {
    ParserHolder holder;
    holder.parser->any_talker = 1;
    holder.feed(sentence("GNRMC,081411.000,A,5541.1955,N,03737.2872,E,0.60,301.29,260514,,,A") +
                sentence("GLGSV,1,1,01,65,10,010,20") + sentence("PGRMM,NAD27 Canada") +
                sentence("IIXYZ,1"));
    EXPECT_EQ(holder.fix().position_valid, 1u);
    EXPECT_DOUBLE_EQ(holder.fix().latitude, arc_seconds(55, 41.1955));
    EXPECT_EQ(holder.fix().satellites[0].prn, 65);
    EXPECT_STREQ(holder.fix().datum_name, "NAD27 Canada") << "proprietary sentences keep theirs";
}

TEST(NmeaParser, TheConfigurationKeyTurnsAnyTalkerOn) {
    // The process's own file in its private home, read anew at each look-up.
    ASSERT_NE(config_path(), nullptr);
    const std::string path = config_path();
    const bool existed = testing::file_exists(path);
    const std::string saved = existed ? testing::read_file(path) : "";
    const struct {
        const char* content;
        uint32_t any_talker;
    } cases[] = {
        {"LANG ENGLISH\nNMEA_ANY_TALKER\n", 1},
        {"NMEA_ANY_TALKER 0\n", 1},
        {"LANG ENGLISH\n#NMEA_ANY_TALKER\n", 0},
        {"", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        testing::write_file(path, c.content);
        NmeaParser* parser = new_nmea_parser(nullptr, nullptr);
        EXPECT_EQ(parser->any_talker, c.any_talker);
        free_nmea_parser(parser);
    }
    if (existed) {
        testing::write_file(path, saved);
    } else {
        std::remove(path.c_str());
    }
}

TEST(NmeaParser, AnotherTalkersFixGivesOneHintNamingTheKey) {
    const bool given_before = talker_hint_given();
    ParserHolder holder;
    ::testing::internal::CaptureStderr();
    holder.feed(sentence("GNGSA,A,3,03,19,27,13,,,,,,,,,2.75,2.56,1.00"));
    const std::string after_gsa = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(after_gsa, "") << "only position sentences call for the hint";
    std::string bad = sentence("GNGGA,1,2,N,3,E,1,,,,,,,,");
    bad[bad.size() - 3] ^= 1;
    ::testing::internal::CaptureStderr();
    holder.feed(bad);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "nor a bad checksum";
    ::testing::internal::CaptureStderr();
    holder.feed(sentence("GNRMC,081411.000,A,5541.1955,N,03737.2872,E,0.60,301.29,260514,,,A"));
    const std::string first = ::testing::internal::GetCapturedStderr();
    ::testing::internal::CaptureStderr();
    holder.feed(sentence("GLGGA,081412.000,5541.1956,N,03737.2877,E,1,5,4.87,66.2,M,14.5,M,,"));
    const std::string second = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(talker_hint_given());
    if (!given_before) {
        EXPECT_NE(first.find("NMEA_ANY_TALKER"), std::string::npos) << first;
        EXPECT_NE(first.find("GN"), std::string::npos) << first;
    }
    EXPECT_EQ(second, "") << "the hint is given once";
    EXPECT_EQ(holder.fix().position_valid, 0u) << "the GN fix itself is not read";
}

// ---- Datum follow-up ----

TEST(NmeaParser, FollowDatumLooksUpEachNewName) {
    static const bool registered = [] {
        object_store_create();
        geodesy_register_types();
        transforms_register_types();
        return true;
    }();
    (void)registered;
    set_gblerr(ErrorCode::none);
    geodesy_load_from(NORVANTA_SYSTEM_SOURCE_DIR "/");
    ASSERT_FALSE(error_pending()) << "the system tables load";
    ParserHolder holder;
    ASSERT_STREQ(holder.fix().datum_name, "WGS 84") << "a new fix names the default system";
    ObjectId reference_id = 0;
    cre_obj<GeoReference>(&reference_id);
    char* seen = nullptr;
    uint32_t changed = 7;
    const DatumFollow link{seen, changed, reference_id};
    const struct {
        const char* description;
        const char* feed;
        uint32_t changed;
        int32_t code;
    } steps[] = {
        {"the first name is acted on", "", 1, 214},
        {"the same name again changes nothing", "", 0, 214},
        {"a new name from PGRMM", "PGRMM,NAD27 Canada", 1, 194},
        {"and it stays", "PGRMM,NAD27 Canada", 0, 194},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.description);
        if (*step.feed) holder.feed(sentence(step.feed));
        follow_datum(holder.fix(), link);
        EXPECT_EQ(changed, step.changed);
        EXPECT_STREQ(seen, holder.fix().datum_name);
        const auto* reference = find_obj_adr<GeoReference>(reference_id);
        ASSERT_NE(reference, nullptr);
        EXPECT_EQ(reference->datum, find_by_code(ObjectType::Datum, step.code));
        EXPECT_NE(reference->datum, 0);
    }
    free_mem(seen);
    EXPECT_FALSE(error_pending());
    geodesy_unload();
}

// ---- Golden corpus ----
//
// Each log is fed one line at a time, as if each line were a batch; after
// each, the expected file holds the line and every value that changed, then
// the flags are lowered as the worker lowers them. NORVANTA_REBUILD_GOLDEN=1
// rewrites the expected files; a change to one must be explained where it is
// committed.

std::string golden_run(const std::string& input) {
    ParserHolder holder;
    std::string out;
    auto previous = describe(holder.fix());
    std::size_t start = 0;
    while (start < input.size()) {
        std::size_t end = input.find('\n', start);
        end = end == std::string::npos ? input.size() : end + 1;
        const std::string line = input.substr(start, end - start);
        start = end;
        holder.feed(line);
        std::string shown = line;
        while (!shown.empty() && (shown.back() == '\n' || shown.back() == '\r'))
            shown.pop_back();
        out += "< " + shown + "\n";
        const auto now = describe(holder.fix());
        for (std::size_t i = 0; i < now.size(); ++i) {
            if (now[i].second != previous[i].second ||
                (now[i].first == "flags" && !now[i].second.empty())) {
                out += "> " + now[i].first + "=" + now[i].second + "\n";
            }
        }
        clear_fix_flags(holder.fix());
        previous = describe(holder.fix());
    }
    return out;
}

class NmeaGolden : public ::testing::TestWithParam<const char*> {};

TEST_P(NmeaGolden, MatchesItsExpectedFile) {
    const std::string path = std::string(NORVANTA_TEST_DATA_DIR "/nmea/") + GetParam();
    ASSERT_TRUE(testing::file_exists(path)) << path;
    const std::string got = golden_run(testing::read_file(path));
    const char* rebuild = std::getenv("NORVANTA_REBUILD_GOLDEN");
    if (rebuild && std::strcmp(rebuild, "1") == 0) {
        testing::write_file(path + ".expected", got);
        GTEST_SKIP() << "rebuilt " << path << ".expected";
    }
    ASSERT_TRUE(testing::file_exists(path + ".expected")) << "no expected file for " << path;
    const std::string expected = testing::read_file(path + ".expected");
    if (got != expected) {
        std::size_t at = 0;
        while (at < got.size() && at < expected.size() && got[at] == expected[at])
            ++at;
        const std::size_t line_start = expected.rfind('\n', at == 0 ? 0 : at - 1);
        ADD_FAILURE() << path << " differs from its expected file near:\n"
                      << expected.substr(line_start == std::string::npos ? 0 : line_start, 300)
                      << "\n--- got ---\n"
                      << got.substr(line_start == std::string::npos ? 0 : line_start, 300);
    }
}

INSTANTIATE_TEST_SUITE_P(Logs, NmeaGolden,
                         ::testing::Values("foretrex-201.log", "garmin48.log", "firefly-II.log",
                                           "bu353-glonass.log"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             std::string name;
                             for (const char* c = info.param; *c && *c != '.'; ++c) {
                                 name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                             }
                             return name;
                         });

} // namespace
} // namespace norvanta
