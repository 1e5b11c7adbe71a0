// Grid-warp rows with SSE4.1. Luma: the eight lanes of a group as 16-bit
// lanes, their column pairs picked by one byte shuffle from a 16-byte load
// at the group's first column, weighted by pmaddubsw, the rows of each lane
// chosen from at most four loaded rows. Chroma: four byte pairs from one
// row per step, picked by a shuffle of a 16-byte load. Steps near the edges
// of the source, or spread wider than one load, take the scalar form.
#include <smmintrin.h>

#include "rectify/warp_kernels.h"

namespace vq_tl {

namespace {

inline int32_t clampInt(int32_t v, int32_t low, int32_t high) {
    return v < low ? low : (v > high ? high : v);
}

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

// One group at x: false when its last lane reaches too far (the row's
// groups end there). Drawn by the scalar form near the source's edges.
bool drawGroup(const WarpLumaRow* w, const RowSteps& st, int32_t x) {
    const int32_t px = w->xq + (x - w->L) * w->dx, py = w->yq + (x - w->L) * w->dy;
    const int32_t subX = (px >> 11) & 15, subY = (py >> 11) & 15;
    if ((subX + st.lastLane) >> 4 > 11) return false;
    const int32_t s = px >> 15, r = py >> 15;
    const int32_t baseRow = (32 + subY + st.yLow) >> 4;
    const int32_t selLow = r + baseRow - 2, selHigh = r + ((32 + subY + st.yHigh) >> 4) - 2;
    if (s < 0 || s > w->srcW - 16 || selLow < 0 || selHigh + 2 > w->srcH - 1 || selHigh - selLow > 1) {
        warpGroups_c(w, x, x);
        return true;
    }
    const __m128i xPos = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(subX)), st.xStep);
    const __m128i yPos = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(32 + subY)), st.yStep);
    const __m128i fifteen = _mm_set1_epi16(15), sixteen = _mm_set1_epi16(16);
    const __m128i col = _mm_srli_epi16(xPos, 4), wx = _mm_and_si128(xPos, fifteen);
    const __m128i wy = _mm_and_si128(yPos, fifteen), wy16 = _mm_sub_epi16(sixteen, wy);
    // Byte pairs (col, col + 1) and weights (16 - wx, wx) of each lane.
    const __m128i pick = _mm_or_si128(col, _mm_slli_epi16(_mm_add_epi16(col, _mm_set1_epi16(1)), 8));
    const __m128i weights = _mm_or_si128(_mm_sub_epi16(sixteen, wx), _mm_slli_epi16(wx, 8));
    // Lanes one row set lower than the first.
    const __m128i lower =
        _mm_cmpgt_epi16(_mm_srli_epi16(yPos, 4), _mm_set1_epi16(static_cast<int16_t>(baseRow)));
    const uint8_t* base = w->src + w->srcPitch * selLow + s;
    const ptrdiff_t p = w->srcPitch;
    const __m128i h0 = _mm_maddubs_epi16(_mm_shuffle_epi8(load(base), pick), weights);
    const __m128i h1 = _mm_maddubs_epi16(_mm_shuffle_epi8(load(base + p), pick), weights);
    const __m128i h2 = _mm_maddubs_epi16(_mm_shuffle_epi8(load(base + 2 * p), pick), weights);
    // The fourth row only when some lane needs it: it may lie past the source.
    const __m128i h3 =
        selHigh > selLow ? _mm_maddubs_epi16(_mm_shuffle_epi8(load(base + 3 * p), pick), weights) : h2;
    const __m128i top = _mm_blendv_epi8(h0, h1, lower), mid = _mm_blendv_epi8(h1, h2, lower);
    const __m128i v1 = vertical(top, mid, wy, wy16);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(w->d1 + x), _mm_packus_epi16(v1, v1));
    if (w->d2 != nullptr) {
        const __m128i v2 = vertical(mid, _mm_blendv_epi8(h2, h3, lower), wy, wy16);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(w->d2 + x), _mm_packus_epi16(v2, v2));
    }
    return true;
}

int32_t warpGroups_sse41(const WarpLumaRow* w, int32_t x, int32_t groupEnd) {
    if (w->stride != 1) return warpGroups_c(w, x, groupEnd);
    const RowSteps st = rowSteps(w);
    for (; x <= groupEnd; x += 8) {
        if (!drawGroup(w, st, x)) break;
    }
    return x;
}

void warpChroma_sse41(const WarpChromaRow* w, int32_t x0, int32_t x1) {
    const int32_t rowBytes = 2 * w->srcCw;
    const __m128i colMax = _mm_set1_epi32(2 * (w->srcCw - 1));
    // Lanes k = 0..3 are pairs x + 2k: 2k * dx past the first, as the
    // scalar positions wrap (6 dx is below the cell's width times dx).
    const __m128i steps = _mm_mullo_epi32(_mm_set1_epi32(2 * w->dx), _mm_setr_epi32(0, 1, 2, 3));
    int32_t x = x0;
    for (; x + 6 < x1; x += 8) {
        const int32_t cy0 = w->yq + (x - w->L) * w->dy + w->cyOffset;
        const int32_t cy3 = w->yq + (x + 6 - w->L) * w->dy + w->cyOffset;
        const int32_t r0 = clampInt(cy0 >> 16, 0, w->srcCh - 1), r3 = clampInt(cy3 >> 16, 0, w->srcCh - 1);
        const int32_t cx0 = w->xq + (x - w->L) * w->dx + w->cxOffset;
        __m128i cols =
            _mm_and_si128(_mm_srai_epi32(_mm_add_epi32(_mm_set1_epi32(cx0), steps), 15), _mm_set1_epi32(~1));
        cols = _mm_min_epi32(_mm_max_epi32(cols, _mm_setzero_si128()), colMax);
        // Columns move one way along the row: the ends bound them.
        const int32_t c0 = _mm_cvtsi128_si32(cols), c3 = _mm_extract_epi32(cols, 3);
        const int32_t low = c0 < c3 ? c0 : c3, high = c0 < c3 ? c3 : c0;
        if (r0 != r3 || high + 2 - low > 16 || low + 16 > rowBytes) {
            warpChroma_c(w, x, x + 7);
            continue;
        }
        const __m128i at = _mm_sub_epi32(cols, _mm_set1_epi32(low));
        const __m128i pick32 = _mm_or_si128(at, _mm_slli_epi32(_mm_add_epi32(at, _mm_set1_epi32(1)), 8));
        const __m128i pick = _mm_packus_epi32(pick32, pick32);
        const __m128i bytes = _mm_shuffle_epi8(load(w->src + w->srcPitch * r0 + low), pick);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(w->dst + x), bytes);
    }
    warpChroma_c(w, x, x1);
}

}  // namespace

void WarpKernels_addSse41(WarpKernels* table) {
    table->groups = warpGroups_sse41;
    table->chroma = warpChroma_sse41;
}

}  // namespace vq_tl
