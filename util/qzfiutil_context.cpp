// The host's side of the context's life: making it, counting its users, ending it.
//
// The record and the count change only under record_lock, a leaf that is held for a few instructions; `mutex` and
// `mutex_iop` are what callers wait on. A record is published once, when it is complete.
#include "util/qzfiutil_context.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include <qzfi/settings.h>
#include <qzfi/status.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_pipe.h"

int32_t *command_iop = nullptr;
// Never destroyed, so that every operation is safe before the first create and after the last close.
pthread_mutex_t mutex_iop = PTHREAD_MUTEX_INITIALIZER;
uint32_t reference_count_context = 0;

int32_t qzfi::context_host = 0;

using qzfi::LockGuard;
using qzfi::Message;

namespace {

constexpr char routine[] = "qzfi_create_context";
constexpr int first_lifted = STDERR_FILENO + 1;
constexpr long longest_wait_ms = 1000;
constexpr const Message *pipe_messages[] = {
    &qzfi::message::command_pipe_not_created, &qzfi::message::status_pipe_not_created,
    &qzfi::message::output_pipe_not_created, &qzfi::message::error_pipe_not_created};

using Record = std::unique_ptr<int32_t[], qzfi::FreeDeleter>;

/// A closed context whose process had not ended; lies in the memory of its record, so that keeping it cannot fail.
struct ClosedContext {
    ClosedContext *next;
    pid_t pid;
};
static_assert(sizeof(ClosedContext) <= QFI_CONTEXT_SLOTS * sizeof(int32_t));

pthread_mutex_t record_lock = PTHREAD_MUTEX_INITIALIZER;
ClosedContext *closed_contexts = nullptr;

/// Closes the descriptor of a slot. No number stays behind that could hit a later descriptor of the host.
void close_slot(int32_t &slot) noexcept {
    if (slot >= 0)
        close(slot);
    slot = -1;
}

/// Marks a pipe end for closing on exec, and moves it off the standard descriptors: a host that closed one of them
/// keeps it closed, and its own output never lands in a pipe.
bool prepare_end(int32_t &end) noexcept {
    if (end >= first_lifted)
        return fcntl(end, F_SETFD, FD_CLOEXEC) == 0;
    const int lifted = fcntl(end, F_DUPFD_CLOEXEC, first_lifted);
    if (lifted == -1)
        return false;
    close(end);
    end = lifted;
    return true;
}

bool make_pipe(int32_t *ends) noexcept {
    ends[0] = ends[1] = -1;
    return pipe(ends) == 0 && prepare_end(ends[0]) && prepare_end(ends[1]);
}

/// Makes the four pipes; the message of the one that failed, or null.
const Message *make_pipes(int32_t *record) noexcept {
    for (const Message *const failure : pipe_messages) {
        if (!make_pipe(record))
            return failure;
        record += 2;
    }
    return nullptr;
}

/// Forks the context process and stores its id; false when the fork fails.
bool fork_context(int32_t *record) noexcept {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    // No handler of the host may run in the new process.
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    qzfi::context_host = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        pthread_mutex_unlock(&mutex); // held by the caller, which is this thread here too
        qzfi_child_process(record);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    record[QFI_CONTEXT_PID] = pid;
    return pid != -1;
}

/// Makes pipes and process; the message of what failed, or null.
const Message *start_context(int32_t *record) noexcept {
    for (int slot = 0; slot < QFI_CONTEXT_PID; ++slot)
        record[slot] = -1;
    const Message *failure = make_pipes(record);
    if (failure == nullptr && !fork_context(record))
        failure = &qzfi::message::fork_failed;
    if (failure == nullptr)
        return nullptr;
    for (int slot = 0; slot < QFI_CONTEXT_PID; ++slot)
        close_slot(record[slot]);
    return failure;
}

/// Closes the context process's ends, so that the end of that process is the end of its pipes. The slots keep their
/// numbers: they name the descriptors of the context process.
void close_context_ends(const int32_t *record) noexcept {
    for (const int slot :
         {QFI_CONTEXT_COMMAND_READ, QFI_CONTEXT_STATUS_WRITE, QFI_CONTEXT_OUTPUT_WRITE, QFI_CONTEXT_ERROR_WRITE})
        close(record[slot]);
}

bool read_ready_word(const int32_t *record) noexcept {
    int32_t word = 0;
    return qzfi::read_whole(record[QFI_CONTEXT_STATUS_READ], &word, sizeof word) == ssize_t{sizeof word};
}

/// Publishes a record, in the place of one that a failed creation left.
void publish(Record record, uint32_t references) noexcept {
    const LockGuard guard(record_lock);
    const Record replaced{command_iop};
    reference_count_context = references;
    qzfi::store_release(command_iop, record.release());
}

/// True when there is a context, which then has one more user.
bool add_reference() noexcept {
    const LockGuard guard(record_lock);
    if (reference_count_context == 0)
        return false;
    ++reference_count_context;
    return true;
}

/// Makes the context of this process. `failure` receives the message to raise, if there is one.
uint32_t make_context(const Message *&failure) noexcept {
    Record record{static_cast<int32_t *>(std::calloc(QFI_CONTEXT_SLOTS, sizeof(int32_t)))};
    if (!record)
        return QFI_STATUS_NO_MEMORY;
    failure = start_context(record.get());
    if (failure != nullptr) {
        publish(std::move(record), 0); // deliberate: the record of a failed creation stays the handle
        return QFI_STATUS_SYSTEM_CALL;
    }
    close_context_ends(record.get());
    const bool is_ready = read_ready_word(record.get());
    publish(std::move(record), 1); // deliberate: also counted when the handshake failed, for the caller to close
    if (is_ready)
        return QFI_STATUS_OK;
    failure = &qzfi::message::read_size_error;
    return QFI_STATUS_SYSTEM_CALL;
}

/// Gives a reference back; the record when it was the last one, or when a failed creation left one.
Record drop_reference() noexcept {
    const LockGuard guard(record_lock);
    if (reference_count_context != 0)
        --reference_count_context;
    if (reference_count_context != 0)
        return nullptr;
    Record last{command_iop};
    qzfi::store_release<int32_t *>(command_iop, nullptr);
    return last;
}

/// Reaps the process if it has ended. True while it is a child of this one; otherwise its number may be somebody else's
/// by now.
bool is_running_child(pid_t pid) noexcept {
    return pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0;
}

/// Waits for the end of a process that was told to end, for a second at most; true when it has ended.
bool wait_for_end(pid_t pid) noexcept {
    constexpr timespec nap{0, 1000000};
    for (long waited_ms = 0; waited_ms < longest_wait_ms; ++waited_ms) {
        if (!is_running_child(pid))
            return true;
        nanosleep(&nap, nullptr);
    }
    return !is_running_child(pid);
}

/// Closes the host's ends and stops the process; true when there is a process to wait for.
bool stop_context(int32_t *record) noexcept {
    for (const int slot :
         {QFI_CONTEXT_COMMAND_WRITE, QFI_CONTEXT_STATUS_READ, QFI_CONTEXT_OUTPUT_READ, QFI_CONTEXT_ERROR_READ})
        close_slot(record[slot]);
    const pid_t pid = record[QFI_CONTEXT_PID];
    if (!is_running_child(pid))
        return false;
    kill(pid, SIGIO);
    kill(pid, SIGCONT); // a stopped process takes no other signal
    return true;
}

/// Keeps the id of a process that has not ended, to be reaped later.
void reap_later(Record record) noexcept {
    const pid_t pid = record[QFI_CONTEXT_PID];
    const LockGuard guard(record_lock);
    closed_contexts = new (record.release()) ClosedContext{closed_contexts, pid};
}

} // namespace

bool qzfi::is_context(const void *handle) noexcept {
    return handle != nullptr && handle == load_acquire(command_iop);
}

void qzfi::reap_closed_contexts() noexcept {
    const LockGuard guard(record_lock);
    for (ClosedContext **link = &closed_contexts; *link != nullptr;) {
        ClosedContext *const closed = *link;
        if (is_running_child(closed->pid)) {
            link = &closed->next;
            continue;
        }
        *link = closed->next;
        std::free(closed);
    }
}

uint32_t qzfi_create_context() {
    qzfi::reap_closed_contexts();
    const Message *failure = nullptr;
    uint32_t status = QFI_STATUS_OK;
    {
        const LockGuard guard(mutex);
        if (!add_reference())
            status = make_context(failure);
    }
    // Not under `mutex`: the host's handler may intern an id or want a context itself.
    if (failure != nullptr)
        qzfi::raise(*failure, routine);
    return status;
}

int32_t qzfi_close_context() {
    pthread_mutex_lock(&mutex_iop);
    Record record = drop_reference();
    const bool is_ending = record && stop_context(record.get());
    const int result = pthread_mutex_unlock(&mutex_iop);
    if (is_ending && !wait_for_end(record[QFI_CONTEXT_PID]))
        reap_later(std::move(record));
    qzfi::reap_closed_contexts();
    return result;
}

uint32_t qzfi_get_iop(void **handle) {
    int32_t *const record = qzfi::load_acquire(command_iop);
    if (handle == nullptr || record == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    *handle = record;
    return QFI_STATUS_OK;
}

uint32_t qzfi_unlock_iop(void *handle) {
    if (!qzfi::is_context(handle))
        return QFI_STATUS_INVALID_ARGUMENT;
    pthread_mutex_unlock(&mutex_iop);
    return QFI_STATUS_OK;
}

int32_t qzfi_is_child_context() {
    void *handle = nullptr;
    return qzfi_get_iop(&handle) == QFI_STATUS_OK ? 1 : 0;
}
