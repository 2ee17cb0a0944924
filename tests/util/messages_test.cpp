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

TEST_F(Messages, a_localized_text_that_is_not_safe_to_format_is_not_used) {
    for (const char *text : {"%d",
                             "%c",
                             "%p",
                             "%ld",
                             "%f",
                             "%ls",
                             "%S",
                             "%hs",
                             "%s %d",
                             "%s %s %s",
                             "%n",
                             "%s %n",
                             "%hhn",
                             "%1$n",
                             "%m",
                             "%",
                             "%s %",
                             "%5",
                             "%.",
                             "%l",
                             "%1$",
                             "%5%",
                             "50% nothing",
                             "%*s",
                             "%s %*d",
                             "%.*s",
                             "%1$*2$s",
                             "%1$*s",
                             "%3$s",
                             "%0$s",
                             "%1$d",
                             "%2$d %1$s",
                             "%17$s",
                             "%99999999999999999999$s",
                             "%99999s",
                             "%.99999s",
                             "%999999999999999999d",
                             "%-------------------------s"}) {
        reports.clear();
        catalog_text = text;
        qzfi_getmsg("MSG", 2, "%s: %s not found\n", "routine", "name");
        EXPECT_EQ(reports, report("routine: name not found\n", "(null)", 2)) << text;
    }
}

TEST_F(Messages, a_localized_text_may_take_the_arguments_in_another_order) {
    const struct {
        const char *text;
        const char *expected;
    } cases[] = {
        {"%2$s <- %1$s", "name <- routine"},
        {"%2$s", "name"},
        {"%2$s%2$s", "namename"},
        {"[%2$6s|%1$-8s|%1$.2s]", "[  name|routine |ro]"},
        {"%1$s %2$s", "routine name"},
        {"<MSG>", "<MSG>"},
    };
    for (const auto &each : cases) {
        reports.clear();
        catalog_text = each.text;
        qzfi_getmsg("MSG", 2, "%s: %s not found\n", "routine", "name");
        EXPECT_EQ(reports, report("routine: name not found\n", each.expected, 2)) << each.text;
    }
}

TEST_F(Messages, arguments_of_every_kind_can_be_passed_over) {
    const char *const english = "%d %ld %hhu %c %.1f %Lg %p %ls %zx %*.*f %lld %s";
    for (const char *text : {"%14$s|%13$lli|%9$zo|%5$.2e|%4$c|%3$hu|%2$lx|%1$i", "%1$x %12$.1f", "%2$li"}) {
        reports.clear();
        catalog_text = text;
        qzfi_getmsg("MSG", 2, english, -1, 77L, static_cast<unsigned char>(5), 'c', 2.5, 4.25L,
                    static_cast<void *>(nullptr), L"wide", size_t{8}, 5, 2, 3.0, -9LL, "end");
        const std::string expected = text[1] == '2'   ? "77"
                                     : text[3] == 'x' ? "ffffffff 3.0"
                                                      : "end|-9|10|2.50e+00|c|5|4d|-1";
        EXPECT_EQ(reports, report("-1 77 5 c 2.5 4.25 (nil) wide 8  3.00 -9 end", expected, 2));
    }
}

TEST_F(Messages, a_width_may_be_an_argument_where_the_english_one_is) {
    catalog_text = "[%*d]";
    qzfi_getmsg("MSG", 2, "%*d\n", 4, 7);
    EXPECT_EQ(reports, report("   7\n", "[   7]", 2));
}

TEST_F(Messages, a_text_that_the_english_format_cuts_may_be_passed_over_only) {
    const char unterminated[] = {'a', 'b', 'c'};
    for (const char *text : {"%s", "%.3s", "%2$d"}) {
        reports.clear();
        catalog_text = text;
        qzfi_getmsg("MSG", 2, "%.3s %d", unterminated, 7);
        EXPECT_EQ(reports, report("abc 7", text[1] == '2' ? "7" : "(null)", 2)) << text;
    }
}

TEST_F(Messages, arguments_from_the_seventeenth_on_are_not_for_catalogs) {
    for (const char *text : {"%16$d", "%17$d"}) {
        reports.clear();
        catalog_text = text;
        qzfi_getmsg("MSG", 2, "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 1, 2, 3, 4, 5, 6, 7, 8);
        EXPECT_EQ(reports, report("12345678912345678", text[2] == '6' ? "7" : "(null)", 2));
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
    const std::string plain = "<" + fitting;
    catalog_text = plain.c_str();
    qzfi_getmsg("MSG", 2, "%s", "short");
    EXPECT_EQ(reports, report("short", plain.substr(0, 2047), 2));
    reports.clear();
    const std::string unsafe_where_cut = fitting + "%n";
    catalog_text = unsafe_where_cut.c_str();
    qzfi_getmsg("MSG", 2, "%s", "short");
    EXPECT_EQ(reports, report("short", "(null)", 2));
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
