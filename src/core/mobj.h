// Mobj: the record behind the store's per-type tables, the DataSets, the
// OrderedSets and the paged byte blocks.
//
// A sorted array uses element_size, size and data; a paged block has
// element_size 0 and uses the page fields, with data as its page table.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/object_types.h"

namespace norvanta {

using ObjectId = int32_t;

struct Mobj {
    static constexpr ObjectType object_type = ObjectType::Mobj;

    ObjectId id;              // object header
    ObjectType type;          // object header: ObjectType::Mobj
    int32_t owner_value;      // owner id, or a caller's value in a paged block
    int32_t owner_type;       // owner's ObjectType
    int32_t element_size;     // bytes per element; 0 in a paged block
    int32_t size;             // used bytes
    ObjectId cache_entry;     // paged: ImageCacheEntry holding the pages, else 0
    int32_t page_count;       // paged: pages
    int32_t page_size;        // paged: bytes per page
    uint32_t* page_stamps;    // paged: last-use stamp of each page
    uint32_t* page_list_index; // paged: position + 1 in the page list, 0 when not listed
    uint8_t* page_state;      // paged: 0 changed, 1 saved and equal, 255 memory only
    void* data;               // element array, or the page table of a paged block
    int32_t pages_per_file;   // paged: pages in one swap file
    int32_t next_read;        // paged: page after the last one read from the open swap file
    int32_t* file_fill;       // paged: pages written so far, per swap file
};
static_assert(std::is_trivially_copyable_v<Mobj> && std::is_standard_layout_v<Mobj>);

inline int32_t mobj_element_count(const Mobj& mobj) {
    return mobj.element_size ? mobj.size / mobj.element_size : 0;
}

} // namespace norvanta
