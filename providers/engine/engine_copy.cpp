// Copying a tree: its directories, hard links and the entries that are no files.
#include "providers/engine/engine_copy.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr mode_t private_directory = 0700; // nobody looks into what is being made
constexpr int most_looks = 6;

/// The umask, which nobody can ask for without changing it for all threads.
uint32_t read_umask() {
    Descriptor status(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    char text[1024];
    const ssize_t size = status ? read(status.get(), text, sizeof text - 1) : 0;
    text[size > 0 ? size : 0] = '\0';
    const char *const line = strstr(text, "\nUmask:");
    return line != nullptr ? static_cast<uint32_t>(strtoul(line + 7, nullptr, 8)) : 0777; // not known: set all modes
}

/// By the clock and the process where the kernel has none to give.
uint64_t random_number() {
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof number))
        return number;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return (static_cast<uint64_t>(getpid()) << 32) ^ static_cast<uint64_t>(now.tv_sec * 1'000'000'000 + now.tv_nsec);
}

} // namespace

Copier::Copier(const Options &given, const qfi_provider_host &to, bool updates)
    : Run(given, to), updates_(updates), links_(directories, given.digest), umask_(read_umask()),
      most_waiting_(std::clamp<std::size_t>(eighth_of_descriptors() / std::max(given.workers, 1u) / 2, 1, 32)),
      waiting_(std::max(given.workers, 1u)), run_(random_number()) {}

Copier::~Copier() {
    for (LateFlags &late : late_)
        directories.unreference(late.directory);
}

void Copier::run(int source, int target, const char *name) {
    Directory *root = nullptr;
    try {
        make_room(main_worker());
        root = open_root(main_worker(), source, target, name);
    } catch (const std::bad_alloc &) {
        stop(QFI_STATUS_NO_MEMORY);
    }
    if (root == nullptr)
        return;
    root->references.fetch_add(1, std::memory_order_relaxed);
    const Referenced held{directories, root};
    const Descriptor kept(fcntl(root->target, F_DUPFD_CLOEXEC, 3));
    work(root);
    for (Links::Waiting *waiting = links_.take_waiting(); waiting != nullptr;)
        done_in(main_worker(), Links::next(waiting));
    keep_late_flags();
    // One flush of the file system holds all that was written before: data, directories and the journal's order.
    if (options.sync && !is_stopped() && syncfs(kept ? kept.get() : root->target) != 0)
        fail_target(main_worker(), "syncfs", root, nullptr, errno);
}

Directory *Copier::open_root(Worker &worker, int source, int target, const char *name) {
    Directory *const root = Directory::make(nullptr, "");
    Referenced held{directories, root};
    root->source = open_to_read(source, ".", O_DIRECTORY);
    if (root->source < 0 || stat_of(root->source, root->stat) != 0) {
        fail_source(worker, "openat2", root, nullptr, errno);
        return nullptr;
    }
    struct statfs filesystem {};
    if (fstatfs(root->source, &filesystem) == 0) {
        lists_inodes_ = filesystem.f_type == BTRFS_SUPER_MAGIC || filesystem.f_type == XFS_SUPER_MAGIC ||
                        filesystem.f_type == EXT4_SUPER_MAGIC || filesystem.f_type == TMPFS_MAGIC;
    }
    // Btrfs lets one thread at a time write a file, and those that wait only cost.
    const bool is_known = fstatfs(target, &filesystem) == 0;
    shares_files_ = !is_known || filesystem.f_type != BTRFS_SUPER_MAGIC;
    if (!shares_files_)
        means_.least_in_kernel = 0; // there writing costs more than sharing
    // New names and extents of a Btrfs subvolume all go into one tree, whose locks cost two workers more than they win.
    takes_turns_ = !shares_files_ && options.data != Data::copy && !options.digest;
    shares_blocks_ = is_known && (filesystem.f_type == BTRFS_SUPER_MAGIC || filesystem.f_type == XFS_SUPER_MAGIC);
    bool is_there = false;
    if (lies_apart(worker, root, target, name) && updates_ &&
        !open_existing(worker, target, root, name, *root, is_there))
        return nullptr;
    if (is_stopped() || (!is_there && !make_directory(worker, target, root, name, *root)))
        return nullptr;

    // What is made below belongs to whom it belongs in the root: the root must pass on no group, ACL or inode flags.
    Stat made;
    if (stat_of(root->target, made) != 0) {
        fail_target(worker, "statx", root, nullptr, errno);
        return nullptr;
    }
    made_root_ = made;
    made_uid_ = is_there ? geteuid() : made.stx_uid;
    made_gid_ = getegid();
    if (!is_there && (made.stx_gid != made_gid_ || (made.stx_mode & S_ISGID) != 0)) {
        if (fchown(root->target, static_cast<uid_t>(-1), made_gid_) != 0)
            made_gid_ = made.stx_gid;
        fchmod(root->target, private_directory);
    }
    if (!is_there) {
        fremovexattr(root->target, "system.posix_acl_default");
        drop_inherited_flags(root->target);
    }
    looks_at_kept = is_there || !keeps_what_it_takes(root->target); // what is there is not to be tried out on
    const Place place{root->source};
    root->has_attributes = has_extended(worker, place) != 0 || flags_of(root->source) != 0;
    directories.adopt(*root);
    if (is_there)
        remove_extra(worker, *root);
    return std::exchange(held.directory, nullptr);
}

/// Fails where one tree lies in the other: a copy would copy itself without end, an update remove what it reads.
/// Excluded directories are not entered, so what lies in them lies apart.
bool Copier::lies_apart(Worker &worker, Directory *root, int target, const char *name) {
    Stat there;
    const bool is_there = updates_ && stat_of(target, name, there) == 0;
    if (!is_within(target, root->stat) && !(is_there && (is_same(there, root->stat) || is_within(root->source, there))))
        return true;
    fail(worker, QFI_FI_UNSAFE, "the tree and its copy lie one within the other", root, nullptr, 0);
    return false;
}

/// Whether a directory is another one, or below it, on the way up that can be gone.
bool Copier::is_within(int directory, const Stat &outer) const {
    Descriptor at(fcntl(directory, F_DUPFD_CLOEXEC, 3));
    Stat stat, above;
    while (at && stat_of(at.get(), stat) == 0 && !is_excluded(options, stat)) {
        if (is_same(stat, outer))
            return true;
        Descriptor up(openat(at.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!up || stat_of(up.get(), above) != 0 || is_same(stat, above))
            return false;
        at = std::move(up);
    }
    return false;
}

bool Copier::make_directory(Worker &worker, int parent, Directory *above, const char *name, Directory &child) {
    if (mkdirat(parent, name, private_directory) != 0) {
        if (errno == EEXIST && above != &child)
            remark(worker, QFI_REMARK_WARNING, above, name, "listed twice, or differs in case only: the first is kept",
                   EEXIST);
        else if (errno == EEXIST)
            fail(worker, QFI_FI_EXISTS, "mkdirat", above, nullptr, EEXIST);
        else
            fail_target(worker, "mkdirat", above, above == &child ? nullptr : name, errno);
        return false;
    }
    child.target = open_within(parent, name, O_RDONLY | O_DIRECTORY);
    if (child.target < 0)
        fail_target(worker, "openat2", above, above == &child ? nullptr : name, errno);
    else if ((umask_ & private_directory) != 0 && fchmod(child.target, private_directory) != 0)
        fail_target(worker, "fchmod", above, above == &child ? nullptr : name, errno);
    changed();
    return child.target >= 0;
}

bool Copier::enter(Worker &worker, Directory &parent, Directory &child) {
    const char *const name = child.name();
    if (!enter_source(worker, parent, child))
        return false;
    if (is_same(child.stat, made_root_)) { // moved there meanwhile
        remark(worker, QFI_REMARK_SKIPPED, &parent, name, "the copy itself", 0);
        return false;
    }
    bool is_there = false;
    if (updates_ && !open_existing(worker, parent.target, &parent, name, child, is_there))
        return false;
    if (!is_there && !make_directory(worker, parent.target, &parent, name, child))
        return false;
    child.has_attributes = has_extended(worker, Place{child.source}) != 0 || flags_of(child.source) != 0;
    if (is_there)
        remove_extra(worker, child);
    return !is_stopped();
}

void Copier::leave(Worker &worker, Directory &directory) {
    const Place from{directory.source}, to{directory.target};
    Stat latest; // what came in or went while it was read moved its times
    if (stat_of(directory.source, latest) == 0) {
        if (!is_same_time(latest.stx_mtime, directory.stat.stx_mtime))
            remark(worker, QFI_REMARK_WARNING, &directory, nullptr, "entries came or went while it was read", 0);
        directory.stat = latest;
    }
    Known known{made_uid_, made_gid_, private_directory, directory.target_existed};
    if (updates_) {
        Stat now;
        if (stat_of(directory.target, now) == 0)
            known = {now.stx_uid, now.stx_gid, now.stx_mode, true};
    }
    const bool with_extended = !directory.is_gone && (directory.has_attributes || updates_);
    const uint32_t flags = directory.has_attributes && !directory.is_gone ? flags_of(directory.source) : 0;
    const Subject subject{*this, worker, &directory, nullptr};
    directory.forbidding = 0; // it gets the source's
    keep_attributes(subject, from, to, directory.stat, known, with_extended, flags);
    tell_entry(worker, &directory, nullptr, directory.stat, nullptr, nullptr);
}

void Copier::entry(Worker &worker, Directory &directory, const char *name, uint8_t type, uint64_t inode) {
    if (type == DT_REG && link_listed(worker, directory, name, inode))
        return;
    uint16_t mode = type == DT_REG ? S_IFREG : 0;
    for (int look = 0; look < most_looks && !is_stopped(); ++look) {
        if (S_ISREG(mode)) {
            if (file(worker, directory, name) == Outcome::done)
                return;
            mode = 0; // no longer what was listed
        } else if (special(worker, directory, name, mode) == Outcome::done) {
            return;
        } else if (S_ISDIR(mode)) {
            return push_subdirectory(directory, name);
        }
    }
    if (!is_stopped())
        remark(worker, QFI_REMARK_TORN, &directory, name, "it becomes something else again and again", 0);
}

/// A file that is known to be another name of one that was made, as the directory says, and a look at it: its inode
/// number may be another file's by now.
bool Copier::link_listed(Worker &worker, Directory &directory, const char *name, uint64_t inode) {
    if (!lists_inodes_ || links_.is_empty())
        return false;
    Links::Linked to;
    if (!links_.find(device_of(directory.stat), inode, to))
        return false;
    const Referenced release{directories, to.directory};
    Stat stat;
    if (stat_of(directory.source, name, stat) != 0 || stat.stx_ino != inode || stat.born != to.born ||
        stat.stx_nlink < 2 || device_of(stat) != device_of(directory.stat))
        return false;
    return link(worker, directory, name, stat, to);
}

/// Makes a name of a file that was made. False when it must be made by itself.
bool Copier::link(Worker &worker, Directory &directory, const char *name, const Stat &stat, const Links::Linked &to) {
    if (updates_) {
        Stat present;
        if (stat_of(directory.target, name, present) == 0) {
            if (present.stx_ino == to.target_inode) {
                links_.linked(stat);
                tell_entry(worker, &directory, name, stat, nullptr, to.has_digest ? to.digest : nullptr);
                return true;
            }
            if (!remove_target(worker, directory, name))
                return true;
        }
    }
    if (to.directory != &directory && !directories.acquire(*to.directory)) {
        fail_target(worker, "openat2", to.directory, nullptr, errno);
        return true;
    }
    const bool is_linked = linkat(to.directory->target, to.name, directory.target, name, 0) == 0;
    const int error = errno;
    if (to.directory != &directory)
        directories.release(*to.directory);
    if (is_linked || error == EEXIST) {
        if (!is_linked)
            remark(worker, QFI_REMARK_WARNING, &directory, name,
                   "listed twice, or differs in case only: the first is kept", EEXIST);
        changed();
        worker.note(true);
        links_.linked(stat);
        tell_entry(worker, &directory, name, stat, nullptr, to.has_digest ? to.digest : nullptr);
        return true;
    }
    if (error == EMLINK || error == EPERM || error == EOPNOTSUPP || error == ENOENT || error == EXDEV) {
        remark(worker, QFI_REMARK_ATTRIBUTE, &directory, name, "hard link", error);
        return false;
    }
    fail_target(worker, "linkat", &directory, name, error);
    return true;
}

/// Makes an entry that is neither file nor directory; `mode` is what it turns out to be.
Copier::Outcome Copier::special(Worker &worker, Directory &directory, const char *name, uint16_t &mode) {
    Stat stat;
    if (stat_of(directory.source, name, stat) != 0) {
        passed_over(worker, "statx", directory, name, errno);
        return Outcome::done;
    }
    mode = stat.stx_mode;
    if (S_ISREG(mode) || S_ISDIR(mode))
        return Outcome::other_type;
    if ((stat.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        passed_over(worker, "statx", directory, name, EXDEV);
        return Outcome::done;
    }
    if (S_ISSOCK(mode)) {
        remark(worker, QFI_REMARK_SKIPPED, &directory, name, "a socket", 0);
        Stat present; // a socket there is somebody's who runs
        if (updates_ && stat_of(directory.target, name, present) == 0 && !S_ISSOCK(present.stx_mode))
            remove_target(worker, directory, name);
        return Outcome::done;
    }
    char link_target[PATH_MAX + 1] = "";
    if (S_ISLNK(mode)) {
        const ssize_t size = readlinkat(directory.source, name, link_target, PATH_MAX);
        if (size < 0 && errno == EINVAL)
            return Outcome::other_type;
        if (size < 0) {
            passed_over(worker, "readlinkat", directory, name, errno);
            return Outcome::done;
        }
        link_target[size] = '\0';
        stat.stx_size = static_cast<uint64_t>(size);
    }

    Links::Linked to;
    const bool is_linked = stat.stx_nlink > 1;
    if (is_linked) {
        const Links::Claim claim = links_.claim(stat, directory, name, to);
        if (claim == Links::Claim::deferred)
            return Outcome::done;
        if (claim == Links::Claim::link) {
            const bool is_made = link(worker, directory, name, stat, to);
            directories.unreference(to.directory);
            if (is_made)
                return Outcome::done;
        }
    }
    const char *const shown = S_ISLNK(mode) ? link_target : nullptr;
    bool is_done = false, is_made = false;
    if (!updates_ || !is_special_up_to_date(worker, directory, name, stat, shown, is_done))
        is_made = !is_done && make_special(worker, directory, name, stat, shown);
    else
        is_made = true;
    Stat made;
    const uint64_t inode =
        is_linked && updates_ && is_made && stat_of(directory.target, name, made) == 0 ? made.stx_ino : 0;
    if (is_linked)
        resume(worker, links_.made(stat, is_made, nullptr, inode), DT_UNKNOWN);
    if (is_made)
        tell_entry(worker, &directory, name, stat, shown, nullptr);
    return Outcome::done;
}

bool Copier::make_special(Worker &worker, Directory &directory, const char *name, const Stat &stat,
                          const char *link_target) {
    return updates_ && link_target == nullptr
               ? make_special_apart(worker, directory, name, stat)
               : make_special_in(worker, directory, directory.target, name, stat, link_target);
}

/// Makes an entry in the directory's target or, on the way to it, `where`.
bool Copier::make_special_in(Worker &worker, Directory &directory, int where, const char *name, const Stat &stat,
                             const char *link_target) {
    const mode_t mode = stat.stx_mode & (S_IFMT | 07777);
    const int result = link_target != nullptr
                           ? symlinkat(link_target, where, name)
                           : mknodat(where, name, mode, makedev(stat.stx_rdev_major, stat.stx_rdev_minor));
    if (result != 0 && errno == EEXIST) {
        remark(worker, QFI_REMARK_WARNING, &directory, name, "listed twice, or differs in case only: the first is kept",
               EEXIST);
        return false;
    }
    if (result != 0 && (errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS)) {
        remark(worker, QFI_REMARK_SKIPPED, &directory, name,
               link_target != nullptr ? "symbolic links cannot be made there" : "device nodes cannot be made there",
               errno);
        return false;
    }
    if (result != 0) {
        fail_target(worker, link_target != nullptr ? "symlinkat" : "mknodat", &directory, name, errno);
        return false;
    }
    changed();
    reached(Point::created, name);
    const Place from{-1, directory.source, name};
    Place to{-1, where, name};
    Known known{made_uid_, made_gid_, stat.stx_mode & ~umask_, updates_};
    Descriptor made;
    if (updates_) { // where others may rename things, and which passes on what it likes
        Stat now;
        made = Descriptor(open_within(where, name, O_PATH));
        if (!made || stat_of(made.get(), now) != 0) {
            fail_target(worker, "openat2", &directory, name, errno);
            return false;
        }
        if (!is_same_special(made.get(), now, stat, link_target)) {
            remark(worker, QFI_REMARK_WARNING, &directory, name, put_there_meanwhile, 0);
            return false;
        }
        to = Place{-1, made.get(), ""};
        known = {now.stx_uid, now.stx_gid, now.stx_mode, true};
    }
    const int extended = has_extended(worker, from);
    if (extended < 0)
        remark(worker, QFI_REMARK_ATTRIBUTE, &directory, name, "extended attributes", errno);
    const Subject subject{*this, worker, &directory, name};
    keep_attributes(subject, from, to, stat, known, extended > 0 || updates_, 0);
    return true;
}

/// Flags that would have forbidden further links.
void Copier::keep_late_flags() {
    for (LateFlags &late : late_) {
        if (is_stopped())
            return;
        Directory &directory = *late.directory;
        const bool is_open = directories.acquire(directory);
        const Descriptor file(is_open ? open_within(directory.target, late.name.get(), O_RDONLY | O_NONBLOCK) : -1);
        const bool is_kept = file && ioctl(file.get(), FS_IOC_SETFLAGS, &late.flags) == 0;
        const int error = errno;
        if (is_open)
            directories.release(directory);
        if (!is_kept)
            remark(main_worker(), QFI_REMARK_ATTRIBUTE, &directory, late.name.get(), "immutable or append-only flag",
                   error);
    }
}

} // namespace qzfi::engine
