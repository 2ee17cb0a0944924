#include "tools/qzfi/text.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <sys/ioctl.h>

#include <qzfi_provider.h>

namespace qzfi::tool {

namespace {

template <typename... Arguments>
std::string formatted(const char *format, Arguments... arguments) {
    std::array<char, 128> buffer;
    const int length = std::snprintf(buffer.data(), buffer.size(), format, arguments...);
    return {buffer.data(), static_cast<std::size_t>(std::max(length, 0))};
}

// One character from the front of a text: its bytes and columns. Bytes that are no character count as one column each.
struct Character {
    std::size_t bytes;
    std::size_t columns;
    bool is_printable;
};
Character first_character(std::string_view text) {
    std::mbstate_t state = {};
    wchar_t wide = 0;
    const std::size_t bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
    if (bytes == 0 || bytes > text.size())
        return {1, 1, false};
    const int columns = wcwidth(wide);
    return columns < 0 ? Character{bytes, 1, false} : Character{bytes, static_cast<std::size_t>(columns), true};
}

// Seconds from the framework's epoch, 1900, to that of the system, 1970.
constexpr uint64_t epoch_distance = 2208988800;

std::string formatted_time(const qfi_time_t &time, const char *format,
                           std::tm *(*broken_down)(const std::time_t *, std::tm *)) {
    const auto seconds = static_cast<std::time_t>(unix_seconds(time));
    std::tm parts = {};
    std::array<char, 64> buffer;
    if (broken_down(&seconds, &parts) == nullptr)
        return "-";
    return {buffer.data(), std::strftime(buffer.data(), buffer.size(), format, &parts)};
}

template <std::size_t count>
const char *name_of(const std::array<const char *, count> &names, uint32_t value) {
    return value < count ? names[value] : "unknown";
}

} // namespace

std::string grouped(uint64_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t place = digits.size(); place > 3;)
        digits.insert(place -= 3, ",");
    return digits;
}

std::string counted(uint64_t number, const char *one, const char *several) {
    return grouped(number) + " " + (number == 1 ? one : several);
}

std::string size_text(uint64_t bytes) {
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    constexpr std::array<const char *, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // From where it would be rounded to 1024 on, the next unit says it better.
    while (value >= 1023.5 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return formatted(value < 9.95 ? "%.1f %s" : "%.0f %s", value, units[unit]);
}

std::string duration_text(uint64_t nanos) {
    const double seconds = static_cast<double>(nanos) / 1e9;
    if (seconds < 0.9995)
        return formatted(seconds < 0.00995 ? "%.1f ms" : "%.0f ms", seconds * 1e3);
    if (seconds < 59.95)
        return formatted("%.1f s", seconds);
    return clock_text(seconds);
}

std::string clock_text(double seconds) {
    const auto whole = static_cast<uint64_t>(std::llround(std::fmin(seconds, 3.6e9)));
    const auto hours = static_cast<unsigned long>(whole / 3600);
    const auto minutes = static_cast<unsigned>(whole / 60 % 60), rest = static_cast<unsigned>(whole % 60);
    return hours > 0 ? formatted("%lu:%02u:%02u h", hours, minutes, rest) : formatted("%u:%02u min", minutes, rest);
}

std::string time_text(const qfi_time_t &time) {
    return formatted_time(time, "%Y-%m-%d %H:%M:%S", localtime_r);
}

std::string time_json(const qfi_time_t &time) {
    return formatted_time(time, "%Y-%m-%dT%H:%M:%S", gmtime_r) + formatted(".%09uZ", time.qzfi_nsec);
}

int64_t unix_seconds(const qfi_time_t &time) {
    return static_cast<int64_t>(time.qzfi_sec - epoch_distance);
}

const char *consistency_name(uint32_t consistency) {
    return name_of(std::array{"none", "fuzzy", "per-file", "atomic"}, consistency);
}

const char *state_name(uint32_t state) {
    return name_of(std::array{"unknown", "complete", "removing", "damaged"}, state);
}

const char *change_name(uint32_t change) {
    return name_of(std::array{"unknown", "added", "removed", "content", "type", "attribute", "all"}, change);
}

const char *entry_type_name(uint32_t type) {
    return name_of(std::array{"unknown", "file", "directory", "link", "block", "character", "fifo", "socket"}, type);
}

std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string path_below(const std::string &directory, std::string_view below) {
    if (below.empty())
        return directory;
    return (directory == "/" ? "" : directory) + "/" + std::string(below);
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Character next = first_character(text);
        if (!next.is_printable)
            for (const char byte : text.substr(0, next.bytes))
                result += formatted("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        else if (text.front() == '\\')
            result += "\\\\";
        else
            result += text.substr(0, next.bytes);
        text.remove_prefix(next.bytes);
    }
    return result;
}

std::size_t columns_of(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        const Character next = first_character(text);
        columns += next.columns;
        text.remove_prefix(next.bytes);
    }
    return columns;
}

std::string shortened(std::string_view text, std::size_t columns) {
    if (columns_of(text) <= columns)
        return std::string(text);
    if (columns < 5)
        return std::string(columns, '.');
    // The front gets a third: of a path the end tells more.
    const std::size_t front = (columns - 3) / 3, back = columns - 3 - front;
    std::string result;
    std::size_t taken = 0;
    std::string_view rest = text;
    for (Character next = first_character(rest); taken + next.columns <= front; next = first_character(rest)) {
        result += rest.substr(0, next.bytes);
        taken += next.columns;
        rest.remove_prefix(next.bytes);
    }
    while (columns_of(rest) > back)
        rest.remove_prefix(first_character(rest).bytes);
    return result + "..." + std::string(rest);
}

std::string wrapped(std::string_view text, std::size_t columns, std::size_t indent) {
    std::string result;
    std::size_t taken = 0;
    bool has_word = false; // in the present line
    while (!text.empty()) {
        const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
        const std::string_view word = text.substr(begin, text.find(' ', begin) - begin);
        const std::size_t width = begin + columns_of(word);
        if (has_word && taken + width > columns) {
            result += "\n" + std::string(indent, ' ');
            taken = indent + width - begin;
        } else {
            result += text.substr(0, begin); // blanks of the text's own stay
            taken += width;
        }
        result += word;
        has_word = has_word || !word.empty();
        text.remove_prefix(begin + word.size());
    }
    return result;
}

std::size_t terminal_width(int descriptor) {
    struct winsize size = {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    const char *const columns = std::getenv("COLUMNS");
    const long width = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
    return width > 0 ? static_cast<std::size_t>(width) : 80;
}

} // namespace qzfi::tool
