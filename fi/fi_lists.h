// Lists of what there is: providers, file systems, disks, associations, methods, this host. All are built with the
// record builders, and released with their frees; null for none.
#pragma once

#include <string>

#include "fi/fi_images.h"

namespace qzfi::fi {

qfi_provider_list *list_providers();
/// Of one provider, or, null, of all; `uid` null or one mount point.
qfi_node_list *list_nodes(const char *provider_id, const char *uid, const char *operation);
qfi_group_node_list *list_group_nodes(const char *provider_id, const char *operation);
/// `path` null or one object.
qfi_assoc_list *list_associations(const char *provider_id, const char *path, const char *operation);
bool is_valid(const qfi_assoc &association, const char *operation);
qfi_fim_list *list_fims(const char *provider_id, const char *operation);
qfi_enclosure_list *list_enclosures(const char *operation);
qfi_host_list *list_hosts();

void free_list(qfi_provider_list *list) noexcept;
void free_list(qfi_node_list *list) noexcept;
void free_list(qfi_group_node_list *list) noexcept;
void free_list(qfi_assoc_list *list) noexcept;
void free_list(qfi_fim_list *list) noexcept;
void free_list(qfi_enclosure_list *list) noexcept;
void free_list(qfi_host_list *list) noexcept;

/// A list in the making: released unless given out.
template <class Node>
class ListBuilder {
public:
    ListBuilder() = default;
    ~ListBuilder() { free_list(first_); }
    ListBuilder(const ListBuilder &) = delete;
    ListBuilder &operator=(const ListBuilder &) = delete;
    /// Null, as builders give it when memory is short, throws.
    Node &append(Node *node) {
        if (node == nullptr)
            throw std::bad_alloc();
        *last_ = node;
        last_ = &node->next;
        return *node;
    }
    Node *give() noexcept {
        Node *const list = first_;
        first_ = nullptr;
        last_ = &first_;
        return list;
    }

private:
    Node *first_ = nullptr;
    Node **last_ = &first_;
};

/// The provider that a list is asked for; null for null, which stands for all. Throws QFI_FI_NO_SUCH_PROVIDER.
const Provider *wanted_provider(const char *provider_id, const char *operation);
/// A node's name and interned id, for the builders.
qfi_nodeid node_id(const std::string &name);

} // namespace qzfi::fi
