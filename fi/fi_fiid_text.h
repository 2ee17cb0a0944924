// Texts of id documents: bytes, numbers and times as XML can hold them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qzfi::fi {

/// Any bytes as UTF-8 that XML can hold: the rest becomes "\xHH", and "\" becomes "\\".
std::string fiid_escaped(std::string_view bytes);
/// The other way; false for what `fiid_escaped` does not make.
bool fiid_unescaped(std::string_view text, std::string &bytes);

/// "2026-11-21T04:15:00.123456789Z"
std::string fiid_time(int64_t ns);
bool parse_fiid_time(std::string_view text, int64_t &ns);

bool parse_fiid_number(std::string_view text, uint64_t &number);

inline constexpr std::size_t path_limit = 4095;
/// Absolute, without empty names, "." and ".."; not longer than the limit.
bool is_canonical_path(std::string_view path);
/// The same for a relative one, which may be empty.
bool is_canonical_subpath(std::string_view path);

} // namespace qzfi::fi
