// Winner rows with AVX2: the match view's sliding window of keys over two
// halves of a block of columns at once, one half in each 128-bit lane (the
// byte alignment that slides the window works within lanes), and the
// sub-pixel fit of 8 pixels at once with the scalar form's float operations in
// the same order (a true division, no reciprocal estimate). The base view of
// UINT8 volumes two pixels per register; that of UINT16 volumes keeps the
// SSE4.1 form.
#include <immintrin.h>

#include "stereo/sgm_select.h"

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
void winnerBase8(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
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

void winnerBase8Any(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity,
                    int32_t f, int32_t swapped, int32_t x0, int32_t x1) {
    switch (D / 8) {
        case 1: return winnerBase8<1>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 2: return winnerBase8<2>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 3: return winnerBase8<3>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 4: return winnerBase8<4>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        case 8: return winnerBase8<8>(out, row, width, D, minDisparity, f, swapped, x0, x1);
        default: return winnerBase8<0>(out, row, width, D, minDisparity, f, swapped, x0, x1);
    }
}

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
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
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
    const intptr_t stride = D + 1;
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
        // The fit as the scalar form does it: neighbours along the diagonal,
        // mirrored at the ends of the run of slots inside the row.
        int32_t v[8], a[8], b[8];
        for (int32_t x = xa; x < xe; x += 8) {
            const int32_t count = xe - x < 8 ? xe - x : 8;
            for (int32_t i = 0; i < 8; ++i) {
                v[i] = a[i] = b[i] = 0;
                if (i >= count) continue;
                const int32_t xb0 = x + i + c;
                const int32_t kLo = xb0 - W + 1 > 0 ? xb0 - W + 1 : 0, kHi = D - 1 < xb0 ? D - 1 : xb0;
                if (kLo > kHi) continue;  // no base pixel: the value of a tie, 0
                const int32_t won = static_cast<int32_t>(keys[x + i - xa] & 0xFF);
                const int32_t kStar = first + step * won;
                const intptr_t origin = static_cast<intptr_t>(xb0) * (D + 2) + 1;
                const TA c0 = row[origin - kStar * stride];
                const TA below = kStar > kLo ? row[origin - (kStar - 1) * stride] : c0;
                const TA above = kStar < kHi ? row[origin - (kStar + 1) * stride] : c0;
                v[i] = won;
                a[i] = static_cast<TA>((kStar > kLo ? below : above) - c0);
                b[i] = static_cast<TA>((kStar < kHi ? above : below) - c0);
            }
            if (count == 8) {
                storeFit8(out + x, v, a, b, f, swapped);
            } else {
                uint8_t part[8];
                storeFit8(part, v, a, b, f, swapped);
                for (int32_t i = 0; i < count; ++i) out[x + i] = part[i];
            }
        }
    }
}

}  // namespace

void SgmSelectKernels_addAvx2(SgmSelectKernels* table) {
    table->baseU8[0] = winnerBase8Any;
    table->matchU8[0] = winnerMatch<uint8_t>;
    table->matchU8[1] = winnerMatch<uint16_t>;
}

}  // namespace vq_tl
