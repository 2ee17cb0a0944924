// Which files of a tree are one file: hard links, by device, inode and birth, as a file that is removed meanwhile
// leaves its inode number to another one. Only files with several links are in here, and only until all of their names
// were seen. There may be millions: each is one piece of memory of some 80 bytes.
#pragma once

#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "providers/engine/engine_work.h"

namespace qzfi::engine {

class Links {
public:
    enum class Claim {
        make,     // the first: it is to be made, and `made` to be called
        link,     // made already: `to` is filled in
        deferred, // another thread makes it now: the name comes back through `made`
    };
    struct Linked {
        Directory *directory; // referenced
        char name[256];
        bool has_digest;
        uint8_t digest[16];
        uint64_t target_inode;
        uint64_t born;
    };
    /// A deferred name; its directory is pending for it.
    struct Waiting {
        Waiting *below;
        Directory *directory;
        uint64_t inode;
        char *name() noexcept { return reinterpret_cast<char *>(this + 1); }
    };
    /// Ends the first of a list: gives its directory, and makes the next one the first.
    static Directory *next(Waiting *&first) noexcept {
        Waiting *const ended = first;
        Directory *const directory = ended->directory;
        first = ended->below;
        free(ended);
        return directory;
    }

    Links(Directories &directories, bool with_digests) : directories_(directories), with_digests_(with_digests) {}
    ~Links() {
        for (File *file : buckets_) {
            while (file != nullptr) {
                File *const ended = std::exchange(file, file->below);
                directories_.unreference(ended->directory);
                free(ended);
            }
        }
    }
    Links(const Links &) = delete;
    Links &operator=(const Links &) = delete;

    bool is_empty() const noexcept { return count_.load(std::memory_order_relaxed) == 0; }

    /// Takes a name of a file; throws std::bad_alloc. A deferred one makes its directory pending.
    Claim claim(const Stat &stat, Directory &directory, const char *name, Linked &to) {
        const std::lock_guard lock(mutex_);
        File *const file = found(stat);
        if (file == nullptr) {
            add(stat, directory, name);
            return Claim::make;
        }
        if (!file->is_made) {
            defer(*file, directory, name);
            return Claim::deferred;
        }
        fill(*file, to);
        return Claim::link;
    }

    /// The last file that was listed under an inode, if it is made. Whether it has it still, its birth tells.
    bool find(uint64_t device, uint64_t inode, Linked &to) {
        const std::lock_guard lock(mutex_);
        const File *file = buckets_.empty() ? nullptr : bucket(device, inode);
        while (file != nullptr && (file->inode != inode || file->device != device))
            file = file->below;
        if (file == nullptr || !file->is_made)
            return false;
        fill(*file, to);
        return true;
    }

    /// The claimed file is made, or (`is_made` false) forgotten. Gives the names that waited.
    Waiting *made(const Stat &stat, bool is_made, const uint8_t *digest, uint64_t target_inode) noexcept {
        const std::lock_guard lock(mutex_);
        File *const file = found(stat);
        if (file == nullptr)
            return nullptr;
        Waiting *const waiting = std::exchange(file->waiting, nullptr);
        if (!is_made) {
            forget(*file);
            return waiting;
        }
        file->is_made = true;
        file->target_inode = target_inode;
        file->has_digest = digest != nullptr && with_digests_;
        if (file->has_digest)
            memcpy(file->digest(), digest, digest_size);
        return waiting;
    }

    /// One more name was linked; the file is forgotten with the last.
    void linked(const Stat &stat) noexcept {
        const std::lock_guard lock(mutex_);
        File *const file = found(stat);
        if (file != nullptr && --file->left == 0 && file->waiting == nullptr)
            forget(*file);
    }

    /// The names that still wait after a run that was stopped.
    Waiting *take_waiting() noexcept {
        Waiting *all = nullptr;
        const std::lock_guard lock(mutex_);
        for (File *file : buckets_) {
            for (; file != nullptr; file = file->below) {
                while (file->waiting != nullptr) {
                    Waiting *const waiting = std::exchange(file->waiting, file->waiting->below);
                    waiting->below = all;
                    all = waiting;
                }
            }
        }
        return all;
    }

private:
    static constexpr std::size_t digest_size = 16;

    /// Behind it: the digest, where digests are given, and the first name.
    struct File {
        File *below; // in the bucket
        uint64_t device, inode, born;
        Directory *directory; // of the first name; referenced
        Waiting *waiting;
        uint64_t target_inode;
        uint32_t left; // names not yet seen
        bool is_made, has_digest;
        uint8_t *digest() noexcept { return reinterpret_cast<uint8_t *>(this + 1); }
        const uint8_t *digest() const noexcept { return reinterpret_cast<const uint8_t *>(this + 1); }
    };
    const char *name_of(const File &file) const noexcept {
        return reinterpret_cast<const char *>(file.digest()) + (with_digests_ ? digest_size : 0);
    }

    File *&bucket(uint64_t device, uint64_t inode) noexcept {
        const uint64_t hash = (inode ^ device << 32) * 0x9e3779b97f4a7c15;
        return buckets_[static_cast<std::size_t>(hash >> 32) & (buckets_.size() - 1)];
    }

    File *found(const Stat &stat) noexcept {
        if (buckets_.empty())
            return nullptr;
        const uint64_t device = device_of(stat);
        File *file = bucket(device, stat.stx_ino);
        while (file != nullptr && (file->inode != stat.stx_ino || file->device != device || file->born != stat.born))
            file = file->below;
        return file;
    }

    void add(const Stat &stat, Directory &directory, const char *name) {
        if (count_.load(std::memory_order_relaxed) >= buckets_.size())
            grow();
        const std::size_t start = sizeof(File) + (with_digests_ ? digest_size : 0), size = strlen(name) + 1;
        Bytes memory = allocate(start + size);
        memcpy(memory.get() + start, name, size);
        const uint64_t device = device_of(stat);
        File *&at = bucket(device, stat.stx_ino);
        at = new (memory.release())
            File{at, device, stat.stx_ino, stat.born, &directory, nullptr, 0, stat.stx_nlink - 1, false, false};
        directory.references.fetch_add(1, std::memory_order_relaxed);
        count_.fetch_add(1, std::memory_order_relaxed);
    }

    void grow() {
        std::vector<File *> before(buckets_.empty() ? 64 : 2 * buckets_.size());
        before.swap(buckets_);
        for (File *file : before) {
            while (file != nullptr) {
                File *const moved = std::exchange(file, file->below);
                File *&at = bucket(moved->device, moved->inode);
                moved->below = std::exchange(at, moved);
            }
        }
    }

    void defer(File &file, Directory &directory, const char *name) {
        const std::size_t size = strlen(name) + 1;
        Bytes memory = allocate(sizeof(Waiting) + size);
        memcpy(memory.get() + sizeof(Waiting), name, size);
        file.waiting = new (memory.release()) Waiting{file.waiting, &directory, file.inode};
        directory.pending.fetch_add(1, std::memory_order_relaxed);
    }

    void fill(const File &file, Linked &to) const noexcept {
        to.directory = file.directory;
        to.directory->references.fetch_add(1, std::memory_order_relaxed);
        memcpy(to.name, name_of(file), strlen(name_of(file)) + 1);
        to.has_digest = file.has_digest;
        if (file.has_digest)
            memcpy(to.digest, file.digest(), digest_size);
        to.target_inode = file.target_inode;
        to.born = file.born;
    }

    void forget(File &file) noexcept {
        File **at = &bucket(file.device, file.inode);
        while (*at != &file)
            at = &(*at)->below;
        *at = file.below;
        count_.fetch_sub(1, std::memory_order_relaxed);
        directories_.unreference(file.directory);
        free(&file);
    }

    Directories &directories_;
    const bool with_digests_;
    std::mutex mutex_;
    std::atomic<std::size_t> count_{0};
    std::vector<File *> buckets_; // a power of two of them
};

} // namespace qzfi::engine
