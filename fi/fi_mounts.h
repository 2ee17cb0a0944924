// The mounted file systems of this process, from /proc/self/mountinfo.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fi/fi_library.h"

namespace qzfi::fi {

struct Mount {
    int id = 0;
    uint64_t device = 0;     // st_dev of what lies there (a btrfs subvolume has one of its own)
    std::string root;        // the part of the file system that is mounted
    std::string mount_point; // unescaped
    std::string type;        // "xfs"
    std::string source;      // "/dev/sda1"
    bool read_only = false;
};

/// All, in mount order. Throws Failure.
std::vector<Mount> mounts(const char *operation);
/// The mount that a path lies on: the last of the longest mount points above it.
const Mount &mount_of(const std::vector<Mount> &mounts, const std::string &path);
/// The mount that an entry is found on, as the kernel says: a later mount may hide those whose mount points lie above
/// the path. Where the kernel does not say it, `mount_of`.
const Mount &mount_at(const std::vector<Mount> &mounts, const std::string &path);
/// Whether something else is found at the mount point.
bool is_hidden(const Mount &mount);
/// Whether a path may lie on a file system that a place is on, or below one of its mounts. False only for one of a
/// server, which is not asked: it may be gone, and whoever asks waits for ever.
bool may_share_filesystem(const std::vector<Mount> &mounts, const std::string &path, const std::string &place);

} // namespace qzfi::fi
