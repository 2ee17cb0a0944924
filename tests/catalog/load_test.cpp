#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>
#include <utility>

#include <qzfi/messages.h>

#include "load_hooks.h"
#include "util/qzfiutil_settings.h"

namespace {

using namespace catalog_support;
using namespace std::string_literals;

class LoadCatalog : public load_hooks::LoadTest {
protected:
    void TearDown() override {
        std::setlocale(LC_ALL, "C");
        LoadTest::TearDown();
    }

    /// Makes a content the plain catalog, which is what the C locale asks for, and loads it.
    static void load(const std::string &content) {
        qzfi_ufini();
        write_catalog("en_US", content);
        qzfi_getlfmt("");
    }
    static bool is_loaded() { return lfmts != nullptr; }

    static void expect_nothing_loaded() {
        EXPECT_EQ(format_of("key"), std::nullopt);
        EXPECT_EQ(lfmtbuf, nullptr);
        EXPECT_EQ(lfmts, nullptr);
        EXPECT_EQ(nlfmt, 0);
        EXPECT_EQ(lfmtbusy, 0);
        EXPECT_TRUE(lock_is_free());
    }

    /// Makes the C library know a locale and sets it for messages; false when it has none to make it of.
    static bool set_locale(const std::string &name) {
        const std::filesystem::path model = "/usr/lib/locale/C.utf8";
        if (!std::filesystem::exists(model))
            return false;
        const std::string directory = private_root::make_directories("locales/" + name);
        std::filesystem::copy(model, directory,
                              std::filesystem::copy_options::recursive |
                                  std::filesystem::copy_options::overwrite_existing);
        setenv("LOCPATH", "/usr/lumen/locales", 1);
        return std::setlocale(LC_MESSAGES, name.c_str()) != nullptr;
    }
};

TEST_F(LoadCatalog, a_key_gives_its_format) {
    load("first \"one\"\nsecond \"two words: %s\"\n");
    EXPECT_EQ(format_of("first"), "one");
    EXPECT_EQ(format_of("second"), "two words: %s");
    EXPECT_EQ(format_of("third"), std::nullopt);
    EXPECT_EQ(format_of("firs"), std::nullopt);
    EXPECT_EQ(format_of("First"), std::nullopt);
    EXPECT_EQ(format_of(""), std::nullopt);
    EXPECT_EQ(nlfmt, 2);
    EXPECT_STREQ(lfmts[0].key, "first");
    EXPECT_STREQ(lfmts[1].key, "second");
}

TEST_F(LoadCatalog, a_line_is_a_word_then_blanks_then_a_quoted_text_then_anything) {
    load(" \t lead \"a\"\nb\t\t \"tabs\" rest \"more\"\nc \"\"\nd  \" in \t side \"\n"
         "e junk \"f\"\ng\"h i\" \"j\"\r\nk' \"it's\"\x80\xff\n\"l\" \"m\"\n");
    EXPECT_EQ(nlfmt, 8);
    EXPECT_EQ(format_of("lead"), "a");
    EXPECT_EQ(format_of("b"), "tabs");
    EXPECT_EQ(format_of("c"), "");
    EXPECT_EQ(format_of("d"), " in \t side ");
    EXPECT_EQ(format_of("e"), "f");
    EXPECT_EQ(format_of("g\"h"), " ");
    EXPECT_EQ(format_of("k'"), "it's");
    EXPECT_EQ(format_of("\"l\""), "m");
}

TEST_F(LoadCatalog, escapes_are_expanded_in_formats_and_not_in_keys) {
    load("a\\n \"one\\ttwo\\n\\065\\q\\\\\"\nb \"end\\\"\n");
    EXPECT_EQ(format_of("a\\n"), "one\ttwo\nA\\");
    EXPECT_EQ(format_of("b"), "end") << "a backslash does not keep a quote from closing";
}

TEST_F(LoadCatalog, the_first_of_equal_keys_in_the_file_counts) {
    std::string content;
    for (int number = 0; number < 100; ++number)
        content += "key" + std::to_string(number % 10) + " \"" + std::to_string(number) + "\"\n";
    load(content);
    EXPECT_EQ(nlfmt, 100);
    for (int number = 0; number < 10; ++number)
        EXPECT_EQ(format_of(("key" + std::to_string(number)).c_str()), std::to_string(number));
}

TEST_F(LoadCatalog, every_one_of_ten_thousand_keys_is_found) {
    std::string content;
    for (int number = 0; number < 10000; ++number)
        content += "MSG_QFI_E" + std::to_string(number) + " \"" + std::to_string(number) + "\"\n";
    load(content);
    for (int number = 0; number < 10000; ++number)
        ASSERT_EQ(format_of(("MSG_QFI_E" + std::to_string(number)).c_str()), std::to_string(number));
    EXPECT_EQ(format_of("MSG_QFI_E10000"), std::nullopt);
}

/// Two keys that an index of up to three entries cannot tell apart but by their texts: their hashes agree in the upper
/// half, which it keeps, and in the place.
std::pair<std::string, std::string> keys_of_one_slot() {
    std::unordered_map<std::size_t, std::string> seen;
    for (int number = 0;; ++number) {
        const std::string key = "key" + std::to_string(number);
        const std::size_t hash = std::hash<std::string_view>{}(key);
        const auto [other, is_new] = seen.emplace((hash >> 32 << 3) | (hash & 7), key);
        if (!is_new)
            return {other->second, key};
    }
}

TEST_F(LoadCatalog, keys_with_hashes_alike_are_told_apart) {
    const auto [first, second] = keys_of_one_slot();
    load(first + " \"one\"\n");
    EXPECT_EQ(format_of(first.c_str()), "one");
    EXPECT_EQ(format_of(second.c_str()), std::nullopt);
    load(first + " \"one\"\n" + second + " \"two\"\n");
    EXPECT_EQ(format_of(first.c_str()), "one");
    EXPECT_EQ(format_of(second.c_str()), "two");
}

TEST_F(LoadCatalog, every_truncation_loads_its_whole_lines) {
    const std::string content = " k1 \"one\" x\n\tk2\t\"two\\n\"\r\nk3 \"\"\n";
    const std::pair<const char *, const char *> entries[] = {{"k1", "one"}, {"k2", "two\n"}, {"k3", ""}};
    for (std::size_t length = 0; length <= content.size(); ++length) {
        const std::string part = content.substr(0, length);
        SCOPED_TRACE(part);
        load(part);
        const auto lines = std::count(part.begin(), part.end(), '\n');
        EXPECT_EQ(nlfmt, lines);
        for (std::ptrdiff_t number = 0; number < 3; ++number) {
            const auto &[key, format] = entries[number];
            EXPECT_EQ(format_of(key), number < lines ? std::optional<std::string>(format) : std::nullopt);
        }
    }
}

TEST_F(LoadCatalog, one_line_that_ends_early_keeps_all_from_loading) {
    for (const std::string bad : {"", " ", "\t", "\r", "word", " word", "word ", "word\t ", "word format", "word \"",
                                  "word \"format", "word 'format'", "word\"format\"", "\"format\"", "\"a b\"", "#"}) {
        for (const std::string &content : {bad + "\n", "key \"format\"\n" + bad + "\n", bad + "\nkey \"format\"\n",
                                           "key \"a\"\n" + bad + "\nkey2 \"b\"\n"}) {
            SCOPED_TRACE(content);
            load(content);
            expect_nothing_loaded();
        }
    }
}

TEST_F(LoadCatalog, quotes_are_not_closed_by_the_next_line) {
    load("key \"one\nkey2 \"two\"\n");
    expect_nothing_loaded();
}

TEST_F(LoadCatalog, an_unfinished_last_line_is_not_counted_and_not_parsed) {
    load("key \"format\"\nlast \"lost\"");
    EXPECT_EQ(nlfmt, 1);
    EXPECT_EQ(format_of("key"), "format");
    EXPECT_EQ(format_of("last"), std::nullopt);
    load("key \"format\"\nbad");
    EXPECT_EQ(format_of("key"), "format");
}

TEST_F(LoadCatalog, zero_bytes_end_the_text_that_they_stand_in) {
    load("ke\0y \"fo\0rmat\"\n\0x \"y\"\nlast\0 \0\"z\"\n"s);
    EXPECT_EQ(nlfmt, 3);
    EXPECT_EQ(format_of("ke"), "fo");
    EXPECT_EQ(format_of(""), "y");
    EXPECT_EQ(format_of("last"), "z");
    load(std::string(4096, '\0'));
    EXPECT_EQ(nlfmt, 0);
    EXPECT_EQ(format_of(""), std::nullopt);
    load("\0\n"s);
    expect_nothing_loaded();
}

TEST_F(LoadCatalog, keys_and_formats_have_any_length) {
    const std::string key(1 << 20, 'k');
    const std::string format(1 << 20, 'f');
    load(key + " \"" + format + "\"\n" + key + "2 \"other\"\n");
    EXPECT_EQ(format_of(key.c_str()), format);
    EXPECT_EQ(format_of((key + "2").c_str()), "other");
    EXPECT_EQ(format_of(key.substr(1).c_str()), std::nullopt);
}

TEST_F(LoadCatalog, a_file_of_64_mebibytes_loads) {
    constexpr std::size_t lines = 1 << 16;
    constexpr std::size_t line_length = 1 << 10;
    std::string content;
    content.reserve(lines * line_length);
    for (std::size_t number = 0; number < lines; ++number) {
        const std::string start = "key" + std::to_string(number) + " \"";
        content += start + std::string(line_length - start.size() - 2, 'x') + "\"\n";
    }
    ASSERT_EQ(content.size(), 64U << 20);
    load(content);
    EXPECT_EQ(nlfmt, static_cast<int32_t>(lines));
    EXPECT_EQ(format_of("key65535"), std::string(line_length - std::strlen("key65535 \"") - 2, 'x'));
}

TEST_F(LoadCatalog, an_empty_file_loads_nothing_and_is_tried_again) {
    load("");
    expect_nothing_loaded();
    write_catalog("en_US", "key \"format\"\n");
    EXPECT_EQ(format_of("key"), "format");
}

TEST_F(LoadCatalog, what_is_no_regular_file_loads_nothing) {
    const std::ptrdiff_t before = open_descriptors();
    ASSERT_EQ(mkdir(plain_path.c_str(), 0700), 0);
    expect_nothing_loaded();
    ASSERT_EQ(rmdir(plain_path.c_str()), 0);
    ASSERT_EQ(mkfifo(plain_path.c_str(), 0600), 0);
    expect_nothing_loaded();
    const int writer = open(plain_path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(write(writer, "key \"format\"\n", 13), 13);
    expect_nothing_loaded();
    close(writer);
    ASSERT_EQ(unlink(plain_path.c_str()), 0);
    ASSERT_EQ(symlink("/dev/zero", plain_path.c_str()), 0);
    expect_nothing_loaded();
    ASSERT_EQ(unlink(plain_path.c_str()), 0);
    ASSERT_EQ(symlink("ZELTqzfi.cat", plain_path.c_str()), 0);
    expect_nothing_loaded();
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(LoadCatalog, a_file_that_shrinks_meanwhile_loads_nothing) {
    write_catalog("en_US", std::string(100000, ' ') + "key \"format\"\n");
    load_hooks::before_read = [] { ASSERT_EQ(truncate(plain_path.c_str(), 10), 0); };
    expect_nothing_loaded();
    load_hooks::before_read = [] { ASSERT_EQ(truncate(plain_path.c_str(), 0), 0); };
    expect_nothing_loaded();
}

TEST_F(LoadCatalog, of_a_file_that_grows_meanwhile_only_its_first_size_counts) {
    write_catalog("en_US", "key \"format\"\n");
    load_hooks::before_read = [] { write_catalog("en_US", "key \"format\"\nmore \"text\"\n"); };
    EXPECT_EQ(format_of("key"), "format");
    EXPECT_EQ(format_of("more"), std::nullopt);
    EXPECT_EQ(nlfmt, 1);
}

TEST_F(LoadCatalog, without_a_language_nothing_is_loaded) {
    write_catalog("en_US", "key \"format\"\n");
    qzfi_setlang(2);
    deinitlc();
    EXPECT_STREQ(qzfi_lang, "");
    expect_nothing_loaded();
    EXPECT_EQ(load_hooks::loads, 0);
    qzfi_setlang(1);
    EXPECT_EQ(format_of("key"), "format");
    deinitlc();
    EXPECT_EQ(format_of("key"), std::nullopt) << "nor is a loaded one looked at";
}

TEST_F(LoadCatalog, a_loaded_catalog_is_never_loaded_again) {
    load("key \"format\"\n");
    const char *const format = qzfi_getlfmt("key");
    write_catalog("en_US", "key \"other\"\n");
    EXPECT_EQ(qzfi_getlfmt("key"), format);
    EXPECT_STREQ(format, "format");
    EXPECT_EQ(qzfi_getlfmt("other"), nullptr);
    EXPECT_EQ(load_hooks::loads, 1);
}

TEST_F(LoadCatalog, one_without_a_whole_line_is_loaded_too) {
    load("key \"format\"");
    EXPECT_EQ(nlfmt, 0);
    EXPECT_TRUE(is_loaded());
    write_catalog("en_US", "key \"format\"\n");
    EXPECT_EQ(format_of("key"), std::nullopt);
    EXPECT_EQ(load_hooks::loads, 1);
}

TEST_F(LoadCatalog, a_failed_load_is_tried_again_by_the_next_call) {
    expect_nothing_loaded();
    write_catalog("en_US", "\n");
    expect_nothing_loaded();
    EXPECT_EQ(load_hooks::loads, 2);
    write_catalog("en_US", "key \"format\"\n");
    EXPECT_EQ(format_of("key"), "format");
    EXPECT_EQ(load_hooks::loads, 3);
}

TEST_F(LoadCatalog, shutdown_releases_it_and_the_next_call_loads) {
    load("key \"format\"\n");
    qzfi_ufini();
    EXPECT_EQ(lfmtbuf, nullptr);
    EXPECT_EQ(lfmts, nullptr);
    EXPECT_EQ(nlfmt, 0);
    write_catalog("en_US", "key \"other\"\n");
    EXPECT_EQ(format_of("key"), "other");
    qzfi_ufini();
    qzfi_ufini();
}

TEST_F(LoadCatalog, no_descriptor_stays_open) {
    const std::ptrdiff_t before = open_descriptors();
    load("key \"format\"\n");
    EXPECT_EQ(open_descriptors(), before);
    load("\n");
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(LoadCatalog, without_a_locale_it_is_the_plain_one) {
    write_catalog("en_US", "key \"plain\"\n");
    write_catalog("de_DE", "key \"mapped\"\n");
    write_mapping("de_DE C POSIX english\n");
    load_hooks::has_no_locale = true;
    EXPECT_EQ(format_of("key"), "plain");
}

TEST_F(LoadCatalog, the_locale_for_messages_chooses_the_file) {
    if (!set_locale("ja_JP.UTF-8"))
        GTEST_SKIP() << "the C library has no locale to copy";
    EXPECT_STREQ(qzfi_getlocale(), "ja_JP.UTF-8");
    write_catalog("en_US", "key \"plain\"\n");
    EXPECT_EQ(format_of("key"), "plain") << "without a catalog of its own";
    qzfi_ufini();
    write_catalog("ja_JP", "key \"\u65e5\u672c\"\n");
    EXPECT_EQ(format_of("key"), "\u65e5\u672c");
    std::setlocale(LC_MESSAGES, "C");
    EXPECT_STREQ(qzfi_getlocale(), "C");
    EXPECT_EQ(format_of("key"), "\u65e5\u672c") << "once loaded, it stays";
}

TEST_F(LoadCatalog, a_language_word_as_locale_goes_through_the_mappings) {
    if (!set_locale("chinese"))
        GTEST_SKIP() << "the C library has no locale to copy";
    write_catalog("en_US", "key \"plain\"\n");
    write_catalog("zh_CN", "key \"zh\"\n");
    write_catalog("de_DE", "key \"de\"\n");
    EXPECT_EQ(format_of("key"), "zh");
    qzfi_ufini();
    write_mapping("de_DE chinese\n");
    EXPECT_EQ(format_of("key"), "de");
}

} // namespace
