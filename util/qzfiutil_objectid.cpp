// Object ids: made, interned and compared.
//
// Interned ids hang in the trees of `istbl`, which other layers may walk and enter nodes into while they hold `mutex`.
// Finding goes through `index`, without a lock. `chains` knows for every checksum of a length where its nodes hang and
// up to which of them they are in `index`; nodes that others entered are taken into it when an id is missed.
#include <cstdlib>
#include <cstring>
#include <memory>

#include <qzfi/settings.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"
#include "util/qzfiutil_objectid.h"

qzfi_isnode *istbl[QFI_OID_TABLE_LENGTHS];

namespace qzfi {
namespace {

constinit ObjidIndex objid_index;
constinit ObjidChains objid_chains;
/// The roots that the indexes were made from: a root that is another now was replaced by somebody else.
qzfi_isnode *indexed_roots[QFI_OID_TABLE_LENGTHS];

using Bytes = std::unique_ptr<void, FreeDeleter>;

Bytes copy_of(const void *bytes, int32_t length) {
    const auto size = static_cast<std::size_t>(length);
    Bytes copy{std::malloc(size)};
    if (copy)
        std::memcpy(copy.get(), bytes, size);
    return copy;
}

/// A record of its own with a copy of the bytes; `Record` begins with an id. Null when memory is short.
template <class Record>
Record *make_record(const void *bytes, int32_t length, uint32_t type) {
    std::unique_ptr<Record, FreeDeleter> record{static_cast<Record *>(std::calloc(1, sizeof(Record)))};
    if (!record)
        return nullptr;
    Bytes copy = copy_of(bytes, length);
    if (!copy)
        return nullptr;
    *reinterpret_cast<qfi_objid_t *>(record.get()) = {copy.release(), length, type};
    return record.release();
}

/// Takes a node that hangs in a tree into the index; false when memory is short.
bool adopt(qzfi_isnode *node) {
    if (node->id.vid_name == nullptr || node->id.vid_length < 1 || !ObjidIndex::can_hold(node))
        return true;
    const ObjidKey key{node->id.vid_name, node->id.vid_length};
    if (objid_index.find(key) != nullptr)
        return true;
    if (!objid_index.reserve())
        return false;
    objid_index.add(key, node);
    return true;
}

/// Takes what others have linked behind the head into the index; false when memory is short.
bool adopt_newer(ObjidChain &chain) {
    for (qzfi_isnode *node = chain.head->next; node != chain.seen; node = node->next)
        if (!adopt(node))
            return false;
    chain.seen = chain.head->next;
    return true;
}

/// Begins the indexes anew: what still hangs in the trees is adopted as it is asked for.
void forget_indexes() {
    objid_index.forget();
    objid_chains.release();
    for (int32_t length = 0; length < QFI_OID_TABLE_LENGTHS; ++length)
        store_release(indexed_roots[length], load_acquire(istbl[length]));
}

/// Makes up, under `mutex`, for a root that others have stored. What they enter into an empty tree takes nothing away.
void follow_root(int32_t length) {
    if (istbl[length] == indexed_roots[length])
        return;
    if (indexed_roots[length] != nullptr)
        forget_indexes();
    else
        store_release(indexed_roots[length], istbl[length]);
}

/// Enters new bytes. `chain` is that of their checksum; without one, `link` is where it begins.
qzfi_isnode *enter(const ObjidKey &key, int32_t checksum, ObjidChain *chain, qzfi_isnode **link) {
    if (!objid_index.reserve())
        return nullptr;
    auto *node = make_record<qzfi_isnode>(key.bytes, key.length, QFI_OID_INTERN | QFI_OID_ALLOC);
    if (node == nullptr)
        return nullptr;
    node->checksum = checksum;
    if (!ObjidIndex::can_hold(node)) {
        freeis(node);
        return nullptr;
    }
    objid_index.add(key, node);
    if (chain != nullptr) {
        node->next = chain->head->next;
        chain->head->next = node;
        chain->seen = node;
        return node;
    }
    objid_chains.add(node);
    store_release(*link, node);
    store_release(indexed_roots[key.length], istbl[key.length]);
    return node;
}

/// Finds what the index missed without the lock, or enters it; null when memory is short, with nothing entered.
qzfi_isnode *find_or_enter(const ObjidKey &key) {
    const auto checksum = static_cast<int32_t>(objsum(key.bytes, key.length));
    const LockGuard guard{mutex};
    follow_root(key.length);
    if (!objid_chains.reserve())
        return nullptr;
    ObjidChain *chain = objid_chains.find(key.length, checksum);
    qzfi_isnode **link = nullptr;
    if (chain == nullptr) {
        link = tree_link(&istbl[key.length], checksum);
        if (*link != nullptr) {
            if (!adopt(*link))
                return nullptr;
            chain = objid_chains.add(*link);
        }
    }
    if (chain != nullptr && !adopt_newer(*chain))
        return nullptr;
    qzfi_isnode *node = objid_index.find(key);
    return node != nullptr ? node : enter(key, checksum, chain, link);
}

qfi_objid_t *intern(const void *bytes, int32_t length) {
    if (length >= QFI_OID_TABLE_LENGTHS)
        return nullptr;
    const ObjidKey key{bytes, length};
    qzfi_isnode *node = nullptr;
    if (load_acquire(istbl[length]) == load_acquire(indexed_roots[length]))
        node = objid_index.find(key);
    if (node == nullptr)
        node = find_or_enter(key);
    return node == nullptr ? nullptr : &node->id;
}

} // namespace

void release_objids() noexcept {
    const LockGuard guard{mutex};
    for (qzfi_isnode *&root : istbl) {
        freeis(root);
        store_release(root, nullptr);
    }
    forget_indexes();
    objid_index.release();
}

} // namespace qzfi

qfi_objid_t *qzfi_get_objid(const void *bytes, int32_t length, uint32_t flags) {
    if (bytes == nullptr || length < 1)
        return nullptr;
    if ((flags & QFI_OID_INTERN) != 0)
        return qzfi::intern(bytes, length);
    return qzfi::make_record<qfi_objid_t>(bytes, length, QFI_OID_ALLOC);
}

uint32_t qzfi_objidcmp(const qfi_objid_t *a, const qfi_objid_t *b) {
    constexpr uint32_t smaller = UINT32_MAX;
    if (a == nullptr || b == nullptr)
        return a != b;
    // Callers' own records of this type alone are the same only when their bytes are at one address; interned ones
    // carry both bits and are compared by their bytes.
    if (a->vid_type == QFI_OID_INTERN && b->vid_type == QFI_OID_INTERN)
        return a->vid_name != b->vid_name;
    if (a->vid_length != b->vid_length)
        return 1;
    if (a->vid_length < 1)
        return 0;
    if (a->vid_name == nullptr || b->vid_name == nullptr)
        return a->vid_name != b->vid_name;
    const int order = std::memcmp(a->vid_name, b->vid_name, static_cast<std::size_t>(a->vid_length));
    return order < 0 ? smaller : order > 0;
}

uint32_t objsum(const void *bytes, int32_t length) {
    if (bytes == nullptr)
        return 0;
    const auto *signed_bytes = static_cast<const signed char *>(bytes);
    uint32_t sum = 0;
    for (int32_t place = 0; place < length; ++place)
        sum += static_cast<uint32_t>(int32_t{signed_bytes[place]});
    return sum;
}
