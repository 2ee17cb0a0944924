// From objects to a tree, and what could freeze it.
#include "fi/fi_tree.h"
#include "fi/fi_freeze.h"
#include "fi/fi_place.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qzfi::fi {

namespace {

using Text = std::unique_ptr<char, void (*)(void *)>;

// The name that the host gave, else the bytes of the id, whose terminator, if any, is no part of the path.
std::string given_path(const qfi_object &object, const char *operation) {
    if (object.name != nullptr)
        return object.name;
    const qfi_objid_t *const id = object.objid;
    require(id != nullptr && id->vid_name != nullptr && id->vid_length > 0, operation,
            "an object has neither a name nor an id");
    std::string path(static_cast<const char *>(id->vid_name), static_cast<std::size_t>(id->vid_length));
    if (path.back() == '\0')
        path.pop_back();
    require(path.find('\0') == std::string::npos, operation, "an object's path holds a NUL");
    return path;
}

// Links are resolved here, once; from here on the tree speaks of the directory itself, and a link in its place is a
// failure.
std::string canonical_path(const std::string &given, const char *operation) {
    require(!given.empty(), operation, "an object's path is empty");
    char *made = nullptr;
    pathcanon(given.c_str(), &made);
    const Text canonical(made, std::free);
    constexpr std::size_t longest = 2047; // an absolute path grows no longer by being made canonical
    if (!canonical && given[0] == '/' && given.size() <= longest)
        throw std::bad_alloc();
    char folder[PATH_MAX];
    if (!canonical && given[0] != '/' && getcwd(folder, sizeof folder) == nullptr)
        fail(message::no_such_object, QFI_FI_NO_SUCH_OBJECT, operation,
             {given, "the working folder cannot be told: " + error_text(errno)});
    if (!canonical)
        fail(message::no_such_object, QFI_FI_NO_SUCH_OBJECT, operation, {given, "the path is too long"});
    const Text real(realpath(canonical.get(), nullptr), std::free);
    if (real)
        return real.get();
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG)
        fail(message::no_such_object, QFI_FI_NO_SUCH_OBJECT, operation, {canonical.get(), error_text(error)});
    fail_call(operation, "realpath", canonical.get(), error, true);
}

Descriptor open_directory(const std::string &path, const char *operation) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode))
        fail(message::no_such_object, QFI_FI_NO_SUCH_OBJECT, operation, {path, error_text(ENOTDIR)});
    // An object lies where it lies, across mounts; its path holds no link, or something was swapped.
    return open_without_links(path, O_RDONLY | O_DIRECTORY, operation);
}

uint64_t device_of(const std::string &path, const char *operation) {
    const Descriptor directory = open_directory(path, operation);
    struct stat status {};
    if (fstat(directory.get(), &status) != 0)
        fail_call(operation, "fstat", path, errno, true);
    return status.st_dev;
}

std::string parent_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 ? "/" : slash == std::string::npos ? "." : path.substr(0, slash);
}

// The topmost directory above a path with the same device number: the mount point, or the root of a nested subvolume,
// which has a number of its own.
std::string filesystem_root(std::string path, uint64_t device, const std::string &mount_point) {
    while (path != mount_point && path != "/") {
        const std::string parent = parent_of(path);
        struct stat status {};
        if (lstat(parent.c_str(), &status) != 0 || status.st_dev != device)
            return path;
        path = parent;
    }
    return path;
}

TreeFilesystem &filesystem_for(Tree &tree, const Mount &mount, uint64_t device, const std::string &path) {
    for (TreeFilesystem &filesystem : tree.filesystems)
        if (filesystem.mount.id == mount.id && filesystem.mount.device == device)
            return filesystem;
    TreeFilesystem &filesystem = tree.filesystems.emplace_back();
    filesystem.mount = mount;
    filesystem.mount.device = device;
    filesystem.root = filesystem_root(path, device, mount.mount_point);
    return filesystem;
}

// An object within another one would be frozen twice, and restored twice, one restore undoing the other.
void add_object(TreeFilesystem &filesystem, const std::string &path, const char *operation) {
    for (const TreeObject &object : filesystem.objects) {
        if (object.path == path)
            return;
        for (const auto &[inner, outer] : {std::pair(path, object.path), std::pair(object.path, path)})
            if (lies_below(inner, outer))
                fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation,
                     {"object " + inner + " lies within object " + outer});
    }
    filesystem.objects.emplace_back().path = path;
}

} // namespace

std::shared_ptr<Tree> tree_of_objects(const qfi_object *objects, int32_t count, const char *operation) {
    const std::vector<Mount> table = mounts(operation);
    auto tree = std::make_shared<Tree>();
    for (int32_t index = 0; index < count; ++index) {
        const std::string path = canonical_path(given_path(objects[index], operation), operation);
        const uint64_t device = device_of(path, operation);
        add_object(filesystem_for(*tree, mount_at(table, path), device, path), path, operation);
    }
    build_nodes(*tree);
    return tree;
}

Descriptor open_object(const TreeObject &object, const char *operation) {
    return open_directory(object.path, operation);
}

std::string default_store(const TreeFilesystem &filesystem, const Provider &provider) {
    if (provider.ops->technology == QFI_TECHNOLOGY_COPY)
        return default_store_path();
    const std::string &mount_point = filesystem.mount.mount_point;
    return (mount_point == "/" ? "" : mount_point) + "/" + store_folder_name;
}

namespace {

// The store's folder, or the nearest one above it that is there: where the store would be made.
Descriptor open_nearest(std::string path) {
    for (;; path = parent_of(path)) {
        Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (folder || errno != ENOENT || path == "/" || path == ".")
            return folder;
    }
}

void add_probe(Estimate &sum, const TreeFilesystem &filesystem, const TreeObject &object, const qfi_probe &probe) {
    const std::string reason(probe.reason, strnlen(probe.reason, sizeof probe.reason));
    const bool refused =
        !reason.empty() || probe.combo_class == QFI_CLASS_NOTSUP || probe.combo_class == QFI_CLASS_NONE;
    if (refused && sum.reason.empty()) {
        const std::string why = reason.empty() ? "the provider cannot" : reason;
        sum.reason = filesystem.objects.size() > 1 ? object.path + ": " + why : why;
    }
    sum.combo_class = std::min(sum.combo_class, probe.combo_class);
    sum.consistency = std::min(sum.consistency, probe.consistency);
    sum.cost_bytes += probe.cost_bytes;
    sum.cost_ms += probe.cost_ms;
    sum.same_instant = sum.same_instant && probe.same_instant != 0;
}

} // namespace

uint32_t job_flags(const FreezeOptions &options) noexcept {
    uint32_t flags = 0;
    if (options.digest)
        flags |= QFI_JOB_DIGEST;
    if (options.nested)
        flags |= QFI_JOB_NESTED;
    return flags;
}

namespace {

// Asks the provider of each object; what it says adds up.
void probe_objects(Estimate &sum, const Tree &tree, const TreeFilesystem &filesystem, const char *operation) {
    const qfi_provider_ops &ops = *sum.provider->ops;
    if (ops.probe == nullptr || ops.split == nullptr) {
        sum.reason = "the provider does not offer it";
        return;
    }
    const Descriptor folder = open_nearest(sum.store);
    if (!folder) {
        sum.reason = "the store " + sum.store + " cannot be opened: " + error_text(errno);
        return;
    }
    struct stat store {};
    const bool has_store = stat(sum.store.c_str(), &store) == 0;
    bool knows_entries = true, knows_bytes = true;
    for (const TreeObject &object : filesystem.objects) {
        // What is left out of an image is looked for below its object only.
        if (has_store && lies_at_or_above(store, object.path)) {
            sum.reason = object.path + " is or lies in store " + sum.store + ", into which it would be frozen";
            return;
        }
        const Descriptor source = open_object(object, operation);
        qfi_probe probe{}; // what an earlier provider does not fill in stays 0
        probe.size = sizeof probe;
        const int32_t status =
            ops.probe(source.get(), folder.get(), object.path.c_str(), job_flags(tree.options), &probe);
        if (status == QFI_STATUS_NO_MEMORY)
            throw std::bad_alloc();
        if (status != QFI_STATUS_OK)
            sum.reason = "the provider failed with status " + std::to_string(status);
        else
            add_probe(sum, filesystem, object, probe);
        knows_entries = knows_entries && probe.entries != 0;
        knows_bytes = knows_bytes && probe.bytes != 0;
        sum.entries = knows_entries ? sum.entries + probe.entries : 0;
        sum.bytes = knows_bytes ? sum.bytes + probe.bytes : 0;
    }
}

} // namespace

Estimate estimate(const Tree &tree, const TreeFilesystem &filesystem, const Provider &provider, const char *store,
                  const char *operation) {
    Estimate sum{&provider,
                 store != nullptr ? store : default_store(filesystem, provider),
                 QFI_ATOMIC_FS,
                 QFI_CONSISTENCY_ATOMIC,
                 0,
                 0,
                 {},
                 true};
    probe_objects(sum, tree, filesystem, operation);
    if (!sum.can()) {
        sum.combo_class = QFI_CLASS_NOTSUP;
        sum.consistency = QFI_CONSISTENCY_NONE;
        sum.cost_bytes = sum.cost_ms = 0;
    } else if (filesystem.objects.size() > 1 && !sum.same_instant) {
        // Objects are frozen one after the other: each is of one instant, not all together.
        sum.combo_class = std::min<int32_t>(sum.combo_class, QFI_SERIAL_FS);
        sum.consistency = std::min<uint32_t>(sum.consistency, QFI_CONSISTENCY_PER_FILE);
    }
    return sum;
}

std::vector<Estimate> estimates(const Tree &tree, const TreeFilesystem &filesystem, const char *store,
                                const char *operation) {
    std::vector<Estimate> all;
    for (const Provider &provider : providers())
        all.push_back(estimate(tree, filesystem, provider, store, operation));
    // Providers come by their preference, which this keeps.
    std::stable_sort(all.begin(), all.end(),
                     [](const Estimate &one, const Estimate &other) { return one.can() && !other.can(); });
    return all;
}

std::string reasons_of(const std::vector<Estimate> &all) {
    std::string reasons;
    for (const Estimate &one : all)
        reasons += (reasons.empty() ? "" : "; ") + std::string(one.provider->ops->fim_id) + ": " + one.reason;
    for (const RefusedProvider &refused : refused_providers())
        reasons += (reasons.empty() ? "" : "; ") + refused.file + " is refused: " + refused.reason;
    return reasons.empty() ? "no provider is loaded" : reasons;
}

namespace {

struct Preference {
    std::mutex mutex;
    std::string method;
};

Preference &preference() {
    static auto *const only = new Preference;
    return *only;
}

} // namespace

std::string preferred_method() {
    const std::lock_guard lock(preference().mutex);
    return preference().method;
}

void prefer_method(const char *fim_id) {
    std::string method = fim_id != nullptr ? fim_id : "";
    const std::lock_guard lock(preference().mutex);
    preference().method = std::move(method);
}

namespace {

void take_estimate(TreeFilesystem &filesystem, const Estimate &chosen) {
    filesystem.provider = chosen.provider;
    filesystem.store_path = chosen.store;
    filesystem.node->fid_plugin = chosen.provider->plugin;
}

void select_preferred_or_best(Tree &tree, TreeFilesystem &filesystem, const char *store, const char *operation) {
    const std::vector<Estimate> all = estimates(tree, filesystem, store, operation);
    const std::string preferred = preferred_method();
    for (const Estimate &one : all)
        if (one.can() && preferred == one.provider->ops->fim_id)
            return take_estimate(filesystem, one);
    if (!all.empty() && all.front().can())
        return take_estimate(filesystem, all.front());
    fail(message::no_method, QFI_FI_NO_METHOD, operation, {filesystem.root, reasons_of(all)});
}

} // namespace

void select(Tree &tree, TreeFilesystem &filesystem, const Provider &provider, const char *store,
            const char *operation) {
    const Estimate chosen = estimate(tree, filesystem, provider, store, operation);
    if (!chosen.can())
        fail(message::method_refused, QFI_FI_NO_METHOD, operation,
             {provider.ops->fim_id, filesystem.root, chosen.reason});
    take_estimate(filesystem, chosen);
}

void select_best(Tree &tree, const char *fim_id, const char *store, const char *operation) {
    const Provider *const provider = fim_id != nullptr ? find_method(fim_id) : nullptr;
    if (fim_id != nullptr && provider == nullptr)
        fail(message::no_such_method, QFI_FI_NO_METHOD, operation, {fim_id});
    for (TreeFilesystem &filesystem : tree.filesystems) {
        if (provider != nullptr)
            select(tree, filesystem, *provider, store, operation);
        else
            select_preferred_or_best(tree, filesystem, store, operation);
    }
    note_selected(tree);
}

void select_missing(Tree &tree, const char *operation) {
    for (TreeFilesystem &filesystem : tree.filesystems)
        if (filesystem.provider == nullptr)
            select_preferred_or_best(tree, filesystem, nullptr, operation);
    note_selected(tree);
}

void note_selected(Tree &tree) noexcept {
    for (const TreeFilesystem &filesystem : tree.filesystems)
        if (filesystem.provider == nullptr)
            return;
    tree.state = QFI_TREE_SELECTED;
    tree.has_fallen_back = false;
}

} // namespace qzfi::fi
