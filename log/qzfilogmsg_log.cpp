#include <qzfi/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>
#include <utility>

#include "common/qzfitext.h"
#include "log/qzfilogmsg.h"

const char *const spc[20] = {
    "",
    "  ",
    "    ",
    "      ",
    "        ",
    "          ",
    "            ",
    "              ",
    "                ",
    "                  ",
    "                    ",
    "                      ",
    "                        ",
    "                          ",
    "                            ",
    "                              ",
    "                                ",
    "                                  ",
    "                                    ",
    "                                      ",
};

namespace {

constexpr int most_names = 16; // names asked for before a log file is given up as taken
constexpr uint32_t dump_width = 16;
constexpr uint32_t dump_middle = 7;   // the byte that a "-" follows
constexpr std::size_t dump_line = 80; // "OOOOOOOO : ", 16 * "XX ", ": ", 16 characters, a newline
constexpr int32_t deepest_indent = std::size(spc) - 1;
constexpr mode_t log_file_mode = 0666; // as fopen creates files; the umask applies

// The log in force, and what opening made of it. The setters change only the former: a stream or path that was set
// is the caller's, and the one that opening made stays ours.
struct LogState {
    FILE *output;
    char *path;
    FILE *own_output;
    char *own_path;
};
LogState log_state{};

struct NewLog {
    qzfi::Text path; // null when no name could be made
    int fd = -1;     // negative when the file could not be opened
};

/// A path in the directory that names no file yet, null when none can be made.
qzfi::Text unique_path(const char *directory) noexcept {
    const qzfi::Text name{tempnam(directory, "QzFI-")};
    if (!name)
        return nullptr;
    char path[qzfi::log_path_size];
    (void)snprintf(path, sizeof path, "%s.log", name.get());
    return qzfi::duplicate(path);
}

/// Creates a log file. Between the guess of a name and its use somebody may plant a file or a link there: only a file
/// that this call creates is written to, and a name that is taken is given up for another.
NewLog create_log(const char *directory) noexcept {
    NewLog log;
    for (int names = 0; names < most_names; ++names) {
        log.path = unique_path(directory);
        if (!log.path)
            return log;
        log.fd = open(log.path.get(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, log_file_mode);
        if (log.fd >= 0 || errno != EEXIST)
            return log;
    }
    return log;
}

/// Turns an open stream to another file, to begin it at its start; false, with the stream as it was, on failure.
bool redirect(FILE *stream, int fd) noexcept {
    flockfile(stream);    // a writer on another thread finds the one file or the other
    (void)fflush(stream); // also drops what a full disk refuses, so that it does not end up in the other file
    const bool is_redirected = dup3(fd, fileno(stream), O_CLOEXEC) >= 0;
    if (is_redirected)
        rewind(stream); // clears the former file's errors, too
    funlockfile(stream);
    return is_redirected;
}

/// The stream of a log file just created, null on failure. It is one stream for the life of the process, as writers
/// may still hold it when a restart makes another file: closing it would pull it from under them, and a stream for
/// each start would use descriptors up.
FILE *stream_of(int fd) noexcept {
    if (log_state.own_output == nullptr) {
        log_state.own_output = fdopen(fd, "w+");
        if (log_state.own_output == nullptr)
            (void)close(fd);
        return log_state.own_output;
    }
    const bool is_redirected = redirect(log_state.own_output, fd);
    (void)close(fd);
    return is_redirected ? log_state.own_output : nullptr;
}

void adopt_path(qzfi::Text path) noexcept {
    free(log_state.own_path);
    log_state.own_path = path.release();
    log_state.path = log_state.own_path;
}

void write_header(FILE *output) noexcept {
    // The level still held, not the one just read: callers store that after the opening, so a first start shows 0x0.
    fprintf(output, "Begin QzFI Session...\nLogmask set to 0x%x\nCurrent Environment Variables\n",
            get_qzfi_debuglevel());
    for (const char *name : {"QFI_ROOT", "QFI_API_LIB", "QFI_DIR", "QFI_UTIL_LIB"})
        fprintf(output, "%s = %s\n", name, qzfi_checkNull(getenv(name)));
    (void)fflush(output);
}

// Ranges of ASCII, not <cctype>: what is printable must not depend on the host's locale.
bool is_printable(unsigned char byte) noexcept {
    return byte >= ' ' && byte <= '~';
}

char *put_hex(char *at, uint32_t value, int digits) noexcept {
    for (int digit = digits - 1; digit >= 0; --digit)
        *at++ = "0123456789ABCDEF"[(value >> (4 * digit)) & 0xF];
    return at;
}

/// Writes a dump line of up to 16 bytes; false when the stream fails.
bool write_dump_line(FILE *output, uint32_t offset, const unsigned char *bytes, uint32_t count) noexcept {
    char line[dump_line];
    char *at = put_hex(line, offset, 8);
    at = std::copy_n(" : ", 3, at);
    for (uint32_t i = 0; i < count; ++i) {
        at = put_hex(at, bytes[i], 2);
        *at++ = i == dump_middle ? '-' : ' ';
    }
    at = std::fill_n(at, 3 * (dump_width - count), ' ');
    at = std::copy_n(": ", 2, at);
    for (uint32_t i = 0; i < count; ++i)
        *at++ = is_printable(bytes[i]) && bytes[i] != ' ' ? static_cast<char>(bytes[i]) : '.';
    *at++ = '\n';
    const auto length = static_cast<std::size_t>(at - line);
    return fwrite(line, 1, length, output) == length;
}

} // namespace

FILE *get_qzfi_msgout() {
    return log_state.output;
}

void set_qzfi_msgout(FILE *stream) {
    log_state.output = stream;
}

char *get_qzfi_logfile() {
    return log_state.path;
}

void set_qzfi_logfile(char *path) {
    log_state.path = path;
}

uint32_t init_qzfi_logFile(const char *root) {
    if (root == nullptr)
        return 0;
    const uint32_t mask = qzfi::read_trace_mask(root);
    if (mask == 0)
        return 0;
    char directory[qzfi::log_path_size];
    (void)snprintf(directory, sizeof directory, "%s/arcvault/logs/fisagent", root);
    NewLog log = create_log(directory);
    const bool is_named = log.path != nullptr;
    adopt_path(std::move(log.path));
    if (!is_named)
        return 0; // an earlier log stays in force, without a name
    log_state.output = log.fd < 0 ? nullptr : stream_of(log.fd);
    if (log_state.output != nullptr)
        write_header(log_state.output);
    else if (log.fd >= 0)
        (void)unlink(log_state.path);
    return mask;
}

int32_t qzfi_logmsg(const char *text, int32_t newline, int32_t indent) {
    FILE *output = log_state.output;
    if (output == nullptr)
        return 0;
    // Records nested deeper than the table is long share its last indentation: there is none beyond.
    const char *indentation = spc[std::clamp(indent, 0, deepest_indent)];
    fprintf(output, newline != 0 ? "\n%s%s" : "%s%s", indentation, qzfi_checkNull(text));
    return fflush(output);
}

void qzfi_hexdump(const void *bytes, uint32_t length) {
    FILE *output = log_state.output;
    if (output == nullptr || bytes == nullptr || length == 0)
        return;
    const auto *data = static_cast<const unsigned char *>(bytes);
    flockfile(output); // a dump's lines stay together
    // Counted in 64 bits: the last line's offset plus 16 may not fit into 32.
    for (uint64_t offset = 0; offset < length; offset += dump_width) {
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(dump_width, length - offset));
        if (!write_dump_line(output, static_cast<uint32_t>(offset), data + offset, count))
            break;
    }
    (void)fflush(output);
    funlockfile(output);
}

int32_t qzfi_printable(const void *bytes, uint64_t length) {
    if (length <= 1)
        return 1;
    if (bytes == nullptr)
        return 0;
    const auto *data = static_cast<const unsigned char *>(bytes);
    return std::all_of(data, data + (length - 1), is_printable) ? 1 : 0;
}

const char *qzfi_checkNull(const char *text) {
    return text == nullptr ? "NULL" : text;
}
