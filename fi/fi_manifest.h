// Manifests: what an image held, one text line an entry, and the differences between two of them.
//
// A line is: type letter (one of "fdlbcps"), mode (octal), uid, gid, size, mtime in nanoseconds, digest or "-", path;
// separated by single blanks, with a link's target, or a device's number, after the path. Bytes of paths and targets
// below "!", above "~" and "\" are written as "\xHH". The first line names the format and its version, the last one,
// "end COUNT", tells that nothing is missing. Lines stand in the order in which entries were seen; readers sort.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <qzfi_provider.h>

#include "fi/fi_library.h"

namespace qzfi::fi {

/// One line, read.
struct ManifestEntry {
    std::string path;
    uint32_t type = 0;
    uint32_t mode = 0;
    uint32_t uid = 0, gid = 0;
    uint64_t size = 0;
    int64_t mtime_ns = 0;
    uint64_t device = 0; // of device nodes
    std::string digest;  // 16 bytes, or empty
    std::string target;
};

/// Writes a manifest; entries may come from any thread. Buffered: memory does not grow with the tree.
class ManifestWriter {
public:
    /// Makes the file `name` in `directory`. Throws Failure.
    ManifestWriter(int directory, const char *name, const char *operation, std::string object);
    ~ManifestWriter();
    ManifestWriter(const ManifestWriter &) = delete;
    ManifestWriter &operator=(const ManifestWriter &) = delete;
    /// 0 or an own status, for `qfi_provider_host.entry`; `finish` then throws, and tells the cause.
    int32_t add(const qfi_entry &entry) noexcept;
    /// Flushes, syncs, closes. Throws Failure.
    void finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Reads a manifest, sorted bytewise by path, entry by entry. Memory: some 20 MiB at most, however long the manifest;
/// the rest is sorted in a temporary file.
class ManifestReader {
public:
    /// Reads all of it, and gives what lies at or below `only`. Throws Failure: QFI_FI_READ, QFI_FI_DAMAGED for a line
    /// that is not one, or is missing.
    ManifestReader(int directory, const char *name, const char *operation, std::string object,
                   const std::string &only = {});
    ~ManifestReader();
    ManifestReader(ManifestReader &&) noexcept;
    /// False at the end. Throws QFI_FI_DAMAGED for a path that stands there twice.
    bool next(ManifestEntry &entry);

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// The line of an entry, without its end; false when an entry is none that a manifest can hold.
bool manifest_line(const qfi_entry &entry, std::string &line);
/// Reads a line.
bool parse_manifest_line(std::string_view line, ManifestEntry &entry);
/// The change between two entries of one path; QFI_CHANGE_NONE for none. Times of directories do not count, nor do
/// digests that only one has.
uint32_t change_between(const ManifestEntry &from, const ManifestEntry &to) noexcept;

/// Calls `changed(change, old or null, new or null)` for every difference, in order of path.
void compare_manifests(ManifestReader &from, ManifestReader &to,
                       const std::function<void(uint32_t, const ManifestEntry *, const ManifestEntry *)> &changed);

} // namespace qzfi::fi
