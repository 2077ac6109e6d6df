// The main window's command table, the About box and the open command.
#include "shell/commands.h"

#include <array>
#include <string>
#include <vector>

#include "diffusion/clients.h"
#include "navigation/worker.h"
#include "platform/ui.h"
#include "platform/ui_dialog.h"
#include "shell/addresses_dialog.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/events.h"
#include "shell/menu.h"
#include "shell/navigation_dialog.h"
#include "shell/window.h"

namespace norvanta {

std::atomic<int32_t> CommandInProgress{0};

namespace {

// The items whose check mark is the only storage of their setting: the mark
// is read, flipped, and the new state passed on.
bool flip_check_mark(int32_t id) {
    const bool now = !ui_menu_checked(id);
    ui_menu_check(id, now);
    return now;
}

void serve_open(int32_t, int32_t) {
    open_file_command();
}

void serve_quit(int32_t, int32_t) {
    main_window_close();
}

// Checking opens the dialog, which starts navigation or, cancelled, clears
// the mark again; unchecking stops what runs.
void serve_navigation(int32_t, int32_t) {
    if (flip_check_mark(menu_navigation))
        open_navigation_dialog();
    else
        stop_navigation();
}

void serve_navigation_log(int32_t, int32_t) {
    set_nmea_log(flip_check_mark(menu_navigation_log));
}

// The item is gray for good, so no hand reaches this; the switch stays for
// the receivers whose raw data it would log.
void serve_raw_log(int32_t, int32_t) {
    set_raw_log(flip_check_mark(menu_raw_phase_log));
}

void serve_addresses(int32_t, int32_t) {
    open_addresses_dialog();
}

void serve_diffusion(int32_t, int32_t) {
    set_diffusion(flip_check_mark(menu_diffusion) ? 1 : 0);
}

void serve_about(int32_t, int32_t) {
    ui_message_box(about_text(), about_caption(), ui_icon_user);
}

void serve_dashboard(int32_t id, int32_t code) {
    dashboard_command(id, code);
}

struct CommandRow {
    int32_t id;
    void (*serve)(int32_t id, int32_t code);
};

constexpr std::array<CommandRow, 18> command_table = {{
    {menu_open, serve_open},
    {menu_quit, serve_quit},
    {menu_navigation, serve_navigation},
    {menu_navigation_log, serve_navigation_log},
    {menu_raw_phase_log, serve_raw_log},
    {menu_addresses, serve_addresses},
    {menu_diffusion, serve_diffusion},
    {menu_about, serve_about},
    {dashboard_backward_button, serve_dashboard},
    {dashboard_forward_button, serve_dashboard},
    {dashboard_pause_button, serve_dashboard},
    {dashboard_stop_button, serve_dashboard},
    {dashboard_time_factor_validation, serve_dashboard},
    {dashboard_speed_validation, serve_dashboard},
    {dashboard_loop_button, serve_dashboard},
    {dashboard_speed_entry, serve_dashboard},
    {dashboard_time_factor_entry, serve_dashboard},
    {dashboard_file_combo, serve_dashboard},
}};

constexpr const char* about_french = "Diffusion de trames NMEA de navigation GPS\n"
                                     "Norvanta Version 1.0.2 du 19 d\xC3\xA9"
                                     "cembre 2007\n"
                                     "https://norvanta.org\n"
                                     "Ce programme est gratuit.";
constexpr const char* about_english = "NMEA sentences diffuser of GPS navigation\n"
                                      "Norvanta Version 1.0.2  19-DEC-2007\n"
                                      "https://norvanta.org\n"
                                      "This software is free of charge.";
constexpr const char* about_caption_text = "Norvanta v1.0.2";

constexpr const char* open_caption_french = "Chargement de fichier GPS";
constexpr const char* open_caption_english = "Load GPS file";
constexpr const char* open_filter_name = "GPS data files";
constexpr const char* open_filter_pattern =
    "*.trw;*.trt;*.trr;*.gpx;*.wpt;*.trk;*.rte;*.plt;*.pnt;*.evt;*.mglt;*.mglw;*.gtm;*.txt;"
    "*.nmea;*.trl;*.wpr;*.wpo;*.usr;*.trn;*.emt";
// The room the chooser's answer had: the directory, then each name, each
// with its terminator, and one more terminator at the end.
constexpr std::size_t open_answer_capacity = 100000;

std::string last_directory;

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {};
    return path.substr(0, slash == 0 ? 1 : slash);
}

std::size_t answer_bytes(const std::vector<std::string>& paths) {
    if (paths.size() == 1) return paths.front().size() + 1;
    std::size_t bytes = directory_of(paths.front()).size() + 2;
    for (const std::string& path : paths)
        bytes += path.size() - directory_of(path).size();
    return bytes;
}

} // namespace

void command(int32_t id, int32_t code) {
    CommandInProgress.store(1);
    for (const CommandRow& row : command_table) {
        if (row.id == id) {
            row.serve(id, code);
            break;
        }
    }
    CommandInProgress.store(0);
    post_event(event_draw);
}

// Kept on purpose: an answer too long for the chooser's buffer loads
// nothing at all, as the chooser then fails as a whole.
void open_file_command() {
    const UiFileRequest request{localized(open_caption_french, open_caption_english),
                                open_filter_name, open_filter_pattern, true,
                                last_directory.c_str()};
    const std::vector<std::string> paths = ui_choose_files(request);
    if (paths.empty() || answer_bytes(paths) > open_answer_capacity) return;
    last_directory = directory_of(paths.front());
    for (std::size_t i = paths.size(); i-- > 0;)
        load_path(paths[i].c_str());
}

const char* last_open_directory() {
    return last_directory.c_str();
}

int32_t entry_number(const char* text) {
    int64_t number = 0;
    for (const char* c = text; c && *c >= '0' && *c <= '9'; ++c) {
        number = number * 10 + (*c - '0');
        if (number > INT32_MAX) return INT32_MAX;
    }
    return static_cast<int32_t>(number);
}

const char* about_text() {
    return localized(about_french, about_english);
}

const char* about_caption() {
    return about_caption_text;
}

} // namespace norvanta
