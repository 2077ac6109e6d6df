// Tests of DataSets and OrderedSets: membership and walks of nested sets,
// deletion of trees, the key compare of every field kind, and the search
// frames of the ordered sets with their near misses and self-compaction.
#include "core/object_sets.h"

#include <cmath>
#include <cstddef>
#include <limits>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/pair_list.h"
#include "core/strings.h"
#include "shell/errors.h"

namespace norvanta {
namespace {

// A record with the ownership header and keys of the kinds the sets are built on.
template <ObjectType Type>
struct Keyed {
    static constexpr ObjectType object_type = Type;
    ObjectId id;
    ObjectType type;
    ObjectId owner_id;
    ObjectType owner_type;
    ObjectId children;
    int32_t number; // FieldKind::integer
    double time;    // FieldKind::real
    char* name;     // FieldKind::byte_string
};

using Point = Keyed<ObjectType::NavPoint>;
using Mark = Keyed<ObjectType::Waypoint>;
using Other = Keyed<ObjectType::TrackPoint>;

int point_destructor_calls = 0;
void point_destructor(void*) {
    ++point_destructor_calls;
}

void set_up_store_once() {
    static const bool done = [] {
        object_store_create();
        set_obj_type<Point>();
        set_obj_destructor(ObjectType::NavPoint, point_destructor);
        set_obj_type<Mark>();
        set_obj_type<Other>();
        return true;
    }();
    (void)done;
}

class Sets : public ::testing::Test {
  protected:
    void SetUp() override {
        set_up_store_once();
        set_gblerr(ErrorCode::none);
    }
    void TearDown() override {
        for (ObjectId& handle : handles_)
            oset_delete(handle);
        set_gblerr(ErrorCode::none);
    }

    ObjectId point(double time) {
        ObjectId id = 0;
        cre_obj<Point>(&id)->time = time;
        return id;
    }
    ObjectId time_set() {
        return keep(ObjectType::NavPoint, FieldKind::real, offsetof(Point, time));
    }
    // A new OrderedSet that the fixture deletes after the test.
    ObjectId keep(ObjectType type, FieldKind kind, std::size_t offset) {
        ObjectId handle = 0;
        oset_create(0, 0, type, kind, offset, handle);
        handles_.push_back(handle);
        return handle;
    }
    ObjectId filled(ObjectId handle, const std::vector<ObjectId>& ids) {
        for (ObjectId id : ids)
            oset_insert(handle, id);
        return handle;
    }
    static std::vector<ObjectId> elements(ObjectId handle) {
        std::vector<ObjectId> all;
        for (int32_t i = 0; i < oset_count(handle); ++i)
            all.push_back(oset_at(handle, i));
        return all;
    }

  private:
    std::vector<ObjectId> handles_;
};

// ---- the compare ----

// The string compares themselves are tested with the strings; here each kind's routing.
TEST(FieldCompare, EveryKind) {
    const int32_t small = -5;
    const int32_t large = 7;
    const double low = 1.25;
    const double high = 2.5;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double day_a[2] = {20240101.5, 2460311.0};
    const double day_b[2] = {20240101.5, 2460312.0};
    const double day_c[2] = {20240102.0, 2460311.0};
    const double day_nan[2] = {nan, 2460311.0};
    const std::tuple<const char*, FieldKind, const void*, const void*, int> rows[] = {
        {"integer below", FieldKind::integer, &small, &large, 1},
        {"integer equal", FieldKind::integer, &large, &large, 0},
        {"integer_b below", FieldKind::integer_b, &small, &large, 1},
        {"id above", FieldKind::id, &large, &small, -1},
        {"real below", FieldKind::real, &low, &high, 1},
        {"real_b above", FieldKind::real_b, &high, &low, -1},
        {"real NaN key", FieldKind::real, &nan, &low, 0},
        {"julian second decides", FieldKind::julian, day_a, day_b, 1},
        {"julian first decides", FieldKind::julian, day_c, day_b, -1},
        {"julian NaN", FieldKind::julian, day_nan, day_b, 0},
        {"byte string case tie", FieldKind::byte_string, "abc", "ABC", -1},
        {"byte string null key", FieldKind::byte_string, nullptr, "abc", 1},
        {"wide string case tie", FieldKind::wide_string, L"abc", L"ABC", -1},
        {"no kind", FieldKind::none, &small, &large, 0},
    };
    for (const auto& [description, kind, key, element, expected] : rows) {
        EXPECT_EQ(field_compare(kind, key, element), expected) << description;
    }
}

// ---- DataSet ----

TEST_F(Sets, DataSetKeepsIdOrderDedupesAndNextSkipsNestedSets) {
    ObjectId set = 0;
    ds_create(set);
    ObjectId a = point(1);
    ObjectId nested = 0;
    ds_create(nested);
    ObjectId b = point(2);
    ds_add(set, ObjectType::NavPoint, b);
    ds_add(set, ObjectType::NavPoint, a);
    ds_add(set, ObjectType::NavPoint, b);
    ds_add(set, ObjectType::NavPoint, 0);
    EXPECT_EQ(ds_count(set, ObjectType::None), 2) << "a second add and id 0 are ignored";
    ds_add(set, ObjectType::Waypoint, b);
    ds_add_set(set, nested);
    EXPECT_EQ(ds_count(set, ObjectType::None), 4) << "one id under two types makes two pairs";
    EXPECT_EQ(ds_count(set, ObjectType::Waypoint), 1);
    ObjectId last = 0;
    ds_last_of_type(set, ObjectType::Mobj, last);
    EXPECT_EQ(last, nested);

    std::vector<ObjectId> seen;
    ObjectType type = ObjectType::None;
    for (ObjectId member = 0; ds_next(set, type, member), member != 0;)
        seen.push_back(member);
    EXPECT_EQ(seen, (std::vector<ObjectId>{a, b})) << "the nested set and b's second pair skipped";

    ds_remove(set, a);
    EXPECT_EQ(ds_count(set, ObjectType::NavPoint), 1);
    EXPECT_TRUE(exist_obj(ObjectType::NavPoint, a)) << "removal leaves the object alive";
    ObjectId destroyed = set;
    ds_destroy(set);
    EXPECT_EQ(set, 0);
    EXPECT_TRUE(exist_obj(ObjectType::NavPoint, b)) << "destroy leaves the members alive";
    EXPECT_EQ(ds_count(destroyed, ObjectType::None), 0);
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
}

TEST_F(Sets, WalkTakesTheLastNestedSetFirstAndTheRootLast) {
    // root holds a, first and second; first holds b and third; second holds c; third holds d.
    ObjectId root = 0, first = 0, second = 0, third = 0;
    for (ObjectId* set : {&root, &first, &second, &third})
        ds_create(*set);
    ObjectId a = point(1), b = point(2), c = point(3), d = point(4);
    ds_add(root, ObjectType::NavPoint, a);
    ds_add_set(root, first);
    ds_add_set(root, second);
    ds_add(first, ObjectType::NavPoint, b);
    ds_add_set(first, third);
    ds_add(second, ObjectType::NavPoint, c);
    ds_add(third, ObjectType::NavPoint, d);

    // Breadth first stack: root, first, second, third; taken from the end.
    std::vector<ObjectId> members;
    std::vector<ObjectId> holders;
    PairList* stack = nullptr;
    ObjectId member = 0;
    ObjectId holder = 0;
    void* address = nullptr;
    while (ds_walk(root, ObjectType::NavPoint, &holder, member, &address, stack), member != 0) {
        members.push_back(member);
        holders.push_back(holder);
        EXPECT_EQ(static_cast<Point*>(address)->id, member);
    }
    pair_list_free(stack);
    EXPECT_EQ(members, (std::vector<ObjectId>{d, c, b, a}));
    EXPECT_EQ(holders, (std::vector<ObjectId>{third, second, first, root}));
    std::vector<ObjectId> sets;
    while (ds_walk_sets(root, nullptr, member, nullptr, stack), member != 0)
        sets.push_back(member);
    pair_list_free(stack);
    EXPECT_EQ(sets, (std::vector<ObjectId>{third, first, second}));

    EXPECT_EQ(ds_count_tree(root, ObjectType::NavPoint), 4);
    ObjectId found = 0;
    ds_find_holder(root, d, found);
    EXPECT_EQ(found, third);
    ds_find_holder(root, a, found);
    EXPECT_EQ(found, root);
    ds_find_holder(root, point(9), found);
    EXPECT_EQ(found, 0);
}

TEST_F(Sets, DeleteMembersWaitsForAClearErrorAndDeleteTreeClearsIt) {
    ObjectId root = 0, nested = 0, deeper = 0;
    for (ObjectId* set : {&root, &nested, &deeper})
        ds_create(*set);
    ObjectId a = point(1), b = point(2), c = point(3);
    ds_add(root, ObjectType::NavPoint, a);
    ds_add_set(root, nested);
    ds_add(nested, ObjectType::NavPoint, b);
    ds_add_set(nested, deeper);
    ds_add(deeper, ObjectType::NavPoint, c);
    ObjectId stale = point(4); // deleted elsewhere: passed over in silence
    ds_add(nested, ObjectType::NavPoint, stale);
    del_obj(ObjectType::NavPoint, stale);
    int calls = point_destructor_calls;

    set_gblerr(ErrorCode::invalid_file);
    ds_delete_members(root);
    set_gblerr(ErrorCode::none);
    EXPECT_TRUE(exist_obj(ObjectType::NavPoint, a)) << "members wait for a clear error";
    EXPECT_EQ(ds_count(root, ObjectType::None), 2) << "and are not forgotten undeleted";
    set_gblerr(ErrorCode::invalid_file);
    ds_delete_tree(root);
    EXPECT_EQ(current_error(), ErrorCode::none);
    for (ObjectId id : {a, b, c})
        EXPECT_FALSE(exist_obj(ObjectType::NavPoint, id)) << id;
    EXPECT_EQ(point_destructor_calls, calls + 3);
    EXPECT_FALSE(ds_exists(nested));
    EXPECT_FALSE(ds_exists(deeper));
    EXPECT_TRUE(ds_exists(root)) << "the root is emptied, not deleted";
    EXPECT_EQ(ds_count(root, ObjectType::None), 0);
}

// ---- OrderedSet ----

TEST_F(Sets, SearchNearMissesAreNearNotNeighbours) {
    std::vector<ObjectId> ids = {point(10), point(20), point(30), point(40), point(50)};
    ObjectId set = filled(time_set(), ids);
    const std::tuple<const char*, double, ObjectId, bool> rows[] = {
        {"below all gives position 1", 1, ids[1], false},
        {"above all gives the last", 99, ids[4], false},
        {"exact first", 10, ids[0], true},
        {"exact last", 50, ids[4], true},
        {"between 20 and 30 gives the upper", 25, ids[2], false},
    };
    for (const auto& [description, key, expected, expected_exact] : rows) {
        bool exact = !expected_exact;
        EXPECT_EQ(oset_search(set, &key, &exact), expected) << description;
        EXPECT_EQ(exact, expected_exact) << description;
    }
    ObjectId one = filled(time_set(), {point(7)});
    for (double key : {1.0, 7.0, 100.0}) {
        bool exact = false;
        EXPECT_EQ(oset_search(one, &key, &exact), oset_at(one, 0)) << "set of one, key " << key;
        EXPECT_EQ(exact, key == 7.0) << key;
    }
    double key = 1;
    EXPECT_EQ(oset_search(time_set(), &key, nullptr), 0) << "empty set";
}

TEST_F(Sets, FirstAfterAndLastBeforeAreStrict) {
    std::vector<ObjectId> ids = {point(10), point(20), point(20), point(20), point(30)};
    ObjectId set = filled(time_set(), ids);
    const std::tuple<const char*, double, ObjectId, ObjectId> rows[] = {
        {"on the run of equal keys", 20, ids[4], ids[0]},
        {"on the first key", 10, ids[1], 0},
        {"on the last key", 30, 0, ids[3]},
        {"below all", 5, ids[0], 0},
        {"above all", 35, 0, ids[4]},
        {"between", 15, ids[1], ids[0]},
    };
    for (const auto& [description, key, first_after, last_before] : rows) {
        EXPECT_EQ(oset_first_after(set, &key), first_after) << description;
        EXPECT_EQ(oset_last_before(set, &key), last_before) << description;
    }
    ObjectId two = filled(time_set(), {point(1), point(2)});
    double key = 1.5;
    EXPECT_EQ(oset_first_after(two, &key), oset_at(two, 1));
    EXPECT_EQ(oset_last_before(two, &key), oset_at(two, 0));
}

TEST_F(Sets, EqualKeysStayInIdOrderAndInsertingTwiceAddsOnce) {
    std::vector<ObjectId> ids = {point(5), point(5), point(5), point(1), point(9), point(5)};
    ObjectId set = filled(time_set(), {ids[5], ids[2], ids[4], ids[0], ids[3], ids[1]});
    EXPECT_EQ(elements(set),
              (std::vector<ObjectId>{ids[3], ids[0], ids[1], ids[2], ids[5], ids[4]}));
    // Both walks end at 0 past the last and the first element.
    std::vector<ObjectId> walked;
    for (ObjectId id = oset_next(set, 0); id != 0; id = oset_next(set, id))
        walked.push_back(id);
    EXPECT_EQ(walked, elements(set));
    std::vector<ObjectId> backwards;
    for (ObjectId id = oset_prev(set, 0); id != 0; id = oset_prev(set, id))
        backwards.push_back(id);
    EXPECT_EQ(backwards, (std::vector<ObjectId>{ids[4], ids[5], ids[2], ids[1], ids[0], ids[3]}));
    EXPECT_EQ(oset_next(time_set(), 0), 0) << "empty set";
    EXPECT_EQ(current_error(), ErrorCode::none);

    filled(set, {ids[1], ids[3], ids[4], 0});
    oset_insert(0, ids[0]);
    EXPECT_EQ(oset_count(set), 6) << "inserting twice adds once; id and handle 0 add nothing";
}

TEST_F(Sets, ASearchDropsDeletedObjects) {
    std::vector<ObjectId> ids;
    for (int i = 0; i < 9; ++i)
        ids.push_back(point(i));
    ObjectId set = filled(time_set(), ids);
    for (int i : {0, 3, 4, 8})
        del_obj(ObjectType::NavPoint, ids[static_cast<size_t>(i)]);
    EXPECT_EQ(oset_count(set), 9) << "deletion alone does not touch the set";
    double key = 5;
    bool exact = false;
    EXPECT_EQ(oset_search(set, &key, &exact), ids[5]);
    EXPECT_TRUE(exact);
    EXPECT_EQ(elements(set), (std::vector<ObjectId>{ids[1], ids[2], ids[5], ids[6], ids[7]}));
    EXPECT_EQ(current_error(), ErrorCode::none);

    // next and prev from 0 take the ends without a probe; a stale one is still never handed out.
    del_obj(ObjectType::NavPoint, ids[1]);
    del_obj(ObjectType::NavPoint, ids[7]);
    EXPECT_EQ(oset_next(set, 0), ids[2]);
    EXPECT_EQ(oset_prev(set, 0), ids[6]);
    EXPECT_EQ(oset_count(set), 3);
    EXPECT_EQ(oset_next(set, ids[1]), 0) << "next of a deleted id";
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
}

TEST_F(Sets, RemoveZeroesAndTheNextSearchCloses) {
    std::vector<ObjectId> ids = {point(1), point(2), point(2), point(3)};
    ObjectId set = filled(time_set(), ids);
    oset_remove(set, ids[2]);
    EXPECT_EQ(elements(set), (std::vector<ObjectId>{ids[0], ids[1], 0, ids[3]}));
    double key = 3; // its search probes the zeroed element
    bool exact = false;
    EXPECT_EQ(oset_search(set, &key, &exact), ids[3]);
    EXPECT_TRUE(exact);
    EXPECT_EQ(elements(set), (std::vector<ObjectId>{ids[0], ids[1], ids[3]}));
    ObjectId gone = point(2);
    del_obj(ObjectType::NavPoint, gone);
    oset_remove(set, gone);
    EXPECT_EQ(current_error(), ErrorCode::none) << "removing a missing object does nothing";
}

TEST_F(Sets, NextEqualWalksOneKeyAndClosestFindsANearOne) {
    std::vector<ObjectId> ids = {point(1), point(2), point(2), point(2), point(3)};
    ObjectId set = filled(time_set(), ids);
    double key = 2;
    std::vector<ObjectId> run;
    ObjectId id = 0;
    void* address = nullptr;
    while (oset_next_equal(set, &key, id, &address)) {
        run.push_back(id);
        EXPECT_EQ(static_cast<Point*>(address)->id, id);
    }
    EXPECT_EQ(run, (std::vector<ObjectId>{ids[1], ids[2], ids[3]}));
    double missing = 2.5;
    EXPECT_FALSE(oset_next_equal(set, &missing, id, nullptr));

    bool exact = true;
    ObjectId closest = 0;
    void* found = oset_closest(set, &missing, &exact, &closest, &address);
    EXPECT_EQ(closest, ids[4]);
    EXPECT_FALSE(exact);
    EXPECT_EQ(found, find_obj_adr(ObjectType::NavPoint, ids[4], nullptr));
}

TEST_F(Sets, ByteStringKeysOrderCaseBlindThenExact) {
    std::vector<ObjectId> ids;
    for (const char* name : {"beta", "Alpha", "alpha", "ALPHA", "gamma"}) {
        ObjectId id = 0;
        str_copy(name, cre_obj<Mark>(&id)->name);
        ids.push_back(id);
    }
    ObjectId set = keep(ObjectType::Waypoint, FieldKind::byte_string, offsetof(Mark, name));
    filled(set, ids);
    EXPECT_EQ(elements(set), (std::vector<ObjectId>{ids[3], ids[1], ids[2], ids[0], ids[4]}))
        << "upper case first on a case tie";
    bool exact = false;
    EXPECT_EQ(oset_search(set, "Alpha", &exact), ids[1]);
    EXPECT_TRUE(exact);
    EXPECT_EQ(oset_key(set, ids[1]), find_obj_adr<Mark>(ids[1])->name)
        << "the key of a string kind is the string pointer itself";
}

TEST_F(Sets, RebuildFromEachSourceWithAndWithoutOwner) {
    ObjectId owner = point(0);
    ObjectId data = 0;
    ds_create(data);
    std::vector<ObjectId> ids;
    for (int i = 0; i < 4; ++i) {
        ObjectId id = 0;
        auto* record = cre_obj<Other>(&id);
        record->number = 40 - i;
        record->owner_id = i % 2 ? owner : 0;
        ds_add(data, ObjectType::TrackPoint, id);
        ids.push_back(id);
    }
    ds_add(data, ObjectType::NavPoint, point(1)); // another type, left out
    const std::size_t offset = offsetof(Other, number);

    ObjectId from_data = 0;
    oset_fill(data, ObjectType::TrackPoint, FieldKind::integer, offset, from_data);
    EXPECT_EQ(elements(from_data), (std::vector<ObjectId>{ids[3], ids[2], ids[1], ids[0]}));
    oset_rebuild(from_data, owner);
    EXPECT_EQ(elements(from_data), (std::vector<ObjectId>{ids[3], ids[1]}));
    ObjectId from_set = 0;
    oset_fill_from(from_data, ObjectType::TrackPoint, FieldKind::integer, offset, from_set);
    EXPECT_EQ(elements(from_set), (std::vector<ObjectId>{ids[3], ids[1]}));
    ObjectId copy = oset_clone(from_set);
    EXPECT_NE(copy, from_set);
    EXPECT_EQ(elements(copy), elements(from_set));
    oset_delete(copy);
    EXPECT_EQ(copy, 0);

    // With an owner, a member already deleted ends the pass and the error goes.
    del_obj(ObjectType::TrackPoint, ids[1]);
    oset_rebuild(from_data, owner);
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_EQ(elements(from_data), std::vector<ObjectId>{}) << "ids[0] has another owner";

    ObjectId from_store = 0; // no other test makes TrackPoints
    oset_fill(0, ObjectType::TrackPoint, FieldKind::integer, offset, from_store);
    EXPECT_EQ(elements(from_store), (std::vector<ObjectId>{ids[3], ids[2], ids[0]}));
    for (ObjectId* handle : {&from_data, &from_set, &from_store})
        oset_delete(*handle);
    oset_rebuild(0, 0);
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
}

TEST_F(Sets, DeleteObjectsEmptiesTheSetOrKeepsIt) {
    std::vector<ObjectId> ids = {point(1), point(2), point(3)};
    ObjectId set = filled(time_set(), ids);
    int calls = point_destructor_calls;
    oset_delete_objects(set);
    EXPECT_EQ(set, 0);
    EXPECT_EQ(point_destructor_calls, calls + 3);
    for (ObjectId id : ids)
        EXPECT_FALSE(exist_obj(ObjectType::NavPoint, id)) << id;

    ObjectId kept = filled(time_set(), {point(1), point(2)});
    oset_delete_objects_keep_set(kept);
    EXPECT_EQ(oset_count(kept), 3) << "the stale ids and one more element stay until a search";
    double key = 1;
    EXPECT_EQ(oset_search(kept, &key, nullptr), 0);
    EXPECT_EQ(oset_count(kept), 0);
    ObjectId again = point(4);
    oset_insert(kept, again);
    EXPECT_EQ(elements(kept), (std::vector<ObjectId>{again}));
}

TEST_F(Sets, SearchesWhileErrorPendingFindNothing) {
    ObjectId set = filled(time_set(), {point(1)});
    ObjectId b = point(2);
    set_gblerr(ErrorCode::invalid_file);
    double key = 1;
    EXPECT_EQ(oset_search(set, &key, nullptr), 0);
    EXPECT_EQ(oset_first_after(set, &key), 0);
    EXPECT_EQ(oset_next(set, 0), 0);
    oset_insert(set, b);
    EXPECT_EQ(oset_count(set), 1);
    EXPECT_EQ(current_error(), ErrorCode::invalid_file);
}

} // namespace
} // namespace norvanta
