// The real-time navigation dialog through the headless window: what it
// shows at opening, when Navigate may be pressed, the link it starts, and
// the receivers of a USB search.
#include "shell/navigation_dialog.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "core/strings.h"
#include "navigation/worker.h"
#include "platform/headless/ui_dialog_headless.h"
#include "platform/headless/ui_headless.h"
#include "platform/ui_dialog.h"
#include "platform/serial_port.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/main.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "diffusion/clients.h"
#include "support/program_environment.h"
#include "support/serve_events.h"
#include "support/test_home.h"
#include "support/udp_listener.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

[[maybe_unused]] const auto* const navigation_dialog_environment =
    ::testing::AddGlobalTestEnvironment(new testing::ProgramEnvironment("LANG ENGLISH\n"));

class NavigationDialog : public ::testing::Test {
  protected:
    void SetUp() override {
        testing::serve_until_idle();
        headless::reset();
        headless::reset_dialogs();
        set_receiver_search(nullptr);
        ui_menu_check(menu_navigation, true);
        open_navigation_dialog();
        ASSERT_TRUE(navigation_dialog_open());
    }
    void TearDown() override {
        if (navigation_dialog_open()) headless::click(navigation_cancel_button);
        stop_navigation();
        set_nmea_log(false);
        testing::serve_until_idle();
    }
    static headless::DialogControl control(int32_t id) {
        auto found = headless::dialog_control(id);
        EXPECT_TRUE(found.has_value()) << "no control " << id;
        return found.value_or(headless::DialogControl{});
    }
    static bool enabled(int32_t id) { return control(id).enabled; }
    static std::string protocol_shown() { return control(navigation_protocol_combo).text; }
};

TEST_F(NavigationDialog, OpensOnTheSerialChoiceWithNothingToNavigateYet) {
    const auto dialog = headless::open_dialog();
    ASSERT_TRUE(dialog.has_value());
    EXPECT_EQ(dialog->title, "Real time navigation");
    EXPECT_EQ(dialog->focus, navigation_serial_device);
    EXPECT_FALSE(headless::main_window_enabled());
    EXPECT_TRUE(control(navigation_serial_option).checked);
    EXPECT_FALSE(enabled(navigation_navigate_button));
    EXPECT_FALSE(enabled(navigation_usb_combo));
    EXPECT_FALSE(enabled(navigation_protocol_combo));
    EXPECT_EQ(protocol_shown(), "NMEA");
    EXPECT_EQ(control(navigation_serial_device).rows, serial_io::list_serial_devices());
    const auto bauds = control(navigation_baud_combo);
    EXPECT_EQ(bauds.rows,
              (std::vector<std::string>{"4800", "9600", "19200", "38400", "57600", "115200"}));
    EXPECT_EQ(bauds.row_data, (std::vector<intptr_t>{4800, 9600, 19200, 38400, 57600, 115200}));
    EXPECT_EQ(bauds.selected, 0);

    // The log box starts as the setting stands.
    EXPECT_FALSE(control(navigation_log_check).checked);
    headless::click(navigation_cancel_button);
    set_nmea_log(true);
    open_navigation_dialog();
    EXPECT_TRUE(control(navigation_log_check).checked);
}

// One user's walk through the sources; after each act, whether Navigate may
// be pressed and what the Protocol list shows.
TEST_F(NavigationDialog, NavigateIsOfferedOnlyWithADeviceOrAPort) {
    struct Step {
        const char* description;
        void (*act)();
        bool navigate;
        const char* protocol;
    };
    const Step steps[] = {
        {"a serial port number typed", [] { headless::type_text(navigation_serial_device, "4"); },
         true, "NMEA"},
        {"the device erased", [] { headless::erase_text(navigation_serial_device); }, false,
         "NMEA"},
        {"a listed device chosen",
         [] {
             const UiDialog dialog = headless::open_dialog()->handle;
             const int32_t row =
                 ui_dialog_add_row(dialog, navigation_serial_device, "/dev/ttyUSB0", 0);
             headless::choose_row(navigation_serial_device, row);
         },
         true, "NMEA"},
        {"that device erased", [] { headless::erase_text(navigation_serial_device); }, false,
         "NMEA"},
        {"UDP with an empty port", [] { headless::click(navigation_udp_option); }, false, "NMEA"},
        {"letters refused by the port", [] { headless::type_text(navigation_udp_port, "abc:\r"); },
         false, "NMEA"},
        {"a port typed", [] { headless::type_text(navigation_udp_port, "10110"); }, true, "NMEA"},
        {"back to serial, whose device is empty", [] { headless::click(navigation_serial_option); },
         false, "NMEA"},
        {"the port typed while serial is chosen",
         [] { headless::type_text(navigation_udp_port, "1"); }, false, "NMEA"},
        {"UDP 7551", [] { headless::click(navigation_udp_7551_option); }, true, "NMEA"},
        {"Garmin USB, nothing found", [] { headless::click(navigation_usb_option); }, true,
         "Garmin PVT"},
        {"UDP 7552", [] { headless::click(navigation_udp_7552_option); }, true, "NMEA"},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.description);
        step.act();
        EXPECT_EQ(enabled(navigation_navigate_button), step.navigate);
        EXPECT_EQ(protocol_shown(), step.protocol);
    }
    // Both fields stayed open after going back and forth; the port kept
    // only its digits; one source is chosen at a time.
    EXPECT_TRUE(enabled(navigation_serial_device));
    EXPECT_TRUE(enabled(navigation_udp_port));
    EXPECT_FALSE(enabled(navigation_usb_combo));
    EXPECT_EQ(control(navigation_udp_port).text, "101101");
    int chosen = 0;
    for (int32_t id : {navigation_serial_option, navigation_usb_option, navigation_udp_option,
                       navigation_udp_7551_option, navigation_udp_7552_option})
        chosen += control(id).checked;
    EXPECT_EQ(chosen, 1);
}

// The link that Navigate makes is the one the worker then runs.
TEST_F(NavigationDialog, NavigateStartsTheChosenSourceAndClosesTheDialog) {
    const int32_t port = testing::free_udp_port();
    headless::click(navigation_udp_option);
    headless::type_text(navigation_udp_port, std::to_string(port));
    headless::click(navigation_log_check);
    headless::click(navigation_navigate_button);
    EXPECT_FALSE(navigation_dialog_open());
    EXPECT_TRUE(headless::main_window_enabled());
    EXPECT_TRUE(is_nmea_log_enabled());
    const auto* link = find_obj_adr<ReceiverLink>(current_link_id());
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->kind, link_kind_udp);
    EXPECT_EQ(link->protocol, link_protocol_nmea);
    EXPECT_STREQ(link->port_name, std::to_string(port).c_str());
    EXPECT_EQ(std::string(link->name), "UDP PORT " + std::to_string(port) + " NMEA");
    EXPECT_TRUE(testing::serve_until([port] { return testing::udp_port_bound(port); }));
}

TEST_F(NavigationDialog, SerialDevicesAreNamedAsTheLinkOpensThem) {
    struct Row {
        const char* typed;
        int32_t baud_row;
        const char* port_name;
        uint32_t baud;
    };
    const Row rows[] = {
        {"/dev/norvanta-test-gps", 2, "/dev/norvanta-test-gps", 19200},
        {"3", 0, "/dev/ttyS2", 4800},
        {"COM1", 5, "/dev/ttyS0", 115200},
        {"norvanta-test-gps", 1, "/dev/norvanta-test-gps", 9600},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.typed);
        if (!navigation_dialog_open()) open_navigation_dialog();
        headless::type_text(navigation_serial_device, row.typed);
        headless::choose_row(navigation_baud_combo, row.baud_row);
        headless::click(navigation_navigate_button);
        const auto* link = find_obj_adr<ReceiverLink>(current_link_id());
        ASSERT_NE(link, nullptr);
        EXPECT_EQ(link->kind, link_kind_serial);
        EXPECT_STREQ(link->port_name, row.port_name);
        EXPECT_EQ(std::string(link->name), "SERIAL PORT " + std::string(row.port_name) + " NMEA");
        EXPECT_EQ(link->baud, row.baud);
        stop_navigation();
    }
}

// Two receivers: the first lacks the capability to navigate. They listen
// on a free UDP port, so that the worker can run the one chosen.
std::vector<ObjectId> found_links;
std::vector<ObjectId> two_receivers() {
    found_links.clear();
    for (const auto& [name, capabilities] :
         {std::pair{"eTrex", 0u}, std::pair{"GPS 18", 1u << 5}}) {
        ObjectId id = 0;
        auto* link = cre_obj<ReceiverLink>(&id);
        link->kind = link_kind_udp;
        link->protocol = link_protocol_nmea;
        link->capabilities = capabilities;
        str_copy(name, link->name);
        str_copy(std::to_string(testing::free_udp_port()).c_str(), link->port_name);
        found_links.push_back(id);
    }
    return found_links;
}

bool exists(ObjectId id) {
    return exist_obj(ObjectType::ReceiverLink, id);
}

TEST_F(NavigationDialog, UsbReceiversAreOfferedByTheirCapabilityAndReleasedAtTheEnd) {
    set_receiver_search(two_receivers);
    headless::click(navigation_usb_option);
    auto usb = control(navigation_usb_combo);
    EXPECT_EQ(usb.rows, (std::vector<std::string>{"eTrex", "GPS 18"}));
    EXPECT_EQ(usb.selected, 0);
    EXPECT_TRUE(usb.enabled);
    // The first row cannot navigate, yet the search leaves Navigate on.
    EXPECT_TRUE(enabled(navigation_navigate_button));
    headless::choose_row(navigation_usb_combo, 1);
    EXPECT_TRUE(enabled(navigation_navigate_button));
    headless::choose_row(navigation_usb_combo, 0);
    EXPECT_FALSE(enabled(navigation_navigate_button));

    // A second search replaces the first one's links.
    const std::vector<ObjectId> first = found_links;
    headless::click(navigation_usb_option);
    EXPECT_FALSE(exists(first[0]) || exists(first[1]));
    EXPECT_EQ(control(navigation_usb_combo).rows.size(), 2u);

    // Cancel releases every link and takes the mark back.
    headless::click(navigation_cancel_button);
    EXPECT_FALSE(exists(found_links[0]) || exists(found_links[1]));
    EXPECT_FALSE(ui_menu_checked(menu_navigation));

    // Navigate keeps the chosen receiver's link for navigation.
    open_navigation_dialog();
    headless::click(navigation_usb_option);
    headless::choose_row(navigation_usb_combo, 1);
    headless::click(navigation_navigate_button);
    EXPECT_FALSE(exists(found_links[0]));
    EXPECT_TRUE(exists(found_links[1]));
    EXPECT_EQ(current_link_id(), found_links[1]);
}

// The window manager's close box, which the dialog does not offer itself.
TEST_F(NavigationDialog, ClosingTheWindowCancels) {
    headless::request_dialog_close();
    EXPECT_FALSE(navigation_dialog_open());
    EXPECT_FALSE(ui_menu_checked(menu_navigation));
    EXPECT_TRUE(headless::main_window_enabled());
    EXPECT_EQ(current_link_id(), 0);
}

} // namespace
} // namespace norvanta
