#include "msgcat/qzfiicuerrormgr.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include <unicode/messagepattern.h>
#include <unicode/umsg.h>
#include <unicode/ustring.h>

#include <qzfi/catalogs.h>

#include "common/qzfilock.h"
#include "common/qzfistringtool.h"
#include "msgcat/qzfiicucatalog.h"

namespace qzfi {
namespace {

using Manager = qzfi_pdk_4_4::CFiMessageCatalogManagerSingleton;

constexpr std::size_t longest_text = INT32_MAX / 4; // so that ICU can count the units of its UTF-16
constexpr int most_nested_braces = 64;

/// The one factory of all locales: the manager reads the locale from it when it is registered, which every call does.
class Factory : public qzfi_pdk_4_4::CFiIcuMessageCatalogFactory {
public:
    Factory() : CFiIcuMessageCatalogFactory("", "fi") {}
    void set_locale(const char *locale) { default_locale_ = locale; }
};

// Held wherever the catalogs or ICU are at work. Nothing that is called meanwhile takes a lock of the library's or
// calls the host back.
pthread_mutex_t catalogs_mutex = PTHREAD_MUTEX_INITIALIZER;
bool catalogs_are_gone = false;

void lock_catalogs() noexcept {
    pthread_mutex_lock(&catalogs_mutex);
}

void unlock_catalogs() noexcept {
    pthread_mutex_unlock(&catalogs_mutex);
}

/// A fork waits for the thread that is inside, which the child does not have: there this lock and those of ICU would
/// stay taken, and a look-up or the end of the process would hang. When the library is loaded, so that handlers of a
/// host that holds a lock while it asks for a text come before these; the C library drops them when it is unloaded.
[[gnu::constructor]] void watch_forks() noexcept {
    (void)pthread_atfork(lock_catalogs, unlock_catalogs, unlock_catalogs);
}

/// Refuses calls from its destruction on.
struct EndOfCalls {
    ~EndOfCalls() {
        const LockGuard guard{catalogs_mutex};
        catalogs_are_gone = true;
    }
};

const char *name_of(const char *locale) noexcept {
    return locale != nullptr ? locale : "";
}

Text look_up(const char *message_id, const char *locale) {
    const LockGuard guard{catalogs_mutex};
    if (catalogs_are_gone)
        return nullptr;
    // Destroyed in reverse, at exit or when the library is unloaded: the end of calls, the manager, its factory.
    static Factory factory;
    static const Manager::Reference manager = Manager::instance();
    static const EndOfCalls end_of_calls;
    factory.set_locale(name_of(locale));
    manager->registerFactory(&factory);
    char *text = nullptr;
    manager->getLocalizedMessage(message_id, locale, &text);
    return Text{text};
}

Text to_utf8(const char16_t *units) noexcept {
    try {
        const icu::UnicodeString text{units};
        return Text{text.isBogus() ? nullptr : CCmnStringTool::tstrdup(CCmnStringTool::ustr2tstr(text))};
    } catch (...) {
        return nullptr;
    }
}

/// ICU's parser calls itself for each level, up to 32767 deep, which no stack is sure to hold.
bool is_nested_too_deep(const char16_t *pattern) noexcept {
    int depth = 0;
    bool may_be_quoted = false; // after an apostrophe a brace may close nothing
    for (; *pattern != 0 && depth <= most_nested_braces; ++pattern) {
        may_be_quoted |= *pattern == u'\'';
        if (*pattern == u'{')
            ++depth;
        else if (*pattern == u'}' && depth > 0 && !may_be_quoted)
            --depth;
    }
    return depth > most_nested_braces;
}

int32_t format_into(char16_t *result, int32_t capacity, const char16_t *pattern, const char *locale, va_list arguments,
                    UErrorCode &status) noexcept {
    va_list own;
    va_copy(own, arguments);
    UParseError unused;
    const int32_t length =
        u_vformatMessageWithError(name_of(locale), pattern, -1, result, capacity, &unused, own, &status);
    va_end(own);
    return std::max(length, 0);
}

/// What ICU reads for the placeholder that begins at `part`; none when that is not an argument of a number.
PlaceholderArgument argument_of(const icu::MessagePattern &pattern, int32_t part) {
    if (pattern.getPart(part).getArgType() != UMSGPAT_ARG_TYPE_SIMPLE ||
        pattern.getPartType(part + 1) != UMSGPAT_PART_TYPE_ARG_NUMBER ||
        pattern.getSubstring(pattern.getPart(part + 2)) != u"number")
        return PlaceholderArgument::none;
    if (pattern.getPartType(part + 3) != UMSGPAT_PART_TYPE_ARG_STYLE)
        return PlaceholderArgument::real;
    const bool is_integer = pattern.getSubstring(pattern.getPart(part + 3)).trim() == u"integer";
    return is_integer ? PlaceholderArgument::integer : PlaceholderArgument::none;
}

bool all_agree(const icu::MessagePattern &pattern, const PlaceholderArgument *arguments, std::size_t count) {
    uint64_t read = 0; // bit n: argument n
    for (int32_t part = 0; part < pattern.countParts(); ++part) {
        if (pattern.getPartType(part) != UMSGPAT_PART_TYPE_ARG_START)
            continue;
        const PlaceholderArgument argument = argument_of(pattern, part);
        const auto number = static_cast<std::size_t>(pattern.getPart(part + 1).getValue());
        if (argument == PlaceholderArgument::none || number >= std::min<std::size_t>(count, 64) ||
            arguments[number] != argument)
            return false;
        read |= uint64_t{1} << number;
    }
    // ICU steps over an argument that no placeholder names, but it cannot know how that was passed.
    return (read & (read + 1)) == 0;
}

} // namespace

Text catalog_text(const char *message_id, const char *locale) noexcept {
    try {
        return look_up(message_id, locale);
    } catch (...) {
        return nullptr;
    }
}

CatalogPattern::CatalogPattern(const char *text) noexcept {
    const std::size_t length = std::strlen(text);
    if (length > longest_text)
        return;
    // Bounded, and with room for code pages in which one byte gives two units.
    const std::size_t capacity = 2 * length + 1;
    const LockGuard guard{catalogs_mutex};
    units_.reset(static_cast<char16_t *>(std::calloc(capacity + 1, sizeof(char16_t))));
    if (!units_)
        return;
    u_uastrncpy(units_.get(), text, static_cast<int32_t>(capacity));
    // ICU tells by an empty text that it has no memory for a converter.
    if (*units_ == 0 && length > 0)
        units_.reset();
}

bool CatalogPattern::reads_only(const PlaceholderArgument *arguments, std::size_t count) const noexcept {
    if (is_nested_too_deep(units_.get()))
        return true;
    const LockGuard guard{catalogs_mutex};
    try {
        UErrorCode status = U_ZERO_ERROR;
        icu::MessagePattern pattern{status};
        pattern.parse(icu::UnicodeString{units_.get()}, nullptr, status);
        if (U_FAILURE(status)) // refused, so nothing is read; but not for want of memory, which there may be next time
            return status != U_MEMORY_ALLOCATION_ERROR;
        return all_agree(pattern, arguments, count);
    } catch (...) {
        return false;
    }
}

Text CatalogPattern::format(const char *locale, va_list arguments) const noexcept {
    const LockGuard guard{catalogs_mutex};
    UErrorCode status = is_nested_too_deep(units_.get()) ? U_INDEX_OUTOFBOUNDS_ERROR : U_ZERO_ERROR;
    const int32_t length = format_into(nullptr, 0, units_.get(), locale, arguments, status);
    const Units result{static_cast<char16_t *>(std::calloc(static_cast<std::size_t>(length) + 1, sizeof(char16_t)))};
    if (!result)
        return nullptr;
    if (status == U_BUFFER_OVERFLOW_ERROR) {
        status = U_ZERO_ERROR;
        format_into(result.get(), length + 1, units_.get(), locale, arguments, status);
    }
    if (U_FAILURE(status) && *result == 0)
        return duplicate(reinterpret_cast<const char *>(units_.get()));
    return to_utf8(result.get());
}

} // namespace qzfi

char *fi_get_icuMsg(const char *message_id, const char *locale, va_list arguments, int raw) {
    qzfi::Text text = qzfi::catalog_text(message_id, locale);
    if (!text || raw != 0)
        return text.release();
    const qzfi::CatalogPattern pattern{text.get()};
    return pattern ? pattern.format(locale, arguments).release() : nullptr;
}
