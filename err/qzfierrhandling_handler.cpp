#include <qzfi/errors.h>

#include "common/qzfilock.h"

qfi_handler *util_ehandler = nullptr;

void qzfi_handle_err(const char *text, const char *localized, uint32_t severity) {
    qfi_handler *const handler = qzfi::load_acquire(util_ehandler);
    if (handler != nullptr && handler->error != nullptr)
        handler->error(handler, text, localized, severity);
}
