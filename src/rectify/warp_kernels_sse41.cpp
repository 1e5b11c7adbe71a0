// Grid-warp rows with SSE4.1 (the walkers are Warp_groups and Warp_chroma of
// the family's header). Luma: the eight lanes of a group as 16-bit lanes,
// their column pairs picked by one byte shuffle from a 16-byte load at the
// group's first column, weighted by pmaddubsw, the rows of each lane chosen
// from at most four loaded rows. Chroma: four byte pairs from one row per
// step, picked by a shuffle of a 16-byte load.
#include <smmintrin.h>

#include "rectify/warp_kernels.h"

namespace vq_tl {

namespace {

inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// ((16 - wy) * a + wy * b + 128) >> 8 in 16 bits: at most 16 * 4080 + 128.
inline __m128i vertical(__m128i a, __m128i b, __m128i wy, __m128i wy16) {
    const __m128i sum = _mm_add_epi16(_mm_mullo_epi16(a, wy16), _mm_mullo_epi16(b, wy));
    return _mm_srli_epi16(_mm_add_epi16(sum, _mm_set1_epi16(128)), 8);
}

struct Groups {
    __m128i xStep;  // (dx >> 3) * k as 16 bits, >> 8
    __m128i yStep;  // ((dy >> 3) * k + round) >> 8

    Groups(const WarpLumaRow* w, int32_t round) {
        const __m128i lanes = _mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7);
        xStep = _mm_srli_epi16(_mm_mullo_epi16(_mm_set1_epi16(static_cast<int16_t>(w->dx >> 3)), lanes), 8);
        yStep = _mm_srai_epi16(
            _mm_add_epi16(_mm_mullo_epi16(_mm_set1_epi16(static_cast<int16_t>(w->dy >> 3)), lanes),
                          _mm_set1_epi16(static_cast<int16_t>(round))),
            8);
    }

    void draw(const WarpLumaRow* w, int32_t x, int32_t subX, int32_t subY, int32_t s, int32_t baseRow,
              int32_t selLow, int32_t selHigh) const {
        const __m128i xPos = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(subX)), xStep);
        const __m128i yPos = _mm_add_epi16(_mm_set1_epi16(static_cast<int16_t>(32 + subY)), yStep);
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
    }
};

struct Chroma {
    __m128i colMax;
    __m128i steps;  // lanes k = 0..3 are pairs x + 2k: 2k * dx past the first

    // The scalar positions wrap as these do (6 dx is below the cell's width
    // times dx).
    explicit Chroma(const WarpChromaRow* w)
        : colMax(_mm_set1_epi32(2 * (w->srcCw - 1))),
          steps(_mm_mullo_epi32(_mm_set1_epi32(2 * w->dx), _mm_setr_epi32(0, 1, 2, 3))) {}

    __m128i columns(int32_t cx0) const {
        const __m128i cols =
            _mm_and_si128(_mm_srai_epi32(_mm_add_epi32(_mm_set1_epi32(cx0), steps), 15), _mm_set1_epi32(~1));
        return _mm_min_epi32(_mm_max_epi32(cols, _mm_setzero_si128()), colMax);
    }
    static void ends(__m128i cols, int32_t* c0, int32_t* c3) {
        *c0 = _mm_cvtsi128_si32(cols);
        *c3 = _mm_extract_epi32(cols, 3);
    }
    static void copy(uint8_t* dst, const uint8_t* src, __m128i cols, int32_t low) {
        const __m128i at = _mm_sub_epi32(cols, _mm_set1_epi32(low));
        const __m128i pick32 = _mm_or_si128(at, _mm_slli_epi32(_mm_add_epi32(at, _mm_set1_epi32(1)), 8));
        const __m128i pick = _mm_packus_epi32(pick32, pick32);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), _mm_shuffle_epi8(load(src), pick));
    }
};

}  // namespace

void WarpKernels_addSse41(WarpKernels* table) {
    table->groups = Warp_groups<Groups>;
    table->chroma = Warp_chroma<Chroma>;
}

}  // namespace vq_tl
