// What a copy could not keep that is to take the place of what it was made of: of an export, or of an import.
#pragma once

#include <string>
#include <vector>

#include "fi/fi_providers.h"
#include "fi/fi_report.h"

namespace qzfi::fi {

/// Not thread-safe; to be told each remark of the copies of one image. Sockets do not count: no copy holds them, and
/// nothing is in them.
class Unkept {
public:
    /// `tree` is what is copied, `object` its path, for texts.
    void add(const qfi_remark &remark, int tree, const std::string &object) noexcept;

    /// Entries and attributes.
    uint64_t count() const noexcept { return count_; }
    /// Of them: whole entries.
    bool lacks_entries() const noexcept { return lacks_entries_; }
    /// The first, or the first entry if any is lacking.
    const std::string &path() const noexcept { return path_; }
    const std::string &cause() const noexcept { return cause_; }
    /// Sockets included, and as many as are kept.
    uint64_t remark_count() const noexcept { return remark_count_; }
    const std::vector<JobHost::Remark> &remarks() const noexcept { return remarks_; }

    /// Throws std::bad_alloc for what could not be noted.
    void require_noted() const;
    /// Throws QFI_STATUS_NOT_SUPPORTED, and says of the image that it stays where it is.
    [[noreturn]] void refuse(const std::string &image, const char *operation) const;
    /// Makes the remarks, none of which is a loss, a part of the image's report.
    void put(StoredReport &report) const;

private:
    uint64_t count_ = 0, remark_count_ = 0;
    bool lacks_entries_ = false, is_short_of_memory_ = false;
    std::string path_, cause_;
    std::vector<JobHost::Remark> remarks_;
};

} // namespace qzfi::fi
