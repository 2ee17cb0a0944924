// The catalog file in memory: its (key, format) pairs, and the look-up among them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/qzfitext.h"

/// An entry of the catalog; both texts lie in the copy of the file.
struct qzfi_lfmt {
    const char *key;
    char *format;
};

#pragma GCC visibility push(hidden)
extern "C" {

extern const char *const qzfi_localeMappingTbl[26]; // lines as in the mapping file; the last row is null

extern char *lfmtbuf;    // owned; the copy of the file
extern qzfi_lfmt *lfmts; // owned; in file order; published last, by a release store: not null once all is loaded
extern int32_t nlfmt;    // their number
extern int32_t lfmtbusy; // 1 while a thread loads; under `mutex`, and `cv` tells when it ends
}
#pragma GCC visibility pop

namespace qzfi {

/// A place of the index. The key stands in it so that its text and the entry can be fetched at once.
struct CatalogSlot {
    const char *key; // null: an empty place
    uint32_t tag;    // of the key's hash
    uint32_t number; // of the entry
};

/// Finds entries by key at one cost for any number of them: a table with open addressing, at most half full.
struct CatalogIndex {
    CatalogSlot *slots = nullptr;
    std::size_t mask = 0; // the number of slots, a power of two, less 1
};

struct Catalog {
    Text content;
    std::unique_ptr<qzfi_lfmt[], FreeDeleter> entries; // null when nothing is loaded
    int32_t count = 0;
    std::unique_ptr<CatalogSlot[], FreeDeleter> slots;
    std::size_t mask = 0;

    CatalogIndex index() const noexcept { return {slots.get(), mask}; }
};

/// Makes the catalog of a file's content, which it takes and changes: every line that a line feed ends is an entry.
/// Nothing is loaded when one of them is not complete or memory is short.
Catalog parse_catalog(Text content, std::size_t size) noexcept;

/// The first entry in file order with a key, or null.
const qzfi_lfmt *find_entry(const qzfi_lfmt *entries, CatalogIndex index, const char *key) noexcept;

/// Forgets the loaded catalog: texts that look-ups gave are gone. Not thread-safe.
void release_catalog() noexcept;

} // namespace qzfi
