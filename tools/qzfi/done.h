// What was done, where nobody can read it on standard output.
#pragma once

#include <string>

namespace qzfi::tool {

/// Flushes standard output. Where it takes nothing, `text` goes to standard error, as it would be told nowhere.
void tell_unheard(const std::string &text);

} // namespace qzfi::tool
