// Winner rows with AVX2. UINT8 volumes with 16 to 128 candidates (base
// view) or 16 to 64 (match view): blocks of 32 pixels transposed to
// slot-major form, the winner of 32 pixels found at once in 8-bit lanes and
// their sub-pixel fit 8 at a time with the scalar form's float operations in
// the same order (a true division, no reciprocal estimate). Otherwise the
// match view's sliding window of keys over two halves of a block of columns
// at once, one half in each 128-bit lane (the byte alignment that slides the
// window works within lanes), and the base view of UINT8 volumes two pixels
// per register; that of UINT16 volumes keeps the SSE4.1 form.
#include <immintrin.h>

#include "stereo/sgm_select.h"
#include "stereo/sgm_select_blocks.h"
#include "stereo/sgm_select_fit.h"

namespace vq_tl {

namespace {

// Largest candidate count: 16 steps of 8 keys.
constexpr int32_t kMaxSteps = 16;

inline __m128i load8(const void* p) { return _mm_loadl_epi64(static_cast<const __m128i*>(p)); }

// The byte map's values of 8 pixels: (v << f) +- (a - b) * 2^(f - 1) /
// (a + b + 1e-9), truncated; v, a, b as the scalar form's winner holds them.
inline void storeFit8(uint8_t* out, const int32_t* v, const int32_t* a, const int32_t* b, int32_t f,
                      int32_t swapped) {
    const __m256i vv = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(v));
    __m256i words;
    if (f == 0) {
        words = vv;
    } else {
        const __m256i aa = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a));
        const __m256i bb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
        const __m256 num =
            _mm256_cvtepi32_ps(_mm256_mullo_epi32(_mm256_sub_epi32(aa, bb), _mm256_set1_epi32(1 << (f - 1))));
        const __m256 den = _mm256_add_ps(_mm256_cvtepi32_ps(_mm256_add_epi32(aa, bb)), _mm256_set1_ps(1e-9f));
        const __m256 offset = _mm256_div_ps(num, den);
        const __m256 whole = _mm256_cvtepi32_ps(_mm256_sll_epi32(vv, _mm_cvtsi32_si128(f)));
        const __m256 value = swapped != 0 ? _mm256_sub_ps(whole, offset) : _mm256_add_ps(whole, offset);
        words = _mm256_cvttps_epi32(value);
    }
    // The low byte of each 32-bit value, 4 per lane.
    const __m256i low = _mm256_shuffle_epi8(
        words, _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8, 12, -1,
                                -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1));
    const uint32_t w0 = static_cast<uint32_t>(_mm256_cvtsi256_si32(low));
    const uint32_t w1 = static_cast<uint32_t>(_mm_cvtsi128_si32(_mm256_extracti128_si256(low, 1)));
    for (int32_t i = 0; i < 4; ++i) {
        out[i] = static_cast<uint8_t>(w0 >> (8 * i));
        out[4 + i] = static_cast<uint8_t>(w1 >> (8 * i));
    }
}

// Base view, UINT8 volume: two pixels per register, 8 keys of each per step
// (one pixel in each lane), the minimum of each lane by phminposuw. kN: the
// steps per pixel when known at compile time (the key values then stay in
// registers), 0 for D / 8 of them.
template <int kN>
void baseTwoPixels(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                   int32_t f, int32_t swapped, int32_t x0, int32_t x1) {
    const int32_t n = kN > 0 ? kN : D / 8;
    constexpr int32_t kSize = kN > 0 ? kN : kMaxSteps;
    __m256i values[kSize];
    for (int32_t s = 0; s < n; ++s) {
        const __m256i k = _mm256_add_epi16(_mm256_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7),
                                           _mm256_set1_epi16(static_cast<int16_t>(8 * s)));
        values[s] = swapped != 0 ? _mm256_sub_epi16(_mm256_set1_epi16(static_cast<int16_t>(D - 1)), k) : k;
    }
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    const intptr_t pitch = D + 2;
    int32_t v[8], a[8], b[8];
    int32_t x = x0;
    for (; x + 8 <= x1; x += 8) {
        for (int32_t i = 0; i < 8; i += 2) {
            const uint8_t* A0 = row + static_cast<intptr_t>(x + i) * pitch;
            const uint8_t* A1 = A0 + pitch;
            __m256i best = _mm256_set1_epi16(-1);
            for (int32_t s = 0; s < n; ++s) {
                const __m128i both = _mm_unpacklo_epi64(load8(A0 + 1 + 8 * s), load8(A1 + 1 + 8 * s));
                const __m256i cost = _mm256_cvtepu8_epi16(both);
                best = _mm256_min_epu16(best, _mm256_or_si256(_mm256_slli_epi16(cost, 8), values[s]));
            }
            const int32_t won0 = _mm_cvtsi128_si32(_mm_minpos_epu16(_mm256_castsi256_si128(best))) & 0xFF;
            const int32_t won1 =
                _mm_cvtsi128_si32(_mm_minpos_epu16(_mm256_extracti128_si256(best, 1))) & 0xFF;
            const int32_t k0 = first + step * won0, k1 = first + step * won1;
            const uint8_t c0 = A0[k0 + 1], c1 = A1[k1 + 1];
            v[i] = won0;
            a[i] = static_cast<uint8_t>(A0[k0] - c0);
            b[i] = static_cast<uint8_t>(A0[k0 + 2] - c0);
            v[i + 1] = won1;
            a[i + 1] = static_cast<uint8_t>(A1[k1] - c1);
            b[i + 1] = static_cast<uint8_t>(A1[k1 + 2] - c1);
        }
        storeFit8(out + x, v, a, b, f, swapped);
    }
    winnerBaseU8Row8_c(out, row, width, D, minDisparity, f, swapped, x, x1);
}

void winnerBase8Pairs(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                      int32_t f, int32_t swapped, int32_t x0, int32_t x1) {
    switch (D / 8) {
        case 1: return baseTwoPixels<1>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 2: return baseTwoPixels<2>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 3: return baseTwoPixels<3>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 4: return baseTwoPixels<4>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 8: return baseTwoPixels<8>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        default: return baseTwoPixels<0>(out, row, width, D, minDisparity, f, swapped, x0, x1);
    }
}

// Slot-major blocks for the UINT8 volume (16 to 128 candidates for the base
// view, 16 to 64 for the match view, rows of 32 pixels or more; the forms
// above do the others). A block of 32 pixels is transposed so that one entry of all of them is 32
// contiguous bytes; a winner is then found for 32 pixels at once in 8-bit
// lanes, costs being compared as they are (no key, no sentinel value).

// Entries e to e + 15 of 32 pixels (src: entry e of the first, pitch bytes
// apart) into 16 rows of 32 bytes, stride apart. Register i holds pixel i in
// lane 0 and pixel i + 16 in lane 1; four unpack stages within the lanes
// (bytes, words, double words, quad words) leave entry e of pixels 0 to 15
// in lane 0 and 16 to 31 in lane 1 of register e.
inline void transpose16x32(uint8_t* dst, intptr_t stride, const uint8_t* src, intptr_t pitch) {
    __m256i r[16], t[16];
    for (int32_t i = 0; i < 16; ++i) {
        const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i * pitch));
        const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + (i + 16) * pitch));
        r[i] = _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
    }
    // t[i]: entries 0 to 7 of pixels 2i and 2i + 1, t[i + 8] entries 8 to 15.
    for (int32_t i = 0; i < 8; ++i) {
        t[i] = _mm256_unpacklo_epi8(r[2 * i], r[2 * i + 1]);
        t[i + 8] = _mm256_unpackhi_epi8(r[2 * i], r[2 * i + 1]);
    }
    // r[8h + j]: entries 8h to 8h + 3 of pixels 4j to 4j + 3, r[8h + 4 + j]
    // entries 8h + 4 to 8h + 7.
    for (int32_t h = 0; h < 2; ++h) {
        for (int32_t j = 0; j < 4; ++j) {
            r[8 * h + j] = _mm256_unpacklo_epi16(t[8 * h + 2 * j], t[8 * h + 2 * j + 1]);
            r[8 * h + 4 + j] = _mm256_unpackhi_epi16(t[8 * h + 2 * j], t[8 * h + 2 * j + 1]);
        }
    }
    // t[4g + j]: entries 4g and 4g + 1 of pixels 8j to 8j + 7, t[4g + 2 + j]
    // entries 4g + 2 and 4g + 3.
    for (int32_t g = 0; g < 4; ++g) {
        for (int32_t j = 0; j < 2; ++j) {
            t[4 * g + j] = _mm256_unpacklo_epi32(r[4 * g + 2 * j], r[4 * g + 2 * j + 1]);
            t[4 * g + 2 + j] = _mm256_unpackhi_epi32(r[4 * g + 2 * j], r[4 * g + 2 * j + 1]);
        }
    }
    for (int32_t h = 0; h < 8; ++h) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 2 * h * stride),
                            _mm256_unpacklo_epi64(t[2 * h], t[2 * h + 1]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + (2 * h + 1) * stride),
                            _mm256_unpackhi_epi64(t[2 * h], t[2 * h + 1]));
    }
}

// Entries 0 to n - 1 (n >= 16) of 32 pixels into rows 0 to n - 1 of dst, in
// chunks of 16, the last one overlapping its predecessor so that no load
// leaves the pixels' n entries.
inline void transposeEntries(uint8_t* dst, intptr_t stride, const uint8_t* src, intptr_t pitch, int32_t n) {
    for (int32_t e = 0;; e += 16) {
        if (e + 16 > n) e = n - 16;
        transpose16x32(dst + e * stride, stride, src + e, pitch);
        if (e + 16 >= n) break;
    }
}

// The fit of storeFit8 for 32 pixels from bytes: v the winners' values, a
// and b their neighbours' costs less their own (modulo 256, as the scalar
// form's winner holds them). Byte q of each 32-bit word, pixels 4j + q,
// widened in place by shift and mask and put back the same way, so that
// no shuffle is needed.
inline void storeFit32(uint8_t* out, __m256i v, __m256i a, __m256i b, int32_t f, int32_t swapped) {
    if (f == 0) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), v);
        return;
    }
    const __m128i scaleShift = _mm_cvtsi32_si128(f - 1);
    const __m128i shift = _mm_cvtsi32_si128(f);
    const __m256 tiny = _mm256_set1_ps(1e-9f);
    const __m256i lowByte = _mm256_set1_epi32(0xFF);
    __m256i result = _mm256_setzero_si256();
#pragma GCC unroll 4
    for (int32_t q = 0; q < 4; ++q) {
        const __m256i vv = _mm256_and_si256(_mm256_srli_epi32(v, 8 * q), lowByte);
        const __m256i aa = _mm256_and_si256(_mm256_srli_epi32(a, 8 * q), lowByte);
        const __m256i bb = _mm256_and_si256(_mm256_srli_epi32(b, 8 * q), lowByte);
        // (a - b) * 2^(f - 1) as a shift: the same 32-bit value.
        const __m256 num = _mm256_cvtepi32_ps(_mm256_sll_epi32(_mm256_sub_epi32(aa, bb), scaleShift));
        const __m256 den = _mm256_add_ps(_mm256_cvtepi32_ps(_mm256_add_epi32(aa, bb)), tiny);
        const __m256 offset = _mm256_div_ps(num, den);
        const __m256 whole = _mm256_cvtepi32_ps(_mm256_sll_epi32(vv, shift));
        const __m256 value = swapped != 0 ? _mm256_sub_ps(whole, offset) : _mm256_add_ps(whole, offset);
        // The low byte, as the scalar form's cast to uint8_t takes it.
        const __m256i word = _mm256_cvttps_epi32(value);
        result =
            _mm256_or_si256(result, _mm256_slli_epi32(q < 3 ? _mm256_and_si256(word, lowByte) : word, 8 * q));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), result);
}

// The block operations of sgm_select_blocks.h: 32 pixels a block.
struct Blocks256 {
    using Reg = __m256i;
    static constexpr int32_t kPixels = 32;
    static Reg load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
    static Reg loadAligned(const uint8_t* p) {
        return _mm256_load_si256(reinterpret_cast<const __m256i*>(p));
    }
    static Reg set1(int8_t v) { return _mm256_set1_epi8(v); }
    static Reg add(Reg a, Reg b) { return _mm256_add_epi8(a, b); }
    static Reg sub(Reg a, Reg b) { return _mm256_sub_epi8(a, b); }
    static Reg min(Reg a, Reg b) { return _mm256_min_epu8(a, b); }
    static Reg take(Reg low, Reg cost) { return _mm256_cmpeq_epi8(low, cost); }
    static Reg select(Reg a, Reg take, Reg b) { return _mm256_blendv_epi8(a, b, take); }
    static void transposeEntries(uint8_t* dst, intptr_t stride, const uint8_t* src, intptr_t pitch,
                                 int32_t n) {
        vq_tl::transposeEntries(dst, stride, src, pitch, n);
    }
    static void storeFit(uint8_t* out, Reg v, Reg a, Reg b, int32_t f, int32_t swapped) {
        storeFit32(out, v, a, b, f, swapped);
    }
};

// Match view. Base pixel xb gives slot k to match column xb - c + k (c =
// xb0 - x, the same for the whole row), so its D contiguous costs land on D
// contiguous columns: a window of registers over columns xb - c to xb - c +
// D - 1 takes the minimum of its keys and then slides one column on, the
// column leaving it being final. Columns in blocks, so that the keys fit on
// the stack; each half block starts D - 1 base pixels early. A lane whose
// base pixel lies outside the row takes all-ones keys (no part in the
// minimum) and reads pixel 0 instead.
constexpr int32_t kBlock = 256;

template <typename TA, int kLanes>
inline __m256i keysOf(const TA* lo, const TA* hi, __m256i values, __m256i absent) {
    const __m128i both = _mm_unpacklo_epi64(load8(lo), load8(hi));
    if constexpr (kLanes == 8) {
        const __m256i cost = _mm256_cvtepu8_epi16(both);
        return _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi16(cost, 8), values), absent);
    } else {
        const __m256i cost = _mm256_cvtepu16_epi32(both);
        return _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi32(cost, 8), values), absent);
    }
}

// The keys of the columns xa to xa + 2 * half - 1 of one block into keys[],
// lane 0 walking the first half, lane 1 the second. kN: the registers per
// window when known at compile time (the windows then stay in registers), 0
// for n of them.
template <typename TA, int kN>
void slideBlock(uint32_t* keys, const TA* row, int32_t W, int32_t D, int32_t n, int32_t c, int32_t xa,
                int32_t half, const __m256i* valuesIn) {
    constexpr int32_t kLanes = sizeof(TA) == 1 ? 8 : 4;
    constexpr int32_t kSlide = 16 / kLanes;  // bytes per key
    constexpr int32_t kSize = kN > 0 ? kN : 2 * kMaxSteps;
    if constexpr (kN > 0) n = kN;
    __m256i values[kSize], window[kSize];
    const __m256i ones = _mm256_set1_epi32(-1);
    const __m128i none = _mm_setzero_si128(), all = _mm_set1_epi32(-1);
    for (int32_t s = 0; s < n; ++s) {
        values[s] = valuesIn[s];
        window[s] = ones;
    }
    const int32_t start = xa + c - D + 1;
    for (int32_t t = 0; t < half + D - 1; ++t) {
        const int32_t xb0 = start + t, xb1 = xb0 + half;
        const bool in0 = xb0 >= 0 && xb0 < W, in1 = xb1 >= 0 && xb1 < W;
        if (in0 || in1) {
            const TA* A0 = row + static_cast<intptr_t>(in0 ? xb0 : 0) * (D + 2) + 1;
            const TA* A1 = row + static_cast<intptr_t>(in1 ? xb1 : 0) * (D + 2) + 1;
            const __m256i absent = _mm256_set_m128i(in1 ? none : all, in0 ? none : all);
            for (int32_t s = 0; s < n; ++s) {
                const __m256i key = keysOf<TA, kLanes>(A0 + kLanes * s, A1 + kLanes * s, values[s], absent);
                window[s] = kLanes == 8 ? _mm256_min_epu16(window[s], key) : _mm256_min_epu32(window[s], key);
            }
        }
        const int32_t x = xb0 - c;
        if (x >= xa) {
            keys[x - xa] = static_cast<uint32_t>(_mm256_cvtsi256_si32(window[0]));
            keys[x - xa + half] =
                static_cast<uint32_t>(_mm_cvtsi128_si32(_mm256_extracti128_si256(window[0], 1)));
        }
        for (int32_t s = 0; s + 1 < n; ++s) window[s] = _mm256_alignr_epi8(window[s + 1], window[s], kSlide);
        window[n - 1] = _mm256_alignr_epi8(ones, window[n - 1], kSlide);
    }
}

template <typename TA>
void winnerMatch(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
    constexpr int32_t kLanes = sizeof(TA) == 1 ? 8 : 4;
    const TA* row = reinterpret_cast<const TA*>(bytes);
    const int32_t n = D / kLanes;
    const int32_t c = swapped != 0 ? m + D - 1 : -m;
    __m256i values[2 * kMaxSteps];
    for (int32_t s = 0; s < n; ++s) {
        const __m256i k =
            kLanes == 8
                ? _mm256_add_epi16(_mm256_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7),
                                   _mm256_set1_epi16(static_cast<int16_t>(8 * s)))
                : _mm256_add_epi32(_mm256_setr_epi32(0, 1, 2, 3, 0, 1, 2, 3), _mm256_set1_epi32(4 * s));
        values[s] = swapped == 0  ? k
                    : kLanes == 8 ? _mm256_sub_epi16(_mm256_set1_epi16(static_cast<int16_t>(D - 1)), k)
                                  : _mm256_sub_epi32(_mm256_set1_epi32(D - 1), k);
    }
    // Two halves of up to kBlock / 2 columns each (the second may run past
    // the block's end; those keys are not used).
    uint32_t keys[kBlock + 8];
    for (int32_t xa = x0; xa < x1; xa += kBlock) {
        const int32_t xe = x1 - xa < kBlock ? x1 : xa + kBlock;
        const int32_t half = (xe - xa + 1) / 2;
        switch (n) {
            case 1: slideBlock<TA, 1>(keys, row, W, D, n, c, xa, half, values); break;
            case 2: slideBlock<TA, 2>(keys, row, W, D, n, c, xa, half, values); break;
            case 3: slideBlock<TA, 3>(keys, row, W, D, n, c, xa, half, values); break;
            case 4: slideBlock<TA, 4>(keys, row, W, D, n, c, xa, half, values); break;
            case 6: slideBlock<TA, 6>(keys, row, W, D, n, c, xa, half, values); break;
            case 8: slideBlock<TA, 8>(keys, row, W, D, n, c, xa, half, values); break;
            default: slideBlock<TA, 0>(keys, row, W, D, n, c, xa, half, values); break;
        }
        SgmSelect_fitMatchColumns<8>(out, keys, row, W, D, c, swapped, xa, xe,
                                     [&](uint8_t* o, const int32_t* v, const int32_t* a, const int32_t* b) {
                                         storeFit8(o, v, a, b, f, swapped);
                                     });
    }
}

// Match view, UINT8 volume: slot k of match column x is slot k of the base
// pixel x + c - k, so with the base pixels slot-major (slot k of pixel p at
// row k, column p - pb0) slot k of 32 columns is 32 contiguous bytes of row
// k, one column earlier per slot, and its neighbours k - 1 and k + 1 one
// column later and earlier in the rows beside. Interior columns (all slots'
// base pixels inside the row) in blocks of up to 512 columns; there the
// fit's neighbours are mirrored at slots 0 and D - 1. The columns near the
// row's ends in blocks of 32 with a mask of the slots present.
constexpr int32_t kMatchBuffer = 16384;

inline __m256i loadAt(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// 32 columns xs to xs + 31 anywhere in a row of at least 32 pixels: the
// slots whose base pixel is outside the row take no part (a mask along the
// same diagonal as the costs), the neighbours are mirrored at the ends of
// the run of slots present, and a column with none gives 0, the value of a
// tie with a = b = 0.
void matchEdge32(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t c, int32_t f,
                 int32_t swapped, int32_t xs, uint8_t* buf) {
    const int32_t pb0 = xs + c - D + 1, np = 32 + D - 1;
    const int32_t lo = pb0 < 0 ? -pb0 : 0, hi = pb0 + np > W ? W - pb0 : np;
    if (lo >= hi) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + xs), _mm256_setzero_si256());
        return;
    }
    // Rows span columns -32 to np + 31 (a group of 32 pixels inside the row
    // may reach that far past the ones present); columns 0 to np, all the
    // walk reads, are set to 255 first so that no load reads bytes never
    // written.
    const intptr_t stride = (np + 64 + 31) / 32 * 32;
    uint8_t* B0 = buf + 32;
    const __m256i minusOne = _mm256_set1_epi8(-1), none = _mm256_setzero_si256();
    for (int32_t k = 0; k < D; ++k) {
        for (int32_t j = 0; j < np; j += 32)
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(B0 + k * stride + j), minusOne);
    }
    alignas(32) uint8_t present[32 + 128];
    // Columns below 128 (np <= 95): signed byte compares.
    for (int32_t j = 0; j < np; j += 32) {
        const __m256i index =
            _mm256_add_epi8(_mm256_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18,
                                             19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31),
                            _mm256_set1_epi8(static_cast<char>(j)));
        const __m256i inside =
            _mm256_andnot_si256(_mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(lo)), index),
                                _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(hi)), index));
        _mm256_store_si256(reinterpret_cast<__m256i*>(present + j), inside);
    }
    // Groups of 32 pixels inside the row covering lo to hi - 1 (W >= 32).
    for (int32_t g = lo;; g += 32) {
        const int32_t gs = g + 32 > W - pb0 ? W - pb0 - 32 : g;
        transposeEntries(B0 + gs, stride, bytes + (pb0 + gs) * (D + 2) + 1, D + 2, D);
        if (g + 32 >= hi) break;
    }
    Walk<Blocks256> w{minusOne, none, minusOne, minusOne};
    __m256i v = _mm256_set1_epi8(static_cast<char>(D - 1));
    for (int32_t j = 0; j < D; ++j) {
        const int32_t k = swapped != 0 ? j : D - 1 - j;
        const int32_t col = D - 1 - k;
        const uint8_t* A = B0 + k * stride + col;
        const __m256i cost = loadAt(A), here = loadAt(present + col);
        const __m256i hasBelow = k > 0 ? loadAt(present + col + 1) : none;
        const __m256i hasAbove = k < D - 1 ? loadAt(present + col - 1) : none;
        const __m256i costBelow = k > 0 ? loadAt(A + 1 - stride) : cost;
        const __m256i costAbove = k < D - 1 ? loadAt(A + stride - 1) : cost;
        const __m256i below =
            _mm256_blendv_epi8(_mm256_blendv_epi8(cost, costAbove, hasAbove), costBelow, hasBelow);
        const __m256i above =
            _mm256_blendv_epi8(_mm256_blendv_epi8(cost, costBelow, hasBelow), costAbove, hasAbove);
        // Absent slots count as 255 for the minimum and never take.
        const __m256i masked = _mm256_or_si256(cost, _mm256_andnot_si256(here, minusOne));
        const __m256i low = _mm256_min_epu8(w.best, masked);
        const __m256i take = _mm256_and_si256(_mm256_cmpeq_epi8(low, masked), here);
        w.best = low;
        w.won = _mm256_blendv_epi8(w.won, v, take);
        w.left = _mm256_blendv_epi8(w.left, below, take);
        w.right = _mm256_blendv_epi8(w.right, above, take);
        v = _mm256_add_epi8(v, minusOne);
    }
    storeFit32(out + xs, w.won, _mm256_sub_epi8(w.left, w.best), _mm256_sub_epi8(w.right, w.best), f,
               swapped);
}

}  // namespace

void winnerBaseU8Row8_avx2(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                           int32_t f, int32_t swapped, int32_t x0, int32_t x1) {
    if (D < 16 || D > 128 || x1 - x0 < 32)
        return winnerBase8Pairs(out, row, width, D, minDisparity, f, swapped, x0, x1);
    if (swapped != 0) return SelectBlocks_base<Blocks256, true>(out, row, D, f, x0, x1);
    return SelectBlocks_base<Blocks256, false>(out, row, D, f, x0, x1);
}

void winnerMatchU8Row8_avx2(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t f,
                            int32_t swapped, int32_t x0, int32_t x1) {
    if (D < 16 || D > 64 || W < 32 || x1 - x0 < 32)
        return winnerMatch<uint8_t>(out, bytes, W, D, m, f, swapped, x0, x1);
    const int32_t c = swapped != 0 ? m + D - 1 : -m;
    int32_t xi0 = x0 > D - 1 - c ? x0 : D - 1 - c, xi1 = x1 < W - c ? x1 : W - c;
    // Too few interior columns for a block: all columns as edge ones.
    if (xi1 - xi0 < 32) xi0 = xi1 = x1;
    alignas(32) uint8_t buf[kMatchBuffer];
    for (int32_t xs = x0; xs < xi0; xs += 32)
        matchEdge32(out, bytes, W, D, c, f, swapped, xs < x1 - 32 ? xs : x1 - 32, buf);
    if (xi0 < xi1)
        SelectBlocks_matchInterior<Blocks256, kMatchBuffer>(out, bytes, D, c, f, swapped, xi0, xi1, buf);
    for (int32_t xs = xi1; xs < x1; xs += 32)
        matchEdge32(out, bytes, W, D, c, f, swapped, xs < x1 - 32 ? xs : x1 - 32, buf);
}

void SgmSelectKernels_addAvx2(SgmSelectKernels* table) {
    table->baseU8[0] = winnerBaseU8Row8_avx2;
    table->matchU8[0] = winnerMatchU8Row8_avx2;
    table->matchU8[1] = winnerMatch<uint16_t>;
}

}  // namespace vq_tl
