#include "util/qzfiutil_messages.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <qzfi/catalogs.h>
#include <qzfi/status.h>
#include <qzfi/system.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"
#include "msgcat/qzfiicuerrormgr.h"
#include "util/qzfiutil_format.h"
#include "util/qzfiutil_settings.h"

const qzfi_emsg u_emsgs[29] = {
    {"MSG_QFI_UTIL_E0000", "No Error"},
    {"MSG_QFI_UTIL_E0001", "Internal error in libfi"},
    {"MSG_QFI_UTIL_E0002", "Qfi_start not called or called twice"},
    {"MSG_QFI_UTIL_E0003", "Invalid Arguments"},
    {"MSG_QFI_UTIL_E0004", "Operation not supported by provider"},
    {"MSG_QFI_UTIL_E0005", "Insufficient Memory"},
    {"MSG_QFI_UTIL_E0006", "Provider Specific Error"},
    {"MSG_QFI_UTIL_E0007", "Provider didn't successfully initalize"},
    {"MSG_QFI_UTIL_E0008", "Application version doesn't match API"},
    {"MSG_QFI_UTIL_E0009", "Provider version doesn't match API"},
    {nullptr, nullptr},
    {"MSG_QFI_UTIL_E0011", "System call failed"},
    {"MSG_QFI_UTIL_E0012", "Provider incompatible with other installed binaries"},
    {"MSG_QFI_UTIL_E0013", "Operation not permitted by specified permissions"},
    {"MSG_QFI_UTIL_E0014", "Library not found or improper permissions to open linrary"},
    {"MSG_QFI_UTIL_E0015", "Function not found in library"},
    {"MSG_QFI_UTIL_E0016", "Hash key is not found in the hash table"},
    {"MSG_QFI_UTIL_E0017", "Must unquiesce the stack before detaching the FI tree"},
    {"MSG_QFI_UTIL_E0018", "stat failed"},
    {"MSG_QFI_UTIL_E0019", "not a plugin object"},
    {"MSG_QFI_UTIL_E0020", "no such device"},
    {"MSG_QFI_UTIL_E0021", "not a device"},
    {"MSG_QFI_UTIL_E0022", "command terminated abnormally"},
    {"MSG_QFI_UTIL_E0023", "IO error"},
    {"MSG_QFI_UTIL_E0024", "opendir failed"},
    {"MSG_QFI_UTIL_E0025", "closedir failed"},
    {"MSG_QFI_UTIL_E0026", "open failed"},
    {"MSG_QFI_UTIL_E0027", "ioctl failed"},
    {"MSG_QFI_UTIL_E0028", "IsValid tree failed"},
};
int32_t size_uemsgs = QFI_STATUS_UTILITY_LAST;
qzfi_emsg_cache vfcmsg = {nullptr, 0};

namespace qzfi {
namespace {

constexpr std::size_t message_size = 2048;
constexpr std::size_t message_id_size = 32;

/// A status text that a caller was given.
struct KeptText {
    char *text;
    const KeptText *next;
};
const KeptText *kept_texts = nullptr; // never taken out again

/// Keeps a text for the life of the process, once: callers never free a status text and may hold it for ever, and
/// there is one a code and language. Null when there is none or memory is short. Without a lock, which a process that
/// is forked meanwhile would never get.
const char *keep(Text text) noexcept {
    if (!text)
        return nullptr;
    std::unique_ptr<KeptText, FreeDeleter> added;
    const KeptText *first = load_acquire(kept_texts);
    for (;;) {
        for (const KeptText *each = first; each != nullptr; each = each->next)
            if (std::strcmp(each->text, text.get()) == 0)
                return each->text;
        if (!added)
            added.reset(static_cast<KeptText *>(std::malloc(sizeof(KeptText))));
        if (!added)
            return nullptr;
        *added = {text.get(), first};
        if (__atomic_compare_exchange_n(&kept_texts, &first, added.get(), false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            break;
    }
    (void)added.release(); // the list has it
    return text.release();
}

/// The catalog's own text of a message in the current language. The arguments after the id are the none that it takes.
Text raw_text(const char *id, ...) noexcept {
    va_list none;
    va_start(none, id);
    Text text{fi_get_icuMsg(id, qzfi_lang, none, 1)};
    va_end(none);
    return text;
}

// An argument list that was read cannot be read again, so each of its consumers reads a copy of its own.

void format_into(Text &buffer, const char *format, va_list arguments) noexcept {
    va_list own;
    va_copy(own, arguments);
    std::vsnprintf(buffer.get(), message_size, format, own);
    va_end(own);
}

/// What the catalogs have of a message in the current language, with the arguments of its placeholders. Null when there
/// is no memory, or when a placeholder would read what was not given.
Text formatted_by_catalogs(const char *id, const char *english, va_list arguments) noexcept {
    const Text text = catalog_text(id, qzfi_lang);
    if (!text)
        return nullptr;
    const CatalogPattern pattern{text.get()};
    if (!pattern || !placeholders_agree(pattern, english))
        return nullptr;
    return pattern.format(qzfi_lang, arguments);
}

/// Null when there is no localised text, when it is not safe to format, or when memory is short.
Text localized_message(const char *id, const char *english, va_list arguments) noexcept {
    const Text translation = formatted_by_catalogs(id, english, arguments);
    if (!translation)
        return nullptr;
    Text buffer{static_cast<char *>(std::malloc(message_size))};
    if (!buffer || !format_translation(buffer.get(), message_size, translation.get(), english, arguments))
        return nullptr;
    return buffer;
}

} // namespace
} // namespace qzfi

const char *qzfi_getlocmsg(int32_t code, int32_t localized, const qzfi_emsg *table, const qzfi_emsg_cache *cache) {
    if (localized != 0) {
        char id[qzfi::message_id_size];
        qzfi_snprintf(id, sizeof id, "MSG_QFI_UTIL_E%04u", static_cast<uint32_t>(code));
        return qzfi::keep(qzfi::raw_text(id));
    }
    if (code < 0 || (table == u_emsgs && code > QFI_STATUS_UTILITY_LAST))
        return nullptr;
    if (cache->count != 0 && code >= cache->count)
        return nullptr;
    if (cache->count != 0 && cache->texts[code] != nullptr)
        return cache->texts[code];
    return table[code].text;
}

void qzfi_getmsg(const char *message_id, uint32_t severity, const char *format, ...) {
    qzfi::Text english{static_cast<char *>(std::malloc(qzfi::message_size))};
    // Hosts switch all messages off by leaving the variable unset.
    if (std::getenv("ICU_DATA") == nullptr || !english)
        return;
    va_list arguments;
    va_start(arguments, format);
    qzfi::format_into(english, format, arguments);
    const qzfi::Text localized = qzfi::localized_message(message_id, format, arguments);
    va_end(arguments);
    qzfi_handle_err(english.get(), localized.get(), severity);
}
