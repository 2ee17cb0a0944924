/*
 * Error and message lists: what failed, kept for whoever asks later.
 *
 * Three process-wide lists: error records per thread, message records, and per-module stores of error values. The
 * heads are exported, so that the API implementation library can walk them while it holds the list's mutex. It enters
 * messages itself; the error list and the stores are relinked by the operations below only, whose searches do not
 * always take the exported mutex.
 * A record keeps a message id and argument strings; it is turned into text when the user asks.
 */
#ifndef QZFI_ERRORS_H
#define QZFI_ERRORS_H

#include <pthread.h>
#include <stddef.h>

#include <qzfi/export.h>
#include <qzfi/frontend.h>
#include <qzfi/plugin.h>

QZFI_BEGIN_DECLS

/** A message's content; its address is the identity by which `fi_del_message` finds the record. */
typedef struct qfi_msg_info {
    const char *serialized; /**< the message in serialized form */
} qfi_msg_info;             /* more members may follow */

/** One raised error. Circular doubly linked, in the order raised. */
typedef struct qfi_error_info {
    int32_t count;               /**< number of `arguments` */
    int32_t status;              /**< the raiser's status, -1 when none was given */
    char message_id[32];         /**< for example "MSG_QFI_UTIL_E0058" */
    const char *session;         /**< the session it belongs to, or null; not owned */
    char **arguments;            /**< `count` owned strings, the format first */
    uint64_t plugin_ref;         /**< the plugin that owns `plugin_data` */
    void *plugin_data;           /**< released through that plugin */
    void **handle;               /**< owned cell with an owned pointee: the record's identity for `fi_del_error` */
    uint32_t retrieved;          /**< 1 once `does_last_error_exist` has handed the record out; `err_mutex` does not
                                    guard it, the raising thread alone may read it */
    struct qfi_error_info *next; /**< the next record, the first after the last */
    struct qfi_error_info *prev; /**< the previous record */
} qfi_error_info;

/** The errors of one thread. Circular doubly linked. */
typedef struct qfi_error_thread {
    pthread_t thread;              /**< the raising thread */
    qfi_error_info *errors;        /**< its first record */
    struct qfi_error_thread *prev; /**< the previous thread */
    struct qfi_error_thread *next; /**< the next thread, the first after the last */
} qfi_error_thread;

/** One message, entered by the API implementation library with everything allocated by `malloc`. Circular. */
typedef struct qfi_message_info {
    qfi_msg_info *info;            /**< owned */
    uint64_t plugin_data;          /**< released through the plugin; 0 for none */
    uint64_t plugin_ref;           /**< the plugin that owns `plugin_data` */
    const char *session;           /**< the session it belongs to, or null; not owned */
    struct qfi_message_info *prev; /**< the previous record */
    struct qfi_message_info *next; /**< the next record, the first after the last */
} qfi_message_info;

/** One value of a module's key. Circular. */
typedef struct qfi_error_value {
    uint64_t value;               /**< the value */
    uint32_t read;                /**< 1 once fetched by `qzfi_get_last_err` */
    struct qfi_error_value *prev; /**< the previous value */
    struct qfi_error_value *next; /**< the next value, the first after the last */
} qfi_error_value;

/** One key of a module. Circular. */
typedef struct qfi_error_key {
    uint64_t key;               /**< the key */
    qfi_error_value *values;    /**< its first value */
    struct qfi_error_key *prev; /**< the previous key */
    struct qfi_error_key *next; /**< the next key, the first after the last */
} qfi_error_key;

/** The error values of one module. Circular. */
typedef struct qfi_error_store {
    char *module;                 /**< owned name */
    pthread_mutex_t mutex;        /**< guards `keys` and all below; taken after `hl_err_mutex` */
    qfi_error_key *keys;          /**< the first key, null when the last one was removed */
    struct qfi_error_store *prev; /**< the previous store */
    struct qfi_error_store *next; /**< the next store, the first after the last */
} qfi_error_store;

extern QZFI_API qfi_error_thread *err_info_list; /**< first thread with errors, or null; read it under `err_mutex` */
extern QZFI_API qfi_message_info *msg_info_list; /**< first message, or null; guarded by `err_mutex` */
extern QZFI_API qfi_error_store *err_mod_list;   /**< first store, or null; read it under `hl_err_mutex` */
extern QZFI_API pthread_mutex_t err_mutex;       /**< guards the error and the message list */
extern QZFI_API pthread_mutex_t hl_err_mutex;    /**< guards the list of stores */
extern QZFI_API qfi_handler *util_ehandler;      /**< where reports go, or null; set by start, cleared by shutdown */
/** The API implementation library's plugin look-up while it is bound, else null. */
extern QZFI_API qfi_plugin *(*fi_get_pgn_f)(uint64_t plugin_ref);

/**
 * Records an error for the calling thread.
 *
 * @param message_id copied, at most 31 characters; null is recorded as an empty id
 * @param plugin_ref the plugin that owns `plugin_data`
 * @param plugin_data released through that plugin with the record; may be null; stays the caller's on failure
 * @param status copied into the record; null records -1
 * @param session kept, not copied: must outlive the record; may be null
 * @param count number of strings to store from those that follow, negative for 0; a null string is stored as
 *        "empty string", and a string for whose copy memory runs short as null.
 *        The library's own raise sites give the format and then the format's arguments, and count only the latter,
 *        so that the last one is not stored.
 * @return 0; 5 out of memory; `QFI_STATUS_NULL_RESULT` when the thread's list cannot be made. Nothing is recorded then.
 * Thread-safe.
 */
QZFI_API uint32_t fi_create_error_info(const char *message_id, uint64_t plugin_ref, void *plugin_data,
                                       const int32_t *status, const char *session, int32_t count, ...);

/**
 * Formats into the caller's buffer.
 * @param buffer points at a buffer of `size` bytes; the text is cut to fit and terminated
 * @return 0; `QFI_STATUS_NULL_RESULT` when `buffer` or the buffer is null; 3 when `format` is null
 * Thread-safe for different buffers.
 */
QZFI_API uint32_t fi_create_err_msg_str(char **buffer, int32_t size, const char *format, ...) QZFI_PRINTF(3, 4);

/**
 * Hands out the calling thread's last error, once.
 * @param out receives the record, which stays in the list and the library's
 * @return 1 with the record; 0 when there is none or it was handed out before; `QFI_STATUS_NULL_RESULT` for null
 * Thread-safe; does not take `err_mutex`.
 */
QZFI_API uint32_t does_last_error_exist(qfi_error_info **out);

/**
 * Deletes the error with the given handle; only the first thread's records are searched.
 * @param handle points at the record's `handle`; null finds nothing
 * @return 0; 1 with `err_mutex` LOCKED when nothing was found; 1 with it free when the plugin's release failed (the
 *         record stays)
 * Thread-safe.
 */
QZFI_API uint32_t fi_del_error(void ***handle);

/** Deletes every error of every thread. @return 0. Thread-safe. */
QZFI_API uint32_t fi_del_all_errors(void);

/** Deletes every error of a session; null deletes none. @return 0. Thread-safe. */
QZFI_API uint32_t fi_del_session_errors(const char *session);

/**
 * Deletes the message whose content is `*info` and clears `*info`.
 * @return 0, also when there is none; 3 for null; 1 when the plugin's release failed (the message stays)
 * Thread-safe.
 */
QZFI_API uint32_t fi_del_message(qfi_msg_info **info);

/** Deletes every message. @return 0. Thread-safe. */
QZFI_API uint32_t fi_del_all_err_msgs(void);

/** Deletes every message of a session; null deletes none. @return 0. Thread-safe. */
QZFI_API uint32_t fi_del_session_err_msgs(const char *session);

/**
 * Releases what an error record owns except the argument array and the record.
 * @param flag not 0 releases plugin data through the plugin; 0 frees the datum it points at and the data block
 * @return 0; 1 when the plugin's release fails or is missing (nothing is released then); 3 for null
 * The caller holds `err_mutex`.
 */
QZFI_API uint32_t fi_del_err_contents(qfi_error_info **record, int32_t flag);

/**
 * Releases a message record's contents and clears its `info`.
 * @return 0; 1 when the plugin's release fails or is missing (nothing is released then); 3 for null
 * The caller holds `err_mutex`.
 */
QZFI_API uint32_t fi_del_msg_contents(qfi_message_info **record);

/**
 * Stores an error value under a key of a module.
 * @param store the module's handle, null at first; the first call makes the store and fills it in
 * @param module the module's name, copied by the first call
 * @return 0; 5 out of memory (nothing is stored); 3 when `store` is null
 * A new key of an existing store takes the value 0, whatever `value` says. Thread-safe, the first call on a handle
 * included.
 */
QZFI_API uint32_t qzfi_store_err(qfi_error_store **store, uint64_t value, const char *module, uint64_t key);

/**
 * Fetches the last value of a key, once.
 * @param value receives the value, or 0
 * @return 1 with the value; 0 with `*value` 0 when there is none or it was fetched before; 3 when a pointer is null
 * Thread-safe.
 */
QZFI_API uint32_t qzfi_get_last_err(qfi_error_store *store, uint64_t key, uint64_t *value);

/**
 * Removes a value from a store; when its key is empty then, the store loses all its keys.
 * @param store the module's handle; null, or a null handle, holds no value
 * @return always 0; when the value was found, `hl_err_mutex` is LOCKED on return
 * Thread-safe.
 */
QZFI_API uint32_t qzfi_remove_err(qfi_error_store **store, uint64_t value);

/** Destroys every module store; the handles to them are void then, and no call may still use one. @return 0. */
QZFI_API uint32_t fi_del_all_err_lists(void);

/** Hands a text to the host's handler, if there is one. Thread-safe. */
QZFI_API void qzfi_handle_err(const char *text, const char *localized, uint32_t severity);

QZFI_END_DECLS

#endif
