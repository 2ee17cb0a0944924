// Any two texts, divided by a newline, as a name and a list: found exactly when the list between colons has the name
// between colons at an element.
#include <string>

#include <qzfi/paths.h>

#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string input(std::string(reinterpret_cast<const char *>(data), size).c_str());
    const std::size_t newline = input.find('\n');
    const std::string name = input.substr(0, newline);
    const std::string list = newline == std::string::npos ? "" : input.substr(newline + 1);
    const bool is_element =
        !name.empty() && name[0] != ':' && (":" + list + ":").find(":" + name + ":") != std::string::npos;
    require(qzfi_nssup(list.c_str(), name.c_str()) == (is_element ? 0 : UINT32_MAX));
    return 0;
}
