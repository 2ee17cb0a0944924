#include "util/qzfiutil_context.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <qzfi/status.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_pipe.h"

namespace qzfi {
namespace {

constexpr unsigned pause_after_full_chunk = 2; // seconds: the pace at which callers expect output to be taken
constexpr time_t exchange_seconds = 10;

uint32_t fail(const Message &message, const char *routine) noexcept {
    raise(message, routine);
    return QFI_STATUS_SYSTEM_CALL;
}

/// Unlocks `mutex_iop` at the end of a scope, when asked to.
class UnlockOnReturn {
public:
    explicit UnlockOnReturn(bool wanted) noexcept : wanted_(wanted) {}
    ~UnlockOnReturn() {
        if (wanted_)
            pthread_mutex_unlock(&mutex_iop);
    }
    UnlockOnReturn(const UnlockOnReturn &) = delete;
    UnlockOnReturn &operator=(const UnlockOnReturn &) = delete;

private:
    bool wanted_;
};

/// Locks `mutex_iop` for the context; false, with nothing locked, when the context was closed meanwhile.
bool lock_context(const void *handle) noexcept {
    pthread_mutex_lock(&mutex_iop);
    if (is_context(handle))
        return true;
    pthread_mutex_unlock(&mutex_iop);
    return false;
}

bool is_valid_mode(uint32_t lock_mode) noexcept {
    return lock_mode <= QFI_LOCK_RELEASE;
}

/// Reads up to one chunk of what waits in a pipe. It is short only when the pipe has no more: a read may be cut short,
/// and a short chunk ends a transfer. The number read, 0 at the end of the file, -1 with errno.
ssize_t read_chunk(int fd, char *chunk) noexcept {
    std::size_t filled = 0;
    do {
        const ssize_t received = read_some(fd, chunk + filled, pipe_chunk - filled);
        if (received < 1)
            return filled > 0 ? static_cast<ssize_t>(filled) : received;
        filled += static_cast<std::size_t>(received);
    } while (filled < pipe_chunk && has_input(fd));
    return static_cast<ssize_t>(filled);
}

/// Discards what an earlier exchange left in a pipe.
uint32_t drain(int fd) noexcept {
    constexpr const char *routine = "qzfi_sendcmd";
    char chunk[pipe_chunk];
    for (;;) {
        const int pending = pending_bytes(fd);
        if (pending < 0)
            return fail(message::fstat_failure, routine);
        if (pending == 0)
            return QFI_STATUS_OK;
        const ssize_t received = read_chunk(fd, chunk);
        if (received < 0)
            return fail(message::read_size_error, routine);
        if (static_cast<std::size_t>(received) < pipe_chunk)
            return QFI_STATUS_OK;
        sleep(pause_after_full_chunk);
    }
}

/// Writes the frame of a command. One that broke off cannot be taken back, and whatever came next would be read as
/// its rest, so the command pipe is closed then.
uint32_t write_frame(int32_t *record, const char *command, uint64_t length) noexcept {
    int32_t &command_pipe = record[QFI_CONTEXT_COMMAND_WRITE];
    std::size_t written = write_counted(command_pipe, &length, sizeof length);
    if (written == sizeof length)
        written += write_counted(command_pipe, command, length);
    if (written == sizeof length + length)
        return QFI_STATUS_OK;
    if (written > 0) {
        close(command_pipe);
        command_pipe = -1;
    }
    return fail(message::write_size_error, "qzfi_sendcmd");
}

/// Sends a command; the caller holds `mutex_iop`.
uint32_t send(int32_t *record, const char *command, uint64_t length) noexcept {
    for (const int slot : {QFI_CONTEXT_OUTPUT_READ, QFI_CONTEXT_ERROR_READ}) {
        const uint32_t status = drain(record[slot]);
        if (status != QFI_STATUS_OK)
            return status;
    }
    return write_frame(record, command, length);
}

/// Appends to a buffer by moving it into a larger one; false, with the buffer as it was, when that cannot be had.
bool append(char **buffer, uint32_t *length, const char *bytes, std::size_t count) noexcept {
    const uint64_t grown_length = uint64_t{*length} + count;
    if (grown_length > UINT32_MAX)
        return false;
    auto *const grown = static_cast<char *>(qzfi_alloc_buf(grown_length));
    if (grown == nullptr)
        return false;
    if (*buffer != nullptr)
        std::memcpy(grown, *buffer, *length);
    std::memcpy(grown + *length, bytes, count);
    qzfi_free_buf(*buffer, *length);
    *buffer = grown;
    *length = static_cast<uint32_t>(grown_length);
    return true;
}

/// The descriptors to wait for. Not a plain fd_set: hosts have descriptors beyond its size.
class WaitSet {
public:
    /// Makes room for descriptors up to `highest`, which is -1 in the record that a failed creation left; false when
    /// memory is short.
    bool reserve(int highest) noexcept {
        if (highest < FD_SETSIZE)
            return true;
        const std::size_t needed = static_cast<std::size_t>(highest) / bits + 1;
        large_.reset(static_cast<Word *>(std::calloc(needed, sizeof(Word))));
        words_ = large_.get();
        size_ = needed;
        return words_ != nullptr;
    }
    void clear() noexcept {
        std::fill_n(words_, size_, Word{0});
        highest_ = -1;
    }
    void add(int fd) noexcept {
        words_[static_cast<std::size_t>(fd) / bits] |= bit(fd);
        highest_ = std::max(highest_, fd);
    }
    bool has(int fd) const noexcept { return (words_[static_cast<std::size_t>(fd) / bits] & bit(fd)) != 0; }

    /// Leaves only what is readable; as `select`, with a null limit for ever.
    int select_readable(timeval *limit) noexcept {
        return select(highest_ + 1, reinterpret_cast<fd_set *>(words_), nullptr, nullptr, limit);
    }

private:
    using Word = unsigned long;
    static constexpr std::size_t bits = sizeof(Word) * 8;
    static Word bit(int fd) noexcept { return Word{1} << (static_cast<std::size_t>(fd) % bits); }

    Word fixed_[sizeof(fd_set) / sizeof(Word)];
    std::unique_ptr<Word[], FreeDeleter> large_;
    Word *words_ = fixed_;
    std::size_t size_ = std::size(fixed_);
    int highest_ = -1;
};

/// What one pipe gave during an exchange.
struct Stream {
    explicit Stream(int descriptor) noexcept : fd(descriptor) {}
    ~Stream() { qzfi_free_buf(text, length); }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;

    /// A pipe that is readable and gives nothing, again and again, would keep the host busy.
    bool is_watched() const noexcept { return empty_reads < 2; }

    int fd;
    char *text = nullptr;
    uint32_t length = 0;
    int empty_reads = 0;
};

/// The second half of an exchange: waits for the exit code of the command just sent and gathers its output.
class Collector {
public:
    explicit Collector(const int32_t *record) noexcept
        : status_fd_(record[QFI_CONTEXT_STATUS_READ]), output_(record[QFI_CONTEXT_OUTPUT_READ]),
          error_(record[QFI_CONTEXT_ERROR_READ]) {}

    /// False when memory is short.
    bool prepare() noexcept { return ready_.reserve(std::max({status_fd_, output_.fd, error_.fd})); }

    /// False when there is no exit code to be had; `failure` says what the caller is told then, 0 for the status of
    /// the sending.
    bool collect() noexcept {
        while (!has_exit_code_) {
            if (!wait())
                return false;
            if (ready_.has(status_fd_)) {
                if (!read_exit_code())
                    return false;
                // A command that said nothing so far is given the rest of the budget to do so.
                if (!got_output_ && !wait())
                    return false;
            }
            if (!gather(output_) || !gather(error_))
                return false;
        }
        return true;
    }

    uint32_t failure() const noexcept { return failure_; }

    uint32_t hand_over(char **buffer, uint32_t *length) noexcept {
        Stream &wanted = exit_code_ == 0 ? output_ : error_;
        *buffer = std::exchange(wanted.text, nullptr);
        *length = wanted.length;
        return static_cast<uint32_t>(exit_code_);
    }

private:
    static constexpr const char *routine = "qzfi_exec_cmd_in_child_context";

    bool fails_with(uint32_t status) noexcept {
        failure_ = status;
        return false;
    }

    void watch_all() noexcept {
        ready_.clear();
        ready_.add(status_fd_);
        for (const Stream *stream : {&output_, &error_})
            if (stream->is_watched())
                ready_.add(stream->fd);
    }

    /// One budget for the whole exchange, which `select` counts down. Once it is used up, only the exit code or output
    /// can end the wait: polling for them would have the same results and keep the host busy.
    timeval *limit() noexcept {
        const bool is_used_up = budget_.tv_sec == 0 && budget_.tv_usec == 0;
        return is_used_up && !has_exit_code_ ? nullptr : &budget_;
    }

    /// Leaves in `ready_` what is readable.
    bool wait() noexcept {
        int count = 0;
        do {
            watch_all();
            count = ready_.select_readable(limit());
        } while (count < 0 && errno == EINTR);
        if (count < 0)
            return fails_with(fail(message::read_size_error, routine));
        if (count == 0)
            budget_ = {0, 0};
        return true;
    }

    bool read_exit_code() noexcept {
        const ssize_t received = read_whole(status_fd_, &exit_code_, sizeof exit_code_);
        has_exit_code_ = received == static_cast<ssize_t>(sizeof exit_code_);
        if (has_exit_code_)
            return true;
        const uint32_t status = fail(message::read_size_error, routine);
        // Deliberate: a failed read leaves the caller with the status of the sending. A context process that is gone is
        // a failure of its own.
        return fails_with(received < 0 ? uint32_t{QFI_STATUS_OK} : status);
    }

    /// Takes what is readable. Deliberate: when that fails the caller is left with the status of the sending.
    bool gather(Stream &stream) noexcept {
        // What a command wrote was in the pipe before its exit code came, also when `select` looked there too early.
        const bool is_late = has_exit_code_ && stream.is_watched() && has_input(stream.fd);
        if (!ready_.has(stream.fd) && !is_late)
            return true;
        const uint32_t before = stream.length;
        if (qzfi_readfd(stream.fd, &stream.text, &stream.length) != QFI_STATUS_OK)
            return fails_with(QFI_STATUS_OK);
        stream.empty_reads = stream.length == before ? stream.empty_reads + 1 : 0;
        got_output_ = true;
        return true;
    }

    int status_fd_;
    Stream output_, error_;
    WaitSet ready_;
    timeval budget_{exchange_seconds, 0};
    bool got_output_ = false, has_exit_code_ = false;
    int32_t exit_code_ = 0;
    uint32_t failure_ = QFI_STATUS_OK;
};

/// Runs a command; the caller holds `mutex_iop`.
uint32_t exchange(int32_t *record, const char *command, char **buffer, uint32_t *length) noexcept {
    Collector collector{record};
    // Before the command is on its way: an exit code that nobody waits for would be the next command's.
    if (!collector.prepare())
        return QFI_STATUS_NO_MEMORY;
    const uint32_t sent = send(record, command, std::strlen(command) + 1);
    // A context process that ended by itself left a last word, which is taken as the exit code. Without one there is
    // nothing to wait for.
    if (sent != QFI_STATUS_OK && !has_input(record[QFI_CONTEXT_STATUS_READ]))
        return sent;
    const uint32_t result = collector.collect() ? collector.hand_over(buffer, length) : collector.failure();
    return result != QFI_STATUS_OK ? result : sent;
}

/// Writes what waits in a pipe, and not what comes meanwhile, to a descriptor.
uint32_t copy_pending(int source, int destination, const char *routine) noexcept {
    struct stat unused;
    if (fstat(source, &unused) != 0)
        return fail(message::fstat_failure, routine);
    // The size that was just asked for is 0 for a pipe; the count of waiting bytes is what was meant by it.
    const int pending = pending_bytes(source);
    if (pending < 0)
        return fail(message::fstat_failure, routine);
    char chunk[pipe_chunk];
    for (std::size_t left = static_cast<std::size_t>(pending); left > 0;) {
        const ssize_t received = read_some(source, chunk, std::min(left, pipe_chunk));
        if (received < 0)
            return fail(message::read_size_error, routine);
        if (received == 0)
            break;
        if (!write_whole(destination, chunk, static_cast<std::size_t>(received)))
            return fail(message::write_size_error, routine);
        left -= static_cast<std::size_t>(received);
    }
    return QFI_STATUS_OK;
}

uint32_t read_pipe(void *handle, int slot, int destination, uint32_t lock_mode, const char *routine) noexcept {
    if (!is_context(handle) || !is_valid_mode(lock_mode))
        return QFI_STATUS_INVALID_ARGUMENT;
    const UnlockOnReturn unlock{lock_mode == QFI_LOCK_RELEASE};
    return copy_pending(static_cast<const int32_t *>(handle)[slot], destination, routine);
}

} // namespace
} // namespace qzfi

void *qzfi_alloc_buf(uint64_t size) {
    return std::calloc(1, size);
}

void qzfi_free_buf(void *buffer, uint64_t) {
    std::free(buffer);
}

uint32_t qzfi_sendcmd(void *handle, const char *command, uint32_t lock_mode) {
    if (command == nullptr || !qzfi::is_context(handle) || !qzfi::is_valid_mode(lock_mode))
        return QFI_STATUS_INVALID_ARGUMENT;
    if (!qzfi::lock_context(handle))
        return QFI_STATUS_INVALID_ARGUMENT;
    const qzfi::UnlockOnReturn unlock{lock_mode == QFI_LOCK_RELEASE};
    return qzfi::send(static_cast<int32_t *>(handle), command, std::strlen(command) + 1);
}

uint32_t qzfi_exec_cmd_in_child_context(const char *command, char **buffer, uint32_t *length) {
    if (command == nullptr || buffer == nullptr || length == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    *buffer = nullptr;
    void *handle = nullptr;
    const uint32_t found = qzfi_get_iop(&handle);
    if (found != QFI_STATUS_OK)
        return found;
    if (!qzfi::lock_context(handle))
        return QFI_STATUS_INVALID_ARGUMENT;
    const qzfi::UnlockOnReturn unlock{true};
    *length = 0;
    return qzfi::exchange(static_cast<int32_t *>(handle), command, buffer, length);
}

uint32_t qzfi_readfd(int32_t fd, char **buffer, uint32_t *length) {
    if (buffer == nullptr || length == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    char chunk[qzfi::pipe_chunk];
    for (;;) {
        const ssize_t received = qzfi::read_chunk(fd, chunk);
        if (received < 1)
            return QFI_STATUS_OK;
        const auto count = static_cast<std::size_t>(received);
        if (!qzfi::append(buffer, length, chunk, count))
            return QFI_STATUS_NO_MEMORY;
        if (count < qzfi::pipe_chunk)
            return QFI_STATUS_OK;
        sleep(qzfi::pause_after_full_chunk);
        const int pending = qzfi::pending_bytes(fd);
        if (pending < 0)
            return qzfi::fail(qzfi::message::fstat_failure, "qzfi_readfd");
        if (pending == 0)
            return QFI_STATUS_OK;
    }
}

uint32_t qzfi_readoutpipe(void *handle, int32_t destination, uint32_t lock_mode) {
    return qzfi::read_pipe(handle, QFI_CONTEXT_OUTPUT_READ, destination, lock_mode, "qzfi_readoutpipe");
}

uint32_t qzfi_readerrpipe(void *handle, int32_t destination, uint32_t lock_mode) {
    return qzfi::read_pipe(handle, QFI_CONTEXT_ERROR_READ, destination, lock_mode, "qzfi_readerrpipe");
}
