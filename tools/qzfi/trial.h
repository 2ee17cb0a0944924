// Work that may crash or hang: done in a process of its own.
#pragma once

#include <string>

#include "tools/qzfi/json.h"

namespace qzfi::tool {

struct TrialResult {
    Json result;         ///< what the work gave; null when it did not come to its end
    std::string failure; ///< how it ended otherwise: "crashed (Segmentation fault)", "did not come back"; else empty
};

/// Does `work` in a child, which says nothing on any output. The caller has no other thread. What `work` throws is a
/// failure as well.
TrialResult try_out(Json (*work)(const std::string &), const std::string &argument, int patience_seconds);

} // namespace qzfi::tool
