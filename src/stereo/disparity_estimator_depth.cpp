// DisparityEstimator: range and stretch of the map, depth tables, status and
// the depth outputs.
#include <cstring>

#include "imageproc/image_stripes.h"
#include "stereo/disparity_estimator.h"

namespace vq_tl {

namespace {

constexpr int32_t kBands = 4;
constexpr int32_t kLastLevel = kDisparityLevels - 1;
constexpr int32_t kUnconfidentBin = kDisparityLevels;  // the histogram's last bin
// Share of the focus window beyond a limit that decides the status.
constexpr double kStatusShare = 0.7;
// Half the side of the focus window, as a fraction of the map's side.
constexpr float kWindowHalf = 0.1f;
// Depth beyond which getDepthImage saturates, in the baseline's unit.
constexpr float kFarDepth = 10.0f;

bool isMap(const Image* i) {
    return i != nullptr && i->format == IMAGE_FORMAT_UINT8 && i->plane[0] != nullptr && i->width > 0 &&
           i->height > 0;
}

const uint8_t* rowOf(const Image* i, int32_t y) {
    return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y;
}
uint8_t* rowOf(Image* i, int32_t y) { return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y; }

// The disparity of a level: the product in float, the quotient in double,
// the sum rounded to float.
float levelDisparity(float minPx, float maxPx, int32_t level) {
    const float product = (maxPx - minPx) * static_cast<float>(level);
    return static_cast<float>(static_cast<double>(minPx) + static_cast<double>(product) / 255.0);
}

struct RangeJob {
    const Image* map;
    uint8_t low[kBands], high[kBands];
};

TLResult rangeStripe(void* arg, int32_t index, int32_t count) {
    RangeJob& j = *static_cast<RangeJob*>(arg);
    uint8_t low = 255, high = 0;
    int32_t first, last;
    ImageStripe_rows(j.map->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* row = rowOf(j.map, y);
        for (int32_t x = 0; x < j.map->width; ++x) {
            low = row[x] < low ? row[x] : low;
            high = row[x] > high ? row[x] : high;
        }
    }
    j.low[index] = low;
    j.high[index] = high;
    return TL_OK;
}

struct StretchJob {
    Image* map;
    uint8_t low;
    float scale;
};

TLResult stretchStripe(void* arg, int32_t index, int32_t count) {
    const StretchJob& j = *static_cast<const StretchJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.map->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* row = rowOf(j.map, y);
        for (int32_t x = 0; x < j.map->width; ++x) {
            const int32_t v = static_cast<int32_t>(static_cast<float>(row[x] - j.low) * j.scale + 0.5f);
            row[x] = static_cast<uint8_t>(v < 255 ? v : 255);
        }
    }
    return TL_OK;
}

struct HistogramJob {
    const Image* disparity;
    const Image* confidence;
    uint8_t validValue;
    int32_t left, right, top, bottom;
    uint32_t bins[kBands][kDisparityLevels + 1];
};

TLResult histogramStripe(void* arg, int32_t index, int32_t count) {
    HistogramJob& j = *static_cast<HistogramJob*>(arg);
    uint32_t* bins = j.bins[index];
    int32_t first, last;
    ImageStripe_rows(j.bottom - j.top, index, count, &first, &last);
    for (int32_t y = j.top + first; y < j.top + last; ++y) {
        const uint8_t* d = rowOf(j.disparity, y);
        const uint8_t* c = rowOf(j.confidence, y);
        for (int32_t x = j.left; x < j.right; ++x) ++bins[c[x] == j.validValue ? d[x] : kUnconfidentBin];
    }
    return TL_OK;
}

struct DepthImageJob {
    Image* output;
    const Image* disparity;
    int32_t mode;
    int32_t low, high;
};

TLResult depthImageStripe(void* arg, int32_t index, int32_t count) {
    const DepthImageJob& j = *static_cast<const DepthImageJob*>(arg);
    const float low = static_cast<float>(j.low), high = static_cast<float>(j.high);
    const float scale = low * 255.0f / (high - low);
    int32_t first, last;
    ImageStripe_rows(j.output->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* in = rowOf(j.disparity, y);
        uint8_t* out = rowOf(j.output, y);
        // No spread left between the ends (every level at or beyond the far
        // saturation): the whole picture is the far end.
        if (j.high <= j.low) {
            std::memset(out, 255, static_cast<size_t>(j.output->width));
            continue;
        }
        for (int32_t x = 0; x < j.output->width; ++x) {
            float v;
            if (j.mode == 0) {
                v = scale * high / (static_cast<float>(in[x]) + 1e-9f) - scale;
            } else {
                v = static_cast<float>((j.high - in[x]) * 255 / (j.high - j.low));
            }
            v = v > 0.0f ? v : 0.0f;
            out[x] = static_cast<uint8_t>(v < 255.0f ? v : 255.0f);
        }
    }
    return TL_OK;
}

}  // namespace

TLResult DisparityEstimator_getDisparityRange(DisparityEstimator* e, uint8_t* low, uint8_t* high,
                                              const Image* map) {
    if (e == nullptr || low == nullptr || high == nullptr || !isMap(map)) return TL_ERROR_PARAM;
    RangeJob job;
    std::memset(&job, 0, sizeof job);
    job.map = map;
    for (int32_t i = 0; i < kBands; ++i) job.low[i] = 255, job.high[i] = 0;
    const ImageStripeExec exec{e->pel, nullptr};
    const TLResult r = ImageStripeExec_run(&exec, rangeStripe, &job, kBands);
    if (r != TL_OK) return r;
    uint8_t lo = 255, hi = 0;
    for (int32_t i = 0; i < kBands; ++i) {
        lo = job.low[i] < lo ? job.low[i] : lo;
        hi = job.high[i] > hi ? job.high[i] : hi;
    }
    *low = lo;
    *high = hi;
    return TL_OK;
}

TLResult DisparityEstimator_stretchDisparity(DisparityEstimator* e, Image* map, uint8_t low, uint8_t high) {
    if (e == nullptr || !isMap(map) || high < low) return TL_ERROR_PARAM;
    // The scale is a float, so the top of the range reaches 255 exactly; a
    // flat map has no range to stretch and becomes level 0.
    StretchJob job{map, low, high > low ? 255.0f / static_cast<float>(high - low) : 0.0f};
    const ImageStripeExec exec{e->pel, nullptr};
    return ImageStripeExec_run(&exec, stretchStripe, &job, kBands);
}

void DisparityEstimator_updateDepthTables(DisparityEstimator* e, uint8_t low, uint8_t high) {
    if (e == nullptr || e->depthTable == nullptr || e->inverseDepthTable == nullptr) return;
    const int32_t f = e->subPixelEnabled != 0 ? e->fractionBits : 0;
    const float unit = static_cast<float>(1 << f);
    const float minPx = static_cast<float>(low) / unit, maxPx = static_cast<float>(high) / unit;
    e->minDisparityPx = minPx;
    e->maxDisparityPx = maxPx;
    const float fb = e->focalLength * e->baseline;
    for (int32_t i = 0; i < kDisparityLevels; ++i) {
        const double d = levelDisparity(minPx, maxPx, i);
        e->depthTable[i] = static_cast<float>(static_cast<double>(fb) / (d + 1e-9));
        // The same level's disparity with a float quotient, over the focal length.
        const float d32 = minPx + (maxPx - minPx) * static_cast<float>(i) / 255.0f;
        e->inverseDepthTable[i] = d32 / e->focalLength;
    }
}

TLResult DisparityEstimator_updateStatus(DisparityEstimator* e, int32_t* status, const Image* disparity,
                                         const Image* confidence, uint8_t validValue) {
    if (e == nullptr || status == nullptr || !isMap(disparity) || !isMap(confidence)) return TL_ERROR_PARAM;
    if (confidence->width != disparity->width || confidence->height != disparity->height)
        return TL_ERROR_PARAM;
    if (e->roiHistogram == nullptr) return TL_ERROR_STATE;
    const float w = static_cast<float>(disparity->width), h = static_cast<float>(disparity->height);
    const float left = 0.5f + (e->focusX - kWindowHalf) * w, right = 0.5f + (e->focusX + kWindowHalf) * w;
    const float top = 0.5f + (e->focusY - kWindowHalf) * h, bottom = 0.5f + (e->focusY + kWindowHalf) * h;
    HistogramJob job;
    std::memset(&job, 0, sizeof job);
    job.disparity = disparity;
    job.confidence = confidence;
    job.validValue = validValue;
    job.left = static_cast<int32_t>(left > 0.0f ? left : 0.0f);
    job.right = static_cast<int32_t>(right < w ? right : w);
    job.top = static_cast<int32_t>(top > 0.0f ? top : 0.0f);
    job.bottom = static_cast<int32_t>(bottom < h ? bottom : h);
    const ImageStripeExec exec{e->pel, nullptr};
    const TLResult r = ImageStripeExec_run(&exec, histogramStripe, &job, kBands);
    if (r != TL_OK) return r;
    uint32_t total = 0;
    for (int32_t b = 0; b <= kUnconfidentBin; ++b) {
        uint32_t sum = 0;
        for (int32_t t = 0; t < kBands; ++t) sum += job.bins[t][b];
        e->roiHistogram[b] = sum;
        total += sum;
    }
    e->roiTotal = total;

    // Far: the levels up to one pixel of disparity. Near: the levels from
    // the top of the matching range (two candidates below its end) up.
    const float minPx = e->minDisparityPx, maxPx = e->maxDisparityPx;
    int32_t lowBin = 0;
    for (int32_t i = 0; i <= kLastLevel && levelDisparity(minPx, maxPx, i) <= 1.0f; ++i) lowBin = i;
    const float limit = static_cast<float>((e->numDisparities + e->minDisparity - 2) & 255);
    int32_t highBin = kLastLevel;
    for (int32_t i = kLastLevel; i >= 0 && !(levelDisparity(minPx, maxPx, i) < limit); --i) highBin = i;
    uint32_t nearCount = 0, farCount = 0;
    for (int32_t b = highBin + 1; b <= kUnconfidentBin; ++b) nearCount += e->roiHistogram[b];
    for (int32_t b = 0; b < lowBin; ++b) farCount += e->roiHistogram[b];
    const float nearShare = static_cast<float>(nearCount) / static_cast<float>(total);
    const float farShare = static_cast<float>(farCount) / static_cast<float>(total);
    if (static_cast<double>(nearShare) > kStatusShare) {
        *status = DISPARITY_STATUS_TOO_NEAR;
    } else if (static_cast<double>(farShare) > kStatusShare) {
        *status = DISPARITY_STATUS_TOO_FAR;
    } else {
        *status = DISPARITY_STATUS_USABLE;
    }
    return TL_OK;
}

TLResult DisparityEstimator_getDepthTable(DisparityEstimator* e, float* table) {
    if (e == nullptr || table == nullptr) return TL_ERROR_PARAM;
    if (e->depthTable == nullptr) return TL_ERROR_STATE;
    std::memcpy(table, e->depthTable, kDisparityLevels * sizeof(float));
    return TL_OK;
}

TLResult DisparityEstimator_getValidDepthRange(DisparityEstimator* e, float* nearDepth, float* farDepth) {
    if (e == nullptr || nearDepth == nullptr || farDepth == nullptr) return TL_ERROR_PARAM;
    const float fb = e->focalLength * e->baseline;
    *farDepth = fb;
    *nearDepth = fb / static_cast<float>((e->numDisparities + e->minDisparity - 2) & 255);
    return TL_OK;
}

TLResult DisparityEstimator_getDepthImage(DisparityEstimator* e, Image* output, float* nearDepth,
                                          float* farDepth, const Image* disparity, int32_t mode) {
    if (e == nullptr || nearDepth == nullptr || farDepth == nullptr || !isMap(output) || !isMap(disparity))
        return TL_ERROR_PARAM;
    if (output->width != disparity->width || output->height != disparity->height) return TL_ERROR_PARAM;
    if (e->depthTable == nullptr) return TL_ERROR_STATE;
    uint8_t low, high;
    TLResult r = DisparityEstimator_getDisparityRange(e, &low, &high, disparity);
    if (r != TL_OK) return r;
    int32_t far = 0;
    for (int32_t i = kLastLevel; i >= 0; --i) {
        if (e->depthTable[i] > kFarDepth) {
            far = i;
            break;
        }
    }
    const int32_t lowLevel = low > far ? low : far;
    *farDepth = e->depthTable[lowLevel];
    *nearDepth = e->depthTable[high];
    if (mode != 0 && mode != 1) return TL_OK;
    DepthImageJob job{output, disparity, mode, lowLevel, high};
    const ImageStripeExec exec{e->pel, nullptr};
    return ImageStripeExec_run(&exec, depthImageStripe, &job, kBands);
}

}  // namespace vq_tl
