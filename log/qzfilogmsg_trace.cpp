#include <qzfi/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <qzfi/errors.h>

#include "common/qzfitext.h"
#include "log/qzfilogmsg.h"

uint32_t qzfi_debug_level = 0;
int32_t qzfi_debug = 1;

namespace {

constexpr std::size_t config_line_size = 250;
constexpr std::size_t first_trace_size = 2048;
// A format that fails at every size is given up here, and its line dropped; text that formats may grow beyond.
constexpr std::size_t largest_after_error = std::size_t{1} << 20;

struct Level {
    std::string_view name;
    uint32_t bit;
};

constexpr Level levels[] = {
    {"INFO", QFI_TRACE_INFO},
    {"WARN", QFI_TRACE_WARN},
    {"TRC_TOP", QFI_TRACE_TRC_TOP},
    {"TRC_LOW", QFI_TRACE_TRC_LOW},
    {"PARAM_IN", QFI_TRACE_PARAM_IN},
    {"PARAM_OUT", QFI_TRACE_PARAM_OUT},
    {"PARAM_FULL", QFI_TRACE_PARAM_FULL},
};

struct FileCloser {
    void operator()(FILE *stream) const noexcept { (void)fclose(stream); }
};

uint32_t bit_of(std::string_view name) noexcept {
    for (const Level &level : levels)
        if (level.name == name)
            return level.bit;
    return 0;
}

/// The bits of a list of names separated by "|", which ends at a newline or at its terminator.
uint32_t bits_of_list(const char *list) noexcept {
    uint32_t bits = 0;
    for (const char *name = list;; ++name) {
        const std::size_t length = strcspn(name, "|\n");
        bits |= bit_of({name, length});
        name += length;
        if (*name != '|')
            return bits;
    }
}

uint32_t bits_of_line(const char *line) noexcept {
    if (line[0] == '#' || strstr(line, "debug_level") == nullptr)
        return 0;
    const char *equals = strchr(line, '=');
    return equals == nullptr ? 0 : bits_of_list(equals + 1);
}

/// Opens a regular file for reading; null for anything else, so that start hangs on no pipe or terminal.
FILE *open_config(const char *path) noexcept {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    struct stat status;
    const bool is_regular = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    FILE *stream = is_regular ? fdopen(fd, "r") : nullptr;
    if (stream == nullptr)
        (void)close(fd);
    return stream;
}

/// The buffer size that a formatting result asks for: `size` itself when the text is complete in it. A text that
/// fills the buffer to its last byte is taken for a cut one.
std::size_t size_wanted(int result, std::size_t size) noexcept {
    if (result < 0)
        return size * 2;
    const auto length = static_cast<std::size_t>(result);
    if (length == size - 1 || length == size)
        return size * 2;
    return length > size ? length + 2 : size;
}

/// Reallocates; null, with the old text freed, when memory is short.
qzfi::Text grown(qzfi::Text text, std::size_t size) noexcept {
    auto *larger = static_cast<char *>(realloc(text.get(), size));
    if (larger != nullptr)
        (void)text.release();
    return qzfi::Text{larger};
}

/// The formatted text; null when it cannot be formatted or memory is short.
QZFI_PRINTF(1, 0) qzfi::Text formatted(const char *format, va_list arguments) noexcept {
    std::size_t size = first_trace_size;
    qzfi::Text text{static_cast<char *>(malloc(size))};
    while (text) {
        va_list restarted;
        va_copy(restarted, arguments);
        const int result = vsnprintf(text.get(), size, format, restarted);
        va_end(restarted);
        const std::size_t wanted = size_wanted(result, size);
        if (wanted == size)
            return text;
        if (result < 0 && wanted > largest_after_error)
            return nullptr;
        text = grown(std::move(text), wanted);
        size = wanted;
    }
    return text;
}

} // namespace

uint32_t qzfi::read_trace_mask(const char *root) noexcept {
    char path[log_path_size];
    (void)snprintf(path, sizeof path, "%s/lib/.qzms.rc", root);
    const std::unique_ptr<FILE, FileCloser> config{open_config(path)};
    if (!config)
        return 0;
    // What a line has beyond the buffer is read as a line of its own, also when the line began as a comment.
    uint32_t mask = 0;
    char line[config_line_size];
    while (fgets(line, sizeof line, config.get()) != nullptr)
        mask |= bits_of_line(line);
    return mask;
}

uint32_t get_qzfi_debuglevel() {
    return qzfi_debug_level;
}

void set_qzfi_debuglevel(uint32_t mask) {
    qzfi_debug_level = mask;
}

void qzfi_tracelog(uint32_t severity, const char *format, ...) {
    if (format == nullptr || *format == '\0')
        return;
    va_list arguments;
    va_start(arguments, format);
    const qzfi::Text text = formatted(format, arguments);
    va_end(arguments);
    if (text)
        qzfi_handle_err(text.get(), nullptr, severity);
}
