// PairList: growth by a thousand, the checked accessors, pop, sorted
// insertion, equality and cloning.
#include "core/pair_list.h"

#include <cstdint>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "shell/errors.h"

namespace norvanta {
namespace {

class PairLists : public ::testing::Test {
  protected:
    void SetUp() override { gblerr.store(0); }
    void TearDown() override {
        pair_list_free(list);
        gblerr.store(0);
    }
    PairList* list = nullptr;
};

std::vector<intptr_t> keys_of(const PairList* list) {
    std::vector<intptr_t> keys;
    for (int32_t i = 0; i < pair_list_count(list); ++i)
        keys.push_back(list->pairs[i].key);
    return keys;
}

TEST_F(PairLists, GrowsByAThousandWhenFewerThanFiveRemain) {
    pair_list_add(list, 1, 1);
    EXPECT_EQ(list->capacity, 1000);
    while (pair_list_count(list) < 996)
        pair_list_add(list, pair_list_count(list) + 1, 0);
    EXPECT_EQ(list->capacity, 1000) << "996 elements still leave room for 4 more";
    pair_list_add(list, 997, 0);
    EXPECT_EQ(list->capacity, 2000) << "capacity 1000 <= 996 + 4 grows before the 997th";
    while (pair_list_count(list) < 5000)
        pair_list_add(list, pair_list_count(list) + 1, 0);
    bool intact = true;
    for (int32_t i = 0; i < 5000; ++i)
        intact = intact && list->pairs[i].key == i + 1;
    EXPECT_TRUE(intact) << "pairs lost across growth";
}

TEST_F(PairLists, FindMatchesKeyAndValueWhenGiven) {
    EXPECT_EQ(pair_list_find(list, 1, 0), -1) << "a null list is empty";
    pair_list_add(list, 5, 50);
    pair_list_add(list, 6, 60);
    pair_list_add(list, 5, 51);
    const std::tuple<const char*, intptr_t, intptr_t, int32_t> rows[] = {
        {"value 0 matches the first pair of the key", 5, 0, 0},
        {"a value picks its own pair", 5, 51, 2},
        {"a value that the key does not carry", 5, 60, -1},
        {"a key that is absent", 9, 0, -1},
    };
    for (const auto& [description, key, value, expected] : rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(pair_list_find(list, key, value), expected);
    }
}

TEST_F(PairLists, GetAndSetOutsideTheCountStoreHeapError) {
    pair_list_add(list, 1, 10);
    pair_list_add(list, 2, 20);
    const std::tuple<const char*, bool, int32_t> rows[] = {
        {"index equal to count", false, 2},
        {"index below zero", false, -1},
        {"null list", true, 0},
    };
    for (const auto& [description, null_list, index] : rows) {
        SCOPED_TRACE(description);
        PairList* target = null_list ? nullptr : list;
        gblerr.store(0);
        intptr_t key = -77;
        pair_list_get(target, index, &key, nullptr);
        EXPECT_EQ(current_error(), ErrorCode::heap_error);
        EXPECT_EQ(key, -77) << "outputs stay untouched";
        gblerr.store(0);
        pair_list_set(target, index, 5, 5);
        EXPECT_EQ(current_error(), ErrorCode::heap_error);
    }
    EXPECT_EQ(keys_of(list), (std::vector<intptr_t>{1, 2})) << "a refused set wrote nothing";
}

TEST_F(PairLists, PopTakesTheLastUntilEmpty) {
    EXPECT_FALSE(pair_list_pop(list, nullptr, nullptr)) << "a null list is empty";
    pair_list_add(list, 1, 10);
    pair_list_add(list, 2, 20);
    intptr_t key = 0;
    intptr_t value = 0;
    EXPECT_TRUE(pair_list_pop(list, &key, &value));
    EXPECT_EQ(key, 2);
    EXPECT_EQ(value, 20);
    EXPECT_TRUE(pair_list_pop(list, nullptr, nullptr));
    key = -1;
    EXPECT_FALSE(pair_list_pop(list, &key, nullptr));
    EXPECT_EQ(key, -1);
}

TEST_F(PairLists, InsertSortedKeepsKeysAscendingWithoutDuplicates) {
    pair_list_insert_sorted(list, 5, 1);
    pair_list_insert_sorted(list, 2, 1);
    pair_list_insert_sorted(list, 9, 1);
    pair_list_insert_sorted(list, 5, 2); // same key, new value: after the other 5
    Pair* again = pair_list_insert_sorted(list, 5, 1);
    EXPECT_EQ(again, &list->pairs[1]) << "an equal pair is returned, not added twice";
    pair_list_insert_sorted(list, 1, 7);
    pair_list_insert_sorted(list, 10, 7);
    EXPECT_EQ(keys_of(list), (std::vector<intptr_t>{1, 2, 5, 5, 9, 10}));
    EXPECT_EQ(list->pairs[3].value, 2) << "a new pair goes before the first greater key";

    for (intptr_t k = 2000; k > 10; --k) // through a growth of the array
        pair_list_insert_sorted(list, k, 0);
    bool ascending = true;
    for (int32_t i = 1; i < pair_list_count(list); ++i)
        ascending = ascending && list->pairs[i - 1].key <= list->pairs[i].key;
    EXPECT_TRUE(ascending);
    EXPECT_EQ(pair_list_count(list), 6 + 1990);
}

TEST_F(PairLists, EqualComparesValuesOnly) {
    PairList* other = nullptr;
    pair_list_add(list, 1, 100);
    pair_list_add(list, 2, 200);
    pair_list_add(other, 8, 100);
    pair_list_add(other, 9, 200);
    EXPECT_TRUE(pair_list_equal(list, other)) << "keys do not count";
    pair_list_set(other, 0, 8, 101);
    EXPECT_FALSE(pair_list_equal(list, other)) << "the first value differs";
    pair_list_set(other, 0, 8, 100);
    pair_list_add(other, 3, 300);
    EXPECT_FALSE(pair_list_equal(list, other)) << "counts differ";
    PairList* none = nullptr;
    EXPECT_FALSE(pair_list_equal(none, none)) << "a null list equals nothing, not even itself";
    EXPECT_FALSE(pair_list_equal(list, none));
    pair_list_free(other);
}

TEST_F(PairLists, CloneHasExactCapacityAndStandsAlone) {
    for (intptr_t k = 1; k <= 3; ++k)
        pair_list_add(list, k, k * 10);
    list->spare = 42;
    PairList* copy = nullptr;
    pair_list_add(copy, 99, 99); // what the variable held is replaced
    pair_list_clone(list, copy);
    EXPECT_EQ(copy->capacity, 3);
    EXPECT_EQ(copy->spare, 42);
    EXPECT_EQ(keys_of(copy), keys_of(list));
    pair_list_add(copy, 4, 40); // a full clone grows on the next add
    EXPECT_EQ(copy->capacity, 1003);
    pair_list_clone(nullptr, copy);
    EXPECT_EQ(copy, nullptr);
}

TEST_F(PairLists, AppendAllAndTruncation) {
    PairList* source = nullptr;
    pair_list_add(source, 1, 1);
    pair_list_add(source, 2, 2);
    pair_list_append_all(source, list);
    pair_list_append_all(list, list); // appending a list to itself doubles it once
    EXPECT_EQ(keys_of(list), (std::vector<intptr_t>{1, 2, 1, 2}));
    pair_list_free(source);

    pair_list_set_count(list, 1);
    EXPECT_EQ(keys_of(list), (std::vector<intptr_t>{1}));
    pair_list_set_count(list, list->capacity + 5);
    EXPECT_EQ(pair_list_count(list), list->capacity) << "held to the storage";
    pair_list_clear(list);
    EXPECT_EQ(pair_list_count(list), 0);
}

} // namespace
} // namespace norvanta
