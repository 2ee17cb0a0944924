// What the steps of a freeze share.
#pragma once

#include "fi/fi_tree.h"

namespace qzfi::fi {

/// The flags of `qfi_provider_job` that options ask for.
uint32_t job_flags(const FreezeOptions &options) noexcept;

/// Throws unless the id document of the tree's images, once they are made, can be read again. Each file system has its
/// method.
void require_describable(const Tree &tree, const char *operation);

/// A job on one object of an image in the making; `name` is its `NewImage::object_name`.
qfi_provider_job make_job(const Tree &tree, const TreeFilesystem &filesystem, std::size_t index,
                          const qfi_provider_host *host, const char *name);

} // namespace qzfi::fi
