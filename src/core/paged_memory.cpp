// Paged memory: blocks whose pages are allocated on first touch and leave
// memory for swap files when the process is over its budget.
//
// Eviction goes by age, not by a clock. A touch of a page under a stamp other
// than the current one moves the page to the end of the page list and gives it
// the current stamp; after 1000 such first touches a new stamp begins. The
// list is thus ordered oldest first, and an eviction pass walks it from the
// front: changed pages are written out (with the 100 around them, so that
// swap files are written in runs) and saved pages are freed, up to
// evict_stamp, which rises one stamp per pass. The last stamp_gap stamps are
// never evicted, so a page a caller has just been handed stays in memory.
// Touching a page again within its stamp costs no list operation at all.
//
// A swap file holds pages_per_file pages, each at its index * page_size. One
// read stream and one write stream serve every block; taking one closes the
// other when it holds the same file, so no file is ever open twice.
#include "core/paged_memory.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/types.h>

#include "core/image_cache.h"
#include "core/memory.h"
#include "core/object_store.h"
#include "core/pair_list.h"
#include "platform/os.h"
#include "shell/config.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// Memory that the budget leaves to the rest of the machine, in megabytes.
constexpr int64_t free_memory_reserve_mb = 30;
constexpr int64_t bytes_per_mb = int64_t{1} << 20;

constexpr int64_t swap_file_max_bytes = 0x40000000;
// Pages written together when one of them must go.
constexpr int32_t save_group_pages = 100;

constexpr uint32_t first_stamp = 8;
constexpr uint32_t first_evict_stamp = 2;
constexpr uint32_t first_stamp_gap = 3;
constexpr int32_t pages_per_stamp = 1000;
// Past this the stamps start again low, and so does evict_stamp.
constexpr uint32_t stamp_limit = 100000000;
// set_stamp_gap: one stamp spared per this many pages of a pass, plus a margin.
constexpr int32_t stamp_gap_pages_per_stamp = 1000;
constexpr uint32_t stamp_gap_margin = 2;
// compact_page_list asks whether work waits once per this many entries.
constexpr int32_t compaction_yield_interval = 256;
// The machine's memory figures are read again after this many page
// allocations, or sooner when the pages allocated since could have spent the
// headroom last seen: reading them costs more than allocating a page.
constexpr int32_t allocations_per_memory_reading = 64;

// Written at start-up and at each trim, read by whichever thread touches a page.
std::atomic<int64_t> budget_bytes{0};
std::atomic<int64_t> working_bytes{0};
std::atomic<uint32_t> release_count{0};
std::atomic<int64_t> resident_bytes{0};
std::atomic<HeadroomProbe> headroom_probe{nullptr};
std::atomic<bool> destructor_registered{false};

int64_t two_thirds(int64_t value) {
    return value * 2 / 3;
}

struct SwapStream {
    std::FILE* file;
    ObjectId owner;      // the block whose swap file is open
    int32_t file_number; // which of its swap files; -1 after a failed open
    int64_t position;    // byte offset the stream stands at; -1 when unknown
};
constexpr SwapStream no_stream{nullptr, 0, -1, 0};

// The state that all blocks share. The mutex is recursive because public
// operations are built on one another (append_bytes on write_pointer on
// get_page on trim_memory) and each may also be called on its own.
struct Paging {
    std::recursive_mutex mutex;
    PairList* page_list = nullptr; // (page index, block address), oldest first
    int32_t list_start = 0;        // every entry before it is empty
    bool page_list_dirty = false;  // entries were cleared since the last compaction
    uint32_t stamp = first_stamp;
    uint32_t evict_stamp = first_evict_stamp; // pages stamped at or below it are old
    uint32_t stamp_gap = first_stamp_gap;     // newest stamps that are never evicted
    int32_t stamp_touches = 0;                // first touches under the current stamp
    bool stamping_on = true;
    bool frozen = false;
    int64_t headroom_estimate = -1; // bytes: the last reading less the pages allocated since
    int32_t allocations_since_reading = 0;
    SwapStream read_stream = no_stream;
    SwapStream write_stream = no_stream;
};
Paging paging;

using Lock = std::lock_guard<std::recursive_mutex>;

// ---- tables ----

uint8_t** page_table(const Mobj& block) {
    return static_cast<uint8_t**>(block.data);
}

bool is_paged(const Mobj& block) {
    return block.element_size == 0 && block.page_size > 0 && block.page_state;
}

int32_t files_for(int32_t page_count, int32_t pages_per_file) {
    return pages_per_file > 0 ? (page_count + pages_per_file - 1) / pages_per_file : 0;
}

// Bytes of the page that lie below size: what a save writes.
int64_t used_in_page(const Mobj& block, int32_t page) {
    return std::clamp<int64_t>(block.size - int64_t{page} * block.page_size, 0, block.page_size);
}

template <class T>
void grow_table(T*& table, int32_t old_count, int32_t new_count, T fill) {
    realloc_mem(table, sizeof(T) * static_cast<std::size_t>(new_count));
    std::fill(table + old_count, table + new_count, fill);
}

void grow_tables(Mobj& block, int32_t new_count, uint8_t new_state) {
    const int32_t old_count = block.page_count;
    uint8_t** pages = page_table(block);
    grow_table(pages, old_count, new_count, static_cast<uint8_t*>(nullptr));
    block.data = pages;
    grow_table(block.page_stamps, old_count, new_count, uint32_t{0});
    grow_table(block.page_list_index, old_count, new_count, uint32_t{0});
    grow_table(block.page_state, old_count, new_count, new_state);
    const int32_t old_files = files_for(old_count, block.pages_per_file);
    const int32_t new_files = files_for(new_count, block.pages_per_file);
    if (new_files > old_files || !block.file_fill)
        grow_table(block.file_fill, old_files, new_files, int32_t{0});
    block.page_count = new_count;
}

// A new page stays in memory only when the one before it does.
void grow_by_one_page(Mobj& block) {
    const bool memory_only = block.page_state[block.page_count - 1] == page_memory_only;
    grow_tables(block, block.page_count + 1, memory_only ? page_memory_only : page_changed);
}

// ---- the page list and stamps ----

void unlist_page(Mobj& block, int32_t page) {
    if (!block.page_list_index) return;
    uint32_t& place = block.page_list_index[page];
    if (place == 0) return;
    paging.page_list->pairs[place - 1] = Pair{0, 0};
    paging.page_list_dirty = true;
    place = 0;
}

void next_stamp() {
    if (++paging.stamp >= stamp_limit) {
        paging.stamp = paging.stamp_gap + stamp_gap_margin;
        paging.evict_stamp = first_evict_stamp;
    }
}

void touch_page(Mobj& block, int32_t page) {
    if (!paging.stamping_on || block.page_stamps[page] == paging.stamp) return;
    if (++paging.stamp_touches >= pages_per_stamp) {
        paging.stamp_touches = 0;
        next_stamp();
    }
    block.page_stamps[page] = paging.stamp;
    unlist_page(block, page);
    pair_list_add(paging.page_list, page, reinterpret_cast<intptr_t>(&block));
    block.page_list_index[page] = static_cast<uint32_t>(pair_list_count(paging.page_list));
    paging.page_list_dirty = true;
}

bool evict_stamp_can_rise() {
    return int64_t{paging.evict_stamp} < int64_t{paging.stamp} - paging.stamp_gap;
}

void free_page(Mobj& block, int32_t page) {
    unlist_page(block, page);
    uint8_t*& slot = page_table(block)[page];
    if (!slot) return;
    free_mem(slot);
    resident_bytes.fetch_sub(block.page_size, std::memory_order_relaxed);
    release_count.fetch_add(1, std::memory_order_release);
}

uint8_t* allocate_page(int32_t page_size, bool zeroed) {
    uint8_t* page = nullptr;
    if (zeroed) {
        alloc_zero_mem(page, static_cast<std::size_t>(page_size));
    } else {
        alloc_mem(page, static_cast<std::size_t>(page_size));
    }
    resident_bytes.fetch_add(page_size, std::memory_order_relaxed);
    paging.headroom_estimate -= page_size;
    ++paging.allocations_since_reading;
    return page;
}

// ---- swap streams ----

void shut(SwapStream& stream) {
    if (stream.file) std::fclose(stream.file);
    stream = no_stream;
}

bool holds(const SwapStream& stream, ObjectId owner, int32_t file_number) {
    return stream.file && stream.owner == owner && stream.file_number == file_number;
}

void shut_streams_of(ObjectId owner) {
    if (paging.read_stream.owner == owner) shut(paging.read_stream);
    if (paging.write_stream.owner == owner) shut(paging.write_stream);
}

bool stand_at(SwapStream& stream, int64_t offset) {
    if (stream.position == offset) return true;
    if (::fseeko(stream.file, static_cast<off_t>(offset), SEEK_SET) != 0) {
        stream.position = -1;
        return false;
    }
    stream.position = offset;
    return true;
}

std::FILE* read_stream_for(const Mobj& block, int32_t file_number) {
    SwapStream& stream = paging.read_stream;
    if (holds(stream, block.id, file_number)) return stream.file;
    shut(stream);
    if (holds(paging.write_stream, block.id, file_number)) shut(paging.write_stream);
    const std::string name = swap_file_name(block, file_number);
    if (name.empty()) return nullptr;
    std::FILE* file = std::fopen(name.c_str(), "rb");
    if (file) stream = SwapStream{file, block.id, file_number, 0};
    return file;
}

// Pages of a swap file that was made anew lost their copies.
void forget_copies(Mobj& block, int32_t file_number) {
    const int32_t first = file_number * block.pages_per_file;
    const int32_t end = std::min(first + block.pages_per_file, block.page_count);
    for (int32_t page = first; page < end; ++page) {
        if (block.page_state[page] == page_saved) block.page_state[page] = page_changed;
    }
    block.file_fill[file_number] = 0;
}

std::FILE* write_stream_for(Mobj& block, int32_t file_number) {
    SwapStream& stream = paging.write_stream;
    if (holds(stream, block.id, file_number)) return stream.file;
    shut(stream);
    if (holds(paging.read_stream, block.id, file_number)) shut(paging.read_stream);
    const std::string name = swap_file_name(block, file_number);
    if (name.empty()) return nullptr;
    // A page at the end of the file is written in place like any other: had it
    // been appended, a short last page before it would shift it.
    std::FILE* file = block.file_fill[file_number] > 0 ? std::fopen(name.c_str(), "r+b") : nullptr;
    if (!file) {
        if (block.cache_entry && !cache_disk_has_room(name.c_str())) return nullptr;
        file = std::fopen(name.c_str(), "wb");
        if (!file && os::make_parent_directories(name.c_str()))
            file = std::fopen(name.c_str(), "wb");
        if (!file) return nullptr; // the page stays in memory
        if (block.file_fill[file_number] > 0) forget_copies(block, file_number);
    }
    stream = SwapStream{file, block.id, file_number, 0};
    return file;
}

// A page whose copy can't be read comes back zeroed.
void read_page_from_swap(Mobj& block, int32_t page, uint8_t* destination) {
    const int32_t file_number = page / block.pages_per_file;
    const int64_t offset = int64_t{page % block.pages_per_file} * block.page_size;
    const auto page_bytes = static_cast<std::size_t>(block.page_size);
    std::size_t got = 0;
    SwapStream& stream = paging.read_stream;
    if (read_stream_for(block, file_number) && stand_at(stream, offset)) {
        got = std::fread(destination, 1, page_bytes, stream.file);
        stream.position = got == page_bytes ? offset + static_cast<int64_t>(got) : -1;
        block.next_read = page + 1;
    }
    if (got < page_bytes) std::memset(destination + got, 0, page_bytes - got);
}

// The write is flushed at once: a page is freed after it is saved, so a full
// disk must show here and not at a later close.
bool write_page(Mobj& block, int32_t page) {
    const int32_t file_number = page / block.pages_per_file;
    const int32_t place = page % block.pages_per_file;
    std::FILE* file = write_stream_for(block, file_number);
    SwapStream& stream = paging.write_stream;
    if (!file || !stand_at(stream, int64_t{place} * block.page_size)) return false;
    const auto bytes = static_cast<std::size_t>(used_in_page(block, page));
    if (std::fwrite(page_table(block)[page], 1, bytes, file) != bytes || std::fflush(file) != 0) {
        shut(stream);
        return false;
    }
    stream.position += static_cast<int64_t>(bytes);
    block.page_state[page] = page_saved;
    block.file_fill[file_number] = std::max(block.file_fill[file_number], place + 1);
    return true;
}

bool all_pages_saved(const Mobj& block) {
    return std::all_of(block.page_state, block.page_state + block.page_count,
                       [](uint8_t state) { return state == page_saved; });
}

void save_range(Mobj& block, int32_t first, int32_t end) {
    for (int32_t page = first; page < end; ++page) {
        if (page_table(block)[page] && block.page_state[page] == page_changed &&
            !write_page(block, page))
            break; // the rest of the run would fail the same way
    }
    if (block.cache_entry && all_pages_saved(block)) cache_entry_completed(block.cache_entry);
}

void save_all(Mobj& block) {
    for (int32_t first = 0; first < block.page_count; first += save_group_pages)
        save_range(block, first, std::min(first + save_group_pages, block.page_count));
}

void delete_swap_files(Mobj& block) {
    if (!block.file_fill) return;
    const int32_t files = files_for(block.page_count, block.pages_per_file);
    for (int32_t file_number = 0; file_number < files; ++file_number) {
        if (block.file_fill[file_number] == 0) continue;
        if (holds(paging.read_stream, block.id, file_number)) shut(paging.read_stream);
        if (holds(paging.write_stream, block.id, file_number)) shut(paging.write_stream);
        os::remove_file(swap_file_name(block, file_number).c_str());
        block.file_fill[file_number] = 0;
    }
}

// ---- eviction ----

int64_t headroom_bytes() {
    if (HeadroomProbe probe = headroom_probe.load(std::memory_order_acquire)) return probe();
    if (paging.headroom_estimate < 0 ||
        paging.allocations_since_reading >= allocations_per_memory_reading) {
        compute_memory_budget();
        paging.headroom_estimate = memory_budget_bytes();
        paging.allocations_since_reading = 0;
    }
    return paging.headroom_estimate;
}

bool eviction_possible() {
    return !paging.frozen && temp_prefix() != nullptr;
}

void evict_pass_locked() {
    PairList* list = paging.page_list;
    const int32_t count = pair_list_count(list);
    for (int32_t index = paging.list_start; index < count; ++index) {
        const Pair entry = list->pairs[index];
        if (entry.value == 0) continue;
        Mobj& block = *reinterpret_cast<Mobj*>(entry.value);
        const auto page = static_cast<int32_t>(entry.key);
        if (block.page_stamps[page] > paging.evict_stamp) break;
        if (block.page_state[page] == page_changed) {
            const int32_t first = page / save_group_pages * save_group_pages;
            save_range(block, first, std::min(first + save_group_pages, block.page_count));
        }
        if (block.page_state[page] == page_saved) free_page(block, page);
    }
    while (paging.list_start < count && list->pairs[paging.list_start].value == 0)
        ++paging.list_start;
    if (evict_stamp_can_rise()) ++paging.evict_stamp;
}

void trim_locked() {
    if (!eviction_possible()) return;
    while (evict_stamp_can_rise() && headroom_bytes() < 0) {
        evict_pass_locked();
        paging.headroom_estimate = -1; // what the pass freed shows only in a new reading
    }
}

// ---- access ----

uint8_t* get_page_locked(Mobj& block, int32_t page, bool read_only) {
    if (!is_paged(block) || page < 0 || page >= block.page_count) return nullptr;
    touch_page(block, page);
    if (!page_table(block)[page]) {
        trim_locked();
        const bool from_swap = block.page_state[page] == page_saved;
        uint8_t* fresh = allocate_page(block.page_size, !from_swap);
        if (from_swap) read_page_from_swap(block, page, fresh);
        page_table(block)[page] = fresh;
    }
    if (!read_only && block.page_state[page] == page_saved) block.page_state[page] = page_changed;
    return page_table(block)[page];
}

uint8_t* write_pointer_locked(Mobj& block, int32_t offset, int32_t& length) {
    const int64_t end = int64_t{offset} + length;
    if (!is_paged(block) || offset < 0 || length <= 0 || offset >= INT32_MAX) {
        length = 0;
        return nullptr;
    }
    // A block never passes 2 GiB: what would lie beyond is cut off.
    if (end > INT32_MAX) length = INT32_MAX - offset;
    const int32_t page = offset / block.page_size;
    while (page >= block.page_count)
        grow_by_one_page(block);
    uint8_t* address = get_page_locked(block, page, false);
    const int32_t in_page = offset % block.page_size;
    length = std::min(length, block.page_size - in_page);
    block.size = std::max(block.size, offset + length);
    return address + in_page;
}

const uint8_t* read_pointer_locked(Mobj& block, int32_t offset, int32_t& length) {
    if (!is_paged(block) || offset < 0 || offset >= block.size || length <= 0) {
        length = 0;
        return nullptr;
    }
    const int32_t page = offset / block.page_size;
    const int32_t in_page = offset % block.page_size;
    length = std::min({length, block.size - offset, block.page_size - in_page});
    const uint8_t* address = get_page_locked(block, page, true);
    if (!address) {
        length = 0;
        return nullptr;
    }
    return address + in_page;
}

// The destructor of every Mobj: a sorted array frees its elements, a paged
// block its pages, its swap files (unless the cache keeps them) and tables.
void destroy_mobj(void* record) {
    auto& block = *static_cast<Mobj*>(record);
    if (block.element_size != 0) {
        free_mem(block.data);
        return;
    }
    Lock lock(paging.mutex);
    shut_streams_of(block.id);
    if (block.data) {
        for (int32_t page = 0; page < block.page_count; ++page)
            free_page(block, page);
    }
    if (!block.cache_entry) delete_swap_files(block);
    free_mem(block.data);
    free_mem(block.page_stamps);
    free_mem(block.page_list_index);
    free_mem(block.page_state);
    free_mem(block.file_fill);
}

} // namespace

// ---- the memory budget ----

int64_t memory_budget_mb(int64_t total_mb, int64_t free_mb, int64_t working_set_mb,
                         int max_memory_mb) {
    const int64_t limit_mb = std::min(two_thirds(total_mb), int64_t{max_memory_mb});
    return std::min(two_thirds(free_mb) - free_memory_reserve_mb, limit_mb - working_set_mb);
}

void compute_memory_budget() {
    const os::MemoryFigures figures = os::memory_figures();
    const int64_t working_set_mb = static_cast<int64_t>(figures.working_set_mb);
    const int64_t budget_mb = memory_budget_mb(static_cast<int64_t>(figures.physical_total_mb),
                                               static_cast<int64_t>(figures.physical_free_mb),
                                               working_set_mb, max_memory());
    budget_bytes.store(budget_mb * bytes_per_mb, std::memory_order_relaxed);
    working_bytes.store(working_set_mb * bytes_per_mb, std::memory_order_relaxed);
}

int64_t memory_budget_bytes() {
    return budget_bytes.load(std::memory_order_relaxed);
}

int64_t working_set_bytes() {
    return working_bytes.load(std::memory_order_relaxed);
}

// ---- blocks ----

void paged_memory_register() {
    if (destructor_registered.exchange(true)) return;
    object_store_create();
    set_obj_destructor(ObjectType::Mobj, destroy_mobj);
}

Mobj* cre_paged_mobj(ObjectId& out_id, int32_t owner_value, const CacheSource* cache_source,
                     int32_t page_count, int32_t page_size, PagedMode mode) {
    paged_memory_register();
    auto* block = cre_obj<Mobj>(&out_id);
    if (!block) return nullptr;
    page_count = std::max(page_count, 1);
    page_size = std::max(page_size, 1);
    block->owner_value = owner_value;
    block->page_size = page_size;
    block->pages_per_file = static_cast<int32_t>(
        std::min<int64_t>(std::max<int64_t>(swap_file_max_bytes / page_size, 1), page_count));
    grow_tables(*block, page_count,
                mode == PagedMode::memory_only ? page_memory_only : page_changed);
    if (mode != PagedMode::image_cache || !cache_source) return block;

    block->cache_entry = find_cache_entry(*cache_source);
    const auto* entry = find_obj_adr<ImageCacheEntry>(block->cache_entry);
    if (entry && entry->complete) {
        // The pages are in the entry's file from an earlier run.
        std::fill(block->page_state, block->page_state + page_count, page_saved);
        const int32_t files = files_for(page_count, block->pages_per_file);
        for (int32_t file_number = 0; file_number < files; ++file_number)
            block->file_fill[file_number] =
                std::min(block->pages_per_file, page_count - file_number * block->pages_per_file);
        block->size =
            static_cast<int32_t>(std::min<int64_t>(int64_t{page_count} * page_size, INT32_MAX));
    }
    return block;
}

Mobj* cre_memory_block(ObjectId& out_id) {
    return cre_paged_mobj(out_id, 0, nullptr, 1, memory_file_page_bytes, PagedMode::swappable);
}

uint8_t* get_page(Mobj& block, int32_t page, bool read_only) {
    Lock lock(paging.mutex);
    return get_page_locked(block, page, read_only);
}

uint8_t* write_pointer(Mobj& block, int32_t offset, int32_t& length) {
    Lock lock(paging.mutex);
    return write_pointer_locked(block, offset, length);
}

const uint8_t* read_pointer(Mobj& block, int32_t offset, int32_t& length) {
    Lock lock(paging.mutex);
    return read_pointer_locked(block, offset, length);
}

int32_t append_byte(Mobj& block, uint8_t value) {
    return append_bytes(block, &value, 1);
}

int32_t append_bytes(Mobj& block, const void* data, int32_t length) {
    Lock lock(paging.mutex);
    const auto* from = static_cast<const uint8_t*>(data);
    while (length > 0) {
        int32_t piece = length;
        uint8_t* to = write_pointer_locked(block, block.size, piece);
        if (!to) break;
        std::memcpy(to, from, static_cast<std::size_t>(piece));
        from += piece;
        length -= piece;
    }
    return block.size;
}

// Each piece is at most the distance between source and end, so that source
// and destination never overlap, and a range that reaches into what it
// produces repeats its start.
int32_t copy_within(Mobj& block, int32_t source_offset, int32_t length) {
    Lock lock(paging.mutex);
    if (source_offset < 0) return block.size;
    const int32_t distance = block.size - source_offset;
    while (length > 0 && distance > 0) {
        int32_t piece = std::min(length, distance);
        const uint8_t* from = read_pointer_locked(block, source_offset, piece);
        if (!from) break;
        // The source page has the current stamp: the allocation that the
        // write may cause can't evict it.
        uint8_t* to = write_pointer_locked(block, block.size, piece);
        if (!to) break;
        std::memcpy(to, from, static_cast<std::size_t>(piece));
        source_offset += piece;
        length -= piece;
    }
    return block.size;
}

void flatten(Mobj& block) {
    Lock lock(paging.mutex);
    if (!is_paged(block) || block.page_count <= 1) return;
    const int32_t whole_bytes = std::max(block.size, 1);
    uint8_t* whole = allocate_page(whole_bytes, true);
    for (int32_t page = 0; page < block.page_count; ++page) {
        const int64_t bytes = used_in_page(block, page);
        if (bytes == 0) break;
        const uint8_t* from = get_page_locked(block, page, true);
        std::memcpy(whole + int64_t{page} * block.page_size, from, static_cast<std::size_t>(bytes));
        free_page(block, page);
    }
    for (int32_t page = 0; page < block.page_count; ++page)
        free_page(block, page);
    const uint8_t state = block.page_state[0] == page_memory_only ? page_memory_only : page_changed;
    if (block.cache_entry) {
        // The cache file holds pages of the old size: it no longer answers.
        if (auto* entry = find_obj_adr<ImageCacheEntry>(block.cache_entry)) entry->complete = 0;
    } else {
        delete_swap_files(block);
    }
    block.page_count = 1;
    block.page_size = whole_bytes;
    block.pages_per_file = 1;
    block.next_read = 0;
    block.file_fill[0] = 0;
    block.page_state[0] = state;
    block.page_stamps[0] = 0;
    block.page_list_index[0] = 0;
    page_table(block)[0] = whole;
    touch_page(block, 0);
    release_count.fetch_add(1, std::memory_order_release);
}

void grow_block(Mobj& block) {
    Lock lock(paging.mutex);
    if (is_paged(block)) grow_by_one_page(block);
}

void save_pages(Mobj& block, int32_t page, SaveScope scope) {
    Lock lock(paging.mutex);
    if (!is_paged(block) || page < 0 || page >= block.page_count) return;
    int32_t first = page;
    int32_t end = page + 1;
    if (scope == SaveScope::group) {
        first = page / save_group_pages * save_group_pages;
        end = std::min(first + save_group_pages, block.page_count);
    }
    save_range(block, first, end);
}

void release_pages(ObjectId block_id) {
    Lock lock(paging.mutex);
    auto* block = find_obj_adr<Mobj>(block_id);
    if (!block || !is_paged(*block)) return;
    save_all(*block);
    for (int32_t page = 0; page < block->page_count; ++page) {
        if (block->page_state[page] == page_saved) free_page(*block, page);
    }
    shut(paging.write_stream);
}

void evict_pass() {
    Lock lock(paging.mutex);
    evict_pass_locked();
}

void trim_memory() {
    Lock lock(paging.mutex);
    trim_locked();
}

bool set_paging_frozen(bool frozen) {
    Lock lock(paging.mutex);
    if (frozen && eviction_possible()) {
        while (evict_stamp_can_rise())
            evict_pass_locked();
    }
    paging.frozen = frozen;
    paging.stamping_on = !frozen;
    return !frozen;
}

void set_stamp_gap(int32_t size) {
    Lock lock(paging.mutex);
    const uint32_t wanted =
        static_cast<uint32_t>(std::max(size, 0) / stamp_gap_pages_per_stamp) + stamp_gap_margin;
    paging.stamp_gap = std::max(paging.stamp_gap, wanted);
}

std::string get_filemobj_name(Mobj& block) {
    Lock lock(paging.mutex);
    if (!is_paged(block) || swap_file_count(block) > 1) return {};
    save_all(block);
    shut(paging.write_stream);
    return swap_file_name(block, 0);
}

void compact_page_list(bool (*work_pending)()) {
    Lock lock(paging.mutex);
    PairList* list = paging.page_list;
    if (!paging.page_list_dirty || !list) return;
    const int32_t count = list->count;
    int32_t kept = 0;
    for (int32_t index = 0; index < count; ++index) {
        if (work_pending && index % compaction_yield_interval == 0 && work_pending()) {
            // Entries between kept and index were moved down or were empty.
            std::fill(list->pairs + kept, list->pairs + index, Pair{0, 0});
            paging.list_start = 0;
            return;
        }
        const Pair entry = list->pairs[index];
        if (entry.value == 0) continue;
        if (kept != index) {
            list->pairs[kept] = entry;
            reinterpret_cast<Mobj*>(entry.value)->page_list_index[entry.key] =
                static_cast<uint32_t>(kept + 1);
        }
        ++kept;
    }
    pair_list_set_count(list, kept);
    paging.list_start = 0;
    paging.page_list_dirty = false;
}

// ---- exit ----

void close_paged_store() {
    Lock lock(paging.mutex);
    shut(paging.read_stream);
    shut(paging.write_stream);
    // The walk must see every block whatever failure is pending at exit.
    ErrorHold hold;
    ObjectId id = 0;
    void* address = nullptr;
    while (next_obj(ObjectType::Mobj, id, &address)) {
        auto& block = *static_cast<Mobj*>(address);
        if (is_paged(block) && !block.cache_entry) delete_swap_files(block);
    }
}

// ---- for the stream reader and tests ----

uint32_t page_release_count() {
    return release_count.load(std::memory_order_acquire);
}

int64_t resident_page_bytes() {
    return resident_bytes.load(std::memory_order_relaxed);
}

int32_t swap_file_count(const Mobj& block) {
    return files_for(block.page_count, block.pages_per_file);
}

std::string swap_file_name(const Mobj& block, int32_t file_number) {
    if (block.cache_entry) {
        const auto* entry = find_obj_adr<ImageCacheEntry>(block.cache_entry);
        if (!entry || !entry->full_path) return {};
        std::string name = entry->full_path;
        if (file_number > 0) name += "_" + std::to_string(file_number);
        return name;
    }
    const char* prefix = temp_prefix();
    if (!prefix) return {};
    return std::string(prefix) + std::to_string(block.id) + "_" + std::to_string(file_number);
}

void set_headroom_probe(HeadroomProbe probe) {
    headroom_probe.store(probe, std::memory_order_release);
}

} // namespace norvanta
