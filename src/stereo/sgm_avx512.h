// Pieces the stereo folder's AVX-512 forms share. Included only by the
// *_avx512.cpp files, after their intrinsics header: everything is in an
// unnamed namespace, so each file compiles its own copy with its own
// instruction set and none is shared with portable code.
#pragma once

#include <cstdint>

// GCC 12's AVX-512 intrinsics pass an undefined register as the unused
// source of their masked builtins, which its maybe-uninitialized analysis
// reports once inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace vq_tl {
namespace {

// The low n bits set, n 0 to 64 (below 0: none).
inline __mmask64 lowBits(int32_t n) {
    return n >= 64 ? ~__mmask64{0} : n <= 0 ? __mmask64{0} : (__mmask64{1} << n) - 1;
}

// vpermb: byte i of the result is byte index[i] of v.
inline __m512i permute(__m512i index, __m512i v) { return _mm512_permutexvar_epi8(index, v); }

}  // namespace
}  // namespace vq_tl
