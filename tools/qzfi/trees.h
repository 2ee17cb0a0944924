// Trees of directories that are not frozen yet.
#pragma once

#include <string>
#include <vector>

#include "tools/qzfi/tool.h"

namespace qzfi::tool {

/// The tree of these directories. Throws Failure.
Tree tree_of(const std::vector<std::string> &paths);

} // namespace qzfi::tool
