// The context process: takes commands from its pipe, runs them through the shell, answers with their exit codes.
//
// It was forked off a host that may have many threads: it has to do without every lock that one of them may have held
// (reports are made by a process of their own), never touches stdio, and ends at once, so that neither the
// host's buffered text nor its exit handlers are run twice.
#include "util/qzfiutil_context.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qzfi/errors.h>
#include <qzfi/status.h>

#include "common/qzfitext.h"
#include "err/qzfierrhandling.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_pipe.h"

#if defined(__SANITIZE_THREAD__)
#define QZFI_HANDLERS_ARE_QUEUED
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QZFI_HANDLERS_ARE_QUEUED
#endif
#endif
#ifdef QZFI_HANDLERS_ARE_QUEUED
// In a process forked off several threads the thread sanitizer queues signals for ever: the C library is asked
// directly there.
extern "C" int __sigaction(int signal, const struct sigaction *action, struct sigaction *previous) noexcept;
#define sigaction(...) __sigaction(__VA_ARGS__)
#endif

int32_t sig_pid = 0;
int32_t sig_chld_status = 0;

using qzfi::Message;

namespace {

constexpr char process_routine[] = "qzfi_child_process";
constexpr char shell_routine[] = "qzfi_doshell";
constexpr int32_t word_pipe_failure = 3070;
constexpr uint64_t local_text_size = 4096;
constexpr unsigned exec_delay_seconds = 2;
constexpr int exec_failed = 127;
constexpr int32_t no_exit_code = -1;
constexpr unsigned longest_report_seconds = 1;

/// What goes over the status pipe last.
struct FinalStatus {
    int32_t word;
    int32_t unused; // readers skip it
};
static_assert(sizeof(FinalStatus) == 8);

// For the handler that ends a report which this process has to make itself.
int stuck_report_fd = -1;
FinalStatus stuck_report_status{};

/// Straight to the system: a sanitizer's _exit writes the host's buffered text, and a host may have an _exit of its
/// own.
[[noreturn]] void end_process(int code) noexcept {
    syscall(SYS_exit_group, code);
    _exit(code);
}

/// The host's id, seen from outside its process-id namespace, is 0: then its end cannot be seen.
bool is_host_gone() noexcept {
    const pid_t parent = getppid();
    return parent != qzfi::context_host && parent != 0;
}

/// Comes when the thread that forked this process ends; that is the end of the host only when the parent changed.
void handle_parent_death(int) noexcept {
    if (is_host_gone())
        end_process(0);
}

void handle_stuck_report(int) noexcept {
    (void)qzfi::write_whole(stuck_report_fd, &stuck_report_status, sizeof stuck_report_status);
    end_process(0);
}

void set_handler(int signal, void (*handler)(int), int flags = 0) noexcept {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigfillset(&action.sa_mask);
    (void)sigaction(signal, &action, nullptr); // fails for no signal that is set here
}

void set_signal_mask_empty() noexcept {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

/// Holds SIGCHLD back for a scope, so that its handler reaps only what it is meant to reap.
class ChildSignalBlock {
public:
    ChildSignalBlock() noexcept {
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &child, &previous_);
    }
    ~ChildSignalBlock() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
    ChildSignalBlock(const ChildSignalBlock &) = delete;
    ChildSignalBlock &operator=(const ChildSignalBlock &) = delete;

private:
    sigset_t previous_;
};

/// Gives up the host's handlers, which know nothing of this process.
void drop_inherited_handlers() noexcept {
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        struct sigaction action = {};
        const bool is_caught =
            sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
        if (is_caught)
            set_handler(signal, SIG_DFL);
    }
}

void prepare_signals() noexcept {
    drop_inherited_handlers();
    set_handler(SIGPIPE, SIG_IGN);
    set_handler(SIGIO, qzfi_sigio_handler);
    set_handler(SIGURG, handle_parent_death);
    set_handler(SIGCHLD, qzfi_sigchld_handler, SA_RESTART | SA_NOCLDSTOP);
    prctl(PR_SET_PDEATHSIG, SIGURG);
    set_signal_mask_empty();
    if (is_host_gone())
        end_process(0);
}

/// Waits for the stop signal, or for the end of the host, which may be unable to signal any more.
[[noreturn]] void wait_for_stop() noexcept {
    constexpr timespec nap{1, 0};
    while (!is_host_gone())
        nanosleep(&nap, nullptr);
    end_process(0);
}

/// Waits for a process, interrupted or not; false when it was reaped elsewhere.
bool reap(pid_t pid, int &status) noexcept {
    pid_t reaped = -1;
    do
        reaped = waitpid(pid, &status, 0);
    while (reaped == -1 && errno == EINTR);
    return reaped == pid;
}

/// Reaps a process that is killed when it has not ended within the time of a report.
void reap_or_kill(pid_t pid) noexcept {
    constexpr timespec nap{0, 1000000};
    constexpr unsigned most_naps = longest_report_seconds * 1000;
    for (unsigned naps = 0; naps < most_naps; ++naps) {
        if (waitpid(pid, nullptr, WNOHANG) != 0)
            return;
        nanosleep(&nap, nullptr);
    }
    kill(pid, SIGKILL);
    int status = 0;
    reap(pid, status);
}

void call_host_handler(const Message &message, const char *routine) noexcept {
    qzfi_getmsg(message.id, message.severity, message.format, routine);
}

/// Reports without a process to spare: a report that does not return ends this one, as the host expects it.
void report_here(const Message &message, const char *routine, int status_fd, int32_t final_word) noexcept {
    stuck_report_fd = status_fd;
    stuck_report_status = {final_word, 0};
    set_handler(SIGALRM, handle_stuck_report);
    alarm(longest_report_seconds);
    call_host_handler(message, routine);
    alarm(0);
}

/// Raises a failure. The host's handler, its catalogs and its allocator may wait for locks that nobody gives back any
/// more, so they are called in a process that can be killed.
void report(const Message &message, const char *routine, int status_fd, int32_t final_word) noexcept {
    const ChildSignalBlock block;
    const pid_t self = getpid();
    const pid_t reporter = fork();
    if (reporter == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == self)
            call_host_handler(message, routine);
        end_process(0);
    }
    if (reporter == -1)
        report_here(message, routine, status_fd, final_word);
    else
        reap_or_kill(reporter);
    fi_create_error_info(message.id, 0, nullptr, nullptr, nullptr, 1, message.format, routine);
}

[[noreturn]] void run_shell(const int32_t *record, const char *text) noexcept {
    for (const int signal : {SIGPIPE, SIGIO, SIGURG, SIGCHLD})
        set_handler(signal, SIG_DFL);
    set_signal_mask_empty();
    // Nothing that the command leaves running may hold them.
    close(record[QFI_CONTEXT_COMMAND_READ]);
    close(record[QFI_CONTEXT_STATUS_WRITE]);
    sleep(exec_delay_seconds);
    execl("/bin/bash", "bash", "-c", text, static_cast<char *>(nullptr));
    end_process(exec_failed);
}

/// Forks the command's process; -1 when the fork fails.
pid_t start_command(const int32_t *record, const char *text) noexcept {
    const ChildSignalBlock block;
    const pid_t pid = fork();
    if (pid == 0)
        run_shell(record, text);
    __atomic_store_n(&sig_pid, pid, __ATOMIC_RELAXED);
    return pid;
}

/// Waits for a command and takes its wait status, or the one that the SIGCHLD handler took first; false when there is
/// neither. The handler's is not looked at otherwise: when it comes late, it says nothing of this command.
bool wait_for_command(pid_t pid, int &status) noexcept {
    if (reap(pid, status))
        return true;
    status = __atomic_load_n(&sig_chld_status, __ATOMIC_RELAXED);
    return __atomic_load_n(&sig_pid, __ATOMIC_RELAXED) >= 0;
}

/// The exit code of a command that was started.
int32_t exit_code_of(pid_t pid, const int32_t *record) noexcept {
    int status = 0;
    if (wait_for_command(pid, status) && WIFEXITED(status))
        return WEXITSTATUS(status);
    report(qzfi::message::shell_abend, shell_routine, record[QFI_CONTEXT_STATUS_WRITE], QFI_STATUS_SYSTEM_CALL);
    return no_exit_code;
}

/// Runs one command and answers with its exit code; false when that is the end.
bool run_command(const int32_t *record, const char *text) noexcept {
    const int status_fd = record[QFI_CONTEXT_STATUS_WRITE];
    __atomic_store_n(&sig_chld_status, 0, __ATOMIC_RELAXED);
    const pid_t pid = start_command(record, text);
    if (pid == -1) {
        report(qzfi::message::fork_failed, shell_routine, status_fd, QFI_STATUS_SYSTEM_CALL);
        return false;
    }
    const int32_t exit_code = exit_code_of(pid, record);
    __atomic_store_n(&sig_chld_status, 0, __ATOMIC_RELAXED);
    if (qzfi::write_whole(status_fd, &exit_code, sizeof exit_code))
        return true;
    report(qzfi::message::status_write_failed, shell_routine, status_fd, QFI_STATUS_SYSTEM_CALL);
    return false;
}

/// Reads from the command pipe; the number of bytes, fewer than asked for when a read failed, which is reported. The
/// pipe's end is not the end of this process: that is for the stop signal.
uint64_t read_command_pipe(const int32_t *record, void *buffer, uint64_t size) noexcept {
    const int fd = record[QFI_CONTEXT_COMMAND_READ];
    for (uint64_t received = 0; received < size;) {
        const ssize_t count = qzfi::read_some(fd, static_cast<char *>(buffer) + received, size - received);
        if (count == 0)
            wait_for_stop();
        if (count < 0) {
            report(qzfi::message::read_size_error, process_routine, record[QFI_CONTEXT_STATUS_WRITE],
                   word_pipe_failure);
            return received;
        }
        received += static_cast<uint64_t>(count);
    }
    return size;
}

/// Reads and drops what a failed read left of a frame, so that it is not taken for the next one.
bool discard_from_command_pipe(const int32_t *record, uint64_t size) noexcept {
    char chunk[qzfi::pipe_chunk];
    while (size != 0) {
        const uint64_t wanted = std::min<uint64_t>(size, sizeof chunk);
        if (read_command_pipe(record, chunk, wanted) != wanted)
            return false;
        size -= wanted;
    }
    return true;
}

/// Memory for a text and a terminator of its own, zero-filled; null when there is none.
char *allocate_text(uint64_t length) noexcept {
    return length < UINT64_MAX ? static_cast<char *>(std::calloc(length + 1, 1)) : nullptr;
}

/// Serves commands until something fails; returns the final status word.
int32_t serve_commands(const int32_t *record) noexcept {
    char local[local_text_size + 1]; // the shell's argument ends with the frame, whatever was sent
    qzfi::Text heap;
    for (;;) {
        uint64_t length = 0;
        if (read_command_pipe(record, &length, sizeof length) != sizeof length)
            return word_pipe_failure;
        const bool is_long = length > local_text_size;
        heap.reset(is_long ? allocate_text(length) : nullptr);
        if (is_long && !heap)
            return QFI_STATUS_NO_MEMORY;
        std::memset(local, 0, sizeof local);
        char *const text = is_long ? heap.get() : local;

        // Deliberate: what arrived of a text is run also when reading the rest failed.
        const uint64_t received = read_command_pipe(record, text, length);
        if (!run_command(record, text))
            return QFI_STATUS_SYSTEM_CALL;
        if (!discard_from_command_pipe(record, length - received))
            return word_pipe_failure;
    }
}

/// The final word to end with, when serving commands does not even begin or has come to its end.
int32_t run_context(int32_t *record) noexcept {
    constexpr int32_t ready_word = 0;
    const int status_fd = record[QFI_CONTEXT_STATUS_WRITE];
    if (qzfi::write_whole(status_fd, &ready_word, sizeof ready_word))
        return serve_commands(record);
    // Deliberate: the message about reading.
    report(qzfi::message::read_size_error, process_routine, status_fd, word_pipe_failure);
    return word_pipe_failure;
}

} // namespace

void qzfi_sigio_handler(int) {
    end_process(0);
}

void qzfi_sigchld_handler(int) {
    const int error = errno;
    int status = 0;
    const pid_t reaped = waitpid(__atomic_load_n(&sig_pid, __ATOMIC_RELAXED), &status, WNOHANG);
    __atomic_store_n(&sig_chld_status, reaped > 0 ? status : 0, __ATOMIC_RELAXED);
    __atomic_store_n(&sig_pid, reaped, __ATOMIC_RELAXED);
    errno = error;
}

void qzfi_child_process(int32_t *record) {
    qzfi::reset_error_locks_after_fork();
    prepare_signals();
    qzfi_closeall(record);
    const FinalStatus last{run_context(record), 0};
    const int status_fd = record[QFI_CONTEXT_STATUS_WRITE];
    if (!qzfi::write_whole(status_fd, &last, sizeof last))
        report(qzfi::message::status_write_failed, process_routine, status_fd, last.word);
    end_process(0);
}
