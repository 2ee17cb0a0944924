// Any bytes as the text form of a message, read once more by plain means, and as a message to be written and read
// again.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "msgcat/qzfiicucatalog.h"
#include "target.h"

namespace {

using qzfi_pdk_4_4::CFiIcuMessage;

/// False when the text ended early.
bool read(CFiIcuMessage &message, const std::string &text) {
    const qfi_msg_info record{text.c_str()};
    try {
        message.deserialize(&record);
    } catch (const std::out_of_range &) {
        return false;
    }
    return true;
}

icu::Formattable made_of(int type, const std::string &value) {
    if (type == 2)
        return icu::Formattable(static_cast<int32_t>(std::strtol(value.c_str(), nullptr, 10)));
    if (type != 3)
        return icu::Formattable(std::strtod(value.c_str(), nullptr));
    icu::UnicodeString text = icu::UnicodeString::fromUTF8(value);
    std::string back;
    text.toUTF8String(back);
    return icu::Formattable(back == value ? text : icu::UnicodeString()); // ill-formed text is none
}

/// Cuts the text down step by step, by searches and the C library's scan.
std::vector<icu::Formattable> read_step_by_step(std::string text) {
    std::vector<icu::Formattable> arguments;
    std::size_t place = text.find('>');
    if (place == std::string::npos || text.find("<ARGVALUE", place) == std::string::npos)
        return arguments;
    int index = 0;
    int type = -1;
    place = text.find_first_of("<ARGVALUE", place);
    while (place != std::string::npos) {
        text = text.substr(place);
        std::sscanf(text.c_str(), "<ARGVALUE INDEX=%d TYPE=%d>", &index, &type);
        text = text.substr(text.find('>') == std::string::npos ? std::string::npos : text.find('>') + 1);
        const std::string value = text.substr(0, text.find('<'));
        text = text.substr(text.find('<'));
        if (type >= 0 && type <= 3)
            arguments.push_back(made_of(type, value));
        place = text.find("<ARGVALUE");
    }
    return arguments;
}

/// What is read, or that the text ended early, is what plain means read.
void compare(const std::string &bytes) {
    constexpr int32_t severity_before = 77;
    const icu::Formattable before[] = {icu::Formattable(int32_t{5})};
    CFiIcuMessage message{"BEFORE", severity_before, before, 1};
    const bool is_read = read(message, bytes);
    std::string text = bytes.c_str();
    const std::size_t start = text.find_first_of("<SERIALIZED_MESSAGE");
    if (start == std::string::npos) {
        CFiIcuMessage same{"BEFORE", severity_before, before, 1};
        require(is_read && message.getMessageId() == "BEFORE" && message.getSeverity() == severity_before &&
                message.serialize() == same.serialize());
        return;
    }
    text = text.substr(start);
    char id[2048] = "";
    int severity = severity_before;
    std::sscanf(text.c_str(), "<SERIALIZED_MESSAGE MSGID=%2047s SEVERITY=%d>", id, &severity);
    require(message.getMessageId() == id && message.getSeverity() == severity);
    try {
        const std::vector<icu::Formattable> arguments = read_step_by_step(text);
        CFiIcuMessage expected{id, severity, arguments.data(), static_cast<int32_t>(arguments.size())};
        require(is_read && message.serialize() == expected.serialize());
    } catch (const std::out_of_range &) {
        CFiIcuMessage kept{id, severity, before, 1};
        require(!is_read && message.serialize() == kept.serialize());
    }
}

/// Of these bytes what a text argument keeps: ASCII without the end and the start of a tag.
std::string plain(std::string bytes) {
    for (char &byte : bytes) {
        byte = static_cast<char>(byte & 0x7f);
        if (byte < ' ' || byte == '<')
            byte = '.';
    }
    return bytes;
}

/// What is read is a message whose own text reads back as itself, when its id is a word that fits.
void read_any(const std::string &text) {
    CFiIcuMessage message;
    if (!read(message, text))
        return;
    const std::string written = message.serialize();
    const std::string id = message.getMessageId();
    if (written.empty() || id.empty() || id.size() > 900 || id.find_first_of("<>") != std::string::npos)
        return;
    CFiIcuMessage again;
    require(read(again, written));
    require(again.getMessageId() == id && again.getSeverity() == message.getSeverity());
    require(again.serialize() == written);
}

/// Arguments of the bytes, a byte of type and length before each.
void write_and_read(const std::string &bytes) {
    std::vector<icu::Formattable> arguments;
    for (std::size_t place = 0; place < bytes.size();) {
        const auto command = static_cast<unsigned char>(bytes[place++]);
        const std::string value = bytes.substr(place, command / 4);
        place += value.size();
        int32_t number = 0;
        std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
        if (command % 4 == 0)
            arguments.emplace_back(number);
        else if (command % 4 == 1)
            arguments.emplace_back(static_cast<double>(number % 1000) / 8); // no more than six digits
        else
            arguments.emplace_back(icu::UnicodeString::fromUTF8(plain(value)));
    }
    const auto count = static_cast<int32_t>(arguments.size());
    CFiIcuMessage message{"ID", count - 3, arguments.data(), count};
    CFiIcuMessage again;
    require(read(again, message.serialize()));
    require(again.serialize() == message.serialize());
    if (count > 0)
        require(again.getMessageId() == "ID" && again.getSeverity() == count - 3);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    compare(bytes);
    read_any(bytes);
    write_and_read(bytes);
    return 0;
}
