#include <qzfi/paths.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "common/qzfitext.h"
#include "util/qzfiutilmachdep_path.h"

const char *const devpfx[4] = {"/dev/root", "/dev/dsk", "/dev/qz/dsk", "/dev/vol"};
const char *const rdevpfx[4] = {"/dev/rroot", "/dev/rdsk", "/dev/qz/rdsk", "/dev/rvol"};

namespace {

// A canonical path and an "r" fit a found name's buffer, so that no candidate is cut short.
static_assert(qzfi::device_name_size > qzfi::canonical_size && qzfi::canonical_size > qzfi::longest_device_path);

/// One direction of the mapping between the two names of a disk.
struct Mapping {
    const char *const *from; // the prefixes of the given name's kind
    const char *const *to;   // and those of the wanted one
    bool (*is_pair)(const char *given, const char *candidate);
    bool (*build)(const char *given, const char *slash, char *candidate); // false: no candidate at this "/"
};

bool is_raw_of(const char *given, const char *candidate) {
    return vspecs(given, candidate) != 0;
}

bool is_block_of(const char *given, const char *candidate) {
    return vspecs(candidate, given) != 0;
}

void join(const char *given, std::size_t head, const char *middle, const char *tail, char *candidate) {
    (void)snprintf(candidate, qzfi::device_name_size, "%.*s%s%s", static_cast<int>(head), given, middle, tail);
}

bool insert_r(const char *given, const char *slash, char *candidate) {
    join(given, static_cast<std::size_t>(slash + 1 - given), "r", slash + 1, candidate);
    return true;
}

bool remove_r(const char *given, const char *slash, char *candidate) {
    // A last component that is nothing but the "r" would leave the name of a directory.
    if (slash[1] != 'r' || slash[2] == '\0')
        return false;
    join(given, static_cast<std::size_t>(slash + 1 - given), "", slash + 2, candidate);
    return true;
}

constexpr Mapping block_to_raw = {devpfx, rdevpfx, is_raw_of, insert_r};
constexpr Mapping raw_to_block = {rdevpfx, devpfx, is_block_of, remove_r};

/// Deliberate: a prefix is a beginning of the text, not of whole components ("/dev/rootvg" has "/dev/root"), and only
/// the first that matches is tried.
bool map_prefix(const Mapping &mapping, const char *given, char *candidate) {
    for (std::size_t i = 0; i < std::size(devpfx); ++i) {
        const std::size_t length = std::strlen(mapping.from[i]);
        if (std::strncmp(given, mapping.from[i], length) != 0)
            continue;
        join("", 0, mapping.to[i], given + length, candidate);
        return mapping.is_pair(given, candidate);
    }
    return false;
}

/// Tries a change of each component, from the last to the first.
bool map_component(const Mapping &mapping, const char *given, char *candidate) {
    const char *slash = std::strrchr(given, '/');
    while (slash != nullptr) {
        if (mapping.build(given, slash, candidate) && mapping.is_pair(given, candidate))
            return true;
        slash = static_cast<const char *>(memrchr(given, '/', static_cast<std::size_t>(slash - given)));
    }
    return false;
}

char *map_device(const Mapping &mapping, const char *path) {
    if (path == nullptr || strnlen(path, qzfi::longest_device_path + 1) > qzfi::longest_device_path)
        return nullptr;
    char *made = nullptr;
    pathcanon(path, &made);
    const qzfi::Text canonical{made};
    const char *const given = canonical ? canonical.get() : path;
    qzfi::Text candidate{static_cast<char *>(std::calloc(qzfi::device_name_size, 1))};
    if (!candidate)
        return nullptr;
    const bool found = map_prefix(mapping, given, candidate.get()) || map_component(mapping, given, candidate.get());
    return found ? candidate.release() : nullptr;
}

} // namespace

int32_t vspecs(const char *block, const char *character) {
    struct stat of_block = {};
    struct stat of_character = {};
    if (block == nullptr || character == nullptr || stat(block, &of_block) != 0 || stat(character, &of_character) != 0)
        return 0;
    if (!S_ISBLK(of_block.st_mode) || !S_ISCHR(of_character.st_mode))
        return 0;
    // Deliberate: the two drivers of one disk have major numbers of their own.
    return minor(of_block.st_rdev) == minor(of_character.st_rdev) ? 1 : 0;
}

char *qzfi_block_to_char(const char *path) {
    return map_device(block_to_raw, path);
}

char *qzfi_char_to_block(const char *path) {
    return map_device(raw_to_block, path);
}
