// What the tests know about where they run.
#pragma once

#include <chrono>
#include <cstdlib>
#include <cstring>

// True when the suite runs under user-mode emulation: the cross build's ctest sets VQ_TL_EMULATED=1. Emulated
// code runs 10 to 50 times slower, so suites with large images or many random rounds take smaller sizes then.
inline bool vq_tl_test_isEmulated() {
    const char* value = std::getenv("VQ_TL_EMULATED");
    return value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0;
}

// `native` on real hardware, `emulated` under emulation.
inline int vq_tl_test_scaled(int native, int emulated) { return vq_tl_test_isEmulated() ? emulated : native; }

// Milliseconds since `start` on the monotonic clock.
inline double vq_tl_test_millisSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}
