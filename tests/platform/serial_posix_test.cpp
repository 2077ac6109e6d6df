// The listing of serial devices, on a made-up /dev and /sys/class/tty: what
// is offered, in which order, and which phantom ports are left out.
#include "platform/serial_port.h"

#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_home.h"

namespace norvanta {
namespace {

void make_directory(const std::string& path) {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
}

void make_link(const std::string& target, const std::string& path) {
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0) << path;
}

// A ttyS entry of the class directory: a device whose subsystem and driver
// links end in the names given; none at all when subsystem is empty.
void make_tty_class_entry(const std::string& tty_dir, const std::string& name,
                          const std::string& subsystem, const std::string& driver) {
    make_directory(tty_dir + "/" + name);
    if (subsystem.empty()) return;
    const std::string device = tty_dir + "/" + name + "/device";
    make_directory(device);
    make_link("../../../bus/" + subsystem, device + "/subsystem");
    make_link("../../../bus/" + subsystem + "/drivers/" + driver, device + "/driver");
}

TEST(SerialDevices, StableNamesFirstThenEachFamilyInNumberOrderWithoutPhantoms) {
    testing::TestHome root;
    const std::string dev = root.file("dev");
    const std::string tty = root.file("tty");
    make_directory(dev);
    make_directory(dev + "/serial");
    make_directory(dev + "/serial/by-id");
    make_directory(tty);
    for (const char* name : {"usb-Maker_GPS-if00-port0", "usb-Another_Receiver-if00"})
        testing::write_file(dev + "/serial/by-id/" + name, "");
    for (const char* name : {"ttyUSB10", "ttyUSB2", "ttyACM0", "ttyS0", "ttyS1", "ttyS2", "ttyS3",
                             "tty0", "ttyUSB", "ttyUSBx", "console"})
        testing::write_file(dev + "/" + name, "");
    make_tty_class_entry(tty, "ttyS0", "pnp", "serial");           // a port on the board
    make_tty_class_entry(tty, "ttyS1", "platform", "serial8250");  // a phantom
    make_tty_class_entry(tty, "ttyS2", "", "");                    // no device behind it
    make_tty_class_entry(tty, "ttyS3", "platform", "dw-apb-uart"); // a board's own uart

    const std::vector<std::string> expected = {
        dev + "/serial/by-id/usb-Another_Receiver-if00",
        dev + "/serial/by-id/usb-Maker_GPS-if00-port0",
        dev + "/ttyUSB2",
        dev + "/ttyUSB10",
        dev + "/ttyACM0",
        dev + "/ttyS0",
        dev + "/ttyS3",
    };
    EXPECT_EQ(serial_io::list_serial_devices_in(dev, tty), expected);
}

TEST(SerialDevices, MissingDirectoriesListNothing) {
    testing::TestHome root;
    EXPECT_TRUE(serial_io::list_serial_devices_in(root.file("none"), root.file("none")).empty());
}

} // namespace
} // namespace norvanta
