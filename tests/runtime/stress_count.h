// Sizes of the threaded tests. Under emulation (VQ_TL_EMULATED=1, set by the
// build for cross-compiled suites) every thread runs many times slower, so
// the counts shrink; the assertions stay the same.
#pragma once

#include <chrono>
#include <cstdlib>
#include <cstring>

inline bool runningEmulated() {
    const char* value = std::getenv("VQ_TL_EMULATED");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

inline int stressCount(int native) {
    if (!runningEmulated()) return native;
    return native / 16 > 0 ? native / 16 : 1;
}

// Milliseconds on the monotonic clock, the clock of every timed wait.
inline double millisSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}
