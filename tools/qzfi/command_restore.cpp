// qzfi restore: makes the tree of an image again, in its place at one instant, or somewhere else.
#include "tools/qzfi/restoring.h"

namespace qzfi::tool {

void add_restore(CommandLine &line) {
    add_command<RestoreOptions>(
        line, "restore", "Put an image's files back in place of the originals, or into a new folder", run_restore,
        [](Arguments &command, RestoreOptions &options) {
            command.footer("In place, the new tree is made beside the original, then both are exchanged: until then, "
                           "the original is whole. With --digest, --dry-run compares data too.");
            add_restoring(command, options);
            command.add_option("--to", options.to, "Restore into this new folder; nothing is replaced, nothing asked")
                .type_name("DIR")
                .not_empty();
        });
}

} // namespace qzfi::tool
