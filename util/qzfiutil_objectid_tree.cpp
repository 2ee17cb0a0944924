// The trees of the interning table. A tree may be a list of many thousand nodes, so nothing here recurses.
#include <cstdlib>

#include "util/qzfiutil_objectid.h"

qzfi_isnode **qzfi::tree_link(qzfi_isnode **root, int32_t checksum) noexcept {
    qzfi_isnode **link = root;
    while (*link != nullptr && (*link)->checksum != checksum)
        link = (*link)->checksum < checksum ? &(*link)->right : &(*link)->left;
    return link;
}

qzfi_isnode *insertis(qzfi_isnode *node, qzfi_isnode *added) {
    if (node == nullptr || added == nullptr)
        return added;
    qzfi_isnode **link = qzfi::tree_link(&node, added->checksum);
    if (*link == nullptr) {
        *link = added;
        return added;
    }
    added->next = (*link)->next;
    (*link)->next = added;
    return added;
}

qzfi_isnode *findis(qzfi_isnode *root, const qfi_objid_t *probe, int32_t checksum) {
    if (probe == nullptr)
        return nullptr;
    qzfi_isnode *node = *qzfi::tree_link(&root, checksum);
    while (node != nullptr && qzfi_objidcmp(&node->id, probe) != 0)
        node = node->next;
    return node;
}

namespace {

void free_chain(qzfi_isnode *node) {
    while (node != nullptr) {
        qzfi_isnode *next = node->next;
        if ((node->id.vid_type & QFI_OID_ALLOC) != 0)
            std::free(const_cast<void *>(node->id.vid_name));
        std::free(node);
        node = next;
    }
}

} // namespace

// Rotates left subtrees up until the root has none and can go: no stack and no memory, each node moved up once.
void freeis(qzfi_isnode *root) {
    while (root != nullptr) {
        if (qzfi_isnode *left = root->left; left != nullptr) {
            root->left = left->right;
            left->right = root;
            root = left;
            continue;
        }
        qzfi_isnode *right = root->right;
        free_chain(root);
        root = right;
    }
}
