#include "fi/fi_store_vfs.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>
#include <sqlite3.h>
#include <utility>

#include "fi/fi_store_locks.h"

namespace qzfi::fi {

namespace {

constexpr const char *vfs_name = "qzfi-fi";

sqlite3_vfs *original() noexcept {
    static sqlite3_vfs *const unix_vfs = sqlite3_vfs_find("unix");
    return unix_vfs;
}

// What is kept behind SQLite's own record of a file, whose methods get the same pointer as ours.
struct Behind {
    const sqlite3_io_methods *methods = nullptr; // SQLite's own
    const char *path = nullptr;                  // SQLite keeps it until it closes the file
    DatabaseLock lock;
    WalIndex index;
};

std::size_t own_size() noexcept {
    constexpr std::size_t alignment = alignof(Behind);
    return (static_cast<std::size_t>(original()->szOsFile) + alignment - 1) / alignment * alignment;
}

Behind &behind(sqlite3_file *file) noexcept {
    return *std::launder(reinterpret_cast<Behind *>(reinterpret_cast<char *>(file) + own_size()));
}

thread_local int last_error = 0;

// SQLite forgets the errno of most failures, and calls what cannot be read for EIO malformed.
int noted(sqlite3_file *file, const sqlite3_io_methods &methods, int result) {
    if (result == SQLITE_OK || result == SQLITE_IOERR_SHORT_READ)
        return result;
    methods.xFileControl(file, SQLITE_FCNTL_LAST_ERRNO, &last_error);
    return result == SQLITE_IOERR_CORRUPTFS ? SQLITE_IOERR_READ : result;
}

int read_file(sqlite3_file *file, void *bytes, int size, sqlite3_int64 offset) {
    const sqlite3_io_methods &own = *behind(file).methods;
    return noted(file, own, own.xRead(file, bytes, size, offset));
}

int write_file(sqlite3_file *file, const void *bytes, int size, sqlite3_int64 offset) {
    const sqlite3_io_methods &own = *behind(file).methods;
    return noted(file, own, own.xWrite(file, bytes, size, offset));
}

int truncate_file(sqlite3_file *file, sqlite3_int64 size) {
    const sqlite3_io_methods &own = *behind(file).methods;
    return noted(file, own, own.xTruncate(file, size));
}

int sync_file(sqlite3_file *file, int flags) {
    const sqlite3_io_methods &own = *behind(file).methods;
    return noted(file, own, own.xSync(file, flags));
}

// Of what this library does itself.
int noted(int result) noexcept {
    if (result != SQLITE_OK && result != SQLITE_BUSY)
        last_error = errno;
    return result;
}

int lock_file(sqlite3_file *file, int level) {
    return noted(behind(file).lock.raise(level));
}

int unlock_file(sqlite3_file *file, int level) {
    return noted(behind(file).lock.lower(level));
}

int check_reserved(sqlite3_file *file, int *result) {
    return noted(behind(file).lock.is_reserved(result));
}

int map_index(sqlite3_file *file, int number, int size, int extend, void volatile **start) {
    Behind &own = behind(file);
    int result = own.index.map(own.path, number, size, extend != 0, start);
    if (result == SQLITE_OK && extend != 0)
        result = own.index.back();
    if (result != SQLITE_OK)
        *start = nullptr; // SQLite goes by it
    return noted(result);
}

// Whoever writes to the index holds a lock of it alone. File systems that never overwrite, such as Btrfs, need room
// again for a page that was written back since.
int lock_index(sqlite3_file *file, int offset, int count, int flags) {
    WalIndex &index = behind(file).index;
    int result = index.lock(offset, count, flags);
    if (result != SQLITE_OK || flags != (SQLITE_SHM_LOCK | SQLITE_SHM_EXCLUSIVE))
        return noted(result);
    result = index.back();
    if (result != SQLITE_OK)
        index.lock(offset, count, SQLITE_SHM_UNLOCK | SQLITE_SHM_EXCLUSIVE);
    return result;
}

int unmap_index(sqlite3_file *file, int remove) {
    Behind &own = behind(file);
    own.index.unmap(own.path, remove != 0);
    return SQLITE_OK;
}

int close_file(sqlite3_file *file) {
    Behind &own = behind(file);
    const sqlite3_io_methods *const methods = own.methods;
    own.~Behind();
    return methods->xClose(file);
}

// SQLite's methods with ours among them. It has several tables of them, by the kind of locking, of which two are in use
// for files of ours: with a wal-index for databases, and without for the rest.
struct Wrapped {
    std::mutex mutex;
    sqlite3_io_methods methods{};
};
Wrapped with_index, without_index;

const sqlite3_io_methods *wrap(const sqlite3_io_methods &own) {
    const bool has_index = own.iVersion >= 2 && own.xShmMap != nullptr;
    Wrapped &wrapped = has_index ? with_index : without_index;
    const std::lock_guard lock(wrapped.mutex);
    sqlite3_io_methods &methods = wrapped.methods;
    if (methods.iVersion != 0)
        return &methods;
    methods = own;
    methods.xClose = close_file;
    methods.xRead = read_file;
    methods.xWrite = write_file;
    methods.xTruncate = truncate_file;
    methods.xSync = sync_file;
    if (has_index) {
        methods.xLock = lock_file;
        methods.xUnlock = unlock_file;
        methods.xCheckReservedLock = check_reserved;
        methods.xShmMap = map_index;
        methods.xShmLock = lock_index;
        methods.xShmUnmap = unmap_index;
    }
    return &methods;
}

// What is locked is what SQLite opened: it says whether that still has the path.
bool open_lock(sqlite3_file *file, bool is_writable) {
    Behind &own = behind(file);
    if (!own.lock.open(own.path, is_writable))
        return false;
    int has_moved = 0;
    own.methods->xFileControl(file, SQLITE_FCNTL_HAS_MOVED, &has_moved);
    errno = ESTALE;
    return has_moved == 0 && own.lock.is_of(own.path);
}

int open_file(sqlite3_vfs *, const char *path, sqlite3_file *file, int flags, int *given_flags) {
    const int result = original()->xOpen(original(), path, file, flags, given_flags);
    if (result != SQLITE_OK || file->pMethods == nullptr)
        return result;
    Behind *const own = new (reinterpret_cast<char *>(file) + own_size()) Behind;
    own->methods = file->pMethods;
    own->path = path;
    const bool is_writable = given_flags == nullptr || (*given_flags & SQLITE_OPEN_READONLY) == 0;
    if ((flags & SQLITE_OPEN_MAIN_DB) != 0 && !open_lock(file, is_writable)) {
        last_error = errno;
        close_file(file);
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN;
    }
    file->pMethods = wrap(*file->pMethods);
    return SQLITE_OK;
}

// SQLite would resolve the link "/proc/self/fd/N" and open the path that it finds, which may be another folder by then.
// Kept as it stands, every file that it opens lies in the store that was opened.
int keep_path(sqlite3_vfs *, const char *path, int size, char *out) {
    const std::size_t length = std::strlen(path);
    if (length + 1 > static_cast<std::size_t>(size))
        return SQLITE_CANTOPEN;
    std::memcpy(out, path, length + 1);
    return SQLITE_OK;
}

} // namespace

int take_catalog_error() noexcept {
    return std::exchange(last_error, 0);
}

const char *catalog_vfs() noexcept {
    static sqlite3_vfs vfs;
    static std::mutex registering;
    static bool is_registered = false;
    const std::lock_guard lock(registering);
    if (is_registered)
        return vfs_name;
    if (original() == nullptr)
        return nullptr;
    vfs = *original();
    vfs.pNext = nullptr;
    vfs.zName = vfs_name;
    vfs.szOsFile = static_cast<int>(own_size() + sizeof(Behind));
    vfs.xOpen = open_file;
    vfs.xFullPathname = keep_path;
    is_registered = sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
    return is_registered ? vfs_name : nullptr;
}

} // namespace qzfi::fi
