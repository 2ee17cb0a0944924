#include "support/fault.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace fault {
namespace {

constexpr const char *call_names[] = {"allocation", "open",    "close",  "read",    "write",   "pipe",  "dup",
                                      "fork",       "waitpid", "kill",   "select",  "poll",    "ioctl", "fcntl",
                                      "stat",       "access",  "getcwd", "opendir", "readdir", "mmap",  "munmap",
                                      "fopen",      "tempnam", "dlopen", "dlsym"};
static_assert(std::size(call_names) == static_cast<std::size_t>(Call::dlsym) + 1);

constexpr int disarmed = -1;
constexpr int most_calls = 100000; // a scenario that makes more is taken for endless

// Written while no thread of the scenario runs, but for the countdown.
std::atomic<int> armed_call{disarmed};
std::atomic<long> countdown{0};
std::atomic<bool> has_fired{false};
Failure armed_failure;
std::atomic<std::size_t> transfer_limit{SIZE_MAX};

/// Counts one call; true when it is to fail, with errno set.
bool fails(Call call, int usual_error) {
    if (armed_call.load(std::memory_order_acquire) != static_cast<int>(call))
        return false;
    const long left = countdown.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (left > 0 || (left < 0 && !armed_failure.from_then_on))
        return false;
    has_fired.store(true, std::memory_order_relaxed);
    errno = armed_failure.error != 0 ? armed_failure.error : usual_error;
    return true;
}

const char *name_of(Call call) {
    return call_names[static_cast<int>(call)];
}

/// The n that QZFI_FAULT asks for when it names this call.
std::optional<int> requested(Call call) {
    const char *request = std::getenv("QZFI_FAULT");
    const std::string prefix = std::string(name_of(call)) + ":";
    if (request == nullptr || std::string(request).rfind(prefix, 0) != 0)
        return std::nullopt;
    return std::atoi(request + prefix.size());
}

} // namespace

Armed::Armed(Call call, int nth, Failure failure) {
    armed_failure = failure;
    has_fired = false;
    countdown = nth;
    armed_call.store(static_cast<int>(call), std::memory_order_release);
}

Armed::~Armed() {
    armed_call = disarmed;
}

bool Armed::fired() {
    return has_fired;
}

ShortTransfers::ShortTransfers(std::size_t limit) {
    transfer_limit = limit;
}
ShortTransfers::~ShortTransfers() {
    transfer_limit = SIZE_MAX;
}

void Trial::arm() {
    armed_.emplace(call_, nth_, failure_);
}

void Trial::disarm() {
    if (!armed_)
        return;
    armed_.reset();
    fired_ = Armed::fired();
}

void for_each(Call call, const std::function<void(Trial &)> &scenario, Failure failure) {
    const std::optional<int> only = requested(call);
    for (int nth = only.value_or(1); nth < most_calls; ++nth) {
        SCOPED_TRACE(std::string("repeat with QZFI_FAULT=") + name_of(call) + ":" + std::to_string(nth));
        Trial trial(call, nth, failure);
        scenario(trial);
        trial.disarm();
        if (testing::Test::HasFatalFailure() || only)
            return;
        if (!trial.fired()) {
            EXPECT_GT(nth, 1) << "the scenario makes no call of this kind";
            return;
        }
    }
    ADD_FAILURE() << "the scenario never passed untouched";
}

} // namespace fault

using fault::Call;

extern "C" {

#define WRAP(call, result, name, parameters, arguments, on_failure, error)                                             \
    result __real_##name parameters;                                                                                   \
    result __wrap_##name parameters;                                                                                   \
    result __wrap_##name parameters {                                                                                  \
        if (fault::fails(Call::call, error))                                                                           \
            return on_failure;                                                                                         \
        return __real_##name arguments;                                                                                \
    }
#define WRAP_BY_HAND(name)
#include "support/wrapped_calls.def"

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return fault::fails(Call::open, EMFILE) ? -1 : __real_open(path, flags, mode);
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list rest;
    va_start(rest, request);
    void *const argument = va_arg(rest, void *);
    va_end(rest);
    return fault::fails(Call::ioctl, EIO) ? -1 : __real_ioctl(fd, request, argument);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void *const argument = va_arg(rest, void *);
    va_end(rest);
    return fault::fails(Call::fcntl, EINVAL) ? -1 : __real_fcntl(fd, command, argument);
}

ssize_t __real_read(int fd, void *buffer, size_t size);
ssize_t __wrap_read(int fd, void *buffer, size_t size);
ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    return fault::fails(Call::read, EIO) ? -1 : __real_read(fd, buffer, std::min(size, fault::transfer_limit.load()));
}

ssize_t __wrap___read_chk(int fd, void *buffer, size_t size, size_t bound);
ssize_t __wrap___read_chk(int fd, void *buffer, size_t size, size_t bound) {
    if (size > bound)
        std::abort();
    return __wrap_read(fd, buffer, size);
}

ssize_t __real_write(int fd, const void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    return fault::fails(Call::write, EIO) ? -1 : __real_write(fd, buffer, std::min(size, fault::transfer_limit.load()));
}
}
