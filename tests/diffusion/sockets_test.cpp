// The socket layer on real loopback sockets: records, name reuse, the
// cutting of long texts, refused sends, and a receiver that follows its
// first sender.
#include "diffusion/sockets.h"

#include <cstring>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "support/fresh_process.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

using testing::in_fresh_process;
using testing::TestHome;
using Listener = testing::UdpListener;

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

class SocketEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        object_store_create();
        socket_startup();
        ASSERT_FALSE(error_pending());
    }
};
[[maybe_unused]] const auto* const socket_environment =
    ::testing::AddGlobalTestEnvironment(new SocketEnvironment);

SocketRecord* create(const char* host, int32_t port, int32_t protocol = socket_protocol_udp) {
    SocketRecord* record = nullptr;
    socket_create(host, port, protocol, record);
    return record;
}

TEST(Sockets, CreateRefusesBadPortsAndNamesWithoutAnErrorCode) {
    for (const auto& [host, port] : {std::pair{"127.0.0.1", 0},
                                     {"localhost", -5},
                                     {"127.0.0.1", 65536},
                                     {"nosuch.invalid", 7551}}) {
        SCOPED_TRACE(std::string(host) + " " + std::to_string(port));
        EXPECT_EQ(create(host, port), nullptr);
        EXPECT_FALSE(error_pending());
    }
}

TEST(Sockets, RecordHoldsItsKeyAddressAndChunk) {
    SocketRecord* udp = create("127.0.0.1", 7551);
    ASSERT_NE(udp, nullptr);
    EXPECT_STREQ(udp->address, "127.0.0.1:7551");
    uint8_t remote[16] = {0, 0, 0x1d, 0x7f, 127, 0, 0, 1};
    const uint16_t family = 2;
    std::memcpy(remote, &family, sizeof family);
    EXPECT_EQ(std::memcmp(udp->remote, remote, sizeof remote), 0)
        << "family 2, port 7551 in network order, 127.0.0.1, zeros";
    EXPECT_EQ(udp->address_length, 4);
    EXPECT_EQ(udp->chunk, 1470) << "the datagram chunk is 1470 whatever the buffers";
    socket_describe(udp);
    EXPECT_EQ(socket_status(udp), "UDP 7551  NO CLIENT ");

    SocketRecord* tcp = create("127.0.0.1", 80, socket_protocol_tcp);
    ASSERT_NE(tcp, nullptr);
    EXPECT_EQ(tcp->chunk, 100) << "a stream has no largest message size";
    socket_describe(tcp);
    EXPECT_EQ(socket_status(tcp), "TCP 127.0.0.1:80");

    SocketRecord* any = create(nullptr, 7000);
    ASSERT_NE(any, nullptr);
    EXPECT_STREQ(any->address, ":7000") << "a null host counts as the empty one";

    socket_close(tcp);
    EXPECT_EQ(socket_handle(tcp), 0);
    EXPECT_EQ(socket_send(tcp, "x", 1), -1) << "a closed record sends nothing";
    EXPECT_EQ(socket_send(nullptr, "x", 1), -1);
}

TEST(Sockets, DottedAddressesSkipTheNameServiceAndANameIsResolvedOnce) {
    int32_t before = socket_name_lookups();
    ASSERT_NE(create("127.0.0.1", 9001), nullptr);
    ASSERT_NE(create("127.1", 9002), nullptr);
    EXPECT_EQ(socket_name_lookups(), before) << "dotted forms never reach the name service";

    SocketRecord* first = create("localhost", 9003);
    ASSERT_NE(first, nullptr);
    int32_t after_first = socket_name_lookups();
    SocketRecord* second = create("localhost", 9004);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(socket_name_lookups(), after_first) << "the second record copies the first's answer";
    EXPECT_EQ(std::memcmp(first->remote + 4, second->remote + 4, 4), 0);
}

// The text, its datagrams, in order.
TEST(Sockets, LongTextsAreCutAfterTheLastLineEndThatFits) {
    const std::string sentence80 = std::string(78, 'A') + "\r\n";
    std::string forty_sentences;
    for (int i = 0; i < 40; ++i)
        forty_sentences += sentence80;
    const std::string long_sentence = "$" + std::string(1997, 'L') + "\r\n";
    struct Row {
        const char* description;
        std::string text;
        std::vector<std::size_t> sizes;
    };
    const Row rows[] = {
        {"3000 bytes without a line end", std::string(3000, 'x'), {1470, 1470, 60}},
        {"forty sentences of 80 bytes", forty_sentences, {1440, 1440, 320}},
        {"exactly one chunk", std::string(1470, 'y'), {1470}},
        {"a sentence longer than the chunk, then a short one",
         long_sentence + "$GPGGA*00\r\n",
         {1470, 541}},
        {"a line end straddling the chunk's end does not fit",
         std::string(1469, 'z') + "\r\n" + "tail",
         {1470, 5}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        Listener listener;
        SocketRecord* record = create("127.0.0.1", listener.port());
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(socket_send(record, row.text.data(), static_cast<long>(row.text.size())),
                  static_cast<long>(row.text.size()));
        std::string joined;
        for (std::size_t expected : row.sizes) {
            std::string datagram = listener.next();
            EXPECT_EQ(datagram.size(), expected);
            joined += datagram;
        }
        EXPECT_EQ(joined, row.text) << "the datagrams put together give the text back";
    }
}

// 255.255.255.255 without the broadcast option is refused by the system at
// once, which stands for any refusal.
TEST(Sockets, RefusedSendEndsAtOnceAndIsLoggedOncePerStreak) {
    in_fresh_process([] {
        TestHome home;
        home.make_current();
        testing::write_file(home.file("norvanta.cfg"), "LANG ENGLISH\nLOGERROR\n");
        config_use_file(home.file("norvanta.cfg").c_str());
        log_set_path("QLMX");
        object_store_create();
        socket_startup();

        Listener listener;
        SocketRecord* record = create("255.255.255.255", 9);
        ASSERT_NE(record, nullptr);
        const std::string text = "$GPRMC,1*00\r\n";
        const long length = static_cast<long>(text.size());
        EXPECT_LT(socket_send(record, text.data(), length), length);
        EXPECT_LT(socket_send(record, text.data(), length), length);
        EXPECT_EQ(record->failing, 1);

        // The same record pointed at a listener: the streak ends with a send that goes through.
        record->remote[2] = static_cast<uint8_t>(listener.port() >> 8);
        record->remote[3] = static_cast<uint8_t>(listener.port() & 0xff);
        const uint8_t loopback[4] = {127, 0, 0, 1};
        std::memcpy(record->remote + 4, loopback, 4);
        EXPECT_EQ(socket_send(record, text.data(), length), length);
        EXPECT_EQ(listener.next(), text);
        EXPECT_EQ(record->failing, 0);

        std::memset(record->remote + 4, 255, 4);
        EXPECT_LT(socket_send(record, text.data(), length), length);
        EXPECT_FALSE(error_pending());

        std::string log = testing::read_file(home.file("logs/zz_QLMX.log"));
        std::size_t entries = 0;
        for (std::size_t at = log.find("Send refused to 255.255.255.255:9: ");
             at != std::string::npos; at = log.find("Send refused to", at + 1))
            ++entries;
        EXPECT_EQ(entries, 2u) << "one entry per streak:\n" << log;
    });
}

TEST(Sockets, ReceiverFollowsItsFirstSenderUntilItForgetsIt) {
    const int32_t port = Listener().port(); // free a moment ago
    Listener first_sender;
    Listener second_sender;

    SocketRecord* receiver = create("127.0.0.1", port);
    ASSERT_NE(receiver, nullptr);
    socket_bind(receiver);
    if (socket_handle(receiver) == 0) GTEST_SKIP() << "the free port was taken meanwhile";
    EXPECT_EQ(socket_bound(receiver), 1);
    char buffer[256];

    first_sender.send_to(port, "one");
    EXPECT_EQ(socket_receive_datagram(receiver, buffer, sizeof buffer), 3);
    EXPECT_EQ(socket_status(receiver), "UDP " + std::to_string(port) + "  CLIENT 127.0.0.1");

    second_sender.send_to(port, "two!");
    EXPECT_EQ(socket_receive_datagram(receiver, buffer, sizeof buffer), 0)
        << "another sender is dropped";
    first_sender.send_to(port, "three");
    EXPECT_EQ(socket_receive_datagram(receiver, buffer, sizeof buffer), 5);

    socket_forget_peer(receiver);
    EXPECT_EQ(socket_status(receiver), "UDP " + std::to_string(port) + "  NO CLIENT ");
    second_sender.send_to(port, "four");
    EXPECT_EQ(socket_receive_datagram(receiver, buffer, sizeof buffer), 4)
        << "after forgetting, the next sender is accepted";
    first_sender.send_to(port, "five!");
    EXPECT_EQ(socket_receive_datagram(receiver, buffer, sizeof buffer), 0);
}

TEST(Sockets, StreamConnectsSendsAndReceivesWhole) {
    int server = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
    ASSERT_EQ(::listen(server, 1), 0);
    socklen_t length = sizeof at;
    getsockname(server, reinterpret_cast<sockaddr*>(&at), &length);

    SocketRecord* client = create("127.0.0.1", ntohs(at.sin_port), socket_protocol_tcp);
    ASSERT_NE(client, nullptr);
    socket_connect(client);
    ASSERT_NE(socket_handle(client), 0);
    int peer = ::accept(server, nullptr, nullptr);
    ASSERT_GE(peer, 0);

    const std::string request(250, 'r'); // more than the stream's chunk of 100
    EXPECT_EQ(socket_send(client, request.data(), static_cast<long>(request.size())), 250);
    std::string got(250, '\0');
    std::size_t have = 0;
    while (have < got.size()) {
        ssize_t n = ::recv(peer, got.data() + have, got.size() - have, 0);
        if (n <= 0) break;
        have += static_cast<std::size_t>(n);
    }
    EXPECT_EQ(got, request);

    ::send(peer, "hello", 5, 0);
    ::send(peer, "world", 5, 0);
    char answer[10] = {};
    EXPECT_EQ(socket_receive(client, answer, 10, 5), 10) << "waits until all has come";
    EXPECT_EQ(std::string(answer, 10), "helloworld");
    ::close(peer);
    EXPECT_EQ(socket_receive(client, answer, 10, 5), 0) << "the peer's end returns what came";
    ::close(server);
}

} // namespace
} // namespace norvanta
