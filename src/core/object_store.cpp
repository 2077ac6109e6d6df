// The ObjectStore: per-type tables of numbered records, the id counter, the
// checked and silent look-ups, deletion by tombstone and the idle compaction.
//
// Each type owns a TypeTable, a Mobj whose elements are ObjectSlots sorted by
// id. Ids only grow, so creation appends; deletion only zeroes a slot's
// address, and purge_obj_tables closes the gaps later, in one pass per table.
//
// One mutex guards the tables, the per-type registrations and the counter. It
// is never held while a destructor or a copy hook runs: those re-enter the
// store, and a destructor may even grow or shrink the very table it came from,
// which is why deletion searches its slot again afterwards.
#include "core/object_store.h"

#include <array>
#include <atomic>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "core/memory.h"
#include "core/object_sets.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// One row of a TypeTable.
struct ObjectSlot {
    ObjectId id;
    int32_t reserved; // always 0
    void* address;    // 0 once the object is deleted: a tombstone
};
constexpr int32_t slot_size_bytes = static_cast<int32_t>(sizeof(ObjectSlot));

// Room for more type numbers than are in use; purge walks only the first
// object_type_count of them.
constexpr int32_t type_table_capacity = 1123;
static_assert(object_type_count <= type_table_capacity);

// A table is compacted once this many of its slots are tombstones.
constexpr int32_t purge_tombstone_threshold = 100;
// Spare slots in a compacted table, so that the next creations append in place.
constexpr int32_t purge_spare_slots = 10;

constexpr std::size_t log_text_capacity = 96;

struct TypeInfo {
    std::size_t record_size;     // bytes of one record, header included
    const uint8_t* layout;       // field count, then one FieldKind per field
    ObjectDestructor destructor; // runs before the record is freed
    ObjectCopyHook copy_hook;    // runs after copy_obj has overwritten a record
    int32_t free_slot_count;     // tombstones in the table
    Mobj table;                  // element array of ObjectSlots, sorted by id
};

struct Store {
    std::mutex mutex;
    ObjectId id_counter = 1; // the first id handed out is 2
    bool created = false;
    std::array<TypeInfo, type_table_capacity> types{};
};

constinit Store store;

constinit std::atomic<bool (*)()> pending_work_test{nullptr};

// The id generator; the store reaches it only through id_generator. Called
// with the lock held.
ObjectId next_counter_id() {
    ObjectId id = store.id_counter + 1;
    if (id > store.id_counter) store.id_counter = id;
    return id;
}
using IdGenerator = ObjectId (*)();
constexpr IdGenerator id_generator = &next_counter_id;

TypeInfo* type_info(ObjectType type) {
    auto index = static_cast<int32_t>(type);
    if (index < 0 || index >= type_table_capacity) return nullptr;
    return &store.types[static_cast<std::size_t>(index)];
}

ObjectSlot* slots_of(const Mobj& table) {
    return static_cast<ObjectSlot*>(table.data);
}
int32_t slot_count(const Mobj& table) {
    return mobj_element_count(table);
}

// The binary search of every table: lo and hi close in on id until they are
// neighbours (hi moves down past ids above it, lo up to the others). The
// table must hold at least one slot.
void bracket(const ObjectSlot* slots, int32_t n, ObjectId id, int32_t& lo, int32_t& hi) {
    lo = 0;
    hi = n - 1;
    while (hi - lo > 1) {
        int32_t mid = (lo + hi) / 2;
        if (slots[mid].id > id) {
            hi = mid;
        } else {
            lo = mid;
        }
    }
}

// The exact look-up: both ends of the bracket tested for equality. Returns
// the slot index or -1.
int32_t find_slot(const Mobj& table, ObjectId id) {
    int32_t n = slot_count(table);
    if (n == 0) return -1;
    const ObjectSlot* slots = slots_of(table);
    int32_t lo = 0;
    int32_t hi = 0;
    bracket(slots, n, id, lo, hi);
    if (slots[lo].id == id) return lo;
    if (slots[hi].id == id) return hi;
    return -1;
}

// Index of the first slot whose id is above id (n when none).
int32_t first_slot_above(const Mobj& table, ObjectId id) {
    int32_t n = slot_count(table);
    const ObjectSlot* slots = slots_of(table);
    if (n == 0 || slots[n - 1].id <= id) return n;
    int32_t lo = 0;
    int32_t hi = 0;
    bracket(slots, n, id, lo, hi);
    return slots[lo].id > id ? lo : hi;
}

// Address of a live object, or 0; the caller holds the lock.
void* locked_lookup(ObjectType type, ObjectId id) {
    TypeInfo* info = type_info(type);
    if (!info) return nullptr;
    int32_t index = find_slot(info->table, id);
    return index < 0 ? nullptr : slots_of(info->table)[index].address;
}

void* lookup(ObjectType type, ObjectId id) {
    std::lock_guard lock(store.mutex);
    return locked_lookup(type, id);
}

void report_missing(ObjectType type, ObjectId id) {
    set_gblerr(ErrorCode::object_internal);
    char text[log_text_capacity];
    std::snprintf(text, sizeof text, "ERREUR get_obj_adr type %d id %ld", static_cast<int>(type),
                  static_cast<long>(id));
    log_entry(text);
}

void write_outputs(ObjectId* out_id, ObjectId id, void** out_address, void* address) {
    if (out_id) *out_id = id;
    if (out_address) *out_address = address;
}

// Sorted-array Mobjs own their element array; paged blocks are released by
// the paged memory, which takes over this destructor when it registers.
void destroy_mobj(void* record) {
    auto* mobj = static_cast<Mobj*>(record);
    if (mobj->element_size != 0) free_mem(mobj->data);
}

} // namespace

const char* object_type_name(ObjectType type) {
    switch (type) {
#define NORVANTA_OBJECT_TYPE_NAME(name, number)                                                    \
    case ObjectType::name:                                                                         \
        return #name;
        NORVANTA_OBJECT_TYPES(NORVANTA_OBJECT_TYPE_NAME)
#undef NORVANTA_OBJECT_TYPE_NAME
    case ObjectType::None:
        break;
    }
    return "?";
}

void mobj_resize(Mobj& mobj, int32_t size_bytes) {
    auto wanted = static_cast<std::size_t>(size_bytes);
    auto held = static_cast<std::size_t>(mobj.size);
    if (!mobj.data || realloc_rounded_size(wanted) > realloc_rounded_size(held)) {
        realloc_mem(mobj.data, wanted);
    }
    mobj.size = size_bytes;
}

void object_store_create() {
    {
        std::lock_guard lock(store.mutex);
        if (store.created) return;
        store.created = true;
    }
    set_obj_type<Mobj>();
    set_obj_destructor(ObjectType::Mobj, destroy_mobj);
}

void set_obj_type(ObjectType type, std::size_t record_size, const uint8_t* layout) {
    std::lock_guard lock(store.mutex);
    TypeInfo* info = type_info(type);
    assert(info && "object type out of the store's range");
    if (!info) return;
    info->record_size = record_size;
    info->layout = layout;
    info->table.element_size = slot_size_bytes;
}

void set_obj_destructor(ObjectType type, ObjectDestructor destructor) {
    std::lock_guard lock(store.mutex);
    if (TypeInfo* info = type_info(type)) info->destructor = destructor;
}

void set_obj_copy_hook(ObjectType type, ObjectCopyHook hook) {
    std::lock_guard lock(store.mutex);
    if (TypeInfo* info = type_info(type)) info->copy_hook = hook;
}

const uint8_t* get_obj_layout(ObjectType type) {
    std::lock_guard lock(store.mutex);
    TypeInfo* info = type_info(type);
    return info ? info->layout : nullptr;
}

ObjectId draw_object_id() {
    std::lock_guard lock(store.mutex);
    return id_generator();
}

void* cre_obj(ObjectType type, ObjectId* out_id, void** out_address) {
    write_outputs(out_id, 0, out_address, nullptr);
    if (error_pending()) return nullptr;

    std::size_t record_size = 0;
    {
        std::lock_guard lock(store.mutex);
        TypeInfo* info = type_info(type);
        if (!info) {
            set_gblerr(ErrorCode::object_internal);
            return nullptr;
        }
        record_size = info->record_size;
    }
    // A type used without registration still gets room for its header.
    if (record_size < sizeof(ObjectHeader)) record_size = sizeof(ObjectHeader);
    void* address = nullptr;
    alloc_zero_mem(address, record_size);
    auto* header = static_cast<ObjectHeader*>(address);
    header->type = type;

    ObjectId id = 0;
    {
        std::lock_guard lock(store.mutex);
        TypeInfo* info = type_info(type);
        id = id_generator();
        header->id = id;
        Mobj& table = info->table;
        table.element_size = slot_size_bytes;
        int32_t n = slot_count(table);
        int32_t position = first_slot_above(table, id - 1);
        mobj_resize(table, (n + 1) * slot_size_bytes);
        ObjectSlot* slots = slots_of(table);
        if (position < n) {
            std::memmove(&slots[position + 1], &slots[position],
                         static_cast<std::size_t>(n - position) * sizeof(ObjectSlot));
        }
        slots[position] = ObjectSlot{id, 0, address};
    }
    write_outputs(out_id, id, out_address, address);
    return address;
}

void* get_obj_adr(ObjectType type, ObjectId id, void** out_address) {
    if (out_address) *out_address = nullptr;
    if (id == 0 || error_pending()) return nullptr;
    void* address = lookup(type, id);
    if (!address) {
        report_missing(type, id);
        return nullptr;
    }
    if (out_address) *out_address = address;
    return address;
}

bool exist_obj(ObjectType type, ObjectId id) {
    if (id == 0 || error_pending()) return false;
    return lookup(type, id) != nullptr;
}

void* find_obj_adr(ObjectType type, ObjectId id, void** out_address) {
    void* address = id == 0 ? nullptr : lookup(type, id);
    if (out_address) *out_address = address;
    return address;
}

void del_obj_adr(ObjectType type, ObjectId& id) {
    ObjectId victim = id;
    id = 0;
    del_obj(type, victim);
}

void del_obj(ObjectType type, ObjectId id) {
    if (id == 0 || error_pending()) return;
    void* address = nullptr;
    ObjectDestructor destructor = nullptr;
    {
        std::lock_guard lock(store.mutex);
        TypeInfo* info = type_info(type);
        if (!info) return;
        int32_t index = find_slot(info->table, id);
        if (index < 0 || !slots_of(info->table)[index].address) return;
        address = slots_of(info->table)[index].address;
        destructor = info->destructor;
    }
    if (destructor) destructor(address);

    // Only the caller that turns the slot into a tombstone frees the record,
    // so a destructor that deletes its own object cannot free it twice.
    bool tombstoned = false;
    {
        std::lock_guard lock(store.mutex);
        TypeInfo* info = type_info(type);
        int32_t index = find_slot(info->table, id);
        if (index >= 0 && slots_of(info->table)[index].address == address) {
            slots_of(info->table)[index].address = nullptr;
            ++info->free_slot_count;
            tombstoned = true;
        }
    }
    if (tombstoned) free_mem(address);
}

void copy_obj(ObjectType type, ObjectId source, ObjectId destination) {
    if (error_pending() || source == destination) return;
    void* from = get_obj_adr(type, source, nullptr);
    void* to = get_obj_adr(type, destination, nullptr);
    if (!from || !to) {
        if (!error_pending()) set_gblerr(ErrorCode::object_internal);
        return;
    }
    std::size_t record_size = 0;
    ObjectCopyHook hook = nullptr;
    {
        std::lock_guard lock(store.mutex);
        TypeInfo* info = type_info(type);
        record_size = info->record_size;
        hook = info->copy_hook;
    }
    // The destination keeps its id, the first word; all else is the source's.
    if (record_size > sizeof(ObjectId)) {
        std::memcpy(static_cast<char*>(to) + sizeof(ObjectId),
                    static_cast<const char*>(from) + sizeof(ObjectId),
                    record_size - sizeof(ObjectId));
    }
    if (hook) hook(from, to);
}

void* next_obj(ObjectType type, ObjectId& id, void** out_address) {
    if (out_address) *out_address = nullptr;
    if (error_pending()) {
        id = 0;
        return nullptr;
    }
    void* address = nullptr;
    ObjectId found = 0;
    {
        std::lock_guard lock(store.mutex);
        if (TypeInfo* info = type_info(type)) {
            int32_t n = slot_count(info->table);
            const ObjectSlot* slots = slots_of(info->table);
            for (int32_t i = first_slot_above(info->table, id); i < n; ++i) {
                if (slots[i].address) {
                    found = slots[i].id;
                    address = slots[i].address;
                    break;
                }
            }
        }
    }
    id = found;
    if (out_address) *out_address = address;
    return address;
}

int32_t obj_slot_count(ObjectType type) {
    std::lock_guard lock(store.mutex);
    TypeInfo* info = type_info(type);
    return info ? slot_count(info->table) : 0;
}

void link_obj_owner(ObjectType owner_type, ObjectId owner_id, ObjectType child_type,
                    ObjectId child_id) {
    auto* owner = static_cast<OwnedHeader*>(get_obj_adr(owner_type, owner_id, nullptr));
    if (!owner) return;
    auto* child = static_cast<OwnedHeader*>(get_obj_adr(child_type, child_id, nullptr));
    if (!child) return;
    child->owner_id = owner_id;
    child->owner_type = owner_type;
    if (owner->children == 0) ds_create(owner->children);
    // An OrderedSet's handle is in no table, so only a DataSet is found here.
    if (exist_obj(ObjectType::Mobj, owner->children)) {
        ds_add(owner->children, child_type, child_id);
    } else {
        oset_insert(owner->children, child_id);
    }
}

void cre_obj_children(ObjectType owner_type, ObjectId owner_id, ObjectType element_type,
                      FieldKind key_kind, std::size_t key_offset) {
    auto* owner = static_cast<OwnedHeader*>(get_obj_adr(owner_type, owner_id, nullptr));
    if (!owner) return;
    if (element_type == ObjectType::None) {
        ds_create(owner->children);
    } else {
        oset_create(0, 0, element_type, key_kind, key_offset, owner->children);
    }
}

void set_pending_work_test(bool (*test)()) {
    pending_work_test.store(test);
}

void purge_obj_tables() {
    bool (*test)() = pending_work_test.load();
    auto work_pending = [test] { return test && test(); };
    if (work_pending()) return;

    for (int32_t type = 0; type < object_type_count; ++type) {
        std::lock_guard lock(store.mutex);
        TypeInfo& info = store.types[static_cast<std::size_t>(type)];
        if (info.free_slot_count < purge_tombstone_threshold) continue;
        Mobj& table = info.table;
        int32_t n = slot_count(table);
        int32_t live_count = n - info.free_slot_count;
        assert(live_count >= 0);
        ObjectSlot* fresh = nullptr;
        realloc_mem(fresh,
                    static_cast<std::size_t>(live_count + purge_spare_slots) * sizeof(ObjectSlot));
        const ObjectSlot* slots = slots_of(table);
        int32_t kept = 0;
        for (int32_t i = 0; i < n; ++i) {
            if (!slots[i].address) continue;
            assert(kept < live_count);
            fresh[kept++] = slots[i];
            if (work_pending()) {
                free_mem(fresh);
                return;
            }
        }
        free_mem(table.data);
        table.data = fresh;
        table.size = kept * slot_size_bytes;
        info.free_slot_count = 0;
    }
}

} // namespace norvanta
