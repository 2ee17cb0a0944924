#include "common/qzfistringtool.h"

#include <climits>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace {

using Tool = CCmnStringTool;

TEST(StringToolNumbers, booleans_are_true_and_false) {
    EXPECT_EQ(Tool::bool2str(true), "true");
    EXPECT_EQ(Tool::bool2str(false), "false");
}

TEST(StringToolNumbers, integers_are_written_in_base_10) {
    EXPECT_EQ(Tool::int2str(0), "0");
    EXPECT_EQ(Tool::int2str(INT_MAX), "2147483647");
    EXPECT_EQ(Tool::int2str(INT_MIN), "-2147483648");
    EXPECT_EQ(Tool::int2str(LONG_MAX), "9223372036854775807");
    EXPECT_EQ(Tool::int2str(LONG_MIN), "-9223372036854775808");
    EXPECT_EQ(Tool::uint2str(0U), "0");
    EXPECT_EQ(Tool::uint2str(UINT_MAX), "4294967295");
    EXPECT_EQ(Tool::uint2str(ULONG_MAX), "18446744073709551615");
}

TEST(StringToolNumbers, wide_integers_are_the_same_numbers) {
    EXPECT_EQ(Tool::int2wstr(0), L"0");
    EXPECT_EQ(Tool::int2wstr(INT_MAX), L"2147483647");
    EXPECT_EQ(Tool::int2wstr(INT_MIN), L"-2147483648");
    EXPECT_EQ(Tool::int2wstr(LONG_MAX), L"9223372036854775807");
    EXPECT_EQ(Tool::int2wstr(LONG_MIN), L"-9223372036854775808");
    EXPECT_EQ(Tool::uint2wstr(UINT_MAX), L"4294967295");
    EXPECT_EQ(Tool::uint2wstr(ULONG_MAX), L"18446744073709551615");
}

TEST(StringToolNumbers, doubles_keep_six_significant_digits) {
    EXPECT_EQ(Tool::double2str(0), "0");
    EXPECT_EQ(Tool::double2str(-0.0), "-0");
    EXPECT_EQ(Tool::double2str(1.5), "1.5");
    EXPECT_EQ(Tool::double2str(1234567), "1.23457e+06");
    EXPECT_EQ(Tool::double2str(-0.0000123456789), "-1.23457e-05");
    EXPECT_EQ(Tool::double2str(-std::numeric_limits<double>::max()), "-1.79769e+308");
    EXPECT_EQ(Tool::double2str(std::numeric_limits<double>::denorm_min()), "4.94066e-324");
    EXPECT_EQ(Tool::double2str(-HUGE_VAL), "-inf");
    EXPECT_EQ(Tool::double2str(std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(StringToolNumbers, integers_are_read_up_to_the_first_other_character) {
    EXPECT_EQ(Tool::str2int("42"), 42);
    EXPECT_EQ(Tool::str2int(" \t\n+42"), 42);
    EXPECT_EQ(Tool::str2int("-42x7"), -42);
    EXPECT_EQ(Tool::str2int("007"), 7);
    EXPECT_EQ(Tool::str2int("0x10"), 0);
    EXPECT_EQ(Tool::str2int(""), 0);
    EXPECT_EQ(Tool::str2int("x"), 0);
    EXPECT_EQ(Tool::str2int("- 1"), 0);
    EXPECT_EQ(Tool::str2int(std::string("1\0002", 3)), 1);
}

TEST(StringToolNumbers, integers_keep_the_low_bits_of_the_long_that_is_read) {
    EXPECT_EQ(Tool::str2int("2147483647"), INT_MAX);
    EXPECT_EQ(Tool::str2int("-2147483648"), INT_MIN);
    EXPECT_EQ(Tool::str2int("2147483648"), INT_MIN);
    EXPECT_EQ(Tool::str2int("4294967297"), 1);
    EXPECT_EQ(Tool::str2int("99999999999999999999"), -1); // the largest long
    EXPECT_EQ(Tool::str2int("-99999999999999999999"), 0); // the smallest
}

TEST(StringToolNumbers, the_form_with_a_reference_writes_the_result_there) {
    int value = 7;
    Tool::str2int("-42", value);
    EXPECT_EQ(value, -42);
    Tool::str2int("", value);
    EXPECT_EQ(value, 0);
}

TEST(StringToolNumbers, unsigned_integers_are_signed_ones_taken_as_unsigned) {
    EXPECT_EQ(Tool::str2uint("42"), 42U);
    EXPECT_EQ(Tool::str2uint("4294967295"), UINT_MAX);
    EXPECT_EQ(Tool::str2uint("-1"), UINT_MAX);
    EXPECT_EQ(Tool::str2uint("4294967296"), 0U);
    EXPECT_EQ(Tool::str2uint("9223372036854775808"), UINT_MAX); // the largest long
    EXPECT_EQ(Tool::str2uint("18446744073709551615"), UINT_MAX);
    EXPECT_EQ(Tool::str2uint("x"), 0U);
}

TEST(StringToolNumbers, long_unsigned_integers_have_64_bits) {
    const auto read = [](const char *text) {
        unsigned long value = 7;
        Tool::str2uint64(text, value);
        return value;
    };
    EXPECT_EQ(read("18446744073709551615"), ULONG_MAX);
    EXPECT_EQ(read("18446744073709551616"), ULONG_MAX);
    EXPECT_EQ(read("9223372036854775808x"), 1UL << 63);
    EXPECT_EQ(read("-1"), ULONG_MAX);
    EXPECT_EQ(read(""), 0U);
}

TEST(StringToolNumbers, doubles_are_read_as_the_c_library_does) {
    EXPECT_EQ(Tool::str2double("1.5e3x"), 1500.0);
    EXPECT_EQ(Tool::str2double(" -.25"), -0.25);
    EXPECT_EQ(Tool::str2double("0x10"), 16.0);
    EXPECT_EQ(Tool::str2double("1e999"), HUGE_VAL);
    EXPECT_EQ(Tool::str2double("-inf"), -HUGE_VAL);
    EXPECT_EQ(Tool::str2double(""), 0.0);
    EXPECT_EQ(Tool::str2double("."), 0.0);
    EXPECT_TRUE(std::isnan(Tool::str2double("nan")));
}

} // namespace
