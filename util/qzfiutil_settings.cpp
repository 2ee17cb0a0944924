#include "util/qzfiutil_settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <qzfi/status.h>

#include "common/qzfitext.h"

int32_t qzfi_started = 0;
char *qzfi_install_root = nullptr;
char *qzfi_root = nullptr;
const char *const default_root = "/usr/lumen";
char *qzfi_consumer = nullptr;
char *credential_blob = nullptr;
sem_t sema1;
// Statically initialised and never destroyed: other layers may take it at any time.
pthread_mutex_t ssod_mutex = PTHREAD_MUTEX_INITIALIZER;
int16_t app_version[4] = {};
char qzfi_lang[8] = "";
const char *const qzfi_langtbl[4] = {nullptr, "root", "ja", "zh"};

namespace qzfi {
namespace {

/// A semaphore has no static initialiser; the credential text may be given before start.
[[gnu::constructor(101)]] void create_credential_lock() {
    sem_init(&sema1, 0, 1);
}

void take_credential_lock() noexcept {
    while (sem_wait(&sema1) == -1 && errno == EINTR) {
    }
}

void release_credential() noexcept {
    if (credential_blob != nullptr)
        explicit_bzero(credential_blob, std::strlen(credential_blob));
    std::free(credential_blob);
    credential_blob = nullptr;
}

int32_t copy_out(const char *setting, char **out) noexcept {
    if (out == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    *out = duplicate(setting).release();
    return setting != nullptr && *out == nullptr ? QFI_STATUS_NO_MEMORY : QFI_STATUS_OK;
}

} // namespace

void free_credential_lock() noexcept {
    // Counted down and up instead of created anew: a caller that the lock left blocked goes on, where a new semaphore
    // would forget it.
    while (sem_trywait(&sema1) == 0) {
    }
    sem_post(&sema1);
}

int32_t replace_or_clear(char *&setting, const char *text) noexcept {
    // Copied first, in case the text is the setting's own; the old one goes even when there is no memory for the new.
    Text copy = duplicate(text);
    std::free(setting);
    setting = copy.release();
    return text != nullptr && setting == nullptr ? QFI_STATUS_NO_MEMORY : QFI_STATUS_OK;
}

} // namespace qzfi

int32_t qzfi_set_init_env_util(const char *root, const char *consumer) {
    if (root != nullptr && qzfi::replace_or_clear(qzfi_install_root, root) != QFI_STATUS_OK)
        return QFI_STATUS_NO_MEMORY;
    if (consumer == nullptr)
        return QFI_STATUS_OK;
    return qzfi::replace_or_clear(qzfi_consumer, consumer);
}

int32_t qzfi_set_install_root(const char *root) {
    if (root == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    return qzfi::replace_or_clear(qzfi_install_root, root);
}

int32_t qzfi_set_consumer(const char *name) {
    // Unlike a root, a name is forgotten before the argument is refused: callers clear it this way.
    const int32_t status = qzfi::replace_or_clear(qzfi_consumer, name);
    return name == nullptr ? QFI_STATUS_INVALID_ARGUMENT : status;
}

int32_t qzfi_get_install_root(char **out) {
    return qzfi::copy_out(qzfi_install_root, out);
}

int32_t qzfi_get_consumer_name(char **out) {
    return qzfi::copy_out(qzfi_consumer, out);
}

int32_t qzfi_set_credential_blob(const char *text) {
    if (text == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::take_credential_lock();
    qzfi::Text copy = qzfi::duplicate(text);
    // Returns with the lock held: callers rely on no credential being served once one could not be stored.
    if (!copy)
        return QFI_STATUS_NO_MEMORY;
    qzfi::release_credential();
    credential_blob = copy.release();
    sem_post(&sema1);
    return QFI_STATUS_OK;
}

int32_t qzfi_get_credential_blob(char **out) {
    if (out == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    qzfi::take_credential_lock();
    *out = qzfi::duplicate(credential_blob).release();
    sem_post(&sema1);
    return QFI_STATUS_OK;
}

int32_t qzfi_free_credential_blob(void) {
    qzfi::take_credential_lock();
    qzfi::release_credential();
    sem_post(&sema1);
    return QFI_STATUS_OK;
}
