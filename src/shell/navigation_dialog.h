// The real-time navigation dialog: the user picks the live source (a serial
// device, a UDP port, a Garmin USB receiver), its speed and the log switch,
// and Navigate starts the worker on it. It opens from the navigation menu
// item and remembers nothing between openings.
#pragma once

#include <cstdint>
#include <vector>

#include "core/mobj.h"

namespace norvanta {

// The ids of the controls the program acts on.
inline constexpr int32_t navigation_navigate_button = 1000;
inline constexpr int32_t navigation_cancel_button = 1001;
inline constexpr int32_t navigation_serial_option = 1002;
inline constexpr int32_t navigation_usb_option = 1003;
inline constexpr int32_t navigation_serial_device = 1008;
inline constexpr int32_t navigation_usb_combo = 1009;
inline constexpr int32_t navigation_udp_option = 1012;
inline constexpr int32_t navigation_udp_port = 1014;
inline constexpr int32_t navigation_udp_7551_option = 1015;
inline constexpr int32_t navigation_udp_7552_option = 1016;
inline constexpr int32_t navigation_baud_combo = 1020;
inline constexpr int32_t navigation_protocol_combo = 1021;
inline constexpr int32_t navigation_log_check = 1022;

// Opens the dialog, disabling the main window until it ends.
void open_navigation_dialog();
bool navigation_dialog_open();

// The search for receivers on USB: the ReceiverLinks it made, each to be
// offered by name. The module of the Garmin USB link registers it; until one
// does, the search finds nothing.
using ReceiverSearch = std::vector<ObjectId> (*)();
void set_receiver_search(ReceiverSearch search);

} // namespace norvanta
