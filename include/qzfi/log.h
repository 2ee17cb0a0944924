/*
 * The diagnostic log and the trace.
 *
 * Start opens the log when the trace configuration asks for it; dumps go there. Trace lines go to the host's handler.
 * Writers are thread-safe (each call writes through the stream's own lock); the setters are not.
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

/** The log stream, null when there is no log. The library's. */
QZFI_API FILE *get_qzfi_msgout(void);
/** Sends the log to another stream, null for nowhere; the stream stays the caller's. */
QZFI_API void set_qzfi_msgout(FILE *stream);
/** The path of the log file, null when there is none. The library's. */
QZFI_API char *get_qzfi_logfile(void);
/** Names another log file; nothing is opened, and the text stays the caller's. */
QZFI_API void set_qzfi_logfile(char *path);
/** The trace mask in force, a combination of `qfi_trace`. */
QZFI_API uint32_t get_qzfi_debuglevel(void);
/** Sets the trace mask. */
QZFI_API void set_qzfi_debuglevel(uint32_t mask);

/**
 * Reads the trace configuration below an installation root ("lib/.qzms.rc") and, when it sets a level, opens a new
 * log file below "arcvault/logs/fisagent" and writes its header. A log that an earlier call opened is closed.
 * @return the trace mask; 0 for a null root, no configuration, no level, or when memory is short
 * Not thread-safe.
 */
QZFI_API uint32_t init_qzfi_logFile(const char *root);

/** Formats a trace line of any length and hands it to the host's handler; drops it when memory is short. */
QZFI_API void qzfi_tracelog(uint32_t severity, const char *format, ...) QZFI_PRINTF(2, 3);

/**
 * Writes a text to the log.
 * @param text the text; null logs as "NULL"
 * @param newline non-zero starts a new line first
 * @param indent index into `spc`, 0 to 19
 * @return the result of the flush; 0 when there is no log
 */
QZFI_API int32_t qzfi_logmsg(const char *text, int32_t newline, int32_t indent);

/** Writes a hex dump to the log, 16 bytes a line; nothing for length 0. */
QZFI_API void qzfi_hexdump(const void *bytes, uint32_t length);

/** 1 when all bytes but the last (the terminator, not examined) are printable, the blank included; else 0. */
QZFI_API int32_t qzfi_printable(const void *bytes, uint64_t length);

/** The text itself, or "NULL" for null. */
QZFI_API const char *qzfi_checkNull(const char *text);

/**
 * Traces a domain tree at severity 4, a line a node: later siblings first, children two blanks deeper than their
 * parent, a node with an alternate as "NAME --> ALTERNATE". Null traces nothing.
 * @param depth blanks before the name, at most 23 are written
 */
QZFI_API void qzfi_print_tree(const qfi_domain *node, int32_t depth);

QZFI_END_DECLS

#endif
