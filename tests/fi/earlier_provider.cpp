// A provider of the kit's first version, whose probe ended before the totals: it knows nothing of what came later, and
// writes all of the record that it knows.
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include <qzfi_fi.h>
#include <qzfi_provider.h>

namespace {

struct EarlierProbe {
    uint32_t size;
    int32_t combo_class;
    uint32_t consistency;
    uint64_t cost_bytes;
    uint64_t cost_ms;
    char reason[256];
    uint32_t same_instant;
};
static_assert(sizeof(EarlierProbe) == offsetof(qfi_probe, entries), "the record grew at its end only");

uint32_t flags_of_last_probe;

int32_t probe(int, int, const char *, uint32_t flags, qfi_probe *out) {
    flags_of_last_probe = flags;
    if (out->size < sizeof(EarlierProbe))
        return QFI_STATUS_INVALID_ARGUMENT;
    EarlierProbe made{};
    made.size = sizeof made;
    made.combo_class = QFI_SERIAL_FS;
    made.consistency = QFI_CONSISTENCY_FUZZY;
    std::memcpy(static_cast<void *>(out), &made, sizeof made);
    return QFI_STATUS_OK;
}

// An image of the directory alone.
int32_t split(qfi_provider_job *job) {
    if (mkdirat(job->target, job->name, 0755) != 0) {
        job->host->fail(job->host->context, "mkdirat", "", errno);
        return QFI_FI_WRITE;
    }
    qfi_entry entry{};
    entry.path = "";
    entry.type = QFI_ENTRY_DIRECTORY;
    entry.mode = 0755;
    if (const int32_t status = job->host->entry(job->host->context, &entry); status != 0)
        return status;
    return job->host->progress(job->host->context, 1, 0) != 0 ? int32_t{QFI_FI_CANCELLED} : QFI_STATUS_OK;
}

qfi_provider_ops operations;

} // namespace

extern "C" QZFI_API const qfi_provider_ops *qfi_provider_entry(void);

extern "C" QZFI_API uint32_t earlier_probed_with(void);

uint32_t earlier_probed_with(void) {
    return flags_of_last_probe;
}

const qfi_provider_ops *qfi_provider_entry(void) {
    operations.size = sizeof operations;
    operations.version = QFI_API_VERSION;
    operations.provider_id = operations.fim_id = "earlier";
    operations.description = "A provider of a test";
    operations.hlevel = 1;
    operations.consistency = QFI_CONSISTENCY_FUZZY;
    operations.technology = QFI_TECHNOLOGY_COPY;
    operations.probe = probe;
    operations.split = split;
    return &operations;
}
