// Allocation that cannot fail in the caller's hands.
//
// An owned buffer is a pointer variable passed by reference: each function
// frees or replaces what the variable holds and writes the new block back, and
// a null variable means no buffer. When the system refuses memory the process
// ends through out_of_memory(), so callers never test an allocation.
#pragma once

#include <cstddef>

namespace norvanta {

// The checked primitives behind the typed helpers below.
void* checked_malloc(std::size_t size);
void* checked_calloc(std::size_t size);
void* checked_realloc(void* block, std::size_t size);
void release_block(void* block);

// Routes a failing operator new to out_of_memory() as well, so that a
// standard container that cannot grow ends the process the same way. Start-up
// calls it once, before anything allocates in earnest.
void install_new_handler();

// Growing arrays reallocate only about once per 4096 bytes: a request above
// 1024 bytes becomes ((size + 100) / 4096 + 1) * 4096, smaller ones stand.
inline constexpr std::size_t realloc_exact_limit_bytes = 1024;
inline constexpr std::size_t realloc_slack_bytes = 100;
inline constexpr std::size_t realloc_step_bytes = 4096;
std::size_t realloc_rounded_size(std::size_t size);

template <class T>
void free_mem(T*& variable) {
    if (variable) {
        release_block(const_cast<void*>(static_cast<const void*>(variable)));
        variable = nullptr;
    }
}

// Frees what the variable holds, then allocates size bytes, uninitialised.
template <class T>
T* alloc_mem(T*& variable, std::size_t size) {
    free_mem(variable);
    variable = static_cast<T*>(checked_malloc(size));
    return variable;
}

// The same, zeroed.
template <class T>
T* alloc_zero_mem(T*& variable, std::size_t size) {
    free_mem(variable);
    variable = static_cast<T*>(checked_calloc(size));
    return variable;
}

// Keeps the content, with the rounding of realloc_rounded_size.
template <class T>
T* realloc_mem(T*& variable, std::size_t size) {
    variable = static_cast<T*>(checked_realloc(variable, realloc_rounded_size(size)));
    return variable;
}

// One process-wide scratch block for short-lived use, with no owner. It only
// grows, and it is not reentrant: one user at a time.
void* get_loc_mem(std::size_t size);

} // namespace norvanta
