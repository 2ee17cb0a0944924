// The folders of a store's images as they change hands: locks, and the removal of what is an image no longer.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "fi/fi_store.h"
#include "fi/fi_store_catalog.h"

namespace qzfi::fi {

/// What stores and images in the making share.
struct Store::State {
    std::string path;
    Descriptor directory;
    Descriptor images;
    uint64_t device = 0;
    uint64_t inode = 0;
    std::string identity; ///< of the folder, whatever its path and wherever its file system is mounted
    bool is_writable = false;
    int write_error = 0; ///< errno: why it cannot be written
    std::unique_ptr<Catalog> catalog;
    uint64_t removed_debris = 0; ///< when it was opened; a repair tells of it, as nobody else does
};

/// An exclusive lock of a file by flock. Let go of explicitly: a child that was forked meanwhile may still have the
/// descriptor.
class FileLock {
public:
    explicit FileLock(Descriptor file) noexcept : file_(std::move(file)) {}
    FileLock(FileLock &&) noexcept = default;
    FileLock &operator=(FileLock &&) = delete;
    ~FileLock();
    bool status(struct stat &out) const noexcept { return fstat(file_.get(), &out) == 0; }

private:
    Descriptor file_;
};

/// Waits for the store's own lock.
FileLock lock_store(const Store::State &store, const char *operation);

/// A folder of an image that nobody else works on.
struct Claim {
    std::string name;
    Descriptor directory;
    std::optional<FileLock> lock;
};
enum class Claimed { yes, busy, missing };
/// Locks the folder `name` of images. The caller holds the store's lock.
Claimed claim_folder(const Store::State &store, const std::string &name, std::optional<Claim> &claim,
                     const char *operation);

using RemoveTree = std::function<void(int, const char *)>;

/// Removes a folder that is no image (any more): its objects through `remove_tree`, then the rest. It becomes ".old-ID"
/// first.
void remove_folder(const Store::State &store, Claim claim, const std::string &id, const RemoveTree &remove_tree,
                   const char *operation);
/// Removes a tree as the tree engine does.
void remove_plainly(int directory, const char *name, const char *operation);

/// Removes what a maker that is gone left in a store: which provider made it is not known, and a snapshot can be
/// removed by its own only, so each tries. What none removes is removed plainly.
void remove_by_provider(int directory, const char *name, const std::string &store, const char *operation);

/// A whole folder without a record is debris only when it says so itself, by a file in it: from before the folder gets
/// its name until the record is there, and again from before the record goes. One that says nothing is an image of
/// which the catalog lost the record, as one does that was brought back from a backup: it stays.
bool is_unrecorded(const Store::State &store, const std::string &name);
/// Its record is there. What fails is made good when the store is opened next.
void unmark(int image) noexcept;
/// Marks a folder, then takes its record by `erase`; unmarks it when `erase` throws, or gives false as there was none.
bool erase_record(const Store::State &store, const Claim &claim, const std::function<bool()> &erase,
                  const char *operation);
/// Whether there are images, in a store whose catalog is not open yet.
bool holds_images(int store, const std::string &path, const char *operation);
/// Records images again of which the catalog lost the record, where they are whole, and so is their set.
struct LostImages {
    uint64_t taken_in = 0;
    std::vector<std::string> unknown; ///< ids of the others
};
LostImages take_in_lost(const Store::State &store, const char *operation);

/// Removes the debris of makers that are gone, and counts it; all of it is tried before a failure is thrown.
void remove_debris(const Store::State &store, const RemoveTree &remove_tree, uint64_t &removed, const char *operation);
uint64_t count_debris(const Store::State &store, const char *operation);

/// Settles or removes the images of sets whose makers are gone between their commits. Gives the number of those
/// removed, the ids of those that wait for another store, and what failed, the last of it, after all was tried.
struct EndedPending {
    uint64_t removed = 0;
    std::vector<std::string> waiting;
    std::exception_ptr failure;
};
EndedPending end_pending(const Store::State &store, const RemoveTree &remove_tree, const char *operation);

/// Whether a folder is the caller's or root's.
bool is_own(const struct stat &status) noexcept;
/// Whether others own a store's folder or what is in it, or everybody may write to it: it is only read.
bool is_others(const struct stat &status, int directory) noexcept;
/// Tells a store's folder from any other, as far as its file system knows when it was made.
std::string store_identity(int directory);
/// The stores of a set, as they were when it was made, lie in the lock of each image that may have to wait for them.
void write_stores(int image, const std::vector<std::shared_ptr<Store>> &stores, const std::string &path,
                  const char *operation);
/// By path; empty for images of which nobody noted them.
std::map<std::string, std::string> read_stores(int image, const std::string &path, const char *operation);

/// The id document in an image's folder, which is open. Throws.
std::string read_document(int image, const std::string &path, const char *operation);

/// A store's path as it is recorded and compared: without empty parts, "." and last slashes. Id documents hold it, and
/// read no other.
std::string normal_store_path(std::string_view path);

/// The names in a directory, without "." and "..". Throws.
std::vector<std::string> names_in(int directory, const std::string &path, const char *operation);
/// Writes all of a text. Throws.
void write_to(int fd, std::string_view content, const std::string &path, const char *operation);
/// Makes a file that holds a text. Throws when there is one already.
Descriptor write_file(int directory, const char *name, const std::string &path, std::string_view content,
                      const char *operation);
/// Renames a directory to a name that is free; an empty directory may be replaced. errno says why not.
int rename_directory(int from, const char *name, int to, const char *new_name) noexcept;
/// Reads what is at a position; 0 at the end. Throws.
std::size_t read_at(int fd, char *buffer, std::size_t size, off_t position, const std::string &path,
                    const char *operation);
/// Reads a file to its end, or to somewhere beyond `limit`. Throws.
std::string read_file(int fd, const std::string &path, std::size_t limit, const char *operation);
/// Syncs a file or directory. Throws.
void sync_file(int fd, const std::string &path, const char *operation);

inline constexpr char new_prefix[] = ".new-";
inline constexpr char old_prefix[] = ".old-";
inline constexpr char objects_name[] = "objects";
inline constexpr char lock_name[] = "lock";
inline constexpr char unrecorded_name[] = "unrecorded";
inline constexpr char reserve_name[] = "reserve"; // beside the catalog

} // namespace qzfi::fi
