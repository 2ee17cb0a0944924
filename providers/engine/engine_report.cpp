// How a run tells its host: failures, remarks, entries, progress.
#include <algorithm>
#include <cstring>
#include <new>
#include <sys/sysmacros.h>

#include "providers/engine/engine_work.h"

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr uint32_t progress_interval = 64; // in small files

int64_t nanoseconds(const statx_timestamp &time) {
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

uint32_t entry_type(uint16_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return QFI_ENTRY_FILE;
    case S_IFDIR:
        return QFI_ENTRY_DIRECTORY;
    case S_IFLNK:
        return QFI_ENTRY_SYMLINK;
    case S_IFBLK:
        return QFI_ENTRY_BLOCK;
    case S_IFCHR:
        return QFI_ENTRY_CHARACTER;
    case S_IFIFO:
        return QFI_ENTRY_FIFO;
    default:
        return QFI_ENTRY_SOCKET;
    }
}

} // namespace

int32_t status_of_target(int error) noexcept {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return QFI_FI_NO_SPACE;
    case ENOMEM:
        return QFI_STATUS_NO_MEMORY;
    case EACCES:
    case EPERM:
        return QFI_FI_NO_RIGHT;
    case ELOOP:
    case EBUSY: // mounted upon
    case EXDEV:
        return QFI_FI_UNSAFE;
    default:
        return QFI_FI_WRITE;
    }
}

int32_t status_of_source(int error) noexcept {
    switch (error) {
    case ENOMEM:
        return QFI_STATUS_NO_MEMORY;
    case EACCES:
    case EPERM:
        return QFI_FI_NO_RIGHT;
    default:
        return QFI_FI_READ;
    }
}

void Run::append_path(std::string &path, const Directory *directory) const {
    std::size_t length = 0;
    const auto name_of = [](const Directory *d) { return const_cast<Directory *>(d)->name(); };
    for (const Directory *d = directory; d->parent != nullptr; d = d->parent)
        length += strlen(name_of(d)) + 1;
    path.assign(root_path);
    const std::size_t start = path.size();
    path.resize(start + length);
    char *end = path.data() + path.size();
    for (const Directory *d = directory; d->parent != nullptr; d = d->parent) {
        const std::size_t size = strlen(name_of(d));
        *--end = '/';
        end -= size;
        memcpy(end, name_of(d), size);
    }
}

const char *Run::path_of(Worker &worker, const Directory *directory, const char *name) {
    if (worker.path_serial != directory->serial) {
        worker.path_serial = 0; // should memory run short
        append_path(worker.path, directory);
        worker.path_length = worker.path.size();
        worker.path_serial = directory->serial;
    }
    worker.path.resize(worker.path_length);
    if (name != nullptr)
        worker.path.append(name);
    else if (!worker.path.empty())
        worker.path.pop_back();
    return worker.path.c_str();
}

void Run::fail(Worker &worker, int32_t status, const char *operation, Directory *directory, const char *name,
               int error) {
    int32_t expected = 0;
    if (!status_.compare_exchange_strong(expected, status))
        return;
    stop(status);
    if (host.fail == nullptr)
        return;
    try {
        host.fail(host.context, operation, path_of(worker, directory, name), error);
    } catch (const std::bad_alloc &) {
        host.fail(host.context, operation, name != nullptr ? name : "", error);
    }
}

void Run::fail_source(Worker &worker, const char *operation, Directory *directory, const char *name, int error) {
    fail(worker, status_of_source(error), operation, directory, name, error);
}

void Run::fail_target(Worker &worker, const char *operation, Directory *directory, const char *name, int error) {
    fail(worker, status_of_target(error), operation, directory, name, error);
}

void Run::remark(Worker &worker, qfi_remark_kind kind, Directory *directory, const char *name, const char *detail,
                 int error) {
    remarks_.fetch_add(1, std::memory_order_relaxed);
    if (host.remark == nullptr)
        return;
    const qfi_remark made{static_cast<uint32_t>(kind), path_of(worker, directory, name), detail, error};
    host.remark(host.context, &made);
}

void Run::missed(Worker &worker, const char *operation, Directory &directory, const char *name, const char *detail,
                 int error) {
    if (is_shortage(error))
        return fail_source(worker, operation, &directory, name, error);
    remark(worker, QFI_REMARK_UNREADABLE, &directory, name, detail, error);
}

void Run::passed_over(Worker &worker, const char *operation, Directory &directory, const char *name, int error) {
    if (error == ENOENT)
        return remark(worker, QFI_REMARK_VANISHED, &directory, name, "gone before it was read", error);
    if (error == EXDEV)
        return remark(worker, QFI_REMARK_SKIPPED, &directory, name, "another file system", 0);
    missed(worker, operation, directory, name, "cannot be opened", error);
}

void Run::gone(Worker &worker, Directory &directory) {
    if (!directory.is_told_gone.exchange(true))
        remark(worker, QFI_REMARK_VANISHED, &directory, nullptr, "renamed or removed before all of it was read", 0);
}

void Run::tell_entry(Worker &worker, Directory *directory, const char *name, const Stat &stat, const char *link_target,
                     const uint8_t *digest) {
    ++worker.entries;
    if (!options.entries || host.entry == nullptr)
        return;
    const bool is_device = S_ISBLK(stat.stx_mode) || S_ISCHR(stat.stx_mode);
    const bool has_size = S_ISREG(stat.stx_mode) || S_ISLNK(stat.stx_mode);
    const bool is_linked = stat.stx_nlink > 1 && !S_ISDIR(stat.stx_mode);
    qfi_entry told{};
    told.path = path_of(worker, directory, name);
    told.type = entry_type(stat.stx_mode);
    told.mode = stat.stx_mode & 07777;
    told.uid = stat.stx_uid;
    told.gid = stat.stx_gid;
    told.size = has_size ? stat.stx_size : 0;
    told.mtime_ns = nanoseconds(stat.stx_mtime);
    told.device = is_device ? makedev(stat.stx_rdev_major, stat.stx_rdev_minor) : 0;
    told.inode = is_linked ? stat.stx_ino : 0;
    told.target = link_target;
    told.digest = digest;
    const int32_t status = host.entry(host.context, &told);
    if (status != 0)
        stop(status);
}

void Run::flush(Worker &worker) noexcept {
    entries_.fetch_add(std::exchange(worker.entries, 0), std::memory_order_relaxed);
    bytes_.fetch_add(std::exchange(worker.bytes, 0), std::memory_order_relaxed);
}

void Run::progress(Worker &worker, uint32_t weight) {
    worker.since_progress += weight;
    if (worker.since_progress < progress_interval)
        return;
    worker.since_progress = 0;
    flush(worker);
    tell_progress();
}

void Run::tell_progress() {
    if (host.progress != nullptr && host.progress(host.context, counted_->entries_, counted_->bytes_) != 0)
        stop(QFI_FI_CANCELLED);
}

} // namespace qzfi::engine
