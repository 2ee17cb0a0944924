// Stored images in the hands of an operation: held against removal, looked up in all stores, told of in lists and
// reports.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fi/fi_tree.h"

namespace qzfi::fi {

/// An image that nobody can remove meanwhile: readers share its lock, a remover needs it alone. Throws
/// QFI_FI_NO_SUCH_IMAGE, QFI_FI_BUSY while it is being removed, QFI_FI_DAMAGED without its files.
class HeldImage {
public:
    HeldImage(const TreeFilesystem &filesystem, const char *operation);
    /// One whose folder, open as `claimed`, is this caller's alone already.
    HeldImage(const TreeFilesystem &filesystem, int claimed, const char *operation);
    ~HeldImage();
    HeldImage(const HeldImage &) = delete;
    HeldImage &operator=(const HeldImage &) = delete;
    int directory() const noexcept { return directory_.get(); }
    std::string path() const { return filesystem_.store->image_path(record().id); }
    const ImageRecord &record() const noexcept { return filesystem_.record; }
    const TreeFilesystem &filesystem() const noexcept { return filesystem_; }
    /// The root of an object's frozen tree, opened without a link followed. Throws QFI_FI_DAMAGED.
    Descriptor object(std::size_t index) const;
    bool has_manifest(std::size_t index) const noexcept;
    /// Whether nested subvolumes are a part of it, by its id document; false without one.
    bool includes_nested() const;
    static std::string manifest_name(std::size_t index);

private:
    const TreeFilesystem &filesystem_;
    const char *operation_;
    Descriptor directory_, lock_;
};

/// The provider of an image; throws QFI_FI_NO_SUCH_PROVIDER when it is not loaded.
const Provider &provider_of(const TreeFilesystem &filesystem, const char *operation);

/// What an operation found out, to be reported.
struct Findings {
    std::vector<JobHost::Remark> remarks;
    uint64_t remark_count = 0;
    uint64_t entries = 0, bytes = 0, changed = 0;
    void add(JobHost::Remark remark);
    void add(const JobHost &host); // its remarks and counts
    qfi_report *give() const;
};

/// An object of a tree with its file system.
struct ObjectRef {
    TreeFilesystem *filesystem;
    std::size_t index;
    TreeObject &object() const { return filesystem->objects[index]; }
};
std::vector<ObjectRef> objects_of(Tree &tree);

/// All images of one store, or, null, of all known ones, as far as they can be opened; the oldest first.
std::vector<FoundImage> all_images(const char *store, const char *operation);
/// The image of that id, or the images of the set, the oldest first. Throws QFI_FI_NO_SUCH_IMAGE.
std::vector<FoundImage> find_images(const std::string &id, const char *store, const char *operation);
/// The same, but a set is all of it or none: throws QFI_FI_NO_SUCH_IMAGE, with the id, when one of its images is not
/// found, QFI_FI_DAMAGED when no document tells which they are.
std::vector<FoundImage> find_whole(const std::string &id, const char *store, const char *operation);
/// The ids of images that the id documents of a set name, and that are not among `images`, which are of that set.
/// Throws QFI_FI_DAMAGED when none of the documents that are there can be read.
std::set<std::string> missing_of_set(const std::vector<FoundImage> &images, const char *operation);
/// One image by its own id. Throws QFI_FI_NO_SUCH_IMAGE.
FoundImage find_image(const std::string &id, const char *store, const char *operation);
/// The paths of the known stores and of those of a tree.
std::vector<std::string> stores_of(const Tree &tree);

/// A list for hosts, one block a node; null for none.
qfi_image_list *give_images(const std::vector<FoundImage> &images);
/// Releases a list, one block a node.
template <class Node>
void free_chain(Node *list) noexcept {
    while (list != nullptr)
        std::free(std::exchange(list, list->next));
}

// The operations behind the entries.
void verify(TreeLock &tree, Findings &report, const char *operation);
/// The report that was made with the images.
void stored_report(const Tree &tree, Findings &report, const char *operation);
void repair(const char *store, Findings &report, const char *operation);
qfi_store_status *store_states(const char *path, const char *operation);

/// The images from which a path can be restored, the newest first.
std::vector<FoundImage> images_for(const std::string &path, const char *operation);

void restore(TreeLock &tree, const qfi_restore_options &options, Findings &report, const char *operation);
void resync(TreeLock &tree, const qfi_restore_options &options, Findings &report, const char *operation);

std::string deport(TreeLock &tree, const char *directory, const char *operation);
std::shared_ptr<Tree> import_images(const char *directory, const char *store, const qfi_fiid *expected,
                                    const qfi_import_options &options, const char *operation);

} // namespace qzfi::fi
