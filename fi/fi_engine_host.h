// Calls of the tree engine by the library itself: what the engine says becomes a raised failure.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "fi/fi_library.h"
#include "providers/engine/engine.h"

namespace qzfi::fi {

/// The host of one call of the engine.
class EngineHost {
public:
    /// `object` is the path of the tree, for texts; `progress` may be null. `asked`, where there is no other one, is
    /// asked whether to go on, and counts nothing.
    EngineHost(const char *operation, std::string object, Progress *progress, Progress *asked = nullptr);
    EngineHost(const EngineHost &) = delete;
    EngineHost &operator=(const EngineHost &) = delete;
    const qfi_provider_host &record() const noexcept { return record_; }
    /// Called from the engine's threads, one at a time. What they throw ends the call and is told and thrown by
    /// `check`, in the thread that calls that; so does a status of `on_entry` that is not 0.
    void on_entry(std::function<int32_t(const qfi_entry &)> take) { entry_ = std::move(take); }
    void on_remark(std::function<void(const qfi_remark &)> take) { remark_ = std::move(take); }
    /// Throws Failure unless the call succeeded; `reading` says on which side it failed.
    void check(const engine::Result &result, bool reading) const;

private:
    static int32_t entry(void *context, const qfi_entry *entry) noexcept;
    static void remark(void *context, const qfi_remark *remark) noexcept;
    static int32_t progress(void *context, uint64_t entries, uint64_t bytes) noexcept;
    static void fail(void *context, const char *operation, const char *object, int error) noexcept;

    const char *operation_;
    std::string object_;
    Progress *progress_, *asked_;
    Progress::Counts before_{}; // what was done before this call: it counts its own
    qfi_provider_host record_{};
    std::function<int32_t(const qfi_entry &)> entry_;
    std::function<void(const qfi_remark &)> remark_;
    std::mutex mutex_;
    std::exception_ptr thrown_;
    KeptFailure failure_;
    std::string failed_call_, failed_object_;
    int failed_error_ = 0;
};

} // namespace qzfi::fi
