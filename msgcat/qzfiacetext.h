// Texts of the catalog classes' string type, which says nothing when it finds no memory: it is empty then, and a copy
// has not even a terminator.
#pragma once

#include <cstdint>
#include <new>
#include <string_view>

#include <ace/SString.h>

namespace qzfi {

/// A text of these bytes; throws std::bad_alloc when memory is short.
inline ACE_String_Base<char> ace_text(std::string_view bytes) {
    if (bytes.size() > PTRDIFF_MAX) // of which the string would make none
        throw std::bad_alloc{};
    ACE_String_Base<char> text{bytes.data(), bytes.size()};
    if (text.length() != bytes.size())
        throw std::bad_alloc{};
    return text;
}

/// The bytes of a text; throws std::bad_alloc for one that was lost while it was copied.
inline std::string_view bytes_of(const ACE_String_Base<char> &text) {
    if (text.fast_rep() == nullptr)
        throw std::bad_alloc{};
    return {text.fast_rep(), text.length()};
}

} // namespace qzfi
