#include "providers/btrfs/subvolume.h"

#include <btrfsutil.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/capability.h>
#include <linux/magic.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace qzfi::btrfs {
namespace {

using provider::Descriptor;

int result_of(btrfs_util_error result) noexcept {
    if (result == BTRFS_UTIL_OK)
        return 0;
    return errno != 0 ? errno : EIO;
}

bool identity(int fd, struct stat &status) noexcept {
    return fd >= 0 && fstat(fd, &status) == 0;
}

/// The directory above, or none at the top of all mounts.
Descriptor step_up(const Descriptor &at, const struct stat &here) noexcept {
    Descriptor above(openat(at.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat there {};
    if (!identity(above.get(), there))
        return Descriptor();
    if (there.st_ino == here.st_ino && there.st_dev == here.st_dev) {
        errno = EXDEV;
        return Descriptor();
    }
    return above;
}

std::optional<std::string> path_of(int fd) {
    char path[PATH_MAX];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
    if (length < 0)
        return std::nullopt;
    if (length == static_cast<ssize_t>(sizeof(path))) {
        errno = ENAMETOOLONG;
        return std::nullopt;
    }
    return std::string(path, static_cast<std::size_t>(length));
}

/// Asks the file system; for the privileged only.
std::optional<std::string> place_by_inode(uint64_t inode, int snapshot) {
    btrfs_ioctl_ino_lookup_args look_up{};
    look_up.objectid = inode;
    if (ioctl(snapshot, BTRFS_IOC_INO_LOOKUP, &look_up) != 0)
        return std::nullopt;
    std::string path(look_up.name);
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    return path;
}

std::optional<std::string> place_by_path(int directory, int root) {
    const auto whole = path_of(directory), top = path_of(root);
    if (!whole || !top)
        return std::nullopt;
    auto place = below(*top == "/" ? "" : *top, *whole);
    if (!place)
        errno = ENOENT;
    return place;
}

bool has_capability(unsigned capability) noexcept {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0)
        return false;
    return (data[capability / 32].effective >> capability % 32 & 1) != 0;
}

int list_below(int top, int root, const std::string &prefix, std::vector<Subvolume> &list);

/// One subvolume, and those below it. What this user may not see is left out, and what was deleted meanwhile.
int list_one(int top, int root, const std::string &prefix, uint64_t id, uint64_t directory,
             std::vector<Subvolume> &list) {
    btrfs_ioctl_ino_lookup_user_args look_up{};
    look_up.dirid = directory;
    look_up.treeid = id;
    if (ioctl(root, BTRFS_IOC_INO_LOOKUP_USER, &look_up) != 0)
        return errno == EACCES || errno == ENOENT ? 0 : errno;
    const std::string path = prefix + look_up.path + look_up.name;
    list.push_back({path, id});
    const Descriptor nested = provider::open_directory(top, path);
    if (!nested || !is_subvolume(nested.get())) // no right to search it, or a mount covers it
        return 0;
    return list_below(top, nested.get(), path + "/", list);
}

/// The subvolumes below `root`, which lies at `prefix` below `top`. libbtrfsutil has an iterator, but for users without
/// privileges it closes the descriptor that it is given, and with it perhaps another thread's.
int list_below(int top, int root, const std::string &prefix, std::vector<Subvolume> &list) {
    btrfs_ioctl_get_subvol_rootref_args page{};
    for (bool more = true; more;) {
        more = ioctl(root, BTRFS_IOC_GET_SUBVOL_ROOTREF, &page) != 0;
        if (more && errno != EOVERFLOW)
            return errno;
        for (unsigned i = 0; i < page.num_items; ++i)
            if (const int error = list_one(top, root, prefix, page.rootref[i].treeid, page.rootref[i].dirid, list);
                error != 0)
                return error;
    }
    return 0;
}

int delete_one(int root, const std::string &path) {
    const auto [parent, name] = split_path(path);
    const Descriptor directory = provider::open_directory(root, parent);
    if (!directory)
        return errno;
    return result_of(btrfs_util_delete_subvolume_fd(directory.get(), name.c_str(), 0));
}

} // namespace

bool is_btrfs(int directory) noexcept {
    struct statfs status {};
    return fstatfs(directory, &status) == 0 && status.f_type == BTRFS_SUPER_MAGIC;
}

bool is_subvolume(int directory) noexcept {
    return btrfs_util_is_subvolume_fd(directory) == BTRFS_UTIL_OK;
}

uint64_t id_of(int directory) noexcept {
    uint64_t id = 0;
    return is_subvolume(directory) && btrfs_util_subvolume_id_fd(directory, &id) == BTRFS_UTIL_OK ? id : 0;
}

Descriptor open_root(int directory) noexcept {
    Descriptor at(openat(directory, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat first {
    }, here{};
    if (!identity(at.get(), first))
        return Descriptor();
    here = first;
    while (here.st_ino != BTRFS_FIRST_FREE_OBJECTID) {
        at = step_up(at, here);
        if (!identity(at.get(), here))
            return Descriptor();
        if (here.st_dev != first.st_dev) {
            errno = EXDEV;
            return Descriptor();
        }
    }
    return Descriptor(openat(at.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

Descriptor open_above(int below, uint64_t device, uint64_t inode) noexcept {
    if (inode == 0)
        return Descriptor();
    Descriptor at(openat(below, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat here {};
    while (identity(at.get(), here)) {
        if (here.st_dev == device && here.st_ino == inode)
            return at;
        at = step_up(at, here);
    }
    return Descriptor();
}

bool may_snapshot(int root) noexcept {
    struct stat status {};
    return identity(root, status) && (status.st_uid == geteuid() || has_capability(CAP_FOWNER));
}

int snapshot(int root, int target, const char *name, bool read_only) noexcept {
    const int flags = read_only ? BTRFS_UTIL_CREATE_SNAPSHOT_READ_ONLY : 0;
    return result_of(btrfs_util_create_snapshot_fd2(root, target, name, flags, nullptr, nullptr));
}

bool is_snapshot_of(int snapshot, int root) noexcept {
    struct btrfs_util_subvolume_info copy {
    }, original{};
    return btrfs_util_subvolume_info_fd(snapshot, 0, &copy) == BTRFS_UTIL_OK &&
           btrfs_util_subvolume_info_fd(root, 0, &original) == BTRFS_UTIL_OK &&
           std::memcmp(copy.parent_uuid, original.uuid, sizeof original.uuid) == 0;
}

int set_read_only(int root, bool read_only) noexcept {
    return result_of(btrfs_util_set_subvolume_read_only_fd(root, read_only));
}

int sync(int directory) noexcept {
    return result_of(btrfs_util_sync_fd(directory));
}

std::optional<std::string> place_of(int directory, int root, int snapshot) {
    struct stat object {
    }, found{};
    if (!identity(directory, object))
        return std::nullopt;
    if (object.st_ino == BTRFS_FIRST_FREE_OBJECTID)
        return "";
    auto place = place_by_inode(object.st_ino, snapshot);
    if (!place && errno == EPERM)
        place = place_by_path(directory, root);
    if (!place)
        return std::nullopt;
    const Descriptor there = provider::open_directory(snapshot, *place);
    if (!identity(there.get(), found))
        return std::nullopt;
    if (found.st_ino == object.st_ino)
        return place;
    errno = ENOENT;
    return std::nullopt;
}

int nested_in(int root, std::vector<Subvolume> &list) {
    list.clear();
    return list_below(root, root, "", list);
}

int delete_subvolumes(int root, int target, const char *name, std::string &failed) {
    std::vector<Subvolume> nested;
    failed.clear();
    if (const int error = nested_in(root, nested); error != 0)
        return error;
    if (const int error = set_read_only(root, false); error != 0)
        return error;
    for (const Subvolume &one : nested) {
        failed = one.path;
        const Descriptor directory = provider::open_directory(root, one.path);
        const int error = directory ? set_read_only(directory.get(), false) : errno;
        if (error != 0)
            return error;
    }
    for (auto one = nested.rbegin(); one != nested.rend(); ++one) {
        failed = one->path;
        if (const int error = delete_one(root, one->path); error != 0)
            return error;
    }
    failed.clear();
    return result_of(btrfs_util_delete_subvolume_fd(target, name, 0));
}

std::pair<std::string, std::string> split_path(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

std::optional<std::string> below(const std::string &directory, const std::string &path) {
    if (directory.empty())
        return path;
    if (path.size() <= directory.size() || path[directory.size()] != '/' ||
        path.compare(0, directory.size(), directory) != 0)
        return std::nullopt;
    return path.substr(directory.size() + 1);
}

} // namespace qzfi::btrfs
