// Guards for the locks and cells that the C interface exposes as plain objects.
#pragma once

#include <pthread.h>
#include <type_traits>

namespace qzfi {

/// Holds a pthread mutex for a scope.
class LockGuard {
public:
    explicit LockGuard(pthread_mutex_t &lock) noexcept : lock_(lock) { pthread_mutex_lock(&lock_); }
    ~LockGuard() { pthread_mutex_unlock(&lock_); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

private:
    pthread_mutex_t &lock_;
};

/// Reads a plain object that another thread publishes with `store_release`.
template <class Value>
inline Value load_acquire(const Value &cell) noexcept {
    return __atomic_load_n(&cell, __ATOMIC_ACQUIRE);
}

/// Publishes a value, and all written before it, to readers with `load_acquire`.
template <class Value>
inline void store_release(Value &cell, std::type_identity_t<Value> value) noexcept {
    __atomic_store_n(&cell, value, __ATOMIC_RELEASE);
}

} // namespace qzfi
