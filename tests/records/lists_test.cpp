// List nodes: the record and a null link.
#include "samples.h"

using namespace samples;

namespace {

/// The built node is linked to nothing, and freeing it does not follow the link it is given.
template <class Node>
void expect_single(Node *node, uint32_t (*release)(Node *)) {
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->next, nullptr);
    node->next = reinterpret_cast<Node *>(1);
    EXPECT_EQ(release(node), 0u);
    EXPECT_EQ(release(nullptr), 0u);
}

TEST(FimList, holds_the_record) {
    FimSource source;
    qfi_fim_list *const node = qzfi_build_fim_list_node("id", &source.record, "params", "provider");
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->fim.fim_id, "id");
    EXPECT_EQ(node->fim.consistency, 0xfffffff1u);
    EXPECT_EQ(node->fim.restore_type, 0xfffffffffffffff6u);
    expect_copied(node->fim.vendor_defined_fimtype, source.type.c_str());
    expect_copied(node->fim.vendor_fim_version, source.version.c_str());
    EXPECT_STREQ(node->fim.config_params, "params");
    EXPECT_STREQ(node->fim.provider_id, "provider");
    expect_single(node, qzfi_free_fim_list_node);
}

TEST(FimList, a_missing_argument_gives_null) {
    const FimSource source;
    EXPECT_EQ(qzfi_build_fim_list_node(nullptr, &source.record, "params", "provider"), nullptr);
    EXPECT_EQ(qzfi_build_fim_list_node("id", nullptr, "params", "provider"), nullptr);
    EXPECT_EQ(qzfi_build_fim_list_node("id", &source.record, "params", nullptr), nullptr);
}

TEST(EnclosureList, holds_the_record) {
    qfi_enclosure_list *const node = qzfi_build_enclosure_list_node("a", "b", "c", "d", "e", 1, 2, 3);
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->enclosure.enclosure_id, "a");
    EXPECT_STREQ(node->enclosure.name, "b");
    EXPECT_STREQ(node->enclosure.vendor, "c");
    EXPECT_STREQ(node->enclosure.product, "d");
    EXPECT_STREQ(node->enclosure.provider_id, "e");
    EXPECT_EQ(node->enclosure.capacity, 1u);
    EXPECT_EQ(node->enclosure.available, 2u);
    EXPECT_EQ(node->enclosure.state, 3u);
    expect_single(node, qzfi_free_enclosure_list_node);
}

TEST(EnclosureList, a_missing_argument_gives_null) {
    EXPECT_EQ(qzfi_build_enclosure_list_node(nullptr, "b", "c", "d", "e", 1, 2, 3), nullptr);
    EXPECT_EQ(qzfi_build_enclosure_list_node("a", nullptr, "c", "d", "e", 1, 2, 3), nullptr);
    EXPECT_EQ(qzfi_build_enclosure_list_node("a", "b", nullptr, "d", "e", 1, 2, 3), nullptr);
    EXPECT_EQ(qzfi_build_enclosure_list_node("a", "b", "c", nullptr, "e", 1, 2, 3), nullptr);
    EXPECT_EQ(qzfi_build_enclosure_list_node("a", "b", "c", "d", nullptr, 1, 2, 3), nullptr);
}

TEST(HostList, holds_the_record_and_is_freed_in_two_steps) {
    std::string text = "text";
    char *const texts[] = {text.data()};
    qfi_host_list *const node = qzfi_build_host_list_node("name", texts, 1, "second");
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->next, nullptr);
    EXPECT_STREQ(node->host.name, "name");
    ASSERT_EQ(node->host.count, 1);
    expect_copied(node->host.texts[0], text.c_str());
    EXPECT_STREQ(node->host.provider_id, "second");
    EXPECT_EQ(qzfi_free_host_node(&node->host), 0u);
    free(node);
}

TEST(HostList, a_missing_argument_or_a_count_of_0_gives_null) {
    char *const texts[] = {nullptr};
    EXPECT_EQ(qzfi_build_host_list_node(nullptr, texts, 1, "second"), nullptr);
    EXPECT_EQ(qzfi_build_host_list_node("name", nullptr, 1, "second"), nullptr);
    EXPECT_EQ(qzfi_build_host_list_node("name", texts, 0, "second"), nullptr);
    EXPECT_EQ(qzfi_build_host_list_node("name", texts, 1, nullptr), nullptr);
}

TEST(GroupList, holds_the_record) {
    const Id source("uid"), member("member");
    qfi_group_node_list *const node =
        qzfi_build_group_nodelist_node(&source.record, &member.record, &properties, "provider", 5);
    ASSERT_NE(node, nullptr);
    expect_identity(node->group_node, source.record);
    ASSERT_NE(node->group_node.members, nullptr);
    expect_identity(*node->group_node.members, member.record);
    expect_properties(node->group_node, properties);
    EXPECT_STREQ(node->group_node.provider_id, "provider");
    EXPECT_EQ(node->group_node.value, 5u);
    expect_single(node, qzfi_free_group_nodelist_node);
}

TEST(NodeList, holds_the_record) {
    const Id source("uid");
    qfi_node_list *const node = qzfi_build_nodelist_node(&source.record, &properties, "provider");
    ASSERT_NE(node, nullptr);
    expect_identity(node->node, source.record);
    expect_properties(node->node, properties);
    EXPECT_STREQ(node->node.provider_id, "provider");
    expect_single(node, qzfi_free_nodelist_node);
}

TEST(NodeList, without_properties_has_zeros) {
    const Id source("uid");
    qfi_node_list *const node = qzfi_build_nodelist_node(&source.record, nullptr, "provider");
    ASSERT_NE(node, nullptr);
    expect_properties(node->node, {0, 0, 0, 0});
    expect_single(node, qzfi_free_nodelist_node);
}

TEST(NodeList, a_missing_argument_gives_null) {
    const Id source("uid");
    Id unnamed("");
    unnamed.record.uid = nullptr;
    EXPECT_EQ(qzfi_build_nodelist_node(nullptr, &properties, "provider"), nullptr);
    EXPECT_EQ(qzfi_build_nodelist_node(&unnamed.record, &properties, "provider"), nullptr);
    EXPECT_EQ(qzfi_build_nodelist_node(&source.record, &properties, nullptr), nullptr);
}

TEST(AssocList, holds_the_record_with_the_time_given_before_the_state) {
    const Id first("first"), second("second");
    const uint64_t time = UINT64_MAX;
    const uint32_t state = 7;
    qfi_assoc_list *const node =
        qzfi_build_assoc_list_node(&first.record, &second.record, &properties, "provider", "fim", time, state);
    ASSERT_NE(node, nullptr);
    expect_identity(node->assoc.first, first.record);
    expect_identity(node->assoc.second, second.record);
    for (const qfi_node *side : {&node->assoc.first, &node->assoc.second}) {
        expect_properties(*side, properties);
        EXPECT_STREQ(side->provider_id, "provider");
    }
    EXPECT_STREQ(node->assoc.fim_id, "fim");
    EXPECT_EQ(node->assoc.assoc_state, state);
    EXPECT_EQ(node->assoc.last_op_ts, time);
    expect_single(node, qzfi_free_assoc_list_node);
}

TEST(AssocList, without_properties_has_zeros) {
    const Id source("uid");
    qfi_assoc_list *const node =
        qzfi_build_assoc_list_node(&source.record, &source.record, nullptr, "provider", "fim", 1, 2);
    ASSERT_NE(node, nullptr);
    expect_properties(node->assoc.first, {0, 0, 0, 0});
    expect_properties(node->assoc.second, {0, 0, 0, 0});
    expect_single(node, qzfi_free_assoc_list_node);
}

TEST(AssocList, a_missing_argument_gives_null) {
    const Id id("uid");
    Id unnamed("");
    unnamed.record.uid = nullptr;
    EXPECT_EQ(qzfi_build_assoc_list_node(nullptr, &id.record, &properties, "provider", "fim", 1, 2), nullptr);
    EXPECT_EQ(qzfi_build_assoc_list_node(&unnamed.record, &id.record, &properties, "provider", "fim", 1, 2), nullptr);
    EXPECT_EQ(qzfi_build_assoc_list_node(&id.record, nullptr, &properties, "provider", "fim", 1, 2), nullptr);
    EXPECT_EQ(qzfi_build_assoc_list_node(&id.record, &unnamed.record, &properties, "provider", "fim", 1, 2), nullptr);
    EXPECT_EQ(qzfi_build_assoc_list_node(&id.record, &id.record, &properties, nullptr, "fim", 1, 2), nullptr);
    EXPECT_EQ(qzfi_build_assoc_list_node(&id.record, &id.record, &properties, "provider", nullptr, 1, 2), nullptr);
}

TEST(ProviderList, holds_the_record) {
    std::string id = "provider", a = "a", b = "b";
    const uint16_t four[] = {1, 2, 3, UINT16_MAX};
    char *const texts[] = {a.data(), b.data(), nullptr};
    qfi_provider_list *const node = qzfi_build_providerlist_node(id.c_str(), UINT64_MAX, UINT64_MAX - 1, four, texts);
    ASSERT_NE(node, nullptr);
    expect_copied(node->provider.provider_id, id.c_str());
    EXPECT_EQ(node->provider.hlevel, UINT64_MAX);
    EXPECT_EQ(node->provider.type, UINT64_MAX - 1);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(node->provider.four[i], four[i]);
    ASSERT_NE(node->provider.texts, nullptr);
    EXPECT_NE(node->provider.texts, texts);
    expect_copied(node->provider.texts[0], texts[0]);
    expect_copied(node->provider.texts[1], texts[1]);
    EXPECT_EQ(node->provider.texts[2], nullptr);
    expect_single(node, qzfi_free_providerlist_node);
}

TEST(ProviderList, without_the_optional_arguments_has_zeros_and_no_array) {
    qfi_provider_list *const node = qzfi_build_providerlist_node("provider", 1, 2, nullptr, nullptr);
    ASSERT_NE(node, nullptr);
    for (const uint16_t number : node->provider.four)
        EXPECT_EQ(number, 0);
    EXPECT_EQ(node->provider.texts, nullptr);
    expect_single(node, qzfi_free_providerlist_node);
}

TEST(ProviderList, an_empty_array_is_kept_as_one) {
    char *const texts[] = {nullptr};
    qfi_provider_list *const node = qzfi_build_providerlist_node("provider", 1, 2, nullptr, texts);
    ASSERT_NE(node, nullptr);
    ASSERT_NE(node->provider.texts, nullptr);
    EXPECT_EQ(node->provider.texts[0], nullptr);
    expect_single(node, qzfi_free_providerlist_node);
}

TEST(ProviderList, a_null_id_gives_null) {
    const uint16_t four[4] = {};
    char *const texts[] = {nullptr};
    EXPECT_EQ(qzfi_build_providerlist_node(nullptr, 1, 2, four, texts), nullptr);
}

} // namespace
