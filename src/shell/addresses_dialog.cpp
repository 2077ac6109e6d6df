// The diffusion addresses dialog as a control table and the rules that
// react to its notifications. Each list row carries its client's slot
// number as item data: that number, not the row, is what the client lists
// know.
#include "shell/addresses_dialog.h"

#include <array>
#include <string>

#include "core/pair_list.h"
#include "diffusion/clients.h"
#include "platform/ui_dialog.h"
#include "shell/commands.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/events.h"

namespace norvanta {

namespace {

constexpr uint32_t label_style = 0x50000000;
constexpr uint32_t host_entry_style = 0x50000080;
constexpr uint32_t colon_style = 0x50000201;
constexpr uint32_t port_entry_style = 0x50002000; // digits only
constexpr uint32_t button_style = 0x50000000;
constexpr uint32_t title_style = 0x50000001;
constexpr uint32_t list_style = 0x50300942; // several rows selected at once
constexpr uint32_t close_button_style = 0x50000001;
constexpr uint32_t client_edge = 512;

constexpr UiControl control(UiControlKind kind, UiRect where, int32_t id, const char* french,
                            const char* english, uint32_t style, uint32_t extended = 0,
                            const UiFont* font = nullptr) {
    return UiControl{kind, where, id, french, english, font, style, extended, 0};
}

using K = UiControlKind;

constexpr std::array<UiControl, 12> addresses_controls = {{
    control(K::label, {10, 8, 160, 24}, 0, "Ajouter un client", "Add new client", label_style),
    control(K::entry, {10, 30, 428, 24}, addresses_host_entry, "", "", host_entry_style,
            client_edge),
    control(K::label, {438, 30, 10, 24}, 0, ":", ":", colon_style, 0, &value_font),
    control(K::entry, {446, 30, 52, 24}, addresses_port_entry, "", "", port_entry_style,
            client_edge),
    control(K::text_button, {506, 28, 28, 28}, addresses_add_button, "+", "+", button_style),
    control(K::label, {10, 62, 240, 24}, 0, "Non selectionn\xC3\xA9s", "Not selected", title_style),
    control(K::label, {294, 62, 240, 24}, 0, "Selectionn\xC3\xA9s", "Selected", title_style),
    control(K::list_box, {10, 86, 240, 120}, addresses_inactive_list, "", "", list_style,
            client_edge),
    control(K::list_box, {294, 86, 240, 120}, addresses_active_list, "", "", list_style,
            client_edge),
    control(K::text_button, {258, 112, 28, 28}, addresses_right_arrow, "->", "->", button_style),
    control(K::text_button, {258, 152, 28, 28}, addresses_left_arrow, "<-", "<-", button_style),
    control(K::text_button, {222, 218, 100, 28}, addresses_close_button, "Fermer", "Close",
            close_button_style),
}};

constexpr UiRect addresses_client = {100, 100, 544, 256};

// What Add reads of the two entries.
constexpr std::size_t host_capacity = 381;
constexpr std::size_t port_capacity = 11;
// The rows one arrow moves at most.
constexpr int32_t moved_rows_limit = 100;

UiDialog open_dialog = no_dialog;

// Each list from its last slot to its first, holes left out; the window
// does not sort, so the slots show in reverse order.
void fill_list(int32_t id, const PairList* clients) {
    for (int32_t slot = pair_list_count(clients) - 1; slot >= 0; --slot) {
        const auto* client = reinterpret_cast<const SocketRecord*>(clients->pairs[slot].value);
        if (!client) continue;
        ui_dialog_add_row(open_dialog, id, client->address ? client->address : "", slot);
    }
}

// An address already known answers with its slot and no text: it gets an
// empty row in this list, even when the slot is one of the other list's.
// Kept on purpose, as the program has always shown it; an arrow on such a
// row then moves whatever client holds that slot in this list.
void add_address() {
    const std::string host = ui_dialog_string(open_dialog, addresses_host_entry, host_capacity);
    const std::string port = ui_dialog_string(open_dialog, addresses_port_entry, port_capacity);
    if (host.empty() || port.empty()) return;
    int32_t slot = -1;
    const char* text = nullptr;
    refresh_cursor(cursor_busy);
    add_client(host.c_str(), entry_number(port.c_str()), &slot, &text);
    refresh_cursor(cursor_normal);
    if (slot < 0) return;
    ui_dialog_add_row(open_dialog, addresses_active_list, text ? text : "", slot);
    ui_dialog_set_text(open_dialog, addresses_host_entry, "");
}

// The selected rows of one list, walked from the last so that deleting a
// row leaves the numbers of those still to come as they were.
void move_selected(bool to_active) {
    const int32_t from = to_active ? addresses_inactive_list : addresses_active_list;
    const int32_t to = to_active ? addresses_active_list : addresses_inactive_list;
    std::array<int32_t, moved_rows_limit> rows{};
    const int32_t count = ui_dialog_selected_rows(open_dialog, from, rows.data(), moved_rows_limit);
    const int32_t top_row = ui_dialog_top_row(open_dialog, from);
    for (int32_t i = count - 1; i >= 0; --i) {
        const auto slot = static_cast<int32_t>(ui_dialog_row_data(open_dialog, from, rows[i]));
        int32_t new_slot = -1;
        const char* address = nullptr;
        move_client(slot, to_active, &new_slot, &address);
        if (new_slot < 0) continue;
        ui_dialog_delete_row(open_dialog, from, rows[i]);
        ui_dialog_add_row(open_dialog, to, address ? address : "", new_slot);
    }
    ui_dialog_set_top_row(open_dialog, from, top_row);
}

// The senders see the lists as they now are only through event 17.
void close_dialog() {
    ui_dialog_end(open_dialog);
    open_dialog = no_dialog;
    post_event(event_send_list);
}

void on_command(UiDialog, int32_t id, int32_t code) {
    if (code != ui_notify_clicked) return;
    switch (id) {
    case addresses_add_button:
        add_address();
        break;
    case addresses_right_arrow:
        move_selected(true);
        break;
    case addresses_left_arrow:
        move_selected(false);
        break;
    case addresses_close_button:
        close_dialog();
        break;
    default:
        break;
    }
}

// A colon typed in the host ends the host, so that an address can be typed
// in its usual form: the colon, just taken by the entry, is taken out again.
// It is the last character that goes, wherever the caret stood; kept on
// purpose, since a colon is typed at the end of a host.
void on_colon() {
    const std::size_t length = ui_dialog_text(open_dialog, addresses_host_entry, nullptr, 0);
    std::string host = ui_dialog_string(open_dialog, addresses_host_entry, length + 1);
    if (!host.empty()) host.pop_back();
    ui_dialog_set_text(open_dialog, addresses_host_entry, host.c_str());
    ui_dialog_focus(open_dialog, addresses_port_entry);
}

// Only the two entries and the window itself hear the keys; a list keeps
// its own.
void on_key(UiDialog, int32_t id, int32_t key) {
    if (id != 0 && id != addresses_host_entry && id != addresses_port_entry) return;
    if (key == ui_key_escape) {
        close_dialog();
    } else if (key == ui_key_tab) {
        ui_dialog_focus(open_dialog,
                        id == addresses_host_entry ? addresses_port_entry : addresses_host_entry);
    } else if (key == ui_key_colon && id == addresses_host_entry) {
        on_colon();
    }
}

void on_close(UiDialog) {
    close_dialog();
}

} // namespace

void open_addresses_dialog() {
    if (open_dialog != no_dialog) return;
    const UiDialogTemplate dialog{"Adresses de diffusion",   "Diffusion addresses",
                                  language_index(),          addresses_client,
                                  addresses_controls.data(), addresses_controls.size()};
    open_dialog = ui_dialog_open(dialog, {on_command, on_key, on_close});
    if (open_dialog == no_dialog) return;
    fill_list(addresses_active_list, active_clients());
    fill_list(addresses_inactive_list, inactive_clients());
    ui_dialog_focus(open_dialog, addresses_host_entry);
}

bool addresses_dialog_open() {
    return open_dialog != no_dialog && ui_dialog_is_open(open_dialog);
}

} // namespace norvanta
