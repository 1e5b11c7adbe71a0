// DisparityEstimator: the correction of residual tilt. When the cameras
// have moved since they were calibrated (a focal length a little off, most
// often), the rectified sub view is scaled against the main view and the
// disparity error grows linearly across the picture. Stage 7 measures that
// scale with the motion search, stage 12 adds linear ramps to the stretched
// map to take the error out.
#include <cstring>

#include "alignment/mvec_detect_multi2.h"
#include "imageproc/image_stripes.h"
#include "imageproc/resize.h"
#include "runtime/arena.h"
#include "runtime/memory.h"
#include "stereo/disparity_estimator.h"

namespace vq_tl {

namespace {

constexpr int32_t kBands = 4;
// Ramps and slopes below this many levels per pixel change nothing.
constexpr double kSmallSlope = 1e-6;

enum : uint32_t {
    CORRECTION_NONE = 0,
    CORRECTION_FROM_MAP = 1,      // the slope of the map's column minima
    CORRECTION_WHOLE = 2,         // one scale from the whole pair
    CORRECTION_THREE_STRIPS = 3,  // scales of a centre and two side strips
};

uint8_t* rowOf(const Image* i, int32_t y) { return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y; }

bool hasPixels(const Image* i) {
    return i != nullptr && i->plane[0] != nullptr && i->width > 0 && i->height > 0;
}

// Each output is the rounded mean of four consecutive pixels of its row.
struct QuarterJob {
    Image* dst;
    const Image* src;
};

TLResult quarterStripe(void* arg, int32_t index, int32_t count) {
    const QuarterJob& j = *static_cast<const QuarterJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s = rowOf(j.src, y);
        uint8_t* d = rowOf(j.dst, y);
        int32_t x = 0;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        // Two outputs from eight bytes: pairs summed in 16-bit lanes, then
        // pairs of pairs in 32-bit lanes; byte 0 is the lowest on this order.
        for (; x + 2 <= j.dst->width; x += 2, s += 8) {
            uint64_t v;
            std::memcpy(&v, s, sizeof v);
            const uint64_t pairs = (v & 0x00FF00FF00FF00FFull) + ((v >> 8) & 0x00FF00FF00FF00FFull);
            const uint64_t quads = (pairs & 0x0000FFFF0000FFFFull) + ((pairs >> 16) & 0x0000FFFF0000FFFFull);
            d[x] = static_cast<uint8_t>(((quads & 0xFFFFFFFFull) + 2) >> 2);
            d[x + 1] = static_cast<uint8_t>(((quads >> 32) + 2) >> 2);
        }
#endif
        for (; x < j.dst->width; ++x, s += 4)
            d[x] = static_cast<uint8_t>((s[0] + s[1] + s[2] + s[3] + 2) >> 2);
    }
    return TL_OK;
}

struct RampJob {
    Image* map;
    int32_t x0, width, pivot;
    float slope;
};

TLResult rampStripe(void* arg, int32_t index, int32_t count) {
    const RampJob& j = *static_cast<const RampJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.map->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* row = rowOf(j.map, y) + j.x0;
        for (int32_t x = 0; x < j.width; ++x) {
            const float v = static_cast<float>(row[x]) + j.slope * static_cast<float>(j.pivot - x) + 0.5f;
            const int32_t t = static_cast<int32_t>(v);
            row[x] = static_cast<uint8_t>(t < 0 ? 0 : t > 255 ? 255 : t);
        }
    }
    return TL_OK;
}

// The minimum of every column, by bands of columns.
struct ColumnJob {
    const Image* map;
    uint8_t* minimum;
};

TLResult columnStripe(void* arg, int32_t index, int32_t count) {
    const ColumnJob& j = *static_cast<const ColumnJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.map->width, index, count, &first, &last);
    if (first >= last) return TL_OK;
    std::memcpy(j.minimum + first, rowOf(j.map, 0) + first, static_cast<size_t>(last - first));
    for (int32_t y = 1; y < j.map->height; ++y) {
        const uint8_t* row = rowOf(j.map, y);
        for (int32_t x = first; x < last; ++x) {
            if (row[x] < j.minimum[x]) j.minimum[x] = row[x];
        }
    }
    return TL_OK;
}

// Least-squares slope of the column minima against x, levels per pixel.
TLResult columnSlope(DisparityEstimator* e, const Image* map, double* slope) {
    const int32_t w = map->width;
    uint8_t* minimum = static_cast<uint8_t*>(Memory_alloc(static_cast<size_t>(w)));
    if (minimum == nullptr) return TL_ERROR_MEMORY;
    ColumnJob job{map, minimum};
    const ImageStripeExec exec{e->pel, nullptr};
    const TLResult r = ImageStripeExec_run(&exec, columnStripe, &job, kBands);
    // Sums in 64 bits: the sum of x^2 passes 32 bits from 2048 columns on.
    uint64_t sx = 0, sc = 0, sxc = 0, sxx = 0;
    for (int32_t x = 0; x < w; ++x) {
        sx += static_cast<uint64_t>(x), sc += minimum[x];
        sxc += static_cast<uint64_t>(x) * minimum[x],
            sxx += static_cast<uint64_t>(x) * static_cast<uint64_t>(x);
    }
    Memory_free(minimum);
    const double n = w, mx = sx / n, mc = sc / n, spread = sxx / n - mx * mx;
    *slope = spread > 0.0 ? (sxc / n - mx * mc) / spread : 0.0;
    return r;
}

double clampTo(double v, double lo, double hi) { return v < lo ? lo : v > hi ? hi : v; }

// The luma of columns x to x + width of a rectified picture (UINT8 or YUV 4:2:0).
TLResult lumaStrip(Image* view, const Image* picture, int32_t x, int32_t width) {
    if (picture->format == IMAGE_FORMAT_UINT8)
        return Image_initSubImage(view, picture, x, 0, width, picture->height);
    return Image_initSubImageY(view, picture, x, 0, width, picture->height);
}

// The rectangle of a strip (x, y, width, height) that both rectified views
// cover. The warp leaves what it does not reach black (0), and the edge of
// that border lies elsewhere in each view: read as motion it would swamp
// the small scale looked for. Columns are tested at kSamples rows of the
// middle half, rows at kSamples columns of the covered ones, then columns
// again at rows of the covered ones; every side that was cut loses kFringe
// more pixels, where the pre-blur spreads the border.
void coveredRect(const Image* a, const Image* b, int32_t rect[4]) {
    constexpr int32_t kSamples = 17, kFringe = 3;
    const int32_t w = a->width, h = a->height;
    auto covered = [&](int32_t x, int32_t y) { return rowOf(a, y)[x] != 0 && rowOf(b, y)[x] != 0; };
    int32_t left = 0, right = w, top = 0, bottom = h;
    auto column = [&](int32_t x, int32_t y0, int32_t y1) {
        for (int32_t k = 0; k < kSamples; ++k) {
            if (!covered(x, y0 + k * (y1 - 1 - y0) / (kSamples - 1))) return false;
        }
        return true;
    };
    auto row = [&](int32_t y, int32_t x0, int32_t x1) {
        for (int32_t k = 0; k < kSamples; ++k) {
            if (!covered(x0 + k * (x1 - 1 - x0) / (kSamples - 1), y)) return false;
        }
        return true;
    };
    for (int32_t pass = 0; pass < 2 && left < right && top < bottom; ++pass) {
        const int32_t y0 = pass == 0 ? h / 4 : top, y1 = pass == 0 ? h - h / 4 : bottom;
        while (left < right && !column(left, y0, y1)) ++left;
        while (right > left && !column(right - 1, y0, y1)) --right;
        if (pass == 0) {
            while (top < bottom && left < right && !row(top, left, right)) ++top;
            while (bottom > top && left < right && !row(bottom - 1, left, right)) --bottom;
        }
    }
    if (left > 0) left += kFringe;
    if (right < w) right -= kFringe;
    if (top > 0) top += kFringe;
    if (bottom < h) bottom -= kFringe;
    rect[0] = left, rect[1] = top, rect[2] = right - left, rect[3] = bottom - top;
}

}  // namespace

namespace {

// The detector of stage 7, before its init.
void setUpDetector(MvecDetectMulti2* detector, Env* env) {
    construct_MvecDetectMulti2(detector, env);
    MvecDetectMulti2_setDof(detector, 6);
}

// Bytes of the work area for views of a shrunk width w by h: the detector
// record and what its init carves.
int64_t scaleWorkBytes(int32_t w, int32_t h) {
    MvecDetectMulti2 probe;
    setUpDetector(&probe, nullptr);
    const int32_t bytes = MvecDetectMulti2_getArenaSize(&probe, w, h, 2);
    destruct_MvecDetectMulti2(&probe);
    return bytes < 0 ? -1 : bytes + static_cast<int64_t>(Arena_span(sizeof(MvecDetectMulti2)));
}

// A work area for views of a shrunk width w by h, kept from an earlier
// estimate when it is large enough. The need does not grow steadily with
// the size (the feature grid's cells and sampling step come in whole
// pixels, so a slightly smaller view can want a larger list or response
// image), and the covered part of a strip changes from frame to frame by
// a few pixels: a new area has an eighth more room than asked, so that it
// is not given up and taken again for such changes.
TLResult reserveScaleWork(DisparityEstimator* e, int32_t w, int32_t h) {
    const int64_t bytes = scaleWorkBytes(w, h);
    if (bytes < 0) return TL_ERROR_PARAM;
    if (bytes <= e->scaleWorkSize) return TL_OK;
    const int64_t room = bytes + bytes / 8;
    if (room > INT32_MAX) return TL_ERROR_PARAM;
    Memory_free(e->scaleWork);
    e->scaleWork = static_cast<uint8_t*>(Memory_alloc(static_cast<size_t>(room)));
    e->scaleWorkSize = e->scaleWork != nullptr ? static_cast<int32_t>(room) : 0;
    return e->scaleWork != nullptr ? TL_OK : TL_ERROR_MEMORY;
}

// The scale of one pair of views. The detector is made for this estimate
// alone, its record and buffers carved from the work area, and each view
// is shrunk straight into the picture the detector keeps of it.
TLResult measureScale(DisparityEstimator* e, double* scale, const Image* mainView, const Image* subView) {
    // Only the width is reduced: the scale is read along the full height,
    // where disparity does not move the picture.
    const int32_t w = mainView->width >> 2, h = mainView->height;
    *scale = 1.0;
    if (w < 1) return TL_OK;
    TLResult r = reserveScaleWork(e, w, h);
    if (r != TL_OK) return r;
    Arena arena;
    Arena_init(&arena, e->scaleWork, static_cast<size_t>(e->scaleWorkSize));
    MvecDetectMulti2* detector =
        static_cast<MvecDetectMulti2*>(Arena_alloc(&arena, sizeof(MvecDetectMulti2)));
    if (detector == nullptr) return TL_ERROR_MEMORY;
    setUpDetector(detector, e->env);
    MvecDetectMulti2_setPel(detector, e->pel);
    MvecDetectMulti2_setArena(detector, &arena);
    r = MvecDetectMulti2_init(detector, w, h, 2);
    const Image* views[2] = {mainView, subView};
    const ImageStripeExec exec{e->pel, nullptr};
    for (int32_t i = 0; i < 2 && r == TL_OK; ++i) {
        Image* shrunk = MvecDetectMulti2_getNextImage(detector);
        if (shrunk == nullptr) {
            r = TL_ERROR_STATE;
        } else if (views[i]->format == IMAGE_FORMAT_UINT8) {
            QuarterJob job{shrunk, views[i]};
            r = ImageStripeExec_run(&exec, quarterStripe, &job, kBands);
        } else {
            r = ImageProc2_resizeImage(&e->imageProc2, shrunk, views[i]);
        }
        if (r == TL_OK) r = MvecDetectMulti2_addImage(detector, shrunk);
    }
    int32_t motion[6];
    if (r == TL_OK) r = MvecDetectMulti2_outputMvec(detector, motion);
    // A picture without texture leaves the identity: a scale of 1.0.
    if (r == TL_OK) *scale = motion[4] * (1.0 / 32768.0);
    destruct_MvecDetectMulti2(detector);
    return r;
}

}  // namespace

TLResult DisparityEstimator_estimateScale(DisparityEstimator* e, double* scale, const Image* mainView,
                                          const Image* subView) {
    if (e == nullptr || scale == nullptr || !hasPixels(mainView) || !hasPixels(subView))
        return TL_ERROR_PARAM;
    if (mainView->width != subView->width || mainView->height != subView->height) return TL_ERROR_PARAM;
    *scale = 1.0;
    return measureScale(e, scale, mainView, subView);
}

TLResult DisparityEstimator_estimateScales(DisparityEstimator* e, const Image* main, const Image* sub) {
    if (e == nullptr || !hasPixels(main) || !hasPixels(sub)) return TL_ERROR_PARAM;
    if (e->correctionMode != CORRECTION_WHOLE && e->correctionMode != CORRECTION_THREE_STRIPS) return TL_OK;
    const int32_t W = main->width, w = W / 6;
    // Centre first, then right, then left; the whole pair in mode 2.
    const int32_t strips[3][2] = {{w, W - 2 * w}, {W - w, w}, {0, w}};
    const int32_t count = e->correctionMode == CORRECTION_WHOLE ? 1 : 3;
    double scales[3] = {1.0, 1.0, 1.0};
    TLResult r = TL_OK;
    for (int32_t i = 0; i < count && r == TL_OK; ++i) {
        const int32_t x = count == 1 ? 0 : strips[i][0], width = count == 1 ? W : strips[i][1];
        if (width < 1) continue;
        Image mainView, subView;
        construct_Image(&mainView, e->env);
        construct_Image(&subView, e->env);
        Image mainPart, subPart;
        construct_Image(&mainPart, e->env);
        construct_Image(&subPart, e->env);
        r = lumaStrip(&mainView, main, x, width);
        if (r == TL_OK) r = lumaStrip(&subView, sub, x, width);
        int32_t rect[4] = {0, 0, 0, 0};
        if (r == TL_OK) coveredRect(&mainView, &subView, rect);
        if (r == TL_OK && rect[2] >= 4 && rect[3] > 0) {
            r = Image_initSubImage(&mainPart, &mainView, rect[0], rect[1], rect[2], rect[3]);
            if (r == TL_OK) r = Image_initSubImage(&subPart, &subView, rect[0], rect[1], rect[2], rect[3]);
            if (r == TL_OK) r = measureScale(e, &scales[i], &mainPart, &subPart);
        }
        destruct_Image(&mainPart);
        destruct_Image(&subPart);
        destruct_Image(&mainView);
        destruct_Image(&subView);
    }
    if (r != TL_OK) return r;
    e->centreScale = scales[0];
    if (count == 3) e->rightScale = scales[1], e->leftScale = scales[2];
    return TL_OK;
}

TLResult DisparityEstimator_addRamp(DisparityEstimator* e, Image* map, int32_t x0, int32_t width,
                                    double slope, int32_t pivot) {
    if (e == nullptr || !hasPixels(map) || map->format != IMAGE_FORMAT_UINT8 || x0 < 0 || width < 0 ||
        x0 + width > map->width)
        return TL_ERROR_PARAM;
    if (!(slope >= kSmallSlope || slope <= -kSmallSlope) || width == 0) return TL_OK;
    RampJob job{map, x0, width, pivot, static_cast<float>(slope)};
    const ImageStripeExec exec{e->pel, nullptr};
    return ImageStripeExec_run(&exec, rampStripe, &job, kBands);
}

TLResult DisparityEstimator_correctDisparity(DisparityEstimator* e, Image* disparity, float minPx,
                                             float maxPx) {
    if (e == nullptr || !hasPixels(disparity) || disparity->format != IMAGE_FORMAT_UINT8)
        return TL_ERROR_PARAM;
    const uint32_t mode = e->correctionMode;
    if (mode != CORRECTION_FROM_MAP && mode != CORRECTION_WHOLE && mode != CORRECTION_THREE_STRIPS)
        return TL_OK;
    // Rotations 1 and 3 match across the transposed frame, where the scales
    // (read along the other axis) do not describe the map's rows: no ramp.
    if (e->rotation == 1 || e->rotation == 3) return TL_OK;
    const int32_t P = disparity->width;
    // A flat map has no range to turn slopes into levels, and a map before
    // the grids no focal lengths: nothing to correct.
    if (!(maxPx > minPx) || !(e->calibFocalLength > 0.0f) || e->calibWidth <= 0) return TL_OK;
    // Levels per working pixel of disparity, and working pixels per pixel of
    // the map (the map's focal length is the calibration's scaled to P).
    const double levels = 255.0 / (static_cast<double>(maxPx) - static_cast<double>(minPx));
    const double g = static_cast<double>(e->focalLength) /
                     ((static_cast<double>(P) / e->calibWidth) * static_cast<double>(e->calibFocalLength));
    // Sign: a sub view magnified by s moves x_sub by (s - 1) (x - c). At rotation 0 the disparity
    // x_main - x_sub falls by that, so the slope is -(s - 1) levels g (the plain one would double
    // the tilt); at rotation 2 it is x_sub - x_main, which rises by that: the plain slope is right.
    const double sign = e->rotation == 2 ? 1.0 : -1.0;
    const double perScale = sign * levels * g;
    const double lo = e->minSlope * levels * g, hi = e->maxSlope * levels * g;
    double centre;
    TLResult r = TL_OK;
    if (mode == CORRECTION_FROM_MAP) {
        if (!(hi - lo > 1e-6)) {
            centre = 0.5 * (lo + hi);
        } else {
            r = columnSlope(e, disparity, &centre);
            centre = clampTo(centre, lo, hi);
        }
    } else {
        centre = clampTo((e->centreScale - 1.0) * perScale, lo, hi);
    }
    if (r == TL_OK) r = DisparityEstimator_addRamp(e, disparity, 0, P, centre, P >> 1);
    if (r != TL_OK || mode != CORRECTION_THREE_STRIPS) return r;
    // The side strips continue the centre's ramp with their own slopes,
    // unclamped: the map's tilt bends at one and five sixths of the width.
    const int32_t w = P / 6;
    r = DisparityEstimator_addRamp(e, disparity, 0, w, (e->leftScale - 1.0) * perScale - centre, w);
    if (r == TL_OK)
        r = DisparityEstimator_addRamp(e, disparity, P - w, w, (e->rightScale - 1.0) * perScale - centre, 0);
    return r;
}

}  // namespace vq_tl
