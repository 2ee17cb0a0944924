// What is needed for a moment, below TMPDIR or "/tmp".
#pragma once

#include <string>

#include "fi/fi_library.h"

namespace qzfi::fi {

/// TMPDIR when that is absolute, and this process may trust it; else "/tmp".
std::string temporary_base();

/// A folder of this user's alone, which goes with the files in it.
class TemporaryFolder {
public:
    /// Its name begins with `prefix`. Throws.
    TemporaryFolder(const char *prefix, const char *operation);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    int directory() const noexcept { return directory_.get(); }
    const std::string &path() const noexcept { return path_; }

private:
    std::string path_;
    Descriptor directory_;
    Descriptor to_list_; // had at once: at the end there may be no more descriptors
};

} // namespace qzfi::fi
