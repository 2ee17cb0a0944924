// The module stores: error values filed under keys. hl_err_mutex comes before any store's mutex.
#include "err/qzfierrhandling.h"

#include <memory>

#include <pthread.h>

#include <qzfi/status.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"

qfi_error_store *err_mod_list = nullptr;
pthread_mutex_t hl_err_mutex = PTHREAD_MUTEX_INITIALIZER;

using qzfi::LockGuard;

namespace {

using Value = std::unique_ptr<qfi_error_value, qzfi::FreeDeleter>;

void free_key(qfi_error_key *key) noexcept {
    qzfi::visit_all(key->values, [](qfi_error_value *value) { qzfi::free_zeroed(value); });
    qzfi::free_zeroed(key);
}

struct KeyDeleter {
    void operator()(qfi_error_key *key) const noexcept { free_key(key); }
};
using Key = std::unique_ptr<qfi_error_key, KeyDeleter>;

/// Frees every key and value; the caller holds the store's mutex, or nobody else has the store.
void free_keys(qfi_error_store &store) noexcept {
    qzfi::visit_all(store.keys, free_key);
    store.keys = nullptr;
}

void free_store(qfi_error_store *store) noexcept {
    {
        const LockGuard guard(store->mutex);
        free_keys(*store);
    }
    std::free(store->module);
    pthread_mutex_destroy(&store->mutex);
    qzfi::free_zeroed(store);
}

struct StoreDeleter {
    void operator()(qfi_error_store *store) const noexcept { free_store(store); }
};
using Store = std::unique_ptr<qfi_error_store, StoreDeleter>;

/// A key with one value, or null.
Key make_key(uint64_t key, uint64_t value) noexcept {
    Key node{qzfi::allocate_zeroed<qfi_error_key>()};
    Value item{qzfi::allocate_zeroed<qfi_error_value>()};
    if (!node || !item)
        return nullptr;
    node->key = key;
    item->value = value;
    qzfi::append(node->values, item.release());
    return node;
}

/// A store with one key and one value, or null.
Store make_store(const char *module, uint64_t key, uint64_t value) noexcept {
    auto *const raw = qzfi::allocate_zeroed<qfi_error_store>();
    if (raw == nullptr)
        return nullptr;
    if (pthread_mutex_init(&raw->mutex, nullptr) != 0) {
        std::free(raw);
        return nullptr;
    }
    Store store{raw};
    store->module = qzfi::duplicate(module != nullptr ? module : "").release();
    Key first = make_key(key, value);
    if (store->module == nullptr || !first)
        return nullptr;
    qzfi::append(store->keys, first.release());
    return store;
}

qfi_error_key *find_key(const qfi_error_store &store, uint64_t key) noexcept {
    return qzfi::find_first(store.keys, [key](const qfi_error_key &node) { return node.key == key; });
}

uint32_t add_value(qfi_error_store &store, uint64_t value, uint64_t key) noexcept {
    const LockGuard guard(store.mutex);
    if (qfi_error_key *const node = find_key(store, key)) {
        auto *const item = qzfi::allocate_zeroed<qfi_error_value>();
        if (item == nullptr)
            return QFI_STATUS_NO_MEMORY;
        item->value = value;
        qzfi::append(node->values, item);
        return QFI_STATUS_OK;
    }
    Key fresh = make_key(key, 0); // a later key starts with the value 0: callers test only that it has one
    if (!fresh)
        return QFI_STATUS_NO_MEMORY;
    qzfi::append(store.keys, fresh.release());
    return QFI_STATUS_OK;
}

/// Removes the first item with the value; false when there is none. The caller holds the store's mutex.
bool remove_value(qfi_error_store &store, uint64_t value) noexcept {
    qfi_error_value *item = nullptr;
    qfi_error_key *const key = qzfi::find_first(store.keys, [&](const qfi_error_key &node) {
        item = qzfi::find_first(node.values,
                                [value](const qfi_error_value &candidate) { return candidate.value == value; });
        return item != nullptr;
    });
    if (key == nullptr)
        return false;
    // All that leaves the lists is freed, since nothing could reach it any more. With a key's last value the store
    // loses every key: callers find an empty key list afterwards.
    qzfi::unlink(key->values, item);
    qzfi::free_zeroed(item);
    if (key->values == nullptr)
        free_keys(store);
    return true;
}

} // namespace

uint32_t qzfi_store_err(qfi_error_store **store, uint64_t value, const char *module, uint64_t key) {
    if (store == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    if (qfi_error_store *const existing = qzfi::load_acquire(*store))
        return add_value(*existing, value, key);

    Store fresh = make_store(module, key, value);
    if (!fresh)
        return QFI_STATUS_NO_MEMORY;
    qfi_error_store *winner = nullptr;
    {
        const LockGuard guard(hl_err_mutex);
        winner = qzfi::load_acquire(*store);
        if (winner == nullptr) {
            qzfi::append(err_mod_list, fresh.get());
            qzfi::store_release(*store, fresh.release());
            return QFI_STATUS_OK;
        }
    }
    return add_value(*winner, value, key); // another thread's first call on this handle came before
}

uint32_t qzfi_get_last_err(qfi_error_store *store, uint64_t key, uint64_t *value) {
    if (value == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    *value = 0;
    if (store == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    const LockGuard guard(store->mutex);
    const qfi_error_key *const node = find_key(*store, key);
    if (node == nullptr || node->values == nullptr)
        return 0;
    qfi_error_value &last = *node->values->prev;
    if (last.read == 1)
        return 0;
    *value = last.value;
    last.read = 1;
    return 1;
}

uint32_t qzfi_remove_err(qfi_error_store **store, uint64_t value) {
    qfi_error_store *const existing = store != nullptr ? qzfi::load_acquire(*store) : nullptr;
    if (existing == nullptr)
        return QFI_STATUS_OK;
    pthread_mutex_lock(&hl_err_mutex);
    bool is_removed = false;
    {
        const LockGuard guard(existing->mutex);
        is_removed = remove_value(*existing, value);
    }
    // After a removal hl_err_mutex stays locked: callers go on in the list and release it themselves.
    if (!is_removed)
        pthread_mutex_unlock(&hl_err_mutex);
    return QFI_STATUS_OK;
}

uint32_t fi_del_all_err_lists(void) {
    const LockGuard guard(hl_err_mutex);
    qzfi::visit_all(err_mod_list, [](qfi_error_store *store) {
        qzfi::unlink(err_mod_list, store);
        free_store(store);
    });
    err_mod_list = nullptr;
    return QFI_STATUS_OK;
}
