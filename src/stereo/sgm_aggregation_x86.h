// The chain rows in 16-byte chunks, shared by the aggregation's SSE4.1 and
// AVX2 files only (never by portable code): everything here has internal
// linkage, so each file compiles its own copy with its own flags. Each file
// gives its own Finish<kD>::run(row, x, chunks), which stores a pixel's slots
// and adds them to the sums.
#pragma once

#include <smmintrin.h>

#include "stereo/sgm_aggregation.h"

namespace vq_tl {
namespace {

// The wrapping byte arithmetic of the scalar form: add_epi8 wraps as the
// uint8_t casts do, min_epu8 is the unsigned min.
inline __m128i AggX86_update(__m128i left, __m128i right, __m128i same, __m128i cost, __m128i p1,
                             __m128i p2) {
    const __m128i a = _mm_min_epu8(left, right);
    const __m128i b = _mm_min_epu8(_mm_add_epi8(a, p1), p2);
    return _mm_add_epi8(_mm_min_epu8(b, same), cost);
}

// The smallest byte of v in every byte: the low byte of each word becomes
// the smaller of the word's two bytes and the high byte 0, then minpos finds
// the smallest word.
inline __m128i AggX86_minAll(__m128i v) {
    const __m128i pairs = _mm_min_epu8(v, _mm_srli_epi16(v, 8));
    return _mm_shuffle_epi8(_mm_minpos_epu16(pairs), _mm_setzero_si128());
}

// Chain rows keep the previous pixel's slots in registers, with 255 in the
// lanes past slot D - 1 (the separator the scalar form reads at slot D), so
// that the neighbours are byte shifts across the chunks. Each pixel waits for
// the minimum of the one before, so rows go side by side where the caller
// has them.
template <int kD, template <int> class Finish>
struct AggX86_Chain {
    static constexpr int kFull = kD / 16, kN = (kD + 15) / 16;
    __m128i v[kN];

    void start(const AggregationRow* r, int32_t x, __m128i ones) {
        const uint8_t* q = r->out + static_cast<intptr_t>(x + r->dx) * (kD + 1);
        for (int i = 0; i < kFull; ++i) v[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q + 16 * i));
        if (kD % 16 != 0)
            v[kFull] =
                _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(q + 16 * kFull)), ones);
    }

    void step(const AggregationRow* r, int32_t x, __m128i p1, __m128i ones) {
        const uint8_t* c = r->cost + static_cast<intptr_t>(x) * kD;
        const __m128i p2 = _mm_set1_epi8(static_cast<char>(r->p2[x * r->p2Step]));
        __m128i l[kN];
        __m128i mn = ones;
        for (int i = 0; i < kN; ++i) {
            const __m128i left = _mm_alignr_epi8(v[i], i == 0 ? ones : v[i - 1], 15);
            const __m128i right = _mm_alignr_epi8(i + 1 < kN ? v[i + 1] : ones, v[i], 1);
            const __m128i* at = reinterpret_cast<const __m128i*>(c + 16 * i);
            const __m128i cost = i < kFull ? _mm_loadu_si128(at) : _mm_loadl_epi64(at);
            l[i] = AggX86_update(left, right, v[i], cost, p1, p2);
            mn = _mm_min_epu8(mn, i < kFull ? l[i] : _mm_unpacklo_epi64(l[i], ones));
        }
        const __m128i m = AggX86_minAll(mn);
        for (int i = 0; i < kN; ++i) {
            v[i] = _mm_sub_epi8(l[i], m);
            if (i == kFull) v[i] = _mm_unpacklo_epi64(v[i], ones);
        }
        Finish<kD>::run(r, x, v);
    }
};

// kRows (1, 2 or 4) chain rows *rows[0] to *rows[kRows - 1] side by side.
template <int kD, template <int> class Finish, int kRows>
void AggX86_chainRows(const AggregationRow* const* rows) {
    const __m128i p1 = _mm_set1_epi8(static_cast<char>(rows[0]->smallPenalty));
    const __m128i ones = _mm_set1_epi8(-1);
    const int32_t W = rows[0]->width, dx = rows[0]->dx;
    int32_t x = dx < 0 ? 0 : W - 1;
    AggX86_Chain<kD, Finish> chain[kRows];
    for (int i = 0; i < kRows; ++i) chain[i].start(rows[i], x, ones);
    for (int32_t n = 0; n < W; ++n, x -= dx) {
        for (int i = 0; i < kRows; ++i) chain[i].step(rows[i], x, p1, ones);
    }
}

template <int kD, template <int> class Finish>
void AggX86_chainRow(const AggregationRow* r) {
    AggX86_chainRows<kD, Finish, 1>(&r);
}
template <int kD, template <int> class Finish>
void AggX86_chainRows2(const AggregationRow* r0, const AggregationRow* r1) {
    const AggregationRow* rows[2] = {r0, r1};
    AggX86_chainRows<kD, Finish, 2>(rows);
}
template <int kD, template <int> class Finish>
void AggX86_chainRows4(const AggregationRow* r) {
    const AggregationRow* rows[4] = {&r[0], &r[1], &r[2], &r[3]};
    AggX86_chainRows<kD, Finish, 4>(rows);
}

}  // namespace
}  // namespace vq_tl
