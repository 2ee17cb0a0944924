// List records are zero-filled before they are freed: this program is linked so that the library's `free` comes here
// first.
#include "samples.h"

#include <algorithm>

using namespace samples;

namespace {

/// The block whose release is awaited, and what it held then.
struct Watched {
    const void *block = nullptr;
    std::size_t size = 0;
    int releases = 0;
    bool was_zero = false;
} watched;

/// Runs an operation and expects that it frees the record once, zero-filled.
template <class Record, class Operation>
void expect_freed_as_zero(const Record *record, const Operation &operation) {
    ASSERT_NE(record, nullptr);
    watched = {record, sizeof(Record)};
    operation();
    EXPECT_EQ(watched.releases, 1);
    EXPECT_TRUE(watched.was_zero);
    watched = {};
}

/// Frees a list node, linked and not.
template <class Node>
void expect_node_freed_as_zero(Node *node, uint32_t (*release)(Node *)) {
    ASSERT_NE(node, nullptr);
    Node other{};
    node->next = &other;
    expect_freed_as_zero(node, [&] { release(node); });
}

TEST(RecordZeroFill, of_every_list_node) {
    const Id id("uid");
    const FimSource fim;
    const uint16_t four[] = {1, 2, 3, 4};
    char text[] = "text";
    char *const texts[] = {text, nullptr};
    expect_node_freed_as_zero(qzfi_build_fim_list_node("id", &fim.record, "params", "provider"),
                              qzfi_free_fim_list_node);
    expect_node_freed_as_zero(qzfi_build_enclosure_list_node("a", "b", "c", "d", "e", 1, 2, 3),
                              qzfi_free_enclosure_list_node);
    expect_node_freed_as_zero(qzfi_build_group_nodelist_node(&id.record, &id.record, &properties, "provider", 5),
                              qzfi_free_group_nodelist_node);
    expect_node_freed_as_zero(qzfi_build_nodelist_node(&id.record, &properties, "provider"), qzfi_free_nodelist_node);
    expect_node_freed_as_zero(qzfi_build_assoc_list_node(&id.record, &id.record, &properties, "provider", "fim", 1, 2),
                              qzfi_free_assoc_list_node);
    expect_node_freed_as_zero(qzfi_build_providerlist_node("provider", 1, 2, four, texts), qzfi_free_providerlist_node);
}

TEST(RecordZeroFill, of_the_members_of_a_group) {
    const Id id("uid");
    qfi_group_node group{};
    ASSERT_EQ(qzfi_build_group_node(&group, &id.record, &id.record, &properties, "provider", 5), 0u);
    auto *const member = static_cast<qfi_nodeid *>(calloc(1, sizeof(qfi_nodeid)));
    ASSERT_NE(member, nullptr);
    *member = {strdup("first"), qzfi_get_objid("id", 2, 0), group.members};
    group.members = member;
    expect_freed_as_zero(member, [&] { qzfi_free_group_node(&group); });
}

} // namespace

extern "C" void __real_free(void *block);
extern "C" void __wrap_free(void *block);
extern "C" void __wrap_free(void *block) {
    if (block != nullptr && block == watched.block) {
        const auto *const bytes = static_cast<const unsigned char *>(block);
        ++watched.releases;
        watched.was_zero = std::all_of(bytes, bytes + watched.size, [](unsigned char byte) { return byte == 0; });
    }
    __real_free(block);
}
