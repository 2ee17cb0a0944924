// Records are zero-filled before they are freed: this program is linked so that the library's `free` comes here first.
#include "lists.h"

#include <algorithm>

using namespace lists;

namespace {

/// The block whose release is awaited, and what it held then.
struct Watched {
    const void *block = nullptr;
    std::size_t size = 0;
    int releases = 0;
    bool was_zero = false;
} watched;

/// Runs an operation and expects that it frees the record, zero-filled.
template <class Record>
void expect_freed_as_zero(const Record *record, const std::function<void()> &operation) {
    watched = {record, sizeof(Record)};
    operation();
    EXPECT_EQ(watched.releases, 1);
    EXPECT_TRUE(watched.was_zero);
    watched = {};
}

class ZeroFill : public Fixture {};

TEST_F(ZeroFill, of_an_error_deleted_by_handle) {
    raise_error("A");
    void **handle = give_handle(last_record());
    expect_freed_as_zero(last_record(), [&] { fi_del_error(&handle); });
}

TEST_F(ZeroFill, of_a_sessions_errors) {
    raise_error("A", "s");
    expect_freed_as_zero(last_record(), [] { fi_del_session_errors("s"); });
}

TEST_F(ZeroFill, of_all_errors) {
    raise_error("A");
    expect_freed_as_zero(last_record(), [] { fi_del_all_errors(); });
}

TEST_F(ZeroFill, of_a_message_and_its_content) {
    qfi_msg_info *info = enter_message();
    expect_freed_as_zero(msg_info_list, [&] { fi_del_message(&info); });
    info = enter_message();
    expect_freed_as_zero(info, [&] { fi_del_message(&info); });
}

TEST_F(ZeroFill, of_a_sessions_messages) {
    enter_message("s");
    expect_freed_as_zero(msg_info_list, [] { fi_del_session_err_msgs("s"); });
    expect_freed_as_zero(enter_message("s"), [] { fi_del_session_err_msgs("s"); });
}

TEST_F(ZeroFill, of_all_messages) {
    enter_message();
    expect_freed_as_zero(msg_info_list, [] { fi_del_all_err_msgs(); });
    expect_freed_as_zero(enter_message(), [] { fi_del_all_err_msgs(); });
}

TEST_F(ZeroFill, of_the_key_at_the_head_when_a_keys_last_value_is_removed) {
    qfi_error_store *store = nullptr;
    qzfi_store_err(&store, 5, "m", 1);
    qzfi_store_err(&store, 6, "m", 2);
    expect_freed_as_zero(store->keys->next, [&] { qzfi_remove_err(&store, 5); });
    pthread_mutex_unlock(&hl_err_mutex);
}

} // namespace

extern "C" void __real_free(void *block);
extern "C" void __wrap_free(void *block);
extern "C" void __wrap_free(void *block) {
    if (block != nullptr && block == watched.block) {
        const auto *const bytes = static_cast<const unsigned char *>(block);
        ++watched.releases;
        watched.was_zero = std::all_of(bytes, bytes + watched.size, [](unsigned char byte) { return byte == 0; });
    }
    __real_free(block);
}
