// ICU out of memory: its allocator is replaced before anything else of it runs, and told to fail.
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <set>

#include <gtest/gtest.h>
#include <unicode/locid.h>
#include <unicode/uclean.h>

#include "msgcat_support.h"
#include "support/private_root.h"

namespace {

using namespace qzfi_pdk_4_4;
using msgcat_support::plain;

/// The allocation that fails, counted from 1; 0 is none.
int failing = 0;
bool from_then_on = false;
int allocations = 0;

bool fails() {
    ++allocations;
    return failing != 0 && (from_then_on ? allocations >= failing : allocations == failing);
}

void *U_CALLCONV allocate(const void *, size_t size) {
    return fails() ? nullptr : std::malloc(size);
}

void *U_CALLCONV reallocate(const void *, void *memory, size_t size) {
    return fails() ? nullptr : std::realloc(memory, size);
}

void U_CALLCONV release(const void *, void *memory) {
    std::free(memory);
}

const UErrorCode replaced = [] {
    UErrorCode status = U_ZERO_ERROR;
    u_setMemoryFunctions(nullptr, allocate, reallocate, release, &status);
    return status;
}();

/// Runs an action with ICU's first, second, ... allocation failing, alone and with all later ones, until it makes no
/// such allocation; `check` gets the result and whether one failed.
template <class Result>
void fail_each(const std::function<Result()> &action, const std::function<void(const Result &, bool)> &check) {
    ASSERT_EQ(replaced, U_ZERO_ERROR);
    for (const bool rest : {false, true}) {
        for (int nth = 1;; ++nth) {
            SCOPED_TRACE(testing::Message() << "allocation " << nth << (rest ? " and later" : " alone"));
            // ICU waits for itself forever when this first use of its own finds no memory.
            icu::Locale::getDefault();
            from_then_on = rest;
            allocations = 0;
            failing = nth;
            const Result result = action();
            failing = 0;
            const bool fired = allocations >= nth;
            check(result, fired);
            if (!fired)
                break;
            ASSERT_LT(nth, 100000);
        }
    }
}

/// A text, or none when memory was short.
using Text = std::optional<std::string>;

Text text_or_none(const std::function<std::string()> &action) {
    try {
        return action();
    } catch (const std::bad_alloc &) {
        return std::nullopt;
    }
}

const std::string long_text(100, 'v'); // does not fit into a Unicode string itself

std::string serialized_message() {
    const icu::Formattable arguments[] = {icu::Formattable(icu::UnicodeString::fromUTF8(long_text)),
                                          icu::Formattable(int32_t{12}), icu::Formattable(2.5)};
    return CFiIcuMessage("ID", 2, arguments, 3).serialize();
}

TEST(IcuMemory, a_message_is_read_whole_or_runs_short) {
    const std::string serialized = serialized_message();
    int shortages = 0;
    fail_each<Text>(
        [&] {
            return text_or_none([&] {
                CFiIcuMessage message;
                const qfi_msg_info record{serialized.c_str()};
                message.deserialize(&record);
                failing = 0;
                return message.serialize();
            });
        },
        [&](const Text &text, bool fired) {
            if (text) {
                EXPECT_EQ(*text, serialized);
            }
            EXPECT_TRUE(fired || text);
            shortages += text ? 0 : 1;
        });
    EXPECT_GT(shortages, 0);
}

TEST(IcuMemory, a_message_is_made_of_arguments_whole_or_runs_short) {
    const icu::Formattable arguments[] = {icu::Formattable(icu::UnicodeString::fromUTF8(long_text))};
    const std::string expected = CFiIcuMessage("ID", 2, arguments, 1).serialize();
    fail_each<Text>(
        [&] {
            return text_or_none([&] {
                CFiIcuMessage message{"ID", 2, arguments, 1};
                failing = 0;
                return message.serialize();
            });
        },
        [&](const Text &text, bool fired) {
            if (text) {
                EXPECT_EQ(*text, expected);
            }
            EXPECT_TRUE(fired || text);
        });
}

// Texts only: the number formats of some versions of ICU do not survive a lack of memory, whoever calls them.
TEST(IcuMemory, a_message_is_formatted_or_gives_its_pattern_or_what_was_formatted_so_far) {
    const icu::Formattable arguments[] = {icu::Formattable(icu::UnicodeString::fromUTF8(long_text))};
    CFiIcuMessage message{"ID", 2, arguments, 1};
    const std::string pattern = "long enough a text for memory of its own: {0} and the rest";
    const std::string expected = "long enough a text for memory of its own: " + long_text + " and the rest";
    std::set<std::string> seen;
    fail_each<Text>(
        [&] {
            return text_or_none([&] { return plain(message.formatMessage(ACE_String_Base<char>{pattern.c_str()})); });
        },
        [&](const Text &text, bool fired) {
            EXPECT_TRUE(fired || text == expected);
            if (!text)
                return;
            seen.insert(*text);
            EXPECT_TRUE(*text == pattern || expected.compare(0, text->size(), *text) == 0) << *text;
        });
    EXPECT_EQ(seen.count(expected), 1U);
}

class IcuMemoryOfCatalogs : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
        private_root::make_bundles("resources/libfi", {{"root", "root { KEY { \"" + long_text + "\" } }"},
                                                       {"en", "en { KEY { \"en " + long_text + "\" } }"}});
    }
};

TEST_F(IcuMemoryOfCatalogs, a_catalog_opens_or_fails_and_has_the_text_or_the_bracketed_id) {
    const std::string found = "fi: en " + long_text;
    std::set<std::string> seen;
    fail_each<Text>(
        [&] {
            return text_or_none([&] {
                CFiIcuMessageCatalog catalog{"en", "fi"};
                const int32_t status = catalog.init();
                const std::string text = plain(catalog.getMessage("KEY", nullptr));
                return std::to_string(status) + " " + text;
            });
        },
        [&](const Text &text, bool fired) {
            EXPECT_TRUE(fired || text == "0 " + found);
            if (text)
                seen.insert(*text);
            u_cleanup(); // so that the next opens the bundle's files again
        });
    EXPECT_TRUE(seen.count("0 " + found) == 1 && seen.count("3 fi: <KEY>") == 1);
    for (const std::string &text : seen)
        EXPECT_TRUE(text == "0 " + found || text == "3 fi: <KEY>" || text == "0 fi: <KEY>") << text;
}

} // namespace
