// OrderedSets: indexes of the ids of one type, sorted by a key field read from
// each element's record at every comparison, then by id. A set is a Mobj kept
// outside the store's tables, found through a small registry by its handle.
//
// Every OrderedSet search runs the same frame: a binary search that looks each
// probed element up in silence; an element whose object is gone (or a 0 left
// by oset_remove) makes the set compact itself and the search start again.
// That is the only way deleted objects leave an index, so deleting an object
// never has to know which sets hold it.
//
// The registry is shared by all threads and guarded by its own mutex. Its
// entries are allocated one by one, so an entry in use by a search stays where
// it is while another thread adds or removes sets. A set's content is not
// guarded: each thread keeps to its own sets, as with its own objects.
#include "core/object_sets.h"

#include <cmath>
#include <cstring>
#include <mutex>
#include <optional>

#include "core/memory.h"
#include "core/strings.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

struct OrderedSetEntry {
    Mobj* set;              // element array of ObjectIds; set->id is the handle
    ObjectId source_set;    // DataSet that rebuild reads, or 0
    ObjectId source_oset;   // OrderedSet that rebuild reads, or 0
    ObjectType type;        // type of every element
    FieldKind key_kind;     // how the key compares
    std::size_t key_offset; // place of the key field in the element's record
};

constexpr int32_t element_size_bytes = static_cast<int32_t>(sizeof(ObjectId));

struct Registry {
    std::mutex mutex;
    OrderedSetEntry** entries = nullptr; // reallocated to exactly `count`
    int32_t count = 0;
};

constinit Registry registry;

OrderedSetEntry* find_entry(ObjectId handle) {
    if (handle == 0) return nullptr;
    std::lock_guard lock(registry.mutex);
    for (int32_t i = 0; i < registry.count; ++i) {
        if (registry.entries[i]->set->id == handle) return registry.entries[i];
    }
    return nullptr;
}

ObjectId* elements_of(const OrderedSetEntry& entry) {
    return static_cast<ObjectId*>(entry.set->data);
}
int32_t element_count(const OrderedSetEntry& entry) {
    return mobj_element_count(*entry.set);
}

bool is_string_kind(FieldKind kind) {
    return kind == FieldKind::wide_string || kind == FieldKind::byte_string;
}

// The key of a record in the form field_compare takes: the field's address,
// or the string pointer that the field holds.
const void* key_of_record(const OrderedSetEntry& entry, const void* record) {
    const char* field = static_cast<const char*>(record) + entry.key_offset;
    if (!is_string_kind(entry.key_kind)) return field;
    const void* string = nullptr;
    std::memcpy(&string, field, sizeof string);
    return string;
}

// One probed element: the compare of the searched key with its key, and its id.
struct Probe {
    int compare;
    ObjectId id;
};

// Looks the element at a position up in silence; nothing when it is stale.
std::optional<Probe> probe(const OrderedSetEntry& entry, const void* key, int32_t position) {
    ObjectId id = elements_of(entry)[position];
    if (id == 0) return std::nullopt;
    const void* record = find_obj_adr(entry.type, id, nullptr);
    if (!record) return std::nullopt;
    return Probe{field_compare(entry.key_kind, key, key_of_record(entry, record)), id};
}

bool is_stale(const OrderedSetEntry& entry, ObjectId id) {
    return id == 0 || !find_obj_adr(entry.type, id, nullptr);
}

// Closes up every run of stale elements, walking from the end so that each
// run costs one move of what lies behind it. find_obj_adr stores no error, so
// there is none to clear afterwards.
void compact(OrderedSetEntry& entry) {
    ObjectId* elements = elements_of(entry);
    int32_t end = element_count(entry);
    int32_t i = end - 1;
    while (i >= 0) {
        if (!is_stale(entry, elements[i])) {
            --i;
            continue;
        }
        int32_t run_end = i + 1;
        while (i >= 0 && is_stale(entry, elements[i]))
            --i;
        int32_t run_start = i + 1;
        std::memmove(&elements[run_start], &elements[run_end],
                     static_cast<std::size_t>(end - run_end) * sizeof(ObjectId));
        end -= run_end - run_start;
    }
    entry.set->size = end * element_size_bytes;
}

constexpr int32_t no_position = -1;

// The search frame: runs one attempt; a stale element met on the way makes the
// set compact and the attempt start over. While gblerr is set the search ends
// with no position.
template <class Attempt>
int32_t run_search(OrderedSetEntry& entry, Attempt attempt) {
    for (;;) {
        if (error_pending()) return no_position;
        std::optional<int32_t> position = attempt();
        if (position) return *position;
        compact(entry);
    }
}

// The strict searches and the positions around (key, id) come in mirror
// pairs: the last element before a key is the first after it on the array read
// from its end with the order turned round, and the position before (key, id)
// is the position after it, read that way. A Reading hands a search its
// positions and compares in one direction or the other, so that one function
// serves each pair.
class Reading {
  public:
    enum class Direction { forward, backward };

    Reading(const OrderedSetEntry& entry, const void* key, Direction direction)
        : entry_(entry), key_(key), backward_(direction == Direction::backward),
          count_(element_count(entry)) {}

    int32_t count() const { return count_; }

    // The element at a position of this reading, its compare turned round
    // when read backward.
    std::optional<Probe> at(int32_t position) const {
        std::optional<Probe> element = probe(entry_, key_, array_position(position));
        if (element && backward_) element->compare = -element->compare;
        return element;
    }

    // (key, id) sorts before the element in this reading: by key, then by id.
    bool sorts_before(const Probe& element, ObjectId id) const {
        if (element.compare != 0) return element.compare == 1;
        return backward_ ? id > element.id : id < element.id;
    }

    // A position of this reading as a position of the array; a position one
    // past the end read backward is -1.
    int32_t array_position(int32_t position) const {
        return backward_ ? count_ - 1 - position : position;
    }

  private:
    const OrderedSetEntry& entry_;
    const void* key_;
    bool backward_;
    int32_t count_;
};

// The frame of every search: lo and hi close in until they are neighbours,
// lo moving up past each probed element that `passed` says the key is beyond.
// False when a probe met a stale element.
template <class Passed>
bool close_in(const Reading& reading, int32_t& lo, int32_t& hi, Passed passed) {
    lo = 0;
    hi = reading.count() - 1;
    while (hi - lo > 1) {
        int32_t mid = (lo + hi) / 2;
        std::optional<Probe> at_mid = reading.at(mid);
        if (!at_mid) return false;
        if (passed(*at_mid)) {
            lo = mid;
        } else {
            hi = mid;
        }
    }
    return true;
}

// Near, not a neighbour: a missed key gives hi, which is position 1 when the key
// is below all elements and the last position when it is above all of them.
// Kept on purpose: the replay engine only needs an element close to the key.
std::optional<int32_t> search_attempt(const OrderedSetEntry& entry, const void* key, bool& exact) {
    exact = false;
    int32_t n = element_count(entry);
    if (n == 0) return no_position;
    const Reading reading(entry, key, Reading::Direction::forward);
    int32_t lo = 0;
    int32_t hi = 0;
    if (!close_in(reading, lo, hi, [](const Probe& element) { return element.compare == -1; }))
        return std::nullopt;
    std::optional<Probe> at_lo = probe(entry, key, lo);
    if (!at_lo) return std::nullopt;
    if (at_lo->compare == 0) {
        exact = true;
        return lo;
    }
    std::optional<Probe> at_hi = probe(entry, key, hi);
    if (!at_hi) return std::nullopt;
    exact = at_hi->compare == 0;
    return hi;
}

// The first element whose key is strictly above the key (forward), or the
// last whose key is strictly below it (backward).
std::optional<int32_t> strictly_beyond_attempt(const Reading& reading) {
    int32_t n = reading.count();
    if (n == 0) return no_position;
    int32_t lo = 0;
    int32_t hi = 0;
    if (!close_in(reading, lo, hi, [](const Probe& element) { return element.compare <= 0; }))
        return std::nullopt;
    std::optional<Probe> at_lo = reading.at(lo);
    if (!at_lo) return std::nullopt;
    if (at_lo->compare == 1) return reading.array_position(lo);
    std::optional<Probe> at_hi = reading.at(hi);
    if (!at_hi) return std::nullopt;
    if (at_hi->compare == 1) return reading.array_position(hi);
    return no_position;
}

// The position where (key, id) would stand behind everything that sorts
// before or with it, n at the end (forward); or the position of the last
// element that sorts before it, -1 when none (backward). The id's own key
// is the key of the reading.
std::optional<int32_t> position_beyond_attempt(const Reading& reading, ObjectId id) {
    int32_t n = reading.count();
    if (id == 0 || n == 0) return reading.array_position(0);
    std::optional<Probe> last = reading.at(n - 1);
    if (!last) return std::nullopt;
    if (!reading.sorts_before(*last, id)) return reading.array_position(n);
    int32_t lo = 0;
    int32_t hi = 0;
    if (!close_in(reading, lo, hi,
                  [&](const Probe& element) { return !reading.sorts_before(element, id); }))
        return std::nullopt;
    std::optional<Probe> at_lo = reading.at(lo);
    if (!at_lo) return std::nullopt;
    if (reading.sorts_before(*at_lo, id)) return reading.array_position(lo);
    std::optional<Probe> at_hi = reading.at(hi);
    if (!at_hi) return std::nullopt;
    if (reading.sorts_before(*at_hi, id)) return reading.array_position(hi);
    return reading.array_position(hi + 1);
}

std::optional<int32_t> first_after_attempt(const OrderedSetEntry& entry, const void* key) {
    return strictly_beyond_attempt(Reading(entry, key, Reading::Direction::forward));
}
std::optional<int32_t> last_before_attempt(const OrderedSetEntry& entry, const void* key) {
    return strictly_beyond_attempt(Reading(entry, key, Reading::Direction::backward));
}
std::optional<int32_t> position_after_attempt(const OrderedSetEntry& entry, const void* key,
                                              ObjectId id) {
    return position_beyond_attempt(Reading(entry, key, Reading::Direction::forward), id);
}
std::optional<int32_t> position_before_attempt(const OrderedSetEntry& entry, const void* key,
                                               ObjectId id) {
    return position_beyond_attempt(Reading(entry, key, Reading::Direction::backward), id);
}

// The key of the object named by id, through the checked look-up; null (and
// gblerr 10) for a stale id.
bool object_key(const OrderedSetEntry& entry, ObjectId id, const void*& key) {
    const void* record = get_obj_adr(entry.type, id, nullptr);
    if (!record) return false;
    key = key_of_record(entry, record);
    return true;
}

// The element at a position, or 0 outside the array.
ObjectId element_at(const OrderedSetEntry& entry, int32_t position) {
    if (position < 0 || position >= element_count(entry)) return 0;
    return elements_of(entry)[position];
}

// Deletes the object of every element, from the end. A destructor may search
// this set and so compact it, hence the count read again at every step.
void delete_element_objects(OrderedSetEntry& entry) {
    int32_t i = element_count(entry);
    while (i > 0) {
        int32_t n = element_count(entry);
        i = (i < n ? i : n) - 1;
        if (i < 0) break;
        del_obj(entry.type, elements_of(entry)[i]);
    }
}

template <class T>
int compare_numbers(T key, T element) {
    if (key < element) return 1;
    if (element < key) return -1;
    return 0;
}

template <class T>
T read_field(const void* address) {
    T value;
    std::memcpy(&value, address, sizeof value);
    return value;
}

} // namespace

int field_compare(FieldKind kind, const void* key, const void* element_key) {
    switch (kind) {
    case FieldKind::integer:
    case FieldKind::integer_b:
    case FieldKind::id:
        return compare_numbers(read_field<int32_t>(key), read_field<int32_t>(element_key));
    case FieldKind::real:
    case FieldKind::real_b:
        // A NaN is neither below nor above anything, hence 0.
        return compare_numbers(read_field<double>(key), read_field<double>(element_key));
    case FieldKind::julian: {
        double searched[2];
        double element[2];
        std::memcpy(searched, key, sizeof searched);
        std::memcpy(element, element_key, sizeof element);
        if (std::isnan(searched[0]) || std::isnan(searched[1]) || std::isnan(element[0]) ||
            std::isnan(element[1])) {
            return 0;
        }
        int first = compare_numbers(searched[0], element[0]);
        return first != 0 ? first : compare_numbers(searched[1], element[1]);
    }
    case FieldKind::wide_string:
        return wstr_compare(static_cast<const wchar_t*>(key),
                            static_cast<const wchar_t*>(element_key));
    case FieldKind::byte_string:
        return str_order(static_cast<const char*>(key), static_cast<const char*>(element_key));
    case FieldKind::none:
        break;
    }
    return 0;
}

void oset_create(ObjectId source_set, ObjectId source_oset, ObjectType type, FieldKind key_kind,
                 std::size_t key_offset, ObjectId& out_handle) {
    out_handle = 0;
    if (error_pending()) return;
    Mobj* set = nullptr;
    alloc_zero_mem(set, sizeof(Mobj));
    set->id = draw_object_id();
    set->type = ObjectType::Mobj;
    set->element_size = element_size_bytes;
    OrderedSetEntry* entry = nullptr;
    alloc_zero_mem(entry, sizeof(OrderedSetEntry));
    *entry = OrderedSetEntry{set, source_set, source_oset, type, key_kind, key_offset};
    {
        std::lock_guard lock(registry.mutex);
        registry.entries = static_cast<OrderedSetEntry**>(checked_realloc(
            registry.entries, static_cast<std::size_t>(registry.count + 1) * sizeof(entry)));
        registry.entries[registry.count++] = entry;
    }
    out_handle = set->id;
}

void oset_fill(ObjectId source_set, ObjectType type, FieldKind key_kind, std::size_t key_offset,
               ObjectId& out_handle) {
    oset_create(source_set, 0, type, key_kind, key_offset, out_handle);
    oset_rebuild(out_handle, 0);
}

void oset_fill_from(ObjectId source_oset, ObjectType type, FieldKind key_kind,
                    std::size_t key_offset, ObjectId& out_handle) {
    oset_create(0, source_oset, type, key_kind, key_offset, out_handle);
    oset_rebuild(out_handle, 0);
}

void oset_rebuild(ObjectId handle, ObjectId owner) {
    if (handle == 0) {
        if (!error_pending()) set_gblerr(ErrorCode::object_internal);
        return;
    }
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return;
    entry->set->size = 0;
    if (error_pending()) return;

    auto owned = [owner](const void* record) {
        return owner == 0 || static_cast<const OwnedHeader*>(record)->owner_id == owner;
    };
    ObjectId member = 0;
    void* record = nullptr;
    if (entry->source_set != 0) {
        for (;;) {
            ds_next_of_type(entry->source_set, entry->type, member, owner ? &record : nullptr);
            if (member == 0) break;
            if (owner && !record) break;
            if (owned(record)) oset_insert(handle, member);
        }
        if (owner) set_gblerr(ErrorCode::none);
    } else if (entry->source_oset != 0) {
        while ((member = oset_next(entry->source_oset, member)) != 0) {
            if (owner && !get_obj_adr(entry->type, member, &record)) break;
            if (owned(record)) oset_insert(handle, member);
        }
    } else {
        while (next_obj(entry->type, member, &record)) {
            if (owned(record)) oset_insert(handle, member);
        }
    }
}

void oset_insert(ObjectId handle, ObjectId id) {
    if (handle == 0 || id == 0) return;
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return;
    const void* key = nullptr;
    if (error_pending() || !object_key(*entry, id, key)) return;
    int32_t position = run_search(*entry, [&] { return position_after_attempt(*entry, key, id); });
    if (position < 0) return;
    if (position > 0 && elements_of(*entry)[position - 1] == id) return;
    int32_t n = element_count(*entry);
    mobj_resize(*entry->set, (n + 1) * element_size_bytes);
    ObjectId* elements = elements_of(*entry);
    std::memmove(&elements[position + 1], &elements[position],
                 static_cast<std::size_t>(n - position) * sizeof(ObjectId));
    elements[position] = id;
}

void oset_remove(ObjectId handle, ObjectId id) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry || element_count(*entry) == 0) return;
    const void* record = find_obj_adr(entry->type, id, nullptr);
    if (!record) return;
    const void* key = key_of_record(*entry, record);
    // The second search may compact the set and so move what the first found;
    // both are taken again until neither has compacted.
    int32_t before = no_position;
    int32_t after = no_position;
    for (;;) {
        before = run_search(*entry, [&] { return position_before_attempt(*entry, key, id); });
        int32_t count_between = element_count(*entry);
        after = run_search(*entry, [&] { return position_after_attempt(*entry, key, id); });
        if (error_pending()) return;
        if (element_count(*entry) == count_between) break;
    }
    int32_t n = element_count(*entry);
    int32_t first = before < 0 ? 0 : before;
    int32_t last = after < n ? after : n - 1;
    ObjectId* elements = elements_of(*entry);
    for (int32_t i = first; i <= last; ++i) {
        if (elements[i] == id) elements[i] = 0;
    }
}

namespace {

// The neighbour of id in one direction (0 starts from the end behind it). The
// element found is looked up as well, so that a stale one is never returned:
// the set is compacted and the step taken again.
ObjectId oset_step(ObjectId handle, ObjectId id, Reading::Direction direction) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return 0;
    const void* key = nullptr;
    if (id != 0 && (error_pending() || !object_key(*entry, id, key))) return 0;
    int32_t position = run_search(*entry, [&]() -> std::optional<int32_t> {
        std::optional<int32_t> found = position_beyond_attempt(Reading(*entry, key, direction), id);
        if (!found || *found < 0 || *found >= element_count(*entry)) return found;
        if (is_stale(*entry, elements_of(*entry)[*found])) return std::nullopt;
        return found;
    });
    return element_at(*entry, position);
}

} // namespace

ObjectId oset_next(ObjectId handle, ObjectId id) {
    return oset_step(handle, id, Reading::Direction::forward);
}

ObjectId oset_prev(ObjectId handle, ObjectId id) {
    return oset_step(handle, id, Reading::Direction::backward);
}

ObjectId oset_search(ObjectId handle, const void* key, bool* out_exact) {
    if (out_exact) *out_exact = false;
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return 0;
    bool exact = false;
    int32_t position = run_search(*entry, [&] { return search_attempt(*entry, key, exact); });
    if (position < 0) return 0;
    if (out_exact) *out_exact = exact;
    return element_at(*entry, position);
}

ObjectId oset_first_after(ObjectId handle, const void* key) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return 0;
    return element_at(*entry, run_search(*entry, [&] { return first_after_attempt(*entry, key); }));
}

ObjectId oset_last_before(ObjectId handle, const void* key) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return 0;
    return element_at(*entry, run_search(*entry, [&] { return last_before_attempt(*entry, key); }));
}

bool oset_next_equal(ObjectId handle, const void* key, ObjectId& id, void** out_address) {
    if (out_address) *out_address = nullptr;
    OrderedSetEntry* entry = find_entry(handle);
    ObjectId found = 0;
    if (entry && id == 0) {
        bool exact = false;
        found = oset_search(handle, key, &exact);
        if (!exact) found = 0;
    } else if (entry) {
        found = oset_next(handle, id);
        const void* found_key = nullptr;
        if (found != 0 && (!object_key(*entry, found, found_key) ||
                           field_compare(entry->key_kind, key, found_key) != 0)) {
            found = 0;
        }
    }
    id = found;
    if (found == 0) return false;
    return get_obj_adr(entry->type, found, out_address) != nullptr;
}

void* oset_closest(ObjectId handle, const void* key, bool* out_exact, ObjectId* out_id,
                   void** out_address) {
    ObjectId found = oset_search(handle, key, out_exact);
    if (out_id) *out_id = found;
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) {
        if (out_address) *out_address = nullptr;
        return nullptr;
    }
    return get_obj_adr(entry->type, found, out_address);
}

int32_t oset_count(ObjectId handle) {
    OrderedSetEntry* entry = find_entry(handle);
    return entry ? element_count(*entry) : 0;
}

ObjectId oset_at(ObjectId handle, int32_t position) {
    OrderedSetEntry* entry = find_entry(handle);
    return entry ? element_at(*entry, position) : 0;
}

const void* oset_key(ObjectId handle, ObjectId id) {
    OrderedSetEntry* entry = find_entry(handle);
    const void* key = nullptr;
    if (!entry || !object_key(*entry, id, key)) return nullptr;
    return key;
}

ObjectId oset_clone(ObjectId handle) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return 0;
    ObjectId clone = 0;
    oset_create(entry->source_set, entry->source_oset, entry->type, entry->key_kind,
                entry->key_offset, clone);
    OrderedSetEntry* copy = find_entry(clone);
    if (!copy) return 0;
    int32_t size = entry->set->size;
    if (size > 0) {
        mobj_resize(*copy->set, size);
        std::memcpy(copy->set->data, entry->set->data, static_cast<std::size_t>(size));
    }
    return clone;
}

void oset_delete(ObjectId& handle) {
    if (handle == 0) return;
    OrderedSetEntry* removed = nullptr;
    {
        std::lock_guard lock(registry.mutex);
        for (int32_t i = 0; i < registry.count; ++i) {
            if (registry.entries[i]->set->id != handle) continue;
            removed = registry.entries[i];
            std::memmove(&registry.entries[i], &registry.entries[i + 1],
                         static_cast<std::size_t>(registry.count - i - 1) * sizeof(removed));
            --registry.count;
            if (registry.count == 0) {
                free_mem(registry.entries);
            } else {
                registry.entries = static_cast<OrderedSetEntry**>(checked_realloc(
                    registry.entries, static_cast<std::size_t>(registry.count) * sizeof(removed)));
            }
            break;
        }
    }
    handle = 0;
    if (!removed) return;
    free_mem(removed->set->data);
    free_mem(removed->set);
    free_mem(removed);
}

void oset_delete_objects(ObjectId& handle) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return;
    delete_element_objects(*entry);
    if (!error_pending()) oset_delete(handle);
}

void oset_delete_objects_keep_set(ObjectId handle) {
    OrderedSetEntry* entry = find_entry(handle);
    if (!entry) return;
    delete_element_objects(*entry);
    // The stale ids stay until the next search compacts them, and one more
    // element is counted behind them. That element is 0, an invalid id that
    // the same compaction removes.
    int32_t n = element_count(*entry);
    mobj_resize(*entry->set, (n + 1) * element_size_bytes);
    elements_of(*entry)[n] = 0;
}

} // namespace norvanta
