// Texts of statuses and of error records.
#include "fi/fi_errors.h"

#include <array>
#include <cstdarg>
#include <mutex>
#include <set>

#include <qzfi/catalogs.h>
#include <qzfi/messages.h>

namespace qzfi::fi {

namespace {

struct StatusText {
    int32_t status;
    const char *text;
};
constexpr StatusText status_texts[] = {
#define FI_STATUS_TEXT(status, text) {status, text},
    FI_STATUS_TEXTS(FI_STATUS_TEXT)
#undef FI_STATUS_TEXT
};
constexpr std::size_t status_count = std::size(status_texts);

constexpr bool statuses_are_in_order() {
    for (std::size_t index = 0; index < status_count; ++index)
        if (status_texts[index].status != QFI_STATUS_API_FIRST + static_cast<int32_t>(index))
            return false;
    return status_texts[status_count - 1].status == QFI_FI_LAST;
}
static_assert(statuses_are_in_order());

using Text = std::unique_ptr<char, void (*)(void *)>;

// Reads no arguments, as the raw text is wanted; a list of them has to be given.
Text raw_catalog_text(const char *id, const char *language, ...) {
    va_list none;
    va_start(none, language);
    Text text(fi_get_icuMsg(id, language, none, 1), std::free);
    va_end(none);
    return text;
}

// The utility layer tells nobody which language is set, but it gives its own texts in it: the one in which the catalogs
// have the same text is it. Where several have, as without catalogs, the first does.
const char *current_language() {
    constexpr const char *id = "MSG_QFI_UTIL_E0005";
    const char *const text = qzfi_getlocmsg(QFI_STATUS_NO_MEMORY, 1, u_emsgs, &vfcmsg);
    if (text == nullptr)
        throw std::bad_alloc();
    for (const char *const language : {"ja", "zh", "root"}) {
        const Text candidate = raw_catalog_text(id, language);
        if (candidate && std::strcmp(candidate.get(), text) == 0)
            return language;
    }
    return "";
}

// The catalog's text without the catalog's name before it; nothing when no catalog has the id, or memory is short.
std::string catalog_text(const char *id) {
    const Text found = raw_catalog_text(id, current_language());
    if (!found)
        return {};
    std::string text = found.get();
    constexpr std::string_view catalog_name = "fi: ";
    if (text.compare(0, catalog_name.size(), catalog_name) == 0)
        text.erase(0, catalog_name.size());
    return text == "<" + std::string(id) + ">" ? std::string() : text;
}

// Hosts are given these and never free them; they live until shutdown, as the language may change meanwhile. There are
// at most as many as statuses in all languages that were used.
struct LocalizedTexts {
    std::mutex mutex;
    std::set<std::string> texts;
};
LocalizedTexts &localized_texts() {
    static auto *const all = new LocalizedTexts;
    return *all;
}

const char *localized_text(std::size_t index) {
    std::string text = catalog_text(("MSG_QFI_E" + std::to_string(status_texts[index].status)).c_str());
    if (text.empty())
        return status_texts[index].text;
    LocalizedTexts &all = localized_texts();
    const std::lock_guard lock(all.mutex);
    return all.texts.insert(std::move(text)).first->c_str();
}

} // namespace

const char *status_text(uint32_t status) {
    const uint32_t code = status & ~QFI_STATUS_LOCALIZED;
    if (code < QFI_STATUS_API_FIRST || code > QFI_FI_LAST)
        return nullptr;
    const std::size_t index = code - QFI_STATUS_API_FIRST;
    return (status & QFI_STATUS_LOCALIZED) != 0 ? localized_text(index) : status_texts[index].text;
}

void forget_localized_texts() noexcept {
    LocalizedTexts &all = localized_texts();
    const std::lock_guard lock(all.mutex);
    all.texts.clear();
}

namespace {

bool is_digit(char letter) {
    return letter >= '0' && letter <= '9';
}

// Reads "N$" after a "%", when it is there.
bool read_position(std::string_view format, std::size_t &at, std::size_t &position) {
    std::size_t end = at, number = 0;
    while (end < format.size() && is_digit(format[end]) && number < 100)
        number = number * 10 + static_cast<std::size_t>(format[end++] - '0');
    if (end == at || end >= format.size() || format[end] != '$')
        return false;
    at = end + 1;
    position = number;
    return true;
}

} // namespace

bool format_texts(std::string_view format, const std::vector<std::string> &arguments, std::string &text) {
    text.clear();
    std::size_t next = 1;
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%') {
            text += format[at];
            continue;
        }
        ++at;
        if (at < format.size() && format[at] == '%') {
            text += '%';
            continue;
        }
        std::size_t position = 0;
        if (!read_position(format, at, position))
            position = next++;
        if (at >= format.size() || format[at] != 's' || position == 0 || position > arguments.size())
            return false;
        text += arguments[position - 1];
    }
    return true;
}

namespace {

// A record that was raised by this library holds the format and all its arguments. One of the utility layer lacks its
// last argument, and other formats: then the text is what there is, word by word.
std::vector<std::string> arguments_of(const qfi_error_info &error) {
    std::vector<std::string> arguments;
    for (int32_t index = 1; index < error.count; ++index)
        arguments.emplace_back(error.arguments[index] != nullptr ? error.arguments[index] : "");
    return arguments;
}

std::string word_by_word(const std::string &format, const std::vector<std::string> &arguments) {
    std::string text = format;
    for (const std::string &argument : arguments)
        text += (text.empty() ? "" : " ") + argument;
    return text;
}

} // namespace

std::string english_message(const qfi_error_info &error) {
    const bool has_format = error.count > 0 && error.arguments != nullptr && error.arguments[0] != nullptr;
    if (!has_format)
        return error.message_id;
    const std::vector<std::string> arguments = arguments_of(error);
    std::string text;
    return format_texts(error.arguments[0], arguments, text) ? text : word_by_word(error.arguments[0], arguments);
}

std::string localized_message(const qfi_error_info &error) {
    const std::string format = catalog_text(error.message_id);
    std::string text;
    // A translation that does not fit the arguments is none.
    return !format.empty() && error.count > 0 && format_texts(format, arguments_of(error), text) ? text : std::string();
}

} // namespace qzfi::fi
