// Catalogs over real bundles, made by genrb below a private "/usr/lumen".
#include <filesystem>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "msgcat_support.h"
#include "support/fault.h"
#include "support/private_root.h"

namespace {

using namespace qzfi_pdk_4_4;
using msgcat_support::plain;
namespace fs = std::filesystem;

constexpr const char *directory = "/usr/lumen/resources";

/// Each test has a catalog name of its own: ICU remembers for good what it found at a path.
std::string bundle_name() {
    return std::string{"t"} + testing::UnitTest::GetInstance()->current_test_info()->name();
}

class IcuCatalog : public testing::Test {
protected:
    void SetUp() override {
        if (const auto obstacle = private_root::enter())
            GTEST_SKIP() << *obstacle;
    }

    /// Bundles of these languages; a text is "KEY of LANGUAGE".
    void make_bundles(const std::vector<std::string> &languages) {
        std::map<std::string, std::string> sources;
        for (const std::string &language : languages)
            sources[language] = language + " { KEY { \"KEY of " + language + "\" } " + language +
                                "_ONLY { \"\xc3\xbc\" } " + "TABLE { INNER { \"x\" } } EMPTY { \"\" } }";
        private_root::make_bundles("resources/lib" + name, sources);
    }

    int32_t init(const char *locale) { return CFiIcuMessageCatalog(locale, name.c_str()).init(); }

    std::string text(const char *locale, const std::string &id, const char *default_text) {
        CFiIcuMessageCatalog made{locale, name.c_str()};
        made.init();
        return plain(made.getMessage(id, default_text));
    }

    std::string name = bundle_name();
};

TEST_F(IcuCatalog, a_missing_directory_is_created_and_fails_once) {
    ASSERT_FALSE(fs::exists(directory));
    const mode_t mask = umask(0);
    CFiIcuMessageCatalog made{"en", name.c_str()};
    EXPECT_EQ(made.init(), 3);
    struct stat status {};
    ASSERT_EQ(stat(directory, &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFDIR | 0755});
    umask(mask);
    make_bundles({"root", "en"});
    EXPECT_EQ(made.init(), 0);
    EXPECT_EQ(plain(made.getMessage("KEY", nullptr)), name + ": KEY of en");
}

TEST_F(IcuCatalog, the_umask_narrows_a_created_directory) {
    const mode_t mask = umask(027);
    EXPECT_EQ(init("en"), 3);
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(directory, &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFDIR | 0750});
}

TEST_F(IcuCatalog, a_directory_that_cannot_be_created_fails) {
    private_root::write_file("resources", "in the way");
    EXPECT_EQ(init("en"), 3);
    EXPECT_TRUE(fs::is_regular_file(directory));
}

TEST_F(IcuCatalog, a_directory_that_cannot_be_looked_for_is_as_a_missing_one) {
    make_bundles({"root", "en"});
    fault::for_each(fault::Call::access, [&](fault::Trial &trial) {
        trial.arm();
        const int32_t status = init("en");
        trial.disarm();
        EXPECT_EQ(status, trial.fired() ? 3 : 0);
    });
}

TEST_F(IcuCatalog, the_locales_own_bundle_is_a_success) {
    make_bundles({"root", "en", "ja", "zh_TW"});
    EXPECT_EQ(init("en"), 0);
    EXPECT_EQ(init("ja"), 0);
    EXPECT_EQ(init("zh_TW"), 0);
    EXPECT_EQ(text("zh_TW", "KEY", nullptr), name + ": KEY of zh_TW");
}

TEST_F(IcuCatalog, the_root_bundle_alone_is_a_success) {
    make_bundles({"root"});
    EXPECT_EQ(init("de"), 0);
    EXPECT_EQ(init("de_AT"), 0);
    EXPECT_EQ(text("de", "KEY", nullptr), name + ": KEY of root");
}

TEST_F(IcuCatalog, a_parent_locales_bundle_is_a_failure_but_open) {
    make_bundles({"root", "ja"});
    EXPECT_EQ(init("ja_JP"), 3);
    EXPECT_EQ(text("ja_JP", "KEY", nullptr), name + ": KEY of ja");
}

TEST_F(IcuCatalog, no_bundle_is_a_failure) {
    private_root::make_directories("resources");
    EXPECT_EQ(init("en"), 3);
    EXPECT_EQ(text("en", "KEY", nullptr), name + ": <KEY>");
    EXPECT_EQ(text("en", "KEY", "default"), "default");
}

TEST_F(IcuCatalog, initialising_twice_opens_the_bundle_again) {
    make_bundles({"root", "en"});
    CFiIcuMessageCatalog made{"en", name.c_str()};
    EXPECT_EQ(made.init(), 0);
    EXPECT_EQ(made.init(), 0);
    EXPECT_EQ(plain(made.getMessage("KEY", nullptr)), name + ": KEY of en");
}

TEST_F(IcuCatalog, a_found_text_has_the_catalogs_name_in_front) {
    make_bundles({"root", "en"});
    EXPECT_EQ(text("en", "KEY", nullptr), name + ": KEY of en");
    EXPECT_EQ(text("en", "KEY", "default"), name + ": KEY of en");
    EXPECT_EQ(text("en", "en_ONLY", nullptr), name + ": \xc3\xbc");
    EXPECT_EQ(text("en", "EMPTY", "default"), name + ": ");
}

TEST_F(IcuCatalog, a_key_that_only_the_root_has_is_found_there) {
    make_bundles({"root", "en"});
    EXPECT_EQ(text("en", "root_ONLY", "default"), name + ": \xc3\xbc");
}

TEST_F(IcuCatalog, a_missing_key_gives_the_default_text_bare_or_the_bracketed_id) {
    make_bundles({"root", "en"});
    EXPECT_EQ(text("en", "MISSING", "default"), "default");
    EXPECT_EQ(text("en", "MISSING", ""), "");
    EXPECT_EQ(text("en", "MISSING", nullptr), name + ": <MISSING>");
    EXPECT_EQ(text("en", "", nullptr), name + ": <>");
}

TEST_F(IcuCatalog, a_resource_that_is_no_text_is_a_missing_key) {
    make_bundles({"root", "en"});
    EXPECT_EQ(text("en", "TABLE", nullptr), name + ": <TABLE>");
}

TEST(IcuCatalogBeforeInit, has_no_text) {
    const CFiIcuMessageCatalog made{"en", "fi"};
    EXPECT_EQ(plain(made.getMessage("KEY", nullptr)), "fi: <KEY>");
    EXPECT_EQ(plain(made.getMessage("KEY", "default")), "default");
}

TEST(IcuCatalogFactory, makes_a_catalog_with_its_first_reference_and_does_not_initialise_it) {
    CFiIcuMessageCatalogFactory factory{"ja", "fi"};
    EXPECT_EQ(factory.getDefaultLocale(), "ja");
    const CFiMessageCatalogPtr made = factory.allocateCatalog("en");
    EXPECT_EQ(made->getCount(), 1);
    EXPECT_EQ(plain(made->getMessage("KEY", nullptr)), "fi: <KEY>");
    EXPECT_EQ(plain(factory.allocateCatalog(nullptr)->getMessage("KEY", nullptr)), "fi: <KEY>");
}

class ManagerOverIcu : public IcuCatalog {
protected:
    std::string localized(const char *id, const char *locale) { return plain(manager.getMessage(id, nullptr, locale)); }

    CFiMessageCatalogManager manager;
};

TEST_F(ManagerOverIcu, retries_a_locale_whose_bundle_comes_later) {
    CFiIcuMessageCatalogFactory factory{"en", name.c_str()};
    manager.registerFactory(&factory);
    EXPECT_TRUE(fs::is_directory(directory));
    EXPECT_EQ(localized("KEY", "en"), "<KEY>");
    make_bundles({"root", "de"});
    EXPECT_EQ(localized("KEY", "de"), name + ": KEY of de");
}

TEST_F(ManagerOverIcu, a_locale_with_a_parents_bundle_only_is_answered_by_the_default_locale) {
    make_bundles({"root", "en", "ja"});
    CFiIcuMessageCatalogFactory factory{"en", name.c_str()};
    manager.registerFactory(&factory);
    EXPECT_EQ(localized("KEY", "ja_JP"), name + ": KEY of en");
    EXPECT_EQ(localized("KEY", "ja"), name + ": KEY of ja");
    EXPECT_EQ(localized("MISSING", "ja"), name + ": <MISSING>");
}

TEST_F(ManagerOverIcu, a_record_is_formatted_from_the_bundles_pattern) {
    private_root::make_bundles("resources/lib" + name, {{"root", "root { ID { \"{1} before {0}\" } }"}});
    CFiIcuMessageCatalogFactory factory{"en", name.c_str()};
    manager.registerFactory(&factory);
    const icu::Formattable arguments[] = {icu::Formattable("first"), icu::Formattable(int32_t{2})};
    const std::string serialized = CFiIcuMessage("ID", 4, arguments, 2).serialize();
    qfi_msg_info record{serialized.c_str()};
    char *text = nullptr;
    manager.getLocalizedMessage(&record, "en", &text);
    EXPECT_EQ(text, name + ": 2 before first");
    manager.deleteLocalizedMessage(&text);
}

} // namespace
