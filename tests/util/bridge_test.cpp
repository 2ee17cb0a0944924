#include <atomic>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <malloc.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <unicode/ucnv.h>

#include <qzfi.h>

#include "common/qzfitext.h"
#include "msgcat/qzfiicuerrormgr.h"
#include "msgcat/qzfimsgcatalogmgr.h"
#include "support/bundles.h"
#include "support/fault.h"
#include "util/qzfiutil_messages.h"
#include "util/qzfiutil_settings.h"

namespace {

std::string text_of(char *text) {
    const qzfi::Text owned{text};
    return owned ? owned.get() : "(null)";
}

/// The catalog's own text.
std::string raw(const char *id, const char *locale, ...) {
    va_list none;
    va_start(none, locale);
    const std::string text = text_of(fi_get_icuMsg(id, locale, none, 1));
    va_end(none);
    return text;
}

/// The text with the arguments that follow.
std::string formatted(const char *id, const char *locale, ...) {
    va_list arguments;
    va_start(arguments, locale);
    const std::string text = text_of(fi_get_icuMsg(id, locale, arguments, 0));
    va_end(arguments);
    return text;
}

class Bridge : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
        bundles::install({
            {"root", {{"MSG0", "root text"}}},
            {"ja", {{"MSG0", "メモリー不足"}, {"MSG2", "{0,number}"}}},
        });
    }

    /// What one text of a bundle is formatted to.
    template <class... Arguments>
    static std::string format(const std::string &text, Arguments... arguments) {
        return formatted("MSG0", bundles::install_texts({text}).c_str(), arguments...);
    }
};

TEST_F(Bridge, a_raw_text_is_the_catalogs_after_its_name) {
    const std::vector<std::string> texts = {"Insufficient Memory", "%s: {0,number} 'quoted' %n\n", "", " ", "日本語"};
    const std::string locale = bundles::install_texts(texts);
    for (std::size_t index = 0; index < texts.size(); ++index)
        EXPECT_EQ(raw(("MSG" + std::to_string(index)).c_str(), locale.c_str()), "fi: " + texts[index]);
}

void expect_untouched_arguments(const char *id, const char *locale, ...) {
    va_list arguments;
    va_start(arguments, locale);
    free(fi_get_icuMsg(id, locale, arguments, 1));
    EXPECT_EQ(va_arg(arguments, int), 7);
    va_end(arguments);
}

TEST_F(Bridge, a_raw_text_leaves_the_arguments_alone) {
    expect_untouched_arguments("MSG0", bundles::install_texts({"{0,number,integer}"}).c_str(), 7);
}

TEST_F(Bridge, a_pattern_without_placeholders_formats_to_itself) {
    for (const char *text : {"plain", "%s: %s not found\n", "%n", " blanks ", "a } brace", "日本語", "<>"})
        EXPECT_EQ(format(text), std::string("fi: ") + text);
}

TEST_F(Bridge, apostrophes_quote_braces_only) {
    EXPECT_EQ(format("couldn't"), "fi: couldn't");
    EXPECT_EQ(format("'{0}' it''s"), "fi: {0} it's");
}

TEST_F(Bridge, placeholders_are_filled_with_the_callers_arguments) {
    EXPECT_EQ(format("{0}, {1}", u"first", u"日本"), "fi: first, 日本");
    EXPECT_EQ(format("{1} {0}", u"first", u"second"), "fi: second first");
    EXPECT_EQ(format("{0,number,integer} {1,number} {2}", 7, 2.5, u"x"), "fi: 7 2.5 x");
    EXPECT_EQ(format("{0,choice,0#none|1#one|1<many}", 1.0), "fi: one");
}

TEST_F(Bridge, numbers_are_written_as_the_locale_has_it) {
    EXPECT_EQ(formatted("MSG2", "ja", 1234.5), "fi: 1,234.5");
}

TEST_F(Bridge, a_pattern_that_icu_refuses_gives_its_first_character) {
    for (const char *text : {"{0", "{", "{0,nothing}", "{0,number,integer", "{70000}", "{ }", "{0,date,{}"})
        EXPECT_EQ(format(text, u"argument"), "f") << text;
    EXPECT_EQ(format("{0}", static_cast<const char16_t *>(nullptr)), "f");
}

TEST_F(Bridge, a_pattern_that_would_exhaust_the_stack_gives_its_first_character) {
    const auto repeated = [](int times, const std::string &text) {
        std::string result;
        for (int time = 0; time < times; ++time)
            result += text;
        return result;
    };
    const auto nested = [&](int levels, const std::string &inner) {
        return repeated(levels, "{0,select,other{") + inner + repeated(levels, "}}");
    };
    EXPECT_EQ(format(nested(32, "end"), u"x"), "fi: end"); // two braces a level
    EXPECT_EQ(format(nested(33, "end"), u"x"), "f");
    EXPECT_EQ(format(nested(16000, "end"), u"x"), "f");
    const std::string quoted = repeated(5000, "{0,select,other{'}}'") + "end" + repeated(5000, "}}");
    EXPECT_EQ(format(quoted, u"x"), "f");
}

TEST_F(Bridge, an_id_that_the_catalog_does_not_have_comes_back_in_brackets) {
    EXPECT_EQ(raw("MSG_QFI_UTIL_E0999", "root"), "fi: <MSG_QFI_UTIL_E0999>");
    EXPECT_EQ(formatted("MSG_QFI_UTIL_E0999", "root"), "fi: <MSG_QFI_UTIL_E0999>");
    EXPECT_EQ(raw("", "root"), "fi: <>");
}

TEST_F(Bridge, a_locale_without_a_bundle_has_the_roots_texts) {
    EXPECT_EQ(raw("MSG0", bundles::unused_locale().c_str()), "fi: root text");
}

TEST_F(Bridge, a_locale_whose_parent_has_a_bundle_has_no_catalog) {
    EXPECT_EQ(raw("MSG0", "ja_JP"), "<MSG0>");
    EXPECT_EQ(formatted("MSG0", "ja_JP"), "<MSG0>");
}

TEST_F(Bridge, the_texts_of_a_locale_come_from_its_bundle_and_then_from_the_root) {
    const std::string locale = bundles::unused_locale();
    bundles::install({{locale, {{"MSG1", "own"}}}});
    EXPECT_EQ(raw("MSG1", locale.c_str()), "fi: own");
    EXPECT_EQ(raw("MSG0", locale.c_str()), "fi: root text");
}

TEST_F(Bridge, native_is_the_managers_native_language) {
    const auto manager = qzfi_pdk_4_4::CFiMessageCatalogManagerSingleton::instance();
    EXPECT_EQ(raw("MSG0", "native"), "fi: root text"); // none yet
    manager->setNativeLanguage("ja");
    EXPECT_EQ(raw("MSG0", "native"), "fi: メモリー不足");
    EXPECT_EQ(formatted("MSG0", "native"), "fi: メモリー不足");
    manager->setNativeLanguage("");
}

TEST_F(Bridge, no_locale_and_an_empty_one_are_the_root) {
    for (const char *locale : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(raw("MSG0", locale), "fi: root text");
        EXPECT_EQ(formatted("MSG0", locale), "fi: root text");
    }
}

TEST_F(Bridge, a_locale_of_any_length_is_one) {
    const std::string longest(100000, 'x');
    EXPECT_EQ(raw("MSG0", longest.c_str()), "fi: root text");
}

TEST_F(Bridge, a_catalog_that_could_not_be_opened_is_tried_again) {
    const std::string locale = bundles::install_texts({"text"});
    {
        const fault::Armed no_directory{fault::Call::access, 1, {.from_then_on = true}};
        EXPECT_EQ(raw("MSG0", locale.c_str()), "<MSG0>");
    }
    EXPECT_EQ(raw("MSG0", locale.c_str()), "fi: text");
}

TEST_F(Bridge, locales_do_not_mix) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(raw("MSG0", "root"), "fi: root text");
        EXPECT_EQ(raw("MSG0", "ja"), "fi: メモリー不足");
    }
}

TEST_F(Bridge, formatting_reads_the_text_in_the_default_code_page) {
    for (const char *process_locale : {"C.UTF-8", "C"}) {
        ASSERT_NE(setlocale(LC_ALL, process_locale), nullptr);
        // Under "C" it depends on how ICU was built: in ASCII every byte beyond it is one that cannot be read.
        const bool is_utf8 = std::strcmp(ucnv_getDefaultName(), "UTF-8") == 0;
        std::string unreadable;
        for (std::size_t byte = 0; byte < std::strlen("日本"); ++byte)
            unreadable += "\uFFFD";
        EXPECT_EQ(format("日本"), "fi: " + (is_utf8 ? "日本" : unreadable)) << process_locale;
    }
    setlocale(LC_ALL, "C");
}

TEST_F(Bridge, a_huge_text_is_given_whole) {
    const std::string huge(1000000, 'x');
    const std::string locale = bundles::install_texts({huge});
    EXPECT_EQ(raw("MSG0", locale.c_str()), "fi: " + huge);
    EXPECT_EQ(formatted("MSG0", locale.c_str()), "fi: " + huge);
}

TEST_F(Bridge, a_text_that_is_no_unicode_is_empty_and_one_with_a_nul_ends_there) {
    const std::string locale = bundles::install_texts({"bad \\uD800 text", "cut\\u0000here"});
    EXPECT_EQ(raw("MSG0", locale.c_str()), "fi: ");
    EXPECT_EQ(formatted("MSG0", locale.c_str()), "fi: ");
    EXPECT_EQ(raw("MSG1", locale.c_str()), "fi: cut");
    EXPECT_EQ(formatted("MSG1", locale.c_str()), "fi: cut");
}

std::string formatted(const qzfi::CatalogPattern &pattern, const char *locale, ...) {
    va_list none;
    va_start(none, locale);
    const std::string text = text_of(pattern.format(locale, none).release());
    va_end(none);
    return text;
}

TEST_F(Bridge, bytes_that_the_code_page_does_not_have_are_replaced) {
    const qzfi::CatalogPattern pattern{"a \xff b"};
    ASSERT_TRUE(pattern);
    EXPECT_EQ(formatted(pattern, "root"), "a \uFFFD b");
}

TEST_F(Bridge, the_fallback_is_the_patterns_bytes_up_to_the_first_zero) {
    // Two bytes a character: of U+65E5 U+672C neither byte is zero, of "{" the second one is.
    const qzfi::CatalogPattern pattern{"日本{"};
    ASSERT_TRUE(pattern);
    EXPECT_EQ(formatted(pattern, "root"), "\xe5\x65\x2c\x67{");
}

TEST_F(Bridge, many_threads_may_ask_for_two_locales_at_once) {
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 16; ++number)
        threads.emplace_back([&right, number] {
            const char *const locale = number % 2 == 0 ? "root" : "ja";
            const std::string expected = number % 2 == 0 ? "fi: root text" : "fi: メモリー不足";
            for (int repeat = 0; repeat < 100; ++repeat)
                right += (repeat % 3 == 0 ? formatted("MSG0", locale) : raw("MSG0", locale)) == expected;
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(right, 1600);
}

TEST_F(Bridge, without_memory_there_is_no_text) {
    const std::string text = "A text that is too long to be kept inside a string object: {0,number,integer}";
    const std::string expected = "fi: A text that is too long to be kept inside a string object: 7";
    for (const fault::Call call : {fault::Call::allocation, fault::Call::construction}) {
        const std::string locale = bundles::install_texts({text});
        for (const bool is_cold : {true, false}) // the first run opens the catalog, whenever it can
            fault::for_each(call, [&](fault::Trial &trial) {
                trial.arm();
                char *const raw_text = qzfi::catalog_text("MSG0", locale.c_str()).release();
                trial.disarm();
                EXPECT_EQ(text_of(raw_text), trial.fired() ? "(null)" : "fi: " + text) << is_cold;
            });
    }
}

char *format_one(const char *locale, ...) {
    va_list arguments;
    va_start(arguments, locale);
    char *const text = fi_get_icuMsg("MSG0", locale, arguments, 0);
    va_end(arguments);
    return text;
}

TEST_F(Bridge, without_memory_nothing_is_formatted) {
    const std::string locale =
        bundles::install_texts({"A text that is too long to be kept in place: {0,number,integer}"});
    for (const fault::Call call : {fault::Call::allocation, fault::Call::construction})
        fault::for_each(call, [&](fault::Trial &trial) {
            trial.arm();
            char *const text = format_one(locale.c_str(), 7);
            trial.disarm();
            EXPECT_EQ(text_of(text), trial.fired() ? "(null)" : "fi: A text that is too long to be kept in place: 7");
        });
}

TEST_F(Bridge, what_is_kept_does_not_grow_with_the_calls) {
    const auto ask = [](int times) {
        for (int time = 0; time < times; ++time) {
            raw("MSG0", "root");
            formatted("MSG0", "ja");
        }
        return mallinfo2().uordblks;
    };
    const std::size_t before = ask(100);
    if (before == 0)
        GTEST_SKIP() << "the allocator of this build does not tell what it gave out";
    EXPECT_EQ(ask(10000), before);
}

void ask_at_exit() {
    const std::string text = raw("MSG0", "root");
    _exit(text == "(null)" ? 10 : text == "fi: root text" ? 11 : 12);
}

TEST_F(Bridge, a_call_while_the_process_ends_gives_nothing) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // in a process that has made no call yet
    // The handler runs after what the call made has been destroyed, as it was there before.
    const auto end = [] {
        std::atexit(ask_at_exit);
        if (raw("MSG0", "root") == "fi: root text")
            std::exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(10), "");
}

TEST_F(Bridge, a_call_before_that_still_gives_a_text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end = [] {
        raw("MSG0", "root");
        std::atexit(ask_at_exit);
        std::exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(11), "");
}

/// Asks for every kind of text; whether all were right.
bool asks_well() {
    const char *const status_text = qzfi_getlocmsg(5, 1, u_emsgs, &vfcmsg);
    return raw("MSG0", "root") == "fi: root text" && formatted("MSG2", "ja", 1234.5) == "fi: 1,234.5" &&
           status_text != nullptr && std::string(status_text) == "fi: <MSG_QFI_UTIL_E0005>";
}

bool is_forked_child = false;

void leave_forked_child() {
    if (is_forked_child)
        _exit(0); // what the threads held that it does not have would be reported as leaked
}

/// Forks while threads ask without a pause, so that nearly always one is inside. Each child asks and ends as a process
/// does.
void fork_while_others_ask() {
    std::atexit(leave_forked_child); // runs after what the calls made has been destroyed, as it was there before
    qzfi::copy_bounded(qzfi_lang, sizeof qzfi_lang, "root");
    std::atomic<bool> is_over{false};
    std::vector<std::thread> threads;
    for (int number = 0; number < 3; ++number)
        threads.emplace_back([&is_over] {
            while (!is_over)
                asks_well();
        });
    int good = 0;
    for (int round = 0; round < 50 && good == round; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            is_forked_child = true;
            alarm(60); // ends a child that hangs
            if (!asks_well())
                _exit(1);
            std::exit(2); // turned into 0 on the way, unless something is left out there
        }
        int status = -1;
        good += waitpid(child, &status, 0) == child && status == 0;
    }
    is_over = true;
    for (std::thread &thread : threads)
        thread.join();
    std::exit(good);
}

TEST_F(Bridge, a_child_that_is_forked_while_threads_are_inside_asks_and_ends_as_any_process) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // in a process that has made no call yet
    EXPECT_EXIT(fork_while_others_ask(), testing::ExitedWithCode(50), "");
}

TEST_F(Bridge, the_library_can_be_unloaded_after_calls) {
    void *const library = dlopen(QZFI_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto bridge = reinterpret_cast<decltype(&fi_get_icuMsg)>(dlsym(library, "fi_get_icuMsg"));
    ASSERT_NE(bridge, nullptr);
    const auto ask = [&](const char *id, ...) {
        va_list none;
        va_start(none, id);
        const std::string text = text_of(bridge(id, "ja", none, 0));
        va_end(none);
        return text;
    };
    EXPECT_EQ(ask("MSG0"), "fi: メモリー不足");
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlopen(QZFI_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr);
    const pid_t child = fork(); // calls nothing of what is gone
    if (child == 0)
        _exit(0);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

bool reads_only(const char *text, std::vector<qzfi::PlaceholderArgument> arguments) {
    const qzfi::CatalogPattern pattern{text};
    return pattern.reads_only(arguments.data(), arguments.size());
}

TEST(CatalogPattern, numbers_agree_with_numbers_of_their_type) {
    using enum qzfi::PlaceholderArgument;
    EXPECT_TRUE(reads_only("no placeholder %s", {}));
    EXPECT_TRUE(reads_only("{0,number,integer}", {integer}));
    EXPECT_TRUE(reads_only("{ 0 , number , integer } '{1}'", {integer}));
    EXPECT_TRUE(reads_only("{1,number,integer} {0,number} {1,number,integer}", {real, integer, none}));
}

TEST(CatalogPattern, nothing_else_agrees) {
    using enum qzfi::PlaceholderArgument;
    for (const char *text : {"{0}",
                             "{1}",
                             "{2}",
                             "{0,number}",
                             "{0,number,percent}",
                             "{0,number,::currency/USD}",
                             "{0,number,#}",
                             "{0,number,}",
                             "{0,NUMBER,INTEGER}",
                             "{0,date}",
                             "{0,time,short}",
                             "{0,date,integer}",
                             "{0,spellout}",
                             "{0,ordinal}",
                             "{0,duration}",
                             "{name}",
                             "{name,number,integer}",
                             "{0,choice,0#a|1#b}",
                             "{0,plural,other{#}}",
                             "{0,selectordinal,other{#}}",
                             "{0,select,other{x}}",
                             "{1,number,integer}",
                             "{0,number,integer} {0}",
                             "{0,number,integer} {0,number}",
                             "{0,number,integer} {2}",
                             "{0,number,integer} {2,number,integer}",
                             "{5,number,integer}",
                             "{70,number,integer}",
                             "{9999}",
                             "{0,number,integer} {64,number,integer}"})
        EXPECT_FALSE(reads_only(text, {integer, real, integer})) << text;
    EXPECT_FALSE(reads_only("{0,number,integer}", {}));
    EXPECT_FALSE(reads_only("{0,number,integer}", {none}));
    EXPECT_FALSE(reads_only("{0,number,integer}", {real}));
    EXPECT_FALSE(reads_only("{0,plural,other{{1,number,integer}}}", {real, integer}));
}

TEST(CatalogPattern, what_icu_refuses_reads_nothing) {
    for (const char *text : {"{", "{0", "{0} {", "{0,number,integer} {1", "{70000}", "{}", "{-1}"})
        EXPECT_TRUE(reads_only(text, {})) << text;
    EXPECT_TRUE(reads_only(std::string(100, '{').c_str(), {}));
}

} // namespace
