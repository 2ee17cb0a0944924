/*
 * Dumpers: any record of the framework, written to the log as an indented, brace-delimited block.
 *
 * Every dumper takes the record (null is written as such), an index into the indentation table, whether a new line is
 * begun first, and a label or null. It returns the result of flushing the log, 0 when there is no log. Dumps of several
 * threads are thread-safe but may mix.
 */
#ifndef QZFI_DUMP_H
#define QZFI_DUMP_H

#include <qzfi/export.h>
#include <qzfi/records.h>

QZFI_BEGIN_DECLS

/** The name of a disposition, "Unknown Type" for none. Valid for ever. Thread-safe. */
QZFI_API const char *qzfiget_qfi_disposition(int32_t disposition);
/** The name of a class, "Unknown Type" for none. Valid for ever. Thread-safe. */
QZFI_API const char *qzfiprt_qfi_class(int32_t code);

QZFI_END_DECLS

#endif
