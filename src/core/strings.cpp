// Owned byte and wide strings, and string lists.
//
// A string is a char* or wchar_t* variable that each function frees, reuses or
// grows and writes back. The sizing rules below (length + 2 for a copy, old +
// new + 3 for an append, the rounding of realloc_mem for lists) are what keep
// repeated settings of a field free of allocation, so they are kept exactly.
#include "core/strings.h"

#include <iterator>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <locale.h>
#include <string>
#include <strings.h>
#include <wchar.h>

#include "core/memory.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// Room for the decimal form of any long, sign and terminator included.
constexpr std::size_t long_text_capacity = 24;
// The bytes a string copy gets beyond its length.
constexpr std::size_t copy_margin_bytes = 2;
// The bytes an append gets beyond the two lengths.
constexpr std::size_t append_margin_bytes = 3;
// The bytes a string list gets beyond its content and the new string.
constexpr std::size_t strlist_margin_bytes = 10;
// Characters a wide string gets beyond its length: the terminator and one spare.
constexpr std::size_t wide_margin_chars = 2;

constexpr wchar_t replacement_character = 0xFFFD;
constexpr char unconvertible_byte = '?';

// True when position lies in the string [block, block + length], terminator
// included. Pointers into unrelated blocks are compared through std::less,
// which orders all pointers.
template <class Char>
bool lies_within(const Char* position, const Char* block, std::size_t length) {
    if (!block || !position) return false;
    std::less<const Char*> before;
    return !before(position, block) && !before(block + length, position);
}

int sign_of(int value) {
    return (value > 0) - (value < 0);
}

// The conversions between byte and wide strings run in the user's locale and
// leave the program in the "C" locale, where numbers print with a point. The
// user's locale is installed for the calling thread only: switching the
// whole process would let another thread print a number with a decimal comma
// into a sentence during the conversion.
class UserLocaleScope {
  public:
    UserLocaleScope() {
        user_ = newlocale(LC_ALL_MASK, "", static_cast<locale_t>(nullptr));
        if (user_) previous_ = uselocale(user_);
    }
    ~UserLocaleScope() {
        if (!user_) return;
        uselocale(previous_);
        freelocale(user_);
    }
    UserLocaleScope(const UserLocaleScope&) = delete;
    UserLocaleScope& operator=(const UserLocaleScope&) = delete;

  private:
    locale_t user_ = static_cast<locale_t>(nullptr);
    locale_t previous_ = static_cast<locale_t>(nullptr);
};

// ---- UTF-8 decoding ----
//
// The decoder is ours so that the result does not depend on the user's
// locale. A lead byte fixes how many continuation bytes follow and the range
// the first of them must lie in (which rules out overlong forms, surrogates
// and code points above U+10FFFF); the others lie in 80..BF. An invalid lead
// byte, or a sequence cut short, becomes one U+FFFD for the bytes consumed so
// far (the maximal valid prefix), and decoding resumes at the offending byte.

struct Utf8Lead {
    uint8_t first;         // first lead byte of the row
    uint8_t last;          // last lead byte of the row
    uint8_t continuations; // bytes that follow the lead
    uint8_t second_low;    // lowest first continuation byte
    uint8_t second_high;   // highest first continuation byte
    uint8_t payload_mask;  // bits of the lead byte that belong to the code point
};

// {first, last, continuations, second_low, second_high, payload_mask}
constexpr Utf8Lead utf8_leads[] = {
    {0xC2, 0xDF, 1, 0x80, 0xBF, 0x1F}, // U+0080..U+07FF
    {0xE0, 0xE0, 2, 0xA0, 0xBF, 0x0F}, // U+0800..U+0FFF, no overlong form
    {0xE1, 0xEC, 2, 0x80, 0xBF, 0x0F}, // U+1000..U+CFFF
    {0xED, 0xED, 2, 0x80, 0x9F, 0x0F}, // U+D000..U+D7FF, no surrogate
    {0xEE, 0xEF, 2, 0x80, 0xBF, 0x0F}, // U+E000..U+FFFF
    {0xF0, 0xF0, 3, 0x90, 0xBF, 0x07}, // U+10000..U+3FFFF, no overlong form
    {0xF1, 0xF3, 3, 0x80, 0xBF, 0x07}, // U+40000..U+FFFFF
    {0xF4, 0xF4, 3, 0x80, 0x8F, 0x07}, // U+100000..U+10FFFF, nothing beyond
};
static_assert(std::size(utf8_leads) == 8);

constexpr uint8_t continuation_low = 0x80;
constexpr uint8_t continuation_high = 0xBF;
constexpr uint8_t continuation_payload_mask = 0x3F;
constexpr int continuation_payload_bits = 6;

const Utf8Lead* find_lead(uint8_t byte) {
    for (const Utf8Lead& lead : utf8_leads)
        if (byte >= lead.first && byte <= lead.last) return &lead;
    return nullptr;
}

// Decodes length bytes into out, which has room for length + 1 characters;
// the result is terminated.
void decode_utf8(const unsigned char* text, std::size_t length, wchar_t* out) {
    std::size_t read = 0;
    std::size_t written = 0;
    while (read < length) {
        const uint8_t byte = text[read];
        if (byte < continuation_low) {
            out[written++] = static_cast<wchar_t>(byte);
            ++read;
            continue;
        }
        const Utf8Lead* lead = find_lead(byte);
        if (!lead) {
            out[written++] = replacement_character;
            ++read;
            continue;
        }
        uint32_t code_point = byte & lead->payload_mask;
        std::size_t taken = 1;
        bool complete = true;
        for (uint8_t k = 0; k < lead->continuations; ++k) {
            const std::size_t at = read + taken;
            const uint8_t low = k == 0 ? lead->second_low : continuation_low;
            const uint8_t high = k == 0 ? lead->second_high : continuation_high;
            if (at >= length || text[at] < low || text[at] > high) {
                complete = false;
                break;
            }
            code_point =
                (code_point << continuation_payload_bits) | (text[at] & continuation_payload_mask);
            ++taken;
        }
        out[written++] = complete ? static_cast<wchar_t>(code_point) : replacement_character;
        read += taken;
    }
    out[written] = L'\0';
}

} // namespace

// ---- byte strings ----

char* str_copy(const char* source, char*& variable) {
    const char* text = source ? source : "";
    if (text == variable) return variable;
    const std::size_t length = std::strlen(text);
    if (variable && std::strlen(variable) >= length) {
        std::memmove(variable, text, length + 1);
        return variable;
    }
    // The new block is filled before the old one is freed, in case the source
    // lies inside the old one.
    char* fresh = static_cast<char*>(checked_malloc(length + copy_margin_bytes));
    std::memcpy(fresh, text, length + 1);
    free_mem(variable);
    variable = fresh;
    return variable;
}

char* str_append(const char* source, char*& variable) {
    const char* text = source ? source : "";
    if (!variable) return str_copy(text, variable);
    const std::size_t old_length = std::strlen(variable);
    // Growing may move the block, so a source inside it is copied aside first;
    // this is what lets a string be appended to itself.
    std::string aside;
    if (lies_within(text, static_cast<const char*>(variable), old_length)) {
        aside = text;
        text = aside.c_str();
    }
    const std::size_t length = std::strlen(text);
    realloc_mem(variable, old_length + length + append_margin_bytes);
    std::memcpy(variable + old_length, text, length + 1);
    return variable;
}

char* str_append_long(long number, char*& variable) {
    char text[long_text_capacity];
    std::snprintf(text, sizeof text, "%ld", number);
    return str_append(text, variable);
}

char* str_append_char(char character, char*& variable) {
    char text[2];
    std::snprintf(text, sizeof text, "%c", character);
    return str_append(text, variable);
}

// ---- string lists ----

char* strlist_add(const char* string, char*& list) {
    if (!string || !*string) return list;
    std::size_t used = 0; // offset of the empty string that ends the list
    if (list) {
        const char* position = list;
        while (*position)
            position = strlist_next(position);
        used = static_cast<std::size_t>(position - list);
    }
    std::string aside;
    if (list && lies_within(string, static_cast<const char*>(list), used)) {
        aside = string;
        string = aside.c_str();
    }
    const std::size_t length = std::strlen(string);
    realloc_mem(list, used + length + strlist_margin_bytes);
    std::memcpy(list + used, string, length + 1);
    list[used + length + 1] = '\0';
    return list;
}

const char* strlist_next(const char* position) {
    if (!position) return nullptr;
    return position + std::strlen(position) + 1;
}

int str_order(const char* a, const char* b) {
    if (!a || !b) return 1;
    const int blind = sign_of(strcasecmp(b, a));
    if (blind) return blind;
    return sign_of(std::strcmp(b, a));
}

// ---- wide strings ----

wchar_t* wstr_from_str(const char* source, wchar_t*& variable) {
    const char* text = source ? source : "";
    const std::size_t length = std::strlen(text);
    alloc_mem(variable, (length + wide_margin_chars) * sizeof(wchar_t));
    UserLocaleScope locale;
    if (std::mbstowcs(variable, text, length + 1) == static_cast<std::size_t>(-1)) {
        // Text that the locale refuses (Latin-1 names in a UTF-8 locale) is
        // read one character a byte, as an 8-bit code page reads every byte,
        // rather than failing the file that holds it.
        for (std::size_t i = 0; i <= length; ++i)
            variable[i] = static_cast<wchar_t>(static_cast<unsigned char>(text[i]));
    }
    return variable;
}

char* str_from_wstr(const wchar_t* source, char*& variable) {
    const wchar_t* text = source ? source : L"";
    const std::size_t length = std::wcslen(text);
    // Converted character by character so that one the locale cannot write
    // becomes a '?' instead of ending the text, and so that the block can be
    // sized for multibyte output (length + 2 bytes holds only single bytes).
    std::string converted;
    {
        UserLocaleScope locale;
        std::mbstate_t state{};
        char bytes[MB_LEN_MAX];
        for (std::size_t i = 0; i < length; ++i) {
            const std::size_t count = std::wcrtomb(bytes, text[i], &state);
            if (count == static_cast<std::size_t>(-1)) {
                converted += unconvertible_byte;
                state = std::mbstate_t{};
            } else {
                converted.append(bytes, count);
            }
        }
    }
    std::size_t size = length + copy_margin_bytes;
    if (converted.size() + 1 > size) size = converted.size() + 1;
    alloc_mem(variable, size);
    std::memcpy(variable, converted.c_str(), converted.size() + 1);
    return variable;
}

wchar_t* wstr_from_utf8(const char* source, wchar_t*& variable) {
    const char* text = source ? source : "";
    const std::size_t length = std::strlen(text);
    alloc_mem(variable, (length + wide_margin_chars) * sizeof(wchar_t));
    decode_utf8(reinterpret_cast<const unsigned char*>(text), length, variable);
    return variable;
}

wchar_t* wstr_copy(const wchar_t* source, wchar_t*& variable) {
    if (source == variable) return variable;
    wchar_t* fresh = nullptr;
    wstr_append(source, fresh);
    free_mem(variable);
    variable = fresh;
    return variable;
}

wchar_t* wstr_append(const wchar_t* source, wchar_t*& variable) {
    const wchar_t* text = source ? source : L"";
    const std::size_t old_length = variable ? std::wcslen(variable) : 0;
    std::wstring aside;
    if (lies_within(text, static_cast<const wchar_t*>(variable), old_length)) {
        aside = text;
        text = aside.c_str();
    }
    const std::size_t length = std::wcslen(text);
    realloc_mem(variable, (old_length + length + wide_margin_chars) * sizeof(wchar_t));
    std::wmemcpy(variable + old_length, text, length + 1);
    return variable;
}

wchar_t* wstr_append_long(long number, wchar_t*& variable) {
    wchar_t text[long_text_capacity];
    std::swprintf(text, long_text_capacity, L"%ld", number);
    return wstr_append(text, variable);
}

int wstr_compare_str(const wchar_t* wide, const char* bytes, std::size_t length) {
    wchar_t* converted = nullptr;
    wstr_from_str(bytes, converted);
    const wchar_t* text = wide ? wide : L"";
    const int result =
        length ? std::wcsncmp(text, converted, length) : std::wcscmp(text, converted);
    free_mem(converted);
    return result;
}

int wstr_compare(const wchar_t* a, const wchar_t* b) {
    if (!a || !b) return 1;
    const int blind = sign_of(wcscasecmp(b, a));
    if (blind) return blind;
    return sign_of(std::wcscmp(b, a));
}

} // namespace norvanta
