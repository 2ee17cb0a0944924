// The locks and the wal-index of a catalog, which other processes share by SQLite's own rules. SQLite's are the
// process's (fcntl): any opening and closing of the file takes them away, for example when a tree that holds a store is
// copied, and in a forked child it believes that it has those of the parent. These belong to one opened file each.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>
#include <vector>

namespace qzfi::fi {

/// A file that is opened for its locks only. A forked child loses it, so that no lock outlives this process.
class LockFile {
public:
    LockFile() noexcept;
    ~LockFile();
    LockFile(const LockFile &) = delete;
    LockFile &operator=(const LockFile &) = delete;

    /// False with errno.
    bool open(const char *path, int flags, mode_t mode) noexcept;
    /// Lets go of all locks, and of the file.
    void close() noexcept;
    int get() const noexcept { return file_; }
    /// `type` is F_RDLCK, F_WRLCK or F_UNLCK; gives what SQLite calls it, with errno.
    int set(short type, off_t start, off_t length) noexcept;
    /// The type of lock that stands against a write lock, F_UNLCK for none, or -1 with errno.
    int find(off_t start, off_t length) noexcept;

private:
    friend struct ForkedFiles;
    int file_ = -1;
    LockFile *before_ = nullptr, *after_ = nullptr; // among all of the process
};

/// SQLite's levels of a database's lock.
class DatabaseLock {
public:
    bool open(const char *path, bool writable) noexcept;
    /// Whether the opened file still has the path; else false with errno.
    bool is_of(const char *path) const noexcept;
    int raise(int level) noexcept;
    int lower(int level) noexcept;
    int is_reserved(int *result) noexcept;
    void close() noexcept { file_.close(); }

private:
    int lock_alone(int level) noexcept;
    LockFile file_;
    int level_ = SQLITE_LOCK_NONE;
};

/// The wal-index: pages of a file that all connections share, and eight locks.
class WalIndex {
public:
    WalIndex() = default;
    ~WalIndex();
    WalIndex(const WalIndex &) = delete;
    WalIndex &operator=(const WalIndex &) = delete;

    /// Maps the page `number` of `size` bytes; null for one that is not there, unless it is to be made.
    int map(const char *database, int number, int size, bool extend, void volatile **start) noexcept;
    int lock(int offset, int count, int flags) noexcept;
    void unmap(const char *database, bool remove) noexcept;
    /// Makes sure that the file system has room for what is mapped.
    int back() const noexcept;

private:
    struct Region {
        char *start;
        std::size_t size;
    };
    int join(const char *database) noexcept;
    int grow(off_t size) noexcept;
    LockFile file_;
    bool is_joined_ = false;
    std::vector<Region> regions_;
};

} // namespace qzfi::fi
