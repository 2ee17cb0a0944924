// The trace configuration of an installation root, and the log files that it makes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <qzfi_fi.h>

namespace qzfi::tool {

std::string trace_configuration(const std::string &root); ///< its path

/// The trace mask that a start below that root would take; 0: no trace.
uint32_t trace_mask(const std::string &root);
std::vector<std::string> trace_level_names(uint32_t mask);
uint32_t trace_level(const std::string &name); ///< 0 when there is none of that name

struct LogFile {
    std::string path;
    uint64_t bytes;
    qfi_time_t time; ///< of the last line
};

struct LogFolder {
    std::string path;           ///< where the next log file goes
    std::vector<LogFile> files; ///< the newest first
};

LogFolder log_folder(const std::string &root);

} // namespace qzfi::tool
