// Texts of statuses and of error records, in English and in the current language.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <qzfi/errors.h>

#include "fi/fi_library.h"

namespace qzfi::fi {

/// The text of an own status, with QFI_STATUS_LOCALIZED in the current language where there is a translation. Null when
/// there is none. Valid until `forget_localized_texts`.
const char *status_text(uint32_t status);
void forget_localized_texts() noexcept; ///< at shutdown

/// Formats texts into a format whose conversions are "%s", "%N$s" and "%%" only: catalogs are data of others. False for
/// any other, and for an argument that is not there.
bool format_texts(std::string_view format, const std::vector<std::string> &arguments, std::string &text);

std::string english_message(const qfi_error_info &error);
std::string localized_message(const qfi_error_info &error); ///< empty when there is no translation that fits

} // namespace qzfi::fi
