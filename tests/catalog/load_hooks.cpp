#include "load_hooks.h"

#include <pthread.h>

#include <qzfi/catalogs.h>
#include <qzfi/system.h>

namespace load_hooks {

std::atomic<int> loads;
std::atomic<int> waits;
std::function<void()> before_load;
std::function<void()> before_read;
bool has_no_locale;

namespace {
std::atomic<bool> has_read;
}

void reset() {
    loads = 0;
    waits = 0;
    before_load = nullptr;
    before_read = nullptr;
    has_no_locale = false;
    has_read = false;
}

} // namespace load_hooks

extern "C" {

int32_t __real_qzfi_findMsgCatalog(const char *request, uint32_t fallback);
int32_t __wrap_qzfi_findMsgCatalog(const char *request, uint32_t fallback);
int32_t __wrap_qzfi_findMsgCatalog(const char *request, uint32_t fallback) {
    ++load_hooks::loads;
    load_hooks::has_read = false;
    if (load_hooks::before_load)
        load_hooks::before_load();
    return __real_qzfi_findMsgCatalog(request, fallback);
}

ssize_t __real_qzfi_readfile(int32_t fd, void *buffer, size_t size);
ssize_t __wrap_qzfi_readfile(int32_t fd, void *buffer, size_t size);
ssize_t __wrap_qzfi_readfile(int32_t fd, void *buffer, size_t size) {
    if (load_hooks::before_read && !load_hooks::has_read.exchange(true))
        load_hooks::before_read();
    return __real_qzfi_readfile(fd, buffer, size);
}

int __real_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *lock);
int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *lock);
int __wrap_pthread_cond_wait(pthread_cond_t *condition, pthread_mutex_t *lock) {
    ++load_hooks::waits;
    return __real_pthread_cond_wait(condition, lock);
}

const char *__real_qzfi_getlocale();
const char *__wrap_qzfi_getlocale();
const char *__wrap_qzfi_getlocale() {
    return load_hooks::has_no_locale ? nullptr : __real_qzfi_getlocale();
}
}
