// Any bytes as commands for a hash table, beside a plain counterpart: a byte with the command, one with the key's
// length, the key. Keys end at their first NUL byte, since they are texts.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <qzfi/objectid.h>

#include "target.h"

namespace {

using Counterpart = std::map<std::string, std::vector<std::string>>;

void insert(qzfi_hash_table *table, Counterpart &expected, const std::string &key, const std::string &value) {
    require(qzfi_insert_hash(table, key.data(), key.size(), value.data(), value.size()) == (key.empty() ? 3 : 0));
    if (!key.empty())
        expected[key].push_back(value);
}

void find(qzfi_hash_table *table, const Counterpart &expected, const std::string &key) {
    char *value = nullptr;
    uint64_t length = 0;
    const uint32_t status = qzfi_find_hash(table, key.data(), key.size(), &value, &length);
    const auto entries = expected.find(key);
    if (entries == expected.end())
        require(status == (key.empty() ? 3 : 16) && value == nullptr);
    else
        require(status == 0 && value == entries->second.back() && length == entries->second.back().size());
}

void erase(qzfi_hash_table *table, Counterpart &expected, const std::string &key) {
    const auto entries = expected.find(key);
    if (entries == expected.end()) {
        require(qzfi_delete_hash(table, key.data(), key.size()) == (key.empty() ? 3 : 16));
        return;
    }
    const qzfi_hash_entry *entry = table->buckets[qzfi_hash(key.data(), key.size(), table->count)];
    while (entry->key != key)
        entry = entry->next;
    char *const texts[] = {entry->key, entry->value};
    require(qzfi_delete_hash(table, key.data(), key.size()) == 0);
    for (char *text : texts)
        std::free(text);
    entries->second.pop_back();
    if (entries->second.empty())
        expected.erase(entries);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    qzfi_hash_table *table = nullptr;
    require(qzfi_init_hash_table(&table, data[0]) == (data[0] == 0 ? 3 : 0));
    if (table == nullptr)
        return 0;
    Counterpart expected;
    for (std::size_t place = 1; place + 1 < size;) {
        const uint8_t command = data[place];
        const std::size_t length = std::min<std::size_t>(data[place + 1], size - place - 2);
        const std::string bytes(reinterpret_cast<const char *>(data) + place + 2, length);
        const std::string key = bytes.c_str();
        place += 2 + length;
        if (command % 3 == 0)
            insert(table, expected, key, std::to_string(place));
        else if (command % 3 == 1)
            find(table, expected, key);
        else
            erase(table, expected, key);
    }
    for (const auto &entries : expected)
        find(table, expected, entries.first);
    require(qzfi_deinit_hash_table(table, 255) == 0);
    return 0;
}
