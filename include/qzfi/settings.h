/*
 * Process-wide settings, and the steps of start and shutdown that the API implementation library may need itself.
 *
 * Settings are plain globals meant to be set before start, by one thread; only the credential text has a lock.
 * All of these are safe before start and after shutdown.
 */
#ifndef QZFI_SETTINGS_H
#define QZFI_SETTINGS_H

#include <pthread.h>

#include <qzfi/export.h>
#include <qzfi/frontend.h>

QZFI_BEGIN_DECLS

/**
 * Guard of the utility layer: context creation, object-id interning, the one-time catalog load. Usable at any time,
 * also before start and after shutdown.
 */
extern QZFI_API pthread_mutex_t mutex;
/** Goes with `mutex`. */
extern QZFI_API pthread_cond_t cv;

/**
 * Sets the installation root and the consumer name; a null argument leaves its setting as it is.
 * @return 0, or 5 out of memory (the setting is then null; when it is the root, the consumer name is untouched)
 */
QZFI_API int32_t qzfi_set_init_env_util(const char *root, const char *consumer);

/** Sets the installation root. @return 0; 3 for null (the old root is kept); 5 out of memory (the root is then null) */
QZFI_API int32_t qzfi_set_install_root(const char *root);

/** Sets the consumer name. @return 0; 3 for null or 5 out of memory (the name is then null) */
QZFI_API int32_t qzfi_set_consumer(const char *name);

/**
 * Gives a copy of the installation root that was set, null when none was.
 * @param out receives the copy, which the caller releases with `free`
 * @return 0; 3 when `out` is null; 5 out of memory (`*out` is null)
 */
QZFI_API int32_t qzfi_get_install_root(char **out);

/** Gives a copy of the consumer name; as `qzfi_get_install_root`. */
QZFI_API int32_t qzfi_get_consumer_name(char **out);

/**
 * Stores a copy of a credential text in place of the old one.
 * @return 0; 3 for null; 5 out of memory: the old text stays, and the credential lock stays held, so that every
 *         later credential call blocks until the next start or shutdown
 * Thread-safe.
 */
QZFI_API int32_t qzfi_set_credential_blob(const char *text);

/**
 * Gives a copy of the credential text, null when there is none or memory is short.
 * @param out receives the copy, which the caller releases with `free`
 * @return 0; 3 when `out` is null
 * Thread-safe.
 */
QZFI_API int32_t qzfi_get_credential_blob(char **out);

/** Forgets the credential text. @return 0. Thread-safe. */
QZFI_API int32_t qzfi_free_credential_blob(void);

/** Sets the current language: 1 "root", 2 "ja", 3 "zh", any other index none. @return 0. Not thread-safe. */
QZFI_API int32_t qzfi_setlang(int32_t index);

/**
 * Checks a version against the API version.
 * @param version the version to check
 * @param kind 1 for an application, whose version is remembered when accepted; any other value for a plugin
 * @return 0 when not newer; 1 when newer, reported as "MSG_QFI_E0326" (application) or "MSG_QFI_E0328" (plugin)
 * Thread-safe, but for an application that is accepted.
 */
QZFI_API int32_t compare_with_lib_version(uint64_t version, int32_t kind);

/** Prepares the utility layer and remembers the handler that reports go to (null: none). @return 0. Not thread-safe. */
QZFI_API int32_t qzfi_uinit0(qfi_handler *handler);

/** Undoes `qzfi_uinit0` and releases what the utility layer has cached. @return 0. Not thread-safe. */
QZFI_API int32_t qzfi_ufini(void);

QZFI_END_DECLS

#endif
