// The stream reader: the current stream and its table of recent streams, the
// binary, bit, text and native-field readers over it, and the in-memory
// scanners.
//
// A stream is one slot of the table: the source (a disk file or a paged
// block), a window of buffer_size bytes over the data, and a cursor. The slot
// at the front is the current stream. Opening a file brings its slot to the
// front; the least recently used slot falls out when the table is full.
//
// The window is the unit of reading. Its first byte is window_start, a
// multiple of buffer_size; window_fill says how many of its bytes hold data,
// which is less than buffer_size only in the last window of the data, and 0
// when the window holds nothing yet. Every read checks position against
// window_fill and refills when it falls outside, so that a decoder that moves
// the position itself cannot make a reader use stale bytes.
#include "core/stream.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/memory.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "shell/config.h"

namespace norvanta {

namespace {

// ---- character classes ----

constexpr CharClass D = CharClass::digit;
constexpr CharClass G = CharClass::sign;
constexpr CharClass N = CharClass::number_mark;
constexpr CharClass S = CharClass::space;
constexpr CharClass C = CharClass::comma;
constexpr CharClass M = CharClass::semicolon;
constexpr CharClass Q = CharClass::quote;
constexpr CharClass O = CharClass::other;

constexpr int ascii_count = 128;

constexpr std::array<CharClass, ascii_count> char_classes = {
    /* 0x */ O, O, O, O, O, O, O, O, O, S, S, O, O, S, O, O,
    /* 1x */ O, O, O, O, O, O, O, O, O, O, O, O, O, O, O, O,
    /* 2x */ S, O, Q, O, O, O, O, O, O, O, O, G, C, G, N, O,
    /* 3x */ D, D, D, D, D, D, D, D, D, D, O, M, O, O, O, O,
    /* 4x */ O, O, O, O, O, N, O, O, O, O, O, O, O, O, O, O,
    /* 5x */ O, O, O, O, O, O, O, O, O, O, O, O, O, O, O, O,
    /* 6x */ O, O, O, O, O, N, O, O, O, O, O, O, O, O, O, O,
    /* 7x */ O, O, O, O, O, O, O, O, O, O, O, O, O, O, O, O,
};
static_assert(char_classes.size() == ascii_count);
static_assert(char_classes['\t'] == S && char_classes['\n'] == S && char_classes['\r'] == S &&
              char_classes[' '] == S);
static_assert(char_classes['+'] == G && char_classes['-'] == G && char_classes['.'] == N &&
              char_classes['E'] == N && char_classes['e'] == N && char_classes[','] == C &&
              char_classes[';'] == M && char_classes['"'] == Q);
static_assert(char_classes['0'] == D && char_classes['9'] == D && char_classes['/'] == O &&
              char_classes[':'] == O);

int class_rank(int byte) {
    return static_cast<int>(char_class(static_cast<unsigned char>(byte)));
}

bool is_space(int byte) {
    return char_class(static_cast<unsigned char>(byte)) == CharClass::space;
}

bool is_line_end(int byte) {
    return byte == '\r' || byte == '\n';
}

// ---- state ----

constexpr int32_t byte_boundary_mask = 128;
constexpr StreamBits byte_boundary = {byte_boundary_mask, 1};

// Seeks far before the data are held here, so that the window arithmetic
// stays inside 32 bits.
constexpr int64_t lowest_position = -(int64_t{1} << 30);
constexpr int64_t highest_position = std::numeric_limits<int32_t>::max();

constexpr int32_t long_digits_limit = 12;
constexpr int32_t double_digits_limit = 24;
constexpr int32_t scan_long_limit = 14;
constexpr int32_t scan_double_limit = 24;

// Slot 0 is the current stream.
constinit std::array<StreamReader, stream_table_slots> stream_table{};

StreamReader& current() {
    return stream_table[0];
}

constinit std::atomic<ContainerOpener> container_opener{nullptr};
// The file whose container is being expanded: the expansion reads the packed
// bytes through open_stream on the same file, which must then give the raw
// data instead of asking for the expansion again.
constinit ObjectId container_opening = 0;

// ---- sources ----

struct DataSource {
    const char* path;     // disk file; null for a memory source
    ObjectId memory_id;   // paged block; 0 for a disk file
    int64_t start_offset; // bytes before the data
    int64_t size;         // bytes of data
};

bool is_separator(char c) {
    return c == '/' || c == '\\';
}

// Absolute: from the root, a network name, or a drive.
bool is_absolute_path(const char* path) {
    if (is_separator(path[0])) return true;
    const char* colon = std::strchr(path, ':');
    return colon && is_separator(colon[1]);
}

// Where a file's bytes are: its expanded memory, a stored member inside an
// archive (on disk or in memory), or the file on disk.
bool resolve_source(ObjectId file_id, DataSource& source) {
    FileMobj* file = find_obj_adr<FileMobj>(file_id);
    if (!file) return false;
    const bool raw_wanted = container_opening == file_id;
    if (!raw_wanted && file->memory == 0 && file->container_class == container_class_compressed &&
        !file->archive_opened) {
        ContainerOpener opener = container_opener.load(std::memory_order_acquire);
        if (!opener || error_pending()) return false;
        const ObjectId outer = container_opening;
        container_opening = file_id;
        opener(file_id);
        container_opening = outer;
        if (error_pending()) {
            set_gblerr(ErrorCode::none);
            return false;
        }
        file = find_obj_adr<FileMobj>(file_id);
        if (!file || file->memory == 0) return false;
    }
    source = {};
    if (file->memory != 0 && !raw_wanted) {
        source.memory_id = file->memory;
        const Mobj* block = find_obj_adr<Mobj>(source.memory_id);
        if (!block) return false;
        source.size = block->size;
    } else if (file->is_member) {
        source.start_offset = file->member_offset;
        source.size = file->member_size;
        if (file->archive_memory != 0) {
            source.memory_id = file->archive_memory;
            const Mobj* block = find_obj_adr<Mobj>(source.memory_id);
            if (!block || source.start_offset + source.size > block->size) return false;
        } else {
            source.path = file->archive_path;
        }
    } else {
        source.path = file->path;
        source.start_offset = file->start_offset;
        source.size = file->size;
    }
    if (source.memory_id == 0 && (!source.path || !source.path[0])) return false;
    return source.start_offset >= 0 && source.size > 0 && source.size <= highest_position &&
           source.start_offset <= highest_position;
}

// Opens a regular file for reading and gives its length. The type is checked
// on the open descriptor, opened without waiting, so that a FIFO or a device
// given as a file is refused at once instead of blocking the reader.
std::FILE* open_regular_file(const char* name, int64_t& length) {
    std::string full =
        is_absolute_path(name) ? std::string(name) : system_dir() + std::string(name);
    const int descriptor = ::open(full.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    struct stat status {};
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) || flags < 0 ||
        ::fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        ::close(descriptor);
        return nullptr;
    }
    std::FILE* file = ::fdopen(descriptor, "rb");
    if (!file) {
        ::close(descriptor);
        return nullptr;
    }
    // The window is the buffer: a second one in stdio would only copy the
    // bytes again, and would keep serving them after the file has changed.
    std::setvbuf(file, nullptr, _IONBF, 0);
    length = status.st_size;
    return file;
}

// Copies count bytes from offset of the block, page by page; a page that has
// left memory comes back from its swap file. Returns the bytes that the block
// holds there.
int32_t copy_from_block(Mobj& block, int64_t offset, int32_t count, uint8_t* destination) {
    if (offset < 0 || offset >= block.size) return 0;
    int32_t done = 0;
    while (done < count) {
        int32_t piece = count - done;
        const uint8_t* from = read_pointer(block, static_cast<int32_t>(offset + done), piece);
        if (!from) break;
        std::memcpy(destination + done, from, static_cast<std::size_t>(piece));
        done += piece;
    }
    return done;
}

// A window that lies within one page points straight into it.
bool point_into_page(StreamReader& stream, Mobj& block, int64_t from, int32_t wanted) {
    int32_t length = wanted;
    const uint8_t* address = read_pointer(block, static_cast<int32_t>(from), length);
    if (!address || length != wanted) return false;
    stream.buffer = const_cast<uint8_t*>(address);
    stream.window_in_page = 1;
    // Taken after the look-up, which may itself have evicted other pages.
    stream.page_release_mark = page_release_count();
    return true;
}

// Reads count bytes of the disk file from offset (absolute in the file).
int32_t read_from_file(std::FILE* file, int64_t offset, int32_t count, uint8_t* destination) {
    if (!file || ::fseeko(file, static_cast<off_t>(offset), SEEK_SET) != 0) return 0;
    return static_cast<int32_t>(std::fread(destination, 1, static_cast<std::size_t>(count), file));
}

// ---- slots ----

void release_slot(StreamReader& slot, ObjectId keep_id) {
    if (slot.file) std::fclose(slot.file);
    free_mem(slot.own_buffer);
    slot = StreamReader{};
    slot.file_id = keep_id;
}

// Brings the file's slot to the front, taking a free slot or the least
// recently used one for a file that has none.
void bring_to_front(ObjectId file_id) {
    auto found =
        std::find_if(stream_table.begin(), stream_table.end(),
                     [file_id](const StreamReader& slot) { return slot.file_id == file_id; });
    if (found == stream_table.end()) {
        found = std::find_if(stream_table.begin(), stream_table.end(),
                             [](const StreamReader& slot) { return slot.file_id == 0; });
        if (found == stream_table.end()) found = stream_table.end() - 1;
        release_slot(*found, file_id);
    }
    std::rotate(stream_table.begin(), found, found + 1);
}

uint8_t* own_window(StreamReader& stream, int32_t bytes) {
    if (stream.own_capacity < bytes) {
        alloc_mem(stream.own_buffer, static_cast<std::size_t>(bytes));
        stream.own_capacity = bytes;
    }
    return stream.own_buffer;
}

// ---- the window ----

int64_t absolute_position(const StreamReader& stream) {
    return int64_t{stream.window_start} + stream.position;
}

// Puts the window around the absolute position, on a multiple of the buffer
// size. Bit state goes to a byte boundary.
void place_window(StreamReader& stream, int64_t absolute) {
    absolute = std::clamp(absolute, lowest_position, highest_position);
    stream.bits = byte_boundary;
    if (absolute >= stream.file_size && stream.window_fill > 0) {
        // Past the end the last window is kept: a push-back reads nothing anew.
        stream.position = static_cast<int32_t>(absolute - stream.window_start);
        return;
    }
    const int64_t size = std::max(stream.buffer_size, 1);
    int64_t start = absolute / size * size;
    if (start > absolute) start -= size;
    stream.window_start = static_cast<int32_t>(start);
    stream.position = static_cast<int32_t>(absolute - start);
    stream.window_fill = 0;
}

// Reads the window that place_window chose. False when the source gave fewer
// bytes than the data should hold there: the data then end at what was read.
bool fill_window(StreamReader& stream) {
    const int64_t absolute = absolute_position(stream);
    if (stream.window_fill > 0 || absolute < 0 || absolute >= stream.file_size) return true;
    const int32_t wanted = static_cast<int32_t>(
        std::min<int64_t>(stream.buffer_size, int64_t{stream.file_size} - stream.window_start));
    const int64_t from = int64_t{stream.start_offset} + stream.window_start;
    int32_t got = 0;
    if (stream.memory_id != 0) {
        stream.memory = find_obj_adr<Mobj>(stream.memory_id);
        if (stream.memory) {
            Mobj& block = *stream.memory;
            stream.window_in_page = 0;
            if (stream.direct && point_into_page(stream, block, from, wanted)) {
                got = wanted;
            } else {
                stream.buffer = own_window(stream, stream.buffer_size);
                got = copy_from_block(block, from, wanted, stream.buffer);
            }
        }
    } else {
        stream.window_in_page = 0;
        stream.buffer = own_window(stream, stream.buffer_size);
        got = read_from_file(stream.file, from, wanted, stream.buffer);
    }
    stream.window_fill = got;
    if (got == wanted) return true;
    stream.file_size = stream.window_start + got;
    return false;
}

// A window into a page is looked up again once any page has been freed or
// moved since it was taken (an eviction, a flatten): the bytes are the same,
// only their address may have changed. When they no longer lie in one page,
// they are copied.
void keep_window_valid(StreamReader& stream) {
    if (!stream.window_in_page || stream.page_release_mark == page_release_count()) return;
    stream.window_in_page = 0;
    stream.memory = find_obj_adr<Mobj>(stream.memory_id);
    const int64_t from = int64_t{stream.start_offset} + stream.window_start;
    if (!stream.memory) {
        stream.window_fill = 0;
        return;
    }
    if (point_into_page(stream, *stream.memory, from, stream.window_fill)) return;
    stream.buffer = own_window(stream, stream.buffer_size);
    stream.window_fill = copy_from_block(*stream.memory, from, stream.window_fill, stream.buffer);
}

bool byte_ready(StreamReader& stream) {
    if (stream.window_in_page) keep_window_valid(stream);
    return stream.position >= 0 && stream.position < stream.window_fill;
}

// The slow path of every byte read: refills, and at the end of the data sets
// the error.
bool make_byte_ready(StreamReader& stream) {
    if (byte_ready(stream)) return true;
    place_window(stream, absolute_position(stream));
    if (!fill_window(stream)) set_gblerr(ErrorCode::file_access);
    if (byte_ready(stream)) return true;
    set_gblerr(ErrorCode::file_access);
    return false;
}

// A byte begun bit by bit counts as read.
void finish_begun_byte(StreamReader& stream) {
    if (stream.bits.bit_mask != byte_boundary_mask) {
        ++stream.position;
        stream.bits = byte_boundary;
    }
}

// Reads up to count bytes at an absolute offset of the data without touching
// the cursor; returns what the data hold there.
int32_t fetch_at(StreamReader& stream, int64_t offset, int32_t count, uint8_t* destination) {
    count = static_cast<int32_t>(std::clamp<int64_t>(stream.file_size - offset, 0, count));
    if (count == 0 || offset < 0) return 0;
    keep_window_valid(stream);
    if (offset >= stream.window_start &&
        offset + count <= int64_t{stream.window_start} + stream.window_fill) {
        std::memcpy(destination, stream.buffer + (offset - stream.window_start),
                    static_cast<std::size_t>(count));
        return count;
    }
    const int64_t from = stream.start_offset + offset;
    if (stream.memory_id == 0) return read_from_file(stream.file, from, count, destination);
    Mobj* block = find_obj_adr<Mobj>(stream.memory_id);
    return block ? copy_from_block(*block, from, count, destination) : 0;
}

// ---- bits ----

void advance_bit(StreamReader& stream) {
    stream.bits.bit_mask >>= 1;
    stream.bits.bit_value <<= 1;
    if (stream.bits.bit_mask == 0) {
        stream.bits = byte_boundary;
        ++stream.position;
    }
}

bool on_boundary(const StreamReader& stream) {
    return stream.bits.bit_mask == byte_boundary_mask;
}

// The byte under the bit cursor, or -1 at the end of the data.
int bit_byte(StreamReader& stream) {
    if (!byte_ready(stream) && !make_byte_ready(stream)) return -1;
    return stream.buffer[stream.position];
}

int take_bit(bool low_first) {
    StreamReader& stream = current();
    const int byte = bit_byte(stream);
    if (byte < 0) return 0;
    const int32_t mask = low_first ? stream.bits.bit_value : stream.bits.bit_mask;
    advance_bit(stream);
    return (byte & mask) != 0 ? 1 : 0;
}

int clamp_bit_count(int count) {
    return std::clamp(count, 0, 32);
}

// ---- text ----

// The next byte of a text read, or -1 once the caller's count is spent. A
// count that outlives the data (a file cut short) ends with the error set.
int text_byte(int32_t& remaining) {
    if (remaining <= 0) return -1;
    --remaining;
    StreamReader& stream = current();
    finish_begun_byte(stream);
    if (!byte_ready(stream) && !make_byte_ready(stream)) {
        remaining = 0;
        return -1;
    }
    return stream.buffer[stream.position++];
}

void push_back(int32_t& remaining) {
    seek_stream(-1, stream_from_position);
    ++remaining;
}

// After a CR: an LF behind it belongs to the same line end; any other byte is
// left to be read.
void eat_lf_after_cr(int32_t& remaining) {
    const int next = text_byte(remaining);
    if (next >= 0 && next != '\n') push_back(remaining);
}

void store(char* destination, int32_t& stored, int32_t limit, int byte) {
    if (destination && stored < limit) destination[stored++] = static_cast<char>(byte);
}

int32_t finish(char* destination, int32_t stored) {
    if (destination) destination[stored] = '\0';
    return stored;
}

int32_t line_into(int32_t limit, int32_t& remaining, char* destination) {
    int32_t stored = 0;
    for (;;) {
        const int byte = text_byte(remaining);
        if (byte < 0 || byte == '\n') break;
        if (byte == '\r') {
            eat_lf_after_cr(remaining);
            break;
        }
        store(destination, stored, limit, byte);
    }
    return finish(destination, stored);
}

// Skips bytes of a class above take_rank, then takes at most max_chars bytes
// of take_rank or below into text. The byte that ends the run is consumed.
void read_number_text(int32_t& remaining, int take_rank, int32_t max_chars, char* text) {
    int byte = text_byte(remaining);
    while (byte >= 0 && class_rank(byte) > take_rank)
        byte = text_byte(remaining);
    int32_t taken = 0;
    while (byte >= 0 && class_rank(byte) <= take_rank) {
        text[taken++] = static_cast<char>(byte);
        if (taken == max_chars) break;
        byte = text_byte(remaining);
    }
    text[taken] = '\0';
}

// atol with saturation instead of overflow.
long text_to_long(const char* text) {
    return std::strtol(text, nullptr, 10);
}

// ---- native fields ----

// Reads up to ';' with the stream as bound; keeps at most limit bytes. Data
// that end before the ';' are a row cut short, not an empty or short value:
// the field fails as a read past the end does, so that a truncated file is
// refused instead of giving a point at 0,0.
void read_native_field(char* field, int32_t limit) {
    int32_t stored = 0;
    bool closed = false;
    while (!closed && stream_remaining() > 0) {
        const uint8_t byte = read_byte();
        closed = byte == ';';
        if (!closed) store(field, stored, limit, byte);
    }
    if (!closed) set_gblerr(ErrorCode::file_access);
    finish(field, stored);
}

// ---- scanners ----

// Skips bytes of a class above take_rank, then takes those of take_rank or
// below. With none, or more than max_chars, nothing is taken; text is left at
// the run's start. Returns the run's length copied into number.
int32_t scan_number_text(const char*& text, int take_rank, int32_t max_chars, char* number) {
    const char* start = text;
    while (*start && class_rank(*start) > take_rank)
        ++start;
    const char* end = start;
    while (*end && class_rank(*end) <= take_rank)
        ++end;
    const auto length = static_cast<int32_t>(end - start);
    text = start;
    if (length == 0 || length > max_chars) return 0;
    std::memcpy(number, start, static_cast<std::size_t>(length));
    number[length] = '\0';
    text = end;
    return length;
}

// ---- numbers ----

bool starts_with_hex_prefix(const char* text) {
    return text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// strtod's reading of a number, in the "C" locale whatever the process's
// locale is. end receives the first byte not used, or text when there is no
// number.
double parse_real(const char* text, const char** end) {
    const char* cursor = text;
    while (*cursor == ' ' || (*cursor >= '\t' && *cursor <= '\r'))
        ++cursor;
    const bool negative = *cursor == '-';
    if (*cursor == '+' || *cursor == '-') ++cursor;
    if (*cursor == '+' || *cursor == '-') { // from_chars would take a second sign
        if (end) *end = text;
        return 0.0;
    }
    const char* digits_end = cursor + std::strlen(cursor);
    double value = 0.0;
    std::from_chars_result result{cursor, std::errc::invalid_argument};
    if (starts_with_hex_prefix(cursor)) {
        result = std::from_chars(cursor + 2, digits_end, value, std::chars_format::hex);
        if (result.ptr == cursor + 2) result = {cursor + 1, std::errc{}}; // the "0" alone
    } else {
        result = std::from_chars(cursor, digits_end, value, std::chars_format::general);
    }
    if (result.ptr == cursor) {
        if (end) *end = text;
        return 0.0;
    }
    if (result.ec == std::errc::result_out_of_range) {
        // Bounded callers meet this only through an exponent: a negative one
        // underflows, a positive one overflows.
        const char* exponent = std::find_if(cursor, result.ptr, [](char c) {
            return c == 'e' || c == 'E' || c == 'p' || c == 'P';
        });
        const bool underflow = exponent != result.ptr && exponent[1] == '-';
        value = underflow ? 0.0 : HUGE_VAL;
    }
    if (end) *end = result.ptr;
    return negative ? -value : value;
}

} // namespace

CharClass char_class(unsigned char byte) {
    return byte < ascii_count ? char_classes[byte] : CharClass::other;
}

// ---- stream management ----

int open_stream(ObjectId file_id, int32_t buffer_size, bool rewind) {
    DataSource source;
    if (!resolve_source(file_id, source)) return 1;
    const auto size = static_cast<int32_t>(source.size);
    const bool whole = buffer_size <= 0;
    const int32_t wanted =
        whole ? size : std::min(std::max(buffer_size, stream_min_buffer_bytes), size);

    bring_to_front(file_id);
    StreamReader& stream = current();
    if (stream.buffer_size != 0 &&
        (stream.buffer_size < wanted || stream.file_size != size ||
         stream.start_offset != source.start_offset || stream.memory_id != source.memory_id)) {
        release_slot(stream, file_id);
    }
    if (stream.buffer_size == 0) {
        stream.file_size = size;
        stream.start_offset = static_cast<int32_t>(source.start_offset);
        stream.memory_id = source.memory_id;
        stream.buffer_size = wanted;
        stream.bits = byte_boundary;
        if (source.memory_id != 0) {
            // Asked for the whole data, the block is made one page and read in place.
            Mobj* block = find_obj_adr<Mobj>(source.memory_id);
            if (whole && block) flatten(*block);
            stream.direct = whole && block && source.start_offset + size <= block->page_size;
        } else {
            // A file shorter than when it was examined is not the file the
            // caller means to read.
            int64_t length = 0;
            stream.file = open_regular_file(source.path, length);
            if (!stream.file || length < source.start_offset + size) {
                release_slot(stream, 0);
                return 1;
            }
        }
        if (!fill_window(stream)) {
            release_slot(stream, 0);
            return 1;
        }
    }
    if (rewind) seek_stream(0, stream_from_start);
    return 0;
}

void close_stream(ObjectId file_id) {
    if (file_id == 0) return;
    for (StreamReader& slot : stream_table) {
        if (slot.file_id == file_id) release_slot(slot, 0);
    }
}

void set_container_opener(ContainerOpener opener) {
    container_opener.store(opener, std::memory_order_release);
}

void seek_stream(int64_t offset, int origin) {
    StreamReader& stream = current();
    finish_begun_byte(stream);
    int64_t base = 0;
    if (origin == stream_from_position) base = absolute_position(stream);
    if (origin == stream_from_end) base = stream.file_size;
    const int64_t target = std::clamp(base + offset, lowest_position, highest_position);
    stream.bits = byte_boundary;
    if (target >= stream.window_start &&
        target < int64_t{stream.window_start} + stream.window_fill) {
        stream.position = static_cast<int32_t>(target - stream.window_start);
        return;
    }
    place_window(stream, target);
    if (!fill_window(stream)) set_gblerr(ErrorCode::file_access);
}

int32_t tell_stream() {
    return static_cast<int32_t>(absolute_position(current()));
}

int32_t stream_size() {
    return current().file_size;
}

int32_t stream_remaining() {
    return static_cast<int32_t>(std::clamp<int64_t>(
        current().file_size - absolute_position(current()), std::numeric_limits<int32_t>::min(),
        std::numeric_limits<int32_t>::max()));
}

bool stream_at_end() {
    return absolute_position(current()) >= current().file_size;
}

void refill_window() {
    StreamReader& stream = current();
    place_window(stream, absolute_position(stream));
    if (!fill_window(stream)) set_gblerr(ErrorCode::file_access);
}

void set_direct() {
    StreamReader& stream = current();
    if (stream.memory_id == 0) return;
    const Mobj* block = find_obj_adr<Mobj>(stream.memory_id);
    if (!block || block->page_size <= 0) return;
    const int64_t absolute = absolute_position(stream);
    stream.direct = 1;
    stream.buffer_size =
        static_cast<int32_t>(std::min<int64_t>(block->page_size, stream.file_size));
    stream.window_fill = 0;
    place_window(stream, absolute);
    if (!fill_window(stream)) set_gblerr(ErrorCode::file_access);
}

StreamBits* stream_bit_state() {
    return &current().bits;
}

uint8_t* stream_buffer() {
    keep_window_valid(current());
    return current().buffer;
}

int32_t* stream_position() {
    return &current().position;
}

const StreamReader& current_stream() {
    return current();
}

// ---- binary reads ----

int32_t read_bytes(void* destination, int32_t count) {
    if (count <= 0) return 0;
    StreamReader& stream = current();
    finish_begun_byte(stream);
    auto* out = static_cast<uint8_t*>(destination);
    int32_t done = 0;
    while (done < count && (byte_ready(stream) || make_byte_ready(stream))) {
        const int32_t piece = std::min(count - done, stream.window_fill - stream.position);
        std::memcpy(out + done, stream.buffer + stream.position, static_cast<std::size_t>(piece));
        stream.position += piece;
        done += piece;
    }
    if (done < count) std::memset(out + done, 0, static_cast<std::size_t>(count - done));
    return done;
}

int32_t read_at(void* destination, int32_t offset, int32_t count) {
    if (count <= 0) return 0;
    auto* out = static_cast<uint8_t*>(destination);
    const int32_t got = fetch_at(current(), offset, count, out);
    if (got < count) {
        std::memset(out + got, 0, static_cast<std::size_t>(count - got));
        set_gblerr(ErrorCode::file_access);
    }
    return got;
}

uint8_t read_byte() {
    StreamReader& stream = current();
    finish_begun_byte(stream);
    if (!byte_ready(stream) && !make_byte_ready(stream)) return 0;
    return stream.buffer[stream.position++];
}

namespace {

template <int Bytes>
uint64_t read_little_endian() {
    uint8_t bytes[Bytes];
    read_bytes(bytes, Bytes);
    uint64_t value = 0;
    for (int i = Bytes - 1; i >= 0; --i)
        value = value << 8 | bytes[i];
    return value;
}

template <int Bytes>
uint64_t read_big_endian() {
    uint8_t bytes[Bytes];
    read_bytes(bytes, Bytes);
    uint64_t value = 0;
    for (int i = 0; i < Bytes; ++i)
        value = value << 8 | bytes[i];
    return value;
}

} // namespace

int16_t read_int16() {
    return static_cast<int16_t>(read_little_endian<2>());
}

int32_t read_int32() {
    return static_cast<int32_t>(read_little_endian<4>());
}

float read_float32() {
    return std::bit_cast<float>(static_cast<uint32_t>(read_little_endian<4>()));
}

double read_float64() {
    return std::bit_cast<double>(read_little_endian<8>());
}

int16_t read_int16_swapped() {
    return static_cast<int16_t>(read_big_endian<2>());
}

int32_t read_int32_swapped() {
    return static_cast<int32_t>(read_big_endian<4>());
}

double read_float64_swapped() {
    return std::bit_cast<double>(read_big_endian<8>());
}

void read_c_string(char*& variable) {
    StreamReader& stream = current();
    finish_begun_byte(stream);
    std::string text;
    while (byte_ready(stream) || make_byte_ready(stream)) {
        const uint8_t* start = stream.buffer + stream.position;
        const auto available = static_cast<std::size_t>(stream.window_fill - stream.position);
        const void* nul = std::memchr(start, 0, available);
        const std::size_t piece =
            nul ? static_cast<std::size_t>(static_cast<const uint8_t*>(nul) - start) : available;
        text.append(reinterpret_cast<const char*>(start), piece);
        stream.position += static_cast<int32_t>(piece);
        if (nul) {
            ++stream.position;
            break;
        }
    }
    if (!text.empty()) str_append(text.c_str(), variable);
}

// ---- bits ----

int read_bit() {
    return take_bit(false);
}

uint32_t read_bits(int count) {
    count = clamp_bit_count(count);
    if (count == 8 && on_boundary(current())) return read_byte();
    uint32_t value = 0;
    for (int i = 0; i < count; ++i)
        value = value << 1 | static_cast<uint32_t>(take_bit(false));
    return value;
}

int read_bit_low() {
    return take_bit(true);
}

uint32_t read_bits_low(int count) {
    count = clamp_bit_count(count);
    uint32_t value = 0;
    for (int i = 0; i < count; ++i)
        value |= static_cast<uint32_t>(take_bit(true)) << i;
    return value;
}

uint32_t read_bits_low_at(int count, int32_t offset_a, int32_t offset_b) {
    count = clamp_bit_count(count);
    StreamReader& stream = current();
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        // Two steps at most: the two offsets may be neighbours.
        for (int step = 0; step < 2 && on_boundary(stream); ++step) {
            const int64_t at = absolute_position(stream);
            if (at != offset_a && at != offset_b) break;
            ++stream.position;
        }
        value |= static_cast<uint32_t>(take_bit(true)) << i;
    }
    return value;
}

int read_bit_jpeg() {
    StreamReader& stream = current();
    const int byte = bit_byte(stream);
    if (byte < 0) return 0;
    if (on_boundary(stream) && byte == 255) {
        uint8_t next = 0;
        if (fetch_at(stream, absolute_position(stream) + 1, 1, &next) == 1 && next != 0)
            return jpeg_marker_found;
    }
    const int bit = (byte & stream.bits.bit_mask) != 0 ? 1 : 0;
    advance_bit(stream);
    if (on_boundary(stream) && byte == 255) ++stream.position; // the stuffed 0
    return bit;
}

// ---- text reads ----

int32_t read_line(int32_t limit, int32_t& remaining, char* destination) {
    return line_into(std::max(limit, 0), remaining, destination);
}

int32_t read_non_empty_line(int32_t limit, int32_t& remaining, char* destination) {
    int32_t stored = read_line(limit, remaining, destination);
    while (stored == 0 && remaining > 0)
        stored = read_line(limit, remaining, destination);
    return stored;
}

void skip_line(int32_t& remaining) {
    line_into(0, remaining, nullptr);
}

void skip_lines(int32_t count, int32_t& remaining) {
    for (int32_t i = 0; i < count && remaining > 0; ++i)
        skip_line(remaining);
}

int32_t read_word(int32_t limit, int32_t& remaining, char* destination, char& delimiter) {
    limit = std::max(limit, 0);
    int byte = text_byte(remaining);
    while (byte >= 0 && is_space(byte))
        byte = text_byte(remaining);
    int32_t stored = 0;
    while (byte >= 0 && !is_space(byte)) {
        store(destination, stored, limit, byte);
        byte = text_byte(remaining);
    }
    delimiter = byte < 0 ? '\0' : static_cast<char>(byte);
    return finish(destination, stored);
}

long read_long(int32_t& remaining) {
    char text[long_digits_limit + 1];
    read_number_text(remaining, static_cast<int>(CharClass::sign), long_digits_limit, text);
    return text_to_long(text);
}

long read_unsigned(int32_t& remaining) {
    char text[long_digits_limit + 1];
    read_number_text(remaining, static_cast<int>(CharClass::digit), long_digits_limit, text);
    return text_to_long(text);
}

double read_double(int32_t& remaining) {
    char text[double_digits_limit + 1];
    read_number_text(remaining, static_cast<int>(CharClass::number_mark), double_digits_limit,
                     text);
    return program_atof(text);
}

int32_t read_quoted(int32_t limit, int32_t& remaining, char* destination) {
    limit = std::max(limit, 0);
    int byte = text_byte(remaining);
    while (byte >= 0 && byte != '"')
        byte = text_byte(remaining);
    int32_t stored = 0;
    if (byte >= 0) {
        for (byte = text_byte(remaining); byte >= 0 && byte != '"'; byte = text_byte(remaining))
            store(destination, stored, limit, byte);
    }
    return finish(destination, stored);
}

int32_t read_field(int32_t limit, bool stop_at_line_end, int32_t& remaining, char& delimiter,
                   char* destination) {
    limit = std::max(limit, 0);
    const int wanted = static_cast<unsigned char>(delimiter);
    int byte = text_byte(remaining);
    while (byte >= 0 && is_space(byte) && !is_line_end(byte))
        byte = text_byte(remaining);
    int32_t stored = 0;
    while (byte >= 0 && byte != wanted && !(stop_at_line_end && is_line_end(byte))) {
        store(destination, stored, limit, byte);
        byte = text_byte(remaining);
    }
    if (stop_at_line_end && byte == '\r') eat_lf_after_cr(remaining);
    delimiter = byte < 0 ? '\0' : static_cast<char>(byte);
    return finish(destination, stored);
}

// ---- native fields ----

void skip_blanks() {
    while (stream_remaining() > 0) {
        const uint8_t byte = read_byte();
        if (byte != ' ' && byte != '\r' && byte != '\n') {
            seek_stream(-1, stream_from_position);
            return;
        }
    }
}

ErrorCode read_native_string(char*& variable) {
    const uint8_t delimiter = read_byte();
    if (error_pending()) return current_error();
    char text[native_string_limit + 1];
    int32_t stored = 0;
    bool closed = false;
    while (!closed && stream_remaining() > 0) {
        const uint8_t byte = read_byte();
        closed = byte == delimiter;
        if (!closed) store(text, stored, native_string_limit, byte);
    }
    finish(text, stored);
    str_copy(text, variable);
    // A string whose closing delimiter never comes was cut short.
    if (!closed) set_gblerr(ErrorCode::file_access);
    seek_stream(1, stream_from_position);
    skip_blanks();
    return current_error();
}

ErrorCode read_native_long(long& out) {
    char field[native_number_limit + 1];
    read_native_field(field, native_number_limit);
    out = field[0] ? text_to_long(field) : 0;
    return current_error();
}

ErrorCode read_native_double(double& out) {
    char field[native_number_limit + 1];
    read_native_field(field, native_number_limit);
    out = 0.0;
    if (field[0]) {
        const char* end = field;
        out = parse_real(field, &end);
        if (end == field) set_gblerr(ErrorCode::file_access);
    }
    return current_error();
}

// ---- in-memory scanners ----

int32_t scan_word(int32_t limit, const char*& text, char* destination) {
    skip_space(text);
    const char* end = text;
    while (*end && !is_space(*end))
        ++end;
    const auto length = static_cast<int32_t>(end - text);
    if (length > limit) {
        destination[0] = '\0';
        return 0;
    }
    std::memcpy(destination, text, static_cast<std::size_t>(length));
    destination[length] = '\0';
    text = end;
    return length;
}

long scan_long(const char*& text) {
    char number[scan_long_limit + 1];
    if (scan_number_text(text, static_cast<int>(CharClass::sign), scan_long_limit, number) == 0)
        return 0;
    return text_to_long(number);
}

long scan_unsigned(const char*& text) {
    char number[scan_long_limit + 1];
    if (scan_number_text(text, static_cast<int>(CharClass::digit), scan_long_limit, number) == 0)
        return 0;
    return text_to_long(number);
}

double scan_double(const char*& text) {
    char number[scan_double_limit + 1];
    if (scan_number_text(text, static_cast<int>(CharClass::number_mark), scan_double_limit,
                         number) == 0)
        return 0.0;
    return program_atof(number);
}

int32_t scan_quoted(int32_t limit, const char*& text, char* destination) {
    limit = std::max(limit, 0);
    const char* cursor = text;
    while (*cursor && *cursor != '"')
        ++cursor;
    int32_t stored = 0;
    if (*cursor == '"') {
        for (++cursor; *cursor && *cursor != '"'; ++cursor)
            store(destination, stored, limit, *cursor);
        if (*cursor == '"') ++cursor;
    }
    text = cursor;
    return finish(destination, stored);
}

int32_t scan_field(int32_t limit, bool stop_at_line_end, char delimiter, const char*& text,
                   char* destination) {
    skip_space(text);
    const char* end = text;
    while (*end && *end != delimiter && !(stop_at_line_end && is_line_end(*end)))
        ++end;
    const auto length = static_cast<int32_t>(end - text);
    if (length > limit) {
        destination[0] = '\0';
        return limit;
    }
    std::memcpy(destination, text, static_cast<std::size_t>(length));
    destination[length] = '\0';
    text = *end ? end + 1 : end;
    return length;
}

void count_fields(bool stop_at_line_end, char delimiter, const char* text, int32_t& count) {
    count = 0;
    for (; *text && !(stop_at_line_end && is_line_end(*text)); ++text) {
        if (count == 0) count = 1;
        if (*text == delimiter) ++count;
    }
}

void skip_space(const char*& text) {
    while (*text && is_space(*text))
        ++text;
}

int16_t scan_int16_swapped(const uint8_t*& text) {
    const auto value = static_cast<uint16_t>(text[0] << 8 | text[1]);
    text += 2;
    return static_cast<int16_t>(value);
}

int32_t scan_int32_swapped(const uint8_t*& text) {
    const uint32_t value = uint32_t{text[0]} << 24 | uint32_t{text[1]} << 16 |
                           uint32_t{text[2]} << 8 | uint32_t{text[3]};
    text += 4;
    return static_cast<int32_t>(value);
}

void put_int16_swapped(uint8_t* destination, int16_t value) {
    const auto bits = static_cast<uint16_t>(value);
    destination[0] = static_cast<uint8_t>(bits >> 8);
    destination[1] = static_cast<uint8_t>(bits & 0xFF);
}

// ---- numbers and files ----

double program_atof(const char* text) {
    return text ? parse_real(text, nullptr) : 0.0;
}

std::FILE* open_for_write(const char* path, const char* mode) {
    if (!path || !mode) return nullptr;
    std::error_code ignored;
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
    std::FILE* file = std::fopen(path, mode);
    if (!file) {
        const std::string text =
            std::string(localized("Ouverture du fichier <", "Unable to open file <")) + path +
            localized("> impossible", ">");
        log_entry(text.c_str());
    }
    return file;
}

} // namespace norvanta
