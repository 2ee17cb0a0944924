// The utility layer's own messages, and how a failure is raised.
#pragma once

#include <cstdint>
#include <type_traits>

#include <qzfi/errors.h>
#include <qzfi/messages.h>
#include <qzfi/system.h>

#include "common/qzfitext.h"

namespace qzfi {

/// A numbered message: one row of the message table.
struct Message {
    const char *id;
    uint32_t severity;
    const char *format; // English; its first argument is the routine that reports
};

// The messages of the utility layer, in order of id: name, id, severity, English format.
// clang-format off
#define QZFI_MESSAGES(X) \
    X(opendir_failed, "MSG_QFI_UTIL_E0041", 3, "%s: opendir on %s failed errno %d\n") \
    X(badly_formed_version, "MSG_QFI_UTIL_E0042", 2, "%s: library path %s has badly formed version number\n") \
    X(no_memory_for_directory_path, "MSG_QFI_UTIL_E0043", 3, "%s: couldn't malloc dir path buffer\n") \
    X(no_memory_for_library_name, "MSG_QFI_UTIL_E0044", 2, "%s: couldn't malloc libname buffer for %s\n") \
    X(plugin_not_readable, "MSG_QFI_UTIL_E0045", 2, "%s: plugin %s not readable\n") \
    X(no_memory_for_plugin_descriptor, "MSG_QFI_UTIL_E0046", 2, "%s: couldn't malloc plugin descriptor for %s\n") \
    X(no_memory_for_libpriv_descriptor, "MSG_QFI_UTIL_E0047", 2, "%s: couldn't malloc libpriv descriptor for %s\n") \
    X(no_memory_for_vp_prefix, "MSG_QFI_UTIL_E0048", 2, "%s: couldn't malloc vp_prefix for %s\n") \
    X(plugin_not_initialized, "MSG_QFI_UTIL_E0049", 2, "%s: couldn't initialize %s\n") \
    X(fork_failed, "MSG_QFI_UTIL_E0050", 3, "%s: couldn't fork\n") \
    X(shell_abend, "MSG_QFI_UTIL_E0051", 3, "%s: shell abend\n") \
    X(status_write_failed, "MSG_QFI_UTIL_E0052", 3, "%s: status write failed\n") \
    X(read_size_error, "MSG_QFI_UTIL_E0053", 3, "%s: read size error\n") \
    X(command_pipe_not_created, "MSG_QFI_UTIL_E0054", 3, "%s: couldn't create pipe\n") \
    X(status_pipe_not_created, "MSG_QFI_UTIL_E0055", 3, "%s: couldn't create pipe\n") \
    X(output_pipe_not_created, "MSG_QFI_UTIL_E0056", 3, "%s: couldn't create pipe\n") \
    X(error_pipe_not_created, "MSG_QFI_UTIL_E0057", 3, "%s: couldn't create pipe\n") \
    X(fstat_failure, "MSG_QFI_UTIL_E0058", 3, "%s: fstat failure\n") \
    X(write_size_error, "MSG_QFI_UTIL_E0059", 3, "%s: write size error\n") \
    X(library_not_loaded, "MSG_QFI_UTIL_E0060", 3, "%s: %s not loaded:\n%s\n") \
    X(entry_not_found, "MSG_QFI_UTIL_E0061", 3, "%s: %s not found\n") \
    X(application_too_new, "MSG_QFI_E0326", 3, "%s: Application version %s newer than API version %s\n") \
    X(plugin_too_new, "MSG_QFI_E0328", 2, "%s: Plugin version %s newer than API version %s\n")
// clang-format on

/// What records hold of `opendir_failed`, whose number is text there.
inline constexpr const char *opendir_failed_record_format = "%s: opendir on %s failed errno %s\n";

namespace message {
#define QZFI_MESSAGE(name, id, severity, format) inline constexpr Message name{id, severity, format};
QZFI_MESSAGES(QZFI_MESSAGE)
#undef QZFI_MESSAGE
} // namespace message

/// Raises a failure: reports it to the host, then records it for the calling thread.
///
/// The record's argument count is the number of the format's arguments, but the strings handed over begin with the
/// format, so the last argument is not stored: readers of the lists know the records in this shape.
template <class... Arguments>
void raise(const Message &message, const char *routine, Arguments... arguments) noexcept {
    static_assert((std::is_same_v<Arguments, const char *> && ...), "every argument of these formats is a text");
    qzfi_getmsg(message.id, message.severity, message.format, routine, arguments...);
    fi_create_error_info(message.id, 0, nullptr, nullptr, nullptr, 1 + int{sizeof...(arguments)}, message.format,
                         routine, arguments...);
}

/// Raises `opendir_failed`, the one message with a number: reported as a number, recorded as text. As in every record
/// the last argument, here that text, is counted out.
inline void raise_opendir_failed(const char *routine, const char *path, int32_t error) noexcept {
    const Message &message = message::opendir_failed;
    qzfi_getmsg(message.id, message.severity, message.format, routine, path, error);
    const Text number{qzfi_mysprintf(error, nullptr)};
    fi_create_error_info(message.id, 0, nullptr, nullptr, nullptr, 3, opendir_failed_record_format, routine, path,
                         number.get());
}

} // namespace qzfi
