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
    void missed(Worker &worker, const char *operation, Directory &directory, const char *name, const char *detail,
                int error) override;

private:
    bool file(Worker &worker, Directory &directory, const char *name, Stat &stat);
    void without_digest(Worker &worker, const char *operation, Directory &directory, const char *name, const Stat &stat,
                        int error);
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

/// A walk gives every entry or fails: whoever compares with what it gave must not take a disk's failure for a change.
/// What this user may not read is no part of what can be compared.
void Walker::missed(Worker &worker, const char *operation, Directory &directory, const char *name, const char *detail,
                    int error) {
    if (error != EACCES && error != EPERM)
        return fail_source(worker, operation, &directory, name, error);
    Run::missed(worker, operation, directory, name, detail, error);
}

bool Walker::enter(Worker &worker, Directory &parent, Directory &child) {
    return options.only_entry == nullptr && enter_source(worker, parent, child);
}

void Walker::leave(Worker &worker, Directory &directory) {
    if (options.only_entry == nullptr)
        tell_entry(worker, &directory, nullptr, directory.stat, nullptr, nullptr);
}

void Walker::entry(Worker &worker, Directory &directory, const char *name, uint8_t, uint64_t) {
    if (options.only_entry != nullptr && strcmp(name, options.only_entry) != 0)
        return;
    Stat stat;
    if (stat_of(directory.source, name, stat) != 0)
        return passed_over(worker, "statx", directory, name, errno);
    if (S_ISDIR(stat.stx_mode))
        return push_subdirectory(directory, name);
    if ((stat.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0)
        return passed_over(worker, "statx", directory, name, EXDEV);
    if (S_ISREG(stat.stx_mode)) {
        if (options.digest)
            return void(file(worker, directory, name, stat) || (push_entry(directory, name, DT_UNKNOWN, 0), true));
        worker.bytes += stat.stx_size;
    }
    char link_target[PATH_MAX + 1];
    if (!S_ISLNK(stat.stx_mode))
        return tell_entry(worker, &directory, name, stat, nullptr, nullptr);
    const ssize_t size = readlinkat(directory.source, name, link_target, PATH_MAX);
    // Something else took the link's name: that is looked at instead.
    if (size < 0 && errno == EINVAL)
        return push_entry(directory, name, DT_UNKNOWN, 0);
    if (size < 0)
        return passed_over(worker, "readlinkat", directory, name, errno);
    link_target[size] = '\0';
    stat.stx_size = static_cast<uint64_t>(size);
    tell_entry(worker, &directory, name, stat, link_target, nullptr);
}

/// Reads a file for its digest; one that cannot be read is an entry without. False when it is none any more.
bool Walker::file(Worker &worker, Directory &directory, const char *name, Stat &stat) {
    const Descriptor from(open_to_read(directory.source, name, 0));
    if (!from && (errno == ELOOP || errno == ENXIO || errno == ENOTDIR))
        return false;
    if (!from && (errno == ENOENT || errno == EXDEV)) {
        passed_over(worker, "openat2", directory, name, errno);
        return true;
    }
    if (!from || stat_of(from.get(), stat) != 0) {
        without_digest(worker, from ? "statx" : "openat2", directory, name, stat, errno);
        return true;
    }
    if (!S_ISREG(stat.stx_mode))
        return false;
    uint8_t digest[16];
    Stat now;
    for (int look = 1; !is_stopped(); ++look) {
        const Moved moved = digest_of(*this, worker, from.get(), stat, digest);
        if (moved.operation != nullptr) {
            without_digest(worker, moved.operation, directory, name, stat, moved.error);
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

/// The tree is whole although its data cannot be read: that is no reason to fail what is frozen already.
void Walker::without_digest(Worker &worker, const char *operation, Directory &directory, const char *name,
                            const Stat &stat, int error) {
    Run::missed(worker, operation, directory, name, "no digest: it cannot be read", error);
    if (!is_stopped())
        tell_entry(worker, &directory, name, stat, nullptr, nullptr);
}

/// Makes a run and lets it work; memory that runs short is a status.
template <typename Kind, typename... Given, typename Work>
Result result_of(Work work, const Given &...given) {
    try {
        Kind run(given...);
        try {
            work(run);
        } catch (const std::bad_alloc &) {
            run.stop(QFI_STATUS_NO_MEMORY);
        }
        return run.result();
    } catch (const std::bad_alloc &) {
        return {QFI_STATUS_NO_MEMORY, 0, 0, 0, 0};
    }
}

} // namespace

Result copy_tree(int source, int target, const char *name, const Options &options, const qfi_provider_host &host) {
    return result_of<Copier>([&](Copier &copier) { copier.run(source, target, name); }, options, host, false);
}

Result bring_up_to_date(int source, int target, const char *name, const Options &options,
                        const qfi_provider_host &host) {
    return result_of<Copier>([&](Copier &copier) { copier.run(source, target, name); }, options, host, true);
}

Result walk_tree(int source, const Options &options, const qfi_provider_host &host) {
    return result_of<Walker>([&](Walker &walker) { walker.run(source); }, options, host);
}

} // namespace qzfi::engine
