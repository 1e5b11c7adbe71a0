// Path updates with SSE4.1: the D slots of one pixel in 16-byte chunks (and
// one 8-byte chunk where D is an odd multiple of 8), D = 8 to 64; larger D
// takes the scalar kernels. The plane sums go the same way for any D, the
// guided penalties 16 pixels at a time.
#include <smmintrin.h>

#include "stereo/sgm_aggregation.h"
#include "stereo/sgm_aggregation_x86.h"

namespace vq_tl {

namespace {

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline __m128i load8(const uint8_t* p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)); }
inline void store16(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
inline void store8(uint8_t* p, __m128i v) { _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v); }

// Eight slots (the low bytes of o) into the 16-bit sums.
inline void sum8(uint16_t* A, __m128i o, bool add) {
    __m128i w = _mm_cvtepu8_epi16(o);
    if (add) w = _mm_add_epi16(w, _mm_loadu_si128(reinterpret_cast<const __m128i*>(A)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(A), w);
}

// Stores the D slots of one pixel (chunks o) and adds them to the sums.
template <int kD>
struct Finish {
    static void run(const AggregationRow* r, int32_t x, const __m128i* o) {
        constexpr int kFull = kD / 16;
        uint8_t* out = r->out + static_cast<intptr_t>(x) * (kD + 1);
        for (int i = 0; i < kFull; ++i) store16(out + 16 * i, o[i]);
        if (kD % 16 != 0) store8(out + 16 * kFull, o[kFull]);
        if (r->sumMode == AGG_SUM_NONE) return;
        const bool add = r->sumMode == AGG_SUM_ADD;
        uint16_t* A = r->sum + static_cast<intptr_t>(x) * (kD + 2);
        for (int i = 0; i < kFull; ++i) {
            sum8(A + 16 * i, o[i], add);
            sum8(A + 16 * i + 8, _mm_srli_si128(o[i], 8), add);
        }
        if (kD % 16 != 0) sum8(A + 16 * kFull, o[kFull], add);
        if (r->pads != 0) {
            A[-1] = A[1];
            A[kD] = A[kD - 2];
        }
    }
};

template <int kD>
void crossRow(const AggregationRow* r) {
    constexpr int kFull = kD / 16, kN = (kD + 15) / 16;
    const __m128i p1 = _mm_set1_epi8(static_cast<char>(r->smallPenalty));
    const __m128i ones = _mm_set1_epi8(-1);
    for (int32_t x = 0; x < r->width; ++x) {
        const uint8_t* q = r->prev + static_cast<intptr_t>(x) * (kD + 1);
        const uint8_t* c = r->cost + static_cast<intptr_t>(x) * kD;
        const __m128i p2 = _mm_set1_epi8(static_cast<char>(r->p2[x * r->p2Step]));
        __m128i l[kN];
        __m128i mn = ones;
        for (int i = 0; i < kFull; ++i) {
            const uint8_t* s = q + 16 * i;
            l[i] = AggX86_update(load16(s - 1), load16(s + 1), load16(s), load16(c + 16 * i), p1, p2);
            mn = _mm_min_epu8(mn, l[i]);
        }
        if (kD % 16 != 0) {
            // The 8-byte loads read exactly the scalar form's bytes; the
            // upper lanes are kept out of the minimum.
            const uint8_t* s = q + 16 * kFull;
            l[kFull] = AggX86_update(load8(s - 1), load8(s + 1), load8(s), load8(c + 16 * kFull), p1, p2);
            mn = _mm_min_epu8(mn, _mm_unpacklo_epi64(l[kFull], ones));
        }
        const __m128i m = AggX86_minAll(mn);
        for (int i = 0; i < kN; ++i) l[i] = _mm_sub_epi8(l[i], m);
        Finish<kD>::run(r, x, l);
    }
}

template <int kD>
void chainRow(const AggregationRow* r) {
    AggX86_chainRow<kD, Finish>(r);
}
template <int kD>
void chainRows2(const AggregationRow* r0, const AggregationRow* r1) {
    AggX86_chainRows2<kD, Finish>(r0, r1);
}
// Four rows side by side up to D = 24 (two chunks a row, eight registers of
// state); above that the state would not fit the 16 registers, so two pairs.
template <int kD>
void chainRows4(const AggregationRow* rows) {
    AggX86_chainRows4<kD, Finish>(rows);
}

// --- Guided penalties: 16 pixels per step ----------------------------------
//
// The quotient (P2 + (den >> 1)) / den has a numerator n <= 383 and den in
// 1..256, so float division truncated gives the integer quotient exactly:
// where n / den is not a whole number it lies at least 1 / den below the
// next one, and the rounding of the division moves it by at most
// n / den * 2^-24, far less.

// The guide steps of 16 pixels as 16-bit words, in two halves of 8.
template <int kChannels>
inline void guideSteps(const uint8_t* gp, const uint8_t* gq, __m128i* lo, __m128i* hi) {
    const __m128i zero = _mm_setzero_si128();
    if (kChannels == 1) {
        const __m128i a = load16(gp), b = load16(gq);
        const __m128i d = _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
        *lo = _mm_unpacklo_epi8(d, zero);
        *hi = _mm_unpackhi_epi8(d, zero);
        return;
    }
    const __m128i ones = _mm_set1_epi8(1);
    for (int h = 0; h < 2; ++h) {
        const __m128i a = load16(gp + 16 * h), b = load16(gq + 16 * h);
        const __m128i d = _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
        // |dU| + |dV| per pixel (at most 510), halved.
        const __m128i s = _mm_srli_epi16(_mm_maddubs_epi16(d, ones), 1);
        *(h == 0 ? lo : hi) = s;
    }
}

// Eight quotients (n / den, 16-bit words) in 16-bit words.
inline __m128i quotients(__m128i n, __m128i den) {
    const __m128i zero = _mm_setzero_si128();
    const __m128 q0 = _mm_div_ps(_mm_cvtepi32_ps(_mm_unpacklo_epi16(n, zero)),
                                 _mm_cvtepi32_ps(_mm_unpacklo_epi16(den, zero)));
    const __m128 q1 = _mm_div_ps(_mm_cvtepi32_ps(_mm_unpackhi_epi16(n, zero)),
                                 _mm_cvtepi32_ps(_mm_unpackhi_epi16(den, zero)));
    return _mm_packus_epi32(_mm_cvttps_epi32(q0), _mm_cvttps_epi32(q1));
}

template <int kChannels>
void penaltyRow(const AggregationPenalty* r) {
    const __m128i one = _mm_set1_epi16(1), lower = _mm_set1_epi16(static_cast<int16_t>(r->lower));
    const __m128i low8 = _mm_set1_epi16(0xFF), zero = _mm_setzero_si128();
    const __m128i p2c = _mm_set1_epi8(static_cast<char>(r->p2Step == 0 ? r->p2[0] : 0));
    int32_t x = 0;
    for (; x + 16 <= r->width; x += 16) {
        __m128i g[2];
        guideSteps<kChannels>(r->guide + x * kChannels, r->guidePrev + x * kChannels, &g[0], &g[1]);
        const __m128i p2 = r->p2Step != 0 ? load16(r->p2 + x) : p2c;
        __m128i q[2];
        for (int h = 0; h < 2; ++h) {
            const __m128i den = _mm_add_epi16(g[h], one);
            const __m128i p = h == 0 ? _mm_unpacklo_epi8(p2, zero) : _mm_unpackhi_epi8(p2, zero);
            const __m128i n = _mm_add_epi16(p, _mm_srli_epi16(den, 1));
            // At most 256 after the max; the byte of 256 is 0, as in the
            // scalar form's cast.
            q[h] = _mm_and_si128(_mm_max_epi16(quotients(n, den), lower), low8);
        }
        store16(r->out + x, _mm_packus_epi16(q[0], q[1]));
    }
    if (x < r->width) {
        AggregationPenalty rest = *r;
        rest.out += x;
        rest.guide += x * kChannels;
        rest.guidePrev += x * kChannels;
        rest.p2 += x * r->p2Step;
        rest.width = r->width - x;
        if (kChannels == 1) {
            aggregationPenaltyU8_c(&rest);
        } else {
            aggregationPenaltyU88_c(&rest);
        }
    }
}

// --- Sums of the path planes -----------------------------------------------

// D slots of the planes at offset off into entries 1 to D of A: 16 bytes per
// step and an 8-byte step where D is an odd multiple of 8.
void sumU8_sse41(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    for (int32_t x = 0; x < r->width; ++x) {
        uint8_t* A = static_cast<uint8_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        int32_t k = 0;
        for (; k + 16 <= D; k += 16) {
            __m128i s = load16(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = _mm_add_epi8(s, load16(r->planes[i] + off + k));
            store16(A + 1 + k, s);
        }
        if (k < D) {
            __m128i s = load8(r->planes[0] + off + k);
            for (int32_t i = 1; i < n; ++i) s = _mm_add_epi8(s, load8(r->planes[i] + off + k));
            store8(A + 1 + k, s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

void sumU16_sse41(const AggregationPlaneSum* r) {
    const int32_t D = r->numDisparities, S = D + 1, n = r->numPlanes;
    for (int32_t x = 0; x < r->width; ++x) {
        uint16_t* A = static_cast<uint16_t*>(r->out) + static_cast<intptr_t>(x) * (D + 2);
        const intptr_t off = static_cast<intptr_t>(x) * S;
        for (int32_t k = 0; k < D; k += 8) {
            __m128i s = _mm_cvtepu8_epi16(load8(r->planes[0] + off + k));
            for (int32_t i = 1; i < n; ++i)
                s = _mm_add_epi16(s, _mm_cvtepu8_epi16(load8(r->planes[i] + off + k)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(A + 1 + k), s);
        }
        A[0] = A[2];
        A[D + 1] = A[D - 1];
    }
}

template <int kD>
struct CrossRowK {
    static void run(const AggregationRow* r) { crossRow<kD>(r); }
};
template <int kD>
struct ChainRowK {
    static void run(const AggregationRow* r) { chainRow<kD>(r); }
};
template <int kD>
struct ChainRows2K {
    static void run(const AggregationRow* r0, const AggregationRow* r1) { chainRows2<kD>(r0, r1); }
};

void crossRow_sse41(const AggregationRow* r) {
    Aggregation_byCandidates<CrossRowK>(r->numDisparities, aggregationCrossRow_c, r);
}

void chainRow_sse41(const AggregationRow* r) {
    Aggregation_byCandidates<ChainRowK>(r->numDisparities, aggregationChainRow_c, r);
}

void chainRows2_sse41(const AggregationRow* r0, const AggregationRow* r1) {
    Aggregation_byCandidates<ChainRows2K>(r0->numDisparities, aggregationChainRows2_c, r0, r1);
}

void penaltyU8_sse41(const AggregationPenalty* r) { penaltyRow<1>(r); }
void penaltyU88_sse41(const AggregationPenalty* r) { penaltyRow<2>(r); }

void chainRows4_sse41(const AggregationRow* rows) {
    switch (rows[0].numDisparities) {
        case 8: return chainRows4<8>(rows);
        case 16: return chainRows4<16>(rows);
        case 24: return chainRows4<24>(rows);
        default:
            chainRows2_sse41(&rows[0], &rows[1]);
            chainRows2_sse41(&rows[2], &rows[3]);
            return;
    }
}

}  // namespace

void AggregationKernels_addSse41(AggregationKernels* table) {
    table->crossRow = crossRow_sse41;
    table->chainRow = chainRow_sse41;
    table->chainRows2 = chainRows2_sse41;
    table->chainRows4 = chainRows4_sse41;
    table->sumU8 = sumU8_sse41;
    table->sumU16 = sumU16_sse41;
    table->penaltyU8 = penaltyU8_sse41;
    table->penaltyU88 = penaltyU88_sse41;
}

}  // namespace vq_tl
