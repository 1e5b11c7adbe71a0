#include "bokeh/cocmap.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "imageproc/image_stripes.h"
#include "runtime/memory.h"

namespace vq_tl {

namespace {

constexpr int32_t kCodes = 256;
constexpr int32_t kStripes = kImageStripeDefaultCount;
// The smoothing box: 5 bins, 2 either side of the centre.
constexpr int32_t kBoxHalf = 2;
// The smoothing work area: the histogram at kBoxHalf + 1 onwards, bin 0 in
// front of it and bin 255 twice behind it (see smoothHistogram).
constexpr int32_t kWorkFront = kBoxHalf + 1;
constexpr int32_t kWorkSize = kWorkFront + kCodes + kBoxHalf;

// Disparity dead zone per unit of baseline: 2/33 on the far side of focus
// and just under 2/27 (six units of the last place below it) on the near
// side. The two sides differ on purpose; the bits are kept exactly.
const float kFarPull = std::bit_cast<float>(0x3D783E10u);   // 0.060606062
const float kNearPull = std::bit_cast<float>(0x3D97B420u);  // 0.07407403

const uint8_t* rowOf(const Image* m, int32_t y) {
    return m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * y;
}
uint8_t* rowOf(Image* m, int32_t y) { return m->plane[0] + static_cast<intptr_t>(m->pitch[0]) * y; }

// Clamps to 0..255 and truncates; a NaN (from a NaN in the caller's table)
// becomes 0 instead of an undefined conversion.
uint8_t toByte(double v) {
    if (!(v > 0.0)) return 0;
    return v < 255.0 ? static_cast<uint8_t>(v) : 255;
}

// ---- Stripe kernels -------------------------------------------------------------

struct RangeJob {
    const Image* src;
    uint8_t* lows;  // one cell per stripe
    uint8_t* highs;
};

TLResult rangeStripe(void* arg, int32_t index, int32_t count) {
    const RangeJob& j = *static_cast<const RangeJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src->height, index, count, &first, &last);
    const int32_t w = j.src->width;
    // An empty stripe (5 rows give stripes of 2, 2, 1 and 0) reports a range
    // that the fold ignores.
    uint8_t lo = 255, hi = 0;
    if (first < last && w > 0) lo = hi = rowOf(j.src, first)[0];
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s = rowOf(j.src, y);
        for (int32_t x = 0; x < w; ++x) {
            lo = std::min(lo, s[x]);
            hi = std::max(hi, s[x]);
        }
    }
    j.lows[index] = lo;
    j.highs[index] = hi;
    return TL_OK;
}

struct HistogramJob {
    const Image* src;
    uint32_t* counts;  // kCodes per stripe
};

TLResult histogramStripe(void* arg, int32_t index, int32_t count) {
    const HistogramJob& j = *static_cast<const HistogramJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src->height, index, count, &first, &last);
    uint32_t* h = j.counts + static_cast<size_t>(index) * kCodes;
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s = rowOf(j.src, y);
        for (int32_t x = 0; x < j.src->width; ++x) ++h[s[x]];
    }
    return TL_OK;
}

struct MapJob {
    Image* dst;
    const Image* src;
    const uint8_t* lut;
};

TLResult mapStripe(void* arg, int32_t index, int32_t count) {
    const MapJob& j = *static_cast<const MapJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.src->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s = rowOf(j.src, y);
        uint8_t* d = rowOf(j.dst, y);
        for (int32_t x = 0; x < j.src->width; ++x) d[x] = j.lut[s[x]];
    }
    return TL_OK;
}

// ---- Automatic focus ------------------------------------------------------------

// work: kWorkSize entries, the histogram at kWorkFront. Afterwards entries
// 0..255 hold the 5-bin box mean, rounded, with the end bins repeated beyond
// the ends. The window of bin i is work[i + 1 .. i + 5], always ahead of the
// entry being written, so the sliding sum runs in place.
void smoothHistogram(uint32_t* work) {
    for (int32_t i = 0; i < kWorkFront; ++i) work[i] = work[kWorkFront];
    for (int32_t i = kWorkFront + kCodes; i < kWorkSize; ++i) work[i] = work[kWorkFront + kCodes - 1];
    constexpr int32_t box = 2 * kBoxHalf + 1;
    uint64_t sum = 0;  // 5 counts of a large map may pass 32 bits
    for (int32_t k = 1; k <= box; ++k) sum += work[k];
    for (int32_t i = 0; i < kCodes; ++i) {
        const uint32_t mean = static_cast<uint32_t>((sum + box / 2) / box);
        if (i + box + 1 < kWorkSize) sum += work[i + box + 1];
        sum -= work[i + 1];
        work[i] = mean;
    }
}

// The first bin with the highest count among those that hold the nearer
// objects: below the threshold for a depth table that grows with the code,
// from the threshold up otherwise (disparity grows as objects come nearer).
int32_t nearerPeak(const uint32_t* smoothed, int32_t threshold, bool lowCodesNear) {
    int32_t from = threshold, to = kCodes;
    if (lowCodesNear) {
        if (threshold < 2) return 0;
        from = 0;
        to = threshold;
    }
    int32_t peak = from;
    for (int32_t i = from + 1; i < to; ++i) {
        if (smoothed[i] > smoothed[peak]) peak = i;
    }
    return peak;
}

TLResult recommendedFocus(Cocmap* self, const Image* src, const float* table, bool depth, float* focus) {
    uint32_t* work = static_cast<uint32_t*>(Memory_alloc(kWorkSize * sizeof(uint32_t)));
    if (work == nullptr) return TL_ERROR_MEMORY;
    const TLResult r = Cocmap_getHistogram(self, src, work + kWorkFront);
    if (r == TL_OK) {
        smoothHistogram(work);
        const int32_t threshold = Cocmap_getOtsuThreshold(work);
        *focus = table[nearerPeak(work, threshold, depth && !(table[0] > table[1]))];
    }
    Memory_free(work);
    return r;
}

// ---- Entry points ---------------------------------------------------------------

// What an entry point was given besides the pictures. aux is focal for a
// depth table and baseline for a disparity table.
struct Request {
    bool depth;
    const float* table;
    float scale, aux;
    int32_t mode;
};

bool buildsTable(int32_t mode) { return mode == 0 || mode == 1; }

// Checks that keep the pictures and the tables from being reached through
// bad pointers; the entry points touch nothing when they fail.
TLResult checkCall(const Cocmap* self, const Image* dst, const float* maxCoc, const Image* src,
                   const float* table) {
    if (self == nullptr || dst == nullptr || maxCoc == nullptr || src == nullptr || table == nullptr)
        return TL_ERROR_PARAM;
    if (dst->width != src->width || dst->height != src->height) return TL_ERROR_PARAM;
    return self->cocTableU8 == nullptr || self->cocTableF32 == nullptr ? TL_ERROR_STATE : TL_OK;
}

using TableBuilder = float (*)(Cocmap* self, const float* table, int32_t low, int32_t high, float focus,
                               float scale, float aux);
// By [depth][mode].
constexpr TableBuilder kBuilders[2][2] = {
    {Cocmap_buildDisparityTableSigned, Cocmap_buildDisparityTableMagnitude},
    {Cocmap_buildDepthTableSigned, Cocmap_buildDepthTableMagnitude},
};

// Value range, the table for the mode, the look-up. Another mode keeps the
// tables and maxCoc of the previous call and only maps.
TLResult makeMap(Cocmap* self, Image* dst, float* maxCoc, const Image* src, const Request& q, float focus) {
    if (buildsTable(q.mode)) {
        int32_t low, high;
        const TLResult r = Cocmap_getValueRange(self, src, &low, &high);
        if (r != TL_OK) return r;
        *maxCoc = kBuilders[q.depth ? 1 : 0][q.mode](self, q.table, low, high, focus, q.scale, q.aux);
    }
    return Cocmap_mapPixels(self, dst, src);
}

TLResult mapByCoord(Cocmap* self, Image* dst, float* maxCoc, const Image* src, const Request& q, float x,
                    float y) {
    const TLResult r = checkCall(self, dst, maxCoc, src, q.table);
    if (r != TL_OK) return r;
    const float focus = buildsTable(q.mode) ? Cocmap_getFocusValueAtCoord(src, q.table, x, y) : 0.0f;
    return makeMap(self, dst, maxCoc, src, q, focus);
}

TLResult mapRecommended(Cocmap* self, Image* dst, float* maxCoc, const Image* src, const Request& q) {
    TLResult r = checkCall(self, dst, maxCoc, src, q.table);
    if (r != TL_OK) return r;
    float focus = 0.0f;
    if (buildsTable(q.mode)) r = recommendedFocus(self, src, q.table, q.depth, &focus);
    return r != TL_OK ? r : makeMap(self, dst, maxCoc, src, q, focus);
}

// Codes the builders may touch: the range asked for, within the table.
void limitCodes(int32_t* low, int32_t* high) {
    *low = std::max(*low, 0);
    *high = std::min(*high, kCodes - 1);
}

// The one-sided dead zone of the disparity tables: a small disparity step
// either side of focus still counts as in focus.
float pullToFocus(float g, float focus, float baseline) {
    return g < focus ? std::min(g + baseline * kFarPull, focus) : std::max(g - baseline * kNearPull, focus);
}

float limitSigned(float coc, float sigma) { return coc > sigma ? sigma : (coc < -sigma ? -sigma : coc); }

// Bytes of the signed scale: 128 + sign * 128 * coc / largest, in float.
void signedBytes(Cocmap* self, int32_t low, int32_t high, float largest, float sign) {
    const float s = static_cast<float>(128.0 / (largest + 1e-9));
    for (int32_t c = low; c <= high; ++c)
        self->cocTableU8[c] = toByte(128.0f + sign * (self->cocTableF32[c] * s));
}

}  // namespace

// ---- Life cycle -------------------------------------------------------------------

int32_t Cocmap_getBufferSize() {
    // The record's reserved room, and the two 4 by 1 images of the range pass.
    return 8468 + 2 * Image_getSize(kStripes, 1, IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL);
}

TLResult construct_Cocmap(Cocmap* self, Env* env) {
    if (self == nullptr || env == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    // maxSigma and maxSigmaHigh start as the two words of the double FLT_MAX,
    // low word first: maxSigma reads as no usable clamp (a large negative
    // value) until Cocmap_setMaxSigma, which the owner calls at start.
    const uint64_t bits = std::bit_cast<uint64_t>(static_cast<double>(FLT_MAX));
    self->maxSigma = std::bit_cast<float>(static_cast<uint32_t>(bits));
    self->maxSigmaHigh = static_cast<uint32_t>(bits >> 32);
    return TL_OK;
}

TLResult destruct_Cocmap(Cocmap* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Memory_free(self->cocTableU8);
    Memory_free(self->cocTableF32);
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult Cocmap_recycle(Cocmap* self) { return destruct_Cocmap(self); }

TLResult Cocmap_init(Cocmap* self, int32_t width, int32_t height) {
    (void)width;
    (void)height;
    if (self == nullptr) return TL_ERROR_PARAM;
    Memory_free(self->cocTableU8);
    Memory_free(self->cocTableF32);
    self->cocTableU8 = static_cast<uint8_t*>(Memory_alloc(kCodes));
    self->cocTableF32 = static_cast<float*>(Memory_alloc(kCodes * sizeof(float)));
    // A failed allocation is reported rather than met later in a map call,
    // which then answers TL_ERROR_STATE.
    if (self->cocTableU8 == nullptr || self->cocTableF32 == nullptr) {
        Memory_free(self->cocTableU8);
        Memory_free(self->cocTableF32);
        self->cocTableU8 = nullptr;
        self->cocTableF32 = nullptr;
        return TL_ERROR_MEMORY;
    }
    // Defined contents for a first call with a mode that builds no table.
    std::memset(self->cocTableU8, 0, kCodes);
    std::memset(self->cocTableF32, 0, kCodes * sizeof(float));
    return TL_OK;
}

TLResult Cocmap_setPel(Cocmap* self, Pel* pel) {
    if (self == nullptr || pel == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return TL_OK;
}

TLResult Cocmap_setMaxSigma(Cocmap* self, float sigma) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->maxSigma = sigma;
    return TL_OK;
}

// ---- Maps -------------------------------------------------------------------------

TLResult Cocmap_getCocMapFromDepthByCoord(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                          const float* table, float scale, float focal, float x, float y,
                                          int32_t mode) {
    return mapByCoord(self, dst, maxCoc, src, {true, table, scale, focal, mode}, x, y);
}

// focal is not used by the disparity pair: a disparity already holds focal
// times baseline over depth.
TLResult Cocmap_getCocMapFromDisparityByCoord(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                              const float* table, float scale, float focal, float baseline,
                                              float x, float y, int32_t mode) {
    (void)focal;
    return mapByCoord(self, dst, maxCoc, src, {false, table, scale, baseline, mode}, x, y);
}

TLResult Cocmap_getRecommendedCocMapFromDepth(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                              const float* table, float scale, float focal, int32_t mode) {
    return mapRecommended(self, dst, maxCoc, src, {true, table, scale, focal, mode});
}

TLResult Cocmap_getRecommendedCocMapFromDisparity(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                                  const float* table, float scale, float focal,
                                                  float baseline, int32_t mode) {
    (void)focal;
    return mapRecommended(self, dst, maxCoc, src, {false, table, scale, baseline, mode});
}

// ---- Steps ------------------------------------------------------------------------

TLResult Cocmap_getValueRange(Cocmap* self, const Image* src, int32_t* low, int32_t* high) {
    if (self == nullptr || src == nullptr || low == nullptr || high == nullptr) return TL_ERROR_PARAM;
    *low = 0;
    *high = 255;
    Image lows, highs;
    construct_Image(&lows, self->env);
    construct_Image(&highs, self->env);
    TLResult r = Image_init(&lows, kStripes, 1, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = Image_init(&highs, kStripes, 1, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) {
        RangeJob job{src, lows.plane[0], highs.plane[0]};
        const ImageStripeExec exec{self->pel, nullptr};
        r = ImageStripeExec_run(&exec, rangeStripe, &job, kStripes);
    }
    if (r == TL_OK) {
        int32_t lo = 255, hi = 0;
        for (int32_t i = 0; i < kStripes; ++i) {
            lo = std::min<int32_t>(lo, lows.plane[0][i]);
            hi = std::max<int32_t>(hi, highs.plane[0][i]);
        }
        *low = lo;
        *high = hi;
    }
    destruct_Image(&highs);
    destruct_Image(&lows);
    return r;
}

float Cocmap_getFocusValueAtCoord(const Image* src, const float* table, float x, float y) {
    const int32_t w = src->width, h = src->height;
    if (w < 1 || h < 1) return 0.0f;
    // Out of range or NaN coordinates (the public setters reject them) are
    // taken to the nearest edge rather than giving an empty square.
    const double cx = x > 0.0f ? std::min(x, 1.0f) : 0.0f;
    const double cy = y > 0.0f ? std::min(y, 1.0f) : 0.0f;
    auto span = [](double c, int32_t size, int32_t* from, int32_t* to) {
        *from = static_cast<int32_t>(std::max(0.5 + (c - 0.01) * size, 0.0));
        *to = static_cast<int32_t>(std::min(0.5 + (c + 0.01) * size, static_cast<double>(size)));
        if (*to <= *from) {
            // A square thinner than a pixel: the pixel under the coordinate.
            *from = std::min(static_cast<int32_t>(c * size), size - 1);
            *to = *from + 1;
        }
    };
    int32_t x0, x1, y0, y1;
    span(cx, w, &x0, &x1);
    span(cy, h, &y0, &y1);
    uint64_t sum = 0;
    for (int32_t row = y0; row < y1; ++row) {
        const uint8_t* s = rowOf(src, row);
        for (int32_t col = x0; col < x1; ++col) sum += s[col];
    }
    const float average = static_cast<float>(sum) / static_cast<float>((x1 - x0) * (y1 - y0));
    // average is 0..255, so truncation is the floor.
    const int32_t lowCode = static_cast<int32_t>(average);
    const int32_t highCode = std::min(lowCode + (static_cast<float>(lowCode) < average ? 1 : 0), 255);
    const double frac = static_cast<double>(average) - lowCode;
    // The higher code takes 1 - frac and the lower frac: crossed against
    // plain interpolation on purpose; the maps callers expect depend on it.
    return static_cast<float>((1.0 - frac) * table[highCode] + frac * table[lowCode]);
}

float Cocmap_buildDepthTableSigned(Cocmap* self, const float* table, int32_t low, int32_t high, float focus,
                                   float scale, float focal) {
    limitCodes(&low, &high);
    if (low > high) return 0.0f;
    const float sigma = self->maxSigma;
    const float gain = scale * focal;
    const double f = focus;
    float largest = 0.0f;
    for (int32_t c = low; c <= high; ++c) {
        // The dead zone: a quarter of the focus distance counts as in focus,
        // so a subject with some depth of its own stays sharp.
        float d = table[c];
        d = d < focus ? std::min(d + 0.25f * focus, focus) : std::max(d - 0.25f * focus, focus);
        // The thin-lens blur for an object at d with the lens focused at f,
        // up to the factors that scale and focal stand for.
        const double coc = 2.0 * gain * (d - f) / ((2.0 * d + f) * f);
        const float v = limitSigned(static_cast<float>(coc), sigma);
        self->cocTableF32[c] = v;
        largest = std::max(largest, std::fabs(v));
    }
    // Depth grows away from the camera: a far code has a positive CoC and
    // goes below 128.
    signedBytes(self, low, high, largest, -1.0f);
    return largest;
}

float Cocmap_buildDepthTableMagnitude(Cocmap* self, const float* table, int32_t low, int32_t high,
                                      float focus, float scale, float focal) {
    limitCodes(&low, &high);
    if (low > high) return 0.0f;
    const float sigma = self->maxSigma;
    const double f = focus;
    float largest = 0.0f;
    // No dead zone on this scale: only the focus plane itself maps to 255.
    for (int32_t c = low; c <= high; ++c) {
        const float d = table[c];
        const float e = d - focus;
        const double coc = static_cast<double>(scale) * focal * std::fabs(2.0 * e / ((2.0 * d + f) * f));
        const float v = std::min(static_cast<float>(coc), sigma);
        self->cocTableF32[c] = v;
        largest = std::max(largest, v);
    }
    const float s = static_cast<float>(255.0 / (largest + 1e-9));
    for (int32_t c = low; c <= high; ++c) self->cocTableU8[c] = toByte(255.0 - (self->cocTableF32[c] * s));
    return largest;
}

float Cocmap_buildDisparityTableSigned(Cocmap* self, const float* table, int32_t low, int32_t high,
                                       float focus, float scale, float baseline) {
    limitCodes(&low, &high);
    if (low > high) return 0.0f;
    const float sigma = self->maxSigma;
    const float gain = scale / baseline;
    float largest = 0.0f;
    for (int32_t c = low; c <= high; ++c) {
        const float v = limitSigned(gain * (pullToFocus(table[c], focus, baseline) - focus), sigma);
        self->cocTableF32[c] = v;
        largest = std::max(largest, std::fabs(v));
    }
    // Disparity grows as objects come nearer: a near code goes above 128.
    signedBytes(self, low, high, largest, 1.0f);
    return largest;
}

float Cocmap_buildDisparityTableMagnitude(Cocmap* self, const float* table, int32_t low, int32_t high,
                                          float focus, float scale, float baseline) {
    limitCodes(&low, &high);
    if (low > high) return 0.0f;
    const float sigma = self->maxSigma;
    const double gain = scale / baseline;
    float largest = 0.0f;
    for (int32_t c = low; c <= high; ++c) {
        const float e = pullToFocus(table[c], focus, baseline) - focus;
        const float v = std::min(static_cast<float>(gain * std::fabs(e)), sigma);
        self->cocTableF32[c] = v;
        largest = std::max(largest, v);
    }
    const float s = static_cast<float>(1.0 / (largest + 1e-9));
    for (int32_t c = low; c <= high; ++c) {
        const float v = std::clamp(1.0f - self->cocTableF32[c] * s, 0.0f, 1.0f);
        self->cocTableU8[c] = toByte(v * 255.0f);
    }
    return largest;
}

TLResult Cocmap_getHistogram(Cocmap* self, const Image* src, uint32_t* histogram) {
    if (self == nullptr || src == nullptr || histogram == nullptr) return TL_ERROR_PARAM;
    const size_t bytes = sizeof(uint32_t) * kCodes * kStripes;
    uint32_t* counts = static_cast<uint32_t*>(Memory_alloc(bytes));
    if (counts == nullptr) return TL_ERROR_MEMORY;
    std::memset(counts, 0, bytes);
    HistogramJob job{src, counts};
    const ImageStripeExec exec{self->pel, nullptr};
    const TLResult r = ImageStripeExec_run(&exec, histogramStripe, &job, kStripes);
    if (r == TL_OK) {
        for (int32_t i = 0; i < kCodes; ++i) {
            uint32_t n = 0;
            for (int32_t k = 0; k < kStripes; ++k) n += counts[k * kCodes + i];
            histogram[i] = n;
        }
    }
    Memory_free(counts);
    return r;
}

int32_t Cocmap_getOtsuThreshold(const uint32_t* histogram) {
    uint64_t total = 0, moment = 0;
    for (int32_t i = 0; i < kCodes; ++i) {
        total += histogram[i];
        moment += uint64_t{histogram[i]} * i;
    }
    uint64_t w1 = 0, m1 = 0;
    double best = 0.0;
    int32_t threshold = 0;
    for (int32_t i = 0; i < kCodes - 1; ++i) {
        w1 += histogram[i];
        m1 += uint64_t{histogram[i]} * i;
        const uint64_t w2 = total - w1;
        if (w1 == 0 || w2 == 0) continue;
        const double mean1 = static_cast<double>(m1) / static_cast<double>(w1);
        const double mean2 = static_cast<double>(moment - m1) / static_cast<double>(w2);
        const double criterion = (mean1 - mean2) * (mean1 - mean2) * (static_cast<double>(w1) * w2);
        if (criterion > best) {
            best = criterion;
            threshold = i + 1;
        }
    }
    return threshold;
}

TLResult Cocmap_mapPixels(Cocmap* self, Image* dst, const Image* src) {
    if (self == nullptr || dst == nullptr || src == nullptr) return TL_ERROR_PARAM;
    if (self->cocTableU8 == nullptr) return TL_ERROR_STATE;
    MapJob job{dst, src, self->cocTableU8};
    const ImageStripeExec exec{self->pel, nullptr};
    return ImageStripeExec_run(&exec, mapStripe, &job, kStripes);
}

}  // namespace vq_tl
