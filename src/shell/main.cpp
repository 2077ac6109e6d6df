// Start-up, the module start-up order, worker threads and the way out.
#include "shell/main.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/image_cache.h"
#include "core/paged_memory.h"
#include "diffusion/clients.h"
#include "diffusion/sockets.h"
#include "geodesy/tables.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "formats/gpx.h"
#include "formats/xml.h"
#include "geodesy/transforms.h"
#include "navigation/worker.h"
#include "platform/os.h"
#include "platform/ui.h"
#include "replay/conversion.h"
#include "replay/engine.h"
#include "shell/config.h"
#include "shell/dashboard.h"
#include "shell/errors.h"
#include "shell/julian.h"
#include "shell/menu.h"
#include "shell/window.h"
#include "version.h"

namespace norvanta {

std::atomic<int32_t> ClosingFlag{0};

namespace {

constexpr const char* error_log_tag = "QLMX";
// The start-up failure box is French whatever the language: it has no
// English form.
constexpr const char* init_failure_text = "Erreur lors de l'initialisation\nFin de l'application";
constexpr const char* init_failure_caption = "Erreur lors de l'initialisation";
constexpr const char* init_failure_log_format = "Erreur d'init : %d";
constexpr std::size_t log_text_capacity = 64;

// SIGINT and SIGTERM take the same way out as the window's close box, on the
// UI thread. The handler only writes one byte to a pipe (all it may safely
// do); a small thread reads the pipe and asks the UI thread to close the
// window. The signals are blocked in the thread that starts up, and so in
// every thread it starts, except the reading thread, which unblocks them for
// itself: a signal then interrupts nothing of the program's own work. A
// thread that a library started earlier may still take one, and the handler
// makes that harmless. The reading thread is the platform's delivery of
// signals, not one of the program's workers, so MONOTHREAD does not stop it.
int closing_pipe[2] = {-1, -1};

sigset_t closing_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

extern "C" void on_closing_signal(int) {
    int saved_errno = errno;
    const char byte = 1;
    [[maybe_unused]] ssize_t written = write(closing_pipe[1], &byte, 1);
    errno = saved_errno;
}

void signal_thread() {
    sigset_t set = closing_signals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    char byte = 0;
    for (;;) {
        ssize_t got = read(closing_pipe[0], &byte, 1);
        if (got == 1) break;
        if (got < 0 && errno == EINTR) continue;
        return;
    }
    ui_request_close();
}

// The handler is in place before the signals are blocked, so a program
// seen blocking them takes them the clean way.
void take_closing_signals() {
    if (pipe2(closing_pipe, O_CLOEXEC) != 0) return; // the signals keep their default action
    struct sigaction action = {};
    action.sa_handler = on_closing_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigset_t set = closing_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(signal_thread).detach();
}

} // namespace

void locate_program() {
    set_program_dir(os::executable_path().c_str());
}

// Nothing enables the raw phase log again: the item is never usable.
void build_main_menu() {
    build_menu(main_menu_table);
    ui_menu_enable(menu_raw_phase_log, false);
    ui_menu_check(menu_navigation, false);
    ui_menu_check(menu_navigation_log, false);
    ui_menu_check(menu_raw_phase_log, false);
    ui_menu_check(menu_diffusion, true);
}

// The modules come up in one fixed order; each registers its object types and
// tables. Steps that belong to modules the program does not have yet are
// named here so that each slots in at its number:
//   1 clear gblerr                      12 markup tag and entity tables
//   2 memory budget                     13 geodesy tables and their files
//   3 error log path, or exit -1        14 stop here if gblerr is set
//   4 object store, then types 25 34 52 15 GPS data types and waypoint icons
//   5 drawing types                     16 receiver links
//   6 file objects and their index      17 a hook that does nothing
//   7 field widths of the paged store   18 sentence keywords, NavPoint
//   8 paged memory and session file     19 file format keyword tables
//   9 fonts of the drawing modules      20 gray ramp of the image module
//  10 sockets                           21 month table
//  11 output drivers                    22 the WGS 84 datum
void init_modules() {
    // 1
    if (error_pending()) set_gblerr(ErrorCode::none);
    // 2
    compute_memory_budget();
    // 3: without a log the process cannot even report, so it ends in silence.
    log_set_path(error_log_tag);
    if (error_pending()) {
        std::fflush(nullptr);
        std::_Exit(log_path_failure_status);
    }
    // 4; types 34 and 52 come with their modules.
    object_store_create();
    set_pending_work_test(ui_work_pending);
    paged_memory_register();
    // 6
    file_objects_init();
    image_cache_register_type();
    // 7 is a constant table; 8
    load_image_cache();
    // 10
    socket_startup();
    // 12
    xml_init();
    // 13: every conversion ends in the dictionary, so the program cannot run without it.
    geodesy_register_types();
    transforms_register_types();
    geodesy_load();
    // 14
    if (error_pending()) return;
    // 15
    gps_model_init();
    // 16
    navigation_init();
    // 18: the keyword table is constant data.
    nav_point_register_type();
    replay_init();
    conversion_init();
    // 19
    gpx_init();
    // 21
    month_table_init();
    // 22
    geodesy_find_wgs84();
}

int start_up(std::span<const char* const> tokens, CommandLineReport report) {
    take_closing_signals();
    install_new_handler();
    locate_program();
    init_modules();
    if (error_pending()) fatal_init_error();
    create_main_window();
    if (error_pending()) fatal_init_error();
    // The backend keeps the window's handle; there is no accelerator table,
    // no control font and no dialog class to register without a toolkit.
    build_main_menu();
    create_dashboard();
    if (error_pending()) fatal_init_error();
    load_client_lists();
    CommandLine line;
    if (!tokens.empty()) {
        walk_command_line(tokens, line);
        if (error_pending()) fatal_init_error();
    }
    if (report) report(line);
    if (line.navigation_named)
        start_navigation(0, line.link_text.c_str(), static_cast<uint32_t>(line.speed_baud),
                         line.navigation_log);
    return ui_run_loop();
}

// The box says only that the start failed; what failed, when a module said
// so, goes to standard error as well, where a terminal user or a service's
// journal sees it.
void fatal_init_error() {
    ui_message_box(init_failure_text, init_failure_caption, ui_icon_hand);
    if (const char* note = start_failure_note())
        std::fprintf(stderr, "%s: %s\n", program_name, note);
    char text[log_text_capacity];
    std::snprintf(text, sizeof text, init_failure_log_format, static_cast<int>(current_error()));
    log_entry(text);
    exit_path(fatal_init_status);
}

// The process ends with _Exit: detached threads (the worker, a load, delayed
// posts) may still be running, and static destructors must not pull their
// data from under them. Output is flushed first.
void exit_path(int status) {
    ClosingFlag.store(1);
    diffuse_stop_at_exit();
    stop_navigation();
    ui_closing();
    save_session();
    close_paged_store();
    std::fflush(nullptr);
    std::_Exit(status);
}

void start_worker(void (*function)(void*), void* data) {
    if (monothread()) {
        function(reinterpret_cast<void*>(function));
        return;
    }
    std::thread(function, data).detach();
}

void thread_sleep(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds < 1 ? 1 : milliseconds));
}

} // namespace norvanta
