// Bringing an existing tree up to date: what is there already, and what has to go.
#include "providers/engine/engine_copy.h"

#include <climits>
#include <cstdio>
#include <dirent.h>
#include <linux/fs.h>
#include <new>
#include <sys/ioctl.h>

#include <qzfi_fi.h>

#include "providers/engine/engine_remove.h"

namespace qzfi::engine {
namespace {

bool is_same_kept(const Stat &a, const Stat &b) {
    return a.stx_mode == b.stx_mode && a.stx_uid == b.stx_uid && a.stx_gid == b.stx_gid &&
           is_same_time(a.stx_mtime, b.stx_mtime);
}

bool is_same_link(int link, const char *link_target) {
    char present[PATH_MAX + 1];
    const ssize_t size = readlinkat(link, "", present, PATH_MAX);
    return size >= 0 && strlen(link_target) == static_cast<std::size_t>(size) &&
           memcmp(present, link_target, static_cast<std::size_t>(size)) == 0;
}

/// Whether a directory is the root of another volume than the directory that it is in.
bool is_other_volume(int parent, const Stat &child) {
    Stat above;
    return S_ISDIR(child.stx_mode) && stat_of(parent, above) == 0 && device_of(above) != device_of(child);
}

bool has_same_content(Run &run, Worker &worker, const FileCopy &copy, int present, const Stat &stat,
                      uint8_t (&digest)[16]) {
    uint8_t other[16];
    const Moved source = digest_of(run, worker, copy.from.get(), copy.stat, digest);
    const Moved target = digest_of(run, worker, present, stat, other);
    return source.operation == nullptr && target.operation == nullptr && !source.is_short &&
           memcmp(digest, other, sizeof other) == 0;
}

} // namespace

bool is_same_special(int descriptor, const Stat &present, const Stat &wanted, const char *link_target) {
    return (present.stx_mode & S_IFMT) == (wanted.stx_mode & S_IFMT) &&
           present.stx_rdev_major == wanted.stx_rdev_major && present.stx_rdev_minor == wanted.stx_rdev_minor &&
           (link_target == nullptr || is_same_link(descriptor, link_target));
}

void Copier::temporary_name(char (&out)[256]) {
    snprintf(out, sizeof out, ".qzfi-%016llx-%llx", static_cast<unsigned long long>(run_),
             static_cast<unsigned long long>(temporary_.fetch_add(1)));
}

bool is_temporary_name(const char *name) noexcept {
    constexpr const char *digits = "0123456789abcdef";
    constexpr std::size_t prefix = 6, run = 16;
    if (strncmp(name, ".qzfi-", prefix) != 0 || strspn(name + prefix, digits) != run || name[prefix + run] != '-')
        return false;
    const char *const number = name + prefix + run + 1;
    return *number != 0 && number[strspn(number, digits)] == 0;
}

/// A target file may become, or stay, only one source file: false when it is another one's.
bool Copier::claim_target(const Stat &target, const Stat &source, bool &was_ours) {
    was_ours = false;
    if (source.stx_nlink <= 1 && target.stx_nlink <= 1)
        return true;
    const std::lock_guard lock(targets_mutex_);
    const auto [at, is_new] = targets_.try_emplace({device_of(target), target.stx_ino},
                                                   std::pair<uint64_t, uint64_t>{device_of(source), source.stx_ino});
    was_ours = !is_new;
    return at->second == std::pair<uint64_t, uint64_t>{device_of(source), source.stx_ino};
}

/// Whether attributes of what is there are changed in place. By a further name, or by its owner, it may be somebody's
/// file that a stranger linked or moved there, and who is given it could read it, or write to it still.
bool Copier::may_be_mended(const Stat &present, const Stat &source) const noexcept {
    return present.stx_nlink <= 1 &&
           (present.stx_uid == source.stx_uid || !gives_owners_.load(std::memory_order_relaxed));
}

/// True when nothing is left to do for the file; otherwise it is to be made, unless `is_done` says that it failed.
bool Copier::is_file_up_to_date(Worker &worker, FileCopy &copy, bool &is_done) {
    Directory &directory = *copy.directory;
    Stat present;
    if (stat_of(directory.target, copy.name, present) != 0) {
        is_done = errno != ENOENT;
        if (is_done)
            fail_target(worker, "statx", &directory, copy.name, errno);
        return false;
    }
    if (S_ISDIR(present.stx_mode)) {
        is_done = !remove_target(worker, directory, copy.name);
        return false;
    }
    bool was_ours = false;
    const bool may_stay = S_ISREG(present.stx_mode) && present.stx_size == copy.stat.stx_size &&
                          is_same_time(present.stx_mtime, copy.stat.stx_mtime) &&
                          claim_target(present, copy.stat, was_ours);
    Descriptor target;
    if (may_stay)
        target = Descriptor(open_within(directory.target, copy.name, O_RDONLY | O_NONBLOCK));
    Stat opened;
    const bool is_right = target && stat_of(target.get(), opened) == 0 && is_same(present, opened);
    const auto make_anew = [&] {
        copy.is_existing = true;
        temporary_name(copy.made_as);
        return false;
    };
    if (!is_right || (options.digest && !has_same_content(*this, worker, copy, target.get(), opened, copy.digest)))
        return make_anew();
    const uint32_t flags = flags_of(target.get());
    const bool has_same = is_same_kept(copy.stat, opened) &&
                          has_same_extended(worker, Place{copy.from.get()}, Place{target.get()}) && flags == copy.flags;
    if (!has_same && !may_be_mended(opened, copy.stat))
        return make_anew();
    copy.has_digest = options.digest;
    if (has_same && (flags & unknown_flags) != 0)
        remark(worker, QFI_REMARK_ATTRIBUTE, &directory, copy.name, "inode flags that cannot be read", 0);
    if (!has_same) {
        clear_forbidding_flags(target.get());
        const Known known{opened.stx_uid, opened.stx_gid, opened.stx_mode, true};
        const Subject subject{*this, worker, &directory, copy.name};
        keep_attributes(subject, Place{copy.from.get()}, Place{target.get()}, copy.stat, known, true, copy.flags);
        changed();
    }
    tell_entry(worker, &directory, copy.name, copy.stat, nullptr, copy.has_digest ? copy.digest : nullptr);
    settle(worker, copy, true, opened.stx_ino);
    return true;
}

/// As for files: links, device nodes and FIFOs that differ are removed first.
bool Copier::is_special_up_to_date(Worker &worker, Directory &directory, const char *name, const Stat &stat,
                                   const char *link_target, bool &is_done) {
    Stat present;
    if (stat_of(directory.target, name, present) != 0) {
        is_done = errno != ENOENT;
        if (is_done)
            fail_target(worker, "statx", &directory, name, errno);
        return false;
    }
    bool was_ours = false;
    const Descriptor target(open_within(directory.target, name, O_PATH));
    const bool is_same_thing = target && stat_of(target.get(), present) == 0 &&
                               is_same_special(target.get(), present, stat, link_target) &&
                               claim_target(present, stat, was_ours);
    if (!is_same_thing) {
        is_done = !remove_target(worker, directory, name);
        return false;
    }
    const Place from{-1, directory.source, name}, to{-1, target.get(), ""};
    if (is_same_kept(stat, present) && has_same_extended(worker, from, to))
        return true;
    if (S_ISFIFO(stat.stx_mode) && !may_be_mended(present, stat)) {
        is_done = !remove_target(worker, directory, name);
        return false;
    }
    const Known known{present.stx_uid, present.stx_gid, present.stx_mode, true};
    const Subject subject{*this, worker, &directory, name};
    keep_attributes(subject, from, to, stat, known, true, 0);
    changed();
    return true;
}

/// Makes a FIFO or device node in a folder that nobody else can change anything in, and puts it in place when it has
/// its owner: in place, another's could have its name by then.
bool Copier::make_special_apart(Worker &worker, Directory &directory, const char *name, const Stat &stat) {
    constexpr mode_t of_others = 0077;
    char folder[256];
    temporary_name(folder);
    if (mkdirat(directory.target, folder, 0700) != 0) {
        fail_target(worker, "mkdirat", &directory, name, errno);
        return false;
    }
    const Descriptor apart(open_within(directory.target, folder, O_RDONLY | O_DIRECTORY));
    Stat opened;
    bool is_made = false;
    if (!apart || stat_of(apart.get(), opened) != 0) {
        fail_target(worker, "openat2", &directory, name, errno);
    } else if (opened.stx_uid != geteuid() || (opened.stx_mode & of_others) != 0) {
        remark(worker, QFI_REMARK_WARNING, &directory, name, put_there_meanwhile, 0);
    } else {
        is_made = make_special_in(worker, directory, apart.get(), name, stat, nullptr) &&
                  put_new(worker, directory, apart.get(), name);
        if (!is_made)
            unlinkat(apart.get(), name, 0);
    }
    unlinkat(directory.target, folder, AT_REMOVEDIR);
    return is_made;
}

/// Puts a new entry in its place where nothing is.
bool Copier::put_new(Worker &worker, Directory &directory, int from, const char *name) {
    if (renameat2(from, name, directory.target, name, RENAME_NOREPLACE) == 0)
        return true;
    if (errno == EINVAL && renameat(from, name, directory.target, name) == 0) // not every file system can
        return true;
    if (errno == EEXIST)
        remark(worker, QFI_REMARK_WARNING, &directory, name, put_there_meanwhile, EEXIST);
    else
        fail_target(worker, "renameat2", &directory, name, errno);
    return false;
}

/// Opens a directory that is there; what is there instead is removed. False when the tree cannot go on here.
bool Copier::open_existing(Worker &worker, int parent, Directory *above, const char *name, Directory &child,
                           bool &is_there) {
    const bool is_root = above == &child;
    const char *const shown = is_root ? nullptr : name;
    Stat present;
    is_there = false;
    if (stat_of(parent, name, present) != 0) {
        if (errno != ENOENT)
            fail_target(worker, "statx", above, shown, errno);
        return errno == ENOENT;
    }
    if (!S_ISDIR(present.stx_mode)) {
        if (!is_root)
            return remove_target(worker, *above, name);
        fail(worker, QFI_FI_UNSAFE, "openat2", above, nullptr, ENOTDIR);
        return false;
    }
    child.target = open_within(parent, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    if (child.target < 0 && errno == EXDEV && !is_root) {
        remark(worker, QFI_REMARK_SKIPPED, above, name, "another file system is mounted there", 0);
        return false;
    }
    if (child.target < 0 || stat_of(child.target, present) != 0) {
        fail_target(worker, "openat2", above, shown, errno);
        return false;
    }
    // What a nested volume holds was not frozen with the rest: it is not the source's to change.
    if (!is_root && !options.nested_volumes && is_other_volume(parent, present)) {
        remark(worker, QFI_REMARK_SKIPPED, above, name, "a nested subvolume is there", 0);
        return false;
    }
    if (is_excluded(options, present))
        return false;
    if ((present.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0)
        clear_forbidding_flags(child.target, &child.forbidding);
    child.target_existed = true;
    is_there = true;
    return true;
}

/// Removes what the source does not have. The target is listed piece by piece, and the source asked for each name. A
/// socket stays: no copy has one, so that the source has none says nothing, and it is somebody's who runs.
void Copier::remove_extra(Worker &worker, Directory &directory) {
    const Descriptor listed(open_within(directory.target, ".", O_RDONLY | O_DIRECTORY));
    const Bytes records = allocate(listing_size);
    long size = 0;
    while (listed && !is_stopped() && (size = syscall(SYS_getdents64, listed.get(), records.get(), listing_size)) > 0) {
        for (long at = 0; at < size && !is_stopped();) {
            const auto *const record = reinterpret_cast<const Dirent *>(records.get() + at);
            at += record->length;
            const char *const name = record->name;
            if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
                continue;
            Stat stat;
            if (stat_of(directory.source, name, stat) == 0)
                continue;
            if (errno != ENOENT) {
                passed_over(worker, "statx", directory, name, errno); // then it is no reason to remove what is there
                continue;
            }
            if (record->type == DT_SOCK ||
                (record->type == DT_UNKNOWN && stat_of(directory.target, name, stat) == 0 && S_ISSOCK(stat.stx_mode))) {
                remark(worker, QFI_REMARK_SKIPPED, &directory, name, "not removed: a socket", 0);
                continue;
            }
            if (remove_target(worker, directory, name))
                progress(worker, 1);
        }
    }
    if (!listed || size < 0)
        fail_target(worker, "getdents64", &directory, nullptr, errno);
}

/// Removes an entry of the target with all below. False when it stays: the run fails, or it is not ours to remove.
bool Copier::remove_target(Worker &worker, Directory &directory, const char *name) {
    Stat present;
    const bool is_there = stat_of(directory.target, name, present) == 0;
    if (is_there && (present.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) { // of a file too
        remark(worker, QFI_REMARK_SKIPPED, &directory, name, "another file system is mounted there", 0);
        return false;
    }
    if (is_there && is_other_volume(directory.target, present)) {
        remark(worker, QFI_REMARK_SKIPPED, &directory, name, "not removed: it holds what is left out", 0);
        return false;
    }
    std::string path;
    append_path(path, &directory);
    const Removed removed = remove_entry(*this, directory.target, name, path);
    for (uint64_t i = 0; i < removed.entries; ++i)
        changed();
    if (removed.status == 0 && !removed.is_kept)
        return true;
    if (removed.status != 0)
        stop(removed.status);
    else
        remark(worker, QFI_REMARK_SKIPPED, &directory, name, "not removed: it holds what is left out", 0);
    return false;
}

/// A file that forbids it is replaced all the same; it has lost nothing should that fail.
bool Copier::put_in_place(Worker &worker, Directory &directory, const char *made_as, const char *name) {
    const auto put = [&] { return renameat(directory.target, made_as, directory.target, name) == 0; };
    if (put())
        return true;
    int error = errno;
    const Descriptor present(error == EPERM ? open_within(directory.target, name, O_RDONLY | O_NONBLOCK) : -1);
    unsigned flags = 0;
    if (present && ioctl(present.get(), FS_IOC_GETFLAGS, &flags) == 0 && clear_forbidding_flags(present.get())) {
        if (put())
            return true;
        error = errno;
        ioctl(present.get(), FS_IOC_SETFLAGS, &flags);
    }
    fail_target(worker, "renameat", &directory, name, error);
    return false;
}

} // namespace qzfi::engine
