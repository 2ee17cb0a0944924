// What all dumpers have in common.
#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <thread>

#include "dump/dump_support.h"

namespace {

using namespace dump_support;

const Samples samples;
const std::string blanks(38, ' '); // the deepest indentation

/// The text without the indentation at the start of each line.
std::string unindented(const std::string &text) {
    std::istringstream in(text);
    std::string all;
    for (std::string line; std::getline(in, line);) {
        const std::size_t start = line.find_first_not_of(' ');
        all += (start == std::string::npos ? "" : line.substr(start)) + '\n';
    }
    return all;
}

class EachDumper : public testing::TestWithParam<Dumper> {};

TEST_P(EachDumper, writes_nothing_without_a_log) {
    const FileLog log;
    set_qzfi_msgout(nullptr);
    EXPECT_EQ(GetParam().sample(0, 1, "label"), 0);
    EXPECT_EQ(GetParam().empty(0, 1, "label"), 0);
    if (GetParam().null) {
        EXPECT_EQ(GetParam().null(0, 1, "label"), 0);
    }
    fflush(nullptr);
    EXPECT_EQ(log.text(), "") << "written to the former log";
}

TEST_P(EachDumper, begins_with_an_empty_line_only_when_asked_to) {
    for (const int32_t newline : {0, 1, -1}) {
        const FileLog log;
        EXPECT_EQ(GetParam().empty(0, newline, nullptr), 0);
        EXPECT_EQ(log.text().substr(0, 2) == "\n ", newline != 0) << newline;
    }
}

TEST_P(EachDumper, begins_a_label_line_at_its_indentation_and_goes_one_level_deeper) {
    const FileLog log;
    EXPECT_EQ(GetParam().sample(1, 0, "the label"), 0);
    const std::string text = log.text();
    const std::string first = "   [ the label ]\n";
    ASSERT_EQ(text.substr(0, first.size()), first);
    const FileLog below;
    EXPECT_EQ(GetParam().sample(2, 0, nullptr), 0);
    EXPECT_EQ(below.text(), text.substr(first.size()));
}

TEST_P(EachDumper, shares_the_deepest_indentation_beyond_the_table) {
    std::string deepest;
    {
        const FileLog log;
        EXPECT_EQ(GetParam().sample(19, 1, "label"), 0);
        deepest = log.text();
    }
    for (const uint32_t indent : {20u, 21u, 1000u, 0x7fffffffu, 0x80000000u, std::numeric_limits<uint32_t>::max()}) {
        const FileLog log;
        EXPECT_EQ(GetParam().sample(indent, 1, "label"), 0);
        EXPECT_EQ(log.text(), deepest) << indent;
    }
    const FileLog log;
    EXPECT_EQ(GetParam().sample(0, 1, "label"), 0);
    EXPECT_EQ(unindented(log.text()), unindented(deepest));
}

TEST_P(EachDumper, returns_the_result_of_the_flush) {
    FILE *full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    set_qzfi_msgout(full);
    EXPECT_EQ(GetParam().sample(0, 0, nullptr), EOF);
    set_qzfi_msgout(nullptr);
    fclose(full);
}

INSTANTIATE_TEST_SUITE_P(All, EachDumper, testing::ValuesIn(all_dumpers(samples)),
                         [](const auto &instance) { return std::string(instance.param.name); });

/// The dumpers that can be given null: those that take their record by value cannot.
std::vector<Dumper> dumpers_of_null() {
    std::vector<Dumper> dumpers = all_dumpers(samples);
    std::erase_if(dumpers, [](const Dumper &dumper) { return !dumper.null; });
    return dumpers;
}

class DumperOfNull : public testing::TestWithParam<Dumper> {};

TEST_P(DumperOfNull, writes_a_line_of_its_own_at_the_lines_indentation) {
    const Dumper &dumper = GetParam();
    const FileLog log;
    EXPECT_EQ(dumper.null(3, 0, nullptr), 0);
    const std::string text = log.text();
    const std::size_t heading_end = text.find('\n') + 1;
    EXPECT_EQ(text.substr(heading_end), std::string(8, ' ') + dumper.null_line + std::string(6, ' ') + " }\n");
}

INSTANTIATE_TEST_SUITE_P(All, DumperOfNull, testing::ValuesIn(dumpers_of_null()),
                         [](const auto &instance) { return std::string(instance.param.name); });

TEST(DumpersOfNull, are_all_but_the_three_statuses_of_a_split) {
    EXPECT_EQ(dumpers_of_null().size(), 23u);
}

TEST(Dump, at_the_deepest_level_keeps_all_lines_there) {
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_time(&samples.time, 19, 0, "label"), 0);
    EXPECT_EQ(log.text(), blanks + " [ label ]\n" + blanks + " qfi_time_t { \n" + blanks +
                              " qzfi_sec = 18446744073709551615\n" + blanks + " qzfi_nsec = 4294967295\n" + blanks +
                              " }\n");
}

TEST(Dump, one_level_above_the_deepest_goes_one_level_deeper) {
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_time(nullptr, 18, 0, nullptr), 0);
    const std::string above(36, ' ');
    EXPECT_EQ(log.text(), above + " qfi_time_t { \n" + blanks + " qfi_time = NULL\n" + above + " }\n");
}

TEST(Dump, reaches_the_file_at_once) {
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_time(nullptr, 0, 0, nullptr), 0);
    EXPECT_EQ(log.text(), " qfi_time_t { \n   qfi_time = NULL\n }\n");
}

// The object id's name, a hex dump, is written by another writer of the log: it must not let others in between.
TEST(Dump, of_one_thread_is_not_mixed_with_those_of_others) {
    constexpr int threads = 4;
    constexpr int rounds = 1000; // enough to be mixed in nearly every run if nothing held them apart
    std::string whole;
    {
        const FileLog log;
        EXPECT_EQ(qzfiprt_qfi_group_node_list(&samples.group_node_list, 0, 0, "dump"), 0);
        whole = log.text();
    }
    const FileLog log;
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i)
        running.emplace_back([] {
            for (int round = 0; round < rounds; ++round)
                EXPECT_EQ(qzfiprt_qfi_group_node_list(&samples.group_node_list, 0, 0, "dump"), 0);
        });
    for (std::thread &thread : running)
        thread.join();
    std::string expected;
    for (int i = 0; i < threads * rounds; ++i)
        expected += whole;
    EXPECT_TRUE(log.text() == expected);
}

TEST(Dump, of_a_list_does_not_follow_it) {
    qfi_node_list second{samples.other_node, nullptr};
    qfi_node_list first{samples.node, &second};
    second.next = &first;
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_node_list(&first, 0, 0, nullptr), 0);
    EXPECT_EQ(log.text().find("mirror"), std::string::npos);
    EXPECT_NE(log.text().find("uid = node"), std::string::npos);
}

TEST(Dump, of_a_combination_does_not_name_its_class) {
    for (const int32_t code : {0, 1, 5, 6, -1}) {
        const qfi_qs_combo combo{nullptr, code, nullptr, nullptr};
        const FileLog log;
        EXPECT_EQ(qzfiprt_qfi_qs_combo(&combo, 0, 0, nullptr), 0);
        EXPECT_EQ(log.text(),
                  " qfi_qs_combo { \n   qsc_next = (nil)\n   qsc_qslist = (nil)\n   qsc_libpriv = (nil)\n }\n");
    }
}

TEST(Dump, of_a_resource_hands_its_newline_flag_on_to_both_object_ids) {
    const qfi_resource resource{nullptr, nullptr, 5};
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_resource(&resource, 0, 1, nullptr), 0);
    const std::string id = "\n   qfi_objid_t { \n     qfi_objid = NULL\n   }\n";
    EXPECT_EQ(log.text(), "\n qfi_resource { \n" + id + id + "   disp_type = Unknown Type\n }\n");
}

TEST(Dump, of_a_disposition_hands_its_newline_flag_on_to_the_object_id) {
    const qfi_resource_disp_t resource{nullptr, -1};
    const FileLog log;
    EXPECT_EQ(qzfiprt_qfi_resource_disp(&resource, 0, 1, nullptr), 0);
    EXPECT_EQ(log.text(), "\n qfi_resource_disp_t { \n\n   qfi_objid_t { \n     qfi_objid = NULL\n   }\n"
                          "   disp_type = Unknown Type\n }\n");
}

} // namespace
