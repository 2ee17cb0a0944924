// Plugin discovery: each call scans the directory anew, for the caller's list is the whole memory of what is loaded.
#include "util/qzfiutil_plugin.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <qzfi/status.h>
#include <qzfi/system.h>

#include "common/qzfitext.h"
#include "util/qzfiutil_messages.h"

using qzfi::Directory;
using qzfi::EntryName;
using qzfi::PluginFile;
using qzfi::Text;
namespace message = qzfi::message;

namespace {

constexpr const char *scan_routine = "qzfi_newpgn";

// What an initialisation routine may return, beside the statuses 0 and 12, without refusing the plugin.
constexpr uint32_t accepted_unmarked = 29;
constexpr uint32_t also_accepted_unmarked = 30;

struct PluginDeleter {
    void operator()(qfi_plugin *plugin) const noexcept {
        std::free(plugin->library_path);
        std::free(plugin->vp_prefix);
        std::free(plugin->libpriv);
        std::free(plugin);
    }
};
/// A plugin that is on no list.
using Plugin = std::unique_ptr<qfi_plugin, PluginDeleter>;

/// What one call of `qzfi_newpgn` looks for.
struct Search {
    const char *directory;
    const char *prefix;
    uint32_t (*init)(qfi_plugin *);
    uint64_t value;
};

/// Two parts of a path with `separator`, one character at most, between them.
Text join(const char *first, const char *separator, const char *second) noexcept {
    const std::size_t size = std::strlen(first) + std::strlen(second) + 2;
    Text path{static_cast<char *>(std::malloc(size))};
    if (path)
        qzfi_snprintf(path.get(), size, "%s%s%s", first, separator, second);
    return path;
}

bool is_listed(const qfi_plugin *list, const char *base) noexcept {
    for (const qfi_plugin *each = list; each != nullptr; each = each->libpriv->next)
        if (std::strcmp(each->vp_prefix, base) == 0)
            return true;
    return false;
}

Plugin make_plugin(const char *file, const char *base, Text library_path, uint64_t value) noexcept {
    Plugin plugin{static_cast<qfi_plugin *>(std::calloc(1, sizeof(qfi_plugin)))};
    if (!plugin) {
        qzfi::raise(message::no_memory_for_plugin_descriptor, scan_routine, file);
        return nullptr;
    }
    plugin->value = value;
    plugin->libpriv = static_cast<qfi_libpriv *>(std::calloc(1, sizeof(qfi_libpriv)));
    if (plugin->libpriv == nullptr) {
        qzfi::raise(message::no_memory_for_libpriv_descriptor, scan_routine, file);
        return nullptr;
    }
    plugin->vp_prefix = qzfi::duplicate(base).release();
    if (plugin->vp_prefix == nullptr) {
        qzfi::raise(message::no_memory_for_vp_prefix, scan_routine, file);
        return nullptr;
    }
    plugin->library_path = library_path.release();
    return plugin;
}

/// Lets the caller load and start the plugin; false when it is refused.
bool initialize(qfi_plugin &plugin, uint32_t (*init)(qfi_plugin *), const char *file) noexcept {
    const uint32_t code = init != nullptr ? init(&plugin) : uint32_t{QFI_STATUS_OK};
    switch (code) {
    case QFI_STATUS_OK:
        plugin.libpriv->mark = QFI_PLUGIN_ACCEPTED;
        return true;
    case accepted_unmarked:
    case also_accepted_unmarked:
        return true;
    case QFI_STATUS_INCOMPATIBLE:
        return false;
    default:
        qzfi::raise(message::plugin_not_initialized, scan_routine, file);
        return false;
    }
}

/// Chooses a file for the plugin `base` and loads it; null when there is none or it is passed over.
Plugin load_plugin(const Search &search, const char *base) noexcept {
    EntryName chosen;
    if (!qzfi::choose_plugin_file(search.directory, search.prefix, base, chosen))
        return nullptr;
    const char *const file = chosen.text;

    Text path = join(search.directory, "", file); // directories are given with a "/" at their end
    if (!path) {
        qzfi::raise(message::no_memory_for_library_name, scan_routine, file);
        return nullptr;
    }
    if (!qzfi::is_loadable_plugin(path.get()))
        return nullptr;
    if (qzfi_pathaccess(path.get(), QFI_FILE_READ) != 0) {
        qzfi::raise(message::plugin_not_readable, scan_routine, file);
        return nullptr;
    }

    Plugin plugin = make_plugin(file, base, std::move(path), search.value);
    if (!plugin || !initialize(*plugin, search.init, file))
        return nullptr;
    return plugin;
}

void link_at_head(qfi_plugin *&list, qfi_plugin *plugin) noexcept {
    plugin->libpriv->next = list;
    if (list != nullptr)
        list->libpriv->prev = plugin;
    list = plugin;
}

} // namespace

DIR *qzfi_pgndir(const char *subdir, const char *env_name, char **path, int32_t *owned, const char *root) {
    if (path == nullptr || owned == nullptr)
        return nullptr;
    *path = nullptr;
    *owned = 0;
    char *const from_environment = env_name != nullptr ? std::getenv(env_name) : nullptr;
    Text made;
    if (from_environment == nullptr) {
        if (root == nullptr || subdir == nullptr)
            return nullptr;
        made = join(root, "/", subdir);
        if (!made) {
            qzfi::raise(message::no_memory_for_directory_path, "qzfi_pgndir");
            return nullptr;
        }
    }

    char *const directory = made ? made.get() : from_environment;
    DIR *const stream = qzfi::open_directory(directory, "qzfi_pgndir");
    if (stream == nullptr)
        return nullptr;
    *path = directory;
    *owned = made ? 1 : 0;
    (void)made.release();
    return stream;
}

qfi_plugin *qzfi_newpgn(const char *subdir, const char *env_name, const char *prefix, qfi_plugin **list,
                        uint32_t (*init)(qfi_plugin *), uint64_t value, const char *root) {
    if (list == nullptr || prefix == nullptr)
        return nullptr;
    char *path = nullptr;
    int32_t owned = 0;
    const Directory stream{qzfi_pgndir(subdir, env_name, &path, &owned, root)};
    if (!stream)
        return nullptr;
    const Text owned_path{owned != 0 ? path : nullptr};
    // A copy, for an initialisation routine may change the variable. It fits: no longer path can have been opened.
    char directory[PATH_MAX];
    qzfi::copy_bounded(directory, sizeof directory, path);

    const Search search{directory, prefix, init, value};
    PluginFile file;
    while (qzfi::read_plugin_file(stream.get(), prefix, file)) {
        if (is_listed(*list, file.base))
            continue;
        Plugin plugin = load_plugin(search, file.base);
        if (!plugin)
            continue;
        link_at_head(*list, plugin.get());
        return plugin.release();
    }
    return nullptr;
}
