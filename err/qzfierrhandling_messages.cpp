// The message list. The API implementation library enters the records, holding err_mutex; they are deleted here.
#include "err/qzfierrhandling.h"

#include <qzfi/status.h>

#include "common/qzfilock.h"

qfi_message_info *msg_info_list = nullptr;
qfi_plugin *(*fi_get_pgn_f)(uint64_t plugin_ref) = nullptr;

using qzfi::LockGuard;

namespace {

bool release_message_data(qfi_message_info &record) noexcept {
    return qzfi::release_plugin_data(record.plugin_ref, &qfi_plugin_ops::message_mark, &qfi_plugin_ops::free_message,
                                     record.plugin_data);
}

void free_info(qfi_message_info &record) noexcept {
    qzfi::free_zeroed(record.info);
    record.info = nullptr;
}

void remove_record(qfi_message_info *record) noexcept {
    qzfi::unlink(msg_info_list, record);
    qzfi::free_zeroed(record);
}

/// Deletes every record that is chosen, whether or not its plugin releases the data; the caller holds err_mutex.
template <class Predicate>
void remove_records(Predicate is_chosen) noexcept {
    qzfi::visit_all(msg_info_list, [&](qfi_message_info *record) {
        if (!is_chosen(*record))
            return;
        release_message_data(*record);
        free_info(*record);
        remove_record(record);
    });
}

/// Looks at the head without err_mutex, so that an empty list answers at once even while that is held for ever. The
/// API library writes the head with plain stores, so no lock of ours can order this read; the word is compared with
/// null and never followed, and the sanitizer is told to leave it alone.
__attribute__((noinline, no_sanitize("thread"))) bool is_message_list_empty() noexcept {
    return *const_cast<qfi_message_info *const volatile *>(&msg_info_list) == nullptr;
}

} // namespace

const qfi_plugin_ops *qzfi::plugin_operations(uint64_t plugin_ref) noexcept {
    auto *const look_up = load_acquire(fi_get_pgn_f);
    const qfi_plugin *const plugin = look_up != nullptr ? look_up(plugin_ref) : nullptr;
    return plugin != nullptr ? static_cast<const qfi_plugin_ops *>(plugin->first) : nullptr;
}

uint32_t fi_del_msg_contents(qfi_message_info **record) {
    if (record == nullptr || *record == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    if (!release_message_data(**record))
        return QFI_STATUS_INTERNAL;
    free_info(**record);
    return QFI_STATUS_OK;
}

uint32_t fi_del_message(qfi_msg_info **info) {
    if (info == nullptr || *info == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    const LockGuard guard(err_mutex);
    qfi_message_info *record =
        qzfi::find_first(msg_info_list, [info](const qfi_message_info &candidate) { return candidate.info == *info; });
    if (record == nullptr)
        return QFI_STATUS_OK;
    const uint32_t status = fi_del_msg_contents(&record);
    if (status != QFI_STATUS_OK)
        return status;
    *info = nullptr; // before the record goes: the caller's pointer may be the record's own member
    remove_record(record);
    return QFI_STATUS_OK;
}

uint32_t fi_del_all_err_msgs(void) {
    const LockGuard guard(err_mutex);
    remove_records([](const qfi_message_info &) { return true; });
    return QFI_STATUS_OK;
}

uint32_t fi_del_session_err_msgs(const char *session) {
    if (session == nullptr || is_message_list_empty())
        return QFI_STATUS_OK;
    const LockGuard guard(err_mutex);
    remove_records([session](const qfi_message_info &record) { return qzfi::is_of_session(record.session, session); });
    return QFI_STATUS_OK;
}
