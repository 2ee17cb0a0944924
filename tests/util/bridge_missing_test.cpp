// The bridge where nothing is installed: in a process of its own, as a bundle that was opened once stays.
#include <cstdarg>
#include <filesystem>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <qzfi.h>

#include "common/qzfitext.h"
#include "support/bundles.h"

namespace {

std::string ask(const char *id, const char *locale, int raw, ...) {
    va_list none;
    va_start(none, raw);
    const qzfi::Text text{fi_get_icuMsg(id, locale, none, raw)};
    va_end(none);
    return text ? text.get() : "(null)";
}

class BridgeWithoutCatalogs : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
    }

    const std::filesystem::path directory = "/usr/lumen/resources";
};

TEST_F(BridgeWithoutCatalogs, the_first_request_makes_the_directory_for_bundles_to_come) {
    EXPECT_EQ(ask("MSG", "qtd", 1), "<MSG>");
    struct stat made = {};
    ASSERT_EQ(stat(directory.c_str(), &made), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(made.st_mode, S_IFDIR | (0755 & ~mask));
    // Of another locale, because ICU keeps it when it has looked for a bundle in vain.
    bundles::install({{"qaa", {{"MSG", "text"}}}});
    EXPECT_EQ(ask("MSG", "qaa", 1), "fi: text");
}

TEST_F(BridgeWithoutCatalogs, an_id_comes_back_in_brackets_and_nothing_else) {
    std::filesystem::create_directory(directory);
    for (const char *locale : {"qta", "qtb_JP", "native", ""})
        for (const int raw : {1, 0}) {
            EXPECT_EQ(ask("MSG_QFI_UTIL_E0005", locale, raw), "<MSG_QFI_UTIL_E0005>") << locale;
            EXPECT_EQ(ask("", locale, raw), "<>") << locale;
        }
    EXPECT_EQ(ask("MSG", nullptr, 1), "<MSG>");
}

TEST_F(BridgeWithoutCatalogs, an_id_is_formatted_as_any_pattern) {
    std::filesystem::create_directory(directory);
    EXPECT_EQ(ask("it''s", "qtc", 1), "<it''s>");
    EXPECT_EQ(ask("it''s", "qtc", 0), "<it's>");
    EXPECT_EQ(ask("{", "qtc", 0), "<");
}

} // namespace
