#include "msgcat/qzfimsgcatalogmgr.h"

#include <cstring>
#include <utility>

#include "msgcat/qzfiacetext.h"

namespace qzfi_pdk_4_4 {

const char FI_PLUGIN_NAME[] = "fi";

CFiRefCount::~CFiRefCount() = default;

int32_t CFiRefCount::increment() {
    return ++count_;
}

int32_t CFiRefCount::decrement() {
    return --count_;
}

int32_t CFiRefCount::getCount() {
    return count_;
}

CFiMessage::~CFiMessage() = default;

int32_t CFiMessage::getSeverity() {
    return severity_;
}

int32_t CFiMessage::getLineNumber() {
    return line_number_;
}

std::string CFiMessage::getFileName() {
    return file_name_;
}

std::string CFiMessage::getMessageId() {
    return message_id_;
}

int32_t CFiMessageCatalog::init() {
    return 0;
}

CFiMessageCatalog::~CFiMessageCatalog() = default;

CFiMessageCatalogFactory::CFiMessageCatalogFactory(std::string default_locale,
                                                   const ACE_String_Base<char> &catalog_name)
    : default_locale_(std::move(default_locale)), catalog_name_(qzfi::ace_text(qzfi::bytes_of(catalog_name))) {}

CFiMessageCatalogFactory::~CFiMessageCatalogFactory() = default;

std::string CFiMessageCatalogFactory::getDefaultLocale() {
    return default_locale_;
}

CFiMessageCatalogManager::~CFiMessageCatalogManager() = default;

void CFiMessageCatalogManager::registerFactory(CFiMessageCatalogFactory *factory) {
    factory_ = factory;
    if (factory != nullptr)
        activate(factory->getDefaultLocale());
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface takes a text of its own
void CFiMessageCatalogManager::activateCatalog(std::string locale) {
    activate(locale);
}

CFiMessageCatalogManager::Catalogs::iterator CFiMessageCatalogManager::activate(const std::string &locale) {
    const auto known = catalogs_.find(locale);
    if (factory_ == nullptr || known != catalogs_.end())
        return known;
    const CFiMessageCatalogPtr catalog = factory_->allocateCatalog(locale.c_str());
    if (!catalog || catalog->init() != 0)
        return catalogs_.end();
    return catalogs_.insert_or_assign(locale, catalog).first;
}

CFiMessageCatalogPtr CFiMessageCatalogManager::findCatalog(std::string locale) {
    if (factory_ == nullptr)
        return {};
    if (locale.empty())
        locale = factory_->getDefaultLocale();
    auto found = activate(locale);
    // The default locale's catalog stands in only where it is already there: registration had its try.
    if (found == catalogs_.end())
        found = catalogs_.find(factory_->getDefaultLocale());
    return found != catalogs_.end() ? found->second : CFiMessageCatalogPtr{};
}

ACE_String_Base<char> CFiMessageCatalogManager::getMessage(const std::string &message_id, const char *default_text,
                                                           std::string locale) {
    if (const CFiMessageCatalogPtr catalog = findCatalog(std::move(locale)))
        return catalog->getMessage(message_id, default_text);
    return qzfi::ace_text(default_text != nullptr ? default_text : "<" + message_id + ">");
}

void CFiMessageCatalogManager::getLocalizedMessage(const char *message_id, const char *locale, char **out) {
    const std::string id = message_id != nullptr ? message_id : "";
    const char *const stored = store(id, getMessage(id, nullptr, chooseLocale(locale)));
    if (out != nullptr)
        *out = strdup(stored);
}

void CFiMessageCatalogManager::getLocalizedMessage(qfi_msg_info *record, const char *locale, char **out) {
    const std::string serialized = record != nullptr && record->serialized != nullptr ? record->serialized : "";
    const CFiMessagePtr message = factory_ != nullptr ? factory_->allocateMessage(record) : CFiMessagePtr{};
    // Without a factory nobody can read the record, so its text stands where the id would.
    char *const stored = store(serialized, message ? getLocalizedMessage(message, locale)
                                                   : getMessage(serialized, nullptr, chooseLocale(locale)));
    if (out != nullptr)
        *out = stored;
}

ACE_String_Base<char> CFiMessageCatalogManager::getLocalizedMessage(const CFiMessagePtr &message, const char *locale) {
    if (!message)
        return {};
    return message->formatMessage(getMessage(message->getMessageId(), nullptr, chooseLocale(locale)));
}

void CFiMessageCatalogManager::deleteLocalizedMessage(char **text) {
    if (text == nullptr || *text == nullptr)
        return;
    for (auto entry = localized_texts_.begin(); entry != localized_texts_.end(); ++entry) {
        if (std::strcmp(entry->second.c_str(), *text) != 0)
            continue;
        localized_texts_.erase(entry);
        return;
    }
}

std::string CFiMessageCatalogManager::getNativeLanguage() {
    return native_language_;
}

void CFiMessageCatalogManager::setNativeLanguage(const char *language) {
    native_language_ = language != nullptr ? language : "";
}

std::string CFiMessageCatalogManager::chooseLocale(const char *locale) {
    if (locale == nullptr)
        return {};
    return std::strcmp(locale, "native") == 0 ? native_language_ : locale;
}

// Nothing fails after the entry is there, so that a text is stored whole or the old one stays.
char *CFiMessageCatalogManager::store(const std::string &key, ACE_String_Base<char> text) {
    (void)qzfi::bytes_of(text); // there are other people's catalogs and messages, which copy texts
    ACE_String_Base<char> &stored = localized_texts_[key];
    stored.swap(text);
    return const_cast<char *>(stored.c_str());
}

} // namespace qzfi_pdk_4_4
