// Stores within what is frozen, restored or compared.
#include "fi/fi_left_out.h"

#include <algorithm>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/stat.h>

#include "fi/fi_engine_host.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

LeftOut::LeftOut(const TreeFilesystem &filesystem, const std::string &object, const std::vector<std::string> &found) {
    const std::string &mount_point = filesystem.mount.mount_point;
    std::set<std::string> paths(found.begin(), found.end());
    for (const std::string &path : known_stores())
        paths.insert(path);
    paths.insert((mount_point == "/" ? "" : mount_point) + "/" + store_folder_name);
    std::erase_if(paths, [&](const std::string &path) { return !lies_at_or_below(path, object); });
    if (filesystem.store) // none before a tree is prepared
        paths.insert(filesystem.store->path());
    for (const std::string &path : paths)
        add(path);
}

// One that is gone has nothing to be left out.
void LeftOut::add(const std::string &path) {
    Descriptor directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0)
        return;
    excluded_.push_back({status.st_dev, status.st_ino, directory.get()});
    open_.push_back(std::move(directory));
}

// By its entries: what the catalog holds may be in its log still, and closing a catalog that this process has open
// would drop its locks.
void StoreFinder::look_at(const qfi_entry &entry) {
    constexpr std::string_view name = "catalog.db";
    const std::string_view path = entry.path;
    const bool is_catalog = entry.type == QFI_ENTRY_FILE && path.ends_with(name) &&
                            (path.size() == name.size() || path[path.size() - name.size() - 1] == '/');
    if (!is_catalog)
        return;
    const std::string store(path.substr(0, path.size() - std::min(path.size(), name.size() + 1)));
    const Descriptor folder(
        open_beneath(directory_, store.empty() ? "." : store.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW));
    const auto has = [&](const char *entry_name, mode_t type) {
        struct stat status {};
        return fstatat(folder.get(), entry_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
               (status.st_mode & S_IFMT) == type;
    };
    if (folder && has("images", S_IFDIR) && (has(lock_name, S_IFREG) || has("reserve", S_IFREG)))
        found_.push_back(store);
}

std::vector<std::string> stores_within(int directory, const std::string &path, const LeftOut &left_out,
                                       const char *operation, Progress *cancelled_by) {
    StoreFinder finder(directory);
    EngineHost host(operation, path, nullptr, cancelled_by);
    host.on_entry([&](const qfi_entry &entry) {
        finder.look_at(entry);
        return 0;
    });
    engine::Options options;
    options.entries = true;
    left_out.put(options);
    host.check(engine::walk_tree(directory, options, host.record()), true);
    std::vector<std::string> paths;
    for (const std::string &below : finder.found())
        paths.push_back(below.empty() ? path : (path == "/" ? "" : path) + "/" + below);
    return paths;
}

} // namespace qzfi::fi
