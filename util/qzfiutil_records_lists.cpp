// List nodes of every kind of record, and merging lists of providers.
#include "util/qzfiutil_records.h"

#include <algorithm>

namespace {

/// A zero-filled list node that `fill` makes a record of; null, with nothing left, when there is no memory or it fails.
template <class Node, class Fill>
Node *build_list_node(uint32_t (*free_node)(Node *), const Fill &fill) noexcept {
    auto *const node = qzfi::allocate_zeroed<Node>();
    if (node == nullptr)
        return nullptr;
    if (fill(*node) == QFI_STATUS_OK)
        return node;
    free_node(node);
    return nullptr;
}

template <class Node, class Record>
uint32_t free_list_node(Node *node, Record Node::*record, uint32_t (*free_record)(Record *)) noexcept {
    if (node == nullptr)
        return QFI_STATUS_OK;
    free_record(&(node->*record));
    qzfi::free_zeroed(node);
    return QFI_STATUS_OK;
}

uint32_t free_host_list_node(qfi_host_list *node) noexcept {
    return free_list_node(node, &qfi_host_list::host, qzfi_free_host_node);
}

uint32_t build_provider(qfi_provider &provider, const char *provider_id, const uint16_t *four,
                        char *const *texts) noexcept {
    qzfi::Copier copier;
    copier.text(provider.provider_id, provider_id);
    if (copier.is_failed())
        return copier.status();
    if (four != nullptr)
        std::copy_n(four, std::size(provider.four), provider.four);
    provider.texts = QZFI_COPYARRAY(texts);
    // A missing array would read as none given.
    return texts != nullptr && provider.texts == nullptr ? QFI_STATUS_NO_MEMORY : QFI_STATUS_OK;
}

uint32_t free_provider(qfi_provider *provider) noexcept {
    qzfi::release_text(provider->provider_id);
    for (char **text = provider->texts; text != nullptr && *text != nullptr; ++text)
        std::free(*text);
    std::free(static_cast<void *>(provider->texts));
    provider->texts = nullptr;
    return QFI_STATUS_OK;
}

} // namespace

qfi_fim_list *qzfi_build_fim_list_node(const char *fim_id, const qfi_fim *properties, const char *config_params,
                                       const char *provider_id) {
    return build_list_node<qfi_fim_list>(qzfi_free_fim_list_node, [&](qfi_fim_list &node) {
        return qzfi_build_fim_node(&node.fim, fim_id, properties, config_params, provider_id);
    });
}

uint32_t qzfi_free_fim_list_node(qfi_fim_list *node) {
    return free_list_node(node, &qfi_fim_list::fim, qzfi_free_fim_node);
}

qfi_enclosure_list *qzfi_build_enclosure_list_node(const char *enclosure_id, const char *name, const char *vendor,
                                                   const char *product, const char *provider_id, uint64_t capacity,
                                                   uint64_t available, uint32_t state) {
    return build_list_node<qfi_enclosure_list>(qzfi_free_enclosure_list_node, [&](qfi_enclosure_list &node) {
        return qzfi_build_enclosure_node(&node.enclosure, enclosure_id, name, vendor, product, provider_id, capacity,
                                         available, state);
    });
}

uint32_t qzfi_free_enclosure_list_node(qfi_enclosure_list *node) {
    return free_list_node(node, &qfi_enclosure_list::enclosure, qzfi_free_enclosure_node);
}

qfi_host_list *qzfi_build_host_list_node(const char *name, char *const *texts, int32_t count, const char *second) {
    if (count == 0)
        return nullptr;
    return build_list_node<qfi_host_list>(free_host_list_node, [&](qfi_host_list &node) {
        return qzfi_build_host_node(&node.host, name, texts, count, second);
    });
}

qfi_group_node_list *qzfi_build_group_nodelist_node(const qfi_nodeid *source, const qfi_nodeid *members,
                                                    const qfi_node_props *properties, const char *provider_id,
                                                    uint64_t value) {
    return build_list_node<qfi_group_node_list>(qzfi_free_group_nodelist_node, [&](qfi_group_node_list &node) {
        return qzfi_build_group_node(&node.group_node, source, members, properties, provider_id, value);
    });
}

uint32_t qzfi_free_group_nodelist_node(qfi_group_node_list *node) {
    return free_list_node(node, &qfi_group_node_list::group_node, qzfi_free_group_node);
}

qfi_node_list *qzfi_build_nodelist_node(const qfi_nodeid *source, const qfi_node_props *properties,
                                        const char *provider_id) {
    return build_list_node<qfi_node_list>(qzfi_free_nodelist_node, [&](qfi_node_list &node) {
        return qzfi_build_node(&node.node, source, properties, provider_id);
    });
}

uint32_t qzfi_free_nodelist_node(qfi_node_list *node) {
    return free_list_node(node, &qfi_node_list::node, qzfi_free_node);
}

// Takes the time before the state, where the record builder takes the state first: callers pass them in this order.
qfi_assoc_list *qzfi_build_assoc_list_node(const qfi_nodeid *first, const qfi_nodeid *second,
                                           const qfi_node_props *properties, const char *provider_id,
                                           const char *fim_id, uint64_t last_op_ts, uint32_t assoc_state) {
    return build_list_node<qfi_assoc_list>(qzfi_free_assoc_list_node, [&](qfi_assoc_list &node) {
        return qzfi_build_assoc_node(&node.assoc, first, second, properties, provider_id, fim_id, assoc_state,
                                     last_op_ts);
    });
}

uint32_t qzfi_free_assoc_list_node(qfi_assoc_list *node) {
    return free_list_node(node, &qfi_assoc_list::assoc, qzfi_free_assoc_node);
}

qfi_provider_list *qzfi_build_providerlist_node(const char *provider_id, uint64_t hlevel, uint64_t type,
                                                const uint16_t *four, char *const *texts) {
    return build_list_node<qfi_provider_list>(qzfi_free_providerlist_node, [&](qfi_provider_list &node) {
        node.provider.hlevel = hlevel;
        node.provider.type = type;
        return build_provider(node.provider, provider_id, four, texts);
    });
}

uint32_t qzfi_free_providerlist_node(qfi_provider_list *node) {
    return free_list_node(node, &qfi_provider_list::provider, free_provider);
}

qfi_provider_list *qzfi_merge_provider_lists(qfi_provider_list *a, qfi_provider_list *b) {
    qfi_provider_list *head = nullptr;
    qfi_provider_list **end = &head;
    while (a != nullptr && b != nullptr) {
        // On equal levels b goes first; callers rely on that order.
        qfi_provider_list *&taken = a->provider.hlevel > b->provider.hlevel ? a : b;
        *end = taken;
        end = &taken->next;
        taken = taken->next;
    }
    *end = a != nullptr ? a : b;
    return head;
}
