// The providers "reflink" and "copy", whose images are trees of their own, on the file systems that they serve.
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include <btrfsutil.h>

#include "provider_support.h"
#include "support/extents.h"
#include "support/loop_filesystem.h"

namespace {

using namespace providers;

struct Case {
    const char *provider;
    const char *type;
};

class Trees : public testing::TestWithParam<Case> {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle(GetParam().type))
            GTEST_SKIP() << *obstacle;
        disk.emplace(GetParam().type);
        root = disk->path();
        fs::create_directories(root / "data/folder/empty");
        fs::create_directory(root / "store");
        write_file(root / "data/file", std::string(200000, 'a'));
        write_file(root / "data/folder/other", "two");
        fs::create_symlink("../file", root / "data/folder/link");
        fs::create_hard_link(root / "data/file", root / "data/second");
        before = listing(root / "data");
    }
    bool clones() const { return std::string(GetParam().provider) == "reflink"; }
    /// Also what the kernel copies within such a file system.
    bool shares_blocks() const { return std::string(GetParam().type) != "ext4"; }

    std::optional<LoopFilesystem> disk;
    fs::path root;
    std::vector<std::string> before;
    const Plugin plugin{GetParam().provider};
};

TEST_P(Trees, the_probe_offers_what_the_provider_can) {
    const qfi_probe result = probe(plugin, root / "data", root / "store");
    EXPECT_EQ(result.combo_class, QFI_SERIAL_FS);
    EXPECT_EQ(result.consistency, clones() ? uint32_t{QFI_CONSISTENCY_PER_FILE} : uint32_t{QFI_CONSISTENCY_FUZZY});
    EXPECT_STREQ(result.reason, "");
    EXPECT_STREQ(probe_own(plugin, root / "data").reason, "");
    EXPECT_EQ(listing(root / "store").size(), 0u) << "the probe leaves nothing behind";
    EXPECT_EQ(listing(root / "data"), before);
}

TEST_P(Trees, the_probe_foretells_what_the_split_tells_of) {
    {
        std::ofstream sparse(root / "data/sparse");
        sparse << "beginning";
    }
    fs::resize_file(root / "data/sparse", 100 << 20);
    ASSERT_EQ(mkfifo((root / "data/fifo").c_str(), 0600), 0);
    for (const uint32_t flags : {0u, uint32_t{QFI_JOB_DIGEST}}) {
        const qfi_probe result = probe(plugin, root / "data", root / "store", flags);
        Job job(root / "data", root / "store", "image" + std::to_string(flags), flags);
        ASSERT_EQ(plugin->split(&job), 0) << job.failed_operation << " " << job.failed_object;
        EXPECT_EQ(result.entries, 9u);
        EXPECT_EQ(job.told_entries, result.entries);
        if (clones() && flags == 0)
            EXPECT_EQ(result.bytes, 0u) << "sharing data is no work that grows with it";
        else
            EXPECT_EQ(job.told_bytes, result.bytes);
    }
}

TEST_P(Trees, the_probe_refuses_a_read_only_file_system) {
    disk->remount(true);
    const qfi_probe result = probe(plugin, root / "data", root / "store");
    EXPECT_EQ(result.combo_class, QFI_CLASS_NOTSUP);
    EXPECT_EQ(result.consistency, uint32_t{QFI_CONSISTENCY_NONE});
    EXPECT_STREQ(result.reason, "the store's file system is read-only");
    EXPECT_STREQ(probe_own(plugin, root / "data").reason,
                 "the object's file system is read-only, so no store can be on it");
}

TEST_P(Trees, a_split_makes_an_image_that_later_changes_do_not_reach) {
    Job job(root / "data", root / "store", "image", QFI_JOB_SYNC);
    ASSERT_EQ(plugin->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(job.subpath(), "");
    EXPECT_TRUE(job.remarks.empty());
    EXPECT_EQ(first_extent(root / "data/file").fe_physical == first_extent(root / "store/image/file").fe_physical,
              shares_blocks());
    write_file(root / "data/file", "changed");
    fs::remove_all(root / "data/folder");
    EXPECT_EQ(listing(root / "store/image"), before);
    EXPECT_EQ(fs::hard_link_count(root / "store/image/second"), 2u);
}

TEST_P(Trees, a_copy_with_digests_is_of_blocks_of_its_own) {
    Job job(root / "data", root / "store", "image", QFI_JOB_MANIFEST | QFI_JOB_DIGEST);
    ASSERT_EQ(plugin->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(first_extent(root / "data/file").fe_physical == first_extent(root / "store/image/file").fe_physical,
              clones());
    EXPECT_EQ(listing(root / "store/image"), before);
}

TEST_P(Trees, a_manifest_has_every_entry) {
    Job job(root / "data", root / "store", "image", QFI_JOB_MANIFEST);
    ASSERT_EQ(plugin->split(&job), 0);
    std::sort(job.entries.begin(), job.entries.end());
    const std::vector<std::pair<std::string, uint32_t>> expected = {
        {"", QFI_ENTRY_DIRECTORY},          {"file", QFI_ENTRY_FILE},
        {"folder", QFI_ENTRY_DIRECTORY},    {"folder/empty", QFI_ENTRY_DIRECTORY},
        {"folder/link", QFI_ENTRY_SYMLINK}, {"folder/other", QFI_ENTRY_FILE},
        {"second", QFI_ENTRY_FILE}};
    EXPECT_EQ(job.entries, expected);
}

TEST_P(Trees, the_store_below_the_object_is_left_out) {
    fs::create_directory(root / "data/.store");
    write_file(root / "data/.store/catalog", "rows");
    Job job(root / "data", root / "data/.store", "image");
    job.exclude(root / "data/.store");
    ASSERT_EQ(plugin->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_TRUE(job.remarks.empty());
    EXPECT_EQ(listing(root / "data/.store/image"), before);
}

TEST_P(Trees, a_copy_for_a_restore_is_equal_and_writable) {
    Job job(root / "data", root / "store", "image");
    ASSERT_EQ(plugin->split(&job), 0);
    Job out(root / "store/image", root, "restored");
    ASSERT_EQ(plugin->copy_out(&out), 0) << out.failed_operation << " " << out.failed_object;
    EXPECT_EQ(listing(root / "restored"), before);
    write_file(root / "restored/file", "writable");
    EXPECT_EQ(listing(root / "store/image"), before);
}

TEST_P(Trees, a_copy_for_a_restore_goes_to_another_file_system_too) {
    const LoopFilesystem other("tmpfs", 8);
    Job job(root / "data", root / "store", "image");
    ASSERT_EQ(plugin->split(&job), 0);
    Job out(root / "store/image", other.path(), "restored");
    ASSERT_EQ(plugin->copy_out(&out), 0) << out.failed_operation << " " << out.failed_object;
    EXPECT_EQ(listing(other.path() + "/restored"), before);
}

TEST_P(Trees, a_resync_brings_the_original_back_and_leaves_what_is_equal) {
    Job job(root / "data", root / "store", "image");
    ASSERT_EQ(plugin->split(&job), 0);
    struct stat was {
    }, is{};
    ASSERT_EQ(stat((root / "data/file").c_str(), &was), 0);
    write_file(root / "data/folder/other", "changed and longer");
    write_file(root / "data/new", "x");
    fs::remove_all(root / "data/folder/empty");
    Job back(root / "store/image", root, "data");
    ASSERT_EQ(plugin->resync(&back), 0) << back.failed_operation << " " << back.failed_object;
    EXPECT_EQ(listing(root / "data"), before);
    ASSERT_EQ(stat((root / "data/file").c_str(), &is), 0);
    EXPECT_EQ(is.st_ino, was.st_ino);
}

TEST_P(Trees, removing_takes_all_of_an_image_and_nothing_else) {
    Job job(root / "data", root / "store", "image");
    ASSERT_EQ(plugin->split(&job), 0);
    fs::create_directory_symlink(root / "data", root / "store/image/folder/away");
    Job removal(root / "store", root / "store", "image");
    EXPECT_EQ(plugin->remove(&removal), 0);
    EXPECT_TRUE(fs::is_empty(root / "store"));
    EXPECT_EQ(plugin->remove(&removal), 0) << "not there any more";
    EXPECT_EQ(listing(root / "data"), before);
}

TEST_P(Trees, a_cancelled_split_leaves_nothing) {
    Job job(root / "data", root / "store", "image");
    job.cancel = true;
    EXPECT_EQ(plugin->split(&job), QFI_FI_CANCELLED);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_P(Trees, a_name_that_is_taken_fails_and_stays) {
    fs::create_directory(root / "store/image");
    write_file(root / "store/image/file", "precious");
    Job job(root / "data", root / "store", "image");
    EXPECT_EQ(plugin->split(&job), QFI_FI_EXISTS);
    EXPECT_EQ(job.failed_error, EEXIST);
    EXPECT_EQ(plugin->copy_out(&job), QFI_FI_EXISTS);
    EXPECT_EQ(content_of(root / "store/image/file"), "precious");
}

INSTANTIATE_TEST_SUITE_P(On, Trees,
                         testing::Values(Case{"reflink", "btrfs"}, Case{"reflink", "xfs"}, Case{"copy", "btrfs"},
                                         Case{"copy", "xfs"}, Case{"copy", "ext4"}),
                         [](const auto &one) { return std::string(one.param.provider) + "_on_" + one.param.type; });

/// A test that needs a file system of the type, or is skipped.
#define NEED(type)                                                                                                     \
    if (const auto obstacle = LoopFilesystem::obstacle(type))                                                          \
        GTEST_SKIP() << *obstacle;

class Disks : public testing::Test {
protected:
    static fs::path make_object(const LoopFilesystem &disk) {
        const fs::path object = disk.path() + "/data";
        fs::create_directory(object);
        write_file(object / "file", std::string(100000, 'x'));
        fs::create_directory(disk.path() + "/store");
        return object;
    }
};

TEST_F(Disks, reflink_refuses_a_file_system_that_cannot_clone_and_says_so) {
    NEED("ext4");
    const LoopFilesystem disk("ext4");
    const fs::path object = make_object(disk);
    const Plugin reflink("reflink");
    const qfi_probe result = probe(reflink, object, disk.path() + "/store");
    EXPECT_EQ(result.combo_class, QFI_CLASS_NOTSUP);
    EXPECT_STREQ(result.reason, "files cannot be cloned there: the file system does not support it");
    Job job(object, disk.path() + "/store", "image");
    EXPECT_EQ(reflink->split(&job), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(job.failed_operation, "FICLONE");
    EXPECT_EQ(job.failed_error, EOPNOTSUPP);
    EXPECT_TRUE(fs::is_empty(disk.path() + "/store"));
}

TEST_F(Disks, reflink_refuses_a_store_on_another_file_system) {
    NEED("xfs");
    const LoopFilesystem disk("xfs"), other("xfs");
    const fs::path object = make_object(disk);
    const Plugin reflink("reflink");
    EXPECT_STREQ(probe(reflink, object, other.path()).reason,
                 "the store is on another file system than the object, and files share data only within one");
    Job job(object, other.path(), "image");
    EXPECT_EQ(reflink->split(&job), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(job.failed_error, EXDEV);
    EXPECT_TRUE(fs::is_empty(other.path()));
}

TEST_F(Disks, reflink_takes_a_store_in_another_subvolume) {
    NEED("btrfs");
    const LoopFilesystem disk("btrfs");
    const fs::path object = make_object(disk), store = disk.path() + "/subvolume";
    ASSERT_EQ(btrfs_util_create_subvolume(store.c_str(), 0, nullptr, nullptr), BTRFS_UTIL_OK);
    const Plugin reflink("reflink");
    EXPECT_STREQ(probe(reflink, object, store).reason, "");
    Job job(object, store, "image");
    EXPECT_EQ(reflink->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(listing(store / "image"), listing(object));
}

TEST_F(Disks, copy_takes_a_store_on_another_file_system) {
    NEED("ext4");
    const LoopFilesystem disk("ext4"), other("tmpfs", 8);
    const fs::path object = make_object(disk);
    const Plugin copy("copy");
    EXPECT_STREQ(probe(copy, object, other.path()).reason, "");
    Job job(object, other.path(), "image");
    EXPECT_EQ(copy->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(listing(other.path() + "/image"), listing(object));
}

TEST_F(Disks, copy_tells_what_it_will_cost_and_refuses_what_cannot_fit) {
    NEED("tmpfs");
    const LoopFilesystem disk("tmpfs", 16), small("tmpfs", 1);
    const fs::path object = make_object(disk);
    write_file(object / "large", std::string(3 << 20, 'x'));
    const Plugin copy("copy");
    const qfi_probe fits = probe(copy, object, disk.path() + "/store");
    EXPECT_STREQ(fits.reason, "");
    EXPECT_GE(fits.cost_bytes, (3u << 20) + 100000u);
    EXPECT_LT(fits.cost_bytes, 4u << 20);
    const std::string reason = probe(copy, object, small.path()).reason;
    EXPECT_EQ(reason, "the store's file system has 1048576 bytes left, and the copy needs about 3248128");
}

TEST_F(Disks, at_a_glance_nothing_is_counted) {
    NEED("tmpfs");
    const LoopFilesystem disk("tmpfs", 64);
    const fs::path object = make_object(disk);
    const Plugin copy("copy");
    const qfi_probe counted = probe(copy, object, disk.path() + "/store");
    const qfi_probe glance = probe(copy, object, disk.path() + "/store", QFI_JOB_GLANCE);
    EXPECT_EQ(counted.entries, 2u);
    EXPECT_EQ(glance.entries, 0u);
    EXPECT_EQ(glance.bytes, 0u);
    EXPECT_EQ(glance.combo_class, counted.combo_class);
    EXPECT_EQ(glance.consistency, counted.consistency);
}

TEST_F(Disks, of_a_tree_that_is_too_large_to_count_nothing_is_foretold) {
    NEED("tmpfs");
    const LoopFilesystem disk("tmpfs", 64);
    const fs::path object = make_object(disk);
    const Plugin copy("copy");
    EXPECT_EQ(probe(copy, object, disk.path() + "/store").entries, 2u);
    for (int number = 0; number < 100'000; ++number)
        fs::create_hard_link(object / "file", object / std::to_string(number));
    const qfi_probe result = probe(copy, object, disk.path() + "/store");
    EXPECT_STREQ(result.reason, "");
    EXPECT_GT(result.cost_bytes, 0u);
    EXPECT_EQ(result.entries, 0u);
    EXPECT_EQ(result.bytes, 0u);
}

TEST_F(Disks, a_full_store_fails_and_leaves_nothing) {
    NEED("tmpfs");
    const LoopFilesystem disk("tmpfs", 16), small("tmpfs", 1);
    const fs::path object = make_object(disk);
    write_file(object / "large", std::string(3 << 20, 'x'));
    const Plugin copy("copy");
    Job job(object, small.path(), "image");
    EXPECT_EQ(copy->split(&job), QFI_FI_NO_SPACE);
    EXPECT_EQ(job.failed_error, ENOSPC);
    EXPECT_EQ(job.failed_object, "large");
    EXPECT_TRUE(fs::is_empty(small.path()));
}

TEST_F(Disks, a_read_only_store_fails_with_its_errno) {
    NEED("tmpfs");
    const LoopFilesystem disk("tmpfs", 16);
    LoopFilesystem closed("tmpfs", 1);
    closed.remount(true);
    const Plugin copy("copy");
    Job job(make_object(disk), closed.path(), "image");
    EXPECT_EQ(copy->split(&job), QFI_FI_WRITE);
    EXPECT_EQ(job.failed_error, EROFS);
}

TEST_F(Disks, btrfs_refuses_an_object_on_another_type_of_file_system) {
    NEED("ext4");
    const LoopFilesystem disk("ext4");
    const fs::path object = make_object(disk);
    const qfi_probe result = probe(Plugin("btrfs"), object, disk.path() + "/store");
    EXPECT_EQ(result.combo_class, QFI_CLASS_NOTSUP);
    EXPECT_STREQ(result.reason, "it is not on a Btrfs file system");
}

} // namespace
