// Any text as a path: the result equals the plain one made with strings of any length, and is its own canonical form.
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include <qzfi/paths.h>

#include "common/qzfitext.h"
#include "target.h"
#include "util/qzfiutilmachdep_path.h"

namespace {

qzfi::Text canonical(const char *path) {
    char *out = nullptr;
    pathcanon(path, &out);
    return qzfi::Text{out};
}

std::string plain(std::string path) {
    char directory[4096];
    if (path[0] != '/' && getcwd(directory, sizeof directory) != nullptr)
        path = std::string(directory) + "/" + path;
    std::vector<std::string> components;
    for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
        end = path.find('/', start);
        const std::string component = path.substr(start, end - start);
        if (component == ".." && !components.empty())
            components.pop_back();
        if (!component.empty() && component != "." && component != "..")
            components.push_back(component);
    }
    std::string joined;
    for (const std::string &component : components)
        joined += "/" + component;
    return joined.empty() ? "/" : joined;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string path(std::string(reinterpret_cast<const char *>(data), size).c_str());
    const std::string expected = plain(path);
    const qzfi::Text made = canonical(path.c_str());
    require((made != nullptr) == (expected.size() < qzfi::canonical_size));
    require(!made || (expected == made.get() && expected == canonical(made.get()).get()));
    return 0;
}
