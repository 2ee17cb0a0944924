// Copying one file.
#include "providers/engine/engine_copy.h"

#include <algorithm>
#include <dirent.h>
#include <linux/fs.h>
#include <new>
#include <sys/ioctl.h>

#include <qzfi_fi.h>

namespace qzfi::engine {
namespace {

constexpr int most_reads = 3;
constexpr uint64_t least_to_share = uint64_t{64} << 20;
constexpr uint64_t least_to_divide = uint64_t{1} << 20; // data that is worth two workers in one directory
constexpr uint64_t shared_piece = uint64_t{16} << 20;
constexpr uint32_t forbidding_flags = FS_IMMUTABLE_FL | FS_APPEND_FL;

void put_name(char (&out)[256], const char *name) {
    memcpy(out, name, strlen(name) + 1);
}

} // namespace

Copier::Outcome Copier::file(Worker &worker, Directory &directory, const char *name) {
    FileCopy copy;
    copy.directory = &directory;
    put_name(copy.name, name);
    put_name(copy.made_as, name);
    copy.from = Descriptor(open_to_read(directory.source, name, 0));
    if (!copy.from && (errno == ELOOP || errno == ENXIO || errno == ENOTDIR))
        return Outcome::other_type;
    if (!copy.from || stat_of(copy.from.get(), copy.stat) != 0) {
        passed_over(worker, copy.from ? "statx" : "openat2", directory, name, errno);
        return Outcome::done;
    }
    if (!S_ISREG(copy.stat.stx_mode))
        return Outcome::other_type;
    reached(Point::opened, name);

    if (copy.stat.stx_nlink > 1) {
        Links::Linked to;
        const Links::Claim claim = links_.claim(copy.stat, directory, name, to);
        if (claim == Links::Claim::deferred)
            return Outcome::done;
        copy.is_claimed = claim == Links::Claim::make;
        if (claim == Links::Claim::link) {
            const bool is_made = link(worker, directory, name, copy.stat, to);
            directories.unreference(to.directory);
            if (is_made)
                return Outcome::done;
        }
    }
    const bool is_cloned = options.data != Data::copy && means_.clones && !options.digest;
    worker.note(is_cloned || copy.stat.stx_size < least_to_divide);
    try {
        copy.flags = flags_of(copy.from.get());
        const int extended = has_extended(worker, Place{copy.from.get()});
        copy.with_extended = extended != 0; // also when it cannot be told: keeping them will remark it
        if (may_wait(copy)) {
            std::vector<FileCopy> &waiting = waiting_[worker.index];
            waiting.push_back(std::move(copy));
            if (waiting.size() >= most_waiting_)
                end_entries(worker);
            return Outcome::done;
        }
        return copy_opened(worker, copy);
    } catch (const std::bad_alloc &) {
        stop(QFI_STATUS_NO_MEMORY);
        settle(worker, copy, false, 0);
        return Outcome::done;
    }
}

/// Files wait to be copied several at a time where nothing waits for them: no other name, no other worker.
bool Copier::may_wait(const FileCopy &copy) const noexcept {
    return !updates_ && copy.stat.stx_nlink <= 1 && copy.stat.stx_size < least_to_share;
}

/// Copies the files that wait, all of them step by step: the kernel is faster at what it just did, and two workers at
/// different steps hinder each other less.
void Copier::end_entries(Worker &worker) {
    std::vector<FileCopy> &waiting = waiting_[worker.index];
    const auto each = [&](auto step) {
        for (FileCopy &copy : waiting) {
            if (copy.from && !is_stopped() && !step(copy))
                copy.from.reset();
        }
    };
    std::unique_lock turn(turn_mutex_, std::defer_lock);
    if (takes_turns_ && means_.clones)
        turn.lock();
    each([&](FileCopy &copy) { return create(worker, copy); });
    each([&](FileCopy &copy) {
        reached(Point::created, copy.name);
        keep_early_flags(copy.to.get(), copy.flags, false);
        return take_data(worker, copy, false);
    });
    if (turn)
        turn.unlock();
    each([&](FileCopy &copy) {
        finish(worker, copy);
        return true;
    });
    waiting.clear();
}

Copier::Outcome Copier::copy_opened(Worker &worker, FileCopy &copy) {
    bool is_done = false;
    if (updates_ && is_file_up_to_date(worker, copy, is_done))
        return Outcome::done;
    if (is_done || !create(worker, copy)) {
        settle(worker, copy, false, 0);
        return Outcome::done;
    }
    reached(Point::created, copy.name);
    keep_early_flags(copy.to.get(), copy.flags, updates_);
    if (!share(worker, copy))
        move(worker, copy, false);
    return Outcome::done;
}

bool Copier::create(Worker &worker, FileCopy &copy) {
    const bool is_ours = copy.stat.stx_uid == made_uid_ && copy.stat.stx_gid == made_gid_;
    // Of another owner: no rights for a group that is not the file's. With a list of rights the group's may be less
    // than the mode says, and what is brought up to date is not hidden by a private directory above it.
    const mode_t mode = copy.stat.stx_mode & (is_ours && !(updates_ && copy.with_extended) ? 0777 : 0700);
    copy.to = Descriptor(create_file(copy.directory->target, copy.made_as, mode));
    if (!copy.to && errno == EEXIST) {
        remark(worker, QFI_REMARK_WARNING, copy.directory, copy.name,
               "listed twice, or differs in case only: the first is kept", EEXIST);
        return false;
    }
    if (!copy.to) {
        fail_target(worker, "openat2", copy.directory, copy.name, errno);
        return false;
    }
    copy.known = {made_uid_, made_gid_, mode & ~umask_, false};
    if (!updates_)
        return true;
    Stat made; // an existing directory passes on what it likes
    if (stat_of(copy.to.get(), made) == 0)
        copy.known = {made.stx_uid, made.stx_gid, made.stx_mode, true};
    return true;
}

void Copier::move(Worker &worker, FileCopy &copy, bool was_torn) {
    if (take_data(worker, copy, was_torn))
        finish(worker, copy);
}

/// Takes the data over, again while the file changes meanwhile. False when there is no copy.
bool Copier::take_data(Worker &worker, FileCopy &copy, bool was_torn) {
    bool is_torn = was_torn, is_told = false;
    for (int reads = was_torn ? 1 : 0; reads < most_reads; ++reads) {
        if (is_torn && ftruncate(copy.to.get(), 0) != 0) {
            fail_target(worker, "ftruncate", copy.directory, copy.name, errno);
            give_up(worker, copy);
            return false;
        }
        const Moved moved = move_data(*this, worker, means_, copy.from.get(), copy.to.get(), copy.stat,
                                      options.digest ? &copy.digest : nullptr);
        copy.has_digest = options.digest;
        reached(Point::read_once, copy.name);
        if (!moved_well(worker, copy, moved)) {
            give_up(worker, copy);
            return false;
        }
        if (moved.clone_error != 0 && !is_told) {
            is_told = true;
            remark(worker, QFI_REMARK_WARNING, copy.directory, copy.name, "cannot be cloned: it is copied",
                   moved.clone_error);
        }
        Stat now;
        if (stat_of(copy.from.get(), now) != 0) {
            is_torn = false;
            break;
        }
        is_torn = moved.is_short || !is_unchanged(copy.stat, now);
        if (!is_torn)
            break;
        if (moved.is_clone && reads + 1 == most_reads) {
            // It is of one instant. The times of before it cannot pass for those of a later content.
            Stat made;
            if (stat_of(copy.to.get(), made) == 0)
                copy.stat.stx_size = made.stx_size;
            is_torn = false;
            break;
        }
        now.born = copy.stat.born; // which it is claimed by
        copy.stat = now;
    }
    if (is_torn) {
        Stat made; // what is told of the file must be what was kept
        if (stat_of(copy.to.get(), made) == 0)
            copy.stat.stx_size = made.stx_size;
        remark(worker, QFI_REMARK_TORN, copy.directory, copy.name, "it changes whenever it is read", 0);
    }
    return true;
}

bool Copier::moved_well(Worker &worker, FileCopy &copy, const Moved &moved) {
    if (is_stopped())
        return false;
    if (moved.operation == nullptr)
        return true;
    if (moved.on_target)
        fail_target(worker, moved.operation, copy.directory, copy.name, moved.error);
    else if (is_shortage(moved.error))
        fail_source(worker, moved.operation, copy.directory, copy.name, moved.error);
    else
        remark(worker, QFI_REMARK_UNREADABLE, copy.directory, copy.name, "cannot be read", moved.error);
    return false;
}

void Copier::give_up(Worker &worker, FileCopy &copy) {
    copy.to.reset();
    unlinkat(copy.directory->target, copy.made_as, 0);
    settle(worker, copy, false, 0);
}

void Copier::finish(Worker &worker, FileCopy &copy) {
    const Subject subject{*this, worker, copy.directory, copy.name};
    const bool is_late = copy.is_claimed && (copy.flags & forbidding_flags) != 0;
    const bool is_renamed = copy.is_existing && (copy.flags & forbidding_flags) != 0;
    const uint32_t flags = is_late || is_renamed ? copy.flags & ~forbidding_flags : copy.flags;
    keep_attributes(subject, Place{copy.from.get()}, Place{copy.to.get()}, copy.stat, copy.known,
                    copy.with_extended || copy.known.is_exact, flags);
    changed();
    Stat made;
    uint64_t inode = 0;
    if (updates_ && stat_of(copy.to.get(), made) == 0) {
        bool was_ours = false;
        inode = made.stx_ino;
        claim_target(made, copy.stat, was_ours);
        if (made.stx_uid != copy.stat.stx_uid &&
            fchown(copy.to.get(), copy.stat.stx_uid, static_cast<gid_t>(-1)) != 0 && errno == EPERM)
            gives_owners_.store(false, std::memory_order_relaxed);
    }
    if (copy.is_existing && !put_in_place(worker, *copy.directory, copy.made_as, copy.name))
        return give_up(worker, copy);
    unsigned final_flags = 0;
    if ((is_late || is_renamed) && ioctl(copy.to.get(), FS_IOC_GETFLAGS, &final_flags) == 0) {
        final_flags |= copy.flags & forbidding_flags;
        if (is_late) {
            const std::size_t size = strlen(copy.name) + 1;
            Bytes name = allocate(size);
            memcpy(name.get(), copy.name, size);
            const std::lock_guard lock(late_mutex_);
            late_.push_back({copy.directory, std::move(name), final_flags});
            copy.directory->references.fetch_add(1, std::memory_order_relaxed);
        } else if (ioctl(copy.to.get(), FS_IOC_SETFLAGS, &final_flags) != 0) {
            remark(worker, QFI_REMARK_ATTRIBUTE, copy.directory, copy.name, "immutable or append-only flag", errno);
        }
    }
    tell_entry(worker, copy.directory, copy.name, copy.stat, nullptr, copy.has_digest ? copy.digest : nullptr);
    settle(worker, copy, true, inode);
}

/// The names that waited for the file get their turn: as links of it or, when it came to nothing, as the first.
void Copier::settle(Worker &worker, FileCopy &copy, bool is_made, uint64_t target_inode) {
    if (!copy.is_claimed)
        return;
    copy.is_claimed = false;
    resume(worker, links_.made(copy.stat, is_made, copy.has_digest ? copy.digest : nullptr, target_inode), DT_REG);
}

void Copier::resume(Worker &worker, Links::Waiting *waiting, uint8_t type) {
    while (waiting != nullptr) {
        try {
            push_entry(*waiting->directory, waiting->name(), type, waiting->inode);
        } catch (const std::bad_alloc &) {
            stop(QFI_STATUS_NO_MEMORY);
        }
        done_in(worker, Links::next(waiting));
    }
}

/// Cuts a large file into ranges for all threads. A digest needs the data in order: then one thread copies it.
bool Copier::share(Worker &worker, FileCopy &copy) {
    const uint64_t size = copy.stat.stx_size;
    if (size < least_to_share || options.workers < 2 || options.digest || !shares_files_)
        return false;
    if (options.data != Data::copy && means_.clones)
        return false; // a clone is one call
    if (shares_blocks_ && shares_beginning(means_, copy.from.get(), copy.to.get()))
        return false;
    if (ftruncate(copy.to.get(), static_cast<off_t>(size)) != 0) {
        fail_target(worker, "ftruncate", copy.directory, copy.name, errno);
        give_up(worker, copy);
        return true;
    }
    auto *const shared = new SharedCopy{std::move(copy)};
    Directory &directory = *shared->file.directory;
    const auto count = static_cast<uint32_t>((size + shared_piece - 1) / shared_piece);
    shared->left = count;
    shared->references = count;
    for (uint32_t i = count; i-- > 0;) { // the first range on top
        const uint64_t start = i * shared_piece;
        auto *const range = new (std::nothrow) FileRange{shared, start, std::min(size, start + shared_piece)};
        try {
            if (range == nullptr)
                throw std::bad_alloc();
            push_range(directory, range);
        } catch (const std::bad_alloc &) {
            delete range;
            stop(QFI_STATUS_NO_MEMORY);
            for (uint32_t rest = 0; rest <= i; ++rest) {
                if (shared->references.fetch_sub(1) == 1)
                    delete shared;
            }
            break;
        }
    }
    return true;
}

void Copier::copy_range(Worker &worker, FileRange *range) {
    SharedCopy &shared = *range->copy;
    FileCopy &copy = shared.file;
    try {
        const Moved moved = copy_range_of(*this, worker, copy.from.get(), copy.to.get(), range->start, range->end,
                                          is_sparse(copy.stat), nullptr);
        if (moved.is_short)
            shared.is_torn = true;
        if (moved.operation != nullptr && !shared.is_failed.exchange(true))
            moved_well(worker, copy, moved);
        if (shared.left.fetch_sub(1) == 1)
            end_shared(worker, shared);
    } catch (const std::bad_alloc &) {
        stop(QFI_STATUS_NO_MEMORY);
    }
    drop_range(range);
}

void Copier::end_shared(Worker &worker, SharedCopy &shared) {
    FileCopy &copy = shared.file;
    if (!directories.acquire(*copy.directory))
        return fail_target(worker, "openat2", copy.directory, copy.name, errno);
    struct Release {
        Directories &directories;
        Directory &directory;
        ~Release() { directories.release(directory); }
    } const release{directories, *copy.directory};
    Stat now;
    const bool is_torn = shared.is_torn || (stat_of(copy.from.get(), now) == 0 && !is_unchanged(copy.stat, now));
    if (shared.is_failed || is_stopped())
        give_up(worker, copy);
    else if (is_torn)
        move(worker, copy, true);
    else
        finish(worker, copy);
}

void Copier::drop_range(FileRange *range) noexcept {
    SharedCopy *const shared = range->copy;
    delete range;
    if (shared->references.fetch_sub(1) == 1)
        delete shared;
}

} // namespace qzfi::engine
