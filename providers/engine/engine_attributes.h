// Owners, modes, times, extended attributes and inode flags of an entry.
#pragma once

#include "providers/engine/engine_work.h"

namespace qzfi::engine {

/// An entry by its descriptor or, where it cannot be opened for that, by directory and name; with an empty name the
/// "directory" is a descriptor of the entry itself, for its place only.
struct Place {
    int descriptor = -1;
    int directory = -1;
    const char *name = nullptr;
};

/// What is known of a target entry before it gets its attributes.
struct Known {
    uint32_t uid, gid, mode;
    bool is_exact; // it may have attributes of its own that have to go: it existed, or inherited them
};

/// The entry whose attributes are kept, for remarks.
struct Subject {
    Run &run;
    Worker &worker;
    Directory *directory;
    const char *name; // null: the directory itself
};

/// Stands for inode flags that could not be read: `keep_attributes` remarks it.
inline constexpr uint32_t unknown_flags = uint32_t{1} << 31;
/// Inode flags that are kept; 0 for entries and file systems without. Asked for always: statx tells but some of them.
uint32_t flags_of(int descriptor) noexcept;
/// Sets the flag that must be right before there is data, no-COW; `may_inherit`: the target may have one that the
/// source has not. What fails is left to `keep_attributes`, which remarks it.
void keep_early_flags(int target, uint32_t flags, bool may_inherit);
/// Takes from a new directory what it inherited, so that it passes none of it on.
void drop_inherited_flags(int directory) noexcept;
/// Takes away what forbids changes, and says what it was. False when that is not possible.
bool clear_forbidding_flags(int descriptor, uint32_t *taken = nullptr) noexcept;

/// Makes a worker's buffers for extended attributes, which are otherwise made at the first use; throws std::bad_alloc.
void make_room(Worker &worker);
/// Whether an entry has extended attributes; -1 when it cannot be told, with errno.
int has_extended(Worker &worker, const Place &place);
/// Whether two entries have the same ones.
bool has_same_extended(Worker &worker, const Place &source, const Place &target);

/// Whether a new directory of this process keeps the modes and times that it takes. FAT keeps few modes, and most file
/// systems but not all keep nanoseconds; none says so. The directory is a private one afterwards.
bool keeps_what_it_takes(int directory) noexcept;

/// Gives the target all attributes of the source, flags that forbid changes last. What cannot be kept is remarked; in a
/// run that looks at what was kept, also what nobody said of. Access times are not looked at: they move by themselves.
/// `with_extended` false: neither has extended attributes.
void keep_attributes(const Subject &subject, const Place &source, const Place &target, const Stat &stat,
                     const Known &known, bool with_extended, uint32_t flags);

} // namespace qzfi::engine
