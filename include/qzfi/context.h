/*
 * The context process: runs shell commands for the host, so that a large host never forks for each of them.
 *
 * There is at most one per host, forked by the first `qzfi_create_context` and stopped by the last
 * `qzfi_close_context`. Commands of several threads run strictly one after another. A host should create it early,
 * while it is small.
 */
#ifndef QZFI_CONTEXT_H
#define QZFI_CONTEXT_H

#include <pthread.h>

#include <qzfi/export.h>

QZFI_BEGIN_DECLS

/** Slots of the context record, in order. */
enum qfi_context_slot {
    QFI_CONTEXT_COMMAND_READ = 0,  /**< command pipe, the context process's end */
    QFI_CONTEXT_COMMAND_WRITE = 1, /**< command pipe, the host's end */
    QFI_CONTEXT_STATUS_READ = 2,   /**< status pipe, the host's end */
    QFI_CONTEXT_STATUS_WRITE = 3,  /**< status pipe, the context process's end */
    QFI_CONTEXT_OUTPUT_READ = 4,   /**< standard output of commands, the host's end */
    QFI_CONTEXT_OUTPUT_WRITE = 5,  /**< standard output of commands, the context process's end */
    QFI_CONTEXT_ERROR_READ = 6,    /**< error output of commands, the host's end */
    QFI_CONTEXT_ERROR_WRITE = 7,   /**< error output of commands, the context process's end */
    QFI_CONTEXT_PID = 8,           /**< process id of the context process */
    QFI_CONTEXT_SLOTS = 9
};

/** What the pipe operations do with `mutex_iop` on return. */
enum qfi_lock_mode {
    QFI_LOCK_KEEP = 0,   /**< leave it as it is */
    QFI_LOCK_RELEASE = 1 /**< unlock it */
};

extern QZFI_API int32_t *command_iop;             /**< the context record (nine slots), or null; also the handle */
extern QZFI_API pthread_mutex_t mutex_iop;        /**< held across one whole command exchange */
extern QZFI_API uint32_t reference_count_context; /**< creates without a matching close */

/**
 * Makes the context process, or counts one more user of it.
 * @return 0; 5 out of memory; 11 when a pipe, the fork or the handshake fails (recorded for the calling thread; after
 *         a failed handshake the reference is counted and must be closed)
 * Thread-safe.
 */
QZFI_API uint32_t qzfi_create_context(void);

/**
 * Gives one reference back; the last one stops the context process and closes the host's pipe ends. No thread may be
 * inside a command exchange then.
 * @return 0
 */
QZFI_API int32_t qzfi_close_context(void);

/** Gives the handle of the context. @return 0; 3 when `handle` is null or there is no context. Takes no lock. */
QZFI_API uint32_t qzfi_get_iop(void **handle);

/** Unlocks `mutex_iop` after an exchange. @return 0; 3, with nothing unlocked, when `handle` is not the context's */
QZFI_API uint32_t qzfi_unlock_iop(void *handle);

/** 1 when this process has a context, else 0. */
QZFI_API int32_t qzfi_is_child_context(void);

/**
 * Runs a shell command in the context process and collects what it printed.
 *
 * A command starts after two seconds and its output arrives at 256 bytes every two seconds; one that prints nothing
 * costs ten seconds in all.
 *
 * @param command text for "/bin/bash -c"
 * @param buffer receives the standard output when the exit code is 0, else the error output; null when there is none.
 *        Released with `qzfi_free_buf`. Not terminated.
 * @param length receives its number of bytes
 * @return the exit code (all bits set when a signal ended the command) when it is not 0. Otherwise 0 for success; 3
 *         null argument (nothing is touched) or no context; 5 no memory to wait with (nothing was sent); 11 a pipe
 *         failed or the context process is gone. An exit code of 3, 5 or 11 cannot be told from these. When output or
 *         exit code could not be read, for lack of memory too, the result is 0 with a null buffer, and an exit code
 *         that was not read is the next command's.
 * Thread-safe; waits for the exchanges of other threads.
 */
QZFI_API uint32_t qzfi_exec_cmd_in_child_context(const char *command, char **buffer, uint32_t *length);

/**
 * Sends a command, after discarding output left over from earlier ones at 256 bytes every two seconds. The caller
 * reads output and exit code itself, and does so before the next command.
 * @param lock_mode `QFI_LOCK_KEEP` returns with `mutex_iop` locked, also on failure; `QFI_LOCK_RELEASE` unlocks it
 * @return 0; 3 null command, stale handle or bad mode (nothing locked or sent); 11 a pipe failed. When that
 *         cut a command short, the context takes no more of them: it has to be closed and made again.
 */
QZFI_API uint32_t qzfi_sendcmd(void *handle, const char *command, uint32_t lock_mode);

/**
 * Appends what can be read from a pipe to a buffer, with a pause of two seconds after each 256 bytes. Waits for the
 * first byte or the pipe's end. The caller holds `mutex_iop` when the pipe is the context's.
 * @param buffer in and out, from `qzfi_alloc_buf` or null; moved when it grows
 * @param length in and out, its number of bytes
 * @return 0, also when a read fails; 3 null argument; 5 out of memory (the buffer is as it was before the last chunk,
 *         which is lost); 11 the waiting bytes could not be counted
 */
QZFI_API uint32_t qzfi_readfd(int32_t fd, char **buffer, uint32_t *length);

/**
 * Copies what is pending on the output pipe to a descriptor. The caller holds `mutex_iop`.
 * @param lock_mode `QFI_LOCK_RELEASE` unlocks `mutex_iop` on return, but not on status 3
 * @return 0; 3 stale handle or bad mode; 11 a read or write failed
 */
QZFI_API uint32_t qzfi_readoutpipe(void *handle, int32_t destination, uint32_t lock_mode);

/** The same for the error pipe. */
QZFI_API uint32_t qzfi_readerrpipe(void *handle, int32_t destination, uint32_t lock_mode);

/** Allocates a zero-filled buffer that crosses the interface. @return null when memory is short */
QZFI_API void *qzfi_alloc_buf(uint64_t size);

/** Releases a buffer; null is fine, `length` is not looked at. */
QZFI_API void qzfi_free_buf(void *buffer, uint64_t length);

QZFI_END_DECLS

#endif
