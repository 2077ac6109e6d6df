// DataSet and OrderedSet: the two collections of ids on the ObjectStore.
//
// A DataSet is the bag of what one file or source yields: (id, type) pairs
// sorted by id, possibly nesting other DataSets (members of type Mobj). An
// OrderedSet is an index of the ids of one type, sorted by a key field read
// from the objects at each comparison, then by id. Deleting an object does not
// touch the sets that hold it: the next search finds the stale entry and
// compacts the set.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/object_store.h"
#include "core/pair_list.h"

namespace norvanta {

// ---- DataSet ----

void ds_create(ObjectId& out_set);
bool ds_exists(ObjectId set);
void ds_add(ObjectId set, ObjectType member_type, ObjectId member);
void ds_add_set(ObjectId set, ObjectId child_set);
void ds_remove(ObjectId set, ObjectId member);
void ds_clear(ObjectId set);
void ds_delete_members(ObjectId set);
void ds_destroy(ObjectId& set);
void ds_delete_tree(ObjectId set);
// Next member after member (0 starts) in id order, nested sets skipped; 0 at the end.
void ds_next(ObjectId set, ObjectType& out_type, ObjectId& member);
// Next member of the type above member; 0 at the end. With out_address, the
// member is looked up (checked) and its address written and returned;
// without it nothing is looked up and the result is null.
void* ds_next_of_type(ObjectId set, ObjectType type, ObjectId& member, void** out_address);
void* ds_next_of_type(Mobj* set, ObjectType type, ObjectId& member, void** out_address);
void ds_last_of_type(ObjectId set, ObjectType type, ObjectId& out_member);
int32_t ds_count(ObjectId set, ObjectType type);
bool ds_has(ObjectId set, ObjectType type);
void ds_move(ObjectId from_set, ObjectId to_set);
// Recursive walk; the stack is a PairList variable, null at the start and
// freed by the caller. Nested sets are visited before the root.
void* ds_walk(ObjectId root, ObjectType type, ObjectId* out_holder, ObjectId& member,
              void** out_address, PairList*& stack);
void* ds_walk_sets(ObjectId root, ObjectId* out_holder, ObjectId& member, void** out_address,
                   PairList*& stack);
int32_t ds_count_tree(ObjectId root, ObjectType type);
void ds_find_holder(ObjectId root, ObjectId member, ObjectId& out_set);

// ---- OrderedSet ----
// A key is passed by the address of the number, or for string kinds as the
// string pointer itself.

void oset_create(ObjectId source_set, ObjectId source_oset, ObjectType type, FieldKind key_kind,
                 std::size_t key_offset, ObjectId& out_handle);
void oset_fill(ObjectId source_set, ObjectType type, FieldKind key_kind, std::size_t key_offset,
               ObjectId& out_handle);
void oset_fill_from(ObjectId source_oset, ObjectType type, FieldKind key_kind,
                    std::size_t key_offset, ObjectId& out_handle);
void oset_rebuild(ObjectId handle, ObjectId owner);
void oset_insert(ObjectId handle, ObjectId id);
void oset_remove(ObjectId handle, ObjectId id);
ObjectId oset_next(ObjectId handle, ObjectId id);
ObjectId oset_prev(ObjectId handle, ObjectId id);
ObjectId oset_search(ObjectId handle, const void* key, bool* out_exact);
ObjectId oset_first_after(ObjectId handle, const void* key);
ObjectId oset_last_before(ObjectId handle, const void* key);
bool oset_next_equal(ObjectId handle, const void* key, ObjectId& id, void** out_address);
void* oset_closest(ObjectId handle, const void* key, bool* out_exact, ObjectId* out_id,
                   void** out_address);
int32_t oset_count(ObjectId handle);
ObjectId oset_at(ObjectId handle, int32_t position);
const void* oset_key(ObjectId handle, ObjectId id);
ObjectId oset_clone(ObjectId handle);
// Removes the set from the registry and frees it; zeroes the variable.
void oset_delete(ObjectId& handle);
void oset_delete_objects(ObjectId& handle);
// The first step of oset_delete_objects alone, for a set that stays: the
// stale ids and one more element, 0, are counted until the next search.
void oset_delete_objects_keep_set(ObjectId handle);

// The compare of the sets: 1 when the key sorts before the element's, 0 when
// equal, -1 when after.
int field_compare(FieldKind kind, const void* key, const void* element_key);

} // namespace norvanta
