// Deleting messages that the API implementation library entered.
#include "lists.h"

#include "support/fault.h"

using namespace lists;

namespace {

class MessageList : public Fixture {
protected:
    void SetUp() override { Plugin::publish(); }
};

std::vector<qfi_msg_info *> infos() {
    std::vector<qfi_msg_info *> found;
    for (const qfi_message_info *record : nodes_of(msg_info_list))
        found.push_back(record->info);
    return found;
}

TEST_F(MessageList, deleting_takes_out_that_message_and_clears_the_callers_pointer) {
    qfi_msg_info *a = enter_message();
    qfi_msg_info *b = enter_message();
    qfi_msg_info *c = enter_message();
    qfi_msg_info *d = enter_message();
    qfi_msg_info *asked = b;
    EXPECT_EQ(fi_del_message(&asked), 0u); // in the middle
    EXPECT_EQ(asked, nullptr);
    EXPECT_EQ(infos(), (std::vector<qfi_msg_info *>{a, c, d}));
    EXPECT_EQ(fi_del_message(&a), 0u); // the first
    EXPECT_EQ(infos(), (std::vector<qfi_msg_info *>{c, d}));
    EXPECT_EQ(fi_del_message(&d), 0u); // the last
    EXPECT_EQ(infos(), (std::vector<qfi_msg_info *>{c}));
    EXPECT_EQ(fi_del_message(&c), 0u); // the only one
    EXPECT_EQ(msg_info_list, nullptr);
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(MessageList, the_callers_pointer_may_be_the_records_own) {
    enter_message();
    EXPECT_EQ(fi_del_message(&msg_info_list->info), 0u);
    EXPECT_EQ(msg_info_list, nullptr);
}

TEST_F(MessageList, a_null_pointer_or_content_is_refused) {
    enter_message();
    qfi_msg_info *none = nullptr;
    EXPECT_EQ(fi_del_message(nullptr), 3u);
    EXPECT_EQ(fi_del_message(&none), 3u);
    EXPECT_EQ(nodes_of(msg_info_list).size(), 1u);
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(MessageList, an_unknown_message_is_no_failure) {
    qfi_msg_info unknown{};
    qfi_msg_info *asked = &unknown;
    EXPECT_EQ(fi_del_message(&asked), 0u); // in an empty list
    EXPECT_EQ(asked, &unknown);
    EXPECT_FALSE(is_locked(err_mutex));
    enter_message();
    EXPECT_EQ(fi_del_message(&asked), 0u);
    EXPECT_EQ(asked, &unknown);
    EXPECT_EQ(nodes_of(msg_info_list).size(), 1u);
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(MessageList, plugin_data_is_released_through_the_plugin_with_the_fields_address) {
    enter_message(nullptr, Plugin::reference, 5);
    qfi_message_info *record = msg_info_list;
    EXPECT_EQ(fi_del_msg_contents(&record), 0u);
    EXPECT_EQ(Plugin::message_releases, 1);
    EXPECT_EQ(Plugin::message_field, &record->plugin_data);
    EXPECT_EQ(Plugin::error_releases, 0);
    EXPECT_EQ(record->info, nullptr);
    EXPECT_EQ(msg_info_list, record);
}

TEST_F(MessageList, without_plugin_data_the_plugin_is_not_asked) {
    fi_get_pgn_f = [](uint64_t) -> qfi_plugin * {
        ADD_FAILURE();
        return nullptr;
    };
    qfi_msg_info *info = enter_message(nullptr, Plugin::reference, 0);
    EXPECT_EQ(fi_del_message(&info), 0u);
}

TEST_F(MessageList, a_release_is_called_without_a_mark_and_none_is_needed_without_both) {
    Plugin::operations.message_mark = nullptr;
    qfi_msg_info *info = enter_message(nullptr, Plugin::reference, 5);
    EXPECT_EQ(fi_del_message(&info), 0u);
    EXPECT_EQ(Plugin::message_releases, 1);
    Plugin::operations.free_message = nullptr;
    info = enter_message(nullptr, Plugin::reference, 5);
    EXPECT_EQ(fi_del_message(&info), 0u);
    EXPECT_EQ(msg_info_list, nullptr);
}

TEST_F(MessageList, a_failed_or_missing_release_keeps_the_message) {
    for (const auto &break_plugin : broken_plugins) {
        Plugin::publish();
        break_plugin();
        qfi_msg_info *info = enter_message(nullptr, Plugin::reference, 5);
        qfi_message_info *record = msg_info_list;
        EXPECT_EQ(fi_del_msg_contents(&record), 1u);
        EXPECT_EQ(fi_del_message(&info), 1u);
        EXPECT_FALSE(is_locked(err_mutex));
        EXPECT_EQ(infos(), std::vector<qfi_msg_info *>{info});
        EXPECT_EQ(record->plugin_data, 5u);
        EXPECT_STREQ(info->serialized, "text");
        Plugin::publish();
        EXPECT_EQ(fi_del_message(&info), 0u);
        EXPECT_EQ(info, nullptr);
    }
}

TEST_F(MessageList, clearing_ignores_failing_releases) {
    for (const auto &break_plugin : broken_plugins) {
        Plugin::publish();
        break_plugin();
        enter_message("s", Plugin::reference, 5);
        EXPECT_EQ(fi_del_session_err_msgs("s"), 0u);
        EXPECT_EQ(msg_info_list, nullptr);
        enter_message(nullptr, Plugin::reference, 5);
        enter_message(nullptr, Plugin::reference, 6);
        EXPECT_EQ(fi_del_all_err_msgs(), 0u);
        EXPECT_EQ(msg_info_list, nullptr);
        EXPECT_FALSE(is_locked(err_mutex));
    }
}

TEST_F(MessageList, every_release_of_plugin_data_runs_under_err_mutex) {
    Plugin::during_release = [] { EXPECT_TRUE(is_locked(err_mutex)); };
    qfi_msg_info *info = enter_message(nullptr, Plugin::reference, 5);
    EXPECT_EQ(fi_del_message(&info), 0u);
    enter_message("s", Plugin::reference, 5);
    EXPECT_EQ(fi_del_session_err_msgs("s"), 0u);
    enter_message(nullptr, Plugin::reference, 5);
    EXPECT_EQ(fi_del_all_err_msgs(), 0u);
    EXPECT_EQ(Plugin::message_releases, 3);
}

TEST_F(MessageList, all_messages_go_at_once) {
    EXPECT_EQ(fi_del_all_err_msgs(), 0u);
    enter_message("s", Plugin::reference, 5);
    enter_message();
    enter_message("t", Plugin::reference, 6);
    EXPECT_EQ(fi_del_all_err_msgs(), 0u);
    EXPECT_EQ(msg_info_list, nullptr);
    EXPECT_EQ(Plugin::message_releases, 2);
}

TEST_F(MessageList, a_sessions_messages_go_and_the_others_stay) {
    enter_message("s");
    qfi_msg_info *const b = enter_message("x");
    enter_message("s", Plugin::reference, 5);
    enter_message("s");
    qfi_msg_info *const e = enter_message(nullptr);
    enter_message("s");
    const std::string name = "s"; // compared by content
    EXPECT_EQ(fi_del_session_err_msgs(name.c_str()), 0u);
    EXPECT_EQ(infos(), (std::vector<qfi_msg_info *>{b, e}));
    EXPECT_EQ(Plugin::message_releases, 1);
    EXPECT_EQ(fi_del_session_err_msgs("y"), 0u);
    EXPECT_EQ(fi_del_session_err_msgs(nullptr), 0u);
    EXPECT_EQ(infos(), (std::vector<qfi_msg_info *>{b, e}));
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(MessageList, an_empty_list_or_a_null_session_returns_without_err_mutex) {
    pthread_mutex_lock(&err_mutex);
    EXPECT_EQ(fi_del_session_err_msgs("s"), 0u);
    EXPECT_EQ(fi_del_session_err_msgs(nullptr), 0u);
    pthread_mutex_unlock(&err_mutex);
}

TEST_F(MessageList, null_records_are_refused) {
    qfi_message_info *none = nullptr;
    EXPECT_EQ(fi_del_msg_contents(nullptr), 3u);
    EXPECT_EQ(fi_del_msg_contents(&none), 3u);
}

TEST_F(MessageList, contents_without_an_info_are_no_failure) {
    enter_message();
    qfi_message_info *record = msg_info_list;
    EXPECT_EQ(fi_del_msg_contents(&record), 0u);
    EXPECT_EQ(fi_del_msg_contents(&record), 0u);
    EXPECT_EQ(fi_del_all_err_msgs(), 0u);
    EXPECT_EQ(msg_info_list, nullptr);
}

TEST_F(MessageList, no_deletion_needs_memory) {
    qfi_msg_info *info = enter_message();
    enter_message("s", Plugin::reference, 5);
    enter_message();
    {
        fault::Armed armed(fault::Call::allocation, 1, {ENOMEM, true});
        EXPECT_EQ(fi_del_message(&info), 0u);
        EXPECT_EQ(fi_del_session_err_msgs("s"), 0u);
        EXPECT_EQ(fi_del_all_err_msgs(), 0u);
        EXPECT_FALSE(fault::Armed::fired());
    }
    EXPECT_EQ(msg_info_list, nullptr);
}

} // namespace
