// The provider "btrfs" on real Btrfs file systems.
#include <atomic>
#include <fcntl.h>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <btrfsutil.h>

#include "provider_support.h"
#include "support/loop_filesystem.h"

namespace {

using namespace providers;

void make_subvolume(const fs::path &path) {
    ASSERT_EQ(btrfs_util_create_subvolume(path.c_str(), 0, nullptr, nullptr), BTRFS_UTIL_OK) << path;
}

bool is_subvolume(const fs::path &path) {
    return btrfs_util_is_subvolume(path.c_str()) == BTRFS_UTIL_OK;
}

bool is_read_only(const fs::path &path) {
    bool result = false;
    EXPECT_EQ(btrfs_util_get_subvolume_read_only(path.c_str(), &result), BTRFS_UTIL_OK) << path;
    return result;
}

/// "vol", a subvolume with the object "vol/data", and beside it the store's directory "store".
class Btrfs : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
            GTEST_SKIP() << *obstacle;
        disk.emplace("btrfs");
        root = disk->path();
        make_subvolume(root / "vol");
        fs::create_directories(root / "vol/data/folder");
        fs::create_directory(root / "store");
        write_file(root / "vol/data/file", "one");
        write_file(root / "vol/data/folder/other", "two");
        write_file(root / "vol/outside", "three");
    }

    std::optional<LoopFilesystem> disk;
    fs::path root;
    const Plugin btrfs{"btrfs"};
};

const std::vector<std::string> data_as_made = {"d folder", "f file=one", "f folder/other=two"};

TEST_F(Btrfs, the_probe_offers_an_atomic_image) {
    const qfi_probe result = probe(btrfs, root / "vol/data", root / "store");
    EXPECT_EQ(result.combo_class, QFI_ATOMIC_FS);
    EXPECT_EQ(result.consistency, uint32_t{QFI_CONSISTENCY_ATOMIC});
    EXPECT_STREQ(result.reason, "");
    EXPECT_GT(result.cost_bytes, 0u);
    EXPECT_GT(result.cost_ms, 0u);
    EXPECT_STREQ(probe_own(btrfs, root / "vol/data").reason, "");
}

TEST_F(Btrfs, the_probe_foretells_what_is_read_for_digests) {
    EXPECT_EQ(probe(btrfs, root / "vol/data", root / "store").entries, 0u);
    const qfi_probe result = probe(btrfs, root / "vol/data", root / "store", QFI_JOB_DIGEST);
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_DIGEST | QFI_JOB_MANIFEST);
    ASSERT_EQ(btrfs->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    EXPECT_EQ(result.entries, 4u);
    EXPECT_EQ(result.bytes, 6u);
    EXPECT_EQ(job.told_entries, result.entries);
    EXPECT_EQ(job.told_bytes, result.bytes);
    make_subvolume(root / "vol/data/inner");
    EXPECT_EQ(probe(btrfs, root / "vol/data", root / "store", QFI_JOB_DIGEST).entries, 5u) << "an empty directory";
    EXPECT_EQ(probe(btrfs, root / "vol/data", root / "store", QFI_JOB_DIGEST | QFI_JOB_NESTED).entries, 0u);
}

TEST_F(Btrfs, the_probe_promises_no_more_than_one_moment_a_file_once_nested_subvolumes_are_included) {
    EXPECT_EQ(probe(btrfs, root / "vol/data", root / "store", QFI_JOB_NESTED).consistency,
              uint32_t{QFI_CONSISTENCY_ATOMIC});
    make_subvolume(root / "vol/data/inner");
    const qfi_probe result = probe(btrfs, root / "vol/data", root / "store", QFI_JOB_NESTED);
    EXPECT_EQ(result.consistency, uint32_t{QFI_CONSISTENCY_PER_FILE});
    EXPECT_EQ(result.combo_class, QFI_SERIAL_FS);
    EXPECT_EQ(probe(btrfs, root / "vol/data", root / "store").consistency, uint32_t{QFI_CONSISTENCY_ATOMIC});
}

TEST_F(Btrfs, the_probe_says_why_a_read_only_file_system_is_refused) {
    disk->remount(true);
    const qfi_probe result = probe(btrfs, root / "vol/data", root / "store");
    EXPECT_EQ(result.combo_class, QFI_CLASS_NOTSUP);
    EXPECT_STREQ(result.reason, "the store's file system is read-only");
    EXPECT_STREQ(probe_own(btrfs, root / "vol/data").reason,
                 "the object's file system is read-only, so no store can be on it");
}

TEST_F(Btrfs, the_probe_says_why_a_store_on_another_file_system_is_refused) {
    const LoopFilesystem other("btrfs");
    EXPECT_STREQ(probe(btrfs, root / "vol/data", other.path()).reason,
                 "the store is on another file system than the object, and snapshots are not");
}

TEST_F(Btrfs, the_probe_refuses_an_object_whose_subvolume_is_hidden_by_a_bind_mount) {
    const LoopFilesystem memory("tmpfs", 1);
    const fs::path place = memory.path() + "/bound";
    fs::create_directory(place);
    ASSERT_EQ(mount((root / "vol/data").c_str(), place.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_STREQ(probe(btrfs, place, root / "store").reason, "the root of its subvolume is not mounted above it");
    ASSERT_EQ(umount(place.c_str()), 0);
}

/// Runs as another user; the child reports by its exit status.
int as_user(uid_t user, const std::function<bool()> &claim) {
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(user) != 0 || setuid(user) != 0)
            _exit(2);
        _exit(claim() ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Btrfs, the_probe_refuses_a_user_who_does_not_own_the_subvolume) {
    fs::permissions(root / "store", fs::perms::all);
    EXPECT_EQ(as_user(65534,
                      [&] {
                          return probe(btrfs, root / "vol/data", root / "store").reason ==
                                 std::string("only root and the owner of a subvolume may make a snapshot of it");
                      }),
              0);
}

TEST_F(Btrfs, the_probe_refuses_a_user_who_may_not_write_the_store) {
    EXPECT_EQ(as_user(65534,
                      [&] {
                          return probe(btrfs, root / "vol/data", root / "store").reason ==
                                 std::string("the store cannot be written: this user has no right to do it");
                      }),
              0);
}

TEST_F(Btrfs, the_owner_of_a_subvolume_makes_and_removes_images_without_being_root) {
    make_subvolume(root / "own");
    fs::create_directories(root / "own/data/folder");
    write_file(root / "own/data/folder/file", "text");
    for (const char *path : {"own", "own/data", "own/data/folder", "own/data/folder/file", "store"})
        ASSERT_EQ(chown((root / path).c_str(), 65534, 65534), 0);
    EXPECT_EQ(as_user(65534,
                      [&] {
                          Job job(root / "own/data", root / "store", "image");
                          return *probe(btrfs, root / "own/data", root / "store").reason == '\0' &&
                                 btrfs->split(&job) == 0 && job.subpath() == "data" &&
                                 content_of(root / "store/image/data/folder/file") == "text";
                      }),
              0);
    EXPECT_TRUE(is_read_only(root / "store/image"));
    EXPECT_EQ(as_user(65534,
                      [&] {
                          Job job(root / "store", root / "store", "image");
                          return btrfs->remove(&job) == 0;
                      }),
              0);
    EXPECT_FALSE(fs::exists(root / "store/image"));
}

TEST_F(Btrfs, a_split_makes_a_read_only_snapshot_and_tells_the_object_s_place_in_it) {
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_SYNC);
    ASSERT_EQ(btrfs->split(&job), 0) << job.failed_operation;
    EXPECT_EQ(job.subpath(), "data");
    EXPECT_TRUE(job.remarks.empty());
    EXPECT_TRUE(job.entries.empty()) << "no manifest was asked for";
    EXPECT_TRUE(is_subvolume(root / "store/image"));
    EXPECT_EQ(listing(root / "store/image/data"), data_as_made);

    write_file(root / "vol/data/file", "changed");
    fs::remove_all(root / "vol/data/folder");
    EXPECT_EQ(listing(root / "store/image/data"), data_as_made);
}

TEST_F(Btrfs, the_snapshot_is_really_read_only) {
    Job job(root / "vol/data", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    EXPECT_TRUE(is_read_only(root / "store/image"));
    const fs::path data = root / "store/image/data";
    EXPECT_EQ(open((data / "file").c_str(), O_WRONLY | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(mkdir((data / "new").c_str(), 0777), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(unlink((data / "file").c_str()), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(chmod((data / "file").c_str(), 0777), -1);
    EXPECT_EQ(errno, EROFS);
}

TEST_F(Btrfs, an_object_that_is_a_whole_subvolume_has_no_subpath) {
    Job job(root / "vol", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    EXPECT_EQ(job.subpath(), "");
    EXPECT_EQ(content_of(root / "store/image/outside"), "three");
}

TEST_F(Btrfs, the_place_is_found_also_under_names_of_any_bytes) {
    const std::string odd = "vol/data/ \n\xff\\/deeper (deleted)";
    fs::create_directories(root / odd);
    write_file(root / odd / "file", "text");
    Job job(root / odd, root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    EXPECT_EQ(job.subpath(), odd.substr(4));
    EXPECT_EQ(content_of(root / "store/image" / job.subpath() / "file"), "text");
}

TEST_F(Btrfs, the_place_is_found_through_a_bind_mount_inside_the_subvolume) {
    fs::create_directories(root / "vol/elsewhere");
    ASSERT_EQ(mount((root / "vol/data").c_str(), (root / "vol/elsewhere").c_str(), nullptr, MS_BIND, nullptr), 0);
    {
        Job job(root / "vol/elsewhere/folder", root / "store", "image");
        EXPECT_EQ(btrfs->split(&job), 0);
        EXPECT_EQ(job.subpath(), "data/folder");
    }
    ASSERT_EQ(umount((root / "vol/elsewhere").c_str()), 0);
}

TEST_F(Btrfs, an_object_that_was_deleted_fails_and_leaves_nothing) {
    Job job(root / "vol/data/folder", root / "store", "image");
    fs::remove_all(root / "vol/data/folder");
    EXPECT_EQ(btrfs->split(&job), QFI_FI_READ);
    EXPECT_EQ(job.failed_error, ENOENT);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Btrfs, a_name_that_is_taken_fails_and_stays) {
    fs::create_directory(root / "store/image");
    write_file(root / "store/image/file", "precious");
    Job job(root / "vol/data", root / "store", "image");
    EXPECT_EQ(btrfs->split(&job), QFI_FI_EXISTS);
    EXPECT_EQ(job.failed_error, EEXIST);
    EXPECT_EQ(content_of(root / "store/image/file"), "precious");
}

TEST_F(Btrfs, a_split_to_another_file_system_fails_with_its_errno) {
    const LoopFilesystem other("btrfs");
    Job job(root / "vol/data", other.path(), "image");
    EXPECT_EQ(btrfs->split(&job), QFI_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(job.failed_operation, "BTRFS_IOC_SNAP_CREATE_V2");
    EXPECT_EQ(job.failed_error, EXDEV);
    EXPECT_TRUE(fs::is_empty(other.path()));
}

TEST_F(Btrfs, a_split_into_a_read_only_subvolume_fails_with_its_errno) {
    make_subvolume(root / "closed");
    ASSERT_EQ(btrfs_util_set_subvolume_read_only((root / "closed").c_str(), true), BTRFS_UTIL_OK);
    Job job(root / "vol/data", root / "closed", "image");
    EXPECT_EQ(btrfs->split(&job), QFI_FI_WRITE);
    EXPECT_EQ(job.failed_error, EROFS);
}

TEST_F(Btrfs, a_cancelled_split_leaves_nothing) {
    Job job(root / "vol/data", root / "store", "image");
    job.cancel = true;
    EXPECT_EQ(btrfs->split(&job), QFI_FI_CANCELLED);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Btrfs, a_manifest_that_is_cancelled_while_it_is_walked_leaves_nothing) {
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_MANIFEST);
    (&job)->host = [&] {
        static qfi_provider_host host;
        host = *(&job)->host;
        host.entry = [](void *, const qfi_entry *) -> int32_t { return QFI_STATUS_NO_MEMORY; };
        return &host;
    }();
    EXPECT_EQ(btrfs->split(&job), QFI_STATUS_NO_MEMORY);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(Btrfs, a_manifest_tells_the_object_s_entries_and_no_others) {
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_MANIFEST | QFI_JOB_DIGEST);
    ASSERT_EQ(btrfs->split(&job), 0);
    std::sort(job.entries.begin(), job.entries.end());
    const std::vector<std::pair<std::string, uint32_t>> expected = {{"", QFI_ENTRY_DIRECTORY},
                                                                    {"file", QFI_ENTRY_FILE},
                                                                    {"folder", QFI_ENTRY_DIRECTORY},
                                                                    {"folder/other", QFI_ENTRY_FILE}};
    EXPECT_EQ(job.entries, expected);
}

TEST_F(Btrfs, the_store_below_the_object_is_left_out) {
    fs::create_directories(root / "vol/data/.store/images");
    write_file(root / "vol/data/.store/catalog", "rows");
    for (const char *name : {"first", "second"}) {
        Job job(root / "vol/data", root / "vol/data/.store/images", name);
        job.exclude(root / "vol/data/.store");
        ASSERT_EQ(btrfs->split(&job), 0) << job.failed_operation << " " << job.failed_object;
        EXPECT_TRUE(job.remarks.empty()) << job.remarks[0].path << ": the store's own images are no part of the object";
        EXPECT_EQ(listing(root / "vol/data/.store/images" / name / "data"), data_as_made);
        EXPECT_TRUE(is_read_only(root / "vol/data/.store/images" / name));
    }
    EXPECT_EQ(content_of(root / "vol/data/.store/catalog"), "rows");
}

class BtrfsNested : public Btrfs {
protected:
    void SetUp() override {
        Btrfs::SetUp();
        if (IsSkipped())
            return;
        make_subvolume(root / "vol/data/inner");
        write_file(root / "vol/data/inner/file", "in");
        fs::create_directory(root / "vol/data/inner/folder");
        make_subvolume(root / "vol/data/inner/folder/innermost");
        write_file(root / "vol/data/inner/folder/innermost/file", "inmost");
        make_subvolume(root / "vol/beside");
    }
};

TEST_F(BtrfsNested, nested_subvolumes_are_remarked_once_and_skipped) {
    const std::vector<Remark> expected = {
        {QFI_REMARK_SKIPPED, "inner", "nested subvolume not included", 0},
        {QFI_REMARK_SKIPPED, "inner/folder/innermost", "nested subvolume not included", 0}};
    for (const uint32_t flags : {0u, uint32_t{QFI_JOB_MANIFEST}}) {
        const std::string name = "image" + std::to_string(flags);
        Job job(root / "vol/data", root / "store", name, flags);
        ASSERT_EQ(btrfs->split(&job), 0);
        EXPECT_EQ(job.remarks, expected) << "those of the object, and not vol/beside";
        EXPECT_TRUE(fs::is_empty(root / "store" / name / "data/inner"));
    }
}

TEST_F(BtrfsNested, its_owner_removes_an_image_with_nested_subvolumes_without_being_root) {
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root / "vol"))
        ASSERT_EQ(chown(entry.path().c_str(), 65534, 65534), 0);
    for (const char *path : {"vol", "store"})
        ASSERT_EQ(chown((root / path).c_str(), 65534, 65534), 0);
    fs::remove(root / "vol/beside");
    EXPECT_EQ(as_user(65534,
                      [&] {
                          Job job(root / "vol/data", root / "store", "image", QFI_JOB_NESTED);
                          EXPECT_EQ(btrfs->split(&job), 0) << job.failed_operation << " " << job.failed_object;
                          EXPECT_EQ(listing(root / "store/image/data"), listing(root / "vol/data"));
                          EXPECT_EQ(btrfs->remove(&job), 0) << job.failed_operation << " " << job.failed_object;
                          return !HasFailure();
                      }),
              0);
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

const std::vector<std::string> data_with_nested = {"d folder",        "d inner",
                                                   "d inner/folder",  "d inner/folder/innermost",
                                                   "f file=one",      "f folder/other=two",
                                                   "f inner/file=in", "f inner/folder/innermost/file=inmost"};

TEST_F(BtrfsNested, nested_subvolumes_are_included_when_asked_for_and_all_is_read_only) {
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_NESTED);
    ASSERT_EQ(btrfs->split(&job), 0) << job.failed_operation << " " << job.failed_object;
    const std::vector<Remark> expected = {
        {QFI_REMARK_WARNING, "", "nested subvolumes were frozen one after the other", 0}};
    EXPECT_EQ(job.remarks, expected);
    EXPECT_EQ(listing(root / "store/image/data"), data_with_nested);
    for (const char *path : {"", "data/inner", "data/inner/folder/innermost"})
        EXPECT_TRUE(is_read_only(root / "store/image" / path)) << path;
    EXPECT_FALSE(is_read_only(root / "vol/data/inner"));
}

TEST_F(BtrfsNested, a_manifest_tells_the_nested_entries_too) {
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_NESTED | QFI_JOB_MANIFEST);
    ASSERT_EQ(btrfs->split(&job), 0);
    const auto has = [&](const char *path) {
        return std::any_of(job.entries.begin(), job.entries.end(), [&](const auto &one) { return one.first == path; });
    };
    EXPECT_TRUE(has("inner/file"));
    EXPECT_TRUE(has("inner/folder/innermost/file"));
}

TEST_F(BtrfsNested, an_image_with_nested_subvolumes_is_removed_whole) {
    Job job(root / "vol/data", root / "store", "image", QFI_JOB_NESTED);
    ASSERT_EQ(btrfs->split(&job), 0);
    Job removal(root / "store", root / "store", "image", QFI_JOB_SYNC);
    EXPECT_EQ(btrfs->remove(&removal), 0) << removal.failed_operation << " " << removal.failed_object;
    EXPECT_TRUE(fs::is_empty(root / "store"));
    EXPECT_EQ(listing(root / "vol/data"), data_with_nested);
}

TEST_F(BtrfsNested, a_half_made_image_is_removed) {
    // As a crash leaves it: a writable snapshot, one nested subvolume in its place and still writable, one not yet.
    ASSERT_EQ(btrfs_util_create_snapshot((root / "vol").c_str(), (root / "store/image").c_str(), 0, nullptr, nullptr),
              BTRFS_UTIL_OK);
    fs::remove(root / "store/image/data/inner");
    ASSERT_EQ(btrfs_util_create_snapshot((root / "vol/data/inner").c_str(), (root / "store/image/data/inner").c_str(),
                                         BTRFS_UTIL_CREATE_SNAPSHOT_READ_ONLY, nullptr, nullptr),
              BTRFS_UTIL_OK);
    Job removal(root / "store", root / "store", "image");
    EXPECT_EQ(btrfs->remove(&removal), 0) << removal.failed_operation << " " << removal.failed_object;
    EXPECT_TRUE(fs::is_empty(root / "store"));
}

TEST_F(BtrfsNested, a_whole_subvolume_is_copied_out_with_those_nested_in_it) {
    Job job(root / "vol/data/inner", root / "store", "image", QFI_JOB_NESTED);
    ASSERT_EQ(btrfs->split(&job), 0);
    Job out(root / "store/image", root, "restored", QFI_JOB_SYNC);
    ASSERT_EQ(btrfs->copy_out(&out), 0) << out.failed_operation << " " << out.failed_object;
    EXPECT_TRUE(is_subvolume(root / "restored"));
    EXPECT_TRUE(is_subvolume(root / "restored/folder/innermost"));
    write_file(root / "restored/folder/innermost/file", "writable");
    EXPECT_EQ(content_of(root / "store/image/folder/innermost/file"), "inmost");
}

TEST_F(Btrfs, every_one_of_many_nested_subvolumes_is_remarked) {
    // The kernel lists 255 at a time.
    for (int i = 0; i < 260; ++i)
        make_subvolume(root / "vol/data" / ("inner" + std::to_string(i)));
    Job job(root / "vol/data", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    std::set<std::string> paths;
    for (const Remark &remark : job.remarks)
        paths.insert(remark.path);
    EXPECT_EQ(job.remarks.size(), 260u);
    EXPECT_EQ(paths.size(), 260u);
}

TEST_F(Btrfs, an_ordinary_directory_is_copied_out_as_an_ordinary_writable_directory) {
    Job job(root / "vol/data", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    Job out(root / "store/image/data", root / "vol", "restored");
    ASSERT_EQ(btrfs->copy_out(&out), 0) << out.failed_operation << " " << out.failed_object;
    EXPECT_FALSE(is_subvolume(root / "vol/restored"));
    EXPECT_EQ(listing(root / "vol/restored"), data_as_made);
    write_file(root / "vol/restored/file", "writable");
    EXPECT_EQ(content_of(root / "store/image/data/file"), "one");
}

TEST_F(Btrfs, a_copy_goes_to_another_file_system_too) {
    const LoopFilesystem other("ext4");
    Job job(root / "vol", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    Job out(root / "store/image", other.path(), "restored");
    ASSERT_EQ(btrfs->copy_out(&out), 0) << out.failed_operation << " " << out.failed_object;
    EXPECT_EQ(listing(other.path() + "/restored/data"), data_as_made);
}

TEST_F(Btrfs, a_resync_brings_the_original_back) {
    Job job(root / "vol/data", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    write_file(root / "vol/data/file", "changed and longer");
    write_file(root / "vol/data/new", "x");
    fs::remove_all(root / "vol/data/folder");
    Job back(root / "store/image/data", root / "vol", "data");
    ASSERT_EQ(btrfs->resync(&back), 0) << back.failed_operation << " " << back.failed_object;
    EXPECT_EQ(listing(root / "vol/data"), data_as_made);
}

TEST_F(Btrfs, removing_deletes_the_snapshot_and_ordinary_trees_and_what_is_not_there) {
    Job job(root / "vol/data", root / "store", "image");
    ASSERT_EQ(btrfs->split(&job), 0);
    Job removal(root / "store", root / "store", "image");
    EXPECT_EQ(btrfs->remove(&removal), 0);
    EXPECT_FALSE(fs::exists(root / "store/image"));
    EXPECT_EQ(btrfs->remove(&removal), 0) << "not there any more";
    fs::create_directories(root / "store/image/folder");
    write_file(root / "store/image/folder/file", "x");
    EXPECT_EQ(btrfs->remove(&removal), 0);
    EXPECT_FALSE(fs::exists(root / "store/image"));
    EXPECT_EQ(listing(root / "vol/data"), data_as_made);
}

TEST_F(Btrfs, removing_a_symbolic_link_leaves_the_subvolume_that_it_names) {
    fs::create_directory_symlink(root / "vol", root / "store/image");
    Job removal(root / "store", root / "store", "image");
    EXPECT_EQ(btrfs->remove(&removal), 0);
    EXPECT_FALSE(fs::is_symlink(root / "store/image"));
    EXPECT_EQ(listing(root / "vol/data"), data_as_made);
}

TEST_F(Btrfs, no_image_ever_holds_the_second_of_two_writes_without_the_first) {
    std::atomic<bool> stop = false;
    write_file(root / "vol/data/first", "0");
    write_file(root / "vol/data/folder/second", "0");
    std::thread writer([&] {
        for (unsigned round = 1; !stop; ++round) {
            write_file(root / "vol/data/first.new", std::to_string(round));
            fs::rename(root / "vol/data/first.new", root / "vol/data/first");
            write_file(root / "vol/data/folder/second.new", std::to_string(round));
            fs::rename(root / "vol/data/folder/second.new", root / "vol/data/folder/second");
        }
    });
    unsigned long last = 0;
    for (int image = 0; image < 20; ++image) {
        const std::string name = "image" + std::to_string(image);
        Job job(root / "vol/data", root / "store", name);
        EXPECT_EQ(btrfs->split(&job), 0);
        const std::string first = content_of(root / "store" / name / "data/first");
        const std::string second = content_of(root / "store" / name / "data/folder/second");
        EXPECT_FALSE(first.empty());
        EXPECT_FALSE(second.empty());
        EXPECT_GE(std::stoul("0" + first), std::stoul("0" + second)) << name;
        EXPECT_LE(std::stoul("0" + first), std::stoul("0" + second) + 1) << name;
        last = std::stoul("0" + second);
    }
    stop = true;
    writer.join();
    EXPECT_GT(last, 0u) << "the writer wrote meanwhile";
}

} // namespace
