// The sentence parser: each handler on sample sentences, the drop rules of the
// character machine, resumption at every split, hostile bytes, the talker
// rule, the datum follow-up, and a golden corpus of real receiver logs.
#include "navigation/nmea_parser.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

std::vector<std::string> waypoints(const NavFix& fix) {
    std::vector<std::string> names;
    for (const char* name = fix.route_waypoints; name && *name; name += std::strlen(name) + 1) {
        names.emplace_back(name);
    }
    return names;
}

// Every value of a fix as text, in field order: what the golden files hold
// and what the split test compares.
using Described = std::vector<std::pair<std::string, std::string>>;

Described describe(const NavFix& fix) {
    auto real = [](double value) {
        char text[64];
        std::snprintf(text, sizeof text, "%.9g", value);
        return std::string(text);
    };
    auto integer = [](long value) { return std::to_string(value); };
    std::string names;
    for (const std::string& name : waypoints(fix))
        names += name + "|";
    Described out = {{"latitude", real(fix.latitude)},
                     {"longitude", real(fix.longitude)},
                     {"time_of_day", real(fix.time_of_day)},
                     {"date", real(fix.date)},
                     {"altitude", real(fix.altitude)},
                     {"ellipsoid_height", real(fix.ellipsoid_height)},
                     {"speed_kmh", real(fix.speed_kmh)},
                     {"speed_knots", real(fix.speed_knots)},
                     {"course_true", real(fix.course_true)},
                     {"course_magnetic", real(fix.course_magnetic)},
                     {"horizontal_error", real(fix.horizontal_error)},
                     {"vertical_error", real(fix.vertical_error)},
                     {"hdop", real(fix.hdop)},
                     {"fix_acquired", integer(fix.fix_acquired)},
                     {"differential", integer(fix.differential)},
                     {"datum_name", fix.datum_name},
                     {"arrived", integer(fix.arrived)},
                     {"origin_id", fix.origin_id},
                     {"destination_id", fix.destination_id},
                     {"destination_latitude", real(fix.destination_latitude)},
                     {"destination_longitude", real(fix.destination_longitude)},
                     {"bearing_true", real(fix.bearing_true)},
                     {"bearing_magnetic", real(fix.bearing_magnetic)},
                     {"destination_range", real(fix.destination_range)},
                     {"closing_velocity", real(fix.closing_velocity)},
                     {"route_id", fix.route_id},
                     {"route_waypoints", names},
                     {"destination_valid", integer(fix.destination_valid)},
                     {"route_complete", integer(fix.route_complete)},
                     {"satellites_in_view", integer(fix.satellites_in_view)}};
    for (std::size_t i = 0; i < fix_satellite_capacity; ++i) {
        const FixSatellite& s = fix.satellites[i];
        out.emplace_back("satellite" + std::to_string(i),
                         std::to_string(s.prn) + "/" + std::to_string(s.elevation) + "/" +
                             std::to_string(s.azimuth) + "/" + std::to_string(s.snr));
    }
    std::string flags;
    for (const auto& [name, value] : {std::pair{"time", fix.time_valid},
                                      {"position", fix.position_valid},
                                      {"altitude", fix.altitude_valid},
                                      {"speed", fix.speed_valid},
                                      {"course", fix.course_valid},
                                      {"satellites", fix.satellites_valid},
                                      {"quality", fix.quality_valid},
                                      {"date", fix.date_valid}}) {
        if (value) flags += std::string(flags.empty() ? "" : " ") + name;
    }
    out.emplace_back("flags", flags);
    out.emplace_back("mark", integer(static_cast<long>(fix.mark)));
    return out;
}

std::string describe_text(const NavFix& fix) {
    std::string text;
    for (const auto& [name, value] : describe(fix))
        text += name + "=" + value + "\n";
    return text;
}

// ---- Handlers ----

// What a feed changed: "name=value" of each value that differs from before,
// and the flags whenever one is raised.
std::string changes(const Described& before, const Described& now, const char* separator) {
    std::string out;
    for (std::size_t i = 0; i < now.size(); ++i) {
        if (now[i].second != before[i].second ||
            (now[i].first == "flags" && !now[i].second.empty())) {
            out += (out.empty() ? "" : separator) + now[i].first + "=" + now[i].second;
        }
    }
    return out;
}

struct HandlerCase {
    const char* description;
    std::vector<std::string> bodies; // fed in order, without '$' and tail
    const char* changed;
};

const HandlerCase handler_cases[] = {
    {"GGA with a fix",
     {"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,"},
     "latitude=173222.28; longitude=41460; time_of_day=0.524525463; altitude=545.4; "
     "ellipsoid_height=592.3; hdop=0.9; fix_acquired=1; satellites_in_view=8; flags=time "
     "position altitude satellites quality"},
    {"GGA south and west, differential",
     {"GPGGA,000001,3348.452,S,11821.142,W,2,05,1.8,38.4,M,-32.4,M,,"},
     "latitude=-121707.12; longitude=-426068.52; time_of_day=1.15740741e-05; altitude=38.4; "
     "ellipsoid_height=6; hdop=1.8; fix_acquired=1; differential=1; satellites_in_view=5; "
     "flags=time position altitude satellites quality"},
    {"GGA of quality 0 keeps no position but still gives satellites and altitude",
     {"GPGGA,123519,4807.038,N,01131.000,E,0,03,9.9,12.0,M,,,,"},
     "altitude=12; ellipsoid_height=12; hdop=9.9; satellites_in_view=3; flags=altitude "
     "satellites"},
    {"GGA with an empty quality counts as a fix without acquisition",
     {"GPGGA,005947.00,4458.3020,N,09326.5180,W,,05,2.0,250.0,M,,,,"},
     "latitude=161898.12; longitude=-336391.08; time_of_day=0.0415162037; altitude=250; "
     "ellipsoid_height=250; hdop=2; satellites_in_view=5; flags=time position altitude "
     "satellites quality"},
    {"GGA with a foot altitude sets no altitude",
     {"GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,F,46.9,M,,"},
     "latitude=173222.28; longitude=41460; time_of_day=0.524525463; ellipsoid_height=46.9; "
     "hdop=0.9; fix_acquired=1; satellites_in_view=8; flags=time position satellites quality"},
    {"RMC active",
     {"GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W"},
     "latitude=173222.28; longitude=41460; time_of_day=0.524525463; date=19940323; "
     "speed_kmh=41.4848; speed_knots=22.4; course_true=84.4; course_magnetic=87.5; flags=time "
     "position speed course date"},
    {"RMC easterly variation, empty speed, course still flagged",
     {"GPRMC,000000,A,0000.000,N,00000.000,E,,10.0,010170,2.0,E"},
     "date=19700101; course_true=10; course_magnetic=8; flags=time position course date"},
    {"RMC void sets nothing at all",
     {"GPRMC,123519,V,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W"},
     ""},
    {"RMC date of 5 characters; a year below 70 is 20yy",
     {"GPRMC,0,A,0,N,0,E,,,10519,,"},
     "date=20190501; flags=time position course date"},
    {"RMC date of 7 characters",
     {"GPRMC,0,A,0,N,0,E,,,1012019,,"},
     "date=20190101; flags=time position course date"},
    {"RMC date of 8 characters",
     {"GPRMC,0,A,0,N,0,E,,,24122021,,"},
     "date=20211224; flags=time position course date"},
    {"RMC date of another length gives no date, still flagged",
     {"GPRMC,0,A,0,N,0,E,,,2412,,"},
     "flags=time position course date"},
    {"GLL with time and status",
     {"GPGLL,4916.45,N,12311.12,W,225444,A"},
     "latitude=177387; longitude=-443467.2; time_of_day=0.954675926; flags=time position"},
    {"GLL of four fields gives a position with no time",
     {"GPGLL,4916.45,N,12311.12,W"},
     "latitude=177387; longitude=-443467.2; flags=position"},
    {"GLL void keeps nothing", {"GPGLL,4916.45,N,12311.12,W,225444,V"}, ""},
    // Motion and time.
    {"VTG in the usual order",
     {"GPVTG,054.7,T,034.4,M,005.5,N,010.2,K"},
     "speed_kmh=10.2; speed_knots=5.5; course_true=54.7; course_magnetic=34.4; flags=speed "
     "course"},
    {"VTG with the letters swapped goes by the letters",
     {"GPVTG,1,M,2,T,3,K,4,N"},
     "speed_kmh=3; speed_knots=4; course_true=2; course_magnetic=1; flags=speed course"},
    {"ZDA",
     {"GPZDA,201530.00,04,07,2002,00,00"},
     "time_of_day=0.844097222; date=20020704; flags=time date"},
    {"PGRMV speed from the velocity vector, knots left alone",
     {"PGRMV,3.0,-4.0,0.0"},
     "speed_kmh=18; flags=speed"},
    {"PGRMF of a Garmin 17N",
     {"PGRMF,290,293895,160305,093802,13,5213.1439,N,02100.6511,E,A,2,0,226,2,1"},
     "latitude=187988.634; longitude=75639.066; time_of_day=0.401412037; date=20050316; "
     "course_true=226; flags=time position speed course date"},
    {"PGRMF without date and time takes the date from week and seconds, the week as sent (here "
     "rolled over)",
     {"PGRMF,290,293895,,,13,5213.1439,S,02100.6511,W,A,0,36,226,2,1"},
     "latitude=-187988.634; longitude=-75639.066; date=19950726.4; speed_kmh=36; "
     "speed_knots=19.4384449; course_true=226; flags=speed course date"},
    {"PKLNT START", {"PKLNT,START"}, "mark=1"},
    {"PKLNT STOP", {"PKLNT,STOP"}, "mark=2"},
    {"PKLNT of another word", {"PKLNT,PAUSE"}, ""},
    // Satellites in view: the last sentence's rule.
    {"nine satellites in three sentences are all stored",
     {"GPGSV,3,1,09,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45",
      "GPGSV,3,2,09,15,18,138,00,18,20,079,00,25,27,172,46,31,27,263,38",
      "GPGSV,3,3,09,32,10,010,20"},
     "satellites_in_view=9; satellite0=1/40/83/46; satellite1=2/17/308/41; "
     "satellite2=12/7/344/39; satellite3=14/22/228/45; satellite4=15/18/138/0; "
     "satellite5=18/20/79/0; satellite6=25/27/172/46; satellite7=31/27/263/38; "
     "satellite8=32/10/10/20; flags=satellites"},
    {"a count divisible by four stores nothing of its last sentence",
     {"GPGSV,2,1,08,01,40,083,46,02,17,308,41,12,07,344,39,14,22,228,45",
      "GPGSV,2,2,08,15,18,138,00,18,20,079,00,25,27,172,46,31,27,263,38"},
     "satellites_in_view=8; satellite0=1/40/83/46; satellite1=2/17/308/41; "
     "satellite2=12/7/344/39; satellite3=14/22/228/45; flags=satellites"},
    {"a fourth sentence stores nothing, whatever the count",
     {"GPGSV,4,4,13,40,10,010,20"},
     "satellites_in_view=13; flags=satellites"},
    {"a sentence number beyond the total is dropped whole", {"GPGSV,2,3,09,40,10,010,20"}, ""},
    // Garmin's own, with their quirks.
    {"PGRME in metres keeps the vertical error as it was (inverted test)",
     {"PGRME,15.0,M,45.0,M,25.0,M"},
     "horizontal_error=15"},
    {"PGRME with another vertical unit stores it",
     {"PGRME,15.0,F,45.0,F,25.0,M"},
     "vertical_error=45"},
    {"PGRMM names the datum, lower case kept", {"PGRMM,nad27 Canada"}, "datum_name=nad27 Canada"},
    // Destination and route.
    {"RMB active, arrived",
     {"GPRMB,A,0.66,L,003,004,4917.24,S,12309.57,W,001.3,052.5,000.5,A"},
     "arrived=1; origin_id=003; destination_id=004; destination_latitude=-177434.4; "
     "destination_longitude=-443374.2; bearing_true=52.5; destination_range=1.3; "
     "closing_velocity=0.5; destination_valid=1"},
    {"RMB void changes nothing", {"GPRMB,V,0.66,L,003,004,4917.24,N,12309.57,W,1,2,3,A"}, ""},
    {"RMB with a bad hemisphere stops after the latitude, destination invalid",
     {"GPWPL,1,N,1,E,X", "GPRMB,A,,,,,4917.24,Q,12309.57,W,1,2,3,V"},
     "destination_id= ; destination_latitude=177434.4; destination_longitude=60"},
    {"RMB identifiers longer than the record are cut",
     {"GPRMB,A,,,ORIGIN6789012345678901234,DESTINATION34567890123456789,0,N,0,E,,,,V"},
     "origin_id=ORIGIN6789012345678; destination_id=DESTINATION345678901234; "
     "destination_valid=1"},
    {"BOD bearings and names; the destination falls",
     {"GPWPL,4917.16,N,12310.64,W,003", "GPBOD,099.3,T,105.6,M,POINTB,POINTA"},
     "origin_id=POINTA; destination_id=POINTB; destination_latitude=177429.6; "
     "destination_longitude=-443438.4; bearing_true=99.3; bearing_magnetic=105.6"},
    {"WPL",
     {"GPWPL,4917.16,N,12310.64,W,003"},
     "destination_id=003; destination_latitude=177429.6; destination_longitude=-443438.4; "
     "destination_valid=1"},
    {"RTE complete route in two sentences",
     {"GPRTE,2,1,c,0,PBRCPK,PBRTO,PTELGR,PPLAND,PYAMBU,PPFAIR,PWARRN",
      "GPRTE,2,2,c,0,PKYLAN,PSKYNL"},
     "route_id=0; "
     "route_waypoints=PBRCPK|PBRTO|PTELGR|PPLAND|PYAMBU|PPFAIR|PWARRN|PKYLAN|PSKYNL|; "
     "route_complete=1"},
    {"RTE a new series starts an empty list; a working route is not kept",
     {"GPRTE,1,1,c,R1,A,B", "GPRTE,1,1,w,R2,C,D"},
     "route_id=R1; route_complete=1"},
    {"RTE of another total and not first is dropped",
     {"GPRTE,2,1,c,R1,A", "GPRTE,3,2,c,R2,B"},
     "route_id=R1; route_waypoints=A|"},
    {"R00 replaces the list with its names",
     {"GPRTE,1,1,c,R1,A", "GPR00,EGLL,EGLM,,EGTB,,,"},
     "route_id=R1; route_waypoints=EGLL|EGLM|; route_complete=1"},
    // Ignored and unknown sentences.
    {"GSA is ignored", {"GPGSA,A,3,03,,11,14,,,25,31,,,,,3.3,1.8,2.8"}, ""},
    {"PGRMZ is ignored", {"PGRMZ,125,f,3"}, ""},
    {"an unknown keyword", {"GPXYZ,1,2,3"}, ""},
    {"another talker without the key",
     {"GNRMC,081411.000,A,5541.1955,N,03737.2872,E,0.60,301.29,260514,,,A"},
     ""},
};

TEST(NmeaParser, EachHandlerChangesWhatItsSentencesSay) {
    for (const HandlerCase& c : handler_cases) {
        SCOPED_TRACE(c.description);
        ParserHolder holder;
        const Described before = describe(holder.fix());
        for (const std::string& body : c.bodies)
            holder.feed(sentence(body));
        EXPECT_EQ(changes(before, describe(holder.fix()), "; "), c.changed);
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

TEST(NmeaParser, CrCrLfRunsTheHandlerOnEmptyData) {
    ParserHolder holder;
    std::string bytes = sentence("GPZDA,201530.00,04,07,2002,00,00");
    bytes.insert(bytes.size() - 1, "\r");
    holder.feed(bytes);
    EXPECT_EQ(holder.fix().time_valid, 1u) << "the ZDA handler ran";
    EXPECT_EQ(holder.fix().date_valid, 1u);
    EXPECT_NE(holder.fix().date, 20020704.0) << "it did not read the sentence's own fields";
}

// Every handler case's sentences in one stream, with noise between them.
std::string sample_stream() {
    std::string text = "garbage\r\n$GPGGA,trunc";
    for (const HandlerCase& c : handler_cases) {
        for (const std::string& body : c.bodies)
            text += sentence(body) + "\x01\xFF";
    }
    return text;
}

TEST(NmeaParser, SplitAtEveryByteEqualsOneWholeFeed) {
    const std::string stream = sample_stream();
    ParserHolder whole;
    whole.feed(stream);
    const std::string expected = describe_text(whole.fix());
    ASSERT_NE(expected.find("EGLM"), std::string::npos) << "the sample reaches the last handler";
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
    const std::string saved = testing::file_exists(path) ? testing::read_file(path) : "";
    const struct {
        const char* content;
        uint32_t any_talker;
    } cases[] = {
        {"NMEA_ANY_TALKER 0\n", 1},
        {"LANG ENGLISH\n#NMEA_ANY_TALKER\n", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        testing::write_file(path, c.content);
        NmeaParser* parser = new_nmea_parser(nullptr, nullptr);
        EXPECT_EQ(parser->any_talker, c.any_talker);
        free_nmea_parser(parser);
    }
    testing::write_file(path, saved);
}

TEST(NmeaParser, AnotherTalkersFixGivesOneHintNamingTheKey) {
    const bool given_before = talker_hint_given();
    ParserHolder holder;
    auto stderr_of = [&holder](const std::string& bytes) {
        ::testing::internal::CaptureStderr();
        holder.feed(bytes);
        return ::testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(stderr_of(sentence("GNGSA,A,3,03,19,27,13,,,,,,,,,2.75,2.56,1.00")), "")
        << "only position sentences call for the hint";
    std::string bad = sentence("GNGGA,1,2,N,3,E,1,,,,,,,,");
    bad[bad.size() - 3] ^= 1;
    EXPECT_EQ(stderr_of(bad), "") << "nor a bad checksum";
    const std::string first =
        stderr_of(sentence("GNRMC,081411.000,A,5541.1955,N,03737.2872,E,0.60,301.29,260514,,,A"));
    const std::string second =
        stderr_of(sentence("GLGGA,081412.000,5541.1956,N,03737.2877,E,1,5,4.87,66.2,M,14.5,M,,"));
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
        const std::string changed = changes(previous, describe(holder.fix()), "\n> ");
        if (!changed.empty()) out += "> " + changed + "\n";
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
    EXPECT_EQ(got, testing::read_file(path + ".expected"))
        << path << " differs from its expected file";
}

INSTANTIATE_TEST_SUITE_P(Logs, NmeaGolden,
                         ::testing::Values("foretrex-201.log", "garmin48.log", "firefly-II.log",
                                           "bu353-glonass.log"));

} // namespace
} // namespace norvanta
