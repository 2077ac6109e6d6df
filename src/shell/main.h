// The program's spine: start-up in its fixed order, the module start-up,
// worker threads and the way out.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>

#include "shell/command_line.h"

namespace norvanta {

// 1 from the moment the exit path starts; long waits poll it.
extern std::atomic<int32_t> ClosingFlag;

// Status of a process that failed to start, and of one whose error log could
// not even be named.
inline constexpr int fatal_init_status = 1;
inline constexpr int log_path_failure_status = -1;

// Called by start_up once the command line is walked, before the message
// loop: the program may report what it could not do with it.
using CommandLineReport = void (*)(const CommandLine& line);

// Sets ProgramDir from the running executable.
void locate_program();
// Builds the menu bar and sets its start: the raw phase log item gray for
// good, navigation and both logs unchecked, diffusion checked.
void build_main_menu();
// Brings every module up, makes the window and its menu, walks the tokens
// and runs the message loop. Returns the loop's code, although the process
// normally ends in exit_path first. SIGINT and SIGTERM close the window.
int start_up(std::span<const char* const> tokens, CommandLineReport report);
// Brings every module up in its order; leaves the verdict in gblerr.
void init_modules();
// Shows the start-up failure box, logs "Erreur d'init : %d", ends the process.
[[noreturn]] void fatal_init_error();
// STOP mark, navigation stop without join, paged store closed, process ended.
// status is the process's exit status (0 but after a failed start).
[[noreturn]] void exit_path(int status = 0);

// Runs function(data) on a detached thread, or inline when MONOTHREAD is set
// (the function then receives its own address in place of its data).
void start_worker(void (*function)(void*), void* data);
// Sleeps, at least 1 ms.
void thread_sleep(int milliseconds);

} // namespace norvanta
