// The program's spine: start-up in its fixed order, the module start-up,
// worker threads and the way out.
#pragma once

#include <atomic>
#include <cstdint>

namespace norvanta {

// 1 from the moment the exit path starts; long waits poll it.
extern std::atomic<int32_t> ClosingFlag;

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
