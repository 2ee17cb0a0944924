#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "support/fault.h"

namespace {

/// A table of some buckets, which a test ends as it likes.
qzfi_hash_table *make_table(uint32_t count) {
    qzfi_hash_table *table = nullptr;
    EXPECT_EQ(qzfi_init_hash_table(&table, count), 0u);
    return table;
}

uint32_t insert(qzfi_hash_table *table, const std::string &key, const std::string &value) {
    return qzfi_insert_hash(table, key.data(), key.size(), value.data(), value.size());
}

/// The value of a key, or the status in brackets.
std::string find(qzfi_hash_table *table, const std::string &key) {
    char *value = nullptr;
    uint64_t length = 0;
    const uint32_t status = qzfi_find_hash(table, key.data(), key.size(), &value, &length);
    if (status != 0)
        return "<" + std::to_string(status) + ">";
    EXPECT_EQ(length, strlen(value));
    return value;
}

/// Deletes a key and frees the texts that deletion leaves.
uint32_t delete_whole(qzfi_hash_table *table, const std::string &key) {
    const qzfi_hash_entry *entry = table->buckets[qzfi_hash(key.data(), key.size(), table->count)];
    while (entry != nullptr && entry->key != key)
        entry = entry->next;
    char *key_copy = entry != nullptr ? entry->key : nullptr;
    char *value = entry != nullptr ? entry->value : nullptr;
    const uint32_t status = qzfi_delete_hash(table, key.data(), key.size());
    free(key_copy);
    free(value);
    return status;
}

TEST(Hash, known_keys_have_known_hashes) {
    const struct {
        std::string key;
        uint32_t state;
    } rows[] = {
        {"a", 89394430},           {"abc", 3877524939},   {"\x80", 4205572895},
        {"\xff\xfe", 2598621150},  {{"\0", 1}, 89394335}, {"provider/volume-17", 3279770580},
        {{"a\0b", 3}, 4107963980},
    };
    for (const auto &row : rows)
        for (const uint32_t buckets : {UINT32_MAX, 0x80000000u, 1000u, 64u, 10u, 7u, 2u})
            EXPECT_EQ(qzfi_hash(row.key.data(), row.key.size(), buckets), row.state % buckets) << row.key;
    EXPECT_EQ(qzfi_hash("abc", 3, 7), 1u);
    EXPECT_EQ(qzfi_hash("abc", 3, 1000), 939u);
    EXPECT_EQ(qzfi_hash("provider/volume-17", 18, 1000), 580u);
}

TEST(Hash, bytes_from_0x80_on_count_with_their_sign) {
    EXPECT_EQ(qzfi_hash("\x80", 1, UINT32_MAX), 4205572895u);
    EXPECT_NE(qzfi_hash("\x80", 1, UINT32_MAX), 89394207u); // what an unsigned byte would give
}

TEST(Hash, any_zero_argument_gives_all_ones) {
    EXPECT_EQ(qzfi_hash(nullptr, 3, 7), UINT32_MAX);
    EXPECT_EQ(qzfi_hash("abc", 0, 7), UINT32_MAX);
    EXPECT_EQ(qzfi_hash("abc", 3, 0), UINT32_MAX);
}

TEST(Hash, one_bucket_takes_every_key) {
    for (const char *key : {"a", "abc", "\xff", "another"})
        EXPECT_EQ(qzfi_hash(key, strlen(key), 1), 0u);
}

TEST(HashTable, a_new_one_has_the_count_and_empty_buckets) {
    qzfi_hash_table *table = make_table(5);
    EXPECT_EQ(table->count, 5u);
    for (int bucket = 0; bucket < 5; ++bucket)
        EXPECT_EQ(table->buckets[bucket], nullptr);
    EXPECT_EQ(qzfi_deinit_hash_table(table, 5), 0u);
}

TEST(HashTable, init_refuses_a_null_result_and_no_buckets) {
    auto *untouched = reinterpret_cast<qzfi_hash_table *>(8);
    qzfi_hash_table *table = untouched;
    EXPECT_EQ(qzfi_init_hash_table(nullptr, 1), 3u);
    EXPECT_EQ(qzfi_init_hash_table(&table, 0), 3u);
    EXPECT_EQ(table, untouched);
}

TEST(HashTable, an_entry_holds_copies_and_lengths_as_given) {
    qzfi_hash_table *table = make_table(7);
    const std::string key = "abc";
    const std::string value = "value";
    ASSERT_EQ(insert(table, key, value), 0u);
    const qzfi_hash_entry *entry = table->buckets[1];
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->key, "abc");
    EXPECT_NE(entry->key, key.data());
    EXPECT_EQ(entry->key_length, 3u);
    EXPECT_STREQ(entry->value, "value");
    EXPECT_NE(entry->value, value.data());
    EXPECT_EQ(entry->value_length, 5u);
    EXPECT_EQ(entry->next, nullptr);
    EXPECT_EQ(qzfi_deinit_hash_table(table, 7), 0u);
}

TEST(HashTable, find_gives_the_own_value_not_a_copy) {
    qzfi_hash_table *table = make_table(7);
    insert(table, "abc", "value");
    char *value = nullptr;
    uint64_t length = 0;
    EXPECT_EQ(qzfi_find_hash(table, "abc", 3, &value, &length), 0u);
    EXPECT_EQ(value, table->buckets[1]->value);
    EXPECT_EQ(length, 5u);
    qzfi_deinit_hash_table(table, 7);
}

TEST(HashTable, a_missing_key_is_16_and_leaves_the_results_untouched) {
    qzfi_hash_table *table = make_table(1);
    insert(table, "abc", "value");
    char other[] = "other";
    char *value = other;
    uint64_t length = 99;
    for (const char *key : {"abd", "ab", "abcd"})
        EXPECT_EQ(qzfi_find_hash(table, key, strlen(key), &value, &length), 16u);
    EXPECT_EQ(value, other);
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(qzfi_delete_hash(table, "abd", 3), 16u);
    qzfi_deinit_hash_table(table, 1);
}

TEST(HashTable, a_later_entry_shadows_an_earlier_one_until_deleted) {
    qzfi_hash_table *table = make_table(3);
    insert(table, "key", "first");
    insert(table, "key", "second");
    EXPECT_EQ(find(table, "key"), "second");
    EXPECT_EQ(delete_whole(table, "key"), 0u);
    EXPECT_EQ(find(table, "key"), "first");
    EXPECT_EQ(delete_whole(table, "key"), 0u);
    EXPECT_EQ(find(table, "key"), "<16>");
    EXPECT_EQ(qzfi_delete_hash(table, "key", 3), 16u);
    qzfi_deinit_hash_table(table, 3);
}

TEST(HashTable, entries_are_pushed_at_the_head_and_taken_out_anywhere) {
    for (const char *deleted : {"one", "two", "three"}) {
        qzfi_hash_table *table = make_table(1);
        for (const char *key : {"one", "two", "three"})
            insert(table, key, key);
        EXPECT_STREQ(table->buckets[0]->key, "three");
        EXPECT_STREQ(table->buckets[0]->next->next->key, "one");
        EXPECT_EQ(delete_whole(table, deleted), 0u);
        for (const char *key : {"one", "two", "three"})
            EXPECT_EQ(find(table, key), strcmp(key, deleted) == 0 ? "<16>" : key);
        qzfi_deinit_hash_table(table, 1);
    }
}

TEST(HashTable, delete_frees_the_record_only) {
    qzfi_hash_table *table = make_table(1);
    insert(table, "key", "value");
    char *key = table->buckets[0]->key;
    char *value = table->buckets[0]->value;
    EXPECT_EQ(qzfi_delete_hash(table, "key", 3), 0u);
    EXPECT_EQ(table->buckets[0], nullptr);
    EXPECT_STREQ(key, "key");
    EXPECT_STREQ(value, "value");
    free(key);
    free(value);
    qzfi_deinit_hash_table(table, 1);
}

TEST(HashTable, a_null_value_stays_null_with_its_length) {
    qzfi_hash_table *table = make_table(4);
    EXPECT_EQ(qzfi_insert_hash(table, "key", 3, nullptr, 17), 0u);
    char other[] = "other";
    char *value = other;
    uint64_t length = 0;
    EXPECT_EQ(qzfi_find_hash(table, "key", 3, &value, &length), 0u);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(length, 17u);
    qzfi_deinit_hash_table(table, 4);
}

TEST(HashTable, an_empty_value_is_an_empty_text) {
    qzfi_hash_table *table = make_table(4);
    EXPECT_EQ(qzfi_insert_hash(table, "key", 3, "unread", 0), 0u);
    EXPECT_EQ(find(table, "key"), "");
    qzfi_deinit_hash_table(table, 4);
}

TEST(HashTable, copies_end_at_the_length_or_at_a_nul_byte) {
    qzfi_hash_table *table = make_table(1);
    EXPECT_EQ(qzfi_insert_hash(table, "keyed", 3, "values", 5), 0u);
    EXPECT_STREQ(table->buckets[0]->key, "key");
    EXPECT_STREQ(table->buckets[0]->value, "value");
    const std::string long_text(10, 'v');
    EXPECT_EQ(qzfi_insert_hash(table, "k\0y", 3, long_text.c_str(), 4000), 0u);
    EXPECT_EQ(memcmp(table->buckets[0]->key, "k\0\0", 4), 0);
    EXPECT_EQ(table->buckets[0]->key_length, 3u);
    EXPECT_EQ(table->buckets[0]->value, long_text);
    EXPECT_EQ(table->buckets[0]->value_length, 4000u);
    qzfi_deinit_hash_table(table, 1);
}

TEST(HashTable, a_key_with_a_nul_byte_lies_in_the_bucket_of_its_padded_text) {
    qzfi_hash_table *table = make_table(1000);
    insert(table, {"a\0b", 3}, "value");
    EXPECT_NE(table->buckets[950], nullptr); // of "a\0\0"; that of "a\0b" is 980
    EXPECT_EQ(find(table, {"a\0b", 3}), "<16>");
    EXPECT_EQ(find(table, {"a\0\0", 3}), "value");
    EXPECT_EQ(find(table, "a"), "<16>");
    qzfi_deinit_hash_table(table, 1000);
}

TEST(HashTable, within_a_bucket_keys_are_compared_up_to_a_nul_byte) {
    qzfi_hash_table *table = make_table(1);
    insert(table, {"a\0b", 3}, "value");
    EXPECT_EQ(find(table, {"a\0c", 3}), "value");
    qzfi_deinit_hash_table(table, 1);
}

TEST(HashTable, lengths_beyond_all_memory_are_out_of_memory) {
    qzfi_hash_table *table = make_table(1);
    for (const uint64_t length : {UINT64_MAX, UINT64_MAX - 1, uint64_t{INT64_MAX}}) {
        EXPECT_EQ(qzfi_insert_hash(table, "key", length, "value", 5), 5u);
        EXPECT_EQ(qzfi_insert_hash(table, "key", 3, "value", length), 5u);
    }
    EXPECT_EQ(table->buckets[0], nullptr);
    qzfi_deinit_hash_table(table, 1);
}

TEST(HashTable, null_arguments_and_empty_keys_are_refused) {
    qzfi_hash_table *table = make_table(1);
    char *value = nullptr;
    uint64_t length = 0;
    EXPECT_EQ(qzfi_insert_hash(nullptr, "key", 3, "v", 1), 3u);
    EXPECT_EQ(qzfi_insert_hash(table, nullptr, 3, "v", 1), 3u);
    EXPECT_EQ(qzfi_insert_hash(table, "key", 0, "v", 1), 3u);
    EXPECT_EQ(qzfi_find_hash(nullptr, "key", 3, &value, &length), 3u);
    EXPECT_EQ(qzfi_find_hash(table, nullptr, 3, &value, &length), 3u);
    EXPECT_EQ(qzfi_find_hash(table, "key", 0, &value, &length), 3u);
    EXPECT_EQ(qzfi_find_hash(table, "key", 3, nullptr, &length), 3u);
    EXPECT_EQ(qzfi_find_hash(table, "key", 3, &value, nullptr), 3u);
    EXPECT_EQ(qzfi_delete_hash(nullptr, "key", 3), 3u);
    EXPECT_EQ(qzfi_delete_hash(table, nullptr, 3), 3u);
    EXPECT_EQ(qzfi_delete_hash(table, "key", 0), 3u);
    EXPECT_EQ(qzfi_deinit_hash_table(nullptr, 1), 3u);
    qzfi_deinit_hash_table(table, 1);
}

TEST(HashTable, a_table_without_buckets_is_refused) {
    qzfi_hash_table table{0, nullptr};
    char *value = nullptr;
    uint64_t length = 0;
    EXPECT_EQ(qzfi_insert_hash(&table, "key", 3, "v", 1), 3u);
    EXPECT_EQ(qzfi_find_hash(&table, "key", 3, &value, &length), 3u);
    EXPECT_EQ(qzfi_delete_hash(&table, "key", 3), 3u);
}

TEST(HashTable, deinit_empties_the_buckets_that_the_caller_counts) {
    qzfi_hash_table *table = make_table(2); // "a" lies in bucket 0, "abc" in bucket 1
    insert(table, "a", "first");
    insert(table, "abc", "second");
    qzfi_hash_entry *left = table->buckets[1];
    EXPECT_EQ(qzfi_deinit_hash_table(table, 1), 0u);
    EXPECT_STREQ(left->value, "second");
    free(left->key);
    free(left->value);
    free(left);
}

TEST(HashTable, deinit_with_count_0_frees_no_entry) {
    qzfi_hash_table *table = make_table(1);
    insert(table, "a", "value");
    qzfi_hash_entry *left = table->buckets[0];
    EXPECT_EQ(qzfi_deinit_hash_table(table, 0), 0u);
    EXPECT_STREQ(left->key, "a");
    free(left->key);
    free(left->value);
    free(left);
}

TEST(HashTable, deinit_with_too_large_a_count_stops_at_the_last_bucket) {
    qzfi_hash_table *table = make_table(2);
    insert(table, "a", "first");
    insert(table, "abc", "second");
    insert(table, "abc", "third");
    EXPECT_EQ(qzfi_deinit_hash_table(table, UINT32_MAX), 0u);
}

TEST(HashTable, many_keys_are_found_and_deleted) {
    qzfi_hash_table *table = make_table(64);
    for (int number = 0; number < 2000; ++number)
        ASSERT_EQ(insert(table, "key" + std::to_string(number), std::to_string(number)), 0u);
    for (int number = 0; number < 2000; number += 2)
        ASSERT_EQ(delete_whole(table, "key" + std::to_string(number)), 0u);
    for (int number = 0; number < 2000; ++number)
        EXPECT_EQ(find(table, "key" + std::to_string(number)), number % 2 == 0 ? "<16>" : std::to_string(number));
    qzfi_deinit_hash_table(table, 64);
}

TEST(HashTable, init_keeps_nothing_when_memory_is_short) {
    auto *untouched = reinterpret_cast<qzfi_hash_table *>(8);
    fault::for_each(fault::Call::allocation, [untouched](fault::Trial &trial) {
        qzfi_hash_table *table = untouched;
        trial.arm();
        const uint32_t status = qzfi_init_hash_table(&table, 9);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5u : 0u);
        if (trial.fired())
            EXPECT_EQ(table, untouched);
        else
            qzfi_deinit_hash_table(table, 9);
    });
}

TEST(HashTable, insert_keeps_nothing_when_memory_is_short) {
    for (const char *value : {"value", static_cast<const char *>(nullptr)})
        fault::for_each(fault::Call::allocation, [value](fault::Trial &trial) {
            qzfi_hash_table *table = make_table(1);
            insert(table, "key", "old");
            trial.arm();
            const uint32_t status = qzfi_insert_hash(table, "key", 3, value, 5);
            trial.disarm();
            EXPECT_EQ(status, trial.fired() ? 5u : 0u);
            EXPECT_EQ(table->buckets[0]->next == nullptr, trial.fired());
            qzfi_deinit_hash_table(table, 1);
        });
}

} // namespace
