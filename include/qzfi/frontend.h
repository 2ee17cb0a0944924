/*
 * The front end: start, stop, and 88 operations forwarded to the API implementation library.
 *
 * Start and shutdown must not overlap any other call. Between them every other call may be made from any number
 * of threads; the API implementation library is loaded by the first that needs it, once.
 */
#ifndef QZFI_FRONTEND_H
#define QZFI_FRONTEND_H

#include <qzfi/export.h>
#include <qzfi/kinds.h>

QZFI_BEGIN_DECLS

/** The language that a host asks for. */
typedef struct qfi_locale_request {
    const char *tag; /**< language tag such as "en_US", or null */
    void *reserved;  /**< must be null */
} qfi_locale_request;

/** See the record below. */
typedef struct qfi_handler qfi_handler;

/** What a host gives to `qzfiapi_start`. The host keeps ownership; it must outlive the matching shutdown. */
struct qfi_handler {
    /**
     * Receives every reported text and trace line, on the thread that reports it; it must be thread-safe.
     * `self` is this record, `text` the English text, `localized` the text in the current language or null; both
     * texts are valid during the call only. `severity` is 2 or 3 for messages, 3 for entry and exit traces, 4 for
     * tree dumps.
     */
    void (*error)(qfi_handler *self, const char *text, const char *localized, uint32_t severity);
    void *reserved1;            /**< belongs to the API implementation library */
    void *reserved2;            /**< belongs to the API implementation library */
    qfi_locale_request *locale; /**< or null for no request */
};

/**
 * Starts the framework: fixes the installation root and the language, checks the caller's version and opens the
 * log. The API implementation library is not loaded yet.
 *
 * @param handler the host's handler record, or null for none
 * @param version the version that the caller was built for (see `QFI_VERSION`)
 * @return 0; 2 when started already; 3 when the locale request's reserved member is not null; 5 out of memory;
 *         8 when `version` is newer than the API ("MSG_QFI_E0326" is recorded for the calling thread).
 *         After a failure the framework is stopped, with root, consumer name and credential text as before; one with
 *         8 also clears the current language.
 * Not thread-safe.
 */
QZFI_API int32_t qzfiapi_start(qfi_handler *handler, uint64_t version);

/**
 * Stops the framework: shuts down and unloads the API implementation library and releases what start made.
 * Error records stay readable. Does nothing when the framework is not started.
 *
 * @return always 0
 * Not thread-safe: no other call may be in progress.
 */
QZFI_API int32_t qzfiapi_shutdown(void);

/**
 * Sets the installation root and the consumer name; each null argument clears its setting. A root set while the
 * framework is started takes effect at the next start.
 *
 * @return 0, or 5 out of memory (the setting is then null; when it is the root, the consumer name is untouched)
 * Not thread-safe; meant to be called before start.
 */
QZFI_API int32_t qzfiapi_set_init_env(const char *root, const char *consumer);

/**
 * Turns a status into text.
 *
 * Codes 0 to 28 are served at any time, started or not; codes 1024 to 2047 by the API implementation library, which
 * is bound if need be.
 *
 * @param status the code; with `QFI_STATUS_LOCALIZED` set, the text is wanted in the current language
 * @param text receives the text, which the caller must not free
 * @return 0; 3 when there is no such text or `text` is null; otherwise the status of the failed binding (2 or 5)
 *         or what the API implementation library returned
 * Thread-safe.
 */
QZFI_API uint32_t qzfiapi_errmsg(uint32_t status, const char **text);

/**
 * The operations, declared from the table in `operations.def`: `int32_t qzfiapi_NAME(...)` with the row's kinds.
 *
 * Each makes sure that the API implementation library is bound, hands its arguments to the entry "qzfi_NAME"
 * untouched and returns that entry's status. What the arguments mean, who owns them and which statuses they give
 * is the contract of the API implementation library.
 *
 * @return the entry's status; 2 when the framework is not started or the library cannot be loaded and bound (the
 *         calling thread's error records say why); 5 out of memory while binding
 * Thread-safe: bound calls take no lock.
 *
 * `qzfiapi_gentree`, `qzfiapi_build_alttree`, `qzfiapi_refresh_tree` and `qzfiapi_reaccess_tree` also trace the
 * resulting tree, whatever the status: the pointer that receives a tree must hold a valid tree or null before.
 */
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_OPERATION(slot, name, ...) QZFI_API QZFI_DIRECT int32_t qzfiapi_##name(QZFI_KINDS(__VA_ARGS__));
#define QZFI_TREE QZFI_OPERATION
#define QZFI_ALIAS QZFI_OPERATION
#include <qzfi/operations.def>

QZFI_END_DECLS

#endif
