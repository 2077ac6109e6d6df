// The serial link against a pseudo-terminal: its master side plays the
// receiver, its slave side is the device the link opens.
#include "navigation/serial_link.h"

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "shell/errors.h"
#include "shell/main.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

// Bounds a wait for bytes that should come; only a broken machine reaches it.
constexpr int arrival_limit_ms = 5000;
// Longer than the 100 ms read constant, so each burst is a batch of its own.
constexpr auto burst_gap = std::chrono::milliseconds(250);
// Bounds the reads of a test that waits for bursts, far above what it needs.
constexpr int max_read_attempts = 100;

class Receiver {
  public:
    Receiver() {
        std::array<char, 128> name{};
        EXPECT_EQ(::openpty(&master_, &slave_, name.data(), nullptr, nullptr), 0);
        path_ = name.data();
    }
    ~Receiver() {
        hang_up();
        if (slave_ >= 0) ::close(slave_);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    const char* path() const { return path_.c_str(); }
    int slave() const { return slave_; }

    void send(const std::string& bytes) const {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
            ASSERT_GT(n, 0) << "the pseudo-terminal refused bytes";
            done += static_cast<std::size_t>(n);
        }
    }
    // Up to count bytes from the line, fewer only when nothing more comes.
    std::string take(std::size_t count) const {
        std::string got;
        std::array<char, 4096> chunk{};
        while (got.size() < count) {
            pollfd watch{.fd = master_, .events = POLLIN, .revents = 0};
            if (::poll(&watch, 1, arrival_limit_ms) != 1) break;
            const ssize_t n =
                ::read(master_, chunk.data(), std::min(chunk.size(), count - got.size()));
            if (n <= 0) break;
            got.append(chunk.data(), static_cast<std::size_t>(n));
        }
        return got;
    }
    // What the line carried before a sentinel that the test writes now on
    // its own descriptor of the device: the tty keeps the order of writes,
    // so reading up to the sentinel proves that nothing else came.
    std::string take_after_sentinel() const {
        constexpr char sentinel = '!';
        EXPECT_EQ(::write(slave_, &sentinel, 1), 1);
        std::string got;
        for (std::string next = take(1); !next.empty() && next[0] != sentinel; next = take(1))
            got += next;
        return got;
    }
    void hang_up() {
        if (master_ >= 0) ::close(master_);
        master_ = -1;
    }

  private:
    int master_ = -1;
    int slave_ = -1;
    std::string path_;
};

termios line_of(int fd) {
    termios settings{};
    EXPECT_EQ(::tcgetattr(fd, &settings), 0);
    return settings;
}

std::string all_byte_values() {
    std::string bytes;
    for (int value = 0; value < 256; ++value)
        bytes.push_back(static_cast<char>(value));
    return bytes;
}

// A receiver on a fresh line, and the link's port on it at 4800 baud.
class SerialLink : public ::testing::Test {
  protected:
    SerialLink() { open_serial(gps.path(), 4800, port); }
    ~SerialLink() override { free_serial(port); }
    void SetUp() override { ASSERT_NE(port, nullptr); }

    std::string read_batch(std::size_t capacity = 2000) {
        std::vector<char> batch(capacity);
        const long count = read_serial(port, capacity, batch.data());
        return count < 0 ? "<failed>" : std::string(batch.data(), static_cast<std::size_t>(count));
    }

    Receiver gps;
    SerialPort* port = nullptr;
};

TEST_F(SerialLink, DevicePathOfLinkText) {
    const struct {
        const char* text;
        const char* path;
    } cases[] = {
        {"COM1", "/dev/ttyS0"},
        {"COM10", "/dev/ttyS9"},
        {"\\\\.\\COM4", "/dev/ttyS3"},
        {"COM0", ""},
        {"COM", ""},
        {"COM99999999999999999999", "/dev/ttyS999999999"},
        {"COM4x", "COM4x"},
        {"com4", "com4"},
        {"/dev/ttyUSB0", "/dev/ttyUSB0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(serial_device_path(c.text), c.path);
    }
}

TEST_F(SerialLink, RefusesWhatIsNoFreeSerialLine) {
    testing::TestHome home;
    const std::string regular = home.file("not_a_line.txt");
    testing::write_file(regular, "$GPGGA\r\n");
    Receiver free_line;
    const struct {
        const char* description;
        const char* path;
        uint32_t baud;
    } cases[] = {
        {"missing device", "/dev/norvanta-no-such-line", 4800},
        {"COM0 names no device", "COM0", 4800},
        {"regular file", regular.c_str(), 4800},
        {"character device that is no tty", "/dev/null", 4800},
        {"line held by another opener", gps.path(), 4800},
        {"speed of no receiver", free_line.path(), 2400},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        SerialPort* refused = reinterpret_cast<SerialPort*>(1);
        open_serial(c.path, c.baud, refused);
        EXPECT_EQ(refused, nullptr);
        EXPECT_EQ(gblerr.load(), 0) << "a refused port sets no error";
    }
    EXPECT_NE(line_of(free_line.slave()).c_lflag & ICANON, 0U) << "refused speed changed the line";
    SerialPort* after = nullptr;
    open_serial(free_line.path(), 9600, after);
    EXPECT_NE(after, nullptr) << "a refused speed left the line locked";
    free_serial(after);
}

TEST_F(SerialLink, SetsTheLineAndPutsItBack) {
    free_serial(port);
    const termios original = line_of(gps.slave());
    const struct {
        uint32_t baud;
        speed_t speed;
    } cases[] = {
        {4800, B4800},   {9600, B9600},   {19200, B19200},
        {38400, B38400}, {57600, B57600}, {115200, B115200},
    };
    static_assert(std::size(cases) == std::size(serial_io::supported_bauds));
    // Every round opens the same line again, which also fails if a close
    // left it locked.
    for (const auto& c : cases) {
        SCOPED_TRACE(c.baud);
        open_serial(gps.path(), c.baud, port);
        ASSERT_NE(port, nullptr);
        const termios line = line_of(gps.slave());
        EXPECT_EQ(line.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
        EXPECT_EQ(line.c_cflag & (PARENB | CSTOPB | CRTSCTS), 0U) << "no parity, 1 stop bit";
        EXPECT_EQ(line.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
        EXPECT_EQ(line.c_iflag & (IXON | IXOFF | ICRNL | ISTRIP), 0U);
        EXPECT_EQ(line.c_lflag & (ICANON | ECHO | ISIG), 0U);
        EXPECT_EQ(line.c_oflag & OPOST, 0U);
        EXPECT_EQ(::cfgetispeed(&line), c.speed);
        EXPECT_EQ(::cfgetospeed(&line), c.speed);

        gps.send("$GP");
        free_serial(port);
        EXPECT_EQ(gps.take_after_sentinel(), "") << "unread input echoed back at closing";
        const termios restored = line_of(gps.slave());
        EXPECT_EQ(restored.c_lflag, original.c_lflag);
        EXPECT_EQ(restored.c_iflag, original.c_iflag);
        EXPECT_EQ(restored.c_oflag, original.c_oflag);
        EXPECT_EQ(::cfgetospeed(&restored), ::cfgetospeed(&original));
    }
}

TEST_F(SerialLink, BurstsSeparatedBySilenceComeBackOneBatchEach) {
    const std::array<std::string, 3> bursts = {
        "$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47\r\n"
        "$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n",
        "$GPGGA,123520,4807.040,N,01131.002,E,1,08,0.9,545.6,M,46.9,M,,*4F\r\n",
        "$PGRMV,0.0,0.0,0.0*5C\r\n$GPRMC,123521,A,4807.04",
    };
    gps.send(bursts[0]);
    std::thread receiver([&] {
        for (std::size_t i = 1; i < bursts.size(); ++i) {
            std::this_thread::sleep_for(burst_gap);
            gps.send(bursts[i]);
        }
    });
    // A read that meets the silence itself brings nothing, and the link
    // asks again; only the batches with bytes count.
    std::vector<std::string> batches;
    for (int attempt = 0; attempt < max_read_attempts && batches.size() < bursts.size();
         ++attempt) {
        if (std::string batch = read_batch(); !batch.empty()) batches.push_back(batch);
    }
    receiver.join();
    EXPECT_EQ(batches, std::vector<std::string>(bursts.begin(), bursts.end()));
}

TEST_F(SerialLink, BatchStopsAtCapacityAndLeavesTheRest) {
    EXPECT_EQ(read_batch(), "") << "a silent line";
    gps.send("0123456789");
    EXPECT_EQ(read_batch(0), "") << "no capacity reads nothing";
    EXPECT_EQ(read_batch(4), "0123");
    EXPECT_EQ(read_batch(), "456789");
}

TEST_F(SerialLink, BytesPassUnchangedBothWays) {
    const std::string bytes = all_byte_values();
    gps.send(bytes);
    EXPECT_EQ(read_batch(), bytes) << "receiver to link";

    write_serial(port, bytes.data(), bytes.size());
    write_serial_byte(port, 0xA0);
    write_serial_word(port, 0x0002);
    write_serial_word(port, 0xBC01);
    write_serial(port, "", 0);
    const std::string expected = bytes + std::string("\xA0\x00\x02\xBC\x01", 5);
    EXPECT_EQ(gps.take(expected.size()), expected) << "link to receiver, words high byte first";
    EXPECT_EQ(gps.take_after_sentinel(), "");
}

TEST_F(SerialLink, WriteLargerThanTheLineBufferArrivesWhole) {
    std::string bytes;
    for (int i = 0; i < 4096; ++i)
        bytes += all_byte_values();
    std::string received;
    std::thread receiver([&] { received = gps.take(bytes.size()); });
    write_serial(port, bytes.data(), bytes.size());
    receiver.join();
    EXPECT_TRUE(received == bytes) << "bytes lost or reordered across partial writes";
}

TEST_F(SerialLink, WriteToALineThatTakesNothingGivesUpAndKeepsThePort) {
    const std::string bytes(4 << 20, 'x');
    write_serial(port, bytes.data(), bytes.size());
    EXPECT_NE(port->device, serial_io::no_device) << "a stalled write is no failure";
}

TEST_F(SerialLink, DeviceGoneFailsTheReadDropsItsBytesAndClosesThePort) {
    // A long read constant, so that the pause before the hang-up cannot end
    // the batch first.
    set_serial_timeout(port, 1000);
    std::thread receiver([&] {
        gps.send("$GPGGA,1235");
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        gps.hang_up();
    });
    EXPECT_EQ(read_batch(), "<failed>");
    receiver.join();
    EXPECT_EQ(port->device, serial_io::no_device);
    EXPECT_EQ(read_batch(), "") << "closed ports read nothing";
    EXPECT_EQ(gblerr.load(), 0);
}

TEST_F(SerialLink, WriteToAGoneDeviceClosesThePort) {
    gps.hang_up();
    write_serial(port, "$PMGNCMD,NMEAOFF\r\n", 18);
    EXPECT_EQ(port->device, serial_io::no_device);
}

TEST_F(SerialLink, ClosedPortReadsNothingAndSwallowsWrites) {
    close_serial(port);
    close_serial(port);
    uint8_t byte = 0;
    EXPECT_EQ(read_serial_byte(port, byte), 0);
    EXPECT_EQ(read_batch(), "");
    write_serial(port, "$PMGNCMD", 8);
    write_serial_word(port, 0x1234);
    EXPECT_EQ(gps.take_after_sentinel(), "") << "a closed port wrote";
}

TEST_F(SerialLink, QuittingClosesThePortAtTheNextRead) {
    gps.send("$GPGGA");
    ClosingFlag.store(1);
    uint8_t byte = 0;
    const int result = read_serial_byte(port, byte);
    ClosingFlag.store(0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(port->device, serial_io::no_device);
}

} // namespace
} // namespace norvanta
