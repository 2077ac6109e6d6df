// Owned byte and wide strings, string lists.
//
// Strings are owned char* / wchar_t* variables passed by reference and freed
// with free_mem. A null source always counts as the empty string. Wide
// strings are wchar_t; conversions run in the user's locale and put the
// process back to the "C" locale afterwards.
#pragma once

#include <cstddef>

namespace norvanta {

// Reuses the variable's block when the old string is at least as long as the
// source (only the old length decides; the real capacity is not remembered).
char* str_copy(const char* source, char*& variable);
// Appends; an empty variable acts as str_copy; appending a string to itself works.
char* str_append(const char* source, char*& variable);
char* str_append_long(long number, char*& variable);
char* str_append_char(char character, char*& variable);

// A string list: byte strings one after the other, each ended by NUL, the
// whole ended by an empty string. Empty strings are not added.
char* strlist_add(const char* string, char*& list);
// The string after the one at position; null for a null position.
const char* strlist_next(const char* position);

// Ordering compare of the sets: case-blind first, exact for ties, both with b
// first; positive when a sorts before b. 1 when either is null.
int str_order(const char* a, const char* b);

wchar_t* wstr_from_str(const char* source, wchar_t*& variable);
char* str_from_wstr(const wchar_t* source, char*& variable);
wchar_t* wstr_from_utf8(const char* source, wchar_t*& variable);
wchar_t* wstr_copy(const wchar_t* source, wchar_t*& variable);
wchar_t* wstr_append(const wchar_t* source, wchar_t*& variable);
wchar_t* wstr_append_long(long number, wchar_t*& variable);
// Converts the byte string, then compares over length characters (0: all).
int wstr_compare_str(const wchar_t* wide, const char* bytes, std::size_t length);
// As str_order, for wide strings.
int wstr_compare(const wchar_t* a, const wchar_t* b);

} // namespace norvanta
