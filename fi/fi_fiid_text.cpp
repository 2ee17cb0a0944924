#include "fi/fi_fiid_text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "fi/fi_library.h"

namespace qzfi::fi {

namespace {

unsigned byte_at(std::string_view text, std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

bool continues(unsigned byte) {
    return (byte & 0xc0) == 0x80;
}

// The length of the character that begins at a place, 0 when it is not UTF-8 or XML cannot hold it as it stands. Line
// ends and tabs count as such: readers of XML change them.
std::size_t character_at(std::string_view text, std::size_t at) {
    const unsigned first = byte_at(text, at), second = byte_at(text, at + 1), third = byte_at(text, at + 2),
                   fourth = byte_at(text, at + 3);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7f ? 1 : 0;
    if (first >= 0xc2 && first <= 0xdf && continues(second))
        return first == 0xc2 && second < 0xa0 ? 0 : 2; // the second set of control characters
    if (first >= 0xe0 && first <= 0xef && continues(second) && continues(third)) {
        const unsigned code = (first & 0xf) << 12 | (second & 0x3f) << 6 | (third & 0x3f);
        const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
        return code < 0x800 || is_surrogate || code >= 0xfffe ? 0 : 3;
    }
    if (first >= 0xf0 && first <= 0xf4 && continues(second) && continues(third) && continues(fourth)) {
        const unsigned code = (first & 7) << 18 | (second & 0x3f) << 12 | (third & 0x3f) << 6 | (fourth & 0x3f);
        return code < 0x10000 || code > 0x10ffff ? 0 : 4;
    }
    return 0;
}

int hex_value(char letter) {
    if (letter >= '0' && letter <= '9')
        return letter - '0';
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

// Days since 1 January 1970 of a date in the Gregorian calendar; years are counted from March, so that a leap day comes
// last.
int64_t days_of(int64_t year, int month, int day) {
    year -= month <= 2;
    const int64_t era = year / 400, year_of_era = year - era * 400;
    const int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * 146097 + year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year - 719468;
}

struct Date {
    int64_t year;
    int month, day;
};

Date date_of(int64_t days) {
    days += 719468;
    const int64_t era = days / 146097, day_of_era = days - era * 146097;
    const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int shifted = static_cast<int>((5 * day_of_year + 2) / 153);
    const int month = shifted < 10 ? shifted + 3 : shifted - 9;
    const int day = static_cast<int>(day_of_year - (153 * shifted + 2) / 5) + 1;
    return {year_of_era + era * 400 + (month <= 2), month, day};
}

constexpr int64_t second_ns = 1'000'000'000;
constexpr int64_t day_seconds = 86400;

} // namespace

std::string fiid_escaped(std::string_view bytes) {
    constexpr const char *digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size());
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = character_at(bytes, at);
        if (bytes[at] == '\\') {
            text += "\\\\";
            ++at;
        } else if (length != 0) {
            text += bytes.substr(at, length);
            at += length;
        } else {
            const unsigned byte = byte_at(bytes, at);
            text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
            ++at;
        }
    }
    return text;
}

bool fiid_unescaped(std::string_view text, std::string &bytes) {
    bytes.clear();
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            bytes += text[at];
            continue;
        }
        if (byte_at(text, at + 1) == '\\') {
            bytes += '\\';
            ++at;
            continue;
        }
        if (text.size() - at < 4 || text[at + 1] != 'x')
            return false;
        const int high = hex_value(text[at + 2]), low = hex_value(text[at + 3]);
        if (high < 0 || low < 0 || high * 16 + low == 0)
            return false;
        bytes += static_cast<char>(high * 16 + low);
        at += 3;
    }
    return fiid_escaped(bytes) == text;
}

std::string fiid_time(int64_t ns) {
    const int64_t fraction = ((ns % second_ns) + second_ns) % second_ns;
    const int64_t seconds = ns / second_ns - (ns % second_ns < 0);
    const int64_t time = ((seconds % day_seconds) + day_seconds) % day_seconds;
    const Date date = date_of(seconds / day_seconds - (seconds % day_seconds < 0));
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%09dZ", static_cast<int>(date.year), date.month,
                  date.day, static_cast<int>(time / 3600), static_cast<int>(time / 60 % 60),
                  static_cast<int>(time % 60), static_cast<int>(fraction));
    return text;
}

bool parse_fiid_time(std::string_view text, int64_t &ns) {
    constexpr std::string_view shape = "0000-00-00T00:00:00.000000000Z";
    if (text.size() != shape.size())
        return false;
    for (std::size_t at = 0; at < text.size(); ++at)
        if (shape[at] == '0' ? text[at] < '0' || text[at] > '9' : text[at] != shape[at])
            return false;
    const auto number = [&](std::size_t at, std::size_t length) {
        int value = 0;
        std::from_chars(text.data() + at, text.data() + at + length, value);
        return value;
    };
    const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    const int64_t days = days_of(number(0, 4), number(5, 2), number(8, 2));
    int64_t whole = 0;
    const int64_t seconds = days * day_seconds + int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
    // The first second that 64 bits hold only a part of is reached from the one after it.
    const int64_t shifted = seconds < 0 ? seconds + 1 : seconds;
    const int64_t rest = number(20, 9) - (seconds < 0 ? second_ns : 0);
    if (__builtin_mul_overflow(shifted, second_ns, &whole) || __builtin_add_overflow(whole, rest, &ns))
        return false;
    // What is no date or no time of day, such as 30 February, comes out as another text.
    return fiid_time(ns) == text;
}

bool parse_fiid_number(std::string_view text, uint64_t &number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool has_zeros = text.size() > 1 && text[0] == '0';
    return error == std::errc() && end == text.data() + text.size() && !has_zeros;
}

bool is_canonical_path(std::string_view path) {
    return !path.empty() && path[0] == '/' && path.size() <= path_limit && is_canonical_subpath(path.substr(1));
}

bool is_canonical_subpath(std::string_view path) {
    return path.size() <= path_limit && path.find('\0') == std::string_view::npos && stays_below(path);
}

} // namespace qzfi::fi
