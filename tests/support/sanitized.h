// Whether a sanitizer watches this program: it takes several times as long then, and tests that repeat the same many
// times repeat it less often.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define QZFI_ADDRESS_SANITIZER
#elif defined(__has_feature) // clang's way
#if __has_feature(address_sanitizer)
#define QZFI_ADDRESS_SANITIZER
#endif
#endif

#if defined(QZFI_ADDRESS_SANITIZER) || defined(__SANITIZE_THREAD__)
inline constexpr bool is_sanitized = true;
#else
inline constexpr bool is_sanitized = false;
#endif
