// The indexes beside the trees of the interning table.
#include <cstdlib>
#include <cstring>

#include "common/qzfilock.h"
#include "util/qzfiutil_objectid.h"

namespace qzfi {
namespace {

__extension__ typedef unsigned __int128 Product;

// Odd constants without a pattern: half of their bits are set.
constexpr uint64_t first_salt = 0x9E3779B97F4A7C15;
constexpr uint64_t second_salt = 0xC2B2AE3D27D4EB4F;

/// Every bit of the result depends on all bits of both.
uint64_t mix(uint64_t a, uint64_t b) {
    const Product product = Product{a} * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

template <class Word>
uint64_t word_at(const unsigned char *bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

/// Both ends of at most 16 bytes, overlapping, so that every byte is in one of the two words.
void short_words(const unsigned char *bytes, std::size_t length, uint64_t &a, uint64_t &b) {
    if (length >= 8) {
        a = word_at<uint64_t>(bytes);
        b = word_at<uint64_t>(bytes + length - 8);
    } else if (length >= 4) {
        a = word_at<uint32_t>(bytes);
        b = word_at<uint32_t>(bytes + length - 4);
    } else {
        a = uint64_t{bytes[0]} << 16 | uint64_t{bytes[length / 2]} << 8 | bytes[length - 1];
        b = 0;
    }
}

uint64_t hash_of(const void *memory, std::size_t length) {
    const auto *bytes = static_cast<const unsigned char *>(memory);
    uint64_t state = mix(length ^ first_salt, second_salt);
    uint64_t a = 0;
    uint64_t b = 0;
    if (length <= 16) {
        short_words(bytes, length, a, b);
    } else {
        std::size_t done = 0;
        for (; length - done > 16; done += 16)
            state = mix(word_at<uint64_t>(bytes + done) ^ first_salt, word_at<uint64_t>(bytes + done + 8) ^ state);
        a = word_at<uint64_t>(bytes + length - 16);
        b = word_at<uint64_t>(bytes + length - 8);
    }
    return mix(mix(a ^ first_salt, b ^ state) ^ second_salt, first_salt);
}

// A slot is a node's address with the hash's upper bits in the bits that addresses leave free, so that a miss rarely
// touches a node.
constexpr int address_bits = 48;
constexpr uint64_t address_mask = (uint64_t{1} << address_bits) - 1;

uint64_t pack(const qzfi_isnode *node, uint64_t hash) {
    return reinterpret_cast<uintptr_t>(node) | (hash & ~address_mask);
}

qzfi_isnode *node_in(uint64_t slot) {
    return reinterpret_cast<qzfi_isnode *>(slot & address_mask);
}

constexpr std::size_t least_size = 256;

/// True when a table has to grow before it takes one more: searches stay short, and always meet an empty slot.
bool is_full(std::size_t used, std::size_t size) {
    return used >= size / 4 * 3;
}

} // namespace

ObjidKey::ObjidKey(const void *key_bytes, int32_t key_length) noexcept
    : bytes(key_bytes), length(key_length), hash(hash_of(key_bytes, static_cast<std::size_t>(key_length))) {}

/// Followed in memory by its slots.
struct ObjidIndex::Table {
    Table *older;
    std::size_t mask; // the number of slots, a power of two, less 1

    static Table *make(std::size_t size) noexcept {
        auto *table = static_cast<Table *>(std::calloc(1, sizeof(Table) + size * sizeof(uint64_t)));
        if (table != nullptr)
            table->mask = size - 1;
        return table;
    }

    uint64_t *slots() noexcept { return reinterpret_cast<uint64_t *>(this + 1); }
    const uint64_t *slots() const noexcept { return reinterpret_cast<const uint64_t *>(this + 1); }

    void add(uint64_t hash, const qzfi_isnode *node) noexcept {
        std::size_t place = hash & mask;
        while (slots()[place] != 0)
            place = (place + 1) & mask;
        store_release(slots()[place], pack(node, hash));
    }

    /// Enters the nodes of another table. They lie all over memory, so they are asked for some steps ahead.
    void add_all(const Table &other) noexcept {
        constexpr std::size_t step = 8;
        const uint64_t *from = other.slots();
        for (std::size_t place = 0; place <= other.mask; ++place) {
            __builtin_prefetch(node_in(from[(place + 2 * step) & other.mask]));
            if (const qzfi_isnode *soon = node_in(from[(place + step) & other.mask]); soon != nullptr)
                __builtin_prefetch(soon->id.vid_name);
            const qzfi_isnode *node = node_in(from[place]);
            if (node != nullptr)
                add(ObjidKey{node->id.vid_name, node->id.vid_length}.hash, node);
        }
    }
};

qzfi_isnode *ObjidIndex::find(const ObjidKey &key) const noexcept {
    const Table *table = load_acquire(live_);
    if (table == nullptr)
        return nullptr;
    for (std::size_t place = key.hash & table->mask;; place = (place + 1) & table->mask) {
        const uint64_t slot = load_acquire(table->slots()[place]);
        if (slot == 0)
            return nullptr;
        if (((slot ^ key.hash) & ~address_mask) != 0)
            continue;
        qzfi_isnode *node = node_in(slot);
        if (node->id.vid_length == key.length &&
            std::memcmp(node->id.vid_name, key.bytes, static_cast<std::size_t>(key.length)) == 0)
            return node;
    }
}

bool ObjidIndex::replace_live(std::size_t size) noexcept {
    Table *table = Table::make(size);
    if (table == nullptr)
        return false;
    if (live_ != nullptr) {
        table->add_all(*live_);
        live_->older = outgrown_;
        outgrown_ = live_;
    }
    store_release(live_, table);
    return true;
}

bool ObjidIndex::reserve() noexcept {
    const std::size_t size = live_ == nullptr ? 0 : live_->mask + 1;
    return !is_full(used_, size) || replace_live(size == 0 ? least_size : 2 * size);
}

void ObjidIndex::add(const ObjidKey &key, qzfi_isnode *node) noexcept {
    live_->add(key.hash, node);
    ++used_;
}

bool ObjidIndex::can_hold(const qzfi_isnode *node) noexcept {
    return (reinterpret_cast<uintptr_t>(node) & ~address_mask) == 0;
}

void ObjidIndex::forget() noexcept {
    if (live_ == nullptr)
        return;
    live_->older = outgrown_;
    outgrown_ = live_;
    store_release(live_, nullptr);
    used_ = 0;
}

void ObjidIndex::release() noexcept {
    forget();
    while (outgrown_ != nullptr) {
        Table *older = outgrown_->older;
        std::free(outgrown_);
        outgrown_ = older;
    }
}

ObjidChain *ObjidChains::slot_of(int32_t length, int32_t checksum) noexcept {
    const uint64_t key = uint64_t{static_cast<uint32_t>(length)} << 32 | static_cast<uint32_t>(checksum);
    std::size_t place = mix(key ^ second_salt, first_salt) & (size_ - 1);
    for (;; place = (place + 1) & (size_ - 1)) {
        const qzfi_isnode *head = slots_[place].head;
        if (head == nullptr || (head->checksum == checksum && head->id.vid_length == length))
            return slots_ + place;
    }
}

ObjidChain *ObjidChains::find(int32_t length, int32_t checksum) noexcept {
    if (size_ == 0)
        return nullptr;
    ObjidChain *chain = slot_of(length, checksum);
    return chain->head == nullptr ? nullptr : chain;
}

bool ObjidChains::reserve() noexcept {
    if (!is_full(used_, size_))
        return true;
    const std::size_t size = size_ == 0 ? least_size : 2 * size_;
    auto *slots = static_cast<ObjidChain *>(std::calloc(size, sizeof(ObjidChain)));
    if (slots == nullptr)
        return false;
    ObjidChain *old_slots = slots_;
    const std::size_t old_size = size_;
    slots_ = slots;
    size_ = size;
    for (std::size_t place = 0; place < old_size; ++place)
        if (const ObjidChain &chain = old_slots[place]; chain.head != nullptr)
            *slot_of(chain.head->id.vid_length, chain.head->checksum) = chain;
    std::free(old_slots);
    return true;
}

ObjidChain *ObjidChains::add(qzfi_isnode *head) noexcept {
    ObjidChain *chain = slot_of(head->id.vid_length, head->checksum);
    *chain = {head, nullptr};
    ++used_;
    return chain;
}

void ObjidChains::release() noexcept {
    std::free(slots_);
    slots_ = nullptr;
    size_ = 0;
    used_ = 0;
}

} // namespace qzfi
