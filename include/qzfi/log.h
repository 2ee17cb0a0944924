/*
 * The diagnostic log and the trace.
 *
 * Start opens the log when the trace configuration asks for it; dumps go there. Trace lines go to the host's handler.
 * Writers are thread-safe (what one call writes stays together); the setters are not.
 */
#ifndef QZFI_LOG_H
#define QZFI_LOG_H

#include <stdio.h>

#include <qzfi/export.h>
#include <qzfi/records.h>

QZFI_BEGIN_DECLS

/** Bits of the trace mask, named in the trace configuration without the prefix. */
enum qfi_trace {
    QFI_TRACE_INFO = 0x100,
    QFI_TRACE_WARN = 0x200,
    QFI_TRACE_TRC_TOP = 0x400,
    QFI_TRACE_TRC_LOW = 0x800,
    QFI_TRACE_PARAM_IN = 0x1000,
    QFI_TRACE_PARAM_OUT = 0x2000,
    QFI_TRACE_PARAM_FULL = 0x4000
};

extern QZFI_API uint32_t qzfi_debug_level; /**< the trace mask in force */
extern QZFI_API int32_t qzfi_debug;        /**< 1; read by nobody in this library */
extern QZFI_API const char *const spc[20]; /**< indentation: entry i is 2 * i blanks */

/**
 * The log stream, null when there is no log. The stream of a log file stays open for the life of the process and is
 * not to be closed; when a restart makes another log file, the same stream goes on there.
 */
QZFI_API FILE *get_qzfi_msgout(void);
/** Sends the log to another stream, null for nowhere; the stream stays the caller's. */
QZFI_API void set_qzfi_msgout(FILE *stream);
/** The path of the log file, null when there is none. Not to be freed: the next opening frees it. */
QZFI_API char *get_qzfi_logfile(void);
/** Names another log file; nothing is opened, and the text stays the caller's. */
QZFI_API void set_qzfi_logfile(char *path);
/** The trace mask in force, a combination of `qfi_trace`. */
QZFI_API uint32_t get_qzfi_debuglevel(void);
/** Sets the trace mask. */
QZFI_API void set_qzfi_debuglevel(uint32_t mask);

/**
 * Reads the trace configuration below an installation root ("lib/.qzms.rc") and, when it sets a level, opens a new
 * log file below "arcvault/logs/fisagent" and writes its header, which shows the mask in force before the call.
 * A configuration line is one of at most 249 characters that holds "debug_level" and a "=", and does not begin with
 * "#"; what follows the "=" are names of `qfi_trace` bits separated by "|". All such lines add up. Longer lines are
 * read as several. A new log takes over the stream that an earlier call made and releases its path; a stream or path
 * given to the setters is left alone. A call that returns 0 leaves the log stream as it is.
 * @return the trace mask, also when the log file cannot be opened (the log stream is null then); 0 for a null root, no
 *         configuration, no level, or when memory for the path is short (the path is null then)
 * Not thread-safe.
 */
QZFI_API uint32_t init_qzfi_logFile(const char *root);

/**
 * Formats a trace line of any length and hands it to the host's handler; drops it when it cannot be formatted or memory
 * is short. A null or empty format traces nothing.
 */
QZFI_API void qzfi_tracelog(uint32_t severity, const char *format, ...) QZFI_PRINTF(2, 3);

/**
 * Writes a text to the log.
 * @param text the text; null logs as "NULL"
 * @param newline non-zero starts a new line first
 * @param indent index into `spc`, 0 to 19; the nearest of these for any other
 * @return the result of the flush; 0 when there is no log
 */
QZFI_API int32_t qzfi_logmsg(const char *text, int32_t newline, int32_t indent);

/** Writes a hex dump to the log, 16 bytes a line; nothing for length 0 or null. */
QZFI_API void qzfi_hexdump(const void *bytes, uint32_t length);

/**
 * 1 when all bytes but the last (the terminator, not examined) are printable ASCII, the blank included, whatever the
 * locale; else 0. 1 for length 0.
 */
QZFI_API int32_t qzfi_printable(const void *bytes, uint64_t length);

/** The text itself, or "NULL" for null. */
QZFI_API const char *qzfi_checkNull(const char *text);

/**
 * Traces a domain tree at severity 4, a line a node: later siblings first, children two blanks deeper than their
 * parent, a node with an alternate as "NAME --> ALTERNATE". A missing name reads "NULL". Null traces nothing. When
 * memory is short the rest of the tree is left out.
 * @param depth blanks before the name, at most 23 are written
 */
QZFI_API void qzfi_print_tree(const qfi_domain *node, int32_t depth);

QZFI_END_DECLS

#endif
