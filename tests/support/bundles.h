// Bundles of a test's own texts, at the path where the library looks for them.
//
// ICU and the library keep each bundle that was opened, so every set of texts is a locale of its own, which no other
// test of the process has asked for.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/private_root.h"

namespace bundles {

using Texts = std::map<std::string, std::string>; // by message id

/// The source of a bundle. Quotes and newlines are written as genrb's escapes; other escapes stand in the texts.
inline std::string source(const std::string &locale, const Texts &texts) {
    std::string result = locale + " {\n";
    for (const auto &[id, text] : texts) {
        result += id + " { \"";
        for (const char letter : text)
            result += letter == '"' ? "\\\"" : letter == '\n' ? "\\n" : std::string(1, letter);
        result += "\" }\n";
    }
    return result + "}\n";
}

/// A locale that nobody asked for yet, one of those left to private use: "qaa" to "qtz".
inline std::string unused_locale() {
    static int count = 0;
    if (count == 20 * 26)
        throw std::runtime_error("no locale is left");
    const char name[] = {'q', static_cast<char>('a' + count / 26), static_cast<char>('a' + count % 26), '\0'};
    ++count;
    return name;
}

inline void install(const std::map<std::string, Texts> &locales) {
    std::map<std::string, std::string> sources;
    for (const auto &[locale, texts] : locales)
        sources[locale] = source(locale, texts);
    private_root::make_bundles("resources/libfi", sources);
}

/// Installs the texts "MSG0", "MSG1", and so on as the bundle of an unused locale, whose name it returns.
inline std::string install_texts(const std::vector<std::string> &texts) {
    Texts numbered;
    for (std::size_t index = 0; index < texts.size(); ++index)
        numbered["MSG" + std::to_string(index)] = texts[index];
    const std::string locale = unused_locale();
    install({{locale, numbered}});
    return locale;
}

} // namespace bundles
