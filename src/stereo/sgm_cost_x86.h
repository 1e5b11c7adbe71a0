// 128-bit pieces of the Hamming cost rows that the SSE4.1 and AVX2 forms
// share. Included only by those two files, after their intrinsics header:
// everything is in an unnamed namespace, so each file compiles its own copy
// with its own instruction set and none is shared with portable code.
#pragma once

#include <cstdint>

#include "stereo/sgm_cost.h"

namespace vq_tl {

namespace {

inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline __m128i load8(const uint8_t* p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)); }
inline void store(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
inline void store8(uint8_t* p, __m128i v) { _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v); }

// Bits set per byte of v: a lookup of each nibble in table (bits set in 0 to
// 15), nibble being 0x0F in every byte.
inline __m128i popcountBytes(__m128i v, __m128i table, __m128i nibble) {
    const __m128i lo = _mm_and_si128(v, nibble);
    const __m128i hi = _mm_and_si128(_mm_srli_epi16(v, 4), nibble);
    return _mm_add_epi8(_mm_shuffle_epi8(table, lo), _mm_shuffle_epi8(table, hi));
}

// Distances of 8 32-bit words at m from the word in every lane of b, in the
// low 8 bytes: the bytes' counts (pc.bytes) summed per word with two
// multiply-adds by ones and a pack. The counts stay below 33, so no step
// saturates.
template <class P>
inline __m128i wordSums8(const P& pc, __m128i b, const uint32_t* m, __m128i ones) {
    const __m128i* p = reinterpret_cast<const __m128i*>(m);
    const __m128i s0 = _mm_maddubs_epi16(pc.bytes(_mm_xor_si128(b, _mm_loadu_si128(p + 0))), ones);
    const __m128i s1 = _mm_maddubs_epi16(pc.bytes(_mm_xor_si128(b, _mm_loadu_si128(p + 1))), ones);
    const __m128i w01 = _mm_maddubs_epi16(_mm_packus_epi16(s0, s1), ones);
    return _mm_packus_epi16(w01, w01);
}

}  // namespace

}  // namespace vq_tl
