/* Provider plugins: the descriptors that the loader makes and the list that they form. */
#ifndef QZFI_PLUGIN_H
#define QZFI_PLUGIN_H

#include <dirent.h>

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

/** See the record below. */
typedef struct qfi_plugin qfi_plugin;

/** The loader's part of a plugin descriptor. */
typedef struct qfi_libpriv {
    void *reserved0;  /**< zero */
    uint32_t mark;    /**< `QFI_PLUGIN_ACCEPTED` when the plugin was accepted without reserve, else 0 */
    qfi_plugin *next; /**< the next plugin of the list, or null */
    qfi_plugin *prev; /**< the previous plugin of the list, null at the head */
    void *reserved1;  /**< zero */
    void *reserved2;  /**< zero */
} qfi_libpriv;

/** A loaded plugin; owned by the list that it is on. */
struct qfi_plugin {
    void *first;          /**< set by the initialisation routine: points at the plugin's `qfi_plugin_ops` */
    uint64_t value;       /**< the value that the caller gave to the loader */
    char *library_path;   /**< owned */
    char *vp_prefix;      /**< owned: the plugin's base name */
    void *fifth;          /**< the caller's */
    void *sixth;          /**< the caller's */
    qfi_libpriv *libpriv; /**< owned */
};

/** `qfi_libpriv.mark` of a plugin whose initialisation routine returned 0, or that had none. */
#define QFI_PLUGIN_ACCEPTED 0x9ce6d53fu

/** What a plugin releases itself. In each pair a set mark without an operation means that the operation is missing. */
typedef struct qfi_plugin_ops {
    void *error_mark;                    /**< set when the plugin owns error data */
    int32_t (*free_error)(void **data);  /**< releases error data, given the address of the field; 0 is success */
    void *message_mark;                  /**< set when the plugin owns message data */
    int32_t (*free_message)(uint64_t *); /**< releases message data, given the address of the field; 0 is success */
} qfi_plugin_ops;                        /* more members may follow */

/**
 * Opens a plugin directory.
 *
 * @param subdir the directory below `root`, with a "/" at its end, for `qzfi_newpgn` appends file names directly
 * @param env_name name of the environment variable whose value, when set, is the directory instead
 * @param path receives the directory's path: the environment's own text, or a new one that the caller frees
 * @param owned receives 1 when `*path` is to be freed, else 0
 * @return the open stream, or null (recorded for the calling thread: "MSG_QFI_UTIL_E0041" or "MSG_QFI_UTIL_E0043";
 *         nothing is to be freed then, `*path` is null); null too, with nothing recorded, when an out pointer is null,
 *         or when the variable is unset and `subdir` or `root` is null
 * Thread-safe.
 */
QZFI_API DIR *qzfi_pgndir(const char *subdir, const char *env_name, char **path, int32_t *owned, const char *root);

/**
 * Finds, loads and initialises one more plugin of a directory and puts it at the head of a list.
 *
 * Plugin files are named anything, `prefix`, a base name, ".so", and optionally "." and a version. One file per base
 * name is taken: of several versions the one that the directory lists last, whatever their numbers. A version is at
 * most 15 digits; files with another are reported and left out. Libraries with "STD.", "ST." or "D." anywhere in their
 * path are left out silently.
 *
 * @param subdir, env_name, root as for `qzfi_pgndir`
 * @param list the plugins loaded so far; in and out
 * @param init loads and starts the plugin from its descriptor: 0 accepts it, 29 or 30 accept it without the mark, 12
 *        refuses it silently, anything else refuses it with "MSG_QFI_UTIL_E0049"; null accepts every plugin.
 *        A refused plugin is not remembered.
 * @param value stored in the descriptor
 * @return the new descriptor, owned by the list; null when no further plugin was accepted (why a file was passed over
 *         is recorded for the calling thread, "MSG_QFI_UTIL_E0041" to "MSG_QFI_UTIL_E0049"), or when `list` or `prefix`
 *         is null
 * Thread-safe on different lists.
 */
QZFI_API qfi_plugin *qzfi_newpgn(const char *subdir, const char *env_name, const char *prefix, qfi_plugin **list,
                                 uint32_t (*init)(qfi_plugin *), uint64_t value, const char *root);

QZFI_END_DECLS

#endif
