// The Dashboard: its controls as one table, the one printer and reader of
// numbers, the fields of a shown point, and the locking of the controls
// while a run or navigation goes on.
#include "shell/dashboard.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "core/object_store.h"
#include "diffusion/clients.h"
#include "platform/ui.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "shell/events.h"
#include "shell/julian.h"
#include "shell/menu.h"

namespace norvanta {

namespace {

// ---- the controls ----

constexpr UiFont sentence_font{"Courier New", 15, 7, 400};
constexpr UiFont mode_font{"MS Sans Serif", 17, 8, 700};

// The Windows style words of the controls; other backends read what they
// need from the kind.
constexpr uint32_t label_style = 0x50000000;
constexpr uint32_t centred_label_style = 0x50000200; // centred vertically
constexpr uint32_t combo_style = 0x50210803;
constexpr uint32_t entry_style = 0x50010002;
constexpr uint32_t slider_style = 0x50000000;
constexpr uint32_t position_slider_style = 0x50000018;
constexpr uint32_t validation_style = 0x50010040;
constexpr uint32_t loop_style = 0x50001043;
constexpr uint32_t backward_style = 0x50031049; // starts the radio group
constexpr uint32_t button_style = 0x50000040;
constexpr uint32_t forward_style = 0x50001049;
constexpr uint32_t setting_value_style = 0x50001202; // right-aligned: black
constexpr uint32_t centred_field_style = 0x50001201;
constexpr uint32_t left_field_style = 0x50001200;
constexpr uint32_t separator_style = 0x50001000;
constexpr uint32_t sentence_box_style = 0x50000884; // multi-line, read-only
constexpr uint32_t client_edge = 512;

constexpr int32_t icon_px = 22;
constexpr int32_t loop_icon_px = 24;

constexpr int32_t field_id(DashboardField field) {
    return dashboard_field_id(field);
}
constexpr int32_t mode_field = field_id(DashboardField::mode);
constexpr int32_t distance_field = field_id(DashboardField::distance);
constexpr int32_t factor_field = field_id(DashboardField::factor);
constexpr int32_t duration_field = field_id(DashboardField::duration);
constexpr int32_t longitude_field = field_id(DashboardField::longitude);
constexpr int32_t latitude_field = field_id(DashboardField::latitude);
constexpr int32_t altitude_field = field_id(DashboardField::altitude);
constexpr int32_t speed_field = field_id(DashboardField::speed);
constexpr int32_t direction_field = field_id(DashboardField::direction);
constexpr int32_t satellites_field = field_id(DashboardField::satellites);
constexpr int32_t sentence_box = field_id(DashboardField::sentences);
constexpr int32_t time_factor_value = field_id(DashboardField::time_factor_value);
constexpr int32_t speed_value = field_id(DashboardField::speed_value);

constexpr UiControl label_row(UiRect where, const char* french, const char* english,
                              uint32_t style) {
    return {UiControlKind::label, where, 0, french, english, nullptr, style, 0, 0};
}
constexpr UiControl field_row(UiRect where, int32_t id, const UiFont* font, uint32_t style) {
    return {UiControlKind::value, where, id, "", "", font, style, 0, 0};
}
constexpr UiControl combo_row(UiRect where, int32_t id) {
    return {UiControlKind::combo_box, where, id, "", "", nullptr, combo_style, 0, 0};
}
constexpr UiControl entry_row(UiRect where, int32_t id) {
    return {UiControlKind::entry, where, id, "", "", nullptr, entry_style, client_edge, 0};
}
constexpr UiControl slider_row(UiRect where, int32_t id, uint32_t style) {
    return {UiControlKind::slider, where, id, "", "", nullptr, style, 0, 0};
}
constexpr UiControl separator_row(UiRect where, uint32_t style) {
    return {UiControlKind::separator, where, 0, "", "", nullptr, style, 0, 0};
}
constexpr UiControl text_box_row(UiRect where, int32_t id, const UiFont* font, uint32_t style) {
    return {UiControlKind::text_box, where, id, "", "", font, style, client_edge, 0};
}
// A button's text is the file of its icon.
constexpr UiControl button_row(UiControlKind kind, UiRect where, int32_t id, const char* icon,
                               uint32_t style, int32_t size = icon_px) {
    return {kind, where, id, icon, icon, nullptr, style, 0, size};
}

using enum UiControlKind;

// In the order they are made, which is also the order of the keyboard focus.
constexpr std::array dashboard_controls = {
    label_row({10, 8, 56, 24}, "Fichier", "File", label_style),
    combo_row({102, 6, 376, 160}, dashboard_file_combo),
    label_row({10, 46, 88, 24}, "Facteur temps", "Time factor", label_style),
    entry_row({102, 44, 40, 24}, dashboard_time_factor_entry),
    slider_row({144, 38, 300, 40}, dashboard_time_factor_slider, slider_style),
    button_row(push_button, {448, 42, 28, 28}, dashboard_time_factor_validation, "valid.ico",
               validation_style),
    field_row({484, 44, 40, 24}, time_factor_value, nullptr, setting_value_style),
    label_row({10, 86, 88, 24}, "Vitesse km/h", "Speed km/h", label_style),
    entry_row({102, 84, 40, 24}, dashboard_speed_entry),
    slider_row({144, 78, 300, 38}, dashboard_speed_slider, slider_style),
    button_row(push_button, {448, 82, 28, 28}, dashboard_speed_validation, "valid.ico",
               validation_style),
    field_row({484, 84, 40, 24}, speed_value, nullptr, setting_value_style),
    label_row({10, 128, 56, 24}, "Position", "Position", label_style),
    slider_row({92, 116, 392, 36}, dashboard_position_slider, position_slider_style),
    button_row(check_button, {156, 154, 40, 28}, dashboard_loop_button, "boucle.ico", loop_style,
               loop_icon_px),
    button_row(radio_button, {210, 154, 60, 28}, dashboard_backward_button, "rev.ico",
               backward_style),
    button_row(push_button, {274, 154, 28, 28}, dashboard_pause_button, "pause.ico", button_style),
    button_row(radio_button, {306, 154, 60, 28}, dashboard_forward_button, "start.ico",
               forward_style),
    button_row(push_button, {378, 154, 28, 28}, dashboard_stop_button, "stop.ico", button_style),
    label_row({10, 194, 88, 24}, "Mode", "Mode", centred_label_style),
    field_row({102, 194, 160, 24}, mode_field, &mode_font, centred_field_style),
    label_row({276, 194, 88, 24}, "Distance km", "Distance km", centred_label_style),
    field_row({366, 194, 160, 24}, distance_field, &value_font, centred_field_style),
    label_row({10, 218, 88, 24}, "Facteur", "Factor", centred_label_style),
    field_row({102, 218, 160, 24}, factor_field, &mode_font, centred_field_style),
    label_row({276, 218, 88, 24}, "Durée", "Duration", centred_label_style),
    field_row({366, 218, 160, 24}, duration_field, &value_font, centred_field_style),
    separator_row({10, 254, 516, 2}, separator_style),
    label_row({10, 266, 88, 24}, "Longitude d°", "Longitude d°", centred_label_style),
    field_row({102, 266, 160, 24}, longitude_field, &value_font, left_field_style),
    label_row({276, 266, 88, 24}, "Vitesse km/h", "Speed km/h", centred_label_style),
    field_row({366, 266, 160, 24}, speed_field, &value_font, centred_field_style),
    label_row({10, 290, 88, 24}, "Latitude d°", "Latitude d°", centred_label_style),
    field_row({102, 290, 160, 24}, latitude_field, &value_font, left_field_style),
    label_row({276, 290, 88, 24}, "Direction", "Direction", centred_label_style),
    field_row({366, 290, 160, 24}, direction_field, &value_font, centred_field_style),
    label_row({10, 314, 88, 24}, "Altitude m", "Altitude m", centred_label_style),
    field_row({102, 314, 160, 24}, altitude_field, &value_font, left_field_style),
    label_row({276, 314, 88, 24}, "Sats en vue", "Sats in view", centred_label_style),
    field_row({366, 314, 160, 24}, satellites_field, &value_font, centred_field_style),
    label_row({10, 350, 200, 24}, "Trames NMEA", "NMEA Sentences", label_style),
    text_box_row({10, 374, 516, 88}, sentence_box, &sentence_font, sentence_box_style),
};
static_assert(dashboard_controls.size() == 42);

struct SliderRange {
    int32_t id;
    int32_t low;
    int32_t high;
};
constexpr std::array<SliderRange, 3> slider_ranges = {{
    {dashboard_time_factor_slider, 1, 100},
    {dashboard_speed_slider, 1, 1000},
    {dashboard_position_slider, 0, 1000},
}};

// The replay's own controls: off until a track is selected, and in REPLAY_LIVE.
constexpr std::array<int32_t, 12> replay_controls = {
    dashboard_forward_button,   dashboard_backward_button,
    dashboard_pause_button,     dashboard_stop_button,
    dashboard_loop_button,      dashboard_time_factor_entry,
    dashboard_speed_entry,      dashboard_time_factor_slider,
    dashboard_speed_slider,     dashboard_time_factor_validation,
    dashboard_speed_validation, dashboard_position_slider,
};

// The fields of a point, emptied when there is none to show.
constexpr std::array<int32_t, 9> point_fields = {
    sentence_box,    longitude_field,  latitude_field, altitude_field, speed_field,
    direction_field, satellites_field, distance_field, duration_field,
};

// ---- the modes ----

enum class FactorShown { time_factor, speed, none };

struct ModeRow {
    int32_t mode;
    const char* french;
    const char* english;
    FactorShown factor;
};
constexpr std::array<ModeRow, 3> mode_rows = {{
    {REPLAY_TIME, "Rejeu temps", "Replay time", FactorShown::time_factor},
    {REPLAY_SPEED, "Rejeu vitesse", "Replay speed", FactorShown::speed},
    {REPLAY_LIVE, "Navigation", "Navigation", FactorShown::none},
}};

// ---- numbers ----

constexpr int number_width = 16;                  // characters of a printed number, at least
constexpr int number_significant = 15;            // digits before and after the point together
constexpr std::size_t number_text_capacity = 512; // any double in %f with those rules
constexpr std::size_t field_text_capacity = 64;
constexpr int parse_group_digits = 9; // digits gathered before they join the value
constexpr double parse_group_scale = 1e9;
constexpr int parse_exponent_limit = 100000; // far past any double; keeps the count in range

constexpr std::size_t entry_text_limit = 24; // characters read from an entry
constexpr double setting_limit = 9999.0;
constexpr double slider_scale = 1000.0;        // positions of the position slider
constexpr double position_slider_step = 0.001; // of the track's distance, per position
constexpr double metres_to_km = 0.001;

// ---- the title ----

constexpr char program_title[] = "Norvanta";
constexpr char title_joint[] = "   ";

// The second part of the title. The third, the message part, belongs to
// drawing modules, which this program does not have: it stays empty.
std::mutex title_mutex;
std::string title_text;

void write_title() {
    std::string title = std::string(program_title) + title_joint + title_text + title_joint;
    ui_set_title(title.c_str());
}

// set_title writes a changed part at once, so the machine's rewrite at the
// end of an event is what is left: it also restores the title a load replaced.
void refresh_window_title(bool rewrite) {
    if (!rewrite) return;
    std::lock_guard lock(title_mutex);
    write_title();
}

std::atomic<DashboardListener> listener{nullptr};

void tell_listener(bool point_shown) {
    if (DashboardListener told = listener.load()) told(point_shown);
}

[[gnu::format(printf, 2, 3)]] void show_text(int32_t id, const char* format, ...) {
    char text[field_text_capacity];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    ui_set_control_text(id, text);
}

// A setting shows nothing while it is not above 0.
void show_setting(int32_t id, double value) {
    char text[number_text_capacity] = "";
    if (value > 0) format_number(value, text, sizeof text);
    ui_set_control_text(id, text);
}

int32_t slider_position_of(double distance, double total_distance) {
    const double position = distance / total_distance * slider_scale;
    // A LiveTrack has no length, so the quotient is no number there. The
    // window system's slider, handed the "indefinite" integer that truncation
    // makes of it, rests at its low end: so does this one.
    if (!std::isfinite(position) || std::fabs(position) >= 2147483647.0) return 0;
    return static_cast<int32_t>(position);
}

char hemisphere(double value, char negative, char positive) {
    return value < 0 ? negative : positive;
}

// A value typed or dragged: shown red and left-aligned in its value static,
// and kept away from the engine until it is validated.
void show_edited(int32_t value_id, double value) {
    ui_set_value_look(value_id, UiValueLook::edited);
    char text[number_text_capacity];
    format_number(value, text, sizeof text);
    ui_set_control_text(value_id, text);
}

int32_t value_of_entry(int32_t entry_id) {
    return entry_id == dashboard_time_factor_entry ? time_factor_value : speed_value;
}

// What a control's text gives as a setting: its number without sign, up to
// the limit of a setting. A comma is a decimal mark, as French input has it.
double setting_of(int32_t id) {
    char text[entry_text_limit + 1];
    ui_control_text(id, text, sizeof text);
    const double value = std::fabs(parse_number(text));
    return value >= setting_limit ? setting_limit : value;
}

void entry_typed(int32_t entry_id) {
    // Kept on purpose: a truncation, not a rounding, so 0.29 (28.999... once
    // multiplied) shows as 0.28.
    show_edited(value_of_entry(entry_id), std::trunc(setting_of(entry_id) * 100.0) * 0.01);
}

// Validation reads the value static, not the entry: a value typed and then
// dragged follows the slider. The last setting validated decides the mode.
void validate_setting(int32_t entry_id) {
    const int32_t value_id = value_of_entry(entry_id);
    const double value = setting_of(value_id);
    if (entry_id == dashboard_time_factor_entry) {
        replay_set_time_factor(value);
    } else {
        replay_set_speed(value);
    }
    ui_set_value_look(value_id, UiValueLook::settled);
    char text[number_text_capacity];
    format_number(value, text, sizeof text);
    ui_set_control_text(value_id, text);
    refresh_dashboard();
}

// ---- the replay buttons ----

// A run locks what could pull the track from under the clock (opening a
// file, navigation, the file list, the position slider) until it pauses,
// stops or reaches its end.
void press_direction(int32_t direction) {
    lock_controls(true);
    replay_set_direction(direction);
    replay_play();
}

void press_backward() {
    press_direction(-1);
}
void press_forward() {
    press_direction(1);
}
void press_pause() {
    lock_controls(false);
    replay_pause();
    release_direction_buttons();
}
void press_stop() {
    lock_controls(false);
    replay_stop();
    release_direction_buttons();
}
void press_time_factor_validation() {
    validate_setting(dashboard_time_factor_entry);
}
void press_speed_validation() {
    validate_setting(dashboard_speed_entry);
}
// The window has flipped the check before it tells of the click.
void press_loop() {
    replay_set_loop(ui_control_checked(dashboard_loop_button) ? 1 : 0);
}

struct ButtonRow {
    int32_t id;
    void (*press)();
};
constexpr std::array<ButtonRow, 7> button_rows = {{
    {dashboard_backward_button, press_backward},
    {dashboard_forward_button, press_forward},
    {dashboard_pause_button, press_pause},
    {dashboard_stop_button, press_stop},
    {dashboard_time_factor_validation, press_time_factor_validation},
    {dashboard_speed_validation, press_speed_validation},
    {dashboard_loop_button, press_loop},
}};

// The text of a field, read back from its control into this thread's own
// buffer for it.
const char* control_text(int32_t id, std::string& buffer) {
    const std::size_t length = ui_control_text(id, nullptr, 0);
    buffer.assign(length + 1, '\0');
    ui_control_text(id, buffer.data(), buffer.size());
    return buffer.c_str();
}

} // namespace

void create_dashboard() {
    for (const UiControl& control : dashboard_controls)
        ui_create_control(control, localized(control.french, control.english));
    for (const SliderRange& range : slider_ranges)
        ui_set_slider_range(range.id, range.low, range.high);
    enable_replay_controls(false);
    set_title_refresher(refresh_window_title);
}

void refresh_dashboard() {
    if (ReplayTrack* track = replay_current()) {
        show_setting(time_factor_value, track->time_factor);
        show_setting(speed_value, track->speed);
        for (const ModeRow& row : mode_rows) {
            if (row.mode != track->mode) continue;
            if (row.factor == FactorShown::none) ui_set_control_text(factor_field, "");
            if (row.factor == FactorShown::time_factor)
                show_setting(factor_field, track->time_factor);
            if (row.factor == FactorShown::speed) show_setting(factor_field, track->speed);
            ui_set_control_text(mode_field, localized(row.french, row.english));
        }
        enable_replay_controls(track->mode != REPLAY_LIVE);
        set_title(track->name);
        ui_check_control(dashboard_loop_button, track->loop != 0);
        if (const NavPoint* point = find_obj_adr<NavPoint>(track->current_point)) {
            show_point(*point, track->total_distance);
            return;
        }
    } else {
        for (int32_t id : {time_factor_value, speed_value, factor_field, mode_field})
            ui_set_control_text(id, "");
        set_title("");
    }
    ui_set_slider_position(dashboard_position_slider, 0);
    for (int32_t id : point_fields)
        ui_set_control_text(id, "");
}

void show_point(const NavPoint& point, double total_distance) {
    ui_set_slider_position(dashboard_position_slider,
                           slider_position_of(point.distance, total_distance));
    ui_set_control_text(sentence_box, point.text ? point.text : "");
    show_text(longitude_field, " %c %010.6lf", hemisphere(point.longitude, 'W', 'E'),
              std::fabs(point.longitude));
    show_text(latitude_field, " %c  %09.6lf", hemisphere(point.latitude, 'S', 'N'),
              std::fabs(point.latitude));
    show_text(altitude_field, " %7.1lf", point.altitude);
    show_text(speed_field, "%7.2lf", point.speed);
    show_text(direction_field, " %06.2lf", point.course);
    show_text(satellites_field, "%d", point.satellites);
    show_text(distance_field, "%7.2lf", point.distance * metres_to_km);
    int days = 0;
    int hours = 0;
    int minutes = 0;
    double seconds = 0;
    day_split(point.time, &days, &hours, &minutes, &seconds);
    show_text(duration_field, "%lld:%02d:%02d", hours + days * 24LL, minutes,
              static_cast<int>(seconds));
    tell_listener(true);
}

void show_sentence(const char* text) {
    ui_set_control_text(sentence_box, text ? text : "");
    tell_listener(false);
}

void enable_replay_controls(bool enabled) {
    for (int32_t id : replay_controls)
        ui_enable_control(id, enabled);
}

void lock_controls(bool locked) {
    ui_menu_enable(menu_open, !locked);
    ui_menu_enable(menu_navigation, !locked);
    ui_enable_control(dashboard_position_slider, !locked);
    ui_enable_control(dashboard_file_combo, !locked);
    ui_accept_drops(!locked);
}

void release_direction_buttons() {
    ui_check_control(dashboard_backward_button, false);
    ui_check_control(dashboard_forward_button, false);
}

void navigation_lock() {
    lock_controls(true);
    ui_menu_enable(menu_navigation, true);
}

void navigation_unlock() {
    ui_menu_check(menu_navigation, false);
    lock_controls(false);
    set_title("");
    const int32_t row = ui_combo_selected(dashboard_file_combo);
    const intptr_t index = row >= 0 ? ui_combo_item_data(dashboard_file_combo, row) : -1;
    replay_select(static_cast<int32_t>(index));
}

void add_file_row(const char* path, int32_t index) {
    ui_combo_add_row(dashboard_file_combo, path, index);
    // The track's index doubles as the row number, kept on purpose: once the
    // LiveTrack exists (an index without a row), the selection lands one row
    // late, or on none.
    ui_combo_select(dashboard_file_combo, index);
    diffuse_stop();
}

void dashboard_command(int32_t id, int32_t code) {
    if (id == dashboard_file_combo) {
        if (code == combo_selection_changed) {
            const int32_t row = ui_combo_selected(dashboard_file_combo);
            replay_select(static_cast<int32_t>(ui_combo_item_data(dashboard_file_combo, row)));
        }
        // Opening the list or leaving it also ends the stream, on purpose:
        // clients see a STOP mark for any use of the file list.
        diffuse_stop();
        return;
    }
    if ((id == dashboard_time_factor_entry || id == dashboard_speed_entry) &&
        code == entry_text_changed) {
        entry_typed(id);
        return;
    }
    for (const ButtonRow& row : button_rows) {
        if (row.id == id) row.press();
    }
}

void dashboard_key_down(int32_t id, int32_t key) {
    if (key != key_return) return;
    validate_setting(id == dashboard_time_factor_entry ? dashboard_time_factor_entry
                                                       : dashboard_speed_entry);
}

void dashboard_slider_moved(int32_t id, int32_t code, int32_t position) {
    // Only the thumb counts: a click in the channel or a key moves the
    // slider without touching the value.
    if (code != slider_thumb_tracking) return;
    if (id == dashboard_time_factor_slider) show_edited(time_factor_value, position);
    if (id == dashboard_speed_slider) show_edited(speed_value, position);
    if (id == dashboard_position_slider) replay_seek(position * position_slider_step);
}

void set_title(const char* text) {
    const char* part = text ? text : "";
    std::lock_guard lock(title_mutex);
    if (title_text == part) return;
    title_text = part;
    write_title();
}

const char* dashboard_text(DashboardField field) {
    thread_local std::array<std::string, dashboard_field_count> texts;
    const int32_t index = static_cast<int32_t>(field);
    if (index < 0 || index >= dashboard_field_count) return "";
    return control_text(dashboard_field_id(field), texts[static_cast<std::size_t>(index)]);
}

void set_dashboard_listener(DashboardListener told) {
    listener.store(told);
}

// digits = the integer part of log10 |value|, plus 1; the width is 16, or
// digits when wider, one more for a sign; the precision what is left of 15
// digits. The zeros that end the decimals go, and a point left alone; a
// number printed without decimals keeps its zeros.
void format_number(double value, char* out, std::size_t capacity) {
    if (capacity == 0) return;
    int width = number_width;
    int precision = 0;
    const double magnitude = std::fabs(value);
    // Zero, and what is not a finite number, have no digits to count: they
    // print without decimals, as the truncated logarithm of them left none.
    if (magnitude > 0 && std::isfinite(magnitude)) {
        const int digits = static_cast<int>(std::trunc(std::log10(magnitude))) + 1;
        width = std::max(number_width, digits);
        precision = std::max(0, number_significant - digits);
    }
    if (value < 0) ++width;
    char text[number_text_capacity];
    std::snprintf(text, sizeof text, "%*.*f", width, precision, value);
    if (precision > 0) {
        std::size_t end = std::strlen(text);
        while (end > 0 && text[end - 1] == '0')
            --end;
        if (end > 0 && text[end - 1] == '.') --end;
        text[end] = '\0';
    }
    std::snprintf(out, capacity, "%s", text);
}

// [+][-]digits[. or ,digits][e[+ or -]digits], read up to the first other
// character. Digits join the value nine at a time.
double parse_number(const char* text) {
    if (!text) return 0;
    const char* at = text;
    if (*at == '+') ++at;
    const bool negative = *at == '-';
    if (negative) ++at;

    double value = 0;
    uint32_t group = 0;
    int group_digits = 0;
    int decimals = 0;
    bool decimal_mark_seen = false;
    for (;; ++at) {
        if (*at >= '0' && *at <= '9') {
            group = group * 10 + static_cast<uint32_t>(*at - '0');
            if (decimal_mark_seen) ++decimals;
            if (++group_digits == parse_group_digits) {
                value = value * parse_group_scale + group;
                group = 0;
                group_digits = 0;
            }
        } else if ((*at == '.' || *at == ',') && !decimal_mark_seen) {
            decimal_mark_seen = true;
        } else {
            break;
        }
    }
    value = value * std::pow(10.0, group_digits) + group;

    int exponent = 0;
    if (*at == 'e') {
        ++at;
        const bool exponent_negative = *at == '-';
        if (*at == '+' || *at == '-') ++at;
        for (; *at >= '0' && *at <= '9'; ++at)
            if (exponent < parse_exponent_limit) exponent = exponent * 10 + (*at - '0');
        if (exponent_negative) exponent = -exponent;
    }
    // Zero and an overflowed value stay as they are: scaling them could only
    // make 0 times infinity, which is no number.
    const int scale = exponent - decimals;
    if (value != 0 && std::isfinite(value) && scale != 0)
        value = scale > 0 ? value * std::pow(10.0, scale) : value / std::pow(10.0, -scale);
    return negative ? -value : value;
}

} // namespace norvanta
