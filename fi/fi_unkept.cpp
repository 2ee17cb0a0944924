#include "fi/fi_unkept.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "fi/fi_place.h"

namespace qzfi::fi {

namespace {

bool is_socket(int tree, const char *path) noexcept {
    const Descriptor entry(open_beneath(tree, path, O_PATH | O_NOFOLLOW));
    struct stat status {};
    return entry && fstat(entry.get(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// An empty directory of a snapshot.
bool stands_for_volume(int tree, const char *path) noexcept {
    const Descriptor entry(open_beneath(tree, path, O_PATH | O_NOFOLLOW));
    return entry && is_stand_in(entry.get());
}

} // namespace

void Unkept::add(const qfi_remark &remark, int tree, const std::string &object) noexcept {
    if (remark.kind == QFI_REMARK_SKIPPED && stands_for_volume(tree, remark.path))
        return; // said of the image already, which does not hold it either
    ++remark_count_;
    const bool counts = remark.kind != QFI_REMARK_SKIPPED || !is_socket(tree, remark.path);
    const bool is_attribute = remark.kind == QFI_REMARK_ATTRIBUTE;
    const bool is_first = counts && (count_ == 0 || (!is_attribute && !lacks_entries_));
    count_ += counts ? 1 : 0;
    lacks_entries_ = lacks_entries_ || (counts && !is_attribute);
    try {
        keep_remark(remarks_, {remark.kind, remark.error, object, remark.path, remark.detail});
        if (!is_first)
            return;
        path_ = object + (*remark.path != '\0' ? "/" : "") + remark.path;
        cause_ = is_attribute ? "attribute \"" + std::string(remark.detail) + "\"" : std::string(remark.detail);
        if (remark.error != 0)
            cause_ += ": " + error_text(remark.error);
    } catch (...) {
        is_short_of_memory_ = true;
    }
}

void Unkept::require_noted() const {
    if (is_short_of_memory_)
        throw std::bad_alloc();
}

void Unkept::refuse(const std::string &image, const char *operation) const {
    fail(message::not_kept, QFI_STATUS_NOT_SUPPORTED, operation, {image, path_, cause_, std::to_string(count_)});
}

void Unkept::put(StoredReport &report) const {
    for (const JobHost::Remark &remark : remarks_)
        report.add(remark);
    report.count += remark_count_ - remarks_.size();
}

} // namespace qzfi::fi
