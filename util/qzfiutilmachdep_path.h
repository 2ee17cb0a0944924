// Limits and tables of the path and device names.
#pragma once

#include <cstddef>

#pragma GCC visibility push(hidden)
extern "C" {

extern const char *const devpfx[4];  // prefixes of block devices, searched in this order
extern const char *const rdevpfx[4]; // those of the character devices of the same disks
}
#pragma GCC visibility pop

namespace qzfi {

inline constexpr std::size_t canonical_size = 2048;      // of a canonical path's buffer
inline constexpr std::size_t longest_device_path = 1023; // of a path whose counterpart is asked for
inline constexpr std::size_t device_name_size = 2049;    // of a found name's buffer

} // namespace qzfi
