#include "providers/engine/engine_remove.h"

#include <dirent.h>
#include <new>

#include "providers/engine/engine_attributes.h"

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr int most_listings = 4;
constexpr uint64_t forbidding = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;

class Remover : public Run {
public:
    Remover(const Options &given, const qfi_provider_host &to, std::string path, bool keeps_foreign)
        : Run(given, to, std::move(path)), keeps_foreign_(keeps_foreign) {}

    void run(int parent, const char *name);
    bool is_kept() const noexcept { return is_kept_; }

protected:
    void entry(Worker &worker, Directory &directory, const char *name, uint8_t type, uint64_t inode) override;
    bool enter(Worker &worker, Directory &parent, Directory &child) override;
    void leave(Worker &worker, Directory &directory) override;
    void gone(Worker &worker, Directory &directory) override;

private:
    bool open_directory(Worker &worker, int parent, Directory &above, const char *name, Directory &child);
    bool unlink_forbidden(int parent, const char *name);
    bool remove_directory(Worker &worker, int parent, const char *name, Directory &directory);
    bool empty_again(Worker &worker, Directory &directory);

    const bool keeps_foreign_;
    std::atomic<bool> is_kept_{false};
    int parent_ = -1;
    const char *name_ = nullptr;
};

/// Removes a file, or one that must not be changed.
bool Remover::unlink_forbidden(int parent, const char *name) {
    if (unlinkat(parent, name, 0) == 0 || errno == ENOENT)
        return true;
    if (errno != EPERM)
        return false;
    const Descriptor file(open_within(parent, name, O_RDONLY | O_NONBLOCK));
    if (!file || !clear_forbidding_flags(file.get())) {
        errno = EPERM;
        return false;
    }
    return unlinkat(parent, name, 0) == 0 || errno == ENOENT;
}

void Remover::run(int parent, const char *name) {
    parent_ = parent;
    name_ = name;
    Directory *const root = Directory::make(nullptr, "");
    Stat stat;
    const bool is_there = stat_of(parent, name, stat) == 0;
    if (!is_there || !S_ISDIR(stat.stx_mode)) {
        if (is_there ? unlink_forbidden(parent, name) : errno == ENOENT) {
            if (is_there) {
                ++main_worker().entries;
                changed();
                progress(main_worker(), 1);
            }
        } else {
            fail_target(main_worker(), is_there ? "unlinkat" : "statx", root, nullptr, errno);
        }
        flush(main_worker());
        return directories.unreference(root);
    }
    root->stat = stat;
    if (!open_directory(main_worker(), parent, *root, name, *root))
        return directories.unreference(root);
    directories.adopt(*root);
    work(root);
}

bool Remover::open_directory(Worker &worker, int parent, Directory &above, const char *name, Directory &child) {
    const char *const shown = &above == &child ? nullptr : name;
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NONBLOCK;
    child.source = open_within(parent, name, flags);
    if (child.source < 0 && errno == EACCES && fchmodat(parent, name, 0700, AT_SYMLINK_NOFOLLOW) == 0)
        child.source = open_within(parent, name, flags);
    if (child.source < 0 && errno == EXDEV && keeps_foreign_) {
        is_kept_ = true;
        return false;
    }
    if (child.source < 0 || stat_of(child.source, child.stat) != 0) {
        if (errno != ENOENT)
            fail_target(worker, "openat2", &above, shown, errno);
        return false;
    }
    const uint64_t device = device_of(child.stat);
    const bool is_foreign = device != device_of(above.stat);
    if (is_excluded(options, child.stat) || (is_foreign && keeps_foreign_)) {
        is_kept_ = true;
        return false;
    }
    if (is_foreign && unlinkat(parent, name, AT_REMOVEDIR) == 0) { // what a snapshot has in place of a nested volume
        ++worker.entries;
        changed();
        return false;
    }
    if (is_foreign) {
        fail_target(worker, "openat2", &above, shown, EXDEV);
        return false;
    }
    if ((child.stat.stx_attributes & forbidding) != 0 && !clear_forbidding_flags(child.source, &child.forbidding)) {
        fail_target(worker, "FS_IOC_SETFLAGS", &above, shown, errno);
        return false;
    }
    if ((child.stat.stx_mode & 0700) != 0700 && geteuid() != 0)
        fchmod(child.source, 0700);
    return true;
}

bool Remover::enter(Worker &worker, Directory &parent, Directory &child) {
    return open_directory(worker, parent.source, parent, child.name(), child);
}

void Remover::entry(Worker &worker, Directory &directory, const char *name, uint8_t type, uint64_t) {
    if (type == DT_UNKNOWN) {
        Stat stat;
        if (stat_of(directory.source, name, stat) == 0 && S_ISDIR(stat.stx_mode))
            return push_subdirectory(directory, name);
    }
    if (unlink_forbidden(directory.source, name)) {
        ++worker.entries;
        return changed();
    }
    if (errno == EISDIR)
        return push_subdirectory(directory, name);
    fail_target(worker, "unlinkat", &directory, name, errno);
}

void Remover::leave(Worker &worker, Directory &directory) {
    Directory *const parent = directory.parent;
    if (parent == nullptr) {
        remove_directory(worker, parent_, name_, directory);
        return;
    }
    if (!directories.acquire(*parent, &directory))
        return fail_target(worker, "openat2", parent, nullptr, errno);
    if (parent->is_gone)
        gone(worker, *parent);
    else
        remove_directory(worker, parent->source, directory.name(), directory);
    directories.release(*parent);
}

/// What was moved away is not removed, and must not be taken to be.
void Remover::gone(Worker &worker, Directory &directory) {
    fail_target(worker, "openat2", &directory, nullptr, ESTALE);
}

bool Remover::remove_directory(Worker &worker, int parent, const char *name, Directory &directory) {
    for (int listings = 1;; ++listings) {
        if (unlinkat(parent, name, AT_REMOVEDIR) == 0 || errno == ENOENT) {
            directory.forbidding = 0;
            ++worker.entries;
            changed();
            return true;
        }
        const bool is_filled = errno == ENOTEMPTY || errno == EEXIST;
        if (is_filled && is_kept_)
            return false;
        if (!is_filled || listings == most_listings) {
            fail_target(worker, "unlinkat", &directory, nullptr, errno);
            return false;
        }
        if (!empty_again(worker, directory))
            return false;
    }
}

/// Removes what came into a directory, or escaped its listing, meanwhile.
bool Remover::empty_again(Worker &worker, Directory &directory) {
    const Bytes records = allocate(listing_size);
    lseek(directory.source, 0, SEEK_SET);
    long size;
    while ((size = syscall(SYS_getdents64, directory.source, records.get(), listing_size)) > 0) {
        for (long at = 0; at < size && !is_stopped();) {
            const auto *const record = reinterpret_cast<const Dirent *>(records.get() + at);
            at += record->length;
            const char *const name = record->name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                continue;
            std::string path;
            append_path(path, &directory);
            const Removed removed = remove_entry(*this, directory.source, name, path);
            worker.entries += removed.entries;
            if (removed.status != 0)
                stop(removed.status);
        }
    }
    if (size < 0)
        fail_target(worker, "getdents64", &directory, nullptr, errno);
    return !is_stopped();
}

} // namespace

Removed remove_entry(Run &outer, int directory, const char *name, const std::string &path) {
    Options alone = outer.options;
    alone.workers = 1;
    alone.entries = alone.sync = false;
    Remover remover(alone, outer.host, path + name + "/", true);
    remover.is_within(outer);
    remover.run(directory, name);
    const Result result = remover.result();
    outer.count_remarks(result.remarks);
    return {result.status, result.changed, remover.is_kept()};
}

Result remove_tree(int target, const char *name, const Options &options, const qfi_provider_host &host) {
    try {
        Remover remover(options, host, std::string(), false);
        try {
            remover.run(target, name);
        } catch (const std::bad_alloc &) {
            remover.stop(QFI_STATUS_NO_MEMORY);
        }
        return remover.result();
    } catch (const std::bad_alloc &) {
        return {QFI_STATUS_NO_MEMORY, 0, 0, 0, 0};
    }
}

} // namespace qzfi::engine
