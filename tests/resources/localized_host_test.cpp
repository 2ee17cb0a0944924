// A host of the shared library with the build's own bundles and catalogs installed, in a private "/usr/lumen".
#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi_fi.h>

#include "support/private_root.h"
#include "support/report.h"

namespace {

enum Language { root = 1, ja, zh };

class LocalizedHost : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
        std::filesystem::copy(QZFI_RESOURCES, private_root::make_directories("resources"),
                              std::filesystem::copy_options::recursive);
        ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
        setenv("ICU_DATA", "/usr/lumen/resources", 1);
        setenv("QFI_API_LIB", "/nonexistent/libfi.so", 1);
        ASSERT_EQ(qzfiapi_start(&host, QFI_API_VERSION), QFI_STATUS_OK);
    }

    void TearDown() override {
        qzfiapi_shutdown();
        fi_del_all_errors();
    }

    static std::string status_text(uint32_t status) {
        const char *text = nullptr;
        EXPECT_EQ(qzfiapi_errmsg(status, &text), uint32_t{QFI_STATUS_OK});
        return text != nullptr ? text : "(null)";
    }

    static void fail_to_load_the_api_library() {
        qfi_domain *tree = nullptr;
        EXPECT_EQ(qzfiapi_gentree(nullptr, 1, nullptr, &tree), QFI_STATUS_NOT_STARTED);
    }

    static void fail_to_open_the_plugin_directory() {
        qfi_plugin *list = nullptr;
        EXPECT_EQ(qzfi_newpgn("providers/", "QZFI_NO_SUCH_VARIABLE", "lib", &list, nullptr, 0, "/nonexistent"),
                  nullptr);
    }

    std::vector<Report> reports;

private:
    struct Handler : qfi_handler {
        LocalizedHost *test;
    };

    static void take(qfi_handler *self, const char *text, const char *localized, uint32_t severity) {
        static_cast<Handler *>(self)->test->reports.push_back(report_of(text, localized, severity));
    }

    qfi_locale_request language = {"en_US", nullptr};
    Handler host{{take, nullptr, nullptr, &language}, this};
};

const std::string not_loaded = "modstart: /nonexistent/libfi.so not loaded:\n"
                               "/nonexistent/libfi.so: cannot open shared object file: No such file or directory\n";
const std::string not_opened = "qzfi_pgndir: opendir on /nonexistent/providers/ failed errno 2\n";

TEST_F(LocalizedHost, a_host_that_asks_for_a_language_gets_the_root_bundles_text_beside_the_english_one) {
    fail_to_load_the_api_library();
    fail_to_open_the_plugin_directory();
    EXPECT_EQ(reports,
              (std::vector<Report>{{not_loaded, "fi: " + not_loaded, 3}, {not_opened, "fi: " + not_opened, 3}}));
}

TEST_F(LocalizedHost, a_failure_is_reported_in_the_language_that_was_set) {
    qzfi_setlang(ja);
    fail_to_load_the_api_library();
    fail_to_open_the_plugin_directory();
    qzfi_setlang(zh);
    fail_to_load_the_api_library();
    fail_to_open_the_plugin_directory();
    const std::string reason = "/nonexistent/libfi.so: cannot open shared object file: No such file or directory\n";
    EXPECT_EQ(reports,
              (std::vector<Report>{
                  {not_loaded, "fi: modstart: /nonexistent/libfi.so がロードされていません:\n" + reason, 3},
                  {not_opened, "fi: qzfi_pgndir: /nonexistent/providers/ の opendir に失敗しました (errno 2)\n", 3},
                  {not_loaded, "fi: modstart: 未加载 /nonexistent/libfi.so:\n" + reason, 3},
                  {not_opened, "fi: qzfi_pgndir: 对 /nonexistent/providers/ 执行 opendir 失败 (errno 2)\n", 3},
              }));
}

TEST_F(LocalizedHost, a_host_without_the_variable_is_told_nothing) {
    unsetenv("ICU_DATA");
    qzfi_setlang(ja);
    fail_to_load_the_api_library();
    fail_to_open_the_plugin_directory();
    EXPECT_EQ(reports, std::vector<Report>());
}

TEST_F(LocalizedHost, a_status_is_turned_into_text_of_the_language_that_was_set) {
    const uint32_t status = QFI_STATUS_NO_MEMORY;
    const uint32_t localized = status | QFI_STATUS_LOCALIZED;
    EXPECT_EQ(status_text(status), "Insufficient Memory");
    EXPECT_EQ(status_text(localized), "fi: Insufficient Memory");
    qzfi_setlang(ja);
    EXPECT_EQ(status_text(localized), "fi: メモリーが不足しています");
    qzfi_setlang(zh);
    EXPECT_EQ(status_text(localized), "fi: 内存不足");
    EXPECT_EQ(status_text(status), "Insufficient Memory");
}

TEST_F(LocalizedHost, a_status_text_stays_readable_after_others_and_shutdown) {
    qzfi_setlang(ja);
    const char *text = nullptr;
    ASSERT_EQ(qzfiapi_errmsg(QFI_STATUS_NO_MEMORY | QFI_STATUS_LOCALIZED, &text), uint32_t{QFI_STATUS_OK});
    status_text(QFI_STATUS_SYSTEM_CALL | QFI_STATUS_LOCALIZED);
    qzfiapi_shutdown();
    EXPECT_STREQ(text, "fi: メモリーが不足しています");
}

#ifdef FI_LIBRARY
TEST_F(LocalizedHost, a_failure_of_the_default_library_is_told_in_english_and_in_the_language_that_was_set) {
    setenv("QFI_API_LIB", FI_LIBRARY, 1);
    const qfi_object object = {"/nonexistent/object", nullptr};
    qfi_domain *tree = nullptr;
    qzfi_setlang(ja);
    EXPECT_EQ(qfi_op_gentree(&object, 1, nullptr, &tree), QFI_FI_NO_SUCH_OBJECT);
    qzfi_setlang(zh);
    EXPECT_EQ(qfi_op_gentree(&object, 1, nullptr, &tree), QFI_FI_NO_SUCH_OBJECT);
    const std::string what = " /nonexistent/object: No such file or directory (2)\n";
    const auto traces = [](const Report &report) { return report.localized == "(null)"; };
    reports.erase(std::remove_if(reports.begin(), reports.end(), traces), reports.end());
    EXPECT_EQ(reports, (std::vector<Report>{{"qzfi_gentree:" + what, "fi: qzfi_gentree: オブジェクト" + what, 2},
                                            {"qzfi_gentree:" + what, "fi: qzfi_gentree: 对象" + what, 2}}));
}

TEST_F(LocalizedHost, the_default_library_s_statuses_and_error_records_are_texts_of_the_language_that_was_set) {
    setenv("QFI_API_LIB", FI_LIBRARY, 1);
    const qfi_object object = {"/nonexistent/object", nullptr};
    qfi_domain *tree = nullptr;
    ASSERT_EQ(qfi_op_gentree(&object, 1, nullptr, &tree), QFI_FI_NO_SUCH_OBJECT);
    qfi_error_info *error = nullptr;
    ASSERT_EQ(qfi_op_get_last_error(&error), 0);
    ASSERT_NE(error, nullptr);
    const std::string what = " /nonexistent/object: No such file or directory (2)\n";
    const auto record = [&] {
        char *english = nullptr, *localized = nullptr;
        EXPECT_EQ(qfi_op_get_locale_message(error, &english, &localized), 0);
        EXPECT_EQ(english != nullptr ? english : std::string(), "qzfi_gentree:" + what);
        const std::string text = localized != nullptr ? localized : "(null)";
        qfi_op_del_locale_message(english);
        qfi_op_del_locale_message(localized);
        return text;
    };
    const uint32_t localized = uint32_t{QFI_STATUS_API_FIRST} | QFI_STATUS_LOCALIZED;
    qzfi_setlang(ja);
    const std::string japanese = status_text(localized);
    EXPECT_EQ(record(), "qzfi_gentree: オブジェクト" + what);
    qzfi_setlang(zh);
    const std::string chinese = status_text(localized);
    EXPECT_EQ(record(), "qzfi_gentree: 对象" + what);
    EXPECT_EQ(status_text(QFI_STATUS_API_FIRST), "No such image");
    EXPECT_EQ(japanese, "そのようなイメージはありません");
    EXPECT_EQ(chinese, "没有这样的映像") << "not the text of the language before";
}
#endif

/// What `qzfi_getlfmt` gives, in a process of its own, as one process loads one catalog file.
std::string format_of(const char *key) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        const char *const format = qzfi_getlfmt(key);
        const std::string text = format != nullptr ? format : "(null)";
        const bool is_sent = write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        _exit(is_sent ? 0 : 1);
    }
    close(ends[1]);
    char buffer[512];
    const ssize_t length = read(ends[0], buffer, sizeof buffer);
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return {buffer, static_cast<size_t>(length > 0 ? length : 0)};
}

TEST_F(LocalizedHost, formats_come_from_the_plain_catalog_file_by_default) {
    EXPECT_EQ(format_of("MSG_QFI_E0326"), "%s: Application version %s newer than API version %s\n");
    EXPECT_EQ(format_of("MSG_QFI_UTIL_E0061"), "%s: %s not found\n");
    EXPECT_EQ(format_of("MSG_QFI_UTIL_E0010"), "(null)");
}

// The locales themselves may not be installed, so the mapping file ties the catalogs to one that always is.
TEST_F(LocalizedHost, formats_come_from_the_catalog_file_of_the_locale) {
    private_root::write_file("resources/Qfi-Locale-to-Language.txt", "ja_JP C\n");
    EXPECT_EQ(format_of("MSG_QFI_UTIL_E0061"), "%s: %s が見つかりません\n");
    private_root::write_file("resources/Qfi-Locale-to-Language.txt", "zh_CN C\n");
    EXPECT_EQ(format_of("MSG_QFI_UTIL_E0061"), "%s: 找不到 %s\n");
    EXPECT_EQ(format_of("MSG_QFI_UTIL_E0060"), "%s: 未加载 %s:\n%s\n");
}

TEST_F(LocalizedHost, the_catalog_file_of_a_locale_is_found_by_its_name_and_by_its_language_word) {
    for (const char *request : {"ja_JP", "ja_JP.UTF-8", "japanese", "zh_CN", "chinese"}) {
        const int32_t descriptor = qzfi_findMsgCatalog(request, 0);
        ASSERT_GE(descriptor, 0) << request;
        const std::string found = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
        close(descriptor);
        const bool is_japanese = request[0] == 'j';
        EXPECT_EQ(found,
                  std::string("/usr/lumen/resources/") + (is_japanese ? "ja_JP" : "zh_CN") + ".UTF-8/ZELTqzfi.cat")
            << request;
    }
    EXPECT_EQ(qzfi_findMsgCatalog("ko_KR", 0), -1);
}

} // namespace
