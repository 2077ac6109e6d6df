// The stream reader and the text scanners.
//
// Every binary and text reader reads through one buffered cursor, the current
// stream. A reader names its FileMobj once with open_stream; all later calls
// act on the current stream, whatever stands behind it: a file on disk, a
// stored member inside an archive, or a paged memory block. A table of recent
// streams keeps each file's window, so that format detection followed by the
// reader proper, or a return to an earlier file, reads nothing anew.
//
// Reading past the end of the data sets gblerr to file_access and gives 0;
// nothing stops a reader that does not test the word. The text readers count
// down a caller's variable of remaining bytes and so keep to their own end.
//
// Beside the stream stand the in-memory scanners, which cut words, fields and
// numbers out of a text and move the caller's pointer past what they took.
//
// Buffer sizes: `limit` is the most characters a reader or scanner stores; the
// destination holds limit + 1 bytes, for the closing NUL.
//
// Threads: the stream is one global cursor with no lock. It belongs to one
// thread at a time (start-up, then the thread that loads a file or runs a
// transfer), and the event machine, which runs those one after another, is
// what orders the hand-over.
#pragma once

#include <cstdint>
#include <cstdio>

#include "core/mobj.h"
#include "shell/errors.h"

namespace norvanta {

// ---- character classes, shared by every scanner ----

enum class CharClass : uint8_t {
    digit = 0,       // 0 to 9
    sign = 1,        // + and -
    number_mark = 2, // . E e
    space = 3,       // tab, LF, CR, blank
    comma = 4,       // ,
    semicolon = 5,   // ;
    quote = 6,       // the double quote
    other = 7,       // everything else, bytes above 127 included
};
CharClass char_class(unsigned char byte);

// ---- the current stream ----

// Window sizes below this are raised to it.
inline constexpr int32_t stream_min_buffer_bytes = 1024;
// The current stream and the 20 saved behind it.
inline constexpr int32_t stream_table_slots = 21;

struct StreamBits {
    int32_t bit_mask;  // next bit to read, 128 on a byte boundary
    int32_t bit_value; // the same bit counted from the low end, 1 on a boundary
};

// One slot of the recent-streams table; slot 0 is the current stream. A slot
// keeps its whole cursor, so that a return to a file resumes where it was left.
struct StreamReader {
    ObjectId file_id;           // the FileMobj; 0 for a free slot
    int32_t file_size;          // bytes of data
    int32_t start_offset;       // bytes before the data in the file or block underneath
    int32_t buffer_size;        // bytes of one window
    uint8_t* buffer;            // the window; into a page in direct mode, else own_buffer
    int32_t window_start;       // offset of the window's first byte, relative to the data
    int32_t position;           // read position in the window; may stand outside it until a refill
    StreamBits bits;            // bit cursor within the byte at position
    std::FILE* file;            // the open file; null for a memory source
    ObjectId memory_id;         // the Mobj of a memory source
    Mobj* memory;               // its address, taken afresh at each refill
    uint32_t direct;            // 1 when windows may point straight into pages of the Mobj
    uint32_t window_in_page;    // 1 when this window does, 0 when it is a copy
    uint32_t page_release_mark; // page_release_count() when that page was looked up
    int32_t window_fill;        // bytes of the window that hold data; 0 when none do
    uint8_t* own_buffer;        // owned window storage
    int32_t own_capacity;       // bytes of own_buffer
};

// Makes the file current: 0 on success, 1 when it cannot be read (callers turn
// 1 into gblerr file_access; open_stream itself leaves the word alone). A
// buffer size from 1 to 1024 becomes 1024, 0 asks for the whole data as one
// window, and a size above the data's is cut to it. An empty file gives 1. With
// rewind the position goes to the start of the data; otherwise a file that is
// still in the table resumes where it was left.
int open_stream(ObjectId file, int32_t buffer_size, bool rewind);
// Closes the file's stream, frees its window and its slot. Any file, current
// or saved; nothing for a file that has none.
void close_stream(ObjectId file);

// Expands a packed container (GZip, packed Zip member) into the FileMobj's
// memory block; the archive module registers it at start-up. open_stream
// calls it for a file whose data are still packed.
using ContainerOpener = void (*)(ObjectId file);
void set_container_opener(ContainerOpener opener);

// Origins of seek_stream.
inline constexpr int stream_from_start = 0;
inline constexpr int stream_from_position = 1;
inline constexpr int stream_from_end = 2;
// A byte begun bit by bit counts as read first, and the bit state goes back to
// a byte boundary. A target outside the window refills it.
void seek_stream(int64_t offset, int origin);
int32_t tell_stream();
int32_t stream_size();
int32_t stream_remaining(); // may be negative past the end
bool stream_at_end();

// Moves the window so that it holds the position (window_start + position).
// Decoders that move *stream_position() themselves call it, or let the next
// read do so.
void refill_window();
// From here on a memory source's window points straight into its pages where
// a window lies within one page, instead of being copied. No effect on a disk
// source.
void set_direct();

// For decoders that work in the window themselves.
StreamBits* stream_bit_state();
uint8_t* stream_buffer();
int32_t* stream_position();
const StreamReader& current_stream();

// ---- binary reads ----

// Copies count bytes across windows; returns the bytes that were there. Short
// of data, the rest of the destination is zeroed and gblerr set.
int32_t read_bytes(void* destination, int32_t count);
// Reads at an absolute offset of the data without moving the position.
int32_t read_at(void* destination, int32_t offset, int32_t count);
uint8_t read_byte();
int16_t read_int16();
int32_t read_int32();
float read_float32();
double read_float64();
int16_t read_int16_swapped();
int32_t read_int32_swapped();
double read_float64_swapped();
// Appends bytes to the variable up to a NUL or the end of the data.
void read_c_string(char*& variable);

// Bits, most significant first.
int read_bit();
uint32_t read_bits(int count);
// Bits, least significant first, as deflate packs them.
int read_bit_low();
uint32_t read_bits_low(int count);
// As read_bits_low, stepping over the byte at offset_a and the one at
// offset_b of the data when the bit cursor reaches them.
uint32_t read_bits_low_at(int count, int32_t offset_a, int32_t offset_b);
// Most significant first, for entropy-coded JPEG data: 2 instead of a bit at a
// marker (255 followed by anything but 0), and the 0 stuffed behind a 255
// data byte is stepped over.
inline constexpr int jpeg_marker_found = 2;
int read_bit_jpeg();

// ---- text reads, bounded by the caller's count of remaining bytes ----

// A line up to CR, LF or the end; the terminator is not stored, and CR LF is
// one terminator. Bytes past limit are read and dropped. Returns the bytes
// stored.
int32_t read_line(int32_t limit, int32_t& remaining, char* destination);
// read_line until a line holds a character or the data end.
int32_t read_non_empty_line(int32_t limit, int32_t& remaining, char* destination);
void skip_line(int32_t& remaining);
void skip_lines(int32_t count, int32_t& remaining);
// Skips spaces, then reads to the next space, which goes into delimiter (0 at
// the end of the data).
int32_t read_word(int32_t limit, int32_t& remaining, char* destination, char& delimiter);
// Numbers: skip what cannot begin one, take at most 12 (long, unsigned) or 24
// (double) characters that can, and convert. The byte that ends a number is
// consumed.
long read_long(int32_t& remaining);
long read_unsigned(int32_t& remaining);
double read_double(int32_t& remaining);
// Skips to a double quote and reads to the closing one.
int32_t read_quoted(int32_t limit, int32_t& remaining, char* destination);
// Skips blanks and tabs, then reads up to delimiter or, with
// stop_at_line_end, a CR or LF. The byte that ended the field comes back in
// delimiter (0 at the end of the data); a CR followed by LF eats the LF.
int32_t read_field(int32_t limit, bool stop_at_line_end, int32_t& remaining, char& delimiter,
                   char* destination);

// ---- fields of the ';' separated native formats, bounded by the stream ----

inline constexpr int32_t native_string_limit = 998;
inline constexpr int32_t native_number_limit = 90;
// Skips blanks, CR and LF and leaves the first other byte to be read.
void skip_blanks();
// The next byte is the string's delimiter; reads to its next occurrence,
// steps over the byte after it and skips blanks.
ErrorCode read_native_string(char*& variable);
// Up to ';'; an empty field gives 0. Each returns gblerr.
ErrorCode read_native_long(long& out);
ErrorCode read_native_double(double& out);

// ---- in-memory scanners; each but count_fields moves the caller's pointer ----

// Skips spaces and copies up to the next space or the end. A word longer than
// limit is not copied: destination is emptied, 0 returned and the pointer
// left at the word's start.
int32_t scan_word(int32_t limit, const char*& text, char* destination);
// Numbers: skip what cannot begin one, take what can. More than 14 characters
// (long, unsigned) or 24 (double), or none, give 0, and a number too long
// leaves the pointer at its start.
long scan_long(const char*& text);
long scan_unsigned(const char*& text);
double scan_double(const char*& text);
// Skips to a double quote, copies up to the next one and steps over it.
// Characters past limit are dropped.
int32_t scan_quoted(int32_t limit, const char*& text, char* destination);
// Skips spaces and copies up to delimiter or, with stop_at_line_end, CR or
// LF, then steps over that byte. A field longer than limit is not copied: it
// returns limit with the pointer at the field's start.
int32_t scan_field(int32_t limit, bool stop_at_line_end, char delimiter, const char*& text,
                   char* destination);
// Counts the fields up to the end of the line (or of the text): one more than
// the delimiters, and none for an empty line. The text is only looked at, so
// that the caller can then scan the fields it counted.
void count_fields(bool stop_at_line_end, char delimiter, const char* text, int32_t& count);
void skip_space(const char*& text);

// Big-endian values in memory.
int16_t scan_int16_swapped(const uint8_t*& text);
int32_t scan_int32_swapped(const uint8_t*& text);
void put_int16_swapped(uint8_t* destination, int16_t value);

// ---- numbers and files ----

// The number at the start of text, as atof reads it, but always with a point
// as the decimal mark, whatever locale another thread has switched to. 0 for
// no number.
double program_atof(const char* text);

// Creates the missing directories of the path, then opens it. On failure it
// logs "Unable to open file <path>" (or the French text) and returns null;
// gblerr is left to the caller.
std::FILE* open_for_write(const char* path, const char* mode);

} // namespace norvanta
