// The diffusion clients: the active and inactive lists, the snapshot the
// senders walk, and the sending with its marks.
//
// The snapshot is the one structure shared between threads: the UI thread
// replaces it at event 17 while a sender (the UI thread at a tick, the load
// thread with its STOP mark) may be walking the old one. A snapshot is an
// immutable copy published through an atomic pointer; a replaced one is
// retired, never freed, so a walker that loaded the old pointer keeps valid
// memory for as long as it needs. The retired copies stay reachable from a
// list of their own. Each refresh retires at most one small copy, and only
// when the active list has changed since the last one.
#include "diffusion/clients.h"

#include <cstring>
#include <string>
#include <vector>

#include "core/memory.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "shell/events.h"
#include "shell/main.h"

namespace norvanta {

std::atomic<int32_t> DiffuseOn{1};

namespace {

constexpr int32_t no_slot = -1;
constexpr const char* active_key_format = "ACTIVE_NMEA_UDP_DIFFUSE_ADR%d";
constexpr const char* inactive_key_format = "INACTIVE_NMEA_UDP_DIFFUSE_ADR%d";
constexpr std::size_t key_capacity = 48;
// "%95s %d": the host ends at the first blank and holds at most 95 characters.
constexpr const char* client_line_format = "%95s %d";
static_assert(socket_host_capacity == 96);

PairList* ActiveClients = nullptr;
PairList* InactiveClients = nullptr;
std::atomic<const PairList*> SendSnapshot{nullptr};
// Never destroyed, so that the retired copies stay reachable to the end.
std::vector<PairList*>& retired_snapshots = *new std::vector<PairList*>;

std::atomic<bool (*)()> current_track_test{nullptr};

SocketRecord* client_at(const PairList* list, int32_t index) {
    return reinterpret_cast<SocketRecord*>(list->pairs[index].value);
}

// From the last slot to the first, the slot whose client has this address.
int32_t find_address(const PairList* list, const char* key) {
    if (!list) return no_slot;
    for (int32_t i = list->count - 1; i >= 0; --i) {
        const SocketRecord* client = client_at(list, i);
        if (client && client->address && std::strcmp(client->address, key) == 0) return i;
    }
    return no_slot;
}

// The first hole from the last slot takes the client; without one it is appended.
int32_t place_client(PairList*& list, SocketRecord* client) {
    for (int32_t i = pair_list_count(list) - 1; i >= 0; --i) {
        if (client_at(list, i) == nullptr) {
            list->pairs[i].value = reinterpret_cast<intptr_t>(client);
            return i;
        }
    }
    pair_list_add_value(list, reinterpret_cast<intptr_t>(client));
    return pair_list_count(list) - 1;
}

void show_invalid_address(const char* host) {
    std::string text = host ? host : "";
    text += "\n";
    text += localized("Nom de serveur ou\nadresse IP invalide",
                      "Invalid server name or\ninvalid IP adress");
    message_box(text.c_str(), localized("Adresse invalide", "Invalid address"));
}

// One key family: each line that gives a host and a port becomes a client;
// with deactivate, the slot number it comes back with is then moved out of
// ActiveClients, whichever list the number belonged to (kept on purpose: a
// repeated address thus deactivates whatever stands at that number).
void read_client_keys(const char* format, bool deactivate) {
    for (int i = 1; i <= client_key_count; ++i) {
        char key[key_capacity];
        std::snprintf(key, sizeof key, format, i);
        const char* value = config_get(key);
        if (!value) continue;
        char host[socket_host_capacity] = {};
        int port = 0;
        if (std::sscanf(value, client_line_format, host, &port) != 2) continue;
        int32_t index = no_slot;
        add_client(host, port, &index, nullptr);
        if (deactivate && index != no_slot) move_client(index, false, nullptr, nullptr);
    }
}

} // namespace

void set_current_track_test(bool (*test)()) {
    current_track_test.store(test);
}

bool current_track_exists() {
    bool (*test)() = current_track_test.load();
    return test && test();
}

// The order of the phases decides what wins: a configured inactive line comes
// first and can hold a default back; the defaults come next; an active line
// can only add an address, since add_client merely finds a known one.
void load_client_lists() {
    set_event_handler(event_send_list, refresh_snapshot);
    read_client_keys(inactive_key_format, true);
    for (int32_t i = 1; i <= client_key_count; ++i) {
        int32_t index = no_slot;
        add_client(default_client_host, default_client_port_base + i, &index, nullptr);
        if (i > default_active_clients && index != no_slot)
            move_client(index, false, nullptr, nullptr);
    }
    read_client_keys(active_key_format, false);
    refresh_snapshot();
}

void add_client(const char* host, int32_t port, int32_t* out_index, const char** out_text) {
    if (out_index) *out_index = no_slot;
    if (out_text) *out_text = nullptr;
    char* key = nullptr;
    socket_address_key(host, port, key);
    int32_t found = find_address(ActiveClients, key);
    if (found == no_slot) found = find_address(InactiveClients, key);
    free_mem(key);
    if (found != no_slot) {
        if (out_index) *out_index = found;
        return;
    }
    SocketRecord* client = nullptr;
    socket_create(host, port, socket_protocol_udp, client);
    if (!client) {
        show_invalid_address(host);
        return;
    }
    int32_t slot = place_client(ActiveClients, client);
    if (out_index) *out_index = slot;
    if (out_text) *out_text = client->address;
}

void move_client(int32_t index, bool to_active, int32_t* out_index, const char** out_text) {
    PairList*& source = to_active ? InactiveClients : ActiveClients;
    PairList*& target = to_active ? ActiveClients : InactiveClients;
    if (index < 0 || index >= pair_list_count(source)) return;
    SocketRecord* client = client_at(source, index);
    if (!client) return;
    source->pairs[index].value = 0;
    int32_t slot = place_client(target, client);
    if (out_index) *out_index = slot;
    if (out_text) *out_text = client->address;
}

void deactivate_client(const char* host, int32_t port) {
    char* key = nullptr;
    socket_address_key(host, port, key);
    int32_t found = find_address(ActiveClients, key);
    free_mem(key);
    if (found != no_slot) move_client(found, false, nullptr, nullptr);
}

void drop_own_port(int32_t port) {
    if (port == 0) return;
    deactivate_client("127.0.0.1", port);
    deactivate_client("localhost", port);
    post_event(event_send_list);
}

void refresh_snapshot() {
    diffuse_stop();
    const PairList* current = SendSnapshot.load(std::memory_order_acquire);
    if (!current || !pair_list_equal(current, ActiveClients)) {
        PairList* fresh = nullptr;
        pair_list_clone(ActiveClients, fresh);
        if (current) retired_snapshots.push_back(const_cast<PairList*>(current));
        SendSnapshot.store(fresh, std::memory_order_release);
    }
    diffuse_stop();
}

void diffuse_text(const char* text) {
    if (!text) return;
    const long length = static_cast<long>(std::strlen(text));
    const PairList* snapshot = SendSnapshot.load(std::memory_order_acquire);
    if (!snapshot) return;
    for (int32_t i = snapshot->count - 1; i >= 0; --i) {
        SocketRecord* client = client_at(snapshot, i);
        if (client && client->socket != 0 && client->bound == 0 &&
            client->protocol == socket_protocol_udp)
            socket_send(client, text, length);
    }
}

void diffuse_start() {
    if (current_track_exists() && DiffuseOn.load() != 0) diffuse_text(diffuse_start_mark);
}

void diffuse_stop() {
    if (current_track_exists() && DiffuseOn.load() != 0) diffuse_text(diffuse_stop_mark);
}

void diffuse_stop_at_exit() {
    diffuse_stop();
    thread_sleep(exit_stop_wait_ms);
}

void set_diffusion(int32_t state) {
    if (current_track_exists()) diffuse_text(state ? diffuse_start_mark : diffuse_stop_mark);
    DiffuseOn.store(state);
}

const PairList* active_clients() {
    return ActiveClients;
}

const PairList* inactive_clients() {
    return InactiveClients;
}

const PairList* send_snapshot() {
    return SendSnapshot.load(std::memory_order_acquire);
}

void print_client_lists(std::FILE* out) {
    const struct {
        const char* title;
        const PairList* list;
    } lists[] = {{"active clients", ActiveClients}, {"inactive clients", InactiveClients}};
    for (const auto& shown : lists) {
        std::fprintf(out, "%s:\n", shown.title);
        for (int32_t i = 0; i < pair_list_count(shown.list); ++i) {
            const SocketRecord* client = client_at(shown.list, i);
            if (client) std::fprintf(out, "  %d %s\n", static_cast<int>(i), client->address);
        }
    }
}

void forget_client_lists() {
    pair_list_free(ActiveClients);
    pair_list_free(InactiveClients);
    if (const PairList* current = SendSnapshot.exchange(nullptr))
        retired_snapshots.push_back(const_cast<PairList*>(current));
}

} // namespace norvanta
