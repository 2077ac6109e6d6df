// norvanta-cli --info and --export-nmea against GPSBabel as the oracle: a
// GPX that GPSBabel writes from a track and waypoints of our own is counted
// alike by both programs, and the NMEA log we export reads back in GPSBabel
// with the same positions (to the 0.0001 minute the log prints) and times.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/cli_process.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

using testing::TestHome;

bool have_gpsbabel() {
    return std::system("gpsbabel -V >/dev/null 2>&1") == 0;
}

// The rows of a unicsv table as GPSBabel writes it, each a map from the
// heading's names to the cells.
using Row = std::map<std::string, std::string>;
std::vector<Row> gpsbabel_rows(const std::string& arguments) {
    std::vector<Row> rows;
    FILE* pipe = popen(("gpsbabel " + arguments + " -o unicsv -F - 2>/dev/null").c_str(), "r");
    if (!pipe) return rows;
    std::string text;
    char buffer[4096];
    while (std::size_t got = std::fread(buffer, 1, sizeof buffer, pipe))
        text.append(buffer, got);
    pclose(pipe);
    std::erase(text, '\r');
    auto cells_of = [](const std::string& line) {
        std::vector<std::string> cells;
        std::istringstream stream(line);
        for (std::string cell; std::getline(stream, cell, ',');)
            cells.push_back(cell);
        return cells;
    };
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    const std::vector<std::string> heading = cells_of(line);
    while (std::getline(lines, line)) {
        const std::vector<std::string> cells = cells_of(line);
        Row row;
        for (std::size_t i = 0; i < cells.size() && i < heading.size(); ++i)
            row[heading[i]] = cells[i];
        rows.push_back(row);
    }
    return rows;
}

double number(const Row& row, const char* name) {
    const auto found = row.find(name);
    return found == row.end() ? NAN : std::atof(found->second.c_str());
}

std::string cell(const Row& row, const char* name) {
    const auto found = row.find(name);
    return found == row.end() ? "<none>" : found->second;
}

// "Title\nvalue" pairs of an information text: the value under a title.
std::string info_value(const std::string& info, const std::string& title) {
    const std::size_t at = info.find(title + "\n");
    if (at == std::string::npos) return "";
    const std::size_t start = at + title.size() + 1;
    return info.substr(start, info.find('\n', start) - start);
}

// A track of 40 points over midnight, 10 s apart and never on a whole
// minute, with a changing course, and three waypoints, all made into one
// GPX by GPSBabel.
std::string make_gpx(const TestHome& home) {
    std::string track = "No,Latitude,Longitude,Altitude,Date,Time\n";
    for (int i = 0; i < 40; ++i) {
        const int seconds = 23 * 3600 + 57 * 60 + 5 + 10 * i;
        char row[160];
        std::snprintf(row, sizeof row, "%d,%.6f,%.6f,%.1f,2024/03/%02d,%02d:%02d:%02d\n", i + 1,
                      48.1 + i * 0.0011, -1.5 - i * 0.0013 * std::cos(i / 5.0), 30.0 + i,
                      seconds >= 86400 ? 6 : 5, (seconds / 3600) % 24, seconds / 60 % 60,
                      seconds % 60);
        track += row;
    }
    testing::write_file(home.file("track.csv"), track);
    testing::write_file(home.file("points.csv"), "No,Latitude,Longitude,Name\n"
                                                 "1,48.2,-1.4,Harbour\n"
                                                 "2,-33.5,151.25,South East\n"
                                                 "3,0.000001,-0.000001,Origin\n");
    const std::string gpx = home.file("both.gpx");
    const std::string command = "gpsbabel -i unicsv -f " + home.file("track.csv") +
                                " -x transform,trk=wpt,del -i unicsv -f " +
                                home.file("points.csv") + " -o gpx -F " + gpx + " >/dev/null 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return gpx;
}

TEST(FileCommands, InfoCountsAgreeWithGpsbabel) {
    if (!have_gpsbabel()) GTEST_SKIP() << "gpsbabel is not installed";
    TestHome home;
    testing::write_file(home.file("english.cfg"), "LANG ENGLISH\n");
    const std::string gpx = make_gpx(home);
    const testing::Outcome outcome =
        testing::run_cli(home, {"--config", home.file("english.cfg"), "--info", gpx});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(info_value(outcome.out, "Format"), "GPS eXchange");
    EXPECT_EQ(info_value(outcome.out, "Number of waypoints"),
              std::to_string(gpsbabel_rows("-i gpx -f " + gpx).size()));
    EXPECT_EQ(info_value(outcome.out, "Number of trackpoints"),
              std::to_string(gpsbabel_rows("-t -i gpx -f " + gpx).size()));
}

TEST(FileCommands, ExportedLogReadsBackInGpsbabelWithTheSamePositionsAndTimes) {
    if (!have_gpsbabel()) GTEST_SKIP() << "gpsbabel is not installed";
    TestHome home;
    const std::string gpx = make_gpx(home);
    const std::string log = home.file("both.nmea");
    const testing::Outcome outcome = testing::run_cli(home, {"--export-nmea", gpx, log});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    // Track points are written with an empty fix quality, which GPSBabel
    // counts as no fix unless told otherwise.
    const auto expected = gpsbabel_rows("-t -i gpx -f " + gpx);
    const auto got = gpsbabel_rows("-t -i nmea,ignore_fix=1 -f " + log);
    ASSERT_EQ(got.size(), expected.size());
    constexpr double minute_step = 0.0001 / 60; // degrees of the last digit printed
    for (std::size_t i = 0; i < got.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(number(got[i], "Latitude"), number(expected[i], "Latitude"), minute_step);
        EXPECT_NEAR(number(got[i], "Longitude"), number(expected[i], "Longitude"), minute_step);
        EXPECT_EQ(cell(got[i], "Date") + " " + cell(got[i], "Time"),
                  cell(expected[i], "Date") + " " + cell(expected[i], "Time"));
    }
    const auto waypoints = gpsbabel_rows("-i nmea -f " + log);
    const auto originals = gpsbabel_rows("-i gpx -f " + gpx);
    ASSERT_EQ(waypoints.size(), originals.size());
    for (std::size_t i = 0; i < waypoints.size(); ++i) {
        SCOPED_TRACE(cell(originals[i], "Name"));
        EXPECT_NEAR(number(waypoints[i], "Latitude"), number(originals[i], "Latitude"),
                    minute_step);
        EXPECT_NEAR(number(waypoints[i], "Longitude"), number(originals[i], "Longitude"),
                    minute_step);
    }
}

TEST(FileCommands, FilesThatCannotBeReadAreNamedAndTheStatusSaysSo) {
    TestHome home;
    testing::write_file(home.file("english.cfg"), "LANG ENGLISH\n");
    testing::write_file(home.file("empty.gpx"),
                        "<?xml version=\"1.0\"?><gpx version=\"1.1\"></gpx>\n");
    const testing::Outcome missing = testing::run_cli(
        home, {"--config", home.file("english.cfg"), "--info", home.file("missing.gpx")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("missing.gpx: "), std::string::npos) << missing.err;
    const testing::Outcome nothing =
        testing::run_cli(home, {"--export-nmea", home.file("empty.gpx"), home.file("out.nmea")});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_NE(nothing.err.find("empty.gpx: holds no waypoint"), std::string::npos) << nothing.err;
    EXPECT_FALSE(testing::file_exists(home.file("out.nmea")));
}

} // namespace
} // namespace norvanta
