// Any text with escapes: expanded in place it equals what a plain reading makes of it, is never longer, and nothing
// beyond its terminator is touched.
#include <string>
#include <vector>

#include <qzfi/messages.h>

#include "target.h"

namespace {

std::string plain(const std::string &text) {
    const std::string letters = "\\abfnrtv";
    const std::string meanings = "\\\a\b\f\n\r\t\v";
    const std::string digits = "0123456789";
    std::string out;
    for (std::size_t place = 0; place < text.size();) {
        if (text[place] != '\\') {
            out += text[place++];
            continue;
        }
        std::size_t end = ++place;
        while (end < text.size() && end < place + 3 && digits.find(text[end]) != std::string::npos)
            ++end;
        if (end > place) {
            out += static_cast<char>(static_cast<unsigned char>(std::stoi(text.substr(place, end - place))));
            place = end;
            continue;
        }
        if (place == text.size())
            break;
        const std::size_t letter = letters.find(text[place++]);
        if (letter != std::string::npos)
            out += meanings[letter];
    }
    return out.c_str(); // a zero byte ends the text
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string text(std::string(reinterpret_cast<const char *>(data), size).c_str());
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1); // of the exact size
    expandfmt(buffer.data());
    const std::string made = buffer.data();
    require(made.size() <= text.size() && made == plain(text));
    return 0;
}
