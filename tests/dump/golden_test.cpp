// Each dumper against a file of its own: the sample as it is, labelled on a new line and indented, the record of zeros,
// and null.
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>

#include "dump/dump_support.h"

namespace {

using namespace dump_support;

const Samples samples;

std::string golden(const std::string &name) {
    std::ifstream in(QZFI_GOLDEN_DIR "/" + name + ".txt", std::ios::binary);
    EXPECT_TRUE(in.is_open()) << name;
    return {std::istreambuf_iterator<char>(in), {}};
}

class Dumpers : public testing::TestWithParam<Dumper> {};

TEST_P(Dumpers, write_the_bytes_of_their_golden_file) {
    const Dumper &dumper = GetParam();
    const FileLog log;
    EXPECT_EQ(dumper.sample(0, 0, nullptr), 0);
    EXPECT_EQ(dumper.sample(2, 1, "a label"), 0);
    EXPECT_EQ(dumper.empty(0, 0, nullptr), 0);
    if (dumper.null) {
        EXPECT_EQ(dumper.null(1, 0, "none"), 0);
    }
    EXPECT_EQ(log.text(), golden(dumper.name));
}

INSTANTIATE_TEST_SUITE_P(All, Dumpers, testing::ValuesIn(all_dumpers(samples)),
                         [](const auto &instance) { return std::string(instance.param.name); });

TEST(AllDumpers, are_twenty_six) {
    std::set<std::string> names;
    for (const Dumper &dumper : all_dumpers(samples))
        names.insert(dumper.name);
    EXPECT_EQ(names.size(), 26u);
}

} // namespace
