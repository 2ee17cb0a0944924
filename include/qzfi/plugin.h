/* Provider plugins: the descriptors that the loader makes and the list that they form. */
#ifndef QZFI_PLUGIN_H
#define QZFI_PLUGIN_H

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

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

QZFI_END_DECLS

#endif
