/*
 * Spells out the kinds of a row of `operations.def` as a list of C types: QZFI_KINDS(ptr, i32) is "void *, int32_t".
 */
#ifndef QZFI_KINDS_H
#define QZFI_KINDS_H

#include <stdint.h>

#define QZFI_KIND_ptr void *
#define QZFI_KIND_i32 int32_t
#define QZFI_KINDS_1(k) QZFI_KIND_##k
#define QZFI_KINDS_2(k, ...) QZFI_KIND_##k, QZFI_KINDS_1(__VA_ARGS__)
#define QZFI_KINDS_3(k, ...) QZFI_KIND_##k, QZFI_KINDS_2(__VA_ARGS__)
#define QZFI_KINDS_4(k, ...) QZFI_KIND_##k, QZFI_KINDS_3(__VA_ARGS__)
#define QZFI_KINDS_5(k, ...) QZFI_KIND_##k, QZFI_KINDS_4(__VA_ARGS__)
#define QZFI_KINDS_6(k, ...) QZFI_KIND_##k, QZFI_KINDS_5(__VA_ARGS__)
#define QZFI_KINDS_7(k, ...) QZFI_KIND_##k, QZFI_KINDS_6(__VA_ARGS__)
#define QZFI_KINDS_8(k, ...) QZFI_KIND_##k, QZFI_KINDS_7(__VA_ARGS__)
#define QZFI_KINDS_9(k, ...) QZFI_KIND_##k, QZFI_KINDS_8(__VA_ARGS__)
#define QZFI_KINDS_10(k, ...) QZFI_KIND_##k, QZFI_KINDS_9(__VA_ARGS__)
#define QZFI_KINDS_11(k, ...) QZFI_KIND_##k, QZFI_KINDS_10(__VA_ARGS__)
#define QZFI_KINDS_12(k, ...) QZFI_KIND_##k, QZFI_KINDS_11(__VA_ARGS__)
#define QZFI_KINDS_13(k, ...) QZFI_KIND_##k, QZFI_KINDS_12(__VA_ARGS__)
#define QZFI_COUNT(...) QZFI_COUNT_(__VA_ARGS__, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define QZFI_COUNT_(a, b, c, d, e, f, g, h, i, j, k, l, m, n, ...) n
#define QZFI_PASTE(a, b) QZFI_PASTE_(a, b)
#define QZFI_PASTE_(a, b) a##b
#define QZFI_KINDS(...) QZFI_PASTE(QZFI_KINDS_, QZFI_COUNT(__VA_ARGS__))(__VA_ARGS__)

#endif
