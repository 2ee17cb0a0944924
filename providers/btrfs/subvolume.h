// Subvolumes of Btrfs: finding, freezing, deleting them. Functions that give an int give 0 or an errno.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "providers/engine/engine_provider.h"

namespace qzfi::btrfs {

bool is_btrfs(int directory) noexcept;
/// Whether a directory is the root of a subvolume.
bool is_subvolume(int directory) noexcept;
/// 0 when it is in no subvolume.
uint64_t id_of(int directory) noexcept;

/// Opens the root of the subvolume that holds a directory. Empty: the errno; EXDEV when the root is not above it in the
/// mounts.
provider::Descriptor open_root(int directory) noexcept;
/// Opens the directory with this identity, at or above `below`. Empty when there is none.
provider::Descriptor open_above(int below, uint64_t device, uint64_t inode) noexcept;

/// Whether the kernel lets this user make a snapshot of the subvolume: to its owner, and with CAP_FOWNER.
bool may_snapshot(int root) noexcept;
int snapshot(int root, int target, const char *name, bool read_only) noexcept;
/// Whether a subvolume is a snapshot of another one.
bool is_snapshot_of(int snapshot, int root) noexcept;
int set_read_only(int root, bool read_only) noexcept;
int sync(int directory) noexcept;

/// Where a directory of the live subvolume `root` lies in a snapshot of it: inodes keep their numbers. Nothing, and an
/// errno, when it is not there (ENOENT) or cannot be looked up.
std::optional<std::string> place_of(int directory, int root, int snapshot);

struct Subvolume {
    std::string path; // below the subvolume that was asked
    uint64_t id;
};
/// The subvolumes below the root of one, outer ones before those nested in them, as far as this user may see them.
int nested_in(int root, std::vector<Subvolume> &list);

/// Deletes the subvolume `target/name`, open as `root`, read-only or not, with those nested in it. `failed` is the path
/// below it that could not be deleted.
int delete_subvolumes(int root, int target, const char *name, std::string &failed);

/// A path's directory ("" for none) and its last name.
std::pair<std::string, std::string> split_path(const std::string &path);
/// The rest of a path below a directory; nothing when it is not below it.
std::optional<std::string> below(const std::string &directory, const std::string &path);

} // namespace qzfi::btrfs
