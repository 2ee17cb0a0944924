// How the names of plugin files are taken apart.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "util/qzfiutil_plugin.h"

namespace {

struct Name {
    explicit Name(const char *source) : text(source) {}
    char *data() { return text.data(); }
    std::string text;
};

TEST(PluginNames, the_rest_after_the_first_prefix_is_found) {
    const struct {
        const char *name;
        const char *prefix;
        int position; // -1 for null
    } rows[] = {
        {"libalpha.so", "lib", 3},
        {"my-libalpha.so", "lib", 6}, // not only at the start
        {"libfoolib", "lib", 3},      // the first of two
        {"liblib", "lib", 3},
        {"lilib1", "lib", 5},
        {"alpha.so", "lib", -1},
        {"LIBalpha.so", "lib", -1},
        {"li", "lib", -1},
        {"lib", "lib", -1}, // nothing follows
        {"alphalib", "lib", -1},
        {"alpha.so", "", 0},
        {"", "", -1},
        {"", "lib", -1},
    };
    for (const auto &row : rows) {
        Name name{row.name};
        char *const found = findprefix(name.data(), row.prefix);
        EXPECT_EQ(found != nullptr ? found - name.data() : -1, row.position) << row.name << " " << row.prefix;
        EXPECT_EQ(name.text, row.name);
    }
    Name name{"libalpha"};
    EXPECT_EQ(findprefix(nullptr, "lib"), nullptr);
    EXPECT_EQ(findprefix(name.data(), nullptr), nullptr);
}

TEST(PluginNames, a_name_is_cut_to_its_base_and_its_version) {
    const struct {
        const char *name;
        int32_t result;
        const char *base;
        const char *version; // null for none
    } rows[] = {
        {"alpha.so", 0, "alpha", nullptr},
        {"alpha.so.2", 0, "alpha", "2"},
        {"alpha.so.1.2", 0, "alpha", "1.2"},
        {"alpha.so.", 0, "alpha", ""},
        {".so", 0, "", nullptr},
        {"alpha.sox", -1, "alpha", nullptr},
        {"alpha.s", -1, "alpha", nullptr},
        {"alpha.SO", -1, "alpha", nullptr},
        {"alpha.conf.2", -1, "alpha", "2"},
        {"al.pha.so", -1, "al", "so"},
        {"alpha.", -1, "alpha", nullptr},
        {"alpha..so", -1, "alpha", "so"},
        {".", -1, "", nullptr},
        {"alpha", -1, "alpha", nullptr},
        {"", -1, "", nullptr},
    };
    for (const auto &row : rows) {
        Name name{row.name};
        char unset[] = "unset";
        char *version = unset;
        EXPECT_EQ(stripext(name.data(), &version), row.result) << row.name;
        EXPECT_STREQ(name.data(), row.base) << row.name;
        EXPECT_STREQ(version, row.version) << row.name;
    }
    char unset[] = "unset";
    char *version = unset;
    EXPECT_EQ(stripext(nullptr, &version), -1);
    EXPECT_EQ(version, nullptr);
    Name name{"alpha.so"};
    EXPECT_EQ(stripext(name.data(), nullptr), -1);
    EXPECT_STREQ(name.data(), "alpha.so");
}

TEST(PluginNames, a_copy_gives_its_end_and_not_its_start) {
    char copy[8];
    std::memset(copy, '#', sizeof copy);
    EXPECT_EQ(qzfistos("alpha", copy), copy + 5);
    EXPECT_EQ(std::string(copy, sizeof copy), std::string("alpha\0##", 8));
    EXPECT_EQ(qzfistos("", copy), copy);
    EXPECT_EQ(std::string(copy, sizeof copy), std::string("\0lpha\0##", 8));
    EXPECT_EQ(qzfistos(nullptr, copy), nullptr);
    EXPECT_EQ(std::string(copy, sizeof copy), std::string("\0lpha\0##", 8));
    EXPECT_EQ(qzfistos("alpha", nullptr), nullptr);
}

TEST(PluginNames, libraries_of_other_builds_are_told_by_the_whole_path) {
    const struct {
        const char *path;
        bool is_loadable;
    } rows[] = {
        {"/plugins/libalpha.so", true},
        {"/plugins/libalpha.so.2", true},
        {"/plugins/libSTDalpha.so", true},
        {"/plugins/libalphad.so", true},
        {"/plugins/libalphaSTD.so", false},
        {"/plugins/libalphaST.so", false},
        {"/plugins/libalphaD.so", false},
        {"/plugins/STD.old/libalpha.so", false},
        {"/plugins/ST.old/libalpha.so", false},
        {"/CD.1/libalpha.so", false},
        {"/plugins/libalpha.sl", false},
        {"/plugins/libalpha", false},
        {"", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(qzfi::is_loadable_plugin(row.path), row.is_loadable) << row.path;
}

} // namespace
