// Real file systems for tests, each on a loop device over a sparse temporary file, seen by the test's process only.
//
//     void SetUp() override {
//         if (const auto obstacle = LoopFilesystem::obstacle("btrfs"))
//             GTEST_SKIP() << *obstacle;
//     }
//     TEST_F(...) {
//         LoopFilesystem disk("btrfs", 512);
//         write(disk.path() + "/file", ...);
//     }
//
// The first call of `obstacle` gives the process a private mount namespace, so it belongs before any thread is started;
// threads and children started later see the mounts. The destructor unmounts. When the process dies instead, the kernel
// does it: the mounts go with the namespace, the loop device with its last mount, the file has no name any more.
#pragma once

#include <optional>
#include <string>
#include <vector>

class LoopFilesystem {
public:
    /// Why a file system of this type ("btrfs", "xfs", "ext4", "tmpfs", "exfat") cannot be made here, to be skipped
    /// with; nothing when it can.
    static std::optional<std::string> obstacle(const std::string &type);

    /// Makes and mounts one. "xfs" needs 300 megabytes at least and can clone files (unless `made_with` says
    /// otherwise); "btrfs" needs 110; "exfat" runs in a process of its own, and everything on it is root's alone.
    /// `options` are mount options, as in "noatime", `made_with` more arguments of mkfs. Throws std::exception when the
    /// system refuses, which fails the test.
    explicit LoopFilesystem(const std::string &type, unsigned megabytes = 512, const std::string &options = "",
                            const std::vector<std::string> &made_with = {});
    ~LoopFilesystem();
    LoopFilesystem(const LoopFilesystem &) = delete;
    LoopFilesystem &operator=(const LoopFilesystem &) = delete;

    /// Where it is mounted, without "/" at its end: an empty directory (but for ext4's "lost+found") of root, mode
    /// 0755.
    const std::string &path() const { return path_; }
    /// The block device, "/dev/loop3"; empty for tmpfs.
    const std::string &device() const { return device_; }
    /// Makes it read-only, or writable again. Throws while a file is open for writing.
    void remount(bool read_only);

private:
    void make(const std::string &type, unsigned megabytes, const std::string &options,
              const std::vector<std::string> &made_with);
    void release() noexcept;

    std::string path_, device_;
};
