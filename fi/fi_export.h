// What exporting and importing share: the names in an exported folder, and plain files in it.
#pragma once

#include <string>

#include "fi/fi_library.h"

namespace qzfi::fi {

inline constexpr char export_document[] = "fiid.xml";
/// There while images that were copied may still be in their stores.
inline constexpr char export_unfinished[] = "unfinished";

/// Reads the id document of an exported folder. Throws, QFI_FI_BAD_FIID when there is none that can be one.
std::string read_export_document(int folder, const std::string &path, const char *operation);
/// Copies a file of the same name, synced, with its holes. Throws.
void copy_plain_file(int from, int to, const char *name, const std::string &path, const char *operation);
/// Makes and opens a directory of this user's alone. Throws.
Descriptor make_directory(int at, const std::string &name, const std::string &path, const char *operation);

} // namespace qzfi::fi
