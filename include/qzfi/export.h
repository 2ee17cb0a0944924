/* Linkage of the public declarations. */
#ifndef QZFI_EXPORT_H
#define QZFI_EXPORT_H

#include <stdint.h>

#ifdef __cplusplus
#define QZFI_BEGIN_DECLS extern "C" {
#define QZFI_END_DECLS }
#else
#define QZFI_BEGIN_DECLS
#define QZFI_END_DECLS
#endif

/** Marks what `libqzfi.so` exports; everything else in the library is hidden. */
#define QZFI_API __attribute__((visibility("default")))

/** Spares callers outside the library one of the two jumps of a call, where the compiler can. */
#if defined(__GNUC__) && !defined(__clang__)
#define QZFI_DIRECT __attribute__((noplt))
#else
#define QZFI_DIRECT
#endif

/** Lets the compiler check a printf-style call; positions count from 1. */
#define QZFI_PRINTF(format_position, first_argument) __attribute__((format(printf, format_position, first_argument)))

#endif
