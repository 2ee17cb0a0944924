// Which files of a directory are plugins, and which of a plugin's files is taken.
#include "util/qzfiutil_plugin.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <qzfi/system.h>

#include "util/qzfiutil_messages.h"

using qzfi::EntryName;
using qzfi::PluginFile;

namespace {

constexpr const char *choice_routine = "latest_pgnversion"; // what hosts know the choice by
constexpr std::size_t version_size = 16;
constexpr int64_t malformed = -1;

/// Copies the next entry's name, which the stream overwrites later; false at the end. A name that does not fit is
/// passed over: cut, it would be another file's.
bool read_name(DIR *stream, EntryName &name) noexcept {
    while (const char *const entry = qzfi_dir(stream)) {
        const std::size_t length = strnlen(entry, sizeof name.text);
        if (length == sizeof name.text || std::strcmp(entry, ".") == 0 || std::strcmp(entry, "..") == 0)
            continue;
        std::memcpy(name.text, entry, length + 1);
        return true;
    }
    return false;
}

bool is_well_formed(const char *version) noexcept {
    const std::size_t length = std::strlen(version);
    return length < version_size && std::strspn(version, "0123456789") == length;
}

int64_t version_number(const char *version) noexcept {
    if (!is_well_formed(version))
        return malformed;
    char copy[version_size];
    // Deliberate: the digits are read at the end of the copy, where there are none, so that all versions are equal and
    // the one that the directory lists last is taken. Installations are laid out for that choice.
    return std::strtoll(qzfistos(version, copy), nullptr, 10);
}

/// Compares a file with those looked at so far, of which `best` is the highest version; true when it goes before them.
bool becomes_candidate(const PluginFile &file, int64_t &best) noexcept {
    if (file.version == nullptr)
        return best <= 0;
    const int64_t number = version_number(file.version);
    if (number < 0) {
        qzfi::raise(qzfi::message::badly_formed_version, choice_routine, file.name.text);
        return false;
    }
    if (number < best)
        return false;
    best = number;
    return true;
}

} // namespace

char *findprefix(char *name, const char *prefix) {
    if (name == nullptr || prefix == nullptr)
        return nullptr;
    char *const found = std::strstr(name, prefix);
    if (found == nullptr)
        return nullptr;
    char *const rest = found + std::strlen(prefix);
    return *rest != '\0' ? rest : nullptr;
}

int32_t stripext(char *name, char **version) {
    if (version == nullptr)
        return -1;
    *version = nullptr;
    char *const dot = name != nullptr ? std::strchr(name, '.') : nullptr;
    if (dot == nullptr)
        return -1;
    *dot = '\0';
    char *const extension = dot + 1;
    char *const second_dot = std::strchr(extension, '.');
    if (second_dot != nullptr) {
        *second_dot = '\0';
        *version = second_dot + 1;
    }
    return std::strcmp(extension, "so") == 0 ? 0 : -1;
}

char *qzfistos(const char *source, char *destination) {
    if (source == nullptr || destination == nullptr)
        return nullptr;
    const std::size_t length = std::strlen(source);
    std::memcpy(destination, source, length + 1);
    return destination + length;
}

DIR *qzfi::open_directory(const char *path, const char *routine) noexcept {
    DIR *const stream = qzfi_opendir(path);
    if (stream == nullptr) {
        const int32_t error = qzfi_errno();
        raise_opendir_failed(routine, path, error);
        errno = error;
    }
    return stream;
}

bool qzfi::read_plugin_file(DIR *stream, const char *prefix, PluginFile &file) noexcept {
    while (read_name(stream, file.name)) {
        file.parts = file.name;
        char *const base = findprefix(file.parts.text, prefix);
        if (base == nullptr)
            continue;
        char *version = nullptr;
        file.is_library = stripext(base, &version) == 0;
        file.base = base;
        file.version = version;
        return true;
    }
    return false;
}

bool qzfi::choose_plugin_file(const char *directory, const char *prefix, const char *base, EntryName &chosen) noexcept {
    const Directory stream{open_directory(directory, choice_routine)};
    if (!stream)
        return false;
    bool is_chosen = false;
    int64_t best = 0;
    PluginFile file;
    while (read_plugin_file(stream.get(), prefix, file)) {
        if (!file.is_library || std::strcmp(file.base, base) != 0 || !becomes_candidate(file, best))
            continue;
        chosen = file.name;
        is_chosen = true;
    }
    return is_chosen;
}

bool qzfi::is_loadable_plugin(const char *library_path) noexcept {
    // Anywhere in the path: a whole directory of such builds is passed over too.
    for (const char *other_kind : {"STD.", "ST.", "D."})
        if (std::strstr(library_path, other_kind) != nullptr)
            return false;
    return std::strstr(library_path, ".so") != nullptr;
}
