#include "stereo/sgm_cost_matcher.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "stereo/census.h"
#include "stereo/sgm_cost.h"

namespace vq_tl {

namespace {

// The generic kernel's table of row pointers; no pair of views is
// misaligned by anything near this many rows.
constexpr int32_t kMaxRowWindow = 255;

inline int32_t clampIndex(int32_t i, int32_t n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

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

// One row of the volume: the window's rows clamped once, the columns whose
// candidates would leave the match view filled, the rest by the table's row
// kernel.
template <bool kWide>
TLResult hammingStripe(void* arg, int32_t index, int32_t count) {
    const HammingJob& j = *static_cast<const HammingJob*>(arg);
    const HammingRowFn kernel = kWide ? SgmCostKernels_get()->hamming32 : SgmCostKernels_get()->hamming8;
    const int32_t rows = 2 * j.halfWindow + 1;
    const int32_t D = j.numDisparities;
    // Columns whose whole candidate range stays in the match view.
    int32_t xBegin = j.dLow < 0 ? -j.dLow : 0;
    int32_t xEnd = j.dHigh > 0 ? j.width - j.dHigh : j.width;
    if (xBegin > j.width) xBegin = j.width;
    if (xEnd < xBegin) xEnd = xBegin;
    int32_t first, last;
    ImageStripe_rows(j.height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        // Above the first row every row of the window reads row 0.
        const uint8_t* match[kMaxRowWindow];
        for (int32_t i = 0; i < rows; ++i)
            match[i] =
                j.match + static_cast<intptr_t>(j.matchPitch) * clampIndex(y - j.halfWindow + i, j.height);
        const uint8_t* base = j.base + static_cast<intptr_t>(j.basePitch) * y;
        uint8_t* out = j.cost + static_cast<intptr_t>(j.costPitch) * y;
        const uint8_t* mask = j.mask != nullptr ? j.mask + static_cast<intptr_t>(j.maskPitch) * y : nullptr;
        std::memset(out, kSgmOutsideCost, static_cast<size_t>(xBegin) * D);
        std::memset(out + static_cast<size_t>(xEnd) * D, kSgmOutsideCost,
                    static_cast<size_t>(j.width - xEnd) * D);
        kernel(out, base, match, rows, mask, D, j.dLow, xBegin, xEnd);
    }
    return TL_OK;
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
    const ImageStripeFn stripe = f == IMAGE_FORMAT_UINT8 ? hammingStripe<false> : hammingStripe<true>;
    const ImageStripeExec exec{matcher->pel, nullptr};
    return ImageStripeExec_run(&exec, stripe, &job, kSgmCostBands);
}

}  // namespace vq_tl
