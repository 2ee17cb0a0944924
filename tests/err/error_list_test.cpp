// Raising errors and fetching the last one.
#include "lists.h"

#include <cstddef>

#include "support/fault.h"

using namespace lists;

namespace {

class ErrorList : public Fixture {};
class ErrorText : public Fixture {};
class HandlerHook : public Fixture {};

TEST_F(ErrorList, record_layouts_are_those_that_the_api_library_walks) {
    EXPECT_EQ(offsetof(qfi_error_info, count), 0u);
    EXPECT_EQ(offsetof(qfi_error_info, status), 4u);
    EXPECT_EQ(offsetof(qfi_error_info, message_id), 8u);
    EXPECT_EQ(offsetof(qfi_error_info, session), 40u);
    EXPECT_EQ(offsetof(qfi_error_info, arguments), 48u);
    EXPECT_EQ(offsetof(qfi_error_info, plugin_ref), 56u);
    EXPECT_EQ(offsetof(qfi_error_info, plugin_data), 64u);
    EXPECT_EQ(offsetof(qfi_error_info, handle), 72u);
    EXPECT_EQ(offsetof(qfi_error_info, retrieved), 80u);
    EXPECT_EQ(offsetof(qfi_error_info, next), 88u);
    EXPECT_EQ(offsetof(qfi_error_info, prev), 96u);
    EXPECT_EQ(sizeof(qfi_error_info), 104u);

    EXPECT_EQ(offsetof(qfi_error_thread, thread), 0u);
    EXPECT_EQ(offsetof(qfi_error_thread, errors), 8u);
    EXPECT_EQ(offsetof(qfi_error_thread, prev), 16u);
    EXPECT_EQ(offsetof(qfi_error_thread, next), 24u);

    EXPECT_EQ(offsetof(qfi_message_info, info), 0u);
    EXPECT_EQ(offsetof(qfi_message_info, plugin_data), 8u);
    EXPECT_EQ(offsetof(qfi_message_info, plugin_ref), 16u);
    EXPECT_EQ(offsetof(qfi_message_info, session), 24u);
    EXPECT_EQ(offsetof(qfi_message_info, prev), 32u);
    EXPECT_EQ(offsetof(qfi_message_info, next), 40u);

    EXPECT_EQ(offsetof(qfi_error_store, module), 0u);
    EXPECT_EQ(offsetof(qfi_error_store, mutex), 8u);
    EXPECT_EQ(offsetof(qfi_error_store, keys), 48u);
    EXPECT_EQ(offsetof(qfi_error_store, prev), 56u);
    EXPECT_EQ(offsetof(qfi_error_store, next), 64u);
    EXPECT_EQ(offsetof(qfi_error_key, key), 0u);
    EXPECT_EQ(offsetof(qfi_error_key, values), 8u);
    EXPECT_EQ(offsetof(qfi_error_key, prev), 16u);
    EXPECT_EQ(offsetof(qfi_error_key, next), 24u);
    EXPECT_EQ(offsetof(qfi_error_value, value), 0u);
    EXPECT_EQ(offsetof(qfi_error_value, read), 8u);
    EXPECT_EQ(offsetof(qfi_error_value, prev), 16u);
    EXPECT_EQ(offsetof(qfi_error_value, next), 24u);
}

TEST_F(ErrorList, all_heads_start_empty) {
    EXPECT_EQ(err_info_list, nullptr);
    EXPECT_EQ(msg_info_list, nullptr);
    EXPECT_EQ(err_mod_list, nullptr);
    EXPECT_EQ(fi_get_pgn_f, nullptr);
    EXPECT_EQ(util_ehandler, nullptr);
}

TEST_F(ErrorList, a_record_holds_what_was_raised) {
    const int32_t status = 11;
    const char session[] = "session";
    int datum = 0;
    Plugin::publish();
    char first[] = "%s: opendir on %s failed\n";
    ASSERT_EQ(fi_create_error_info("MSG_QFI_UTIL_E0041", 77, &datum, &status, session, 2, first, "routine", "path"),
              0u);
    first[0] = '!'; // the record has copies
    const qfi_error_info *const record = last_record();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->count, 2);
    EXPECT_EQ(record->status, 11);
    EXPECT_STREQ(record->message_id, "MSG_QFI_UTIL_E0041");
    EXPECT_EQ(record->session, session);
    EXPECT_STREQ(record->arguments[0], "%s: opendir on %s failed\n");
    EXPECT_STREQ(record->arguments[1], "routine");
    EXPECT_EQ(record->plugin_ref, 77u);
    EXPECT_EQ(record->plugin_data, &datum);
    EXPECT_EQ(record->handle, nullptr);
    EXPECT_EQ(record->retrieved, 0u);
    EXPECT_EQ(record->next, record);
    EXPECT_EQ(record->prev, record);
    fi_del_all_errors();
}

TEST_F(ErrorList, the_status_is_minus_one_without_a_pointer) {
    raise_error("A");
    EXPECT_EQ(last_record()->status, -1);
}

TEST_F(ErrorList, the_last_argument_of_the_usual_call_shape_is_not_stored) {
    ASSERT_EQ(fi_create_error_info("MSG_QFI_UTIL_E0050", 0, nullptr, nullptr, nullptr, 1, "%s: couldn't fork\n",
                                   "qzfi_doshell"),
              0u);
    EXPECT_EQ(last_record()->count, 1);
    EXPECT_STREQ(last_record()->arguments[0], "%s: couldn't fork\n");
}

TEST_F(ErrorList, a_null_argument_is_stored_as_empty_string) {
    ASSERT_EQ(fi_create_error_info("A", 0, nullptr, nullptr, nullptr, 3, "x", nullptr, ""), 0u);
    EXPECT_STREQ(last_record()->arguments[0], "x");
    EXPECT_STREQ(last_record()->arguments[1], "empty string");
    EXPECT_STREQ(last_record()->arguments[2], "");
}

TEST_F(ErrorList, a_message_id_is_cut_to_31_characters) {
    raise_error("0123456789012345678901234567890");
    EXPECT_STREQ(last_record()->message_id, "0123456789012345678901234567890");
    raise_error("01234567890123456789012345678901");
    EXPECT_STREQ(last_record()->message_id, "0123456789012345678901234567890");
    raise_error("01234567890123456789012345678901234567890123456789");
    EXPECT_STREQ(last_record()->message_id, "0123456789012345678901234567890");
}

TEST_F(ErrorList, a_null_message_id_is_recorded_as_empty) {
    EXPECT_EQ(raise_error(nullptr), 0u);
    EXPECT_STREQ(last_record()->message_id, "");
}

TEST_F(ErrorList, a_count_of_zero_or_below_stores_no_string) {
    for (const int32_t count : {0, -1, INT32_MIN}) {
        ASSERT_EQ(fi_create_error_info("A", 0, nullptr, nullptr, nullptr, count, "unused"), 0u);
        EXPECT_EQ(last_record()->count, 0);
        EXPECT_EQ(last_record()->arguments, nullptr);
    }
}

TEST_F(ErrorList, records_stand_in_the_order_raised) {
    raise_error("A");
    raise_error("B");
    raise_error("C");
    ASSERT_EQ(nodes_of(err_info_list).size(), 1u);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_NE(pthread_equal(err_info_list->thread, pthread_self()), 0);
}

TEST_F(ErrorList, two_threads_get_two_thread_nodes_in_the_order_of_their_first_error) {
    Worker other;
    raise_error("A");
    other.run([] { raise_error("B"); });
    raise_error("C");
    const std::vector<qfi_error_thread *> nodes = nodes_of(err_info_list);
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(ids_of(nodes[0]), (std::vector<std::string>{"A", "C"}));
    EXPECT_EQ(ids_of(nodes[1]), (std::vector<std::string>{"B"}));
    EXPECT_NE(pthread_equal(nodes[0]->thread, pthread_self()), 0);
    EXPECT_EQ(pthread_equal(nodes[1]->thread, pthread_self()), 0);
}

TEST_F(ErrorList, raising_leaves_err_mutex_free) {
    raise_error("A");
    EXPECT_FALSE(is_locked(err_mutex));
    raise_error("B");
    EXPECT_FALSE(is_locked(err_mutex));
}

TEST_F(ErrorList, the_last_error_is_handed_out_once) {
    qfi_error_info *out = nullptr;
    raise_error("A");
    raise_error("B");
    ASSERT_EQ(does_last_error_exist(&out), 1u);
    EXPECT_STREQ(out->message_id, "B");
    EXPECT_EQ(out->retrieved, 1u);
    EXPECT_EQ(does_last_error_exist(&out), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A", "B"})); // it stays in the list
    EXPECT_EQ(err_info_list->errors->retrieved, 0u);

    raise_error("C");
    ASSERT_EQ(does_last_error_exist(&out), 1u);
    EXPECT_STREQ(out->message_id, "C");
    EXPECT_EQ(does_last_error_exist(&out), 0u);
}

TEST_F(ErrorList, each_thread_is_handed_its_own_last_error_only) {
    Worker other;
    qfi_error_info *out = nullptr;
    other.run([] { raise_error("B"); });
    EXPECT_EQ(does_last_error_exist(&out), 0u);
    EXPECT_EQ(out, nullptr);
    raise_error("A");
    ASSERT_EQ(does_last_error_exist(&out), 1u);
    EXPECT_STREQ(out->message_id, "A");
    other.run([] {
        qfi_error_info *own = nullptr;
        ASSERT_EQ(does_last_error_exist(&own), 1u);
        EXPECT_STREQ(own->message_id, "B");
        EXPECT_EQ(does_last_error_exist(&own), 0u);
    });
}

TEST_F(ErrorList, the_last_error_needs_a_result_pointer) {
    raise_error("A");
    EXPECT_EQ(does_last_error_exist(nullptr), 0xffffffffu);
    EXPECT_EQ(last_record()->retrieved, 0u);
}

TEST_F(ErrorList, an_empty_list_has_no_last_error) {
    qfi_error_info unused{};
    qfi_error_info *out = &unused;
    EXPECT_EQ(does_last_error_exist(&out), 0u);
    EXPECT_EQ(out, nullptr);
}

TEST_F(ErrorList, a_node_of_the_thread_without_records_is_walked_past_and_used_again) {
    auto *const node = static_cast<qfi_error_thread *>(std::calloc(1, sizeof(qfi_error_thread)));
    node->thread = pthread_self();
    node->next = node->prev = node;
    err_info_list = node;
    qfi_error_info *out = nullptr;
    EXPECT_EQ(does_last_error_exist(&out), 0u);
    raise_error("A");
    EXPECT_EQ(nodes_of(err_info_list), std::vector<qfi_error_thread *>{node});
    EXPECT_EQ(does_last_error_exist(&out), 1u);
    EXPECT_STREQ(out->message_id, "A");
}

TEST_F(ErrorList, the_walk_goes_on_past_a_node_of_the_thread_whose_last_error_was_handed_out) {
    raise_error("A");
    qfi_error_info *out = nullptr;
    ASSERT_EQ(does_last_error_exist(&out), 1u);
    qfi_error_thread *const first = err_info_list;
    err_info_list = nullptr;
    raise_error("B");
    qfi_error_thread *const second = err_info_list;
    first->next = first->prev = second;
    second->next = second->prev = first;
    err_info_list = first;
    ASSERT_EQ(does_last_error_exist(&out), 1u);
    EXPECT_STREQ(out->message_id, "B");
    EXPECT_EQ(does_last_error_exist(&out), 0u);
}

TEST_F(ErrorList, the_last_error_can_be_fetched_while_another_thread_holds_err_mutex) {
    Worker holder;
    raise_error("A");
    holder.run([] { pthread_mutex_lock(&err_mutex); });
    qfi_error_info *out = nullptr;
    EXPECT_EQ(does_last_error_exist(&out), 1u);
    EXPECT_STREQ(out->message_id, "A");
    EXPECT_EQ(does_last_error_exist(&out), 0u);
    holder.run([] { pthread_mutex_unlock(&err_mutex); });
}

TEST_F(ErrorList, the_search_for_the_thread_needs_no_err_mutex) {
    Worker holder;
    holder.run([] {
        raise_error("other");
        pthread_mutex_lock(&err_mutex);
    });
    fault::Armed armed(fault::Call::allocation, 2); // the record, then the node that the search found missing
    EXPECT_EQ(fi_create_error_info("A", 0, nullptr, nullptr, nullptr, 0), QFI_STATUS_NULL_RESULT);
    holder.run([] { pthread_mutex_unlock(&err_mutex); });
}

// The record, its array, the three strings and the thread's node, in this order.
TEST_F(ErrorList, each_allocation_of_a_first_error_fails_as_documented) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        trial.arm();
        const uint32_t status = fi_create_error_info("A", 0, nullptr, nullptr, nullptr, 3, "x", nullptr, "z");
        trial.disarm();
        switch (trial.fired() ? trial.nth() : 0) {
        case 1:
        case 2:
            EXPECT_EQ(status, 5u);
            EXPECT_EQ(err_info_list, nullptr);
            break;
        case 6:
            EXPECT_EQ(status, 0xffffffffu);
            EXPECT_EQ(err_info_list, nullptr);
            break;
        default: {
            EXPECT_EQ(status, 0u);
            ASSERT_NE(last_record(), nullptr);
            const char *const expected[] = {"x", "empty string", "z"};
            EXPECT_EQ(last_record()->count, 3);
            for (int index = 0; index < 3; ++index) {
                if (trial.fired() && index == trial.nth() - 3)
                    EXPECT_EQ(last_record()->arguments[index], nullptr);
                else
                    EXPECT_STREQ(last_record()->arguments[index], expected[index]);
            }
            EXPECT_FALSE(trial.fired() && trial.nth() > 5);
        }
        }
        EXPECT_FALSE(is_locked(err_mutex));
        fi_del_all_errors();
    });
}

TEST_F(ErrorList, a_failed_raise_leaves_the_list_as_it_was) {
    Worker other;
    raise_error("A");
    fault::for_each(fault::Call::allocation,
                    [&](fault::Trial &trial) {
                        other.run([&] {
                            trial.arm();
                            const uint32_t status = raise_error("B");
                            trial.disarm();
                            EXPECT_EQ(status, !trial.fired() ? 0u : trial.nth() <= 2 ? 5u : QFI_STATUS_NULL_RESULT);
                        });
                        EXPECT_EQ(nodes_of(err_info_list).size(), trial.fired() ? 1u : 2u);
                        EXPECT_EQ(ids_of(err_info_list), (std::vector<std::string>{"A"}));
                    },
                    {ENOMEM, true});
}

TEST_F(ErrorList, a_further_error_of_a_thread_needs_memory_for_the_record_and_its_array_only) {
    fault::for_each(fault::Call::allocation,
                    [](fault::Trial &trial) {
                        fi_del_all_errors();
                        raise_error("A");
                        trial.arm();
                        const uint32_t status = raise_error("B");
                        trial.disarm();
                        const bool is_refused = trial.fired() && trial.nth() <= 2;
                        EXPECT_EQ(status, is_refused ? 5u : 0u);
                        EXPECT_EQ(nodes_of(err_info_list).size(), 1u);
                        EXPECT_EQ(ids_of(err_info_list),
                                  is_refused ? (std::vector<std::string>{"A"}) : (std::vector<std::string>{"A", "B"}));
                        EXPECT_FALSE(is_locked(err_mutex));
                    },
                    {ENOMEM, true});
}

TEST_F(ErrorList, plugin_data_stays_the_callers_when_raising_fails) {
    Plugin::publish();
    int datum = 0;
    fault::for_each(fault::Call::allocation,
                    [&](fault::Trial &trial) {
                        trial.arm();
                        raise_error("A", nullptr, Plugin::reference, &datum);
                        trial.disarm();
                        EXPECT_EQ(Plugin::error_releases, 0);
                    },
                    {ENOMEM, true});
}

TEST_F(ErrorText, formats_into_the_callers_buffer) {
    char buffer[32];
    char *text = buffer;
    EXPECT_EQ(fi_create_err_msg_str(&text, sizeof buffer, "%s: couldn't fork %d\n", "qzfi_doshell", 7), 0u);
    EXPECT_STREQ(buffer, "qzfi_doshell: couldn't fork 7\n");
}

TEST_F(ErrorText, a_long_text_is_cut_and_terminated) {
    char buffer[] = "________";
    char *text = buffer;
    EXPECT_EQ(fi_create_err_msg_str(&text, 5, "%s", "0123456789"), 0u);
    EXPECT_EQ(std::string(buffer, 8), std::string("0123\0___", 8));
}

TEST_F(ErrorText, a_size_of_zero_or_below_writes_nothing) {
    for (const int32_t size : {0, -1, INT32_MIN}) {
        char buffer[] = "abc";
        char *text = buffer;
        EXPECT_EQ(fi_create_err_msg_str(&text, size, "%s", "x"), 0u);
        EXPECT_STREQ(buffer, "abc");
    }
}

TEST_F(ErrorText, null_pointers_are_refused) {
    char *text = nullptr;
    EXPECT_EQ(fi_create_err_msg_str(nullptr, 8, "x"), 0xffffffffu);
    EXPECT_EQ(fi_create_err_msg_str(&text, 8, "x"), 0xffffffffu);
    char buffer[] = "abc";
    text = buffer;
    const char *volatile format = nullptr;
    EXPECT_EQ(fi_create_err_msg_str(&text, 4, format, 0), 3u);
    EXPECT_STREQ(buffer, "abc");
}

struct Handled {
    qfi_handler *self;
    std::string text;
    const char *localized;
    uint32_t severity;
};
std::vector<Handled> handled;

TEST_F(HandlerHook, the_handler_gets_the_hook_object_and_the_texts) {
    qfi_handler handler{};
    handler.error = [](qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
        handled.push_back({self, text, localized, severity});
    };
    handled.clear();
    const char localized[] = "Fehler";
    util_ehandler = &handler;
    qzfi_handle_err("error", localized, 3);
    qzfi_handle_err("plain", nullptr, 2);
    util_ehandler = nullptr;
    qzfi_handle_err("lost", nullptr, 2);
    ASSERT_EQ(handled.size(), 2u);
    EXPECT_EQ(handled[0].self, &handler);
    EXPECT_EQ(handled[0].text, "error");
    EXPECT_EQ(handled[0].localized, localized);
    EXPECT_EQ(handled[0].severity, 3u);
    EXPECT_EQ(handled[1].text, "plain");
    EXPECT_EQ(handled[1].localized, nullptr);
    EXPECT_EQ(handled[1].severity, 2u);
}

TEST_F(HandlerHook, a_hook_object_without_a_handler_is_left_alone) {
    qfi_handler handler{};
    handled.clear();
    util_ehandler = &handler;
    qzfi_handle_err("text", nullptr, 2);
    util_ehandler = nullptr;
    EXPECT_TRUE(handled.empty());
}

} // namespace
