// Completion scripts for shells, made from the command line's own definition, so that the two cannot drift.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace qzfi::tool {

/// The script for "bash" or "zsh".
std::string completion_script(const CLI::App &app, const std::string &shell);

} // namespace qzfi::tool
