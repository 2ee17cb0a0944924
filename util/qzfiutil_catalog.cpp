#include "util/qzfiutil_catalog.h"

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include <qzfi/catalogs.h>
#include <qzfi/messages.h>
#include <qzfi/settings.h>
#include <qzfi/system.h>

#include "common/qzfilock.h"
#include "util/qzfiutil_settings.h"

char *lfmtbuf = nullptr;
qzfi_lfmt *lfmts = nullptr;
int32_t nlfmt = 0;
int32_t lfmtbusy = 0;

namespace qzfi {
namespace {

CatalogIndex loaded_index; // of lfmts, and published with them

constexpr uint32_t fallback_to_plain = 1;

class Descriptor {
public:
    explicit Descriptor(int32_t number) noexcept : number_(number) {}
    ~Descriptor() {
        if (is_open())
            qzfi_closefile(number_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    bool is_open() const noexcept { return number_ != -1; }
    int32_t number() const noexcept { return number_; }

private:
    int32_t number_;
};

bool is_blank(char character) noexcept {
    return character == ' ' || character == '\t';
}

/// Takes an entry apart, `end` being the line feed of its line; false when the line ends before the closing quote.
/// Between key and opening quote anything is passed over.
bool parse_line(char *line, char *end, qzfi_lfmt &entry) noexcept {
    while (line != end && is_blank(*line))
        ++line;
    char *key_end = line;
    while (key_end != end && !is_blank(*key_end))
        ++key_end;
    if (key_end == end)
        return false;
    auto *opening = static_cast<char *>(std::memchr(key_end, '"', static_cast<std::size_t>(end - key_end)));
    if (opening == nullptr)
        return false;
    char *format = opening + 1;
    auto *closing = static_cast<char *>(std::memchr(format, '"', static_cast<std::size_t>(end - format)));
    if (closing == nullptr)
        return false;
    *key_end = '\0';
    *closing = '\0';
    entry = {line, format};
    return true;
}

std::size_t count_lines(const char *content, std::size_t size) noexcept {
    std::size_t count = 0;
    const char *const end = content + size;
    while (const void *const newline = std::memchr(content, '\n', static_cast<std::size_t>(end - content))) {
        content = static_cast<const char *>(newline) + 1;
        ++count;
    }
    return count;
}

bool parse_lines(Catalog &catalog, std::size_t size) noexcept {
    char *line = catalog.content.get();
    char *const end = line + size;
    for (int32_t number = 0; number < catalog.count; ++number) {
        auto *newline = static_cast<char *>(std::memchr(line, '\n', static_cast<std::size_t>(end - line)));
        if (!parse_line(line, newline, catalog.entries[static_cast<std::size_t>(number)]))
            return false;
        line = newline + 1;
    }
    return true;
}

/// The slot that holds the entry with a key or, when there is none, the empty one to put it in.
CatalogSlot &slot_of(CatalogIndex index, const char *key, std::size_t hash) noexcept {
    const auto tag = static_cast<uint32_t>(hash >> 32);
    for (std::size_t place = hash & index.mask;; place = (place + 1) & index.mask) {
        CatalogSlot &slot = index.slots[place];
        if (slot.key == nullptr || (slot.tag == tag && std::strcmp(slot.key, key) == 0))
            return slot;
    }
}

std::size_t hash_of(const char *key) noexcept {
    return std::hash<std::string_view>{}(key);
}

/// Of entries with one key, only the first is ever found.
bool build_index(Catalog &catalog) noexcept {
    const auto count = static_cast<uint32_t>(catalog.count);
    const std::size_t places = std::bit_ceil(std::size_t{count} * 2 + 1);
    catalog.slots.reset(static_cast<CatalogSlot *>(std::calloc(places, sizeof(CatalogSlot))));
    if (!catalog.slots)
        return false;
    catalog.mask = places - 1;
    for (uint32_t number = 0; number < count; ++number) {
        const char *const key = catalog.entries[number].key;
        const std::size_t hash = hash_of(key);
        CatalogSlot &slot = slot_of(catalog.index(), key, hash);
        if (slot.key == nullptr)
            slot = {key, static_cast<uint32_t>(hash >> 32), number};
    }
    return true;
}

/// The whole of a regular file; null when it is another kind, empty or shorter than it says. Read and not mapped: a
/// file that shrinks under a mapping kills the process that touches it.
Text read_content(int32_t file, std::size_t &size) noexcept {
    struct stat state;
    if (fstat(file, &state) != 0 || !S_ISREG(state.st_mode) || state.st_size == 0)
        return nullptr;
    size = static_cast<std::size_t>(state.st_size);
    Text content{static_cast<char *>(std::malloc(size))};
    for (std::size_t filled = 0; content && filled < size;) {
        const ssize_t count = qzfi_readfile(file, content.get() + filled, size - filled);
        if (count == 0 || (count == -1 && qzfi_errno() != EINTR))
            return nullptr;
        if (count > 0)
            filled += static_cast<std::size_t>(count);
    }
    return content;
}

Catalog load() noexcept {
    const char *const locale = qzfi_getlocale();
    const Descriptor file{qzfi_findMsgCatalog(locale != nullptr ? locale : "en_US", fallback_to_plain)};
    if (!file.is_open())
        return {};
    std::size_t size = 0;
    Text content = read_content(file.number(), size);
    if (!content)
        return {};
    return parse_catalog(std::move(content), size);
}

void publish(Catalog &catalog) noexcept {
    if (!catalog.entries)
        return;
    lfmtbuf = catalog.content.release();
    nlfmt = catalog.count;
    loaded_index = {catalog.slots.release(), catalog.mask};
    store_release(lfmts, catalog.entries.release());
}

/// Makes the calling thread the one that loads, or waits for the one that does; false when the catalog is loaded.
bool begin_loading() noexcept {
    const LockGuard guard{mutex};
    while (lfmtbusy != 0)
        pthread_cond_wait(&cv, &mutex);
    if (lfmts != nullptr)
        return false;
    lfmtbusy = 1;
    return true;
}

void end_loading(Catalog &loaded) noexcept {
    const LockGuard guard{mutex};
    publish(loaded);
    lfmtbusy = 0;
    pthread_cond_broadcast(&cv);
}

} // namespace

Catalog parse_catalog(Text content, std::size_t size) noexcept {
    const std::size_t lines = count_lines(content.get(), size);
    if (lines > INT32_MAX)
        return {};
    Catalog catalog;
    catalog.content = std::move(content);
    catalog.count = static_cast<int32_t>(lines);
    // One at least, so that null always means that nothing is loaded.
    catalog.entries.reset(static_cast<qzfi_lfmt *>(std::calloc(lines != 0 ? lines : 1, sizeof(qzfi_lfmt))));
    if (!catalog.entries || !parse_lines(catalog, size) || !build_index(catalog))
        return {};
    for (std::size_t number = 0; number < lines; ++number)
        expandfmt(catalog.entries[number].format);
    return catalog;
}

const qzfi_lfmt *find_entry(const qzfi_lfmt *entries, CatalogIndex index, const char *key) noexcept {
    const CatalogSlot &slot = slot_of(index, key, hash_of(key));
    return slot.key != nullptr ? &entries[slot.number] : nullptr;
}

void release_catalog() noexcept {
    const LockGuard guard{mutex};
    std::free(lfmtbuf);
    std::free(lfmts);
    std::free(loaded_index.slots);
    lfmtbuf = nullptr;
    store_release(lfmts, nullptr);
    nlfmt = 0;
    loaded_index = {};
}

} // namespace qzfi

const char *qzfi_getlfmt(const char *key) {
    if (qzfi_lang[0] == '\0')
        return nullptr;
    if (qzfi::load_acquire(lfmts) == nullptr && qzfi::begin_loading()) {
        qzfi::Catalog loaded = qzfi::load();
        qzfi::end_loading(loaded);
    }
    const qzfi_lfmt *const entries = qzfi::load_acquire(lfmts);
    if (entries == nullptr)
        return nullptr;
    const qzfi_lfmt *const entry = qzfi::find_entry(entries, qzfi::loaded_index, key);
    return entry != nullptr ? entry->format : nullptr;
}
