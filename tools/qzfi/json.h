// JSON on standard output, for programs. The keys are stable; tools/qzfi/schema/ describes each document.
#pragma once

#include <string_view>

#include <nlohmann/json.hpp>

#include <qzfi_fi.h>

namespace qzfi::tool {

/// Keys in the order in which they are set.
using Json = nlohmann::ordered_json;

/// A text of any bytes: JSON holds characters only, so bytes that are not UTF-8 become "\xNN", and a backslash two.
/// Paths of which that is true are exact all the same: what was escaped can be told from what was not.
std::string json_text(std::string_view text);

Json json_of(const qfi_image &image);
Json json_of(const qfi_report &report);

/// Prints a document, indented, with a newline at its end.
void print(const Json &document);

} // namespace qzfi::tool
