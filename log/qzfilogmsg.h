// What the files of the log share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qzfi {

/// Room for a configuration or log path; longer paths are cut, and the cut path is what is opened.
constexpr std::size_t log_path_size = 250;

/// The trace mask that the configuration below an installation root sets; 0 when there is none.
uint32_t read_trace_mask(const char *root) noexcept;

} // namespace qzfi
