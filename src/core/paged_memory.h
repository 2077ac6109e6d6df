// Paged memory: byte blocks of any length whose pages need not stay in memory.
//
// A paged block is a Mobj with element_size 0: its data is a table of page
// addresses, each page allocated on first touch. When the process has used up
// its memory budget, pages that have not been touched for a while are written
// to swap files in the temporary directory and freed; a later touch reads them
// back. Memory files (a downloaded page, an inflated archive member, the NMEA
// log that a replay is made from) are such blocks of one 32768-byte page that
// grow a page at a time.
//
// Callers hold a block by its address (find_obj_adr<Mobj>) and reach its bytes
// only through get_page, write_pointer, read_pointer and the append functions:
// a page address stays good until the next call of this module that may
// allocate a page, since that call may evict old pages. The pages touched
// last are spared (see stamps in paged_memory.cpp), so a pointer just handed
// out survives the next few allocations.
//
// Threads: one mutex guards the shared paging state (page list, stamps, swap
// streams); each block belongs to the thread that writes or reads it.
#pragma once

#include <cstdint>
#include <string>

#include "core/mobj.h"

namespace norvanta {

// ---- the memory budget ----

// The budget in megabytes: the limit is two thirds of the physical total, but
// not above max_memory_mb; the budget is the smaller of two thirds of the free
// memory less 30 and the limit less the working set. Integer arithmetic
// throughout; the result is negative when the process is over its budget.
int64_t memory_budget_mb(int64_t total_mb, int64_t free_mb, int64_t working_set_mb,
                         int max_memory_mb);

// Reads the machine's figures and the configured ceiling, and keeps the budget
// and the working set, in bytes, for the accessors below.
void compute_memory_budget();
int64_t memory_budget_bytes();
int64_t working_set_bytes();

// ---- blocks ----

// A memory file starts as one page of this size and grows.
inline constexpr int32_t memory_file_page_bytes = 32768;

// The page_state bytes.
inline constexpr uint8_t page_changed = 0;       // differs from its swap copy, or has none
inline constexpr uint8_t page_saved = 1;         // equal to its swap copy
inline constexpr uint8_t page_memory_only = 255; // never written out, never read back

enum class PagedMode : int32_t {
    swappable = 0,   // pages go to swap files under pressure
    image_cache = 2, // pages live in a file of the reduced-image cache, kept between runs
    memory_only = 3, // every page stays in memory
};

// The image a cached block is made from; four values identify its version.
struct CacheSource {
    const char* path;
    double offset;
    double length;
    double modified;
};

// Creates a paged block with every table sized for page_count pages (none
// allocated yet). owner_value is kept for the caller. cache_source is read in
// image_cache mode only: the block then takes over the cache entry of that
// image version, or a new one, and a complete entry's pages read back from its
// file. Returns the address; both are 0 while gblerr is set.
Mobj* cre_paged_mobj(ObjectId& out_id, int32_t owner_value, const CacheSource* cache_source,
                     int32_t page_count, int32_t page_size, PagedMode mode);
// The memory file's block: cre_paged_mobj of one memory_file_page_bytes page.
Mobj* cre_memory_block(ObjectId& out_id);

// The address of a page, from memory, or allocated and read back from swap
// (zeroed when there is nothing to read). A write access (read_only false)
// turns a saved page into a changed one.
uint8_t* get_page(Mobj& block, int32_t page, bool read_only);
// Where to write length bytes at offset: grows the block when the page does
// not exist yet and raises size when the end moves; length is cut to what
// fits in the page.
uint8_t* write_pointer(Mobj& block, int32_t offset, int32_t& length);
// Where to read length bytes at offset; length is cut to size and to the page
// (0, with null, at or past the end).
const uint8_t* read_pointer(Mobj& block, int32_t offset, int32_t& length);
// At the end of the block, page after page; each returns the new size.
int32_t append_byte(Mobj& block, uint8_t value);
int32_t append_bytes(Mobj& block, const void* data, int32_t length);
// Appends length bytes of the block, from source_offset, to itself. A range
// that reaches into what it produces repeats, as the inflate's window wants.
int32_t copy_within(Mobj& block, int32_t source_offset, int32_t length);
// Makes the block one page of exactly size bytes (at least 1), dropping the
// old pages and their swap files; nothing when it has one page already.
void flatten(Mobj& block);
// One more page in every table.
void grow_block(Mobj& block);

enum class SaveScope {
    group,    // the 100 pages around the page
    one_page, // the page alone
};
// Writes the changed pages of the scope that are in memory to swap.
void save_pages(Mobj& block, int32_t page, SaveScope scope);
// Saves every page, frees each one that has a copy on disk, and closes the
// write stream.
void release_pages(ObjectId block_id);

// One step of eviction; trim_memory runs it while the process is over budget.
void evict_pass();
void trim_memory();
// With the flag on, evicts all it can and stops stamping, so that the pages in
// memory stay; returns the inverted flag.
bool set_paging_frozen(bool frozen);
// A pass that touches many pages keeps them: the stamps spared from eviction
// grow to size / 1000 + 2 when that is more.
void set_stamp_gap(int32_t size);

// The name of the block's only swap file, after all its pages were written
// there; empty when the pages take more than one swap file or there is no
// temporary directory.
std::string get_filemobj_name(Mobj& block);

// Idle-time compaction of the page list. Stops early, leaving a valid list,
// as soon as work_pending (when given) says something waits.
void compact_page_list(bool (*work_pending)() = nullptr);

// ---- start-up and exit ----

// Takes over the destructor of ObjectType Mobj, so that a deleted block frees
// its pages and swap files. Idempotent; cre_paged_mobj makes sure of it too.
void paged_memory_register();
// The end of the process: closes both swap streams and deletes every block's
// swap files (cached blocks keep theirs).
void close_paged_store();

// ---- for the stream reader and tests ----

// Counts every page that left memory or changed address (eviction, flatten,
// release, deletion). A pointer into a page taken at one count is good while
// the count stands.
uint32_t page_release_count();
// Bytes of pages now in memory, over all blocks.
int64_t resident_page_bytes();
// Swap files that the block's pages are spread over.
int32_t swap_file_count(const Mobj& block);
// The path of one swap file of the block.
std::string swap_file_name(const Mobj& block, int32_t file_number);

// Replaces the headroom that trim_memory computes from the machine's figures,
// in bytes (null restores it), so that a test can force eviction on a few
// pages instead of filling the machine.
using HeadroomProbe = int64_t (*)();
void set_headroom_probe(HeadroomProbe probe);

} // namespace norvanta
