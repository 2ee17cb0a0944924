// Catalogs and messages over ICU: a catalog is one resource bundle of one locale below "/usr/lumen/resources/", a
// message formats its arguments by ICU's rules and travels as text.
#pragma once

#include <memory>

#include <unicode/resbund.h>

#include "msgcat/qzfimsgcatalogmgr.h"

namespace qzfi_pdk_4_4 {

/// A message whose arguments are ICU values.
class CFiIcuMessage : public CFiMessage {
public:
    CFiIcuMessage() = default;
    CFiIcuMessage(std::string message_id, int32_t severity, const icu::Formattable *arguments, int32_t count);

    /// The text form, kept in the message too; empty for a message without arguments, which readers rely on. Dates and
    /// doubles keep six significant digits; arrays, 64-bit integers and objects are written without a value.
    std::string serialize() override;
    /// Takes id, severity and arguments from a record's text; text without any character of the header leaves the
    /// message as it was. Dates come back as doubles. Nothing is escaped, so a text ends at its first "<".
    /// A header without an argument after it leaves none. Throws std::out_of_range for text that ends inside an
    /// argument's tag or value.
    void deserialize(const qfi_msg_info *record) override;
    /// The pattern with the arguments filled in; the pattern itself when ICU gives nothing.
    ACE_String_Base<char> formatMessage(ACE_String_Base<char> pattern) override;
};

/// One resource bundle.
class CFiIcuMessageCatalog : public CFiMessageCatalog {
public:
    CFiIcuMessageCatalog(std::string locale, const ACE_String_Base<char> &catalog_name);

    /// Opens the bundle. 0 on success, 3 on failure; a missing resource directory is created, and is a failure.
    int32_t init() override;
    /// Catalog name, ": " and the text; without the id, `default_text` as it stands, else the bracketed id.
    ACE_String_Base<char> getMessage(const std::string &message_id, const char *default_text) const override;
    ~CFiIcuMessageCatalog() override;

private:
    std::string locale_;
    ACE_String_Base<char> bundle_path_;
    ACE_String_Base<char> catalog_name_;
    std::unique_ptr<icu::ResourceBundle> bundle_;
};

class CFiIcuMessageCatalogFactory : public CFiMessageCatalogFactory {
public:
    using CFiMessageCatalogFactory::CFiMessageCatalogFactory;

    /// A catalog that is not yet initialised.
    CFiMessageCatalogPtr allocateCatalog(const char *locale) override;
    /// A message read from a record.
    CFiMessagePtr allocateMessage(qfi_msg_info *record) override;
};

} // namespace qzfi_pdk_4_4
