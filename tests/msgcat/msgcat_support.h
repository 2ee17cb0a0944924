// What the tests of the catalog classes share.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "msgcat/qzfiicucatalog.h"

namespace msgcat_support {

/// The bytes of a text.
inline std::string plain(const ACE_String_Base<char> &text) {
    return {text.c_str(), text.length()};
}

/// A catalog whose text of any id is "{0} ID in LOCALE".
class PatternCatalog : public qzfi_pdk_4_4::CFiMessageCatalog {
public:
    explicit PatternCatalog(std::string locale) : locale_(std::move(locale)) {}
    ACE_String_Base<char> getMessage(const std::string &id, const char *) const override {
        const std::string text = "{0} " + id + " in " + locale_;
        return {text.c_str(), text.size()};
    }

private:
    std::string locale_;
};

/// Makes such catalogs; its default locale is "en".
class PatternFactory : public qzfi_pdk_4_4::CFiIcuMessageCatalogFactory {
public:
    PatternFactory() : CFiIcuMessageCatalogFactory("en", "fi") {}
    qzfi_pdk_4_4::CFiMessageCatalogPtr allocateCatalog(const char *locale) override {
        asked.emplace_back(locale);
        return qzfi_pdk_4_4::CFiMessageCatalogPtr{new PatternCatalog{locale}};
    }

    std::vector<std::string> asked;
};

} // namespace msgcat_support
