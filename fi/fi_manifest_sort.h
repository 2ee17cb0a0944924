// Sorts manifest lines by path, in bounded memory.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "fi/fi_library.h"

namespace qzfi::fi {

/// Takes lines, then gives them back in order of the (escaped) path at a given place in each. Throws Failure when a
/// temporary file fails.
class LineSorter {
public:
    /// `chunk`: bytes of lines that are kept in memory.
    LineSorter(const char *operation, std::size_t chunk);
    ~LineSorter();
    LineSorter(const LineSorter &) = delete;
    LineSorter &operator=(const LineSorter &) = delete;
    /// `path_at`: where the path begins, which ends with a blank or the line.
    void add(std::string_view line, std::size_t path_at);
    /// After the last `add`, before the first `next`.
    void sort();
    bool next(std::string &line);

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace qzfi::fi
