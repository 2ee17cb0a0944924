#include "tools/qzfi/library.h"

#include <array>
#include <cstdlib>
#include <stdexcept>

#include <qzfi/system.h>

namespace qzfi::tool {

namespace {

constexpr std::array entries = {
#define QZFI_OWN(slot, name) "qzfi_" #name,
#define QZFI_OPERATION(slot, name, ...) "qzfi_" #name,
#define QZFI_TREE(slot, name, ...) "qzfi_" #name,
#define QZFI_SPARE(slot, name) "qzfi_" #name,
#define QZFI_ALIAS(slot, name, ...)
#include <qzfi/operations.def>
};
static_assert(entries.size() == entry_count);

} // namespace

std::string library_of(const std::string &root) {
    const char *const named = std::getenv("QFI_API_LIB");
    return named != nullptr ? named : root + "/lib/libfi.so";
}

std::vector<std::string> missing_entries(const std::string &path) {
    void *const library = qzfi_dlopen_lib(path.c_str());
    if (library == nullptr) {
        const char *const error = qzfi_dlerror();
        const std::string words = error != nullptr ? error : "the loader does not say why", named = path + ": ";
        throw std::runtime_error(words.starts_with(named) ? words.substr(named.size()) : words);
    }
    std::vector<std::string> missing;
    for (const char *const name : entries)
        if (qzfi_dlsym(library, name) == nullptr)
            missing.emplace_back(name);
    qzfi_dlclose(library);
    return missing;
}

} // namespace qzfi::tool
