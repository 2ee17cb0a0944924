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
 * @param code the row of `table` and `cache`; a negative one has no text, nor has one above 28 in `u_emsgs`
 * @param localized non-zero asks the message catalogs for the current language, whatever `table` and `cache` hold
 * @param table as many rows as there are codes that are asked for
 * @param cache asked before `table` when its count is not 0; then a code at or above the count has no text
 * @return the text, or null when there is none or memory is short; not to be freed, valid as long as `table`, `cache`
 * and the library are there
 * Thread-safe while nobody changes `table` and `cache`.
 */
QZFI_API const char *qzfi_getlocmsg(int32_t code, int32_t localized, const qzfi_emsg *table,
                                    const qzfi_emsg_cache *cache);

/**
 * Formats a message in English and in the current language and hands both to the host's handler.
 * Does nothing while the environment variable "ICU_DATA" is unset, or when memory is short. Texts are cut at 2047
 * bytes. The handler's localised text is null when no catalog has one, when there is no memory for it, or when it is
 * not safe to format: one that takes arguments which `format` has not or has with another type, or that holds "%n".
 * Fewer conversions, or in another order ("%2$s"), are sound.
 * @param message_id not null
 * @param severity 2 or 3, passed on
 * @param format the English text, not null, for at most 16 arguments where a catalog is to name the last
 * Thread-safe.
 */
QZFI_API void qzfi_getmsg(const char *message_id, uint32_t severity, const char *format, ...) QZFI_PRINTF(3, 4);

/**
 * Expands the backslash escapes of a catalog format in place; the text never grows.
 * Backslash and one of a, b, f, n, r, t, v give the control character, two backslashes give one, up to three digits
 * give the character of that code, as a decimal number; any other character is dropped with its backslash.
 * @param text null does nothing
 * Thread-safe for texts of one's own.
 */
QZFI_API void expandfmt(char *text);

QZFI_END_DECLS

#endif
