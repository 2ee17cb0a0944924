// The module stores.
#include "lists.h"

#include "support/fault.h"

using namespace lists;

namespace {

class ModuleStore : public Fixture {
protected:
    qfi_error_store *store_ = nullptr;

    /// The next unread value of a key, -1 for none.
    int64_t last(uint64_t key) {
        uint64_t value = 99;
        const uint32_t status = qzfi_get_last_err(store_, key, &value);
        EXPECT_TRUE(status == 1 || (status == 0 && value == 0));
        return status == 1 ? static_cast<int64_t>(value) : -1;
    }
    std::vector<uint64_t> values(uint64_t key) {
        std::vector<uint64_t> found;
        for (const qfi_error_key *node : nodes_of(store_->keys))
            if (node->key == key)
                for (const qfi_error_value *item : nodes_of(node->values))
                    found.push_back(item->value);
        return found;
    }
    std::vector<uint64_t> keys() {
        std::vector<uint64_t> found;
        for (const qfi_error_key *node : nodes_of(store_->keys))
            found.push_back(node->key);
        return found;
    }
    /// Removes a value that is there: hl_err_mutex must be locked afterwards, and is released here.
    void remove(uint64_t value) {
        EXPECT_EQ(qzfi_remove_err(&store_, value), 0u);
        EXPECT_TRUE(is_locked(hl_err_mutex));
        EXPECT_FALSE(is_locked(store_->mutex));
        pthread_mutex_unlock(&hl_err_mutex);
    }
};

using Numbers = std::vector<uint64_t>;

TEST_F(ModuleStore, the_first_value_makes_the_store_and_fills_in_the_handle) {
    char name[] = "module";
    ASSERT_EQ(qzfi_store_err(&store_, 5, name, 1), 0u);
    name[0] = '!';
    ASSERT_NE(store_, nullptr);
    EXPECT_EQ(err_mod_list, store_);
    EXPECT_STREQ(store_->module, "module");
    EXPECT_EQ(keys(), Numbers{1});
    EXPECT_EQ(values(1), Numbers{5});
    EXPECT_EQ(store_->keys->values->read, 0u);
    EXPECT_FALSE(is_locked(hl_err_mutex));
    EXPECT_FALSE(is_locked(store_->mutex));
}

TEST_F(ModuleStore, stores_stand_in_the_order_made) {
    qfi_error_store *other = nullptr;
    qfi_error_store *third = nullptr;
    qzfi_store_err(&store_, 5, "a", 1);
    qzfi_store_err(&other, 5, "b", 1);
    qzfi_store_err(&third, 5, "a", 1); // a handle, not a name, is a store's identity
    EXPECT_EQ(nodes_of(err_mod_list), (std::vector<qfi_error_store *>{store_, other, third}));
}

TEST_F(ModuleStore, a_known_key_takes_further_values_at_the_tail) {
    qzfi_store_err(&store_, 5, "m", 1);
    qzfi_store_err(&store_, 6, "ignored", 1);
    qzfi_store_err(&store_, 7, nullptr, 1);
    EXPECT_EQ(keys(), Numbers{1});
    EXPECT_EQ(values(1), (Numbers{5, 6, 7}));
    EXPECT_STREQ(store_->module, "m");
    EXPECT_EQ(nodes_of(err_mod_list).size(), 1u);
}

TEST_F(ModuleStore, a_new_key_of_an_existing_module_stores_the_value_0) {
    qzfi_store_err(&store_, 5, "m", 1);
    ASSERT_EQ(qzfi_store_err(&store_, 6, "m", 2), 0u);
    EXPECT_EQ(keys(), (Numbers{1, 2}));
    EXPECT_EQ(values(1), Numbers{5});
    EXPECT_EQ(values(2), Numbers{0});
    EXPECT_EQ(last(2), 0);
    EXPECT_EQ(last(2), -1);
    qzfi_store_err(&store_, 7, "m", 2);
    EXPECT_EQ(values(2), (Numbers{0, 7}));
}

TEST_F(ModuleStore, the_last_value_of_a_key_is_fetched_once) {
    qzfi_store_err(&store_, 5, "m", 1);
    EXPECT_EQ(last(1), 5);
    EXPECT_EQ(last(1), -1);
    qzfi_store_err(&store_, 6, "m", 1);
    qzfi_store_err(&store_, 7, "m", 1);
    EXPECT_EQ(last(1), 7);
    EXPECT_EQ(last(1), -1); // 6 is not at the tail
    EXPECT_EQ(store_->keys->values->next->read, 0u);
    EXPECT_EQ(store_->keys->values->prev->read, 1u);
}

TEST_F(ModuleStore, an_unknown_key_has_no_last_value) {
    qzfi_store_err(&store_, 5, "m", 1);
    EXPECT_EQ(last(2), -1);
    EXPECT_EQ(last(1), 5);
}

TEST_F(ModuleStore, fetching_refuses_null_pointers) {
    uint64_t value = 99;
    EXPECT_EQ(qzfi_get_last_err(nullptr, 1, &value), 3u);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(qzfi_get_last_err(nullptr, 1, nullptr), 3u);
    qzfi_store_err(&store_, 5, "m", 1);
    EXPECT_EQ(qzfi_get_last_err(store_, 1, nullptr), 3u);
    EXPECT_EQ(last(1), 5); // still unread
}

TEST_F(ModuleStore, storing_refuses_a_null_handle_and_takes_a_null_name_as_empty) {
    EXPECT_EQ(qzfi_store_err(nullptr, 5, "m", 1), 3u);
    EXPECT_EQ(err_mod_list, nullptr);
    ASSERT_EQ(qzfi_store_err(&store_, 5, nullptr, 1), 0u);
    EXPECT_STREQ(store_->module, "");
}

TEST_F(ModuleStore, removing_refuses_nothing_and_locks_nothing_without_a_store) {
    EXPECT_EQ(qzfi_remove_err(nullptr, 5), 0u);
    EXPECT_EQ(qzfi_remove_err(&store_, 5), 0u);
    EXPECT_FALSE(is_locked(hl_err_mutex));
}

TEST_F(ModuleStore, removing_an_unknown_value_leaves_hl_err_mutex_free) {
    qzfi_store_err(&store_, 5, "m", 1);
    EXPECT_EQ(qzfi_remove_err(&store_, 6), 0u);
    EXPECT_FALSE(is_locked(hl_err_mutex));
    EXPECT_FALSE(is_locked(store_->mutex));
    EXPECT_EQ(values(1), Numbers{5});
}

TEST_F(ModuleStore, removing_one_of_several_values_keeps_the_key_and_hl_err_mutex_locked) {
    for (const uint64_t value : {5u, 6u, 7u, 8u})
        qzfi_store_err(&store_, value, "m", 1);
    remove(6);
    EXPECT_EQ(values(1), (Numbers{5, 7, 8}));
    remove(5);
    EXPECT_EQ(values(1), (Numbers{7, 8}));
    remove(8);
    EXPECT_EQ(values(1), Numbers{7});
    EXPECT_EQ(last(1), 7);
}

TEST_F(ModuleStore, every_key_is_searched_and_the_first_match_removed) {
    qzfi_store_err(&store_, 5, "m", 1);
    qzfi_store_err(&store_, 0, "m", 2);
    qzfi_store_err(&store_, 5, "m", 2);
    qzfi_store_err(&store_, 6, "m", 2);
    remove(6);
    EXPECT_EQ(values(2), (Numbers{0, 5}));
    qzfi_store_err(&store_, 7, "m", 1);
    remove(5);
    EXPECT_EQ(values(1), Numbers{7});
    EXPECT_EQ(values(2), (Numbers{0, 5}));
}

TEST_F(ModuleStore, removing_the_only_value_empties_the_key_list) {
    qzfi_store_err(&store_, 5, "m", 1);
    remove(5);
    EXPECT_EQ(store_->keys, nullptr);
    EXPECT_EQ(nodes_of(err_mod_list), std::vector<qfi_error_store *>{store_});
}

TEST_F(ModuleStore, emptying_any_of_several_keys_empties_the_key_list) {
    for (const uint64_t removed : {10u, 20u, 30u}) {
        qzfi_store_err(&store_, 10, "m", 1);
        for (const uint64_t key : {2u, 3u}) {
            qzfi_store_err(&store_, 0, "m", key);
            qzfi_store_err(&store_, key * 10, "m", key);
            store_->keys->prev->values->value = key * 100; // no longer the 0 of a new key
        }
        ASSERT_EQ(keys(), (Numbers{1, 2, 3}));
        if (removed != 10)
            remove(removed * 10);
        ASSERT_EQ(keys(), (Numbers{1, 2, 3}));
        remove(removed);
        EXPECT_EQ(store_->keys, nullptr);
        fi_del_all_err_lists();
        store_ = nullptr;
    }
}

TEST_F(ModuleStore, an_emptied_store_answers_and_takes_a_new_key_with_the_value_0) {
    qzfi_store_err(&store_, 5, "m", 1);
    qzfi_store_err(&store_, 6, "m", 2);
    remove(5);
    ASSERT_EQ(store_->keys, nullptr);
    EXPECT_EQ(last(1), -1);
    EXPECT_EQ(qzfi_remove_err(&store_, 5), 0u);
    EXPECT_FALSE(is_locked(hl_err_mutex));

    ASSERT_EQ(qzfi_store_err(&store_, 8, "m", 1), 0u);
    EXPECT_EQ(keys(), Numbers{1});
    EXPECT_EQ(values(1), Numbers{0});
    qzfi_store_err(&store_, 9, "m", 1);
    EXPECT_EQ(last(1), 9);
}

TEST_F(ModuleStore, an_emptied_store_can_be_destroyed) {
    qzfi_store_err(&store_, 5, "m", 1);
    remove(5);
    EXPECT_EQ(fi_del_all_err_lists(), 0u);
    EXPECT_EQ(err_mod_list, nullptr);
}

TEST_F(ModuleStore, values_can_be_stored_and_fetched_while_hl_err_mutex_is_held) {
    qzfi_store_err(&store_, 5, "m", 1);
    qzfi_store_err(&store_, 6, "m", 1);
    EXPECT_EQ(qzfi_remove_err(&store_, 5), 0u);
    EXPECT_EQ(qzfi_store_err(&store_, 7, "m", 1), 0u);
    EXPECT_EQ(last(1), 7);
    pthread_mutex_unlock(&hl_err_mutex);
}

TEST_F(ModuleStore, all_stores_are_destroyed_at_once) {
    qfi_error_store *other = nullptr;
    EXPECT_EQ(fi_del_all_err_lists(), 0u); // of an empty list
    qzfi_store_err(&store_, 5, "a", 1);
    qzfi_store_err(&store_, 6, "a", 1);
    qzfi_store_err(&store_, 6, "a", 2);
    qzfi_store_err(&other, 5, "b", 1);
    EXPECT_EQ(fi_del_all_err_lists(), 0u);
    EXPECT_EQ(err_mod_list, nullptr);
    EXPECT_FALSE(is_locked(hl_err_mutex));
    store_ = nullptr;
    EXPECT_EQ(qzfi_store_err(&store_, 5, "a", 1), 0u); // and a new one can be made
    EXPECT_EQ(last(1), 5);
}

TEST_F(ModuleStore, a_store_that_cannot_be_made_leaves_nothing) {
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        trial.arm();
        const uint32_t status = qzfi_store_err(&store_, 5, "m", 1);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5u : 0u);
        EXPECT_EQ(store_ == nullptr, trial.fired());
        EXPECT_EQ(err_mod_list, store_);
        EXPECT_FALSE(is_locked(hl_err_mutex));
    });
}

TEST_F(ModuleStore, a_value_that_cannot_be_stored_leaves_the_store_as_it_was) {
    qzfi_store_err(&store_, 5, "m", 1);
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        trial.arm();
        const uint32_t status = qzfi_store_err(&store_, 6, "m", 1);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5u : 0u);
        EXPECT_EQ(values(1), trial.fired() ? Numbers{5} : (Numbers{5, 6}));
        EXPECT_FALSE(is_locked(store_->mutex));
    });
}

TEST_F(ModuleStore, a_key_that_cannot_be_stored_leaves_the_store_as_it_was) {
    qzfi_store_err(&store_, 5, "m", 1);
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        trial.arm();
        const uint32_t status = qzfi_store_err(&store_, 6, "m", 2);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5u : 0u);
        EXPECT_EQ(keys(), trial.fired() ? Numbers{1} : (Numbers{1, 2}));
        EXPECT_FALSE(is_locked(store_->mutex));
    });
}

TEST_F(ModuleStore, fetching_and_removing_need_no_memory) {
    qzfi_store_err(&store_, 5, "m", 1);
    {
        fault::Armed armed(fault::Call::allocation, 1, {ENOMEM, true});
        uint64_t value = 0;
        EXPECT_EQ(qzfi_get_last_err(store_, 1, &value), 1u);
        EXPECT_EQ(qzfi_remove_err(&store_, 5), 0u);
        pthread_mutex_unlock(&hl_err_mutex);
        EXPECT_EQ(fi_del_all_err_lists(), 0u);
        EXPECT_FALSE(fault::Armed::fired());
    }
    EXPECT_EQ(err_mod_list, nullptr);
}

} // namespace
