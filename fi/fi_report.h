// The report that lies with an image: its remarks, one text line each.
//
// A line is: kind, errno, object, path, detail; separated by single blanks, texts escaped as in manifests and never
// empty ("-" stands for an empty one, "\x2d" for "-"). The first line names the format and its version, the last one,
// "end COUNT", tells the number of remarks, those not kept included. Those that decide stand first, so that they are
// kept first.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "fi/fi_providers.h"

namespace qzfi::fi {

inline constexpr char report_name[] = "report";
/// A report is written no longer, and not read when it is: it is held in memory, and an imported one is anybody's.
inline constexpr std::size_t report_limit = std::size_t{64} << 20;

/// Writes the report into an image's directory, and gives the file. Throws Failure.
Descriptor write_report(int directory, std::vector<JobHost::Remark> remarks, uint64_t count, const char *operation,
                        const std::string &image);

struct StoredReport {
    std::vector<JobHost::Remark> remarks;
    uint64_t count = 0;
    /// False when some of the remarks that were not kept may be of losses, or of what was left out.
    bool has_all_losses() const noexcept {
        return count == remarks.size() || (!remarks.empty() && !decides(remarks.back()));
    }
    /// Adds one that decides nothing. It is only counted where others are not known: it must not look as if they were.
    void add(JobHost::Remark remark);
};
/// Reads it. Throws Failure: QFI_FI_DAMAGED when it is none, or missing. `path` is the image's directory.
StoredReport read_report(int directory, const char *operation, const std::string &image, const std::string &path);
/// Reads it where it may be missing or damaged: then there is none.
std::optional<StoredReport> sound_report(int directory, const char *operation, const std::string &image,
                                         const std::string &path);
/// Reads it to be added to. Of one that is none, or missing although there were `remarks`, nothing is known.
StoredReport report_so_far(int directory, uint64_t remarks, const char *operation, const std::string &image,
                           const std::string &path);

} // namespace qzfi::fi
