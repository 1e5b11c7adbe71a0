#include "stereo/sgm_cost_matcher.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "stereo/census.h"

namespace vq_tl {

namespace {

// The generic kernel's table of row pointers; no pair of views is
// misaligned by anything near this many rows.
constexpr int32_t kMaxRowWindow = 255;

// Candidates per lane: D is a multiple of it.
constexpr int32_t kLane = 8;

inline int32_t clampIndex(int32_t i, int32_t n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

inline uint8_t popcount(uint8_t v) {
    v = static_cast<uint8_t>(v - ((v >> 1) & 0x55u));
    v = static_cast<uint8_t>((v & 0x33u) + ((v >> 2) & 0x33u));
    return static_cast<uint8_t>((v + (v >> 4)) & 0x0Fu);
}

// Shifts and adds only, so that the lane loops vectorise without a 32-bit
// vector multiply.
inline uint32_t popcount(uint32_t v) {
    v = v - ((v >> 1) & 0x55555555u);
    v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
    v = (v + (v >> 4)) & 0x0F0F0F0Fu;
    v = v + (v >> 8);
    v = v + (v >> 16);
    return v & 0x3Fu;
}

// --- Census ---------------------------------------------------------------

struct CensusJob {
    uint8_t* census;
    const uint8_t* view;
    int32_t censusPitch, viewPitch;
    int32_t width, height;
};

// Census word of pixel x from the 2R + 1 rows around it, columns clamped to
// the row: the first and last R pixels, which the row kernels leave out.
template <int R, typename Word>
inline Word censusAt(const uint8_t* const* rows, int32_t x, int32_t width) {
    const uint8_t c = rows[R][x];
    Word w = 0;
    for (int32_t dy = 0; dy <= 2 * R; ++dy) {
        for (int32_t dx = -R; dx <= R; ++dx) {
            if (dy == R && dx == 0) continue;
            const int32_t xx = clampIndex(x + dx, width);
            w = static_cast<Word>((w << 1) | (rows[dy][xx] > c ? 1u : 0u));
        }
    }
    return w;
}

template <int R, typename Word>
TLResult censusStripe(void* arg, int32_t index, int32_t count) {
    const CensusJob& j = *static_cast<const CensusJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* rows[2 * R + 1];
        for (int32_t dy = -R; dy <= R; ++dy)
            rows[dy + R] = j.view + static_cast<intptr_t>(j.viewPitch) * clampIndex(y + dy, j.height);
        Word* out = reinterpret_cast<Word*>(j.census + static_cast<intptr_t>(j.censusPitch) * y);
        const int32_t edge = j.width < R ? j.width : R;
        const int32_t tail = j.width - R > edge ? j.width - R : edge;
        for (int32_t x = 0; x < edge; ++x) out[x] = censusAt<R, Word>(rows, x, j.width);
        if constexpr (R == 1)
            CensusKernels_get()->census3x3(out, rows, edge, tail);
        else
            CensusKernels_get()->census5x5(out, rows, edge, tail);
        for (int32_t x = tail; x < j.width; ++x) out[x] = censusAt<R, Word>(rows, x, j.width);
    }
    return TL_OK;
}

TLResult census(SgmCostMatcher* matcher, Image* census, const Image* view, uint32_t censusFormat,
                ImageStripeFn stripe) {
    if (matcher == nullptr || census == nullptr || view == nullptr) return TL_ERROR_PARAM;
    if (view->format != IMAGE_FORMAT_UINT8 || census->format != censusFormat) return TL_OK;
    if (census->width != view->width || census->height != view->height) return TL_ERROR_PARAM;
    if (view->plane[0] == nullptr || census->plane[0] == nullptr) return TL_ERROR_PARAM;
    CensusJob job{census->plane[0], view->plane[0], census->pitch[0],
                  view->pitch[0],   view->width,    view->height};
    const ImageStripeExec exec{matcher->pel, nullptr};
    return ImageStripeExec_run(&exec, stripe, &job, kSgmCostBands);
}

// --- Hamming cost ---------------------------------------------------------

struct HammingJob {
    uint8_t* cost;
    const uint8_t* base;
    const uint8_t* match;
    const uint8_t* mask;  // null: no mask
    int32_t costPitch, basePitch, matchPitch, maskPitch;
    int32_t width, height;
    int32_t numDisparities;
    int32_t dLow, dHigh;
    int32_t halfWindow;
};

// The Hamming distances of one lane of candidates, then their minimum with
// another row's, then the masked store. The lane is kept in census words, so
// that the loops need no narrowing until the store.
template <typename Word>
inline void laneFirst(Word* __restrict lane, const Word* __restrict match, Word base) {
    for (int32_t k = 0; k < kLane; ++k) lane[k] = popcount(static_cast<Word>(base ^ match[k]));
}

template <typename Word>
inline void laneMin(Word* __restrict lane, const Word* __restrict match, Word base) {
    for (int32_t k = 0; k < kLane; ++k) {
        const Word h = popcount(static_cast<Word>(base ^ match[k]));
        lane[k] = h < lane[k] ? h : lane[k];
    }
}

template <typename Word>
inline void laneStore(uint8_t* __restrict cost, const Word* __restrict lane, uint8_t mask) {
    for (int32_t k = 0; k < kLane; ++k) cost[k] = static_cast<uint8_t>(lane[k]) & mask;
}

// One row of the volume. kRows is the row window (1 to 9), or 0 for the
// generic form with 2 * halfWindow + 1 rows. Candidates run innermost and
// the rows of the window are unrolled outside them, so the loop over slots
// has no branch.
template <typename Word, int kRows>
void hammingRow(const HammingJob& j, int32_t y) {
    const int32_t rows = kRows > 0 ? kRows : 2 * j.halfWindow + 1;
    const int32_t r = rows >> 1;
    const int32_t D = j.numDisparities;
    // Rows of the window clamped once per pixel row, so the inner loop has
    // no clamp; above the first row every row of the window reads row 0.
    const Word* match[kRows > 0 ? kRows : kMaxRowWindow];
    for (int32_t i = 0; i < rows; ++i) {
        match[i] = reinterpret_cast<const Word*>(j.match + static_cast<intptr_t>(j.matchPitch) *
                                                               clampIndex(y - r + i, j.height));
    }
    const Word* base = reinterpret_cast<const Word*>(j.base + static_cast<intptr_t>(j.basePitch) * y);
    uint8_t* out = j.cost + static_cast<intptr_t>(j.costPitch) * y;
    const uint8_t* mask = j.mask != nullptr ? j.mask + static_cast<intptr_t>(j.maskPitch) * y : nullptr;

    // Columns whose whole candidate range stays in the match view.
    int32_t xBegin = j.dLow < 0 ? -j.dLow : 0;
    int32_t xEnd = j.dHigh > 0 ? j.width - j.dHigh : j.width;
    if (xBegin > j.width) xBegin = j.width;
    if (xEnd < xBegin) xEnd = xBegin;
    std::memset(out, kSgmOutsideCost, static_cast<size_t>(xBegin) * D);
    std::memset(out + static_cast<size_t>(xEnd) * D, kSgmOutsideCost,
                static_cast<size_t>(j.width - xEnd) * D);

    for (int32_t x = xBegin; x < xEnd; ++x) {
        const Word b = base[x];
        const uint8_t m = mask != nullptr ? mask[x] : 0xFF;  // no mask: all ones
        const intptr_t at = x + j.dLow;
        // Eight candidates at a time, the lane of the aggregation: the
        // minimum over the rows stays in `lane` and is stored once.
        for (int32_t k0 = 0; k0 < D; k0 += kLane) {
            Word lane[kLane];
            laneFirst(lane, match[0] + at + k0, b);
            for (int32_t i = 1; i < rows; ++i) laneMin(lane, match[i] + at + k0, b);
            laneStore(out + static_cast<size_t>(x) * D + k0, lane, m);
        }
    }
}

template <typename Word, int kRows>
TLResult hammingStripe(void* arg, int32_t index, int32_t count) {
    const HammingJob& j = *static_cast<const HammingJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) hammingRow<Word, kRows>(j, y);
    return TL_OK;
}

// Kernels by row window: 1, 3, 5, 7 and 9 specialised, 11 and up generic.
template <typename Word>
ImageStripeFn hammingKernel(int32_t rowWindow) {
    switch (rowWindow) {
        case 1: return hammingStripe<Word, 1>;
        case 3: return hammingStripe<Word, 3>;
        case 5: return hammingStripe<Word, 5>;
        case 7: return hammingStripe<Word, 7>;
        case 9: return hammingStripe<Word, 9>;
        default: return hammingStripe<Word, 0>;
    }
}

bool sameSize(const Image* a, const Image* b) { return a->width == b->width && a->height == b->height; }

}  // namespace

int32_t SgmCostMatcher_getBufferSize() { return 0; }

TLResult construct_SgmCostMatcher(SgmCostMatcher* matcher, Env* env) {
    if (matcher == nullptr) return TL_ERROR_PARAM;
    matcher->env = env;
    matcher->pel = nullptr;
    return TL_OK;
}

TLResult destruct_SgmCostMatcher(SgmCostMatcher* matcher) {
    if (matcher == nullptr) return TL_ERROR_PARAM;
    matcher->env = nullptr;
    return TL_OK;
}

TLResult SgmCostMatcher_recycle(SgmCostMatcher* matcher) {
    return matcher == nullptr ? TL_ERROR_PARAM : TL_OK;
}
TLResult SgmCostMatcher_init(SgmCostMatcher* matcher) { return matcher == nullptr ? TL_ERROR_PARAM : TL_OK; }

TLResult SgmCostMatcher_setPel(SgmCostMatcher* matcher, Pel* pel) {
    if (matcher == nullptr) return TL_ERROR_PARAM;
    matcher->pel = pel;
    return TL_OK;
}

TLResult SgmCostMatcher_censusTransform3x3(SgmCostMatcher* matcher, Image* censusImage, const Image* view) {
    return census(matcher, censusImage, view, IMAGE_FORMAT_UINT8, censusStripe<1, uint8_t>);
}

TLResult SgmCostMatcher_censusTransform5x5(SgmCostMatcher* matcher, Image* censusImage, const Image* view) {
    return census(matcher, censusImage, view, IMAGE_FORMAT_INT32, censusStripe<2, uint32_t>);
}

TLResult SgmCostMatcher_calculateHammingDistance(SgmCostMatcher* matcher, Image* costVolume,
                                                 const Image* census1, const Image* census2,
                                                 const Image* mask, uint8_t numDisparities,
                                                 int8_t minDisparity, int32_t rowWindow, int32_t swapped) {
    if (matcher == nullptr) return TL_ERROR_PARAM;
    if (rowWindow < 1 || (rowWindow & 1) == 0 || rowWindow > kMaxRowWindow) return TL_ERROR_PARAM;
    if (census1 == nullptr || census2 == nullptr || costVolume == nullptr) return TL_ERROR_PARAM;
    const uint32_t f = census1->format;
    if (f != IMAGE_FORMAT_UINT8 && f != IMAGE_FORMAT_INT32) return TL_OK;
    // Whole 8-candidate lanes, as the aggregation expects.
    if (numDisparities == 0 || (numDisparities & 7) != 0) return TL_ERROR_PARAM;
    const int32_t D = numDisparities;
    const int32_t w = census1->width, h = census1->height;
    if (census2->format != f || !sameSize(census1, census2) || w < 1 || h < 1) return TL_ERROR_PARAM;
    if (costVolume->format != IMAGE_FORMAT_UINT8 || costVolume->width != w * D || costVolume->height != h)
        return TL_ERROR_PARAM;
    if (mask != nullptr &&
        (mask->format != IMAGE_FORMAT_UINT8 || !sameSize(mask, census1) || mask->plane[0] == nullptr)) {
        return TL_ERROR_PARAM;
    }
    if (census1->plane[0] == nullptr || census2->plane[0] == nullptr || costVolume->plane[0] == nullptr)
        return TL_ERROR_PARAM;

    const Image* base = swapped != 0 ? census1 : census2;
    const Image* match = swapped != 0 ? census2 : census1;
    HammingJob job;
    job.cost = costVolume->plane[0];
    job.base = base->plane[0];
    job.match = match->plane[0];
    job.mask = mask != nullptr ? mask->plane[0] : nullptr;
    job.costPitch = costVolume->pitch[0];
    job.basePitch = base->pitch[0];
    job.matchPitch = match->pitch[0];
    job.maskPitch = mask != nullptr ? mask->pitch[0] : 0;
    job.width = w;
    job.height = h;
    job.numDisparities = D;
    job.dLow = swapped != 0 ? 1 - (minDisparity + D) : minDisparity;
    job.dHigh = job.dLow + D - 1;
    job.halfWindow = rowWindow >> 1;
    const ImageStripeFn stripe =
        f == IMAGE_FORMAT_UINT8 ? hammingKernel<uint8_t>(rowWindow) : hammingKernel<uint32_t>(rowWindow);
    const ImageStripeExec exec{matcher->pel, nullptr};
    return ImageStripeExec_run(&exec, stripe, &job, kSgmCostBands);
}

}  // namespace vq_tl
