/* Numbered messages: status texts, and the report of a failure to the host. */
#ifndef QZFI_MESSAGES_H
#define QZFI_MESSAGES_H

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

/** A message id and its English text. */
typedef struct qzfi_emsg {
    const char *id;   /**< for example "MSG_QFI_UTIL_E0005" */
    const char *text; /**< English */
} qzfi_emsg;

/** Texts by status code that go before the English ones. */
typedef struct qzfi_emsg_cache {
    char **texts;  /**< `count` texts, each may be null */
    int32_t count; /**< 0 for none */
} qzfi_emsg_cache;

extern QZFI_API const qzfi_emsg u_emsgs[29]; /**< the texts of codes 0 to 28; code 10 has none */
extern QZFI_API int32_t size_uemsgs;         /**< the highest code of `u_emsgs`: 28 */
extern QZFI_API qzfi_emsg_cache vfcmsg;      /**< empty; filled by nobody in this library */

/**
 * Gives the text of a utility status code.
 * @param localized non-zero asks the message catalogs for the current language
 * @return the text, or null when there is none; the library's
 */
QZFI_API const char *qzfi_getlocmsg(int32_t code, int32_t localized, const qzfi_emsg *table,
                                    const qzfi_emsg_cache *cache);

/**
 * Formats a message in English and in the current language and hands both to the host's handler.
 * Does nothing while the environment variable "ICU_DATA" is unset, or when memory is short. Texts are cut at 2047
 * bytes.
 * @param severity 2 or 3, passed on
 * Thread-safe.
 */
QZFI_API void qzfi_getmsg(const char *message_id, uint32_t severity, const char *format, ...) QZFI_PRINTF(3, 4);

/** Expands the backslash escapes of a catalog format in place. Digits after a backslash are decimal. */
QZFI_API void expandfmt(char *text);

QZFI_END_DECLS

#endif
