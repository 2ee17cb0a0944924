// What brings originals back: `qzfi restore` and `qzfi resync`.
#pragma once

#include "tools/qzfi/commands.h"
#include "tools/qzfi/places.h"

namespace qzfi::tool {

struct RestoreOptions {
    ImageName image;
    std::string to;
    PlaceName only;
    uint32_t workers = 0;
    bool digest = false, dry_run = false, yes = false, json = false;
};

int run_restore(const Settings &settings, const RestoreOptions &options);
int run_resync(const Settings &settings, const RestoreOptions &options);

/// The options that both have.
void add_restoring(Arguments &command, RestoreOptions &options);

} // namespace qzfi::tool
