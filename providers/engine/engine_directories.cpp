#include <cstdio>
#include <cstring>
#include <linux/fs.h>
#include <new>
#include <string>
#include <sys/ioctl.h>
#include <utility>

#include "providers/engine/engine_work.h"

namespace qzfi::engine {
namespace {

// Less than PATH_MAX, with room for one more name.
constexpr std::size_t longest_path = 3500;

/// Opens a file on which somebody has a lease, such as a file server for its client, once it was given back; the system
/// sees to that within a minute. It is the same file all the while: no FIFO that took its name is waited for.
int open_leased(int directory, const char *name) noexcept {
    const Descriptor file(open_within(directory, name, O_PATH));
    Stat stat;
    if (!file || stat_of(file.get(), stat) != 0)
        return -1;
    if (!S_ISREG(stat.stx_mode)) {
        errno = EAGAIN;
        return -1;
    }
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", file.get());
    const auto opened = [&](int flags) {
        int descriptor = -1;
        do
            descriptor = open(path, O_RDONLY | O_CLOEXEC | flags);
        while (descriptor < 0 && errno == EINTR);
        return descriptor;
    };
    const int descriptor = opened(O_NOATIME);
    if (descriptor < 0 && errno == ENOENT)
        errno = EAGAIN; // no /proc: the file is there
    return descriptor >= 0 || errno != EPERM ? descriptor : opened(0);
}

void open_side(Descriptor &at, const char *path) noexcept {
    Descriptor next(open_to_read(at.get(), path, O_DIRECTORY));
    at = std::move(next);
}

} // namespace

Bytes allocate(std::size_t size) {
    Bytes bytes(static_cast<char *>(malloc(size)));
    if (!bytes)
        throw std::bad_alloc();
    return bytes;
}

int open_to_read(int directory, const char *name, int flags) noexcept {
    int descriptor = open_within(directory, name, flags | O_RDONLY | O_NONBLOCK | O_NOATIME);
    if (descriptor < 0 && errno == EPERM) // another user's: its access time will move
        descriptor = open_within(directory, name, flags | O_RDONLY | O_NONBLOCK);
    return descriptor >= 0 || errno != EAGAIN ? descriptor : open_leased(directory, name);
}

void put_back_flags(Directory &directory) noexcept {
    const uint32_t taken = std::exchange(directory.forbidding, 0);
    const int changed = directory.target != -1 ? directory.target : directory.source; // a removal has no target
    unsigned flags = 0;
    if (taken == 0 || changed < 0 || ioctl(changed, FS_IOC_GETFLAGS, &flags) != 0)
        return;
    flags |= taken;
    ioctl(changed, FS_IOC_SETFLAGS, &flags);
}

bool means_gone(int error) noexcept {
    return error == ESTALE || error == ENOENT || error == ENOTDIR || error == ELOOP || error == EXDEV;
}

Directory *Directory::make(Directory *parent, const char *name) {
    const std::size_t length = strlen(name);
    Bytes memory = allocate(sizeof(Directory) + length + 1);
    auto *const directory = new (memory.release()) Directory;
    memcpy(directory->name(), name, length + 1);
    directory->parent = parent;
    static std::atomic<uint64_t> last_serial{0};
    directory->serial = last_serial.fetch_add(1, std::memory_order_relaxed) + 1;
    if (parent != nullptr)
        parent->references.fetch_add(1, std::memory_order_relaxed);
    return directory;
}

void Directories::unreference(Directory *directory) noexcept {
    while (directory != nullptr && directory->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        Directory *const parent = directory->parent;
        {
            const std::lock_guard lock(mutex_);
            unlink_idle(*directory);
            open_ -= directory->is_counted;
        }
        put_back_flags(*directory);
        Descriptor source(directory->source), target(directory->target);
        directory->~Directory();
        free(directory);
        directory = parent;
    }
}

bool Directories::acquire(Directory &directory, const Directory *open_child) noexcept {
    const std::lock_guard lock(mutex_);
    if (directory.was_closed && !reopen(directory, open_child))
        return false;
    if (directory.users++ == 0)
        unlink_idle(directory);
    return true;
}

void Directories::release(Directory &directory) noexcept {
    const std::lock_guard lock(mutex_);
    if (--directory.users != 0)
        return;
    directory.older = newest_;
    directory.newer = nullptr;
    (newest_ != nullptr ? newest_->newer : oldest_) = &directory;
    newest_ = &directory;
    while (open_ > limit_ && oldest_ != nullptr)
        shut(*oldest_);
}

void Directories::adopt(Directory &directory) noexcept {
    const std::lock_guard lock(mutex_);
    directory.users = 1;
    directory.is_counted = true;
    ++open_;
}

void Directories::unlink_idle(Directory &directory) noexcept {
    if (directory.older == nullptr && directory.newer == nullptr && oldest_ != &directory)
        return; // was just opened
    (directory.older != nullptr ? directory.older->newer : oldest_) = directory.newer;
    (directory.newer != nullptr ? directory.newer->older : newest_) = directory.older;
    directory.older = directory.newer = nullptr;
}

void Directories::shut(Directory &directory) noexcept {
    unlink_idle(directory);
    if (directory.target >= 0) {
        Stat stat;
        if (directory.target_inode == 0 && stat_of(directory.target, stat) == 0) {
            directory.target_device = device_of(stat);
            directory.target_inode = stat.stx_ino;
        }
        close(directory.target);
        directory.target = -2;
    }
    if (directory.source >= 0) {
        close(directory.source);
        directory.source = -2;
    }
    directory.was_closed = directory.lost_position = true;
    directory.is_counted = false;
    --open_;
}

bool Directories::reopen(Directory &directory, const Directory *open_child) noexcept {
    if (directory.source == -2 && !directory.is_gone && !reopen_side(directory, &Directory::source, open_child)) {
        if (!means_gone(errno))
            return false;
        directory.is_gone = true;
    }
    if (directory.target == -2 && !reopen_side(directory, &Directory::target, open_child)) {
        const int error = errno;
        if (directory.source >= 0) {
            close(directory.source);
            directory.source = -2;
        }
        errno = error;
        return false;
    }
    directory.was_closed = false;
    directory.is_counted = true;
    ++open_;
    return true;
}

bool Directories::reopen_side(Directory &directory, int Directory::*side, const Directory *open_child) noexcept {
    const bool is_source = side == &Directory::source;
    const auto is_right = [&](int descriptor) {
        Stat stat;
        if (stat_of(descriptor, stat) != 0)
            return false;
        const uint64_t device = is_source ? device_of(directory.stat) : directory.target_device;
        const uint64_t inode = is_source ? directory.stat.stx_ino : directory.target_inode;
        return stat.stx_ino == inode && device_of(stat) == device;
    };
    if (open_child != nullptr && open_child->*side >= 0) {
        Descriptor up(openat(open_child->*side, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (up && is_right(up.get())) {
            directory.*side = up.release();
            return true;
        }
    }

    const Directory *ancestor = directory.parent;
    while (ancestor->*side < 0) // the root is never closed
        ancestor = ancestor->parent;
    try {
        std::string path;
        Descriptor at(fcntl(ancestor->*side, F_DUPFD_CLOEXEC, 3));
        while (at && ancestor != &directory) {
            // As many names as a path may hold, from the top down: the lowest of them is found by going up.
            path.clear();
            Directory *step = &directory;
            std::size_t depth = 0;
            for (const Directory *d = &directory; d != ancestor; d = d->parent)
                ++depth;
            constexpr std::size_t at_once = longest_path / 256;
            for (; depth > at_once; --depth)
                step = step->parent;
            const Directory *const lowest = step;
            for (; step != ancestor; step = step->parent) {
                if (!path.empty())
                    path.insert(0, 1, '/');
                path.insert(0, step->name());
            }
            open_side(at, path.c_str());
            ancestor = lowest;
        }
        if (!at)
            return false;
        if (!is_right(at.get())) {
            errno = ESTALE;
            return false;
        }
        directory.*side = at.release();
        return true;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return false;
    }
}

} // namespace qzfi::engine
