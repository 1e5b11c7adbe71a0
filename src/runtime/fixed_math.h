// Fixed-point cosine and arcsine from tables, the integer square root, byte
// order swaps and plain byte copies.
#pragma once

#include <cstdint>

#include "velquin/twin_lens_types.h"

namespace vq_tl {

// 32768 cos(pi k / 2048) truncated, k = 0..1024 (a quarter turn).
extern const uint16_t kCosTable[1025];
// asin(v / 1024) in tenths of a degree, truncated, v = 0..1024.
extern const int16_t kAsinTable[1025];

// The cosine in Q15 (-32768..32768) of an angle in Q15 radians, any magnitude.
int32_t getCOS(int32_t angle);
// asin(value / 1024) in tenths of a degree, -900..900, for value in -1024..1024;
// 0 outside.
int32_t getASIN(int32_t value);
// floor(sqrt(n)) by Newton's iteration.
uint32_t isqrt(uint32_t n);

// Reverse the bytes of a 2, 4 or 8-byte word in place; any alignment.
TLResult swapbo2(void* word);
TLResult swapbo4(void* word);
TLResult swapbo8(void* word);

}  // namespace vq_tl

// A C++ name cannot start with a digit, so the byte copy and fill keep the
// library prefix in their own name. A size of 0 or below does nothing.
extern "C" {
void vq_tl_8bit_memcpy(void* dst, const void* src, int32_t size);
void vq_tl_8bit_memset(void* dst, int32_t value, int32_t size);
}
