#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "support/fault.h"
#include "util/qzfiutil_messages.h"

// The catalogs' answer is set by the tests here, in place of the bridge's own: what is proven is what it is given and
// what becomes of its text.
namespace {
struct Asked {
    std::string id;
    std::string locale;
    int raw = -1;
    std::string formatted; // the arguments, read with `reading_format`
};
Asked asked;
int times_asked = 0;
const char *catalog_text = nullptr;
const char *reading_format = "";
} // namespace

extern "C" char *__wrap_fi_get_icuMsg(const char *id, const char *locale, va_list arguments, int raw);
extern "C" char *__wrap_fi_get_icuMsg(const char *id, const char *locale, va_list arguments, int raw) {
    char text[256];
    vsnprintf(text, sizeof text, reading_format, arguments);
    asked = {id, locale, raw, text};
    ++times_asked;
    return catalog_text != nullptr ? strdup(catalog_text) : nullptr;
}

namespace {

struct Report {
    std::string text;
    std::string localized;
    uint32_t severity;
    bool operator==(const Report &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Report &report) {
    return out << report.severity << " [" << report.text << "] [" << report.localized << "]";
}

std::vector<Report> reports;

void take(qfi_handler *, const char *text, const char *localized, uint32_t severity) {
    reports.push_back({text, localized != nullptr ? localized : "(null)", severity});
}

class Messages : public testing::Test {
protected:
    Messages() {
        setenv("ICU_DATA", "", 1);
        reports.clear();
        catalog_text = nullptr;
        reading_format = "";
        times_asked = 0;
        qzfi_setlang(2);
        qzfi_uinit0(&handler);
        fi_del_all_errors();
    }
    ~Messages() override {
        qzfi_ufini();
        qzfi_setlang(0);
        fi_del_all_errors();
    }

    static std::vector<Report> report(const std::string &text, const std::string &localized, uint32_t severity) {
        return {{text, localized, severity}};
    }

    qfi_handler handler = {take, nullptr, nullptr, nullptr};
};

TEST_F(Messages, without_the_variable_nothing_at_all_happens) {
    unsetenv("ICU_DATA");
    catalog_text = "localised";
    qzfi_getmsg("MSG_QFI_UTIL_E0058", 3, "%s: fstat failure\n", "routine");
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(times_asked, 0);
}

TEST_F(Messages, without_a_localized_text_the_english_one_is_handed_over) {
    qzfi_getmsg("MSG_QFI_UTIL_E0041", 3, "%s: opendir on %s failed errno %d\n", "routine", "/directory", 2);
    EXPECT_EQ(reports, report("routine: opendir on /directory failed errno 2\n", "(null)", 3));
}

TEST_F(Messages, the_catalogs_are_asked_for_the_message_in_the_current_language_with_its_arguments) {
    reading_format = "%s|%s|%d";
    qzfi_getmsg("MSG_QFI_UTIL_E0041", 3, "%s: opendir on %s failed errno %d\n", "routine", "/directory", 2);
    EXPECT_EQ(times_asked, 1);
    EXPECT_EQ(asked.id, "MSG_QFI_UTIL_E0041");
    EXPECT_EQ(asked.locale, "ja");
    EXPECT_EQ(asked.raw, 0);
    EXPECT_EQ(asked.formatted, "routine|/directory|2");
}

TEST_F(Messages, every_consumer_reads_the_arguments_from_the_first) {
    reading_format = "%s %s %d";
    catalog_text = "<%s> <%s> <%d>";
    qzfi_getmsg("MSG_QFI_UTIL_E0041", 2, "%s: opendir on %s failed errno %d\n", "routine", "/directory", 2);
    EXPECT_EQ(asked.formatted, "routine /directory 2");
    EXPECT_EQ(reports, report("routine: opendir on /directory failed errno 2\n", "<routine> </directory> <2>", 2));
}

TEST_F(Messages, a_localized_text_may_take_fewer_arguments) {
    catalog_text = "only %s, 100%%";
    qzfi_getmsg("MSG", 2, "%s: %s not found\n", "routine", "name");
    EXPECT_EQ(reports, report("routine: name not found\n", "only routine, 100%", 2));
}

TEST_F(Messages, a_localized_text_that_would_read_other_arguments_is_handed_over_as_it_stands) {
    for (const char *text : {"%d", "%s %s %s", "%n", "%s %n", "%", "%s %", "%ls", "%s %*d", "%1$s", "%hhn",
                             "50% nothing", "%999999999999999999d", "%.", "%l"}) {
        reports.clear();
        catalog_text = text;
        qzfi_getmsg("MSG", 2, "%s: %s not found\n", "routine", "name");
        EXPECT_EQ(reports, report("routine: name not found\n", text, 2));
    }
}

TEST_F(Messages, flags_and_widths_are_the_catalogs_own) {
    catalog_text = "[%-8s|%.2s]";
    qzfi_getmsg("MSG", 2, "%s: %s not found\n", "routine", "name");
    EXPECT_EQ(reports, report("routine: name not found\n", "[routine |na]", 2));
}

TEST_F(Messages, an_empty_localized_text_is_a_text) {
    catalog_text = "";
    qzfi_getmsg("MSG", 2, "%s\n", "routine");
    EXPECT_EQ(reports, report("routine\n", "", 2));
}

TEST_F(Messages, texts_are_cut_at_2047_bytes) {
    const std::string fitting(2047, 'x');
    qzfi_getmsg("MSG", 2, "%s", fitting.c_str());
    EXPECT_EQ(reports, report(fitting, "(null)", 2));
    reports.clear();
    catalog_text = "%s";
    qzfi_getmsg("MSG", 2, "%s", (fitting + "y").c_str());
    EXPECT_EQ(reports, report(fitting, fitting, 2));
    reports.clear();
    const std::string verbatim = "%n" + fitting;
    catalog_text = verbatim.c_str();
    qzfi_getmsg("MSG", 2, "%s", "short");
    EXPECT_EQ(reports, report("short", verbatim.substr(0, 2047), 2));
}

TEST_F(Messages, without_memory_the_message_or_its_localized_text_is_dropped) {
    catalog_text = "<%s>";
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        reports.clear();
        trial.arm();
        qzfi_getmsg("MSG", 2, "%s\n", "routine");
        trial.disarm();
        if (!trial.fired())
            EXPECT_EQ(reports, report("routine\n", "<routine>", 2));
        else if (trial.nth() == 1)
            EXPECT_TRUE(reports.empty());
        else // the catalog's text, or the buffer for it
            EXPECT_EQ(reports, report("routine\n", "(null)", 2));
    });
}

TEST_F(Messages, raising_reports_and_records_under_the_same_id) {
    qzfi::raise<const char *, const char *>(qzfi::message::library_not_loaded, "routine", "library", "reason");
    EXPECT_EQ(reports, report("routine: library not loaded:\nreason\n", "(null)", 3));
    qfi_error_info *record = nullptr;
    ASSERT_EQ(does_last_error_exist(&record), 1u);
    EXPECT_STREQ(record->message_id, "MSG_QFI_UTIL_E0060");
    EXPECT_EQ(record->status, -1);
    EXPECT_EQ(record->session, nullptr);
    EXPECT_EQ(record->plugin_ref, 0u);
    EXPECT_EQ(record->plugin_data, nullptr);
    EXPECT_EQ(std::vector<std::string>(record->arguments, record->arguments + record->count),
              (std::vector<std::string>{"%s: %s not loaded:\n%s\n", "routine", "library"}));
}

TEST_F(Messages, the_numbered_messages_stand_as_published) {
    const struct {
        const char *id;
        uint32_t severity;
        const char *format;
    } expected[] = {
        {"MSG_QFI_UTIL_E0041", 3, "%s: opendir on %s failed errno %d\n"},
        {"MSG_QFI_UTIL_E0042", 2, "%s: library path %s has badly formed version number\n"},
        {"MSG_QFI_UTIL_E0043", 3, "%s: couldn't malloc dir path buffer\n"},
        {"MSG_QFI_UTIL_E0044", 2, "%s: couldn't malloc libname buffer for %s\n"},
        {"MSG_QFI_UTIL_E0045", 2, "%s: plugin %s not readable\n"},
        {"MSG_QFI_UTIL_E0046", 2, "%s: couldn't malloc plugin descriptor for %s\n"},
        {"MSG_QFI_UTIL_E0047", 2, "%s: couldn't malloc libpriv descriptor for %s\n"},
        {"MSG_QFI_UTIL_E0048", 2, "%s: couldn't malloc vp_prefix for %s\n"},
        {"MSG_QFI_UTIL_E0049", 2, "%s: couldn't initialize %s\n"},
        {"MSG_QFI_UTIL_E0050", 3, "%s: couldn't fork\n"},
        {"MSG_QFI_UTIL_E0051", 3, "%s: shell abend\n"},
        {"MSG_QFI_UTIL_E0052", 3, "%s: status write failed\n"},
        {"MSG_QFI_UTIL_E0053", 3, "%s: read size error\n"},
        {"MSG_QFI_UTIL_E0054", 3, "%s: couldn't create pipe\n"},
        {"MSG_QFI_UTIL_E0055", 3, "%s: couldn't create pipe\n"},
        {"MSG_QFI_UTIL_E0056", 3, "%s: couldn't create pipe\n"},
        {"MSG_QFI_UTIL_E0057", 3, "%s: couldn't create pipe\n"},
        {"MSG_QFI_UTIL_E0058", 3, "%s: fstat failure\n"},
        {"MSG_QFI_UTIL_E0059", 3, "%s: write size error\n"},
        {"MSG_QFI_UTIL_E0060", 3, "%s: %s not loaded:\n%s\n"},
        {"MSG_QFI_UTIL_E0061", 3, "%s: %s not found\n"},
        {"MSG_QFI_E0326", 3, "%s: Application version %s newer than API version %s\n"},
        {"MSG_QFI_E0328", 2, "%s: Plugin version %s newer than API version %s\n"},
    };
    const qzfi::Message messages[] = {
#define ROW(name, id, severity, format) qzfi::message::name,
        QZFI_MESSAGES(ROW)
#undef ROW
    };
    ASSERT_EQ(std::size(messages), std::size(expected));
    for (std::size_t row = 0; row < std::size(expected); ++row) {
        EXPECT_STREQ(messages[row].id, expected[row].id);
        EXPECT_EQ(messages[row].severity, expected[row].severity) << expected[row].id;
        EXPECT_STREQ(messages[row].format, expected[row].format);
    }
}

} // namespace
