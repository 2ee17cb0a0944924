// Stores, and how they are.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qzfi/json.h"

namespace qzfi::tool {

struct Store {
    std::string path;
    int32_t status; ///< 0 usable; else why not
    std::string why;
    uint64_t images, debris, capacity, available;
};

/// The store at `path`, or, empty, all known ones. Throws Failure.
std::vector<Store> find_stores(const std::string &path);

Json json_of(const Store &store);

/// Tells on standard error which of them cannot be used; `exit_failed` when there is one.
int tell_unusable(const std::vector<Store> &stores);

} // namespace qzfi::tool
