// Walking a tree for its entries, and the entries of the engine that copy.
#include <climits>
#include <cstring>
#include <dirent.h>
#include <new>

#include "providers/engine/engine_copy.h"

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr int most_looks = 3;

class Walker : public Run {
public:
    using Run::Run;
    void run(int source);

protected:
    void entry(Worker &worker, Directory &directory, const char *name, uint8_t type, uint64_t inode) override;
    bool enter(Worker &worker, Directory &parent, Directory &child) override;
    void leave(Worker &worker, Directory &directory) override;

private:
    bool file(Worker &worker, Directory &directory, const char *name);
    void remark_open(Worker &worker, Directory &directory, const char *name, int error);
};

void Walker::run(int source) {
    Directory *const root = Directory::make(nullptr, "");
    root->source = open_to_read(source, ".", O_DIRECTORY);
    if (root->source < 0 || stat_of(root->source, root->stat) != 0) {
        fail_source(main_worker(), "openat2", root, nullptr, errno);
        return directories.unreference(root);
    }
    directories.adopt(*root);
    work(root);
}

void Walker::remark_open(Worker &worker, Directory &directory, const char *name, int error) {
    if (is_shortage(error))
        return fail_source(worker, "openat2", &directory, name, error);
    if (error == ENOENT)
        return remark(worker, QFI_REMARK_VANISHED, &directory, name, "gone before it was read", error);
    if (error == EXDEV)
        return remark(worker, QFI_REMARK_SKIPPED, &directory, name, "another file system", 0);
    remark(worker, QFI_REMARK_UNREADABLE, &directory, name, "cannot be opened", error);
}

bool Walker::enter(Worker &worker, Directory &parent, Directory &child) {
    const char *const name = child.name();
    child.source = open_to_read(parent.source, name, O_DIRECTORY);
    if (child.source < 0 && (errno == ENOTDIR || errno == ELOOP)) {
        push_entry(parent, name, DT_UNKNOWN, 0);
        return false;
    }
    if (child.source < 0 || stat_of(child.source, child.stat) != 0) {
        remark_open(worker, parent, name, errno);
        return false;
    }
    if (is_excluded(options, child.stat))
        return false;
    if (device_of(child.stat) != device_of(parent.stat) && !options.nested_volumes) {
        remark(worker, QFI_REMARK_SKIPPED, &parent, name, "a nested subvolume", 0);
        return false;
    }
    return true;
}

void Walker::leave(Worker &worker, Directory &directory) {
    tell_entry(worker, &directory, nullptr, directory.stat, nullptr, nullptr);
}

void Walker::entry(Worker &worker, Directory &directory, const char *name, uint8_t, uint64_t) {
    Stat stat;
    if (stat_of(directory.source, name, stat) != 0)
        return remark_open(worker, directory, name, errno);
    if (S_ISDIR(stat.stx_mode))
        return push_subdirectory(directory, name);
    if ((stat.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0)
        return remark_open(worker, directory, name, EXDEV);
    if (S_ISREG(stat.stx_mode)) {
        if (options.digest)
            return void(file(worker, directory, name) || (push_entry(directory, name, DT_UNKNOWN, 0), true));
        worker.bytes += stat.stx_size;
    }
    char link_target[PATH_MAX + 1];
    if (!S_ISLNK(stat.stx_mode))
        return tell_entry(worker, &directory, name, stat, nullptr, nullptr);
    const ssize_t size = readlinkat(directory.source, name, link_target, PATH_MAX);
    if (size < 0)
        return remark_open(worker, directory, name, errno);
    link_target[size] = '\0';
    stat.stx_size = static_cast<uint64_t>(size);
    tell_entry(worker, &directory, name, stat, link_target, nullptr);
}

/// Reads a file for its digest. False when it is none any more.
bool Walker::file(Worker &worker, Directory &directory, const char *name) {
    const Descriptor from(open_to_read(directory.source, name, 0));
    if (!from && (errno == ELOOP || errno == ENXIO || errno == ENOTDIR))
        return false;
    Stat stat, now;
    if (!from || stat_of(from.get(), stat) != 0) {
        remark_open(worker, directory, name, errno);
        return true;
    }
    if (!S_ISREG(stat.stx_mode))
        return false;
    uint8_t digest[16];
    for (int look = 1; !is_stopped(); ++look) {
        const Moved moved = digest_of(*this, worker, from.get(), stat, digest);
        if (moved.operation != nullptr && is_shortage(moved.error)) {
            fail_source(worker, moved.operation, &directory, name, moved.error);
            return true;
        }
        if (moved.operation != nullptr) {
            remark(worker, QFI_REMARK_UNREADABLE, &directory, name, "cannot be read", moved.error);
            return true;
        }
        if (stat_of(from.get(), now) != 0 || (!moved.is_short && is_unchanged(stat, now)))
            break;
        stat = now;
        if (look == most_looks) {
            remark(worker, QFI_REMARK_TORN, &directory, name, "it changes whenever it is read", 0);
            break;
        }
    }
    if (!is_stopped())
        tell_entry(worker, &directory, name, stat, nullptr, digest);
    return true;
}

template <typename Work>
Result guarded(Run &run, Work work) {
    try {
        work();
    } catch (const std::bad_alloc &) {
        run.stop(QFI_STATUS_NO_MEMORY);
    }
    return run.result();
}

Result copy(int source, int target, const char *name, const Options &options, const qfi_provider_host &host,
            bool updates) {
    try {
        Copier copier(options, host, updates);
        return guarded(copier, [&] { copier.run(source, target, name); });
    } catch (const std::bad_alloc &) {
        return {QFI_STATUS_NO_MEMORY, 0, 0, 0, 0};
    }
}

} // namespace

Result copy_tree(int source, int target, const char *name, const Options &options, const qfi_provider_host &host) {
    return copy(source, target, name, options, host, false);
}

Result bring_up_to_date(int source, int target, const char *name, const Options &options,
                        const qfi_provider_host &host) {
    return copy(source, target, name, options, host, true);
}

Result walk_tree(int source, const Options &options, const qfi_provider_host &host) {
    try {
        Walker walker(options, host);
        return guarded(walker, [&] { walker.run(source); });
    } catch (const std::bad_alloc &) {
        return {QFI_STATUS_NO_MEMORY, 0, 0, 0, 0};
    }
}

} // namespace qzfi::engine
