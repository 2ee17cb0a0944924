// Any bytes as a catalog file: loaded exactly when a plain line-wise reading takes every line, and then each key gives
// what that reading gives for its first line, and no other key anything.
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include <qzfi/messages.h>

#include "target.h"
#include "util/qzfiutil_catalog.h"

namespace {

using Entries = std::map<std::string, std::string>;

std::optional<std::pair<std::string, std::string>> plain_entry(const std::string &line) {
    const std::size_t key = line.find_first_not_of(" \t");
    const std::size_t key_end = key == std::string::npos ? key : line.find_first_of(" \t", key);
    const std::size_t opening = key_end == std::string::npos ? key_end : line.find('"', key_end);
    const std::size_t closing = opening == std::string::npos ? opening : line.find('"', opening + 1);
    if (closing == std::string::npos)
        return std::nullopt;
    std::string format = line.substr(opening + 1, closing - opening - 1);
    expandfmt(format.data());
    return std::pair(std::string(line.substr(key, key_end - key).c_str()), std::string(format.c_str()));
}

/// Nothing when a line is not complete; counts the lines.
std::optional<Entries> plain(const std::string &content, int32_t &count) {
    Entries entries;
    count = 0;
    for (std::size_t start = 0, end = 0; (end = content.find('\n', start)) != std::string::npos; start = end + 1) {
        const auto entry = plain_entry(content.substr(start, end - start));
        if (!entry)
            return std::nullopt;
        entries.insert(*entry);
        ++count;
    }
    return entries;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    qzfi::Text content{static_cast<char *>(std::malloc(size))}; // of the exact size: nothing may touch what is beyond
    if (size != 0)
        std::memcpy(content.get(), data, size);
    const std::string text(reinterpret_cast<const char *>(data), size);
    int32_t count = 0;
    const std::optional<Entries> expected = plain(text, count);
    const qzfi::Catalog catalog = qzfi::parse_catalog(std::move(content), size);
    require((catalog.entries != nullptr) == expected.has_value());
    if (!expected)
        return 0;
    require(catalog.count == count);
    for (const auto &[key, format] : *expected) {
        const qzfi_lfmt *const entry = qzfi::find_entry(catalog.entries.get(), catalog.index(), key.c_str());
        require(entry != nullptr && key == entry->key && format == entry->format);
        const std::string other = key + "x";
        const bool is_found = qzfi::find_entry(catalog.entries.get(), catalog.index(), other.c_str()) != nullptr;
        require(is_found == expected->contains(other));
    }
    return 0;
}
