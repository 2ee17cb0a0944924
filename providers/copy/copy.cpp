// The provider "copy": an image is a copy of the tree, on any file system. The kernel copies, and lets files of one
// Btrfs or XFS share their blocks; with digests all is read and written.
#include <cinttypes>
#include <cstdio>

#include "providers/engine/engine_provider.h"

namespace {

using namespace qzfi;

constexpr uint64_t bytes_per_entry = 4096;
constexpr uint64_t bytes_per_ms = 200'000;
constexpr uint64_t entries_per_ms = 10;

int32_t probe(int source, int store, const char *, uint32_t flags, qfi_probe *result) {
    return provider::fenced_probe(source, result, [&](qfi_probe &out) {
        if (const std::string obstacle = provider::store_obstacle(source, store); !obstacle.empty())
            return provider::refuse(out, obstacle);
        const provider::Estimate sum = provider::estimate(source, store, flags);
        const uint64_t available = provider::free_bytes(store >= 0 ? store : source);
        // A bound is no reason to refuse: the object may be a small folder of a full disk.
        if (sum.counted && sum.bytes > available) {
            char reason[sizeof(out.reason)];
            std::snprintf(reason, sizeof(reason),
                          "the store's file system has %" PRIu64 " bytes left, and the copy needs about %" PRIu64,
                          available, sum.bytes);
            return provider::refuse(out, reason);
        }
        out.combo_class = QFI_SERIAL_FS;
        out.consistency = QFI_CONSISTENCY_FUZZY;
        // Whether blocks will be shared only copying tells: room is asked for as if none were.
        out.cost_bytes = sum.bytes + sum.entries * bytes_per_entry;
        out.cost_ms = 1 + sum.bytes / bytes_per_ms + sum.entries / entries_per_ms;
        provider::foretell(out, sum, flags, true);
    });
}

int32_t split(qfi_provider_job *job) {
    return provider::fenced(job,
                            [](const qfi_provider_job &one) { return provider::make_tree(one, engine::Data::copy); });
}

const qfi_provider_ops operations = provider::operations_of(
    {"copy", "A copy, on any file system; files that change meanwhile may be of different moments", 100,
     QFI_CONSISTENCY_FUZZY, QFI_TECHNOLOGY_COPY},
    probe, split);

} // namespace

extern "C" QZFI_API const qfi_provider_ops *qfi_provider_entry(void);

const qfi_provider_ops *qfi_provider_entry(void) {
    return &operations;
}
