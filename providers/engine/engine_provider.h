// What provider plugins have in common: how an operation is fenced and says what failed, how a probe refuses in words,
// and the operations of a provider whose image is a tree of files of its own.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include <qzfi/fi_types.h>

#include "providers/engine/engine.h"

namespace qzfi::provider {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Descriptor &operator=(Descriptor &&other) noexcept;
    ~Descriptor();
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

/// Opens a directory below `at`; no symbolic link is followed, no mount crossed. Empty: the errno says why.
Descriptor open_directory(int at, const std::string &path) noexcept;

/// The status that stands for an errno of reading or writing.
int32_t status_of(int error, bool reading) noexcept;

/// Tells the host what failed and gives the status for it. `object` is below the job's.
int32_t fail_read(const qfi_provider_job &job, const char *operation, const std::string &object, int error);
int32_t fail_write(const qfi_provider_job &job, const char *operation, const std::string &object, int error);

void remark(const qfi_provider_job &job, qfi_remark_kind kind, const std::string &path, const char *detail,
            int error = 0);

/// A job that a provider can work on: records of known size, and a name that is one.
bool is_valid(const qfi_provider_job *job) noexcept;

/// Says that memory ran short, or that something nobody foresaw happened.
int32_t fail_no_memory(const qfi_provider_job &job) noexcept;
int32_t fail_unforeseen(const qfi_provider_job &job, const char *what) noexcept;

/// Runs an operation's body; no exception leaves.
template <class Body>
int32_t fenced(qfi_provider_job *job, Body &&body) noexcept {
    if (!is_valid(job))
        return QFI_STATUS_INVALID_ARGUMENT;
    try {
        return body(*job);
    } catch (const std::bad_alloc &) {
        return fail_no_memory(*job);
    } catch (const std::exception &error) {
        return fail_unforeseen(*job, error.what());
    }
}

/// What the first kit's probes held.
constexpr std::size_t least_probe = offsetof(qfi_probe, entries);

/// Runs a probe's body, which fills in a probe that refuses nothing yet. The caller is given as much as it has room
/// for.
template <class Body>
int32_t fenced_probe(int source, qfi_probe *out, Body &&body) noexcept {
    if (source < 0 || out == nullptr || out->size < least_probe)
        return QFI_STATUS_INVALID_ARGUMENT;
    qfi_probe made{};
    made.size = static_cast<uint32_t>(std::min<std::size_t>(out->size, sizeof(made)));
    try {
        body(made);
        std::memcpy(out, &made, made.size);
        return QFI_STATUS_OK;
    } catch (const std::bad_alloc &) {
        return QFI_STATUS_NO_MEMORY;
    } catch (const std::exception &) {
        return QFI_STATUS_INTERNAL;
    }
}

/// Lets a probe say why the object cannot be frozen.
void refuse(qfi_probe &out, const std::string &reason) noexcept;

/// What an errno means for somebody who wants to freeze a directory: "the file system is read-only".
std::string words_of(int error);

/// Why no image can be made in the store (-1: a store on the file system of `source`); empty when one can.
std::string store_obstacle(int source, int store);

/// Whether data can be shared between two directories, as far as their place decides it: Btrfs gives each subvolume a
/// device number of its own.
bool same_file_system(int one, int other) noexcept;

/// How much a tree holds. Small trees are counted; of larger ones only a bound is known, from their file system.
struct Estimate {
    uint64_t entries = 0; // the directory itself too
    uint64_t bytes = 0;   // allocated ones
    uint64_t data = 0;    // to be read of the files, holes left out; only when counted
    bool counted = false;
    bool has_others = false; // other file systems, or subvolumes, lie within; they are not counted
};
/// With QFI_JOB_GLANCE nothing is counted, however small it is.
Estimate estimate(int source, int store, uint32_t flags);

/// Tells how much a run of the engine over the tree will count; what is only bounded stays unknown. `reads` is whether
/// it looks at data, which otherwise is no measure of its work.
void foretell(qfi_probe &out, const Estimate &sum, uint32_t flags, bool reads) noexcept;

/// Bytes that this user may still write on a file system.
uint64_t free_bytes(int directory) noexcept;

/// The job's host for cleaning up after a failure: what failed first stays said, and nothing is cancelled.
qfi_provider_host quiet(const qfi_provider_host &host) noexcept;
/// The job's host for a step that the caller is not to see unless it fails.
qfi_provider_host failing_only(const qfi_provider_host &host) noexcept;

engine::Options options_of(const qfi_provider_job &job, engine::Data data) noexcept;

/// EEXIST when the job's name is taken: what is there is not ours to remove after a failure. 0 when it is free, else
/// the errno of looking.
int taken(const qfi_provider_job &job) noexcept;

/// The operations of a provider whose image is a tree of its own. A failed one leaves nothing half-made.
int32_t make_tree(const qfi_provider_job &job, engine::Data data);
int32_t remove_tree(const qfi_provider_job &job);

/// What one provider differs from another in, as far as its table tells it.
struct Description {
    const char *id; // of the provider and of its method
    const char *text;
    uint64_t level;
    uint32_t consistency, technology;
};

/// The table of a provider whose image is a tree of its own. A restore may go to another file system, so its data is
/// shared only where that works.
qfi_provider_ops operations_of(const Description &description, decltype(qfi_provider_ops::probe) probe,
                               decltype(qfi_provider_ops::split) split);

} // namespace qzfi::provider
