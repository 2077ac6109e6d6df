// Owned strings: block reuse and growth, appending to oneself, string lists,
// the ordering compare, and the wide conversions with non-ASCII text.
#include "core/strings.h"

#include <clocale>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "shell/errors.h"

namespace norvanta {
namespace {

// "é ü 中" and the rest, in UTF-8 and as code points.
constexpr const char* accented_utf8 = "caf\xC3\xA9 \xC3\xBC \xE4\xB8\xAD";
constexpr const wchar_t* accented_wide = L"caf\u00E9 \u00FC \u4E2D";

// Sets the user's locale variables for one test and puts them back after.
class ScopedLocaleEnvironment {
  public:
    explicit ScopedLocaleEnvironment(const char* locale) {
        const char* previous = std::getenv("LC_ALL");
        had_previous_ = previous != nullptr;
        if (had_previous_) previous_ = previous;
        setenv("LC_ALL", locale, 1);
    }
    ~ScopedLocaleEnvironment() {
        if (had_previous_)
            setenv("LC_ALL", previous_.c_str(), 1);
        else
            unsetenv("LC_ALL");
    }

  private:
    bool had_previous_ = false;
    std::string previous_;
};

class StringsTest : public ::testing::Test {
  protected:
    void SetUp() override { gblerr.store(0); }
    void TearDown() override { gblerr.store(0); }
};

using Strings = StringsTest;

TEST_F(Strings, CopyTreatsNullAsEmpty) {
    char* text = nullptr;
    str_copy(nullptr, text);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    free_mem(text);
}

TEST_F(Strings, CopyReusesTheBlockOfALongerOrEqualString) {
    char* text = nullptr;
    str_copy("a rather long value", text);
    char* const block = text;
    str_copy("short", text);
    EXPECT_EQ(text, block) << "a shorter string must be written into the same block";
    EXPECT_STREQ(text, "short");
    // Only the old length decides: "short" is 5, so 5 characters still fit
    // the block, but 6 do not, though the block could hold them.
    str_copy("fives", text);
    EXPECT_EQ(text, block) << "an equal length reuses the block";
    str_copy("sixsix", text);
    EXPECT_STREQ(text, "sixsix");
    free_mem(text);
}

TEST_F(Strings, CopyOfItselfOrOfItsOwnTail) {
    char* text = nullptr;
    str_copy("abcdef", text);
    char* const block = text;
    str_copy(text, text);
    EXPECT_EQ(text, block);
    EXPECT_STREQ(text, "abcdef");
    str_copy(text + 2, text);
    EXPECT_STREQ(text, "cdef") << "a source inside the block must survive the copy";
    free_mem(text);
}

TEST_F(Strings, AppendGrowsAndStartsFromNothing) {
    char* text = nullptr;
    str_append("abc", text);
    EXPECT_STREQ(text, "abc");
    str_append(nullptr, text);
    EXPECT_STREQ(text, "abc");
    std::string expected = "abc";
    // Through the rounding threshold and several 4096-byte steps.
    for (int i = 0; i < 2000; ++i) {
        str_append("0123456789", text);
        expected += "0123456789";
    }
    EXPECT_EQ(std::string(text), expected);
    free_mem(text);
}

TEST_F(Strings, AppendToItself) {
    struct Row {
        const char* description;
        const char* start;
        std::size_t source_offset;
        const char* expected;
    };
    const Row rows[] = {
        {"the whole string twice", "abc", 0, "abcabc"},
        {"its own tail", "abcdef", 3, "abcdefdef"},
        {"an empty string to itself", "", 0, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        char* text = nullptr;
        str_copy(row.start, text);
        str_append(text + row.source_offset, text);
        EXPECT_STREQ(text, row.expected);
        free_mem(text);
    }
    // Long enough for the block to move when it grows.
    char* text = nullptr;
    std::string expected(3000, 'x');
    str_copy(expected.c_str(), text);
    str_append(text, text);
    EXPECT_EQ(std::string(text), expected + expected);
    free_mem(text);
}

TEST_F(Strings, AppendNumbersAndCharacters) {
    char* text = nullptr;
    str_append_long(-42, text);
    str_append_char(',', text);
    str_append_long(LONG_MIN, text);
    str_append_char('\0', text); // "%c" of NUL adds nothing visible
    EXPECT_EQ(std::string(text), "-42," + std::to_string(LONG_MIN));
    free_mem(text);
}

TEST_F(Strings, ListWalkSkipsEmptyStrings) {
    char* list = nullptr;
    strlist_add("alpha", list);
    strlist_add("", list);
    strlist_add(nullptr, list);
    strlist_add("b", list);
    std::string long_entry(5000, 'z'); // forces a move of the block
    strlist_add(long_entry.c_str(), list);
    strlist_add(list, list); // the first entry, taken from the list itself
    ASSERT_NE(list, nullptr);

    std::vector<std::string> seen;
    for (const char* position = list; *position; position = strlist_next(position))
        seen.emplace_back(position);
    const std::vector<std::string> expected = {"alpha", "b", long_entry, "alpha"};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(strlist_next(nullptr), nullptr);
    free_mem(list);

    char* untouched = nullptr;
    strlist_add("", untouched);
    EXPECT_EQ(untouched, nullptr) << "an empty string makes no list";
}

TEST_F(Strings, OrderIsCaseBlindThenExactWithBFirst) {
    struct Row {
        const char* description;
        const char* a;
        const char* b;
        int expected;
    };
    const Row rows[] = {
        {"a before b gives 1", "abc", "abd", 1},
        {"b before a gives -1", "abd", "abc", -1},
        {"equal strings give 0", "same", "same", 0},
        {"case-blind first: a sorts before B", "a", "B", 1},
        {"case-blind first: B sorts after a", "B", "a", -1},
        {"a tie broken exactly: ABC sorts before abc", "abc", "ABC", -1},
        {"the same tie the other way round", "ABC", "abc", 1},
        {"a prefix sorts first", "ab", "abc", 1},
        {"null a", nullptr, "x", 1},
        {"null b", "x", nullptr, 1},
        {"both null", nullptr, nullptr, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(str_order(row.a, row.b), row.expected);
    }
}

TEST_F(Strings, WideCompareFollowsTheSameRules) {
    struct Row {
        const char* description;
        const wchar_t* a;
        const wchar_t* b;
        int expected;
    };
    const Row rows[] = {
        {"a before b", L"abc", L"abd", 1},
        {"case-blind first", L"a", L"B", 1},
        {"a tie broken exactly", L"abc", L"ABC", -1},
        {"equal", L"x\u00E9", L"x\u00E9", 0},
        {"null", nullptr, L"x", 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        EXPECT_EQ(wstr_compare(row.a, row.b), row.expected);
    }
}

TEST_F(Strings, Utf8DecodesNonAsciiWhateverTheLocale) {
    ScopedLocaleEnvironment c_locale("C");
    wchar_t* wide = nullptr;
    wstr_from_utf8(accented_utf8, wide);
    EXPECT_STREQ(wide, accented_wide);
    wstr_from_utf8("\xF0\x9F\x98\x80", wide);
    EXPECT_STREQ(wide, L"\U0001F600") << "a four-byte sequence is one character";
    wstr_from_utf8(nullptr, wide);
    EXPECT_STREQ(wide, L"");
    free_mem(wide);
}

TEST_F(Strings, Utf8InvalidSequencesBecomeReplacementCharacters) {
    struct Row {
        const char* description;
        const char* utf8;
        const wchar_t* expected;
    };
    const Row rows[] = {
        {"a byte that starts nothing",
         "a\xFF"
         "b",
         L"a\uFFFD"
         "b"},
        {"a lone continuation byte", "\x80", L"\uFFFD"},
        {"a sequence cut by the end", "a\xE4\xB8", L"a\uFFFD"},
        {"a sequence cut by an ASCII byte", "\xC3(", L"\uFFFD("},
        {"an overlong slash", "\xC0\xAF", L"\uFFFD\uFFFD"},
        {"an overlong three-byte form", "\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},
        {"a surrogate", "\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
        {"past U+10FFFF", "\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"a valid character after a broken one", "\xE4\xB8\xC3\xA9", L"\uFFFD\u00E9"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        wchar_t* wide = nullptr;
        wstr_from_utf8(row.utf8, wide);
        EXPECT_STREQ(wide, row.expected);
        free_mem(wide);
    }
}

TEST_F(Strings, WideRoundTripThroughTheUserLocale) {
    ScopedLocaleEnvironment utf8("C.UTF-8");
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
    EXPECT_EQ(wstr_compare_str(L"caf\u00E9 au lait", accented_utf8, 4), 0)
        << "only the first four characters are compared";
    EXPECT_NE(wstr_compare_str(L"caf\u00E9 au lait", accented_utf8, 0), 0);

    free_mem(wide);
    free_mem(bytes);
}

TEST_F(Strings, ConversionsLeaveTheProgramInTheCLocale) {
    ScopedLocaleEnvironment utf8("C.UTF-8");
    wchar_t* wide = nullptr;
    char* bytes = nullptr;
    wstr_from_str(accented_utf8, wide);
    str_from_wstr(wide, bytes);
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    EXPECT_EQ(MB_CUR_MAX, 1u) << "the thread must not keep the user's multibyte locale";
    free_mem(wide);
    free_mem(bytes);
}

TEST_F(Strings, BytesTheLocaleCannotReadStoreNoMemory) {
    ScopedLocaleEnvironment c_locale("C");
    wchar_t* wide = nullptr;
    wstr_from_str("caf\xE9", wide); // Latin-1, no character in the C locale
    EXPECT_EQ(current_error(), ErrorCode::no_memory);
    ASSERT_NE(wide, nullptr);
    EXPECT_STREQ(wide, L"");
    free_mem(wide);
}

TEST_F(Strings, WideCharactersTheLocaleCannotWriteBecomeQuestionMarks) {
    ScopedLocaleEnvironment c_locale("C");
    char* bytes = nullptr;
    str_from_wstr(L"caf\u00E9!", bytes);
    EXPECT_STREQ(bytes, "caf?!");
    str_from_wstr(nullptr, bytes);
    EXPECT_STREQ(bytes, "");
    free_mem(bytes);
}

TEST_F(Strings, WideCopyAndAppend) {
    wchar_t* wide = nullptr;
    wstr_copy(L"abc", wide);
    EXPECT_STREQ(wide, L"abc");
    wchar_t* const block = wide;
    wstr_copy(wide, wide);
    EXPECT_EQ(wide, block) << "copying the held block onto itself does nothing";
    wstr_copy(wide + 1, wide);
    EXPECT_STREQ(wide, L"bc") << "a source inside the block survives the copy";

    wstr_append(wide, wide);
    EXPECT_STREQ(wide, L"bcbc");
    wstr_append(nullptr, wide);
    EXPECT_STREQ(wide, L"bcbc");
    wstr_append_long(-17, wide);
    EXPECT_STREQ(wide, L"bcbc-17");

    std::wstring expected = L"bcbc-17";
    for (int i = 0; i < 1000; ++i) {
        wstr_append(L"\u00E9t\u00E9", wide);
        expected += L"\u00E9t\u00E9";
    }
    EXPECT_EQ(std::wstring(wide), expected);
    free_mem(wide);

    wchar_t* fresh = nullptr;
    wstr_append_long(12345, fresh);
    EXPECT_STREQ(fresh, L"12345");
    free_mem(fresh);
}

} // namespace
} // namespace norvanta
