#include "fi/fi_store_vfs.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>
#include <sqlite3.h>
#include <sys/mman.h>
#include <vector>

namespace qzfi::fi {

namespace {

constexpr const char *vfs_name = "qzfi-fi";

sqlite3_vfs *original() noexcept {
    static sqlite3_vfs *const unix_vfs = sqlite3_vfs_find("unix");
    return unix_vfs;
}

struct Region {
    void *start;
    std::size_t size;
};

// What is kept behind SQLite's own record of a file, whose methods get the same pointer as ours.
struct Behind {
    const sqlite3_io_methods *methods = nullptr; // SQLite's own
    std::vector<Region> index;                   // the mapped wal-index
};

std::size_t own_size() noexcept {
    constexpr std::size_t alignment = alignof(Behind);
    return (static_cast<std::size_t>(original()->szOsFile) + alignment - 1) / alignment * alignment;
}

Behind &behind(sqlite3_file *file) noexcept {
    return *std::launder(reinterpret_cast<Behind *>(reinterpret_cast<char *>(file) + own_size()));
}

// A page that was mapped is backed by the file system only once it is written to. Kernels before 5.14 do not know how
// to do that without a signal when there is no room.
int back(const Region &region) noexcept {
    if (madvise(region.start, region.size, MADV_POPULATE_WRITE) == 0 || errno == EINVAL)
        return SQLITE_OK;
    return errno == EFAULT ? SQLITE_FULL : SQLITE_IOERR_SHMMAP;
}

int map_index(sqlite3_file *file, int number, int size, int extend, void volatile **start) {
    Behind &own = behind(file);
    const int result = own.methods->xShmMap(file, number, size, extend, start);
    if (result != SQLITE_OK || *start == nullptr)
        return result;
    const Region region{const_cast<void *>(*start), static_cast<std::size_t>(size)};
    // Who may not extend the index only reads, for as long as no lock is taken.
    int backed = extend != 0 ? back(region) : SQLITE_OK;
    try {
        if (backed == SQLITE_OK)
            own.index.push_back(region);
    } catch (const std::bad_alloc &) {
        backed = SQLITE_NOMEM;
    }
    if (backed != SQLITE_OK)
        *start = nullptr; // SQLite goes by it
    return backed;
}

// Whoever writes to the index holds a lock of it alone. File systems that never overwrite, such as Btrfs, need room
// again for a page that was written back since.
int lock_index(sqlite3_file *file, int offset, int count, int flags) {
    Behind &own = behind(file);
    const int result = own.methods->xShmLock(file, offset, count, flags);
    if (result != SQLITE_OK || flags != (SQLITE_SHM_LOCK | SQLITE_SHM_EXCLUSIVE))
        return result;
    for (const Region &region : own.index) {
        const int backed = back(region);
        if (backed == SQLITE_OK)
            continue;
        own.methods->xShmLock(file, offset, count, SQLITE_SHM_UNLOCK | SQLITE_SHM_EXCLUSIVE);
        return backed;
    }
    return SQLITE_OK;
}

int unmap_index(sqlite3_file *file, int remove) {
    Behind &own = behind(file);
    own.index.clear();
    return own.methods->xShmUnmap(file, remove);
}

int close_file(sqlite3_file *file) {
    Behind &own = behind(file);
    const sqlite3_io_methods *const methods = own.methods;
    own.~Behind();
    return methods->xClose(file);
}

// The methods of files that may have a wal-index. SQLite has several tables of them, by the kind of locking, of which
// one is in use for all files of ours.
sqlite3_io_methods wrapped;
std::mutex wrapping;

int open_file(sqlite3_vfs *, const char *path, sqlite3_file *file, int flags, int *given_flags) {
    const int result = original()->xOpen(original(), path, file, flags, given_flags);
    const bool has_index = (flags & SQLITE_OPEN_MAIN_DB) != 0 && file->pMethods != nullptr &&
                           file->pMethods->iVersion >= 2 && file->pMethods->xShmMap != nullptr;
    if (result != SQLITE_OK || !has_index)
        return result;
    const std::lock_guard lock(wrapping);
    Behind *const own = new (reinterpret_cast<char *>(file) + own_size()) Behind;
    own->methods = file->pMethods;
    if (wrapped.iVersion == 0) {
        wrapped = *file->pMethods;
        wrapped.xClose = close_file;
        wrapped.xShmMap = map_index;
        wrapped.xShmLock = lock_index;
        wrapped.xShmUnmap = unmap_index;
    }
    file->pMethods = &wrapped;
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
