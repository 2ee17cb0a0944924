/*
 * Thin wrappers over the system's file, loader and formatting calls. Each does one call and adds nothing else: a call
 * that is interrupted or short is the caller's to repeat, and no argument is checked. All are thread-safe; a directory
 * stream is for one thread at a time.
 */
#ifndef QZFI_SYSTEM_H
#define QZFI_SYSTEM_H

#include <dirent.h>
#include <stddef.h>
#include <sys/types.h>

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

/** Bits of the mode of `qzfi_pathaccess` and `qzfi_openfile`. */
enum qfi_file_mode {
    QFI_FILE_READ = 1,   /**< read */
    QFI_FILE_WRITE = 2,  /**< write */
    QFI_FILE_CREATE = 4, /**< create; `qzfi_openfile` only */
    QFI_FILE_EXECUTE = 8 /**< execute; `qzfi_pathaccess` only */
};

/** Tests access. @return 0, or -1 with errno */
QZFI_API int32_t qzfi_pathaccess(const char *path, int32_t mode);

/** Opens a directory stream, to be closed with `qzfi_closedir`. @return null with errno on failure */
QZFI_API DIR *qzfi_opendir(const char *path);
/** Closes a directory stream. @return 0, or -1 with errno */
QZFI_API int32_t qzfi_closedir(DIR *stream);
/**
 * The name of the next entry, "." and ".." included; valid until the next call on the stream.
 * @return null at the end, errno unchanged, or with errno when the directory cannot be read
 */
QZFI_API const char *qzfi_dir(DIR *stream);

/**
 * Opens a file.
 * @param mode bits of `qfi_file_mode`. A created file's permissions are the numeric open flags plus 0x40, as callers
 *        of this framework have always had them.
 * @return the descriptor, or -1 with errno
 */
QZFI_API int32_t qzfi_openfile(const char *path, int32_t mode);
/** Reads. @return the number of bytes, 0 at the end of the file, or -1 with errno */
QZFI_API ssize_t qzfi_readfile(int32_t fd, void *buffer, size_t size);
/** Writes. @return the number of bytes, or -1 with errno */
QZFI_API ssize_t qzfi_writefile(int32_t fd, const void *buffer, size_t size);
/** Closes. @return 0, or -1 with errno */
QZFI_API int32_t qzfi_closefile(int32_t fd);

/** Loads a plugin library with lazy symbol resolution. @return the handle, or null (see `qzfi_dlerror`) */
QZFI_API void *qzfi_dlopen_pgn(const char *path);
/** The same as `qzfi_dlopen_pgn`, for the API implementation library. */
QZFI_API void *qzfi_dlopen_lib(const char *path);
/** Looks a symbol up. @return null when it is missing (see `qzfi_dlerror`) */
QZFI_API void *qzfi_dlsym(void *handle, const char *name);
/** The loader's last error text of the calling thread, null when there is none; valid until the next loader call. */
QZFI_API const char *qzfi_dlerror(void);
/** Unloads a library. @return 0 for success */
QZFI_API int32_t qzfi_dlclose(void *handle);

/** Maps a file from offset 0, private and read-only. @return null with errno on failure */
QZFI_API void *qzfi_mmap(size_t length, int32_t fd);
/** Removes a mapping. @return 0, or -1 with errno */
QZFI_API int32_t qzfi_munmap(void *address, size_t length);

/** The calling thread's errno. */
QZFI_API int32_t qzfi_errno(void);

/**
 * Formats into a buffer of `size` bytes, terminated unless that is 0.
 * @return the length that the whole text has, negative when it cannot be formatted
 */
QZFI_API int32_t qzfi_snprintf(char *buffer, size_t size, const char *format, ...) QZFI_PRINTF(3, 4);

/**
 * Formats a number into a new zero-filled buffer of 10 bytes: numbers of more than 9 characters lose the last ones.
 * @param out receives the text too; may be null. The caller releases the text with `free`.
 * @return the text, null when memory is short
 */
QZFI_API char *qzfi_mysprintf(int32_t number, char **out);

QZFI_END_DECLS

#endif
