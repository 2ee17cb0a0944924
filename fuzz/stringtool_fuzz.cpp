// Any bytes as a text and a second one: a byte with the first one's length, then both. What the string tool makes of
// them is taken back, or made again by plain means.
#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/qzfistringtool.h"
#include "target.h"

namespace {

using Tool = CCmnStringTool;
using Bytes = std::vector<unsigned char>;

bool is_ascii(const std::string &text) {
    return std::all_of(text.begin(), text.end(), [](char each) { return static_cast<unsigned char>(each) < 0x80; });
}

/// A text read as bytes, into a buffer of exactly the room that it needs.
Bytes decoded(const std::string &text) {
    Bytes bytes((text.size() + 1) / 2);
    int count = -1;
    Tool::str2binary(bytes.data(), &count, text);
    require(count == static_cast<int>(bytes.size()));
    if (!is_ascii(text))
        return bytes;
    Bytes from_wide(bytes.size());
    Tool::wstr2binary(from_wide.data(), &count, std::wstring(text.begin(), text.end()));
    require(count == static_cast<int>(bytes.size()) && from_wide == bytes);
    return bytes;
}

void hexadecimal(const std::string &text) {
    const Bytes bytes(text.begin(), text.end());
    const std::string digits = Tool::binary2str(bytes.data(), static_cast<int>(bytes.size()));
    require(digits.size() == 2 * bytes.size() && decoded(digits) == bytes);
    require(Tool::binary2wstr(bytes.data(), static_cast<int>(bytes.size())) ==
            std::wstring(digits.begin(), digits.end()));

    std::string id = "0001";
    for (const char each : text) {
        char byte[9];
        std::snprintf(byte, sizeof byte, "%02x", static_cast<unsigned>(static_cast<signed char>(each)));
        id += byte;
    }
    require(Tool::str2uid(1, text) == id);

    const Bytes read = decoded(text);
    if (text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return;
    std::string expected = Tool::tostrlower(text);
    if (expected.size() % 2 != 0)
        expected.insert(expected.size() - 1, "0");
    require(Tool::binary2str(read.data(), static_cast<int>(read.size())) == expected);
}

void numbers(const std::string &text) {
    std::size_t place = 0;
    while (place < text.size() && std::strchr(" \t\n\v\f\r", text[place]) != nullptr && text[place] != '\0')
        ++place;
    const bool is_negative = text[place] == '-';
    place += text[place] == '-' || text[place] == '+';
    unsigned __int128 magnitude = 0;
    for (; text[place] >= '0' && text[place] <= '9'; ++place)
        magnitude = std::min<unsigned __int128>(magnitude * 10 + static_cast<unsigned>(text[place] - '0'),
                                                static_cast<unsigned __int128>(1) << 65);
    const __int128 value = is_negative ? -static_cast<__int128>(magnitude) : static_cast<__int128>(magnitude);
    const long number = static_cast<long>(std::clamp<__int128>(value, LONG_MIN, LONG_MAX));
    require(Tool::str2int(text) == static_cast<int>(number));
    require(Tool::str2uint(text) == static_cast<unsigned>(number));
    unsigned long wide = 0;
    Tool::str2uint64(text, wide);
    require(wide == (magnitude > ULONG_MAX ? ULONG_MAX : static_cast<unsigned long>(value)));

    require(Tool::str2int(Tool::int2str(static_cast<int>(number))) == static_cast<int>(number));
    Tool::str2uint64(Tool::int2str(number), wide);
    require(wide == static_cast<unsigned long>(number));
    double real = Tool::str2double(text);
    require(Tool::double2str(Tool::str2double(Tool::double2str(real))) == Tool::double2str(real));
    std::memcpy(&real, text.data(), std::min(text.size(), sizeof real));
    require(Tool::double2str(Tool::str2double(Tool::double2str(real))) == Tool::double2str(real));
}

void address(const std::string &text) {
    int fields = 0;
    for (std::size_t place = 0; place < text.size(); ++place)
        fields += text[place] != '.' && (place == 0 || text[place - 1] == '.');
    require(Tool::isIpAddress(text) == (fields == 4 && text.find_first_not_of("0123456789.") == std::string::npos));
    require(Tool::isDigit(text) == (text.find_first_not_of("0123456789") == std::string::npos));
}

std::string trimmed(std::string text, const std::string &set, bool at_start) {
    while (at_start && !text.empty() && set.find(text.front()) != std::string::npos)
        text.erase(0, 1);
    while (!text.empty() && set.find(text.back()) != std::string::npos)
        text.pop_back();
    return text;
}

void find(const std::vector<std::string> &list, const char *text, unsigned long start, bool trim) {
    unsigned long expected_index = list.size();
    unsigned long expected = ULONG_MAX;
    for (unsigned long place = start; place < list.size() && expected == ULONG_MAX; ++place) {
        expected = (trim ? trimmed(list[place], " \n\t\r", false) : list[place]).find(text);
        expected_index = expected == ULONG_MAX ? list.size() : place;
    }
    unsigned long index = start;
    require(Tool::find(list, text, index, trim) == expected && index == expected_index);
}

/// Of the locale's bytes only ASCII has letters.
char lowered(char each) {
    return each >= 'A' && each <= 'Z' ? static_cast<char>(each - 'A' + 'a') : each;
}

void cases(const std::string &text, const std::string &other) {
    std::string expected = text;
    std::transform(text.begin(), text.end(), expected.begin(), lowered);
    require(Tool::tostrlower(text) == expected && Tool::CompareNoCase(text, expected));
    const bool is_same = std::equal(text.begin(), text.end(), other.begin(), other.end(),
                                    [](char x, char y) { return lowered(x) == lowered(y); });
    require(Tool::CompareNoCase(text, other) == is_same);
    if (!is_ascii(text) || !is_ascii(other))
        return;
    const std::wstring wide(text.begin(), text.end());
    require(Tool::tostrlower(wide) == std::wstring(expected.begin(), expected.end()));
    require(Tool::CompareNoCase(wide, std::wstring(other.begin(), other.end())) == is_same);
}

void trimming(const std::string &text, const std::string &other) {
    const std::string set = other.c_str();
    require(Tool::trim(text, set.c_str()) == trimmed(text, set, true));
    require(Tool::rtrim(text, set.c_str()) == trimmed(text, set, false));
    for (unsigned long start = 0; start < 5; ++start)
        for (const bool trim : {false, true})
            find({text, other, text + other, other + " \t"}, set.c_str(), start, trim);
}

void xml(const std::string &text) {
    const std::string escaped = Tool::convertToXmlSpecialCharacters(text);
    require(escaped.find_first_of("<>\"'") == std::string::npos);
    std::string plain;
    for (std::size_t place = 0; place < escaped.size(); ++place) {
        plain += escaped[place];
        if (escaped[place] != '&')
            continue;
        const std::size_t end = escaped.find(';', place);
        const std::string name = escaped.substr(place, end - place);
        plain.back() = name == "&amp" ? '&' : name == "&lt" ? '<' : name == "&gt" ? '>' : name == "&quot" ? '"' : '\'';
        place = end;
    }
    require(plain == text);
}

/// Well-formed UTF-8 is what the two decoders agree upon: the C library's and ICU's. The former takes also what lies
/// beyond the last character.
void encodings(const std::string &text) {
    const icu::UnicodeString unicode = Tool::str2ustr(text);
    require(Tool::ustr2str(unicode) == (unicode.isEmpty() ? std::string() : text));
    const std::wstring wide = Tool::str2wstr(text);
    const bool is_cut = text.find('\0') != std::string::npos;
    const bool is_beyond = std::any_of(wide.begin(), wide.end(), [](wchar_t each) { return each > L'\x10FFFF'; });
    require(!is_beyond || unicode.isEmpty() || is_cut);
    std::vector<UChar32> points(static_cast<std::size_t>(unicode.countChar32()));
    UErrorCode status = U_ZERO_ERROR;
    unicode.toUTF32(points.data(), static_cast<int32_t>(points.size()), status);
    require(is_cut || is_beyond ||
            std::equal(points.begin(), points.end(), wide.begin(), wide.end(),
                       [](UChar32 x, wchar_t y) { return x == static_cast<UChar32>(y); }));
    const std::string bytes = Tool::wstr2str(wide);
    const std::size_t room = 2 * wide.size() + 2;
    require(text.compare(0, bytes.size(), bytes) == 0 && bytes.size() <= room);
    require(wide.empty() || is_cut || bytes.size() == text.size() || bytes.size() + 3 >= room);

    std::vector<char16_t> units(text.size() / 2);
    if (!units.empty())
        std::memcpy(units.data(), text.data(), 2 * units.size());
    const icu::UnicodeString any(units.data(), static_cast<int32_t>(units.size()));
    bool is_well_formed = true;
    for (int32_t place = 0; place < any.length(); place = any.moveIndex32(place, 1))
        is_well_formed &= !U_IS_SURROGATE(any.char32At(place));
    require(Tool::str2ustr(Tool::ustr2str(any)) == (is_well_formed ? any : icu::UnicodeString()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    static const bool is_set = std::setlocale(LC_ALL, "C.UTF-8") != nullptr;
    require(is_set);
    if (size == 0)
        return 0;
    const std::string all(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string text = all.substr(0, data[0]);
    hexadecimal(text);
    numbers(text);
    address(text);
    cases(text, all.substr(text.size()));
    trimming(text, all.substr(text.size()));
    xml(text);
    encodings(text);
    return 0;
}
