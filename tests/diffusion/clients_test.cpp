// The client lists and the sending, on real loopback sockets: the three
// phases of loading with their quirks, what reaches a client and what never
// does, refusals that must not stall the others, and the snapshot under a
// concurrent refresh.
#include "diffusion/clients.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "platform/headless/ui_headless.h"
#include "platform/ui.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/events.h"
#include "shell/window.h"
#include "support/serve_events.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

using testing::TestHome;

using Listener = testing::UdpListener;
using testing::udp_sentinel;

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

// The one configuration file of the process; each test writes its content.
// It is chosen before anything looks for one, so that no path is replaced.
std::string configuration_path;

class ClientEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        home_ = std::make_unique<TestHome>();
        configuration_path = home_->file("norvanta.cfg");
        testing::write_file(configuration_path, "");
        config_use_file(configuration_path.c_str());
        object_store_create();
        socket_startup();
        create_main_window();
        ASSERT_TRUE(main_window_exists());
    }
    void TearDown() override { home_.reset(); }

  private:
    std::unique_ptr<TestHome> home_;
};
[[maybe_unused]] const auto* const client_environment =
    ::testing::AddGlobalTestEnvironment(new ClientEnvironment);

// The addresses of a list, slot by slot, "-" for a hole, "localhost:" left out.
std::string addresses(const PairList* list) {
    std::string out;
    for (int32_t i = 0; i < pair_list_count(list); ++i) {
        const auto* client = reinterpret_cast<const SocketRecord*>(list->pairs[i].value);
        std::string address = client ? client->address : "-";
        if (address.rfind("localhost:", 0) == 0) address.erase(0, 10);
        out += (i ? " " : "") + address;
    }
    return out;
}

// The lists as a fresh start-up would make them from this configuration.
class ClientLists : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::serve_until_idle();
        headless::reset();
        DiffuseOn.store(1);
        set_current_track_test(nullptr);
    }
    void TearDown() override {
        forget_client_lists();
        set_current_track_test(nullptr);
        DiffuseOn.store(1);
        headless::reset();
    }
    void load(const std::string& configuration) {
        testing::write_file(configuration_path, configuration);
        forget_client_lists();
        load_client_lists();
    }
    // Adds 127.0.0.1 at the listener's port as an active client.
    int32_t add(const Listener& listener) {
        int32_t index = -1;
        add_client("127.0.0.1", listener.port(), &index, nullptr);
        return index;
    }
};

std::string invalid_address_box(const std::string& host) {
    return std::string(localized("Adresse invalide", "Invalid address")) + ": " + host + "\n" +
           localized("Nom de serveur ou\nadresse IP invalide",
                     "Invalid server name or\ninvalid IP adress");
}

TEST_F(ClientLists, LoadingPhasesDecideWhatWins) {
    const char* defaults_inactive = "7553 7554 7555 7556 7557 7558 7559";
    struct Row {
        const char* description;
        std::string configuration;
        const char* active;
        const char* inactive;
        std::vector<std::string> boxes;
    };
    const Row rows[] = {
        {"an empty configuration: exactly 7551 and 7552 active",
         "",
         "7551 7552 -",
         defaults_inactive,
         {}},
        {"an inactive key for localhost 7551 keeps it inactive",
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n",
         "7552 -",
         "7551 7553 7554 7555 7556 7557 7558 7559",
         {}},
        {"an active key for 7555 has no effect: the defaults made it inactive first",
         "ACTIVE_NMEA_UDP_DIFFUSE_ADR4 localhost 7555\n",
         "7551 7552 -",
         defaults_inactive,
         {}},
        {"an inactive key repeating a default deactivates an unrelated client",
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7553\n",
         "- 7552",
         "7553 7551 7554 7555 7556 7557 7558 7559",
         {}},
        {"an active key adds an address; its host ends at the first blank",
         "ACTIVE_NMEA_UDP_DIFFUSE_ADR9 127.0.0.1 10110 trailing words\n",
         "7551 7552 127.0.0.1:10110",
         defaults_inactive,
         {}},
        {"a line with one value is skipped without a word",
         "ACTIVE_NMEA_UDP_DIFFUSE_ADR1 127.0.0.1\nINACTIVE_NMEA_UDP_DIFFUSE_ADR2 7551\n",
         "7551 7552 -",
         defaults_inactive,
         {}},
        {"an unresolvable host and a port below 1 each give the box",
         "ACTIVE_NMEA_UDP_DIFFUSE_ADR1 nosuch.invalid 7000\n"
         "INACTIVE_NMEA_UDP_DIFFUSE_ADR1 127.0.0.1 0\n",
         "7551 7552 -",
         defaults_inactive,
         {invalid_address_box("127.0.0.1"), invalid_address_box("nosuch.invalid")}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        headless::reset();
        load(row.configuration);
        EXPECT_EQ(addresses(active_clients()), row.active);
        EXPECT_EQ(addresses(inactive_clients()), row.inactive);
        EXPECT_EQ(addresses(send_snapshot()), row.active) << "the first snapshot is taken";
        EXPECT_EQ(headless::boxes(), row.boxes);
        EXPECT_FALSE(error_pending());
    }
}

TEST_F(ClientLists, KnownAddressesAreFoundAndMovesLeaveHoles) {
    load("");
    int32_t index = -2;
    const char* text = "unchanged";
    add_client("localhost", 7555, &index, &text);
    EXPECT_EQ(index, 2) << "the slot in whichever list holds it";
    EXPECT_EQ(text, nullptr) << "a found client gives no text";

    move_client(0, false, &index, &text);
    EXPECT_EQ(index, 7) << "no hole in the inactive list: appended";
    EXPECT_STREQ(text, "localhost:7551");
    EXPECT_EQ(addresses(active_clients()), "- 7552 -");

    move_client(2, true, &index, &text);
    EXPECT_EQ(index, 2) << "the last hole takes the client back";
    EXPECT_STREQ(text, "localhost:7555");

    index = -2;
    move_client(40, true, &index, nullptr);
    EXPECT_EQ(index, -2) << "an index beyond the list does nothing";
    move_client(2, true, &index, nullptr);
    EXPECT_EQ(index, -2) << "a hole moves nothing";
    EXPECT_FALSE(error_pending());

    deactivate_client("localhost", 7552);
    deactivate_client("localhost", 7559); // inactive already: nothing
    EXPECT_EQ(addresses(active_clients()), "- - 7555");
}

TEST_F(ClientLists, ADatagramReachesEveryActiveClientByteIdenticalAndNoOtherOne) {
    load("");
    Listener a, b, c, held_back;
    add(a);
    add(b);
    add(c);
    int32_t index = add(held_back);
    move_client(index, false, nullptr, nullptr);
    refresh_snapshot();

    std::string text = "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n"
                       "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n";
    text += std::string(1, '\x01') + "no line end, binary \xff";
    diffuse_text(text.c_str());
    for (const Listener* client : {&a, &b, &c}) {
        EXPECT_EQ(client->next(), text);
        EXPECT_EQ(client->next_before_sentinel(), udp_sentinel) << "one datagram, once";
    }
    EXPECT_EQ(held_back.next_before_sentinel(), udp_sentinel) << "an inactive client gets nothing";
}

TEST_F(ClientLists, ASnapshotChangesOnlyAtEvent17) {
    load("");
    Listener a;
    int32_t index = add(a);
    diffuse_text("before");
    EXPECT_EQ(a.next_before_sentinel(), udp_sentinel) << "not in the snapshot yet";

    post_event(event_send_list);
    testing::serve_until_idle();
    diffuse_text("after");
    EXPECT_EQ(a.next(), "after");

    move_client(index, false, nullptr, nullptr);
    diffuse_text("moved");
    EXPECT_EQ(a.next(), "moved") << "the old snapshot stands until the refresh";
    refresh_snapshot();
    diffuse_text("gone");
    EXPECT_EQ(a.next_before_sentinel(), udp_sentinel);
}

TEST_F(ClientLists, MarksFollowTheTrackAndTheDiffusionSwitch) {
    load("");
    Listener a;
    add(a);
    refresh_snapshot();

    diffuse_start();
    diffuse_stop();
    set_diffusion(0);
    set_diffusion(1);
    EXPECT_EQ(a.next_before_sentinel(), udp_sentinel) << "without a CurrentTrack no mark leaves";

    set_current_track_test([] { return true; });
    diffuse_start();
    EXPECT_EQ(a.next(), "$PKLNT,START*21\r\n");
    refresh_snapshot();
    EXPECT_EQ(a.next(), "$PKLNT,STOP*79\r\n") << "a refresh stops before";
    EXPECT_EQ(a.next(), "$PKLNT,STOP*79\r\n") << "and after";

    set_diffusion(0);
    EXPECT_EQ(a.next(), "$PKLNT,STOP*79\r\n") << "turning off is announced";
    EXPECT_EQ(DiffuseOn.load(), 0);
    diffuse_start();
    diffuse_stop();
    refresh_snapshot();
    diffuse_stop_at_exit();
    EXPECT_EQ(a.next_before_sentinel(), udp_sentinel) << "diffusion off: not even the marks";

    set_diffusion(1);
    EXPECT_EQ(a.next(), "$PKLNT,START*21\r\n") << "turning on sends exactly one START";
    EXPECT_EQ(a.next_before_sentinel(), udp_sentinel);
}

TEST_F(ClientLists, BadClientsNeverStopTheOthers) {
    load("");
    Listener a, b;
    add(a);
    int32_t index = 0;
    add_client("nosuch.invalid", 7551, &index, nullptr);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(headless::boxes(), (std::vector<std::string>{invalid_address_box("nosuch.invalid")}));
    // The system refuses a broadcast address without the broadcast option.
    add_client("255.255.255.255", 9, &index, nullptr);
    EXPECT_NE(index, -1);
    add(b);
    refresh_snapshot();

    for (const char* text : {"first\r\n", "second\r\n"}) {
        diffuse_text(text);
        EXPECT_EQ(a.next(), text);
        EXPECT_EQ(b.next(), text) << "the client behind the refused one still receives";
    }
    const auto* refused =
        reinterpret_cast<const SocketRecord*>(active_clients()->pairs[index].value);
    EXPECT_EQ(refused->failing, 1);
    EXPECT_FALSE(error_pending());
}

TEST_F(ClientLists, ListeningOnALocalPortTakesItsLocalClientsOut) {
    load("ACTIVE_NMEA_UDP_DIFFUSE_ADR1 127.0.0.1 7551\nACTIVE_NMEA_UDP_DIFFUSE_ADR2 127.0.0.2 "
         "7551\n");
    headless::reset();
    drop_own_port(7551);
    EXPECT_EQ(addresses(active_clients()), "- 7552 - 127.0.0.2:7551")
        << "localhost and 127.0.0.1 go; another address stays";
    ASSERT_EQ(headless::pending_count(), 1u);
    EXPECT_EQ(headless::pending_messages()[0].event, event_send_list);
    EXPECT_EQ(addresses(send_snapshot()), "7551 7552 127.0.0.1:7551 127.0.0.2:7551");
    testing::serve_until_idle();
    EXPECT_EQ(addresses(send_snapshot()), addresses(active_clients())) << "event 17 refreshed it";

    headless::reset();
    drop_own_port(0);
    EXPECT_EQ(headless::pending_count(), 0u) << "port 0 does nothing";
}

TEST_F(ClientLists, PrintedListsShowSlotsAndAddressesWithoutHoles) {
    load("INACTIVE_NMEA_UDP_DIFFUSE_ADR1 localhost 7551\n");
    char* printed = nullptr;
    std::size_t size = 0;
    std::FILE* out = open_memstream(&printed, &size);
    print_client_lists(out);
    std::fclose(out);
    EXPECT_EQ(std::string(printed, size),
              "active clients:\n  0 localhost:7552\ninactive clients:\n"
              "  0 localhost:7551\n  1 localhost:7553\n  2 localhost:7554\n  3 localhost:7555\n"
              "  4 localhost:7556\n  5 localhost:7557\n  6 localhost:7558\n  7 localhost:7559\n");
    std::free(printed);
}

// A sender walks the snapshot while the UI thread changes the list and
// refreshes it: ThreadSanitizer checks that this is sound; the counts check
// that every walk reached a client that was in the snapshot it walked.
TEST_F(ClientLists, SnapshotIsSoundBesideAConcurrentRefresh) {
    load("");
    Listener steady, toggled;
    add(steady);
    int32_t index = add(toggled);
    refresh_snapshot();

    // Few enough that a loopback socket's default buffer holds them all.
    constexpr int sends = 100;
    std::atomic<bool> go{false};
    std::thread sender([&] {
        while (!go.load()) {
        }
        for (int i = 0; i < sends; ++i)
            diffuse_text("x");
    });
    go.store(true);
    bool active = true;
    for (int round = 0; round < 100; ++round) {
        move_client(index, !active, &index, nullptr);
        active = !active;
        refresh_snapshot();
    }
    sender.join();
    int received = 0;
    for (std::string got = steady.next_before_sentinel(); got == "x"; got = steady.next())
        ++received;
    EXPECT_EQ(received, sends) << "the steady client gets every send";
}

} // namespace
} // namespace norvanta
