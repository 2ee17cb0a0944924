// The interning table's inner parts: its trees, the indexes beside them, and its release.
//
// The trees are for whoever walks them under `mutex`; ids are found through the indexes, whose cost does not grow with
// the number of ids.
#pragma once

#include <cstddef>
#include <cstdint>

#include <qzfi/objectid.h>

#pragma GCC visibility push(hidden)

namespace qzfi {

/// Releases every interned id and the indexes. No pointer that interning gave may be in use.
void release_objids() noexcept;

/// The link below `*root`, or `root` itself, where the tree node of a checksum hangs or would hang.
qzfi_isnode **tree_link(qzfi_isnode **root, int32_t checksum) noexcept;

/// The bytes of an id with their hash.
struct ObjidKey {
    ObjidKey(const void *key_bytes, int32_t key_length) noexcept;

    const void *bytes;
    int32_t length; // at least 1
    uint64_t hash;
};

/// Nodes by their bytes: an open-addressing table that readers search without a lock. Whoever changes it holds
/// `mutex`.
///
/// A slot goes from empty to a node once and never back, and a table that was outgrown stays as it was until release,
/// for readers may still be in it: a reader sees a node whole or misses it, and a miss is searched for again under
/// `mutex`.
class ObjidIndex {
public:
    /// From any thread: the node of these bytes, or null.
    qzfi_isnode *find(const ObjidKey &key) const noexcept;

    /// Makes room for one more node; false when memory is short.
    bool reserve() noexcept;

    /// Enters a node after `reserve`; its bytes are those of the key.
    void add(const ObjidKey &key, qzfi_isnode *node) noexcept;

    /// False for an address that a slot cannot hold.
    static bool can_hold(const qzfi_isnode *node) noexcept;

    /// Loses sight of all nodes while readers may be at work.
    void forget() noexcept;

    /// Frees all tables; no reader is left.
    void release() noexcept;

private:
    struct Table;

    bool replace_live(std::size_t size) noexcept;

    Table *live_ = nullptr;
    Table *outgrown_ = nullptr;
    std::size_t used_ = 0;
};

/// A chain of nodes of one length and checksum.
struct ObjidChain {
    qzfi_isnode *head; // the tree node; null in an empty slot
    qzfi_isnode *seen; // what followed it when its nodes were last known to be in the index
};

/// Chains by length and checksum, so that a node is entered without a walk down its tree. Used under `mutex` only.
class ObjidChains {
public:
    /// Valid until the next `reserve`; null when there is none.
    ObjidChain *find(int32_t length, int32_t checksum) noexcept;

    /// Makes room for one more chain; false when memory is short.
    bool reserve() noexcept;

    /// Enters a chain after `reserve`.
    ObjidChain *add(qzfi_isnode *head) noexcept;

    void release() noexcept;

private:
    ObjidChain *slot_of(int32_t length, int32_t checksum) noexcept;

    ObjidChain *slots_ = nullptr;
    std::size_t size_ = 0; // a power of two, or 0
    std::size_t used_ = 0;
};

} // namespace qzfi

#pragma GCC visibility pop
