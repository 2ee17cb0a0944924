#include "util/qzfiutil_format.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace qzfi {
namespace {

constexpr std::size_t most_arguments = 16;
constexpr std::size_t directive_size = 24;
constexpr std::size_t most_digits = 4; // of a width or precision: more than any buffer here holds costs only time

/// What an argument is passed as.
enum class Kind : uint8_t { unknown, integer, long_integer, real, long_real, text, bounded_text, wide_text, pointer };
using Kinds = std::array<Kind, most_arguments>;

struct Conversion {
    Kind kind = Kind::unknown;
    std::size_t position = 0;         // of its argument, from 1; 0 for the next
    std::size_t stars = 0;            // widths and precisions that are arguments, before its own
    char directive[directive_size]{}; // without the position
    const char *end = nullptr;
};

Kind kind_of(std::string_view modifiers, char letter) noexcept {
    const auto is_any_of = [](std::string_view choice, char wanted) { return choice.find(wanted) != choice.npos; };
    if (is_any_of("diouxX", letter))
        return modifiers.empty() || modifiers.front() == 'h' ? Kind::integer : Kind::long_integer;
    if (is_any_of("aAeEfFgG", letter))
        return modifiers.empty() ? Kind::real : modifiers == "L" ? Kind::long_real : Kind::unknown;
    if (letter == 's')
        return modifiers.empty() ? Kind::text : modifiers == "l" ? Kind::wide_text : Kind::unknown;
    if (!modifiers.empty())
        return Kind::unknown;
    return letter == 'c' ? Kind::integer : letter == 'p' ? Kind::pointer : Kind::unknown;
}

std::size_t digits_at(const char *at) noexcept {
    return std::strspn(at, "0123456789");
}

/// Steps past a width or precision; false when it is too large.
bool skip_number(const char *&at, std::size_t &stars) noexcept {
    if (*at == '*') {
        ++at;
        ++stars;
        return true;
    }
    const std::size_t digits = digits_at(at);
    at += digits;
    return digits <= most_digits;
}

/// Reads the conversion whose "%" stands before `at`; its kind is unknown when it is none to be used.
Conversion read_conversion(const char *at) noexcept {
    Conversion result;
    const std::size_t digits = digits_at(at);
    if (digits > 0 && at[digits] == '$') {
        result.position = std::strtoul(at, nullptr, 10);
        at += digits + 1;
        if (result.position == 0 || result.position > most_arguments)
            return result;
    }
    const char *const start = at;
    at += std::strspn(at, "-+ #0'");
    if (!skip_number(at, result.stars))
        return result;
    if (*at == '.' && !skip_number(++at, result.stars))
        return result;
    const std::size_t modifiers = std::strspn(at, "hlqjztL");
    const char letter = at[modifiers];
    result.end = at + modifiers + 1;
    const auto length = static_cast<std::size_t>(result.end - start);
    if (letter == '\0' || length + 2 > directive_size || (result.position != 0 && result.stars != 0))
        return result;
    result.directive[0] = '%';
    std::memcpy(result.directive + 1, start, length);
    result.kind = kind_of({at, modifiers}, letter);
    return result;
}

/// The kinds of the arguments that a format takes, up to the first that is not known.
Kinds kinds_of(const char *format) noexcept {
    Kinds kinds{};
    std::size_t next = 0;
    while ((format = std::strchr(format, '%')) != nullptr) {
        if (*++format == '%') {
            ++format;
            continue;
        }
        const Conversion conversion = read_conversion(format);
        const std::size_t first = conversion.position != 0 ? conversion.position - 1 : next;
        const std::size_t last = first + conversion.stars;
        if (conversion.kind == Kind::unknown || last >= most_arguments)
            break;
        std::fill(kinds.begin() + first, kinds.begin() + last, Kind::integer);
        // A text that is given with a precision may have no terminator, so no translation is trusted with it.
        const bool is_bounded = conversion.kind == Kind::text && std::strchr(conversion.directive, '.') != nullptr;
        kinds[last] = is_bounded ? Kind::bounded_text : conversion.kind;
        next = last + 1;
        format = conversion.end;
    }
    return kinds;
}

/// Whether the arguments from `first` are what the conversion takes, and all before them can be stepped over.
bool takes_what_is_there(const Conversion &conversion, const Kinds &kinds, std::size_t first) noexcept {
    const std::size_t last = first + conversion.stars;
    if (conversion.kind == Kind::unknown || last >= most_arguments || kinds[last] != conversion.kind)
        return false;
    const auto *const begin = kinds.data();
    return std::all_of(begin, begin + first, [](Kind kind) { return kind != Kind::unknown; }) &&
           std::all_of(begin + first, begin + last, [](Kind kind) { return kind == Kind::integer; });
}

/// Formats a conversion with the arguments from `first`. One by one, as the C library ends the process for a format
/// that names a later argument but not every earlier one.
int format_one(char *buffer, std::size_t size, const Conversion &conversion, const Kinds &kinds, std::size_t first,
               va_list arguments) noexcept {
    va_list own;
    va_copy(own, arguments);
    for (std::size_t index = 0; index < first; ++index) {
        switch (kinds[index]) { // NOLINTNEXTLINE(bugprone-branch-clone): the branches differ in their types
        case Kind::integer:
            (void)va_arg(own, int);
            break;
        case Kind::long_integer:
            (void)va_arg(own, int64_t);
            break;
        case Kind::real:
            (void)va_arg(own, double);
            break;
        case Kind::long_real:
            (void)va_arg(own, long double);
            break;
        default:
            (void)va_arg(own, const void *);
        }
    }
    const int length = std::vsnprintf(buffer, size, conversion.directive, own);
    va_end(own);
    return length;
}

PlaceholderArgument placeholder_argument(Kind kind) noexcept {
    return kind == Kind::integer ? PlaceholderArgument::integer
           : kind == Kind::real  ? PlaceholderArgument::real
                                 : PlaceholderArgument::none;
}

} // namespace

bool placeholders_agree(const CatalogPattern &translation, const char *english) noexcept {
    const Kinds kinds = kinds_of(english);
    std::array<PlaceholderArgument, most_arguments> arguments;
    std::transform(kinds.begin(), kinds.end(), arguments.begin(), placeholder_argument);
    return translation.reads_only(arguments.data(), arguments.size());
}

bool format_translation(char *buffer, std::size_t size, const char *translation, const char *english,
                        va_list arguments) noexcept {
    const Kinds kinds = kinds_of(english);
    std::size_t next = 0;
    std::size_t used = 0; // goes on when the buffer is full, as what is cut off must be sound as well
    while (*translation != '\0') {
        if (*translation != '%' || translation[1] == '%') {
            translation += *translation == '%';
            if (used + 1 < size)
                buffer[used++] = *translation;
            ++translation;
            continue;
        }
        const Conversion conversion = read_conversion(translation + 1);
        const std::size_t first = conversion.position != 0 ? conversion.position - 1 : next;
        if (!takes_what_is_there(conversion, kinds, first))
            return false;
        const int length = format_one(buffer + used, size - used, conversion, kinds, first, arguments);
        if (length < 0)
            return false;
        used = std::min(used + static_cast<std::size_t>(length), size - 1);
        if (conversion.position == 0)
            next = first + conversion.stars + 1;
        translation = conversion.end;
    }
    buffer[used] = '\0';
    return true;
}

} // namespace qzfi
