// The folders through which a host and a guard of a post command find each other.
#pragma once

#include <string>

namespace qzfi::fi {

inline constexpr char guard_folder_prefix[] = "qzfi-guard-";
inline constexpr const char *guard_folder_names[] = {"in", "out", "text", "lock"};

/// Removes the folders of hosts that were killed before their guard waited: this user's, older than a minute, with
/// nobody at the FIFO "in", which a host and its guard hold for as long as they live.
void remove_left_guard_folders(const std::string &base) noexcept;

} // namespace qzfi::fi
