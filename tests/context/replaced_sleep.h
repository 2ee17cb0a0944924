// Replaces `sleep` in a test program: the pauses of the library are counted instead of slept through.
#pragma once

#include <atomic>

#include <unistd.h>

namespace exchange {
inline std::atomic<int> pauses{0};
inline std::atomic<bool> pauses_are_two_seconds{true};
} // namespace exchange

extern "C" unsigned sleep(unsigned seconds) {
    ++exchange::pauses;
    if (seconds != 2)
        exchange::pauses_are_two_seconds = false;
    return 0;
}
