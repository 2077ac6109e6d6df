// Owned strings: block reuse and growth, appending to oneself, string lists,
// the ordering compare, and the wide conversions with non-ASCII text.
#include "core/strings.h"

#include <clocale>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "shell/errors.h"

namespace norvanta {
namespace {

// "é ü 中" and the rest, in UTF-8 and as code points.
constexpr const char* accented_utf8 = "caf\xC3\xA9 \xC3\xBC \xE4\xB8\xAD";
constexpr const wchar_t* accented_wide = L"caf\u00E9 \u00FC \u4E2D";

// The user's locale for one test; every test that depends on it sets its own.
struct UserLocale {
    explicit UserLocale(const char* locale) { setenv("LC_ALL", locale, 1); }
    ~UserLocale() { unsetenv("LC_ALL"); }
};

class Strings : public ::testing::Test {
  protected:
    void SetUp() override { gblerr.store(0); }
    void TearDown() override { gblerr.store(0); }
};

TEST_F(Strings, CopyReusesTheBlockOfALongerOrEqualString) {
    char* text = nullptr;
    str_copy(nullptr, text);
    EXPECT_STREQ(text, "") << "null copies as the empty string";
    str_copy("a rather long value", text);
    char* const block = text;
    str_copy("short", text);
    EXPECT_EQ(text, block) << "a shorter string must be written into the same block";
    EXPECT_STREQ(text, "short");
    // Only the old length decides: 5 characters fit again, 6 do not.
    str_copy("fives", text);
    EXPECT_EQ(text, block) << "an equal length reuses the block";
    str_copy("sixsix", text);
    EXPECT_STREQ(text, "sixsix");
    str_copy(text, text);
    EXPECT_STREQ(text, "sixsix") << "a copy onto itself";
    str_copy(text + 2, text);
    EXPECT_STREQ(text, "xsix") << "a source inside the block must survive the copy";
    free_mem(text);
}

TEST_F(Strings, AppendStartsFromNothingWithNumbersAndCharacters) {
    char* text = nullptr;
    str_append_long(-42, text);
    str_append(nullptr, text);
    str_append_char(',', text);
    str_append_long(LONG_MIN, text);
    str_append_char('\0', text); // "%c" of NUL adds nothing visible
    EXPECT_EQ(std::string(text), "-42," + std::to_string(LONG_MIN));
    free_mem(text);
}

TEST_F(Strings, AppendToItself) {
    const std::string long_text(3000, 'x'); // long enough for the block to move
    const std::tuple<const char*, const char*, std::size_t, std::string> rows[] = {
        {"the whole string twice", "abc", 0, "abcabc"},
        {"its own tail", "abcdef", 3, "abcdefdef"},
        {"a block that moves as it grows", long_text.c_str(), 0, long_text + long_text},
    };
    for (const auto& [description, start, source_offset, expected] : rows) {
        SCOPED_TRACE(description);
        char* text = nullptr;
        str_copy(start, text);
        str_append(text + source_offset, text);
        EXPECT_EQ(std::string(text), expected);
        free_mem(text);
    }
}

TEST_F(Strings, ListWalkSkipsEmptyStrings) {
    char* untouched = nullptr;
    strlist_add("", untouched);
    EXPECT_EQ(untouched, nullptr) << "an empty string makes no list";

    char* list = nullptr;
    strlist_add("alpha", list);
    strlist_add("", list);
    strlist_add(nullptr, list);
    strlist_add("b", list);
    const std::string long_entry(5000, 'z'); // forces a move of the block
    strlist_add(long_entry.c_str(), list);
    strlist_add(list, list); // the first entry, taken from the list itself
    std::vector<std::string> seen;
    for (const char* position = list; *position; position = strlist_next(position))
        seen.emplace_back(position);
    EXPECT_EQ(seen, (std::vector<std::string>{"alpha", "b", long_entry, "alpha"}));
    EXPECT_EQ(strlist_next(nullptr), nullptr);
    free_mem(list);
}

TEST_F(Strings, OrderIsCaseBlindThenExactWithBFirst) {
    const std::tuple<const char*, const char*, const char*, int> rows[] = {
        {"a before b gives 1", "abc", "abd", 1},
        {"b before a gives -1", "abd", "abc", -1},
        {"equal strings give 0", "same", "same", 0},
        {"case-blind first: a sorts before B", "a", "B", 1},
        {"a tie broken exactly: ABC sorts before abc", "abc", "ABC", -1},
        {"the same tie the other way round", "ABC", "abc", 1},
        {"a prefix sorts first", "ab", "abc", 1},
        {"null a", nullptr, "x", 1},
        {"null b", "x", nullptr, 1},
    };
    for (const auto& [description, a, b, expected] : rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(str_order(a, b), expected);
    }
    const std::tuple<const char*, const wchar_t*, const wchar_t*, int> wide_rows[] = {
        {"wide: case-blind first", L"a", L"B", 1},
        {"wide: a tie broken exactly", L"abc", L"ABC", -1},
        {"wide: equal", L"x\u00E9", L"x\u00E9", 0},
        {"wide: null", nullptr, L"x", 1},
    };
    for (const auto& [description, a, b, expected] : wide_rows) {
        SCOPED_TRACE(description);
        EXPECT_EQ(wstr_compare(a, b), expected);
    }
}

TEST_F(Strings, Utf8DecodesWhateverTheLocaleAndReplacesInvalidSequences) {
    UserLocale c_locale("C");
    const std::tuple<const char*, const char*, const wchar_t*> rows[] = {
        {"two- and three-byte characters", accented_utf8, accented_wide},
        {"a four-byte sequence is one character", "\xF0\x9F\x98\x80", L"\U0001F600"},
        {"null decodes as empty", nullptr, L""},
        {"a byte that starts nothing", "a\xFF", L"a\uFFFD"},
        {"a sequence cut by the end", "a\xE4\xB8", L"a\uFFFD"},
        {"a sequence cut by an ASCII byte", "\xC3(", L"\uFFFD("},
        {"an overlong slash", "\xC0\xAF", L"\uFFFD\uFFFD"},
        {"an overlong three-byte form", "\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},
        {"a surrogate", "\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
        {"past U+10FFFF", "\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"a valid character after a broken one", "\xE4\xB8\xC3\xA9", L"\uFFFD\u00E9"},
    };
    for (const auto& [description, utf8, expected] : rows) {
        SCOPED_TRACE(description);
        wchar_t* wide = nullptr;
        wstr_from_utf8(utf8, wide);
        EXPECT_STREQ(wide, expected);
        free_mem(wide);
    }
}

TEST_F(Strings, WideRoundTripThroughTheUserLocaleEndsInTheCLocale) {
    UserLocale utf8("C.UTF-8");
    wchar_t* wide = nullptr;
    char* bytes = nullptr;
    wstr_from_utf8(accented_utf8, wide);
    str_from_wstr(wide, bytes);
    EXPECT_STREQ(bytes, accented_utf8) << "UTF-8 to wide and back through the locale";
    wstr_from_str(accented_utf8, wide);
    EXPECT_STREQ(wide, accented_wide) << "bytes read in the user's UTF-8 locale";
    EXPECT_FALSE(error_pending());
    // Three characters of three bytes each need more than length + 2 bytes.
    str_from_wstr(L"\u4E2D\u4E2D\u4E2D", bytes);
    EXPECT_STREQ(bytes, "\xE4\xB8\xAD\xE4\xB8\xAD\xE4\xB8\xAD");

    EXPECT_EQ(wstr_compare_str(accented_wide, accented_utf8, 0), 0);
    EXPECT_EQ(wstr_compare_str(L"caf\u00E9 au lait", accented_utf8, 4), 0) << "four characters";
    EXPECT_NE(wstr_compare_str(L"caf\u00E9 au lait", accented_utf8, 0), 0);

    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(MB_CUR_MAX, 1u) << "the thread must not keep the user's multibyte locale";
    free_mem(wide);
    free_mem(bytes);
}

TEST_F(Strings, TextTheCLocaleCannotConvert) {
    UserLocale c_locale("C");
    wchar_t* wide = nullptr;
    wstr_from_str("caf\xE9", wide); // Latin-1, no character in the C locale
    EXPECT_FALSE(error_pending());
    EXPECT_STREQ(wide, L"caf\u00E9") << "read a byte a character";
    free_mem(wide);

    char* bytes = nullptr;
    str_from_wstr(L"caf\u00E9!", bytes);
    EXPECT_STREQ(bytes, "caf?!") << "a character the locale cannot write becomes '?'";
    str_from_wstr(nullptr, bytes);
    EXPECT_STREQ(bytes, "");
    free_mem(bytes);
}

TEST_F(Strings, WideCopyAndAppend) {
    wchar_t* wide = nullptr;
    wstr_copy(L"abc", wide);
    wchar_t* const block = wide;
    wstr_copy(wide, wide);
    EXPECT_EQ(wide, block) << "copying the held block onto itself does nothing";
    wstr_copy(wide + 1, wide);
    EXPECT_STREQ(wide, L"bc") << "a source inside the block survives the copy";
    wstr_append(wide, wide);
    wstr_append(nullptr, wide);
    wstr_append_long(-17, wide);
    const std::wstring long_text(3000, L'\u00E9'); // long enough for the block to move
    wstr_append(long_text.c_str(), wide);
    EXPECT_EQ(std::wstring(wide), L"bcbc-17" + long_text);
    free_mem(wide);
}

} // namespace
} // namespace norvanta
