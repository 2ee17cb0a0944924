// Running a pre command so that a guard knows of it.
#pragma once

#include <string>

#include "fi/fi_tree.h"

namespace qzfi::fi {

/// Runs a command while holding a guard's lock (`PostGuard::lock`), so that the post command waits for its end even
/// when this process dies, and the command is not run any more once the post command is; an empty lock locks nothing.
CommandResult run_locked(const std::string &command, const std::string &lock);

} // namespace qzfi::fi
