#include "common/qzfistringtool.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <new>
#include <string_view>

#include <unicode/ustring.h>

namespace {

constexpr const char *blanks = " \n\t\r";

bool is_decimal(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char digit) { return digit >= '0' && digit <= '9'; });
}

std::string_view without_last(std::string_view text, const char *set) {
    return text.substr(0, text.find_last_not_of(set) + 1); // npos + 1 is 0
}

// The classification functions are defined for unsigned characters only; a char may be negative.
int value_of(char character) {
    return static_cast<unsigned char>(character);
}

wint_t value_of(wchar_t character) {
    return std::bit_cast<wint_t>(character);
}

bool matches_without_case(char a, char b) {
    const int x = value_of(a);
    const int y = value_of(b);
    return x == y || (std::isalpha(x) != 0 && std::isalpha(y) != 0 && std::toupper(x) == std::toupper(y));
}

bool matches_without_case(wchar_t a, wchar_t b) {
    const wint_t x = value_of(a);
    const wint_t y = value_of(b);
    return x == y || (std::iswalpha(x) != 0 && std::iswalpha(y) != 0 && std::towupper(x) == std::towupper(y));
}

/// Appends a value in hexadecimal, with zeros before it up to `width` digits.
template <typename Character>
void append_hex(std::basic_string<Character> &text, unsigned int value, std::size_t width) {
    Character digits[2 * sizeof value];
    std::size_t first = std::size(digits);
    do {
        digits[--first] = static_cast<Character>("0123456789abcdef"[value % 16]);
        value /= 16;
    } while (value != 0);
    const std::size_t count = std::size(digits) - first;
    text.append(width > count ? width - count : 0, static_cast<Character>('0'));
    text.append(digits + first, count);
}

template <typename Character>
std::basic_string<Character> encoded(const unsigned char *bytes, int count) {
    std::basic_string<Character> text;
    text.reserve(2 * static_cast<std::size_t>(std::max(count, 0)));
    for (int place = 0; place < count; ++place)
        append_hex(text, bytes[place], 2);
    return text;
}

template <typename Character>
std::basic_string<Character> encoded_kind(unsigned int kind) {
    std::basic_string<Character> text;
    append_hex(text, kind, 4);
    return text;
}

// The readers of ids rely on the sign: a byte from 0x80 on is written with eight digits.
unsigned int signed_value(char byte) {
    return static_cast<unsigned int>(value_of(byte) > SCHAR_MAX ? value_of(byte) - (UCHAR_MAX + 1) : value_of(byte));
}

// A wide character that stands for a byte is written as that byte would be, and any other as it is.
unsigned int signed_value(wchar_t character) {
    const unsigned int value = value_of(character);
    return value <= UCHAR_MAX ? signed_value(static_cast<char>(value)) : value;
}

template <typename Character>
std::basic_string<Character> encoded_id(unsigned int kind, const std::basic_string<Character> &data) {
    std::basic_string<Character> text = encoded_kind<Character>(kind);
    for (const Character each : data)
        append_hex(text, signed_value(each), 2);
    return text;
}

template <typename Character>
void decode(unsigned char *bytes, int *count, const std::basic_string<Character> &text,
            unsigned long (*number)(const Character *, Character **, int)) {
    int written = 0;
    for (std::size_t place = 0; place < text.size(); place += 2) {
        const Character pair[] = {text[place], place + 1 < text.size() ? text[place + 1] : Character(), Character()};
        bytes[written++] = static_cast<unsigned char>(number(pair, nullptr, 16));
    }
    *count = written;
}

std::wstring widened(const char *text, std::size_t size) {
    std::wstring wide(size, L'\0'); // never more characters than bytes
    const std::size_t length = std::mbstowcs(wide.data(), text, size);
    wide.resize(length == static_cast<std::size_t>(-1) ? 0 : length);
    return wide;
}

// Callers know the byte form by its room: two bytes a character and two, and what does not fit is cut. There may be no
// room for a terminator then, so the count alone says where the text ends.
std::string narrowed(const std::wstring &text) {
    if (text.empty())
        return {};
    std::string bytes(2 * text.size() + 2, '\0');
    const std::size_t length = std::wcstombs(bytes.data(), text.c_str(), bytes.size());
    bytes.resize(length == static_cast<std::size_t>(-1) ? 0 : length);
    return bytes;
}

/// A text's UTF-8; empty when a surrogate stands alone, or when it is longer than ICU counts.
std::string to_utf8(const icu::UnicodeString &text) {
    const std::size_t most = 3 * static_cast<std::size_t>(text.length()); // bytes that so many units stand for
    std::string bytes(std::min<std::size_t>(most, INT32_MAX), '\0');
    UErrorCode status = U_ZERO_ERROR;
    int32_t size = 0;
    u_strToUTF8(bytes.data(), static_cast<int32_t>(bytes.size()), &size, text.getBuffer(), text.length(), &status);
    bytes.resize(U_SUCCESS(status) ? static_cast<std::size_t>(size) : 0);
    return bytes;
}

/// The text of UTF-8; empty when it is ill-formed, or longer than a Unicode string can be.
icu::UnicodeString from_utf8(const char *bytes, std::size_t size) {
    icu::UnicodeString text;
    if (size == 0 || size > INT32_MAX)
        return text;
    const auto capacity = static_cast<int32_t>(size); // never more units than bytes
    UChar *const units = text.getBuffer(capacity);
    if (units == nullptr)
        throw std::bad_alloc();
    UErrorCode status = U_ZERO_ERROR;
    int32_t length = 0;
    u_strFromUTF8(units, capacity, &length, bytes, capacity, &status);
    text.releaseBuffer(U_SUCCESS(status) ? length : 0);
    return text;
}

// ACE leaves a string empty when memory is short, and tells nobody.
ACE_String_Base<char> to_ace(const std::string &text) {
    ACE_String_Base<char> made(text.c_str(), text.size());
    if (made.length() != text.size())
        throw std::bad_alloc();
    return made;
}

/// A terminated copy from malloc; null when memory is short.
template <typename Character>
Character *copied(const Character *text, std::size_t size) {
    auto *const copy = static_cast<Character *>(std::malloc((size + 1) * sizeof(Character)));
    if (copy == nullptr)
        return nullptr;
    if (size != 0) // the text of an ACE string that was lost while it was copied is null
        std::memcpy(copy, text, size * sizeof(Character));
    copy[size] = Character();
    return copy;
}

const char *xml_escape(char character) {
    switch (character) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&#39;";
    default:
        return nullptr;
    }
}

} // namespace

std::string CCmnStringTool::bool2str(bool value) {
    return value ? "true" : "false";
}

std::string CCmnStringTool::int2str(int value) {
    return std::to_string(value);
}

std::string CCmnStringTool::int2str(long value) {
    return std::to_string(value);
}

std::string CCmnStringTool::uint2str(unsigned int value) {
    return std::to_string(value);
}

std::string CCmnStringTool::uint2str(unsigned long value) {
    return std::to_string(value);
}

std::string CCmnStringTool::double2str(double value) {
    char text[32]; // sign, six digits, a decimal point of up to six bytes, exponent
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::wstring CCmnStringTool::int2wstr(int value) {
    return std::to_wstring(value);
}

std::wstring CCmnStringTool::int2wstr(long value) {
    return std::to_wstring(value);
}

std::wstring CCmnStringTool::uint2wstr(unsigned int value) {
    return std::to_wstring(value);
}

std::wstring CCmnStringTool::uint2wstr(unsigned long value) {
    return std::to_wstring(value);
}

int CCmnStringTool::str2int(const std::string &text) {
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

void CCmnStringTool::str2int(const std::string &text, int &value) {
    value = str2int(text);
}

unsigned int CCmnStringTool::str2uint(const std::string &text) {
    return static_cast<unsigned int>(std::strtol(text.c_str(), nullptr, 10));
}

void CCmnStringTool::str2uint64(const std::string &text, unsigned long &value) {
    value = std::strtoull(text.c_str(), nullptr, 10);
}

double CCmnStringTool::str2double(const std::string &text) {
    return std::strtod(text.c_str(), nullptr);
}

// Callers rely on the empty text being taken for digits.
bool CCmnStringTool::isDigit(const std::string &text) {
    return is_decimal(text);
}

bool CCmnStringTool::CompareNoCase(const std::string &a, const std::string &b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return matches_without_case(x, y); });
}

bool CCmnStringTool::CompareNoCase(const std::wstring &a, const std::wstring &b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](wchar_t x, wchar_t y) { return matches_without_case(x, y); });
}

std::string CCmnStringTool::tostrlower(const std::string &text) {
    std::string lowered = text;
    for (char &each : lowered)
        if (std::isalpha(value_of(each)) != 0)
            each = static_cast<char>(std::tolower(value_of(each)));
    return lowered;
}

std::wstring CCmnStringTool::tostrlower(const std::wstring &text) {
    std::wstring lowered = text;
    for (wchar_t &each : lowered)
        if (std::iswalpha(value_of(each)) != 0)
            each = static_cast<wchar_t>(std::towlower(value_of(each)));
    return lowered;
}

std::string CCmnStringTool::ltrim(const std::string &text, const char *set) {
    if (set == nullptr)
        return text;
    const std::size_t first = text.find_first_not_of(set);
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::string CCmnStringTool::rtrim(const std::string &text, const char *set) {
    return set == nullptr ? text : std::string(without_last(text, set));
}

std::string CCmnStringTool::trim(const std::string &text, const char *set) {
    return rtrim(ltrim(text, set), set);
}

unsigned long CCmnStringTool::find(const std::vector<std::string> &list, const char *text, unsigned long &index,
                                   bool trimmed) {
    for (std::size_t place = index; text != nullptr && place < list.size(); ++place) {
        const std::string_view element = trimmed ? without_last(list[place], blanks) : list[place];
        const std::size_t position = element.find(text);
        if (position == std::string_view::npos)
            continue;
        index = place;
        return position;
    }
    index = list.size();
    return ULONG_MAX;
}

std::string CCmnStringTool::binary2str(const unsigned char *bytes, int count) {
    return encoded<char>(bytes, count);
}

std::wstring CCmnStringTool::binary2wstr(const unsigned char *bytes, int count) {
    return encoded<wchar_t>(bytes, count);
}

void CCmnStringTool::str2binary(unsigned char *bytes, int *count, const std::string &text) {
    decode(bytes, count, text, std::strtoul);
}

void CCmnStringTool::wstr2binary(unsigned char *bytes, int *count, const std::wstring &text) {
    decode(bytes, count, text, std::wcstoul);
}

std::string CCmnStringTool::str2uid(unsigned int kind, const std::string &data) {
    return encoded_id(kind, data);
}

std::wstring CCmnStringTool::wstr2uid(unsigned int kind, const std::wstring &data) {
    return encoded_id(kind, data);
}

std::wstring CCmnStringTool::binary2uid(unsigned int kind, const unsigned char *bytes, int count) {
    return encoded_kind<wchar_t>(kind) + binary2wstr(bytes, count);
}

std::wstring CCmnStringTool::str2wstr(const std::string &text) {
    return widened(text.c_str(), text.size());
}

std::string CCmnStringTool::wstr2str(const std::wstring &text) {
    return narrowed(text);
}

std::wstring CCmnStringTool::mbs2wcs(const std::string &text) {
    return str2wstr(text);
}

std::string CCmnStringTool::wcs2mbs(const std::wstring &text) {
    return wstr2str(text);
}

std::wstring CCmnStringTool::tstr2wstr(const ACE_String_Base<char> &text) {
    return str2wstr(std::string(text.c_str(), text.length()));
}

ACE_String_Base<char> CCmnStringTool::wstr2tstr(const std::wstring &text) {
    return to_ace(wstr2str(text));
}

std::string CCmnStringTool::ustr2str(const icu::UnicodeString &text) {
    return to_utf8(text);
}

icu::UnicodeString CCmnStringTool::str2ustr(const std::string &text) {
    return from_utf8(text.data(), text.size());
}

ACE_String_Base<char> CCmnStringTool::ustr2tstr(const icu::UnicodeString &text) {
    return to_ace(to_utf8(text));
}

icu::UnicodeString CCmnStringTool::tstr2ustr(const ACE_String_Base<char> &text) {
    return from_utf8(text.c_str(), text.length());
}

char *CCmnStringTool::strdup(const std::string &text) {
    return copied(text.data(), text.size());
}

wchar_t *CCmnStringTool::wstrdup(const std::wstring &text) {
    return copied(text.data(), text.size());
}

char *CCmnStringTool::tstrdup(const ACE_String_Base<char> &text) {
    return copied(text.c_str(), text.length());
}

char **CCmnStringTool::tstrduplist(const std::vector<ACE_String_Base<char>> &list) {
    auto **copies = static_cast<char **>(std::calloc(list.size() + 1, sizeof(char *)));
    for (std::size_t place = 0; copies != nullptr && place < list.size(); ++place) {
        copies[place] = tstrdup(list[place]);
        if (copies[place] == nullptr)
            tstrfreelist(copies);
    }
    return copies;
}

void CCmnStringTool::tstrfreelist(char **&list) {
    if (list == nullptr)
        return;
    for (char **text = list; *text != nullptr; ++text)
        std::free(*text);
    std::free(list);
    list = nullptr;
}

// Callers rely on the leniency: a field's value is not looked at, and an empty field is skipped.
bool CCmnStringTool::isIpAddress(const std::string &text) {
    std::string_view rest = text;
    int fields = 0;
    while (!rest.empty()) {
        const std::string_view field = rest.substr(0, rest.find('.'));
        rest.remove_prefix(std::min(field.size() + 1, rest.size()));
        if (!is_decimal(field))
            return false;
        fields += !field.empty();
    }
    return fields == 4;
}

// One pass replaces as one pass for each character, "&" first, would: no replaced text is looked at again.
std::string CCmnStringTool::convertToXmlSpecialCharacters(const std::string &text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char each : text) {
        if (const char *const escape = xml_escape(each); escape != nullptr)
            escaped += escape;
        else
            escaped += each;
    }
    return escaped;
}

std::string CCmnStringTool::xmlBracket(const std::string &name, bool opening, bool line_feed) {
    return (opening ? "<" : "</") + name + (line_feed ? ">\n" : ">");
}

std::string CCmnStringTool::xmlBracketValue(const std::string &name, const std::string &value) {
    return "\t" + xmlBracket(name, true, false) + convertToXmlSpecialCharacters(value) + xmlBracket(name, false, true);
}
