// YUV to RGB888 rows with AVX2: 32 pixels (16 chroma pairs) per step. The
// arithmetic is that of image_conv_kernels_sse41.cpp in both 128-bit lanes:
// lane 0 holds pixels 0 to 15, lane 1 pixels 16 to 31, and the three
// 48-byte groups are put back in order by lane permutes at the end.
#include <immintrin.h>

#include "image/image_conv_kernels.h"

namespace vq_tl {

namespace {

inline __m256i load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
inline void store(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// Byte k of a lane of output register j takes pixel (16 j + k) / 3 of the
// lane, channel (16 j + k) % 3; -128 makes pshufb write zero.
struct InterleaveMasks {
    alignas(32) int8_t m[3][3][32];  // [register][channel][byte], both lanes alike
};
constexpr InterleaveMasks makeMasks() {
    InterleaveMasks t{};
    for (int j = 0; j < 3; ++j) {
        for (int ch = 0; ch < 3; ++ch) {
            for (int k = 0; k < 32; ++k) {
                const int b = 16 * j + (k & 15);
                t.m[j][ch][k] = static_cast<int8_t>(b % 3 == ch ? b / 3 : -128);
            }
        }
    }
    return t;
}
constexpr InterleaveMasks kMasks = makeMasks();

inline __m256i mask(int j, int ch) {
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(kMasks.m[j][ch]));
}

// R, G, B terms of 16 chroma pairs, u and v as 16-bit 0 to 255 (pairs 0 to
// 7 in lane 0, 8 to 15 in lane 1).
inline void chromaTerms(__m256i u8, __m256i v8, __m256i* tr, __m256i* tg, __m256i* tb) {
    const __m256i bias = _mm256_set1_epi16(128);
    const __m256i u = _mm256_sub_epi16(u8, bias), v = _mm256_sub_epi16(v8, bias);
    *tr = _mm256_add_epi16(v, _mm256_mulhi_epi16(_mm256_add_epi16(v, v), _mm256_set1_epi16(13173)));
    *tb = _mm256_add_epi16(u, _mm256_mulhi_epi16(_mm256_add_epi16(u, u), _mm256_set1_epi16(25297)));
    const __m256i k = _mm256_set1_epi32((23396 << 16) | 11272);
    const __m256i lo = _mm256_srai_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(u, v), k), 15);
    const __m256i hi = _mm256_srai_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(u, v), k), 15);
    *tg = _mm256_packs_epi32(lo, hi);
}

// 32 pixels: luma at y, the terms of their 16 pairs. Within a lane the
// unpacks take pairs 0 to 3 with luma bytes 0 to 7 and pairs 4 to 7 with
// bytes 8 to 15, so the packs give the lane's 16 pixels in order.
inline void pixels32(uint8_t* rgb, const uint8_t* y, __m256i tr, __m256i tg, __m256i tb) {
    const __m256i yy = load(y), zero = _mm256_setzero_si256();
    const __m256i ylo = _mm256_unpacklo_epi8(yy, zero), yhi = _mm256_unpackhi_epi8(yy, zero);
    const __m256i r = _mm256_packus_epi16(_mm256_add_epi16(ylo, _mm256_unpacklo_epi16(tr, tr)),
                                          _mm256_add_epi16(yhi, _mm256_unpackhi_epi16(tr, tr)));
    const __m256i g = _mm256_packus_epi16(_mm256_sub_epi16(ylo, _mm256_unpacklo_epi16(tg, tg)),
                                          _mm256_sub_epi16(yhi, _mm256_unpackhi_epi16(tg, tg)));
    const __m256i b = _mm256_packus_epi16(_mm256_add_epi16(ylo, _mm256_unpacklo_epi16(tb, tb)),
                                          _mm256_add_epi16(yhi, _mm256_unpackhi_epi16(tb, tb)));
    __m256i o[3];
    for (int j = 0; j < 3; ++j) {
        o[j] = _mm256_or_si256(
            _mm256_or_si256(_mm256_shuffle_epi8(r, mask(j, 0)), _mm256_shuffle_epi8(g, mask(j, 1))),
            _mm256_shuffle_epi8(b, mask(j, 2)));
    }
    // Lane 0 of o[0..2] is bytes 0 to 47, lane 1 bytes 48 to 95.
    store(rgb, _mm256_permute2x128_si256(o[0], o[1], 0x20));
    store(rgb + 32, _mm256_permute2x128_si256(o[2], o[0], 0x30));
    store(rgb + 64, _mm256_permute2x128_si256(o[1], o[2], 0x31));
}

struct K {
    static constexpr int32_t kPairs = 16;
    using Chroma = __m256i;  // 16-bit, 0 to 255: pairs 0 to 7 in lane 0, 8 to 15 in lane 1
    static void split(const uint8_t* p, __m256i* first, __m256i* second) {
        const __m256i both = load(p);
        *first = _mm256_and_si256(both, _mm256_set1_epi16(0xFF));
        *second = _mm256_srli_epi16(both, 8);
    }
    static __m256i widen(const uint8_t* p) {
        return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    }
    static void pixels(uint8_t* rgb, const uint8_t* y, __m256i u, __m256i v) {
        __m256i tr, tg, tb;
        chromaTerms(u, v, &tr, &tg, &tb);
        pixels32(rgb, y, tr, tg, tb);
    }
};

}  // namespace

void ConvKernels_addAvx2(ConvKernels* table) { Conv_setRows<K>(table); }

}  // namespace vq_tl
