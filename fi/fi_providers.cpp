// Loading providers. A plugin is code of others: each is tried in a process of its own before it comes into this one.
#include "fi/fi_providers.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

#include <qzfi/messages.h>
#include <qzfi/plugin.h>
#include <qzfi/settings.h>
#include <qzfi/status.h>
#include <qzfi/system.h>

#include "fi/fi_provider_trial.h"

namespace qzfi::fi {

namespace {

constexpr const char *loading = "qzfi_load_provider";
constexpr int32_t plugin_kind = 2; // of a version

struct Loaded {
    std::mutex mutex; // recursive use is impossible: a provider's start does not call operations of this library
    bool is_loaded = false;
    qfi_plugin *plugins = nullptr;
    uint64_t next_reference = 1;
    std::vector<Provider> providers;
    std::vector<RefusedProvider> refused;
};

// Never destroyed: hosts may end while threads of theirs are in here.
Loaded &loaded() {
    static auto *const all = new Loaded;
    return *all;
}

std::string file_of(const qfi_plugin &plugin) {
    const std::string_view path = plugin.library_path;
    return std::string(path.substr(path.rfind('/') + 1));
}

// Set before the table is looked at, so that a refused plugin is let go of.
class Library {
public:
    explicit Library(const char *path) noexcept : handle_(qzfi_dlopen_pgn(path)) {}
    ~Library() {
        if (handle_ != nullptr)
            qzfi_dlclose(handle_);
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    void *get() const noexcept { return handle_; }
    void *release() noexcept { return std::exchange(handle_, nullptr); }

private:
    void *handle_;
};

bool is_name(const char *text) noexcept {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    return text != nullptr && *text != '\0' && std::string_view(text).find_first_not_of(letters) == std::string::npos;
}

bool is_taken(const qfi_provider_ops &ops) noexcept {
    const auto &providers = loaded().providers;
    return std::any_of(providers.begin(), providers.end(), [&](const Provider &provider) {
        return std::strcmp(provider.ops->provider_id, ops.provider_id) == 0 ||
               std::strcmp(provider.ops->fim_id, ops.fim_id) == 0;
    });
}

// Why a table cannot be used; empty when it can. Nothing beyond a table's size is read.
std::string flaw_of(const qfi_provider_ops *ops) {
    if (ops == nullptr)
        return "its entry gave no table";
    if (ops->size < sizeof(qfi_provider_ops))
        return "its table is too small (" + std::to_string(ops->size) + " of " +
               std::to_string(sizeof(qfi_provider_ops)) + " bytes)";
    if (compare_with_lib_version(ops->version, plugin_kind) != 0)
        return "it was built for a newer API";
    if (!is_name(ops->provider_id) || !is_name(ops->fim_id) || ops->description == nullptr)
        return "its table has no proper names";
    if (is_taken(*ops))
        return std::string("a provider or method of its name is loaded already (") + ops->provider_id + ")";
    return {};
}

// Loads and starts; the reason when the plugin is refused.
std::string load(qfi_plugin &plugin) {
    std::string reason = failed_trial(plugin.library_path);
    if (!reason.empty())
        return reason;
    qzfi_dlerror(); // a stale error must not be taken for this call's
    Library library(plugin.library_path);
    if (library.get() == nullptr) {
        const char *const error = qzfi_dlerror();
        return error != nullptr ? error : "it cannot be loaded";
    }
    using Entry = const qfi_provider_ops *(*)();
    const auto entry = reinterpret_cast<Entry>(qzfi_dlsym(library.get(), QFI_PROVIDER_ENTRY));
    if (entry == nullptr)
        return "it has no " QFI_PROVIDER_ENTRY;
    const qfi_provider_ops *const ops = entry();
    reason = flaw_of(ops);
    if (!reason.empty())
        return reason;
    loaded().providers.reserve(loaded().providers.size() + 1);
    const int32_t status = ops->start != nullptr ? ops->start() : 0;
    if (status != 0)
        return "its start failed with " + std::to_string(status);
    plugin.first = const_cast<qfi_plugin_ops *>(&ops->release);
    plugin.fifth = library.release();
    loaded().providers.push_back({&plugin, ops});
    return {};
}

// For the loader: 12 refuses without a message of its own. A refused plugin is met again by the next search.
uint32_t accept(qfi_plugin *plugin) {
    try {
        const std::string file = file_of(*plugin);
        for (const RefusedProvider &refused : loaded().refused)
            if (refused.file == file)
                return QFI_STATUS_INCOMPATIBLE;
        plugin->value = loaded().next_reference++;
        const std::string reason = load(*plugin);
        if (reason.empty())
            return QFI_STATUS_OK;
        loaded().refused.push_back({file, reason});
        raise(message::provider_refused, QFI_STATUS_INCOMPATIBLE, loading, {file, reason});
        return QFI_STATUS_INCOMPATIBLE;
    } catch (...) {
        raise(message::no_memory, QFI_STATUS_NO_MEMORY, loading, {});
        return QFI_STATUS_INCOMPATIBLE;
    }
}

bool is_better(const Provider &one, const Provider &other) {
    if (one.ops->hlevel != other.ops->hlevel)
        return one.ops->hlevel > other.ops->hlevel;
    return std::strcmp(one.ops->provider_id, other.ops->provider_id) < 0;
}

void load_all() {
    const std::string root = installation_root();
    // Each call gives one more, until there is none that was not given or refused before.
    while (qzfi_newpgn(&QFI_PROVIDER_SUBDIR[1], QFI_PROVIDER_ENV, QFI_PROVIDER_PREFIX, &loaded().plugins, accept, 0,
                       root.c_str()) != nullptr) {
    }
    std::sort(loaded().providers.begin(), loaded().providers.end(), is_better);
}

void ensure_loaded() {
    const std::lock_guard lock(loaded().mutex);
    if (loaded().is_loaded)
        return;
    load_all();
    loaded().is_loaded = true;
}

void release(qfi_plugin *plugin) noexcept {
    std::free(plugin->library_path);
    std::free(plugin->vp_prefix);
    std::free(plugin->libpriv);
    std::free(plugin);
}

} // namespace

const std::vector<Provider> &providers() {
    ensure_loaded();
    return loaded().providers;
}

const std::vector<RefusedProvider> &refused_providers() {
    ensure_loaded();
    return loaded().refused;
}

namespace {

template <class Matches>
const Provider *find_if(Matches &&matches) noexcept {
    try {
        for (const Provider &provider : providers())
            if (matches(*provider.ops))
                return &provider;
    } catch (...) {
        return nullptr;
    }
    return nullptr;
}

} // namespace

const Provider *find_provider(std::string_view provider_id) noexcept {
    return find_if([&](const qfi_provider_ops &ops) { return provider_id == ops.provider_id; });
}

const Provider *find_method(std::string_view fim_id) noexcept {
    return find_if([&](const qfi_provider_ops &ops) { return fim_id == ops.fim_id; });
}

qfi_plugin *find_plugin(uint64_t reference) noexcept {
    const std::lock_guard lock(loaded().mutex);
    for (qfi_plugin *plugin = loaded().plugins; plugin != nullptr; plugin = plugin->libpriv->next)
        if (plugin->value == reference)
            return plugin;
    return nullptr;
}

void unload_providers() noexcept {
    const std::lock_guard lock(loaded().mutex);
    for (const Provider &provider : loaded().providers)
        if (provider.ops->stop != nullptr)
            provider.ops->stop();
    loaded().providers.clear();
    loaded().refused.clear();
    while (loaded().plugins != nullptr) {
        qfi_plugin *const plugin = loaded().plugins;
        loaded().plugins = plugin->libpriv->next;
        qzfi_dlclose(plugin->fifth);
        release(plugin);
    }
    loaded().is_loaded = false;
}

} // namespace qzfi::fi
