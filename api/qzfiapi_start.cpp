#include "api/qzfiapi.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qzfi/catalogs.h>
#include <qzfi/log.h>
#include <qzfi/settings.h>
#include <qzfi/status.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"
#include "util/qzfiutil_settings.h"

namespace qzfi {
namespace {

constexpr int32_t root_language = 1; // index of the language table

/// Takes the root given by the caller, else the default; false when memory is short. Never the default in place of a
/// root that could not be copied: the API would be loaded from somewhere else.
bool fix_root() noexcept {
    char *given = nullptr;
    if (qzfi_get_install_root(&given) != QFI_STATUS_OK)
        return false;
    qzfi_root = given != nullptr ? given : duplicate(default_root).release();
    return qzfi_root != nullptr;
}

/// "ja" and "zh" are refused though the language table holds them: hosts rely on getting the root language.
void warn_of_unsupported(const char *tag) noexcept {
    for (const char *const silent : {"C", "en"})
        if (std::strncmp(tag, silent, 2) == 0)
            return;
    for (const char *const refused : {"ja", "ch", "zh"})
        if (std::strncmp(tag, refused, 2) == 0)
            std::fprintf(stderr, "Locale [%s] is not supported, setting to default.\n", tag);
}

void set_language(const qfi_handler *handler) noexcept {
    if (qzfi_lang[0] != '\0' || handler == nullptr || handler->locale == nullptr)
        return;
    if (handler->locale->tag != nullptr)
        warn_of_unsupported(handler->locale->tag);
    qzfi_setlang(root_language);
}

/// Leaves no pointer into the caller's handler or to the root behind.
void stop() noexcept {
    qzfi_started = 0;
    deinitlc();
    qzfi_ufini();
    ehandler = nullptr;
    std::free(qzfi_root);
    qzfi_root = nullptr;
}

} // namespace
} // namespace qzfi

int32_t qzfiapi_start(qfi_handler *handler, uint64_t version) {
    if (qzfi_started != 0)
        return QFI_STATUS_NOT_STARTED;
    if (handler != nullptr && handler->locale != nullptr && handler->locale->reserved != nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    if (!qzfi::fix_root())
        return QFI_STATUS_NO_MEMORY;
    qzfi::set_language(handler);
    qzfi_uinit0(handler);
    ehandler = handler;
    if (compare_with_lib_version(version, qzfi::application_kind) != 0) {
        qzfi::stop();
        return QFI_STATUS_VERSION;
    }
    fimod.entries = fiapi;
    qzfi::free_credential_lock();
    qzfi_started = 1;
    set_qzfi_debuglevel(init_qzfi_logFile(qzfi_root));
    return QFI_STATUS_OK;
}

int32_t qzfiapi_shutdown(void) {
    if (qzfi_started == 0)
        return QFI_STATUS_OK;
    for (const qzfi_modrow *row = qzfi_modtbl; row->module != nullptr; ++row)
        if (qzfi::load_acquire(row->module->state) == qzfi::bound)
            qzfi::unbind(*row->module);
    qzfi::stop();
    qzfi::free_credential_lock();
    return QFI_STATUS_OK;
}

int32_t qzfiapi_set_init_env(const char *root, const char *consumer) {
    const int32_t status = qzfi::replace_or_clear(qzfi_install_root, root);
    if (status != QFI_STATUS_OK)
        return status;
    return qzfi::replace_or_clear(qzfi_consumer, consumer);
}
