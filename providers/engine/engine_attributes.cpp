#include "providers/engine/engine_attributes.h"

#include <cstdio>
#include <cstring>
#include <linux/fs.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace qzfi::engine {
namespace {

constexpr std::size_t usual_list = 1024;     // the kernel allocates as much as it is offered
constexpr std::size_t longest_list = 65536;  // XATTR_LIST_MAX
constexpr std::size_t longest_value = 65536; // XATTR_SIZE_MAX
constexpr char rights_prefix[] = "system.posix_acl_";
constexpr uint64_t much_room = uint64_t{8} << 20;
constexpr uint32_t forbidding_flags = FS_IMMUTABLE_FL | FS_APPEND_FL;

struct FlagName {
    uint32_t flag;
    const char *name;
};
constexpr FlagName kept_flags[] = {
    {FS_IMMUTABLE_FL, "immutable flag"},
    {FS_APPEND_FL, "append-only flag"},
    {FS_NODUMP_FL, "no-dump flag"},
    {FS_COMPR_FL, "compression flag"},
    {FS_NOCOMP_FL, "no-compression flag"},
    {FS_NOCOW_FL, "no-COW flag"},
    {FS_NOATIME_FL, "no access time flag"},
    {FS_SYNC_FL, "synchronous flag"},
    {FS_DIRSYNC_FL, "synchronous directory flag"},
};
static_assert((unknown_flags & FS_FL_USER_VISIBLE) == 0);
constexpr uint32_t all_kept_flags() {
    uint32_t all = 0;
    for (const FlagName &flag : kept_flags)
        all |= flag.flag;
    return all;
}

constexpr std::size_t longest_path = 32 + 256;

/// A place that is no descriptor, as a path. Where it has no name the path leads to the entry, which is not followed.
bool put_path(char (&path)[longest_path], const Place &place) noexcept {
    const bool has_name = *place.name != '\0';
    snprintf(path, sizeof path, has_name ? "/proc/self/fd/%d/%s" : "/proc/self/fd/%d", place.directory, place.name);
    return has_name;
}

/// Flags for the calls on a place that is no descriptor.
int flags_at(const Place &place) noexcept {
    return *place.name != '\0' ? AT_SYMLINK_NOFOLLOW : AT_EMPTY_PATH;
}

/// The calls on extended attributes of a place. By name they go through the directory's descriptor, and do not follow
/// the name itself.
class Extended {
public:
    explicit Extended(const Place &place) noexcept : descriptor_(place.descriptor), directory_(place.directory) {
        if (descriptor_ < 0)
            has_name_ = put_path(path_, place);
    }
    ssize_t list(char *names, std::size_t size) const noexcept {
        if (descriptor_ >= 0)
            return flistxattr(descriptor_, names, size);
        return (has_name_ ? llistxattr : listxattr)(path_, names, size);
    }
    ssize_t get(const char *name, char *value, std::size_t size) const noexcept {
        if (descriptor_ >= 0)
            return fgetxattr(descriptor_, name, value, size);
        return (has_name_ ? lgetxattr : getxattr)(path_, name, value, size);
    }
    int set(const char *name, const char *value, std::size_t size) const noexcept {
        if (descriptor_ >= 0)
            return fsetxattr(descriptor_, name, value, size, 0);
        return (has_name_ ? lsetxattr : setxattr)(path_, name, value, size, 0);
    }
    int remove(const char *name) const noexcept {
        if (descriptor_ >= 0)
            return fremovexattr(descriptor_, name);
        return (has_name_ ? lremovexattr : removexattr)(path_, name);
    }
    /// Ext4 and Btrfs say "no space" as well of an attribute that is too large for them, however much there is.
    bool has_room() const noexcept {
        const int error = errno;
        struct statfs status {};
        const bool is_known = (descriptor_ >= 0 ? fstatfs(descriptor_, &status) : fstatfs(directory_, &status)) == 0;
        errno = error;
        const uint64_t blocks = geteuid() == 0 ? status.f_bfree : status.f_bavail;
        return is_known && blocks * static_cast<uint64_t>(status.f_bsize) >= much_room;
    }

private:
    int descriptor_, directory_;
    bool has_name_ = false;
    char path_[longest_path];
};

} // namespace

void make_room(Worker &worker) {
    if (!worker.names)
        worker.names = allocate(2 * longest_list);
    if (!worker.values)
        worker.values = allocate(2 * longest_value);
}

namespace {

ssize_t list_all(const Extended &extended, char *names) noexcept {
    const ssize_t size = extended.list(names, usual_list);
    return size < 0 && errno == ERANGE ? extended.list(names, longest_list) : size;
}

bool has_name(const char *names, ssize_t size, const char *name) noexcept {
    for (const char *at = names; at < names + size; at += strlen(at) + 1) {
        if (strcmp(at, name) == 0)
            return true;
    }
    return false;
}

void remark_attribute(const Subject &subject, const char *detail, int error) {
    if (error == EIO || error == EROFS || error == ENOSPC || error == EDQUOT)
        subject.run.fail_target(subject.worker, detail, subject.directory, subject.name, error);
    else
        subject.run.remark(subject.worker, QFI_REMARK_ATTRIBUTE, subject.directory, subject.name, detail, error);
}

/// File systems without extended attributes have none to be kept.
bool is_without(int error) noexcept {
    return error == EOPNOTSUPP;
}

void keep_one(const Subject &subject, const Extended &source, const Extended &target, const char *name, bool compares) {
    char *const value = subject.worker.values.get();
    const ssize_t size = source.get(name, value, longest_value);
    if (size < 0 && errno == ENODATA)
        return; // gone since it was listed
    if (size < 0)
        return subject.run.remark(subject.worker, QFI_REMARK_ATTRIBUTE, subject.directory, subject.name, name, errno);
    if (compares) {
        char *const present = value + longest_value;
        if (target.get(name, present, longest_value) == size &&
            memcmp(value, present, static_cast<std::size_t>(size)) == 0)
            return;
    }
    if (target.set(name, value, static_cast<std::size_t>(size)) == 0)
        return;
    if (errno == ENOSPC && target.has_room())
        return subject.run.remark(subject.worker, QFI_REMARK_ATTRIBUTE, subject.directory, subject.name, name, ENOSPC);
    remark_attribute(subject, name, errno);
}

void keep_extended(const Subject &subject, const Place &from, const Place &to, bool is_exact) {
    make_room(subject.worker);
    const Extended source(from), target(to);
    char *const names = subject.worker.names.get();
    const ssize_t size = list_all(source, names);
    if (size < 0 && !is_without(errno)) // then it is no reason to remove what is there
        return subject.run.remark(subject.worker, QFI_REMARK_ATTRIBUTE, subject.directory, subject.name,
                                  "extended attributes", errno);
    if (is_exact) {
        char *const present = names + longest_list;
        const ssize_t present_size = list_all(target, present);
        if (present_size < 0 && !is_without(errno))
            remark_attribute(subject, "extended attributes", errno);
        for (const char *at = present; at < present + present_size; at += strlen(at) + 1) {
            if (!has_name(names, size, at) && target.remove(at) != 0 && errno != ENODATA)
                remark_attribute(subject, at, errno);
        }
    }
    // A list of rights may take away that of setting the others.
    for (const bool are_rights : {false, true}) {
        for (const char *at = names; at < names + size; at += strlen(at) + 1) {
            if ((strncmp(at, rights_prefix, sizeof rights_prefix - 1) == 0) == are_rights)
                keep_one(subject, source, target, at, is_exact);
        }
    }
}

int change_owner(const Place &place, uid_t uid, gid_t gid) noexcept {
    return place.descriptor >= 0 ? fchown(place.descriptor, uid, gid)
                                 : fchownat(place.directory, place.name, uid, gid, flags_at(place));
}

int change_mode(const Place &place, mode_t mode) noexcept {
    if (place.descriptor >= 0)
        return fchmod(place.descriptor, mode);
    char path[longest_path];
    return put_path(path, place) ? fchmodat(place.directory, place.name, mode, AT_SYMLINK_NOFOLLOW)
                                 : fchmodat(AT_FDCWD, path, mode, 0);
}

int change_times(const Place &place, const Stat &stat) noexcept {
    const timespec times[2] = {time_of(stat.stx_atime), time_of(stat.stx_mtime)};
    return place.descriptor >= 0 ? futimens(place.descriptor, times)
                                 : utimensat(place.directory, place.name, times, flags_at(place));
}

void keep_flags(const Subject &subject, int target, uint32_t flags) {
    if ((flags & unknown_flags) != 0)
        return subject.run.remark(subject.worker, QFI_REMARK_ATTRIBUTE, subject.directory, subject.name,
                                  "inode flags that cannot be read", 0);
    unsigned present = 0;
    if (ioctl(target, FS_IOC_GETFLAGS, &present) != 0)
        present = 0;
    const unsigned wanted = (present & ~all_kept_flags()) | flags;
    if (wanted == present || ioctl(target, FS_IOC_SETFLAGS, &wanted) == 0)
        return;
    for (const FlagName &flag : kept_flags) {
        const unsigned with = (present & ~flag.flag) | (flags & flag.flag);
        if (with == present)
            continue;
        if (ioctl(target, FS_IOC_SETFLAGS, &with) == 0)
            present = with;
        else
            remark_attribute(subject, flag.name, errno);
    }
}

} // namespace

uint32_t flags_of(int descriptor) noexcept {
    unsigned flags = 0;
    if (ioctl(descriptor, FS_IOC_GETFLAGS, &flags) == 0)
        return flags & all_kept_flags();
    const bool has_none = errno == ENOTTY || errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL;
    return has_none ? 0 : unknown_flags;
}

void keep_early_flags(int target, uint32_t flags, bool may_inherit) {
    if ((flags & FS_NOCOW_FL) == 0 && !may_inherit)
        return;
    unsigned present = 0;
    if (ioctl(target, FS_IOC_GETFLAGS, &present) != 0)
        return;
    const unsigned wanted = (present & ~unsigned{FS_NOCOW_FL}) | (flags & FS_NOCOW_FL);
    if (wanted != present)
        ioctl(target, FS_IOC_SETFLAGS, &wanted);
}

void drop_inherited_flags(int directory) noexcept {
    unsigned present = 0;
    if (ioctl(directory, FS_IOC_GETFLAGS, &present) != 0 || (present & all_kept_flags()) == 0)
        return;
    present &= ~all_kept_flags();
    ioctl(directory, FS_IOC_SETFLAGS, &present);
}

bool clear_forbidding_flags(int descriptor, uint32_t *taken) noexcept {
    unsigned flags = 0;
    if (ioctl(descriptor, FS_IOC_GETFLAGS, &flags) != 0)
        return false;
    const uint32_t present = flags & forbidding_flags;
    if (present == 0)
        return true;
    flags &= ~forbidding_flags;
    if (ioctl(descriptor, FS_IOC_SETFLAGS, &flags) != 0)
        return false;
    if (taken != nullptr)
        *taken = present;
    return true;
}

int has_extended(Worker &worker, const Place &place) {
    make_room(worker);
    const ssize_t size = Extended(place).list(worker.names.get(), usual_list);
    if (size >= 0)
        return size > 0;
    if (errno == ERANGE)
        return 1;
    return is_without(errno) ? 0 : -1;
}

bool has_same_extended(Worker &worker, const Place &from, const Place &to) {
    make_room(worker);
    const Extended source(from), target(to);
    char *const names = worker.names.get();
    char *const present = names + longest_list;
    const ssize_t size = list_all(source, names);
    const bool is_listed = size >= 0 || is_without(errno);
    const ssize_t present_size = list_all(target, present);
    if (!is_listed || (present_size < 0 && !is_without(errno)))
        return false; // keeping them will remark it
    if (size <= 0 && present_size <= 0)
        return true;
    if (size != present_size)
        return false;
    char *const value = worker.values.get();
    for (const char *at = names; at < names + size; at += strlen(at) + 1) {
        const ssize_t length = source.get(at, value, longest_value);
        if (length < 0 || target.get(at, value + longest_value, longest_value) != length ||
            memcmp(value, value + longest_value, static_cast<std::size_t>(length)) != 0)
            return false;
    }
    return true;
}

bool keeps_what_it_takes(int directory) noexcept {
    constexpr mode_t odd = 01700, usual = 0700;
    constexpr timespec times[2] = {{0, UTIME_OMIT}, {int64_t{1} << 32, 123456789}};
    Stat kept{};
    const bool is_kept = futimens(directory, times) == 0 && fchmod(directory, odd) == 0 &&
                         stat_of(directory, kept) == 0 && (kept.stx_mode & 07777) == odd &&
                         kept.stx_mtime.tv_sec == times[1].tv_sec &&
                         kept.stx_mtime.tv_nsec == static_cast<uint32_t>(times[1].tv_nsec);
    return fchmod(directory, usual) == 0 && is_kept;
}

namespace {

/// What could not be kept, as far as it was said.
struct Told {
    bool owner = false, mode = false, times = false;
};

void look_at_kept(const Subject &subject, const Place &target, const Stat &stat, mode_t wanted, const Told &told) {
    Stat kept;
    if ((target.descriptor >= 0 ? stat_of(target.descriptor, kept)
                                : stat_of(target.directory, target.name, flags_at(target), kept)) != 0)
        return remark_attribute(subject, "attributes", errno);
    const auto tell = [&](const char *detail) {
        subject.run.remark(subject.worker, QFI_REMARK_ATTRIBUTE, subject.directory, subject.name, detail, 0);
    };
    if (!told.owner && (kept.stx_uid != stat.stx_uid || kept.stx_gid != stat.stx_gid))
        tell("owner");
    if (!told.mode && !S_ISLNK(stat.stx_mode) && (kept.stx_mode & 07777) != wanted)
        tell("mode");
    if (!told.times && !is_same_time(kept.stx_mtime, stat.stx_mtime))
        tell("times");
}

} // namespace

void keep_attributes(const Subject &subject, const Place &source, const Place &target, const Stat &stat,
                     const Known &known, bool with_extended, uint32_t flags) {
    const bool is_link = S_ISLNK(stat.stx_mode);
    mode_t wanted = stat.stx_mode & 07777;
    mode_t present = known.mode & 07777;
    Told told;
    if (known.uid != stat.stx_uid || known.gid != stat.stx_gid) {
        if (change_owner(target, stat.stx_uid, stat.stx_gid) == 0) {
            present &= static_cast<mode_t>(~(S_ISUID | S_ISGID)); // as the kernel does
        } else {
            remark_attribute(subject, "owner", errno);
            wanted &= static_cast<mode_t>(~(S_ISUID | S_ISGID)); // rights of another owner than the one they were for
            told.owner = true;
        }
    }
    // Who is not root sets attributes of what he may write only: then the mode comes last.
    const bool is_late = with_extended && (S_ISREG(stat.stx_mode) || S_ISDIR(stat.stx_mode)) && (wanted & S_IWUSR) == 0;
    if (is_late) {
        present = (wanted & 0777) | S_IWUSR;
        change_mode(target, present);
        keep_extended(subject, source, target, known.is_exact);
    }
    if (!is_link && present != wanted && change_mode(target, wanted) != 0) {
        remark_attribute(subject, "mode", errno);
        told.mode = true;
    }
    if (with_extended && !is_late)
        keep_extended(subject, source, target, known.is_exact);
    if (change_times(target, stat) != 0) {
        remark_attribute(subject, "times", errno);
        told.times = true;
    }
    if (target.descriptor >= 0 && (flags != 0 || known.is_exact))
        keep_flags(subject, target.descriptor, flags);
    if (subject.run.looks_at_kept)
        look_at_kept(subject, target, stat, wanted, told);
}

} // namespace qzfi::engine
