// The real-time navigation dialog as a control table and the rules that
// react to its notifications.
//
// On this platform a serial line is a device path rather than a COM
// number: the serial choice is an editable list of the devices present,
// which also takes a typed path, a "COM<n>" name or a bare number n (the
// n-th serial port, as the COM field took it). The right-hand controls stand
// further right than the COM field's layout had them, to leave the paths
// room.
#include "shell/navigation_dialog.h"

#include <array>
#include <string>

#include "core/object_store.h"
#include "core/strings.h"
#include "navigation/serial_link.h"
#include "navigation/worker.h"
#include "platform/serial_port.h"
#include "platform/ui_dialog.h"
#include "shell/commands.h"
#include "shell/config.h"
#include "shell/events.h"
#include "shell/menu.h"

namespace norvanta {

namespace {

constexpr uint32_t frame_style = 0x50000007;
constexpr uint32_t first_option_style = 0x50020009; // starts the group of the five sources
constexpr uint32_t option_style = 0x50000009;
constexpr uint32_t device_list_style = 0x50300202; // an editable drop-down list
constexpr uint32_t label_style = 0x50000200;
constexpr uint32_t list_style = 0x50300203;
constexpr uint32_t protocol_list_style = 0x50310203;
constexpr uint32_t port_entry_style = 0x50012000; // digits only
constexpr uint32_t check_style = 0x50020003;      // also ends the group of sources
constexpr uint32_t default_button_style = 0x50000001;
constexpr uint32_t button_style = 0x50000000;
constexpr uint32_t client_edge = 512;

constexpr UiControl control(UiControlKind kind, UiRect where, int32_t id, const char* french,
                            const char* english, uint32_t style, uint32_t extended = 0) {
    return UiControl{kind, where, id, french, english, nullptr, style, extended, 0};
}

using K = UiControlKind;

// In creation order, which is also the order of the radio group: the five
// sources are one group, from the serial option to the log check box.
constexpr std::array<UiControl, 17> navigation_controls = {{
    control(K::group_frame, {6, 6, 544, 198}, 0, "Port", "Port", frame_style),
    control(K::combo_entry, {124, 24, 272, 120}, navigation_serial_device, "", "",
            device_list_style, client_edge),
    control(K::radio_option, {16, 26, 100, 24}, navigation_serial_option,
            "Port s\xC3\xA9rie  :", "Serial port  :", first_option_style),
    control(K::label, {404, 24, 48, 24}, 0, "Vitesse", "Speed", label_style),
    control(K::combo_box, {460, 24, 80, 120}, navigation_baud_combo, "", "", list_style,
            client_edge),
    control(K::radio_option, {16, 54, 100, 24}, navigation_usb_option, "Garmin USB", "USB Garmin",
            option_style),
    control(K::combo_box, {124, 54, 416, 80}, navigation_usb_combo, "", "", list_style,
            client_edge),
    control(K::radio_option, {16, 82, 100, 24}, navigation_udp_option, "Port UDP", "UDP port",
            option_style),
    control(K::entry, {124, 82, 60, 24}, navigation_udp_port, "", "", port_entry_style,
            client_edge),
    control(K::radio_option, {16, 110, 120, 24}, navigation_udp_7551_option, "Port UDP 7551",
            "UDP port 7551", option_style),
    control(K::radio_option, {16, 138, 120, 24}, navigation_udp_7552_option, "Port UDP 7552",
            "UDP port 7552", option_style),
    control(K::label, {16, 170, 72, 24}, 0, "Protocole", "Protocol", label_style),
    control(K::combo_box, {96, 170, 444, 120}, navigation_protocol_combo, "", "",
            protocol_list_style, client_edge),
    control(K::group_frame, {6, 208, 544, 54}, 0, "Log", "Log", frame_style),
    control(K::check_box, {16, 228, 524, 24}, navigation_log_check, "Log navigation",
            "Log navigation", check_style),
    control(K::text_button, {342, 268, 100, 28}, navigation_navigate_button, "Naviguer", "Navigate",
            default_button_style),
    control(K::text_button, {450, 268, 100, 28}, navigation_cancel_button, "Annuler", "Cancel",
            button_style),
}};

constexpr UiRect navigation_client = {40, 60, 556, 304};

// The Protocol list's rows, with the link protocol each stands for.
struct ProtocolRow {
    const char* text;
    uint32_t protocol;
};
constexpr std::array<ProtocolRow, 2> protocol_rows = {{
    {"NMEA", link_protocol_nmea},
    {"Garmin PVT", link_protocol_garmin},
}};
constexpr int32_t protocol_row_nmea = 0;
constexpr int32_t protocol_row_garmin = 1;

// The two fixed UDP ports offered.
constexpr int32_t first_fixed_udp_port = 7551;
constexpr int32_t second_fixed_udp_port = 7552;

// The one capability that lets a USB receiver serve navigation.
constexpr uint32_t navigation_capability_bit = 1u << 5;

// What Navigate reads of the Protocol list's text.
constexpr std::size_t protocol_text_capacity = 100;
constexpr std::size_t device_text_capacity = 4096;

constexpr const char* serial_link_prefix = "SERIAL PORT ";
constexpr const char* udp_link_prefix = "UDP PORT ";
constexpr const char* usb_link_name = "USB";

UiDialog open_dialog = no_dialog;
ReceiverSearch receiver_search = nullptr;

bool checked(int32_t id) {
    return ui_dialog_checked(open_dialog, id);
}

bool has_text(int32_t id) {
    return ui_dialog_text(open_dialog, id, nullptr, 0) > 0;
}

void show_protocol(int32_t row) {
    ui_dialog_select_row(open_dialog, navigation_protocol_combo, row);
}

void enable_navigate(bool enabled) {
    ui_dialog_enable(open_dialog, navigation_navigate_button, enabled);
}

// The row's link may navigate when the receiver says it can; a row whose
// link has gone cannot.
void check_usb_row() {
    const int32_t row = ui_dialog_selected_row(open_dialog, navigation_usb_combo);
    const auto link_id =
        static_cast<ObjectId>(ui_dialog_row_data(open_dialog, navigation_usb_combo, row));
    const ReceiverLink* link = row >= 0 ? find_obj_adr<ReceiverLink>(link_id) : nullptr;
    enable_navigate(link && (link->capabilities & navigation_capability_bit) != 0);
}

// The links of the USB list are the dialog's until one is handed to
// navigation: all others are deleted with the rows.
void release_usb_rows(ObjectId kept) {
    const int32_t rows = ui_dialog_row_count(open_dialog, navigation_usb_combo);
    for (int32_t row = 0; row < rows; ++row) {
        const auto link =
            static_cast<ObjectId>(ui_dialog_row_data(open_dialog, navigation_usb_combo, row));
        if (link != 0 && link != kept && exist_obj(ObjectType::ReceiverLink, link))
            del_obj(ObjectType::ReceiverLink, link);
    }
    ui_dialog_clear_rows(open_dialog, navigation_usb_combo);
}

void end_dialog() {
    ui_dialog_end(open_dialog);
    open_dialog = no_dialog;
}

// Serial or UDP chosen: the field beside it takes the focus. The other
// field is left as it is, so that after going back and forth both stay
// enabled; kept on purpose, and harmless, since Navigate reads only the
// field of the checked option.
void field_option_chosen(int32_t field) {
    ui_dialog_enable(open_dialog, field, true);
    ui_dialog_focus(open_dialog, field);
    ui_dialog_enable(open_dialog, navigation_usb_combo, false);
    enable_navigate(has_text(field));
    show_protocol(protocol_row_nmea);
}

void field_changed(int32_t field, int32_t option) {
    if (!checked(option)) return;
    enable_navigate(has_text(field));
    show_protocol(protocol_row_nmea);
}

void fixed_port_chosen() {
    show_protocol(protocol_row_nmea);
    ui_dialog_enable(open_dialog, navigation_usb_combo, false);
    enable_navigate(true);
}

// Navigate comes back enabled whatever was found, even for a first row
// that the capability test has just refused; kept on purpose: a link with
// no receiver is made from the name "USB" by start_navigation. The list
// opens to the user, who may pick another receiver.
void usb_chosen() {
    enable_navigate(false);
    ui_dialog_enable(open_dialog, navigation_usb_combo, true);
    refresh_cursor(cursor_busy);
    show_protocol(protocol_row_garmin);
    release_usb_rows(0);
    const std::vector<ObjectId> found =
        receiver_search ? receiver_search() : std::vector<ObjectId>{};
    refresh_cursor(cursor_normal);
    for (const ObjectId id : found) {
        const auto* link = find_obj_adr<ReceiverLink>(id);
        if (!link) continue;
        ui_dialog_add_row(open_dialog, navigation_usb_combo, link->name ? link->name : "",
                          static_cast<intptr_t>(id));
    }
    if (!found.empty()) {
        ui_dialog_select_row(open_dialog, navigation_usb_combo, 0);
        check_usb_row();
    }
    enable_navigate(true);
}

// A bare number n names the n-th serial port, as the COM field did; a name
// without a directory is a device of /dev.
std::string serial_device_of(const std::string& text) {
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos)
        return serial_device_path(("COM" + text).c_str());
    if (text.find('/') == std::string::npos && !text.starts_with("COM")) return "/dev/" + text;
    return serial_device_path(text.c_str());
}

ObjectId make_source_link(uint32_t kind, const std::string& port_name, uint32_t baud) {
    const int32_t row = ui_dialog_selected_row(open_dialog, navigation_protocol_combo);
    const intptr_t data = ui_dialog_row_data(open_dialog, navigation_protocol_combo, row);
    const std::string protocol_text =
        ui_dialog_string(open_dialog, navigation_protocol_combo, protocol_text_capacity);
    ObjectId id = 0;
    auto* link = cre_obj<ReceiverLink>(&id);
    if (!link) return 0;
    link->kind = kind;
    link->protocol = data < 0 ? 0 : static_cast<uint32_t>(data);
    link->baud = baud;
    const char* prefix = kind == link_kind_serial ? serial_link_prefix : udp_link_prefix;
    str_copy(prefix, link->name);
    str_append(port_name.c_str(), link->name);
    str_append(" ", link->name);
    str_append(protocol_text.c_str(), link->name);
    str_copy(port_name.c_str(), link->port_name);
    return id;
}

void navigate() {
    ObjectId link = 0;
    if (checked(navigation_usb_option)) {
        const int32_t row = ui_dialog_selected_row(open_dialog, navigation_usb_combo);
        const intptr_t data = ui_dialog_row_data(open_dialog, navigation_usb_combo, row);
        link = data < 0 ? 0 : static_cast<ObjectId>(data);
    } else if (checked(navigation_serial_option)) {
        const int32_t row = ui_dialog_selected_row(open_dialog, navigation_baud_combo);
        const intptr_t baud =
            row < 0 ? 0 : ui_dialog_row_data(open_dialog, navigation_baud_combo, row);
        const std::string device =
            ui_dialog_string(open_dialog, navigation_serial_device, device_text_capacity);
        link = make_source_link(link_kind_serial, serial_device_of(device),
                                static_cast<uint32_t>(baud));
    } else {
        int32_t port = first_fixed_udp_port;
        if (checked(navigation_udp_7552_option)) port = second_fixed_udp_port;
        if (checked(navigation_udp_option))
            port = entry_number(
                ui_dialog_string(open_dialog, navigation_udp_port, device_text_capacity).c_str());
        link = make_source_link(link_kind_udp, std::to_string(port), 0);
    }
    const bool log = checked(navigation_log_check);
    set_nmea_log(log);
    start_navigation(link, usb_link_name, 0, log);
    release_usb_rows(link);
    end_dialog();
}

void cancel() {
    ui_menu_check(menu_navigation, false);
    release_usb_rows(0);
    end_dialog();
}

void on_command(UiDialog, int32_t id, int32_t code) {
    switch (id) {
    case navigation_serial_option:
        field_option_chosen(navigation_serial_device);
        break;
    case navigation_udp_option:
        field_option_chosen(navigation_udp_port);
        break;
    case navigation_serial_device:
        if (code == ui_notify_edit_changed || code == ui_notify_selection_changed)
            field_changed(navigation_serial_device, navigation_serial_option);
        break;
    case navigation_udp_port:
        if (code == ui_notify_text_changed)
            field_changed(navigation_udp_port, navigation_udp_option);
        break;
    case navigation_udp_7551_option:
    case navigation_udp_7552_option:
        fixed_port_chosen();
        break;
    case navigation_usb_option:
        usb_chosen();
        break;
    case navigation_usb_combo:
        if (code == ui_notify_selection_changed) check_usb_row();
        break;
    case navigation_navigate_button:
        navigate();
        break;
    case navigation_cancel_button:
        cancel();
        break;
    default:
        break;
    }
}

// The dialog has no close box of its own; a window manager that closes it
// anyway gets what Cancel does, so the menu's mark does not claim a
// navigation that never started.
void on_close(UiDialog) {
    cancel();
}

} // namespace

void open_navigation_dialog() {
    if (open_dialog != no_dialog) return;
    const UiDialogTemplate dialog{"Navigation temps r\xC3\xA9"
                                  "el",
                                  "Real time navigation",
                                  language_index(),
                                  navigation_client,
                                  navigation_controls.data(),
                                  navigation_controls.size()};
    open_dialog = ui_dialog_open(dialog, {on_command, nullptr, on_close});
    if (open_dialog == no_dialog) {
        ui_menu_check(menu_navigation, false);
        return;
    }
    for (const std::string& device : serial_io::list_serial_devices())
        ui_dialog_add_row(open_dialog, navigation_serial_device, device.c_str(), 0);
    for (const uint32_t baud : serial_io::supported_bauds)
        ui_dialog_add_row(open_dialog, navigation_baud_combo, std::to_string(baud).c_str(), baud);
    ui_dialog_select_row(open_dialog, navigation_baud_combo, 0);
    for (const ProtocolRow& row : protocol_rows)
        ui_dialog_add_row(open_dialog, navigation_protocol_combo, row.text, row.protocol);
    show_protocol(protocol_row_nmea);
    ui_dialog_enable(open_dialog, navigation_protocol_combo, false);
    ui_dialog_enable(open_dialog, navigation_usb_combo, false);
    ui_dialog_enable(open_dialog, navigation_navigate_button, false);
    ui_dialog_check(open_dialog, navigation_serial_option, true);
    ui_dialog_check(open_dialog, navigation_log_check, is_nmea_log_enabled());
    ui_dialog_focus(open_dialog, navigation_serial_device);
}

bool navigation_dialog_open() {
    return open_dialog != no_dialog && ui_dialog_is_open(open_dialog);
}

void set_receiver_search(ReceiverSearch search) {
    receiver_search = search;
}

} // namespace norvanta
