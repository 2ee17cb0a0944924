#include "tools/qzfi/stores.h"

#include <cstdlib>
#include <filesystem>

#include "tools/qzfi/tool.h"

namespace qzfi::tool {

namespace {

// The status is told without its cause; a look at the images there fails in the same way.
std::vector<std::string> causes_of(const std::string &store) {
    ImageList images;
    (void)qfi_op_snapreplica_list(nullptr, store.c_str(), Out(images));
    return take_errors();
}

// The default store comes with the first image that needs it: that it is not there is no fault.
bool is_yet_to_be_made(const std::string &store) {
    char *root = nullptr;
    if (qzfi_get_install_root(&root) != QFI_STATUS_OK || root == nullptr)
        return false;
    const std::string made = std::string(root) + "/arcvault/images";
    std::free(root);
    std::error_code error;
    // A link that leads nowhere was made by somebody.
    return store == std::filesystem::weakly_canonical(made, error).string() &&
           std::filesystem::symlink_status(made, error).type() == std::filesystem::file_type::not_found;
}

Failure failure_of(const Store &store, const char *hint = nullptr) {
    std::vector<std::string> causes = store.causes;
    if (hint != nullptr)
        causes.emplace_back(hint);
    return Failure("look at store " + store.path + ": " + store.why, exit_failed, std::move(causes));
}

} // namespace

std::vector<Store> find_stores(const std::string &path) {
    std::unique_ptr<qfi_store_status, Releaser<qzfiapi_free_res_status_list>> list;
    check(qfi_op_query_res_status(or_null(path), nullptr, Out(list)),
          path.empty() ? "look at the known stores" : "look at store " + path);
    std::vector<Store> stores;
    for (const qfi_store_status *node = list.get(); node != nullptr; node = node->next) {
        const auto status = static_cast<int32_t>(node->state);
        Store store{node->path, status, "", {}, node->images, node->debris, node->capacity, node->available};
        if (status != QFI_STATUS_OK && path.empty() && is_yet_to_be_made(store.path))
            continue;
        if (status != QFI_STATUS_OK) {
            store.why = status_text(status);
            store.causes = causes_of(store.path);
        }
        stores.push_back(std::move(store));
    }
    return stores;
}

Store usable_store(const std::string &path) {
    std::vector<Store> stores = find_stores(path);
    if (stores.empty())
        throw Failure("look at store " + path + ": the library tells nothing of it");
    if (stores.front().status != QFI_STATUS_OK)
        throw failure_of(stores.front());
    return std::move(stores.front());
}

std::vector<Store> passed_over(const std::string &path) {
    if (!path.empty())
        return {};
    std::vector<Store> stores = find_stores("");
    std::erase_if(stores, [](const Store &store) { return store.status == QFI_STATUS_OK; });
    return stores;
}

int tell_unusable(const std::vector<Store> &stores) {
    int code = exit_done;
    for (const Store &store : stores)
        if (store.status != QFI_STATUS_OK) {
            tell(failure_of(store, "`qzfi doctor` tells what to do about it"));
            code = exit_failed;
        }
    return code;
}

Json json_of(const Store &store) {
    Json causes = Json::array();
    for (const std::string &cause : store.causes)
        causes.push_back(json_text(cause));
    return {{"path", json_text(store.path)}, {"status", store.status},      {"why", store.why},
            {"causes", std::move(causes)},   {"images", store.images},      {"debris", store.debris},
            {"capacity", store.capacity},    {"available", store.available}};
}

Json json_of(const std::vector<Store> &stores) {
    Json list = Json::array();
    for (const Store &store : stores)
        list.push_back(json_of(store));
    return list;
}

} // namespace qzfi::tool
