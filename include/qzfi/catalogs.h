/* Localised texts: the process's message locale, the catalog files, and the text of a message id. */
#ifndef QZFI_CATALOGS_H
#define QZFI_CATALOGS_H

#include <stdarg.h>
#include <stdio.h>

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

/**
 * @return the process's locale for messages, as the C library gives it; may be null; the C library's
 * Thread-safe while nobody changes the locale.
 */
QZFI_API const char *qzfi_getlocale(void);

/** @return the directory of the catalog files, "/usr/lumen/resources/"; static. Thread-safe. */
QZFI_API const char *qzfi_msgcatalogdir(void);

/**
 * Reads the next word of a text.
 * @param position not null
 * @param word receives the word, cut to 31 characters and terminated; 32 bytes
 * @return the white space after the word, or the end of the text
 * Thread-safe.
 */
QZFI_API const char *qzfi_getNextLocaleName(const char *position, char *word);

/**
 * Opens the catalog file of a locale, "en_US" and null being the plain one.
 * @return a descriptor that the caller closes, or -1. A FIFO is opened without waiting for its writer.
 * Thread-safe.
 */
QZFI_API int32_t qzfi_openMsgCatalog(const char *locale);

/**
 * Opens the file that ties locales to language words, "Qfi-Locale-to-Language.txt" in the catalog directory.
 * @return a stream that the caller closes, or null. Thread-safe.
 */
QZFI_API FILE *qzfi_openLocaleMappingFile(void);

/**
 * Opens the catalog of a mapping line's locale, its first word, when the line answers a request.
 * @param key what is asked for: a language word, a language or a locale; not null
 * @param locale_form when not 0, the language of the line's locale ("ja" of "ja_JP") answers too
 * @param line white-space separated words; not null
 * @return a descriptor that the caller closes, or -1. Thread-safe.
 */
QZFI_API int32_t qzfi_processMappingLine(const char *key, int32_t locale_form, const char *line);

/**
 * Opens the catalog that suits a locale request: the locale's own, else the one that the mapping file ties it to, else
 * the one of the built-in table.
 * @param request not null
 * @param fallback 1 opens the plain catalog when there is no other
 * @return a descriptor that the caller closes, or -1. Thread-safe.
 */
QZFI_API int32_t qzfi_findMsgCatalog(const char *request, uint32_t fallback);

/**
 * Gives the format of a key in the catalog of the process's message locale, which is loaded by the first call that
 * finds one.
 * @param key not null
 * @return the first such key's format, valid until shutdown and not to be freed; null when there is none, no catalog
 * could be loaded, or no language is set
 * Thread-safe, except against shutdown.
 */
QZFI_API const char *qzfi_getlfmt(const char *key);

/** Clears the current language. Not thread-safe. */
QZFI_API void deinitlc(void);

/**
 * Gives the text of a message in a locale from the catalogs below "/usr/lumen/resources/". A text that a catalog gave
 * is prefixed by its name, "fi: "; an id that the catalog does not have comes back as "fi: <id>", and as "<id>" when
 * there is no catalog. A catalog, once open, is kept; one that could not be opened is tried again by the next call.
 * @param message_id not null
 * @param locale an ICU locale name, "native" for the native language, null for the root catalog
 * @param arguments read only when `raw` is 0, as the pattern's placeholders tell: `const UChar *` for "{0}", double
 * for "{0,number}" and dates, int for "{0,number,integer}". The caller answers for their agreement.
 * @param raw not 0 gives the catalog's text; 0 formats it by ICU's rules. Formatting reads the text in ICU's default
 * code page, so text beyond ASCII needs that to be UTF-8. A pattern that ICU refuses, or that is nested more than 64
 * braces deep, gives its bytes as UTF-16 up to the first zero, most often one character: callers know it.
 * @return UTF-8 that the caller releases with `free`, or null when memory is short or the process is ending
 * Thread-safe.
 */
QZFI_API char *fi_get_icuMsg(const char *message_id, const char *locale, va_list arguments, int raw);

QZFI_END_DECLS

#endif
