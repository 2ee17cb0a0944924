// System calls that the tests of the context process replace, for all processes forked from the test.
#include <dlfcn.h>

#include "context/context_support.h"

extern "C" {

/// Pacing takes no time here; it is counted.
unsigned sleep(unsigned seconds);
unsigned sleep(unsigned seconds) {
    context::shared().slept_seconds += seconds;
    ++context::shared().sleeps;
    return 0;
}

long ulimit(int command, ...);
long ulimit(int command, ...) {
    context::Shared &memory = context::shared();
    ++memory.limit_queries;
    memory.limit_command = command;
    return memory.limit == -2 ? sysconf(_SC_OPEN_MAX) : memory.limit.load();
}

/// A process that opens a descriptor between the two passes of a listing, when a test wants it.
int closedir(DIR *directory) {
    using Function = int (*)(DIR *);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "closedir"));
    const int wanted = context::shared().opened_by_listing.exchange(-1);
    if (wanted != -1)
        fcntl(STDERR_FILENO, F_DUPFD, wanted);
    return next(directory);
}

/// Lets the SIGCHLD handler reap first, or come only after the command's end was dealt with, when a test wants it.
pid_t waitpid(pid_t process, int *status, int options) {
    if (context::shared().is_handler_late && options == 0) {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &child, nullptr);
    }
    if (context::shared().is_handler_first && options == 0 && process > 0)
        while (sig_pid == process && context::state_of(process) != '-')
            usleep(1000);
    return static_cast<pid_t>(syscall(SYS_wait4, process, status, options, nullptr));
}
}
