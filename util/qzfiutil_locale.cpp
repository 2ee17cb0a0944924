#include <array>
#include <cctype>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

#include <qzfi/catalogs.h>
#include <qzfi/system.h>

#include "util/qzfiutil_catalog.h"
#include "util/qzfiutil_settings.h"

const char *const qzfi_localeMappingTbl[26] = {
    "en_US english C POSIX", "ja_JP japanese",  "zh_CN chinese",    "ko_KR korean",  "de_DE german",  "es_ES spanish",
    "it_IT italian",         "fr_FR french",    "pt_PT portuguese", "ca_ES catalan", "cs_CZ czech",   "da_DK danish",
    "el_GR greek",
    "fi_FI finish", // deliberate: requests spell it so, and "finnish" has always got the fallback
    "he_IL hebrew",          "hu_HU hungarian", "is_IS icelandic",
    "nl_NL flemish", // deliberate: requests for the Netherlands say this word
    "no_NO norwegian",       "pl_PL polish",    "ru_RU russian",    "sk_SK slovak",  "sv_SE swedish", "th_TH thai",
    "tr_TR turkish",         nullptr,
};

namespace qzfi {
namespace {

constexpr char catalog_directory[] = "/usr/lumen/resources/";
constexpr char catalog_name[] = "ZELTqzfi.cat";
constexpr char mapping_name[] = "Qfi-Locale-to-Language.txt";
constexpr std::size_t path_size = 256;
constexpr std::size_t word_size = 32;
constexpr std::size_t line_size = 256; // 255 characters; the rest of a longer line is skipped
constexpr int32_t none = -1;

using Path = std::array<char, path_size>;
using Word = std::array<char, word_size>;
using Line = std::array<char, line_size>;

/// What the letters before and after the underscore of "ja_JP" are cut to, and one character after them.
struct LocaleParts {
    /// How many of the three were found.
    int read(const char *text) noexcept {
        return std::sscanf(text, "%3[a-zA-Z]_%3[a-zA-Z]%c", language, territory, &modifier);
    }
    char language[4] = "";
    char territory[4] = "";
    char modifier = '\0';
};

/// Not by `qzfi_openfile`: that waits at a FIFO in the place of a file, and leaves the file open in programs started
/// meanwhile.
int32_t open_for_reading(const char *path) noexcept {
    return open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

/// Reads a line without its line feed, cut to what fits; false at the end of the file.
bool read_line(FILE *file, Line &line) noexcept {
    int character = std::getc(file);
    if (character == EOF)
        return false;
    std::size_t length = 0;
    for (; character != EOF && character != '\n'; character = std::getc(file))
        if (length < line.size() - 1)
            line[length++] = static_cast<char>(character);
    line[length] = '\0';
    return true;
}

struct StreamCloser {
    void operator()(FILE *stream) const noexcept { (void)std::fclose(stream); }
};

int32_t search_mapping_file(const char *key, int32_t locale_form) noexcept {
    const std::unique_ptr<FILE, StreamCloser> file{qzfi_openLocaleMappingFile()};
    Line line;
    while (file && read_line(file.get(), line)) {
        if (line[0] == '#' || line[0] == '\0')
            continue;
        const int32_t catalog = qzfi_processMappingLine(key, locale_form, line.data());
        if (catalog != none)
            return catalog;
    }
    return none;
}

int32_t search_table(const char *key, int32_t locale_form) noexcept {
    for (const char *const *line = qzfi_localeMappingTbl; *line != nullptr; ++line) {
        const int32_t catalog = qzfi_processMappingLine(key, locale_form, *line);
        if (catalog != none)
            return catalog;
    }
    return none;
}

int32_t search_mappings(const char *key, int32_t locale_form) noexcept {
    const int32_t catalog = search_mapping_file(key, locale_form);
    return catalog != none ? catalog : search_table(key, locale_form);
}

/// Only a locale with nothing or a code set behind its territory is opened directly; the mappings are still asked when
/// that fails. Deliberate: the joined key is what they are asked for, which no language part ever equals, so they only
/// help when a line names that locale as a word. With another modifier ("ja_JP@x") only the letters count.
int32_t find_catalog(const char *request) noexcept {
    LocaleParts parts;
    const int found = parts.read(request);
    Word key{};
    if (found == 2 || (found == 3 && parts.modifier == '.')) {
        qzfi_snprintf(key.data(), key.size(), "%s_%s", parts.language, parts.territory);
        const int32_t catalog = qzfi_openMsgCatalog(key.data());
        return catalog != none ? catalog : search_mappings(key.data(), 1);
    }
    (void)std::sscanf(request, "%31[a-zA-Z]", key.data()); // no letters leave the key empty, which no word equals
    return search_mappings(key.data(), 0);
}

} // namespace
} // namespace qzfi

const char *qzfi_getlocale() {
    return std::setlocale(LC_MESSAGES, nullptr);
}

const char *qzfi_msgcatalogdir() {
    return qzfi::catalog_directory;
}

const char *qzfi_getNextLocaleName(const char *position, char *word) {
    const auto is_space = [](char character) { return std::isspace(static_cast<unsigned char>(character)) != 0; };
    while (is_space(*position))
        ++position;
    std::size_t length = 0;
    for (; *position != '\0' && !is_space(*position); ++position)
        if (length < qzfi::word_size - 1)
            word[length++] = *position;
    word[length] = '\0';
    return position;
}

int32_t qzfi_openMsgCatalog(const char *locale) {
    // The directory ends in a slash of its own: paths hold two, as they always have.
    qzfi::Path path;
    const char *const directory = qzfi_msgcatalogdir();
    const char *const name = qzfi::catalog_name;
    if (locale != nullptr && std::strcmp(locale, "en_US") != 0)
        qzfi_snprintf(path.data(), path.size(), "%s%c%s.UTF-8%c%s", directory, '/', locale, '/', name);
    else
        qzfi_snprintf(path.data(), path.size(), "%s%c%s", directory, '/', name);
    return qzfi::open_for_reading(path.data());
}

FILE *qzfi_openLocaleMappingFile() {
    qzfi::Path path;
    // The separator has always been formatted as a wide character, which ISO C spells differently.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    qzfi_snprintf(path.data(), path.size(), "%s%C%s", qzfi_msgcatalogdir(), static_cast<wint_t>(L'/'),
                  qzfi::mapping_name);
#pragma GCC diagnostic pop
    const int32_t file = qzfi::open_for_reading(path.data());
    if (file == qzfi::none)
        return nullptr;
    struct stat state;
    // A device might give a line without an end.
    FILE *const stream = fstat(file, &state) == 0 && S_ISREG(state.st_mode) ? fdopen(file, "r") : nullptr;
    if (stream == nullptr)
        qzfi_closefile(file);
    return stream;
}

int32_t qzfi_processMappingLine(const char *key, int32_t locale_form, const char *line) {
    qzfi::Word locale;
    const char *position = qzfi_getNextLocaleName(line, locale.data());
    qzfi::LocaleParts parts;
    if (locale_form != 0 && parts.read(locale.data()) >= 2 && std::strcmp(key, parts.language) == 0) {
        const int32_t catalog = qzfi_openMsgCatalog(locale.data());
        if (catalog != qzfi::none)
            return catalog;
    }
    qzfi::Word word;
    for (position = qzfi_getNextLocaleName(position, word.data()); word[0] != '\0';
         position = qzfi_getNextLocaleName(position, word.data())) {
        if (std::strcmp(key, word.data()) != 0)
            continue;
        const int32_t catalog = qzfi_openMsgCatalog(locale.data());
        if (catalog != qzfi::none)
            return catalog;
    }
    return qzfi::none;
}

int32_t qzfi_findMsgCatalog(const char *request, uint32_t fallback) {
    const int32_t catalog = qzfi::find_catalog(request);
    if (catalog == qzfi::none && fallback == 1)
        return qzfi_openMsgCatalog(nullptr);
    return catalog;
}

void deinitlc() {
    qzfi_lang[0] = '\0';
}
