#include <array>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "catalog_support.h"

namespace {

using namespace catalog_support;

const std::vector<std::string> rows = {
    "en_US english C POSIX", "ja_JP japanese",  "zh_CN chinese", "ko_KR korean",     "de_DE german",
    "es_ES spanish",         "it_IT italian",   "fr_FR french",  "pt_PT portuguese", "ca_ES catalan",
    "cs_CZ czech",           "da_DK danish",    "el_GR greek",   "fi_FI finish",     "he_IL hebrew",
    "hu_HU hungarian",       "is_IS icelandic", "nl_NL flemish", "no_NO norwegian",  "pl_PL polish",
    "ru_RU russian",         "sk_SK slovak",    "sv_SE swedish", "th_TH thai",       "tr_TR turkish",
};

std::string found(const std::string &request, uint32_t fallback = 0) {
    return taken(qzfi_findMsgCatalog(request.c_str(), fallback));
}

std::string processed(const char *key, int32_t locale_form, const char *line) {
    return taken(qzfi_processMappingLine(key, locale_form, line));
}

/// A word and how far its reading went.
std::pair<std::string, std::ptrdiff_t> next_word(const std::string &text) {
    std::array<char, 33> word;
    word.fill('#');
    const char *const end = qzfi_getNextLocaleName(text.c_str(), word.data());
    EXPECT_EQ(word[32], '#');
    return {word.data(), end - text.c_str()};
}

TEST(LocaleWord, ends_before_white_space_or_at_the_end) {
    using Result = std::pair<std::string, std::ptrdiff_t>;
    EXPECT_EQ(next_word("ja_JP japanese"), Result("ja_JP", 5));
    EXPECT_EQ(next_word(" \t\r\n\v\fja_JP\t"), Result("ja_JP", 11));
    EXPECT_EQ(next_word("ja_JP"), Result("ja_JP", 5));
    EXPECT_EQ(next_word(""), Result("", 0));
    EXPECT_EQ(next_word("  "), Result("", 2));
    EXPECT_EQ(next_word("\xc3\xa4 x"), Result("\xc3\xa4", 2));
}

TEST(LocaleWord, is_cut_to_31_characters_and_the_rest_is_dropped) {
    const std::string fits(31, 'a');
    EXPECT_EQ(next_word(fits + " b"), (std::pair<std::string, std::ptrdiff_t>(fits, 31)));
    EXPECT_EQ(next_word(fits + "b c"), (std::pair<std::string, std::ptrdiff_t>(fits, 32)));
    EXPECT_EQ(next_word(std::string(1000, 'a')), (std::pair<std::string, std::ptrdiff_t>(fits, 1000)));
}

TEST(CatalogDirectory, ends_in_a_slash) {
    EXPECT_STREQ(qzfi_msgcatalogdir(), "/usr/lumen/resources/");
}

TEST(MappingTable, has_these_rows_in_this_order) {
    std::vector<std::string> table;
    for (const char *const *row = qzfi_localeMappingTbl; *row != nullptr; ++row)
        table.push_back(*row);
    EXPECT_EQ(table, rows);
}

class OpenCatalog : public CatalogTest {};

TEST_F(OpenCatalog, the_plain_one_belongs_to_en_US_and_to_no_locale) {
    write_catalog("en_US", "");
    EXPECT_EQ(taken(qzfi_openMsgCatalog(nullptr)), plain_path);
    EXPECT_EQ(taken(qzfi_openMsgCatalog("en_US")), plain_path);
}

TEST_F(OpenCatalog, any_other_locale_has_its_own) {
    write_catalog("en_US", "");
    for (const char *const locale : {"en_US.UTF-8", "en_GB", "ja_JP", "EN_US", "x"}) {
        EXPECT_EQ(taken(qzfi_openMsgCatalog(locale)), "none") << locale;
        write_catalog(locale, "");
        EXPECT_EQ(taken(qzfi_openMsgCatalog(locale)), path_of(locale));
    }
    EXPECT_EQ(taken(qzfi_openMsgCatalog("")), "none");
    write_catalog("", "");
    EXPECT_EQ(taken(qzfi_openMsgCatalog("")), path_of(""));
}

TEST_F(OpenCatalog, a_path_is_cut_to_255_characters_with_both_slashes_counted) {
    const std::string doubled = "/usr/lumen/resources//";
    const std::string cut(255 - doubled.size(), 'x');
    private_root::write_file("resources/" + cut, "");
    EXPECT_EQ(taken(qzfi_openMsgCatalog((cut + "yyy").c_str())), "/usr/lumen/resources/" + cut);
    EXPECT_EQ(taken(qzfi_openMsgCatalog(std::string(5000, 'x').c_str())), "/usr/lumen/resources/" + cut);
    EXPECT_EQ(taken(qzfi_openMsgCatalog((cut.substr(1) + "yyy").c_str())), "none");
}

TEST_F(OpenCatalog, is_read_only_and_closed_in_other_programs) {
    write_catalog("en_US", "");
    const int32_t catalog = qzfi_openMsgCatalog(nullptr);
    ASSERT_NE(catalog, -1);
    EXPECT_EQ(fcntl(catalog, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(fcntl(catalog, F_GETFD), FD_CLOEXEC);
    close(catalog);
}

TEST_F(OpenCatalog, a_fifo_is_opened_without_waiting) {
    ASSERT_EQ(mkfifo(plain_path.c_str(), 0600), 0);
    EXPECT_EQ(taken(qzfi_openMsgCatalog(nullptr)), plain_path);
}

class MappingFile : public CatalogTest {
protected:
    static constexpr const char *path = "/usr/lumen/resources/Qfi-Locale-to-Language.txt";
};

TEST_F(MappingFile, is_a_stream_of_its_text_closed_in_other_programs) {
    EXPECT_EQ(qzfi_openLocaleMappingFile(), nullptr);
    write_mapping("ja_JP japanese\n");
    FILE *const stream = qzfi_openLocaleMappingFile();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
    char text[32] = "";
    EXPECT_STREQ(fgets(text, sizeof text, stream), "ja_JP japanese\n");
    fclose(stream);
}

TEST_F(MappingFile, is_nothing_but_a_regular_file) {
    const std::ptrdiff_t before = open_descriptors();
    ASSERT_EQ(mkfifo(path, 0600), 0);
    EXPECT_EQ(qzfi_openLocaleMappingFile(), nullptr);
    ASSERT_EQ(unlink(path), 0);
    ASSERT_EQ(mkdir(path, 0700), 0);
    EXPECT_EQ(qzfi_openLocaleMappingFile(), nullptr);
    ASSERT_EQ(rmdir(path), 0);
    ASSERT_EQ(symlink("/dev/zero", path), 0);
    EXPECT_EQ(qzfi_openLocaleMappingFile(), nullptr);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(MappingFile, comes_before_the_table) {
    write_catalog("ja_JP", "");
    write_catalog("de_DE", "");
    write_mapping("de_DE japanese\n");
    EXPECT_EQ(found("japanese"), path_of("de_DE"));
    EXPECT_EQ(found("german"), path_of("de_DE"));
}

TEST_F(MappingFile, lines_are_tried_in_order_until_one_has_a_catalog) {
    write_catalog("fr_FR", "");
    write_catalog("it_IT", "");
    write_mapping("de_DE nihongo\nfr_FR nihongo\nit_IT nihongo\n");
    EXPECT_EQ(found("nihongo"), path_of("fr_FR"));
}

TEST_F(MappingFile, without_a_catalog_of_its_own_the_table_is_asked) {
    write_catalog("ja_JP", "");
    write_mapping("de_DE japanese\n");
    EXPECT_EQ(found("japanese"), path_of("ja_JP"));
}

TEST_F(MappingFile, comments_and_empty_lines_are_ignored_and_the_last_line_needs_no_end) {
    write_catalog("de_DE", "");
    write_catalog("fr_FR", "");
    write_mapping("#de_DE word\n\n  \nfr_FR word");
    EXPECT_EQ(found("word"), path_of("fr_FR"));
}

TEST_F(MappingFile, a_comment_begins_the_line) {
    write_catalog("#de_DE", "");
    write_mapping(" #de_DE word\n");
    EXPECT_EQ(found("word"), path_of("#de_DE"));
}

TEST_F(MappingFile, lines_may_end_in_carriage_return) {
    write_catalog("de_DE", "");
    write_mapping("\r\nfr_FR other\r\nde_DE word\r\n");
    EXPECT_EQ(found("word"), path_of("de_DE"));
    EXPECT_EQ(found(""), "none");
}

TEST_F(MappingFile, a_line_is_cut_to_255_characters_and_the_rest_is_no_line) {
    write_catalog("de_DE", "");
    write_catalog("fr_FR", "");
    const std::string padding(255 - std::string("de_DE whole").size(), ' ');
    write_mapping("de_DE" + padding + " whole beyond\n");
    EXPECT_EQ(found("whole"), path_of("de_DE"));
    EXPECT_EQ(found("beyond"), "none");
    write_mapping("de_DE" + padding + " wholes\nfr_FR next\n");
    EXPECT_EQ(found("whole"), path_of("de_DE"));
    EXPECT_EQ(found("wholes"), "none");
    EXPECT_EQ(found("next"), path_of("fr_FR"));
    write_mapping(std::string(255, ' ') + "de_DE word\nfr_FR next\n");
    EXPECT_EQ(found("word"), "none");
    EXPECT_EQ(found("next"), path_of("fr_FR"));
    write_mapping("de_DE" + padding + " whole\nfr_FR next\n");
    EXPECT_EQ(found("whole"), path_of("de_DE"));
    EXPECT_EQ(found("next"), path_of("fr_FR"));
}

TEST_F(MappingFile, zero_bytes_end_a_line_for_its_words_only) {
    write_catalog("de_DE", "");
    write_catalog("fr_FR", "");
    write_mapping(std::string("de_DE one\0two\nfr_FR three\n", 26));
    EXPECT_EQ(found("one"), path_of("de_DE"));
    EXPECT_EQ(found("two"), "none");
    EXPECT_EQ(found("three"), path_of("fr_FR"));
}

class MappingLine : public CatalogTest {};

TEST_F(MappingLine, every_word_after_the_locale_stands_for_it) {
    write_catalog("ja_JP", "");
    EXPECT_EQ(processed("one", 0, "ja_JP one two"), path_of("ja_JP"));
    EXPECT_EQ(processed("two", 0, "  ja_JP\tone\ttwo\n"), path_of("ja_JP"));
    EXPECT_EQ(processed("three", 0, "ja_JP one two"), "none");
    EXPECT_EQ(processed("on", 0, "ja_JP one two"), "none");
    EXPECT_EQ(processed("One", 0, "ja_JP one two"), "none");
    EXPECT_EQ(processed("ja_JP", 0, "ja_JP one two"), "none");
}

TEST_F(MappingLine, with_the_locale_form_its_language_stands_for_it_too) {
    write_catalog("ja_JP", "");
    EXPECT_EQ(processed("ja", 1, "ja_JP one"), path_of("ja_JP"));
    EXPECT_EQ(processed("ja", -1, "ja_JP one"), path_of("ja_JP"));
    EXPECT_EQ(processed("ja", 0, "ja_JP one"), "none");
    EXPECT_EQ(processed("ja_JP", 1, "ja_JP one"), "none");
    EXPECT_EQ(processed("JP", 1, "ja_JP one"), "none");
    EXPECT_EQ(processed("one", 1, "ja_JP one"), path_of("ja_JP"));
}

TEST_F(MappingLine, a_language_needs_a_territory_and_has_three_letters_at_most) {
    for (const char *const locale : {"ja", "ja_", "jap", "japa_JP", "j4_JP", "ja_JP@x", "jap_JPNX"})
        write_catalog(locale, "");
    EXPECT_EQ(processed("ja", 1, "ja"), "none");
    EXPECT_EQ(processed("ja", 1, "ja_"), "none");
    EXPECT_EQ(processed("jap", 1, "jap"), "none");
    EXPECT_EQ(processed("jap", 1, "japa_JP"), "none");
    EXPECT_EQ(processed("j", 1, "j4_JP"), "none");
    EXPECT_EQ(processed("ja", 1, "ja_JP@x"), path_of("ja_JP@x"));
    EXPECT_EQ(processed("jap", 1, "jap_JPNX"), path_of("jap_JPNX"));
}

TEST_F(MappingLine, of_en_US_stands_for_the_plain_catalog) {
    write_catalog("en_US", "");
    EXPECT_EQ(processed("en", 1, "en_US english"), plain_path);
    EXPECT_EQ(processed("english", 0, "en_US english"), plain_path);
}

TEST_F(MappingLine, no_word_is_empty) {
    write_catalog("", "");
    write_catalog("ja_JP", "");
    EXPECT_EQ(processed("", 0, "ja_JP one "), "none");
    EXPECT_EQ(processed("", 1, "ja_JP"), "none");
    EXPECT_EQ(processed("", 1, ""), "none");
    EXPECT_EQ(processed("", 1, "  "), "none");
}

TEST_F(MappingLine, without_the_catalog_gives_none) {
    EXPECT_EQ(processed("ja", 1, "ja_JP ja ja"), "none");
}

class FindCatalog : public CatalogTest {};

TEST_F(FindCatalog, every_word_of_every_row_reaches_its_locale) {
    for (const std::string &row : rows)
        write_catalog(row.substr(0, 5), "");
    for (const std::string &row : rows) {
        std::istringstream words(row);
        std::string locale;
        words >> locale;
        for (std::string word; words >> word;)
            EXPECT_EQ(found(word), path_of(locale)) << word;
    }
}

TEST_F(FindCatalog, every_locale_of_a_row_is_opened_directly) {
    for (const std::string &row : rows)
        write_catalog(row.substr(0, 5), "");
    for (const std::string &row : rows) {
        const std::string locale = row.substr(0, 5);
        EXPECT_EQ(found(locale), path_of(locale));
        EXPECT_EQ(found(locale + ".UTF-8"), path_of(locale));
        EXPECT_EQ(found(locale + "."), path_of(locale));
    }
}

TEST_F(FindCatalog, a_locale_needs_no_row) {
    write_catalog("xx_YYY", "");
    EXPECT_EQ(found("xx_YYY"), path_of("xx_YYY"));
    EXPECT_EQ(found("xx_YYY.eucJP@x"), path_of("xx_YYY"));
}

TEST_F(FindCatalog, a_locale_comes_before_the_mappings) {
    write_catalog("ja_JP", "");
    write_catalog("de_DE", "");
    write_mapping("de_DE ja_JP\n");
    EXPECT_EQ(found("ja_JP"), path_of("ja_JP"));
    EXPECT_EQ(found("ja_JP.UTF-8"), path_of("ja_JP"));
}

TEST_F(FindCatalog, the_mappings_add_nothing_for_a_locale) {
    write_catalog("ja_JP", "");
    EXPECT_EQ(found("ja_XX"), "none");
    write_mapping("ja_JP ja ja_YY\n");
    EXPECT_EQ(found("ja_XX"), "none");
    EXPECT_EQ(found("ja_YY"), path_of("ja_JP")) << "a word that spells the locale is a word";
}

TEST_F(FindCatalog, another_modifier_leaves_the_language_letters_only) {
    const auto requests = {"ja_JP@x", "ja_JPNX", "ja_JP_X", "ja_JP9", "ja_JP UTF-8", "ja_", "ja", "ja_1"};
    write_catalog("ja_JP", "");
    for (const char *const request : requests)
        EXPECT_EQ(found(request), "none") << request;
    write_mapping("ja_JP ja\n");
    for (const char *const request : requests)
        EXPECT_EQ(found(request), path_of("ja_JP")) << request;
}

TEST_F(FindCatalog, a_word_is_its_leading_letters) {
    write_catalog("ja_JP", "");
    EXPECT_EQ(found("japanese"), path_of("ja_JP"));
    EXPECT_EQ(found("japanese.UTF-8"), path_of("ja_JP"));
    EXPECT_EQ(found("japanese_JP"), path_of("ja_JP"));
    EXPECT_EQ(found("japanesex"), "none");
    EXPECT_EQ(found("Japanese"), "none");
    EXPECT_EQ(found(" japanese"), "none");
}

TEST_F(FindCatalog, a_word_is_cut_to_31_letters) {
    write_catalog("ja_JP", "");
    const std::string word(31, 'w');
    write_mapping("ja_JP " + word + "\n");
    EXPECT_EQ(found(word), path_of("ja_JP"));
    EXPECT_EQ(found(word + "more"), path_of("ja_JP"));
    EXPECT_EQ(found(word.substr(1)), "none");
}

TEST_F(FindCatalog, the_names_of_the_c_locale_reach_the_plain_one) {
    write_catalog("en_US", "");
    for (const char *const request : {"C", "POSIX", "english", "C.UTF-8", "en_US", "en_US.UTF-8"})
        EXPECT_EQ(found(request), plain_path) << request;
}

TEST_F(FindCatalog, only_finish_reaches_Finland_and_only_flemish_the_Netherlands) {
    write_catalog("fi_FI", "");
    write_catalog("nl_NL", "");
    EXPECT_EQ(found("finish"), path_of("fi_FI"));
    EXPECT_EQ(found("finnish"), "none");
    EXPECT_EQ(found("flemish"), path_of("nl_NL"));
    EXPECT_EQ(found("dutch"), "none");
}

TEST_F(FindCatalog, the_plain_one_is_the_fallback_for_the_flag_1_only) {
    write_catalog("en_US", "");
    for (const char *const request : {"finnish", "ja_JP", "ja_JP@x", "", "123", "japanese"}) {
        EXPECT_EQ(found(request, 1), plain_path) << request;
        for (const uint32_t flag : {0U, 2U, 3U, UINT32_MAX})
            EXPECT_EQ(found(request, flag), "none") << request;
    }
}

TEST_F(FindCatalog, without_any_there_is_none) {
    EXPECT_EQ(found("japanese", 1), "none");
    EXPECT_EQ(found("C", 1), "none");
}

TEST_F(FindCatalog, no_descriptor_but_the_result_stays_open) {
    write_catalog("ja_JP", "");
    write_mapping("de_DE japanese\nja_JP japanese\n");
    const std::ptrdiff_t before = open_descriptors();
    const int32_t catalog = qzfi_findMsgCatalog("japanese", 1);
    EXPECT_EQ(open_descriptors(), before + 1);
    EXPECT_EQ(taken(catalog), path_of("ja_JP"));
}

} // namespace
