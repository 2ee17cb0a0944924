// Entries of the operations on images, lists and stores.
#include <algorithm>
#include <map>
#include <mutex>

#include "fi/fi_compare.h"
#include "fi/fi_entries.h"
#include "fi/fi_fiid.h"
#include "fi/fi_images.h"
#include "fi/fi_lists.h"
#include "fi/fi_place.h"
#include "fi/fi_unsupported.h"

namespace {

using namespace qzfi::fi;

const char *text_of(void *argument) {
    return static_cast<const char *>(argument);
}

// Gives the report, if asked for, also of what failed.
template <class Body>
void reported(qfi_report **out, Body &&body) {
    Findings report;
    try {
        body(report);
    } catch (const Failure &) {
        if (out != nullptr)
            *out = report.give();
        throw;
    }
    if (out != nullptr)
        *out = report.give();
}

// What frees lists frees each node by itself; a list that another operation made is none of theirs.
template <class List>
int32_t free_entry(const char *operation, void *list) {
    return traced_entry(operation, [&] { free_list(static_cast<List *>(list)); });
}

template <class List, class Make>
int32_t list_entry(const char *operation, void *result, Make &&make) {
    return traced_entry(operation, [&] {
        List **const list = result_at<List *>(result, operation, "the result is null");
        *list = make();
    });
}

void require_frozen(const TreeLock &tree) {
    tree.require_state(QFI_TREE_FROZEN, QFI_TREE_FROZEN);
}

} // namespace

// Lists.

int32_t qzfi_enumerate_providers(void *result) {
    return list_entry<qfi_provider_list>("qzfi_enumerate_providers", result, [] { return list_providers(); });
}

int32_t qzfi_free_providers_list(void *list) {
    return free_entry<qfi_provider_list>("qzfi_free_providers_list", list);
}

int32_t qzfi_enumerate_provider_nodes(void *provider_id, void *uid, void *reserved, int32_t flags, void *result) {
    constexpr const char *operation = "qzfi_enumerate_provider_nodes";
    return list_entry<qfi_node_list>(operation, result, [&] {
        require_unused(reserved == nullptr && flags == 0, operation);
        require(provider_id != nullptr, operation, "the provider's id is null");
        return list_nodes(text_of(provider_id), text_of(uid), operation);
    });
}

int32_t qzfi_enumerate_nodes(void *uid, void *reserved, int32_t flags, void *result) {
    constexpr const char *operation = "qzfi_enumerate_nodes";
    return list_entry<qfi_node_list>(operation, result, [&] {
        require_unused(reserved == nullptr && flags == 0, operation);
        return list_nodes(nullptr, text_of(uid), operation);
    });
}

int32_t qzfi_free_node_list(void *list) {
    return free_entry<qfi_node_list>("qzfi_free_node_list", list);
}

int32_t qzfi_enumerate_provider_group_nodes(void *provider_id, void *result) {
    constexpr const char *operation = "qzfi_enumerate_provider_group_nodes";
    return list_entry<qfi_group_node_list>(operation, result, [&] {
        require(provider_id != nullptr, operation, "the provider's id is null");
        return list_group_nodes(text_of(provider_id), operation);
    });
}

int32_t qzfi_enumerate_group_nodes(void *result) {
    constexpr const char *operation = "qzfi_enumerate_group_nodes";
    return list_entry<qfi_group_node_list>(operation, result, [] { return list_group_nodes(nullptr, operation); });
}

int32_t qzfi_free_group_node_list(void *list) {
    return free_entry<qfi_group_node_list>("qzfi_free_group_node_list", list);
}

int32_t qzfi_enumerate_provider_associations(void *provider_id, void *result) {
    constexpr const char *operation = "qzfi_enumerate_provider_associations";
    return list_entry<qfi_assoc_list>(operation, result, [&] {
        require(provider_id != nullptr, operation, "the provider's id is null");
        return list_associations(text_of(provider_id), nullptr, operation);
    });
}

int32_t qzfi_enumerate_associations(void *result) {
    constexpr const char *operation = "qzfi_enumerate_associations";
    return list_entry<qfi_assoc_list>(operation, result, [] { return list_associations(nullptr, nullptr, operation); });
}

int32_t qzfi_free_assoc_list(void *list) {
    return free_entry<qfi_assoc_list>("qzfi_free_assoc_list", list);
}

int32_t qzfi_isvalid_node_association(void *association, void *result) {
    constexpr const char *operation = "qzfi_isvalid_node_association";
    return traced_entry(operation, [&] {
        int32_t *const valid = result_at<int32_t>(result, operation, "the result is null");
        require(association != nullptr, operation, "the association is null");
        *valid = is_valid(*static_cast<const qfi_assoc *>(association), operation) ? 1 : 0;
    });
}

int32_t qzfi_get_associated_nodes(void *path, void *result) {
    constexpr const char *operation = "qzfi_get_associated_nodes";
    return list_entry<qfi_assoc_list>(operation, result, [&] {
        require(path != nullptr, operation, "the path is null");
        return list_associations(nullptr, canonical_text(text_of(path), operation).c_str(), operation);
    });
}

int32_t qzfi_enumerate_provider_fims(void *provider_id, void *result) {
    constexpr const char *operation = "qzfi_enumerate_provider_fims";
    return list_entry<qfi_fim_list>(operation, result, [&] {
        require(provider_id != nullptr, operation, "the provider's id is null");
        return list_fims(text_of(provider_id), operation);
    });
}

int32_t qzfi_enumerate_fims(void *result) {
    constexpr const char *operation = "qzfi_enumerate_fims";
    return list_entry<qfi_fim_list>(operation, result, [] { return list_fims(nullptr, operation); });
}

int32_t qzfi_free_fim_list(void *list) {
    return free_entry<qfi_fim_list>("qzfi_free_fim_list", list);
}

int32_t qzfi_enumerate_enclosures(void *reserved1, void *reserved2, void *result) {
    constexpr const char *operation = "qzfi_enumerate_enclosures";
    return list_entry<qfi_enclosure_list>(operation, result, [&] {
        require_unused(reserved1 == nullptr && reserved2 == nullptr, operation);
        return list_enclosures(operation);
    });
}

int32_t qzfi_free_enclosures(void *list) {
    return free_entry<qfi_enclosure_list>("qzfi_free_enclosures", list);
}

int32_t qzfi_enumerate_host_nodes(void *reserved1, void *reserved2, void *result) {
    constexpr const char *operation = "qzfi_enumerate_host_nodes";
    return list_entry<qfi_host_list>(operation, result, [&] {
        require_unused(reserved1 == nullptr && reserved2 == nullptr, operation);
        return list_hosts();
    });
}

int32_t qzfi_free_host_nodes(void *list) {
    return free_entry<qfi_host_list>("qzfi_free_host_nodes", list);
}

namespace {

void free_trees(qfi_domain_tree_list_t *list) noexcept {
    while (list != nullptr) {
        qfi_domain_tree_list_t *const next = list->next;
        try {
            const Hush hush;
            TreeLock tree(list->domain, "qzfi_free_tree_list", TreeLock::Purpose::look);
            tree->is_detached = true;
        } catch (const Failure &) {
            // Detached already: only the node is left.
        }
        unregister_tree(list->domain);
        std::free(list);
        list = next;
    }
}

// The images by set, in the order of their sets' first ones. Stores are looked into once for all of them.
std::vector<std::vector<FoundImage>> all_sets(const char *operation) {
    std::vector<std::vector<FoundImage>> sets;
    std::map<std::string, std::size_t> places;
    for (FoundImage &image : all_images(nullptr, operation)) {
        const auto [place, is_new] = places.emplace(image.record.set_id, sets.size());
        if (is_new)
            sets.emplace_back();
        sets[place->second].push_back(std::move(image));
    }
    return sets;
}

// What is missing of a set, in words; empty when it is whole.
std::string gap_in(const std::vector<FoundImage> &set, const char *operation) {
    std::string gap;
    try {
        const Hush hush;
        for (const std::string &id : missing_of_set(set, operation))
            gap += (gap.empty() ? "these images of its set are in no known store: " : ", ") + id;
    } catch (const Failure &failure) {
        if (failure.status == QFI_STATUS_NO_MEMORY)
            throw;
        gap = "no id document of its set can be read";
    }
    return gap;
}

// One for each set, but for one that is not whole: its images stand for themselves.
std::vector<std::shared_ptr<Tree>> all_trees(const char *operation) {
    std::vector<std::shared_ptr<Tree>> trees;
    for (std::vector<FoundImage> &set : all_sets(operation)) {
        const std::string gap = gap_in(set, operation);
        if (gap.empty()) {
            trees.push_back(tree_of_records(std::move(set)));
            continue;
        }
        for (FoundImage &image : set) {
            const std::string object = image.record.objects.empty() ? "" : image.record.objects.front().path;
            std::vector<FoundImage> alone;
            alone.push_back(std::move(image));
            trees.push_back(tree_of_records(std::move(alone)));
            trees.back()->found_remarks.push_back({QFI_REMARK_WARNING, 0, object, "", gap});
        }
    }
    return trees;
}

qfi_domain_tree_list_t *list_trees(const char *operation) {
    struct Free {
        void operator()(qfi_domain_tree_list_t *list) const noexcept { free_trees(list); }
    };
    std::unique_ptr<qfi_domain_tree_list_t, Free> first;
    qfi_domain_tree_list_t *last = nullptr;
    for (std::shared_ptr<Tree> &tree : all_trees(operation)) {
        build_image_nodes(*tree);
        std::unique_ptr<qfi_domain_tree_list_t, void (*)(void *)> node(
            static_cast<qfi_domain_tree_list_t *>(std::calloc(1, sizeof(qfi_domain_tree_list_t))), std::free);
        if (!node)
            throw std::bad_alloc();
        node->domain = register_tree(std::move(tree));
        qfi_domain_tree_list_t *const added = node.release();
        if (last == nullptr)
            first.reset(added);
        else
            last->next = added;
        last = added;
    }
    return first.release();
}

} // namespace

int32_t qzfi_enumerate_trees(void *result) {
    constexpr const char *operation = "qzfi_enumerate_trees";
    return list_entry<qfi_domain_tree_list_t>(operation, result, [] { return list_trees(operation); });
}

int32_t qzfi_free_tree_list(void *list) {
    return traced_entry("qzfi_free_tree_list", [&] { free_trees(static_cast<qfi_domain_tree_list_t *>(list)); });
}

// Images and stores.

namespace {

int32_t fiid_status(const qfi_fiid *fiid, const char *store, const char *operation) {
    try {
        require(fiid != nullptr && fiid->document != nullptr, operation, "an id document is null");
        const Fiid read = read_fiid({fiid->document, fiid->length}, operation);
        for (const FiidImage &image : read.images) {
            const FoundImage found = find_image(image.record.id, store, operation);
            if (found.record.state != 1)
                fail(message::damaged, QFI_FI_DAMAGED, operation,
                     {image.record.id, found.store->image_path(image.record.id), "its files are missing"});
        }
        return 0;
    } catch (const Failure &failure) {
        return failure.status;
    }
}

} // namespace

int32_t qzfi_process_fiids(int32_t count, int32_t flags, void *fiids, void *result, void *store) {
    constexpr const char *operation = "qzfi_process_fiids";
    return traced_entry(operation, [&] {
        require_unused(flags == 0, operation);
        require(count >= 0, operation, "the count is negative");
        require(count == 0 || (fiids != nullptr && result != nullptr), operation, "an array is null");
        for (int32_t index = 0; index < count; ++index)
            static_cast<int32_t *>(result)[index] =
                fiid_status(static_cast<const qfi_fiid *const *>(fiids)[index], text_of(store), operation);
    });
}

int32_t qzfi_fiid_synthesize(void *reference, void *result) {
    constexpr const char *operation = "qzfi_fiid_synthesize";
    return traced_entry(operation, [&] {
        qfi_fiid **const fiid = result_at<qfi_fiid *>(result, operation, "the result is null");
        const auto *const image = sized<qfi_image_ref>(reference, operation, "the reference is null or too small");
        const std::string id(image->image_id, strnlen(image->image_id, sizeof image->image_id));
        const std::string store(image->store, strnlen(image->store, sizeof image->store));
        Fiid document;
        for (const FoundImage &found : find_whole(id, store.empty() ? nullptr : store.c_str(), operation)) {
            document.set_id = found.record.set_id;
            document.images.push_back({found.record, found.store->path()});
        }
        *fiid = give_fiid(write_fiid(document, operation));
    });
}

namespace {

using Change = void (*)(TreeLock &, const qfi_restore_options &, Findings &, const char *);

bool are_null(std::initializer_list<const void *> arguments) {
    return std::all_of(arguments.begin(), arguments.end(), [](const void *argument) { return argument == nullptr; });
}

int32_t change_originals(const char *operation, Change change, void *tree_node, void *given, void *result,
                         bool is_unused) {
    return traced_entry(operation, [&] {
        qfi_report **const out = result_or_null<qfi_report *>(result);
        require_unused(is_unused, operation);
        qfi_restore_options options;
        QFI_INIT(options);
        if (const auto *const wanted =
                sized_or_null<qfi_restore_options>(given, operation, "the options are of another size"))
            options = *wanted;
        TreeLock tree(static_cast<const qfi_domain *>(tree_node), operation);
        require_frozen(tree);
        reported(out, [&](Findings &report) { change(tree, options, report, operation); });
    });
}

} // namespace

int32_t qzfi_restore(void *tree, void *options, void *report, void *reserved1, void *reserved2, void *reserved3,
                     void *reserved4, void *reserved5, void *reserved6, void *reserved7) {
    const bool is_unused = are_null({reserved1, reserved2, reserved3, reserved4, reserved5, reserved6, reserved7});
    return change_originals("qzfi_restore", restore, tree, options, report, is_unused);
}

int32_t qzfi_resync(void *tree, void *options, void *report, void *reserved1, void *reserved2, void *reserved3,
                    void *reserved4, void *reserved5) {
    const bool is_unused = are_null({reserved1, reserved2, reserved3, reserved4, reserved5});
    return change_originals("qzfi_resync", resync, tree, options, report, is_unused);
}

int32_t qzfi_query_valid_secondaries(void *path, void *reserved, void *result) {
    constexpr const char *operation = "qzfi_query_valid_secondaries";
    return list_entry<qfi_image_list>(operation, result, [&] {
        require_unused(reserved == nullptr, operation);
        require(path != nullptr, operation, "the path is null");
        return give_images(images_for(canonical_text(text_of(path), operation), operation));
    });
}

int32_t qzfi_free_valid_sec_list(void *list, void *) {
    return traced_entry("qzfi_free_valid_sec_list", [&] { free_chain(static_cast<qfi_image_list *>(list)); });
}

int32_t qzfi_query_tree_status(void *node, void *state, void *result) {
    constexpr const char *operation = "qzfi_query_tree_status";
    return traced_entry(operation, [&] {
        auto *const number = result_or_null<int32_t>(state);
        auto *const list = result_or_null<qfi_image_list *>(result);
        TreeLock tree(static_cast<const qfi_domain *>(node), operation, TreeLock::Purpose::look);
        std::vector<FoundImage> images;
        for (const TreeFilesystem &filesystem : tree->filesystems) {
            if (!filesystem.is_frozen || !filesystem.store || tree->state == QFI_TREE_REMOVED)
                continue;
            // As it is now: a backup may have been noted, or the image removed, by another process.
            if (std::optional<ImageRecord> record = filesystem.store->find(filesystem.record.id, operation))
                images.push_back({filesystem.store, std::move(*record)});
        }
        if (list != nullptr)
            *list = give_images(images);
        if (number != nullptr)
            *number = tree->state;
    });
}

int32_t qzfi_query_res_status(void *path, void *reserved, void *result) {
    constexpr const char *operation = "qzfi_query_res_status";
    return list_entry<qfi_store_status>(operation, result, [&] {
        require_unused(reserved == nullptr, operation);
        return store_states(text_of(path), operation);
    });
}

int32_t qzfi_free_res_status_list(void *list) {
    return traced_entry("qzfi_free_res_status_list", [&] { free_chain(static_cast<qfi_store_status *>(list)); });
}

int32_t qzfi_snapreplica_list(void *set_id, void *store, void *result) {
    constexpr const char *operation = "qzfi_snapreplica_list";
    return list_entry<qfi_image_list>(operation, result, [&] {
        std::vector<FoundImage> images = all_images(text_of(store), operation);
        if (set_id != nullptr)
            std::erase_if(images, [&](const FoundImage &image) { return !image.is_named(text_of(set_id)); });
        return give_images(images);
    });
}

int32_t qzfi_free_snapreplica_list(void *list) {
    return traced_entry("qzfi_free_snapreplica_list", [&] { free_chain(static_cast<qfi_image_list *>(list)); });
}

namespace {

// With its files. A copy of a store may have the same image.
bool is_there(const std::string &id, const char *operation) {
    try {
        const Hush hush;
        std::map<std::string, bool> images;
        for (const FoundImage &image : find_whole(id, nullptr, operation)) {
            bool &has_files = images[image.record.id];
            has_files = has_files || image.record.state == 1;
        }
        return std::all_of(images.begin(), images.end(), [](const auto &image) { return image.second; });
    } catch (const Failure &failure) {
        if (failure.status == QFI_FI_NO_SUCH_IMAGE || failure.status == QFI_FI_DAMAGED)
            return false;
        throw;
    }
}

} // namespace

int32_t qzfi_is_snap_imported(void *image_id, void *result) {
    constexpr const char *operation = "qzfi_is_snap_imported";
    return traced_entry(operation, [&] {
        auto *const imported = result_at<int32_t>(result, operation, "the result is null");
        require(image_id != nullptr && is_image_id(text_of(image_id)), operation, "this is no id of an image");
        *imported = is_there(text_of(image_id), operation) ? 1 : 0;
    });
}

int32_t qzfi_getSnapshotSetId(void *image_id, void *result) {
    constexpr const char *operation = "qzfi_getSnapshotSetId";
    return traced_entry(operation, [&] {
        char **const set_id = result_at<char *>(result, operation, "the result is null");
        require(image_id != nullptr, operation, "the image's id is null");
        *set_id = give_text(find_images(text_of(image_id), nullptr, operation).front().record.set_id);
    });
}

int32_t qzfi_update_snapshot_handle(void *image_id, void *reference) {
    constexpr const char *operation = "qzfi_update_snapshot_handle";
    return traced_entry(operation, [&] {
        auto *const image = sized<qfi_image_ref>(reference, operation, "the reference is null or too small");
        require(image_id != nullptr, operation, "the image's id is null");
        const std::string id = text_of(image_id);
        const std::vector<FoundImage> found = find_images(id, nullptr, operation);
        std::string store = found.front().store->path();
        // A set in several stores is looked for in all that are known.
        for (const FoundImage &one : found)
            if (one.store->path() != found.front().store->path())
                store.clear();
        require(store.size() < sizeof image->store, operation, "the store's path is too long");
        std::memset(image->image_id, 0, sizeof image->image_id);
        std::memset(image->store, 0, sizeof image->store);
        id.copy(image->image_id, sizeof image->image_id - 1);
        store.copy(image->store, sizeof image->store - 1);
    });
}

namespace {

// A frozen tree and another one, which may be null; only of some operations may it be one that was not frozen yet.
class TwoTrees {
public:
    TwoTrees(void *first, void *second, int32_t lowest, const char *operation)
        : pair_(static_cast<const qfi_domain *>(first), static_cast<const qfi_domain *>(second), operation) {
        require_frozen(pair_.first());
        if (pair_.second() != nullptr)
            pair_.second()->require_state(lowest, QFI_TREE_FROZEN);
    }
    TreeLock &first() { return pair_.first(); }
    Tree *second() { return pair_.second() != nullptr ? &**pair_.second() : nullptr; }

private:
    TreePair pair_;
};

} // namespace

int32_t qzfi_get_snapdiff(void *from, void *to, void *given, void *result) {
    constexpr const char *operation = "qzfi_get_snapdiff";
    return traced_entry(operation, [&] {
        qfi_diff **const diff = result_at<qfi_diff *>(result, operation, "the result is null");
        const auto *const options =
            sized_or_null<qfi_diff_options>(given, operation, "the options are of another size");
        TwoTrees trees(from, to, QFI_TREE_NEW, operation);
        WalkOptions walk;
        walk.workers = trees.first()->options.workers;
        walk.digest = options != nullptr && options->digest != 0;
        walk.progress = &trees.first().progress();
        *diff = give_diff(compare_trees(*trees.first(), trees.second(), walk, operation));
        trees.first().progress().finish();
    });
}

int32_t qzfi_get_backupset(void *node, int32_t flags, void *base, int32_t reserved, void *result) {
    constexpr const char *operation = "qzfi_get_backupset";
    return traced_entry(operation, [&] {
        qfi_diff **const files = result_at<qfi_diff *>(result, operation, "the result is null");
        require_unused(flags == 0 && reserved == 0, operation);
        TwoTrees trees(node, base, QFI_TREE_FROZEN, operation);
        WalkOptions walk;
        walk.workers = trees.first()->options.workers;
        walk.progress = &trees.first().progress();
        *files =
            give_diff(trees.second() == nullptr ? all_entries(*trees.first(), walk, operation)
                                                : compare_trees(*trees.second(), &*trees.first(), walk, operation));
        trees.first().progress().finish();
    });
}

namespace {

void control_tree(void *node, const std::string &command, qfi_report **out, const char *operation) {
    TreeLock tree(static_cast<const qfi_domain *>(node), operation);
    require_frozen(tree);
    if (command == QFI_OBJCTL_VERIFY)
        return reported(out, [&](Findings &report) { verify(tree, report, operation); });
    require(command == QFI_OBJCTL_REPORT, operation, "the commands for a tree are \"verify\" and \"report\"");
    reported(out, [&](Findings &report) { stored_report(*tree, report, operation); });
}

void control_store(const std::string &command, const char *store, qfi_report **out, const char *operation) {
    if (command == QFI_OBJCTL_REPAIR)
        return reported(out, [&](Findings &report) { repair(store, report, operation); });
    const bool remembers = command == QFI_OBJCTL_REMEMBER;
    require(remembers || command == QFI_OBJCTL_FORGET, operation,
            R"(the commands for a store are "repair", "remember" and "forget")");
    require(store != nullptr, operation, "the store is null");
    if (remembers)
        remember_store(Store::open(store, false, operation)->path());
    else
        forget_store(store, operation);
}

} // namespace

int32_t qzfi_objctl(void *tree, void *command, void *store, void *result, void *reserved) {
    constexpr const char *operation = "qzfi_objctl";
    return traced_entry(operation, [&] {
        qfi_report **const out = result_or_null<qfi_report *>(result);
        require_unused(reserved == nullptr, operation);
        require(command != nullptr, operation, "the command is null");
        if (tree != nullptr)
            control_tree(tree, text_of(command), out, operation);
        else
            control_store(text_of(command), text_of(store), out, operation);
    });
}

namespace {

std::mutex import_mutex;
qfi_import_options import_options{}; // of later imports; guarded by `import_mutex`

qfi_import_options present_import_options() {
    const std::lock_guard lock(import_mutex);
    return import_options;
}

} // namespace

int32_t qzfi_set_import_options(void *given, void *reserved1, int32_t flags, void *reserved2) {
    constexpr const char *operation = "qzfi_set_import_options";
    return traced_entry(operation, [&] {
        require_unused(reserved1 == nullptr && flags == 0 && reserved2 == nullptr, operation);
        const auto *const options =
            sized_or_null<qfi_import_options>(given, operation, "the options are of another size");
        const std::lock_guard lock(import_mutex);
        import_options = options != nullptr ? *options : qfi_import_options{};
    });
}

int32_t qzfi_set_restorepaths(void *node, void *given, int32_t count) {
    constexpr const char *operation = "qzfi_set_restorepaths";
    return traced_entry(operation, [&] {
        TreeLock tree(static_cast<const qfi_domain *>(node), operation);
        require_frozen(tree);
        const std::vector<ObjectRef> objects = objects_of(*tree);
        require(count >= 0 && (count == 0 || given != nullptr), operation, "the paths are null");
        require(count == 0 || static_cast<std::size_t>(count) == objects.size(), operation,
                "there must be one path for each object");
        std::vector<std::string> paths(objects.size());
        for (std::size_t index = 0; index < static_cast<std::size_t>(count); ++index)
            if (const char *const path = static_cast<const char *const *>(given)[index])
                paths[index] = canonical_text(path, operation);
        for (std::size_t index = 0; index < objects.size(); ++index)
            objects[index].object().restore_to = paths[index];
    });
}

int32_t qzfi_process_backups(void *node, void *, void *reserved, int32_t backed_up, void *result) {
    constexpr const char *operation = "qzfi_process_backups";
    return traced_entry(operation, [&] {
        qfi_report **const out = result_or_null<qfi_report *>(result);
        require_unused(reserved == nullptr, operation);
        TreeLock tree(static_cast<const qfi_domain *>(node), operation);
        require_frozen(tree);
        reported(out, [&](Findings &report) {
            for (TreeFilesystem &filesystem : tree->filesystems) {
                const uint32_t state = backed_up != 0 ? 1 : 2;
                filesystem.store->update(filesystem.record.id, operation,
                                         [&](ImageRecord &record) { record.backed_up = state; });
                filesystem.record.backed_up = state;
                ++report.changed;
            }
        });
    });
}

int32_t qzfi_deport_tree(void *node, void *directory, void *result) {
    constexpr const char *operation = "qzfi_deport_tree";
    return traced_entry(operation, [&] {
        qfi_fiid **const fiid = result_or_null<qfi_fiid *>(result);
        require(directory != nullptr, operation, "the directory is null");
        TreeLock tree(static_cast<const qfi_domain *>(node), operation);
        const std::string document = deport(tree, text_of(directory), operation);
        if (fiid != nullptr)
            *fiid = give_fiid(document);
    });
}

int32_t qzfi_import_tree(void *directory, void *store, void *expected, void *result) {
    constexpr const char *operation = "qzfi_import_tree";
    return traced_entry(operation, [&] {
        qfi_domain **const tree = result_or_null<qfi_domain *>(result);
        require(directory != nullptr, operation, "the directory is null");
        std::shared_ptr<Tree> imported =
            import_images(text_of(directory), text_of(store), static_cast<const qfi_fiid *>(expected),
                          present_import_options(), operation);
        if (tree != nullptr)
            *tree = register_tree(std::move(imported));
    });
}

// Operations on devices.

#define FI_UNSUPPORTED(name, ...)                                                                                      \
    int32_t qzfi_##name(void *node, __VA_ARGS__) {                                                                     \
        return traced_entry("qzfi_" #name, [&] { fail_unsupported("qzfi_" #name, node); });                            \
    }
FI_UNSUPPORTED(online, void *, void *, void *)
FI_UNSUPPORTED(offline, void *, void *, void *, void *)
FI_UNSUPPORTED(import_resource, void *, void *, void *, int32_t, void *, void *)
FI_UNSUPPORTED(format, int32_t, void *, void *, void *, void *, void *, void *, void *, int32_t, void *, void *)
FI_UNSUPPORTED(deport_resource, int32_t, void *, void *, void *, int32_t, void *, void *)
FI_UNSUPPORTED(online_resource, int32_t, void *, void *, void *, void *, void *, void *, void *, int32_t, int32_t)
FI_UNSUPPORTED(offline_resource, int32_t, void *, void *, void *, void *, void *, int32_t, int32_t, void *, void *,
               void *, void *)
#undef FI_UNSUPPORTED
