// System calls as the engine makes them: one name in one directory, no link followed, no mount crossed, nothing that
// can block.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <linux/openat2.h>
#include <memory>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace qzfi::engine {

/// What the engine uses of a statx, half its size: each directory that is remembered has one.
struct Stat {
    uint64_t stx_attributes, stx_attributes_mask;
    uint64_t stx_ino, stx_size, stx_blocks;
    statx_timestamp stx_atime, stx_mtime, stx_ctime;
    uint32_t stx_nlink, stx_uid, stx_gid;
    uint32_t stx_rdev_major, stx_rdev_minor, stx_dev_major, stx_dev_minor;
    uint16_t stx_mode;
    uint64_t born; // tells a file from one that has its inode number later
};

/// Unlike close() no point to be cancelled at, which costs threads.
inline void close_number(int number) noexcept {
#ifdef __SANITIZE_THREAD__
    close(number); // else it takes whoever gets the number next for a rival
#else
    syscall(SYS_close, number);
#endif
}

class Descriptor {
public:
    Descriptor() noexcept = default;
    explicit Descriptor(int number) noexcept : number_(number) {}
    Descriptor(Descriptor &&other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() { reset(); }
    void reset() noexcept {
        if (number_ < 0)
            return;
        const int error = errno; // what failed before counts more
        close_number(std::exchange(number_, -1));
        errno = error;
    }
    int release() noexcept { return std::exchange(number_, -1); }
    int get() const noexcept { return number_; }
    explicit operator bool() const noexcept { return number_ >= 0; }

private:
    int number_ = -1;
};

struct Free {
    void operator()(void *memory) const noexcept { free(memory); }
};
using Bytes = std::unique_ptr<char, Free>;

/// Memory from malloc; throws std::bad_alloc.
Bytes allocate(std::size_t size);

/// Makes a file in a directory, to be read and written.
inline int create_file(int directory, const char *name, mode_t mode) noexcept {
    open_how how{};
    how.flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    how.mode = mode;
    return static_cast<int>(syscall(SYS_openat2, directory, name, &how, sizeof how));
}

/// Opens a name, or a relative path, below a directory.
inline int open_within(int directory, const char *name, int flags, mode_t mode = 0) noexcept {
    open_how how{};
    how.flags = static_cast<uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC | O_NOFOLLOW));
    how.mode = mode;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    return static_cast<int>(syscall(SYS_openat2, directory, name, &how, sizeof how));
}

/// Opens for reading, without a trace in the access time where that is permitted. Waits for the lease of a file to be
/// given back, and for nothing else.
int open_to_read(int directory, const char *name, int flags) noexcept;

/// A number of a file's own among those that have its inode number one after the other: of its type and its birth or,
/// where that is not told, its size and its last change.
inline uint64_t birth_of(const struct statx &all) noexcept {
    const bool is_told = (all.stx_mask & STATX_BTIME) != 0;
    const statx_timestamp &time = is_told ? all.stx_btime : all.stx_mtime;
    const uint64_t size = is_told ? 0 : all.stx_size;
    const auto moment = static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
    return moment ^ size * 0x9e3779b97f4a7c15 ^ static_cast<uint64_t>(all.stx_mode & S_IFMT) << 48;
}

inline int stat_of(int directory, const char *name, int flags, Stat &out) noexcept {
    struct statx all;
    if (statx(directory, name, flags | AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &all) != 0)
        return -1;
    out = {all.stx_attributes, all.stx_attributes_mask,
           all.stx_ino,        all.stx_size,
           all.stx_blocks,     all.stx_atime,
           all.stx_mtime,      all.stx_ctime,
           all.stx_nlink,      all.stx_uid,
           all.stx_gid,        all.stx_rdev_major,
           all.stx_rdev_minor, all.stx_dev_major,
           all.stx_dev_minor,  all.stx_mode,
           birth_of(all)};
    return 0;
}
inline int stat_of(int descriptor, Stat &out) noexcept {
    return stat_of(descriptor, "", AT_EMPTY_PATH, out);
}
inline int stat_of(int directory, const char *name, Stat &out) noexcept {
    return stat_of(directory, name, AT_NO_AUTOMOUNT, out);
}
/// As st_dev has it.
inline uint64_t device_of(const Stat &stat) noexcept {
    return makedev(stat.stx_dev_major, stat.stx_dev_minor);
}
/// The same file, as far as its numbers tell.
inline bool is_same(const Stat &a, const Stat &b) noexcept {
    return a.stx_ino == b.stx_ino && device_of(a) == device_of(b);
}
inline bool is_same_time(const statx_timestamp &a, const statx_timestamp &b) noexcept {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}
/// Nothing of a file's content or attributes was changed between two looks.
inline bool is_unchanged(const Stat &a, const Stat &b) noexcept {
    return a.stx_size == b.stx_size && is_same_time(a.stx_mtime, b.stx_mtime) && is_same_time(a.stx_ctime, b.stx_ctime);
}
inline timespec time_of(const statx_timestamp &time) noexcept {
    return {static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)};
}

/// Failures that say nothing about the object but that the process or the system has run short.
inline bool is_shortage(int error) noexcept {
    return error == ENOMEM || error == EMFILE || error == ENFILE || error == ENOBUFS;
}

/// The record of getdents64.
struct Dirent {
    uint64_t inode;
    int64_t offset;
    uint16_t length;
    uint8_t type;
    char name[1]; // longer; the length is the record's
};
inline constexpr std::size_t dirent_name_offset = 19;

} // namespace qzfi::engine
