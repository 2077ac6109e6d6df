// DataSets: the bag of (id, type) pairs that one file or one source yields.
//
// A DataSet is a store Mobj whose elements are pairs sorted by member id; a
// member of type Mobj is a nested DataSet. The functions here take the set by
// id and look it up each time, since a member's destructor may delete or
// change the very set that is being walked.
#include "core/object_sets.h"

#include <cstring>

#include "core/memory.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

struct MemberPair {
    ObjectId id;
    ObjectType type;
};
constexpr int32_t pair_size_bytes = static_cast<int32_t>(sizeof(MemberPair));
static_assert(pair_size_bytes == 8);

MemberPair* pairs_of(const Mobj& set) {
    return static_cast<MemberPair*>(set.data);
}

Mobj* data_set(ObjectId set) {
    return get_obj_adr<Mobj>(set);
}

// Index of the first pair whose id is at least `wanted` (the count when none).
// wanted is 64-bit so that "above the last id" can be asked for any id.
int32_t lower_bound_pair(const Mobj& set, int64_t wanted) {
    int32_t n = mobj_element_count(set);
    if (n == 0) return 0;
    const MemberPair* pairs = pairs_of(set);
    int32_t lo = 0;
    int32_t hi = n - 1;
    while (hi - lo > 1) {
        int32_t mid = (lo + hi) / 2;
        if (pairs[mid].id >= wanted) {
            hi = mid;
        } else {
            lo = mid;
        }
    }
    if (pairs[lo].id >= wanted) return lo;
    if (pairs[hi].id >= wanted) return hi;
    return n;
}

bool set_holds(const Mobj& set, ObjectId member) {
    int32_t position = lower_bound_pair(set, member);
    return position < mobj_element_count(set) && pairs_of(set)[position].id == member;
}

void clear_error() {
    set_gblerr(ErrorCode::none);
}

} // namespace

void ds_create(ObjectId& out_set) {
    auto* set = static_cast<Mobj*>(cre_obj(ObjectType::Mobj, &out_set, nullptr));
    if (set) set->element_size = pair_size_bytes;
}

bool ds_exists(ObjectId set) {
    return exist_obj(ObjectType::Mobj, set);
}

void ds_add(ObjectId set, ObjectType member_type, ObjectId member) {
    if (member == 0) return;
    Mobj* mobj = data_set(set);
    if (!mobj) return;
    int32_t n = mobj_element_count(*mobj);
    int32_t position = lower_bound_pair(*mobj, member);
    for (; position < n && pairs_of(*mobj)[position].id == member; ++position) {
        if (pairs_of(*mobj)[position].type == member_type) return;
    }
    mobj_resize(*mobj, (n + 1) * pair_size_bytes);
    MemberPair* pairs = pairs_of(*mobj);
    std::memmove(&pairs[position + 1], &pairs[position],
                 static_cast<std::size_t>(n - position) * sizeof(MemberPair));
    pairs[position] = MemberPair{member, member_type};
}

void ds_add_set(ObjectId set, ObjectId child_set) {
    ds_add(set, ObjectType::Mobj, child_set);
}

void ds_remove(ObjectId set, ObjectId member) {
    Mobj* mobj = data_set(set);
    if (!mobj || !set_holds(*mobj, member)) return;
    int32_t n = mobj_element_count(*mobj);
    int32_t position = lower_bound_pair(*mobj, member);
    MemberPair* pairs = pairs_of(*mobj);
    std::memmove(&pairs[position], &pairs[position + 1],
                 static_cast<std::size_t>(n - position - 1) * sizeof(MemberPair));
    mobj->size -= pair_size_bytes;
}

void ds_clear(ObjectId set) {
    Mobj* mobj = data_set(set);
    if (!mobj) return;
    free_mem(mobj->data);
    mobj->size = 0;
}

void ds_delete_members(ObjectId set) {
    // A member's destructor may delete or change this very set, so the set is
    // looked up afresh before each pair.
    for (int32_t i = 0;; ++i) {
        auto* mobj = find_obj_adr<Mobj>(set);
        if (!mobj || i >= mobj_element_count(*mobj) || error_pending()) break;
        MemberPair pair = pairs_of(*mobj)[i];
        del_obj(pair.type, pair.id);
    }
    // Members that an error left alive stay listed, so that they are not lost.
    if (error_pending()) return;
    if (auto* mobj = find_obj_adr<Mobj>(set)) {
        free_mem(mobj->data);
        mobj->size = 0;
    }
}

void ds_destroy(ObjectId& set) {
    if (Mobj* mobj = data_set(set)) {
        free_mem(mobj->data);
        mobj->size = 0;
    }
    del_obj_adr(ObjectType::Mobj, set);
}

void ds_delete_tree(ObjectId set) {
    // Whatever error was pending is given up: a tree is deleted as far as it goes.
    clear_error();
    ObjectId child = 0;
    for (;;) {
        ds_next_of_type(set, ObjectType::Mobj, child, nullptr);
        clear_error();
        if (child == 0) break;
        ds_delete_tree(child);
        clear_error();
    }
    ds_delete_members(set);
    clear_error();
}

void ds_next(ObjectId set, ObjectType& out_type, ObjectId& member) {
    out_type = ObjectType::None;
    Mobj* mobj = data_set(set);
    if (!mobj) {
        member = 0;
        return;
    }
    int32_t n = mobj_element_count(*mobj);
    const MemberPair* pairs = pairs_of(*mobj);
    int32_t position = lower_bound_pair(*mobj, static_cast<int64_t>(member) + 1);
    while (position < n && pairs[position].type == ObjectType::Mobj)
        ++position;
    if (position == n) {
        member = 0;
        return;
    }
    member = pairs[position].id;
    out_type = pairs[position].type;
}

void* ds_next_of_type(Mobj* set, ObjectType type, ObjectId& member, void** out_address) {
    if (out_address) *out_address = nullptr;
    if (!set || error_pending()) {
        member = 0;
        return nullptr;
    }
    int32_t n = mobj_element_count(*set);
    const MemberPair* pairs = pairs_of(*set);
    int32_t position = lower_bound_pair(*set, static_cast<int64_t>(member) + 1);
    while (position < n && pairs[position].type != type)
        ++position;
    if (position == n) {
        member = 0;
        return nullptr;
    }
    member = pairs[position].id;
    if (!out_address) return nullptr;
    return get_obj_adr(pairs[position].type, member, out_address);
}

void* ds_next_of_type(ObjectId set, ObjectType type, ObjectId& member, void** out_address) {
    return ds_next_of_type(data_set(set), type, member, out_address);
}

void ds_last_of_type(ObjectId set, ObjectType type, ObjectId& out_member) {
    out_member = 0;
    Mobj* mobj = data_set(set);
    if (!mobj) return;
    const MemberPair* pairs = pairs_of(*mobj);
    for (int32_t i = mobj_element_count(*mobj) - 1; i >= 0; --i) {
        if (pairs[i].type == type) {
            out_member = pairs[i].id;
            return;
        }
    }
}

int32_t ds_count(ObjectId set, ObjectType type) {
    Mobj* mobj = data_set(set);
    if (!mobj) return 0;
    int32_t n = mobj_element_count(*mobj);
    if (type == ObjectType::None) return n;
    const MemberPair* pairs = pairs_of(*mobj);
    int32_t count = 0;
    for (int32_t i = 0; i < n; ++i) {
        if (pairs[i].type == type) ++count;
    }
    return count;
}

bool ds_has(ObjectId set, ObjectType type) {
    return ds_count(set, type) > 0;
}

void ds_move(ObjectId from_set, ObjectId to_set) {
    for (int32_t i = 0;; ++i) {
        Mobj* from = data_set(from_set);
        if (!from || i >= mobj_element_count(*from)) break;
        MemberPair pair = pairs_of(*from)[i];
        ds_add(to_set, pair.type, pair.id);
    }
    ds_clear(from_set);
}

void* ds_walk(ObjectId root, ObjectType type, ObjectId* out_holder, ObjectId& member,
              void** out_address, PairList*& stack) {
    if (out_holder) *out_holder = 0;
    if (out_address) *out_address = nullptr;
    if (!stack) {
        // Breadth first: every set on the stack appends its nested sets behind
        // the others, so the walk, taking from the end, ends with the root.
        pair_list_add_value(stack, root);
        for (int32_t i = 0; i < pair_list_count(stack); ++i) {
            intptr_t holder = 0;
            pair_list_get(stack, i, nullptr, &holder);
            ObjectId child = 0;
            for (;;) {
                ds_next_of_type(static_cast<ObjectId>(holder), ObjectType::Mobj, child, nullptr);
                if (child == 0) break;
                pair_list_add_value(stack, child);
            }
        }
    }
    while (pair_list_count(stack) > 0) {
        intptr_t holder = 0;
        pair_list_get(stack, pair_list_count(stack) - 1, nullptr, &holder);
        void* address = ds_next_of_type(static_cast<ObjectId>(holder), type, member, out_address);
        if (member != 0) {
            if (out_holder) *out_holder = static_cast<ObjectId>(holder);
            return address;
        }
        pair_list_pop(stack, nullptr, nullptr);
    }
    member = 0;
    return nullptr;
}

void* ds_walk_sets(ObjectId root, ObjectId* out_holder, ObjectId& member, void** out_address,
                   PairList*& stack) {
    return ds_walk(root, ObjectType::Mobj, out_holder, member, out_address, stack);
}

int32_t ds_count_tree(ObjectId root, ObjectType type) {
    int32_t total = ds_count(root, type);
    ObjectId child = 0;
    for (;;) {
        ds_next_of_type(root, ObjectType::Mobj, child, nullptr);
        if (child == 0) break;
        total += ds_count_tree(child, type);
    }
    return total;
}

void ds_find_holder(ObjectId root, ObjectId member, ObjectId& out_set) {
    out_set = 0;
    Mobj* mobj = data_set(root);
    if (!mobj) return;
    if (set_holds(*mobj, member)) {
        out_set = root;
        return;
    }
    ObjectId child = 0;
    for (;;) {
        ds_next_of_type(root, ObjectType::Mobj, child, nullptr);
        if (child == 0) return;
        ds_find_holder(child, member, out_set);
        if (out_set != 0) return;
    }
}

} // namespace norvanta
