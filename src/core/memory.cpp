// Allocation that cannot fail in the caller's hands: every request that the
// system refuses ends in out_of_memory(), which shows the box, logs and ends
// the process, so nothing above this file tests an allocation.
#include "core/memory.h"

#include <cstdlib>
#include <mutex>
#include <new>

#include "shell/errors.h"

namespace norvanta {

namespace {

// The C allocator may answer a request of 0 bytes with null, which would read
// as a refusal; one byte is asked for instead so that null always means "no memory".
std::size_t at_least_one(std::size_t size) {
    return size ? size : 1;
}

// The scratch block has one owner at a time by contract; the mutex only keeps
// its bookkeeping sound when two threads happen to ask for it.
struct ScratchBlock {
    std::mutex guard;
    void* block = nullptr;
    std::size_t size_bytes = 0; // the last size asked for; the block holds 2 more
};

ScratchBlock& scratch() {
    static ScratchBlock instance;
    return instance;
}

// The margin past the asked size that the scratch block is given, so that a
// caller may end what it writes with a terminator or two.
constexpr std::size_t scratch_margin_bytes = 2;

} // namespace

void* checked_malloc(std::size_t size) {
    void* block = std::malloc(at_least_one(size));
    if (!block) out_of_memory();
    return block;
}

void* checked_calloc(std::size_t size) {
    void* block = std::calloc(1, at_least_one(size));
    if (!block) out_of_memory();
    return block;
}

void* checked_realloc(void* block, std::size_t size) {
    void* grown = std::realloc(block, at_least_one(size));
    if (!grown) out_of_memory();
    return grown;
}

void release_block(void* block) {
    std::free(block);
}

void install_new_handler() {
    std::set_new_handler([] { out_of_memory(); });
}

std::size_t realloc_rounded_size(std::size_t size) {
    if (size <= realloc_exact_limit_bytes) return size;
    return ((size + realloc_slack_bytes) / realloc_step_bytes + 1) * realloc_step_bytes;
}

void* get_loc_mem(std::size_t size) {
    ScratchBlock& state = scratch();
    std::lock_guard<std::mutex> lock(state.guard);
    if (!state.block || size > state.size_bytes) {
        std::free(state.block);
        state.block = nullptr;
        state.block = checked_malloc(size + scratch_margin_bytes);
        state.size_bytes = size;
    }
    return state.block;
}

} // namespace norvanta
