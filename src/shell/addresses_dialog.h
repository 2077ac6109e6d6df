// The diffusion addresses dialog: the two client lists side by side, an
// entry to add an address, and arrows that move addresses between the
// lists. The changes reach the senders only when the dialog closes, by
// event 17.
#pragma once

#include <cstdint>

namespace norvanta {

// The ids of the controls the program acts on.
inline constexpr int32_t addresses_close_button = 1000;
inline constexpr int32_t addresses_add_button = 1050;
inline constexpr int32_t addresses_right_arrow = 1051; // selected, to the active list
inline constexpr int32_t addresses_left_arrow = 1052;  // selected, to the inactive list
inline constexpr int32_t addresses_host_entry = 1060;
inline constexpr int32_t addresses_port_entry = 1061;
inline constexpr int32_t addresses_inactive_list = 1062; // left: not selected
inline constexpr int32_t addresses_active_list = 1063;   // right: selected

// Opens the dialog, disabling the main window until it closes.
void open_addresses_dialog();
bool addresses_dialog_open();

} // namespace norvanta
