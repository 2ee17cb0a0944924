// How an entry does its work: arguments as the contract says, traced, fenced off, its end noted.
#pragma once

#include <utility>

#include <qzfi/export.h>
#include <qzfi/kinds.h>
#include <qzfi/log.h>

#include "fi/fi_tree.h"

// All entries with the kinds that the front end calls them with: one that is defined otherwise is another function, and
// does not compile with -Wmissing-declarations.
extern "C" {
QZFI_API int32_t qzfi_start(void *reserved1, int32_t reserved2, qfi_handler *handler, int32_t reserved3);
QZFI_API int32_t qzfi_shutdown(void);
QZFI_API uint32_t qzfi_errmsg(uint32_t status, const char **text);
QZFI_API int32_t qzfi_del_last_error(void *error);
QZFI_API qfi_plugin *fi_get_pgn(uint64_t plugin_ref);
#define QZFI_OWN(slot, name)
#define QZFI_SPARE(slot, name)
#define QZFI_ALIAS(slot, name, ...)
#define QZFI_OPERATION(slot, name, ...) QZFI_API int32_t qzfi_##name(QZFI_KINDS(__VA_ARGS__));
#define QZFI_TREE QZFI_OPERATION
#include <qzfi/operations.def>
}

namespace qzfi::fi {

/// Runs the body of an entry that works: its beginning and end are traced, as the front end does.
template <class Body>
int32_t traced_entry(const char *operation, Body &&body) noexcept {
    constexpr uint32_t trace_severity = 3;
    qzfi_tracelog(trace_severity, "Entering %s", operation);
    const int32_t status = fenced(operation, std::forward<Body>(body));
    note_end(status);
    qzfi_tracelog(trace_severity, "Exiting %s with %d", operation, status);
    return status;
}

/// The record behind a pointer argument whose first member is its size; throws unless it is there and large enough.
template <class Record>
Record *sized(void *argument, const char *operation, const char *what) {
    auto *const record = static_cast<Record *>(argument);
    require(record != nullptr && record->size >= sizeof(Record), operation, what);
    return record;
}
/// The same for one that may be null.
template <class Record>
Record *sized_or_null(void *argument, const char *operation, const char *what) {
    return argument == nullptr ? nullptr : sized<Record>(argument, operation, what);
}
/// A pointer that receives a result; it is null first, so that a failure gives nothing.
template <class Result>
Result *result_at(void *argument, const char *operation, const char *what) {
    auto *const result = static_cast<Result *>(argument);
    require(result != nullptr, operation, what);
    *result = Result{};
    return result;
}
template <class Result>
Result *result_or_null(void *argument) {
    auto *const result = static_cast<Result *>(argument);
    if (result != nullptr)
        *result = Result{};
    return result;
}
inline const char *text_at(void *argument, const char *operation, const char *what) {
    require(argument != nullptr, operation, what);
    return static_cast<const char *>(argument);
}
inline qfi_domain *node_at(void *argument) {
    return static_cast<qfi_domain *>(argument);
}
/// Arguments that a later version may give a meaning to.
inline void require_unused(bool unused, const char *operation) {
    require(unused, operation, "a reserved argument is not zero");
}

} // namespace qzfi::fi
