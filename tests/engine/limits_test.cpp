// Full disks, cancelled calls, few descriptors, little memory.
#include "engine_support.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qzfi_fi.h>

#include "providers/engine/engine_provider.h"
#include "support/loop_filesystem.h"
#include "support/sanitized.h"

using namespace qzfi::engine;

namespace {

class Limits : public EngineTest {
protected:
    /// A chain of folders, each with a file.
    void make_chain(const std::string &name, int depth) {
        ASSERT_EQ(mkdir((at + "/" + name).c_str(), 0755), 0);
        int fd = open((at + "/" + name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int i = 0; i < depth; ++i) {
            close(openat(fd, "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
            ASSERT_EQ(mkdirat(fd, "directory", 0755), 0);
            const int next = openat(fd, "directory", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            close(fd);
            fd = next;
        }
        close(fd);
    }
};

TEST_F(Limits, a_full_target_fails_the_call_with_its_own_status) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("ext4", 16);
    sh("mkdir s; head -c 40000000 /dev/urandom > s/f");
    const Result result = copy_tree(Folder(at + "/s").fd, Folder(disk.path()).fd, "c", options, host.record);
    EXPECT_EQ(result.status, static_cast<int32_t>(QFI_FI_NO_SPACE));
    EXPECT_EQ(host.failed_error, ENOSPC);
    EXPECT_EQ(host.failed_object, "f");
}

TEST_F(Limits, a_read_only_target_fails_the_call) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    LoopFilesystem disk("ext4", 16);
    disk.remount(true);
    sh("mkdir s; printf x > s/f");
    EXPECT_EQ(copy_tree(Folder(at + "/s").fd, Folder(disk.path()).fd, "c", options, host.record).status,
              static_cast<int32_t>(QFI_FI_WRITE));
    EXPECT_EQ(host.failed_error, EROFS);
}

TEST_F(Limits, an_existing_target_fails_the_copy) {
    sh("mkdir s c");
    EXPECT_EQ(copy("s", "c").status, static_cast<int32_t>(QFI_FI_EXISTS));
}

TEST_F(Limits, every_call_of_progress_can_cancel) {
    sh("mkdir s; for i in $(seq 500); do printf x > s/f$i; done");
    for (int kind = 0; kind < 4; ++kind) {
        for (int nth = 1;; ++nth) {
            TestHost fresh;
            fresh.cancel_at = nth;
            const Folder source(at + "/s"), target(at);
            Result result;
            if (kind == 0 || kind == 3)
                result = copy_tree(source.fd, target.fd, "c", options, fresh.record);
            else if (kind == 1)
                result = walk_tree(source.fd, options, fresh.record);
            else
                result = bring_up_to_date(source.fd, target.fd, "c", options, fresh.record);
            if (fresh.progress_calls < nth) {
                EXPECT_EQ(result.status, 0);
                EXPECT_GT(nth, 7);
                break;
            }
            EXPECT_EQ(result.status, static_cast<int32_t>(QFI_FI_CANCELLED));
            if (kind != 1) {
                EXPECT_EQ(remove("c").status, 0);
            }
        }
        EXPECT_EQ(remove("c").status, 0);
    }
}

TEST_F(Limits, a_host_that_takes_no_more_entries_ends_the_call_with_its_status) {
    make_zoo("s");
    options.entries = true;
    for (const int nth : {1, 7, 100}) {
        host.entries.clear();
        host.refuse_entry_at = nth;
        EXPECT_EQ(walk("s").status, 1037);
    }
}

TEST_F(Limits, a_chain_of_ten_thousand_folders_needs_few_descriptors) {
    char memory[] = "/dev/shm/qzfi_engine_XXXXXX"; // thousands of removals in a row wait for a disk's journal
    use(mkdtemp(memory));
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{64, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    make_chain("s", 10000);
    const Result copied = copy("s", "c");
    EXPECT_EQ(copied.status, 0) << host.failed_operation << host.failed_error;
    EXPECT_EQ(copied.entries, 20001u);
    const Result updated = update("s", "c");
    EXPECT_EQ(updated.status, 0);
    EXPECT_EQ(updated.changed, 0u);
    EXPECT_EQ(walk("c").entries, 20001u);
    EXPECT_EQ(remove("c").status, 0);
    EXPECT_EQ(remove("s").status, 0);
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(Limits, an_estimate_of_a_chain_of_folders_needs_few_descriptors_and_keeps_none) {
    make_chain("s", 1500);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{32, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator listed("/proc/self/fd");
        return std::distance(begin(listed), end(listed));
    };
    const auto open_before = open_descriptors();
    const qzfi::provider::Estimate sum = qzfi::provider::estimate(Folder(at + "/s").fd, -1, 0);
    EXPECT_EQ(open_descriptors(), open_before);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(sum.counted);
    EXPECT_EQ(sum.entries, 3001u);
}

TEST_F(Limits, many_folders_on_every_level_of_a_chain_are_found_again) {
    sh("mkdir s; p=s; for i in $(seq 40); do for j in $(seq 20); do mkdir -p $p/d$j; printf x > $p/d$j/f; done; "
       "mkdir $p/n; p=$p/n; done");
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{40, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_EQ(copy("s", "c").status, 0) << host.failed_operation << host.failed_error;
    setrlimit(RLIMIT_NOFILE, &before);
    expect_equal("s", "c");
}

TEST_F(Limits, one_folder_of_many_files_is_whole_with_many_workers) {
    constexpr uint64_t files = is_sanitized ? 5000 : 20000;
    sh("mkdir s; cd s; seq " + std::to_string(files) + " | xargs touch");
    options.workers = 8;
    EXPECT_EQ(copy("s", "c").entries, files + 1);
    expect_equal("s", "c");
    EXPECT_EQ(remove("c").status, 0);
}

TEST_F(Limits, a_large_file_is_copied_in_ranges_with_its_holes) {
    const long data = is_sanitized ? 40'000'000 : 90'000'000; // several ranges
    sh("mkdir s; head -c " + std::to_string(data) +
       " /dev/urandom > s/f; truncate -s 200000000 s/f; touch -d 2001-01-01 s/f");
    EXPECT_EQ(copy("s", "c").status, 0);
    expect_equal("s", "c");
    EXPECT_LT(std::stol(output("stat -c %b c/f")), (data + 1'000'000) / 512);
    TestHost cancels;
    cancels.cancel_at = 2;
    EXPECT_EQ(copy_tree(Folder(at + "/s").fd, Folder(at).fd, "d", options, cancels.record).status,
              static_cast<int32_t>(QFI_FI_CANCELLED));
}

TEST_F(Limits, hashing_one_large_file_tells_progress_and_can_be_cancelled_in_its_data_and_in_its_holes) {
    sh("mkdir data hole; head -c 67108864 /dev/zero > data/f; truncate -s 4G hole/f");
    options.digest = options.entries = true;
    EXPECT_EQ(walk("data").status, 0);
    EXPECT_GE(host.progress_calls, 30);
    host.progress_calls = 0;
    host.entries.clear();
    EXPECT_EQ(walk("hole").status, 0);
    EXPECT_GE(host.progress_calls, 60);
    for (const char *const name : {"data", "hole"}) {
        TestHost cancels;
        cancels.cancel_at = 2;
        EXPECT_EQ(walk_tree(Folder(at + "/" + name).fd, options, cancels.record).status,
                  static_cast<int32_t>(QFI_FI_CANCELLED));
        EXPECT_LE(cancels.progress_calls, 3);
        EXPECT_TRUE(cancels.entries.empty());
    }
}

} // namespace
