// What the benchmarks that load files share: the modules brought up once, as
// the program does at start, and the process's peak resident memory.
#pragma once

#include <sys/resource.h>

#include "shell/errors.h"
#include "shell/main.h"

namespace norvanta::bench {

inline double peak_resident_mib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

inline bool modules_ready() {
    static const bool ready = [] {
        locate_program();
        init_modules();
        return !error_pending();
    }();
    return ready;
}

} // namespace norvanta::bench
