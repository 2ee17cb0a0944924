/* Statuses: the integer result of every operation. */
#ifndef QZFI_STATUS_H
#define QZFI_STATUS_H

#include <stdint.h>

/**
 * Status codes of the framework. Codes 0 to 28 have a text that `qzfiapi_errmsg` returns; codes 1024 to 2047
 * belong to the API implementation library, which supplies their texts itself.
 */
enum qfi_status {
    QFI_STATUS_OK = 0,               /**< success */
    QFI_STATUS_INTERNAL = 1,         /**< internal error; from the list operations: not found */
    QFI_STATUS_NOT_STARTED = 2,      /**< not started, already started, or the API library is not bound */
    QFI_STATUS_INVALID_ARGUMENT = 3, /**< invalid argument or handle */
    QFI_STATUS_NOT_SUPPORTED = 4,    /**< the provider cannot do this */
    QFI_STATUS_NO_MEMORY = 5,        /**< out of memory */
    QFI_STATUS_VERSION = 8,          /**< the caller is newer than the API */
    QFI_STATUS_SYSTEM_CALL = 11,     /**< a system call or a pipe failed */
    QFI_STATUS_INCOMPATIBLE = 12,    /**< a provider refuses silently */
    QFI_STATUS_KEY_NOT_FOUND = 16,   /**< the key is not in the hash table */
    QFI_STATUS_UTILITY_LAST = 28,    /**< highest code with a text in the utility message table */
    QFI_STATUS_API_FIRST = 1024,     /**< lowest code of the API implementation library */
    QFI_STATUS_API_LAST = 2047       /**< highest code of the API implementation library */
};

/** Result of an operation whose result pointer is null or could not be filled: all bits set. */
#define QFI_STATUS_NULL_RESULT UINT32_MAX

/** Set in the status given to `qzfiapi_errmsg`: asks for the text in the current language. */
#define QFI_STATUS_LOCALIZED 0x40000000u

#endif
