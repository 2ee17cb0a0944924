#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "support/fault.h"
#include "util/qzfiutil_settings.h"

namespace {

std::string text_of(const char *text) {
    return text != nullptr ? text : "(null)";
}

class Settings : public testing::Test {
protected:
    Settings() {
        qzfiapi_set_init_env("/old/root", "old consumer");
        qzfi_set_credential_blob("old secret");
    }
    ~Settings() override {
        qzfiapi_set_init_env(nullptr, nullptr);
        qzfi_free_credential_blob();
        qzfi_setlang(0);
    }

    static void expect(const char *root, const char *consumer) {
        EXPECT_EQ(text_of(qzfi_install_root), root);
        EXPECT_EQ(text_of(qzfi_consumer), consumer);
    }

    static std::string credential() {
        char *copy = nullptr;
        EXPECT_EQ(qzfi_get_credential_blob(&copy), 0);
        std::string text = text_of(copy);
        free(copy);
        return text;
    }

    static int lock_count() {
        int count = -1;
        sem_getvalue(&sema1, &count);
        return count;
    }
};

TEST_F(Settings, init_env_replaces_both) {
    EXPECT_EQ(qzfiapi_set_init_env("/new", "name"), 0);
    expect("/new", "name");
}

TEST_F(Settings, init_env_clears_what_is_null) {
    EXPECT_EQ(qzfiapi_set_init_env(nullptr, "name"), 0);
    expect("(null)", "name");
    EXPECT_EQ(qzfiapi_set_init_env("/new", nullptr), 0);
    expect("/new", "(null)");
    EXPECT_EQ(qzfiapi_set_init_env(nullptr, nullptr), 0);
    expect("(null)", "(null)");
}

TEST_F(Settings, init_env_util_leaves_what_is_null) {
    EXPECT_EQ(qzfi_set_init_env_util(nullptr, nullptr), 0);
    expect("/old/root", "old consumer");
    EXPECT_EQ(qzfi_set_init_env_util("/new", nullptr), 0);
    expect("/new", "old consumer");
    EXPECT_EQ(qzfi_set_init_env_util(nullptr, "name"), 0);
    expect("/new", "name");
    EXPECT_EQ(qzfi_set_init_env_util("/newer", "other"), 0);
    expect("/newer", "other");
}

TEST_F(Settings, without_memory_init_env_gives_5_and_the_old_values_are_gone_up_to_the_failure) {
    for (const auto set : {qzfiapi_set_init_env, qzfi_set_init_env_util}) {
        fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
            ASSERT_EQ(qzfiapi_set_init_env("/old/root", "old consumer"), 0);
            trial.arm();
            const int32_t status = set("/new", "name");
            trial.disarm();
            EXPECT_EQ(status, trial.fired() ? 5 : 0);
            if (!trial.fired())
                expect("/new", "name");
            else if (trial.nth() == 1)
                expect("(null)", "old consumer");
            else
                expect("/new", "(null)");
        });
    }
}

TEST_F(Settings, install_root_is_replaced_and_kept_for_null) {
    EXPECT_EQ(qzfi_set_install_root("/new"), 0);
    expect("/new", "old consumer");
    EXPECT_EQ(qzfi_set_install_root(nullptr), 3);
    expect("/new", "old consumer");
    EXPECT_EQ(qzfi_set_install_root(""), 0);
    expect("", "old consumer");
}

TEST_F(Settings, consumer_is_replaced_and_forgotten_for_null) {
    EXPECT_EQ(qzfi_set_consumer("name"), 0);
    expect("/old/root", "name");
    EXPECT_EQ(qzfi_set_consumer(nullptr), 3);
    expect("/old/root", "(null)");
    EXPECT_EQ(qzfi_set_consumer(nullptr), 3);
}

TEST_F(Settings, a_setting_may_be_set_to_itself) {
    EXPECT_EQ(qzfi_set_install_root(qzfi_install_root), 0);
    EXPECT_EQ(qzfi_set_consumer(qzfi_consumer), 0);
    EXPECT_EQ(qzfi_set_credential_blob(credential_blob), 0);
    expect("/old/root", "old consumer");
    EXPECT_EQ(credential(), "old secret");
}

TEST_F(Settings, without_memory_a_setter_gives_5_and_its_setting_is_null) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        ASSERT_EQ(qzfiapi_set_init_env("/old/root", "old consumer"), 0);
        trial.arm();
        const int32_t status = qzfi_set_install_root("/new");
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5 : 0);
        expect(trial.fired() ? "(null)" : "/new", "old consumer");
    });
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        ASSERT_EQ(qzfiapi_set_init_env("/old/root", "old consumer"), 0);
        trial.arm();
        const int32_t status = qzfi_set_consumer("name");
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5 : 0);
        expect("/old/root", trial.fired() ? "(null)" : "name");
    });
}

TEST_F(Settings, a_getter_gives_a_copy_of_its_own) {
    char *copy = nullptr;
    ASSERT_EQ(qzfi_get_install_root(&copy), 0);
    EXPECT_STREQ(copy, "/old/root");
    EXPECT_NE(copy, qzfi_install_root);
    free(copy);
    ASSERT_EQ(qzfi_get_consumer_name(&copy), 0);
    EXPECT_STREQ(copy, "old consumer");
    EXPECT_NE(copy, qzfi_consumer);
    free(copy);
}

TEST_F(Settings, a_getter_of_an_unset_setting_gives_null) {
    qzfiapi_set_init_env(nullptr, nullptr);
    char untouched = 0;
    for (const auto get : {qzfi_get_install_root, qzfi_get_consumer_name}) {
        char *copy = &untouched;
        EXPECT_EQ(get(&copy), 0);
        EXPECT_EQ(copy, nullptr);
    }
}

TEST_F(Settings, a_getter_refuses_null) {
    EXPECT_EQ(qzfi_get_install_root(nullptr), 3);
    EXPECT_EQ(qzfi_get_consumer_name(nullptr), 3);
    expect("/old/root", "old consumer");
}

TEST_F(Settings, without_memory_a_getter_gives_5_and_null) {
    for (const auto get : {qzfi_get_install_root, qzfi_get_consumer_name}) {
        fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
            char untouched = 0;
            char *copy = &untouched;
            trial.arm();
            const int32_t status = get(&copy);
            trial.disarm();
            EXPECT_EQ(status, trial.fired() ? 5 : 0);
            EXPECT_EQ(copy == nullptr, trial.fired());
            free(copy);
            expect("/old/root", "old consumer");
        });
    }
}

TEST_F(Settings, the_default_root_and_the_languages_stand_as_published) {
    EXPECT_STREQ(default_root, "/usr/lumen");
    EXPECT_EQ(qzfi_langtbl[0], nullptr);
    EXPECT_STREQ(qzfi_langtbl[1], "root");
    EXPECT_STREQ(qzfi_langtbl[2], "ja");
    EXPECT_STREQ(qzfi_langtbl[3], "zh");
}

TEST_F(Settings, setlang_takes_1_to_3_and_any_other_index_unsets) {
    const struct {
        int32_t index;
        const char *language;
    } cases[] = {{1, "root"}, {0, ""}, {2, "ja"}, {4, ""}, {3, "zh"}, {-1, ""}, {1, "root"}, {INT32_MAX, ""}};
    for (const auto &each : cases) {
        EXPECT_EQ(qzfi_setlang(each.index), 0);
        EXPECT_STREQ(qzfi_lang, each.language) << each.index;
    }
}

class Credential : public Settings {};

TEST_F(Credential, is_replaced_copied_and_forgotten) {
    EXPECT_EQ(credential(), "old secret");
    EXPECT_EQ(qzfi_set_credential_blob("new secret"), 0);
    EXPECT_EQ(credential(), "new secret");
    EXPECT_EQ(qzfi_free_credential_blob(), 0);
    EXPECT_EQ(credential(), "(null)");
    EXPECT_EQ(qzfi_free_credential_blob(), 0);
    EXPECT_EQ(lock_count(), 1);
}

TEST_F(Credential, refuses_null) {
    EXPECT_EQ(qzfi_set_credential_blob(nullptr), 3);
    EXPECT_EQ(qzfi_get_credential_blob(nullptr), 3);
    EXPECT_EQ(credential(), "old secret");
    EXPECT_EQ(lock_count(), 1);
}

TEST_F(Credential, without_memory_set_gives_5_with_the_lock_held_and_the_old_text_kept) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        ASSERT_EQ(qzfi_set_credential_blob("old secret"), 0);
        trial.arm();
        const int32_t status = qzfi_set_credential_blob("new secret");
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5 : 0);
        EXPECT_EQ(lock_count(), trial.fired() ? 0 : 1);
        EXPECT_STREQ(credential_blob, trial.fired() ? "old secret" : "new secret");
        if (trial.fired())
            sem_post(&sema1);
    });
}

TEST_F(Credential, without_memory_get_gives_null_with_status_0) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        char *copy = nullptr;
        trial.arm();
        EXPECT_EQ(qzfi_get_credential_blob(&copy), 0);
        trial.disarm();
        EXPECT_EQ(copy == nullptr, trial.fired());
        EXPECT_EQ(lock_count(), 1);
        free(copy);
    });
}

TEST_F(Credential, may_be_used_by_many_threads) {
    std::vector<std::thread> threads;
    for (int index = 0; index < 6; ++index)
        threads.emplace_back([index] {
            for (int repeat = 0; repeat < 200; ++repeat) {
                if (index % 3 == 0) {
                    EXPECT_EQ(qzfi_set_credential_blob("one secret"), 0);
                }
                if (index % 3 == 1) {
                    EXPECT_EQ(qzfi_free_credential_blob(), 0);
                }
                const std::string seen = credential();
                EXPECT_TRUE(seen == "one secret" || seen == "old secret" || seen == "(null)") << seen;
            }
        });
    for (std::thread &each : threads)
        each.join();
    EXPECT_EQ(lock_count(), 1);
}

} // namespace
