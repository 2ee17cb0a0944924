// The mount table.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "fi/fi_mounts.h"
#include "support/fault.h"

#include "store_support.h"

using namespace qzfi::fi;

TEST(Mounts, the_mounts_of_this_process_are_read_with_their_devices) {
    const std::vector<Mount> all = mounts("qzfi_gentree");
    struct stat status {};
    ASSERT_EQ(stat("/proc", &status), 0);

    const Mount &proc = mount_of(all, "/proc/self");
    EXPECT_EQ(proc.mount_point, "/proc");
    EXPECT_EQ(proc.type, "proc");
    EXPECT_EQ(proc.device, status.st_dev);
}

TEST(Mounts, the_last_of_the_longest_mount_points_above_a_path_is_its_mount) {
    const std::vector<Mount> all{{1, 1, "/", "/", "xfs", "a", false},
                                 {2, 2, "/", "/home", "xfs", "b", false},
                                 {3, 3, "/", "/home", "ext4", "c", true},
                                 {4, 4, "/", "/home/a", "ext4", "d", false}};
    EXPECT_EQ(mount_of(all, "/home").id, 3);
    EXPECT_EQ(mount_of(all, "/home/b").id, 3);
    EXPECT_EQ(mount_of(all, "/home/a/x").id, 4);
    EXPECT_EQ(mount_of(all, "/homes").id, 1);
    EXPECT_EQ(mount_of({}, "/homes").type, "unknown");
}

TEST(Mounts, a_table_that_cannot_be_read_is_a_failure) {
    fault::for_each(fault::Call::read, [](fault::Trial &trial) {
        trial.arm();
        const int32_t status = store_support::status_of_call([] { mounts("qzfi_gentree"); });
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? QFI_FI_READ : 0);
    });
}
