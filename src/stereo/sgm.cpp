#include "stereo/sgm.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "imageproc/rank_filter.h"
#include "runtime/raw_double.h"
#include "stereo/sgm_select.h"

namespace vq_tl {

namespace {

constexpr int32_t kBands = 4;            // row bands of the winner, confidence and helper kernels
constexpr int32_t kMaxFractionBits = 7;  // a byte map keeps at least one integer bit
constexpr int32_t kMaxPenalty = 255;     // penalties are bytes after the census scaling

// Radial penalty of the two shapes that use it: (maxScale, innerRadius, outerRadius).
constexpr float kParallelRadial[3] = {4.0f, 0.4f, 0.8f};
constexpr float kSerialRadial[3] = {4.0f, 0.0f, 1.0f};

template <typename T>
inline T minOf(T a, T b) {
    return b < a ? b : a;
}
template <typename T>
inline T maxOf(T a, T b) {
    return a < b ? b : a;
}

bool isImage(const Image* i, uint32_t format) {
    return i != nullptr && i->format == format && i->plane[0] != nullptr;
}

bool hasSize(const Image* i, int32_t w, int32_t h) { return i->width == w && i->height == h; }

// The plane sums of the parallel shape left for the winners to make row by
// row (pending), so that each row of the volume is used while in cache.
struct PendingSum {
    SgmPathSum sum;
    bool pending;
};

TLResult aggregateVolume(Sgm* sgm, Image* aggregated, const Image* costVolume, const Image* guide,
                         int32_t useGuide, uint8_t numDisparities, uint32_t smallPenalty,
                         uint32_t largePenalty, PendingSum* pending);

// Work images of one call, released together on every path.
struct Temps {
    Image image[6];
    int32_t count;
};

void Temps_construct(Temps* t, Env* env) {
    for (Image& i : t->image) construct_Image(&i, env);
    t->count = 0;
}

Image* Temps_make(Temps* t, int32_t width, int32_t height, uint32_t format, TLResult* r) {
    if (*r != TL_OK) return nullptr;
    if (t->count >= static_cast<int32_t>(sizeof t->image / sizeof t->image[0])) {
        *r = TL_ERROR_GENERAL;
        return nullptr;
    }
    Image* i = &t->image[t->count++];
    *r = Image_init(i, width, height, nullptr, format);
    return *r == TL_OK ? i : nullptr;
}

void Temps_release(Temps* t) {
    for (Image& i : t->image) destruct_Image(&i);
    t->count = 0;
}

// --- Winner, peak-ratio and left-right stripes --------------------------------
// The row kernels are in stereo/sgm_select; these walk the rows of a band.

struct WinnerJob {
    const uint8_t* aggregated;
    int32_t aggregatedPitch;
    uint8_t* out;
    int32_t outPitch;
    uint8_t* confidence;  // peak-ratio kernel only
    int32_t confidencePitch;
    int32_t width, height, numDisparities, minDisparity;
    int32_t fractionBits;  // byte maps
    int32_t subPixel;      // float maps
    int32_t swapped;
    int32_t wide;  // 1: UINT16 volume
};

// Row y of the map from `row`, row y of the volume unless given.
template <typename Out, bool kMatch>
void winnerRow(const WinnerJob& j, const SgmSelectKernels* t, int32_t y, const uint8_t* row = nullptr) {
    if (row == nullptr) row = j.aggregated + static_cast<intptr_t>(j.aggregatedPitch) * y;
    Out* out = reinterpret_cast<Out*>(j.out + static_cast<intptr_t>(j.outPitch) * y);
    if constexpr (sizeof(Out) == 1) {
        const WinnerU8RowFn fn = kMatch ? t->matchU8[j.wide] : t->baseU8[j.wide];
        fn(out, row, j.width, j.numDisparities, j.minDisparity, j.fractionBits, j.swapped, 0, j.width);
    } else {
        const WinnerF32RowFn fn = kMatch ? t->matchF32[j.wide] : t->baseF32[j.wide];
        fn(out, row, j.width, j.numDisparities, j.minDisparity, j.subPixel, j.swapped, 0, j.width);
    }
}

template <typename Out, bool kMatch>
TLResult winnerStripe(void* arg, int32_t index, int32_t count) {
    const WinnerJob& j = *static_cast<const WinnerJob*>(arg);
    const SgmSelectKernels* t = SgmSelectKernels_get();
    int32_t y0, y1;
    ImageStripe_rows(j.height, index, count, &y0, &y1);
    for (int32_t y = y0; y < y1; ++y) winnerRow<Out, kMatch>(j, t, y);
    return TL_OK;
}

// The maps of a call, row by row: the pending plane sums of the row (if
// any), then the base view's and the match view's winners (where present),
// and for byte maps the 3x3 median of the row before. Each row of the volume
// is made and read while in cache: separate passes over the volume (23 MB in
// mode 0) cost about 1 ms a call here for each read from memory, and the
// medians as passes of their own about 0.4 ms each. The filtered maps take
// their winners in `raw` (the cost volume's memory, free by then) and their
// medians from there, so a band's median never reads a row another band has
// filtered; each band's first and last rows, whose windows reach into the
// bands beside, are filtered once all bands are done.
struct MapsJob {
    WinnerJob views[2];  // base, match: their `out` is raw[view] when filtering
    bool present[2];
    const SgmPathSum* sum;  // null: the volume is complete
    bool filter;
    uint8_t* raw[2];
    int32_t rawPitch;
    uint8_t* maps[2];
    int32_t mapPitch[2];
};

void MapsJob_medianRow(const MapsJob& j, int32_t view, int32_t y) {
    const int32_t H = j.views[view].height;
    const uint8_t* at = j.raw[view] + static_cast<intptr_t>(j.rawPitch) * y;
    RankFilter_median3x3RowU8(j.maps[view] + static_cast<intptr_t>(j.mapPitch[view]) * y,
                              y > 0 ? at - j.rawPitch : nullptr, at, y + 1 < H ? at + j.rawPitch : nullptr,
                              j.views[view].width);
}

template <typename Out>
TLResult mapsStripe(void* arg, int32_t index, int32_t count) {
    const MapsJob& j = *static_cast<const MapsJob*>(arg);
    const SgmSelectKernels* t = SgmSelectKernels_get();
    int32_t y0, y1;
    ImageStripe_rows(j.views[0].height, index, count, &y0, &y1);
    // Pending sums that the winners read go row after row into the band's
    // first row of the volume, which so stays in cache: the rest of the
    // volume is never written (23 MB less to write and read back in mode 0).
    // Without winners here (maps that overlap) the volume is made whole.
    const bool winners = j.present[0] || j.present[1];
    uint8_t* sums =
        j.sum != nullptr && winners ? j.sum->out + static_cast<intptr_t>(j.sum->outPitch) * y0 : nullptr;
    for (int32_t y = y0; y < y1; ++y) {
        if (sums != nullptr) {
            SgmCostAggregator_sumPathRow(j.sum, y, sums);
        } else if (j.sum != nullptr) {
            SgmCostAggregator_sumPathRows(j.sum, y, y + 1);
        }
        for (int32_t view = 0; view < 2; ++view) {
            if (!j.present[view]) continue;
            if (view == 0) {
                winnerRow<Out, false>(j.views[0], t, y, sums);
            } else {
                winnerRow<Out, true>(j.views[1], t, y, sums);
            }
            if (j.filter && y - 1 > y0) MapsJob_medianRow(j, view, y - 1);
        }
    }
    return TL_OK;
}

TLResult peakRatioStripe(void* arg, int32_t index, int32_t count) {
    const WinnerJob& j = *static_cast<const WinnerJob*>(arg);
    const PeakRatioRowFn fn = SgmSelectKernels_get()->peakRatio[j.wide];
    int32_t y0, y1;
    ImageStripe_rows(j.height, index, count, &y0, &y1);
    for (int32_t y = y0; y < y1; ++y) {
        fn(j.out + static_cast<intptr_t>(j.outPitch) * y,
           j.confidence + static_cast<intptr_t>(j.confidencePitch) * y,
           j.aggregated + static_cast<intptr_t>(j.aggregatedPitch) * y, j.numDisparities, j.fractionBits,
           j.swapped, 0, j.width);
    }
    return TL_OK;
}

struct ConfidenceJob {
    uint8_t* confidence;
    int32_t confidencePitch;
    const uint8_t* base;
    int32_t basePitch;
    const uint8_t* match;
    int32_t matchPitch;
    int32_t height;
    LeftRightParams params;
};

template <bool kFloat>
TLResult confidenceStripe(void* arg, int32_t index, int32_t count) {
    const ConfidenceJob& j = *static_cast<const ConfidenceJob*>(arg);
    const SgmSelectKernels* t = SgmSelectKernels_get();
    int32_t y0, y1;
    ImageStripe_rows(j.height, index, count, &y0, &y1);
    for (int32_t y = y0; y < y1; ++y) {
        uint8_t* out = j.confidence + static_cast<intptr_t>(j.confidencePitch) * y;
        const uint8_t* base = j.base + static_cast<intptr_t>(j.basePitch) * y;
        const uint8_t* match = j.match + static_cast<intptr_t>(j.matchPitch) * y;
        if constexpr (kFloat) {
            t->leftRightF32(out, reinterpret_cast<const float*>(base), reinterpret_cast<const float*>(match),
                            &j.params, 0, j.params.width);
        } else {
            t->leftRightU8(out, base, match, &j.params, 0, j.params.width);
        }
    }
    return TL_OK;
}

// --- Helpers of the aggregation ---------------------------------------------------

struct RadialJob {
    uint8_t* out;
    int32_t pitch, width, height;
    float largePenalty, maxScale, innerRadius, slope, norm, ratio2;
};

TLResult radialStripe(void* arg, int32_t index, int32_t count) {
    const RadialJob& j = *static_cast<const RadialJob*>(arg);
    int32_t y0, y1;
    ImageStripe_rows(j.height, index, count, &y0, &y1);
    for (int32_t y = y0; y < y1; ++y) {
        uint8_t* out = j.out + static_cast<intptr_t>(j.pitch) * y;
        const float dy = static_cast<float>(y - (j.height >> 1));
        for (int32_t x = 0; x < j.width; ++x) {
            const float dx = static_cast<float>(x - (j.width >> 1));
            const float d2 = dx * dx + j.ratio2 * dy * dy + 1e-9f;
            const float dist = static_cast<float>(RawDouble_sqrt(d2));
            float scale = 1.0f - j.innerRadius * j.slope + j.slope * dist / j.norm;
            scale = scale < 1.0f ? 1.0f : (scale > j.maxScale ? j.maxScale : scale);
            const int32_t v = static_cast<int32_t>(scale * j.largePenalty + 0.5f);
            out[x] = static_cast<uint8_t>(v > 255 ? 255 : v);
        }
    }
    return TL_OK;
}

struct AddJob {
    uint8_t* dst;
    const uint8_t* src;
    int32_t dstPitch, srcPitch, elements, height;
};

TLResult addStripe(void* arg, int32_t index, int32_t count) {
    const AddJob& j = *static_cast<const AddJob*>(arg);
    int32_t y0, y1;
    ImageStripe_rows(j.height, index, count, &y0, &y1);
    for (int32_t y = y0; y < y1; ++y) {
        uint16_t* d = reinterpret_cast<uint16_t*>(j.dst + static_cast<intptr_t>(j.dstPitch) * y);
        const uint16_t* s = reinterpret_cast<const uint16_t*>(j.src + static_cast<intptr_t>(j.srcPitch) * y);
        for (int32_t i = 0; i < j.elements; ++i) d[i] = static_cast<uint16_t>(d[i] + s[i]);
    }
    return TL_OK;
}

// The penalties of the census of the mode, as bytes.
TLResult scalePenalties(const Sgm* sgm, uint32_t small, uint32_t large, uint8_t* p1, uint8_t* p2) {
    if (sgm->censusMode == 0) {
        small >>= 1;
        large >>= 1;
    }
    if (small > kMaxPenalty || large > kMaxPenalty) return TL_ERROR_PARAM;
    *p1 = static_cast<uint8_t>(small);
    *p2 = static_cast<uint8_t>(large);
    return TL_OK;
}

int32_t width(const Sgm* sgm) { return static_cast<int32_t>(sgm->aggregator.width); }
int32_t height(const Sgm* sgm) { return static_cast<int32_t>(sgm->aggregator.height); }

// Arguments shared by the disparity calls; D is the rounded count.
TLResult checkMatchInputs(const Sgm* sgm, const Image* view1, const Image* view2, const Image* mask,
                          const Image* guide, uint32_t numDisparities, int32_t rowWindow, int32_t useGuide,
                          uint8_t* D) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    if (sgm->maxDisparities == 0) return TL_ERROR_STATE;
    if (numDisparities == 0 || numDisparities > kSgmMaxDisparities) return TL_ERROR_PARAM;
    *D = Sgm_round8(numDisparities);
    if (*D > sgm->maxDisparities) return TL_ERROR_PARAM;
    if (rowWindow < 1 || (rowWindow & 1) == 0) return TL_ERROR_PARAM;
    const int32_t w = width(sgm), h = height(sgm);
    if (view1 == nullptr || view2 == nullptr || view1->plane[0] == nullptr || view2->plane[0] == nullptr)
        return TL_ERROR_PARAM;
    if (view1->format != IMAGE_FORMAT_UINT8 || view2->format != IMAGE_FORMAT_UINT8)
        return TL_ERROR_UNSUPPORTED;
    if (!hasSize(view1, w, h) || !hasSize(view2, w, h)) return TL_ERROR_PARAM;
    if (mask != nullptr && (!isImage(mask, IMAGE_FORMAT_UINT8) || !hasSize(mask, w, h)))
        return TL_ERROR_PARAM;
    if (useGuide != 0) {
        if (guide == nullptr || guide->plane[0] == nullptr) return TL_ERROR_PARAM;
        if (guide->format != IMAGE_FORMAT_UINT8 && guide->format != IMAGE_FORMAT_UINT88)
            return TL_ERROR_UNSUPPORTED;
        if (!hasSize(guide, w, h)) return TL_ERROR_PARAM;
    }
    return TL_OK;
}

TLResult checkMap(const Sgm* sgm, const Image* map, uint32_t format) {
    if (map == nullptr) return TL_OK;
    if (map->format != format) return TL_ERROR_UNSUPPORTED;
    if (map->plane[0] == nullptr || !hasSize(map, width(sgm), height(sgm))) return TL_ERROR_PARAM;
    return TL_OK;
}

// Cost and aggregation into two work images of `temps`; *aggregated is the
// aggregated volume on success.
TLResult buildVolume(Sgm* sgm, Temps* temps, Image** aggregated, const Image* view1, const Image* view2,
                     const Image* mask, const Image* guide, uint8_t D, int8_t minDisparity, int32_t rowWindow,
                     uint32_t smallPenalty, uint32_t largePenalty, int32_t useGuide, int32_t swapped,
                     PendingSum* pending, Image** costOut) {
    const int32_t w = width(sgm), h = height(sgm);
    TLResult r = TL_OK;
    Image* cost = Temps_make(temps, w * D, h, IMAGE_FORMAT_UINT8, &r);
    if (costOut != nullptr) *costOut = cost;
    *aggregated = Temps_make(temps, w * (D + 2), h,
                             sgm->censusMode == 0 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_UINT16, &r);
    if (r == TL_OK) r = Sgm_computeCost(sgm, cost, view1, view2, mask, D, minDisparity, rowWindow, swapped);
    if (r == TL_OK)
        r = aggregateVolume(sgm, *aggregated, cost, guide, useGuide, D, smallPenalty, largePenalty, pending);
    return r;
}

WinnerJob winnerJob(const Sgm* sgm, const Image* aggregated, Image* out, uint8_t D, int8_t minDisparity,
                    int32_t swapped) {
    WinnerJob j;
    std::memset(&j, 0, sizeof j);
    j.aggregated = aggregated->plane[0];
    j.aggregatedPitch = aggregated->pitch[0];
    j.out = out->plane[0];
    j.outPitch = out->pitch[0];
    j.width = width(sgm);
    j.height = height(sgm);
    j.numDisparities = D;
    j.minDisparity = minDisparity;
    j.swapped = swapped != 0 ? 1 : 0;
    j.wide = aggregated->format == IMAGE_FORMAT_UINT8 ? 0 : 1;
    return j;
}

TLResult selectInto(Sgm* sgm, Image* map, const Image* aggregated, uint8_t D, int8_t minDisparity,
                    int32_t fractionBits, int32_t subPixel, int32_t swapped, bool matchView) {
    WinnerJob j = winnerJob(sgm, aggregated, map, D, minDisparity, swapped);
    j.fractionBits = fractionBits;
    j.subPixel = subPixel;
    ImageStripeFn fn;
    if (map->format == IMAGE_FORMAT_UINT8) {
        fn = matchView ? winnerStripe<uint8_t, true> : winnerStripe<uint8_t, false>;
    } else {
        fn = matchView ? winnerStripe<float, true> : winnerStripe<float, false>;
    }
    const ImageStripeExec exec{sgm->pel, nullptr};
    return ImageStripeExec_run(&exec, fn, &j, kBands);
}

// Whether the first planes of two images may share a byte (whole pitch rows
// compared).
bool planesOverlap(const Image* a, const Image* b) {
    const auto end = [](const Image* i) {
        return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * i->height;
    };
    return a->plane[0] < end(b) && b->plane[0] < end(a);
}

// Both maps, base view first, each followed by the median in place, after
// the pending sums. Where the maps are apart (or one is absent) the sums and
// both views' winners go in one pass before the medians: the same bytes,
// since the winners read only the volume and each median only its own map.
TLResult writeMaps(Sgm* sgm, Image* aggregated, const PendingSum* pending, Image* cost, Image* disparity1,
                   Image* disparity2, uint8_t D, int8_t minDisparity, int32_t fractionBits, int32_t subPixel,
                   int32_t swapped) {
    Image* maps[2] = {swapped != 0 ? disparity1 : disparity2, swapped != 0 ? disparity2 : disparity1};
    const bool apart = maps[0] == nullptr || maps[1] == nullptr || !planesOverlap(maps[0], maps[1]);
    const Image* any = maps[0] != nullptr ? maps[0] : maps[1];
    const int32_t w = width(sgm), h = height(sgm);
    MapsJob j{};
    j.sum = pending->pending ? &pending->sum : nullptr;
    // Two byte maps fit the cost volume's w * D by h bytes (D >= 8).
    j.filter = apart && any->format == IMAGE_FORMAT_UINT8 && cost != nullptr &&
               int64_t{cost->pitch[0]} * cost->height >= int64_t{2} * w * h;
    j.rawPitch = w;
    for (int32_t view = 0; view < 2; ++view) {
        Image* map = maps[view] != nullptr ? maps[view] : maps[1 - view];
        j.views[view] = winnerJob(sgm, aggregated, map, D, minDisparity, swapped);
        j.views[view].fractionBits = fractionBits;
        j.views[view].subPixel = subPixel;
        j.present[view] = apart && maps[view] != nullptr;
        if (j.filter) {
            j.raw[view] = cost->plane[0] + static_cast<intptr_t>(view) * w * h;
            j.maps[view] = map->plane[0];
            j.mapPitch[view] = map->pitch[0];
            j.views[view].out = j.raw[view];
            j.views[view].outPitch = j.rawPitch;
        }
    }
    const ImageStripeExec exec{sgm->pel, nullptr};
    const ImageStripeFn fn = any->format == IMAGE_FORMAT_UINT8 ? mapsStripe<uint8_t> : mapsStripe<float>;
    TLResult r = TL_OK;
    if (j.sum != nullptr || apart) r = ImageStripeExec_run(&exec, fn, &j, kBands);
    if (r == TL_OK && j.filter) {
        for (int32_t band = 0; band < kBands; ++band) {
            int32_t y0, y1;
            ImageStripe_rows(h, band, kBands, &y0, &y1);
            for (int32_t view = 0; view < 2 && y0 < y1; ++view) {
                if (!j.present[view]) continue;
                MapsJob_medianRow(j, view, y0);
                if (y1 - 1 > y0) MapsJob_medianRow(j, view, y1 - 1);
            }
        }
        return r;
    }
    for (int32_t view = 0; view < 2 && r == TL_OK; ++view) {
        Image* map = maps[view];
        if (map == nullptr) continue;
        if (!apart)
            r = selectInto(sgm, map, aggregated, D, minDisparity, fractionBits, subPixel, swapped, view == 1);
        if (r == TL_OK) r = ImageProc_filterMedian3x3(&sgm->imageProc, map, map, 0);
    }
    return r;
}

template <typename Out>
TLResult createDisparity(Sgm* sgm, Image* disparity1, Image* disparity2, const Image* view1,
                         const Image* view2, const Image* mask, const Image* guide, uint32_t numDisparities,
                         int8_t minDisparity, int32_t rowWindow, int32_t fractionBits, int32_t subPixel,
                         uint32_t smallPenalty, uint32_t largePenalty, int32_t useGuide, int32_t swapped) {
    uint8_t D;
    TLResult r = checkMatchInputs(sgm, view1, view2, mask, guide, numDisparities, rowWindow, useGuide, &D);
    if (r != TL_OK) return r;
    if (fractionBits < 0 || fractionBits > kMaxFractionBits) return TL_ERROR_PARAM;
    const uint32_t mapFormat = sizeof(Out) == 1 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_FLOAT;
    r = checkMap(sgm, disparity1, mapFormat);
    if (r == TL_OK) r = checkMap(sgm, disparity2, mapFormat);
    if (r != TL_OK || (disparity1 == nullptr && disparity2 == nullptr)) return r;
    Temps temps;
    Temps_construct(&temps, sgm->env);
    Image* aggregated = nullptr;
    PendingSum pending{};
    Image* cost = nullptr;
    r = buildVolume(sgm, &temps, &aggregated, view1, view2, mask, guide, D, minDisparity, rowWindow,
                    smallPenalty, largePenalty, useGuide, swapped, &pending, &cost);
    if (r == TL_OK)
        r = writeMaps(sgm, aggregated, &pending, cost, disparity1, disparity2, D, minDisparity, fractionBits,
                      subPixel, swapped);
    Temps_release(&temps);
    return r;
}

template <typename Map>
TLResult createConfidence(Sgm* sgm, Image* confidence, const Image* disparity1, const Image* disparity2,
                          int8_t minDisparity, int32_t fractionBits, uint32_t threshold, float thresholdF,
                          uint8_t failValue, uint8_t passValue, int32_t swapped) {
    if (sgm == nullptr || confidence == nullptr || disparity1 == nullptr || disparity2 == nullptr)
        return TL_ERROR_PARAM;
    if (fractionBits < 0 || fractionBits > kMaxFractionBits) return TL_ERROR_PARAM;
    const uint32_t format = sizeof(Map) == 1 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_FLOAT;
    if (disparity1->format != format || disparity2->format != format ||
        confidence->format != IMAGE_FORMAT_UINT8)
        return TL_ERROR_UNSUPPORTED;
    if (disparity1->plane[0] == nullptr || disparity2->plane[0] == nullptr || confidence->plane[0] == nullptr)
        return TL_ERROR_PARAM;
    const int32_t w = disparity1->width, h = disparity1->height;
    if (!hasSize(disparity2, w, h) || !hasSize(confidence, w, h)) return TL_ERROR_PARAM;
    const Image* base = swapped != 0 ? disparity1 : disparity2;
    const Image* match = swapped != 0 ? disparity2 : disparity1;
    ConfidenceJob j;
    std::memset(&j, 0, sizeof j);
    j.confidence = confidence->plane[0];
    j.confidencePitch = confidence->pitch[0];
    j.base = base->plane[0];
    j.basePitch = base->pitch[0];
    j.match = match->plane[0];
    j.matchPitch = match->pitch[0];
    j.height = h;
    j.params.width = w;
    j.params.minDisparity = minDisparity;
    j.params.fractionBits = fractionBits;
    j.params.threshold = threshold;
    j.params.thresholdF = thresholdF;
    j.params.failValue = failValue;
    j.params.passValue = passValue;
    j.params.swapped = swapped != 0 ? 1 : 0;
    const ImageStripeExec exec{sgm->pel, nullptr};
    return ImageStripeExec_run(&exec, sizeof(Map) == 1 ? confidenceStripe<false> : confidenceStripe<true>, &j,
                               kBands);
}

TLResult prepareScratch(Sgm* sgm, Image* view, uint8_t D, int32_t rows) {
    const int32_t pathWidth = SgmCostAggregator_getPathCostsWidth(width(sgm), D);
    TLResult r = Image_initSubImage(view, &sgm->pathCosts, 0, 0, pathWidth, rows);
    if (r == TL_OK) r = SgmCostAggregator_preparePathCosts(sgm->pel, view, D);
    return r;
}

}  // namespace

uint8_t Sgm_round8(uint32_t n) { return static_cast<uint8_t>(n + (-n & 7u)); }

int32_t Sgm_getBufferSize(int32_t width, int32_t height, uint32_t format, uint32_t numDisparities,
                          uint32_t mode) {
    if (width < 1 || height < 1 || mode > 1 || numDisparities == 0 || numDisparities > kSgmMaxDisparities)
        return -1;
    const int32_t imageProc = ImageProc_getBufferSize(width, height, format);
    if (imageProc < 0) return -1;
    const int64_t W = width, H = height, D = Sgm_round8(numDisparities);
    const int64_t paths = mode == 0 ? 4 : 8;
    const int64_t cost = W * D * H;
    const int64_t aggregated = W * (D + 2) * H * (mode == 0 ? 1 : 2);
    const int64_t pathRows = mode == 0 ? paths * (H + 1) + 1 : 2 * paths;
    const int64_t pathCosts = ((W + 2) * (D + 1) + 1) * pathRows;
    const int64_t census = 2 * W * H * (mode == 0 ? 1 : 4);
    // The bordered guide (2 bytes per pixel at most), the row penalties and,
    // with the 5x5 census, the radial penalty image.
    const int64_t guide = (W + 2) * (H + 2) * 2 + W * paths + (mode == 0 ? 0 : W * H);
    const int64_t total = SgmCostMatcher_getBufferSize() + SgmCostAggregator_getBufferSize() + imageProc +
                          cost + aggregated + pathCosts + (census > guide ? census : guide);
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult construct_Sgm(Sgm* sgm, Env* env) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    std::memset(sgm, 0, sizeof *sgm);
    sgm->env = env;
    construct_SgmCostMatcher(&sgm->matcher, env);
    construct_SgmCostAggregator(&sgm->aggregator, env);
    construct_ImageProc(&sgm->imageProc, env);
    return construct_Image(&sgm->pathCosts, env);
}

TLResult destruct_Sgm(Sgm* sgm) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    destruct_Image(&sgm->pathCosts);
    destruct_ImageProc(&sgm->imageProc);
    destruct_SgmCostAggregator(&sgm->aggregator);
    destruct_SgmCostMatcher(&sgm->matcher);
    std::memset(sgm, 0, sizeof *sgm);
    return TL_OK;
}

TLResult Sgm_recycle(Sgm* sgm) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    Image_recycle(&sgm->pathCosts);
    SgmCostMatcher_recycle(&sgm->matcher);
    SgmCostAggregator_recycle(&sgm->aggregator);
    ImageProc_recycle(&sgm->imageProc);
    sgm->aggregator.width = 0;
    sgm->aggregator.height = 0;
    sgm->censusMode = 0;
    sgm->aggregationShape = 0;
    sgm->numPaths = 0;
    sgm->maxDisparities = 0;
    sgm->pathCostsLayout = 0;
    return TL_OK;
}

TLResult Sgm_setPel(Sgm* sgm, Pel* pel) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    sgm->pel = pel;
    SgmCostMatcher_setPel(&sgm->matcher, pel);
    return SgmCostAggregator_setPel(&sgm->aggregator, pel);
}

TLResult Sgm_setParallelExecutor(Sgm* sgm, ParallelExecutor* executor) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    sgm->parallelExecutor = executor;
    return ImageProc_setParallelExecutor(&sgm->imageProc, executor);
}

TLResult Sgm_init(Sgm* sgm, int32_t width, int32_t height, uint32_t numDisparities, uint32_t mode) {
    if (sgm == nullptr) return TL_ERROR_PARAM;
    Sgm_recycle(sgm);
    // Only the two modes exist; the volumes of a call must fit 31 bits.
    if (width < 1 || height < 1 || mode > 1 || numDisparities == 0 || numDisparities > kSgmMaxDisparities)
        return TL_ERROR_PARAM;
    const int32_t D = Sgm_round8(numDisparities);
    if (int64_t{width} * (D + 2) * 2 * height > INT32_MAX) return TL_ERROR_PARAM;
    const uint8_t paths = mode == 0 ? 4 : 8;
    const int32_t pathWidth = SgmCostAggregator_getPathCostsWidth(width, D);
    const int32_t pathRows = mode == 0 ? paths * (height + 1) + 1 : 2 * paths;
    TLResult r = SgmCostMatcher_init(&sgm->matcher);
    if (r == TL_OK)
        r = SgmCostAggregator_init(&sgm->aggregator, static_cast<uint32_t>(width),
                                   static_cast<uint32_t>(height));
    if (r == TL_OK) r = ImageProc_init(&sgm->imageProc);
    if (r == TL_OK) r = Image_init(&sgm->pathCosts, pathWidth, pathRows, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK && mode == 0) r = SgmCostAggregator_preparePathCosts(sgm->pel, &sgm->pathCosts, D);
    if (r != TL_OK) {
        Sgm_recycle(sgm);
        return r;
    }
    sgm->censusMode = mode;
    sgm->aggregationShape = mode == 0 ? SGM_SHAPE_PARALLEL : SGM_SHAPE_SERIAL;
    sgm->numPaths = paths;
    sgm->maxDisparities = static_cast<uint8_t>(D);
    sgm->pathCostsLayout = mode == 0 ? static_cast<uint8_t>(D) : 0;
    return TL_OK;
}

TLResult Sgm_computeCost(Sgm* sgm, Image* costVolume, const Image* view1, const Image* view2,
                         const Image* mask, uint8_t numDisparities, int8_t minDisparity, int32_t rowWindow,
                         int32_t swapped) {
    if (sgm == nullptr || view1 == nullptr || view2 == nullptr) return TL_ERROR_PARAM;
    if (view1->width != view2->width || view1->height != view2->height) return TL_ERROR_PARAM;
    const uint32_t format = sgm->censusMode == 0 ? IMAGE_FORMAT_UINT8 : IMAGE_FORMAT_INT32;
    Temps temps;
    Temps_construct(&temps, sgm->env);
    TLResult r = TL_OK;
    Image* census1 = Temps_make(&temps, view1->width, view1->height, format, &r);
    Image* census2 = Temps_make(&temps, view1->width, view1->height, format, &r);
    if (r == TL_OK) {
        if (sgm->censusMode == 0) {
            r = SgmCostMatcher_censusTransform3x3(&sgm->matcher, census1, view1);
            if (r == TL_OK) r = SgmCostMatcher_censusTransform3x3(&sgm->matcher, census2, view2);
        } else {
            r = SgmCostMatcher_censusTransform5x5(&sgm->matcher, census1, view1);
            if (r == TL_OK) r = SgmCostMatcher_censusTransform5x5(&sgm->matcher, census2, view2);
        }
    }
    if (r == TL_OK)
        r = SgmCostMatcher_calculateHammingDistance(&sgm->matcher, costVolume, census1, census2, mask,
                                                    numDisparities, minDisparity, rowWindow, swapped);
    Temps_release(&temps);
    return r;
}

TLResult Sgm_copyWithBorder(Image* dst, const Image* src, int32_t border) {
    if (dst == nullptr || src == nullptr || border < 0 || src->plane[0] == nullptr ||
        dst->plane[0] == nullptr)
        return TL_ERROR_PARAM;
    if ((src->format != IMAGE_FORMAT_UINT8 && src->format != IMAGE_FORMAT_UINT88) ||
        dst->format != src->format)
        return TL_ERROR_UNSUPPORTED;
    const int32_t w = src->width, h = src->height;
    if (w < 1 || h < 1 || !hasSize(dst, w + 2 * border, h + 2 * border)) return TL_ERROR_PARAM;
    const int32_t e = src->format == IMAGE_FORMAT_UINT8 ? 1 : 2;
    for (int32_t y = 0; y < h + 2 * border; ++y) {
        const int32_t sy = minOf(maxOf(y - border, 0), h - 1);
        const uint8_t* s = src->plane[0] + static_cast<intptr_t>(src->pitch[0]) * sy;
        uint8_t* d = dst->plane[0] + static_cast<intptr_t>(dst->pitch[0]) * y;
        for (int32_t x = 0; x < border; ++x) std::memcpy(d + x * e, s, e);
        std::memcpy(d + border * e, s, static_cast<size_t>(w) * e);
        for (int32_t x = 0; x < border; ++x) std::memcpy(d + (border + w + x) * e, s + (w - 1) * e, e);
    }
    return TL_OK;
}

TLResult Sgm_selectDisparity(Sgm* sgm, Image* map, const Image* aggregated, uint8_t numDisparities,
                             int8_t minDisparity, int32_t fractionBits, int32_t subPixel, int32_t swapped,
                             int32_t matchView) {
    if (sgm == nullptr || map == nullptr || aggregated == nullptr) return TL_ERROR_PARAM;
    if (sgm->maxDisparities == 0) return TL_ERROR_STATE;
    const int32_t D = numDisparities, w = width(sgm), h = height(sgm);
    if (D == 0 || (D & 7) != 0 || D > kSgmMaxDisparities) return TL_ERROR_PARAM;
    if (fractionBits < 0 || fractionBits > kMaxFractionBits) return TL_ERROR_PARAM;
    if (map->format != IMAGE_FORMAT_UINT8 && map->format != IMAGE_FORMAT_FLOAT) return TL_ERROR_UNSUPPORTED;
    if (aggregated->format != IMAGE_FORMAT_UINT8 && aggregated->format != IMAGE_FORMAT_UINT16)
        return TL_ERROR_UNSUPPORTED;
    if (map->plane[0] == nullptr || !hasSize(map, w, h) || aggregated->plane[0] == nullptr ||
        !hasSize(aggregated, w * (D + 2), h))
        return TL_ERROR_PARAM;
    return selectInto(sgm, map, aggregated, numDisparities, minDisparity, fractionBits, subPixel, swapped,
                      matchView != 0);
}

TLResult Sgm_makeRadialPenalty(Sgm* sgm, Image* penalty, uint8_t largePenalty, float maxScale,
                               float innerRadius, float outerRadius) {
    if (sgm == nullptr || !isImage(penalty, IMAGE_FORMAT_UINT8) || !(outerRadius > innerRadius) ||
        !(maxScale >= 1.0f))
        return TL_ERROR_PARAM;
    const int32_t w = penalty->width, h = penalty->height;
    RadialJob j;
    j.out = penalty->plane[0];
    j.pitch = penalty->pitch[0];
    j.width = w;
    j.height = h;
    j.largePenalty = static_cast<float>(largePenalty);
    j.maxScale = maxScale;
    j.innerRadius = innerRadius;
    j.slope = (maxScale - 1.0f) / (outerRadius - innerRadius);
    // The horizontal half size twice: the image is normalised as if it were
    // square, the rows stretched by W / H below. A width of 1 has no half
    // size; it takes 1 so that the quotient stays finite.
    const float norm = static_cast<float>(RawDouble_hypot(w >> 1, w >> 1));
    j.norm = norm > 0.0f ? norm : 1.0f;
    const float ratio = static_cast<float>(w) / static_cast<float>(h);
    j.ratio2 = ratio * ratio;
    const ImageStripeExec exec{sgm->pel, nullptr};
    return ImageStripeExec_run(&exec, radialStripe, &j, kBands);
}

TLResult Sgm_aggregate(Sgm* sgm, Image* aggregated, const Image* costVolume, const Image* guide,
                       int32_t useGuide, uint8_t numDisparities, uint32_t smallPenalty,
                       uint32_t largePenalty) {
    return aggregateVolume(sgm, aggregated, costVolume, guide, useGuide, numDisparities, smallPenalty,
                           largePenalty, nullptr);
}

namespace {

TLResult aggregateVolume(Sgm* sgm, Image* aggregated, const Image* costVolume, const Image* guide,
                         int32_t useGuide, uint8_t numDisparities, uint32_t smallPenalty,
                         uint32_t largePenalty, PendingSum* pending) {
    if (sgm == nullptr || aggregated == nullptr || costVolume == nullptr) return TL_ERROR_PARAM;
    if (sgm->maxDisparities == 0) return TL_ERROR_STATE;
    const uint8_t D = numDisparities;
    if (D == 0 || (D & 7) != 0 || D > sgm->maxDisparities) return TL_ERROR_PARAM;
    uint8_t p1, p2;
    TLResult r = scalePenalties(sgm, smallPenalty, largePenalty, &p1, &p2);
    if (r != TL_OK) return r;
    const int32_t w = width(sgm), h = height(sgm);
    const uint8_t paths = sgm->numPaths;
    const uint32_t shape = sgm->aggregationShape;
    const bool variable = sgm->censusMode != 0;
    if (shape == SGM_SHAPE_PARALLEL || shape == SGM_SHAPE_TWO_WAY) {
        if (paths != 4 && paths != 8) return TL_ERROR_PARAM;
    } else if (shape == SGM_SHAPE_SERIAL) {
        if (paths != 4 && paths != 8 && paths != 16) return TL_ERROR_PARAM;
    } else {
        return TL_ERROR_PARAM;
    }
    if (shape != SGM_SHAPE_PARALLEL && aggregated->format == IMAGE_FORMAT_UINT8) return TL_ERROR_UNSUPPORTED;

    Temps temps;
    Temps_construct(&temps, sgm->env);
    Image* bordered = nullptr;
    Image* rowPenalty = nullptr;
    if (useGuide != 0) {
        if (guide == nullptr) return TL_ERROR_PARAM;
        const int32_t border = paths == 16 ? 2 : 1;
        bordered = Temps_make(&temps, w + 2 * border, h + 2 * border, guide->format, &r);
        if (r == TL_OK) r = Sgm_copyWithBorder(bordered, guide, border);
        const int32_t rowWidth = shape == SGM_SHAPE_PARALLEL
                                     ? w
                                     : (shape == SGM_SHAPE_TWO_WAY ? w * paths : w * (paths == 16 ? 8 : 4));
        rowPenalty =
            Temps_make(&temps, rowWidth, shape == SGM_SHAPE_PARALLEL ? paths : 1, IMAGE_FORMAT_UINT8, &r);
    }
    Image* penalty =
        variable && shape != SGM_SHAPE_TWO_WAY ? Temps_make(&temps, w, h, IMAGE_FORMAT_UINT8, &r) : nullptr;
    if (penalty != nullptr) {
        const float* radial = shape == SGM_SHAPE_PARALLEL ? kParallelRadial : kSerialRadial;
        r = Sgm_makeRadialPenalty(sgm, penalty, p2, radial[0], radial[1], radial[2]);
    }
    Image scratch;
    construct_Image(&scratch, sgm->env);
    if (r == TL_OK && shape == SGM_SHAPE_PARALLEL) {
        const int32_t rows = paths * (h + 1) + 1;
        if (rows > sgm->pathCosts.height) r = TL_ERROR_PARAM;
        // The planes keep their separators from call to call; another D
        // needs them laid out again.
        if (r == TL_OK) {
            r = Image_initSubImage(&scratch, &sgm->pathCosts, 0, 0, SgmCostAggregator_getPathCostsWidth(w, D),
                                   rows);
        }
        if (r == TL_OK && sgm->pathCostsLayout != D) {
            sgm->pathCostsLayout = 0;
            r = SgmCostAggregator_preparePathCosts(sgm->pel, &scratch, D);
            if (r == TL_OK) sgm->pathCostsLayout = D;
        }
        if (r == TL_OK) {
            r = variable
                    ? SgmCostAggregator_aggregateParallelVariablePenalty(
                          &sgm->aggregator, &scratch, costVolume, bordered, p1, penalty, rowPenalty, D, paths)
                    : SgmCostAggregator_aggregateParallel(&sgm->aggregator, &scratch, costVolume, bordered,
                                                          rowPenalty, D, p1, p2, paths);
        }
        if (r == TL_OK && pending != nullptr) {
            r = SgmCostAggregator_initPathSum(&sgm->aggregator, &pending->sum, aggregated, &scratch, D,
                                              paths);
            pending->pending = r == TL_OK;
        } else if (r == TL_OK) {
            r = SgmCostAggregator_sumPaths(&sgm->aggregator, aggregated, &scratch, D, paths);
        }
    } else if (r == TL_OK) {
        // The two-row rings of the other shapes overwrite the first rows of
        // the planes, so a later parallel call lays them out again.
        sgm->pathCostsLayout = 0;
        const int32_t rows = paths == 16 ? 40 : 2 * paths;
        r = rows <= sgm->pathCosts.height ? prepareScratch(sgm, &scratch, D, rows) : TL_ERROR_PARAM;
        if (r == TL_OK && shape == SGM_SHAPE_TWO_WAY) {
            Image* second = paths == 8 ? Temps_make(&temps, aggregated->width, aggregated->height,
                                                    IMAGE_FORMAT_UINT16, &r)
                                       : nullptr;
            if (r == TL_OK) {
                r = SgmCostAggregator_aggregate2wayParallel(&sgm->aggregator, aggregated, second, costVolume,
                                                            bordered, &scratch, rowPenalty, D, p1, p2, paths);
            }
            if (r == TL_OK && second != nullptr) {
                AddJob j{aggregated->plane[0], second->plane[0],  aggregated->pitch[0],
                         second->pitch[0],     aggregated->width, aggregated->height};
                const ImageStripeExec exec{sgm->pel, nullptr};
                r = ImageStripeExec_run(&exec, addStripe, &j, kBands);
            }
        } else if (r == TL_OK) {
            r = variable
                    ? SgmCostAggregator_aggregateSerialVariablePenalty(&sgm->aggregator, aggregated,
                                                                       costVolume, bordered, &scratch, p1,
                                                                       penalty, rowPenalty, D, paths)
                    : SgmCostAggregator_aggregateSerial(&sgm->aggregator, aggregated, costVolume, bordered,
                                                        &scratch, rowPenalty, D, p1, p2, paths);
        }
    }
    destruct_Image(&scratch);
    Temps_release(&temps);
    return r;
}

}  // namespace

TLResult Sgm_createDisparityU8(Sgm* sgm, Image* disparity1, Image* disparity2, const Image* view1,
                               const Image* view2, const Image* mask, const Image* guide,
                               uint32_t numDisparities, int8_t minDisparity, int32_t rowWindow,
                               int32_t fractionBits, uint32_t smallPenalty, uint32_t largePenalty,
                               int32_t useGuide, int32_t swapped) {
    return createDisparity<uint8_t>(sgm, disparity1, disparity2, view1, view2, mask, guide, numDisparities,
                                    minDisparity, rowWindow, fractionBits, 0, smallPenalty, largePenalty,
                                    useGuide, swapped);
}

TLResult Sgm_createDisparityF32(Sgm* sgm, Image* disparity1, Image* disparity2, const Image* view1,
                                const Image* view2, const Image* mask, const Image* guide,
                                uint32_t numDisparities, int8_t minDisparity, int32_t rowWindow,
                                uint32_t smallPenalty, uint32_t largePenalty, int32_t useGuide,
                                int32_t swapped, int32_t subPixel) {
    return createDisparity<float>(sgm, disparity1, disparity2, view1, view2, mask, guide, numDisparities,
                                  minDisparity, rowWindow, 0, subPixel, smallPenalty, largePenalty, useGuide,
                                  swapped);
}

TLResult Sgm_createConfidenceU8(Sgm* sgm, Image* confidence, const Image* disparity1, const Image* disparity2,
                                uint32_t numDisparities, int8_t minDisparity, int32_t fractionBits,
                                uint32_t threshold, uint8_t failValue, uint8_t passValue, int32_t swapped) {
    (void)numDisparities;  // the maps carry their values; the count bounds nothing here
    return createConfidence<uint8_t>(sgm, confidence, disparity1, disparity2, minDisparity, fractionBits,
                                     threshold, 0.0f, failValue, passValue, swapped);
}

TLResult Sgm_createConfidenceF32(Sgm* sgm, Image* confidence, const Image* disparity1,
                                 const Image* disparity2, uint32_t numDisparities, int8_t minDisparity,
                                 float threshold, uint8_t failValue, uint8_t passValue, int32_t swapped) {
    (void)numDisparities;
    return createConfidence<float>(sgm, confidence, disparity1, disparity2, minDisparity, 0, 0, threshold,
                                   failValue, passValue, swapped);
}

TLResult Sgm_createDisparityAndConfidenceByPKRN(Sgm* sgm, Image* disparity, Image* confidence,
                                                const Image* view1, const Image* view2, const Image* mask,
                                                const Image* guide, uint32_t numDisparities,
                                                int8_t minDisparity, int32_t rowWindow, int32_t subPixel,
                                                uint32_t smallPenalty, uint32_t largePenalty,
                                                int32_t useGuide, int32_t swapped) {
    uint8_t D;
    TLResult r = checkMatchInputs(sgm, view1, view2, mask, guide, numDisparities, rowWindow, useGuide, &D);
    if (r != TL_OK) return r;
    if (disparity == nullptr || confidence == nullptr) return TL_ERROR_PARAM;
    // subPixel is the count of fraction bits of the map.
    if (subPixel < 0 || subPixel > kMaxFractionBits) return TL_ERROR_PARAM;
    r = checkMap(sgm, disparity, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = checkMap(sgm, confidence, IMAGE_FORMAT_UINT8);
    if (r != TL_OK) return r;
    Temps temps;
    Temps_construct(&temps, sgm->env);
    Image* aggregated = nullptr;
    r = buildVolume(sgm, &temps, &aggregated, view1, view2, mask, guide, D, minDisparity, rowWindow,
                    smallPenalty, largePenalty, useGuide, swapped, nullptr, nullptr);
    if (r == TL_OK) {
        WinnerJob j = winnerJob(sgm, aggregated, disparity, D, minDisparity, swapped);
        j.fractionBits = subPixel;
        j.confidence = confidence->plane[0];
        j.confidencePitch = confidence->pitch[0];
        const ImageStripeExec exec{sgm->pel, nullptr};
        r = ImageStripeExec_run(&exec, peakRatioStripe, &j, kBands);
    }
    if (r == TL_OK) r = ImageProc_filterMedian3x3(&sgm->imageProc, disparity, disparity, 0);
    Temps_release(&temps);
    return r;
}

}  // namespace vq_tl
