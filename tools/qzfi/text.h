// Values as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <qzfi_fi.h>

namespace qzfi::tool {

std::string grouped(uint64_t number); ///< "1,234,567"
/// "1 entry", "2 entries".
std::string counted(uint64_t number, const char *one, const char *several);
std::string size_text(uint64_t bytes);         ///< "512 B", "1.5 KiB", "12 GiB"
std::string duration_text(uint64_t nanos);     ///< "12 ms", "1.3 s", "2:05 min"
std::string clock_text(double seconds);        ///< "0:12", "1:02:03"
std::string time_text(const qfi_time_t &time); ///< local, to the second: "2026-11-21 04:15:00"
int64_t unix_seconds(const qfi_time_t &time);  ///< since 1970
std::string time_json(const qfi_time_t &time); ///< UTC, exact: "2026-11-21T04:15:00.123456789Z"

const char *consistency_name(uint32_t consistency); ///< "atomic", "per-file", "fuzzy", "none"
const char *state_name(uint32_t state);             ///< "complete", "removing", "damaged"
const char *change_name(uint32_t change);           ///< "added", "removed", "content", "type", "attribute", "all"
const char *entry_type_name(uint32_t type);         ///< "file", "directory", "link", ...

/// "A, B, C".
std::string joined(const std::vector<std::string> &words);
/// The path of what lies at `below` in a directory; the directory's own where that is empty.
std::string path_below(const std::string &directory, std::string_view below);

/// A text that is safe on a terminal: control characters and bytes that are not UTF-8 as "\xNN", a backslash doubled.
std::string printable(std::string_view text);

/// Columns that a text takes on a terminal.
std::size_t columns_of(std::string_view text);
/// At most so many columns: what is too long loses its middle to an ellipsis.
std::string shortened(std::string_view text, std::size_t columns);
/// The text in lines of at most so many columns, broken at blanks, each but the first indented so far. A word that is
/// longer has a line of its own.
std::string wrapped(std::string_view text, std::size_t columns, std::size_t indent);
/// The columns of the terminal that `descriptor` is, or of COLUMNS; 80 when neither tells.
std::size_t terminal_width(int descriptor);

} // namespace qzfi::tool
