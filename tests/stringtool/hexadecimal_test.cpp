#include "common/qzfistringtool.h"

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Tool = CCmnStringTool;
using namespace std::string_literals;
using Bytes = std::vector<unsigned char>;

const unsigned char some[] = {0x00, 0x09, 0x1A, 0x7F, 0x80, 0xFF};

/// The bytes of a text; the buffer has no byte more than is promised to be enough.
Bytes decoded(const std::string &text) {
    Bytes bytes((text.size() + 1) / 2);
    int count = -1;
    Tool::str2binary(bytes.data(), &count, text);
    EXPECT_EQ(count, static_cast<int>(bytes.size()));
    return bytes;
}

Bytes decoded(const std::wstring &text) {
    Bytes bytes((text.size() + 1) / 2);
    int count = -1;
    Tool::wstr2binary(bytes.data(), &count, text);
    EXPECT_EQ(count, static_cast<int>(bytes.size()));
    return bytes;
}

TEST(StringToolHexadecimal, bytes_are_written_with_two_lower_case_digits) {
    EXPECT_EQ(Tool::binary2str(some, 6), "00091a7f80ff");
    EXPECT_EQ(Tool::binary2str(some, 1), "00");
    EXPECT_EQ(Tool::binary2wstr(some, 6), L"00091a7f80ff");
}

TEST(StringToolHexadecimal, no_bytes_are_no_text) {
    for (const int count : {0, -1, INT_MIN}) {
        EXPECT_EQ(Tool::binary2str(nullptr, count), "");
        EXPECT_EQ(Tool::binary2wstr(nullptr, count), L"");
    }
}

TEST(StringToolHexadecimal, text_is_read_two_digits_at_a_time) {
    EXPECT_EQ(decoded("00091a7f80ff"), Bytes(std::begin(some), std::end(some)));
    EXPECT_EQ(decoded("fFFf"), (Bytes{0xFF, 0xFF}));
    EXPECT_EQ(decoded(""), Bytes{});
    EXPECT_EQ(decoded(L"00091a7F80ff"), Bytes(std::begin(some), std::end(some)));
    EXPECT_EQ(decoded(L""), Bytes{});
}

TEST(StringToolHexadecimal, an_odd_last_digit_is_a_byte_of_its_own) {
    EXPECT_EQ(decoded("abc"), (Bytes{0xAB, 0x0C}));
    EXPECT_EQ(decoded("7"), (Bytes{7}));
    EXPECT_EQ(decoded(L"abc"), (Bytes{0xAB, 0x0C}));
}

TEST(StringToolHexadecimal, pairs_are_read_as_the_c_library_reads_numbers) {
    EXPECT_EQ(decoded("zz1zz1 1+2-10x"), (Bytes{0, 1, 0, 1, 2, 0xFF, 0}));
    EXPECT_EQ(decoded("1\0\0001\xFF\x80"s), (Bytes{1, 0, 0}));
    EXPECT_EQ(decoded(L"zz1zz1 1+2-10x"), (Bytes{0, 1, 0, 1, 2, 0xFF, 0}));
    EXPECT_EQ(decoded(L"\u0661\u0662\u00E9"
                      L"a"),
              (Bytes{0, 0})); // digits of other scripts are none
}

TEST(StringToolHexadecimal, every_byte_comes_back) {
    Bytes all(256);
    for (std::size_t byte = 0; byte < all.size(); ++byte)
        all[byte] = static_cast<unsigned char>(byte);
    EXPECT_EQ(decoded(Tool::binary2str(all.data(), 256)), all);
    EXPECT_EQ(decoded(Tool::binary2wstr(all.data(), 256)), all);
}

TEST(StringToolId, bytes_are_written_as_signed_characters) {
    EXPECT_EQ(Tool::str2uid(1, "\x7F\x80"), "00017fffffff80");
    EXPECT_EQ(Tool::str2uid(1, "\xFF"), "0001ffffffff");
    EXPECT_EQ(Tool::str2uid(1, "\0a\n"s), "000100610a");
}

TEST(StringToolId, the_kind_has_four_digits_or_more) {
    EXPECT_EQ(Tool::str2uid(0, ""), "0000");
    EXPECT_EQ(Tool::str2uid(0xABCD, ""), "abcd");
    EXPECT_EQ(Tool::str2uid(0x12345, ""), "12345");
    EXPECT_EQ(Tool::str2uid(UINT_MAX, ""), "ffffffff");
    EXPECT_EQ(Tool::wstr2uid(UINT_MAX, L""), L"ffffffff");
    EXPECT_EQ(Tool::binary2uid(0x12345, some, 0), L"12345");
}

TEST(StringToolId, wide_characters_that_stand_for_bytes_are_written_alike_and_others_in_full) {
    EXPECT_EQ(Tool::wstr2uid(1, {L'\x7F', L'\x80', L'\xFF'}), L"00017fffffff80ffffffff");
    EXPECT_EQ(Tool::wstr2uid(1, {L'\0', L'a', L'\x100', L'\x4E2D'}), L"000100611004e2d");
    EXPECT_EQ(Tool::wstr2uid(1, {static_cast<wchar_t>(-1)}), L"0001ffffffff");
}

TEST(StringToolId, binary_data_is_written_with_two_digits_a_byte) {
    EXPECT_EQ(Tool::binary2uid(1, some, 6), L"000100091a7f80ff");
    EXPECT_EQ(Tool::binary2uid(1, nullptr, -1), L"0001");
}

} // namespace
