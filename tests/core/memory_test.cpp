// Allocation: the rounding of growing arrays, the owned-variable helpers, the
// scratch block, and the way out when the system refuses memory.
#include "core/memory.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <tuple>

#include <gtest/gtest.h>

#include "support/test_home.h"

// Under a sanitizer a refused allocation must still come back as null, so that
// the death tests see our way out and not the sanitizer's report.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NORVANTA_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NORVANTA_SANITIZED 1
#endif
#endif

#if defined(NORVANTA_SANITIZED)
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
    return "allocator_may_return_null=1";
}
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

namespace norvanta {
namespace {

TEST(Memory, ReallocRoundsAboveOneKilobyte) {
    const std::tuple<const char*, std::size_t, std::size_t> rows[] = {
        {"nothing stays nothing", 0, 0},
        {"1024 is the last exact size", 1024, 1024},
        {"1025 is the first rounded size", 1025, 4096},
        {"3995 plus the slack still fits one step", 3995, 4096},
        {"3996 plus the slack reaches a step: the next one is taken", 3996, 8192},
        {"8092 plus the slack is 8192: three steps", 8092, 12288},
    };
    for (const auto& [description, requested, expected] : rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(realloc_rounded_size(requested), expected);
    }
}

TEST(Memory, OwnedVariablesKeepOrReplaceTheirBlock) {
    unsigned char* block = nullptr;
    realloc_mem(block, 10);
    for (int i = 0; i < 10; ++i)
        block[i] = static_cast<unsigned char>(i + 1);
    realloc_mem(block, 2000); // past the exact limit
    realloc_mem(block, 9000); // and past a step
    bool intact = true;
    for (int i = 0; i < 10; ++i)
        intact = intact && block[i] == i + 1;
    EXPECT_TRUE(intact) << "content lost across growth";
    block[realloc_rounded_size(9000) - 1] = 0xAB; // the rounded size is there (ASan checks)
    free_mem(block);
    EXPECT_EQ(block, nullptr);
    free_mem(block); // freeing nothing is allowed

    int* numbers = nullptr;
    alloc_mem(numbers, 4 * sizeof(int));
    numbers[3] = 7;
    alloc_zero_mem(numbers, 64 * sizeof(int)); // frees the old block: LeakSanitizer would say
    bool zeroed = true;
    for (int i = 0; i < 64; ++i)
        zeroed = zeroed && numbers[i] == 0;
    EXPECT_TRUE(zeroed);
    free_mem(numbers);
}

TEST(Memory, ScratchBlockOnlyGrows) {
    auto* first = static_cast<unsigned char*>(get_loc_mem(100));
    std::memset(first, 0x5A, 102); // two bytes beyond the request belong to the caller
    EXPECT_EQ(get_loc_mem(100), first) << "an equal request must reuse the block";
    EXPECT_EQ(get_loc_mem(10), first) << "a smaller request must reuse the block";
    auto* grown = static_cast<unsigned char*>(get_loc_mem(5000));
    std::memset(grown, 0x5A, 5002);
    EXPECT_EQ(get_loc_mem(4000), grown) << "the block does not shrink back";
}

// Past the end of anything the system will give, even with overcommit.
constexpr std::size_t impossible_bytes = SIZE_MAX / 2;

TEST(MemoryDeathTest, RefusedAllocationEndsTheProcessCleanly) {
    testing::TestHome home;
    home.make_current();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT({ [[maybe_unused]] void* volatile block = checked_malloc(impossible_bytes); },
                ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            char* block = nullptr;
            realloc_mem(block, impossible_bytes);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(MemoryDeathTest, OperatorNewTakesTheSameWayOut) {
    // A sanitizer's operator new ends the process without calling the handler.
    if (sanitized) GTEST_SKIP() << "the sanitizer replaces operator new";
    testing::TestHome home;
    home.make_current();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            install_new_handler();
            [[maybe_unused]] void* volatile block = ::operator new(impossible_bytes);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace norvanta
