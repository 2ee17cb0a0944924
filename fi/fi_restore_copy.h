// Copying out of an image: whole objects and what lies below them.
#pragma once

#include "fi/fi_images.h"
#include "fi/fi_unkept.h"

namespace qzfi::fi {

/// A path below an object, checked: relative, without empty parts, "." or "..". Throws.
std::string checked_subpath(std::string_view path, const char *operation);

/// How copies are made and told of.
struct CopyOut {
    const char *operation;
    uint32_t workers;
    Progress *progress;
    Findings *report;
    Unkept *unkept = nullptr; // told of whole directories only
};

/// Whether the entry at a subpath of an object's frozen tree is a directory. Throws when there is none.
bool is_directory(const HeldImage &image, std::size_t index, const std::string &subpath, const char *operation);
/// Copies the object, or the entry at `subpath` of it ("" for none), to the new entry `name` of `target`, through the
/// image's provider. A copy that lacks something is a failure, for an image holds still.
void copy_out(const HeldImage &image, std::size_t index, const std::string &subpath, int target, const char *name,
              const CopyOut &how);
/// Makes the entry in `directory` that has the name of the one at `subpath`, which is no directory, equal to it; what
/// is so already stays as it is.
void update_entry(const HeldImage &image, std::size_t index, const std::string &subpath, int directory, bool digest,
                  const CopyOut &how);

} // namespace qzfi::fi
