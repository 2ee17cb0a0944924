// What `qzfi doctor` looks at. Each check only looks, and none fails because the installation is broken.
#pragma once

#include <string>
#include <vector>

#include "tools/qzfi/tool.h"

namespace qzfi::tool {

enum class Health { ok, warning, failure };

struct Finding {
    Health health;
    std::string check;  ///< what was looked at: "entries", "store", ...
    std::string object; ///< which one: a path, a name
    std::string text;   ///< what was found
    std::string hint;   ///< what to do about it; empty when nothing is
};
using Findings = std::vector<Finding>;

void check_root(const Settings &settings, Findings &findings);
void check_library(const Settings &settings, Findings &findings);
void check_entries(const Settings &settings, Findings &findings);
void check_probe(const Settings &settings, Findings &findings);
/// Providers, file systems and stores: what the API implementation library tells.
void check_framework(const Settings &settings, Findings &findings);
void check_messages(const Settings &settings, Findings &findings);
void check_log(const Settings &settings, Findings &findings);

} // namespace qzfi::tool
