// The register of live trees, how operations get hold of them, and the nodes that hosts see.
#include "fi/fi_tree.h"

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <unistd.h>
#include <utility>

namespace qzfi::fi {

namespace {

struct Register {
    std::mutex mutex;
    std::map<const qfi_domain *, std::shared_ptr<Tree>> nodes;
};

// Never destroyed: hosts may end while threads of theirs are in here.
Register &live() {
    static auto *const trees = new Register;
    return *trees;
}

std::shared_ptr<Tree> find_tree(const qfi_domain *node) {
    const std::lock_guard lock(live().mutex);
    const auto found = live().nodes.find(node);
    return found == live().nodes.end() ? nullptr : found->second;
}

constexpr char no_tree[] = "this is no tree of this library, or one that was detached";

void require_own(const std::shared_ptr<Tree> &tree, const char *operation) {
    require(tree != nullptr, operation, no_tree);
    require(tree->process == getpid(), operation, "this tree is of the process that forked this one");
}

// What this thread's last TreeLock worked on; its end is known when the lock is gone already.
struct LastWork {
    std::shared_ptr<Tree> tree;
    uint64_t number = 0;
};
thread_local LastWork last_work;

void begin_work(Tree &tree, const char *operation) {
    constexpr std::string_view prefix = "qzfi_";
    std::string_view name = operation;
    if (name.substr(0, prefix.size()) == prefix)
        name.remove_prefix(prefix.size());
    const std::lock_guard lock(tree.status_mutex);
    ++tree.operation_number;
    const int32_t caller_status = tree.status.caller_status;
    tree.status = qfi_operation_status{};
    tree.status.size = sizeof tree.status;
    tree.status.running = 1;
    tree.status.caller_status = caller_status;
    name.copy(tree.status.operation, sizeof tree.status.operation - 1);
    tree.running.reset();
}

void take_counts(Tree &tree) {
    if (!tree.running)
        return;
    const Progress::Counts counts = tree.running->counts();
    tree.status.entries_done = counts.entries_done;
    tree.status.entries_total = counts.entries_total;
    tree.status.bytes_done = counts.bytes_done;
    tree.status.bytes_total = counts.bytes_total;
}

} // namespace

namespace {

thread_local int held_trees = 0;

bool may_wait_for_trees() noexcept {
    return held_trees == 0 && !HostCall::is_in_progress();
}

} // namespace

TreeLock::TreeLock(const qfi_domain *node, const char *operation, Purpose purpose)
    : TreeLock(find_tree(node), operation, purpose, may_wait_for_trees()) {}

TreeLock::TreeLock(std::shared_ptr<Tree> tree, const char *operation, Purpose purpose, bool may_wait)
    : tree_(std::move(tree)), operation_(operation), purpose_(purpose) {
    require_own(tree_, operation);
    lock_ = std::unique_lock(tree_->mutex, std::defer_lock);
    if (may_wait)
        lock_.lock();
    else if (!lock_.try_lock())
        fail(message::busy, QFI_FI_BUSY, operation, {"the tree of " + tree_->name});
    require(!tree_->is_detached, operation, no_tree);
    if (purpose_ == Purpose::work)
        begin_work(*tree_, operation_);
    ++held_trees;
}

TreeLock::~TreeLock() {
    --held_trees;
    if (purpose_ == Purpose::work) {
        last_work.tree = tree_;
        const std::lock_guard lock(tree_->status_mutex);
        last_work.number = tree_->operation_number;
    }
}

TreePair::TreePair(const qfi_domain *first, const qfi_domain *second, const char *operation) {
    const bool may_wait = may_wait_for_trees();
    std::shared_ptr<Tree> one = find_tree(first), other = second != nullptr ? find_tree(second) : nullptr;
    is_same_ = second != nullptr && one == other;
    const auto take_first = [&] { first_.emplace(std::move(one), operation, TreeLock::Purpose::work, may_wait); };
    const auto take_second = [&] { second_.emplace(std::move(other), operation, TreeLock::Purpose::look, may_wait); };
    const bool has_second = second != nullptr && !is_same_;
    // Both are held on to from here: no other tree can take the address of one.
    const bool is_second_first = has_second && std::less<>()(other.get(), one.get());
    if (is_second_first)
        take_second();
    take_first();
    if (has_second && !is_second_first)
        take_second();
}

void TreeLock::require_state(int32_t lowest, int32_t highest) const {
    if (tree_->state < lowest || tree_->state > highest)
        fail(message::wrong_state, QFI_FI_WRONG_STATE, operation_,
             {tree_->name, state_name(tree_->state), state_range(lowest, highest)});
}

Progress &TreeLock::progress() {
    if (!progress_) {
        const std::vector<TreeFilesystem> &filesystems = tree_->filesystems;
        const bool has_object = !filesystems.empty() && !filesystems.front().objects.empty();
        progress_.emplace(operation_, has_object ? filesystems.front().objects.front().path : "");
        const std::lock_guard lock(tree_->status_mutex);
        tree_->running = progress_;
    }
    return *progress_;
}

void note_end(int32_t status) noexcept {
    if (!last_work.tree)
        return;
    Tree &tree = *last_work.tree;
    {
        const std::lock_guard lock(tree.status_mutex);
        if (tree.operation_number == last_work.number) {
            take_counts(tree);
            tree.running.reset();
            tree.status.running = 0;
            tree.status.status = status;
        }
    }
    last_work.tree.reset();
}

qfi_operation_status status_of_tree(const qfi_domain *node, const char *operation) {
    const std::shared_ptr<Tree> tree = find_tree(node);
    require_own(tree, operation);
    const std::lock_guard lock(tree->status_mutex);
    take_counts(*tree);
    return tree->status;
}

void set_caller_status(const qfi_domain *node, int32_t status, const char *operation) {
    const std::shared_ptr<Tree> tree = find_tree(node);
    require_own(tree, operation);
    const std::lock_guard lock(tree->status_mutex);
    tree->status.caller_status = status;
}

namespace {

constexpr std::array<const char *, 9> state_names = {"unknown",  "new",   "analyzed", "selected", "prepared",
                                                     "quiesced", "split", "frozen",   "removed"};

} // namespace

const char *state_name(int32_t state) noexcept {
    const bool is_known = state > 0 && state < static_cast<int32_t>(state_names.size());
    return state_names[is_known ? static_cast<std::size_t>(state) : 0];
}

std::string state_range(int32_t lowest, int32_t highest) {
    const std::string first = state_name(lowest);
    return lowest == highest ? first : first + " to " + state_name(highest);
}

namespace {

void register_nodes(const std::shared_ptr<Tree> &tree) {
    auto &nodes = live().nodes;
    nodes[&tree->root] = tree;
    for (const qfi_domain &node : tree->nodes)
        nodes[&node] = tree;
}

} // namespace

namespace {

std::string name_of(const Tree &tree) {
    const std::string *first = nullptr;
    std::size_t count = 0;
    for (const TreeFilesystem &filesystem : tree.filesystems)
        for (const TreeObject &object : filesystem.objects) {
            if (first == nullptr)
                first = &object.path;
            ++count;
        }
    if (first == nullptr)
        return "nothing";
    return count == 1 ? *first : *first + " and " + std::to_string(count - 1) + " more";
}

} // namespace

qfi_domain *register_tree(std::shared_ptr<Tree> tree) {
    if (tree->name.empty())
        tree->name = name_of(*tree);
    const std::lock_guard lock(live().mutex);
    qfi_domain *const root = &tree->root;
    try {
        register_nodes(tree);
    } catch (...) {
        std::erase_if(live().nodes, [&](const auto &entry) { return entry.second == tree; });
        throw;
    }
    return root;
}

void unregister_tree(const qfi_domain *root) noexcept {
    const std::shared_ptr<Tree> tree = find_tree(root);
    if (!tree)
        return;
    const std::lock_guard lock(live().mutex);
    std::erase_if(live().nodes, [&](const auto &entry) { return entry.second == tree; });
}

bool is_live(const qfi_domain *node) {
    return find_tree(node) != nullptr;
}

std::vector<std::shared_ptr<Tree>> live_trees() {
    std::vector<std::shared_ptr<Tree>> trees;
    const std::lock_guard lock(live().mutex);
    for (const auto &[node, tree] : live().nodes)
        if (node == &tree->root && tree->process == getpid())
            trees.push_back(tree);
    return trees;
}

char *give_text(std::string_view text) {
    auto *const copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy == nullptr)
        throw std::bad_alloc();
    text.copy(copy, text.size());
    copy[text.size()] = '\0';
    return copy;
}

qfi_time_t time_of(int64_t time_ns) noexcept {
    constexpr int64_t second = 1'000'000'000;
    const int64_t rest = (time_ns % second + second) % second; // counted on, also before 1970
    qfi_time_t time{};
    qzfi_xlat2_qfitime(&time.qzfi_sec, time_ns / second - (time_ns % second < 0 ? 1 : 0));
    time.qzfi_nsec = static_cast<uint32_t>(rest);
    return time;
}

qfi_objid_t *text_id(const std::string &text) {
    const auto length = static_cast<int32_t>(text.size() + 1);
    // Longer ids are never interned; such a path is named by its beginning.
    const int32_t interned = std::min(length, QFI_OID_TABLE_LENGTHS - 1);
    qfi_objid_t *const id = qzfi_get_objid(text.c_str(), interned, QFI_OID_INTERN);
    if (id == nullptr)
        throw std::bad_alloc();
    return id;
}

namespace {

qfi_domain &add_node(Tree &tree, int32_t type, const std::string &name) {
    qfi_domain &node = tree.nodes.emplace_back();
    node.fid_nodetype = type;
    node.objid = text_id(name);
    node.fid_rootnode = &tree.root;
    return node;
}

// A node that is there already, from before a refresh, is linked anew.
void take_node(Tree &tree, qfi_domain *&node, int32_t type, const std::string &name) {
    if (node == nullptr)
        node = &add_node(tree, type, name);
    node->fid_parent = node->fid_siblings = node->fid_children = nullptr;
    node->fid_plugin = nullptr;
}

qfi_resource *add_resource(Tree &tree, const std::string &first, const std::string &second) {
    qfi_resource &resource = tree.resources.emplace_back();
    resource.first = text_id(first);
    resource.second = text_id(second);
    resource.disp_type = QFI_DISP_NONE;
    return &resource;
}

void append_child(qfi_domain &parent, qfi_domain &child) {
    child.fid_parent = &parent;
    qfi_domain **place = &parent.fid_children;
    while (*place != nullptr)
        place = &(*place)->fid_siblings;
    *place = &child;
}

// While nobody else may see the tree half-built, which its lock ensures.
void register_again(const Tree &tree) {
    const std::shared_ptr<Tree> registered = find_tree(&tree.root);
    if (registered)
        register_tree(registered);
}

} // namespace

Tree::~Tree() = default;

Tree::Tree() : process(getpid()) {
    root.fid_nodetype = QFI_NODE_ROOT;
    root.fid_rootnode = &root;
    status.size = sizeof status;
}

void build_nodes(Tree &tree) {
    tree.root.objid = text_id("qzfi");
    tree.root.fid_children = nullptr;
    for (TreeFilesystem &filesystem : tree.filesystems) {
        take_node(tree, filesystem.node, QFI_NODE_FILESYSTEM, filesystem.root);
        filesystem.node->resource_list = add_resource(tree, filesystem.root, filesystem.mount.source);
        append_child(tree.root, *filesystem.node);
        for (TreeObject &object : filesystem.objects) {
            take_node(tree, object.node, QFI_NODE_OBJECT, object.path);
            append_child(*filesystem.node, *object.node);
        }
    }
    register_again(tree);
}

namespace {

void add_image_node(Tree &tree, TreeFilesystem &filesystem, std::size_t index, qfi_time_t *time) {
    TreeObject &object = filesystem.objects[index];
    if (object.image_node != nullptr)
        return;
    const std::string path = image_object_path(filesystem, index);
    qfi_domain &image = add_node(tree, QFI_NODE_IMAGE, path);
    image.second_objid = text_id(filesystem.record.id);
    image.resource_list = add_resource(tree, object.path, path);
    image.fid_plugin = filesystem.provider != nullptr ? filesystem.provider->plugin : nullptr;
    image.time = time;
    object.image_node = &image;
}

} // namespace

void build_image_nodes(Tree &tree) {
    for (TreeFilesystem &filesystem : tree.filesystems) {
        if (!filesystem.is_frozen)
            continue;
        qfi_time_t *const time = &tree.times.emplace_back(time_of(filesystem.record.time_ns));
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index)
            add_image_node(tree, filesystem, index, time);
    }
    register_again(tree);
    for (TreeFilesystem &filesystem : tree.filesystems)
        for (TreeObject &object : filesystem.objects)
            object.node->fid_altnode = object.image_node;
}

std::string image_object_path(const TreeFilesystem &filesystem, std::size_t object) {
    const std::string &subpath = filesystem.objects[object].image.subpath;
    const std::string path =
        filesystem.store->image_path(filesystem.record.id) + "/objects/" + NewImage::object_name(object);
    return subpath.empty() ? path : path + "/" + subpath;
}

NodePlace place_of(Tree &tree, const qfi_domain *node) noexcept {
    for (TreeFilesystem &filesystem : tree.filesystems) {
        if (node == filesystem.node)
            return {&filesystem, -1, false};
        for (std::size_t index = 0; index < filesystem.objects.size(); ++index) {
            const TreeObject &object = filesystem.objects[index];
            if (node == object.node || (node == object.image_node && node != nullptr))
                return {&filesystem, static_cast<int>(index), node == object.image_node};
        }
    }
    return {};
}

namespace {

TreeFilesystem filesystem_of(FoundImage &&found) {
    TreeFilesystem filesystem;
    for (const ImageObject &image : found.record.objects) {
        TreeObject &object = filesystem.objects.emplace_back();
        object.path = image.path;
        object.image = image;
    }
    if (!found.record.objects.empty()) {
        const ImageObject &first = found.record.objects.front();
        filesystem.mount.mount_point = filesystem.root = first.mount_point;
        filesystem.mount.type = first.filesystem;
        filesystem.mount.source = first.device;
    }
    filesystem.provider = find_provider(found.record.provider_id);
    filesystem.store_path = found.store->path();
    filesystem.store = std::move(found.store);
    filesystem.record = std::move(found.record);
    filesystem.is_frozen = true;
    return filesystem;
}

} // namespace

std::shared_ptr<Tree> tree_of_records(std::vector<FoundImage> found) {
    auto tree = std::make_shared<Tree>();
    tree->set_id = found.front().record.set_id;
    tree->options.label = found.front().record.label;
    tree->options.digest = found.front().record.has_digests;
    for (FoundImage &one : found)
        tree->filesystems.push_back(filesystem_of(std::move(one)));
    tree->state = QFI_TREE_FROZEN;
    build_nodes(*tree);
    for (TreeFilesystem &filesystem : tree->filesystems)
        filesystem.node->fid_plugin = filesystem.provider != nullptr ? filesystem.provider->plugin : nullptr;
    return tree;
}

} // namespace qzfi::fi
