// Real receiver logs replayed to a client on loopback, with a clock of the
// test's own: what goes out must be the log itself, epoch after epoch, with
// nothing lost between the first epoch sent and the last.
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "diffusion/clients.h"
#include "formats/detection.h"
#include "formats/file_mobj.h"
#include "replay/conversion.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "support/gps_store.h"
#include "support/program_environment.h"
#include "support/serve_events.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

[[maybe_unused]] const auto* const environment =
    ::testing::AddGlobalTestEnvironment(new testing::ReplayEnvironment(
        [] { testing::set_up_gps_store(NORVANTA_SYSTEM_SOURCE_DIR "/"); }));

testing::UdpListener& client() {
    return testing::ReplayEnvironment::client();
}

std::time_t fake_seconds = 1710072000;
void fake_now(JulianTime& out) {
    julian_from_time(out, fake_seconds);
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

// The time field of a sentence that has one where GGA, RMC and ZDA keep it;
// empty for the others.
std::string time_field(const std::string& line) {
    if (line.size() < 6) return "";
    const std::string keyword = line.substr(3, 3);
    if (keyword != "GGA" && keyword != "RMC" && keyword != "ZDA") return "";
    const std::size_t comma = line.find(',');
    return line.substr(comma + 1, line.find(',', comma + 1) - comma - 1);
}

// A GP sentence with a position fix: a GGA of quality 1 or more, an RMC or
// GLL with status A.
bool gives_position(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
        fields.push_back(line.substr(start, comma - start));
    fields.push_back(line.substr(start));
    const auto field = [&](std::size_t n) { return n < fields.size() ? fields[n] : ""; };
    if (fields[0] == "$GPGGA") return !field(6).empty() && field(6) != "0";
    if (fields[0] == "$GPRMC") return field(2) == "A";
    if (fields[0] == "$GPGLL") return field(6).starts_with("A");
    return false;
}

// Each log plays at half its speed, so that every tick of one second moves
// the clock less than the log's epochs are apart.
TEST(ReplayLogs, EveryEpochBetweenTheFirstAndTheLastGoesOutWholeAndInOrder) {
    const char* const logs[] = {"garmin48.log", "foretrex-201.log", "firefly-II.log",
                                "bu353-glonass.log"};
    constexpr double half_speed = 0.5;
    set_replay_clock(fake_now);
    DiffuseOn.store(1);
    for (const char* name : logs) {
        SCOPED_TRACE(name);
        const std::string path = std::string(NORVANTA_TEST_DATA_DIR "/nmea/") + name;
        const std::vector<std::string> log = lines_of(testing::read_file(path));
        ObjectId file = detect_format(testing::disk_file(path), 0, false);
        ASSERT_NE(file, 0);
        prepare_nav_points(file);
        int32_t index = -1;
        replay_add_track(file_data_set_of(file), file, index, name);
        ASSERT_GE(index, 0) << "the log gives NavPoints";
        replay_set_time_factor(half_speed);
        replay_set_direction(1);
        client().drain();
        replay_play();
        const ReplayTrack* track = replay_current();
        for (int tick = 0; tick < 1000 && track->running_direction != 0.0; ++tick) {
            ++fake_seconds;
            replay_tick();
        }
        EXPECT_EQ(track->running_direction, 0.0) << "the run reaches the end";

        std::vector<std::string> datagrams = client().drain();
        ASSERT_GE(datagrams.size(), 3u);
        EXPECT_EQ(datagrams.front(), diffuse_start_mark);
        EXPECT_EQ(datagrams.back(), diffuse_stop_mark);
        // Each datagram starts right behind the one before, or repeats it
        // when the clock has not reached the next epoch.
        std::size_t previous = std::string::npos;
        std::size_t next = std::string::npos;
        for (std::size_t d = 1; d + 1 < datagrams.size(); ++d) {
            const std::vector<std::string> sent = lines_of(datagrams[d]);
            ASSERT_FALSE(sent.empty()) << "datagram " << d;
            std::size_t start = previous;
            if (next == std::string::npos) {
                for (start = 0; start < log.size() && log[start] != sent[0]; ++start) {
                }
            } else if (next < log.size() && log[next] == sent[0]) {
                start = next;
            }
            for (std::size_t i = 0; i < sent.size(); ++i) {
                ASSERT_LT(start + i, log.size()) << "datagram " << d << ": " << sent[0];
                ASSERT_EQ(sent[i], log[start + i]) << "datagram " << d << ", line " << i;
            }
            previous = start;
            next = start + sent.size();
        }
        // The epoch in progress at the end of the file never ends, so never
        // goes out, nor do epochs without a position: what is left of the log
        // after the last datagram is the last epoch and epochs without fix.
        std::string final_time;
        for (std::size_t i = next; i < log.size(); ++i)
            if (!time_field(log[i]).empty()) final_time = time_field(log[i]);
        for (std::size_t i = next; i < log.size(); ++i) {
            if (time_field(log[i]) == final_time) break;
            EXPECT_FALSE(gives_position(log[i])) << "unsent line " << i << ": " << log[i];
        }
        replay_stop();
        testing::drop_file(file);
    }
    set_replay_clock(nullptr);
    testing::serve_until_idle();
}

} // namespace
} // namespace norvanta
