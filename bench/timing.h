// What the benchmarks measure with.
#pragma once

#include <algorithm>
#include <ctime>
#include <vector>

/// Of this thread, so that what else runs on the machine does not count.
inline double processor_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// The middle one of some values, of which there is at least one.
inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}
