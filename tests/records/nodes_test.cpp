// Node ids, nodes and associations.
#include "samples.h"

using namespace samples;

namespace {

TEST(NodeId, is_built_of_copies_and_keeps_its_link) {
    const Id source("uid");
    qfi_nodeid other{};
    qfi_nodeid id{reinterpret_cast<char *>(1), reinterpret_cast<qfi_objid_t *>(1), &other};
    ASSERT_EQ(qzfi_build_nodeid_node(&source.record, &id), 0u);
    expect_identity(id, source.record);
    EXPECT_EQ(id.next, &other);
    expect_freed(id, qzfi_free_nodeid_node);
    EXPECT_EQ(id.next, &other);
}

/// Every id that cannot be built from: none, one without uid, one without object id.
template <class Try>
void with_each_incomplete_source(const Try &attempt) {
    Id without_uid(""), without_objid("uid");
    without_uid.record.uid = nullptr;
    without_objid.record.objid = nullptr;
    for (const qfi_nodeid *source :
         {static_cast<const qfi_nodeid *>(nullptr), static_cast<const qfi_nodeid *>(&without_uid.record),
          static_cast<const qfi_nodeid *>(&without_objid.record)})
        attempt(source);
}

TEST(NodeId, a_missing_argument_is_refused_and_the_record_left_alone) {
    const Id source("uid");
    EXPECT_EQ(qzfi_build_nodeid_node(&source.record, nullptr), 3u);
    with_each_incomplete_source([](const qfi_nodeid *incomplete) {
        auto id = dirty<qfi_nodeid>();
        EXPECT_EQ(qzfi_build_nodeid_node(incomplete, &id), 3u);
        EXPECT_TRUE(is_dirty(id));
    });
}

TEST(NodeId, an_object_id_that_cannot_be_copied_fails) {
    const Id of_no_bytes("uid", "");
    qfi_nodeid id = dirty<qfi_nodeid>();
    EXPECT_EQ(qzfi_build_nodeid_node(&of_no_bytes.record, &id), 5u);
    EXPECT_TRUE(owns_nothing(id));
}

TEST(NodeId, an_object_id_too_long_to_be_shared_is_copied) {
    const Id source("uid", std::string(5000, 'x'));
    qfi_nodeid id;
    ASSERT_EQ(qzfi_build_nodeid_node(&source.record, &id), 0u);
    expect_identity(id, source.record);
    expect_freed(id, qzfi_free_nodeid_node);
}

TEST(NodeId, freeing_accepts_null_and_leaves_shared_object_ids_alone) {
    EXPECT_EQ(qzfi_free_nodeid_node(nullptr), 0u);
    qfi_objid_t *const shared = qzfi_get_objid("abc", 3, QFI_OID_INTERN);
    ASSERT_NE(shared, nullptr);
    qfi_nodeid id{strdup("uid"), shared, nullptr};
    expect_freed(id, qzfi_free_nodeid_node);
    EXPECT_EQ(std::memcmp(shared->vid_name, "abc", 3), 0);
    EXPECT_EQ(qzfi_get_objid("abc", 3, QFI_OID_INTERN), shared);
}

TEST(Node, is_built_of_copies) {
    const Id source("uid");
    const std::string provider = "provider";
    auto node = dirty<qfi_node>();
    ASSERT_EQ(qzfi_build_node(&node, &source.record, &properties, provider.c_str()), 0u);
    expect_identity(node, source.record);
    expect_properties(node, properties);
    expect_copied(node.provider_id, provider.c_str());
    expect_freed(node, qzfi_free_node);
}

TEST(Node, without_properties_keeps_the_records_own) {
    const Id source("uid");
    const qfi_node_props own{1, 2, 3, 4};
    qfi_node node{nullptr, nullptr, 1, 2, 3, 4, nullptr};
    ASSERT_EQ(qzfi_build_node(&node, &source.record, nullptr, "provider"), 0u);
    expect_properties(node, own);
    expect_freed(node, qzfi_free_node);
}

TEST(Node, a_missing_argument_is_refused_and_the_record_left_alone) {
    const Id source("uid");
    auto node = dirty<qfi_node>();
    EXPECT_EQ(qzfi_build_node(nullptr, &source.record, &properties, "provider"), 3u);
    EXPECT_EQ(qzfi_build_node(&node, &source.record, &properties, nullptr), 3u);
    with_each_incomplete_source([&](const qfi_nodeid *incomplete) {
        EXPECT_EQ(qzfi_build_node(&node, incomplete, &properties, "provider"), 3u);
    });
    EXPECT_TRUE(is_dirty(node));
}

TEST(Node, freeing_accepts_null) {
    EXPECT_EQ(qzfi_free_node(nullptr), 0u);
}

TEST(Assoc, is_built_of_copies_with_properties_and_provider_in_both_nodes) {
    const Id first("first", "1"), second("second", "22");
    const std::string provider = "provider", fim = "fim";
    auto assoc = dirty<qfi_assoc>();
    ASSERT_EQ(qzfi_build_assoc_node(&assoc, &first.record, &second.record, &properties, provider.c_str(), fim.c_str(),
                                    UINT32_MAX, UINT64_MAX - 1),
              0u);
    expect_identity(assoc.first, first.record);
    expect_identity(assoc.second, second.record);
    for (const qfi_node *node : {&assoc.first, &assoc.second}) {
        expect_properties(*node, properties);
        expect_copied(node->provider_id, provider.c_str());
    }
    EXPECT_NE(assoc.first.provider_id, assoc.second.provider_id);
    expect_copied(assoc.fim_id, fim.c_str());
    EXPECT_EQ(assoc.assoc_state, UINT32_MAX);
    EXPECT_EQ(assoc.last_op_ts, UINT64_MAX - 1);
    expect_freed(assoc, qzfi_free_assoc_node);
}

TEST(Assoc, without_properties_keeps_those_of_its_nodes) {
    const Id source("uid");
    qfi_assoc assoc{};
    assoc.first.hlevel = 7;
    assoc.second.size = 8;
    ASSERT_EQ(qzfi_build_assoc_node(&assoc, &source.record, &source.record, nullptr, "provider", "fim", 1, 2), 0u);
    expect_properties(assoc.first, {0, 0, 7, 0});
    expect_properties(assoc.second, {0, 0, 0, 8});
    expect_freed(assoc, qzfi_free_assoc_node);
}

TEST(Assoc, a_missing_argument_is_refused_and_the_record_left_alone) {
    const Id id("uid");
    auto assoc = dirty<qfi_assoc>();
    EXPECT_EQ(qzfi_build_assoc_node(nullptr, &id.record, &id.record, &properties, "provider", "fim", 1, 2), 3u);
    EXPECT_EQ(qzfi_build_assoc_node(&assoc, &id.record, &id.record, &properties, nullptr, "fim", 1, 2), 3u);
    EXPECT_EQ(qzfi_build_assoc_node(&assoc, &id.record, &id.record, &properties, "provider", nullptr, 1, 2), 3u);
    with_each_incomplete_source([&](const qfi_nodeid *incomplete) {
        EXPECT_EQ(qzfi_build_assoc_node(&assoc, incomplete, &id.record, &properties, "provider", "fim", 1, 2), 3u);
        EXPECT_EQ(qzfi_build_assoc_node(&assoc, &id.record, incomplete, &properties, "provider", "fim", 1, 2), 3u);
    });
    EXPECT_TRUE(is_dirty(assoc));
}

TEST(Assoc, a_second_source_that_cannot_be_copied_leaves_nothing_of_the_first) {
    const Id first("first"), of_no_bytes("second", "");
    auto assoc = dirty<qfi_assoc>();
    EXPECT_EQ(qzfi_build_assoc_node(&assoc, &first.record, &of_no_bytes.record, &properties, "provider", "fim", 1, 2),
              5u);
    EXPECT_TRUE(owns_nothing(assoc));
}

TEST(Assoc, freeing_accepts_null) {
    EXPECT_EQ(qzfi_free_assoc_node(nullptr), 0u);
}

} // namespace
