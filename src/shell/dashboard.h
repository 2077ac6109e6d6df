// The Dashboard: the whole client area of the main window. It holds no state
// that matters: it writes commands into the replay engine and repaints itself
// from CurrentTrack and its current_point. The same drawing serves a replay
// tick and a live fix. Everything here runs on the UI thread, except
// refresh_dashboard, which the load thread and the navigation worker also
// call at the start of a track or a link (the backend serialises the
// controls).
#pragma once

#include <cstddef>
#include <cstdint>

#include "formats/gps_model.h"
#include "platform/ui.h"

namespace norvanta {

// The fields that show values, for the backends and the status output.
enum class DashboardField : int32_t {
    mode,
    distance,
    factor,
    duration,
    longitude,
    latitude,
    altitude,
    speed,
    direction,
    satellites,
    sentences,
    time_factor_value,
    speed_value,
};
inline constexpr int32_t dashboard_field_count = 13;

// The font of the values, which other windows borrow where a text must read
// as clearly as they do.
inline constexpr UiFont value_font{"Courier New", 21, 10, 700};

// Ids of the controls the program acts on. The window system's numbers where
// the control has one; the others get numbers of their own from 2100 on.
inline constexpr int32_t dashboard_speed_entry = 2001;
inline constexpr int32_t dashboard_time_factor_entry = 2002;
inline constexpr int32_t dashboard_file_combo = 2003;
inline constexpr int32_t dashboard_backward_button = 40202;
inline constexpr int32_t dashboard_forward_button = 40203;
inline constexpr int32_t dashboard_pause_button = 40204;
inline constexpr int32_t dashboard_stop_button = 40205;
inline constexpr int32_t dashboard_time_factor_validation = 40206;
inline constexpr int32_t dashboard_speed_validation = 40207;
inline constexpr int32_t dashboard_loop_button = 40208;
inline constexpr int32_t dashboard_time_factor_slider = 2101;
inline constexpr int32_t dashboard_speed_slider = 2102;
inline constexpr int32_t dashboard_position_slider = 2103;
// The control of each DashboardField is this plus the field's number.
inline constexpr int32_t dashboard_field_id_base = 2110;

constexpr int32_t dashboard_field_id(DashboardField field) {
    return dashboard_field_id_base + static_cast<int32_t>(field);
}

// Notification codes the Dashboard reacts to.
inline constexpr int32_t combo_selection_changed = 1; // from the file list
inline constexpr int32_t entry_text_changed = 768;    // from an entry
inline constexpr int32_t slider_thumb_tracking = 5;   // from a slider
inline constexpr int32_t key_return = 13;             // a key pressed in an entry

// Makes the controls of the Dashboard through the window seam, the replay
// controls disabled until a track is selected.
void create_dashboard();
// Repaints all from CurrentTrack.
void refresh_dashboard();
// Shows one point; total_distance places the position slider.
void show_point(const NavPoint& point, double total_distance);
// Writes the sentence box only: a batch with no usable fix.
void show_sentence(const char* text);
// The replay's buttons, entries, sliders and validations.
void enable_replay_controls(bool enabled);
// For the time of a run: the open and navigation commands, the position
// slider, the file list and dropped files are refused, or taken again.
void lock_controls(bool locked);
void release_direction_buttons();
// A loaded file's row in the file list: its full path, with the track's
// index as item data and as the row to select; then the STOP mark.
void add_file_row(const char* path, int32_t index);

// Notifications of the Dashboard's controls, from the main window: a command
// (id, code) of the file list, an entry or a replay button, a slider's move
// with its position, and a key pressed in one of the two entries (Return
// validates the setting of that entry).
void dashboard_command(int32_t id, int32_t code);
void dashboard_slider_moved(int32_t id, int32_t code, int32_t position);
void dashboard_key_down(int32_t id, int32_t key);

// Navigation runs: the file and navigation commands, the position slider
// and the file list are locked, except the navigation item, which stops it.
void navigation_lock();
// Navigation ended: all of that opens again, and the file list's track is
// selected again.
void navigation_unlock();
// The second part of the window title.
void set_title(const char* text);

// The text a field shows now, in a buffer of the calling thread that the
// next call for the same field reuses.
const char* dashboard_text(DashboardField field);

// Something that follows what the Dashboard shows (the status output of the
// program with no window): told after each point and each sentence shown.
using DashboardListener = void (*)(bool point_shown);
void set_dashboard_listener(DashboardListener listener);

// The one number printer of the value fields and entries, and its reverse.
void format_number(double value, char* out, std::size_t capacity);
double parse_number(const char* text);

} // namespace norvanta
