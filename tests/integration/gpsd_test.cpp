// gpsd as a client of a replay: it listens on a client port, and every
// position it reports lies on the replayed track. gpsd decodes the stream
// on its own, so this checks that what we send is NMEA that a common
// consumer takes.
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/cli_process.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

using testing::TestHome;

bool have(const char* program) {
    return std::system(("command -v " + std::string(program) + " >/dev/null 2>&1").c_str()) == 0;
}

struct Point {
    double latitude;
    double longitude;
};

// In degrees, flat: the track is a few kilometres long.
double distance_to_segment(Point p, Point a, Point b) {
    const double dx = b.longitude - a.longitude, dy = b.latitude - a.latitude;
    const double along =
        ((p.longitude - a.longitude) * dx + (p.latitude - a.latitude) * dy) / (dx * dx + dy * dy);
    const double t = std::fmin(1.0, std::fmax(0.0, along));
    return std::hypot(p.longitude - (a.longitude + t * dx), p.latitude - (a.latitude + t * dy));
}

// A number after "key": in a JSON report; NAN when absent.
double json_number(const std::string& report, const std::string& key) {
    const std::size_t at = report.find("\"" + key + "\":");
    return at == std::string::npos ? NAN : std::atof(report.c_str() + at + key.size() + 3);
}

TEST(Gpsd, ReportsPositionsThatLieOnTheReplayedTrack) {
    if (!have("gpsd") || !have("gpspipe")) GTEST_SKIP() << "gpsd or gpspipe is not installed";
    TestHome home;
    std::vector<Point> track;
    std::string gpx = "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\"><trk><trkseg>\n";
    for (int i = 0; i < 40; ++i) {
        const Point point{45.1 + 0.0007 * i, 5.7 + 0.0011 * i};
        track.push_back(point);
        char row[200];
        std::snprintf(row, sizeof row,
                      "<trkpt lat=\"%.6f\" lon=\"%.6f\"><ele>200</ele>"
                      "<time>2024-06-15T10:%02d:%02dZ</time></trkpt>\n",
                      point.latitude, point.longitude, i / 6, 5 + i % 6 * 9);
        gpx += row;
    }
    testing::write_file(home.file("track.gpx"), gpx + "</trkseg></trk></gpx>\n");
    testing::write_file(home.file("gpsd.cfg"), "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n"
                                               "INACTIVE_NMEA_UDP_DIFFUSE_ADR2 localhost 7552\n");
    const int32_t nmea_port = testing::free_udp_port();
    const int32_t control_port = testing::free_udp_port(); // gpsd's TCP port; free enough
    const std::string gpsd = "gpsd -N -n -S " + std::to_string(control_port) +
                             " udp://127.0.0.1:" + std::to_string(nmea_port) +
                             " >/dev/null 2>&1 & echo $!";
    FILE* started = popen(gpsd.c_str(), "r");
    ASSERT_NE(started, nullptr);
    long gpsd_pid = 0;
    ASSERT_EQ(std::fscanf(started, "%ld", &gpsd_pid), 1);
    pclose(started);
    for (int round = 0; round < 500 && !testing::udp_port_bound(nmea_port); ++round)
        usleep(10000);

    const pid_t player =
        testing::start_cli(home, {"--config", home.file("gpsd.cfg"), "--client",
                                  "127.0.0.1:" + std::to_string(nmea_port), home.file("track.gpx"),
                                  "--play", "--factor", "60", "--exit-at-end", "--status=none"});
    // gpspipe reports until gpsd goes away, which is once the replay is over.
    FILE* pipe =
        popen(("timeout 60 gpspipe -w localhost:" + std::to_string(control_port) + " 2>/dev/null")
                  .c_str(),
              "r");
    ASSERT_NE(pipe, nullptr);
    const testing::Outcome outcome = testing::finish_cli(home, player);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    kill(static_cast<pid_t>(gpsd_pid), SIGTERM);
    int positions = 0;
    char line[4096];
    while (std::fgets(line, sizeof line, pipe)) {
        const std::string report = line;
        if (report.find("\"class\":\"TPV\"") == std::string::npos) continue;
        const double latitude = json_number(report, "lat");
        const double longitude = json_number(report, "lon");
        if (std::isnan(latitude) || std::isnan(longitude)) continue;
        // Replay fills long gaps with points between two of the track's, so
        // a position lies on a segment of the track rather than on a point.
        double nearest = INFINITY;
        for (std::size_t i = 0; i + 1 < track.size(); ++i)
            nearest = std::fmin(nearest,
                                distance_to_segment({latitude, longitude}, track[i], track[i + 1]));
        EXPECT_LT(nearest, 1e-5) << report; // the 0.0001 minute the sentences print
        ++positions;
    }
    pclose(pipe);
    EXPECT_GE(positions, 5) << "gpsd reported too few positions";
}

} // namespace
} // namespace norvanta
