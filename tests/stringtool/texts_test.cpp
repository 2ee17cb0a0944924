#include "common/qzfistringtool.h"

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "locale.h"

namespace {

using Tool = CCmnStringTool;
using namespace std::string_literals;

TEST(StringTool, digits_are_0_to_9_and_the_empty_text_is_all_digits) {
    EXPECT_TRUE(Tool::isDigit("0123456789"));
    EXPECT_TRUE(Tool::isDigit(""));
    for (const std::string text : {"12a", " 1", "-1", "1.0", "/", ":", "\xB2"})
        EXPECT_FALSE(Tool::isDigit(text)) << text;
    EXPECT_FALSE(Tool::isDigit("1\0002"s));
}

TEST(StringTool, comparison_takes_letters_of_both_cases_for_equal) {
    EXPECT_TRUE(Tool::CompareNoCase("aBcXyZ09-", "AbCxYz09-"));
    EXPECT_TRUE(Tool::CompareNoCase("", ""));
    EXPECT_FALSE(Tool::CompareNoCase("abc", "abd"));
    EXPECT_TRUE(Tool::CompareNoCase(L"aBcXyZ09-", L"AbCxYz09-"));
    EXPECT_TRUE(Tool::CompareNoCase(L"", L""));
    EXPECT_FALSE(Tool::CompareNoCase(L"abc", L"abd"));
}

TEST(StringTool, comparison_of_different_lengths_is_false_even_for_a_prefix) {
    EXPECT_FALSE(Tool::CompareNoCase("abc", "abcd"));
    EXPECT_FALSE(Tool::CompareNoCase("abcd", "abc"));
    EXPECT_FALSE(Tool::CompareNoCase("", "a"));
    EXPECT_FALSE(Tool::CompareNoCase(L"abc", L"abcd"));
    EXPECT_FALSE(Tool::CompareNoCase(L"a", L""));
}

TEST(StringTool, comparison_takes_other_characters_only_as_they_are) {
    EXPECT_FALSE(Tool::CompareNoCase("[", "{")); // as far apart as the cases of a letter
    EXPECT_FALSE(Tool::CompareNoCase("@", "`"));
    EXPECT_FALSE(Tool::CompareNoCase("A", "!"));
    EXPECT_FALSE(Tool::CompareNoCase(L"[", L"{"));
    EXPECT_TRUE(Tool::CompareNoCase("a\0B"s, "A\0b"s));
    EXPECT_FALSE(Tool::CompareNoCase("a\0B"s, "a\0C"s));
}

TEST(StringTool, comparison_knows_the_wide_letters_of_the_locale_and_no_byte_of_them) {
    const Locale locale("C.UTF-8");
    EXPECT_TRUE(Tool::CompareNoCase(L"\u00E9\u0416", L"\u00C9\u0436"));
    EXPECT_TRUE(Tool::CompareNoCase("\xC3\xA9", "\xC3\xA9"));
    EXPECT_FALSE(Tool::CompareNoCase("\xC3\xA9", "\xC3\x89"));
    EXPECT_FALSE(Tool::CompareNoCase("\xFF", "\x7F"));
}

TEST(StringTool, comparison_takes_wide_letters_as_they_are_where_the_locale_knows_none) {
    const Locale locale("C");
    EXPECT_FALSE(Tool::CompareNoCase(L"\u00E9", L"\u00C9"));
    EXPECT_TRUE(Tool::CompareNoCase(L"\u00E9", L"\u00E9"));
}

TEST(StringTool, only_letters_are_lowered) {
    EXPECT_EQ(Tool::tostrlower("AbZ[@`{09"), "abz[@`{09");
    EXPECT_EQ(Tool::tostrlower(""), "");
    EXPECT_EQ(Tool::tostrlower("A\0B"s), "a\0b"s);
    EXPECT_EQ(Tool::tostrlower("\x80\xC3\x89\xFF"), "\x80\xC3\x89\xFF");
    EXPECT_EQ(Tool::tostrlower(L"AbZ[@`{09"), L"abz[@`{09");
    EXPECT_EQ(Tool::tostrlower(L""), L"");
}

TEST(StringTool, wide_letters_are_those_of_the_locale) {
    const std::wstring extremes = {static_cast<wchar_t>(-1), L'\x7FFFFFFF', L'\xD800'};
    {
        const Locale locale("C.UTF-8");
        EXPECT_EQ(Tool::tostrlower(L"\u00C9\u0416"), L"\u00E9\u0436");
        EXPECT_EQ(Tool::tostrlower(extremes), extremes);
    }
    const Locale locale("C");
    EXPECT_EQ(Tool::tostrlower(L"\u00C9\u0416"), L"\u00C9\u0416");
}

TEST(StringTool, trimming_drops_the_characters_of_the_set_at_the_ends) {
    EXPECT_EQ(Tool::ltrim("xyaxyb", "yx"), "axyb");
    EXPECT_EQ(Tool::rtrim("axybyx", "yx"), "axyb");
    EXPECT_EQ(Tool::trim("xyaxybyx", "yx"), "axyb");
    EXPECT_EQ(Tool::ltrim("a ", " "), "a ");
    EXPECT_EQ(Tool::rtrim(" a", " "), " a");
    EXPECT_EQ(Tool::trim("  a b \n", " \n"), "a b");
}

TEST(StringTool, trimming_a_text_made_of_the_set_leaves_nothing) {
    EXPECT_EQ(Tool::ltrim(" \t ", "\t "), "");
    EXPECT_EQ(Tool::rtrim(" \t ", "\t "), "");
    EXPECT_EQ(Tool::trim(" \t ", "\t "), "");
}

TEST(StringTool, trimming_by_no_set_or_of_no_text_changes_nothing) {
    for (const char *set : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(Tool::ltrim(" a ", set), " a ");
        EXPECT_EQ(Tool::rtrim(" a ", set), " a ");
        EXPECT_EQ(Tool::trim(" a ", set), " a ");
    }
    EXPECT_EQ(Tool::ltrim("", " "), "");
    EXPECT_EQ(Tool::rtrim("", " "), "");
    EXPECT_EQ(Tool::trim("", " "), "");
    EXPECT_EQ(Tool::trim("", nullptr), "");
}

TEST(StringTool, trimming_keeps_a_nul) {
    EXPECT_EQ(Tool::trim(" \0 "s, " "), "\0"s);
}

struct Found {
    unsigned long position;
    unsigned long index;
    bool operator==(const Found &) const = default;
};

void PrintTo(const Found &found, std::ostream *out) {
    *out << "position " << found.position << " of element " << found.index;
}

Found found(const std::vector<std::string> &list, const char *text, unsigned long index, bool trimmed) {
    const unsigned long position = Tool::find(list, text, index, trimmed);
    return {position, index};
}

TEST(StringToolFind, gives_the_position_in_the_first_element_that_contains_the_text) {
    const std::vector<std::string> list = {"one", "two", "twotwo", ""};
    EXPECT_EQ(found(list, "o", 0, false), (Found{0, 0}));
    EXPECT_EQ(found(list, "wo", 0, false), (Found{1, 1}));
    EXPECT_EQ(found(list, "wo", 2, false), (Found{1, 2}));
    EXPECT_EQ(found(list, "ot", 0, false), (Found{2, 2}));
    EXPECT_EQ(found(list, "", 3, false), (Found{0, 3}));
}

TEST(StringToolFind, gives_the_largest_value_and_the_number_of_elements_when_there_is_none) {
    const std::vector<std::string> list = {"one", "two"};
    EXPECT_EQ(found(list, "three", 0, false), (Found{ULONG_MAX, 2}));
    EXPECT_EQ(found(list, "one", 1, true), (Found{ULONG_MAX, 2}));
    EXPECT_EQ(found(list, "", 2, false), (Found{ULONG_MAX, 2}));
    EXPECT_EQ(found(list, "one", 7, false), (Found{ULONG_MAX, 2}));
    EXPECT_EQ(found(list, "one", ULONG_MAX, false), (Found{ULONG_MAX, 2}));
    EXPECT_EQ(found(list, nullptr, 0, false), (Found{ULONG_MAX, 2}));
    EXPECT_EQ(found({}, "", 0, false), (Found{ULONG_MAX, 0}));
}

TEST(StringToolFind, looks_at_elements_without_their_blanks_at_the_end_when_trimming) {
    const std::vector<std::string> list = {" a \n\t\r ", "b ", " \r\n", "a b "};
    EXPECT_EQ(found(list, "a ", 0, false), (Found{1, 0}));
    EXPECT_EQ(found(list, "a ", 0, true), (Found{0, 3}));
    EXPECT_EQ(found(list, " a", 0, true), (Found{0, 0})); // blanks at the start stay
    EXPECT_EQ(found(list, "\n", 0, true), (Found{ULONG_MAX, 4}));
    EXPECT_EQ(found(list, "", 2, true), (Found{0, 2}));
    EXPECT_EQ(found({"a\v"}, "\v", 0, true), (Found{1, 0})); // no blank of the set
    EXPECT_EQ(list[0], " a \n\t\r ");
}

TEST(StringTool, an_address_has_four_fields_of_digits) {
    for (const char *text : {"1.2.3.4", "127.0.0.1", "001.2.3.4"})
        EXPECT_TRUE(Tool::isIpAddress(text)) << text;
    for (const char *text :
         {"", ".", "....", "1", "1.2.3", "1.2.3.4.5", "1.2.3.a", "a.2.3.4", "1.2.3.-4", " 1.2.3.4", "1.2.3.4 ", "::1"})
        EXPECT_FALSE(Tool::isIpAddress(text)) << text;
    EXPECT_FALSE(Tool::isIpAddress("1.2.3.4\0"s));
}

TEST(StringTool, an_address_is_not_checked_for_range_and_its_empty_fields_are_skipped) {
    for (const char *text :
         {"999.1.1.1", "1..2.3.4", ".1.2.3.4", "1.2.3.4.", "..1..2..3..4..", "99999999999999999999999.1.1.1"})
        EXPECT_TRUE(Tool::isIpAddress(text)) << text;
    EXPECT_FALSE(Tool::isIpAddress("1..2.3"));
}

TEST(StringToolXml, special_characters_are_escaped_once) {
    EXPECT_EQ(Tool::convertToXmlSpecialCharacters("&<>\"'"), "&amp;&lt;&gt;&quot;&#39;");
    EXPECT_EQ(Tool::convertToXmlSpecialCharacters("<<a>>'&&'"), "&lt;&lt;a&gt;&gt;&#39;&amp;&amp;&#39;");
    EXPECT_EQ(Tool::convertToXmlSpecialCharacters(""), "");
    EXPECT_EQ(Tool::convertToXmlSpecialCharacters("a\0<\xC3\xA9"s), "a\0&lt;\xC3\xA9"s);
}

TEST(StringToolXml, the_ampersand_of_an_entity_is_escaped_again) {
    EXPECT_EQ(Tool::convertToXmlSpecialCharacters("a&lt;"), "a&amp;lt;");
    EXPECT_EQ(Tool::convertToXmlSpecialCharacters("&#39;&amp;"), "&amp;#39;&amp;amp;");
}

TEST(StringToolXml, a_tag_opens_or_closes_with_or_without_a_line_feed) {
    EXPECT_EQ(Tool::xmlBracket("name", true, false), "<name>");
    EXPECT_EQ(Tool::xmlBracket("name", true, true), "<name>\n");
    EXPECT_EQ(Tool::xmlBracket("name", false, false), "</name>");
    EXPECT_EQ(Tool::xmlBracket("name", false, true), "</name>\n");
    EXPECT_EQ(Tool::xmlBracket("", true, false), "<>");
    EXPECT_EQ(Tool::xmlBracket("a&b", false, false), "</a&b>"); // a name is not escaped
}

TEST(StringToolXml, a_value_stands_escaped_between_its_tags) {
    EXPECT_EQ(Tool::xmlBracketValue("name", "a<b"), "\t<name>a&lt;b</name>\n");
    EXPECT_EQ(Tool::xmlBracketValue("n", ""), "\t<n></n>\n");
}

} // namespace
