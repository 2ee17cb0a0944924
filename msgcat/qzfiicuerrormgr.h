// A message's text from the catalogs and its formatting, apart: a text that has to be checked before it is formatted
// must be the very one that is formatted.
//
// Any number of threads may call these; the catalogs and ICU are entered by one at a time. A process may be forked
// meanwhile, and the child may call these as well.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/qzfitext.h"

namespace qzfi {

/// The catalogs' text of a message as it stands. Null when memory is short, and while the process ends.
Text catalog_text(const char *message_id, const char *locale) noexcept;

/// What an argument is passed as, in the terms of placeholders; most types have none.
enum class PlaceholderArgument : uint8_t { none, integer, real };

/// A catalog's text as ICU formats it.
class CatalogPattern {
public:
    explicit CatalogPattern(const char *text) noexcept;
    /// False when memory is short.
    explicit operator bool() const noexcept { return units_ != nullptr; }

    /// Whether the placeholders read no more than these arguments, from the first without a gap, each as its own type.
    /// What cannot be shown to agree does not: names, texts, dates, choices.
    bool reads_only(const PlaceholderArgument *arguments, std::size_t count) const noexcept;

    /// Reads the arguments that the placeholders name, of a copy of the list. Null when memory is short. For a pattern
    /// that ICU refuses, the pattern's UTF-16 bytes up to the first zero, most often one character: callers know it.
    Text format(const char *locale, va_list arguments) const noexcept;

private:
    using Units = std::unique_ptr<char16_t, FreeDeleter>;

    Units units_; // terminated
};

} // namespace qzfi
