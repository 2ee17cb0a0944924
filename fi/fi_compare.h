// Comparing trees by what manifests say of them: images with images, with the originals, with their own manifests.
#pragma once

#include <functional>
#include <set>

#include "fi/fi_images.h"
#include "fi/fi_left_out.h"
#include "fi/fi_manifest.h"

namespace qzfi::fi {

/// How a tree is walked for a comparison.
struct WalkOptions {
    uint32_t workers = 2;
    bool digest = false;
    bool nested = false; // of an original: nested subvolumes are a part of it; of an image what it holds of them is
    const LeftOut *exclude = nullptr; // stores that lie in the tree
    std::string only;                 // nothing but what lies at or below it; empty for all
    Progress *progress = nullptr;
    Progress *cancelled_by = nullptr; // where the walk itself is not counted
};

/// The entries of a tree, or of a part of it, sorted; their paths are below the tree. Throws Failure when it cannot be
/// read.
ManifestReader walked(int directory, const std::string &object, const WalkOptions &options, const char *operation);
/// The entries of an object's frozen tree: by its manifest, unless it has none or lacks the digests that are wanted.
ManifestReader entries_of(const HeldImage &image, std::size_t index, const WalkOptions &options, const char *operation);

/// One difference.
struct Difference {
    uint32_t change;
    uint32_t type;     // as it is now, of what is gone as it was
    uint32_t old_type; // as it was, or the same
    uint64_t old_size, new_size;
    std::string object, path;
};
using TakeDifference = std::function<void(Difference &&)>;

/// From an object's image to the original as it is; an original that is gone is removed altogether.
void compare_with_original(const HeldImage &image, std::size_t index, const WalkOptions &options,
                           const TakeDifference &take, const char *operation);
/// From the images of one tree to those of another, or, null, to the originals. Objects of a tree that is not frozen
/// are looked at as they are. Object by object, of the same path; where both trees have one only, those.
std::vector<Difference> compare_trees(Tree &from, Tree *to, const WalkOptions &options, const char *operation);
/// Every entry of a tree's images, as QFI_CHANGE_NONE.
std::vector<Difference> all_entries(Tree &tree, const WalkOptions &options, const char *operation);

/// Owners, modes and times of an object's entries that were remarked not to have been kept.
class LostAttributes {
public:
    LostAttributes(const std::vector<JobHost::Remark> &remarks, uint64_t remark_count, const std::string &object);
    /// Whether a difference from the manifest is only in what was lost.
    bool explain(const ManifestEntry &expected, const ManifestEntry &present) const;

private:
    std::set<std::string> paths_;
    bool are_all_known_;
};
/// Calls `differs` for what is not as its manifest says. Sockets do not count: those of a snapshot are in its manifest,
/// and no copy of it has them.
void compare_with_manifest(ManifestReader &expected, ManifestReader &present, const LostAttributes &lost,
                           const std::function<void(uint32_t, const ManifestEntry *, const ManifestEntry *)> &differs);

/// Calls `damaged` with each entry at or below `only` that the image's tree should have by its manifest, and has not,
/// or not of that type and content. Nothing is known of an image without a manifest.
void compare_image(const HeldImage &image, std::size_t index, const std::string &only, const WalkOptions &options,
                   const std::function<void(const std::string &path, const char *how)> &damaged, const char *operation);

/// Whether a copy of an object's frozen tree has every entry of it.
bool is_whole_copy(const HeldImage &image, std::size_t index, int copy, const char *operation);

/// One block for the host.
qfi_diff *give_diff(const std::vector<Difference> &differences);

} // namespace qzfi::fi
