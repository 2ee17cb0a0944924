// The providers that were loaded from the plugin directory, and those that were refused.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qzfi_provider.h>

#include "fi/fi_library.h"

namespace qzfi::fi {

struct Provider {
    qfi_plugin *plugin;
    const qfi_provider_ops *ops;
};

struct RefusedProvider {
    std::string file;
    std::string reason;
};

/// Loads the plugins below the root, or from QFI_DIR, once; best preference first. Called by the first operation that
/// needs a provider. A plugin is refused with MSG_QFI_E2026 when it does not load, has no entry, was built for a newer
/// API (checked as a plugin's version), has a table that is too small, an id that is taken, or a start that fails; and
/// when it did not survive being loaded, started and stopped in a process of its own, which comes first.
const std::vector<Provider> &providers();
const std::vector<RefusedProvider> &refused_providers();
/// By provider id or by method; null when there is none.
const Provider *find_provider(std::string_view provider_id) noexcept;
const Provider *find_method(std::string_view fim_id) noexcept;
/// By the reference that error records hold: `qfi_plugin.value`. Null when there is none.
qfi_plugin *find_plugin(uint64_t reference) noexcept;
/// Stops and unloads all; at shutdown.
void unload_providers() noexcept;

/// Gives a job its host and turns what the provider said into a report and, when it fails, into a raised failure.
class JobHost {
public:
    JobHost(const char *operation, std::string object, Progress *progress);
    ~JobHost();
    JobHost(const JobHost &) = delete;
    JobHost &operator=(const JobHost &) = delete;
    const qfi_provider_host *record() const noexcept;
    /// Where entries go; none by default.
    void on_entry(std::function<int32_t(const qfi_entry &)> take);
    /// Who is told each remark as it is made, one at a time; it must not throw.
    void on_remark(std::function<void(const qfi_remark &)> take);
    uint64_t entries() const noexcept;
    uint64_t bytes() const noexcept;
    /// The remarks so far, all counted, and as many kept as `keep_remark` does.
    struct Remark {
        uint32_t kind;
        int32_t error;
        std::string object, path, detail;
    };
    const std::vector<Remark> &remarks() const noexcept;
    uint64_t remark_count() const noexcept;
    /// Whether a file was torn, also when the remark was not kept.
    bool has_torn() const noexcept;
    /// Throws Failure for a status that is not 0: with the operation, the object and errno that the provider named.
    void check(int32_t status, const Provider &provider) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Whether a remark says that an image, or a copy of one, does not hold an entry as it was.
bool is_loss(uint32_t remark_kind) noexcept;
/// Whether what becomes of an original depends on a remark: of a loss, and of what was left out but for sockets.
bool decides(const JobHost::Remark &remark) noexcept;
/// Keeps a remark among at most 10,000: when there are as many already, one that decides takes the place of one that
/// does not.
void keep_remark(std::vector<JobHost::Remark> &kept, JobHost::Remark remark);

/// A `qfi_report` of remarks, one block.
qfi_report *give_report(const std::vector<JobHost::Remark> &remarks, uint64_t remark_count, uint64_t entries,
                        uint64_t bytes, uint64_t changed);

} // namespace qzfi::fi
