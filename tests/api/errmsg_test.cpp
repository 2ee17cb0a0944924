#include <cstring>

#include "common/qzfitext.h"
#include "frontend_fixture.h"
#include "support/bundles.h"
#include "support/fault.h"

namespace {

const struct {
    uint32_t code;
    const char *text;
} utility_texts[] = {
    {0, "No Error"},
    {1, "Internal error in libfi"},
    {2, "Qfi_start not called or called twice"},
    {3, "Invalid Arguments"},
    {4, "Operation not supported by provider"},
    {5, "Insufficient Memory"},
    {6, "Provider Specific Error"},
    {7, "Provider didn't successfully initalize"},
    {8, "Application version doesn't match API"},
    {9, "Provider version doesn't match API"},
    {11, "System call failed"},
    {12, "Provider incompatible with other installed binaries"},
    {13, "Operation not permitted by specified permissions"},
    {14, "Library not found or improper permissions to open linrary"},
    {15, "Function not found in library"},
    {16, "Hash key is not found in the hash table"},
    {17, "Must unquiesce the stack before detaching the FI tree"},
    {18, "stat failed"},
    {19, "not a plugin object"},
    {20, "no such device"},
    {21, "not a device"},
    {22, "command terminated abnormally"},
    {23, "IO error"},
    {24, "opendir failed"},
    {25, "closedir failed"},
    {26, "open failed"},
    {27, "ioctl failed"},
    {28, "IsValid tree failed"},
};

class StatusText : public Frontend {
protected:
    StatusText() {
        vfcmsg = {nullptr, 0};
        path = use("complete");
    }
    ~StatusText() override { vfcmsg = {nullptr, 0}; }

    static void expect_utility_texts() {
        for (const auto &each : utility_texts) {
            const char *text = nullptr;
            EXPECT_EQ(qzfiapi_errmsg(each.code, &text), 0u) << each.code;
            EXPECT_STREQ(text, each.text);
        }
    }

    std::string path;
    const char *text = "untouched";
};

TEST_F(StatusText, utility_codes_have_their_texts_at_any_time) {
    expect_utility_texts();
    start();
    expect_utility_texts();
    qzfiapi_shutdown();
    expect_utility_texts();
    EXPECT_EQ(journal(), ""); // none of them needs the library
}

TEST_F(StatusText, the_table_pairs_ids_with_texts) {
    EXPECT_EQ(size_uemsgs, 28);
    ASSERT_EQ(std::size(u_emsgs), 29u);
    for (const auto &each : utility_texts) {
        char id[32];
        snprintf(id, sizeof id, "MSG_QFI_UTIL_E%04u", each.code);
        EXPECT_STREQ(u_emsgs[each.code].id, id);
        EXPECT_STREQ(u_emsgs[each.code].text, each.text);
    }
    EXPECT_EQ(u_emsgs[10].text, nullptr);
}

TEST_F(StatusText, code_10_has_no_text) {
    EXPECT_EQ(qzfiapi_errmsg(10, &text), 3u);
    EXPECT_EQ(text, nullptr);
}

TEST_F(StatusText, a_null_result_pointer_is_refused) {
    start();
    EXPECT_EQ(qzfiapi_errmsg(5, nullptr), 3u);
    EXPECT_EQ(qzfiapi_errmsg(1024, nullptr), 3u);
    EXPECT_EQ(journal(), "");
}

TEST_F(StatusText, codes_29_to_1023_have_none) {
    start();
    for (uint32_t code = 29; code < 1024; ++code) {
        EXPECT_EQ(qzfiapi_errmsg(code, &text), 3u) << code;
        EXPECT_EQ(qzfiapi_errmsg(code | QFI_STATUS_LOCALIZED, &text), 3u) << code;
    }
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(journal(), "");
}

TEST_F(StatusText, unmatched_higher_codes_have_none_and_bind_nothing) {
    start();
    for (const uint32_t code : {2048u, 5000u, 0x3fffffffu, 0x80000000u, 0x80000005u, 0x80000400u, 0xbfffffffu, ~0u})
        EXPECT_EQ(qzfiapi_errmsg(code, &text), 3u) << code;
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(journal(), "");
}

TEST_F(StatusText, codes_1024_to_2047_come_from_the_library_with_the_full_status) {
    start();
    for (const uint32_t status : {1024u, 1500u, 2047u, 1024u | QFI_STATUS_LOCALIZED, 2047u | QFI_STATUS_LOCALIZED}) {
        text = nullptr;
        EXPECT_EQ(qzfiapi_errmsg(status, &text), 0u);
        EXPECT_STREQ(text, "text of the API library");
        EXPECT_EQ(api_at(path).last.slot, 2);
        EXPECT_EQ(api_at(path).last.values[0], status);
    }
    EXPECT_EQ(journal(), "load\nstart\n");
}

TEST_F(StatusText, the_librarys_own_result_is_returned_as_it_stands) {
    start();
    ASSERT_EQ(qzfi_enter(&fimod), 0);
    api_at(path).status = -1;
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), UINT32_MAX);
    api_at(path).status = 9;
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), 9u);
}

TEST_F(StatusText, a_failed_binding_is_returned_at_once) {
    use("failing_start");
    start();
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), 2u);
    EXPECT_STREQ(text, "untouched");
}

TEST_F(StatusText, the_librarys_codes_give_2_before_start_and_after_shutdown) {
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), 2u);
    start();
    EXPECT_EQ(qzfiapi_errmsg(1024, &text), 0u);
    qzfiapi_shutdown();
    text = "untouched";
    EXPECT_EQ(qzfiapi_errmsg(2047 | QFI_STATUS_LOCALIZED, &text), 2u);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(journal(), "load\nstart\nshutdown\nunload\n"); // neither refused call attempted anything
}

class LocalizedStatusText : public StatusText {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
        bundles::install({
            {"root", {{"MSG_QFI_UTIL_E0005", "Memory"}, {"MSG_QFI_UTIL_E0006", "Memory"}}},
            {"ja",
             {{"MSG_QFI_UTIL_E0000", ""},
              {"MSG_QFI_UTIL_E0005", "メモリー不足 {0} %s %n {"},
              {"MSG_QFI_UTIL_E0060", "%2$s が読めません (%1$s):\n%3$s\n"}}},
        });
        qzfi_setlang(1);
    }

    static std::string localized(uint32_t code) {
        const char *result = nullptr;
        EXPECT_EQ(qzfiapi_errmsg(code | QFI_STATUS_LOCALIZED, &result), 0u) << code;
        return result != nullptr ? result : "(null)";
    }
};

TEST_F(LocalizedStatusText, a_localized_text_is_the_catalogs_own_in_the_current_language) {
    EXPECT_EQ(localized(5), "fi: Memory");
    qzfi_setlang(2);
    EXPECT_EQ(localized(5), "fi: メモリー不足 {0} %s %n {"); // as it stands: nothing is formatted
    EXPECT_EQ(localized(6), "fi: Memory");                   // of the root, as "ja" has none
    EXPECT_EQ(localized(0), "fi: ");
    qzfi_setlang(3);
    EXPECT_EQ(localized(5), "fi: Memory"); // there is no bundle of "zh"
    qzfi_setlang(0);
    EXPECT_EQ(localized(5), "fi: Memory"); // no language
}

TEST_F(LocalizedStatusText, a_code_without_a_catalog_text_gives_its_id_in_brackets) {
    EXPECT_EQ(localized(7), "fi: <MSG_QFI_UTIL_E0007>");
    EXPECT_EQ(localized(10), "fi: <MSG_QFI_UTIL_E0010>");
    EXPECT_EQ(localized(28), "fi: <MSG_QFI_UTIL_E0028>");
}

TEST_F(LocalizedStatusText, it_does_not_depend_on_the_variable_that_switches_messages_on) {
    setenv("ICU_DATA", "", 1);
    EXPECT_EQ(localized(5), "fi: Memory");
    unsetenv("ICU_DATA");
    EXPECT_EQ(localized(5), "fi: Memory");
}

TEST_F(LocalizedStatusText, a_localized_text_stays_valid_whatever_is_asked_later) {
    const char *first = nullptr;
    ASSERT_EQ(qzfiapi_errmsg(5 | QFI_STATUS_LOCALIZED, &first), 0u);
    qzfi_setlang(2);
    ASSERT_EQ(qzfiapi_errmsg(5 | QFI_STATUS_LOCALIZED, &text), 0u);
    start();
    qzfiapi_shutdown();
    EXPECT_STREQ(first, "fi: Memory");
    EXPECT_STREQ(text, "fi: メモリー不足 {0} %s %n {");
    ASSERT_EQ(qzfiapi_errmsg(6 | QFI_STATUS_LOCALIZED, &text), 0u);
    EXPECT_EQ(text, first); // kept once, so that asking again and again does not grow
}

TEST_F(LocalizedStatusText, without_memory_for_a_localized_text_gives_3) {
    for (const fault::Call call : {fault::Call::allocation, fault::Call::construction}) {
        // A text that was not kept yet, of a catalog that was not opened.
        const std::string message =
            std::string("short of memory for this long text ") + (call == fault::Call::allocation ? "once" : "twice");
        const std::string locale = bundles::unused_locale();
        bundles::install({{locale, {{"MSG_QFI_UTIL_E0005", message}}}});
        qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, locale.c_str());
        fault::for_each(call, [&](fault::Trial &trial) {
            trial.arm();
            const uint32_t status = qzfiapi_errmsg(5 | QFI_STATUS_LOCALIZED, &text);
            trial.disarm();
            EXPECT_EQ(status, trial.fired() ? 3u : 0u);
            EXPECT_STREQ(text, trial.fired() ? nullptr : ("fi: " + message).c_str());
        });
    }
}

TEST_F(LocalizedStatusText, localized_texts_may_be_asked_by_many_threads) {
    std::atomic<int> good{0};
    in_threads(8, [&](int) {
        for (uint32_t repeat = 0; repeat < 100; ++repeat) {
            const char *mine = nullptr;
            good += qzfiapi_errmsg((5 + repeat % 2) | QFI_STATUS_LOCALIZED, &mine) == 0 &&
                    std::strcmp(mine, "fi: Memory") == 0;
        }
    });
    EXPECT_EQ(good, 800);
}

TEST_F(LocalizedStatusText, a_failure_is_reported_in_english_and_in_the_current_language) {
    setenv("QFI_API_LIB", "/nonexistent/libfi.so", 1);
    setenv("ICU_DATA", "", 1);
    start();
    qzfi_setlang(2);
    EXPECT_NE(qzfiapi_errmsg(1024, &text), 0u);
    const std::string reason = "/nonexistent/libfi.so: cannot open shared object file: No such file or directory\n";
    EXPECT_EQ(recorder.reports,
              (std::vector<Report>{{"modstart: /nonexistent/libfi.so not loaded:\n" + reason,
                                    "fi: /nonexistent/libfi.so が読めません (modstart):\n" + reason, 3}}));
}

TEST_F(LocalizedStatusText, a_localized_text_goes_before_a_cached_one) {
    char cached[] = "cached";
    char *texts[] = {cached, cached, cached, cached, cached, cached};
    vfcmsg = {texts, 6};
    EXPECT_STREQ(qzfi_getlocmsg(5, 0, u_emsgs, &vfcmsg), "cached");
    EXPECT_STREQ(qzfi_getlocmsg(5, 1, u_emsgs, &vfcmsg), "fi: Memory");
}

TEST_F(StatusText, cached_texts_go_before_the_english_ones) {
    char zero[] = "cached 0";
    char two[] = "cached 2";
    char *texts[] = {zero, nullptr, two};
    vfcmsg = {texts, 3};
    EXPECT_STREQ(qzfi_getlocmsg(0, 0, u_emsgs, &vfcmsg), "cached 0");
    EXPECT_STREQ(qzfi_getlocmsg(1, 0, u_emsgs, &vfcmsg), "Internal error in libfi");
    EXPECT_STREQ(qzfi_getlocmsg(2, 0, u_emsgs, &vfcmsg), "cached 2");
    EXPECT_EQ(qzfi_getlocmsg(3, 0, u_emsgs, &vfcmsg), nullptr);
    EXPECT_EQ(qzfi_getlocmsg(-1, 0, u_emsgs, &vfcmsg), nullptr);
    EXPECT_EQ(qzfiapi_errmsg(3, &text), 3u);
}

TEST_F(StatusText, there_is_no_row_beyond_the_table) {
    for (const int32_t code : {29, 1024, INT32_MAX, -1, INT32_MIN})
        EXPECT_EQ(qzfi_getlocmsg(code, 0, u_emsgs, &vfcmsg), nullptr) << code;
}

TEST_F(StatusText, another_table_may_have_more_rows) {
    qzfi_emsg table[31] = {};
    table[30] = {"MSG", "row 30"};
    EXPECT_STREQ(qzfi_getlocmsg(30, 0, table, &vfcmsg), "row 30");
}

TEST_F(StatusText, the_cache_starts_empty) {
    EXPECT_EQ(vfcmsg.count, 0);
    EXPECT_EQ(vfcmsg.texts, nullptr);
}

} // namespace
