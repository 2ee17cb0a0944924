#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <qzfi/paths.h>
#include <qzfi/settings.h>

#include "support/fault.h"

namespace {

constexpr const char *unprintable = "(object name undefined or unprintable)";
constexpr uint32_t not_listed = 0xFFFFFFFF;

qfi_objid_t id_of(const char *bytes, int32_t length) {
    return {bytes, length, 0};
}

} // namespace

TEST(PrintableName, no_id_or_no_bytes_gives_the_fixed_text) {
    EXPECT_STREQ(qzfi_pn(nullptr), unprintable);
    const qfi_objid_t empty = id_of("abc", 0);
    EXPECT_STREQ(qzfi_pn(&empty), unprintable);
    for (const int32_t length : {-1, INT32_MIN}) {
        const qfi_objid_t negative = id_of("abc", length);
        EXPECT_STREQ(qzfi_pn(&negative), unprintable);
    }
    const qfi_objid_t nameless = id_of(nullptr, 4);
    EXPECT_STREQ(qzfi_pn(&nameless), unprintable);
}

TEST(PrintableName, a_nul_before_the_last_byte_gives_the_fixed_text) {
    for (const char *bytes : {"ab\0c", "\0bcd", "abc\0d", "\0\0\0\0"}) {
        const qfi_objid_t id = id_of(bytes, bytes[3] == '\0' && bytes[0] != '\0' ? 5 : 4);
        EXPECT_STREQ(qzfi_pn(&id), unprintable);
    }
    const qfi_objid_t two = id_of("\0b", 2);
    EXPECT_STREQ(qzfi_pn(&two), unprintable);
}

TEST(PrintableName, otherwise_the_bytes_themselves_are_the_text) {
    const char terminated[] = {'a', 'b', 'c', '\0'};
    const qfi_objid_t id = id_of(terminated, 4);
    EXPECT_EQ(qzfi_pn(&id), terminated);
    const qfi_objid_t without_nul = id_of(terminated, 3);
    EXPECT_EQ(qzfi_pn(&without_nul), terminated);
    const qfi_objid_t only_nul = id_of(terminated + 3, 1);
    EXPECT_EQ(qzfi_pn(&only_nul), terminated + 3);
    const char single[] = {'a'};
    const qfi_objid_t one = id_of(single, 1);
    EXPECT_EQ(qzfi_pn(&one), single);
    const char binary[] = {'\x01', '\xff', '\n', '\0'};
    const qfi_objid_t unreadable = id_of(binary, 4);
    EXPECT_EQ(qzfi_pn(&unreadable), binary);
}

TEST(PrintableName, an_object_has_its_own_name_or_that_of_its_id) {
    qfi_objid_t id = id_of("id", 3);
    const char *const name = "name";
    const qfi_object named = {name, &id};
    EXPECT_EQ(qzfi_opn(&named), name);
    const char *const blank = "";
    const qfi_object blank_named = {blank, &id};
    EXPECT_EQ(qzfi_opn(&blank_named), blank);
    const qfi_object unnamed = {nullptr, &id};
    EXPECT_EQ(qzfi_opn(&unnamed), id.vid_name);
    const qfi_object bare = {nullptr, nullptr};
    EXPECT_STREQ(qzfi_opn(&bare), unprintable);
    EXPECT_STREQ(qzfi_opn(nullptr), unprintable);
}

TEST(ColonList, an_element_is_found_when_it_is_equal) {
    for (const char *name : {"a", "bb", "c"})
        EXPECT_EQ(qzfi_nssup("a:bb:c", name), 0U) << name;
    for (const char *name : {"b", "bbb", "A", "cc", "d", "abb", " a"})
        EXPECT_EQ(qzfi_nssup("a:bb:c", name), not_listed) << name;
    EXPECT_EQ(qzfi_nssup("a", "a"), 0U);
    EXPECT_EQ(qzfi_nssup("a", "ab"), not_listed);
    EXPECT_EQ(qzfi_nssup("ab", "a"), not_listed);
    EXPECT_EQ(qzfi_nssup("ab:a", "a"), 0U);
    EXPECT_EQ(qzfi_nssup("ab:cab", "ab"), 0U);
    EXPECT_EQ(qzfi_nssup("cab:cab", "ab"), not_listed);
}

TEST(ColonList, empty_elements_are_skipped) {
    EXPECT_EQ(qzfi_nssup("::a", "a"), 0U);
    EXPECT_EQ(qzfi_nssup("a::", "a"), 0U);
    EXPECT_EQ(qzfi_nssup("b:::a:::", "a"), 0U);
    EXPECT_EQ(qzfi_nssup(":", "a"), not_listed);
    EXPECT_EQ(qzfi_nssup("::b::", "a"), not_listed);
}

TEST(ColonList, the_empty_name_is_no_element) {
    for (const char *list : {"a", ":", "::", "a::b", ":a", "a:"})
        EXPECT_EQ(qzfi_nssup(list, ""), not_listed) << list;
}

TEST(ColonList, a_name_with_colons_equals_a_run_of_elements) {
    EXPECT_EQ(qzfi_nssup("a:b:c", "a:b"), 0U);
    EXPECT_EQ(qzfi_nssup("a:b:c", "b:c"), 0U);
    EXPECT_EQ(qzfi_nssup("a::b", "a:"), 0U);
    EXPECT_EQ(qzfi_nssup("a:b:c", "a:c"), not_listed);
    EXPECT_EQ(qzfi_nssup("a:bc", "a:b"), not_listed);
    // Elements begin after the colons.
    EXPECT_EQ(qzfi_nssup("a::b", ":b"), not_listed);
}

TEST(ColonList, a_null_or_empty_argument_finds_nothing) {
    EXPECT_EQ(qzfi_nssup(nullptr, "a"), not_listed);
    EXPECT_EQ(qzfi_nssup("a", nullptr), not_listed);
    EXPECT_EQ(qzfi_nssup(nullptr, nullptr), not_listed);
    EXPECT_EQ(qzfi_nssup("", "a"), not_listed);
    EXPECT_EQ(qzfi_nssup("", ""), not_listed);
}

TEST(SchemaPath, lies_below_the_default_root_whatever_root_is_set) {
    for (const bool root_is_set : {false, true}) {
        if (root_is_set) {
            ASSERT_EQ(qzfi_set_install_root("/elsewhere"), 0);
        }
        char *path = nullptr;
        EXPECT_EQ(qzfi_get_fiidschemapath(&path), 0U);
        EXPECT_STREQ(path, "/usr/lumen/lib/qzfi/data/qfiid_schema.xsd");
        std::free(path);
    }
}

TEST(SchemaPath, is_a_new_text_for_each_call) {
    char *first = nullptr;
    char *second = nullptr;
    ASSERT_EQ(qzfi_get_fiidschemapath(&first), 0U);
    ASSERT_EQ(qzfi_get_fiidschemapath(&second), 0U);
    EXPECT_NE(first, second);
    first[1] = 'X';
    EXPECT_STREQ(second, "/usr/lumen/lib/qzfi/data/qfiid_schema.xsd");
    std::free(first);
    std::free(second);
}

TEST(SchemaPath, without_memory_gives_5_and_null) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        char sentinel = 'x';
        char *path = &sentinel;
        trial.arm();
        const uint32_t status = qzfi_get_fiidschemapath(&path);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5U : 0U);
        EXPECT_EQ(path == nullptr, trial.fired());
        EXPECT_NE(path, &sentinel);
        std::free(path);
    });
}

TEST(SchemaPath, without_a_place_to_store_it_gives_3) {
    EXPECT_EQ(qzfi_get_fiidschemapath(nullptr), 3U);
}

TEST(TextConversion, hands_the_same_text_through) {
    for (const auto convert : {qzfi_cvt_utf8tovfc, qzfi_cvt_vfctoutf8}) {
        char text[] = "\xc3\xa4\xff";
        char *out = nullptr;
        EXPECT_EQ(convert(text, &out), 0U);
        EXPECT_EQ(out, text);
        EXPECT_STREQ(text, "\xc3\xa4\xff");
    }
}

TEST(TextConversion, a_null_argument_gives_3_and_stores_nothing) {
    for (const auto convert : {qzfi_cvt_utf8tovfc, qzfi_cvt_vfctoutf8}) {
        char text[] = "a";
        char *out = text;
        EXPECT_EQ(convert(nullptr, &out), 3U);
        EXPECT_EQ(out, text);
        EXPECT_EQ(convert(text, nullptr), 3U);
        EXPECT_EQ(convert(nullptr, nullptr), 3U);
    }
}

TEST(TimeStamp, framework_time_counts_from_1900) {
    const struct {
        int64_t unix_seconds;
        uint64_t seconds;
    } rows[] = {{0, 2208988800},
                {1, 2208988801},
                {-1, 2208988799},
                {-2208988800, 0},
                {1700000000, 3908988800},
                {INT64_MAX, 9223372039063764607U},
                // Before 1900 the time wraps around.
                {-2208988801, UINT64_MAX},
                {INT64_MIN, 9223372039063764608U}};
    for (const auto &row : rows) {
        uint64_t seconds = 77;
        qzfi_xlat2_qfitime(&seconds, row.unix_seconds);
        EXPECT_EQ(seconds, row.seconds) << row.unix_seconds;
        for (const uint32_t nanoseconds : {0U, 999999999U, UINT32_MAX}) {
            int64_t unix_seconds = 77;
            qzfi_xlat2_unixtime(row.seconds, nanoseconds, &unix_seconds);
            EXPECT_EQ(unix_seconds, row.unix_seconds) << row.seconds;
        }
    }
}

TEST(TimeStamp, without_a_place_to_store_it_nothing_happens) {
    qzfi_xlat2_qfitime(nullptr, 1);
    qzfi_xlat2_unixtime(1, 0, nullptr);
    uint64_t seconds = 0;
    qzfi_xlat2_qfitime(&seconds, 1);
    EXPECT_EQ(seconds, 2208988801U);
}
