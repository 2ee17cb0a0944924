// Any two texts, divided by a newline, as a request and a mapping line: the line's words are those of a plain reading,
// and the catalog of its first is opened exactly when the request is another of them or, in the locale form, its
// language.
//
// The catalog directory is a private one, in which only the catalog of "ja_JP" and the plain one exist.
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <qzfi/catalogs.h>

#include "support/private_root.h"
#include "target.h"

namespace {

std::vector<std::string> plain_words(const std::string &line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word.substr(0, 31));
    return words;
}

std::vector<std::string> words_of(const std::string &line) {
    std::vector<std::string> words;
    char word[32];
    for (const char *position = line.c_str();;) {
        position = qzfi_getNextLocaleName(position, word);
        if (word[0] == '\0')
            return words;
        words.emplace_back(word);
    }
}

std::size_t letters(const std::string &text, std::size_t from) {
    std::size_t count = 0;
    while (from + count < text.size() && std::isalpha(static_cast<unsigned char>(text[from + count])) != 0)
        ++count;
    return count;
}

/// The letters before an underscore that a letter follows, three at most; else empty.
std::string language_of(const std::string &locale) {
    const std::size_t count = letters(locale, 0);
    const bool has_territory = count >= 1 && count <= 3 && locale[count] == '_' && letters(locale, count + 1) >= 1;
    return has_territory ? locale.substr(0, count) : "";
}

bool is_answer(const std::string &key, bool has_locale_form, const std::vector<std::string> &words) {
    if (words.empty())
        return false;
    const std::string language = language_of(words[0]);
    if (has_locale_form && !language.empty() && key == language)
        return true;
    for (std::size_t number = 1; number < words.size(); ++number)
        if (words[number] == key)
            return true;
    return false;
}

bool exists(const std::string &locale) {
    return locale == "ja_JP" || locale == "en_US";
}

std::string opened(int32_t catalog) {
    if (catalog == -1)
        return "";
    const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(catalog));
    close(catalog);
    return path;
}

std::string path_of(const std::string &locale) {
    const std::string directory = locale == "en_US" ? "" : locale + ".UTF-8/";
    return "/usr/lumen/resources/" + directory + "ZELTqzfi.cat";
}

bool is_private = false;

void check_opening(const std::string &key, const std::string &line, const std::vector<std::string> &words) {
    for (const bool has_locale_form : {false, true}) {
        const bool is_opened = is_answer(key, has_locale_form, words) && exists(words[0]);
        require(opened(qzfi_processMappingLine(key.c_str(), has_locale_form ? 1 : 0, line.c_str())) ==
                (is_opened ? path_of(words[0]) : ""));
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *count, char ***arguments);

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const auto obstacle = private_root::enter();
    is_private = !obstacle;
    if (!is_private) {
        std::fprintf(stderr, "%s: nothing is opened, only words are read\n", obstacle->c_str());
        return 0;
    }
    private_root::write_file("resources/ja_JP.UTF-8/ZELTqzfi.cat", "");
    private_root::write_file("resources/ZELTqzfi.cat", "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string input(std::string(reinterpret_cast<const char *>(data), size).c_str());
    const std::size_t newline = input.find('\n');
    const std::string key = input.substr(0, newline);
    const std::string line = newline == std::string::npos ? "" : input.substr(newline + 1);
    const std::vector<std::string> words = plain_words(line);
    require(words_of(line) == words);
    // A locale with a slash is a path of its own, which may lead to either catalog.
    const bool is_name = words.empty() || words[0].find('/') == std::string::npos;
    if (is_private && is_name)
        check_opening(key, line, words);
    return 0;
}
