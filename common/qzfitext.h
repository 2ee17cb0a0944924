// Bounded text routines: every copy is bounded and terminated.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace qzfi {

struct FreeDeleter {
    void operator()(void *memory) const noexcept { std::free(memory); }
};

/// A text from malloc, released with free.
using Text = std::unique_ptr<char, FreeDeleter>;

/// Copies at most `size` - 1 bytes and terminates; `size` is at least 1.
inline void copy_bounded(char *destination, std::size_t size, const char *source) noexcept {
    const std::size_t length = strnlen(source, size - 1);
    std::memcpy(destination, source, length);
    destination[length] = '\0';
}

/// A zero-filled copy of a text, null when memory is short or `source` is null.
inline Text duplicate(const char *source) noexcept {
    if (source == nullptr)
        return nullptr;
    const std::size_t size = std::strlen(source) + 1;
    Text copy{static_cast<char *>(std::calloc(size, 1))};
    if (copy)
        copy_bounded(copy.get(), size, source);
    return copy;
}

} // namespace qzfi
