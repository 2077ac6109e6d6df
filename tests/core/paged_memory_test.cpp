// The memory budget: how much more the process may take before pages leave
// memory, from the machine's figures and the configured ceiling.
#include "core/paged_memory.h"

#include <cstdint>
#include <tuple>

#include <gtest/gtest.h>

#include "shell/config.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

TEST(PagedMemory, BudgetIsTheSmallerOfFreeMemoryAndTheLimit) {
    const std::tuple<const char*, int64_t, int64_t, int64_t, int, int64_t> rows[] = {
        {"a large machine: the ceiling less the working set", 8000, 6000, 100, 1000, 900},
        {"little free memory: two thirds of it less 30", 1200, 300, 50, 1000, 170},
        {"a small machine: two thirds of the total is the limit", 600, 600, 100, 1000, 300},
        {"over the limit already: negative", 1000, 1000, 700, 500, -200},
        {"two thirds taken after the product: 1001 gives 667", 1001, 100000, 0, 1000, 667},
        {"the same rounding on free memory: 1001 gives 637", 100000, 1001, 0, 1000, 637},
    };
    for (const auto& [description, total_mb, free_mb, working_set_mb, max_memory_mb, expected_mb] :
         rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(memory_budget_mb(total_mb, free_mb, working_set_mb, max_memory_mb), expected_mb);
    }
}

TEST(PagedMemory, ComputedBudgetIsKeptInBytes) {
    testing::TestHome home;
    home.make_current();
    compute_memory_budget();
    constexpr int64_t bytes_per_mb = int64_t{1} << 20;
    const int64_t budget = memory_budget_bytes();
    const int64_t working_set = working_set_bytes();
    EXPECT_EQ(budget % bytes_per_mb, 0) << "whole megabytes, shifted";
    EXPECT_EQ(working_set % bytes_per_mb, 0) << "whole megabytes, shifted";
    EXPECT_GT(working_set, 0) << "a running test has a working set";
    // Whatever the machine, the budget cannot pass the ceiling less what the
    // process already holds.
    EXPECT_LE(budget, int64_t{max_memory()} * bytes_per_mb - working_set);
}

} // namespace
} // namespace norvanta
