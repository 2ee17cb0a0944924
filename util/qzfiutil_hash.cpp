// A general hash table of texts, for providers' own look-ups.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <qzfi/objectid.h>

#include "common/qzfitext.h"

namespace qzfi {
namespace {

constexpr uint32_t success = 0;
constexpr uint32_t invalid_argument = 3;
constexpr uint32_t out_of_memory = 5;
constexpr uint32_t key_not_found = 16;

constexpr uint32_t no_bucket = UINT32_MAX;

/// A zero-filled copy of `length` + 1 bytes that ends at the first NUL byte; null when memory is short.
Text copy_text(const char *text, uint64_t length) {
    if (length >= PTRDIFF_MAX)
        return nullptr;
    const std::size_t size = length + 1;
    Text copy{static_cast<char *>(std::calloc(size, 1))};
    if (copy)
        copy_bounded(copy.get(), size, text);
    return copy;
}

void free_entry(qzfi_hash_entry *entry) {
    std::free(entry->key);
    std::free(entry->value);
    std::free(entry);
}

void free_bucket(qzfi_hash_entry *&bucket) {
    while (bucket != nullptr) {
        qzfi_hash_entry *next = bucket->next;
        free_entry(bucket);
        bucket = next;
    }
}

/// The link that leads to the latest entry of a key, or to the bucket's end.
qzfi_hash_entry **find_link(qzfi_hash_entry **link, const char *key, uint64_t key_length) {
    while (*link != nullptr && ((*link)->key_length != key_length || std::strncmp((*link)->key, key, key_length) != 0))
        link = &(*link)->next;
    return link;
}

} // namespace
} // namespace qzfi

uint32_t qzfi_hash(const char *key, uint64_t length, uint32_t buckets) {
    if (key == nullptr || length == 0 || buckets == 0)
        return qzfi::no_bucket;
    uint32_t state = 0x811C9DC5;
    for (uint64_t place = 0; place < length; ++place) {
        // Neither the usual prime nor unsigned bytes: the buckets of tables made elsewhere depend on both.
        state *= 0x676B13;
        state ^= static_cast<uint32_t>(int32_t{static_cast<signed char>(key[place])});
    }
    return state % buckets;
}

uint32_t qzfi_init_hash_table(qzfi_hash_table **out, uint32_t count) {
    if (out == nullptr || count == 0)
        return qzfi::invalid_argument;
    std::unique_ptr<qzfi_hash_table, qzfi::FreeDeleter> table{
        static_cast<qzfi_hash_table *>(std::calloc(1, sizeof(qzfi_hash_table)))};
    if (!table)
        return qzfi::out_of_memory;
    table->buckets = static_cast<qzfi_hash_entry **>(std::calloc(count, sizeof(qzfi_hash_entry *)));
    if (table->buckets == nullptr)
        return qzfi::out_of_memory;
    table->count = count;
    *out = table.release();
    return qzfi::success;
}

uint32_t qzfi_insert_hash(qzfi_hash_table *table, const char *key, uint64_t key_length, const char *value,
                          uint64_t value_length) {
    if (table == nullptr || key == nullptr || key_length == 0)
        return qzfi::invalid_argument;
    qzfi::Text key_copy = qzfi::copy_text(key, key_length);
    if (!key_copy)
        return qzfi::out_of_memory;
    qzfi::Text value_copy;
    if (value != nullptr && !(value_copy = qzfi::copy_text(value, value_length)))
        return qzfi::out_of_memory;
    // Of the copy: a key with a NUL byte is found by its text padded with NUL bytes to the same length.
    const uint32_t bucket = qzfi_hash(key_copy.get(), key_length, table->count);
    if (bucket == qzfi::no_bucket)
        return qzfi::invalid_argument;
    auto *entry = static_cast<qzfi_hash_entry *>(std::malloc(sizeof(qzfi_hash_entry)));
    if (entry == nullptr)
        return qzfi::out_of_memory;
    // No search for an equal key: a later entry shadows an earlier one until it is deleted.
    *entry = {key_copy.release(), key_length, value_copy.release(), value_length, table->buckets[bucket]};
    table->buckets[bucket] = entry;
    return qzfi::success;
}

uint32_t qzfi_find_hash(qzfi_hash_table *table, const char *key, uint64_t key_length, char **value,
                        uint64_t *value_length) {
    if (table == nullptr || value == nullptr || value_length == nullptr)
        return qzfi::invalid_argument;
    const uint32_t bucket = qzfi_hash(key, key_length, table->count);
    if (bucket == qzfi::no_bucket)
        return qzfi::invalid_argument;
    const qzfi_hash_entry *entry = *qzfi::find_link(&table->buckets[bucket], key, key_length);
    if (entry == nullptr)
        return qzfi::key_not_found;
    *value = entry->value;
    *value_length = entry->value_length;
    return qzfi::success;
}

uint32_t qzfi_delete_hash(qzfi_hash_table *table, const char *key, uint64_t key_length) {
    if (table == nullptr)
        return qzfi::invalid_argument;
    const uint32_t bucket = qzfi_hash(key, key_length, table->count);
    if (bucket == qzfi::no_bucket)
        return qzfi::invalid_argument;
    qzfi_hash_entry **link = qzfi::find_link(&table->buckets[bucket], key, key_length);
    qzfi_hash_entry *entry = *link;
    if (entry == nullptr)
        return qzfi::key_not_found;
    *link = entry->next;
    // The record only: callers may still hold the value that they found.
    std::free(entry);
    return qzfi::success;
}

uint32_t qzfi_deinit_hash_table(qzfi_hash_table *table, uint32_t count) {
    if (table == nullptr)
        return qzfi::invalid_argument;
    // The caller's count, as far as there are buckets: entries of later buckets stay with whoever holds them.
    const uint32_t emptied = count < table->count ? count : table->count;
    for (uint32_t bucket = 0; bucket < emptied; ++bucket)
        qzfi::free_bucket(table->buckets[bucket]);
    std::free(table->buckets);
    std::free(table);
    return qzfi::success;
}
