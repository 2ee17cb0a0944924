#include "paths/device_support.h"

#include "util/qzfiutilmachdep_path.h"

using device::block_of;
using device::Inside;
using device::raw_of;

namespace {

class DevicePair : public device::Devices {};
class DevicePrefix : public device::Devices {};

} // namespace

TEST_F(DevicePair, a_block_and_a_character_device_of_one_minor_number_are_a_pair) {
    block("/b", 8, 3);
    character("/c", 8, 3);
    const Inside inside(root);
    EXPECT_EQ(vspecs("/b", "/c"), 1);
}

TEST_F(DevicePair, major_numbers_are_not_compared) {
    block("/b", 8, 3);
    character("/c", 321, 3);
    const Inside inside(root);
    EXPECT_EQ(vspecs("/b", "/c"), 1);
}

TEST_F(DevicePair, minor_numbers_are_compared_whole) {
    block("/b", 8, 0x12345);
    character("/same", 9, 0x12345);
    character("/low_byte", 8, 0x45);
    character("/high_bits", 8, 0x12346);
    character("/other_high_bits", 8, 0x22345);
    block("/largest", 8, 0xfffff);
    character("/largest_raw", 8, 0xfffff);
    character("/zero", 8, 0);
    const Inside inside(root);
    EXPECT_EQ(vspecs("/b", "/same"), 1);
    EXPECT_EQ(vspecs("/b", "/low_byte"), 0);
    EXPECT_EQ(vspecs("/b", "/high_bits"), 0);
    EXPECT_EQ(vspecs("/b", "/other_high_bits"), 0);
    EXPECT_EQ(vspecs("/largest", "/largest_raw"), 1);
    EXPECT_EQ(vspecs("/largest", "/zero"), 0);
}

TEST_F(DevicePair, the_first_must_be_a_block_and_the_second_a_character_device) {
    block("/b", 8, 0);
    character("/c", 8, 0);
    file("/file");
    directory("/directory");
    const Inside inside(root);
    ASSERT_EQ(vspecs("/b", "/c"), 1);
    EXPECT_EQ(vspecs("/c", "/b"), 0);
    EXPECT_EQ(vspecs("/b", "/b"), 0);
    EXPECT_EQ(vspecs("/c", "/c"), 0);
    for (const char *other : {"/file", "/directory"}) {
        EXPECT_EQ(vspecs(other, "/c"), 0) << other;
        EXPECT_EQ(vspecs("/b", other), 0) << other;
    }
}

TEST_F(DevicePair, links_are_followed) {
    block("/b", 8, 3);
    character("/c", 8, 3);
    link("/to_b", "b");
    link("/to_c", "/to_c_first");
    link("/to_c_first", "c");
    link("/dangling", "nothing");
    const Inside inside(root);
    EXPECT_EQ(vspecs("/to_b", "/to_c"), 1);
    EXPECT_EQ(vspecs("/to_c", "/to_b"), 0);
    EXPECT_EQ(vspecs("/dangling", "/to_c"), 0);
    EXPECT_EQ(vspecs("/to_b", "/dangling"), 0);
}

TEST_F(DevicePair, a_name_that_is_not_there_is_no_pair) {
    block("/b", 8, 3);
    character("/c", 8, 3);
    const Inside inside(root);
    EXPECT_EQ(vspecs("/absent", "/c"), 0);
    EXPECT_EQ(vspecs("/b", "/absent"), 0);
    EXPECT_EQ(vspecs("", "/c"), 0);
    EXPECT_EQ(vspecs("/b", ""), 0);
    EXPECT_EQ(vspecs(nullptr, "/c"), 0);
    EXPECT_EQ(vspecs("/b", nullptr), 0);
    EXPECT_EQ(vspecs(nullptr, nullptr), 0);
}

TEST(DevicePrefixes, stand_as_published) {
    const char *const blocks[] = {"/dev/root", "/dev/dsk", "/dev/qz/dsk", "/dev/vol"};
    const char *const raws[] = {"/dev/rroot", "/dev/rdsk", "/dev/qz/rdsk", "/dev/rvol"};
    for (std::size_t i = 0; i < std::size(blocks); ++i) {
        EXPECT_STREQ(devpfx[i], blocks[i]);
        EXPECT_STREQ(rdevpfx[i], raws[i]);
    }
    static_assert(std::size(devpfx) == std::size(blocks) && std::size(rdevpfx) == std::size(raws));
}

TEST_F(DevicePrefix, each_is_replaced_by_its_counterpart_at_once) {
    const struct {
        const char *block, *raw;
    } rows[] = {{"/dev/root", "/dev/rroot"},
                {"/dev/dsk/c0t0d0s0", "/dev/rdsk/c0t0d0s0"},
                {"/dev/qz/dsk/group/d0", "/dev/qz/rdsk/group/d0"},
                {"/dev/vol/v1", "/dev/rvol/v1"}};
    unsigned minor = 0;
    for (const auto &row : rows) {
        block(row.block, 8, ++minor);
        character(row.raw, 9, minor);
    }
    const Inside inside(root);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.block);
        const std::vector<std::string> both = {row.block, row.raw};
        {
            const device::StatRecord record;
            EXPECT_EQ(raw_of(row.block), row.raw);
            EXPECT_EQ(record.names(), both);
        }
        const device::StatRecord record;
        EXPECT_EQ(block_of(row.raw), row.block);
        EXPECT_EQ(record.names(), both);
    }
}

TEST_F(DevicePrefix, is_a_beginning_of_the_text) {
    block("/dev/rootvg/d", 8, 1);
    character("/dev/rrootvg/d", 8, 1);
    block("/dev/volume", 8, 2);
    character("/dev/rvolume", 8, 2);
    const Inside inside(root);
    EXPECT_EQ(raw_of("/dev/rootvg/d"), "/dev/rrootvg/d");
    EXPECT_EQ(block_of("/dev/rrootvg/d"), "/dev/rootvg/d");
    EXPECT_EQ(raw_of("/dev/volume"), "/dev/rvolume");
    EXPECT_EQ(block_of("/dev/rvolume"), "/dev/volume");
}

TEST_F(DevicePrefix, comes_before_a_changed_component) {
    block("/dev/dsk/c0", 8, 1);
    character("/dev/rdsk/c0", 8, 1);
    character("/dev/dsk/rc0", 8, 1);
    block("/dev/rdsk/ra", 8, 2);
    block("/dev/dsk/ra", 8, 2);
    character("/dev/rdsk/rra", 8, 2);
    block("/dev/dsk/rra", 8, 2);
    const Inside inside(root);
    EXPECT_EQ(raw_of("/dev/dsk/c0"), "/dev/rdsk/c0");
    EXPECT_EQ(block_of("/dev/rdsk/rra"), "/dev/dsk/rra");
}

TEST_F(DevicePrefix, without_a_pair_is_followed_by_changed_components) {
    block("/dev/dsk/c0", 8, 1);
    character("/dev/rdsk/c0", 8, 2);
    character("/dev/dsk/rc0", 8, 1);
    character("/dev/rdsk/ra", 8, 3);
    block("/dev/dsk/ra", 8, 4);
    block("/dev/rdsk/a", 8, 3);
    const Inside inside(root);
    EXPECT_EQ(raw_of("/dev/dsk/c0"), "/dev/dsk/rc0");
    EXPECT_EQ(block_of("/dev/rdsk/ra"), "/dev/rdsk/a");
}

TEST_F(DevicePrefix, is_looked_for_in_the_canonical_path) {
    block("/dev/dsk/c0", 8, 1);
    character("/dev/rdsk/c0", 8, 1);
    const Inside inside(root);
    EXPECT_EQ(raw_of("//dev/./other/../dsk//c0/"), "/dev/rdsk/c0");
    EXPECT_EQ(raw_of("dev/dsk/c0"), "/dev/rdsk/c0");
    EXPECT_EQ(block_of("dev//rdsk/c0"), "/dev/dsk/c0");
}
