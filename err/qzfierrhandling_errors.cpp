// The error list: a node per thread that raised, each with that thread's records in the order raised.
//
// The links change only while err_mutex and link_lock are both held, so either one suffices to read them; the
// retrieved flags belong to link_lock alone. link_lock is innermost and held for a walk, a link or an unlink only,
// never while memory is allocated or a plugin called. It exists because the searches must do without err_mutex, which
// may be held for ever.
#include "err/qzfierrhandling.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

#include <pthread.h>

#include <qzfi/status.h>

#include "common/qzfilock.h"
#include "common/qzfitext.h"

qfi_error_thread *err_info_list = nullptr;
pthread_mutex_t err_mutex = PTHREAD_MUTEX_INITIALIZER;

using qzfi::LockGuard;

namespace {

pthread_mutex_t link_lock = PTHREAD_MUTEX_INITIALIZER;

/// Frees the argument strings and the handle, and clears what pointed at them, so that a second release is harmless.
void free_strings_and_handle(qfi_error_info &record) noexcept {
    if (record.arguments != nullptr) {
        for (int32_t index = 0; index < record.count; ++index) {
            std::free(record.arguments[index]);
            record.arguments[index] = nullptr;
        }
    }
    if (record.handle != nullptr) {
        std::free(*record.handle);
        std::free(record.handle);
        record.handle = nullptr;
    }
}

struct RecordDeleter {
    void operator()(qfi_error_info *record) const noexcept {
        free_strings_and_handle(*record);
        std::free(record->arguments);
        qzfi::free_zeroed(record);
    }
};
/// A record that is on no list.
using Record = std::unique_ptr<qfi_error_info, RecordDeleter>;
using ThreadNode = std::unique_ptr<qfi_error_thread, qzfi::FreeDeleter>;

/// Copies the argument strings; false when their array cannot be allocated.
bool copy_arguments(qfi_error_info &record, int32_t count, va_list arguments) noexcept {
    if (count <= 0)
        return true;
    record.arguments = static_cast<char **>(std::calloc(static_cast<std::size_t>(count), sizeof(char *)));
    if (record.arguments == nullptr)
        return false;
    record.count = count;
    for (int32_t index = 0; index < count; ++index) {
        const char *const argument = va_arg(arguments, const char *);
        // Readers of a record expect null in a slot only where memory ran short.
        record.arguments[index] = qzfi::duplicate(argument != nullptr ? argument : "empty string").release();
    }
    return true;
}

/// The thread's node, or null; the caller holds err_mutex or link_lock.
qfi_error_thread *find_thread(pthread_t thread) noexcept {
    return qzfi::find_first(err_info_list,
                            [thread](const qfi_error_thread &node) { return pthread_equal(node.thread, thread) != 0; });
}

bool has_thread_node(pthread_t thread) noexcept {
    const LockGuard links(link_lock);
    return find_thread(thread) != nullptr;
}

bool is_error_list_empty() noexcept {
    const LockGuard links(link_lock);
    return err_info_list == nullptr;
}

ThreadNode make_thread_node(pthread_t thread) noexcept {
    ThreadNode node{qzfi::allocate_zeroed<qfi_error_thread>()};
    if (node)
        node->thread = thread;
    return node;
}

/// Enters a record as the calling thread's last.
uint32_t enter_record(Record record) noexcept {
    const pthread_t self = pthread_self();
    ThreadNode fresh;
    if (!has_thread_node(self)) {
        fresh = make_thread_node(self);
        if (!fresh)
            return QFI_STATUS_NULL_RESULT;
    }

    const LockGuard guard(err_mutex);
    // Searched again: another thread may have deleted the node before err_mutex was ours.
    qfi_error_thread *node = find_thread(self);
    if (node == nullptr && !fresh) {
        fresh = make_thread_node(self);
        if (!fresh)
            return QFI_STATUS_NULL_RESULT;
    }

    const LockGuard links(link_lock);
    if (node == nullptr) {
        node = fresh.release();
        qzfi::append(err_info_list, node);
    }
    qzfi::append(node->errors, record.release());
    return QFI_STATUS_OK;
}

bool release_error_data(qfi_error_info &record) noexcept {
    return qzfi::release_plugin_data(record.plugin_ref, &qfi_plugin_ops::error_mark, &qfi_plugin_ops::free_error,
                                     record.plugin_data);
}

/// Frees plugin data in the plain form: a block that begins with a pointer to the datum.
void free_error_data(qfi_error_info &record) noexcept {
    if (record.plugin_data == nullptr)
        return;
    void **const datum = static_cast<void **>(record.plugin_data);
    std::free(*datum);
    *datum = nullptr;
    std::free(datum);
    record.plugin_data = nullptr;
}

/// Takes a record off its thread's list and frees it; the caller holds err_mutex.
void remove_record(qfi_error_thread &node, qfi_error_info *record) noexcept {
    {
        const LockGuard links(link_lock);
        qzfi::unlink(node.errors, record);
    }
    RecordDeleter{}(record);
}

/// Takes a thread's node off the list when it has no records left; the caller holds err_mutex.
void remove_if_empty(qfi_error_thread *node) noexcept {
    if (node->errors != nullptr)
        return;
    {
        const LockGuard links(link_lock);
        qzfi::unlink(err_info_list, node);
    }
    qzfi::free_zeroed(node);
}

/// Deletes every record that is chosen, whether or not its plugin releases the data.
template <class Predicate>
void remove_records(Predicate is_chosen) noexcept {
    const LockGuard guard(err_mutex);
    qzfi::visit_all(err_info_list, [&](qfi_error_thread *node) {
        qzfi::visit_all(node->errors, [&](qfi_error_info *record) {
            if (!is_chosen(*record))
                return;
            release_error_data(*record);
            remove_record(*node, record);
        });
        remove_if_empty(node);
    });
}

} // namespace

void qzfi::reset_error_locks_after_fork() noexcept {
    // Initialised anew, not unlocked: their owners are threads that the child does not have.
    pthread_mutex_init(&err_mutex, nullptr);
    pthread_mutex_init(&hl_err_mutex, nullptr);
    pthread_mutex_init(&link_lock, nullptr);
    err_info_list = nullptr;
    msg_info_list = nullptr;
    err_mod_list = nullptr;
}

uint32_t fi_create_error_info(const char *message_id, uint64_t plugin_ref, void *plugin_data, const int32_t *status,
                              const char *session, int32_t count, ...) {
    Record record{qzfi::allocate_zeroed<qfi_error_info>()};
    if (!record)
        return QFI_STATUS_NO_MEMORY;

    va_list arguments;
    va_start(arguments, count);
    const bool is_copied = copy_arguments(*record, count, arguments);
    va_end(arguments);
    if (!is_copied)
        return QFI_STATUS_NO_MEMORY;

    record->plugin_ref = plugin_ref;
    record->plugin_data = plugin_data;
    record->status = status != nullptr ? *status : -1;
    record->session = session;
    qzfi::copy_bounded(record->message_id, sizeof record->message_id, message_id != nullptr ? message_id : "");
    return enter_record(std::move(record));
}

uint32_t fi_create_err_msg_str(char **buffer, int32_t size, const char *format, ...) {
    if (buffer == nullptr || *buffer == nullptr)
        return QFI_STATUS_NULL_RESULT;
    if (format == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(*buffer, size > 0 ? static_cast<std::size_t>(size) : 0, format, arguments);
    va_end(arguments);
    return QFI_STATUS_OK;
}

uint32_t does_last_error_exist(qfi_error_info **out) {
    if (out == nullptr)
        return QFI_STATUS_NULL_RESULT;
    *out = nullptr;
    const pthread_t self = pthread_self();

    const LockGuard links(link_lock);
    const qfi_error_thread *const node = qzfi::find_first(err_info_list, [self](const qfi_error_thread &candidate) {
        return pthread_equal(candidate.thread, self) != 0 && candidate.errors != nullptr &&
               candidate.errors->prev->retrieved == 0;
    });
    if (node == nullptr)
        return 0;
    *out = node->errors->prev;
    (*out)->retrieved = 1;
    return 1;
}

uint32_t fi_del_err_contents(qfi_error_info **record, int32_t flag) {
    if (record == nullptr || *record == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    if (flag == 0)
        free_error_data(**record);
    else if (!release_error_data(**record))
        return QFI_STATUS_INTERNAL;
    free_strings_and_handle(**record);
    return QFI_STATUS_OK;
}

uint32_t fi_del_error(void ***handle) {
    pthread_mutex_lock(&err_mutex);
    qfi_error_thread *const node = err_info_list; // callers name errors of the first thread only
    qfi_error_info *record = nullptr;
    if (handle != nullptr && node != nullptr)
        record = qzfi::find_first(node->errors,
                                  [handle](const qfi_error_info &candidate) { return candidate.handle == *handle; });
    if (record == nullptr)
        return QFI_STATUS_INTERNAL; // err_mutex stays locked: callers release it themselves after a miss

    const uint32_t status = fi_del_err_contents(&record, 1);
    if (status == QFI_STATUS_OK) {
        remove_record(*node, record);
        remove_if_empty(node);
    }
    pthread_mutex_unlock(&err_mutex);
    return status;
}

uint32_t fi_del_all_errors(void) {
    // Asked before err_mutex is taken: an empty list answers at once even while that is held for ever.
    if (!is_error_list_empty())
        remove_records([](const qfi_error_info &) { return true; });
    return QFI_STATUS_OK;
}

uint32_t fi_del_session_errors(const char *session) {
    if (session != nullptr && !is_error_list_empty())
        remove_records(
            [session](const qfi_error_info &record) { return qzfi::is_of_session(record.session, session); });
    return QFI_STATUS_OK;
}
