// Winner rows with SSE4.1: the keys (cost above, output value in the low
// byte) of 8 slots (UINT8 volume) or 4 (UINT16 volume) per step, their
// minimum by phminposuw or a shuffle ladder; the sub-pixel fit of 4 pixels
// at once with the scalar form's float operations in the same order (a true
// division, no reciprocal estimate).
#include <smmintrin.h>

#include "stereo/sgm_select.h"
#include "stereo/sgm_select_fit.h"

namespace vq_tl {

namespace {

// Largest candidate count: 16 steps of 8 keys.
constexpr int32_t kMaxSteps = 16;

inline __m128i load8(const uint8_t* p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)); }

// The winners of 4 pixels: value v and the neighbours' differences a, b
// (modulo the element width, as in the scalar form), then the byte map's
// values: (v << f) +- (a - b) * 2^(f - 1) / (a + b + 1e-9), truncated.
inline void storeFit(uint8_t* out, const int32_t* v, const int32_t* a, const int32_t* b, int32_t f,
                     int32_t swapped) {
    const __m128i vv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v));
    __m128i bytes;
    if (f == 0) {
        bytes = vv;
    } else {
        const __m128i aa = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a));
        const __m128i bb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
        const __m128 num =
            _mm_cvtepi32_ps(_mm_mullo_epi32(_mm_sub_epi32(aa, bb), _mm_set1_epi32(1 << (f - 1))));
        const __m128 den = _mm_add_ps(_mm_cvtepi32_ps(_mm_add_epi32(aa, bb)), _mm_set1_ps(1e-9f));
        const __m128 offset = _mm_div_ps(num, den);
        const __m128 whole = _mm_cvtepi32_ps(_mm_sll_epi32(vv, _mm_cvtsi32_si128(f)));
        const __m128 value = swapped != 0 ? _mm_sub_ps(whole, offset) : _mm_add_ps(whole, offset);
        bytes = _mm_cvttps_epi32(value);
    }
    // The low byte of each 32-bit value.
    const __m128i low =
        _mm_shuffle_epi8(bytes, _mm_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1));
    const int32_t word = _mm_cvtsi128_si32(low);
    for (int32_t i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(word >> (8 * i));
}

// Key values of slot k: k, or D - 1 - k when swapped; 16-bit, 8 per step.
inline void values16(__m128i* values, int32_t D, int32_t swapped) {
    const __m128i index = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
    for (int32_t s = 0; s < D / 8; ++s) {
        const __m128i k = _mm_add_epi16(index, _mm_set1_epi16(static_cast<int16_t>(8 * s)));
        values[s] = swapped != 0 ? _mm_sub_epi16(_mm_set1_epi16(static_cast<int16_t>(D - 1)), k) : k;
    }
}

void winnerBase8(uint8_t* out, const uint8_t* row, int32_t width, int32_t D, int32_t minDisparity, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
    __m128i values[kMaxSteps];
    values16(values, D, swapped);
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    int32_t v[4], a[4], b[4];
    int32_t x = x0;
    for (; x + 4 <= x1; x += 4) {
        for (int32_t i = 0; i < 4; ++i) {
            const uint8_t* A = row + static_cast<intptr_t>(x + i) * (D + 2);
            __m128i best = _mm_set1_epi16(-1);
            for (int32_t s = 0; s < D / 8; ++s) {
                const __m128i cost = _mm_cvtepu8_epi16(load8(A + 1 + 8 * s));
                best = _mm_min_epu16(best, _mm_or_si128(_mm_slli_epi16(cost, 8), values[s]));
            }
            const int32_t value = _mm_cvtsi128_si32(_mm_minpos_epu16(best)) & 0xFF;
            const int32_t kStar = first + step * value;
            const uint8_t c0 = A[kStar + 1];
            v[i] = value;
            a[i] = static_cast<uint8_t>(A[kStar] - c0);
            b[i] = static_cast<uint8_t>(A[kStar + 2] - c0);
        }
        storeFit(out + x, v, a, b, f, swapped);
    }
    winnerBaseU8Row8_c(out, row, width, D, minDisparity, f, swapped, x, x1);
}

// The smallest of 4 unsigned 32-bit values, in every lane.
inline __m128i min4(__m128i k) {
    k = _mm_min_epu32(k, _mm_shuffle_epi32(k, _MM_SHUFFLE(1, 0, 3, 2)));
    return _mm_min_epu32(k, _mm_shuffle_epi32(k, _MM_SHUFFLE(2, 3, 0, 1)));
}

void winnerBase16(uint8_t* out, const uint8_t* bytes, int32_t width, int32_t D, int32_t minDisparity,
                  int32_t f, int32_t swapped, int32_t x0, int32_t x1) {
    const uint16_t* row = reinterpret_cast<const uint16_t*>(bytes);
    const int32_t first = swapped != 0 ? D - 1 : 0, step = swapped != 0 ? -1 : 1;
    // 32-bit key values, 4 per step.
    const __m128i index = _mm_setr_epi32(0, 1, 2, 3);
    const __m128i start = swapped != 0 ? _mm_sub_epi32(_mm_set1_epi32(D - 1), index) : index;
    const __m128i advance = _mm_set1_epi32(swapped != 0 ? -4 : 4);
    int32_t v[4], a[4], b[4];
    int32_t x = x0;
    for (; x + 4 <= x1; x += 4) {
        for (int32_t i = 0; i < 4; ++i) {
            const uint16_t* A = row + static_cast<intptr_t>(x + i) * (D + 2);
            __m128i best = _mm_set1_epi32(-1);
            __m128i value = start;
            for (int32_t k = 0; k < D; k += 4) {
                const __m128i cost = _mm_cvtepu16_epi32(load8(reinterpret_cast<const uint8_t*>(A + 1 + k)));
                best = _mm_min_epu32(best, _mm_or_si128(_mm_slli_epi32(cost, 8), value));
                value = _mm_add_epi32(value, advance);
            }
            const int32_t won = _mm_cvtsi128_si32(min4(best)) & 0xFF;
            const int32_t kStar = first + step * won;
            const uint16_t c0 = A[kStar + 1];
            v[i] = won;
            a[i] = static_cast<uint16_t>(A[kStar] - c0);
            b[i] = static_cast<uint16_t>(A[kStar + 2] - c0);
        }
        storeFit(out + x, v, a, b, f, swapped);
    }
    winnerBaseU8Row16_c(out, bytes, width, D, minDisparity, f, swapped, x, x1);
}

// Match view. Base pixel xb gives slot k to match column xb - c + k (c =
// xb0 - x, the same for the whole row), so its D contiguous costs land on D
// contiguous columns: a window of registers over columns xb - c to xb - c +
// D - 1 takes the minimum of its keys and then slides one column on, the
// column leaving it being final. Columns in blocks, so that the keys fit on
// the stack; each block starts D - 1 base pixels early.
constexpr int32_t kBlock = 256;

template <typename TA, int kLanes>
inline __m128i keysOf(const TA* costs, __m128i values) {
    if constexpr (kLanes == 8) {
        const __m128i cost = _mm_cvtepu8_epi16(load8(reinterpret_cast<const uint8_t*>(costs)));
        return _mm_or_si128(_mm_slli_epi16(cost, 8), values);
    } else {
        const __m128i cost = _mm_cvtepu16_epi32(load8(reinterpret_cast<const uint8_t*>(costs)));
        return _mm_or_si128(_mm_slli_epi32(cost, 8), values);
    }
}

template <typename TA>
void winnerMatch(uint8_t* out, const uint8_t* bytes, int32_t W, int32_t D, int32_t m, int32_t f,
                 int32_t swapped, int32_t x0, int32_t x1) {
    constexpr int32_t kLanes = sizeof(TA) == 1 ? 8 : 4;
    constexpr int32_t kSlide = 16 / kLanes;  // bytes per key
    const TA* row = reinterpret_cast<const TA*>(bytes);
    const int32_t n = D / kLanes;
    const int32_t c = swapped != 0 ? m + D - 1 : -m;
    __m128i values[2 * kMaxSteps];
    for (int32_t s = 0; s < n; ++s) {
        const __m128i k = kLanes == 8 ? _mm_add_epi16(_mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7),
                                                      _mm_set1_epi16(static_cast<int16_t>(8 * s)))
                                      : _mm_add_epi32(_mm_setr_epi32(0, 1, 2, 3), _mm_set1_epi32(4 * s));
        values[s] = swapped == 0  ? k
                    : kLanes == 8 ? _mm_sub_epi16(_mm_set1_epi16(static_cast<int16_t>(D - 1)), k)
                                  : _mm_sub_epi32(_mm_set1_epi32(D - 1), k);
    }
    const __m128i ones = _mm_set1_epi32(-1);
    uint32_t keys[kBlock];
    for (int32_t xa = x0; xa < x1; xa += kBlock) {
        const int32_t xe = x1 - xa < kBlock ? x1 : xa + kBlock;
        __m128i window[2 * kMaxSteps];
        for (int32_t s = 0; s < n; ++s) window[s] = ones;
        for (int32_t xb = xa + c - D + 1; xb < xe + c; ++xb) {
            if (xb >= 0 && xb < W) {
                const TA* A = row + static_cast<intptr_t>(xb) * (D + 2) + 1;
                for (int32_t s = 0; s < n; ++s) {
                    const __m128i key = keysOf<TA, kLanes>(A + kLanes * s, values[s]);
                    window[s] = kLanes == 8 ? _mm_min_epu16(window[s], key) : _mm_min_epu32(window[s], key);
                }
            }
            const int32_t x = xb - c;
            if (x >= xa) keys[x - xa] = static_cast<uint32_t>(_mm_cvtsi128_si32(window[0]));
            for (int32_t s = 0; s + 1 < n; ++s) window[s] = _mm_alignr_epi8(window[s + 1], window[s], kSlide);
            window[n - 1] = _mm_alignr_epi8(ones, window[n - 1], kSlide);
        }
        SgmSelect_fitMatchColumns<4>(out, keys, row, W, D, c, swapped, xa, xe,
                                     [&](uint8_t* o, const int32_t* v, const int32_t* a, const int32_t* b) {
                                         storeFit(o, v, a, b, f, swapped);
                                     });
    }
}

// Left-right check, 8 pixels per step in 16-bit lanes, the match map's
// samples loaded one by one (their columns depend on the values). Columns
// and weighted sums stay below 2^15 for rows narrower than kMaxLeftRight.
// With `swapped` the scalar form weighs one sample by w1 + r = 2^f, which
// gives the sample itself.
constexpr int32_t kMaxLeftRight = 32000;

void leftRightU8(uint8_t* out, const uint8_t* base, const uint8_t* match, const LeftRightParams* p,
                 int32_t x0, int32_t x1) {
    const int32_t f = p->fractionBits, m = p->minDisparity, W = p->width;
    if (W >= kMaxLeftRight) return leftRightU8Row_c(out, base, match, p, x0, x1);
    const int32_t unit = 1 << f;
    const __m128i shift = _mm_cvtsi32_si128(f);
    const __m128i lanes = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
    const __m128i zero = _mm_setzero_si128(), width = _mm_set1_epi16(static_cast<int16_t>(W));
    const __m128i round = _mm_set1_epi16(static_cast<int16_t>(unit - 1));
    const __m128i unitV = _mm_set1_epi16(static_cast<int16_t>(unit));
    // Passing: e < threshold (f = 0; e is at most 255) or e <= limit.
    const uint32_t below = p->threshold < 256u ? p->threshold : 256u;
    const __m128i bound = _mm_set1_epi16(
        static_cast<int16_t>(f == 0 ? static_cast<int32_t>(below) : (p->threshold << f & 0xFF) + 1));
    const __m128i passV = _mm_set1_epi8(static_cast<char>(p->passValue));
    const __m128i failV = _mm_set1_epi8(static_cast<char>(p->failValue));
    alignas(16) int16_t column[8], floorColumn[8];
    alignas(16) int16_t sample[8], floorSample[8];
    int32_t x = x0;
    for (; x + 8 <= x1; x += 8) {
        const __m128i u = _mm_cvtepu8_epi16(load8(base + x));
        const __m128i cu = _mm_srl_epi16(_mm_add_epi16(u, round), shift);
        const __m128i at = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(x)), lanes);
        __m128i col, e;
        if (p->swapped != 0) {
            col = _mm_sub_epi16(_mm_sub_epi16(at, _mm_set1_epi16(static_cast<int16_t>(m))), cu);
        } else {
            col = _mm_add_epi16(_mm_add_epi16(at, _mm_set1_epi16(static_cast<int16_t>(m))), cu);
        }
        const __m128i inside =
            _mm_and_si128(_mm_cmpgt_epi16(col, _mm_set1_epi16(-1)), _mm_cmplt_epi16(col, width));
        // Columns outside the row read column 0; their lanes fail anyway.
        _mm_store_si128(reinterpret_cast<__m128i*>(column), _mm_and_si128(col, inside));
        for (int32_t i = 0; i < 8; ++i) sample[i] = match[column[i]];
        const __m128i s = _mm_load_si128(reinterpret_cast<const __m128i*>(sample));
        if (p->swapped != 0) {
            e = _mm_abs_epi16(_mm_sub_epi16(u, s));
        } else {
            const __m128i fu = _mm_srl_epi16(u, shift);
            const __m128i w = _mm_sub_epi16(_mm_sll_epi16(cu, shift), u);
            // The floor column: at most one left of an inside ceil column,
            // the edge pixel at the left edge.
            const __m128i fc = _mm_max_epi16(
                _mm_add_epi16(_mm_add_epi16(at, _mm_set1_epi16(static_cast<int16_t>(m))), fu), zero);
            _mm_store_si128(reinterpret_cast<__m128i*>(floorColumn), _mm_and_si128(fc, inside));
            for (int32_t i = 0; i < 8; ++i) floorSample[i] = match[floorColumn[i]];
            const __m128i sf = _mm_load_si128(reinterpret_cast<const __m128i*>(floorSample));
            const __m128i sum =
                _mm_add_epi16(_mm_mullo_epi16(_mm_sub_epi16(unitV, w), s), _mm_mullo_epi16(w, sf));
            e = _mm_abs_epi16(_mm_sub_epi16(u, _mm_srl_epi16(sum, shift)));
        }
        const __m128i pass = _mm_and_si128(inside, _mm_cmplt_epi16(e, bound));
        const __m128i pass8 = _mm_packs_epi16(pass, pass);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + x), _mm_blendv_epi8(failV, passV, pass8));
    }
    leftRightU8Row_c(out, base, match, p, x, x1);
}

}  // namespace

void SgmSelectKernels_addSse41(SgmSelectKernels* table) {
    table->baseU8[0] = winnerBase8;
    table->baseU8[1] = winnerBase16;
    table->matchU8[0] = winnerMatch<uint8_t>;
    table->matchU8[1] = winnerMatch<uint16_t>;
    table->leftRightU8 = leftRightU8;
}

}  // namespace vq_tl
