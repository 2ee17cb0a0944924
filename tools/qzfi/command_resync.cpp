// qzfi resync: makes the originals equal to an image, changing only what differs.
#include "tools/qzfi/restoring.h"

namespace qzfi::tool {

void add_resync(CommandLine &line) {
    add_command<RestoreOptions>(line, "resync", "Make the originals equal to an image, changing only what differs",
                                run_resync, [](Arguments &command, RestoreOptions &options) {
                                    command.footer("Faster than restore and without room for a second tree; but while "
                                                   "it runs, and when it ends early, files of both times are there.");
                                    add_restoring(command, options);
                                });
}

} // namespace qzfi::tool
