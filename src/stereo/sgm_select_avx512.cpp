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

namespace vq_tl {

namespace {

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline __m512i load64(const uint8_t* p) { return _mm512_loadu_si512(p); }
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

// One slot of the walk: its cost where it is at most the smallest so far,
// and with it its value and neighbours.
struct Walk {
    __m512i best, won, left, right;
};

inline void walkSlot(Walk* w, __m512i cost, __m512i below, __m512i above, __m512i v) {
    const __m512i low = _mm512_min_epu8(w->best, cost);
    const __mmask64 take = _mm512_cmpeq_epu8_mask(low, cost);
    w->best = low;
    w->won = _mm512_mask_mov_epi8(w->won, take, v);
    w->left = _mm512_mask_mov_epi8(w->left, take, below);
    w->right = _mm512_mask_mov_epi8(w->right, take, above);
}

inline void storeWalk(uint8_t* out, const Walk& w, int32_t f, int32_t swapped) {
    storeFit64(out, w.won, _mm512_sub_epi8(w.left, w.best), _mm512_sub_epi8(w.right, w.best), f, swapped);
}

// Base view: entries 0 to D + 1 of 64 pixels slot-major, then the slots in
// order of decreasing value v as in the AVX2 form.
template <bool kSwapped>
void baseBlocks(uint8_t* out, const uint8_t* row, int32_t D, int32_t f, int32_t x0, int32_t x1) {
    const intptr_t pitch = D + 2;
    alignas(64) uint8_t buf[130 * 64];
    const __m512i minusOne = _mm512_set1_epi8(-1);
    const auto rowOf = [&](int32_t e) { return _mm512_load_si512(buf + 64 * e); };
    for (int32_t x = x0; x < x1; x += 64) {
        // The last block overlaps its predecessor rather than end short.
        if (x1 - x < 64) x = x1 - 64;
        transposeEntries(buf, 64, row + x * pitch, pitch, D + 2);
        Walk w{minusOne, _mm512_setzero_si512(), _mm512_setzero_si512(), _mm512_setzero_si512()};
        __m512i v = _mm512_set1_epi8(static_cast<char>(D - 1));
        if constexpr (kSwapped) {
            // v = D - 1 - k: slots upwards.
            __m512i lo = rowOf(0), cur = rowOf(1);
            for (int32_t k = 0; k < D; ++k) {
                const __m512i hi = rowOf(k + 2);
                walkSlot(&w, cur, lo, hi, v);
                v = _mm512_add_epi8(v, minusOne);
                lo = cur;
                cur = hi;
            }
        } else {
            __m512i hi = rowOf(D + 1), cur = rowOf(D);
            for (int32_t k = D - 1; k >= 0; --k) {
                const __m512i lo = rowOf(k);
                walkSlot(&w, cur, lo, hi, v);
                v = _mm512_add_epi8(v, minusOne);
                hi = cur;
                cur = lo;
            }
        }
        storeWalk(out + x, w, f, kSwapped ? 1 : 0);
    }
}

void winnerBase8(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
    if (D < 16 || D > 128 || x1 - x0 < 64)
        return winnerBaseU8Row8_avx2(out, row, width, D, minDisparity, f, swapped, x0, x1);
    if (swapped != 0) return baseBlocks<true>(out, row, D, f, x0, x1);
    return baseBlocks<false>(out, row, D, f, x0, x1);
}

// Match view, interior columns (every slot's base pixel inside the row), as
// in the AVX2 form: the base pixels slot-major in rows of a buffer, slot k
// of 64 columns 64 contiguous bytes of row k, one column earlier per slot.
constexpr int32_t kMatchBuffer = 32768;

// The base pixels pb0 to pb0 + count - 1 (count >= 64) slot-major into rows
// of buf, pixel pb0 + j at column j, in groups of 64, the last one
// overlapping its predecessor.
inline void transposePixels(uint8_t* buf, intptr_t stride, const uint8_t* bytes, int32_t D, int32_t pb0,
                            int32_t count) {
    const intptr_t pitch = D + 2;
    for (int32_t g = 0;; g += 64) {
        if (g + 64 > count) g = count - 64;
        transposeEntries(buf + g, stride, bytes + (pb0 + g) * pitch + 1, pitch, D);
        if (g + 64 >= count) break;
    }
}

// 64 interior columns; B: row 0 at the columns' slot 0. Neighbours are
// mirrored at slots 0 and D - 1.
inline void matchInterior64(uint8_t* out, const uint8_t* B, intptr_t stride, int32_t D, int32_t f,
                            int32_t swapped) {
    const __m512i minusOne = _mm512_set1_epi8(-1);
    Walk w{minusOne, _mm512_setzero_si512(), minusOne, minusOne};
    __m512i v = _mm512_set1_epi8(static_cast<char>(D - 1));
    const intptr_t diagonal = stride - 1;
    if (swapped != 0) {
        __m512i cur = load64(B), hi = load64(B + diagonal), lo;
        walkSlot(&w, cur, hi, hi, v);
        for (int32_t k = 1; k < D - 1; ++k) {
            v = _mm512_add_epi8(v, minusOne);
            lo = cur;
            cur = hi;
            hi = load64(B + (k + 1) * diagonal);
            walkSlot(&w, cur, lo, hi, v);
        }
        v = _mm512_add_epi8(v, minusOne);
        walkSlot(&w, hi, cur, cur, v);
    } else {
        __m512i cur = load64(B + (D - 1) * diagonal), lo = load64(B + (D - 2) * diagonal), hi;
        walkSlot(&w, cur, lo, lo, v);
        for (int32_t k = D - 2; k > 0; --k) {
            v = _mm512_add_epi8(v, minusOne);
            hi = cur;
            cur = lo;
            lo = load64(B + (k - 1) * diagonal);
            walkSlot(&w, cur, lo, hi, v);
        }
        v = _mm512_add_epi8(v, minusOne);
        walkSlot(&w, lo, cur, cur, v);
    }
    storeWalk(out, w, f, swapped);
}

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
    // Columns per block (a multiple of 64, at most 512) and the stride of
    // the rows (their D - 1 more base pixels, rounded up to 64), D rows
    // within the buffer: 384 columns for D = 64.
    int32_t n = kMatchBuffer / D - (D - 1) - 63;
    n = n > 512 ? 512 : (n / 64) * 64;
    const intptr_t stride = ((n + D - 1) + 63) / 64 * 64;
    alignas(64) uint8_t buf[kMatchBuffer];
    for (int32_t x = xi0; x < xi1;) {
        // The last block overlaps its predecessor rather than end short.
        if (xi1 - x < 64) x = xi1 - 64;
        const int32_t nb = n < ((xi1 - x) / 64) * 64 ? n : ((xi1 - x) / 64) * 64;
        transposePixels(buf, stride, bytes, D, x + c - D + 1, nb + D - 1);
        for (int32_t i = 0; i < nb; i += 64)
            matchInterior64(out + x + i, buf + i + (D - 1), stride, D, f, swapped);
        x += nb;
    }
    if (xi1 < x1) winnerMatchU8Row8_avx2(out, bytes, W, D, m, f, swapped, x1 - xi1 < 32 ? x1 - 32 : xi1, x1);
}

}  // namespace

void SgmSelectKernels_addAvx512(SgmSelectKernels* table) {
    table->baseU8[0] = winnerBase8;
    table->matchU8[0] = winnerMatch8;
}

}  // namespace vq_tl
