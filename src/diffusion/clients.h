// The diffusion clients: the lists of addresses that receive the NMEA text,
// and the sending itself. The same path serves a live fix and a replay tick;
// nothing ever comes back from a client.
//
// Two lists of slots hold every known client: ActiveClients, those the user
// selected, and InactiveClients, those known but not selected. A slot is a
// pair whose value is the client's SocketRecord address, 0 for a hole; a
// removal leaves a hole, so a slot number stays valid as long as its client
// stays, and a list never shrinks. Both lists are the UI thread's. Senders
// walk a third list, the send snapshot, which only refresh_snapshot replaces.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "core/pair_list.h"
#include "diffusion/sockets.h"
#include "navigation/nmea_writer.h"

namespace norvanta {

// Marks framing a stream: the writer's.
inline constexpr const auto& diffuse_start_mark = start_mark_text;
inline constexpr const auto& diffuse_stop_mark = stop_mark_text;

// The default clients: localhost, ports 7551 to 7559, the first two active.
inline constexpr const char* default_client_host = "localhost";
inline constexpr int32_t default_client_port_base = 7550;
inline constexpr int32_t default_active_clients = 2;
// Keys ..._ADR1 to ..._ADR9 of each family are read; higher ones never.
inline constexpr int32_t client_key_count = 9;
// The exit path waits this long after its STOP mark, sent or not.
inline constexpr int exit_stop_wait_ms = 50;

// 1 while clients receive (the check of the diffusion menu item). Any thread.
extern std::atomic<int32_t> DiffuseOn;

// Whether a CurrentTrack exists; the replay module registers its test. Until
// then there is none, and no mark leaves.
void set_current_track_test(bool (*test)());
bool current_track_exists();

// Fills both lists from the configuration and the defaults, takes the first
// snapshot and registers the handler of event 17. UI thread.
void load_client_lists();
// Makes a client and places it in the first hole of ActiveClients (from the
// last slot), or finds it in either list by its address. out_index is the
// slot (-1 on failure, with the invalid address box); out_text the client's
// address when it was made, null when found or refused. Either may be null.
void add_client(const char* host, int32_t port, int32_t* out_index, const char** out_text);
// Moves the client of a slot of ActiveClients to InactiveClients (to_active
// false) or back. An index outside the source list, or a hole, does nothing.
void move_client(int32_t index, bool to_active, int32_t* out_index, const char** out_text);
// Moves the active client of that address to InactiveClients.
void deactivate_client(const char* host, int32_t port);
// Navigation listens on this local UDP port: the program must not feed its
// own input, so localhost and 127.0.0.1 at that port leave the active list
// and event 17 is posted.
void drop_own_port(int32_t port);
// The handler of event 17: STOP mark, a new snapshot of ActiveClients, STOP
// mark again.
void refresh_snapshot();

// Sends the text, up to its terminator, to every client of the snapshot,
// from the last slot to the first. Any thread.
void diffuse_text(const char* text);
// The marks, when a CurrentTrack exists and DiffuseOn is set.
void diffuse_start();
void diffuse_stop();
// The exit path's STOP mark: then a wait, whether it went out or not.
void diffuse_stop_at_exit();
// The diffusion menu item's new state: announced by a mark while a
// CurrentTrack exists (whatever DiffuseOn was), then stored.
void set_diffusion(int32_t state);

// Looking in: the dialog, --list-clients and the tests. UI thread.
const PairList* active_clients();
const PairList* inactive_clients();
// The snapshot the senders walk now. Any thread; valid for the process's life.
const PairList* send_snapshot();
// Both lists with slot numbers and addresses, holes left out.
void print_client_lists(std::FILE* out);
// Empties both lists and the snapshot; the clients stay in the store. For
// tests that load the lists more than once in one process.
void forget_client_lists();

} // namespace norvanta
