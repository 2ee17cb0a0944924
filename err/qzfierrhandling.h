// What the files of this unit share: circular lists, the way to a plugin's release operations, and the reset after a
// fork.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <qzfi/errors.h>
#include <qzfi/plugin.h>

namespace qzfi {

/// Makes the locks of this unit usable and its lists empty in a freshly forked child, whatever the parent's other
/// threads held and were changing at the moment of the fork. The parent's records are not the child's; they are not
/// released, because they may be half linked. Call it before the child raises anything, while it has one thread.
void reset_error_locks_after_fork() noexcept;

/// The release operations of a plugin, null when it cannot be looked up or has none.
const qfi_plugin_ops *plugin_operations(std::uint64_t plugin_ref) noexcept;

/// Releases a record's plugin data, if there is any, and clears the field. False, with the field as it was, when the
/// plugin cannot be looked up, when the operation fails, or when it is missing although the plugin's mark is set.
template <class Data>
bool release_plugin_data(std::uint64_t plugin_ref, void *qfi_plugin_ops::*mark,
                         std::int32_t (*qfi_plugin_ops::*operation)(Data *), Data &data) noexcept {
    if (data == Data{})
        return true;
    const qfi_plugin_ops *const operations = plugin_operations(plugin_ref);
    if (operations == nullptr)
        return false;
    const auto release = operations->*operation;
    const bool is_released = release != nullptr ? release(&data) == 0 : operations->*mark == nullptr;
    if (is_released)
        data = Data{};
    return is_released;
}

/// A zero-filled object from calloc, or null.
template <class Object>
Object *allocate_zeroed() noexcept {
    return static_cast<Object *>(std::calloc(1, sizeof(Object)));
}

/// Zero-fills and frees, so that a stale pointer finds null links instead of old ones.
template <class Object>
void free_zeroed(Object *object) noexcept {
    if (object == nullptr)
        return;
    explicit_bzero(object, sizeof(Object)); // a plain memset before free is dropped by the optimiser
    std::free(object);
}

/// Appends a node to a circular list.
template <class Node>
void append(Node *&head, Node *node) noexcept {
    if (head == nullptr) {
        node->next = node->prev = node;
        head = node;
        return;
    }
    node->next = head;
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
}

/// Takes a node out of a circular list; the head moves on, or becomes null with the last node.
template <class Node>
void unlink(Node *&head, Node *node) noexcept {
    if (node->next == node) {
        head = nullptr;
        return;
    }
    node->prev->next = node->next;
    node->next->prev = node->prev;
    if (head == node)
        head = node->next;
}

/// Visits every node once, from the head on; the visitor may unlink and free the node that it is given.
template <class Node, class Visitor>
void visit_all(Node *head, Visitor visitor) noexcept {
    if (head == nullptr)
        return;
    const Node *const last = head->prev;
    for (Node *node = head;;) {
        Node *const next = node->next;
        const bool is_last = node == last;
        visitor(node);
        if (is_last)
            return;
        node = next;
    }
}

/// The first node that matches, or null.
template <class Node, class Predicate>
Node *find_first(Node *head, Predicate matches) noexcept {
    if (head == nullptr)
        return nullptr;
    Node *node = head;
    do {
        if (matches(*node))
            return node;
        node = node->next;
    } while (node != head);
    return nullptr;
}

/// True when a record belongs to the session; a record without a session belongs to none.
inline bool is_of_session(const char *record_session, const char *session) noexcept {
    return record_session != nullptr && std::strcmp(record_session, session) == 0;
}

} // namespace qzfi
