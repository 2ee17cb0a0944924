// Stores: folders that hold frozen images, each with a catalog.
//
//     STORE/catalog.db            SQLite, WAL: what is here is an image, and nothing else is
//     STORE/lock                  locked while a folder changes hands: made, judged to be debris, its last bit removed
//     STORE/reserve               room for removals from a full file system
//     STORE/images/ID/            one image, read-only to nobody but by its own modes
//         objects/0, 1, ...       the frozen trees, in the order of the objects
//         manifest.0, 1, ...      what each held (absent for snapshots without digests)
//         report                  the remarks that were made
//         fiid.xml                the id document
//         lock                    locked by the maker and by the remover; of a set's image, which stores it has
//         unrecorded              while there is no record yet, or no more
//     STORE/images/.new-ID/       an image in the making
//     STORE/images/.old-ID/       an image being removed
//
// A set of several images is there whole or not at all: each is recorded as pending first, with its maker's lock held,
// then all are settled. Whoever opens a store with a pending record whose maker is gone looks for the others of the
// set, which the id document names: when all are recorded the freeze was complete, and it is settled; else it is
// removed. That the set is whole is noted in all of its stores before one image can be seen: it may be removed at once,
// and then the others would look incomplete.
//
// An image is visible only when complete: made as .new-ID, synced, renamed, then recorded. A record goes before its
// folder is renamed to .old-ID and removed. While the folder has its name and no record, it says so itself. So after a
// crash .new-ID, .old-ID and what says that it is not recorded are debris, and a maker holds a lock (flock on
// .new-ID/lock) that tells its work from debris. What says nothing and has no record is an image that the catalog lost,
// and is never removed. Any number of processes may use a store.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fi/fi_library.h"

namespace qzfi::fi {

inline constexpr char store_folder_name[] = ".qzfi"; // of stores that lie on the object's own file system

/// An object of an image: the original and its place in the image.
struct ImageObject {
    std::string path;        // of the original, absolute
    std::string subpath;     // of the frozen object below objects/N; empty for objects/N itself
    std::string filesystem;  // its type, for example "xfs"
    std::string device;      // its source, for example "/dev/sda1"
    std::string mount_point; // of its file system
    int32_t status = 0;      // as noted by the host
    std::string status_text;
};

/// What the catalog and the id document hold of an image.
struct ImageRecord {
    std::string id;
    std::string set_id;
    std::string label;
    std::string fim_id;
    std::string provider_id;
    std::string host;
    uint32_t consistency = 0; // a qfi_consistency
    int64_t time_ns = 0;      // of the instant, since 1 January 1970
    uint64_t duration_ns = 0;
    uint64_t entries = 0;
    uint64_t bytes = 0;
    uint64_t remarks = 0;
    bool has_digests = false;
    bool nested = false; // nested subvolumes are included; in the id document only, see HeldImage::includes_nested
    uint32_t backed_up = 0;
    uint32_t state = 1; // 0: pending, seen by nobody but the store; 4: so too, of a set that is whole
    std::vector<ImageObject> objects;
};

/// A fresh id: the time of day in UTC and eight random hexadecimal digits, "20261121T041500Z-8f3a2c1d".
std::string new_image_id();
/// True for what `new_image_id` could have made; ids from documents and hosts are checked before they are a name.
bool is_image_id(std::string_view text) noexcept;

class Store;
struct Claim;

/// An image in the making; abandoned, with all that was made, unless committed. Not thread-safe.
class NewImage {
public:
    NewImage(NewImage &&) noexcept;
    NewImage &operator=(NewImage &&) noexcept;
    ~NewImage();
    /// The directory in which the provider makes entries named by `object_name`.
    int objects() const noexcept;
    /// The image's own directory, for manifests and the report.
    int directory() const noexcept;
    static std::string object_name(std::size_t index);
    /// Writes the id document, syncs everything, renames and records: when this returns, the image is there; when it
    /// throws, it is not. Report and manifests were written by the caller. What comes after is of this operation too.
    /// A record whose state is 0 stays out of sight, and the image this maker's, until it is settled or withdrawn.
    void commit(const ImageRecord &record, const std::string &fiid, const char *operation);
    /// Notes the stores of its set with a pending image, before it is committed, so that no other is taken for one.
    void note_stores(const std::vector<std::shared_ptr<Store>> &stores, const char *operation);
    /// Makes all images of a set visible that were committed as pending.
    static void settle(const std::vector<NewImage *> &set);
    /// Takes commits back: what was made can be removed again, and goes with the image. Killed meanwhile, all of them
    /// or none stay.
    static void withdraw(const std::vector<NewImage *> &set) noexcept;
    struct State; // inner

private:
    friend class Store;
    explicit NewImage(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

/// An opened store. Thread-safe.
class Store {
public:
    /// Opens the store, making it when `create`, with the folders above it. Removes debris of makers that are gone,
    /// each object through the provider that can, as far as it goes. Throws Failure (QFI_FI_STORE, QFI_FI_NO_RIGHT,
    /// QFI_FI_CATALOG, QFI_FI_NO_SPACE, QFI_FI_UNSAFE for a link, or a folder that others could change). The catalog's
    /// version is checked. A store that cannot be written can be listed and read.
    static std::shared_ptr<Store> open(const std::string &path, bool create, const char *operation);

    const std::string &path() const noexcept;
    /// Device and inode of the folder, to leave it out of images.
    uint64_t device() const noexcept;
    uint64_t inode() const noexcept;
    /// The images folder; images lie below it by id.
    int images() const noexcept;
    /// Throws Failure (QFI_FI_NO_RIGHT), with the reason, when the store can only be read.
    void require_writable(const char *operation) const;

    NewImage begin(const std::string &id, const char *operation);
    /// The oldest first; `state` is 3 when the image's folder is missing.
    std::vector<ImageRecord> list(const char *operation);
    std::optional<ImageRecord> find(const std::string &id, const char *operation);
    /// Changes what may change later: label, backed_up, object status. The second writes on top of what others wrote
    /// meanwhile, so that no change is lost: `change` gets the record as it is.
    void update(const ImageRecord &record, const char *operation);
    void update(const std::string &id, const char *operation, const std::function<void(ImageRecord &)> &change);
    /// Takes the image out of the catalog and out of sight; `remove_object(directory of objects, name)` then removes
    /// each object's tree, as the provider does. When that throws, the image is gone and what is left is debris;
    /// calling this again goes on with it. QFI_FI_BUSY when another process removes it or holds its lock.
    template <class RemoveObject>
    void remove(const std::string &id, const char *operation, RemoveObject &&remove_object) {
        remove_with(id, operation, std::forward<RemoveObject>(remove_object));
    }
    /// Makes an image's folder this caller's alone, which fails as its removal would; nothing when there is none.
    std::optional<Claim> claim(const std::string &id, const char *operation);
    /// The same removal, of one that was claimed.
    void remove(std::optional<Claim> claim, const std::string &id, const char *operation,
                const std::function<void(int, const char *)> &remove_object);
    /// The image's own directory, opened; throws when it is missing: QFI_FI_DAMAGED, or QFI_FI_NO_SUCH_IMAGE when the
    /// catalog has no such image either.
    Descriptor open_image(const std::string &id, const char *operation);
    /// The path of an image's directory.
    std::string image_path(const std::string &id) const;

    /// Removes half-made and half-removed images whose makers are gone, each object of them through the provider that
    /// can, and records whole ones again that the catalog lost; gives the number of both, the ids of recorded images
    /// whose folder is missing, of pending ones whose set cannot be looked at in another store, and of those that the
    /// catalog does not know and that are not whole. What could not be done is a failure for the caller to throw, when
    /// it has told of the rest.
    struct Repair {
        uint64_t debris = 0, taken_in = 0;
        std::vector<std::string> damaged, waiting, unknown;
        std::exception_ptr failure;
    };
    Repair repair(const char *operation);
    uint64_t debris_count();
    struct State; // inner
    const State &state() const noexcept { return *state_; }

private:
    explicit Store(std::shared_ptr<State> state);
    void remove_with(const std::string &id, const char *operation,
                     const std::function<void(int, const char *)> &remove_object);
    std::shared_ptr<State> state_; // shared with images in the making
};

/// The stores that this root knows: the default one, and those that were used, each once. Kept in the default store's
/// catalog when there is one that can be written, and for the life of the process.
std::string default_store_path();
void remember_store(const std::string &path) noexcept;
void forget_store(const std::string &path, const char *operation);
std::vector<std::string> known_stores();
/// The paths of all of them, without a look at one: of those that are known by several, each. For what concerns a few.
std::vector<std::string> known_store_paths();
/// Opens a store to put images into, made when it is not there; but a known one that has gone, as when its file system
/// is not mounted, is refused (QFI_FI_STORE).
std::shared_ptr<Store> open_to_fill(const std::string &path, const char *operation);

} // namespace qzfi::fi
