#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "support/bundles.h"
#include "support/fault.h"
#include "support/report.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_settings.h"

namespace {

std::vector<Report> reports;
fault::Trial *trial_at_work = nullptr; // no failure of the test's own code is meant

void take(qfi_handler *, const char *text, const char *localized, uint32_t severity) {
    if (trial_at_work != nullptr)
        trial_at_work->disarm();
    reports.push_back(report_of(text, localized, severity));
}

class Messages : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
        setenv("ICU_DATA", "", 1);
        reports.clear();
        qzfi_uinit0(&handler);
        fi_del_all_errors();
        bundles::install({{"ja", {{"MSG0", "%s が見つかりません"}}}, {"root", {{"MSG0", "not %s"}}}});
        use({});
    }
    void TearDown() override {
        qzfi_ufini();
        qzfi_setlang(0);
        fi_del_all_errors();
    }

    /// Makes these the current language's texts of "MSG0", "MSG1", and so on.
    static void use(const std::vector<std::string> &texts) {
        qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, bundles::install_texts(texts).c_str());
    }

    static const char *id(std::size_t index) {
        static std::string text;
        text = "MSG" + std::to_string(index);
        return text.c_str();
    }

    static std::vector<Report> report(const std::string &text, const std::string &localized, uint32_t severity) {
        return {{text, localized, severity}};
    }

    qfi_handler handler = {take, nullptr, nullptr, nullptr};
};

// First, because ICU keeps what it found of the root bundle, and tests below take it away.
TEST_F(Messages, the_text_is_that_of_the_current_language) {
    const struct {
        int32_t language;
        const char *expected;
    } cases[] = {{1, "fi: not routine"}, {2, "fi: routine が見つかりません"}, {3, "fi: not routine"}};
    for (const auto &each : cases) {
        reports.clear();
        qzfi_setlang(each.language);
        qzfi_getmsg("MSG0", 2, "%s: not found\n", "routine");
        EXPECT_EQ(reports, report("routine: not found\n", each.expected, 2)) << each.language;
    }
}

const std::filesystem::path directory = "/usr/lumen/resources";

TEST_F(Messages, without_the_variable_nothing_at_all_happens) {
    unsetenv("ICU_DATA");
    std::filesystem::remove_all(directory); // the catalogs make it when they are asked for a locale's first text
    qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, bundles::unused_locale().c_str());
    qzfi_getmsg("MSG_QFI_UTIL_E0058", 3, "%s: fstat failure\n", "routine");
    EXPECT_TRUE(reports.empty());
    EXPECT_FALSE(exists(directory));
    setenv("ICU_DATA", "", 1);
    qzfi_getmsg("MSG_QFI_UTIL_E0058", 3, "%s: fstat failure\n", "routine");
    EXPECT_EQ(reports.size(), 1u);
    EXPECT_TRUE(exists(directory));
}

TEST_F(Messages, without_memory_for_the_english_text_the_catalogs_are_not_asked) {
    std::filesystem::remove_all(directory);
    qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, bundles::unused_locale().c_str());
    const fault::Armed armed{fault::Call::allocation, 1};
    qzfi_getmsg("MSG_QFI_UTIL_E0058", 3, "%s: fstat failure\n", "routine");
    EXPECT_TRUE(reports.empty());
    EXPECT_FALSE(exists(directory));
}

TEST_F(Messages, an_id_that_no_catalog_has_is_handed_over_in_brackets) {
    qzfi_getmsg("MSG_QFI_UTIL_E0041", 3, "%s: opendir on %s failed errno %d\n", "routine", "/directory", 2);
    EXPECT_EQ(reports, report("routine: opendir on /directory failed errno 2\n", "fi: <MSG_QFI_UTIL_E0041>", 3));
    reports.clear();
    const fault::Armed no_directory{fault::Call::access, 1, {.from_then_on = true}};
    qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, bundles::unused_locale().c_str());
    qzfi_getmsg("MSG_QFI_UTIL_E0058", 2, "%s: fstat failure\n", "routine");
    EXPECT_EQ(reports, report("routine: fstat failure\n", "<MSG_QFI_UTIL_E0058>", 2));
}

TEST_F(Messages, every_consumer_reads_the_arguments_from_the_first) {
    use({"<{0,number,integer}> <%d> <%s>"});
    qzfi_getmsg("MSG0", 2, "%d %s\n", 7, "text");
    EXPECT_EQ(reports, report("7 text\n", "fi: <7> <7> <text>", 2));
}

TEST_F(Messages, placeholders_are_filled_with_numbers_of_their_type) {
    use({"{0,number,integer}", "{0,number,integer} {1,number} %2$.2f", "%{0,number,integer}$.1f"});
    const char *const expected[] = {"fi: 2", "fi: 2 1.5 1.50", "fi: 1.5"};
    for (std::size_t index = 0; index < std::size(expected); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%d %f\n", 2, 1.5);
        EXPECT_EQ(reports, report("2 1.500000\n", expected[index], 2)) << index;
    }
}

TEST_F(Messages, a_localized_text_may_take_fewer_arguments) {
    use({"only %s, 100%%"});
    qzfi_getmsg("MSG0", 2, "%s: %s not found\n", "routine", "name");
    EXPECT_EQ(reports, report("routine: name not found\n", "fi: only routine, 100%", 2));
}

std::string many_placeholders() {
    std::string text;
    for (int number = 0; number < 10000; ++number)
        text += "{" + std::to_string(number) + "}";
    return text;
}

TEST_F(Messages, a_localized_text_that_is_not_safe_to_format_is_not_used) {
    const std::vector<std::string> texts = {"%d",
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
                                            "%-------------------------s",
                                            "{0}",
                                            "{1}",
                                            "%s {0}",
                                            "{0,number}",
                                            "{0,number,integer}",
                                            "{0,date}",
                                            "{0,choice,0#none|1#one}",
                                            "{0,plural,other{#}}",
                                            "{0,select,other{}}",
                                            "{name}",
                                            "{5}",
                                            "{32767}",
                                            "{1,number,integer}",
                                            many_placeholders(),
                                            std::string(1000000, 'x') + "%n"};
    use(texts);
    for (std::size_t index = 0; index < texts.size(); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%s: %s not found\n", "routine", "name");
        EXPECT_EQ(reports, report("routine: name not found\n", "(null)", 2)) << texts[index].substr(0, 80);
    }
}

TEST_F(Messages, numbers_of_another_type_or_place_are_not_used) {
    const std::vector<std::string> texts = {"{0,number}",
                                            "{1,number,integer}",
                                            "{2,number,integer}",
                                            "{0,number,integer} {2,number,integer}",
                                            "{0,date}",
                                            "{0}",
                                            "{0,number,integer} {3,number,integer}",
                                            "{0,number,integer} %2$d",
                                            "%{0,number,integer}$s"};
    use(texts);
    for (std::size_t index = 0; index < texts.size(); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%d %f %ld\n", 7, 1.5, 9L);
        EXPECT_EQ(reports, report("7 1.500000 9\n", "(null)", 2)) << texts[index];
    }
}

TEST_F(Messages, a_localized_text_that_icu_refuses_gives_its_first_character) {
    const std::vector<std::string> texts = {"{0", "{", "{0,nothing", "{32768}", std::string(30000, '{'), "%n {"};
    use(texts);
    for (std::size_t index = 0; index < texts.size(); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%s\n", "routine");
        EXPECT_EQ(reports, report("routine\n", "f", 2)) << texts[index].substr(0, 80);
    }
}

TEST_F(Messages, a_localized_text_may_take_the_arguments_in_another_order) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"%2$s <- %1$s", "name <- routine"},
        {"%2$s", "name"},
        {"%2$s%2$s", "namename"},
        {"[%2$6s|%1$-8s|%1$.2s]", "[  name|routine |ro]"},
        {"%1$s %2$s", "routine name"},
        {"'{0}' %2$s", "{0} name"},
        {"<MSG>", "<MSG>"},
    };
    std::vector<std::string> texts;
    for (const auto &each : cases)
        texts.push_back(each.first);
    use(texts);
    for (std::size_t index = 0; index < texts.size(); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%s: %s not found\n", "routine", "name");
        EXPECT_EQ(reports, report("routine: name not found\n", "fi: " + cases[index].second, 2)) << texts[index];
    }
}

TEST_F(Messages, arguments_of_every_kind_can_be_passed_over) {
    const char *const english = "%d %ld %hhu %c %.1f %Lg %p %ls %zx %*.*f %lld %s";
    use({"%14$s|%13$lli|%9$zo|%5$.2e|%4$c|%3$hu|%2$lx|%1$i", "%1$x %12$.1f", "%2$li"});
    const char *const expected[] = {"fi: end|-9|10|2.50e+00|c|5|4d|-1", "fi: ffffffff 3.0", "fi: 77"};
    for (std::size_t index = 0; index < std::size(expected); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, english, -1, 77L, static_cast<unsigned char>(5), 'c', 2.5, 4.25L,
                    static_cast<void *>(nullptr), L"wide", size_t{8}, 5, 2, 3.0, -9LL, "end");
        EXPECT_EQ(reports, report("-1 77 5 c 2.5 4.25 (nil) wide 8  3.00 -9 end", expected[index], 2));
    }
}

TEST_F(Messages, a_width_may_be_an_argument_where_the_english_one_is) {
    use({"[%*d]"});
    qzfi_getmsg("MSG0", 2, "%*d\n", 4, 7);
    EXPECT_EQ(reports, report("   7\n", "fi: [   7]", 2));
}

TEST_F(Messages, a_text_that_the_english_format_cuts_may_be_passed_over_only) {
    const char unterminated[] = {'a', 'b', 'c'};
    use({"%s", "%.3s", "%2$d"});
    for (std::size_t index = 0; index < 3; ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%.3s %d", unterminated, 7);
        EXPECT_EQ(reports, report("abc 7", index == 2 ? "fi: 7" : "(null)", 2)) << index;
    }
}

TEST_F(Messages, arguments_from_the_seventeenth_on_are_not_for_catalogs) {
    std::string sixteen, seventeen;
    for (int number = 0; number < 17; ++number) {
        sixteen += number < 16 ? "{" + std::to_string(number) + ",number,integer}" : "";
        seventeen += "{" + std::to_string(number) + ",number,integer}";
    }
    use({"%16$d", "%17$d", sixteen, seventeen});
    const char *const expected[] = {"fi: 7", "(null)", "fi: 1234567891234567", "(null)"};
    for (std::size_t index = 0; index < std::size(expected); ++index) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 1, 2, 3, 4, 5, 6, 7,
                    8);
        EXPECT_EQ(reports, report("12345678912345678", expected[index], 2));
    }
}

TEST_F(Messages, flags_and_widths_are_the_catalogs_own) {
    use({"[%-8s|%.2s]"});
    qzfi_getmsg("MSG0", 2, "%s: %s not found\n", "routine", "name");
    EXPECT_EQ(reports, report("routine: name not found\n", "fi: [routine |na]", 2));
}

TEST_F(Messages, an_empty_localized_text_is_a_text) {
    use({""});
    qzfi_getmsg("MSG0", 2, "%s\n", "routine");
    EXPECT_EQ(reports, report("routine\n", "fi: ", 2));
}

TEST_F(Messages, texts_are_cut_at_2047_bytes) {
    const std::string fitting(2047, 'x');
    const std::string beyond = "<" + fitting;
    use({"%s", beyond, beyond + "%n", std::string(1000000, 'x')});
    const auto expect = [&](std::size_t index, const std::string &argument, const std::string &localized) {
        reports.clear();
        qzfi_getmsg(id(index), 2, "%s", argument.c_str());
        EXPECT_EQ(reports, report(argument.substr(0, 2047), localized, 2));
    };
    expect(0, fitting.substr(4), "fi: " + fitting.substr(4));
    expect(0, fitting, ("fi: " + fitting).substr(0, 2047));
    expect(0, fitting + "y", ("fi: " + fitting).substr(0, 2047));
    expect(1, "short", ("fi: " + beyond).substr(0, 2047));
    expect(2, "short", "(null)"); // unsafe, if only where it is cut off
    expect(3, "short", ("fi: " + fitting).substr(0, 2047));
}

TEST_F(Messages, without_memory_the_message_or_its_localized_text_is_dropped) {
    for (const fault::Call call : {fault::Call::allocation, fault::Call::construction}) {
        use({"a text that is too long to be kept in place: %s"});
        for (const bool is_cold : {true, false}) // the first run opens the catalog, whenever it can
            fault::for_each(call, [&](fault::Trial &trial) {
                reports.clear();
                trial_at_work = &trial;
                trial.arm();
                qzfi_getmsg("MSG0", 2, "%s\n", "routine");
                trial.disarm();
                trial_at_work = nullptr;
                if (!trial.fired())
                    EXPECT_EQ(reports,
                              report("routine\n", "fi: a text that is too long to be kept in place: routine", 2))
                        << is_cold;
                else if (call == fault::Call::allocation && trial.nth() == 1)
                    EXPECT_TRUE(reports.empty());
                else // the catalog's text, or the buffer for it
                    EXPECT_EQ(reports, report("routine\n", "(null)", 2)) << is_cold;
            });
    }
}

TEST_F(Messages, raising_reports_and_records_under_the_same_id) {
    qzfi::raise<const char *, const char *>(qzfi::message::library_not_loaded, "routine", "library", "reason");
    EXPECT_EQ(reports, report("routine: library not loaded:\nreason\n", "fi: <MSG_QFI_UTIL_E0060>", 3));
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
