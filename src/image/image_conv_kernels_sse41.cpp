// YUV to RGB888 rows with SSE4.1: 16 pixels (8 chroma pairs) per step.
//
// The chroma terms of image_conv_workers.cpp in 16-bit lanes, exactly:
// with u, v in -128 to 127,
//   (45941 v) >> 15 = v + ((13173 v) >> 15) = v + mulhi(2 v, 13173),
//   (58065 u) >> 15 = u + ((25297 u) >> 15) = u + mulhi(2 u, 25297),
// since 45941 = 32768 + 13173 and 58065 = 32768 + 25297, and mulhi(a, b)
// = (a b) >> 16 floors like the shift; (11272 u + 23396 v) >> 15 takes the
// 32-bit sum of madd. The clamps are the unsigned saturation of the pack.
#include <smmintrin.h>

#include "image/image_conv_kernels.h"

namespace vq_tl {

namespace {

inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// Byte k of output register j (of three) takes pixel (16 j + k) / 3 of
// channel (16 j + k) % 3; -128 (0x80) makes pshufb write zero.
struct InterleaveMasks {
    alignas(16) int8_t m[3][3][16];  // [register][channel][byte]
};
constexpr InterleaveMasks makeMasks() {
    InterleaveMasks t{};
    for (int j = 0; j < 3; ++j) {
        for (int ch = 0; ch < 3; ++ch) {
            for (int k = 0; k < 16; ++k) {
                const int b = 16 * j + k;
                t.m[j][ch][k] = static_cast<int8_t>(b % 3 == ch ? b / 3 : -128);
            }
        }
    }
    return t;
}
constexpr InterleaveMasks kMasks = makeMasks();

inline __m128i mask(int j, int ch) {
    return _mm_load_si128(reinterpret_cast<const __m128i*>(kMasks.m[j][ch]));
}

// R, G, B terms of 8 chroma pairs, u and v as 16-bit 0 to 255.
inline void chromaTerms(__m128i u8, __m128i v8, __m128i* tr, __m128i* tg, __m128i* tb) {
    const __m128i bias = _mm_set1_epi16(128);
    const __m128i u = _mm_sub_epi16(u8, bias), v = _mm_sub_epi16(v8, bias);
    *tr = _mm_add_epi16(v, _mm_mulhi_epi16(_mm_add_epi16(v, v), _mm_set1_epi16(13173)));
    *tb = _mm_add_epi16(u, _mm_mulhi_epi16(_mm_add_epi16(u, u), _mm_set1_epi16(25297)));
    const __m128i k = _mm_set1_epi32((23396 << 16) | 11272);
    const __m128i lo = _mm_srai_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(u, v), k), 15);
    const __m128i hi = _mm_srai_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(u, v), k), 15);
    *tg = _mm_packs_epi32(lo, hi);
}

// 16 pixels: luma at y, the terms of their 8 pairs.
inline void pixels16(uint8_t* rgb, const uint8_t* y, __m128i tr, __m128i tg, __m128i tb) {
    const __m128i yy = load(y), zero = _mm_setzero_si128();
    const __m128i ylo = _mm_unpacklo_epi8(yy, zero), yhi = _mm_unpackhi_epi8(yy, zero);
    const __m128i r = _mm_packus_epi16(_mm_add_epi16(ylo, _mm_unpacklo_epi16(tr, tr)),
                                       _mm_add_epi16(yhi, _mm_unpackhi_epi16(tr, tr)));
    const __m128i g = _mm_packus_epi16(_mm_sub_epi16(ylo, _mm_unpacklo_epi16(tg, tg)),
                                       _mm_sub_epi16(yhi, _mm_unpackhi_epi16(tg, tg)));
    const __m128i b = _mm_packus_epi16(_mm_add_epi16(ylo, _mm_unpacklo_epi16(tb, tb)),
                                       _mm_add_epi16(yhi, _mm_unpackhi_epi16(tb, tb)));
    for (int j = 0; j < 3; ++j) {
        const __m128i o =
            _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(r, mask(j, 0)), _mm_shuffle_epi8(g, mask(j, 1))),
                         _mm_shuffle_epi8(b, mask(j, 2)));
        store(rgb + 16 * j, o);
    }
}

struct K {
    static constexpr int32_t kPairs = 8;
    using Chroma = __m128i;  // 16-bit, 0 to 255
    static void split(const uint8_t* p, __m128i* first, __m128i* second) {
        const __m128i both = load(p);
        *first = _mm_and_si128(both, _mm_set1_epi16(0xFF));
        *second = _mm_srli_epi16(both, 8);
    }
    static __m128i widen(const uint8_t* p) {
        return _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
    }
    static void pixels(uint8_t* rgb, const uint8_t* y, __m128i u, __m128i v) {
        __m128i tr, tg, tb;
        chromaTerms(u, v, &tr, &tg, &tb);
        pixels16(rgb, y, tr, tg, tb);
    }
};

}  // namespace

void ConvKernels_addSse41(ConvKernels* table) { Conv_setRows<K>(table); }

}  // namespace vq_tl
