// Entries that ask of trees and nodes, and note what hosts say of them.
#include "fi/fi_entries.h"

#include "fi/fi_queries.h"

using namespace qzfi::fi;

int32_t qzfi_isvalid_tree(void *node, void *valid) {
    constexpr const char *operation = "qzfi_isvalid_tree";
    return traced_entry(operation, [&] {
        auto *const out = result_at<int32_t>(valid, operation, "valid is null");
        require(node != nullptr, operation, "tree is null");
        if (!is_live(node_at(node)))
            return;
        TreeLock tree(node_at(node), operation, TreeLock::Purpose::look);
        *out = is_valid(*tree) ? 1 : 0;
    });
}

int32_t qzfi_getattr(void *node, void *name, void *attributes, void *value) {
    constexpr const char *operation = "qzfi_getattr";
    return traced_entry(operation, [&] {
        auto *const sizes = result_or_null<qfi_attr>(attributes);
        auto **const text = result_or_null<char *>(value);
        require(sizes != nullptr || name != nullptr, operation, "nothing is asked for");
        require((name == nullptr) == (text == nullptr), operation,
                "a name without a place for its text, or the reverse");
        TreeLock tree(node_at(node), operation, TreeLock::Purpose::look);
        const NodePlace place = place_of(*tree, node_at(node));
        if (sizes != nullptr)
            read_attributes(place, *sizes, operation);
        if (text != nullptr)
            *text = give_text(read_text(place, static_cast<const char *>(name), operation));
    });
}

int32_t qzfi_access(void *node, void *subpath, void *path) {
    constexpr const char *operation = "qzfi_access";
    return traced_entry(operation, [&] {
        auto **const out = result_at<char *>(path, operation, "path is null");
        TreeLock tree(node_at(node), operation, TreeLock::Purpose::look);
        tree.require_state(QFI_TREE_SPLIT, QFI_TREE_FROZEN);
        const NodePlace place = place_of(*tree, node_at(node));
        *out = give_text(image_path(place, static_cast<const char *>(subpath), operation));
    });
}

int32_t qzfi_get_status(void *node, void *status, void *reserved1, void *reserved2, void *reserved3, void *reserved4,
                        void *reserved5) {
    constexpr const char *operation = "qzfi_get_status";
    return fenced(operation, [&] {
        require_unused(reserved1 == nullptr && reserved2 == nullptr && reserved3 == nullptr && reserved4 == nullptr &&
                           reserved5 == nullptr,
                       operation);
        auto *const out = sized<qfi_operation_status>(status, operation, "status is null, or its size is not set");
        const uint32_t size = out->size;
        *out = status_of_tree(node_at(node), operation);
        out->size = size;
    });
}

int32_t qzfi_set_op_status(void *node, int32_t status) {
    constexpr const char *operation = "qzfi_set_op_status";
    return fenced(operation, [&] { set_caller_status(node_at(node), status, operation); });
}

int32_t qzfi_set_fim_name(void *fim_id) {
    constexpr const char *operation = "qzfi_set_fim_name";
    return traced_entry(operation, [&] {
        const auto *const name = static_cast<const char *>(fim_id);
        if (name != nullptr && find_method(name) == nullptr)
            fail(message::no_such_method, QFI_FI_NO_METHOD, operation, {name});
        prefer_method(name);
    });
}

int32_t qzfi_get_active_resources(void *trees, void *count, void *reserved1, void *reserved2, void *reserved3) {
    constexpr const char *operation = "qzfi_get_active_resources";
    return traced_entry(operation, [&] {
        auto **const out = result_at<qfi_domain **>(trees, operation, "trees is null");
        auto *const number = result_at<int32_t>(count, operation, "count is null");
        require_unused(reserved1 == nullptr && reserved2 == nullptr && reserved3 == nullptr, operation);
        const std::vector<std::shared_ptr<Tree>> live = live_trees();
        if (live.empty())
            return;
        auto **const list = static_cast<qfi_domain **>(std::calloc(live.size(), sizeof(qfi_domain *)));
        if (list == nullptr)
            throw std::bad_alloc();
        for (std::size_t index = 0; index < live.size(); ++index)
            list[index] = &live[index]->root;
        *out = list;
        *number = static_cast<int32_t>(live.size());
    });
}

int32_t qzfi_free_resource_list(void *trees, int32_t) {
    std::free(trees);
    return QFI_STATUS_OK;
}

namespace {

qfi_component_info info_of(Tree &tree, const ObjectPlace &place) {
    const TreeFilesystem &filesystem = *place.filesystem;
    const TreeObject &object = filesystem.objects[place.object];
    const auto keep = [&](std::string text) { return tree.texts.emplace_back(std::move(text)).c_str(); };
    qfi_component_info info{};
    info.object = keep(object.path);
    info.image = filesystem.is_frozen ? keep(image_object_path(filesystem, place.object)) : nullptr;
    info.provider = filesystem.provider != nullptr ? keep(filesystem.provider->ops->provider_id) : nullptr;
    info.status = object.image.status;
    return info;
}

// The record and the object of the tree hold the same; the catalog too, once the image is there.
void note_status(const ObjectPlace &place, int32_t status, const std::string &text, const char *operation) {
    TreeFilesystem &filesystem = *place.filesystem;
    const auto change = [&](ImageObject &image) {
        image.status = status;
        image.status_text = text;
    };
    if (filesystem.is_frozen) {
        filesystem.store->update(filesystem.record.id, operation, [&](ImageRecord &record) {
            if (place.object < record.objects.size())
                change(record.objects[place.object]);
        });
        change(filesystem.record.objects.at(place.object));
    }
    change(filesystem.objects[place.object].image);
}

} // namespace

int32_t qzfi_get_component_info(void *request, int32_t count) {
    constexpr const char *operation = "qzfi_get_component_info";
    return traced_entry(operation, [&] {
        auto *const wanted =
            sized<qfi_component_request>(request, operation, "request is null, or its size is not set");
        require(wanted->infos != nullptr && count > 0, operation, "no place for the information");
        TreeLock tree(wanted->tree, operation, TreeLock::Purpose::look);
        object_at(*tree, count - 1, operation);
        for (int32_t index = 0; index < count; ++index)
            wanted->infos[index] = info_of(*tree, object_at(*tree, index, operation));
    });
}

int32_t qzfi_set_comp_status(void *node, int32_t index, void *text, int32_t status) {
    constexpr const char *operation = "qzfi_set_comp_status";
    return traced_entry(operation, [&] {
        TreeLock tree(node_at(node), operation);
        const ObjectPlace place = object_at(*tree, index, operation);
        note_status(place, status, text != nullptr ? static_cast<const char *>(text) : "", operation);
    });
}

int32_t qzfi_get_app_status(void *node, int32_t index, void *text) {
    constexpr const char *operation = "qzfi_get_app_status";
    return traced_entry(operation, [&] {
        auto **const out = result_at<char *>(text, operation, "text is null");
        TreeLock tree(node_at(node), operation, TreeLock::Purpose::look);
        const ObjectPlace place = object_at(*tree, index, operation);
        *out = give_text(place.filesystem->objects[place.object].image.status_text);
    });
}
