#include <qzfi/errors.h>

qfi_handler *util_ehandler = nullptr;

void qzfi_handle_err(const char *text, const char *localized, uint32_t severity) {
    if (util_ehandler != nullptr && util_ehandler->error != nullptr)
        util_ehandler->error(util_ehandler, text, localized, severity);
}
