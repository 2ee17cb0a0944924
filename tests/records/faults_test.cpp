// Every allocation of every builder fails in turn. Memory lost in a case fails it under the address sanitizer.
#include "samples.h"

#include <iterator>

#include "support/fault.h"

using namespace samples;
using fault::Call;
using fault::Trial;

namespace {

/// A record builder that gives all or nothing.
template <class Record, class Build>
void expect_all_or_nothing(uint32_t (*release)(Record *), const Build &build) {
    fault::for_each(Call::allocation, [&](Trial &trial) {
        auto record = dirty<Record>();
        trial.arm();
        const uint32_t status = build(&record);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5u : 0u);
        EXPECT_EQ(owns_nothing(record), trial.fired());
        expect_freed(record, release);
    });
}

/// A list builder that gives a node or null.
template <class Node, class Build>
void expect_node_or_null(uint32_t (*release)(Node *), const Build &build) {
    fault::for_each(Call::allocation, [&](Trial &trial) {
        trial.arm();
        Node *const node = build();
        trial.disarm();
        EXPECT_EQ(node == nullptr, trial.fired());
        EXPECT_EQ(release(node), 0u);
    });
}

/// A source, and a chain of three members.
struct Ids {
    Id source{"uid"}, first{"first"}, middle{"middle"}, last{"last"};

    Ids() {
        first.record.next = &middle.record;
        middle.record.next = &last.record;
    }
};

TEST(RecordFaults, fim) {
    const FimSource source;
    expect_all_or_nothing(qzfi_free_fim_node, [&](qfi_fim *fim) {
        return qzfi_build_fim_node(fim, "id", &source.record, "params", "provider");
    });
    expect_node_or_null(qzfi_free_fim_list_node,
                        [&] { return qzfi_build_fim_list_node("id", &source.record, "params", "provider"); });
}

TEST(RecordFaults, an_enclosure_keeps_the_texts_that_were_copied) {
    char *qfi_enclosure::*const members[] = {&qfi_enclosure::enclosure_id, &qfi_enclosure::name, &qfi_enclosure::vendor,
                                             &qfi_enclosure::product, &qfi_enclosure::provider_id};
    const char *const texts[] = {"a", "b", "c", "d", "e"};
    fault::for_each(Call::allocation, [&](Trial &trial) {
        auto record = dirty<qfi_enclosure>();
        trial.arm();
        const uint32_t status =
            qzfi_build_enclosure_node(&record, texts[0], texts[1], texts[2], texts[3], texts[4], 1, 2, 3);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5u : 0u);
        for (int i = 0; i < 5; ++i)
            EXPECT_STREQ(record.*members[i], !trial.fired() || i + 1 < trial.nth() ? texts[i] : nullptr);
        expect_freed(record, qzfi_free_enclosure_node);
    });
}

TEST(RecordFaults, an_enclosure_list_node_keeps_nothing) {
    expect_node_or_null(qzfi_free_enclosure_list_node,
                        [] { return qzfi_build_enclosure_list_node("a", "b", "c", "d", "e", 1, 2, 3); });
}

/// Which allocation of building a host makes what.
enum HostAllocation { host_name = 1, host_array, host_first_text, host_last_text, host_second };

/// What a host is like after an allocation failed that does not fail its builder.
void expect_usable_host(const qfi_host &host, int failed, const char *const (&texts)[2]) {
    EXPECT_STREQ(host.name, "name");
    EXPECT_STREQ(host.provider_id, "second");
    if (failed == host_array) {
        EXPECT_EQ(host.texts, nullptr);
        EXPECT_EQ(host.count, 0);
        return;
    }
    ASSERT_NE(host.texts, nullptr);
    EXPECT_EQ(host.count, 2);
    EXPECT_STREQ(host.texts[0], failed == host_first_text ? nullptr : texts[0]);
    EXPECT_STREQ(host.texts[1], failed == host_last_text ? nullptr : texts[1]);
}

TEST(RecordFaults, a_host_does_without_texts_but_not_without_name_and_second_text) {
    char first[] = "first", last[] = "last";
    char *const texts[] = {first, last};
    fault::for_each(Call::allocation, [&](Trial &trial) {
        auto host = dirty<qfi_host>();
        trial.arm();
        const uint32_t status = qzfi_build_host_node(&host, "name", texts, 2, "second");
        trial.disarm();
        if (trial.fired() && (trial.nth() == host_name || trial.nth() == host_second)) {
            EXPECT_EQ(status, 5u);
            EXPECT_TRUE(owns_nothing(host));
        } else {
            EXPECT_EQ(status, 0u);
            expect_usable_host(host, trial.nth(), {first, last});
        }
        expect_freed(host, qzfi_free_host_node);
    });
}

TEST(RecordFaults, a_host_list_node_is_like_its_host) {
    char first[] = "first", last[] = "last";
    char *const texts[] = {first, last};
    fault::for_each(Call::allocation, [&](Trial &trial) {
        trial.arm();
        qfi_host_list *const node = qzfi_build_host_list_node("name", texts, 2, "second");
        trial.disarm();
        const int of_host = trial.nth() - 1; // the node itself comes first
        if (trial.fired() && (of_host < host_array || of_host == host_second)) {
            EXPECT_EQ(node, nullptr);
            return;
        }
        ASSERT_NE(node, nullptr);
        expect_usable_host(node->host, of_host, {first, last});
        qzfi_free_host_node(&node->host);
        free(node);
    });
}

TEST(RecordFaults, node_id) {
    const Ids ids;
    expect_all_or_nothing(qzfi_free_nodeid_node,
                          [&](qfi_nodeid *id) { return qzfi_build_nodeid_node(&ids.source.record, id); });
}

TEST(RecordFaults, group_with_all_members) {
    const Ids ids;
    expect_all_or_nothing(qzfi_free_group_node, [&](qfi_group_node *group) {
        return qzfi_build_group_node(group, &ids.source.record, &ids.first.record, &properties, "provider", 5);
    });
    expect_node_or_null(qzfi_free_group_nodelist_node, [&] {
        return qzfi_build_group_nodelist_node(&ids.source.record, &ids.first.record, &properties, "provider", 5);
    });
}

TEST(RecordFaults, a_group_copies_every_member) {
    const Ids ids;
    int allocations_of_one = 0, allocations_of_three = 0;
    const auto count = [&](const qfi_nodeid *members, int &allocations) {
        fault::for_each(Call::allocation, [&](Trial &trial) {
            qfi_group_node group{};
            trial.arm();
            qzfi_build_group_node(&group, &ids.source.record, members, &properties, "provider", 5);
            trial.disarm();
            allocations += trial.fired() ? 1 : 0;
            qzfi_free_group_node(&group);
        });
    };
    count(&ids.last.record, allocations_of_one);
    count(&ids.first.record, allocations_of_three);
    EXPECT_EQ(allocations_of_three - allocations_of_one, 2 * 3); // uid, object id and its bytes of two more
}

TEST(RecordFaults, node) {
    const Ids ids;
    expect_all_or_nothing(qzfi_free_node, [&](qfi_node *node) {
        return qzfi_build_node(node, &ids.source.record, &properties, "provider");
    });
    expect_node_or_null(qzfi_free_nodelist_node,
                        [&] { return qzfi_build_nodelist_node(&ids.source.record, &properties, "provider"); });
}

TEST(RecordFaults, assoc) {
    const Ids ids;
    expect_all_or_nothing(qzfi_free_assoc_node, [&](qfi_assoc *assoc) {
        return qzfi_build_assoc_node(assoc, &ids.first.record, &ids.last.record, &properties, "provider", "fim", 1, 2);
    });
    expect_node_or_null(qzfi_free_assoc_list_node, [&] {
        return qzfi_build_assoc_list_node(&ids.first.record, &ids.last.record, &properties, "provider", "fim", 1, 2);
    });
}

/// The array holds the first texts only.
void expect_first(char *const *array, char *const *texts, int number) {
    for (int i = 0; i < number; ++i)
        EXPECT_STREQ(array[i], texts[i]);
    EXPECT_EQ(array[number], nullptr);
}

TEST(RecordFaults, a_copied_array_ends_where_a_text_could_not_be_copied) {
    char a[] = "a", b[] = "b", c[] = "c";
    char *const texts[] = {a, b, c, nullptr};
    fault::for_each(Call::allocation, [&](Trial &trial) {
        trial.arm();
        char **const copy = QZFI_COPYARRAY(texts);
        trial.disarm();
        if (trial.fired() && trial.nth() == 1) {
            EXPECT_EQ(copy, nullptr);
            return;
        }
        ASSERT_NE(copy, nullptr);
        expect_first(copy, texts, trial.fired() ? trial.nth() - 2 : 3);
        for (char **text = copy; *text != nullptr; ++text)
            free(*text);
        free(copy);
    });
}

TEST(RecordFaults, a_provider_does_with_fewer_texts_but_not_without_the_array) {
    char a[] = "a", b[] = "b", c[] = "c";
    char *const texts[] = {a, b, c, nullptr};
    const int before_texts = 3; // the node, its id and the array
    fault::for_each(Call::allocation, [&](Trial &trial) {
        trial.arm();
        qfi_provider_list *const node = qzfi_build_providerlist_node("provider", 1, 2, nullptr, texts);
        trial.disarm();
        if (trial.fired() && trial.nth() <= before_texts) {
            EXPECT_EQ(node, nullptr);
            return;
        }
        ASSERT_NE(node, nullptr);
        EXPECT_STREQ(node->provider.provider_id, "provider");
        expect_first(node->provider.texts, texts, trial.fired() ? trial.nth() - before_texts - 1 : 3);
        EXPECT_EQ(qzfi_free_providerlist_node(node), 0u);
    });
}

TEST(RecordFaults, building_again_succeeds_after_a_failure) {
    const FimSource source;
    qfi_fim fim{};
    {
        const fault::Armed armed(Call::allocation, 3);
        EXPECT_EQ(qzfi_build_fim_node(&fim, "id", &source.record, "params", "provider"), 5u);
    }
    EXPECT_EQ(qzfi_build_fim_node(&fim, "id", &source.record, "params", "provider"), 0u);
    expect_freed(fim, qzfi_free_fim_node);
}

} // namespace
