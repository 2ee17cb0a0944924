#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "texts.h"

namespace {

struct Entry {
    std::string id;
    std::string text;
};

std::string content_of(const std::string &catalog) {
    std::ifstream in(QZFI_RESOURCES "/" + catalog, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << catalog;
    return {std::istreambuf_iterator<char>(in), {}};
}

/// The entries of a catalog file, escapes expanded as the library does; each line must be one.
std::vector<Entry> entries_of(const std::string &catalog) {
    static const std::regex form(R"re(([A-Z0-9_]+)[ \t]+"([^"]*)")re");
    std::vector<Entry> entries;
    std::istringstream lines(content_of(catalog));
    for (std::string line; std::getline(lines, line);) {
        std::smatch entry;
        if (!std::regex_match(line, entry, form)) {
            ADD_FAILURE() << catalog << " has a line of another form: " << line;
            continue;
        }
        std::string text = entry[2];
        expandfmt(text.data());
        entries.push_back({entry[1], text.c_str()});
    }
    return entries;
}

Texts texts_of(const std::vector<Entry> &entries) {
    Texts texts;
    for (const Entry &entry : entries)
        texts[entry.id] = entry.text;
    return texts;
}

const std::vector<std::string> catalogs = {"ZELTqzfi.cat", translations[0].catalog, translations[1].catalog};

// A last line without a newline is not read, and an empty one makes the whole file unreadable.
TEST(Catalogs, every_line_is_an_entry_and_ends_with_a_newline) {
    for (const std::string &catalog : catalogs) {
        const std::string content = content_of(catalog);
        ASSERT_FALSE(content.empty()) << catalog;
        EXPECT_EQ(content.back(), '\n') << catalog;
        EXPECT_EQ(entries_of(catalog).size(), english_texts().size()) << catalog;
    }
}

TEST(Catalogs, entries_are_sorted_by_id_each_once) {
    for (const std::string &catalog : catalogs) {
        const std::vector<Entry> entries = entries_of(catalog);
        for (size_t i = 1; i < entries.size(); ++i)
            EXPECT_LT(entries[i - 1].id, entries[i].id) << catalog;
    }
}

TEST(Catalogs, the_plain_catalog_holds_the_english_texts_of_the_code) {
    EXPECT_EQ(texts_of(entries_of("ZELTqzfi.cat")), english_texts());
}

TEST(Catalogs, a_translated_catalog_says_what_the_bundle_of_its_language_says) {
    for (const Translation &each : translations)
        EXPECT_EQ(texts_of(entries_of(each.catalog)), bundle_texts(each.bundle)) << each.catalog;
}

} // namespace
