// Winner rows of UINT8 volumes with AVX-512 (F, BW): the AVX2 form's
// slot-major blocks 64 pixels wide. A block is transposed in four 128-bit
// lanes (pixels 16q to 16q + 15 in lane q), the slots walked with a mask
// register choosing the pixels a slot takes, and the sub-pixel fit done 16
// pixels at a time with the scalar form's float operations in the same
// order. Rows, candidate counts and column runs the blocks do not cover (the
// match view's columns near the row ends among them) go to the AVX2 forms.
#include <immintrin.h>

#include "stereo/sgm_avx512.h"
#include "stereo/sgm_select.h"
#include "stereo/sgm_select_blocks.h"

namespace vq_tl {

namespace {

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store64(uint8_t* p, __m512i v) { _mm512_storeu_si512(p, v); }

// Entries e to e + 15 of 64 pixels (src: entry e of the first, pitch bytes
// apart) into 16 rows of 64 bytes, stride apart. Register i holds pixel
// i + 16q in lane q; the AVX2 form's four unpack stages within the lanes
// (bytes, words, double words, quad words) leave entry e of pixels 16q to
// 16q + 15 in lane q of register e.
inline void transpose16x64(uint8_t* dst, intptr_t stride, const uint8_t* src, intptr_t pitch) {
    __m512i r[16], t[16];
    for (int32_t i = 0; i < 16; ++i) {
        const uint8_t* p = src + i * pitch;
        const __m256i lo =
            _mm256_inserti128_si256(_mm256_castsi128_si256(load16(p)), load16(p + 16 * pitch), 1);
        const __m256i hi = _mm256_inserti128_si256(_mm256_castsi128_si256(load16(p + 32 * pitch)),
                                                   load16(p + 48 * pitch), 1);
        r[i] = _mm512_inserti64x4(_mm512_castsi256_si512(lo), hi, 1);
    }
    for (int32_t i = 0; i < 8; ++i) {
        t[i] = _mm512_unpacklo_epi8(r[2 * i], r[2 * i + 1]);
        t[i + 8] = _mm512_unpackhi_epi8(r[2 * i], r[2 * i + 1]);
    }
    for (int32_t h = 0; h < 2; ++h) {
        for (int32_t j = 0; j < 4; ++j) {
            r[8 * h + j] = _mm512_unpacklo_epi16(t[8 * h + 2 * j], t[8 * h + 2 * j + 1]);
            r[8 * h + 4 + j] = _mm512_unpackhi_epi16(t[8 * h + 2 * j], t[8 * h + 2 * j + 1]);
        }
    }
    for (int32_t g = 0; g < 4; ++g) {
        for (int32_t j = 0; j < 2; ++j) {
            t[4 * g + j] = _mm512_unpacklo_epi32(r[4 * g + 2 * j], r[4 * g + 2 * j + 1]);
            t[4 * g + 2 + j] = _mm512_unpackhi_epi32(r[4 * g + 2 * j], r[4 * g + 2 * j + 1]);
        }
    }
    for (int32_t h = 0; h < 8; ++h) {
        store64(dst + 2 * h * stride, _mm512_unpacklo_epi64(t[2 * h], t[2 * h + 1]));
        store64(dst + (2 * h + 1) * stride, _mm512_unpackhi_epi64(t[2 * h], t[2 * h + 1]));
    }
}

// Entries 0 to n - 1 (n >= 16) of 64 pixels into rows 0 to n - 1 of dst, in
// chunks of 16, the last one overlapping its predecessor.
inline void transposeEntries(uint8_t* dst, intptr_t stride, const uint8_t* src, intptr_t pitch, int32_t n) {
    for (int32_t e = 0;; e += 16) {
        if (e + 16 > n) e = n - 16;
        transpose16x64(dst + e * stride, stride, src + e, pitch);
        if (e + 16 >= n) break;
    }
}

// The AVX2 form's fit for 64 pixels: byte q of each 32-bit word, pixels
// 4j + q, widened in place by shift and mask and put back the same way.
inline void storeFit64(uint8_t* out, __m512i v, __m512i a, __m512i b, int32_t f, int32_t swapped) {
    if (f == 0) {
        store64(out, v);
        return;
    }
    const __m128i scaleShift = _mm_cvtsi32_si128(f - 1);
    const __m128i shift = _mm_cvtsi32_si128(f);
    const __m512 tiny = _mm512_set1_ps(1e-9f);
    const __m512i lowByte = _mm512_set1_epi32(0xFF);
    __m512i result = _mm512_setzero_si512();
#pragma GCC unroll 4
    for (int32_t q = 0; q < 4; ++q) {
        const __m512i vv = _mm512_and_si512(_mm512_srli_epi32(v, 8 * q), lowByte);
        const __m512i aa = _mm512_and_si512(_mm512_srli_epi32(a, 8 * q), lowByte);
        const __m512i bb = _mm512_and_si512(_mm512_srli_epi32(b, 8 * q), lowByte);
        const __m512 num = _mm512_cvtepi32_ps(_mm512_sll_epi32(_mm512_sub_epi32(aa, bb), scaleShift));
        const __m512 den = _mm512_add_ps(_mm512_cvtepi32_ps(_mm512_add_epi32(aa, bb)), tiny);
        const __m512 offset = _mm512_div_ps(num, den);
        const __m512 whole = _mm512_cvtepi32_ps(_mm512_sll_epi32(vv, shift));
        const __m512 value = swapped != 0 ? _mm512_sub_ps(whole, offset) : _mm512_add_ps(whole, offset);
        const __m512i word = _mm512_cvttps_epi32(value);
        result =
            _mm512_or_si512(result, _mm512_slli_epi32(q < 3 ? _mm512_and_si512(word, lowByte) : word, 8 * q));
    }
    store64(out, result);
}

// The block operations of sgm_select_blocks.h: 64 pixels a block, the
// walk choosing its pixels with a mask register.
struct Blocks512 {
    using Reg = __m512i;
    static constexpr int32_t kPixels = 64;
    static Reg load(const uint8_t* p) { return _mm512_loadu_si512(p); }
    static Reg loadAligned(const uint8_t* p) { return _mm512_load_si512(p); }
    static Reg set1(int8_t v) { return _mm512_set1_epi8(v); }
    static Reg add(Reg a, Reg b) { return _mm512_add_epi8(a, b); }
    static Reg sub(Reg a, Reg b) { return _mm512_sub_epi8(a, b); }
    static Reg min(Reg a, Reg b) { return _mm512_min_epu8(a, b); }
    static __mmask64 take(Reg low, Reg cost) { return _mm512_cmpeq_epu8_mask(low, cost); }
    static Reg select(Reg a, __mmask64 take, Reg b) { return _mm512_mask_mov_epi8(a, take, b); }
    static void transposeEntries(uint8_t* dst, intptr_t stride, const uint8_t* src, intptr_t pitch,
                                 int32_t n) {
        vq_tl::transposeEntries(dst, stride, src, pitch, n);
    }
    static void storeFit(uint8_t* out, Reg v, Reg a, Reg b, int32_t f, int32_t swapped) {
        storeFit64(out, v, a, b, f, swapped);
    }
};

void winnerBase8(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
    if (D < 16 || D > 128 || x1 - x0 < 64)
        return winnerBaseU8Row8_avx2(out, row, width, D, minDisparity, f, swapped, x0, x1);
    if (swapped != 0) return SelectBlocks_base<Blocks512, true>(out, row, D, f, x0, x1);
    return SelectBlocks_base<Blocks512, false>(out, row, D, f, x0, x1);
}

// The match view's interior blocks: the base pixels' D rows of up to 512
// columns in 32 KB (384 columns for D = 64).
constexpr int32_t kMatchBuffer = 32768;

void winnerMatch8(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t f,
                  int32_t swapped, int32_t x0, int32_t x1) {
    const int32_t c = swapped != 0 ? m + D - 1 : -m;
    const int32_t xi0 = x0 > D - 1 - c ? x0 : D - 1 - c, xi1 = x1 < W - c ? x1 : W - c;
    if (D < 16 || D > 64 || xi1 - xi0 < 64)
        return winnerMatchU8Row8_avx2(out, bytes, W, D, m, f, swapped, x0, x1);
    // The edge runs are narrower than the AVX2 form's 32-column edge blocks
    // (D - 1 - c columns at the left): widened into the interior, whose
    // columns they write with the same bytes, so that they take the blocks
    // and not its sliding window of keys.
    if (x0 < xi0) winnerMatchU8Row8_avx2(out, bytes, W, D, m, f, swapped, x0, xi0 - x0 < 32 ? x0 + 32 : xi0);
    alignas(64) uint8_t buf[kMatchBuffer];
    SelectBlocks_matchInterior<Blocks512, kMatchBuffer>(out, bytes, D, c, f, swapped, xi0, xi1, buf);
    if (xi1 < x1) winnerMatchU8Row8_avx2(out, bytes, W, D, m, f, swapped, x1 - xi1 < 32 ? x1 - 32 : xi1, x1);
}

}  // namespace

void SgmSelectKernels_addAvx512(SgmSelectKernels* table) {
    table->baseU8[0] = winnerBase8;
    table->matchU8[0] = winnerMatch8;
}

}  // namespace vq_tl
