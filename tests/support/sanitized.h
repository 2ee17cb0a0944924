// Whether a sanitizer watches this program: it takes several times as long then, and tests that repeat the same many
// times repeat it less often.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool is_sanitized = true;
#else
inline constexpr bool is_sanitized = false;
#endif
