#include "fi/fi_queries.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "fi/fi_errors.h"
#include "fi/fi_freeze.h"
#include "fi/fi_images.h"

namespace qzfi::fi {

namespace {

struct Combination {
    const TreeFilesystem *filesystem;
    Estimate estimate;
};

qfi_combo_info info_of(Block &block, const Combination &one) {
    const Estimate &estimate = one.estimate;
    qfi_combo_info info{};
    info.node = one.filesystem->node;
    info.fim_id = block.text(estimate.provider->ops->fim_id);
    info.provider_id = block.text(estimate.provider->ops->provider_id);
    info.store = block.text(estimate.store);
    info.consistency = estimate.consistency;
    info.cost_bytes = estimate.cost_bytes;
    info.cost_ms = estimate.cost_ms;
    info.reason = estimate.can() ? nullptr : block.text(estimate.reason);
    return info;
}

void fill(Block &block, const std::vector<Combination> &all) {
    auto *const combos = block.array<qfi_qs_combo>(all.size());
    auto *const infos = block.array<qfi_combo_info>(all.size());
    auto *const steps = block.array<qfi_quiesce>(all.size());
    for (std::size_t index = 0; index < all.size(); ++index) {
        const qfi_combo_info info = info_of(block, all[index]);
        if (block.measuring())
            continue;
        infos[index] = info;
        combos[index].qsc_next = index + 1 < all.size() ? &combos[index + 1] : nullptr;
        combos[index].qsc_class = all[index].estimate.combo_class;
        combos[index].qsc_qslist = &steps[index];
        combos[index].qsc_libpriv = &infos[index];
    }
}

} // namespace

qfi_qs_combo *give_combos(const Tree &tree, const char *store, const char *operation) {
    std::vector<Combination> all;
    for (const TreeFilesystem &filesystem : tree.filesystems)
        for (Estimate &one : estimates(tree, filesystem, store, operation))
            all.push_back({&filesystem, std::move(one)});
    if (all.empty())
        return nullptr;
    // Over all file systems as within each.
    std::stable_sort(all.begin(), all.end(), [](const Combination &one, const Combination &other) {
        return one.estimate.can() && !other.estimate.can();
    });
    return static_cast<qfi_qs_combo *>(Block::build([&](Block &block) { fill(block, all); }));
}

Choice choice_of(Tree &tree, const qfi_qs_combo &combo, const char *operation) {
    const auto *const info = static_cast<const qfi_combo_info *>(combo.qsc_libpriv);
    require(info != nullptr && info->fim_id != nullptr && info->store != nullptr, operation,
            "the combination is none of this library");
    const NodePlace place = place_of(tree, info->node);
    require(place.filesystem != nullptr && place.object < 0, operation, "the combination is of another tree");
    const Provider *const provider = find_method(info->fim_id);
    if (provider == nullptr)
        fail(message::no_such_method, QFI_FI_NO_METHOD, operation, {info->fim_id});
    return {place.filesystem, provider, info->store};
}

namespace {

uint32_t read_number(const char *value, uint32_t lowest, uint32_t highest, const char *operation, const char *what) {
    const std::string_view text = value != nullptr ? value : "";
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    require(error == std::errc() && end == text.data() + text.size() && number >= lowest && number <= highest,
            operation, what);
    return number;
}

} // namespace

void set_option(FreezeOptions &options, std::string_view key, const char *value, const char *operation) {
    const std::string text = value != nullptr ? value : "";
    if (key == "label")
        options.label = text;
    else if (key == "pre_command")
        options.pre_command = text;
    else if (key == "post_command")
        options.post_command = text;
    else if (key == "workers")
        options.workers = read_number(value, 1, 64, operation, "workers must be 1 to 64");
    else if (key == "digest")
        options.digest = read_number(value, 0, 1, operation, "digest must be 0 or 1") != 0;
    else if (key == "nested")
        options.nested = read_number(value, 0, 1, operation, "nested must be 0 or 1") != 0;
    else
        fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation,
             {"there is no option " + std::string(key)});
}

namespace {

// Empty when the file system can be frozen.
std::string obstacle(const Tree &tree, const TreeFilesystem &filesystem, const char *operation) {
    if (filesystem.provider != nullptr)
        return estimate(tree, filesystem, *filesystem.provider, filesystem.store_path.c_str(), operation).reason;
    const std::vector<Estimate> all = estimates(tree, filesystem, nullptr, operation);
    return !all.empty() && all.front().can() ? std::string() : reasons_of(all);
}

} // namespace

std::string obstacles(const Tree &tree, int32_t &able, const char *operation) {
    std::string all;
    able = 0;
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        std::string reason;
        try {
            const Hush hush;
            reason = obstacle(tree, filesystem, operation);
        } catch (const Failure &failure) {
            const char *const text = status_text(static_cast<uint32_t>(failure.status));
            reason = text != nullptr ? text : "status " + std::to_string(failure.status);
        }
        if (reason.empty())
            ++able;
        else
            all += (all.empty() ? "" : "\n") + filesystem.root + ": " + reason;
    }
    return all;
}

namespace {

std::string path_of(const NodePlace &place) {
    if (place.object < 0)
        return place.filesystem->root;
    const auto index = static_cast<std::size_t>(place.object);
    return place.is_image ? image_object_path(*place.filesystem, index) : place.filesystem->objects[index].path;
}

[[noreturn]] void fail_without(const NodePlace &place, const std::string &what, const char *operation) {
    const bool is_root = place.filesystem == nullptr;
    const std::string method = is_root || place.filesystem->provider == nullptr
                                   ? "this library"
                                   : std::string("method ") + place.filesystem->provider->ops->fim_id;
    fail(message::not_supported, QFI_STATUS_NOT_SUPPORTED, operation,
         {method, what + " of " + (is_root ? "the root of a tree" : path_of(place))});
}

const char *consistency_name(uint32_t consistency) {
    switch (consistency) {
    case QFI_CONSISTENCY_FUZZY:
        return "fuzzy";
    case QFI_CONSISTENCY_PER_FILE:
        return "per-file";
    case QFI_CONSISTENCY_ATOMIC:
        return "atomic";
    default:
        return "none";
    }
}

} // namespace

void read_attributes(const NodePlace &place, qfi_attr &attributes, const char *operation) {
    if (place.filesystem == nullptr)
        fail_without(place, "sizes", operation);
    const std::string path = path_of(place);
    struct statvfs status {};
    if (statvfs(path.c_str(), &status) != 0)
        fail_call(operation, "statvfs", path, errno, true);
    const Provider *const provider = place.filesystem->provider;
    attributes.att_blksize = status.f_frsize;
    attributes.att_totalblks = status.f_blocks;
    attributes.att_blksused = status.f_blocks - status.f_bfree;
    attributes.att_copytype = provider != nullptr ? static_cast<int32_t>(provider->ops->technology) : 0;
    attributes.att_persistent = place.is_image ? 1 : 0;
    attributes.att_writeability = place.is_image ? 0 : 1;
    attributes.att_multiples = 0;
}

namespace {

const char *type_name(const NodePlace &place) {
    if (place.filesystem == nullptr)
        return "root";
    if (place.object < 0)
        return "filesystem";
    return place.is_image ? "image" : "object";
}

// Texts that only what was frozen has.
std::string frozen_text(const NodePlace &place, std::string_view name, const char *operation) {
    if (!place.filesystem->is_frozen)
        fail_without(place, std::string(name), operation);
    if (name == "image")
        return place.filesystem->record.id;
    return consistency_name(place.filesystem->record.consistency);
}

} // namespace

std::string read_text(const NodePlace &place, std::string_view name, const char *operation) {
    constexpr std::string_view names[] = {"path",       "type",  "filesystem", "device",
                                          "mountpoint", "image", "method",     "consistency"};
    if (std::find(std::begin(names), std::end(names), name) == std::end(names))
        fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation,
             {"there is no attribute " + std::string(name)});
    if (name == "type")
        return type_name(place);
    if (place.filesystem == nullptr)
        fail_without(place, std::string(name), operation);
    const TreeFilesystem &filesystem = *place.filesystem;
    if (name == "path")
        return path_of(place);
    if (name == "filesystem")
        return filesystem.mount.type;
    if (name == "device")
        return filesystem.mount.source;
    if (name == "mountpoint")
        return filesystem.mount.mount_point;
    if (name == "method" && filesystem.is_frozen)
        return filesystem.record.fim_id;
    if (name == "method" && filesystem.provider != nullptr)
        return filesystem.provider->ops->fim_id;
    return frozen_text(place, name, operation);
}

std::string image_path(const NodePlace &place, const char *subpath, const char *operation) {
    require(place.filesystem != nullptr && place.object >= 0, operation, "the node is no object");
    require(place.filesystem->is_frozen, operation, "the node's image was removed");
    const auto index = static_cast<std::size_t>(place.object);
    std::string path = image_object_path(*place.filesystem, index);
    // Held, so that an image which others remove meanwhile does not look like a damaged one.
    const Descriptor image = HeldImage(*place.filesystem, operation).object(index);
    if (subpath == nullptr || *subpath == '\0')
        return path;
    // A link at the end is shown as it is; one on the way would lead out of the image.
    const Descriptor entry(open_beneath(image.get(), subpath, O_PATH | O_NOFOLLOW));
    if (!entry)
        fail_call(operation, "open", path + "/" + subpath, errno, true);
    return path + "/" + subpath;
}

namespace {

bool is_there(const TreeFilesystem &filesystem, const TreeObject &object) {
    struct stat status {};
    return lstat(object.path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_dev == filesystem.mount.device;
}

bool has_image(const TreeFilesystem &filesystem) {
    constexpr const char *operation = "qzfi_isvalid_tree";
    const std::optional<ImageRecord> record = filesystem.store->find(filesystem.record.id, operation);
    return record && record->state == 1;
}

} // namespace

bool is_valid(const Tree &tree) {
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        if (tree.state >= QFI_TREE_SPLIT) {
            if (!filesystem.is_frozen || !has_image(filesystem))
                return false;
            continue;
        }
        for (const TreeObject &object : filesystem.objects)
            if (!is_there(filesystem, object))
                return false;
    }
    return true;
}

void refresh(Tree &tree, const char *operation) {
    std::map<std::pair<int32_t, std::string>, qfi_domain *> nodes;
    std::vector<std::string> paths;
    for (const TreeFilesystem &filesystem : tree.filesystems) {
        nodes[{QFI_NODE_FILESYSTEM, filesystem.root}] = filesystem.node;
        for (const TreeObject &object : filesystem.objects) {
            nodes[{QFI_NODE_OBJECT, object.path}] = object.node;
            struct stat status {};
            if (lstat(object.path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
                paths.push_back(object.path);
        }
    }
    if (paths.empty())
        fail(message::no_such_object, QFI_FI_NO_SUCH_OBJECT, operation, {"every object", error_text(ENOENT)});
    std::vector<qfi_object> objects;
    objects.reserve(paths.size());
    for (const std::string &path : paths)
        objects.push_back({path.c_str(), nullptr});
    const std::shared_ptr<Tree> anew = tree_of_objects(objects.data(), static_cast<int32_t>(objects.size()), operation);
    // Links were resolved once, when the tree was made.
    for (const TreeFilesystem &filesystem : anew->filesystems)
        for (const TreeObject &object : filesystem.objects)
            if (nodes.count({QFI_NODE_OBJECT, object.path}) == 0)
                fail(message::unsafe_path, QFI_FI_UNSAFE, operation, {object.path, "a symbolic link leads here now"});
    // Hosts hold nodes: what is still there keeps its own.
    for (TreeFilesystem &filesystem : anew->filesystems) {
        filesystem.node = nodes[{QFI_NODE_FILESYSTEM, filesystem.root}];
        for (TreeObject &object : filesystem.objects)
            object.node = nodes[{QFI_NODE_OBJECT, object.path}];
    }
    tree.filesystems = std::move(anew->filesystems);
    tree.state = QFI_TREE_NEW;
    build_nodes(tree);
}

ObjectPlace object_at(Tree &tree, int32_t index, const char *operation) {
    require(index >= 0, operation, "the object's index is negative");
    auto left = static_cast<std::size_t>(index);
    for (TreeFilesystem &filesystem : tree.filesystems) {
        if (left < filesystem.objects.size())
            return {&filesystem, left};
        left -= filesystem.objects.size();
    }
    fail(message::invalid_argument, QFI_STATUS_INVALID_ARGUMENT, operation, {"the tree has no object of this index"});
}

} // namespace qzfi::fi
