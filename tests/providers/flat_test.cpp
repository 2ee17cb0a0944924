// The example provider, from the file that QZFI_FLAT_PLUGIN names; example.sh builds it.
#include <cstdlib>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "provider_support.h"

namespace {

using namespace providers;

class Flat : public testing::Test {
protected:
    void SetUp() override {
        std::string scratch = (fs::temp_directory_path() / "qzfi-flat-XXXXXX");
        ASSERT_NE(mkdtemp(scratch.data()), nullptr);
        root = scratch;
        fs::create_directory(root / "data");
        fs::create_directory(root / "store");
        write_file(root / "data/one", std::string(100000, 'x'));
        write_file(root / "data/two", "");
    }
    void TearDown() override { fs::remove_all(root); }

    fs::path root;
    const Plugin flat{fs::path(std::getenv("QZFI_FLAT_PLUGIN")), 0};
};

TEST_F(Flat, the_table_is_one_that_the_library_takes) {
    EXPECT_EQ(flat->size, sizeof(qfi_provider_ops));
    EXPECT_EQ(flat->version, uint64_t{QFI_API_VERSION});
    EXPECT_STREQ(flat->provider_id, "flat");
    EXPECT_STREQ(flat->fim_id, "flat");
    EXPECT_EQ(flat->hlevel, 10u);
    EXPECT_EQ(flat->start, nullptr);
    EXPECT_EQ(flat->resync, nullptr);
}

TEST_F(Flat, plain_files_are_copied_out_and_removed) {
    const qfi_probe result = probe(flat, root / "data", root / "store");
    EXPECT_EQ(result.combo_class, QFI_SERIAL_FS);
    EXPECT_STREQ(result.reason, "");
    EXPECT_EQ(result.cost_bytes, 100000u);
    EXPECT_EQ(result.entries, 2u);
    EXPECT_EQ(result.bytes, 100000u);
    Job job(root / "data", root / "store", "image", QFI_JOB_MANIFEST | QFI_JOB_SYNC);
    ASSERT_EQ(flat->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(listing(root / "store/image"), listing(root / "data"));
    EXPECT_EQ(job.entries.size(), 3u);
    struct stat original {
    }, image{};
    ASSERT_EQ(stat((root / "data/one").c_str(), &original), 0);
    ASSERT_EQ(stat((root / "store/image/one").c_str(), &image), 0);
    EXPECT_EQ(image.st_mode, original.st_mode);
    EXPECT_EQ(image.st_mtim.tv_nsec, original.st_mtim.tv_nsec);
    Job out(root / "store/image", root, "restored");
    EXPECT_EQ(flat->copy_out(&out), 0);
    EXPECT_EQ(listing(root / "restored"), listing(root / "data"));
    EXPECT_EQ(flat->remove(&job), 0);
    EXPECT_TRUE(fs::is_empty(root / "store"));
    EXPECT_EQ(flat->remove(&job), 0) << "not there any more";
}

TEST_F(Flat, anything_else_is_refused_with_a_reason_and_leaves_nothing) {
    fs::create_symlink("one", root / "data/link");
    const qfi_probe result = probe(flat, root / "data", root / "store");
    EXPECT_EQ(result.combo_class, QFI_CLASS_NOTSUP);
    EXPECT_STREQ(result.reason, "it holds \"link\", which is no plain file");
    Job job(root / "data", root / "store", "image");
    EXPECT_EQ(flat->split(&job), QFI_FI_UNSAFE);
    EXPECT_EQ(job.failed_operation, "opening a plain file");
    EXPECT_EQ(job.failed_object, "link");
    EXPECT_EQ(job.failed_error, ELOOP);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Flat, what_cannot_be_kept_is_remarked) {
    fs::create_hard_link(root / "data/one", root / "other");
    Job job(root / "data", root / "store", "image");
    ASSERT_EQ(flat->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(job.remarks, (std::vector<Remark>{{QFI_REMARK_ATTRIBUTE, "one", "hard link", 0}}));
}

TEST_F(Flat, attributes_of_the_folder_and_inode_flags_are_remarked_too) {
    if (setxattr((root / "data").c_str(), "user.a", "b", 1, 0) != 0)
        GTEST_SKIP() << "no extended attributes on this file system";
    const int file = open((root / "data/one").c_str(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    ASSERT_EQ(ioctl(file, FS_IOC_GETFLAGS, &flags), 0);
    flags |= FS_NODUMP_FL;
    ASSERT_EQ(ioctl(file, FS_IOC_SETFLAGS, &flags), 0);
    close(file);
    Job job(root / "data", root / "store", "image");
    ASSERT_EQ(flat->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(job.remarks, (std::vector<Remark>{{QFI_REMARK_ATTRIBUTE, "one", "inode flags", 0},
                                                {QFI_REMARK_ATTRIBUTE, "", "extended attributes", 0}}));
}

TEST_F(Flat, a_file_that_changes_meanwhile_is_remarked_and_told_as_it_was_copied) {
    static std::string changing;
    changing = root / "data/one";
    Job job(root / "data", root / "store", "image", QFI_JOB_MANIFEST);
    static qfi_provider_host host;
    host = *(&job)->host;
    host.progress = [](void *, uint64_t, uint64_t) -> int32_t {
        if (fs::file_size(changing) < 200000)
            fs::resize_file(changing, 200000);
        return 0;
    };
    static uint64_t told;
    host.entry = [](void *, const qfi_entry *entry) -> int32_t {
        if (std::string(entry->path) == "one")
            told = entry->size;
        return 0;
    };
    (&job)->host = &host;
    ASSERT_EQ(flat->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(job.remarks, (std::vector<Remark>{{QFI_REMARK_TORN, "one", "it changed while it was read", 0}}));
    EXPECT_EQ(fs::file_size(root / "store/image/one"), told);
}

TEST_F(Flat, a_large_file_is_cancelled_within) {
    fs::remove(root / "data/two");
    Job job(root / "data", root / "store", "image");
    static qfi_provider_host host;
    host = *(&job)->host;
    host.progress = [](void *, uint64_t entries, uint64_t) -> int32_t { return entries == 0; };
    (&job)->host = &host;
    EXPECT_EQ(flat->split(&job), QFI_FI_CANCELLED);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Flat, a_glance_counts_nothing_and_refuses_all_the_same) {
    const qfi_probe glance = probe(flat, root / "data", root / "store", QFI_JOB_GLANCE);
    EXPECT_EQ(glance.combo_class, QFI_SERIAL_FS);
    EXPECT_EQ(glance.entries, 0u);
    EXPECT_EQ(glance.bytes, 0u);
    EXPECT_EQ(glance.cost_bytes, 0u);
    fs::create_symlink("one", root / "data/link");
    EXPECT_EQ(probe(flat, root / "data", root / "store", QFI_JOB_GLANCE).combo_class, QFI_CLASS_NOTSUP);
}

TEST_F(Flat, a_folder_that_cannot_be_read_is_a_failure_to_read) {
    Job job(root / "data", root / "store", "image");
    (&job)->source = -1;
    EXPECT_EQ(flat->split(&job), QFI_FI_READ);
    EXPECT_EQ(job.failed_operation, "opendir");
    EXPECT_EQ(job.failed_error, EBADF);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Flat, records_of_an_earlier_kit_are_refused) {
    Job job(root / "data", root / "store", "image");
    (&job)->size = sizeof(qfi_provider_job) - 1;
    for (const auto operation : {flat->split, flat->copy_out, flat->remove})
        EXPECT_EQ(operation(&job), QFI_STATUS_INVALID_ARGUMENT);
    qfi_probe small{};
    small.size = offsetof(qfi_probe, entries) - 1;
    EXPECT_EQ(flat->probe(Directory(root / "data"), -1, "", 0, &small), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_F(Flat, a_probe_of_an_earlier_kit_is_filled_in_as_far_as_it_goes) {
    qfi_probe small{};
    small.size = offsetof(qfi_probe, entries);
    small.entries = 7;
    EXPECT_EQ(flat->probe(Directory(root / "data"), -1, "", 0, &small), 0);
    EXPECT_EQ(small.cost_bytes, 100000u);
    EXPECT_EQ(small.entries, 7u);
}

TEST_F(Flat, digests_are_not_offered) {
    Job job(root / "data", root / "store", "image", QFI_JOB_DIGEST);
    EXPECT_EQ(flat->split(&job), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Flat, a_cancelled_split_leaves_nothing) {
    Job job(root / "data", root / "store", "image");
    job.cancel = true;
    EXPECT_EQ(flat->split(&job), QFI_FI_CANCELLED);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

} // namespace
