// Translated formats, which come from catalogs: data, not code.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "msgcat/qzfiicuerrormgr.h"

namespace qzfi {

/// Whether the placeholders of a translation read nothing but arguments of the English format, each as its own type.
bool placeholders_agree(const CatalogPattern &translation, const char *english) noexcept;

/// Formats a translation with the arguments of the English format that it translates, cut to fit into `buffer`.
///
/// A translation may take fewer arguments or none, also in another order ("%2$s"). False, with the buffer's content
/// undefined, when it would read an argument that the English format has not or has with another type or
/// cut ("%.3s"), or holds anything but plain conversions ("%n" among others).
bool format_translation(char *buffer, std::size_t size, const char *translation, const char *english,
                        va_list arguments) noexcept;

} // namespace qzfi
