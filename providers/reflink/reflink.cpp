// The provider "reflink": an image is a tree of files that share their data with the originals (Btrfs, XFS).
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "providers/engine/engine_provider.h"

namespace {

using namespace qzfi;
using provider::Descriptor;

// What a cloned file needs of its own: an inode, its names, its extents.
constexpr uint64_t bytes_per_clone = 1024;
constexpr uint64_t clones_per_ms = 10;

/// Clones a file that has no name; only that tells. 0, or the errno.
int try_to_clone(int directory) {
    const Descriptor from(openat(directory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const Descriptor to(openat(directory, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!from || !to)
        return errno;
    const char page[4096] = "qzfi";
    const ssize_t written = write(from.get(), page, sizeof(page));
    if (written < 0)
        return errno;
    if (written != sizeof(page))
        return ENOSPC;
    return ioctl(to.get(), FICLONE, from.get()) == 0 ? 0 : errno;
}

int32_t probe(int source, int store, const char *, uint32_t flags, qfi_probe *result) {
    return provider::fenced_probe(source, result, [&](qfi_probe &out) {
        if (const std::string obstacle = provider::store_obstacle(source, store); !obstacle.empty())
            return provider::refuse(out, obstacle);
        const int place = store >= 0 ? store : source;
        if (!provider::same_file_system(source, place))
            return provider::refuse(out, "the store is on another file system than the object, and files share data "
                                         "only within one");
        if (const int error = try_to_clone(place); error != 0)
            return provider::refuse(out, "files cannot be cloned there: " + provider::words_of(error));
        const provider::Estimate sum = provider::estimate(source, store, flags);
        out.combo_class = QFI_SERIAL_FS;
        out.consistency = QFI_CONSISTENCY_PER_FILE;
        out.cost_bytes = sum.entries * bytes_per_clone;
        out.cost_ms = 1 + sum.entries / clones_per_ms;
        provider::foretell(out, sum, flags, (flags & QFI_JOB_DIGEST) != 0);
    });
}

/// Whoever skipped the probe is told the same at once, not in the middle of the tree.
int clone_obstacle(int source, int target) {
    return provider::same_file_system(source, target) ? try_to_clone(target) : EXDEV;
}

int32_t split(qfi_provider_job *job) {
    return provider::fenced(job, [](const qfi_provider_job &one) {
        if (const int error = clone_obstacle(one.source, one.target); error != 0)
            return provider::fail_write(one, "FICLONE", "", error);
        return provider::make_tree(one, engine::Data::clone);
    });
}

const qfi_provider_ops operations = provider::operations_of(
    {"reflink", "A tree of files that share their data with the originals; each file is of one moment", 200,
     QFI_CONSISTENCY_PER_FILE, QFI_TECHNOLOGY_CLONE},
    probe, split);

} // namespace

extern "C" QZFI_API const qfi_provider_ops *qfi_provider_entry(void);

const qfi_provider_ops *qfi_provider_entry(void) {
    return &operations;
}
