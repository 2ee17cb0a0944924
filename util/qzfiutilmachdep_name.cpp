#include <qzfi/paths.h>

#include <cstdio>
#include <cstring>

#include <qzfi/status.h>

#include "common/qzfitext.h"
#include "util/qzfiutil_settings.h"

namespace {

constexpr const char *unprintable = "(object name undefined or unprintable)";
constexpr const char *schema_file = "/lib/qzfi/data/qfiid_schema.xsd";
constexpr std::size_t schema_path_size = 64;
constexpr uint32_t not_listed = UINT32_MAX;
constexpr uint64_t seconds_from_1900_to_1970 = 2208988800;

/// Both encodings are the same here, so that the text is handed through.
uint32_t hand_through(char *text, char **out) noexcept {
    if (text == nullptr || out == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    *out = text;
    return QFI_STATUS_OK;
}

} // namespace

const char *qzfi_pn(const qfi_objid_t *id) {
    if (id == nullptr || id->vid_name == nullptr || id->vid_length <= 0)
        return unprintable;
    const auto before_last = static_cast<std::size_t>(id->vid_length) - 1;
    if (std::memchr(id->vid_name, '\0', before_last) != nullptr)
        return unprintable;
    // Deliberate: no copy. The text ends where the id's bytes do only when the last of them is NUL; callers give such.
    return static_cast<const char *>(id->vid_name);
}

const char *qzfi_opn(const qfi_object *object) {
    if (object == nullptr)
        return unprintable;
    return object->name != nullptr ? object->name : qzfi_pn(object->objid);
}

uint32_t qzfi_nssup(const char *list, const char *name) {
    if (list == nullptr || name == nullptr)
        return not_listed;
    const std::size_t length = std::strlen(name);
    for (list += std::strspn(list, ":"); *list != '\0'; list += std::strspn(list, ":")) {
        // Deliberate: a name with colons in it equals a run of elements.
        if (std::strncmp(list, name, length) == 0 && (list[length] == ':' || list[length] == '\0'))
            return 0;
        list += std::strcspn(list, ":");
    }
    return not_listed;
}

uint32_t qzfi_get_fiidschemapath(char **out) {
    if (out == nullptr)
        return QFI_STATUS_INVALID_ARGUMENT;
    // Deliberate: the default root, whatever root is set; the schema is part of the product's own installation.
    char path[schema_path_size];
    (void)snprintf(path, sizeof path, "%s%s", default_root, schema_file);
    *out = qzfi::duplicate(path).release();
    return *out == nullptr ? QFI_STATUS_NO_MEMORY : QFI_STATUS_OK;
}

uint32_t qzfi_cvt_utf8tovfc(char *text, char **out) {
    return hand_through(text, out);
}

uint32_t qzfi_cvt_vfctoutf8(char *text, char **out) {
    return hand_through(text, out);
}

void qzfi_xlat2_qfitime(uint64_t *out_seconds, int64_t unix_seconds) {
    if (out_seconds != nullptr)
        *out_seconds = static_cast<uint64_t>(unix_seconds) + seconds_from_1900_to_1970;
}

void qzfi_xlat2_unixtime(uint64_t seconds, uint32_t /* nanoseconds */, int64_t *out) {
    if (out != nullptr)
        *out = static_cast<int64_t>(seconds - seconds_from_1900_to_1970);
}
