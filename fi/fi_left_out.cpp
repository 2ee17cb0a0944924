// Stores within what is frozen, restored or compared.
#include "fi/fi_left_out.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "fi/fi_engine_host.h"
#include "fi/fi_mounts.h"
#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

bool has(int folder, const char *name, mode_t type) noexcept {
    struct stat status {};
    return fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && (status.st_mode & S_IFMT) == type;
}

// A store may have lost its catalog, or be in the making; its images are no less worth keeping.
bool may_be_store(int folder) {
    return has(folder, "images", S_IFDIR) &&
           (has(folder, "catalog.db", S_IFREG) || has(folder, lock_name, S_IFREG) || has(folder, "reserve", S_IFREG));
}

std::string path_in_filesystem(const Mount &mount, const std::string &path) {
    if (!lies_at_or_below(path, mount.mount_point)) // a link is in the way, say
        return {};
    const std::string below = mount.mount_point == "/" ? path : path.substr(mount.mount_point.size());
    const std::string whole = (mount.root == "/" ? "" : mount.root) + (below == "/" ? "" : below);
    return whole.empty() ? "/" : whole;
}

// A folder that lies below the object by another path, through links or another mount of the file system: the same one
// by the object's path, for a provider finds the way from one to the other by their parents.
Descriptor found_below(const std::string &object, int folder, const std::vector<Mount> &table) {
    char target[PATH_MAX];
    const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(folder)).c_str(), target, sizeof target);
    const std::string path(target, size > 0 ? static_cast<std::size_t>(size) : 0);
    if (path.empty() || path[0] != '/')
        return {};
    const std::string place = path_in_filesystem(mount_at(table, path), path);
    const std::string above = path_in_filesystem(mount_at(table, object), object);
    if (place.empty() || above.empty() || !lies_below(place, above))
        return {};
    const std::string below = (object == "/" ? "" : object) + place.substr(above == "/" ? 0 : above.size());
    Descriptor found(open(below.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat known {
    }, present{};
    const bool is_same = found && fstat(folder, &known) == 0 && fstat(found.get(), &present) == 0 &&
                         known.st_dev == present.st_dev && known.st_ino == present.st_ino;
    return is_same ? std::move(found) : Descriptor();
}

} // namespace

LeftOut::LeftOut(const TreeFilesystem &filesystem, const std::string &object, const std::vector<std::string> &found) {
    const std::string &mount_point = filesystem.mount.mount_point;
    const std::string in_default_place = (mount_point == "/" ? "" : mount_point) + "/" + store_folder_name;
    std::set<std::string> paths(found.begin(), found.end());
    for (const std::string &path : known_store_paths())
        paths.insert(path);
    const std::vector<Mount> table = mounts("LeftOut");
    std::erase_if(paths, [&](const std::string &path) { return !may_share_filesystem(table, path, object); });
    if (filesystem.store) // none before a tree is prepared
        paths.insert(filesystem.store->path());
    for (const std::string &path : paths) {
        if (add(path, false) && !lies_at_or_below(path, object))
            if (Descriptor below = found_below(object, open_.back().get(), table)) {
                excluded_.back().directory = below.get();
                open_.back() = std::move(below);
            }
    }
    // Unless it is known, the name alone says nothing.
    if (paths.count(in_default_place) == 0 && lies_at_or_below(in_default_place, object))
        add(in_default_place, true);
}

// One that is gone has nothing to be left out.
bool LeftOut::add(const std::string &path, bool must_look_like_one) {
    Descriptor directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0 || (must_look_like_one && !may_be_store(directory.get())))
        return false;
    excluded_.push_back({status.st_dev, status.st_ino, directory.get()});
    open_.push_back(std::move(directory));
    return true;
}

// What the catalog holds may be in its log still, and closing a catalog that this process has open
// would drop its locks.
bool is_store(int folder) noexcept {
    return has(folder, "catalog.db", S_IFREG) && has(folder, "images", S_IFDIR) &&
           (has(folder, lock_name, S_IFREG) || has(folder, "reserve", S_IFREG));
}

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
    if (folder && is_store(folder.get()))
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
