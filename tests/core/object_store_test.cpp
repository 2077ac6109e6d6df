// Tests of the ObjectStore: ids, checked and silent look-ups, deletion with
// tombstones and re-entrant destructors, copies, walks, ownership links, the
// idle compaction, and concurrent use from several threads.
#include "core/object_store.h"

#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "shell/errors.h"
#include "support/fresh_process.h"

namespace norvanta {
namespace {

// A record of any type, with the ownership header and a few fields of its own.
template <ObjectType Type>
struct Record {
    static constexpr ObjectType object_type = Type;
    ObjectId id;
    ObjectType type;
    ObjectId owner_id;
    ObjectType owner_type;
    ObjectId children;
    int32_t value;
    ObjectId partner; // deleted by the destructor of DyingRecord
    int32_t spawn;    // objects the destructor of DyingRecord creates
    double weight;
};

// Each test takes types of its own, so that the tests stay independent in one process.
using PlainRecord = Record<ObjectType::Waypoint>;
using OtherRecord = Record<ObjectType::TrackPoint>;
using DyingRecord = Record<ObjectType::Track>;
using CopiedRecord = Record<ObjectType::KmlStyle>;
using PurgedRecord = Record<ObjectType::LinePoint>;
using WalkedRecord = Record<ObjectType::NavSample>;
using OwnerRecord = Record<ObjectType::Route>;
using ChildRecord = Record<ObjectType::TrackSegment>;
using ThreadRecord = Record<ObjectType::NavPoint>;
using UnusedRecord = Record<ObjectType::FreeLine>;

std::atomic<int> copy_hook_calls{0};
std::atomic<int> destructor_calls{0};

void dying_destructor(void* address) {
    ++destructor_calls;
    auto* record = static_cast<DyingRecord*>(address);
    for (int32_t i = 0; i < record->spawn; ++i) // grows the table under the dying object
        cre_obj<DyingRecord>();
    del_obj(ObjectType::Track, record->partner);
}

void copied_hook(const void* source, void* destination) {
    ++copy_hook_calls;
    static_cast<CopiedRecord*>(destination)->weight =
        static_cast<const CopiedRecord*>(source)->weight * 2;
}

bool pending_work = false;
int pending_after_calls = -1; // >= 0: work shows up after this many more tests
bool test_pending_work() {
    if (pending_after_calls > 0) {
        --pending_after_calls;
        return false;
    }
    return pending_after_calls == 0 || pending_work;
}

template <class... Records>
void register_types() {
    (set_obj_type<Records>(), ...);
}

void set_up_store_once() {
    static const bool done = [] {
        object_store_create();
        register_types<PlainRecord, OtherRecord, DyingRecord, CopiedRecord, PurgedRecord,
                       WalkedRecord, OwnerRecord, ChildRecord, ThreadRecord, UnusedRecord>();
        set_obj_destructor(ObjectType::Track, dying_destructor);
        set_obj_copy_hook(ObjectType::KmlStyle, copied_hook);
        set_pending_work_test(test_pending_work);
        return true;
    }();
    (void)done;
}

class ObjectStore : public ::testing::Test {
  protected:
    void SetUp() override {
        set_up_store_once();
        set_gblerr(ErrorCode::none);
        pending_work = false;
        pending_after_calls = -1;
    }
    void TearDown() override { set_gblerr(ErrorCode::none); }
};

TEST_F(ObjectStore, FirstIdOfTheProcessIsTwo) {
    // A fresh process, so that no other test has drawn ids before.
    testing::in_fresh_process([] {
        set_up_store_once();
        ObjectId first = 0;
        cre_obj<UnusedRecord>(&first);
        EXPECT_EQ(first, 2);
        EXPECT_EQ(draw_object_id(), 3);
    });
}

TEST_F(ObjectStore, RecordsAreZeroedAndIdsUniqueAcrossTypesAndNeverReused) {
    ObjectId waypoint = 0;
    auto* record = cre_obj<PlainRecord>(&waypoint);
    EXPECT_EQ(record->id, waypoint);
    EXPECT_EQ(record->type, ObjectType::Waypoint);
    EXPECT_EQ(record->value, 0);
    EXPECT_EQ(record->weight, 0.0);
    ObjectId deleted = waypoint;
    del_obj_adr(ObjectType::Waypoint, waypoint);
    ObjectId track_point = 0;
    cre_obj<OtherRecord>(&track_point);
    ObjectId another_waypoint = 0;
    cre_obj<PlainRecord>(&another_waypoint);
    EXPECT_GT(track_point, deleted);
    EXPECT_GT(another_waypoint, track_point);
    EXPECT_FALSE(exist_obj(ObjectType::Waypoint, track_point));
    EXPECT_FALSE(exist_obj(ObjectType::TrackPoint, another_waypoint));
    ObjectId drawn = draw_object_id();
    ObjectId next = 0;
    cre_obj<OtherRecord>(&next);
    EXPECT_EQ(next, drawn + 1) << "set handles draw from the same counter";
}

TEST_F(ObjectStore, LookupsOfIdZeroAndOfADeletedObject) {
    void* address = &address;
    EXPECT_EQ(get_obj_adr(ObjectType::Waypoint, 0, &address), nullptr);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(current_error(), ErrorCode::none) << "id 0 is looked up in silence";

    ObjectId id = 0;
    cre_obj<PlainRecord>(&id);
    ObjectId deleted = id;
    del_obj_adr(ObjectType::Waypoint, id);
    EXPECT_EQ(id, 0) << "del_obj_adr zeroes the caller's variable";
    EXPECT_FALSE(exist_obj(ObjectType::Waypoint, deleted));
    EXPECT_EQ(find_obj_adr(ObjectType::Waypoint, deleted, nullptr), nullptr);
    EXPECT_EQ(current_error(), ErrorCode::none) << "exist_obj and find_obj_adr stay silent";
    address = &address;
    EXPECT_EQ(get_obj_adr(ObjectType::Waypoint, deleted, &address), nullptr);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
    set_gblerr(ErrorCode::invalid_file);
    EXPECT_EQ(get_obj_adr(ObjectType::Waypoint, deleted, nullptr), nullptr);
    EXPECT_EQ(current_error(), ErrorCode::invalid_file) << "a pending error is not replaced";
}

TEST_F(ObjectStore, ErrorPendingMakesEverythingButFindSilent) {
    ObjectId id = 0;
    auto* record = cre_obj<PlainRecord>(&id);
    int32_t slots = obj_slot_count(ObjectType::Waypoint);
    set_gblerr(ErrorCode::invalid_file);
    ObjectId made = 77;
    void* address = &made;
    EXPECT_EQ(cre_obj(ObjectType::Waypoint, &made, &address), nullptr);
    EXPECT_EQ(made, 0);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(obj_slot_count(ObjectType::Waypoint), slots);
    EXPECT_EQ(get_obj_adr(ObjectType::Waypoint, id, nullptr), nullptr);
    EXPECT_FALSE(exist_obj(ObjectType::Waypoint, id));
    EXPECT_EQ(find_obj_adr(ObjectType::Waypoint, id, nullptr), record);
    ObjectId kept = id;
    del_obj_adr(ObjectType::Waypoint, id);
    EXPECT_EQ(id, 0) << "the variable is zeroed all the same";
    EXPECT_EQ(current_error(), ErrorCode::invalid_file);
    set_gblerr(ErrorCode::none);
    EXPECT_TRUE(exist_obj(ObjectType::Waypoint, kept)) << "deletion waits for a clear error";
}

TEST_F(ObjectStore, PurgeCompactsAtOneHundredTombstonesUnlessWorkWaits) {
    std::vector<ObjectId> ids(150);
    for (ObjectId& id : ids)
        cre_obj<PurgedRecord>(&id);
    const int32_t slots = obj_slot_count(ObjectType::LinePoint);
    for (int i = 0; i < 99; ++i)
        del_obj(ObjectType::LinePoint, ids[static_cast<size_t>(i)]);
    del_obj(ObjectType::LinePoint, ids[0]);
    EXPECT_EQ(current_error(), ErrorCode::none) << "deleting a tombstone is silent";
    purge_obj_tables();
    EXPECT_EQ(obj_slot_count(ObjectType::LinePoint), slots) << "99 tombstones, one counted once";

    del_obj(ObjectType::LinePoint, ids[99]);
    pending_work = true;
    purge_obj_tables();
    EXPECT_EQ(obj_slot_count(ObjectType::LinePoint), slots) << "work waiting at the start";
    pending_work = false;
    pending_after_calls = 11; // the start test, then ten copied slots
    purge_obj_tables();
    EXPECT_EQ(obj_slot_count(ObjectType::LinePoint), slots) << "work arriving mid-table";
    pending_after_calls = -1;
    purge_obj_tables();
    EXPECT_EQ(obj_slot_count(ObjectType::LinePoint), slots - 100) << "100 tombstones go";
    EXPECT_FALSE(exist_obj(ObjectType::LinePoint, ids[5]));
    for (int i = 100; i < 150; ++i)
        EXPECT_TRUE(exist_obj(ObjectType::LinePoint, ids[static_cast<size_t>(i)])) << i;
    ObjectId later = 0; // the compacted table takes new objects
    cre_obj<PurgedRecord>(&later);
    EXPECT_TRUE(exist_obj(ObjectType::LinePoint, later));
}

TEST_F(ObjectStore, NextObjWalksLiveObjectsInIdOrderThroughChanges) {
    std::vector<ObjectId> ids(8);
    for (ObjectId& id : ids)
        cre_obj<WalkedRecord>(&id);
    del_obj(ObjectType::NavSample, ids[0]);
    del_obj(ObjectType::NavSample, ids[2]);
    std::vector<ObjectId> seen;
    ObjectId created = 0;
    ObjectId id = 0;
    void* address = nullptr;
    while (next_obj(ObjectType::NavSample, id, &address)) {
        seen.push_back(id);
        EXPECT_EQ(static_cast<WalkedRecord*>(address)->id, id);
        if (id == ids[4]) {
            del_obj(ObjectType::NavSample, ids[4]); // the current one
            del_obj(ObjectType::NavSample, ids[5]); // one ahead
            cre_obj<WalkedRecord>(&created);
        }
    }
    EXPECT_EQ(id, 0);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(seen, (std::vector<ObjectId>{ids[1], ids[3], ids[4], ids[6], ids[7], created}));

    id = 0;
    EXPECT_EQ(next_obj(ObjectType::FreeLine, id, &address), nullptr) << "a type never used";
    EXPECT_EQ(next_obj(ObjectType::Printer, id, nullptr), nullptr) << "a type never registered";
    EXPECT_EQ(current_error(), ErrorCode::none);
}

TEST_F(ObjectStore, DestructorMayDeleteAndCreateObjectsOfItsOwnTable) {
    ObjectId partner = 0;
    cre_obj<DyingRecord>(&partner);
    ObjectId victim = 0;
    auto* record = cre_obj<DyingRecord>(&victim);
    record->partner = partner;
    record->spawn = 300; // enough to move the table's array
    int32_t slots = obj_slot_count(ObjectType::Track);
    int calls = destructor_calls;

    del_obj(ObjectType::Track, victim);
    EXPECT_EQ(destructor_calls, calls + 2);
    EXPECT_FALSE(exist_obj(ObjectType::Track, victim));
    EXPECT_FALSE(exist_obj(ObjectType::Track, partner));
    EXPECT_EQ(obj_slot_count(ObjectType::Track), slots + 300);
    EXPECT_EQ(current_error(), ErrorCode::none);
    int live = 0;
    for (ObjectId id = victim; next_obj(ObjectType::Track, id, nullptr);)
        ++live;
    EXPECT_EQ(live, 300) << "the spawned objects sit behind the victim";
}

TEST_F(ObjectStore, CopyKeepsTheIdAndRunsTheHook) {
    ObjectId source = 0;
    auto* from = cre_obj<CopiedRecord>(&source);
    from->value = 42;
    from->weight = 1.5;
    ObjectId destination = 0;
    auto* to = cre_obj<CopiedRecord>(&destination);
    int calls = copy_hook_calls;

    copy_obj(ObjectType::KmlStyle, source, destination);
    EXPECT_EQ(to->id, destination);
    EXPECT_EQ(to->value, 42);
    EXPECT_EQ(to->weight, 3.0) << "the hook ran after the copy";
    copy_obj(ObjectType::KmlStyle, source, source);
    EXPECT_EQ(copy_hook_calls, calls + 1) << "a copy onto itself does nothing";

    ObjectId gone = 0;
    cre_obj<CopiedRecord>(&gone);
    del_obj(ObjectType::KmlStyle, gone);
    copy_obj(ObjectType::KmlStyle, source, gone);
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
    EXPECT_EQ(copy_hook_calls, calls + 1);
}

TEST_F(ObjectStore, LinkObjOwnerFillsTheChildCollection) {
    ObjectId owner = 0;
    auto* owner_record = cre_obj<OwnerRecord>(&owner);
    ObjectId first = 0;
    ObjectId second = 0;
    cre_obj<ChildRecord>(&first)->value = 20;
    auto* second_record = cre_obj<ChildRecord>(&second);
    second_record->value = 10;
    link_obj_owner(ObjectType::Route, owner, ObjectType::TrackSegment, first);
    link_obj_owner(ObjectType::Route, owner, ObjectType::TrackSegment, second);
    EXPECT_EQ(ds_count(owner_record->children, ObjectType::TrackSegment), 2)
        << "a DataSet is made on first need";
    EXPECT_EQ(second_record->owner_id, owner);
    EXPECT_EQ(second_record->owner_type, ObjectType::Route);

    ObjectId keyed_owner = 0;
    auto* keyed = cre_obj<OwnerRecord>(&keyed_owner);
    cre_obj_children(ObjectType::Route, keyed_owner, ObjectType::TrackSegment, FieldKind::integer,
                     offsetof(ChildRecord, value));
    link_obj_owner(ObjectType::Route, keyed_owner, ObjectType::TrackSegment, first);
    link_obj_owner(ObjectType::Route, keyed_owner, ObjectType::TrackSegment, second);
    EXPECT_EQ(oset_at(keyed->children, 0), second) << "an OrderedSet sorted by the key";
    EXPECT_EQ(oset_at(keyed->children, 1), first);
    oset_delete(keyed->children);

    ObjectId gone = 0;
    cre_obj<ChildRecord>(&gone);
    del_obj(ObjectType::TrackSegment, gone);
    link_obj_owner(ObjectType::Route, owner, ObjectType::TrackSegment, gone);
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
    set_gblerr(ErrorCode::none);
    EXPECT_EQ(ds_count(owner_record->children, ObjectType::None), 2);
}

// Four threads make, find and delete their own objects in one shared table
// while a fifth compacts it; under ThreadSanitizer this must stay race-free.
TEST_F(ObjectStore, ConcurrentThreadsKeepToTheirOwnObjects) {
    constexpr int thread_count = 4;
    constexpr int rounds = 20;
    constexpr int objects_per_round = 300;
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};

    auto worker = [&](int tag) {
        std::vector<ObjectId> ids(objects_per_round);
        for (int round = 0; round < rounds; ++round) {
            for (ObjectId& id : ids)
                cre_obj<ThreadRecord>(&id)->value = tag;
            for (ObjectId id : ids) {
                auto* record = get_obj_adr<ThreadRecord>(id);
                if (!record || record->value != tag || record->id != id) ++failures;
            }
            for (ObjectId& id : ids) {
                ObjectId gone = id;
                del_obj_adr(ObjectType::NavPoint, id);
                if (find_obj_adr<ThreadRecord>(gone)) ++failures;
            }
        }
    };
    std::thread purger([&] {
        while (!done)
            purge_obj_tables();
    });
    std::vector<std::thread> workers;
    for (int tag = 1; tag <= thread_count; ++tag)
        workers.emplace_back(worker, tag);
    for (std::thread& thread : workers)
        thread.join();
    done = true;
    purger.join();

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(current_error(), ErrorCode::none);
    purge_obj_tables();
    ObjectId id = 0;
    EXPECT_EQ(next_obj(ObjectType::NavPoint, id, nullptr), nullptr) << "all deleted";
    EXPECT_LT(obj_slot_count(ObjectType::NavPoint), 100);
}

} // namespace
} // namespace norvanta
