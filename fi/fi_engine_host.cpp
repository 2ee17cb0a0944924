#include "fi/fi_engine_host.h"

namespace qzfi::fi {

EngineHost::EngineHost(const char *operation, std::string object, Progress *progress, Progress *asked)
    : operation_(operation), object_(std::move(object)), progress_(progress), asked_(asked) {
    if (progress_ != nullptr)
        before_ = progress_->counts();
    record_.size = sizeof record_;
    record_.context = this;
    record_.entry = &EngineHost::entry;
    record_.remark = &EngineHost::remark;
    record_.progress = &EngineHost::progress;
    record_.fail = &EngineHost::fail;
}

int32_t EngineHost::entry(void *context, const qfi_entry *entry) noexcept {
    auto &host = *static_cast<EngineHost *>(context);
    const std::lock_guard lock(host.mutex_);
    if (!host.entry_ || host.thrown_)
        return 0;
    try {
        const Keep keep(host.failure_);
        return host.entry_(*entry);
    } catch (...) {
        host.thrown_ = std::current_exception();
        return QFI_STATUS_INTERNAL;
    }
}

void EngineHost::remark(void *context, const qfi_remark *remark) noexcept {
    auto &host = *static_cast<EngineHost *>(context);
    const std::lock_guard lock(host.mutex_);
    if (!host.remark_ || host.thrown_)
        return;
    try {
        const Keep keep(host.failure_);
        host.remark_(*remark);
    } catch (...) {
        host.thrown_ = std::current_exception();
    }
}

int32_t EngineHost::progress(void *context, uint64_t entries, uint64_t bytes) noexcept {
    auto &host = *static_cast<EngineHost *>(context);
    if (host.progress_ == nullptr)
        return host.asked_ != nullptr ? host.asked_->advance(0, 0) : 0;
    return host.progress_->set(host.before_.entries_done + entries, host.before_.bytes_done + bytes);
}

void EngineHost::fail(void *context, const char *operation, const char *object, int error) noexcept {
    auto &host = *static_cast<EngineHost *>(context);
    const std::lock_guard lock(host.mutex_);
    host.failed_error_ = error;
    try {
        host.failed_call_ = operation;
        host.failed_object_ = object;
    } catch (...) {
        host.failed_error_ = ENOMEM;
    }
}

void EngineHost::check(const engine::Result &result, bool reading) const {
    if (thrown_) {
        failure_.raise_here();
        std::rethrow_exception(thrown_);
    }
    if (result.status == 0)
        return;
    if (result.status == QFI_FI_CANCELLED)
        fi::fail(message::cancelled, QFI_FI_CANCELLED, operation_, {object_});
    if (result.status == QFI_STATUS_NO_MEMORY)
        throw std::bad_alloc();
    const std::string path = failed_object_.empty() ? object_ : object_ + "/" + failed_object_;
    if (result.status == QFI_FI_UNSAFE && failed_error_ == 0)
        fi::fail(message::unsafe_path, QFI_FI_UNSAFE, operation_, {path, failed_call_});
    fail_call(operation_, failed_call_.empty() ? "reading" : failed_call_.c_str(), path,
              failed_error_ != 0 ? failed_error_ : EIO, reading);
}

} // namespace qzfi::fi
