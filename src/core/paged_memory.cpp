// Paged memory: the memory budget that decides when pages leave memory.
#include "core/paged_memory.h"

#include <algorithm>
#include <atomic>

#include "platform/os.h"
#include "shell/config.h"

namespace norvanta {

namespace {

// Memory that the budget leaves to the rest of the machine, in megabytes.
constexpr int64_t free_memory_reserve_mb = 30;
constexpr int64_t bytes_per_mb = int64_t{1} << 20;

// Written at start-up and read by whichever thread touches a page.
std::atomic<int64_t> budget_bytes{0};
std::atomic<int64_t> working_bytes{0};

int64_t two_thirds(int64_t value) {
    return value * 2 / 3;
}

} // namespace

int64_t memory_budget_mb(int64_t total_mb, int64_t free_mb, int64_t working_set_mb,
                         int max_memory_mb) {
    const int64_t limit_mb = std::min(two_thirds(total_mb), int64_t{max_memory_mb});
    return std::min(two_thirds(free_mb) - free_memory_reserve_mb, limit_mb - working_set_mb);
}

void compute_memory_budget() {
    const os::MemoryFigures figures = os::memory_figures();
    const int64_t working_set_mb = static_cast<int64_t>(figures.working_set_mb);
    const int64_t budget_mb = memory_budget_mb(static_cast<int64_t>(figures.physical_total_mb),
                                               static_cast<int64_t>(figures.physical_free_mb),
                                               working_set_mb, max_memory());
    budget_bytes.store(budget_mb * bytes_per_mb, std::memory_order_relaxed);
    working_bytes.store(working_set_mb * bytes_per_mb, std::memory_order_relaxed);
}

int64_t memory_budget_bytes() {
    return budget_bytes.load(std::memory_order_relaxed);
}

int64_t working_set_bytes() {
    return working_bytes.load(std::memory_order_relaxed);
}

} // namespace norvanta
