// PairList: the growing array of (key, value) pairs that the store, the sets
// and the readers use for ids, numbers and addresses alike.
//
// The array grows by a thousand elements at a time, through realloc_mem, so
// that loading a track point by point reallocates rarely.
#include "core/pair_list.h"

#include <cstring>

#include "core/memory.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// Elements added to the array at each growth.
constexpr int32_t growth_elements = 1000;
// The array grows once fewer than this many free elements would remain.
constexpr int32_t growth_headroom_elements = 4;

PairList* make_header(PairList*& list) {
    if (!list) alloc_zero_mem(list, sizeof(PairList));
    return list;
}

void reserve_one(PairList& list) {
    if (list.capacity > list.count + growth_headroom_elements) return;
    list.capacity += growth_elements;
    realloc_mem(list.pairs, static_cast<std::size_t>(list.capacity) * sizeof(Pair));
}

// A negative index is refused like one past the count: reading or writing
// before the array would corrupt memory.
bool index_valid(const PairList* list, int32_t index) {
    return list && index >= 0 && index < list->count;
}

} // namespace

Pair* pair_list_add(PairList*& list, intptr_t key, intptr_t value) {
    PairList& header = *make_header(list);
    reserve_one(header);
    Pair& added = header.pairs[header.count++];
    added = Pair{key, value};
    return &added;
}

Pair* pair_list_add_value(PairList*& list, intptr_t value) {
    return pair_list_add(list, 0, value);
}

int32_t pair_list_find(const PairList* list, intptr_t key, intptr_t value) {
    if (!list) return -1;
    for (int32_t i = 0; i < list->count; ++i) {
        const Pair& pair = list->pairs[i];
        if (pair.key == key && (value == 0 || pair.value == value)) return i;
    }
    return -1;
}

Pair* pair_list_insert_sorted(PairList*& list, intptr_t key, intptr_t value) {
    PairList& header = *make_header(list);
    int32_t position = 0;
    for (; position < header.count; ++position) {
        Pair& pair = header.pairs[position];
        if (pair.key == key && pair.value == value) return &pair;
        if (pair.key > key) break;
    }
    reserve_one(header);
    std::memmove(&header.pairs[position + 1], &header.pairs[position],
                 static_cast<std::size_t>(header.count - position) * sizeof(Pair));
    header.pairs[position] = Pair{key, value};
    ++header.count;
    return &header.pairs[position];
}

bool pair_list_pop(PairList* list, intptr_t* key, intptr_t* value) {
    if (!list || list->count <= 0) return false;
    const Pair& last = list->pairs[--list->count];
    if (key) *key = last.key;
    if (value) *value = last.value;
    return true;
}

void pair_list_get(const PairList* list, int32_t index, intptr_t* key, intptr_t* value) {
    if (!index_valid(list, index)) {
        set_gblerr(ErrorCode::heap_error);
        return;
    }
    const Pair& pair = list->pairs[index];
    if (key) *key = pair.key;
    if (value) *value = pair.value;
}

void pair_list_set(PairList* list, int32_t index, intptr_t key, intptr_t value) {
    if (!index_valid(list, index)) {
        set_gblerr(ErrorCode::heap_error);
        return;
    }
    list->pairs[index] = Pair{key, value};
}

int32_t pair_list_count(const PairList* list) {
    return list ? list->count : 0;
}

// Truncation is the purpose; a count past the allocated elements, or below 0,
// is held to the storage so that no later access leaves the array.
void pair_list_set_count(PairList* list, int32_t count) {
    if (!list) return;
    if (count < 0) count = 0;
    if (count > list->capacity) count = list->capacity;
    list->count = count;
}

void pair_list_clear(PairList* list) {
    pair_list_set_count(list, 0);
}

bool pair_list_equal(const PairList* a, const PairList* b) {
    if (!a || !b) return false;
    if (a->count != b->count) return false;
    for (int32_t i = a->count - 1; i >= 0; --i)
        if (a->pairs[i].value != b->pairs[i].value) return false;
    return true;
}

void pair_list_clone(const PairList* list, PairList*& out) {
    PairList* copy = nullptr;
    if (list) {
        alloc_zero_mem(copy, sizeof(PairList));
        copy->count = list->count;
        copy->capacity = list->count;
        copy->spare = list->spare;
        const std::size_t bytes = static_cast<std::size_t>(list->count) * sizeof(Pair);
        alloc_mem(copy->pairs, bytes);
        if (bytes) std::memcpy(copy->pairs, list->pairs, bytes);
    }
    pair_list_free(out);
    out = copy;
}

void pair_list_append_all(const PairList* source, PairList*& list) {
    if (!source) return;
    // The count is taken first so that a list appended to itself doubles once;
    // pairs are read by index because adding may move the array.
    const int32_t count = source->count;
    for (int32_t i = 0; i < count; ++i) {
        const Pair pair = source->pairs[i];
        pair_list_add(list, pair.key, pair.value);
    }
}

void pair_list_free(PairList*& list) {
    if (!list) return;
    free_mem(list->pairs);
    free_mem(list);
}

} // namespace norvanta
