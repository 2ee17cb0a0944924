// What a provider is given to talk to while it works, and what becomes of what it says.
#include <algorithm>
#include <atomic>
#include <mutex>

#include "fi/fi_providers.h"

namespace qzfi::fi {

namespace {

constexpr std::size_t most_remarks = 10000;

} // namespace

struct JobHost::State {
    const char *operation = "";
    std::string object;
    Progress *progress = nullptr;
    Progress::Counts before{};
    qfi_provider_host record{};
    std::function<int32_t(const qfi_entry &)> take;
    std::atomic<uint64_t> entries{0}, bytes{0};

    // Guards what follows: providers speak from any thread.
    mutable std::mutex mutex;
    std::function<void(const qfi_remark &)> take_remark;
    std::vector<Remark> remarks;
    uint64_t remark_count = 0;
    bool has_torn = false;
    bool was_told = false;
    std::string failed_call, failed_object;
    int32_t error = 0;
};

namespace {

// No exception may reach a provider's code.
template <class Body>
int32_t guarded(Body &&body) noexcept {
    try {
        return body();
    } catch (const Failure &failure) {
        return failure.status;
    } catch (...) {
        return QFI_STATUS_NO_MEMORY;
    }
}

const char *text_or_empty(const char *text) {
    return text != nullptr ? text : "";
}

} // namespace

JobHost::JobHost(const char *operation, std::string object, Progress *progress) : state_(std::make_unique<State>()) {
    state_->operation = operation;
    state_->object = std::move(object);
    state_->progress = progress;
    if (progress != nullptr)
        state_->before = progress->counts();
    qfi_provider_host &record = state_->record;
    record.size = sizeof record;
    record.context = state_.get();
    record.entry = [](void *context, const qfi_entry *entry) {
        State &state = *static_cast<State *>(context);
        return guarded([&] { return state.take && entry != nullptr ? state.take(*entry) : 0; });
    };
    record.remark = [](void *context, const qfi_remark *remark) {
        State &state = *static_cast<State *>(context);
        guarded([&] {
            const std::lock_guard lock(state.mutex);
            ++state.remark_count;
            state.has_torn = state.has_torn || (remark != nullptr && remark->kind == QFI_REMARK_TORN);
            if (remark != nullptr && state.take_remark)
                state.take_remark(*remark);
            if (remark != nullptr)
                keep_remark(state.remarks, {remark->kind, remark->error, state.object, text_or_empty(remark->path),
                                            text_or_empty(remark->detail)});
            return 0;
        });
    };
    record.progress = [](void *context, uint64_t entries, uint64_t bytes) {
        State &state = *static_cast<State *>(context);
        state.entries.store(entries, std::memory_order_relaxed);
        state.bytes.store(bytes, std::memory_order_relaxed);
        return guarded([&] {
            if (state.progress == nullptr)
                return 0;
            return state.progress->set(state.before.entries_done + entries, state.before.bytes_done + bytes);
        });
    };
    record.fail = [](void *context, const char *call, const char *where, int32_t error) {
        State &state = *static_cast<State *>(context);
        guarded([&] {
            const std::lock_guard lock(state.mutex);
            state.was_told = true;
            state.error = error;
            state.failed_call = text_or_empty(call);
            state.failed_object = text_or_empty(where);
            return 0;
        });
    };
}

JobHost::~JobHost() = default;

const qfi_provider_host *JobHost::record() const noexcept {
    return &state_->record;
}

void JobHost::on_entry(std::function<int32_t(const qfi_entry &)> take) {
    state_->take = std::move(take);
}

void JobHost::on_remark(std::function<void(const qfi_remark &)> take) {
    const std::lock_guard lock(state_->mutex);
    state_->take_remark = std::move(take);
}

uint64_t JobHost::entries() const noexcept {
    return state_->entries.load(std::memory_order_relaxed);
}

uint64_t JobHost::bytes() const noexcept {
    return state_->bytes.load(std::memory_order_relaxed);
}

const std::vector<JobHost::Remark> &JobHost::remarks() const noexcept {
    return state_->remarks;
}

uint64_t JobHost::remark_count() const noexcept {
    const std::lock_guard lock(state_->mutex);
    return state_->remark_count;
}

bool JobHost::has_torn() const noexcept {
    const std::lock_guard lock(state_->mutex);
    return state_->has_torn;
}

void JobHost::check(int32_t status, const Provider &provider) const {
    const State &state = *state_;
    if (status == QFI_STATUS_OK)
        return;
    if (status == QFI_FI_CANCELLED)
        fail(message::cancelled, status, state.operation, {state.object});
    if (status == QFI_STATUS_NO_MEMORY)
        fail(message::no_memory, status, state.operation, {});
    const std::string path = state.failed_object.empty() ? state.object : state.object + "/" + state.failed_object;
    if (status == QFI_FI_NO_SPACE)
        fail(message::no_space, status, state.operation, {path});
    std::string cause = state.failed_call.empty() ? "status " + std::to_string(status) : state.failed_call;
    if (state.was_told && state.error != 0)
        cause += ": " + error_text(state.error);
    fail(message::provider_failed, status, state.operation, {provider.ops->provider_id, path, cause});
}

bool is_loss(uint32_t remark_kind) noexcept {
    return remark_kind == QFI_REMARK_TORN || remark_kind == QFI_REMARK_VANISHED || remark_kind == QFI_REMARK_UNREADABLE;
}

bool decides(const JobHost::Remark &remark) noexcept {
    return is_loss(remark.kind) || (remark.kind == QFI_REMARK_SKIPPED && remark.detail != "a socket");
}

void keep_remark(std::vector<JobHost::Remark> &kept, JobHost::Remark remark) {
    if (kept.size() < most_remarks)
        return kept.push_back(std::move(remark));
    if (!decides(remark))
        return;
    const auto place = std::find_if(kept.begin(), kept.end(), [](const auto &one) { return !decides(one); });
    if (place != kept.end())
        *place = std::move(remark);
}

qfi_report *give_report(const std::vector<JobHost::Remark> &remarks, uint64_t remark_count, uint64_t entries,
                        uint64_t bytes, uint64_t changed) {
    return static_cast<qfi_report *>(Block::build([&](Block &block) {
        auto *const report = block.array<qfi_report>(1);
        auto *const items = block.array<qfi_report_item>(remarks.size());
        for (std::size_t index = 0; index < remarks.size(); ++index) {
            const JobHost::Remark &remark = remarks[index];
            const qfi_report_item item{remark.kind, remark.error, block.text(remark.object), block.text(remark.path),
                                       block.text(remark.detail)};
            if (!block.measuring())
                items[index] = item;
        }
        if (!block.measuring())
            *report = {entries, bytes, changed, remarks.size(), remark_count, items};
    }));
}

} // namespace qzfi::fi
