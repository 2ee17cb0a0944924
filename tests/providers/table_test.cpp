// What each plugin says of itself, and how it treats what is no job.
#include "provider_support.h"

namespace {

using namespace providers;

struct Row {
    const char *id;
    uint64_t hlevel;
    uint32_t consistency, technology;
};

class Table : public testing::TestWithParam<Row> {
protected:
    const Plugin plugin{GetParam().id};
};

TEST_P(Table, says_who_it_is_and_offers_every_operation) {
    EXPECT_STREQ(plugin->provider_id, GetParam().id);
    EXPECT_STREQ(plugin->fim_id, GetParam().id);
    EXPECT_STRNE(plugin->description, "");
    EXPECT_EQ(plugin->size, sizeof(qfi_provider_ops));
    EXPECT_EQ(plugin->version, uint64_t{QFI_API_VERSION});
    EXPECT_EQ(plugin->hlevel, GetParam().hlevel);
    EXPECT_EQ(plugin->consistency, GetParam().consistency);
    EXPECT_EQ(plugin->technology, GetParam().technology);
    EXPECT_EQ(plugin->release.error_mark, nullptr);
    EXPECT_EQ(plugin->release.message_mark, nullptr);
    EXPECT_NE(plugin->probe, nullptr);
    EXPECT_NE(plugin->split, nullptr);
    EXPECT_NE(plugin->copy_out, nullptr);
    EXPECT_NE(plugin->resync, nullptr);
    EXPECT_NE(plugin->remove, nullptr);
}

TEST_P(Table, the_table_is_the_same_on_every_call) {
    EXPECT_EQ(Plugin(GetParam().id).get(), plugin.get());
}

TEST_P(Table, a_probe_of_nothing_is_refused) {
    qfi_probe result{};
    result.size = sizeof(result);
    EXPECT_EQ(plugin->probe(-1, -1, "", 0, &result), QFI_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(plugin->probe(Directory("/tmp"), -1, "", 0, nullptr), QFI_STATUS_INVALID_ARGUMENT);
    result.size = offsetof(qfi_probe, entries) - 1;
    EXPECT_EQ(plugin->probe(Directory("/tmp"), -1, "", 0, &result), QFI_STATUS_INVALID_ARGUMENT);
}

TEST_P(Table, a_probe_of_an_earlier_kit_is_filled_in_as_far_as_it_goes) {
    qfi_probe result{};
    result.size = offsetof(qfi_probe, entries);
    result.entries = result.bytes = 0x5a5a5a5a;
    EXPECT_EQ(plugin->probe(Directory("/tmp"), -1, "", 0, &result), QFI_STATUS_OK);
    EXPECT_EQ(result.size, offsetof(qfi_probe, entries));
    EXPECT_NE(result.combo_class, 0);
    EXPECT_EQ(result.entries, 0x5a5a5a5au);
    EXPECT_EQ(result.bytes, 0x5a5a5a5au);
}

TEST_P(Table, names_that_leave_the_directory_are_refused_by_every_operation) {
    for (const char *name : {"", ".", "..", "a/b", "/", "../a"}) {
        Job job("/tmp", "/tmp", name);
        for (const auto operation : {plugin->split, plugin->copy_out, plugin->resync, plugin->remove})
            EXPECT_EQ(operation(&job), QFI_STATUS_INVALID_ARGUMENT) << name;
    }
}

TEST_P(Table, jobs_of_unknown_size_are_refused) {
    Job job("/tmp", "/tmp", "name");
    (&job)->size = sizeof(qfi_provider_job) - 1;
    for (const auto operation : {plugin->split, plugin->copy_out, plugin->resync, plugin->remove}) {
        EXPECT_EQ(operation(nullptr), QFI_STATUS_INVALID_ARGUMENT);
        EXPECT_EQ(operation(&job), QFI_STATUS_INVALID_ARGUMENT);
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Table,
                         testing::Values(Row{"btrfs", 300, QFI_CONSISTENCY_ATOMIC, QFI_TECHNOLOGY_SNAPSHOT},
                                         Row{"reflink", 200, QFI_CONSISTENCY_PER_FILE, QFI_TECHNOLOGY_CLONE},
                                         Row{"copy", 100, QFI_CONSISTENCY_FUZZY, QFI_TECHNOLOGY_COPY}),
                         [](const auto &row) { return std::string(row.param.id); });

} // namespace
