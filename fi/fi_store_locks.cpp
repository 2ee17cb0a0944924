#include "fi/fi_store_locks.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qzfi::fi {

namespace {

// Where SQLite locks a database.
constexpr off_t pending_byte = 0x40000000;
constexpr off_t reserved_byte = pending_byte + 1;
constexpr off_t shared_first = pending_byte + 2;
constexpr off_t shared_size = 510;

// And a wal-index: one byte for each lock, then one that everybody holds who uses it.
constexpr off_t index_locks = (22 + SQLITE_SHM_NLOCK) * 4;
constexpr off_t user_byte = index_locks + SQLITE_SHM_NLOCK;

std::mutex files_mutex;
LockFile *files = nullptr;

} // namespace

// A lock is let go of when the last process that has the opened file closes it.
struct ForkedFiles {
    static void before() { files_mutex.lock(); }
    static void in_parent() { files_mutex.unlock(); }
    static void in_child() {
        for (LockFile *file = files; file != nullptr; file = file->after_)
            if (file->file_ >= 0)
                ::close(std::exchange(file->file_, -1));
        files_mutex.unlock();
    }
    static void watch() noexcept {
        static const int watched = pthread_atfork(before, in_parent, in_child);
        static_cast<void>(watched); // without memory a child holds them until it ends
    }
};

LockFile::LockFile() noexcept {
    ForkedFiles::watch();
    const std::lock_guard lock(files_mutex);
    after_ = files;
    if (after_ != nullptr)
        after_->before_ = this;
    files = this;
}

LockFile::~LockFile() {
    close();
    const std::lock_guard lock(files_mutex);
    (before_ != nullptr ? before_->after_ : files) = after_;
    if (after_ != nullptr)
        after_->before_ = before_;
}

bool LockFile::open(const char *path, int flags, mode_t mode) noexcept {
    const std::lock_guard lock(files_mutex);
    file_ = ::open(path, flags | O_CLOEXEC, mode);
    return file_ >= 0;
}

void LockFile::close() noexcept {
    const std::lock_guard lock(files_mutex);
    if (file_ < 0)
        return;
    // A child that came without notice may have the opened file too.
    struct flock all {};
    all.l_type = F_UNLCK;
    all.l_whence = SEEK_SET;
    fcntl(file_, F_OFD_SETLK, &all);
    ::close(std::exchange(file_, -1));
}

int LockFile::set(short type, off_t start, off_t length) noexcept {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    if (fcntl(file_, F_OFD_SETLK, &lock) == 0)
        return SQLITE_OK;
    const bool is_busy = errno == EAGAIN || errno == EACCES || errno == EINTR || errno == ETIMEDOUT || errno == ENOLCK;
    return is_busy ? SQLITE_BUSY : SQLITE_IOERR_LOCK;
}

int LockFile::find(off_t start, off_t length) noexcept {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return fcntl(file_, F_OFD_GETLK, &lock) == 0 ? lock.l_type : -1;
}

bool DatabaseLock::open(const char *path, bool writable) noexcept {
    return file_.open(path, (writable ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_NONBLOCK, 0);
}

bool DatabaseLock::is_of(const char *path) const noexcept {
    struct stat own {
    }, named{};
    if (fstat(file_.get(), &own) != 0 || stat(path, &named) != 0)
        return false;
    errno = ESTALE;
    return own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

int DatabaseLock::raise(int level) noexcept {
    if (level_ >= level)
        return SQLITE_OK;
    if (level > SQLITE_LOCK_SHARED)
        return lock_alone(level);
    // Somebody who waits to write holds the pending byte, and new readers off.
    int result = file_.set(F_RDLCK, pending_byte, 1);
    if (result != SQLITE_OK)
        return result;
    result = file_.set(F_RDLCK, shared_first, shared_size);
    const int error = errno;
    const int released = file_.set(F_UNLCK, pending_byte, 1);
    if (result != SQLITE_OK) {
        errno = error;
        return result;
    }
    if (released != SQLITE_OK) {
        file_.set(F_UNLCK, shared_first, shared_size);
        return SQLITE_IOERR_UNLOCK;
    }
    level_ = SQLITE_LOCK_SHARED;
    return SQLITE_OK;
}

int DatabaseLock::lock_alone(int level) noexcept {
    if (level == SQLITE_LOCK_RESERVED) {
        const int result = file_.set(F_WRLCK, reserved_byte, 1);
        if (result == SQLITE_OK)
            level_ = level;
        return result;
    }
    if (level_ < SQLITE_LOCK_PENDING) {
        const int result = file_.set(F_WRLCK, pending_byte, 1);
        if (result != SQLITE_OK)
            return result;
        // From "shared" straight to "exclusive" is for closing and for recovery: others are not held off meanwhile.
        if (level_ == SQLITE_LOCK_RESERVED)
            level_ = SQLITE_LOCK_PENDING;
    }
    if (level == SQLITE_LOCK_PENDING)
        return SQLITE_OK;
    const int result = file_.set(F_WRLCK, shared_first, shared_size);
    if (result == SQLITE_OK) {
        level_ = level;
    } else if (level_ < SQLITE_LOCK_PENDING) {
        const int error = errno;
        file_.set(F_UNLCK, pending_byte, 1);
        errno = error;
    }
    return result;
}

int DatabaseLock::lower(int level) noexcept {
    if (level_ <= level)
        return SQLITE_OK;
    if (level == SQLITE_LOCK_SHARED) {
        if (level_ == SQLITE_LOCK_EXCLUSIVE && file_.set(F_RDLCK, shared_first, shared_size) != SQLITE_OK)
            return SQLITE_IOERR_RDLOCK;
        if (file_.set(F_UNLCK, pending_byte, 2) != SQLITE_OK)
            return SQLITE_IOERR_UNLOCK;
    } else if (file_.set(F_UNLCK, 0, 0) != SQLITE_OK) {
        return SQLITE_IOERR_UNLOCK;
    }
    level_ = level;
    return SQLITE_OK;
}

int DatabaseLock::is_reserved(int *result) noexcept {
    *result = 1;
    if (level_ >= SQLITE_LOCK_RESERVED)
        return SQLITE_OK;
    const int type = file_.find(reserved_byte, 1);
    *result = type != F_UNLCK ? 1 : 0;
    return type < 0 ? SQLITE_IOERR_CHECKRESERVEDLOCK : SQLITE_OK;
}

namespace {

// The database's path has room for more: null when memory is short.
bool index_path(const char *database, std::string &path) noexcept {
    try {
        path = std::string(database) + "-shm";
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// As private as the database, whoever makes it.
bool open_index(const char *database, const std::string &path, LockFile &file) noexcept {
    struct stat status {};
    if (stat(database, &status) != 0)
        return false;
    if (!file.open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, status.st_mode & 0777))
        return false;
    // Where root may not give it away, it stays root's.
    return geteuid() != 0 || fchown(file.get(), status.st_uid, status.st_gid) == 0 || errno == EPERM || errno == EINVAL;
}

} // namespace

WalIndex::~WalIndex() {
    for (const Region &region : regions_)
        munmap(region.start, region.size);
}

// Whoever comes first empties what a crash may have left.
int WalIndex::join(const char *database) noexcept {
    if (is_joined_)
        return SQLITE_OK;
    std::string path;
    if (!index_path(database, path))
        return SQLITE_NOMEM;
    if (file_.get() < 0 && !open_index(database, path, file_)) {
        const int error = errno;
        file_.close();
        errno = error;
        return SQLITE_CANTOPEN;
    }
    const int type = file_.find(user_byte, 1);
    if (type < 0)
        return SQLITE_IOERR_LOCK;
    if (type == F_WRLCK)
        return SQLITE_BUSY;
    if (type == F_UNLCK) {
        const int result = file_.set(F_WRLCK, user_byte, 1);
        if (result != SQLITE_OK)
            return result;
        // Not to nothing: then a reader without rights to write would not see that there is none.
        if (ftruncate(file_.get(), 3) != 0)
            return SQLITE_IOERR_SHMOPEN;
    }
    const int result = file_.set(F_RDLCK, user_byte, 1);
    is_joined_ = result == SQLITE_OK;
    return result;
}

// A byte in each page, so that there is room for all of them before one is mapped.
int WalIndex::grow(off_t size) noexcept {
    constexpr off_t page = 4096;
    struct stat status {};
    if (fstat(file_.get(), &status) != 0)
        return SQLITE_IOERR_SHMSIZE;
    for (off_t end = status.st_size / page * page + page; end <= size && status.st_size < size; end += page)
        if (pwrite(file_.get(), "", 1, end - 1) != 1)
            return SQLITE_IOERR_SHMSIZE;
    return SQLITE_OK;
}

int WalIndex::map(const char *database, int number, int size, bool extend, void volatile **start) noexcept {
    *start = nullptr;
    if (const int result = join(database); result != SQLITE_OK)
        return result;
    // What is mapped begins at a page of the machine.
    const std::size_t unit = std::max(static_cast<std::size_t>(size), static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
    const std::size_t offset = static_cast<std::size_t>(number) * static_cast<std::size_t>(size);
    try {
        regions_.reserve(offset / unit + 1);
    } catch (const std::bad_alloc &) {
        return SQLITE_NOMEM;
    }
    struct stat status {};
    if (fstat(file_.get(), &status) != 0)
        return SQLITE_IOERR_SHMSIZE;
    const auto needed = static_cast<off_t>((offset / unit + 1) * unit);
    if (status.st_size < needed && !extend)
        return SQLITE_OK;
    if (const int result = grow(needed); result != SQLITE_OK)
        return result;
    while (regions_.size() <= offset / unit) {
        void *const region = mmap(nullptr, unit, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(),
                                  static_cast<off_t>(regions_.size() * unit));
        if (region == MAP_FAILED)
            return SQLITE_IOERR_SHMMAP;
        regions_.push_back({static_cast<char *>(region), unit});
    }
    *start = regions_[offset / unit].start + offset % unit;
    return SQLITE_OK;
}

int WalIndex::lock(int offset, int count, int flags) noexcept {
    short type = F_UNLCK;
    if ((flags & SQLITE_SHM_LOCK) != 0)
        type = (flags & SQLITE_SHM_SHARED) != 0 ? F_RDLCK : F_WRLCK;
    return file_.set(type, index_locks + offset, count);
}

void WalIndex::unmap(const char *database, bool remove) noexcept {
    for (const Region &region : regions_)
        munmap(region.start, region.size);
    regions_.clear();
    std::string path;
    if (remove && is_joined_ && index_path(database, path))
        unlink(path.c_str());
    is_joined_ = false;
    file_.close();
}

// A page that was mapped is backed by the file system only once it is written to; without room that is a signal. Each
// page was written to when the file was extended, which is what there is with kernels before 5.14: file systems that
// overwrite in place need no more, and for the others nothing else would do, neither writing nor reserving.
int WalIndex::back() const noexcept {
    for (const Region &region : regions_)
        if (madvise(region.start, region.size, MADV_POPULATE_WRITE) != 0 && errno != EINVAL)
            return errno == EFAULT ? SQLITE_FULL : SQLITE_IOERR_SHMMAP;
    return SQLITE_OK;
}

} // namespace qzfi::fi
