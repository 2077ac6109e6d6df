// Live navigation end to end inside one process: a real worker thread on a
// real UDP port or pseudo-terminal, the test thread serving the window's
// messages as the UI thread does, and real clients on loopback. Each step
// waits until the worker has read what was sent and the UI thread has dealt
// with it, so what the clients hold afterwards is exactly what that step
// made.
#include "navigation/worker.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "diffusion/clients.h"
#include "navigation/nmea_writer.h"
#include "platform/headless/ui_headless.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/events.h"
#include "shell/main.h"
#include "shell/window.h"
#include "support/program_environment.h"
#include "support/serve_events.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

using testing::udp_sentinel;
using testing::UdpListener;
using Received = std::vector<std::string>;

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// The two default clients are made inactive, so that only the test's own
// clients receive.
constexpr const char* configuration = "LANG ENGLISH\n"
                                      "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n"
                                      "INACTIVE_NMEA_UDP_DIFFUSE_ADR2 localhost 7552\n";

[[maybe_unused]] const auto* const navigation_environment =
    ::testing::AddGlobalTestEnvironment(new testing::ProgramEnvironment(configuration));

// A sentence with its checksum tail.
std::string sentence(const std::string& body) {
    char tail[checksum_tail_capacity];
    format_checksum_tail(body.c_str(), tail);
    return body + tail;
}

// A batch with position and time: RMC and GGA of one second.
std::string complete_fix(const std::string& hhmmss) {
    return sentence("$GPRMC," + hhmmss + ",A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W") +
           sentence("$GPGGA," + hhmmss + ",4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,");
}

const std::string start_mark = diffuse_start_mark;
const std::string stop_mark = diffuse_stop_mark;

class Relay : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::serve_until_idle();
        headless::reset();
        for (UdpListener& client : clients)
            add_client("127.0.0.1", client.port(), nullptr, nullptr);
        refresh_snapshot();
        port = testing::free_udp_port();
        start_navigation(0, ("UDP" + std::to_string(port)).c_str(), 4800, false);
        ASSERT_NE(current_link_id(), 0);
        ASSERT_TRUE(testing::serve_until([this] { return testing::udp_port_bound(port); }));
        testing::serve_until_idle();
        for (UdpListener& client : clients)
            client.drain();
    }
    void TearDown() override {
        stop_navigation();
        testing::serve_until_idle();
        for (UdpListener& client : clients)
            deactivate_client("127.0.0.1", client.port());
        refresh_snapshot();
        testing::serve_until_idle();
    }
    // Sends text to the link and waits until the worker has read it and the
    // UI thread has served what it published.
    void feed(const UdpListener& sender, const std::string& text) {
        const uint64_t taken = socket_datagrams_taken();
        sender.send_to(port, text);
        EXPECT_TRUE(testing::serve_until([&] {
            const WorkerCounts now = worker_counts();
            return now.datagrams_handled > taken && !now.mailbox_full;
        })) << "the worker never read: "
            << text;
        testing::serve_until_idle();
    }

    int32_t port = 0;
    UdpListener clients[2];
    UdpListener first_sender;
    UdpListener second_sender;
};

TEST_F(Relay, BatchesReachEveryClientAsTheyCameFramedByMarks) {
    struct Step {
        const char* description;
        int sender; // 1 or 2
        std::string text;
        Received expected;
    };
    const std::string satellites_only = sentence("$GPGSV,1,1,02,05,40,083,46,09,21,150,42");
    const Step steps[] = {
        {"a batch without position and time is not sent", 1, satellites_only, {}},
        {"the first good fix is preceded by START",
         1,
         complete_fix("120000"),
         {start_mark, complete_fix("120000")}},
        {"a second good fix goes alone", 1, complete_fix("120010"), {complete_fix("120010")}},
        {"a fix 10 s older than the last is out of order: not sent", 1, complete_fix("120000"), {}},
        {"a second sender is ignored", 2, complete_fix("120020"), {}},
        {"the first sender still goes through",
         1,
         complete_fix("235959"),
         {complete_fix("235959")}},
        {"midnight passing keeps the time", 1, complete_fix("000001"), {complete_fix("000001")}},
        {"$PKLNT,STOP in the stream sends the STOP mark", 1, stop_mark, {stop_mark}},
        {"the next sender is let in, and its first fix starts again",
         2,
         complete_fix("000005"),
         {start_mark, complete_fix("000005")}},
        {"the first sender is now the one ignored", 1, complete_fix("000006"), {}},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.description);
        feed(step.sender == 1 ? first_sender : second_sender, step.text);
        for (const UdpListener& client : clients)
            EXPECT_EQ(client.drain(), step.expected);
    }
}

// Hostile input never stops the relay: each of these is read and dropped or
// cut into nothing, and a good fix after them still goes out.
TEST_F(Relay, HostileDatagramsLeaveTheRelayRunning) {
    feed(first_sender, complete_fix("080000"));
    for (const UdpListener& client : clients)
        client.drain();
    const std::string hostile[] = {
        std::string(65000, 'x'),                           // larger than a batch
        std::string("\0\0$GP\0RMC,\0*\r\n", 15),           // NUL bytes
        std::string("\x8f\xff\x01\x02$$$$**\r\r\n\n", 14), // binary noise
        "$GPRMC," + std::string(500, '1') + "*00\r\n",     // an over-long sentence
    };
    for (const std::string& text : hostile) {
        feed(first_sender, text);
        for (const UdpListener& client : clients)
            EXPECT_EQ(client.drain(), Received{});
    }
    feed(first_sender, complete_fix("080001"));
    for (const UdpListener& client : clients)
        EXPECT_EQ(client.drain(), Received{complete_fix("080001")});
}

// Receivers' logs cut into their bursts (a burst starts with the sentence
// the log's first whole sentence starts with) and sent one datagram each,
// with a STOP mark after each log: the clients get exactly the bursts that
// hold a position and a time in order, as a parser of their own reads the
// same stream, byte for byte.
TEST_F(Relay, RealReceiverLogsRelayExactlyTheirCompleteBatches) {
    NmeaParser* oracle = new_nmea_parser(nullptr, nullptr);
    new_nav_fix(oracle->fix);
    double last_time = 0.0;
    auto relay = [&](const std::string& burst) {
        clear_fix_flags(*oracle->fix);
        feed_nmea(burst.data(), burst.size(), *oracle);
        const NavFix& fix = *oracle->fix;
        const bool in_order = fix.time_of_day >= last_time || fix.time_of_day < last_time - 0.8;
        last_time = fix.time_of_day;
        feed(first_sender, burst);
        return fix.position_valid && fix.time_valid && in_order;
    };
    for (const char* name :
         {"garmin48.log", "foretrex-201.log", "firefly-II.log", "bu353-glonass.log"}) {
        SCOPED_TRACE(name);
        const std::string log =
            testing::read_file(std::string(NORVANTA_TEST_DATA_DIR) + "/nmea/" + name);
        const std::size_t first = log.find("\n$") + 1;
        const std::string opening = log.substr(first, log.find(',', first) - first);
        Received expected;
        Received got;
        for (std::size_t at = 0, next = 0; at < log.size(); at = next) {
            next = log.find("\n" + opening, at + 1);
            next = next == std::string::npos ? log.size() : next + 1;
            const std::string burst = log.substr(at, next - at);
            if (relay(burst)) expected.push_back(burst);
            for (const std::string& text : clients[0].drain())
                if (text != start_mark) got.push_back(text);
        }
        EXPECT_GT(expected.size(), 3u) << "a log with fixes";
        EXPECT_EQ(got, expected);
        relay(stop_mark);
        EXPECT_EQ(clients[0].drain(), Received{stop_mark});
    }
    free_nmea_parser(oracle);
}

// A client that cannot be reached, or whose sends the system refuses, costs
// the others nothing.
TEST_F(Relay, UnreachableClientsDoNotStallTheOthers) {
    int32_t index = -1;
    add_client("nosuch.invalid", 7000, &index, nullptr);
    EXPECT_EQ(index, -1);
    ASSERT_EQ(headless::boxes().size(), 1u);
    EXPECT_EQ(headless::boxes()[0],
              "Invalid address: nosuch.invalid\nInvalid server name or\ninvalid IP adress");
    add_client("255.255.255.255", 9, &index, nullptr); // broadcast without permission: refused
    refresh_snapshot();
    testing::serve_until_idle();
    for (const UdpListener& client : clients)
        client.drain();
    for (const char* time : {"090000", "090001", "090002"}) {
        feed(first_sender, complete_fix(time));
        for (const UdpListener& client : clients)
            EXPECT_EQ(client.drain().back(), complete_fix(time));
    }
    deactivate_client("255.255.255.255", 9);
}

// The program must not feed its own input: clients at the port it listens
// on leave the active list when the link starts.
TEST(Navigation, ListeningOnAPortTakesThatLocalClientOut) {
    testing::serve_until_idle();
    const int32_t port = testing::free_udp_port();
    add_client("localhost", port, nullptr, nullptr);
    add_client("127.0.0.1", port, nullptr, nullptr);
    auto listed = [port](const PairList* list) {
        int found = 0;
        for (int32_t i = 0; i < pair_list_count(list); ++i) {
            const auto* client = reinterpret_cast<const SocketRecord*>(list->pairs[i].value);
            found += client && client->port == port;
        }
        return found;
    };
    ASSERT_EQ(listed(active_clients()), 2);
    start_navigation(0, ("UDP" + std::to_string(port)).c_str(), 4800, false);
    EXPECT_TRUE(testing::serve_until([&] { return listed(active_clients()) == 0; }));
    EXPECT_EQ(listed(inactive_clients()), 2);
    stop_navigation();
    testing::serve_until_idle();
}

// A pseudo-terminal playing a receiver on a stable path: a symbolic link
// that follows the terminal, as /dev/serial/by-id/ links follow a device.
class PseudoReceiver {
  public:
    explicit PseudoReceiver(std::string path) : path_(std::move(path)) { plug(); }
    ~PseudoReceiver() { unplug(); }
    void plug() {
        char name[256];
        ASSERT_EQ(openpty(&master_, &slave_, name, nullptr, nullptr), 0);
        std::filesystem::remove(path_);
        std::filesystem::create_symlink(name, path_);
    }
    void unplug() {
        if (master_ >= 0) ::close(master_);
        if (slave_ >= 0) ::close(slave_);
        master_ = slave_ = -1;
        std::filesystem::remove(path_);
    }
    void send(const std::string& bytes) const {
        ASSERT_EQ(::write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // The next count bytes the program wrote to the receiver.
    std::string take(std::size_t count) const {
        std::string bytes;
        pollfd watched{master_, POLLIN, 0};
        while (bytes.size() < count && ::poll(&watched, 1, receive_deadline_ms) == 1) {
            char buffer[256];
            const ssize_t got =
                ::read(master_, buffer, std::min(sizeof buffer, count - bytes.size()));
            if (got <= 0) break;
            bytes.append(buffer, static_cast<std::size_t>(got));
        }
        return bytes;
    }

  private:
    static constexpr int receive_deadline_ms = 5000;
    std::string path_;
    int master_ = -1;
    int slave_ = -1;
};

// What the program says to a receiver when a link opens: NMEA on, for the
// units that need to be told, in words and in a binary frame.
const std::string nmea_on_commands =
    sentence("$PMGNCMD,NMEAON") + std::string("\xA0\xA2\x00\x02\xBC\x01\x00\xBD\xB0\xB3", 10);

std::string only_navigation_log() {
    std::vector<std::string> logs;
    for (const auto& entry : std::filesystem::directory_iterator(nav_log_dir()))
        if (entry.path().filename().string().starts_with("NMEA_")) logs.push_back(entry.path());
    EXPECT_EQ(logs.size(), 1u);
    return logs.empty() ? "" : testing::read_file(logs[0]);
}

// A receiver on a serial line: its bursts reach the clients one datagram
// each, its device may vanish and come back, and the log keeps every byte.
TEST(Navigation, SerialReceiverIsRelayedLoggedAndReconnected) {
    testing::serve_until_idle();
    UdpListener client;
    add_client("127.0.0.1", client.port(), nullptr, nullptr);
    refresh_snapshot();
    testing::serve_until_idle();
    client.drain();
    std::filesystem::create_directories(nav_log_dir());
    const std::string device = std::string(nav_log_dir()) + "ttyGPS";
    PseudoReceiver receiver(device);
    start_navigation(0, device.c_str(), 4800, true);
    EXPECT_EQ(receiver.take(nmea_on_commands.size()), nmea_on_commands);

    auto relayed = [&client] {
        std::string text;
        testing::serve_until([&] {
            text = client.next_before_sentinel();
            return text != udp_sentinel;
        });
        return text;
    };
    client.drain(); // the STOP mark of a display that starts
    // Whether a START mark comes first depends on what earlier runs of this
    // process left; the relay test pins it down.
    receiver.send(complete_fix("100000"));
    std::string first = relayed();
    EXPECT_EQ(first == start_mark ? relayed() : first, complete_fix("100000"));
    // Two writes close together are one burst; the silence after it ends it.
    const std::string burst = complete_fix("100001");
    receiver.send(burst.substr(0, 30));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    receiver.send(burst.substr(30));
    EXPECT_EQ(relayed(), burst);

    // A new connection starts the display again, which tells the clients
    // with a STOP mark.
    receiver.unplug();
    receiver.plug();
    EXPECT_EQ(receiver.take(nmea_on_commands.size()), nmea_on_commands) << "never reconnected";
    receiver.send(complete_fix("100005"));
    EXPECT_EQ(relayed(), stop_mark);
    EXPECT_EQ(relayed(), complete_fix("100005"));

    stop_navigation();
    testing::serve_until_idle();
    deactivate_client("127.0.0.1", client.port());
    EXPECT_EQ(only_navigation_log(), sentence("$PKLNH,NMEA File Header") + complete_fix("100000") +
                                         burst + complete_fix("100005"));
}

TEST(Navigation, LinkNamesMakeTheirLinks) {
    struct Row {
        const char* text;
        uint32_t baud;
        uint32_t kind; // 0: no link
        const char* name;
        const char* port_name;
        uint32_t expected_baud;
    };
    const Row rows[] = {
        {"COM4", 9600, link_kind_serial, "SERIAL PORT /dev/ttyS3 NMEA", "/dev/ttyS3", 9600},
        {"COM", 4800, link_kind_serial, "SERIAL PORT  NMEA", "", 4800},
        {"/dev/ttyUSB0", 115200, link_kind_serial, "SERIAL PORT /dev/ttyUSB0 NMEA", "/dev/ttyUSB0",
         115200},
        {"UDP7551", 1234, link_kind_udp, "UDP PORT 7551", "7551", 4800},
        {"UDP", 4800, link_kind_udp, "UDP PORT 0", "0", 4800},
        {"USB", 4800, link_kind_usb, nullptr, nullptr, 4800},
        {"COM4x", 4800, 0, nullptr, nullptr, 0},
        {"udp7551", 4800, 0, nullptr, nullptr, 0},
        {"", 4800, 0, nullptr, nullptr, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        ObjectId id = 0;
        parse_link_name(row.text, row.baud, id);
        if (row.kind == 0) {
            EXPECT_EQ(id, 0);
            continue;
        }
        const auto* link = find_obj_adr<ReceiverLink>(id);
        ASSERT_NE(link, nullptr);
        EXPECT_EQ(link->kind, row.kind);
        EXPECT_STREQ(link->name, row.name);
        EXPECT_STREQ(link->port_name, row.port_name);
        EXPECT_EQ(link->baud, row.expected_baud);
        del_obj(ObjectType::ReceiverLink, id);
    }
}

} // namespace
} // namespace norvanta
