// The tree engine: copies, compares, brings up to date, walks and removes directory trees.
//
// A directory is a work item; a few worker threads take items from one queue. Every path is a directory descriptor and
// a name: no symbolic link is followed, no mount point crossed, nothing outside the two roots is touched, whatever
// happens to the tree meanwhile. Functions block until all is done; they may run in several threads on different trees.
// They throw nothing: memory that runs short is a status, like every other failure.
#pragma once

#include <cstdint>

#include <qzfi_provider.h>

namespace qzfi::engine {

/// How file data reaches the copy.
enum class Data {
    clone,         // FICLONE; where it does not work the copy fails, but a swap file in use is only remarked
    clone_or_copy, // FICLONE where it works, else copied
    copy,          // copied, holes kept: by copy_file_range, which lets Btrfs and XFS share blocks; read and written
                   // where that does not work, and for digests
};

struct Options {
    Data data = Data::copy;
    uint32_t workers = 2;        // 1 to 64, the caller's thread counts as one
    bool digest = false;         // give XXH3-128 digests with file entries
    bool entries = false;        // give every entry to the host
    bool nested_volumes = false; // walk into directories of another device that are subvolumes of the same file system;
                                 // what stands in a snapshot for one that it does not hold is remarked in any case
    bool sync = false;           // results are on stable storage when the function returns
    const char *only_entry = nullptr; // walk_tree: of all in the directory only this entry, unless it is a directory
    const qfi_excluded *excluded = nullptr; // directories left out silently; by their numbers
    uint32_t excluded_count = 0;
};

/// What became of a call. `status` is 0, QFI_STATUS_NO_MEMORY, or an own status of <qzfi_fi.h>; the host's `fail` was
/// told the object and errno of the first failure.
struct Result {
    int32_t status = 0;
    uint64_t entries = 0; // entries seen
    uint64_t bytes = 0;   // bytes of file data seen
    uint64_t changed = 0; // entries made, changed or removed (bring_up_to_date)
    uint64_t remarks = 0; // remarks given to the host
};

/// Makes `target/name` a copy of the tree `source`: data, holes, hard links, owners, modes, times, extended attributes
/// with ACLs and capabilities, device nodes, FIFOs, inode flags; sockets are remarked. After a failure what was made of
/// `target/name` stays: the caller removes it.
Result copy_tree(int source, int target, const char *name, const Options &options, const qfi_provider_host &host);

/// Makes the existing tree `target/name` equal to `source`, changing only what differs: entries of other type, size,
/// times, mode, owner or attributes, with digests also of other content. A changed file is replaced by a new one that
/// was made beside it. What `source` does not have is removed, but for sockets, which are remarked.
Result bring_up_to_date(int source, int target, const char *name, const Options &options,
                        const qfi_provider_host &host);

/// Walks a tree and gives every entry to the host, with digests when asked for.
Result walk_tree(int source, const Options &options, const qfi_provider_host &host);

/// Removes `target/name` and all below, immutable and append-only entries included, read-only subvolumes not.
/// A name that is not there is success.
Result remove_tree(int target, const char *name, const Options &options, const qfi_provider_host &host);

} // namespace qzfi::engine
