#include "step_faults.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/fault.h"

namespace step_faults {

namespace {

std::atomic<int> armed_kind{-1}, remaining{0}, armed_error{0};
std::atomic<bool> has_fired{false};
std::optional<fault::Armed> constructions; // counted by the harness

bool fails(Kind kind) {
    if (armed_kind.load() != static_cast<int>(kind) || remaining.fetch_sub(1) != 1)
        return false;
    if (armed_error.load() == 0)
        kill(getpid(), SIGKILL);
    has_fired = true;
    errno = armed_error.load();
    return true;
}

// SQLite's own system calls.
template <class Function>
struct Original;
template <class Result, class... Arguments>
struct Original<Result (*)(Arguments...)> {
    template <int tag>
    struct Call {
        static inline Result (*real)(Arguments...) = nullptr;
        static Result replaced(Arguments... arguments) {
            return fails(Kind::calls) ? static_cast<Result>(-1) : real(arguments...);
        }
    };
};

template <int tag, class Function>
void replace(sqlite3_vfs *vfs, const char *name) {
    using Call = typename Original<Function>::template Call<tag>;
    Call::real = reinterpret_cast<Function>(vfs->xGetSystemCall(vfs, name));
    vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(Call::replaced));
}

sqlite3_mem_methods memory;

void *allocate(int size) {
    return fails(Kind::sqlite_allocations) ? nullptr : memory.xMalloc(size);
}

} // namespace

void install() {
    static bool is_installed = false;
    if (is_installed)
        return;
    is_installed = true;
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &memory);
    sqlite3_mem_methods counting = memory;
    counting.xMalloc = allocate;
    sqlite3_config(SQLITE_CONFIG_MALLOC, &counting);
    sqlite3_initialize();
    sqlite3_vfs *const vfs = sqlite3_vfs_find("unix");
    replace<0, ssize_t (*)(int, const void *, size_t, off_t)>(vfs, "pwrite");
    replace<1, ssize_t (*)(int, const void *, size_t, off_t)>(vfs, "pwrite64");
    replace<2, ssize_t (*)(int, const void *, size_t)>(vfs, "write");
    replace<3, int (*)(int, off_t)>(vfs, "ftruncate");
    replace<4, int (*)(const char *)>(vfs, "unlink");
    replace<5, int (*)(const char *, int, int)>(vfs, "open");
    replace<6, ssize_t (*)(int, void *, size_t, off_t)>(vfs, "pread");
    replace<7, ssize_t (*)(int, void *, size_t, off_t)>(vfs, "pread64");
}

void arm(Kind kind, int nth, int error) {
    has_fired = false;
    armed_error = error;
    remaining = nth;
    if (kind == Kind::constructions)
        constructions.emplace(fault::Call::construction, nth);
    armed_kind = static_cast<int>(kind);
}

bool disarm() {
    armed_kind = -1;
    if (constructions)
        has_fired = fault::Armed::fired();
    constructions.reset();
    return has_fired;
}

} // namespace step_faults

using step_faults::Kind;

#define STEP(result, name, parameters, arguments)                                                                      \
    extern "C" result __real_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters;                                                                        \
    extern "C" result __wrap_##name parameters {                                                                       \
        return step_faults::fails(Kind::calls) ? -1 : __real_##name arguments;                                         \
    }
STEP(int, mkdirat, (int at, const char *path, mode_t mode), (at, path, mode))
STEP(int, renameat2, (int at, const char *from, int to_at, const char *to, unsigned flags),
     (at, from, to_at, to, flags))
STEP(int, renameat, (int at, const char *from, int to_at, const char *to), (at, from, to_at, to))
STEP(int, unlinkat, (int at, const char *path, int flags), (at, path, flags))
STEP(int, fsync, (int fd), (fd))
STEP(int, syncfs, (int fd), (fd))
STEP(int, flock, (int fd, int operation), (fd, operation))
#undef STEP

extern "C" int __real_openat(int at, const char *path, int flags, ...);
extern "C" int __wrap_openat(int at, const char *path, int flags, ...);
extern "C" int __wrap_openat(int at, const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return step_faults::fails(Kind::calls) ? -1 : __real_openat(at, path, flags, mode);
}
