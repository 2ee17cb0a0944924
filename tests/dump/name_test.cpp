// Names: of object ids, of dispositions, of classes.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <memory>

#include "dump/dump_support.h"

namespace {

using namespace dump_support;

constexpr int32_t least = std::numeric_limits<int32_t>::min();
constexpr int32_t most = std::numeric_limits<int32_t>::max();

/// The lines of a dumped object id, between heading and end.
std::string lines_of(const qfi_objid_t &id) {
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_objid(&id, 0, 0, nullptr), 0);
    const std::string text = log.text();
    const std::string heading = " qfi_objid_t { \n";
    const std::string end = " }\n";
    EXPECT_EQ(text.substr(0, heading.size()), heading);
    EXPECT_EQ(text.substr(text.size() - end.size()), end);
    return text.substr(heading.size(), text.size() - heading.size() - end.size());
}

/// The lines of an id of these bytes, which lie in memory of just their size, without the type line.
std::string lines_of(const std::string &bytes) {
    const std::unique_ptr<char[]> copy(new char[bytes.size()]);
    std::memcpy(copy.get(), bytes.data(), bytes.size());
    const std::string lines = lines_of(qfi_objid_t{copy.get(), static_cast<int32_t>(bytes.size()), 0});
    const std::string type = "   vid_type = 0\n";
    EXPECT_EQ(lines.substr(lines.size() - type.size()), type);
    return lines.substr(0, lines.size() - type.size());
}

TEST(ObjectName, is_written_as_text_when_it_is_printable) {
    EXPECT_EQ(lines_of("/dev/sda 1~"), "   vid_length = 11\n   vid_name = /dev/sda 1~\n");
}

TEST(ObjectName, of_one_byte_is_text_whatever_the_byte) {
    EXPECT_EQ(lines_of("a"), "   vid_length = 1\n   vid_name = a\n");
    EXPECT_EQ(lines_of("\x01"), "   vid_length = 1\n   vid_name = \x01\n");
}

TEST(ObjectName, is_text_although_its_last_byte_is_not_printable) {
    EXPECT_EQ(lines_of("ab\x7f"), "   vid_length = 3\n   vid_name = ab\x7f\n");
}

TEST(ObjectName, ends_at_a_terminator_that_its_length_counts) {
    EXPECT_EQ(lines_of(std::string("ab", 3)), "   vid_length = 3\n   vid_name = ab\n");
}

TEST(ObjectName, is_not_read_past_its_length) {
    const qfi_objid_t id{"abcdef", 3, 0};
    EXPECT_EQ(lines_of(id), "   vid_length = 3\n   vid_name = abc\n   vid_type = 0\n");
}

TEST(ObjectName, with_bytes_that_are_not_printable_is_a_hex_dump) {
    EXPECT_EQ(lines_of("a\x01z"), "   vid_length = 3\n   vid_name:\n"
                                  "00000000 : 61 01 7A                                        : a.z\n");
}

TEST(ObjectName, of_more_than_sixteen_bytes_is_a_hex_dump_of_several_lines) {
    EXPECT_EQ(lines_of("\xff"
                       "0123456789abcdefg"),
              "   vid_length = 18\n   vid_name:\n"
              "00000000 : FF 30 31 32 33 34 35 36-37 38 39 61 62 63 64 65 : .0123456789abcde\n"
              "00000010 : 66 67                                           : fg\n");
}

TEST(ObjectName, is_a_hex_dump_when_a_null_byte_is_the_last_but_one) {
    EXPECT_EQ(lines_of(std::string("a\0z", 3)), "   vid_length = 3\n   vid_name:\n"
                                                "00000000 : 61 00 7A                                        : a.z\n");
}

TEST(ObjectName, that_a_null_byte_ends_earlier_is_complained_about_without_indentation) {
    EXPECT_EQ(lines_of(std::string("a\0yz", 4)),
              "   vid_length = 4\nobjid->vid_name[a] is of length objid->vid_len = 4!!\n");
    EXPECT_EQ(lines_of(std::string("\0yz", 3)),
              "   vid_length = 3\nobjid->vid_name[] is of length objid->vid_len = 3!!\n");
}

TEST(ObjectName, of_two_null_bytes_is_a_hex_dump) {
    EXPECT_EQ(lines_of(std::string(2, '\0')), "   vid_length = 2\n   vid_name:\n"
                                              "00000000 : 00 00                                           : ..\n");
}

TEST(ObjectName, complaint_ignores_the_indentation) {
    const qfi_objid_t id{"a\0yz", 4, QFI_OID_ALLOC};
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_objid(&id, 2, 0, nullptr), 0);
    EXPECT_EQ(log.text(), "     qfi_objid_t { \n       vid_length = 4\n"
                          "objid->vid_name[a] is of length objid->vid_len = 4!!\n"
                          "       vid_type = QFI_OID_ALLOC\n     }\n");
}

TEST(ObjectName, of_length_zero_is_a_pointer) {
    const qfi_objid_t id{address<void>(0x1000), 0, 0};
    EXPECT_EQ(lines_of(id), "   vid_length = 0\n   vid_name = 0x0x1000\n   vid_type = 0\n");
}

TEST(ObjectName, null_of_length_zero_is_a_null_pointer) {
    EXPECT_EQ(lines_of(qfi_objid_t{}), "   vid_length = 0\n   vid_name = 0x(nil)\n   vid_type = 0\n");
}

TEST(ObjectName, of_a_negative_length_is_a_pointer_not_followed) {
    EXPECT_EQ(lines_of(qfi_objid_t{address<void>(0x1000), -1, 0}),
              "   vid_length = -1\n   vid_name = 0x0x1000\n   vid_type = 0\n");
    EXPECT_EQ(lines_of(qfi_objid_t{nullptr, least, 0}),
              "   vid_length = -2147483648\n   vid_name = 0x(nil)\n   vid_type = 0\n");
}

TEST(ObjectName, null_of_some_length_reads_NULL) {
    for (const int32_t length : {1, 2, 3, most})
        EXPECT_EQ(lines_of(qfi_objid_t{nullptr, length, 0}),
                  "   vid_length = " + std::to_string(length) + "\n   vid_name = NULL\n   vid_type = 0\n");
}

TEST(ObjectType, is_named_when_it_is_one_bit_and_a_number_otherwise) {
    const std::string before = "   vid_length = 0\n   vid_name = 0x(nil)\n";
    const auto type_line = [&](uint32_t type) { return lines_of(qfi_objid_t{nullptr, 0, type}).substr(before.size()); };
    EXPECT_EQ(type_line(0), "   vid_type = 0\n");
    EXPECT_EQ(type_line(1), "   vid_type = QFI_OID_INTERN\n");
    EXPECT_EQ(type_line(2), "   vid_type = QFI_OID_ALLOC\n");
    EXPECT_EQ(type_line(3), "   vid_type = 3\n");
    EXPECT_EQ(type_line(0x80000000), "   vid_type = -2147483648\n");
    EXPECT_EQ(type_line(0xffffffff), "   vid_type = -1\n");
}

TEST(DispositionName, is_that_of_the_code) {
    EXPECT_STREQ(qzfiget_qfi_disposition(0), "QFI_DISP_NONE");
    EXPECT_STREQ(qzfiget_qfi_disposition(1), "QFI_DISP_REMOVE");
    EXPECT_STREQ(qzfiget_qfi_disposition(2), "QFI_DISP_REATTACH");
    EXPECT_STREQ(qzfiget_qfi_disposition(3), "QFI_DISP_PROMOTE");
    EXPECT_STREQ(qzfiget_qfi_disposition(4), "QFI_DISP_CONVERT");
    EXPECT_STREQ(qzfiget_qfi_disposition(6), "QFI_DISP_MAX");
}

TEST(DispositionName, of_any_other_code_is_unknown) {
    for (const int32_t code : {5, 7, -1, least, most})
        EXPECT_STREQ(qzfiget_qfi_disposition(code), "Unknown Type") << code;
}

TEST(ClassName, is_that_of_the_code) {
    EXPECT_STREQ(qzfiprt_qfi_class(0), "QFI_CLASS_NONE");
    EXPECT_STREQ(qzfiprt_qfi_class(1), "QFI_SERIAL_DEV");
    EXPECT_STREQ(qzfiprt_qfi_class(2), "QFI_SERIAL_FS");
    EXPECT_STREQ(qzfiprt_qfi_class(3), "QFI_ATOMIC_DEV");
    EXPECT_STREQ(qzfiprt_qfi_class(4), "QFI_ATOMIC_FS");
    EXPECT_STREQ(qzfiprt_qfi_class(5), "QFI_CLASS_NOTSUP");
}

TEST(ClassName, of_any_other_code_is_unknown) {
    for (const int32_t code : {6, 7, -1, least, most})
        EXPECT_STREQ(qzfiprt_qfi_class(code), "Unknown Type") << code;
}

TEST(Names, stay_valid_after_the_next_call) {
    const char *disposition = qzfiget_qfi_disposition(0);
    const char *code = qzfiprt_qfi_class(0);
    (void)qzfiget_qfi_disposition(1);
    (void)qzfiprt_qfi_class(1);
    EXPECT_STREQ(disposition, "QFI_DISP_NONE");
    EXPECT_STREQ(code, "QFI_CLASS_NONE");
}

} // namespace
