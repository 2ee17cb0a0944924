#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "objectid/tree_walk.h"

namespace {

/// A node as a caller makes it, bytes and all from malloc.
qzfi_isnode *make_node(const std::string &bytes) {
    auto *node = static_cast<qzfi_isnode *>(calloc(1, sizeof(qzfi_isnode)));
    void *copy = malloc(bytes.size());
    memcpy(copy, bytes.data(), bytes.size());
    const auto length = static_cast<int32_t>(bytes.size());
    node->id = {copy, length, QFI_OID_INTERN | QFI_OID_ALLOC};
    node->checksum = static_cast<int32_t>(objsum(copy, length));
    return node;
}

/// A node without bytes of its own.
qzfi_isnode *make_bare_node(int32_t checksum) {
    auto *node = static_cast<qzfi_isnode *>(calloc(1, sizeof(qzfi_isnode)));
    node->checksum = checksum;
    return node;
}

qfi_objid_t probe_of(const std::string &bytes) {
    return {bytes.data(), static_cast<int32_t>(bytes.size()), 0};
}

qzfi_isnode *find(qzfi_isnode *root, const std::string &bytes) {
    const qfi_objid_t probe = probe_of(bytes);
    return findis(root, &probe, static_cast<int32_t>(objsum(probe.vid_name, probe.vid_length)));
}

TEST(ObjectIdTree, a_larger_checksum_goes_right_and_a_smaller_one_left) {
    qzfi_isnode *root = make_node("m");
    qzfi_isnode *right = make_node("t");
    qzfi_isnode *left = make_node("c");
    EXPECT_EQ(insertis(root, right), right);
    EXPECT_EQ(insertis(root, left), left);
    EXPECT_EQ(root->right, right);
    EXPECT_EQ(root->left, left);
    qzfi_isnode *inner = make_node("f");
    EXPECT_EQ(insertis(root, inner), inner);
    EXPECT_EQ(left->right, inner);
    freeis(root);
}

TEST(ObjectIdTree, checksums_are_compared_with_their_sign) {
    qzfi_isnode *root = make_node("a");
    qzfi_isnode *negative = insertis(root, make_node("\x80"));
    EXPECT_EQ(negative->checksum, -128);
    EXPECT_EQ(root->left, negative);
    EXPECT_EQ(find(root, "\x80"), negative);
    freeis(root);
}

TEST(ObjectIdTree, an_equal_checksum_is_linked_directly_behind_the_tree_node) {
    qzfi_isnode *root = make_node("abc");
    qzfi_isnode *second = insertis(root, make_node("bca"));
    qzfi_isnode *third = insertis(root, make_node("cab"));
    EXPECT_EQ(root->next, third);
    EXPECT_EQ(third->next, second);
    EXPECT_EQ(second->next, nullptr);
    EXPECT_EQ(root->left, nullptr);
    EXPECT_EQ(root->right, nullptr);
    freeis(root);
}

TEST(ObjectIdTree, every_node_of_a_chain_is_found_and_nothing_else) {
    qzfi_isnode *root = make_node("abc");
    qzfi_isnode *second = insertis(root, make_node("bca"));
    qzfi_isnode *third = insertis(root, make_node("cab"));
    EXPECT_EQ(find(root, "abc"), root);
    EXPECT_EQ(find(root, "bca"), second);
    EXPECT_EQ(find(root, "cab"), third);
    EXPECT_EQ(find(root, "acb"), nullptr);
    EXPECT_EQ(find(root, "abd"), nullptr);
    freeis(root);
}

TEST(ObjectIdTree, the_given_checksum_leads_the_search_not_the_bytes) {
    const std::string bytes = "abc";
    qzfi_isnode *root = make_node(bytes);
    const qfi_objid_t probe = probe_of(bytes);
    EXPECT_EQ(findis(root, &probe, root->checksum), root);
    EXPECT_EQ(findis(root, &probe, root->checksum + 1), nullptr);
    EXPECT_EQ(findis(root, &probe, root->checksum - 1), nullptr);
    freeis(root);
}

TEST(ObjectIdTree, nodes_of_callers_that_share_bytes_are_found_by_address) {
    const std::string bytes = "abc";
    const std::string equal = "abc";
    qzfi_isnode *root = make_bare_node(static_cast<int32_t>(objsum(bytes.data(), 3)));
    root->id = {bytes.data(), 3, QFI_OID_INTERN};
    const qfi_objid_t same{bytes.data(), 3, QFI_OID_INTERN};
    const qfi_objid_t other{equal.data(), 3, QFI_OID_INTERN};
    EXPECT_EQ(findis(root, &same, root->checksum), root);
    EXPECT_EQ(findis(root, &other, root->checksum), nullptr);
    freeis(root); // leaves bytes without QFI_OID_ALLOC alone
    EXPECT_EQ(bytes, "abc");
}

TEST(ObjectIdTree, null_arguments_are_safe) {
    const qfi_objid_t probe{"a", 1, 0};
    EXPECT_EQ(findis(nullptr, &probe, 97), nullptr);
    qzfi_isnode *node = make_node("a");
    EXPECT_EQ(findis(node, nullptr, 97), nullptr);
    EXPECT_EQ(insertis(nullptr, node), node);
    EXPECT_EQ(insertis(node, nullptr), nullptr);
    freeis(node);
    freeis(nullptr);
}

constexpr int32_t list_length = 200'000;

/// A tree that is a list of nodes with checksums from 1 on, to one side; built from its end.
qzfi_isnode *make_list(qzfi_isnode *qzfi_isnode::*side, int32_t first, int32_t step) {
    qzfi_isnode *root = nullptr;
    for (int32_t count = 0; count < list_length; ++count) {
        qzfi_isnode *node = make_bare_node(first + step * count);
        node->*side = root;
        root = node;
    }
    return root;
}

TEST(ObjectIdTree, a_tree_that_is_a_long_list_is_searched_extended_and_freed) {
    const struct {
        qzfi_isnode *qzfi_isnode::*side;
        int32_t first, step, beyond;
    } lists[] = {{&qzfi_isnode::right, list_length, -1, list_length + 1}, {&qzfi_isnode::left, 1, 1, 0}};
    for (const auto &list : lists) {
        qzfi_isnode *root = make_list(list.side, list.first, list.step);
        const qfi_objid_t probe{nullptr, 0, 0};
        qzfi_isnode *deepest = findis(root, &probe, list.first);
        ASSERT_NE(deepest, nullptr);
        qzfi_isnode *added = insertis(root, make_bare_node(list.beyond));
        EXPECT_EQ(deepest->*list.side, added);
        freeis(root);
    }
}

TEST(ObjectIdTree, a_zigzag_of_long_branches_is_freed) {
    qzfi_isnode *root = nullptr;
    for (int32_t count = 0; count < list_length; ++count) {
        qzfi_isnode *node = make_bare_node(count);
        (count % 2 == 0 ? node->left : node->right) = root;
        (count % 2 == 0 ? node->right : node->left) = make_bare_node(count);
        node->next = make_bare_node(count);
        root = node;
    }
    freeis(root);
}

TEST(ObjectIdTree, interned_ids_hang_in_the_trees_of_their_lengths) {
    const char *const ids[] = {"m", "t", "c", "abc", "bca", "cab", "zzz", "\x80\x80\x80", "abd"};
    std::vector<const void *> records;
    for (const char *id : ids)
        records.push_back(qzfi_get_objid(id, static_cast<int32_t>(strlen(id)), QFI_OID_INTERN));
    EXPECT_EQ(istbl[1], records[0]);
    EXPECT_EQ(istbl[1]->right, records[1]);
    EXPECT_EQ(istbl[1]->left, records[2]);
    EXPECT_EQ(istbl[3], records[3]);
    EXPECT_EQ(istbl[3]->next, records[5]);
    EXPECT_EQ(istbl[3]->next->next, records[4]);
    EXPECT_EQ(istbl[3]->right, records[6]);
    EXPECT_EQ(istbl[3]->left, records[7]);
    EXPECT_EQ(istbl[3]->right->left, records[8]);
    EXPECT_EQ(interned_nodes().size(), std::size(ids));
    for (const char *id : ids) {
        const auto length = static_cast<int32_t>(strlen(id));
        EXPECT_EQ(find(istbl[length], id), static_cast<void *>(qzfi_get_objid(id, length, QFI_OID_INTERN)));
    }
    qzfi_ufini();
}

TEST(ObjectIdTree, nodes_that_others_enter_are_found_by_interning) {
    qfi_objid_t *known = qzfi_get_objid("abc", 3, QFI_OID_INTERN);
    pthread_mutex_lock(&mutex);
    qzfi_isnode *behind = insertis(istbl[3], make_node("bca"));
    qzfi_isnode *further = insertis(istbl[3], make_node("cab"));
    qzfi_isnode *beside = insertis(istbl[3], make_node("zzz"));
    qzfi_isnode *beside_behind = insertis(istbl[3], make_node("zyy"));
    qzfi_isnode *chained = insertis(istbl[3], make_node("yzy"));
    istbl[2] = make_node("xy");
    qzfi_isnode *root = istbl[2];
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(qzfi_get_objid("bca", 3, QFI_OID_INTERN), &behind->id);
    EXPECT_EQ(qzfi_get_objid("cab", 3, QFI_OID_INTERN), &further->id);
    EXPECT_EQ(qzfi_get_objid("zzz", 3, QFI_OID_INTERN), &beside->id);
    EXPECT_EQ(qzfi_get_objid("zyy", 3, QFI_OID_INTERN), &beside_behind->id);
    EXPECT_EQ(qzfi_get_objid("yzy", 3, QFI_OID_INTERN), &chained->id);
    EXPECT_EQ(qzfi_get_objid("xy", 2, QFI_OID_INTERN), &root->id);
    EXPECT_EQ(qzfi_get_objid("abc", 3, QFI_OID_INTERN), known);
    EXPECT_EQ(interned_nodes().size(), 7u);
    qzfi_ufini();
}

TEST(ObjectIdTree, a_root_that_others_enter_leaves_what_is_known_in_sight) {
    qfi_objid_t *known = qzfi_get_objid("abc", 3, QFI_OID_INTERN);
    pthread_mutex_lock(&mutex);
    istbl[2] = make_node("xy");
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(qzfi_get_objid("xy", 2, QFI_OID_INTERN), &istbl[2]->id);
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(qzfi_get_objid("abc", 3, QFI_OID_INTERN), known); // would wait for itself if it had to be looked for
    EXPECT_EQ(qzfi_get_objid("xy", 2, QFI_OID_INTERN), &istbl[2]->id);
    pthread_mutex_unlock(&mutex);
    qzfi_ufini();
}

TEST(ObjectIdTree, a_tree_that_others_take_away_is_begun_anew) {
    qfi_objid_t *kept = qzfi_get_objid("ab", 2, QFI_OID_INTERN);
    for (const char *id : {"abc", "bca", "abd"})
        qzfi_get_objid(id, 3, QFI_OID_INTERN);
    pthread_mutex_lock(&mutex);
    qzfi_isnode *taken = istbl[3];
    istbl[3] = nullptr;
    pthread_mutex_unlock(&mutex);
    freeis(taken);
    qfi_objid_t *anew = qzfi_get_objid("bca", 3, QFI_OID_INTERN);
    ASSERT_NE(anew, nullptr);
    EXPECT_EQ(std::string(static_cast<const char *>(anew->vid_name), 3), "bca");
    EXPECT_EQ(static_cast<void *>(istbl[3]), anew);
    EXPECT_EQ(qzfi_get_objid("ab", 2, QFI_OID_INTERN), kept);
    EXPECT_EQ(qzfi_get_objid("bca", 3, QFI_OID_INTERN), anew);
    EXPECT_EQ(interned_nodes().size(), 2u);
    qzfi_ufini();
}

} // namespace
