#include "common/qzfistringtool.h"

#include <string>

#include <gtest/gtest.h>

namespace {

using Tool = CCmnStringTool;
using Ace = ACE_String_Base<char>;
using icu::UnicodeString;
using namespace std::string_literals;

/// The one result of both conversions to UTF-8.
std::string encoded(const UnicodeString &text) {
    const std::string bytes = Tool::ustr2str(text);
    const Ace ace = Tool::ustr2tstr(text);
    EXPECT_EQ(std::string(ace.c_str(), ace.length()), bytes);
    return bytes;
}

/// The one result of both conversions from UTF-8.
std::u16string decoded(const std::string &bytes) {
    const UnicodeString text = Tool::str2ustr(bytes);
    EXPECT_TRUE(Tool::tstr2ustr(Ace(bytes.data(), bytes.size())) == text);
    EXPECT_FALSE(text.isBogus());
    return {text.getBuffer(), static_cast<std::size_t>(text.length())};
}

TEST(StringToolUnicode, one_to_four_bytes_stand_for_a_character) {
    EXPECT_EQ(encoded(u"a\u00E9\u4E2D\U0001F600"), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80");
    EXPECT_EQ(decoded("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80"), u"a\u00E9\u4E2D\U0001F600");
}

TEST(StringToolUnicode, the_empty_text_stays_empty) {
    EXPECT_EQ(encoded(UnicodeString()), "");
    EXPECT_EQ(decoded(""), u"");
    UnicodeString bogus;
    bogus.setToBogus();
    EXPECT_EQ(encoded(bogus), "");
}

TEST(StringToolUnicode, a_nul_is_a_character) {
    const char16_t units[] = {u'a', 0, u'b'};
    EXPECT_EQ(encoded(UnicodeString(units, 3)), "a\0b"s);
    EXPECT_EQ(decoded("a\0b"s), std::u16string(units, 3));
}

TEST(StringToolUnicode, a_lone_surrogate_gives_the_empty_text) {
    for (const char16_t surrogate : {u'\xD800', u'\xDBFF', u'\xDC00', u'\xDFFF'}) {
        const char16_t units[] = {u'a', surrogate, u'b'};
        EXPECT_EQ(encoded(UnicodeString(units, 3)), "");
        EXPECT_EQ(encoded(UnicodeString(units, 2)), "");
    }
}

TEST(StringToolUnicode, ill_formed_utf8_gives_the_empty_text) {
    for (const char *bytes : {"a\x80", "a\xC3", "a\xC0\x80", "a\xE4\xB8", "a\xED\xA0\x80", "a\xF4\x90\x80\x80", "\xFF"})
        EXPECT_EQ(decoded(bytes), u"") << bytes;
}

TEST(StringToolUnicode, long_texts_are_converted_whole) {
    std::string bytes;
    for (int place = 0; place < 100000; ++place)
        bytes += "\xE4\xB8\xAD";
    const std::u16string units(100000, u'\u4E2D');
    EXPECT_EQ(encoded(UnicodeString(units.data(), 100000)), bytes);
    EXPECT_EQ(decoded(bytes), units);
}

} // namespace
