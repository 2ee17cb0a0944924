#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdlib>

#include <gtest/gtest.h>
#include <unicode/msgfmt.h>
#include <unicode/umsg.h>

#include "texts.h"
#include "util/qzfiutil_format.h"

namespace {

/// The arguments that a format takes, each as its position and the letter of its conversion, sorted by position.
/// A conversion of another form than "%s" or "%2$s" is taken in whole, and so equals none.
std::vector<std::string> arguments_of(const std::string &format) {
    std::vector<std::string> arguments;
    for (size_t at = format.find('%'); at != std::string::npos; at = format.find('%', at)) {
        if (format.compare(at, 2, "%%") == 0) {
            at += 2;
            continue;
        }
        const size_t digits_end = std::min(format.find_first_not_of("0123456789", at + 1), format.size());
        const bool is_numbered = digits_end != at + 1 && format[digits_end] == '$';
        const size_t letter = is_numbered ? digits_end + 1 : at + 1;
        const bool is_plain = letter < format.size() && std::isalpha(static_cast<unsigned char>(format[letter])) != 0;
        const std::string position =
            is_numbered ? format.substr(at + 1, digits_end - at - 1) : std::to_string(arguments.size() + 1);
        arguments.push_back(position + " " + (is_plain ? format.substr(letter, 1) : format.substr(at)));
        at = letter;
    }
    std::sort(arguments.begin(), arguments.end());
    return arguments;
}

/// Formats a translation as the library does; "(refused)" when it holds what the library does not trust.
std::string formatted(const char *translation, const char *english, ...) {
    char buffer[2048];
    va_list arguments;
    va_start(arguments, english);
    const bool is_safe = qzfi::format_translation(buffer, sizeof buffer, translation, english, arguments);
    va_end(arguments);
    return is_safe ? buffer : "(refused)";
}

TEST(Bundles, conversions_are_told_apart) {
    using List = std::vector<std::string>;
    EXPECT_EQ(arguments_of("no argument, 100%%"), List());
    EXPECT_EQ(arguments_of("%s: %s, %d"), (List{"1 s", "2 s", "3 d"}));
    EXPECT_EQ(arguments_of("%1$s: %3$d %2$s"), (List{"1 s", "2 s", "3 d"}));
    EXPECT_EQ(arguments_of("%2$s %2$s"), (List{"2 s", "2 s"}));
    EXPECT_EQ(arguments_of("%5d|"), (List{"1 %5d|"}));
    EXPECT_EQ(arguments_of("%"), (List{"1 %"}));
}

TEST(Bundles, the_root_bundle_holds_the_english_texts_of_the_code) {
    const Texts english = english_texts();
    EXPECT_EQ(english.size(), 28u + 23u + 35u + 19u);
    EXPECT_EQ(bundle_texts("root"), english);
}

TEST(Bundles, every_translation_has_the_messages_of_the_code_and_no_other) {
    for (const Translation &each : translations)
        EXPECT_EQ(ids_of(bundle_texts(each.bundle)), ids_of(english_texts())) << each.bundle;
}

TEST(Bundles, a_translated_text_takes_exactly_the_arguments_of_the_english_one) {
    const Texts english = english_texts();
    for (const Translation &each : translations)
        for (const auto &[id, text] : bundle_texts(each.bundle))
            EXPECT_EQ(arguments_of(text), arguments_of(english.at(id))) << each.bundle << " " << id;
}

TEST(Bundles, every_text_is_one_that_the_library_formats) {
    constexpr std::array words = {"first", "second", "third", "fourth", "fifth"};
    const Texts english = english_texts();
    for (const char *locale : {"root", "ja", "zh"})
        for (const auto &[id, text] : bundle_texts(locale)) {
            const char *const format = english.at(id).c_str();
            // The one message with a number is the first of the raised ones.
            const std::string result =
                id == "MSG_QFI_UTIL_E0041"
                    ? formatted(text.c_str(), format, words[0], words[1], 3)
                    : formatted(text.c_str(), format, words[0], words[1], words[2], words[3], words[4]);
            EXPECT_NE(result, "(refused)") << locale << " " << id;
            const size_t count = arguments_of(text).size();
            for (size_t i = 0; i < words.size() && !(id == "MSG_QFI_UTIL_E0041" && i == 2); ++i)
                EXPECT_EQ(result.find(words[i]) != std::string::npos, i < count) << locale << " " << id;
        }
}

TEST(Bundles, message_formatting_leaves_every_text_as_it_is) {
    for (const char *locale : {"root", "ja", "zh"})
        for (const auto &[id, text] : bundle_texts(locale)) {
            const icu::UnicodeString pattern = icu::UnicodeString::fromUTF8(text);
            UErrorCode status = U_ZERO_ERROR;
            icu::UnicodeString result;
            icu::MessageFormat::format(pattern, nullptr, 0, result, status);
            EXPECT_EQ(status, U_ZERO_ERROR) << locale << " " << id;
            EXPECT_EQ(result, pattern) << locale << " " << id;

            UChar buffer[256];
            status = U_ZERO_ERROR;
            const int32_t length = u_formatMessage(locale, pattern.getBuffer(), pattern.length(), buffer, 256, &status);
            EXPECT_EQ(status, U_ZERO_ERROR) << locale << " " << id;
            EXPECT_EQ(icu::UnicodeString(buffer, length), pattern) << locale << " " << id;
        }
}

TEST(Bundles, no_translation_was_forgotten) {
    const Texts english = english_texts();
    for (const Translation &each : translations)
        for (const auto &[id, text] : bundle_texts(each.bundle))
            EXPECT_NE(text, english.at(id)) << each.bundle << " " << id;
}

} // namespace
