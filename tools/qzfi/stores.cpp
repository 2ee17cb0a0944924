#include "tools/qzfi/stores.h"

#include "tools/qzfi/tool.h"

namespace qzfi::tool {

std::vector<Store> find_stores(const std::string &path) {
    std::unique_ptr<qfi_store_status, Releaser<qzfiapi_free_res_status_list>> list;
    check(qfi_op_query_res_status(or_null(path), nullptr, Out(list)),
          path.empty() ? "look at the known stores" : "look at store " + path);
    std::vector<Store> stores;
    for (const qfi_store_status *node = list.get(); node != nullptr; node = node->next) {
        const auto status = static_cast<int32_t>(node->state);
        stores.push_back({node->path, status, status == QFI_STATUS_OK ? "" : status_text(status), node->images,
                          node->debris, node->capacity, node->available});
    }
    return stores;
}

int tell_unusable(const std::vector<Store> &stores) {
    int code = exit_done;
    for (const Store &store : stores)
        if (store.status != QFI_STATUS_OK) {
            tell(Failure("look at store " + store.path + ": " + store.why));
            code = exit_failed;
        }
    return code;
}

Json json_of(const Store &store) {
    return {{"path", json_text(store.path)}, {"status", store.status}, {"why", store.why},
            {"images", store.images},        {"debris", store.debris}, {"capacity", store.capacity},
            {"available", store.available}};
}

} // namespace qzfi::tool
