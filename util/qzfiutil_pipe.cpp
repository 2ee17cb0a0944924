#include "util/qzfiutil_pipe.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qzfi {
namespace {

bool is_pending(int signal) noexcept {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

/// Holds SIGPIPE back in the calling thread while it lives.
class BrokenPipeGuard {
public:
    BrokenPipeGuard() noexcept {
        sigemptyset(&broken_pipe_);
        sigaddset(&broken_pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &broken_pipe_, &before_);
        was_pending_ = is_pending(SIGPIPE);
    }
    ~BrokenPipeGuard() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BrokenPipeGuard(const BrokenPipeGuard &) = delete;
    BrokenPipeGuard &operator=(const BrokenPipeGuard &) = delete;

    /// Takes away the signal that a failed write sent to this thread. One that the host left pending stays: when the
    /// two were merged into one, it is sent again.
    void consume() const noexcept {
        const timespec at_once{0, 0};
        int taken = 0;
        do
            taken = sigtimedwait(&broken_pipe_, nullptr, &at_once);
        while (taken < 0 && errno == EINTR);
        if (was_pending_ && !is_pending(SIGPIPE))
            pthread_kill(pthread_self(), SIGPIPE);
    }

private:
    sigset_t broken_pipe_;
    sigset_t before_;
    bool was_pending_;
};

ssize_t write_some(int fd, const void *buffer, std::size_t size) noexcept {
    ssize_t written = 0;
    do
        written = write(fd, buffer, size);
    while (written < 0 && errno == EINTR);
    return written;
}

} // namespace

ssize_t read_some(int fd, void *buffer, std::size_t size) noexcept {
    ssize_t received = 0;
    do
        received = read(fd, buffer, size);
    while (received < 0 && errno == EINTR);
    return received;
}

ssize_t read_whole(int fd, void *buffer, std::size_t size) noexcept {
    std::size_t received = 0;
    while (received < size) {
        const ssize_t more = read_some(fd, static_cast<char *>(buffer) + received, size - received);
        if (more < 0)
            return -1;
        if (more == 0)
            break;
        received += static_cast<std::size_t>(more);
    }
    return static_cast<ssize_t>(received);
}

bool has_input(int fd) noexcept {
    pollfd source{fd, POLLIN, 0};
    int ready = 0;
    do
        ready = poll(&source, 1, 0);
    while (ready < 0 && errno == EINTR);
    return ready > 0 && (source.revents & POLLIN) != 0;
}

std::size_t write_counted(int fd, const void *buffer, std::size_t size) noexcept {
    const BrokenPipeGuard guard;
    std::size_t done = 0;
    while (done < size) {
        const ssize_t written = write_some(fd, static_cast<const char *>(buffer) + done, size - done);
        if (written < 0) {
            const int error = errno;
            if (error == EPIPE)
                guard.consume();
            errno = error;
            return done;
        }
        done += static_cast<std::size_t>(written);
    }
    return done;
}

bool write_whole(int fd, const void *buffer, std::size_t size) noexcept {
    return write_counted(fd, buffer, size) == size;
}

int pending_bytes(int fd) noexcept {
    int pending = 0;
    return ioctl(fd, FIONREAD, &pending) < 0 ? -1 : pending;
}

} // namespace qzfi
