// Paged memory: the budget, pages that spill to swap files and come back,
// appends and copies across pages, flatten, the reduced-image cache and its
// session file.
#include "core/paged_memory.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "core/image_cache.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "platform/os.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

using testing::file_exists;
using testing::read_file;
using testing::write_file;

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

// A configuration with a reduced-image directory, in place before anything
// asks for it; the temporary directory is the default one under the home.
class CacheConfiguration : public ::testing::Environment {
  public:
    void SetUp() override {
        const std::string home_dir = os::norvanta_home();
        write_file(home_dir + "norvanta.cfg", "REDUCE_IMAGE_DIR " + home_dir + "cache\n");
        config_use_file((home_dir + "norvanta.cfg").c_str());
        paged_memory_register();
        image_cache_register_type();
        load_image_cache();
    }
};
[[maybe_unused]] const auto* const configuration =
    ::testing::AddGlobalTestEnvironment(new CacheConfiguration);

std::string patterned(std::size_t size, int seed) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 13 + i / 251 + static_cast<std::size_t>(seed)) & 0xFF);
    return bytes;
}

// Names the first difference instead of printing kilobytes.
::testing::AssertionResult same_bytes(const std::string& got, const std::string& expected) {
    if (got == expected) return ::testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < got.size() && at < expected.size() && got[at] == expected[at])
        ++at;
    return ::testing::AssertionFailure() << "sizes " << got.size() << " and " << expected.size()
                                         << ", first difference at byte " << at;
}

int64_t spent_headroom() {
    return -1;
}

int pending_calls = 0;
// Lets compaction take its first stretch, then asks it to yield.
bool work_waits_after_a_while() {
    return ++pending_calls > 1;
}

bool in_memory(const Mobj& block, int32_t page) {
    return static_cast<uint8_t* const*>(block.data)[page] != nullptr;
}

class PagedMemory : public ::testing::Test {
  protected:
    void SetUp() override { set_gblerr(ErrorCode::none); }
    void TearDown() override {
        set_headroom_probe(nullptr);
        for (ObjectId id : blocks_)
            del_obj(ObjectType::Mobj, id);
        set_gblerr(ErrorCode::none);
    }

    Mobj& make(int32_t pages, int32_t page_size, PagedMode mode = PagedMode::swappable,
               const CacheSource* source = nullptr) {
        ObjectId id = 0;
        Mobj* block = cre_paged_mobj(id, 0, source, pages, page_size, mode);
        blocks_.push_back(id);
        return *block;
    }

    static std::string contents(Mobj& block) {
        std::string bytes;
        for (int32_t offset = 0; offset < block.size;) {
            int32_t length = block.size - offset;
            const uint8_t* from = read_pointer(block, offset, length);
            if (!from) break;
            bytes.append(reinterpret_cast<const char*>(from), static_cast<std::size_t>(length));
            offset += length;
        }
        return bytes;
    }

    static void append_in_pieces(Mobj& block, const std::string& data, std::size_t piece) {
        for (std::size_t at = 0; at < data.size(); at += piece) {
            const std::size_t length = std::min(piece, data.size() - at);
            append_bytes(block, data.data() + at, static_cast<int32_t>(length));
        }
    }

    std::vector<ObjectId> blocks_;
};

TEST(PagedMemoryBudget, BudgetIsTheSmallerOfFreeMemoryAndTheLimit) {
    const std::tuple<const char*, int64_t, int64_t, int64_t, int, int64_t> rows[] = {
        {"a large machine: the ceiling less the working set", 8000, 6000, 100, 1000, 900},
        {"little free memory: two thirds of it less 30", 1200, 300, 50, 1000, 170},
        {"a small machine: two thirds of the total is the limit", 600, 600, 100, 1000, 300},
        {"over the limit already: negative", 1000, 1000, 700, 500, -200},
        {"two thirds taken after the product: 1001 gives 667", 1001, 100000, 0, 1000, 667},
        {"the same rounding on free memory: 1001 gives 637", 100000, 1001, 0, 1000, 637},
    };
    for (const auto& [description, total_mb, free_mb, working_set_mb, max_memory_mb, expected_mb] :
         rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(memory_budget_mb(total_mb, free_mb, working_set_mb, max_memory_mb), expected_mb);
    }
    // On a machine with room to spare the ceiling is the budget.
    const std::tuple<const char*, const char*, int64_t> ceilings[] = {
        {"MAXMEM 50 acts as 100", "50", 100},
        {"MAXMEM 2000 acts as 1000", "2000", 1000},
        {"an empty MAXMEM is 1000", "", 1000},
        {"no MAXMEM is 1000", nullptr, 1000},
    };
    for (const auto& [description, value, expected_mb] : ceilings) {
        SCOPED_TRACE(description);
        EXPECT_EQ(memory_budget_mb(64000, 64000, 0, max_memory_from(value)), expected_mb);
    }
}

TEST(PagedMemoryBudget, ComputedBudgetIsKeptInBytes) {
    compute_memory_budget();
    constexpr int64_t bytes_per_mb = int64_t{1} << 20;
    const int64_t budget = memory_budget_bytes();
    const int64_t working_set = working_set_bytes();
    EXPECT_EQ(budget % bytes_per_mb, 0) << "whole megabytes, shifted";
    EXPECT_EQ(working_set % bytes_per_mb, 0) << "whole megabytes, shifted";
    EXPECT_GT(working_set, 0) << "a running test has a working set";
    EXPECT_LE(budget, int64_t{max_memory()} * bytes_per_mb - working_set);
}

// Over budget, old pages go to swap files and come back identical; a page
// changed after it came back is written again at its own place.
TEST_F(PagedMemory, PagesSpillToSwapFilesAndComeBackIdentical) {
    constexpr int32_t page_size = 128;
    constexpr int32_t first_run_pages = 4500; // first touches enough to age the first stamp
    struct Row {
        const char* description;
        int32_t initial_pages;
        bool rewrite_after_eviction;
    };
    const Row rows[] = {
        {"made at full size: one swap file", 2 * first_run_pages, true},
        {"a memory file that grows: one swap file per page", 1, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        set_headroom_probe(spent_headroom);
        Mobj& block = make(row.initial_pages, page_size);
        std::string model = patterned(std::size_t{page_size} * first_run_pages, row.initial_pages);
        append_in_pieces(block, model, 1000);
        ASSERT_EQ(block.size, static_cast<int32_t>(model.size()));
        EXPECT_FALSE(in_memory(block, 0)) << "the oldest page left memory";
        EXPECT_TRUE(file_exists(swap_file_name(block, 0)));
        EXPECT_TRUE(in_memory(block, first_run_pages - 1)) << "the newest page stays";
        EXPECT_LT(resident_page_bytes(), int64_t{block.size}) << "memory holds less than the data";
        const std::string first_file = swap_file_name(block, 0);

        if (row.rewrite_after_eviction) {
            int32_t length = 5;
            std::memcpy(write_pointer(block, 3, length), "fresh", 5);
            model.replace(3, 5, "fresh");
            pending_calls = 0;
            compact_page_list(work_waits_after_a_while);
            compact_page_list();
            const std::string more = patterned(model.size(), 77);
            append_in_pieces(block, more, 999);
            model += more;
            EXPECT_FALSE(in_memory(block, 0)) << "the changed page left memory again";
        }
        set_headroom_probe(nullptr);
        EXPECT_TRUE(same_bytes(contents(block), model));
        del_obj(ObjectType::Mobj, blocks_.back());
        blocks_.pop_back();
        EXPECT_FALSE(file_exists(first_file)) << "deletion removes the swap files";
    }
}

// The page list, stamps and swap streams are shared: a thread filling its own
// block evicts the other's old pages under the one lock.
TEST_F(PagedMemory, ThreadsFillTheirOwnBlocksWhileEvictingEachOther) {
    constexpr int32_t page_size = 64;
    constexpr int32_t pages = 4500; // each thread alone ages its first pages
    set_headroom_probe(spent_headroom);
    Mobj& first = make(pages, page_size);
    Mobj& second = make(pages, page_size);
    const std::string first_data = patterned(std::size_t{page_size} * pages, 21);
    const std::string second_data = patterned(std::size_t{page_size} * pages, 22);
    std::thread other([&] { append_in_pieces(second, second_data, 100); });
    append_in_pieces(first, first_data, 100);
    other.join();
    set_headroom_probe(nullptr);
    EXPECT_FALSE(in_memory(first, 0) || in_memory(second, 0)) << "both lost their oldest pages";
    EXPECT_TRUE(same_bytes(contents(first), first_data));
    EXPECT_TRUE(same_bytes(contents(second), second_data));
}

TEST_F(PagedMemory, MemoryOnlyPagesNeverLeaveWhateverTheHeadroom) {
    set_headroom_probe(spent_headroom);
    Mobj& block = make(1, 64, PagedMode::memory_only);
    append_in_pieces(block, patterned(64 * 4500, 3), 640);
    release_pages(blocks_.back());
    EXPECT_TRUE(in_memory(block, 0));
    EXPECT_EQ(block.page_state[block.page_count - 1], page_memory_only) << "grown pages too";
    EXPECT_FALSE(file_exists(swap_file_name(block, 0)));
    EXPECT_TRUE(get_filemobj_name(block).empty()) << "many pages, many swap files";
}

TEST_F(PagedMemory, AppendsAndCopiesCrossPageBoundaries) {
    Mobj& file = make(1, memory_file_page_bytes);
    std::string model = patterned(memory_file_page_bytes - 1, 1);
    append_bytes(file, model.data(), static_cast<int32_t>(model.size()));
    EXPECT_EQ(file.page_count, 1);
    EXPECT_EQ(append_byte(file, 'x'), memory_file_page_bytes) << "fills the page exactly";
    EXPECT_EQ(file.page_count, 1);
    EXPECT_EQ(append_byte(file, 'y'), memory_file_page_bytes + 1);
    EXPECT_EQ(file.page_count, 2) << "the next byte opens a page";
    const std::string tail = patterned(40000, 2);
    append_bytes(file, tail.data(), static_cast<int32_t>(tail.size()));
    model += "xy" + tail;
    EXPECT_EQ(file.page_count, 3);
    EXPECT_TRUE(same_bytes(contents(file), model));

    // The window of an inflate, in small pages so that every range crosses some.
    Mobj& window = make(1, 64);
    std::string produced = patterned(200, 4);
    append_bytes(window, produced.data(), static_cast<int32_t>(produced.size()));
    const std::tuple<const char*, int32_t, int32_t> copies[] = {
        {"inside one page", 10, 20},
        {"a source across a page boundary", 60, 30},
        {"longer than the distance: the range repeats", -3, 50},
        {"distance one: a run of one byte over pages", -1, 150},
    };
    for (const auto& [description, source_from_end_or_start, length] : copies) {
        SCOPED_TRACE(description);
        const int32_t source =
            source_from_end_or_start < 0
                ? static_cast<int32_t>(produced.size()) + source_from_end_or_start
                : source_from_end_or_start;
        for (int32_t i = 0; i < length; ++i)
            produced.push_back(produced[static_cast<std::size_t>(source + i)]);
        EXPECT_EQ(copy_within(window, source, length), static_cast<int32_t>(produced.size()));
        EXPECT_TRUE(same_bytes(contents(window), produced));
    }
}

TEST_F(PagedMemory, FlattenMakesOnePageOfExactlyTheSize) {
    Mobj& block = make(1, 64);
    const std::string data = patterned(150, 6);
    append_bytes(block, data.data(), static_cast<int32_t>(data.size()));
    save_pages(block, 0, SaveScope::group);
    const std::string swapped = swap_file_name(block, 1);
    ASSERT_TRUE(file_exists(swapped));
    const uint32_t releases = page_release_count();
    flatten(block);
    EXPECT_EQ(block.page_count, 1);
    EXPECT_EQ(block.page_size, 150);
    EXPECT_GT(page_release_count(), releases) << "pointers into the old pages are stale";
    EXPECT_FALSE(file_exists(swapped)) << "the old swap files went with the old pages";
    EXPECT_TRUE(same_bytes(contents(block), data));

    Mobj& single = make(1, memory_file_page_bytes);
    append_bytes(single, "abc", 3);
    const uint8_t* page = get_page(single, 0, true);
    flatten(single);
    EXPECT_EQ(single.page_size, memory_file_page_bytes) << "one page: nothing to do";
    EXPECT_EQ(get_page(single, 0, true), page);
}

TEST_F(PagedMemory, GrownPagesKeepMemoryOnlyAndOpenSwapFiles) {
    const std::tuple<const char*, PagedMode, uint8_t, uint8_t> rows[] = {
        {"after a memory-only page", PagedMode::memory_only, page_memory_only, page_memory_only},
        {"after a changed page", PagedMode::swappable, page_changed, page_changed},
        {"after a saved page: changed, it has no copy", PagedMode::swappable, page_saved,
         page_changed},
    };
    for (const auto& [description, mode, last_state, new_state] : rows) {
        SCOPED_TRACE(description);
        Mobj& block = make(1, 64, mode);
        block.page_state[0] = last_state;
        grow_block(block);
        EXPECT_EQ(block.page_count, 2);
        EXPECT_EQ(block.page_state[1], new_state);
        EXPECT_EQ(swap_file_count(block), 2) << "a one-page block has one page per swap file";
    }
}

TEST_F(PagedMemory, MemoryFileNameIsItsOnlySwapFile) {
    Mobj& file = make(1, memory_file_page_bytes);
    append_bytes(file, "$GPGGA,1*00\r\n", 13);
    const std::string name = get_filemobj_name(file);
    EXPECT_EQ(name, std::string(temp_prefix()) + std::to_string(blocks_.back()) + "_0");
    EXPECT_EQ(read_file(name), "$GPGGA,1*00\r\n") << "written out, the used size only";
    EXPECT_EQ(file.page_state[0], page_saved);

    const std::string more(memory_file_page_bytes, 'z');
    append_bytes(file, more.data(), static_cast<int32_t>(more.size()));
    EXPECT_EQ(get_filemobj_name(file), "") << "two swap files have no one name";
}

TEST_F(PagedMemory, AnotherRunningInstanceKeepsItsSwapFiles) {
    Mobj& file = make(1, memory_file_page_bytes);
    append_bytes(file, "kept", 4);
    const std::string name = get_filemobj_name(file);
    ASSERT_TRUE(file_exists(name));
    const std::string directory = name.substr(0, name.rfind('/') + 1);
    // A second instance starting now (the parent process stands in for it).
    clean_temp_directory(directory.c_str(), static_cast<long>(getppid()));
    EXPECT_TRUE(file_exists(name)) << "this process is alive: its files are in use";
    // This process starting again under the same number finds its old files.
    clean_temp_directory(directory.c_str(), os::process_id());
    EXPECT_FALSE(file_exists(name));
}

// ---- the session file ----

class SessionFile : public PagedMemory {
  protected:
    void TearDown() override {
        for (ObjectId& set : sets_)
            oset_delete_objects(set);
        PagedMemory::TearDown();
    }
    ObjectId new_set() {
        ObjectId set = 0;
        oset_create(0, 0, ObjectType::ImageCacheEntry, FieldKind::byte_string,
                    offsetof(ImageCacheEntry, cache_name), set);
        sets_.push_back(set);
        return set;
    }
    ObjectId add(ObjectId set, const char* source, const char* name, double modified) {
        ObjectId id = 0;
        auto* entry = cre_obj<ImageCacheEntry>(&id);
        str_copy(source, entry->source_path);
        str_copy(name, entry->cache_name);
        str_copy("not saved", entry->full_path);
        entry->complete = 1;
        entry->offset = 12.0;
        entry->length = 3000.0;
        entry->modified = modified;
        oset_insert(set, id);
        return id;
    }
    static uint32_t word_at(const std::string& bytes, std::size_t offset) {
        uint32_t value = 0;
        std::memcpy(&value, bytes.data() + offset, sizeof value);
        return value;
    }
    static int32_t live_entries() {
        int32_t count = 0;
        ObjectId id = 0;
        while (next_obj(ObjectType::ImageCacheEntry, id, nullptr))
            ++count;
        return count;
    }
    std::string path_ = os::norvanta_home() + "session/" + session_file_name;
    std::vector<ObjectId> sets_;
};

TEST_F(SessionFile, WrittenFieldByFieldAndReadBackAsNewRecords) {
    const ObjectId written = new_set();
    const ObjectId a = add(written, "/maps/a.tif", "0/0/0/0/0/0/0/0/0/0", 45000.25);
    const ObjectId b = add(written, "/maps/bigger.tif", "0/0/0/0/0/0/0/0/0/1", 45001.5);
    write_session_file(written, ObjectType::ImageCacheEntry, path_.c_str());
    const std::string bytes = read_file(path_);
    EXPECT_FALSE(file_exists(path_ + session_backup_suffix));

    EXPECT_EQ(bytes.substr(0, 8), std::string("Tavoren\0", 8));
    EXPECT_EQ(word_at(bytes, 8), 1u) << "version";
    EXPECT_EQ(word_at(bytes, 12), 28u) << "object type";
    EXPECT_EQ(word_at(bytes, 16), 2u) << "records";
    EXPECT_EQ(word_at(bytes, 20), 9u) << "fields";
    // Strings widen to the longest value with its NUL, in words: 17 -> 20.
    const uint32_t sizes[] = {4, 4, 20, 20, 4, 4, 8, 8, 8};
    for (std::size_t field = 0; field < std::size(sizes); ++field)
        EXPECT_EQ(word_at(bytes, 24 + 4 * field), sizes[field]) << "field " << field;
    constexpr std::size_t header_bytes = 24 + 9 * 4;
    constexpr std::size_t record_bytes = 80;
    ASSERT_EQ(bytes.size(), header_bytes + 2 * record_bytes + 4);
    EXPECT_EQ(bytes.substr(header_bytes + 8, 20), std::string("/maps/a.tif\0\0\0\0\0\0\0\0\0", 20))
        << "zero-padded";
    EXPECT_EQ(word_at(bytes, bytes.size() - 4), static_cast<uint32_t>(a + b)) << "sum of ids";

    const ObjectId read = new_set();
    read_session_file(read, ObjectType::ImageCacheEntry, path_.c_str());
    ASSERT_EQ(oset_count(read), 2);
    const auto* first = find_obj_adr<ImageCacheEntry>(oset_at(read, 0));
    const auto* second = find_obj_adr<ImageCacheEntry>(oset_at(read, 1));
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->id, a) << "a record read back is a new object";
    EXPECT_STREQ(first->source_path, "/maps/a.tif");
    EXPECT_STREQ(second->cache_name, "0/0/0/0/0/0/0/0/0/1");
    EXPECT_EQ(second->modified, 45001.5);
    EXPECT_EQ(second->length, 3000.0);
    EXPECT_EQ(second->complete, 1);
    EXPECT_EQ(second->full_path, nullptr) << "not in the file";
    EXPECT_EQ(current_error(), ErrorCode::none);
}

TEST_F(SessionFile, AFileThatDoesNotMatchGivesAnEmptySetAndNoError) {
    const ObjectId written = new_set();
    add(written, "/maps/a.tif", "0/0/0/0/0/0/0/0/0/0", 1.0);
    write_session_file(written, ObjectType::ImageCacheEntry, path_.c_str());
    const std::string good = read_file(path_);
    struct Row {
        const char* description;
        std::size_t offset; // the byte that is changed; past the end: the file is cut
    };
    const Row rows[] = {
        {"wrong magic", 0},
        {"wrong version", 8},
        {"wrong object type", 12},
        {"a count the file cannot hold", 18},
        {"wrong field count", 20},
        {"a number field of another size", 24 + 4 * 6},
        {"wrong checksum", good.size() - 4},
        {"cut short", good.size()},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        std::string bad = good;
        if (row.offset < bad.size())
            bad[row.offset] = static_cast<char>(bad[row.offset] ^ 0x40);
        else
            bad.resize(bad.size() - 10);
        write_file(path_, bad);
        const int32_t entries_before = live_entries();
        const ObjectId read = new_set();
        read_session_file(read, ObjectType::ImageCacheEntry, path_.c_str());
        EXPECT_EQ(oset_next(read, 0), 0) << "empty";
        EXPECT_EQ(current_error(), ErrorCode::none);
        EXPECT_EQ(live_entries(), entries_before) << "what was read is deleted again";
    }
}

TEST_F(SessionFile, ABackupLeftBesideTheFileReplacesIt) {
    const ObjectId written = new_set();
    add(written, "/maps/old.tif", "0/0/0/0/0/0/0/0/0/0", 1.0);
    write_session_file(written, ObjectType::ImageCacheEntry, path_.c_str());
    const std::string old_state = read_file(path_);
    // A save cut short: the old state copied aside, the new file half-written.
    write_file(path_ + session_backup_suffix, old_state);
    write_file(path_, old_state.substr(0, 30));
    const ObjectId read = new_set();
    read_session_file(read, ObjectType::ImageCacheEntry, path_.c_str());
    EXPECT_EQ(oset_count(read), 1);
    EXPECT_FALSE(file_exists(path_ + session_backup_suffix));
    EXPECT_EQ(read_file(path_), old_state);
}

// ---- the reduced-image cache ----

TEST_F(PagedMemory, CacheNamesCountUpWithCarry) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"0/0/0/0/0/0/0/0/0/0", "0/0/0/0/0/0/0/0/0/1", true},
        {"0/0/0/0/0/0/0/0/0/9", "0/0/0/0/0/0/0/0/1/0", true},
        {"0/0/3/9/9/9/9/9/9/9", "0/0/4/0/0/0/0/0/0/0", true},
        {"9/9/9/9/9/9/9/9/9/9", "0/0/0/0/0/0/0/0/0/0", false},
    };
    for (const auto& [name, next, counted] : rows) {
        SCOPED_TRACE(name);
        std::string step = name;
        EXPECT_EQ(next_cache_name(step), counted);
        EXPECT_EQ(step, next);
    }
}

TEST_F(PagedMemory, CachedPagesOutliveTheirBlockAndAreFoundAgain) {
    const CacheSource source{"/images/chart.tif", 0.0, 768.0, 45123.5};
    Mobj& made = make(3, 256, PagedMode::image_cache, &source);
    const ObjectId entry_id = made.cache_entry;
    const auto* entry = find_obj_adr<ImageCacheEntry>(entry_id);
    ASSERT_NE(entry, nullptr);
    const std::string data = patterned(768, 8);
    append_bytes(made, data.data(), static_cast<int32_t>(data.size()));
    EXPECT_EQ(entry->complete, 0);
    release_pages(blocks_.back());
    EXPECT_EQ(entry->complete, 1) << "every page is in the file";
    EXPECT_EQ(read_file(entry->full_path), data);
    EXPECT_EQ(std::string(entry->full_path), std::string(reduced_image_dir()) + entry->cache_name);

    close_paged_store();
    del_obj(ObjectType::Mobj, blocks_.back());
    blocks_.pop_back();
    EXPECT_TRUE(file_exists(entry->full_path)) << "neither exit nor deletion removes it";
    save_session();
    EXPECT_TRUE(file_exists(std::string(reduced_image_dir()) + session_file_name));

    Mobj& again = make(3, 256, PagedMode::image_cache, &source);
    EXPECT_EQ(again.cache_entry, entry_id) << "same path, same version";
    EXPECT_TRUE(same_bytes(contents(again), data)) << "read from the cache, not made anew";

    const CacheSource newer{"/images/chart.tif", 0.0, 768.0, 45124.0};
    Mobj& other = make(3, 256, PagedMode::image_cache, &newer);
    EXPECT_NE(other.cache_entry, entry_id) << "another version is another entry";
}

TEST_F(PagedMemory, CacheNamesReuseFreedNumbersAndRotateWhenFull) {
    auto name_for = [](const char* path) {
        const ObjectId id = find_cache_entry(CacheSource{path, 0.0, 1.0, 1.0});
        return std::string(find_obj_adr<ImageCacheEntry>(id)->cache_name);
    };
    name_for("/n/1");
    const ObjectId second_id = find_cache_entry(CacheSource{"/n/2", 0.0, 1.0, 1.0});
    const std::string second = find_obj_adr<ImageCacheEntry>(second_id)->cache_name;
    name_for("/n/3");
    ObjectId removed = second_id;
    del_obj_adr(ObjectType::ImageCacheEntry, removed);
    EXPECT_EQ(name_for("/n/4"), second) << "the lowest free number";

    // The last name all nines: the next one overflows every digit.
    const ObjectId last_id = find_cache_entry(CacheSource{"/n/5", 0.0, 1.0, 1.0});
    auto* last = find_obj_adr<ImageCacheEntry>(last_id);
    const std::string nines = "9/9/9/9/9/9/9/9/9/9";
    str_copy(nines.c_str(), last->cache_name); // still the highest: the index stays in order
    const std::string root = reduced_image_dir();
    std::filesystem::create_directories(root + nines);
    write_file(root + nines + "/f", "page");
    const std::string after = name_for("/n/6");
    EXPECT_EQ(std::string(last->cache_name), "0/" + nines);
    EXPECT_EQ(std::string(last->full_path), root + "0/" + nines);
    EXPECT_TRUE(file_exists(root + "0/" + nines + "/f")) << "the tree moved one level down";
    EXPECT_FALSE(file_exists(root + "z"));
    EXPECT_EQ(after.size(), nines.size() + 2) << "numbering goes on with eleven digits";
}

} // namespace
} // namespace norvanta
