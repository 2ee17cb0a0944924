// What exporting and importing share: the names in an exported folder, and plain files in it.
#pragma once

#include <string>

#include "fi/fi_library.h"

namespace qzfi::fi {

inline constexpr char export_document[] = "fiid.xml";

/// Copies a file of the same name, synced, with its holes. Throws.
void copy_plain_file(int from, int to, const char *name, const std::string &path, const char *operation);
/// Makes and opens a directory of this user's alone. Throws.
Descriptor make_directory(int at, const std::string &name, const std::string &path, const char *operation);

} // namespace qzfi::fi
