// Releasing and deleting errors: by handle, by session, all at once.
#include "lists.h"

#include "support/fault.h"

using namespace lists;

namespace {

class ErrorContents : public Fixture {
protected:
    void SetUp() override { Plugin::publish(); }
};
class ErrorDelete : public ErrorContents {};

qfi_error_info *raise_with_data(void *data, uint64_t plugin_ref = Plugin::reference) {
    raise_error("A", nullptr, plugin_ref, data);
    return last_record();
}

TEST_F(ErrorContents, are_the_strings_and_the_handle_but_not_the_array) {
    raise_error("A");
    qfi_error_info *record = last_record();
    give_handle(record);
    char **const array = record->arguments;
    EXPECT_EQ(fi_del_err_contents(&record, 1), 0u);
    EXPECT_EQ(record->arguments, array);
    EXPECT_EQ(array[0], nullptr); // the array itself is still there
    EXPECT_EQ(array[1], nullptr);
    EXPECT_EQ(record->handle, nullptr);
    EXPECT_EQ(last_record(), record);
    EXPECT_EQ(fi_del_err_contents(&record, 1), 0u); // nothing is released twice
}

TEST_F(ErrorContents, plugin_data_is_released_through_the_plugin_with_the_fields_address) {
    int datum = 0;
    qfi_error_info *record = raise_with_data(&datum);
    Plugin::during_release = [&] { EXPECT_EQ(record->plugin_data, &datum); };
    EXPECT_EQ(fi_del_err_contents(&record, 1), 0u);
    EXPECT_EQ(Plugin::error_releases, 1);
    EXPECT_EQ(Plugin::error_field, &record->plugin_data);
    EXPECT_EQ(Plugin::message_releases, 0);
}

TEST_F(ErrorContents, a_release_is_called_without_a_mark_too) {
    int datum = 0;
    Plugin::operations.error_mark = nullptr;
    qfi_error_info *record = raise_with_data(&datum);
    EXPECT_EQ(fi_del_err_contents(&record, 1), 0u);
    EXPECT_EQ(Plugin::error_releases, 1);
}

TEST_F(ErrorContents, a_plugin_with_neither_mark_nor_release_has_nothing_to_release) {
    int datum = 0;
    Plugin::operations.error_mark = nullptr;
    Plugin::operations.free_error = nullptr;
    qfi_error_info *record = raise_with_data(&datum);
    EXPECT_EQ(fi_del_err_contents(&record, 1), 0u);
    EXPECT_EQ(record->arguments[0], nullptr);
}

TEST_F(ErrorContents, without_plugin_data_the_plugin_is_not_asked) {
    fi_get_pgn_f = [](uint64_t) -> qfi_plugin * {
        ADD_FAILURE();
        return nullptr;
    };
    raise_error("A", nullptr, Plugin::reference, nullptr);
    qfi_error_info *record = last_record();
    EXPECT_EQ(fi_del_err_contents(&record, 1), 0u);
}

TEST_F(ErrorContents, a_failed_or_missing_release_leaves_the_rest_untouched) {
    for (const auto &break_plugin : broken_plugins) {
        Plugin::publish();
        break_plugin();
        int datum = 0;
        qfi_error_info *record = raise_with_data(&datum);
        void **const handle = give_handle(record);
        EXPECT_EQ(fi_del_err_contents(&record, 1), 1u);
        EXPECT_EQ(record->plugin_data, &datum);
        EXPECT_STREQ(record->arguments[0], "first");
        EXPECT_STREQ(record->arguments[1], "second");
        EXPECT_EQ(record->handle, handle);
    }
}

TEST_F(ErrorContents, flag_0_frees_the_datum_and_its_block_without_the_plugin) {
    auto **const block = static_cast<void **>(std::malloc(sizeof(void *)));
    *block = std::malloc(8);
    qfi_error_info *record = raise_with_data(block);
    EXPECT_EQ(fi_del_err_contents(&record, 0), 0u);
    EXPECT_EQ(Plugin::error_releases, 0);
    EXPECT_EQ(record->plugin_data, nullptr);
    EXPECT_EQ(record->arguments[0], nullptr);
}

TEST_F(ErrorContents, flag_0_frees_a_block_without_a_datum) {
    qfi_error_info *record = raise_with_data(std::calloc(1, sizeof(void *)));
    EXPECT_EQ(fi_del_err_contents(&record, 0), 0u);
    raise_error("B");
    record = last_record();
    EXPECT_EQ(fi_del_err_contents(&record, 0), 0u);
}

TEST_F(ErrorContents, any_flag_but_0_goes_through_the_plugin) {
    int datum = 0;
    for (const int32_t flag : {1, 2, -1}) {
        qfi_error_info *record = raise_with_data(&datum);
        EXPECT_EQ(fi_del_err_contents(&record, flag), 0u);
    }
    EXPECT_EQ(Plugin::error_releases, 3);
}

TEST_F(ErrorContents, null_records_are_refused) {
    qfi_error_info *none = nullptr;
    EXPECT_EQ(fi_del_err_contents(nullptr, 1), 3u);
    EXPECT_EQ(fi_del_err_contents(&none, 1), 3u);
    EXPECT_EQ(fi_del_err_contents(&none, 0), 3u);
}

TEST_F(ErrorDelete, by_handle_takes_out_that_record_only) {
    void **handles[4];
    for (int index = 0; index < 4; ++index) {
        raise_error(std::string(1, static_cast<char>('A' + index)).c_str());
        handles[index] = give_handle(last_record());
    }
    EXPECT_EQ(fi_del_error(&handles[2]), 0u); // in the middle
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A", "B", "D"}));
    EXPECT_FALSE(is_locked(err_mutex));
    EXPECT_EQ(fi_del_error(&handles[0]), 0u); // the first
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"B", "D"}));
    EXPECT_FALSE(is_locked(err_mutex));
    EXPECT_EQ(fi_del_error(&handles[3]), 0u); // the last
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"B"}));
    EXPECT_EQ(fi_del_error(&handles[1]), 0u); // the only one
    EXPECT_EQ(err_info_list, nullptr);
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(ErrorDelete, a_thread_node_left_without_records_goes_too) {
    Worker other;
    raise_error("A");
    void **handle = give_handle(last_record());
    other.run([] { raise_error("B"); });
    EXPECT_EQ(fi_del_error(&handle), 0u);
    ASSERT_EQ(nodes_of(err_info_list).size(), 1u);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"B"}));
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(ErrorDelete, every_release_of_plugin_data_runs_under_err_mutex) {
    int datum = 0;
    Plugin::during_release = [] { EXPECT_TRUE(is_locked(err_mutex)); };
    void **handle = give_handle(raise_with_data(&datum));
    EXPECT_EQ(fi_del_error(&handle), 0u);
    raise_error("A", "s", Plugin::reference, &datum);
    EXPECT_EQ(fi_del_session_errors("s"), 0u);
    raise_with_data(&datum);
    EXPECT_EQ(fi_del_all_errors(), 0u);
    EXPECT_EQ(Plugin::error_releases, 3);
}

TEST_F(ErrorDelete, by_handle_releases_plugin_data) {
    int datum = 0;
    void **handle = give_handle(raise_with_data(&datum));
    EXPECT_EQ(fi_del_error(&handle), 0u);
    EXPECT_EQ(Plugin::error_releases, 1);
    EXPECT_EQ(err_info_list, nullptr);
}

TEST_F(ErrorDelete, by_handle_keeps_the_record_when_the_plugin_fails) {
    for (const auto &break_plugin : broken_plugins) {
        Plugin::publish();
        int datum = 0;
        qfi_error_info *const record = raise_with_data(&datum);
        void **handle = give_handle(record);
        break_plugin();
        EXPECT_EQ(fi_del_error(&handle), 1u);
        EXPECT_FALSE(is_locked(err_mutex)); // unlike after a miss
        EXPECT_EQ(last_record(), record);
        EXPECT_EQ(record->handle, handle);
        EXPECT_EQ(record->plugin_data, &datum);
        EXPECT_STREQ(record->arguments[0], "first");
        Plugin::publish();
        EXPECT_EQ(fi_del_error(&handle), 0u);
        EXPECT_EQ(err_info_list, nullptr);
    }
}

TEST_F(ErrorDelete, a_miss_on_an_empty_list_leaves_err_mutex_locked) {
    void **handle = nullptr;
    EXPECT_EQ(fi_del_error(&handle), 1u);
    EXPECT_TRUE(is_locked(err_mutex));
    pthread_mutex_unlock(&err_mutex);
}

TEST_F(ErrorDelete, a_first_thread_without_records_leaves_err_mutex_locked) {
    auto *const node = static_cast<qfi_error_thread *>(std::calloc(1, sizeof(qfi_error_thread)));
    node->thread = pthread_self();
    node->next = node->prev = node;
    err_info_list = node;
    void **handle = nullptr;
    EXPECT_EQ(fi_del_error(&handle), 1u);
    EXPECT_TRUE(is_locked(err_mutex));
    pthread_mutex_unlock(&err_mutex);
    fi_del_all_errors();
    EXPECT_EQ(err_info_list, nullptr);
}

TEST_F(ErrorDelete, no_match_leaves_err_mutex_locked_and_the_list_as_it_was) {
    raise_error("A");
    raise_error("B");
    void *cell = nullptr;
    void **handle = &cell;
    EXPECT_EQ(fi_del_error(&handle), 1u);
    EXPECT_TRUE(is_locked(err_mutex));
    pthread_mutex_unlock(&err_mutex);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A", "B"}));
}

TEST_F(ErrorDelete, only_the_first_threads_records_are_searched) {
    Worker other;
    raise_error("A");
    void **handle = nullptr;
    other.run([&] {
        raise_error("B");
        handle = give_handle(last_record());
    });
    EXPECT_EQ(fi_del_error(&handle), 1u);
    EXPECT_TRUE(is_locked(err_mutex));
    pthread_mutex_unlock(&err_mutex);
    EXPECT_EQ(nodes_of(err_info_list).size(), 2u);
}

TEST_F(ErrorDelete, a_null_argument_finds_nothing) {
    raise_error("A");
    EXPECT_EQ(fi_del_error(nullptr), 1u);
    EXPECT_TRUE(is_locked(err_mutex));
    pthread_mutex_unlock(&err_mutex);
    EXPECT_NE(last_record(), nullptr);
}

TEST_F(ErrorDelete, a_null_handle_names_the_first_record_without_one) {
    raise_error("A");
    give_handle(last_record());
    raise_error("B");
    raise_error("C");
    void **handle = nullptr;
    EXPECT_EQ(fi_del_error(&handle), 0u);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A", "C"}));
}

TEST_F(ErrorDelete, all_empties_every_thread_and_releases_plugin_data) {
    Worker other;
    int datum = 0;
    raise_error("A", "s", Plugin::reference, &datum);
    give_handle(last_record());
    raise_error("B");
    other.run([&] { raise_error("C", nullptr, Plugin::reference, &datum); });
    EXPECT_EQ(fi_del_all_errors(), 0u);
    EXPECT_EQ(err_info_list, nullptr);
    EXPECT_EQ(Plugin::error_releases, 2);
    EXPECT_FALSE(is_locked(err_mutex));
    qfi_error_info *out = nullptr;
    EXPECT_EQ(does_last_error_exist(&out), 0u);
    EXPECT_EQ(raise_error("D"), 0u); // and the list can be used again
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"D"}));
}

TEST_F(ErrorDelete, all_ignores_failing_releases) {
    for (const auto &break_plugin : broken_plugins) {
        Plugin::publish();
        break_plugin();
        int datum = 0;
        give_handle(raise_with_data(&datum));
        raise_with_data(&datum);
        EXPECT_EQ(fi_del_all_errors(), 0u);
        EXPECT_EQ(err_info_list, nullptr);
    }
}

TEST_F(ErrorDelete, an_empty_list_is_cleared_without_err_mutex) {
    pthread_mutex_lock(&err_mutex);
    EXPECT_EQ(fi_del_all_errors(), 0u);
    EXPECT_EQ(fi_del_session_errors("s"), 0u);
    pthread_mutex_unlock(&err_mutex);
}

TEST_F(ErrorDelete, a_sessions_errors_go_from_every_threads_node) {
    Worker second;
    Worker third;
    raise_error("A", "x");
    raise_error("B", "s");
    raise_error("C");
    raise_error("D", "s");
    second.run([] {
        raise_error("E", "s");
        raise_error("F", "s");
    });
    third.run([] {
        raise_error("G", "s");
        raise_error("H", "x");
    });
    ASSERT_EQ(nodes_of(err_info_list).size(), 3u);
    const std::string name = "s"; // compared by content
    EXPECT_EQ(fi_del_session_errors(name.c_str()), 0u);
    const std::vector<qfi_error_thread *> nodes = nodes_of(err_info_list);
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(ids_of(nodes[0]), (std::vector<std::string>{"A", "C"}));
    EXPECT_EQ(ids_of(nodes[1]), (std::vector<std::string>{"H"}));
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(ErrorDelete, a_session_at_the_head_and_the_tail_of_the_threads_moves_the_head_on) {
    Worker second;
    Worker third;
    raise_error("A", "s");
    second.run([] { raise_error("B", "x"); });
    third.run([] { raise_error("C", "s"); });
    fi_del_session_errors("s");
    ASSERT_EQ(nodes_of(err_info_list).size(), 1u);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"B"}));
    fi_del_session_errors("x");
    EXPECT_EQ(err_info_list, nullptr);
}

TEST_F(ErrorDelete, a_null_or_unknown_session_deletes_nothing) {
    raise_error("A");
    raise_error("B", "s");
    EXPECT_EQ(fi_del_session_errors(nullptr), 0u);
    EXPECT_EQ(fi_del_session_errors("t"), 0u);
    EXPECT_EQ(fi_del_session_errors(""), 0u);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A", "B"}));
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(ErrorDelete, a_null_session_returns_without_err_mutex) {
    raise_error("A");
    pthread_mutex_lock(&err_mutex);
    EXPECT_EQ(fi_del_session_errors(nullptr), 0u);
    pthread_mutex_unlock(&err_mutex);
}

TEST_F(ErrorDelete, a_session_ignores_failing_releases) {
    for (const auto &break_plugin : broken_plugins) {
        Plugin::publish();
        break_plugin();
        int datum = 0;
        raise_error("A", "s", Plugin::reference, &datum);
        give_handle(last_record());
        EXPECT_EQ(fi_del_session_errors("s"), 0u);
        EXPECT_EQ(err_info_list, nullptr);
    }
}

TEST_F(ErrorDelete, no_deletion_needs_memory) {
    Worker other;
    int datum = 0;
    raise_error("A", "s", Plugin::reference, &datum);
    void **handle = give_handle(last_record());
    raise_error("B", "s");
    raise_error("C");
    other.run([] { raise_error("D"); });
    {
        fault::Armed armed(fault::Call::allocation, 1, {ENOMEM, true});
        EXPECT_EQ(fi_del_error(&handle), 0u);
        EXPECT_EQ(fi_del_session_errors("s"), 0u);
        EXPECT_EQ(fi_del_all_errors(), 0u);
        EXPECT_FALSE(fault::Armed::fired());
    }
    EXPECT_EQ(err_info_list, nullptr);
}

} // namespace
