/* Versions: four signed 16-bit numbers in one 64-bit value, the first in the lowest 16 bits. */
#ifndef QZFI_VERSION_H
#define QZFI_VERSION_H

#include <stdint.h>

/** Composes a version; each number is a signed 16-bit value, most significant in meaning first. */
#define QFI_VERSION(first, second, third, fourth)                                                                      \
    ((uint64_t)(uint16_t)(first) | (uint64_t)(uint16_t)(second) << 16 | (uint64_t)(uint16_t)(third) << 32 |            \
     (uint64_t)(uint16_t)(fourth) << 48)

/** The version of this API. `qzfiapi_start` accepts callers up to and including it. */
#define QFI_API_VERSION QFI_VERSION(7, 0, 0, 0)

#endif
