#include <qzfi/dump.h>

#include <cstddef>
#include <iterator>

namespace {

constexpr const char *disposition_names[] = {
    "QFI_DISP_NONE",    "QFI_DISP_REMOVE", "QFI_DISP_REATTACH", "QFI_DISP_PROMOTE",
    "QFI_DISP_CONVERT", nullptr,           "QFI_DISP_MAX",
};
static_assert(std::size(disposition_names) == QFI_DISP_MAX + 1);

constexpr const char *class_names[] = {
    "QFI_CLASS_NONE", "QFI_SERIAL_DEV", "QFI_SERIAL_FS", "QFI_ATOMIC_DEV", "QFI_ATOMIC_FS", "QFI_CLASS_NOTSUP",
};
static_assert(std::size(class_names) == QFI_CLASS_NOTSUP + 1);

template <std::size_t Count>
const char *name_of(const char *const (&names)[Count], int32_t code) noexcept {
    const bool is_known = code >= 0 && static_cast<std::size_t>(code) < Count && names[code] != nullptr;
    return is_known ? names[code] : "Unknown Type";
}

} // namespace

const char *qzfiget_qfi_disposition(int32_t disposition) {
    return name_of(disposition_names, disposition);
}

const char *qzfiprt_qfi_class(int32_t code) {
    return name_of(class_names, code);
}
