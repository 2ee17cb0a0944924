#include "api/qzfiapi.h"

#include <qzfi/messages.h>
#include <qzfi/status.h>

namespace {

uint32_t utility_text(uint32_t code, uint32_t localized, const char **text) {
    if (code > QFI_STATUS_UTILITY_LAST)
        return QFI_STATUS_INVALID_ARGUMENT;
    *text = qzfi_getlocmsg(static_cast<int32_t>(code), static_cast<int32_t>(localized), u_emsgs, &vfcmsg);
    return *text != nullptr ? QFI_STATUS_OK : QFI_STATUS_INVALID_ARGUMENT;
}

/// Asks every module whose range holds the code; where ranges overlap, the last one answers.
uint32_t module_text(int32_t code, uint32_t status, const char **text) {
    uint32_t result = QFI_STATUS_INVALID_ARGUMENT;
    for (const qzfi_modrow *row = qzfi_modtbl; row->module != nullptr; ++row) {
        if (code < row->lowest || code > row->highest)
            continue;
        const int32_t entered = qzfi_enter(row->module);
        if (entered != QFI_STATUS_OK)
            return static_cast<uint32_t>(entered);
        result = reinterpret_cast<qzfi::ErrmsgEntry>(*row->errmsg)(status, text);
    }
    return result;
}

} // namespace

uint32_t qzfiapi_errmsg(uint32_t status, const char **text) {
    if (text == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    const uint32_t code = status & ~QFI_STATUS_LOCALIZED;
    if (code < QFI_STATUS_API_FIRST)
        return utility_text(code, status & QFI_STATUS_LOCALIZED, text);
    return module_text(static_cast<int32_t>(code), status, text);
}
