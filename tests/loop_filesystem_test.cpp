#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <linux/magic.h>

#include "support/loop_filesystem.h"

namespace {

namespace fs = std::filesystem;

struct Kind {
    const char *type;
    long magic;
};

class EachType : public testing::TestWithParam<Kind> {
protected:
    void SetUp() override {
        if (const auto obstacle = LoopFilesystem::obstacle(GetParam().type))
            GTEST_SKIP() << *obstacle;
    }
};

std::string backing_file_of(const std::string &device) {
    std::ifstream in("/sys/block/" + fs::path(device).filename().string() + "/loop/backing_file");
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST_P(EachType, is_mounted_and_writable_and_gone_afterwards) {
    std::string path, device;
    {
        const LoopFilesystem disk(GetParam().type);
        path = disk.path();
        device = disk.device();
        struct statfs status {};
        ASSERT_EQ(statfs(path.c_str(), &status), 0);
        EXPECT_EQ(status.f_type, GetParam().magic);
        std::ofstream(path + "/file") << "text";
        EXPECT_EQ(fs::file_size(path + "/file"), 4u);
    }
    EXPECT_FALSE(fs::exists(path));
    std::ifstream in("/proc/self/mounts");
    const std::string mounts{std::istreambuf_iterator<char>(in), {}};
    EXPECT_EQ(mounts.find(path), std::string::npos);
}

TEST_P(EachType, read_only_refuses_new_files_until_it_is_writable_again) {
    LoopFilesystem disk(GetParam().type);
    disk.remount(true);
    EXPECT_FALSE(std::ofstream(disk.path() + "/file").is_open());
    disk.remount(false);
    EXPECT_TRUE(std::ofstream(disk.path() + "/file").is_open());
}

TEST_P(EachType, a_killed_process_leaves_no_loop_device_attached) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        unshare(CLONE_NEWNS);
        const LoopFilesystem disk(GetParam().type);
        const std::string said = disk.path() + " " + disk.device() + " " + backing_file_of(disk.device());
        const bool told = write(ends[1], said.data(), said.size()) == static_cast<ssize_t>(said.size());
        _exit(told ? 7 : 1);
    }
    close(ends[1]);
    char said[500] = "";
    const ssize_t length = read(ends[0], said, sizeof(said) - 1);
    close(ends[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(WEXITSTATUS(status), 7);
    ASSERT_GT(length, 0);
    std::istringstream text(said);
    std::string path, device, backing_file;
    text >> path >> device >> std::ws;
    std::getline(text, backing_file, '\0');
    EXPECT_TRUE(fs::is_empty(path)) << "only the empty mount point is left";
    fs::remove(path);
    if (device.empty())
        return;
    ASSERT_NE(backing_file.find("/qzfi-loop-"), std::string::npos) << backing_file;
    // The kernel takes a dead process's mounts down in its own time, and another test may have the device by then.
    for (int tries = 0; tries < 1000 && backing_file_of(device) == backing_file; ++tries)
        usleep(10000);
    EXPECT_NE(backing_file_of(device), backing_file);
}

INSTANTIATE_TEST_SUITE_P(Loop, EachType,
                         testing::Values(Kind{"btrfs", BTRFS_SUPER_MAGIC}, Kind{"xfs", XFS_SUPER_MAGIC},
                                         Kind{"ext4", EXT4_SUPER_MAGIC}, Kind{"tmpfs", TMPFS_MAGIC}),
                         [](const auto &kind) { return std::string(kind.param.type); });

TEST(LoopFilesystem, an_unknown_type_is_an_obstacle) {
    EXPECT_NE(LoopFilesystem::obstacle("nosuchfs"), std::nullopt);
}

TEST(LoopFilesystem, one_that_a_process_serves_is_gone_afterwards_too) {
    if (const auto obstacle = LoopFilesystem::obstacle("exfat"))
        GTEST_SKIP() << *obstacle;
    std::string path;
    {
        const LoopFilesystem disk("exfat", 64);
        path = disk.path();
        std::ofstream(path + "/File") << "text";
        EXPECT_EQ(fs::file_size(path + "/fILE"), 4u) << "it is really this one";
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(LoopFilesystem, arguments_of_mkfs_are_given_to_it) {
    if (const auto obstacle = LoopFilesystem::obstacle("ext4"))
        GTEST_SKIP() << *obstacle;
    const LoopFilesystem disk("ext4", 32, "", {"-L", "a label"});
    char name[17] = "";
    std::ifstream device(disk.device(), std::ios::binary);
    device.seekg(1024 + 120);
    device.read(name, 16);
    EXPECT_STREQ(name, "a label");
}

TEST(LoopFilesystem, a_file_system_that_mkfs_refuses_throws_and_leaves_nothing) {
    if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
        GTEST_SKIP() << *obstacle;
    EXPECT_THROW(LoopFilesystem("btrfs", 1), std::exception);
}

} // namespace
