/* Path and device names, printable object names, and time stamps. All thread-safe. */
#ifndef QZFI_PATHS_H
#define QZFI_PATHS_H

#include <qzfi/export.h>
#include <qzfi/objectid.h>

QZFI_BEGIN_DECLS

/** A named object. */
typedef struct qfi_object {
    const char *name;   /**< its printable name, or null */
    qfi_objid_t *objid; /**< its id */
} qfi_object;

/**
 * Makes a path absolute and canonical by its text alone: links are not followed, and ".." at the root stays there.
 * @param path of any length; a relative one, also the empty one, begins in the current directory
 * @param out receives a new text (in 2048 bytes), released with `free`; null when memory is short, the current
 *        directory has no name of at most 2047 characters, or the result is longer than that
 */
QZFI_API void pathcanon(const char *path, char **out);

/** 1 when the first path is a block device and the second a character device of the same minor number, else 0. Links
 * are followed; major numbers are not compared. */
QZFI_API int32_t vspecs(const char *block, const char *character);

/**
 * The character ("raw") device of a block device, as a new text (in 2049 bytes) released with `free`; null when there
 * is none, the path is longer than 1023 characters, or memory is short.
 */
QZFI_API char *qzfi_block_to_char(const char *path);
/** The block device of a character device; as `qzfi_block_to_char`. */
QZFI_API char *qzfi_char_to_block(const char *path);

/**
 * An id's bytes as a text: the id's own, not copied, unless one before the last is NUL; else a fixed text. Never null.
 * The text is terminated only when the id's last byte is NUL.
 */
QZFI_API const char *qzfi_pn(const qfi_objid_t *id);
/** An object's own name, else `qzfi_pn` of its id. Never null. */
QZFI_API const char *qzfi_opn(const qfi_object *object);

/** 0 when `name` is an element of a colon-separated list (or, with colons in it, a run of them), else all bits set. */
QZFI_API uint32_t qzfi_nssup(const char *list, const char *name);

/** Gives the path of the id schema, a new text released with `free`. @return 0; 3 null; 5 out of memory (null) */
QZFI_API uint32_t qzfi_get_fiidschemapath(char **out);

/** Hands the text through: both encodings are the same here. @return 0; 3 for null */
QZFI_API uint32_t qzfi_cvt_utf8tovfc(char *text, char **out);
/** Hands the text through: both encodings are the same here. @return 0; 3 for null */
QZFI_API uint32_t qzfi_cvt_vfctoutf8(char *text, char **out);

/** Seconds since 1 January 1970 to seconds since 1 January 1900. */
QZFI_API void qzfi_xlat2_qfitime(uint64_t *out_seconds, int64_t unix_seconds);
/** Seconds since 1 January 1900 to seconds since 1 January 1970; the nanoseconds are not looked at. */
QZFI_API void qzfi_xlat2_unixtime(uint64_t seconds, uint32_t nanoseconds, int64_t *out);

QZFI_END_DECLS

#endif
