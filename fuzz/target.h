// What every fuzz target is made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/// Reports the input at hand as one that fails.
inline void require(bool holds) {
    if (!holds)
        std::abort();
}

/// Run by the fuzzer, with any bytes; each target has its own.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);
