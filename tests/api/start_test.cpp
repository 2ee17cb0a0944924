#include "frontend_fixture.h"
#include "support/fault.h"

namespace {

namespace fs = std::filesystem;

constexpr char too_new_format[] = "%s: Application version %s newer than API version %s\n";

class Start : public Frontend {
protected:
    int32_t start_with_tag(const char *tag) {
        request = {tag, nullptr};
        recorder.locale = &request;
        return qzfiapi_start(&recorder, QFI_API_VERSION);
    }

    /// Starts with a tag in a process whose language is unset, and gives what went to standard error.
    std::string warning_for(const char *tag) {
        qzfi_setlang(0);
        testing::internal::CaptureStderr();
        EXPECT_EQ(start_with_tag(tag), 0);
        std::string output = testing::internal::GetCapturedStderr();
        EXPECT_STREQ(qzfi_lang, "root");
        qzfiapi_shutdown();
        return output;
    }

    static int credential_lock_count() {
        int count = -1;
        sem_getvalue(&sema1, &count);
        return count;
    }

    static void expect_stopped() {
        EXPECT_EQ(qzfi_started, 0);
        EXPECT_EQ(qzfi_root, nullptr);
        EXPECT_EQ(ehandler, nullptr);
        EXPECT_EQ(util_ehandler, nullptr);
    }

    qfi_locale_request request = {nullptr, nullptr};
};

TEST_F(Start, fixes_root_handler_and_entries) {
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_API_VERSION), 0);
    EXPECT_EQ(qzfi_started, 1);
    EXPECT_EQ(qzfi_root, scratch);
    EXPECT_NE(qzfi_root, qzfi_install_root);
    EXPECT_EQ(ehandler, &recorder);
    EXPECT_EQ(util_ehandler, &recorder);
    EXPECT_EQ(fimod.entries, fiapi);
    EXPECT_EQ(fimod.state, 0);
}

TEST_F(Start, without_a_root_uses_the_default_one) {
    qzfiapi_set_init_env(nullptr, nullptr);
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    EXPECT_STREQ(qzfi_root, "/usr/lumen");
    EXPECT_STREQ(default_root, "/usr/lumen");
    EXPECT_NE(qzfi_root, default_root);
    EXPECT_EQ(qzfi_install_root, nullptr);
}

TEST_F(Start, while_started_gives_2_and_changes_nothing) {
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_API_VERSION), 0);
    set_root("/elsewhere");
    Recorder other;
    request = {"en", &request};
    other.locale = &request;
    EXPECT_EQ(qzfiapi_start(&other, QFI_VERSION(9, 0, 0, 0)), 2);
    EXPECT_EQ(qzfi_root, scratch);
    EXPECT_STREQ(qzfi_lang, "");
    EXPECT_EQ(ehandler, &recorder);
    EXPECT_EQ(util_ehandler, &recorder);
    EXPECT_TRUE(raised().empty());
    EXPECT_EQ(qzfi_started, 1);
}

TEST_F(Start, refuses_a_locale_request_with_a_reserved_member_before_anything_else) {
    request = {"ja", &request};
    recorder.locale = &request;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qzfiapi_start(&recorder, QFI_VERSION(9, 0, 0, 0)), 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_STREQ(qzfi_lang, "");
    EXPECT_TRUE(raised().empty());
    expect_stopped();
}

TEST_F(Start, without_memory_gives_5_and_changes_nothing) {
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        qzfi_setlang(0);
        request = {"ja", nullptr};
        recorder.locale = &request;
        testing::internal::CaptureStderr();
        trial.arm();
        const int32_t status = qzfiapi_start(&recorder, QFI_API_VERSION);
        trial.disarm();
        const std::string output = testing::internal::GetCapturedStderr();
        EXPECT_EQ(status, trial.fired() ? 5 : 0);
        if (trial.fired()) {
            EXPECT_EQ(output, "");
            EXPECT_STREQ(qzfi_lang, "");
            EXPECT_EQ(qzfi_install_root, scratch);
            expect_stopped();
        }
        qzfiapi_shutdown();
    });
}

TEST_F(Start, without_memory_for_the_default_root_gives_5) {
    qzfiapi_set_init_env(nullptr, nullptr);
    fault::for_each(fault::Call::allocation, [&](fault::Trial &trial) {
        trial.arm();
        const int32_t status = qzfiapi_start(nullptr, QFI_API_VERSION);
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 5 : 0);
        if (trial.fired())
            expect_stopped();
        qzfiapi_shutdown();
    });
}

TEST_F(Start, accepts_versions_up_to_its_own_and_remembers_them) {
    const struct {
        uint64_t version;
        int16_t numbers[4];
    } accepted[] = {
        {QFI_VERSION(7, 0, 0, 0), {7, 0, 0, 0}},
        {QFI_VERSION(6, 9, 0, 0), {6, 9, 0, 0}},
        {QFI_VERSION(-1, 0, 0, 0), {-1, 0, 0, 0}},
        {QFI_VERSION(6, 32767, 32767, 32767), {6, 32767, 32767, 32767}},
        {QFI_VERSION(7, -1, 5, 5), {7, -1, 5, 5}},
        {QFI_VERSION(7, 0, 0, -32768), {7, 0, 0, -32768}},
        {0, {0, 0, 0, 0}},
    };
    for (const auto &each : accepted) {
        EXPECT_EQ(qzfiapi_start(nullptr, each.version), 0);
        EXPECT_EQ(std::vector<int16_t>(app_version, app_version + 4),
                  std::vector<int16_t>(each.numbers, each.numbers + 4));
        qzfiapi_shutdown();
    }
}

TEST_F(Start, refuses_newer_versions_with_8_and_a_readable_record) {
    setenv("ICU_DATA", "", 1);
    const struct {
        uint64_t version;
        const char *text;
    } refused[] = {
        {QFI_VERSION(7, 0, 0, 1), "7.0.0.1"},
        {QFI_VERSION(8, 0, 0, 0), "8.0.0.0"},
        {QFI_VERSION(7, 0, 1, -5), "7.0.1.-5"},
        {QFI_VERSION(7, 1, 0, 0), "7.1.0.0"},
        {QFI_VERSION(32767, -32768, -32768, -32768), "32767.-32768.-32768.-32768"},
    };
    app_version[0] = 42;
    for (const auto &each : refused) {
        recorder.reports.clear();
        fi_del_all_errors();
        EXPECT_EQ(qzfiapi_start(&recorder, each.version), 8);
        EXPECT_EQ(recorder.reports,
                  (std::vector<Report>{{std::string("compare_with_lib_version: Application version ") + each.text +
                                            " newer than API version 7.0.0.0\n",
                                        "(null)", 3}}));
        EXPECT_EQ(raised(),
                  (std::vector<Raised>{{"MSG_QFI_E0326", {too_new_format, "compare_with_lib_version", each.text}}}));
        EXPECT_EQ(app_version[0], 42);
        expect_stopped();
    }
}

TEST_F(Start, a_refused_version_clears_the_language_and_keeps_the_settings) {
    ASSERT_EQ(qzfi_set_consumer("consumer"), 0);
    ASSERT_EQ(qzfi_set_credential_blob("secret"), 0);
    request = {"en", nullptr};
    recorder.locale = &request;
    EXPECT_EQ(qzfiapi_start(&recorder, QFI_VERSION(8, 0, 0, 0)), 8);
    EXPECT_STREQ(qzfi_lang, "");
    EXPECT_EQ(qzfi_install_root, scratch);
    EXPECT_STREQ(qzfi_consumer, "consumer");
    EXPECT_STREQ(credential_blob, "secret");
    EXPECT_EQ(qzfiapi_start(&recorder, QFI_API_VERSION), 0);
}

TEST_F(Start, a_plugin_version_is_checked_but_not_remembered) {
    setenv("ICU_DATA", "", 1);
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_VERSION(6, 5, 4, 3)), 0);
    EXPECT_EQ(compare_with_lib_version(QFI_VERSION(5, 0, 0, 0), 2), 0);
    EXPECT_EQ(app_version[0], 6);
    EXPECT_TRUE(recorder.reports.empty());
    EXPECT_EQ(compare_with_lib_version(QFI_VERSION(7, 0, 0, 1), 0), 1);
    EXPECT_EQ(recorder.reports, (std::vector<Report>{{"compare_with_lib_version: Plugin version 7.0.0.1 newer than API "
                                                      "version 7.0.0.0\n",
                                                      "(null)", 2}}));
    EXPECT_EQ(raised(), (std::vector<Raised>{{"MSG_QFI_E0328",
                                              {"%s: Plugin version %s newer than API version %s\n",
                                               "compare_with_lib_version", "7.0.0.1"}}}));
    EXPECT_EQ(app_version[0], 6);
}

TEST_F(Start, unsupported_locales_are_refused_aloud) {
    EXPECT_EQ(warning_for("ja_JP"), "Locale [ja_JP] is not supported, setting to default.\n");
    EXPECT_EQ(warning_for("ja"), "Locale [ja] is not supported, setting to default.\n");
    EXPECT_EQ(warning_for("chinese"), "Locale [chinese] is not supported, setting to default.\n");
    EXPECT_EQ(warning_for("zh_CN"), "Locale [zh_CN] is not supported, setting to default.\n");
}

TEST_F(Start, other_locales_are_silent) {
    for (const char *tag : {"C", "en", "en_US", "fr", "Ca", "c", "", "j", "JA"})
        EXPECT_EQ(warning_for(tag), "") << tag;
    EXPECT_EQ(warning_for(nullptr), "");
}

TEST_F(Start, a_language_already_set_is_kept_silently) {
    qzfi_setlang(3);
    testing::internal::CaptureStderr();
    ASSERT_EQ(start_with_tag("ja_JP"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_STREQ(qzfi_lang, "zh");
}

TEST_F(Start, without_a_locale_request_the_language_stays_unset) {
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_API_VERSION), 0);
    EXPECT_STREQ(qzfi_lang, "");
    qzfiapi_shutdown();
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    EXPECT_STREQ(qzfi_lang, "");
}

TEST_F(Start, opens_the_log_below_the_root_and_takes_its_trace_level) {
    fs::create_directories(scratch / "lib");
    fs::create_directories(scratch / "arcvault/logs/fisagent");
    std::ofstream(scratch / "lib/.qzms.rc") << "debug_level=INFO|TRC_TOP\n";
    unsetenv("TMPDIR");
    ASSERT_EQ(qzfiapi_start(&recorder, QFI_API_VERSION), 0);
    EXPECT_EQ(get_qzfi_debuglevel(), 0x500u);
    EXPECT_NE(get_qzfi_msgout(), nullptr);
    EXPECT_FALSE(fs::is_empty(scratch / "arcvault/logs/fisagent"));
}

TEST_F(Start, succeeds_even_when_the_log_cannot_be_opened) {
    fs::create_directories(scratch / "lib");
    fs::create_directories(scratch / "arcvault/logs/fisagent");
    std::ofstream(scratch / "lib/.qzms.rc") << "debug_level=INFO\n";
    for (const fault::Call failing : {fault::Call::allocation, fault::Call::tempnam, fault::Call::open}) {
        fault::for_each(failing, [&](fault::Trial &trial) {
            trial.arm();
            const int32_t status = qzfiapi_start(&recorder, QFI_API_VERSION);
            trial.disarm();
            const bool is_without_root = failing == fault::Call::allocation && trial.fired() && trial.nth() == 1;
            EXPECT_EQ(status, is_without_root ? 5 : 0);
            EXPECT_EQ(qzfi_started, is_without_root ? 0 : 1);
            qzfiapi_shutdown();
        });
    }
}

TEST_F(Start, a_root_set_while_started_counts_from_the_next_start) {
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    set_root("/elsewhere");
    EXPECT_EQ(qzfi_root, scratch);
    qzfiapi_shutdown();
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    EXPECT_STREQ(qzfi_root, "/elsewhere");
}

TEST_F(Start, frees_a_credential_lock_that_was_left_held) {
    {
        const fault::Armed armed(fault::Call::allocation, 1);
        ASSERT_EQ(qzfi_set_credential_blob("lost"), 5);
    }
    ASSERT_EQ(credential_lock_count(), 0);
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    EXPECT_EQ(credential_lock_count(), 1);
}

TEST_F(Start, lets_a_caller_go_on_that_the_credential_lock_left_blocked) {
    ASSERT_EQ(qzfi_set_credential_blob("kept"), 0);
    {
        const fault::Armed armed(fault::Call::allocation, 1);
        ASSERT_EQ(qzfi_set_credential_blob("lost"), 5);
    }
    std::string given;
    std::thread blocked([&] {
        char *copy = nullptr;
        qzfi_get_credential_blob(&copy);
        given = copy;
        free(copy);
    });
    ASSERT_EQ(qzfiapi_start(nullptr, QFI_API_VERSION), 0);
    blocked.join();
    EXPECT_EQ(given, "kept");
    EXPECT_EQ(credential_lock_count(), 1);
}

TEST_F(Start, the_locks_work_at_any_time) {
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(credential_lock_count(), 1);
        EXPECT_EQ(pthread_mutex_trylock(&ssod_mutex), 0);
        EXPECT_EQ(pthread_mutex_unlock(&ssod_mutex), 0);
        EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
        EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
        EXPECT_EQ(pthread_cond_broadcast(&cv), 0);
        start();
        EXPECT_EQ(credential_lock_count(), 1);
        qzfiapi_shutdown();
    }
}

class Shutdown : public Start {};

TEST_F(Shutdown, without_start_does_nothing) {
    qzfi_setlang(2);
    EXPECT_EQ(qzfiapi_shutdown(), 0);
    EXPECT_STREQ(qzfi_lang, "ja");
}

TEST_F(Shutdown, undoes_start_and_keeps_the_settings) {
    ASSERT_EQ(qzfi_set_consumer("consumer"), 0);
    ASSERT_EQ(qzfi_set_credential_blob("secret"), 0);
    ASSERT_EQ(start_with_tag("en"), 0);
    EXPECT_EQ(qzfiapi_shutdown(), 0);
    EXPECT_STREQ(qzfi_lang, "");
    expect_stopped();
    EXPECT_EQ(qzfi_install_root, scratch);
    EXPECT_STREQ(qzfi_consumer, "consumer");
    EXPECT_STREQ(credential_blob, "secret");
    EXPECT_EQ(qzfiapi_shutdown(), 0);
}

TEST_F(Shutdown, frees_a_credential_lock_that_was_left_held) {
    start();
    {
        const fault::Armed armed(fault::Call::allocation, 1);
        ASSERT_EQ(qzfi_set_credential_blob("lost"), 5);
    }
    ASSERT_EQ(credential_lock_count(), 0);
    qzfiapi_shutdown();
    EXPECT_EQ(credential_lock_count(), 1);
}

TEST_F(Shutdown, leaves_error_records_readable) {
    start();
    ASSERT_EQ(call(), 2);
    qzfiapi_shutdown();
    ASSERT_EQ(raised().size(), 1u);
    EXPECT_EQ(raised()[0].id, "MSG_QFI_UTIL_E0060");
}

TEST_F(Shutdown, nothing_is_reported_to_a_handler_that_was_given_up) {
    setenv("ICU_DATA", "", 1);
    start();
    qzfiapi_shutdown();
    qzfi_tracelog(3, "to nobody");
    EXPECT_EQ(compare_with_lib_version(QFI_VERSION(8, 0, 0, 0), 1), 1);
    EXPECT_TRUE(recorder.reports.empty());
}

TEST_F(Shutdown, and_start_may_repeat) {
    for (int repeat = 0; repeat < 1000; ++repeat) {
        ASSERT_EQ(start_with_tag("en"), 0);
        ASSERT_EQ(qzfiapi_shutdown(), 0);
    }
    EXPECT_EQ(credential_lock_count(), 1);
}

TEST_F(Start, the_utility_layer_is_prepared_and_undone_on_its_own) {
    EXPECT_EQ(qzfi_uinit0(&recorder), 0);
    EXPECT_EQ(util_ehandler, &recorder);
    EXPECT_EQ(qzfi_uinit0(nullptr), 0);
    EXPECT_EQ(util_ehandler, nullptr);
    EXPECT_EQ(qzfi_uinit0(&recorder), 0);
    EXPECT_EQ(qzfi_ufini(), 0);
    EXPECT_EQ(util_ehandler, nullptr);
}

} // namespace
