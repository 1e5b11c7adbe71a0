// Grid-warp luma groups with AVX2: two groups per step, one in each 128-bit
// half, each as in the SSE4.1 form (the eight lanes as 16-bit lanes, column
// pairs picked by a byte shuffle of a 16-byte load at the group's first
// column, rows of each lane chosen from at most four loaded rows). A group
// near the source's edges, or whose lanes span more than two row sets, is
// drawn alone, by the scalar form.
#include <immintrin.h>

#include "rectify/warp_kernels.h"

namespace vq_tl {

namespace {

// What every group of one row shares: the lanes' column and row steps.
struct RowSteps {
    __m128i xStep;  // (dx >> 3) * k as 16 bits, >> 8
    __m128i yStep;  // ((dy >> 3) * k + round) >> 8
    int32_t yLow, yHigh;
    int32_t lastLane;
};

RowSteps rowSteps(const WarpLumaRow* w) {
    RowSteps r;
    const __m128i lanes = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
    const int32_t round = w->dy < 1 ? 255 : 0;
    // dx >> 3 is below 7680 and |dy >> 3| at most 1024: the products, and
    // the rounded ones, fit 16 bits.
    r.xStep = _mm_srli_epi16(_mm_mullo_epi16(_mm_set1_epi16(static_cast<int16_t>(w->dx >> 3)), lanes), 8);
    r.yStep =
        _mm_srai_epi16(_mm_add_epi16(_mm_mullo_epi16(_mm_set1_epi16(static_cast<int16_t>(w->dy >> 3)), lanes),
                                     _mm_set1_epi16(static_cast<int16_t>(round))),
                       8);
    const int32_t yLast = (((w->dy >> 3) * 7) + round) >> 8;
    r.yLow = yLast < 0 ? yLast : 0;
    r.yHigh = yLast > 0 ? yLast : 0;
    r.lastLane = static_cast<uint16_t>((w->dx >> 3) * 7) >> 8;
    return r;
}

// ((16 - wy) * a + wy * b + 128) >> 8 in 16 bits: at most 16 * 4080 + 128.
inline __m128i vertical(__m128i a, __m128i b, __m128i wy, __m128i wy16) {
    const __m128i sum = _mm_add_epi16(_mm_mullo_epi16(a, wy16), _mm_mullo_epi16(b, wy));
    return _mm_srli_epi16(_mm_add_epi16(sum, _mm_set1_epi16(128)), 8);
}

inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Where one group reads, and whether the vector form may draw it.
struct GroupPlace {
    int32_t subX, subY, s, baseRow, selLow, selHigh;
    bool fits;   // its last lane stays within reach (else the row's groups end)
    bool clear;  // away from the edges and within two row sets
};

GroupPlace placeGroup(const WarpLumaRow* w, const RowSteps& st, int32_t x) {
    GroupPlace g;
    const int32_t px = w->xq + (x - w->L) * w->dx, py = w->yq + (x - w->L) * w->dy;
    g.subX = (px >> 11) & 15;
    g.subY = (py >> 11) & 15;
    g.fits = (g.subX + st.lastLane) >> 4 <= 11;
    g.s = px >> 15;
    const int32_t r = py >> 15;
    g.baseRow = (32 + g.subY + st.yLow) >> 4;
    g.selLow = r + g.baseRow - 2;
    g.selHigh = r + ((32 + g.subY + st.yHigh) >> 4) - 2;
    g.clear = g.s >= 0 && g.s <= w->srcW - 16 && g.selLow >= 0 && g.selHigh + 2 <= w->srcH - 1 &&
              g.selHigh - g.selLow <= 1;
    return g;
}

// The lane vectors of one group: pick (byte pairs), weights (16 - wx, wx),
// wy, lower (lanes one row set below the first).
struct GroupLanes {
    __m128i pick, weights, wy, lower;
};

GroupLanes groupLanes(const RowSteps& st, const GroupPlace& g) {
    GroupLanes l;
    const __m128i xPos = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(g.subX)), st.xStep);
    const __m128i yPos = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(32 + g.subY)), st.yStep);
    const __m128i fifteen = _mm_set1_epi16(15);
    const __m128i col = _mm_srli_epi16(xPos, 4), wx = _mm_and_si128(xPos, fifteen);
    l.wy = _mm_and_si128(yPos, fifteen);
    l.pick = _mm_or_si128(col, _mm_slli_epi16(_mm_add_epi16(col, _mm_set1_epi16(1)), 8));
    l.weights = _mm_or_si128(_mm_sub_epi16(_mm_set1_epi16(16), wx), _mm_slli_epi16(wx, 8));
    l.lower = _mm_cmpgt_epi16(_mm_srli_epi16(yPos, 4), _mm_set1_epi16(static_cast<int16_t>(g.baseRow)));
    return l;
}

// The group's four rows from its first column; the fourth only when some
// lane needs it (it may lie past the source), else the third again.
inline const uint8_t* groupRow(const WarpLumaRow* w, const GroupPlace& g, int32_t j) {
    const int32_t row = j == 3 && g.selHigh == g.selLow ? 2 : j;
    return w->src + w->srcPitch * (g.selLow + row) + g.s;
}

void drawOne(const WarpLumaRow* w, const RowSteps& st, const GroupPlace& g, int32_t x) {
    if (!g.clear) {
        warpGroups_c(w, x, x);
        return;
    }
    const GroupLanes l = groupLanes(st, g);
    const __m128i wy16 = _mm_sub_epi16(_mm_set1_epi16(16), l.wy);
    __m128i h[4];
    for (int32_t j = 0; j < 4; ++j)
        h[j] = _mm_maddubs_epi16(_mm_shuffle_epi8(load(groupRow(w, g, j)), l.pick), l.weights);
    const __m128i top = _mm_blendv_epi8(h[0], h[1], l.lower), mid = _mm_blendv_epi8(h[1], h[2], l.lower);
    const __m128i v1 = vertical(top, mid, l.wy, wy16);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(w->d1 + x), _mm_packus_epi16(v1, v1));
    if (w->d2 != nullptr) {
        const __m128i v2 = vertical(mid, _mm_blendv_epi8(h[2], h[3], l.lower), l.wy, wy16);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(w->d2 + x), _mm_packus_epi16(v2, v2));
    }
}

inline __m256i pair(__m128i low, __m128i high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
}

// ((16 - wy) * a + wy * b + 128) >> 8 in 16 bits, both groups.
inline __m256i vertical2(__m256i a, __m256i b, __m256i wy, __m256i wy16) {
    const __m256i sum = _mm256_add_epi16(_mm256_mullo_epi16(a, wy16), _mm256_mullo_epi16(b, wy));
    return _mm256_srli_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(128)), 8);
}

// Two neighbouring groups, x and x + 8, both clear.
void drawTwo(const WarpLumaRow* w, const RowSteps& st, const GroupPlace& a, const GroupPlace& b, int32_t x) {
    const GroupLanes la = groupLanes(st, a), lb = groupLanes(st, b);
    const __m256i pick = pair(la.pick, lb.pick), weights = pair(la.weights, lb.weights);
    const __m256i wy = pair(la.wy, lb.wy), lower = pair(la.lower, lb.lower);
    const __m256i wy16 = _mm256_sub_epi16(_mm256_set1_epi16(16), wy);
    __m256i h[4];
    for (int32_t j = 0; j < 4; ++j) {
        const __m256i rows = pair(load(groupRow(w, a, j)), load(groupRow(w, b, j)));
        h[j] = _mm256_maddubs_epi16(_mm256_shuffle_epi8(rows, pick), weights);
    }
    const __m256i top = _mm256_blendv_epi8(h[0], h[1], lower), mid = _mm256_blendv_epi8(h[1], h[2], lower);
    // Packed within halves: group a's bytes in quadword 0, b's in quadword 2.
    const __m256i v1 = vertical2(top, mid, wy, wy16);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(w->d1 + x),
                     _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi16(v1, v1), 0x08)));
    if (w->d2 != nullptr) {
        const __m256i v2 = vertical2(mid, _mm256_blendv_epi8(h[2], h[3], lower), wy, wy16);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(w->d2 + x),
                         _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi16(v2, v2), 0x08)));
    }
}

int32_t warpGroups_avx2(const WarpLumaRow* w, int32_t x, int32_t groupEnd) {
    if (w->stride != 1) return warpGroups_c(w, x, groupEnd);
    const RowSteps st = rowSteps(w);
    for (; x + 8 <= groupEnd; x += 16) {
        const GroupPlace a = placeGroup(w, st, x);
        if (!a.fits) return x;
        const GroupPlace b = placeGroup(w, st, x + 8);
        if (!b.fits) {
            drawOne(w, st, a, x);
            return x + 8;
        }
        if (a.clear && b.clear) {
            drawTwo(w, st, a, b, x);
        } else {
            drawOne(w, st, a, x);
            drawOne(w, st, b, x + 8);
        }
    }
    if (x <= groupEnd) {
        const GroupPlace a = placeGroup(w, st, x);
        if (!a.fits) return x;
        drawOne(w, st, a, x);
        x += 8;
    }
    return x;
}

}  // namespace

void WarpKernels_addAvx2(WarpKernels* table) { table->groups = warpGroups_avx2; }

}  // namespace vq_tl
