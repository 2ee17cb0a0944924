// The manager over a factory whose catalogs tell which of them answered.
#include <cstdlib>
#include <memory>
#include <set>
#include <vector>

#include <ace/Malloc_Allocator.h>
#include <gtest/gtest.h>

#include "msgcat_support.h"

namespace {

using namespace qzfi_pdk_4_4;
using namespace msgcat_support;

/// A catalog of one id, "KNOWN".
class TestCatalog : public CFiMessageCatalog {
public:
    TestCatalog(std::string locale, int32_t status, int &alive)
        : locale_(std::move(locale)), status_(status), alive_(alive) {
        ++alive_;
    }
    ~TestCatalog() override { --alive_; }
    int32_t init() override { return status_; }
    ACE_String_Base<char> getMessage(const std::string &id, const char *default_text) const override {
        const std::string text = id == "KNOWN"             ? locale_ + " text"
                                 : default_text != nullptr ? std::string{"default "} + default_text
                                                           : locale_ + " <" + id + ">";
        return {text.c_str(), text.size()};
    }

private:
    std::string locale_;
    int32_t status_;
    int &alive_;
};

/// Makes catalogs; those of the `broken` locales fail to initialise.
class TestFactory : public CFiIcuMessageCatalogFactory {
public:
    explicit TestFactory(std::string default_locale) : CFiIcuMessageCatalogFactory(std::move(default_locale), "fi") {}
    CFiMessageCatalogPtr allocateCatalog(const char *locale) override {
        asked.emplace_back(locale);
        if (none)
            return {};
        return CFiMessageCatalogPtr{new TestCatalog{locale, broken.count(locale) != 0 ? 3 : 0, alive}};
    }

    std::vector<std::string> asked;
    std::set<std::string> broken;
    bool none = false;
    int alive = 0;
};

class Manager : public testing::Test {
protected:
    std::string localized(const char *id, const char *locale) {
        char *text = nullptr;
        manager->getLocalizedMessage(id, locale, &text);
        std::string result = text != nullptr ? text : "(null)";
        std::free(text);
        return result;
    }

    TestFactory factory{"en"};
    std::unique_ptr<CFiMessageCatalogManager> manager = std::make_unique<CFiMessageCatalogManager>();
};

using Locales = std::vector<std::string>;

TEST_F(Manager, without_a_factory_gives_the_default_text_or_the_bracketed_id) {
    EXPECT_EQ(plain(manager->getMessage("KNOWN", "default", "de")), "default");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", "", "de")), "");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "<KNOWN>");
    EXPECT_EQ(plain(manager->getMessage("", nullptr, "")), "<>");
    EXPECT_EQ(localized("KNOWN", "de"), "<KNOWN>");
    manager->activateCatalog("de"); // does nothing
}

TEST_F(Manager, registering_activates_the_default_locale) {
    manager->registerFactory(&factory);
    EXPECT_EQ(factory.asked, Locales{"en"});
    EXPECT_EQ(factory.alive, 1);
}

TEST_F(Manager, a_new_factory_replaces_the_old_one_and_the_catalogs_stay) {
    TestFactory other{"de"};
    manager->registerFactory(&factory);
    manager->registerFactory(&other);
    EXPECT_EQ(other.asked, Locales{"de"});
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "en")), "en text");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "")), "de text");
    EXPECT_EQ(factory.asked, Locales{"en"});
    EXPECT_EQ(other.asked, Locales{"de"});
    manager.reset();
    EXPECT_EQ(factory.alive + other.alive, 0);
}

TEST_F(Manager, no_factory_at_all_can_be_registered) {
    manager->registerFactory(&factory);
    manager->registerFactory(nullptr);
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "en")), "<KNOWN>");
}

TEST_F(Manager, asks_for_the_catalog_of_a_locale_once) {
    manager->registerFactory(&factory);
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "de text");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "de text");
    manager->activateCatalog("de");
    EXPECT_EQ(factory.asked, (Locales{"en", "de"}));
    EXPECT_EQ(factory.alive, 2);
}

TEST_F(Manager, an_empty_locale_is_the_factorys_default_one) {
    manager->registerFactory(&factory);
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "")), "en text");
    EXPECT_EQ(localized("KNOWN", nullptr), "en text");
    EXPECT_EQ(localized("KNOWN", ""), "en text");
    EXPECT_EQ(factory.asked, Locales{"en"});
}

TEST_F(Manager, the_locales_own_catalog_decides_on_an_id_that_it_lacks) {
    manager->registerFactory(&factory);
    EXPECT_EQ(plain(manager->getMessage("OTHER", "text", "de")), "default text");
    EXPECT_EQ(plain(manager->getMessage("OTHER", nullptr, "de")), "de <OTHER>");
}

TEST_F(Manager, a_catalog_that_fails_is_not_kept_and_the_default_locales_answers) {
    factory.broken = {"de"};
    manager->registerFactory(&factory);
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "en text");
    EXPECT_EQ(plain(manager->getMessage("OTHER", "text", "de")), "default text");
    EXPECT_EQ(factory.asked, (Locales{"en", "de", "de"}));
    EXPECT_EQ(factory.alive, 1);
    factory.broken.clear();
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "de text");
    EXPECT_EQ(factory.asked, (Locales{"en", "de", "de", "de"}));
}

TEST_F(Manager, the_default_locales_catalog_is_not_activated_to_stand_in) {
    factory.broken = {"en", "de"};
    manager->registerFactory(&factory);
    factory.broken = {"de"};
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "<KNOWN>");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", "default", "de")), "default");
    EXPECT_EQ(factory.asked, (Locales{"en", "de", "de"}));
    manager->activateCatalog("en");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "de")), "en text");
}

TEST_F(Manager, with_the_only_catalog_failing_gives_the_bracketed_id) {
    factory.broken = {"en"};
    manager->registerFactory(&factory);
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "en")), "<KNOWN>");
    EXPECT_EQ(factory.asked, (Locales{"en", "en"}));
    EXPECT_EQ(factory.alive, 0);
}

TEST_F(Manager, a_factory_that_gives_no_catalog_is_as_one_whose_catalog_fails) {
    factory.none = true;
    manager->registerFactory(&factory);
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "en")), "<KNOWN>");
}

TEST_F(Manager, native_stands_for_the_native_language_and_only_in_lower_case) {
    manager->registerFactory(&factory);
    EXPECT_EQ(manager->getNativeLanguage(), "");
    EXPECT_EQ(localized("KNOWN", "native"), "en text"); // none set: the default locale
    manager->setNativeLanguage("ja");
    EXPECT_EQ(manager->getNativeLanguage(), "ja");
    EXPECT_EQ(localized("KNOWN", "native"), "ja text");
    EXPECT_EQ(localized("KNOWN", "Native"), "Native text");
    EXPECT_EQ(localized("KNOWN", "natives"), "natives text");
    EXPECT_EQ(plain(manager->getMessage("KNOWN", nullptr, "native")), "native text"); // an id's locale is taken as is
    manager->setNativeLanguage(nullptr);
    EXPECT_EQ(manager->getNativeLanguage(), "");
}

TEST_F(Manager, the_text_of_an_id_is_a_copy_of_the_callers) {
    manager->registerFactory(&factory);
    char *first = nullptr;
    char *second = nullptr;
    manager->getLocalizedMessage("KNOWN", "en", &first);
    manager->getLocalizedMessage("KNOWN", "en", &second);
    EXPECT_NE(first, second);
    EXPECT_STREQ(first, "en text");
    EXPECT_STREQ(second, "en text");
    std::free(first);
    std::free(second);
    EXPECT_EQ(localized(nullptr, "en"), "en <>");
}

/// A record and its text as the manager sees it.
struct Record {
    explicit Record(std::string text) : serialized(std::move(text)), info{serialized.c_str()} {}
    std::string serialized;
    qfi_msg_info info;
};

Record record_of(const char *id, const char *argument) {
    const icu::Formattable arguments[] = {icu::Formattable(icu::UnicodeString::fromUTF8(argument))};
    return Record{CFiIcuMessage(id, 4, arguments, 1).serialize()};
}

class ManagerOfRecords : public Manager {
protected:
    ManagerOfRecords() { manager->registerFactory(&patterns); }

    char *formatted(Record &record, const char *locale) {
        char *text = nullptr;
        manager->getLocalizedMessage(&record.info, locale, &text);
        return text;
    }

    PatternFactory patterns;
};

TEST_F(ManagerOfRecords, a_record_is_formatted_in_the_locale) {
    Record record = record_of("ID", "x\xc3\xbcy");
    EXPECT_STREQ(formatted(record, "de"), "x\xc3\xbcy ID in de");
    EXPECT_STREQ(formatted(record, nullptr), "x\xc3\xbcy ID in en");
    manager->setNativeLanguage("ja");
    EXPECT_STREQ(formatted(record, "native"), "x\xc3\xbcy ID in ja");
}

TEST_F(ManagerOfRecords, the_text_of_a_record_is_the_stored_one_until_it_is_replaced) {
    Record record = record_of("ID", "a");
    Record other = record_of("ID", "b");
    char *const text = formatted(record, "de");
    EXPECT_STREQ(formatted(other, "fr"), "b ID in fr");
    EXPECT_STREQ(text, "a ID in de"); // another key's
    EXPECT_STREQ(formatted(record, "fr"), "a ID in fr");
}

TEST_F(ManagerOfRecords, a_message_is_formatted_without_being_stored) {
    const icu::Formattable arguments[] = {icu::Formattable(int32_t{5})};
    manager->setNativeLanguage("ja");
    EXPECT_EQ(plain(manager->getLocalizedMessage(CFiMessagePtr{new CFiIcuMessage("ID", 4, arguments, 1)}, "de")),
              "5 ID in de");
    EXPECT_EQ(plain(manager->getLocalizedMessage(CFiMessagePtr{new CFiIcuMessage("ID", 4, arguments, 1)}, "native")),
              "5 ID in ja");
    EXPECT_EQ(plain(manager->getLocalizedMessage(CFiMessagePtr{}, "de")), "");
}

TEST_F(ManagerOfRecords, a_record_without_text_is_a_message_without_id) {
    qfi_msg_info info{};
    char *text = nullptr;
    manager->getLocalizedMessage(&info, "de", &text);
    EXPECT_STREQ(text, "{0}  in de");
    manager->getLocalizedMessage(static_cast<qfi_msg_info *>(nullptr), "fr", &text);
    EXPECT_STREQ(text, "{0}  in fr");
    manager->getLocalizedMessage(&info, "de", nullptr);
}

TEST_F(ManagerOfRecords, text_that_ends_early_throws_and_what_was_stored_stays) {
    Record record = record_of("ID", "a");
    char *const text = formatted(record, "de");
    Record cut{"<SERIALIZED_MESSAGE MSGID=ID SEVERITY=4>\n\t<ARGVALUE INDEX=0 TYPE=3>a"};
    char untouched = 0;
    char *out = &untouched;
    EXPECT_THROW(manager->getLocalizedMessage(&cut.info, "de", &out), std::out_of_range);
    EXPECT_EQ(out, &untouched);
    EXPECT_STREQ(text, "a ID in de");
}

TEST_F(Manager, without_a_factory_a_records_text_comes_back_bracketed) {
    Record record{"some text"};
    char *text = nullptr;
    manager->getLocalizedMessage(&record.info, "de", &text);
    EXPECT_STREQ(text, "<some text>");
    manager->deleteLocalizedMessage(&text);
}

/// The stored texts can be seen from outside through records, whose keys are their texts.
class StoredTexts : public Manager {
protected:
    char *store(const char *key) {
        Record record{key};
        char *text = nullptr;
        manager->getLocalizedMessage(&record.info, "en", &text);
        return text;
    }
};

/// Keeps account of the texts that are made of its memory.
class Account : public ACE_New_Allocator {
public:
    void *malloc(std::size_t size) override {
        void *const text = ACE_New_Allocator::malloc(size);
        alive.insert(text);
        return text;
    }
    void free(void *text) override {
        alive.erase(text);
        ACE_New_Allocator::free(text);
    }

    std::set<void *> alive;
};

/// Gives every id and every record the same text, on account.
class SameTextFactory : public CFiMessageCatalogFactory {
public:
    SameTextFactory() : CFiMessageCatalogFactory("en", "fi") {}
    CFiMessageCatalogPtr allocateCatalog(const char *) override { return CFiMessageCatalogPtr{new SameTextCatalog}; }
    CFiMessagePtr allocateMessage(qfi_msg_info *) override { return CFiMessagePtr{new SameText}; }

    static inline Account account; // outlives every manager

private:
    class SameTextCatalog : public CFiMessageCatalog {
    public:
        ACE_String_Base<char> getMessage(const std::string &, const char *) const override {
            return {"same", &account};
        }
    };
    class SameText : public CFiIcuMessage {
    public:
        ACE_String_Base<char> formatMessage(ACE_String_Base<char>) override { return {"same", &account}; }
    };
};

TEST_F(StoredTexts, of_equal_texts_the_one_whose_key_sorts_first_is_deleted) {
    SameTextFactory same;
    manager->registerFactory(&same);
    char *const of_b = store("b");
    char *const of_a = store("a");
    char *const of_c = store("c");
    for (char *stored : {of_a, of_b, of_c})
        ASSERT_STREQ(stored, "same");
    using Alive = std::set<void *>;
    EXPECT_EQ(same.account.alive, (Alive{of_a, of_b, of_c}));
    char *text = of_c;
    manager->deleteLocalizedMessage(&text);
    EXPECT_EQ(text, of_c);
    EXPECT_EQ(same.account.alive, (Alive{of_b, of_c}));
    manager->deleteLocalizedMessage(&text);
    EXPECT_EQ(same.account.alive, Alive{of_c});
    std::string copy = "same"; // the text decides, not where it is
    text = copy.data();
    manager->deleteLocalizedMessage(&text);
    EXPECT_EQ(same.account.alive, Alive{});
    manager->deleteLocalizedMessage(&text); // there is none left
    EXPECT_EQ(copy, "same");
}

TEST_F(StoredTexts, the_last_text_of_an_id_is_stored_once) {
    SameTextFactory same;
    manager->registerFactory(&same);
    for (const char *locale : {"en", "de", "de"})
        EXPECT_EQ(localized("ID", locale), "same");
    EXPECT_EQ(same.account.alive.size(), 1u);
    manager->getLocalizedMessage("OTHER", "en", nullptr); // is not handed out, but stored
    EXPECT_EQ(same.account.alive.size(), 2u);
    std::string text = "same";
    char *shared = text.data();
    manager->deleteLocalizedMessage(&shared);
    EXPECT_EQ(same.account.alive.size(), 1u);
    char *const replacing = store("OTHER"); // the text of the key that sorts second was still there
    EXPECT_EQ(same.account.alive, std::set<void *>{replacing});
}

TEST_F(StoredTexts, a_text_is_let_go_when_it_is_replaced_and_with_the_manager) {
    SameTextFactory same;
    manager->registerFactory(&same);
    store("a");
    char *const second = store("a");
    char *const other = store("b");
    EXPECT_EQ(same.account.alive, (std::set<void *>{second, other}));
    manager.reset();
    EXPECT_EQ(same.account.alive, std::set<void *>{});
}

TEST_F(StoredTexts, deleting_a_text_that_is_not_stored_does_nothing) {
    char *const stored = store("a");
    std::string other = "<b>";
    char *text = other.data();
    manager->deleteLocalizedMessage(&text);
    text = nullptr;
    manager->deleteLocalizedMessage(&text);
    manager->deleteLocalizedMessage(nullptr);
    EXPECT_STREQ(stored, "<a>");
    EXPECT_EQ(other, "<b>");
}

} // namespace
