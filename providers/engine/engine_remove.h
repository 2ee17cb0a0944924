// Removing an entry with all below it, also from within another run.
#pragma once

#include <string>

#include "providers/engine/engine_work.h"

namespace qzfi::engine {

struct Removed {
    int32_t status;
    uint64_t entries;
    bool is_kept; // something below, and so the entry too, is not to be removed
};

/// Removes `directory/name` in the caller's thread, as a step of another run, which may be cancelled meanwhile.
/// Excluded directories and other file systems stay, and what is above them. `path` (of the directory, with a "/"
/// behind) is for the host's texts. Throws std::bad_alloc.
Removed remove_entry(Run &outer, int directory, const char *name, const std::string &path);

} // namespace qzfi::engine
