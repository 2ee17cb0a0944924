// Frozen-image methods, enclosures, hosts, and arrays of texts.
#include "samples.h"

using namespace samples;

namespace {

TEST(Fim, is_built_of_copies) {
    FimSource source;
    const std::string id = "id", params = "params", provider = "provider";
    auto fim = dirty<qfi_fim>();
    ASSERT_EQ(qzfi_build_fim_node(&fim, id.c_str(), &source.record, params.c_str(), provider.c_str()), 0u);
    expect_copied(fim.fim_id, id.c_str());
    EXPECT_EQ(fim.consistency, 0xfffffff1u);
    EXPECT_EQ(fim.type, 0xfffffff2u);
    EXPECT_EQ(fim.sync_type, 0xfffffff3u);
    EXPECT_EQ(fim.technology, 0xfffffff4u);
    EXPECT_EQ(fim.access_type, 0xfffffffffffffff5u);
    EXPECT_EQ(fim.restore_type, 0xfffffffffffffff6u);
    expect_copied(fim.vendor_defined_fimtype, source.type.c_str());
    expect_copied(fim.vendor_fim_version, source.version.c_str());
    expect_copied(fim.config_params, params.c_str());
    expect_copied(fim.provider_id, provider.c_str());
    expect_freed(fim, qzfi_free_fim_node);
}

TEST(Fim, with_only_the_required_texts_has_null_for_the_others) {
    const qfi_fim properties{};
    auto fim = dirty<qfi_fim>();
    ASSERT_EQ(qzfi_build_fim_node(&fim, "id", &properties, nullptr, "provider"), 0u);
    EXPECT_STREQ(fim.fim_id, "id");
    EXPECT_EQ(fim.vendor_defined_fimtype, nullptr);
    EXPECT_EQ(fim.vendor_fim_version, nullptr);
    EXPECT_EQ(fim.config_params, nullptr);
    EXPECT_STREQ(fim.provider_id, "provider");
    expect_freed(fim, qzfi_free_fim_node);
}

TEST(Fim, each_optional_text_is_copied_alone) {
    std::string text = "text";
    for (char *qfi_fim::*member : {&qfi_fim::vendor_defined_fimtype, &qfi_fim::vendor_fim_version}) {
        qfi_fim properties{};
        properties.*member = text.data();
        qfi_fim fim;
        ASSERT_EQ(qzfi_build_fim_node(&fim, "id", &properties, nullptr, "provider"), 0u);
        for (char *qfi_fim::*other : {&qfi_fim::vendor_defined_fimtype, &qfi_fim::vendor_fim_version})
            EXPECT_STREQ(fim.*other, other == member ? "text" : nullptr);
        EXPECT_EQ(fim.config_params, nullptr);
        expect_freed(fim, qzfi_free_fim_node);
    }
}

TEST(Fim, empty_texts_are_texts) {
    const qfi_fim properties{};
    qfi_fim fim;
    ASSERT_EQ(qzfi_build_fim_node(&fim, "", &properties, "", ""), 0u);
    EXPECT_STREQ(fim.fim_id, "");
    EXPECT_STREQ(fim.config_params, "");
    EXPECT_STREQ(fim.provider_id, "");
    expect_freed(fim, qzfi_free_fim_node);
}

TEST(Fim, ids_and_texts_of_the_properties_but_the_vendors_are_not_read) {
    FimSource source;
    source.record.fim_id = source.record.config_params = source.record.provider_id = reinterpret_cast<char *>(1);
    qfi_fim fim;
    ASSERT_EQ(qzfi_build_fim_node(&fim, "id", &source.record, nullptr, "provider"), 0u);
    EXPECT_STREQ(fim.fim_id, "id");
    EXPECT_EQ(fim.config_params, nullptr);
    EXPECT_STREQ(fim.provider_id, "provider");
    expect_freed(fim, qzfi_free_fim_node);
}

TEST(Fim, a_record_can_be_built_of_itself) {
    FimSource source;
    qfi_fim fim = source.record;
    ASSERT_EQ(qzfi_build_fim_node(&fim, "id", &fim, nullptr, "provider"), 0u);
    EXPECT_EQ(fim.restore_type, 0xfffffffffffffff6u);
    expect_copied(fim.vendor_fim_version, source.version.c_str());
    expect_freed(fim, qzfi_free_fim_node);
}

TEST(Fim, a_missing_argument_is_refused_and_the_record_left_alone) {
    const FimSource source;
    auto fim = dirty<qfi_fim>();
    EXPECT_EQ(qzfi_build_fim_node(nullptr, "id", &source.record, "params", "provider"), 3u);
    EXPECT_EQ(qzfi_build_fim_node(&fim, nullptr, &source.record, "params", "provider"), 3u);
    EXPECT_EQ(qzfi_build_fim_node(&fim, "id", nullptr, "params", "provider"), 3u);
    EXPECT_EQ(qzfi_build_fim_node(&fim, "id", &source.record, "params", nullptr), 3u);
    EXPECT_TRUE(is_dirty(fim));
}

TEST(Fim, freeing_accepts_null_and_an_empty_record) {
    EXPECT_EQ(qzfi_free_fim_node(nullptr), 0u);
    qfi_fim empty{};
    EXPECT_EQ(qzfi_free_fim_node(&empty), 0u);
}

TEST(Enclosure, is_built_of_copies) {
    const std::string texts[] = {"a", "b", "c", "d", "e"};
    auto enclosure = dirty<qfi_enclosure>();
    ASSERT_EQ(qzfi_build_enclosure_node(&enclosure, texts[0].c_str(), texts[1].c_str(), texts[2].c_str(),
                                        texts[3].c_str(), texts[4].c_str(), UINT64_MAX, UINT64_MAX - 1, UINT32_MAX),
              0u);
    expect_copied(enclosure.enclosure_id, texts[0].c_str());
    expect_copied(enclosure.name, texts[1].c_str());
    expect_copied(enclosure.vendor, texts[2].c_str());
    expect_copied(enclosure.product, texts[3].c_str());
    expect_copied(enclosure.provider_id, texts[4].c_str());
    EXPECT_EQ(enclosure.capacity, UINT64_MAX);
    EXPECT_EQ(enclosure.available, UINT64_MAX - 1);
    EXPECT_EQ(enclosure.state, UINT32_MAX);
    expect_freed(enclosure, qzfi_free_enclosure_node);
}

TEST(Enclosure, a_missing_argument_is_refused_and_the_record_left_alone) {
    auto record = dirty<qfi_enclosure>();
    EXPECT_EQ(qzfi_build_enclosure_node(nullptr, "a", "b", "c", "d", "e", 1, 2, 3), 3u);
    EXPECT_EQ(qzfi_build_enclosure_node(&record, nullptr, "b", "c", "d", "e", 1, 2, 3), 3u);
    EXPECT_EQ(qzfi_build_enclosure_node(&record, "a", nullptr, "c", "d", "e", 1, 2, 3), 3u);
    EXPECT_EQ(qzfi_build_enclosure_node(&record, "a", "b", nullptr, "d", "e", 1, 2, 3), 3u);
    EXPECT_EQ(qzfi_build_enclosure_node(&record, "a", "b", "c", nullptr, "e", 1, 2, 3), 3u);
    EXPECT_EQ(qzfi_build_enclosure_node(&record, "a", "b", "c", "d", nullptr, 1, 2, 3), 3u);
    EXPECT_TRUE(is_dirty(record));
}

TEST(Enclosure, freeing_accepts_null_and_keeps_the_numbers) {
    EXPECT_EQ(qzfi_free_enclosure_node(nullptr), 0u);
    qfi_enclosure enclosure;
    ASSERT_EQ(qzfi_build_enclosure_node(&enclosure, "a", "b", "c", "d", "e", 1, 2, 3), 0u);
    expect_freed(enclosure, qzfi_free_enclosure_node);
    EXPECT_EQ(enclosure.capacity, 1u);
    EXPECT_EQ(enclosure.available, 2u);
    EXPECT_EQ(enclosure.state, 3u);
}

TEST(Host, is_built_of_copies) {
    std::string name = "name", first = "first", last = "last", second = "second";
    char *const texts[] = {first.data(), last.data()};
    auto host = dirty<qfi_host>();
    ASSERT_EQ(qzfi_build_host_node(&host, name.c_str(), texts, 2, second.c_str()), 0u);
    expect_copied(host.name, name.c_str());
    expect_copied(host.provider_id, second.c_str());
    ASSERT_EQ(host.count, 2);
    EXPECT_NE(host.texts, texts);
    expect_copied(host.texts[0], texts[0]);
    expect_copied(host.texts[1], texts[1]);
    expect_freed(host, qzfi_free_host_node);
}

TEST(Host, only_as_many_texts_as_counted_are_read_and_null_ones_stay_null) {
    std::string text = "text";
    char *const texts[] = {nullptr, text.data(), reinterpret_cast<char *>(1)};
    qfi_host host;
    ASSERT_EQ(qzfi_build_host_node(&host, "name", texts, 2, "second"), 0u);
    ASSERT_EQ(host.count, 2);
    EXPECT_EQ(host.texts[0], nullptr);
    EXPECT_STREQ(host.texts[1], "text");
    expect_freed(host, qzfi_free_host_node);
}

TEST(Host, a_count_below_one_copies_no_text_and_is_stored) {
    char *const texts[] = {reinterpret_cast<char *>(1)};
    for (const int32_t count : {0, -1, INT32_MIN}) {
        qfi_host host;
        ASSERT_EQ(qzfi_build_host_node(&host, "name", texts, count, "second"), 0u);
        EXPECT_EQ(host.count, count);
        EXPECT_STREQ(host.name, "name");
        EXPECT_STREQ(host.provider_id, "second");
        expect_freed(host, qzfi_free_host_node);
    }
}

TEST(Host, a_missing_argument_is_refused_and_the_record_left_alone) {
    char *const texts[] = {nullptr};
    auto host = dirty<qfi_host>();
    EXPECT_EQ(qzfi_build_host_node(nullptr, "name", texts, 1, "second"), 3u);
    EXPECT_EQ(qzfi_build_host_node(&host, nullptr, texts, 1, "second"), 3u);
    EXPECT_EQ(qzfi_build_host_node(&host, "name", nullptr, 1, "second"), 3u);
    EXPECT_EQ(qzfi_build_host_node(&host, "name", texts, 1, nullptr), 3u);
    EXPECT_TRUE(is_dirty(host));
}

TEST(Host, freeing_refuses_null_and_copes_with_a_count_without_an_array) {
    EXPECT_EQ(qzfi_free_host_node(nullptr), 3u);
    qfi_host host{nullptr, nullptr, 5, nullptr};
    EXPECT_EQ(qzfi_free_host_node(&host), 0u);
}

TEST(CopyArray, null_gives_null) {
    EXPECT_EQ(QZFI_COPYARRAY(nullptr), nullptr);
}

TEST(CopyArray, of_only_the_null_entry_is_a_new_array_of_it) {
    char *const texts[] = {nullptr};
    char **const copy = QZFI_COPYARRAY(texts);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, texts);
    EXPECT_EQ(copy[0], nullptr);
    free(copy);
}

TEST(CopyArray, copies_each_text_and_ends_with_null) {
    std::string a = "a", empty;
    char *const texts[] = {a.data(), empty.data(), a.data(), nullptr};
    char **const copy = QZFI_COPYARRAY(texts);
    ASSERT_NE(copy, nullptr);
    for (int i = 0; i < 3; ++i) {
        expect_copied(copy[i], texts[i]);
        free(copy[i]);
    }
    EXPECT_EQ(copy[3], nullptr);
    free(copy);
}

} // namespace
