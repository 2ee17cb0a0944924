// Groups of nodes.
#include "samples.h"

using namespace samples;

namespace {

constexpr std::size_t many = 1000000; // a recursion this deep would overrun the stack

TEST(Group, is_built_of_copies) {
    const Id source("uid", "1"), member("member", "22");
    const std::string provider = "provider";
    qfi_group_node group{};
    ASSERT_EQ(qzfi_build_group_node(&group, &source.record, &member.record, &properties, provider.c_str(), UINT64_MAX),
              0u);
    expect_identity(group, source.record);
    ASSERT_NE(group.members, nullptr);
    EXPECT_NE(group.members, &member.record);
    expect_identity(*group.members, member.record);
    EXPECT_EQ(group.members->next, nullptr);
    expect_properties(group, properties);
    expect_copied(group.provider_id, provider.c_str());
    EXPECT_EQ(group.value, UINT64_MAX);
    expect_freed(group, qzfi_free_group_node);
}

TEST(Group, of_a_chain_of_three_holds_the_first_member) {
    const Id source("uid");
    Id first("first"), middle("middle"), last("last");
    first.record.next = &middle.record;
    middle.record.next = &last.record;
    qfi_group_node group{};
    ASSERT_EQ(qzfi_build_group_node(&group, &source.record, &first.record, &properties, "provider", 0), 0u);
    ASSERT_NE(group.members, nullptr);
    EXPECT_STREQ(group.members->uid, "first");
    EXPECT_EQ(group.members->next, nullptr);
    expect_freed(group, qzfi_free_group_node);
}

TEST(Group, without_properties_has_zeros) {
    const Id source("uid");
    auto group = dirty<qfi_group_node>();
    ASSERT_EQ(qzfi_build_group_node(&group, &source.record, &source.record, nullptr, "provider", 0), 0u);
    expect_properties(group, {0, 0, 0, 0});
    EXPECT_EQ(group.value, 0u);
    expect_freed(group, qzfi_free_group_node);
}

/// Every way to leave out a required argument.
template <class Try>
void leave_out_each(const Try &attempt) {
    const Id source("uid");
    Id unnamed(""), without_objid("uid");
    unnamed.record.uid = nullptr;
    without_objid.record.objid = nullptr;
    attempt(nullptr, &source.record, "provider");
    attempt(&unnamed.record, &source.record, "provider");
    attempt(&without_objid.record, &source.record, "provider");
    attempt(&source.record, nullptr, "provider");
    attempt(&source.record, &source.record, nullptr);
}

TEST(Group, a_missing_argument_is_refused_and_empties_the_record) {
    leave_out_each([](const qfi_nodeid *source, const qfi_nodeid *members, const char *provider) {
        const Id id("uid");
        qfi_group_node group{};
        ASSERT_EQ(qzfi_build_group_node(&group, &id.record, &id.record, &properties, "provider", 5), 0u);
        EXPECT_EQ(qzfi_build_group_node(&group, source, members, &properties, provider, 0), 3u);
        EXPECT_TRUE(owns_nothing(group));
        EXPECT_EQ(qzfi_build_group_node(&group, source, members, &properties, provider, 0), 3u);
    });
    const Id id("uid");
    EXPECT_EQ(qzfi_build_group_node(nullptr, &id.record, &id.record, &properties, "provider", 0), 3u);
}

TEST(Group, a_member_without_uid_or_object_id_is_refused_wherever_it_stands) {
    const Id source("uid");
    for (const bool is_uid_missing : {true, false}) {
        Id first("first"), bad("bad");
        (is_uid_missing ? static_cast<void>(bad.record.uid = nullptr) : static_cast<void>(bad.record.objid = nullptr));
        first.record.next = &bad.record;
        for (const qfi_nodeid *members : {&bad.record, &first.record}) {
            auto group = dirty<qfi_group_node>();
            EXPECT_EQ(qzfi_build_group_node(&group, &source.record, members, &properties, "provider", 0), 3u);
            EXPECT_TRUE(owns_nothing(group));
        }
    }
}

TEST(Group, a_further_member_that_cannot_be_copied_fails) {
    const Id source("uid"), of_no_bytes("last", "");
    Id first("first");
    first.record.next = const_cast<qfi_nodeid *>(&of_no_bytes.record);
    auto group = dirty<qfi_group_node>();
    EXPECT_EQ(qzfi_build_group_node(&group, &source.record, &first.record, &properties, "provider", 0), 5u);
    EXPECT_TRUE(owns_nothing(group));
}

TEST(Group, a_long_chain_of_members_is_taken) {
    const Id source("uid");
    std::vector<qfi_nodeid> members(many, source.record);
    for (std::size_t i = 1; i < many; ++i)
        members[i - 1].next = &members[i];
    qfi_group_node group{};
    ASSERT_EQ(qzfi_build_group_node(&group, &source.record, members.data(), &properties, "provider", 0), 0u);
    EXPECT_EQ(group.members->next, nullptr);
    expect_freed(group, qzfi_free_group_node);
}

TEST(Group, freeing_frees_every_member_of_a_long_chain) {
    qfi_group_node group{};
    for (std::size_t i = 0; i < many; ++i) {
        auto *const member = static_cast<qfi_nodeid *>(calloc(1, sizeof(qfi_nodeid)));
        ASSERT_NE(member, nullptr);
        *member = {strdup("member"), qzfi_get_objid("id", 2, 0), group.members};
        group.members = member;
    }
    expect_freed(group, qzfi_free_group_node);
}

TEST(Group, freeing_accepts_null) {
    EXPECT_EQ(qzfi_free_group_node(nullptr), 0u);
}

TEST(GroupList, a_missing_argument_gives_null) {
    leave_out_each([](const qfi_nodeid *source, const qfi_nodeid *members, const char *provider) {
        EXPECT_EQ(qzfi_build_group_nodelist_node(source, members, &properties, provider, 0), nullptr);
    });
}

} // namespace
