#include <string>

#include <gtest/gtest.h>

#include <qzfi.h>

namespace {

/// The expanded text up to its terminator.
std::string expanded(std::string text) {
    expandfmt(text.data());
    return text.c_str();
}

/// The whole buffer after expansion.
std::string buffer_after(std::string text) {
    expandfmt(text.data());
    return text;
}

using namespace std::string_literals;

TEST(Escape, letters_give_control_characters) {
    EXPECT_EQ(expanded(R"(\a)"), "\x07");
    EXPECT_EQ(expanded(R"(\b)"), "\x08");
    EXPECT_EQ(expanded(R"(\f)"), "\x0c");
    EXPECT_EQ(expanded(R"(\n)"), "\x0a");
    EXPECT_EQ(expanded(R"(\r)"), "\x0d");
    EXPECT_EQ(expanded(R"(\t)"), "\x09");
    EXPECT_EQ(expanded(R"(\v)"), "\x0b");
}

TEST(Escape, two_backslashes_give_one) {
    EXPECT_EQ(expanded(R"(\\)"), "\\");
    EXPECT_EQ(expanded(R"(a\\nb)"), R"(a\nb)");
    EXPECT_EQ(expanded(R"(\\\\)"), R"(\\)");
}

TEST(Escape, any_other_character_is_dropped_with_its_backslash) {
    EXPECT_EQ(expanded(R"(a\tb\qc)"), "a\tbc");
    EXPECT_EQ(expanded(R"(\"x\')"), "x");
    EXPECT_EQ(expanded(R"(\A\N)"), "");
    EXPECT_EQ(expanded("x\\\ny"), "xy");
}

TEST(Escape, digits_are_decimal) {
    EXPECT_EQ(expanded(R"(\101)"), "e");
    EXPECT_EQ(expanded(R"(\65)"), "A");
    EXPECT_EQ(expanded(R"(\9)"), "\t");
    EXPECT_EQ(expanded(R"(x\065y)"), "xAy");
    EXPECT_EQ(expanded(R"(\89)"), "Y");
    EXPECT_EQ(expanded(R"(\255)"), "\xff");
}

TEST(Escape, at_most_three_digits_belong_to_the_code) {
    EXPECT_EQ(expanded(R"(\0651)"), "A1");
    EXPECT_EQ(expanded(R"(\1011)"), "e1");
    EXPECT_EQ(expanded(R"(\65\66)"), "AB");
    EXPECT_EQ(expanded(R"(\65 66)"), "A 66");
}

TEST(Escape, a_code_above_255_keeps_its_low_8_bits) {
    EXPECT_EQ(expanded(R"(\321)"), "A");
    EXPECT_EQ(expanded(R"(\999)"), "\xe7");
}

TEST(Escape, a_code_of_0_is_written_in_place_and_the_rest_follows) {
    EXPECT_EQ(buffer_after(R"(a\0b)"), "a\0b\0"s);
    EXPECT_EQ(buffer_after(R"(a\000b)"), "a\0b\0"s + "0b");
    EXPECT_EQ(buffer_after(R"(\256x)"), "\0x\0"s + "6x");
}

TEST(Escape, a_backslash_at_the_end_ends_the_text) {
    EXPECT_EQ(expanded("\\"), "");
    EXPECT_EQ(expanded("abc\\"), "abc");
    EXPECT_EQ(expanded(R"(a\\\)"), R"(a\)");
    EXPECT_EQ(buffer_after("ab\\\0cd"s), "ab\0\0cd"s); // nothing beyond the terminator is touched
}

TEST(Escape, text_without_escapes_stays_as_it_is) {
    EXPECT_EQ(expanded(""), "");
    EXPECT_EQ(expanded("%s: 100% plain / text"), "%s: 100% plain / text");
}

} // namespace
