// Walks the interning table as other layers do, and checks its order on the way.
#pragma once

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

/// The nodes of a tree with those of their chains; expects checksums in order and chains of one checksum and length.
inline std::vector<const qzfi_isnode *> nodes_in_order(const qzfi_isnode *root) {
    std::vector<const qzfi_isnode *> nodes;
    std::vector<const qzfi_isnode *> path;
    int64_t last = INT64_MIN;
    for (const qzfi_isnode *node = root; node != nullptr || !path.empty();) {
        if (node != nullptr) {
            path.push_back(node);
            node = node->left;
            continue;
        }
        node = path.back();
        path.pop_back();
        EXPECT_LT(last, node->checksum);
        last = node->checksum;
        nodes.push_back(node);
        for (const qzfi_isnode *chained = node->next; chained != nullptr; chained = chained->next) {
            EXPECT_EQ(chained->checksum, node->checksum);
            EXPECT_EQ(chained->id.vid_length, node->id.vid_length);
            EXPECT_EQ(chained->left, nullptr);
            EXPECT_EQ(chained->right, nullptr);
            nodes.push_back(chained);
        }
        node = node->right;
    }
    return nodes;
}

/// All nodes of the table; expects each in the tree of its length, with the type of interned ids and its checksum.
inline std::vector<const qzfi_isnode *> interned_nodes() {
    std::vector<const qzfi_isnode *> all;
    pthread_mutex_lock(&mutex);
    for (int32_t length = 0; length < QFI_OID_TABLE_LENGTHS; ++length)
        for (const qzfi_isnode *node : nodes_in_order(istbl[length])) {
            EXPECT_EQ(node->id.vid_length, length);
            EXPECT_EQ(node->id.vid_type, 3u);
            EXPECT_EQ(static_cast<uint32_t>(node->checksum), objsum(node->id.vid_name, length));
            all.push_back(node);
        }
    pthread_mutex_unlock(&mutex);
    return all;
}
