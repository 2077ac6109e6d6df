// Paged memory: byte blocks whose pages may leave memory for swap files when
// the process has used up its memory budget.
//
// For now this holds the budget alone: how many more bytes the process may
// take before old pages must go, from the machine's memory figures and the
// configured ceiling.
#pragma once

#include <cstdint>

namespace norvanta {

// The budget in megabytes: the limit is two thirds of the physical total, but
// not above max_memory_mb; the budget is the smaller of two thirds of the free
// memory less 30 and the limit less the working set. Integer arithmetic
// throughout; the result is negative when the process is over its budget.
int64_t memory_budget_mb(int64_t total_mb, int64_t free_mb, int64_t working_set_mb,
                         int max_memory_mb);

// Reads the machine's figures and the configured ceiling, and keeps the budget
// and the working set, in bytes, for the accessors below.
void compute_memory_budget();
int64_t memory_budget_bytes();
int64_t working_set_bytes();

} // namespace norvanta
