#include <qzfi/paths.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

#include "common/qzfitext.h"
#include "util/qzfiutilmachdep_path.h"

namespace {

/// A canonical path under construction in a zero-filled buffer, as "/component" pieces: "/" itself has none. What does
/// not fit is counted only, so that a path may grow beyond the buffer as long as its ".." bring it back.
class CanonicalPath {
public:
    explicit CanonicalPath(char *buffer) noexcept : buffer_(buffer) {}

    /// False when the current directory cannot be had, or has no absolute name, as one outside the process's root.
    bool start_in_current_directory() noexcept {
        if (getcwd(buffer_, qzfi::canonical_size) == nullptr || *buffer_ != '/')
            return false;
        length_ = std::strlen(buffer_);
        if (length_ == 1)
            truncate(0);
        return true;
    }

    void add(std::string_view component) noexcept {
        if (component.empty() || component == ".")
            return;
        // A ".." that the current directory ends in was not resolved there, and says nothing about what it removes.
        if (component == ".." && !ends_in_parent())
            remove_last();
        else
            append(component);
    }

    /// False when it does not fit.
    bool finish() noexcept {
        if (length_ == 0)
            *buffer_ = '/';
        return lost_ == 0;
    }

private:
    bool ends_in_parent() const noexcept { return lost_ == 0 && std::string_view(buffer_, length_).ends_with("/.."); }

    void append(std::string_view component) noexcept {
        if (lost_ > 0 || component.size() + 1 >= qzfi::canonical_size - length_) {
            ++lost_;
            return;
        }
        buffer_[length_] = '/';
        std::memcpy(buffer_ + length_ + 1, component.data(), component.size());
        length_ += component.size() + 1;
    }

    void remove_last() noexcept {
        if (lost_ > 0) {
            --lost_;
            return;
        }
        const std::size_t slash = std::string_view(buffer_, length_).rfind('/');
        truncate(slash == std::string_view::npos ? 0 : slash);
    }

    void truncate(std::size_t length) noexcept {
        std::memset(buffer_ + length, 0, length_ - length);
        length_ = length;
    }

    char *buffer_;
    std::size_t length_ = 0;
    std::size_t lost_ = 0; // components on top of those in the buffer
};

bool canonicalise(const char *path, char *buffer) noexcept {
    CanonicalPath canonical{buffer};
    if (*path != '/' && !canonical.start_in_current_directory())
        return false;
    std::string_view rest = path;
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find('/'), rest.size());
        canonical.add(rest.substr(0, length));
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return canonical.finish();
}

} // namespace

void pathcanon(const char *path, char **out) {
    if (out == nullptr)
        return;
    *out = nullptr;
    if (path == nullptr)
        return;
    qzfi::Text buffer{static_cast<char *>(std::calloc(qzfi::canonical_size, 1))};
    if (buffer && canonicalise(path, buffer.get()))
        *out = buffer.release();
}
