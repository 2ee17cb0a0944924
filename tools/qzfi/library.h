// The API implementation library, looked at from outside.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qzfi::tool {

inline constexpr std::size_t entry_count = 91;

/// The file that the front end loads below this root.
std::string library_of(const std::string &root);

/// The entries that a library lacks. Loads it, which runs its code. Throws std::runtime_error with the loader's words.
std::vector<std::string> missing_entries(const std::string &path);

} // namespace qzfi::tool
