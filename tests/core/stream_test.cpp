// Tests of the stream reader and the scanners: every reader at the end of the
// data and across window boundaries, line ends, the number and word rules,
// the recent-streams table, members and memory blocks, and hostile files.
#include "core/stream.h"

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "shell/errors.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

constexpr int32_t window = stream_min_buffer_bytes;

// Bytes of every value, NUL, CR and LF included, that differ from their
// neighbours a window apart.
std::string patterned(int32_t size, int seed = 0) {
    std::string bytes(static_cast<std::size_t>(size), '\0');
    for (int32_t i = 0; i < size; ++i)
        bytes[static_cast<std::size_t>(i)] = static_cast<char>((i * 7 + i / 256 + seed) & 0xFF);
    return bytes;
}

// Names the first difference instead of printing kilobytes of bytes.
::testing::AssertionResult same_bytes(const std::string& got, const std::string& expected) {
    if (got == expected) return ::testing::AssertionSuccess();
    std::size_t at = 0;
    while (at < got.size() && at < expected.size() && got[at] == expected[at])
        ++at;
    return ::testing::AssertionFailure() << "sizes " << got.size() << " and " << expected.size()
                                         << ", first difference at byte " << at;
}

std::string read_all_bytes() {
    std::string bytes(static_cast<std::size_t>(stream_remaining()), '\0');
    read_bytes(bytes.data(), static_cast<int32_t>(bytes.size()));
    return bytes;
}

class Stream : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        object_store_create();
        set_obj_type<FileMobj>();
    }
    void SetUp() override { set_gblerr(ErrorCode::none); }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        set_container_opener(nullptr);
        for (ObjectId id : files_) {
            close_stream(id);
            if (auto* file = find_obj_adr<FileMobj>(id)) {
                free_mem(file->path);
                free_mem(file->archive_path);
            }
            del_obj(ObjectType::FileMobj, id);
        }
        for (ObjectId id : blocks_)
            del_obj(ObjectType::Mobj, id);
        set_headroom_probe(nullptr);
    }

    FileMobj* new_file(ObjectId& id) {
        auto* file = cre_obj<FileMobj>(&id);
        files_.push_back(id);
        return file;
    }
    ObjectId file_at(const std::string& path, uint32_t size) {
        ObjectId id = 0;
        FileMobj* file = new_file(id);
        str_copy(path.c_str(), file->path);
        file->size = size;
        return id;
    }
    // Makes the file a member of itself: its bytes from offset, size long.
    ObjectId member_of(ObjectId id, int32_t offset, int32_t size) {
        FileMobj* file = find_obj_adr<FileMobj>(id);
        file->is_member = 1;
        str_copy(file->path, file->archive_path);
        file->member_offset = offset;
        file->member_size = size;
        return id;
    }
    ObjectId disk_file(const std::string& name, const std::string& content) {
        testing::write_file(home_.file(name), content);
        return file_at(home_.file(name), static_cast<uint32_t>(content.size()));
    }
    // A paged block holding data; absent_page is never written, and so has
    // never been in memory. A block made at its full size keeps all its pages
    // in one swap file; one that grows has a swap file per page.
    ObjectId memory_block(const std::string& data, int32_t page_size, int32_t absent_page = -1,
                          int32_t initial_pages = 1) {
        ObjectId id = 0;
        Mobj* block =
            cre_paged_mobj(id, 0, nullptr, initial_pages, page_size, PagedMode::swappable);
        blocks_.push_back(id);
        for (int32_t offset = 0; offset < static_cast<int32_t>(data.size()); offset += page_size) {
            if (offset / page_size == absent_page) continue;
            int32_t length = std::min(page_size, static_cast<int32_t>(data.size()) - offset);
            std::memcpy(write_pointer(*block, offset, length), data.data() + offset,
                        static_cast<std::size_t>(length));
        }
        return id;
    }
    static const uint8_t* page_of(ObjectId block, int32_t page) {
        return static_cast<uint8_t**>(find_obj_adr<Mobj>(block)->data)[page];
    }

    testing::TestHome home_;
    std::vector<ObjectId> files_;
    std::vector<ObjectId> blocks_;
};

TEST_F(Stream, OpenRefusesWhatCannotBeReadWithoutSettingTheError) {
    const std::string fifo = home_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const ObjectId before_start = member_of(disk_file("archive", "0123456789"), -5, 4);
    const ObjectId past_block = member_of(disk_file("member", "x"), 8, 4);
    find_obj_adr<FileMobj>(past_block)->archive_memory = memory_block("0123456789", 4096);
    const ObjectId packed = disk_file("packed.gz", "\x1f\x8b\x08 packed");
    find_obj_adr<FileMobj>(packed)->container_class = container_class_compressed;
    const std::string locked = home_.file("locked");
    testing::write_file(locked, "secret");
    chmod(locked.c_str(), 0);

    const std::tuple<const char*, ObjectId> rows[] = {
        {"an empty file", disk_file("empty", "")},
        {"a missing file", file_at(home_.file("absent"), 10)},
        {"a directory", file_at(home_.path(), 4096)},
        {"a FIFO, refused at once rather than waited on", file_at(fifo, 10)},
        {"an id that names nothing", 987654},
        {"a member at a negative offset", before_start},
        {"a member past the end of its archive in memory", past_block},
        {"packed data with nothing registered to expand them", packed},
        // root reads any file, so this row proves nothing there
        {"an unreadable file", geteuid() == 0 ? ObjectId{987654} : file_at(locked, 6)},
    };
    for (const auto& [description, file] : rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(open_stream(file, 4096, true), 1);
        EXPECT_EQ(current_error(), ErrorCode::none);
    }
}

TEST_F(Stream, WindowSizeIsRaisedThenCutToTheData) {
    const std::tuple<const char*, int32_t, int32_t, int32_t> rows[] = {
        {"1 becomes the least window", 3000, 1, window},
        {"0 asks for the whole data", 3000, 0, 3000},
        {"above the data: cut to it", 3000, 5000, 3000},
        {"a one-byte file", 1, 4096, 1},
    };
    for (const auto& [description, size, asked, expected] : rows) {
        SCOPED_TRACE(description);
        const std::string content = patterned(size, size);
        const ObjectId file = disk_file("sized" + std::to_string(asked), content);
        ASSERT_EQ(open_stream(file, asked, true), 0);
        EXPECT_EQ(current_stream().buffer_size, expected);
        EXPECT_EQ(stream_size(), size);
        EXPECT_TRUE(same_bytes(read_all_bytes(), content));
        EXPECT_TRUE(stream_at_end());
        EXPECT_EQ(current_error(), ErrorCode::none);
    }
}

TEST_F(Stream, ByteReadsCrossWindowsAndStopAtTheEnd) {
    const std::string content = patterned(3000);
    ASSERT_EQ(open_stream(disk_file("bytes", content), 1, true), 0);
    std::string bytes;
    while (!stream_at_end())
        bytes += static_cast<char>(read_byte());
    EXPECT_TRUE(same_bytes(bytes, content));
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_EQ(read_byte(), 0) << "past the end";
    EXPECT_EQ(current_error(), ErrorCode::file_access);
    EXPECT_EQ(tell_stream(), 3000) << "a read past the end does not move";

    set_gblerr(ErrorCode::none);
    seek_stream(2500, stream_from_start);
    std::string tail(1000, 'x');
    EXPECT_EQ(read_bytes(tail.data(), 1000), 500);
    EXPECT_TRUE(same_bytes(tail, content.substr(2500) + std::string(500, '\0')))
        << "the rest is zeroed";
    EXPECT_EQ(current_error(), ErrorCode::file_access);

    const std::tuple<const char*, int32_t, int32_t, int32_t> rows[] = {
        {"inside the window", 10, 4, 4},      {"across a window boundary", 1020, 8, 8},
        {"running past the end", 2998, 4, 2}, {"at the end", 3000, 1, 0},
        {"before the start", -1, 2, 0},
    };
    seek_stream(100, stream_from_start);
    for (const auto& [description, offset, count, expected] : rows) {
        SCOPED_TRACE(description);
        set_gblerr(ErrorCode::none);
        std::string got(static_cast<std::size_t>(count), 'x');
        EXPECT_EQ(read_at(got.data(), offset, count), expected);
        EXPECT_EQ(got.substr(0, expected), content.substr(offset < 0 ? 0 : offset, expected));
        EXPECT_EQ(current_error(), expected < count ? ErrorCode::file_access : ErrorCode::none);
        EXPECT_EQ(tell_stream(), 100) << "read_at leaves the position";
    }
}

TEST_F(Stream, CStringsAppendUpToNul) {
    ASSERT_EQ(open_stream(disk_file("strings", std::string("ab\0\0cd", 6)), 0, true), 0);
    char* text = nullptr;
    str_copy("x", text);
    read_c_string(text);
    EXPECT_STREQ(text, "xab");
    read_c_string(text);
    EXPECT_STREQ(text, "xab") << "an empty string appends nothing";
    EXPECT_EQ(current_error(), ErrorCode::none);
    read_c_string(text);
    EXPECT_STREQ(text, "xabcd") << "the end of the data ends the string";
    EXPECT_EQ(current_error(), ErrorCode::file_access);
    free_mem(text);
}

TEST_F(Stream, SeekOriginsAndPushBack) {
    const std::string content = patterned(3000);
    ASSERT_EQ(open_stream(disk_file("seek", content), window, true), 0);
    const std::tuple<const char*, int, int64_t, int32_t> rows[] = {
        {"from the start", stream_from_start, 2999, 2999},
        {"back one from the position", stream_from_position, -1, 1499},
        {"from the end", stream_from_end, -1, 2999},
        {"at the end", stream_from_end, 0, 3000},
        {"before the start", stream_from_start, -10, -10},
    };
    for (const auto& [description, origin, offset, expected] : rows) {
        SCOPED_TRACE(description);
        set_gblerr(ErrorCode::none);
        seek_stream(1500, stream_from_start);
        seek_stream(offset, origin);
        EXPECT_EQ(tell_stream(), expected);
        const bool inside = expected >= 0 && expected < 3000;
        EXPECT_EQ(read_byte(), inside ? static_cast<uint8_t>(content[expected]) : 0);
        EXPECT_EQ(current_error(), inside ? ErrorCode::none : ErrorCode::file_access);
    }
    set_gblerr(ErrorCode::none);
    seek_stream(window - 1, stream_from_start);
    const uint8_t first = read_byte();
    read_byte(); // into the next window
    seek_stream(-2, stream_from_position);
    EXPECT_EQ(read_byte(), first) << "a push-back across the window boundary";
    seek_stream(100, stream_from_start);
    read_bits(3);
    seek_stream(0, stream_from_position);
    EXPECT_EQ(tell_stream(), 101) << "a byte begun bit by bit counts as read";
}

TEST_F(Stream, NumbersInBothByteOrders) {
    std::string content = patterned(window - 4);
    content += std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8); // across the first window
    content += std::string("\x00\x00\xC0\x3F\xFF\xFE", 6);         // 1.5f, then -257 little-endian
    content += std::string("\x40\x04\x00\x00\x00\x00\x00\x00", 8); // 2.5 big-endian
    content += std::string("\x00\x00\x00\x00\x00\x00\x04\x40", 8); // 2.5 little-endian
    ASSERT_EQ(open_stream(disk_file("numbers", content), window, true), 0);
    seek_stream(window - 4, stream_from_start);
    EXPECT_EQ(read_int16(), 0x0201);
    EXPECT_EQ(read_int32(), 0x06050403);
    EXPECT_EQ(read_int16_swapped(), 0x0708);
    seek_stream(window - 4, stream_from_start);
    EXPECT_EQ(read_int32_swapped(), 0x01020304);
    seek_stream(window + 4, stream_from_start);
    EXPECT_EQ(read_float32(), 1.5f);
    EXPECT_EQ(read_int16(), -257);
    EXPECT_EQ(read_float64_swapped(), 2.5);
    EXPECT_EQ(read_float64(), 2.5);
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_EQ(read_int32(), 0) << "nothing left";
    EXPECT_EQ(current_error(), ErrorCode::file_access);
}

TEST_F(Stream, BitReadersInBothOrders) {
    ASSERT_EQ(open_stream(disk_file("bits", std::string("\xA5\x3C\x01\xEE\x02", 5)), 0, true), 0);
    EXPECT_EQ(read_bits(4), 0xAu);
    EXPECT_EQ(read_bits(8), 0x53u) << "eight bits off the byte boundary";
    EXPECT_EQ(read_bits(4), 0xCu);
    seek_stream(0, stream_from_start);
    EXPECT_EQ(read_bits_low(4), 0x5u);
    EXPECT_EQ(read_bits_low(8), 0xCAu);
    EXPECT_EQ(read_bits_low(4), 0x3u);
    EXPECT_EQ(read_bits_low_at(16, 3, 3), 0x0201u) << "the byte at offset 3 stepped over";
    EXPECT_EQ(current_error(), ErrorCode::none);
    EXPECT_EQ(read_bit(), 0) << "past the end";
    EXPECT_EQ(current_error(), ErrorCode::file_access);
}

std::vector<std::string> all_lines(int32_t limit) {
    std::vector<std::string> lines;
    std::vector<char> line(static_cast<std::size_t>(limit) + 1);
    int32_t remaining = stream_remaining();
    while (remaining > 0) {
        const int32_t length = read_line(limit, remaining, line.data());
        lines.emplace_back(line.data(), static_cast<std::size_t>(length));
    }
    return lines;
}

TEST_F(Stream, LinesEndAtLfCrLfOrCrAlone) {
    using Lines = std::vector<std::string>;
    const std::string x1023(window - 1, 'x');
    const std::tuple<const char*, std::string, int32_t, Lines> rows[] = {
        {"LF", "a\nbb\n", 80, {"a", "bb"}},
        {"CR LF", "a\r\nbb\r\n", 80, {"a", "bb"}},
        {"CR alone", "a\rbb\r", 80, {"a", "bb"}},
        {"mixed", "a\rb\nc\r\nd", 80, {"a", "b", "c", "d"}},
        {"no end on the last line", "a\nlast", 80, {"a", "last"}},
        {"CR then CR is two ends", "a\r\rb", 80, {"a", "", "b"}},
        {"longer than the limit: the rest is dropped", "abcdefgh\nxy", 3, {"abc", "xy"}},
        {"NUL bytes are text", std::string("a\0b\nc", 5), 80, {std::string("a\0b", 3), "c"}},
        {"CR at a window's end, LF in the next", x1023 + "\r\ny", 4000, {x1023, "y"}},
        {"a line longer than the window",
         std::string(2500, 'z') + "\nq",
         4000,
         {std::string(2500, 'z'), "q"}},
    };
    int file_number = 0;
    for (const auto& [description, content, limit, expected] : rows) {
        SCOPED_TRACE(description);
        ASSERT_EQ(open_stream(disk_file("lines" + std::to_string(++file_number), content), 1, true),
                  0);
        EXPECT_EQ(all_lines(limit), expected);
        EXPECT_TRUE(stream_at_end());
        EXPECT_EQ(current_error(), ErrorCode::none);
    }

    ASSERT_EQ(open_stream(disk_file("skips", "a\nb\r\nc\rd\n\n\r\ne\n\n"), 1, true), 0);
    int32_t remaining = stream_remaining();
    char line[8];
    skip_lines(3, remaining);
    EXPECT_EQ(read_line(7, remaining, line), 1);
    EXPECT_STREQ(line, "d");
    EXPECT_EQ(read_non_empty_line(7, remaining, line), 1);
    EXPECT_STREQ(line, "e");
    EXPECT_EQ(read_non_empty_line(7, remaining, line), 0) << "ends with the data";
    EXPECT_EQ(remaining, 0);
}

constexpr int32_t short_limit = 5;

std::string shown(long value) {
    return std::to_string(value);
}
std::string shown(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}
std::string shown(ErrorCode code) {
    return "e" + std::to_string(static_cast<int>(code));
}

// Runs one reader per letter over the stream and joins what each gives. Text
// is cut at short_limit; a word or field shows its delimiter's code.
//   w word  l long  u unsigned  d double  q quoted  f field to ',' or a line end
//   F field to ',' only  s native string  n native long  r native double  b skip_blanks
std::string run_readers(const char* ops) {
    int32_t remaining = stream_remaining();
    std::string out;
    char* native = nullptr;
    for (const char* op = ops; *op; ++op) {
        char text[short_limit + 1] = "";
        char delimiter = ',';
        long number = 0;
        double real = 0;
        if (*op == 'w') read_word(short_limit, remaining, text, delimiter);
        if (*op == 'q') read_quoted(short_limit, remaining, text);
        if (*op == 'f' || *op == 'F')
            read_field(short_limit, *op == 'f', remaining, delimiter, text);
        if (*op == 'l') out += shown(read_long(remaining));
        if (*op == 'u') out += shown(read_unsigned(remaining));
        if (*op == 'd') out += shown(read_double(remaining));
        if (*op == 's') out += shown(read_native_string(native));
        if (*op == 'n') out += shown(read_native_long(number));
        if (*op == 'r') out += shown(read_native_double(real));
        if (*op == 'b') skip_blanks();
        if (std::strchr("wfF", *op)) out += std::string(text) + "/" + shown(long{delimiter});
        if (*op == 'q') out += text;
        if (*op == 's' && native) out += native;
        if (*op == 'n') out += shown(number);
        if (*op == 'r') out += shown(real);
        out += "|";
        if (std::strchr("wludqfF", *op)) {
            EXPECT_EQ(remaining, stream_remaining()) << "the count follows the stream";
        }
    }
    free_mem(native);
    return out;
}

TEST_F(Stream, TextAndNativeReaders) {
    const std::tuple<const char*, std::string, const char*, std::string> rows[] = {
        {"words and their delimiters", "  alpha\tbeta\n", "www", "alpha/9|beta/10|/0|"},
        {"a word past the limit is cut", "abcdefg h", "ww", "abcde/32|h/0|"},
        {"longs: signs taken, points skipped, 12 characters at most", "x=-12,+7;.5 1234567890123",
         "lllll", "-12|7|5|123456789012|3|"},
        {"quoted, past the limit, then unclosed", "xx \"hello, world\" \"abc", "qq", "hello|abc|"},
        {"fields to a line end; CR LF is one end", "a,,b\r\nc", "ffff", "a/44|/44|b/13|c/0|"},
        {"without the flag a line end is text; trailing blanks stay", "  x\ny ,z", "F",
         "x\ny /44|"},
        {"native fields, an empty real included", "\"Name\";12;3.5;;\n  'it\"s';-7;;x1;",
         "snrrbsnnr", "e0Name|e012|e03.5|e00||e0it\"s|e0-7|e00|e20|"},
        {"an empty real, then no delimiter left for a string", ";", "rs", "e00|e2|"},
        {"a native string is cut at 998", "|" + std::string(1500, 'w') + "|;  \r\n9;", "sn",
         "e0" + std::string(native_string_limit, 'w') + "|e09|"},
    };
    int file_number = 0;
    for (const auto& [description, content, ops, expected] : rows) {
        SCOPED_TRACE(description);
        set_gblerr(ErrorCode::none);
        ASSERT_EQ(open_stream(disk_file("text" + std::to_string(++file_number), content), 1, true),
                  0);
        EXPECT_EQ(run_readers(ops), expected);
    }
}

// Runs one scanner per letter over the text; each shows its value or copy and
// the offset the pointer reached.
//   W word  Q quoted  C field to ','  c field to ',' or a line end
//   L long  U unsigned  D double
std::string run_scanners(const char* ops, const char* text) {
    const char* cursor = text;
    std::string out;
    for (const char* op = ops; *op; ++op) {
        char copy[short_limit + 1] = "";
        if (*op == 'W') out += shown(long{scan_word(short_limit, cursor, copy)});
        if (*op == 'Q') out += shown(long{scan_quoted(short_limit, cursor, copy)});
        if (*op == 'C' || *op == 'c')
            out += shown(long{scan_field(short_limit, *op == 'c', ',', cursor, copy)});
        if (*op == 'L') out += shown(scan_long(cursor));
        if (*op == 'U') out += shown(scan_unsigned(cursor));
        if (*op == 'D') out += shown(scan_double(cursor));
        out += std::string(copy) + "@" + shown(long{cursor - text}) + "|";
    }
    return out;
}

TEST_F(Stream, Scanners) {
    const std::tuple<const char*, const char*, const char*, std::string> rows[] = {
        {"words stop before the space", "  alpha beta", "WWW", "5alpha@7|4beta@12|0@12|"},
        {"a word too long: nothing, left at its start", "  toolong x", "W", "0@2|"},
        {"quoted: cut at the limit, steps over the quote", "a \"bcdefgh\"i", "Q", "5bcdef@11|"},
        {"fields: empty ones, blanks before go, blanks after stay", "a, b ,,c", "CCCC",
         "1a@2|2b @6|0@7|1c@8|"},
        {"without it a line end is text", "x\ny,z", "C", "3x\ny@4|"},
        {"a field too long returns the limit, left at its start", " abcdefg,h", "C", "5@1|"},
        {"a signed number after blanks", "  -42,x", "L", "-42@5|"},
        {"14 digits fit a long", "12345678901234", "L", "12345678901234@14|"},
        {"15 do not: 0, left at the digits", "x 123456789012345", "L", "0@2|"},
        {"a point ends a long and is skipped before the next", "1.5", "LL", "1@1|5@3|"},
        {"unsigned skips a sign", "-7", "U", "7@2|"},
        {"a double with its exponent", "  1.5e3;", "D", "1500@7|"},
        {"past its range", "1e400", "D", "inf@5|"},
        {"24 characters fit a double, 25 do not",
         "123456789012345678901234 1234567890123456789012345", "DD", "1.23457e+23@24|0@25|"},
    };
    for (const auto& [description, text, ops, expected] : rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(run_scanners(ops, text), expected);
    }
    const std::tuple<const char*, bool, int32_t> counted[] = {
        {"a,b,,c", false, 4},  {"", false, 0},         {"a,b,", false, 3},
        {"a,b\nc,d", true, 2}, {"a,b\nc,d", false, 3},
    };
    for (const auto& [text, flag, expected] : counted) {
        SCOPED_TRACE(text);
        int32_t count = -1;
        count_fields(flag, ',', text, count);
        EXPECT_EQ(count, expected);
    }
    const uint8_t bytes[] = {0xFF, 0xFE, 0x12, 0x34, 0x56, 0x78};
    const uint8_t* cursor = bytes;
    EXPECT_EQ(scan_int16_swapped(cursor), -2);
    EXPECT_EQ(scan_int32_swapped(cursor), 0x12345678);
    EXPECT_EQ(cursor, bytes + 6);
    uint8_t stored[2];
    put_int16_swapped(stored, -2);
    EXPECT_EQ(std::memcmp(stored, bytes, 2), 0);
}

TEST_F(Stream, RecentStreamsKeepTheirWindowsUntilPushedOut) {
    const std::string old_content = patterned(3000, 1);
    const std::string new_content = patterned(3000, 2);
    const ObjectId kept = disk_file("kept", old_content);
    std::vector<ObjectId> others;
    for (int i = 0; i < stream_table_slots + 1; ++i)
        others.push_back(disk_file("other" + std::to_string(i), "other file"));
    auto open_others = [&](int count) {
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(open_stream(others[static_cast<std::size_t>(i)], window, true), 0);
    };
    auto first_byte_now = [&] {
        EXPECT_EQ(open_stream(kept, window, true), 0);
        return read_byte();
    };

    ASSERT_EQ(open_stream(kept, window, true), 0);
    seek_stream(10, stream_from_start);
    open_others(stream_table_slots - 1);
    testing::write_file(home_.file("kept"), new_content);
    ASSERT_EQ(open_stream(kept, window, false), 0);
    EXPECT_EQ(tell_stream(), 10) << "without rewind a return resumes";
    EXPECT_EQ(first_byte_now(), static_cast<uint8_t>(old_content[0]))
        << "twenty others leave the window in place";

    open_others(stream_table_slots);
    EXPECT_EQ(first_byte_now(), static_cast<uint8_t>(new_content[0]))
        << "the twenty-first other pushes it out; it reopens and reads anew";

    testing::write_file(home_.file("kept"), old_content);
    EXPECT_EQ(first_byte_now(), static_cast<uint8_t>(new_content[0])) << "cached";
    ASSERT_EQ(open_stream(kept, 2 * window, true), 0);
    EXPECT_EQ(read_byte(), static_cast<uint8_t>(old_content[0])) << "a larger window reads anew";

    testing::write_file(home_.file("kept"), new_content);
    open_stream(others[0], window, true);
    close_stream(kept);
    EXPECT_EQ(first_byte_now(), static_cast<uint8_t>(new_content[0])) << "closed, then reopened";

    testing::write_file(home_.file("kept"), old_content + "+");
    find_obj_adr<FileMobj>(kept)->size = 3001;
    EXPECT_EQ(first_byte_now(), static_cast<uint8_t>(old_content[0])) << "a new size reopens";
    EXPECT_EQ(stream_size(), 3001);
}

TEST_F(Stream, FileCutShortWhileRead) {
    const std::string content = patterned(3000);
    const std::string path = home_.file("shrinking");
    const ObjectId file = disk_file("shrinking", content);
    ASSERT_EQ(open_stream(file, window, true), 0);
    int32_t remaining = stream_remaining();
    ASSERT_EQ(truncate(path.c_str(), 1500), 0);
    std::string rest(3000, 'x');
    EXPECT_EQ(read_bytes(rest.data(), 3000), 1500);
    EXPECT_TRUE(same_bytes(rest, content.substr(0, 1500) + std::string(1500, '\0')));
    EXPECT_EQ(current_error(), ErrorCode::file_access);
    EXPECT_EQ(stream_size(), 1500) << "the data end where the file does";

    set_gblerr(ErrorCode::none);
    seek_stream(0, stream_from_start);
    all_lines(80); // a count from before the cut must still end
    skip_lines(5, remaining);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(open_stream(file, window, true), 1) << "the file is no longer what was examined";
}

TEST_F(Stream, MembersAndMemoryBlocks) {
    const ObjectId archive = member_of(disk_file("archive", "HEADERline1\nline2\nTRAILER"), 6, 12);
    ASSERT_EQ(open_stream(archive, 1, true), 0);
    EXPECT_EQ(stream_size(), 12);
    EXPECT_EQ(all_lines(80), (std::vector<std::string>{"line1", "line2"}));

    const std::string data = patterned(4000, 3);
    const ObjectId block = memory_block(data, 1500);
    ObjectId in_memory = 0;
    new_file(in_memory)->memory = block;
    ASSERT_EQ(open_stream(in_memory, 1, true), 0);
    EXPECT_TRUE(same_bytes(read_all_bytes(), data)) << "windows that span two pages";
    char piece[600];
    EXPECT_EQ(read_at(piece, 1200, 600), 600);
    EXPECT_EQ(std::string(piece, 600), data.substr(1200, 600));

    ObjectId slice = 0;
    FileMobj* slice_file = new_file(slice);
    slice_file->is_member = 1;
    slice_file->archive_memory = block;
    slice_file->member_offset = 1000;
    slice_file->member_size = 2000;
    ASSERT_EQ(open_stream(slice, 0, true), 0);
    EXPECT_TRUE(same_bytes(read_all_bytes(), data.substr(1000, 2000)))
        << "a member of an archive in memory";

    ASSERT_EQ(open_stream(in_memory, 1, true), 0);
    set_direct();
    EXPECT_EQ(current_stream().buffer, page_of(block, 0)) << "straight into the page";
    EXPECT_TRUE(same_bytes(read_all_bytes(), data));

    ObjectId holed = 0;
    new_file(holed)->memory = memory_block(data, 1500, 1);
    ASSERT_EQ(open_stream(holed, 0, true), 0);
    EXPECT_TRUE(same_bytes(read_all_bytes(),
                           data.substr(0, 1500) + std::string(1500, '\0') + data.substr(3000)))
        << "a page out of memory reads as zeros";
    EXPECT_EQ(current_error(), ErrorCode::none);
}

// Pages in memory on the paged block's own terms: a page that was evicted is
// read back, and a window into a page follows the page when it moves.
int64_t spent_headroom() {
    return -1;
}

TEST_F(Stream, PagedBlocksAreReadThroughTheirPages) {
    constexpr int32_t small_page = 64;
    constexpr int32_t pages = 6000; // enough first touches to age the first pages
    const std::string data = patterned(small_page * pages, 5);
    set_headroom_probe(spent_headroom);
    const ObjectId block = memory_block(data, small_page, -1, pages);
    set_headroom_probe(nullptr);
    ObjectId evicted = 0;
    new_file(evicted)->memory = block;
    ASSERT_EQ(page_of(block, 0), nullptr) << "the first pages went to swap while the rest came";
    ASSERT_EQ(open_stream(evicted, window, true), 0);
    EXPECT_TRUE(same_bytes(read_all_bytes(), data)) << "pages out of memory come back from swap";

    ObjectId whole = 0;
    new_file(whole)->memory = block;
    ASSERT_EQ(open_stream(whole, 0, true), 0);
    EXPECT_EQ(find_obj_adr<Mobj>(block)->page_count, 1) << "the whole data asked for: one page";
    EXPECT_EQ(current_stream().buffer, page_of(block, 0)) << "read in place";
    EXPECT_TRUE(same_bytes(read_all_bytes(), data));

    ObjectId moved = 0;
    const std::string short_data = patterned(small_page * 4, 9);
    const ObjectId short_block = memory_block(short_data, small_page);
    new_file(moved)->memory = short_block;
    ASSERT_EQ(open_stream(moved, window, true), 0);
    set_direct();
    char head[4]; // the first bytes of a freed page are the first overwritten
    read_bytes(head, sizeof head);
    EXPECT_EQ(current_stream().buffer, page_of(short_block, 0));
    flatten(*find_obj_adr<Mobj>(short_block));
    EXPECT_TRUE(same_bytes(read_all_bytes(), short_data.substr(sizeof head)))
        << "the window pointed into a page that the flatten freed";
    EXPECT_EQ(current_error(), ErrorCode::none);
}

// The container openers below stand for the archive module.
ObjectId expanded_block = 0;
std::string raw_seen;

void expand_into_memory(ObjectId file) {
    FileMobj* record = find_obj_adr<FileMobj>(file);
    // The expansion reads the packed bytes through the same file.
    if (open_stream(file, 0, true) == 0) raw_seen = read_all_bytes();
    record->memory = expanded_block;
    record->archive_opened = 1;
}

void fail_to_expand(ObjectId) {
    set_gblerr(ErrorCode::invalid_file);
}

TEST_F(Stream, PackedDataAreExpandedFirst) {
    expanded_block = memory_block("expanded text", 4096);
    const ObjectId packed = disk_file("packed.gz", "packed bytes");
    FileMobj* record = find_obj_adr<FileMobj>(packed);
    record->container_class = container_class_compressed;
    record->is_member = 1;
    str_copy(record->path, record->archive_path);
    record->member_size = 12;

    set_container_opener(fail_to_expand);
    EXPECT_EQ(open_stream(packed, 0, true), 1);
    EXPECT_EQ(current_error(), ErrorCode::none) << "the expansion's error is cleared";

    set_container_opener(expand_into_memory);
    ASSERT_EQ(open_stream(packed, 0, true), 0);
    EXPECT_EQ(raw_seen, "packed bytes");
    EXPECT_EQ(read_all_bytes(), "expanded text");
}

TEST_F(Stream, ProgramAtofReadsAsStrtodInTheCLocale) {
    const std::tuple<const char*, double> rows[] = {
        {" -2e3", -2000}, {"1e", 1},  {"+-5", 0}, {"1e400", HUGE_VAL},
        {"0x10", 16},     {"1,5", 1}, {"", 0},
    };
    for (const auto& [text, expected] : rows) {
        SCOPED_TRACE(text);
        EXPECT_EQ(program_atof(text), expected);
        EXPECT_EQ(program_atof(text), std::strtod(text, nullptr)) << "as strtod in \"C\"";
    }
}

TEST_F(Stream, OpenForWriteMakesDirectories) {
    std::FILE* file = open_for_write(home_.file("a/b/c.txt").c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fputs("x", file);
    std::fclose(file);
    EXPECT_EQ(testing::read_file(home_.file("a/b/c.txt")), "x");

    testing::write_file(home_.file("plain"), "");
    EXPECT_EQ(open_for_write(home_.file("plain/under.txt").c_str(), "wb"), nullptr);
    EXPECT_EQ(current_error(), ErrorCode::none) << "the caller sets the error";
}

} // namespace
} // namespace norvanta
