// Stores, and how they are.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qzfi/json.h"

namespace qzfi::tool {

struct Store {
    std::string path;
    int32_t status;  ///< 0 usable; else why not
    std::string why; ///< the status as text
    std::vector<std::string> causes;
    uint64_t images, debris, capacity, available;
};

/// The store at `path`, or, empty, all known ones; without the default store where none was made yet. Throws Failure.
std::vector<Store> find_stores(const std::string &path);

/// The store at `path`, which can be used. Throws Failure.
Store usable_store(const std::string &path);

/// Those of the known stores that cannot be used, so that a search passes over their images. None where `path` is not
/// empty: whoever looks into one store is told its failure.
std::vector<Store> passed_over(const std::string &path);

Json json_of(const Store &store);
Json json_of(const std::vector<Store> &stores);

/// Tells on standard error which of them cannot be used; `exit_failed` when there is one.
int tell_unusable(const std::vector<Store> &stores);

} // namespace qzfi::tool
