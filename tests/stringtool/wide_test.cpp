#include "common/qzfistringtool.h"

#include <string>

#include <gtest/gtest.h>

#include "locale.h"

namespace {

using Tool = CCmnStringTool;
using Ace = ACE_String_Base<char>;
using namespace std::string_literals;

/// The one result of all three conversions of bytes.
std::wstring widened(const std::string &text) {
    const std::wstring wide = Tool::str2wstr(text);
    EXPECT_EQ(Tool::mbs2wcs(text), wide);
    EXPECT_EQ(Tool::tstr2wstr(Ace(text.data(), text.size())), wide);
    return wide;
}

/// The one result of all three conversions of wide characters.
std::string narrowed(const std::wstring &text) {
    const std::string bytes = Tool::wstr2str(text);
    EXPECT_EQ(Tool::wcs2mbs(text), bytes);
    const Ace ace = Tool::wstr2tstr(text);
    EXPECT_EQ(std::string(ace.c_str(), ace.length()), bytes);
    return bytes;
}

TEST(StringToolWide, ascii_is_converted_in_every_locale) {
    for (const char *name : {"C", "C.UTF-8"}) {
        const Locale locale(name);
        EXPECT_EQ(widened("a \x7F~"), L"a \x7F~");
        EXPECT_EQ(narrowed(L"a \x7F~"), "a \x7F~");
        EXPECT_EQ(widened(""), L"");
        EXPECT_EQ(narrowed(L""), "");
    }
}

TEST(StringToolWide, the_encoding_is_that_of_the_locale) {
    const Locale locale("C.UTF-8");
    EXPECT_EQ(widened("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"), L"a\u00E9\u4E2D\U0001F600");
    EXPECT_EQ(narrowed(L"a\u00E9\u4E2D\U0001F600"), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
}

TEST(StringToolWide, the_wide_characters_of_other_encodings_are_none_in_the_c_locale) {
    const Locale locale("C");
    EXPECT_EQ(narrowed(L"a\u4E2D"), "");
}

TEST(StringToolWide, text_that_cannot_be_converted_gives_the_empty_text) {
    const Locale locale("C.UTF-8");
    for (const char *text : {"a\x80", "a\xC3", "a\xC0\x80", "a\xED\xA0\x80", "a\xFF"})
        EXPECT_EQ(widened(text), L"") << text;
    EXPECT_EQ(narrowed({L'a', L'\xD800'}), "");
    EXPECT_EQ(narrowed({L'a', static_cast<wchar_t>(-1)}), "");
}

TEST(StringToolWide, the_byte_form_is_cut_at_two_bytes_a_character_and_two_more) {
    const Locale locale("C.UTF-8");
    EXPECT_EQ(narrowed(L"\u4E2D"), "\xE4\xB8\xAD");
    EXPECT_EQ(narrowed(L"\u4E2D\u4E2D"), "\xE4\xB8\xAD\xE4\xB8\xAD");
    EXPECT_EQ(narrowed(L"\u4E2D\u4E2D\u4E2D"), "\xE4\xB8\xAD\xE4\xB8\xAD");
    EXPECT_EQ(narrowed(L"\U0001F600"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(narrowed(L"\U0001F600\U0001F600"), "\xF0\x9F\x98\x80");
}

TEST(StringToolWide, a_nul_ends_the_text) {
    EXPECT_EQ(widened("a\0b"s), L"a");
    EXPECT_EQ(narrowed(L"a\0b"s), "a");
}

TEST(StringToolWide, long_texts_are_converted_whole) {
    const Locale locale("C.UTF-8");
    std::string bytes;
    for (int place = 0; place < 100000; ++place)
        bytes += "\xC3\xA9";
    const std::wstring wide(100000, L'\u00E9');
    EXPECT_EQ(widened(bytes), wide);
    EXPECT_EQ(narrowed(wide), bytes);
}

} // namespace
