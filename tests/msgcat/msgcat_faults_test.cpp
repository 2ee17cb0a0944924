// Memory that runs out anywhere below a call: std::bad_alloc, nothing lost, nothing half changed.
#include <cstdlib>
#include <memory>
#include <new>

#include <gtest/gtest.h>

#include "msgcat_support.h"
#include "support/fault.h"

namespace {

using namespace qzfi_pdk_4_4;
using namespace msgcat_support;

/// Texts long enough to need memory wherever they are kept.
const std::string id(64, 'i');
const std::string locale(64, 'l');
const std::string name(64, 'n');

/// Runs an action; true when it threw std::bad_alloc, which only an injected failure may make it do.
template <class Action>
bool runs_short(fault::Trial &trial, Action action) {
    bool thrown = false;
    trial.arm();
    try {
        action();
    } catch (const std::bad_alloc &) {
        thrown = true;
    }
    trial.disarm();
    EXPECT_EQ(thrown, trial.fired());
    return thrown;
}

TEST(ShortMemory, the_manager_is_created_at_the_next_call) {
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        CFiContextSingleton<CFiMessageCatalogManager, FI_PLUGIN_NAME>::Reference manager;
        if (!runs_short(trial, [&] { manager = CFiMessageCatalogManagerSingleton::instance(); })) {
            EXPECT_EQ(manager->getCount(), 2);
        }
    });
}

TEST(ShortMemory, a_locale_is_activated_whole_or_asked_for_again) {
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        PatternFactory factory;
        CFiMessageCatalogManager manager;
        manager.registerFactory(&factory);
        runs_short(trial, [&] { manager.activateCatalog(locale); });
        const std::size_t asked = factory.asked.size();
        manager.activateCatalog(locale);
        EXPECT_EQ(factory.asked.size(), trial.fired() ? asked + 1 : asked);
        EXPECT_EQ(plain(manager.getMessage(id, nullptr, locale)), "{0} " + id + " in " + locale);
    });
}

TEST(ShortMemory, a_fallback_text_is_whole_or_none) {
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        CFiMessageCatalogManager manager;
        runs_short(trial, [&] { EXPECT_EQ(plain(manager.getMessage(id, nullptr, locale)), "<" + id + ">"); });
    });
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        CFiMessageCatalogManager manager;
        runs_short(trial, [&] { EXPECT_EQ(plain(manager.getMessage("ID", id.c_str(), locale)), id); });
    });
}

TEST(ShortMemory, an_id_without_text_leaves_the_callers_pointer) {
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        CFiMessageCatalogManager manager;
        char before = 0;
        char *text = &before;
        if (runs_short(trial, [&] { manager.getLocalizedMessage(id.c_str(), locale.c_str(), &text); })) {
            EXPECT_EQ(text, &before);
            return;
        }
        EXPECT_EQ(text, "<" + id + ">");
        std::free(text);
    });
}

TEST(ShortMemory, an_id_whose_copy_fails_gives_null) {
    fault::for_each(fault::Call::allocation, [](fault::Trial &trial) {
        CFiMessageCatalogManager manager;
        char before = 0;
        char *text = &before;
        trial.arm();
        manager.getLocalizedMessage("ID", "en", &text);
        trial.disarm();
        EXPECT_STREQ(text, trial.fired() ? nullptr : "<ID>");
        std::free(text);
    });
}

std::string serialized_message() {
    const icu::Formattable arguments[] = {icu::Formattable(icu::UnicodeString::fromUTF8(name)),
                                          icu::Formattable(int32_t{1})};
    return CFiIcuMessage(id, 2, arguments, 2).serialize();
}

TEST(ShortMemory, a_records_stored_text_is_replaced_whole_or_stays) {
    const std::string serialized = serialized_message();
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        PatternFactory factory;
        CFiMessageCatalogManager manager;
        manager.registerFactory(&factory);
        manager.activateCatalog("de");
        qfi_msg_info record{serialized.c_str()};
        char *first = nullptr;
        manager.getLocalizedMessage(&record, "de", &first);
        char *second = nullptr;
        if (runs_short(trial, [&] { manager.getLocalizedMessage(&record, locale.c_str(), &second); })) {
            EXPECT_EQ(second, nullptr);
            EXPECT_EQ(first, name + " " + id + " in de");
        } else {
            EXPECT_EQ(second, name + " " + id + " in " + locale);
        }
    });
}

TEST(ShortMemory, the_native_language_is_replaced_whole_or_stays) {
    fault::for_each(fault::Call::construction, [](fault::Trial &trial) {
        CFiMessageCatalogManager manager;
        manager.setNativeLanguage("ja");
        const bool thrown = runs_short(trial, [&] { manager.setNativeLanguage(locale.c_str()); });
        EXPECT_EQ(manager.getNativeLanguage(), thrown ? "ja" : locale);
    });
}

TEST(ShortMemory, a_catalog_is_made_whole_or_not) {
    CFiIcuMessageCatalogFactory factory{"en", name.c_str()};
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        CFiMessageCatalogPtr made;
        if (runs_short(trial, [&] { made = factory.allocateCatalog(locale.c_str()); }))
            EXPECT_FALSE(made);
        else
            EXPECT_EQ(plain(made->getMessage("ID", nullptr)), name + ": <ID>");
    });
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        std::unique_ptr<CFiIcuMessageCatalogFactory> made;
        const ACE_String_Base<char> catalog_name{name.c_str()};
        runs_short(trial, [&] { made = std::make_unique<CFiIcuMessageCatalogFactory>(locale, catalog_name); });
        EXPECT_EQ(made == nullptr, trial.fired());
    });
}

TEST(ShortMemory, a_catalogs_text_is_whole_or_none) {
    const CFiIcuMessageCatalog catalog{"en", name.c_str()};
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        runs_short(trial, [&] { EXPECT_EQ(plain(catalog.getMessage(id, nullptr)), name + ": <" + id + ">"); });
    });
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        runs_short(trial, [&] { EXPECT_EQ(plain(catalog.getMessage("ID", id.c_str())), id); });
    });
}

TEST(ShortMemory, a_message_is_read_whole_or_keeps_its_arguments) {
    const std::string serialized = serialized_message();
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        const icu::Formattable old[] = {icu::Formattable(int32_t{9})};
        CFiIcuMessage message{"OLD", 3, old, 1};
        const qfi_msg_info record{serialized.c_str()};
        const bool thrown = runs_short(trial, [&] { message.deserialize(&record); });
        if (!thrown) {
            EXPECT_EQ(message.serialize(), serialized);
            return;
        }
        // Id and severity are taken together, before the arguments are read.
        EXPECT_TRUE((message.getMessageId() == "OLD" && message.getSeverity() == 3) ||
                    (message.getMessageId() == id && message.getSeverity() == 2));
        EXPECT_EQ(message.serialize(), "<SERIALIZED_MESSAGE MSGID=" + message.getMessageId() +
                                           " SEVERITY=" + std::to_string(message.getSeverity()) +
                                           ">\n\t<ARGVALUE INDEX=0 TYPE=2>9</ARGVALUE>\n</SERIALIZED_MESSAGE>\n");
    });
}

TEST(ShortMemory, an_allocated_message_is_whole_or_gone) {
    const std::string serialized = serialized_message();
    CFiIcuMessageCatalogFactory factory{"en", "fi"};
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        qfi_msg_info record{serialized.c_str()};
        CFiMessagePtr message;
        if (!runs_short(trial, [&] { message = factory.allocateMessage(&record); })) {
            EXPECT_EQ(message->serialize(), serialized);
        }
    });
}

TEST(ShortMemory, a_message_is_written_whole_or_not) {
    const std::string serialized = serialized_message();
    const qfi_msg_info record{serialized.c_str()};
    CFiIcuMessage message;
    message.deserialize(&record);
    fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
        runs_short(trial, [&] { EXPECT_EQ(message.serialize(), serialized); });
    });
}

TEST(ShortMemory, a_message_is_formatted_whole_or_not) {
    const std::string serialized = serialized_message();
    const qfi_msg_info record{serialized.c_str()};
    CFiIcuMessage message;
    message.deserialize(&record);
    for (const std::string &pattern : {std::string{"{0}"}, "{0 " + name}) {
        fault::for_each(fault::Call::construction, [&](fault::Trial &trial) {
            const std::string expected = pattern == "{0}" ? name : pattern;
            runs_short(trial, [&] {
                ACE_String_Base<char> text{pattern.c_str()};
                if (text.length() != pattern.size())
                    throw std::bad_alloc{}; // the test's own copy
                EXPECT_EQ(plain(message.formatMessage(text)), expected);
            });
        });
    }
}

} // namespace
