// Lists of providers, methods, associations, and this host.
#include "fi/fi_lists.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <qzfi/version.h>

namespace qzfi::fi {

namespace {

template <class Node, class FreeNode>
void free_all(Node *list, FreeNode &&free_node) noexcept {
    while (list != nullptr) {
        Node *const next = list->next;
        free_node(list);
        list = next;
    }
}

} // namespace

void free_list(qfi_provider_list *list) noexcept {
    free_all(list, qzfi_free_providerlist_node);
}
void free_list(qfi_node_list *list) noexcept {
    free_all(list, qzfi_free_nodelist_node);
}
void free_list(qfi_group_node_list *list) noexcept {
    free_all(list, qzfi_free_group_nodelist_node);
}
void free_list(qfi_assoc_list *list) noexcept {
    free_all(list, qzfi_free_assoc_list_node);
}
void free_list(qfi_fim_list *list) noexcept {
    free_all(list, qzfi_free_fim_list_node);
}
void free_list(qfi_enclosure_list *list) noexcept {
    free_all(list, qzfi_free_enclosure_list_node);
}
void free_list(qfi_host_list *list) noexcept {
    free_all(list, [](qfi_host_list *node) {
        qzfi_free_host_node(&node->host);
        std::free(node);
    });
}

qfi_nodeid node_id(const std::string &name) {
    qfi_nodeid id{};
    id.uid = const_cast<char *>(name.c_str());
    id.objid = text_id(name);
    return id;
}

namespace {

char *text(const char *constant) {
    return const_cast<char *>(constant); // builders take what they only copy as writable
}

} // namespace

const Provider *wanted_provider(const char *provider_id, const char *operation) {
    if (provider_id == nullptr)
        return nullptr;
    const Provider *const provider = find_provider(provider_id);
    if (provider == nullptr)
        fail(message::no_such_provider, QFI_FI_NO_SUCH_PROVIDER, operation, {provider_id});
    return provider;
}

qfi_provider_list *list_providers() {
    ListBuilder<qfi_provider_list> list;
    for (const Provider &provider : providers()) {
        const qfi_provider_ops &ops = *provider.ops;
        char *const texts[] = {text(ops.description), text(ops.fim_id), nullptr};
        list.append(qzfi_build_providerlist_node(ops.provider_id, ops.hlevel, QFI_PROVIDER_LOADED, nullptr, texts));
    }
    for (const RefusedProvider &refused : refused_providers()) {
        char *const texts[] = {text(refused.reason.c_str()), nullptr};
        list.append(qzfi_build_providerlist_node(refused.file.c_str(), 0, QFI_PROVIDER_REFUSED, nullptr, texts));
    }
    return list.give();
}

qfi_fim_list *list_fims(const char *provider_id, const char *operation) {
    const Provider *const wanted = wanted_provider(provider_id, operation);
    ListBuilder<qfi_fim_list> list;
    for (const Provider &provider : providers()) {
        if (wanted != nullptr && wanted != &provider)
            continue;
        const qfi_provider_ops &ops = *provider.ops;
        qfi_fim properties{};
        properties.consistency = ops.consistency;
        properties.technology = ops.technology;
        properties.restore_type = ops.copy_out != nullptr ? 1 : 0;
        properties.vendor_defined_fimtype = text(ops.description);
        list.append(qzfi_build_fim_list_node(ops.fim_id, &properties, nullptr, ops.provider_id));
    }
    return list.give();
}

qfi_assoc_list *list_associations(const char *provider_id, const char *path, const char *operation) {
    ListBuilder<qfi_assoc_list> list;
    bool is_known = provider_id == nullptr || find_provider(provider_id) != nullptr;
    for (const FoundImage &image : all_images(nullptr, operation)) {
        const ImageRecord &record = image.record;
        if (provider_id != nullptr && record.provider_id != provider_id)
            continue;
        is_known = true;
        const uint64_t time = time_of(record.time_ns).qzfi_sec;
        for (std::size_t index = 0; index < record.objects.size(); ++index) {
            if (path != nullptr && record.objects[index].path != path)
                continue;
            const std::string frozen = image.object_path(index);
            const qfi_nodeid first = node_id(record.objects[index].path), second = node_id(frozen);
            list.append(qzfi_build_assoc_list_node(&first, &second, nullptr, record.provider_id.c_str(),
                                                   record.fim_id.c_str(), time, record.state));
        }
    }
    if (!is_known) // images of a provider that is not loaded are told of
        fail(message::no_such_provider, QFI_FI_NO_SUCH_PROVIDER, operation, {provider_id});
    return list.give();
}

bool is_valid(const qfi_assoc &association, const char *operation) {
    if (association.first.uid == nullptr || association.second.uid == nullptr)
        return false;
    for (const FoundImage &image : all_images(nullptr, operation))
        for (std::size_t index = 0; index < image.record.objects.size(); ++index)
            if (image.record.state == 1 && image.record.objects[index].path == association.first.uid &&
                image.object_path(index) == association.second.uid)
                return access(association.second.uid, F_OK) == 0;
    return false;
}

qfi_host_list *list_hosts() {
    utsname name{};
    if (uname(&name) != 0)
        fail_call("qzfi_enumerate_host_nodes", "uname", "this host", errno, true);
    char *const texts[] = {name.sysname, name.release, name.machine};
    ListBuilder<qfi_host_list> list;
    list.append(qzfi_build_host_list_node(name.nodename, texts, 3, "qzfi"));
    return list.give();
}

} // namespace qzfi::fi
