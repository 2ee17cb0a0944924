// Providers and what they offer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qzfi/json.h"

namespace qzfi::tool {

struct Provider {
    bool is_loaded;
    std::string id;          ///< of a refused one: its plugin's file name
    std::string method;      ///< of a loaded one
    std::string description; ///< of a refused one: why
    uint64_t preference = 0;
    uint32_t consistency = 0; ///< of its images at best
    uint32_t technology = 0;
};

/// The loaded ones, the most preferred first, then the refused ones. Throws Failure.
std::vector<Provider> find_providers();

/// Those whose plugin was refused. Throws Failure.
std::vector<Provider> refused_providers();
/// Tells each of them on standard error, as its method is not among those that are chosen from.
void tell_refused(const std::vector<Provider> &refused);
/// An array of plugins and reasons.
Json json_of_refused(const std::vector<Provider> &refused);

const char *technology_name(uint32_t technology); ///< "snapshot", "clone", "copy"

/// File systems and the providers that can freeze them, ordered by path.
struct Filesystem {
    std::string path;
    uint64_t size;
    std::vector<std::string> providers; ///< the most preferred first
};

/// Throws Failure.
std::vector<Filesystem> find_filesystems();

} // namespace qzfi::tool
