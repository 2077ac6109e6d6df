// The ObjectStore: the one heap of long-lived records.
//
// Every record is a plain struct that begins with its ObjectId and
// ObjectType, made zeroed by cre_obj, found by get_obj_adr and released by
// del_obj_adr. Records name one another by id, so a stale reference is found
// out at look-up time. Each type has its own table sorted by id; ids are
// unique over all types and never reused. Deletion leaves a tombstone that
// purge_obj_tables removes at idle time.
//
// Every operation is a silent no-op while gblerr is set (find_obj_adr
// excepted), so a run of calls falls through to the caller's one test.
// The tables are guarded by one mutex, so that the load thread, the worker
// and the UI thread may each create and look up their own objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/mobj.h"
#include "core/object_types.h"

namespace norvanta {

// The one vocabulary of layout strings and set keys.
enum class FieldKind : uint8_t {
    none = 0,
    integer = 1,     // 4 bytes, signed
    integer_b = 2,   // 4 bytes, signed
    id = 3,          // 4 bytes, signed integer or ObjectId
    real = 4,        // 8 bytes, double
    real_b = 5,      // 8 bytes, double
    julian = 6,      // 16 bytes, two doubles, first then second
    wide_string = 7, // pointer to a wide string
    byte_string = 8, // pointer to a byte string
};

struct ObjectHeader {
    ObjectId id;
    ObjectType type;
};

// The header of a record that takes part in ownership.
struct OwnedHeader {
    ObjectId id;
    ObjectType type;
    ObjectId owner_id;
    ObjectType owner_type;
    ObjectId children; // DataSet or OrderedSet handle; 0 until first needed
};

using ObjectDestructor = void (*)(void* record);
using ObjectCopyHook = void (*)(const void* source, void* destination);

// A record struct names its type: static constexpr ObjectType object_type.
template <class T>
concept StoreRecord = std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T> && requires {
    T::object_type;
};

// Makes the store's tables; runs once, before any module registers a type.
void object_store_create();

void set_obj_type(ObjectType type, std::size_t record_size, const uint8_t* layout);
void set_obj_destructor(ObjectType type, ObjectDestructor destructor);
void set_obj_copy_hook(ObjectType type, ObjectCopyHook hook);
const uint8_t* get_obj_layout(ObjectType type);

template <StoreRecord T>
void set_obj_type(const uint8_t* layout = nullptr) {
    set_obj_type(T::object_type, sizeof(T), layout);
}

// Creates a zeroed record; both outputs (either may be null) are 0 when
// gblerr is set. Returns the address.
void* cre_obj(ObjectType type, ObjectId* out_id, void** out_address);
// The checked look-up: 0 for id 0 or while gblerr is set; a missing id stores
// object_internal (10) and logs "ERREUR get_obj_adr type %d id %ld".
void* get_obj_adr(ObjectType type, ObjectId id, void** out_address);
// Silent: false for id 0, while gblerr is set, or for a missing object.
bool exist_obj(ObjectType type, ObjectId id);
// Silent and usable while gblerr is set; 0 for a missing object or a tombstone.
void* find_obj_adr(ObjectType type, ObjectId id, void** out_address);
// Zeroes the caller's variable, then deletes (nothing while gblerr is set).
void del_obj_adr(ObjectType type, ObjectId& id);
void del_obj(ObjectType type, ObjectId id);
// Overwrites all but the destination's id, then runs the copy hook.
void copy_obj(ObjectType type, ObjectId source, ObjectId destination);
// Ascending walk; id holds the last id seen (0 starts) and ends at 0.
void* next_obj(ObjectType type, ObjectId& id, void** out_address);
// Slots of the type's table, tombstones included.
int32_t obj_slot_count(ObjectType type);

void link_obj_owner(ObjectType owner_type, ObjectId owner_id, ObjectType child_type,
                    ObjectId child_id);
// element_type None gives a plain DataSet, else an OrderedSet on the key.
void cre_obj_children(ObjectType owner_type, ObjectId owner_id, ObjectType element_type,
                      FieldKind key_kind, std::size_t key_offset);

// Idle-time compaction of every table with at least 100 tombstones; yields
// as soon as the pending-work test says something waits.
void purge_obj_tables();
// The main loop's pending-work test (the UI backend supplies it). It runs
// with the store's lock held, after each slot copied, so it must not use the
// store itself.
void set_pending_work_test(bool (*test)());

// A fresh id from the common counter, for records that are named by an id but
// kept outside the tables (the OrderedSets).
ObjectId draw_object_id();

// Sets a sorted array's used size in bytes. The element array grows through
// realloc_mem, and only when the rounded block size changes, so that growing
// element by element reallocates about once per 4096 bytes.
void mobj_resize(Mobj& mobj, int32_t size_bytes);

// Typed forms.
template <StoreRecord T>
T* cre_obj(ObjectId* out_id = nullptr) {
    return static_cast<T*>(cre_obj(T::object_type, out_id, nullptr));
}
template <StoreRecord T>
T* get_obj_adr(ObjectId id) {
    return static_cast<T*>(get_obj_adr(T::object_type, id, nullptr));
}
template <StoreRecord T>
T* find_obj_adr(ObjectId id) {
    return static_cast<T*>(find_obj_adr(T::object_type, id, nullptr));
}

} // namespace norvanta
