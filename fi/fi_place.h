// Places in the host's own directories that are about to be replaced or made: found without following a link, and
// looked at for what would be lost.
#pragma once

#include <string>
#include <sys/stat.h>
#include <vector>

#include "fi/fi_library.h"

namespace qzfi::fi {

/// An entry of an open directory.
struct Place {
    Descriptor parent;
    std::string name;
    std::string path;      // absolute, of the entry
    bool is_below = false; // an object: there a link is an entry like others, which is replaced itself
};

/// Absolute and canonical by its text alone; throws for a relative or an empty one.
std::string canonical_text(std::string_view path, const char *operation);

/// Opens an absolute path with every component a real directory, mounts included. Throws; QFI_FI_UNSAFE, with the link
/// named, when a component is a symbolic link.
Descriptor open_without_links(const std::string &path, int flags, const char *operation);

/// The place of an absolute path: its directory must be there, itself not. Throws for "/".
Place open_place(const std::string &path, const char *operation);

/// The place of a path below an object, on the object's own mount: throws when another one is in the way. An empty path
/// is the object's own place.
Place open_place_below(const std::string &object, const std::string &path, const char *operation);

/// Throws for a link, a mount point, the root of a subvolume, and a directory with a mount, a nested subvolume or a
/// store below it: what would be lost or cannot be exchanged. False when nothing is there. `cancelled_by` may be null.
bool refuse_irreplaceable(const Place &place, const std::vector<std::string> &stores, const char *operation,
                          Progress *cancelled_by);

/// Throws when the place is a store, or lies in one, whatever the store's path says; `what` is the cause.
void refuse_in_stores(const Place &place, const std::vector<std::string> &stores, const char *what,
                      const char *operation);

/// Whether a directory is, or would be once it is made, an open one or lies in it, whatever its path says.
bool would_lie_in(const std::string &path, int folder);

/// Throws when entries of the directory around the place cannot be made or exchanged, such as on a read-only mount.
void require_changeable(const Place &place, const char *operation);

/// Whether a directory is the one at a path, or lies above it. Looked for by identity, whatever the path says.
bool lies_at_or_above(const struct stat &directory, const std::string &path);

/// Whether an open directory is the root of a Btrfs subvolume.
bool is_subvolume(int directory);

/// Whether it is what a snapshot has in place of a subvolume that it does not hold: an empty directory for good.
bool is_stand_in(int directory) noexcept;

/// Throws QFI_FI_EXISTS unless nothing or an empty directory is there. True for an empty directory.
bool refuse_existing(const Place &place, const char *operation);

/// A folder of this process beside a place, ".qzfi-restore-HASH", in which the new tree is made and the old one
/// removed. Its name tells the place, so that whoever restores there next finds, and removes, what a killed process
/// left. Throws QFI_FI_BUSY while another process has it, and QFI_FI_UNSAFE when what is there was left by none:
/// whoever owns the directory may have moved anybody's tree there, for it to be removed.
class Workshop {
public:
    Workshop(const Place &place, const char *operation);
    ~Workshop();
    Workshop(const Workshop &) = delete;
    Workshop &operator=(const Workshop &) = delete;
    int directory() const noexcept { return directory_.get(); }
    std::string path() const;
    static constexpr const char *tree = "tree"; // the name of what is made

    /// Puts `tree` in the place, for good; `clear` removes what was there. Throws; all is as before then.
    void exchange();
    /// Puts `tree` in the place, where nothing or, `over_empty`, an empty directory is.
    void put(bool over_empty);
    /// Removes the workshop with all in it, and what was replaced. Throws.
    void clear();

private:
    bool claim();
    void mark(const struct stat &status);
    void empty();
    void remove_beside();
    void note_beside(int directory, const char *name);
    bool is_noted(int directory, const char *name) const;
    [[noreturn]] void refuse_alien(const std::string &name) const;
    void sync_parent();
    const Place &place_;
    const char *operation_;
    std::string name_;
    std::string beside_; // the name of the new tree, then the old one, next to the place for the exchange
    Descriptor directory_;
};

} // namespace qzfi::fi
