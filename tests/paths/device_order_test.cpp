#include "paths/device_support.h"

using device::block_of;
using device::Inside;
using device::raw_of;
using device::StatRecord;

namespace {

class DeviceOrder : public device::Devices {
protected:
    using Names = std::vector<std::string>;

    static Names tried_for_raw(const std::string &path) {
        const StatRecord record;
        EXPECT_EQ(raw_of(path), std::nullopt);
        return record.candidates(path);
    }
    /// A candidate that is there would be followed by the given name, which is not counted.
    static Names tried_for_block(const std::string &path) {
        const StatRecord record;
        EXPECT_EQ(block_of(path), std::nullopt);
        return record.candidates(path);
    }
};

} // namespace

TEST_F(DeviceOrder, an_r_is_put_before_each_component_from_the_last_to_the_first) {
    block("/dev/sda1", 8, 1);
    block("/a/b/c/d", 8, 1);
    block("/top", 8, 1);
    const Inside inside(root);
    EXPECT_EQ(tried_for_raw("/dev/sda1"), (Names{"/dev/rsda1", "/rdev/sda1"}));
    EXPECT_EQ(tried_for_raw("/a/b/c/d"), (Names{"/a/b/c/rd", "/a/b/rc/d", "/a/rb/c/d", "/ra/b/c/d"}));
    EXPECT_EQ(tried_for_raw("/top"), (Names{"/rtop"}));
}

TEST_F(DeviceOrder, a_known_prefix_is_tried_first_and_again_among_the_components) {
    block("/dev/dsk/c0t0d0s0", 8, 1);
    block("/dev/qz/dsk/d", 8, 1);
    const Inside inside(root);
    EXPECT_EQ(tried_for_raw("/dev/dsk/c0t0d0s0"),
              (Names{"/dev/rdsk/c0t0d0s0", "/dev/dsk/rc0t0d0s0", "/dev/rdsk/c0t0d0s0", "/rdev/dsk/c0t0d0s0"}));
    EXPECT_EQ(tried_for_raw("/dev/qz/dsk/d"),
              (Names{"/dev/qz/rdsk/d", "/dev/qz/dsk/rd", "/dev/qz/rdsk/d", "/dev/rqz/dsk/d", "/rdev/qz/dsk/d"}));
}

TEST_F(DeviceOrder, an_r_is_removed_from_each_component_from_the_last_to_the_first) {
    const Inside inside(root);
    EXPECT_EQ(tried_for_block("/dev/rsda1"), (Names{"/dev/sda1"}));
    EXPECT_EQ(tried_for_block("/rdev/rsda1"), (Names{"/rdev/sda1", "/dev/rsda1"}));
    EXPECT_EQ(tried_for_block("/ra/b/rc/rd"), (Names{"/ra/b/rc/d", "/ra/b/c/rd", "/a/b/rc/rd"}));
    EXPECT_EQ(tried_for_block("/rr"), (Names{"/r"}));
    EXPECT_EQ(tried_for_block("/rrr/rr"), (Names{"/rrr/r", "/rr/rr"}));
    EXPECT_EQ(tried_for_block("/dev/sda1r"), Names{});
    EXPECT_EQ(tried_for_block("/dev/rdsk/rc0"), (Names{"/dev/dsk/rc0", "/dev/rdsk/c0", "/dev/dsk/rc0"}));
}

TEST_F(DeviceOrder, a_last_component_that_is_only_an_r_is_not_tried) {
    const Inside inside(root);
    EXPECT_EQ(tried_for_block("/dev/r"), Names{});
    EXPECT_EQ(tried_for_block("/rdev/r"), (Names{"/dev/r"}));
    EXPECT_EQ(tried_for_block("/r"), Names{});
    EXPECT_EQ(tried_for_block("/r/r"), (Names{"//r"}));
    EXPECT_EQ(tried_for_block("/r/rx"), (Names{"/r/x", "//rx"}));
}

TEST_F(DeviceOrder, the_first_pair_is_the_result) {
    block("/dev/sda1", 8, 1);
    character("/rdev/sda1", 8, 1);
    const std::string later = "/dev/rsda1";
    {
        const Inside inside(root);
        EXPECT_EQ(raw_of("/dev/sda1"), "/rdev/sda1");
        EXPECT_EQ(block_of("/rdev/sda1"), "/dev/sda1");
    }
    character(later, 8, 2);
    {
        const Inside inside(root);
        EXPECT_EQ(raw_of("/dev/sda1"), "/rdev/sda1");
    }
    character("/dev/sdb", 8, 1); // another name, no candidate
    block("/a/b", 8, 5);
    character("/a/rb", 8, 5);
    character("/ra/b", 8, 5);
    const Inside inside(root);
    EXPECT_EQ(raw_of("/a/b"), "/a/rb");
}

TEST_F(DeviceOrder, the_first_block_device_is_the_result) {
    character("/ra/rb", 8, 5);
    block("/a/rb", 8, 5);
    {
        const Inside inside(root);
        EXPECT_EQ(block_of("/ra/rb"), "/a/rb");
    }
    block("/ra/b", 8, 5);
    const Inside inside(root);
    EXPECT_EQ(block_of("/ra/rb"), "/ra/b");
}

TEST_F(DeviceOrder, a_device_without_a_counterpart_gives_null) {
    block("/dev/sda1", 8, 1);
    character("/dev/rsdb1", 8, 2);
    character("/dev/rsda1", 8, 3);
    file("/rdev/sda1");
    const Inside inside(root);
    EXPECT_EQ(raw_of("/dev/sda1"), std::nullopt);
    EXPECT_EQ(block_of("/dev/rsdb1"), std::nullopt);
    EXPECT_EQ(block_of("/dev/rsda1"), std::nullopt);
    EXPECT_EQ(raw_of("/dev/absent"), std::nullopt);
    EXPECT_EQ(raw_of("/dev/rsda1"), std::nullopt);
    EXPECT_EQ(block_of("/dev/sda1"), std::nullopt);
    EXPECT_EQ(raw_of("/"), std::nullopt);
    EXPECT_EQ(raw_of(""), std::nullopt);
    EXPECT_EQ(block_of(""), std::nullopt);
}
