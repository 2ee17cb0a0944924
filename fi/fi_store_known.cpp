// The register of known stores.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <set>
#include <sys/stat.h>

#include "fi/fi_store_folders.h"

namespace qzfi::fi {

namespace {

constexpr const char *remembering = "remember_store";

// By root: a process may start with one root after the other.
struct Register {
    std::mutex mutex;
    std::map<std::string, std::vector<std::string>> stores;
};

Register &known() {
    static Register stores;
    return stores;
}

bool contains(const std::vector<std::string> &paths, const std::string &path) {
    return std::find(paths.begin(), paths.end(), path) != paths.end();
}

// The default store's own register. Made to remember, not to look: other processes find a store on an object's own
// file system through it only.
class StoredRegister {
public:
    StoredRegister(bool create, const char *operation)
        : store_(create ? open_to_fill(default_store_path(), operation)
                        : Store::open(default_store_path(), false, operation)) {}
    Catalog &catalog() const { return *store_->state().catalog; }
    bool is_writable() const { return store_->state().is_writable; }
    void require_writable(const char *operation) const { store_->require_writable(operation); }

private:
    std::shared_ptr<Store> store_;
};

std::vector<std::string> stored_paths() noexcept {
    try {
        const Hush hush;
        return StoredRegister(false, remembering).catalog().stores(remembering);
    } catch (...) {
        return {}; // no default store yet, or one that says so itself when it is used
    }
}

void store_path(const std::string &path) noexcept {
    try {
        const Hush hush;
        const StoredRegister stored(true, remembering);
        if (stored.is_writable())
            stored.catalog().remember(path, remembering);
    } catch (...) {
        return; // known for the life of the process
    }
}

} // namespace

std::string default_store_path() {
    return normal_store_path(installation_root() + "/arcvault/images");
}

void remember_store(const std::string &given) noexcept {
    try {
        const std::string path = normal_store_path(given), root = installation_root();
        if (path == default_store_path())
            return;
        {
            const std::lock_guard lock(known().mutex);
            if (contains(known().stores[root], path))
                return;
            known().stores[root].push_back(path);
        }
        store_path(path);
    } catch (...) {
        return; // without memory a store is found by its path only
    }
}

void forget_store(const std::string &given, const char *operation) {
    const std::string path = normal_store_path(given);
    require(path != default_store_path(), operation, "the default store cannot be forgotten");
    bool was_known = false;
    {
        const std::lock_guard lock(known().mutex);
        was_known = std::erase(known().stores[installation_root()], path) != 0;
    }
    if (contains(stored_paths(), path)) {
        was_known = true;
        const StoredRegister stored(false, operation);
        // A copy of the catalog is what is read then: forgetting there would last for this call.
        stored.require_writable(operation);
        stored.catalog().forget(path, operation);
    }
    if (!was_known)
        fail(message::store_unusable, QFI_FI_STORE, operation, {path, "it is not known"});
}

namespace {

// A store that is known by several paths (a link above it, a folder mounted twice) is one.
std::vector<std::string> each_once(const std::vector<std::string> &paths) {
    std::vector<std::string> stores;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (const std::string &path : paths) {
        struct stat status {};
        const bool is_there = stat(path.c_str(), &status) == 0;
        if (!contains(stores, path) && (!is_there || seen.emplace(status.st_dev, status.st_ino).second))
            stores.push_back(path);
    }
    return stores;
}

} // namespace

std::vector<std::string> known_store_paths() {
    std::vector<std::string> paths{default_store_path()};
    for (const std::string &path : stored_paths())
        paths.push_back(path);
    {
        const std::lock_guard lock(known().mutex);
        for (const std::string &path : known().stores[installation_root()])
            paths.push_back(path);
    }
    return paths;
}

std::vector<std::string> known_stores() {
    return each_once(known_store_paths());
}

namespace {

bool is_without_catalog(const std::string &path, const char *operation) {
    struct stat status {};
    if (lstat((path + "/catalog.db").c_str(), &status) == 0 || errno != ENOENT)
        return false;
    // Where images are, opening it says more.
    const Descriptor store(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return !store || !holds_images(store.get(), path, operation);
}

bool is_folder(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool is_mount_point(const std::string &path) {
    struct stat status {};
    struct stat above {};
    return lstat(path.c_str(), &status) == 0 && lstat((path + "/..").c_str(), &above) == 0 &&
           status.st_dev != above.st_dev;
}

} // namespace

// A second store in an empty mount point would fill the wrong disk, and be hidden by the next mount.
std::shared_ptr<Store> open_to_fill(const std::string &given, const char *operation) {
    const std::string path = normal_store_path(given);
    const bool is_default = path == default_store_path();
    // The default one is made with the first image, on a disk of its own too; not in the place of a disk that is away.
    if (is_default && (!is_folder(path) || is_mount_point(path)))
        return Store::open(path, true, operation);
    if ((is_default || contains(known_store_paths(), path)) && is_without_catalog(path, operation))
        fail(message::store_unusable, QFI_FI_STORE, operation,
             {path, is_default ? "it is a folder without a catalog: mount its file system, or remove the empty folder"
                               : "it is known, and its catalog is not there: mount its file system, or forget it"});
    return Store::open(path, true, operation);
}

} // namespace qzfi::fi
