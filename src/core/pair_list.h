// PairList: a growing array of (key, value) pairs behind one pointer variable.
//
// The header is allocated on first use, so a null variable is an empty list.
// Either word of a pair may hold an id, a number or an address, so the words
// are pointer-sized.
#pragma once

#include <cstdint>

namespace norvanta {

struct Pair {
    intptr_t key;
    intptr_t value;
};

struct PairList {
    int32_t count;    // elements in use
    int32_t capacity; // elements allocated
    int32_t spare;    // carried along by pair_list_clone
    Pair* pairs;
};

// Appends; the array grows by 1000 elements when capacity <= count + 4.
Pair* pair_list_add(PairList*& list, intptr_t key, intptr_t value);
Pair* pair_list_add_value(PairList*& list, intptr_t value);
// Index of the first pair with the key (and the value, when value is not 0); -1 if none.
int32_t pair_list_find(const PairList* list, intptr_t key, intptr_t value);
// Keeps pairs sorted by key; an equal (key, value) pair is returned, not added.
Pair* pair_list_insert_sorted(PairList*& list, intptr_t key, intptr_t value);
// Removes the last pair; false when empty. Either output may be null.
bool pair_list_pop(PairList* list, intptr_t* key, intptr_t* value);
// An index at or beyond the count, or a null list, stores heap_error (18).
void pair_list_get(const PairList* list, int32_t index, intptr_t* key, intptr_t* value);
void pair_list_set(PairList* list, int32_t index, intptr_t key, intptr_t value);
int32_t pair_list_count(const PairList* list);
void pair_list_set_count(PairList* list, int32_t count);
void pair_list_clear(PairList* list);
// Same count and same values, compared from the end; keys do not count. A
// null list equals nothing, not even itself.
bool pair_list_equal(const PairList* a, const PairList* b);
void pair_list_clone(const PairList* list, PairList*& out);
void pair_list_append_all(const PairList* source, PairList*& list);
void pair_list_free(PairList*& list);

} // namespace norvanta
