#include "support/fault.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/sanitized.h"

#ifdef QZFI_ADDRESS_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

namespace fault {
namespace {

constexpr const char *call_names[] = {"allocation", "construction", "open",    "close",  "read",    "write",   "pipe",
                                      "dup",        "fork",         "waitpid", "kill",   "select",  "poll",    "ioctl",
                                      "fcntl",      "stat",         "access",  "getcwd", "opendir", "readdir", "mmap",
                                      "munmap",     "fopen",        "tempnam", "dlopen", "dlsym",   "make",    "remove",
                                      "attribute",  "xattr",        "copy",    "seek",   "sync",    "thread"};
static_assert(std::size(call_names) == static_cast<std::size_t>(Call::thread) + 1);

constexpr int disarmed = -1;
constexpr int most_calls = 100000; // a scenario that makes more is taken for endless

/// What is armed. Shared with forked processes, so that their calls count and the parent learns when one failed.
struct State {
    std::atomic<int> armed_call{disarmed};
    std::atomic<long> countdown{0};
    std::atomic<bool> has_fired{false};
    std::atomic<int> error{0};
    std::atomic<bool> from_then_on{false};
    std::atomic<std::size_t> transfer_limit{SIZE_MAX};
};
static_assert(std::atomic<long>::is_always_lock_free && std::atomic<std::size_t>::is_always_lock_free);

// Calls are made before any constructor of this program runs, and by every thread: they find this one until the first
// use of the harness replaces it, and the later one from then on.
constinit State unshared;
constinit std::atomic<State *> current{&unshared};

State &state() {
    return *current.load(std::memory_order_acquire);
}

State *map_shared_state() {
    void *const memory = mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        std::abort();
    auto *const made = new (memory) State;
    current.store(made, std::memory_order_release);
    return made;
}

/// The state that all processes see, made at the first use.
State &shared_state() {
    static State *const shared = map_shared_state();
    return *shared;
}

/// Counts one call; true when it is to fail, with errno set.
bool fails(Call call, int usual_error) {
    State &now = state();
    if (now.armed_call.load(std::memory_order_acquire) != static_cast<int>(call))
        return false;
    const long left = now.countdown.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (left > 0 || (left < 0 && !now.from_then_on))
        return false;
    now.has_fired = true;
    const int error = now.error;
    errno = error != 0 ? error : usual_error;
    return true;
}

std::size_t within_limit(std::size_t size) {
    return std::min(size, state().transfer_limit.load());
}

const char *name_of(Call call) {
    return call_names[static_cast<int>(call)];
}

/// The n that QZFI_FAULT asks for when it names this call. Ends the program when it asks for nothing that there is: a
/// case that was not repeated must not be taken for one that passed.
std::optional<int> requested(Call call) {
    const char *const request = std::getenv("QZFI_FAULT");
    if (request == nullptr)
        return std::nullopt;
    const std::string_view text = request;
    const std::string_view name = text.substr(0, text.find(':'));
    const int nth = name.size() < text.size() ? std::atoi(request + name.size() + 1) : 0;
    if (nth < 1 || std::find(std::begin(call_names), std::end(call_names), name) == std::end(call_names)) {
        std::fprintf(stderr, "QZFI_FAULT=%s is not a call and a number from 1, as in allocation:3\n", request);
        std::exit(2);
    }
    return name == name_of(call) ? std::optional(nth) : std::nullopt;
}

/// Names the case before it runs, so that it is known also when it crashes, hangs or is found out only at exit.
void announce(const std::string &repeat) {
    std::fprintf(stderr, "[  FAULT   ] %s\n", repeat.c_str());
}

/// Whether memory was lost so far; false where the leak sanitizer is not built in.
bool has_leaked() {
#ifdef QZFI_ADDRESS_SANITIZER
    return __lsan_do_recoverable_leak_check() != 0;
#else
    return false;
#endif
}

} // namespace

Armed::Armed(Call call, int nth, Failure failure) {
    State &now = shared_state();
    now.error = failure.error;
    now.from_then_on = failure.from_then_on;
    now.has_fired = false;
    now.countdown = nth;
    now.armed_call.store(static_cast<int>(call), std::memory_order_release);
}

Armed::~Armed() {
    state().armed_call = disarmed;
}

bool Armed::fired() {
    return state().has_fired;
}

ShortTransfers::ShortTransfers(std::size_t limit) {
    shared_state().transfer_limit = limit;
}

ShortTransfers::~ShortTransfers() {
    state().transfer_limit = SIZE_MAX;
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
        const std::string repeat = std::string("QZFI_FAULT=") + name_of(call) + ":" + std::to_string(nth);
        SCOPED_TRACE("repeat with " + repeat);
        announce(repeat);
        Trial trial(call, nth, failure);
        scenario(trial);
        trial.disarm();
        if (has_leaked()) {
            ADD_FAILURE() << "memory was lost";
            return;
        }
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

// Weak: a test program with a wrapper of its own for a call has that one.
#define WRAP(call, result, name, parameters, arguments, on_failure, error)                                             \
    result __real_##name parameters;                                                                                   \
    result __wrap_##name parameters __attribute__((weak));                                                             \
    result __wrap_##name parameters {                                                                                  \
        if (fault::fails(Call::call, error))                                                                           \
            return on_failure;                                                                                         \
        return __real_##name arguments;                                                                                \
    }
#define WRAP_BY_HAND(name)
#define REPLACED(name)
#include "support/wrapped_calls.def"

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return fault::fails(Call::open, EMFILE) ? -1 : __real_open(path, flags, mode);
}

int __real_openat(int directory, const char *path, int flags, ...);
int __wrap_openat(int directory, const char *path, int flags, ...) __attribute__((weak));
int __wrap_openat(int directory, const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return fault::fails(Call::open, EMFILE) ? -1 : __real_openat(directory, path, flags, mode);
}

// Of the calls without a function of their own, those that open and list count.
long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) __attribute__((weak));
// However few arguments there are, six words can be read; the address sanitizer would rather have them counted.
__attribute__((no_sanitize_address)) long __wrap_syscall(long number, ...) {
    long arguments[6];
    va_list rest;
    va_start(rest, number);
    for (long &argument : arguments)
        argument = va_arg(rest, long);
    va_end(rest);
    if (number == SYS_openat2 && fault::fails(Call::open, EMFILE))
        return -1;
    if (number == SYS_getdents64 && fault::fails(Call::readdir, EIO))
        return -1;
    return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
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
    return fault::fails(Call::read, EIO) ? -1 : __real_read(fd, buffer, fault::within_limit(size));
}

ssize_t __wrap___read_chk(int fd, void *buffer, size_t size, size_t bound);
ssize_t __wrap___read_chk(int fd, void *buffer, size_t size, size_t bound) {
    if (size > bound)
        std::abort();
    return __wrap_read(fd, buffer, size);
}

ssize_t __real_pread(int fd, void *buffer, size_t size, off_t position);
ssize_t __wrap_pread(int fd, void *buffer, size_t size, off_t position);
ssize_t __wrap_pread(int fd, void *buffer, size_t size, off_t position) {
    return fault::fails(Call::read, EIO) ? -1 : __real_pread(fd, buffer, fault::within_limit(size), position);
}

ssize_t __real_pwrite(int fd, const void *buffer, size_t size, off_t position);
ssize_t __wrap_pwrite(int fd, const void *buffer, size_t size, off_t position);
ssize_t __wrap_pwrite(int fd, const void *buffer, size_t size, off_t position) {
    return fault::fails(Call::write, EIO) ? -1 : __real_pwrite(fd, buffer, fault::within_limit(size), position);
}

ssize_t __real_write(int fd, const void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size);
ssize_t __wrap_write(int fd, const void *buffer, size_t size) {
    return fault::fails(Call::write, EIO) ? -1 : __real_write(fd, buffer, fault::within_limit(size));
}
}

namespace {

/// The operator that one of the program's own stands in front of. A sanitizer's knows how each piece of memory was
/// made, and reports one that is released in another way; neither is an allocation of the program.
template <typename Function>
Function *replaced(const char *name) {
    void *const found = __real_dlsym(RTLD_NEXT, name);
    if (found == nullptr)
        std::abort();
    return reinterpret_cast<Function *>(found);
}

} // namespace

#define REPLACEMENT(result, form, name, parameters, exceptions, arguments, on_failure)                                 \
    result operator form parameters exceptions {                                                                       \
        using Function = result parameters;                                                                            \
        static Function *const real = replaced<Function>(#name);                                                       \
        on_failure;                                                                                                    \
        return real arguments;                                                                                         \
    }
#define OR_THROW                                                                                                       \
    if (fault::fails(Call::construction, ENOMEM))                                                                      \
    throw std::bad_alloc()
#define OR_NULL                                                                                                        \
    if (fault::fails(Call::construction, ENOMEM))                                                                      \
    return nullptr
#define NEW(form, name, parameters, arguments) REPLACEMENT(void *, form, name, parameters, , arguments, OR_THROW)
#define NEW_OR_NULL(form, name, parameters, arguments)                                                                 \
    REPLACEMENT(void *, form, name, parameters, noexcept, arguments, OR_NULL)
#define DELETE(form, name, parameters, arguments) REPLACEMENT(void, form, name, parameters, noexcept, arguments, )

// The program's own operators stand in front of the others in the whole process. All of them do, so that each piece of
// memory is released as it was made.
using Size = std::size_t;
using Alignment = std::align_val_t;
using Nothrow = const std::nothrow_t;
NEW(new, _Znwm, (Size size), (size))
NEW(new[], _Znam, (Size size), (size))
NEW_OR_NULL(new, _ZnwmRKSt9nothrow_t, (Size size, Nothrow &nothrow), (size, nothrow))
NEW_OR_NULL(new[], _ZnamRKSt9nothrow_t, (Size size, Nothrow &nothrow), (size, nothrow))
NEW(new, _ZnwmSt11align_val_t, (Size size, Alignment alignment), (size, alignment))
NEW(new[], _ZnamSt11align_val_t, (Size size, Alignment alignment), (size, alignment))
NEW_OR_NULL(new, _ZnwmSt11align_val_tRKSt9nothrow_t, (Size size, Alignment alignment, Nothrow &nothrow),
            (size, alignment, nothrow))
NEW_OR_NULL(new[], _ZnamSt11align_val_tRKSt9nothrow_t, (Size size, Alignment alignment, Nothrow &nothrow),
            (size, alignment, nothrow))

DELETE(delete, _ZdlPv, (void *memory), (memory))
DELETE(delete[], _ZdaPv, (void *memory), (memory))
DELETE(delete, _ZdlPvm, (void *memory, Size size), (memory, size))
DELETE(delete[], _ZdaPvm, (void *memory, Size size), (memory, size))
DELETE(delete, _ZdlPvRKSt9nothrow_t, (void *memory, Nothrow &nothrow), (memory, nothrow))
DELETE(delete[], _ZdaPvRKSt9nothrow_t, (void *memory, Nothrow &nothrow), (memory, nothrow))
DELETE(delete, _ZdlPvSt11align_val_t, (void *memory, Alignment alignment), (memory, alignment))
DELETE(delete[], _ZdaPvSt11align_val_t, (void *memory, Alignment alignment), (memory, alignment))
DELETE(delete, _ZdlPvmSt11align_val_t, (void *memory, Size size, Alignment alignment), (memory, size, alignment))
DELETE(delete[], _ZdaPvmSt11align_val_t, (void *memory, Size size, Alignment alignment), (memory, size, alignment))
DELETE(delete, _ZdlPvSt11align_val_tRKSt9nothrow_t, (void *memory, Alignment alignment, Nothrow &nothrow),
       (memory, alignment, nothrow))
DELETE(delete[], _ZdaPvSt11align_val_tRKSt9nothrow_t, (void *memory, Alignment alignment, Nothrow &nothrow),
       (memory, alignment, nothrow))
