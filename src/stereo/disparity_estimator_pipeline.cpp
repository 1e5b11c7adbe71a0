// DisparityEstimator: the frame pipeline (estimateDisparity) and the lift of
// its map to the depth size (refineDisparity).
#include <cmath>
#include <cstring>
#include <utility>

#include "imageproc/blur.h"
#include "imageproc/image_stripes.h"
#include "imageproc/pixel_ops.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "stereo/disparity_estimator.h"

namespace vq_tl {

namespace {

constexpr int32_t kBands = 4;
constexpr int32_t kUpright = 1;
constexpr int32_t kTurnedLeft = 6;   // the matching frame of rotation 1 and 3
constexpr int32_t kTurnedRight = 8;  // back from it
// Corners of the confidence are cleared at least this far in normal mode.
constexpr int32_t kMinCornerClear = 24;
// Rows of the match view searched round each row: rectification leaves up
// to a few rows of vertical error, more at the finer scale.
constexpr int32_t kRowWindow[2] = {9, 21};
// Pre-blur of the rectified pair, main and sub: the sub is the match view
// and is blurred less.
constexpr double kPreBlur[2][2] = {{0.75, 0.5625}, {1.0, 0.75}};
// The last byte-wise threshold that Sgm can take.
constexpr float kMaxThreshold = 256.0f;

template <typename T>
inline T minOf(T a, T b) {
    return b < a ? b : a;
}

bool isYuv420(uint32_t format) {
    return format == IMAGE_FORMAT_YUV420_PLANAR || format == IMAGE_FORMAT_YUV420_SEMIPLANAR ||
           format == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}

bool hasPixels(const Image* i) {
    return i != nullptr && i->plane[0] != nullptr && i->width > 0 && i->height > 0;
}

bool isTransposed(uint32_t rotation) { return rotation == 1 || rotation == 3; }

uint8_t* rowOf(const Image* i, int32_t y) { return i->plane[0] + static_cast<intptr_t>(i->pitch[0]) * y; }

// Work images of one call, released together on every path.
struct Temps {
    Image image[10];
    int32_t count;
};

void Temps_construct(Temps* t, Env* env) {
    for (Image& i : t->image) construct_Image(&i, env);
    t->count = 0;
}

Image* Temps_take(Temps* t) { return &t->image[t->count++]; }

Image* Temps_make(Temps* t, int32_t width, int32_t height, uint32_t format, TLResult* r) {
    if (*r != TL_OK) return nullptr;
    Image* i = Temps_take(t);
    *r = Image_init(i, width, height, nullptr, format);
    return *r == TL_OK ? i : nullptr;
}

void Temps_release(Temps* t) {
    for (Image& i : t->image) destruct_Image(&i);
    t->count = 0;
}

// ---- Kernels -----------------------------------------------------------------

// The U and V planes of a planar 4:2:0 picture interleaved into UINT88.
struct InterleaveJob {
    Image* dst;
    const Image* src;
};

TLResult interleaveStripe(void* arg, int32_t index, int32_t count) {
    const InterleaveJob& j = *static_cast<const InterleaveJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.dst->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* u = j.src->plane[1] + static_cast<intptr_t>(j.src->pitch[1]) * y;
        const uint8_t* v = j.src->plane[2] + static_cast<intptr_t>(j.src->pitch[2]) * y;
        uint8_t* d = rowOf(j.dst, y);
        for (int32_t x = 0; x < j.dst->width; ++x) {
            d[2 * x] = u[x];
            d[2 * x + 1] = v[x];
        }
    }
    return TL_OK;
}

// Three-pixel minimum along rows; the end pixels take the minimum of two.
struct ErodeJob {
    Image* dst;
    const Image* src;
};

TLResult erodeStripe(void* arg, int32_t index, int32_t count) {
    const ErodeJob& j = *static_cast<const ErodeJob*>(arg);
    const int32_t w = j.src->width;
    int32_t first, last;
    ImageStripe_rows(j.src->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        const uint8_t* s = rowOf(j.src, y);
        uint8_t* d = rowOf(j.dst, y);
        for (int32_t x = 0; x < w; ++x) {
            uint8_t m = s[x];
            if (x > 0) m = minOf(m, s[x - 1]);
            if (x + 1 < w) m = minOf(m, s[x + 1]);
            d[x] = m;
        }
    }
    return TL_OK;
}

// Occlusion filling along rows: an unconfident pixel takes the value of its
// neighbour on the side the scan comes from; the first pixel of the scan
// takes the first confident value of the row (or keeps its own).
struct FillJob {
    Image* disparity;
    const Image* confidence;
    uint8_t passValue;
    int32_t rightToLeft;
};

TLResult fillStripe(void* arg, int32_t index, int32_t count) {
    const FillJob& j = *static_cast<const FillJob*>(arg);
    const int32_t w = j.disparity->width;
    // Positions along the scan: x = start + step * i.
    const int32_t start = j.rightToLeft != 0 ? w - 1 : 0, step = j.rightToLeft != 0 ? -1 : 1;
    int32_t first, last;
    ImageStripe_rows(j.disparity->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* d = rowOf(j.disparity, y);
        const uint8_t* c = rowOf(j.confidence, y);
        for (int32_t i = 0; i < w; ++i) {
            const int32_t x = start + step * i;
            if (c[x] == j.passValue) {
                d[start] = d[x];
                break;
            }
        }
        for (int32_t i = 1; i < w; ++i) {
            const int32_t x = start + step * i;
            if (c[x] != j.passValue) d[x] = d[x - step];
        }
    }
    return TL_OK;
}

// Radial lowering of fine mode.
struct LowerJob {
    Image* map;
    float rate, inner, outer;
    int32_t amount;  // the subtractive form when rate is not above 0
};

TLResult lowerStripe(void* arg, int32_t index, int32_t count) {
    const LowerJob& j = *static_cast<const LowerJob*>(arg);
    const int32_t w = j.map->width, h = j.map->height;
    const int32_t cx = w >> 1, cy = h >> 1;
    const float norm = std::sqrt(static_cast<float>(int64_t{cx} * cx + int64_t{cy} * cy));
    const float span = j.outer - j.inner;
    int32_t first, last;
    ImageStripe_rows(h, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* row = rowOf(j.map, y);
        const int64_t dy = y - cy;
        for (int32_t x = 0; x < w; ++x) {
            const int64_t dx = x - cx;
            const float r = std::sqrt(static_cast<float>(dx * dx + dy * dy)) / norm;
            if (j.rate > 0.0f) {
                float factor = 1.0f + (j.rate - 1.0f) / span * (r - j.inner);
                if (!(factor >= j.rate)) factor = j.rate;
                if (factor > 1.0f) factor = 1.0f;
                row[x] = static_cast<uint8_t>(static_cast<int32_t>(0.5f + factor * row[x]));
            } else {
                float cut = 0.5f + (r - j.inner) / span;
                if (!(cut >= 0.0f)) cut = 0.0f;
                if (cut > static_cast<float>(j.amount)) cut = static_cast<float>(j.amount);
                const int32_t v = row[x] - static_cast<int32_t>(cut);
                row[x] = static_cast<uint8_t>(v > 0 ? v : 0);
            }
        }
    }
    return TL_OK;
}

// ---- Stages --------------------------------------------------------------------

// Clears an n by n square (clipped to the picture) of the confidence at each
// of the four corners, n the steps from that corner along the diagonal of the
// mask to its first covered pixel, at least kMinCornerClear.
void clearCorners(Image* confidence, const Image* mask) {
    const int32_t w = mask->width, h = mask->height;
    const int32_t diagonal = minOf(w, h);
    for (int32_t corner = 0; corner < 4; ++corner) {
        const bool right = (corner & 1) != 0, bottom = (corner & 2) != 0;
        // The mask's frame includes the centre, so the walk ends inside the
        // picture; a mask without cover on the diagonal clears the whole square.
        int32_t steps = 0;
        while (steps < diagonal) {
            const int32_t x = right ? w - 1 - steps : steps, y = bottom ? h - 1 - steps : steps;
            if (rowOf(mask, y)[x] == 255) break;
            ++steps;
        }
        const int32_t n = steps > kMinCornerClear ? steps : kMinCornerClear;
        const int32_t nx = minOf(n, w), ny = minOf(n, h);
        for (int32_t i = 0; i < ny; ++i) {
            const int32_t y = bottom ? h - 1 - i : i;
            std::memset(rowOf(confidence, y) + (right ? w - nx : 0), 0, static_cast<size_t>(nx));
        }
    }
}

// What stage 11 publishes besides the maps and the status: the range and
// the tables, and the focus window's histogram.
struct Published {
    float minPx, maxPx;
    float depth[kDisparityLevels], inverse[kDisparityLevels];
    uint32_t histogram[kDisparityLevels + 1];
    uint32_t total;
};

void keepPublished(const DisparityEstimator* e, Published* p) {
    p->minPx = e->minDisparityPx, p->maxPx = e->maxDisparityPx, p->total = e->roiTotal;
    if (e->depthTable != nullptr) std::memcpy(p->depth, e->depthTable, sizeof p->depth);
    if (e->inverseDepthTable != nullptr) std::memcpy(p->inverse, e->inverseDepthTable, sizeof p->inverse);
    if (e->roiHistogram != nullptr) std::memcpy(p->histogram, e->roiHistogram, sizeof p->histogram);
}

void restorePublished(DisparityEstimator* e, const Published* p) {
    e->minDisparityPx = p->minPx, e->maxDisparityPx = p->maxPx, e->roiTotal = p->total;
    if (e->depthTable != nullptr) std::memcpy(e->depthTable, p->depth, sizeof p->depth);
    if (e->inverseDepthTable != nullptr) std::memcpy(e->inverseDepthTable, p->inverse, sizeof p->inverse);
    if (e->roiHistogram != nullptr) std::memcpy(e->roiHistogram, p->histogram, sizeof p->histogram);
}

// Turns *image from orientation `from` to `to` into a new work image, which
// *image then points at.
TLResult turn(DisparityEstimator* e, Temps* t, Image** image, int32_t from, int32_t to, TLResult r) {
    if (r != TL_OK) return r;
    const Image* src = *image;
    Image* dst = Temps_make(t, src->height, src->width, src->format, &r);
    if (r == TL_OK) r = ImageProc2_rotateImageEx(&e->imageProc2, dst, src, from, to);
    if (r == TL_OK) *image = dst;
    return r;
}

TLResult validateFrame(const DisparityEstimator* e, const Image* mainImage, const Image* subImage,
                       float threshold) {
    if (e->disparity.plane[0] == nullptr || !(e->focalLength > 0.0f)) return TL_ERROR_STATE;
    if (!hasPixels(mainImage) || !hasPixels(subImage)) return TL_ERROR_PARAM;
    if (!isYuv420(mainImage->format)) return TL_ERROR_UNSUPPORTED;
    if (!isYuv420(subImage->format) && subImage->format != IMAGE_FORMAT_UINT8) return TL_ERROR_UNSUPPORTED;
    if (mainImage->width != e->mainWidth || mainImage->height != e->mainHeight) return TL_ERROR_PARAM;
    if (subImage->width != e->subWidth || subImage->height != e->subHeight) return TL_ERROR_PARAM;
    if (!(threshold >= 0.0f && threshold < kMaxThreshold)) return TL_ERROR_PARAM;
    return TL_OK;
}

}  // namespace

TLResult DisparityEstimator_lumaView(Image* view, const Image* image) {
    if (view == nullptr || !hasPixels(image)) return TL_ERROR_PARAM;
    if (isYuv420(image->format)) return Image_initSubImageY(view, image, 0, 0, image->width, image->height);
    if (image->format == IMAGE_FORMAT_UINT8)
        return Image_initSubImage(view, image, 0, 0, image->width, image->height);
    return TL_ERROR_UNSUPPORTED;
}

TLResult DisparityEstimator_clearImage(DisparityEstimator* e, Image* image) {
    if (e == nullptr || !hasPixels(image)) return TL_ERROR_PARAM;
    // Black: luma 0, chroma at its neutral 128.
    if (isYuv420(image->format)) {
        const TLResult r = ImageProc_clear(&e->imageProc, image, 128);
        return r == TL_OK ? ImageProc_clearY(&e->imageProc, image, 0) : r;
    }
    if (image->format == IMAGE_FORMAT_UINT8) return ImageProc_clearY(&e->imageProc, image, 0);
    return TL_ERROR_UNSUPPORTED;
}

TLResult DisparityEstimator_warpToWork(DisparityEstimator* e, Image* destination, const Image* source,
                                       int32_t isMain) {
    if (e == nullptr || destination == nullptr || !hasPixels(source)) return TL_ERROR_PARAM;
    const bool main = isMain != 0;
    const int32_t w = main ? e->mainWorkWidth : e->subWorkWidth,
                  h = main ? e->mainWorkHeight : e->subWorkHeight;
    const Renderer2_Params* grid = main ? &e->mainGrid : &e->subGrid;
    if (source->width == w && source->height == h)
        return Renderer2_render(&e->renderer, destination, source, grid);
    Image shrunk;
    construct_Image(&shrunk, e->env);
    TLResult r = Image_init(&shrunk, w, h, nullptr, source->format);
    if (r == TL_OK) r = ImageProc2_averageShrink(&e->imageProc2, &shrunk, source);
    if (r == TL_OK) r = Renderer2_render(&e->renderer, destination, &shrunk, grid);
    destruct_Image(&shrunk);
    return r;
}

TLResult DisparityEstimator_makeChromaGuide(DisparityEstimator* e, Image* guide, const Image* main) {
    if (e == nullptr || !hasPixels(guide) || !hasPixels(main)) return TL_ERROR_PARAM;
    Image chroma;
    construct_Image(&chroma, e->env);
    TLResult r;
    switch (main->format) {
        case IMAGE_FORMAT_YUV420_PLANAR: {
            r = Image_init(&chroma, main->width >> 1, main->height >> 1, nullptr, IMAGE_FORMAT_UINT88);
            InterleaveJob job{&chroma, main};
            const ImageStripeExec exec{e->pel, nullptr};
            if (r == TL_OK) r = ImageStripeExec_run(&exec, interleaveStripe, &job, kBands);
            break;
        }
        case IMAGE_FORMAT_YUV420_SEMIPLANAR:
        case IMAGE_FORMAT_YVU420_SEMIPLANAR:
            r = Image_initSubImageUV(&chroma, main, 0, 0, main->width, main->height);
            break;
        default: r = TL_ERROR_UNSUPPORTED;
    }
    if (r == TL_OK) r = ImageProc2_resizeImage(&e->imageProc2, guide, &chroma);
    destruct_Image(&chroma);
    return r;
}

TLResult DisparityEstimator_matchU8(DisparityEstimator* e, Image* disparity, Image* confidence,
                                    const Image* main, const Image* sub, uint32_t smallPenalty,
                                    uint32_t largePenalty, float threshold, uint8_t failValue,
                                    uint8_t passValue) {
    if (e == nullptr || !hasPixels(disparity) || !hasPixels(confidence) || !hasPixels(main) ||
        !hasPixels(sub))
        return TL_ERROR_PARAM;
    const int32_t w = disparity->width, h = disparity->height;
    // The main view is always the base view; which of Sgm's two views it is
    // follows from the side the sub camera sits on after the rotation.
    const int32_t swapped = e->rotation == 2 || e->rotation == 3 ? 0 : 1;
    const int32_t f = e->subPixelEnabled != 0 ? e->fractionBits : 0;
    Temps t;
    Temps_construct(&t, e->env);
    TLResult r = TL_OK;
    Image* guide = Temps_make(&t, w, h, IMAGE_FORMAT_UINT88, &r);
    Image* other = Temps_make(&t, w, h, IMAGE_FORMAT_UINT8, &r);
    Image* checked = Temps_make(&t, w, h, IMAGE_FORMAT_UINT8, &r);
    Image* mainLuma = r == TL_OK ? Temps_take(&t) : nullptr;
    if (r == TL_OK) r = DisparityEstimator_makeChromaGuide(e, guide, main);
    if (r == TL_OK) r = DisparityEstimator_lumaView(mainLuma, main);
    if (r == TL_OK) {
        const Image* view1 = swapped != 0 ? mainLuma : sub;
        const Image* view2 = swapped != 0 ? sub : mainLuma;
        Image* map1 = swapped != 0 ? disparity : other;
        Image* map2 = swapped != 0 ? other : disparity;
        r = Sgm_createDisparityU8(&e->sgm, map1, map2, view1, view2, &e->validMask, guide, e->numDisparities,
                                  e->minDisparity, kRowWindow[e->fineMode != 0], f, smallPenalty,
                                  largePenalty, 1, swapped);
        if (r == TL_OK)
            r = Sgm_createConfidenceU8(&e->sgm, checked, map1, map2, e->numDisparities, e->minDisparity, f,
                                       static_cast<uint32_t>(threshold), failValue, passValue, swapped);
    }
    if (r == TL_OK) {
        if (e->fineMode != 0) {
            r = ImageProc_min(&e->imageProc, checked, checked, &e->validMask);
        } else {
            clearCorners(checked, &e->validMask);
        }
    }
    ErodeJob erode{confidence, checked};
    const ImageStripeExec exec{e->pel, nullptr};
    if (r == TL_OK) r = ImageStripeExec_run(&exec, erodeStripe, &erode, kBands);
    Temps_release(&t);
    return r;
}

TLResult DisparityEstimator_lowerDisparity(DisparityEstimator* e, Image* map) {
    if (e == nullptr || !hasPixels(map) || map->format != IMAGE_FORMAT_UINT8) return TL_ERROR_PARAM;
    const int32_t f = e->subPixelEnabled != 0 ? e->fractionBits : 0;
    LowerJob job{map, e->lowerRate, e->lowerInnerRadius, e->lowerOuterRadius, int32_t{e->lowerAmount} << f};
    if (!(e->lowerRate > 0.0f) && e->lowerAmount == 0) return TL_OK;
    const ImageStripeExec exec{e->pel, nullptr};
    return ImageStripeExec_run(&exec, lowerStripe, &job, kBands);
}

TLResult DisparityEstimator_finishDisparity(DisparityEstimator* e, const Image* map, const Image* confidence,
                                            uint8_t passValue) {
    if (e == nullptr || !hasPixels(map) || !hasPixels(confidence)) return TL_ERROR_PARAM;
    if (e->disparity.plane[0] == nullptr) return TL_ERROR_STATE;
    Temps temps;
    Temps_construct(&temps, e->env);
    Temps* t = &temps;
    TLResult r = TL_OK;
    Image* disparity = Temps_make(t, e->disparityWidth, e->disparityHeight, IMAGE_FORMAT_UINT8, &r);
    Image* valid = Temps_make(t, e->disparityWidth, e->disparityHeight, IMAGE_FORMAT_UINT8, &r);
    // Pixels that the warp does not reach start as the maps do after init
    // (disparity 0, confidence 1), so that a frame depends on its inputs alone.
    if (r == TL_OK) r = ImageProc_clearY(&e->imageProc, disparity, 0);
    if (r == TL_OK) r = ImageProc_clearY(&e->imageProc, valid, 1);
    // 8: back into the main view at the disparity frame's size.
    if (r == TL_OK) r = Renderer2_render(&e->renderer, disparity, map, &e->disparityGrid);
    if (r == TL_OK) r = Renderer2_render(&e->renderer, valid, confidence, &e->disparityGrid);
    // 9: hole treatment. Fine mode fills with DepthMapFiller, which does not
    // exist yet: refuse rather than hand on an unfilled map.
    if (r == TL_OK && e->fineMode != 0) r = TL_ERROR_UNSUPPORTED;
    FillJob fill{disparity, valid, passValue, e->rotation == 2 || e->rotation == 3 ? 1 : 0};
    const ImageStripeExec exec{e->pel, nullptr};
    if (r == TL_OK) r = ImageStripeExec_run(&exec, fillStripe, &fill, kBands);
    // 10: radial lowering, fine mode only.
    if (r == TL_OK && e->fineMode == 1) r = DisparityEstimator_lowerDisparity(e, disparity);
    // 11: range, stretch, depth tables and status, all of the new map. The
    // tables go straight into the estimator, where the status reads them;
    // the last good ones are kept aside until the frame has come through.
    uint8_t low = 0, high = 0;
    if (r == TL_OK) r = DisparityEstimator_getDisparityRange(e, &low, &high, disparity);
    if (r == TL_OK) r = DisparityEstimator_stretchDisparity(e, disparity, low, high);
    Published last;
    const bool tablesTaken = r == TL_OK;
    int32_t status = 0;
    if (tablesTaken) {
        keepPublished(e, &last);
        DisparityEstimator_updateDepthTables(e, low, high);
        r = DisparityEstimator_updateStatus(e, &status, disparity, valid, passValue);
    }
    // 12: correction of residual tilt, plain branch only, in levels of the
    // range stage 11 has just measured.
    if (r == TL_OK && !isTransposed(e->rotation))
        r = DisparityEstimator_correctDisparity(e, disparity, e->minDisparityPx, e->maxDisparityPx);
    if (r == TL_OK) {
        // The new maps take the place of the last good ones only now.
        std::swap(e->disparity, *disparity);
        std::swap(e->confidence, *valid);
        e->status = status;
    } else if (tablesTaken) {
        restorePublished(e, &last);
    }
    Temps_release(t);
    return r;
}

TLResult DisparityEstimator_estimateDisparity(DisparityEstimator* e, const Image* mainImage,
                                              const Image* subImage, uint32_t smallPenalty,
                                              uint32_t largePenalty, float threshold, uint8_t failValue,
                                              uint8_t passValue) {
    if (e == nullptr) return TL_ERROR_PARAM;
    TLResult r = validateFrame(e, mainImage, subImage, threshold);
    if (r != TL_OK) return r;
    const int32_t fine = e->fineMode != 0 ? 1 : 0;
    const int32_t W = e->workWidth, H = e->workHeight;
    Temps t;
    Temps_construct(&t, e->env);

    // 1: the sub's luma and the cleared rectified pair.
    Image* subLuma = Temps_take(&t);
    r = DisparityEstimator_lumaView(subLuma, subImage);
    Image* main = Temps_make(&t, W, H, mainImage->format, &r);
    Image* sub = Temps_make(&t, W, H, IMAGE_FORMAT_UINT8, &r);
    if (r == TL_OK) r = DisparityEstimator_clearImage(e, main);
    if (r == TL_OK) r = DisparityEstimator_clearImage(e, sub);
    // 2: warp; 3: pre-blur.
    if (r == TL_OK) r = DisparityEstimator_warpToWork(e, main, mainImage, 1);
    if (r == TL_OK) r = DisparityEstimator_warpToWork(e, sub, subLuma, 0);
    if (r == TL_OK) r = ImageProc_pgaussBlur(&e->imageProc, main, main, 0, kPreBlur[fine][0]);
    if (r == TL_OK) r = ImageProc_pgaussBlur(&e->imageProc, sub, sub, 0, kPreBlur[fine][1]);
    // 4: into the matching frame.
    const bool transposed = isTransposed(e->rotation);
    if (transposed) {
        r = turn(e, &t, &main, kTurnedLeft, kUpright, r);
        r = turn(e, &t, &sub, kTurnedLeft, kUpright, r);
    }
    // 5: matching.
    Image* map = Temps_make(&t, e->matchWidth, e->matchHeight, IMAGE_FORMAT_UINT8, &r);
    Image* confidence = Temps_make(&t, e->matchWidth, e->matchHeight, IMAGE_FORMAT_UINT8, &r);
    if (r == TL_OK)
        r = DisparityEstimator_matchU8(e, map, confidence, main, sub, smallPenalty, largePenalty, threshold,
                                       failValue, passValue);
    // 6: back to the working frame.
    if (transposed) {
        r = turn(e, &t, &map, kTurnedRight, kUpright, r);
        r = turn(e, &t, &confidence, kTurnedRight, kUpright, r);
    }
    // 7: scale estimates for the tilt correction, plain branch only.
    if (r == TL_OK && !transposed) r = DisparityEstimator_estimateScales(e, main, sub);
    // 8 to 12.
    if (r == TL_OK) r = DisparityEstimator_finishDisparity(e, map, confidence, passValue);
    Temps_release(&t);
    return r;
}

TLResult DisparityEstimator_refineDisparity(DisparityEstimator* e, Image* output, const Image* mainImage,
                                            uint8_t window, int32_t guideMode, float sigmaSpace,
                                            float sigmaRange) {
    if (e == nullptr) return TL_ERROR_PARAM;
    if (e->disparity.plane[0] == nullptr) return TL_ERROR_STATE;
    if (!(sigmaRange <= 64.0f)) return TL_ERROR_PARAM;
    if (!hasPixels(output) || output->format != IMAGE_FORMAT_UINT8 || output->width != e->depthWidth ||
        output->height != e->depthHeight)
        return TL_ERROR_PARAM;
    if (window == 0) return ImageProc2_resizeImage(&e->imageProc2, output, &e->disparity);
    if (guideMode < 1 || guideMode > 3 || !hasPixels(mainImage)) return TL_ERROR_PARAM;
    if (!isYuv420(mainImage->format)) return TL_ERROR_UNSUPPORTED;

    const int32_t rw = e->refineWidth, rh = e->refineHeight;
    Temps t;
    Temps_construct(&t, e->env);
    TLResult r = TL_OK;
    // The chroma guide is left to the refiner, which takes the UV plane of
    // the main image and resizes it to the output exactly as this step would.
    const Image* guide = mainImage;
    if (guideMode != 2 && (mainImage->width != rw || mainImage->height != rh)) {
        Image* resized = Temps_make(&t, rw, rh, mainImage->format, &r);
        if (r == TL_OK) r = ImageProc2_resizeImage(&e->imageProc2, resized, mainImage);
        guide = resized;
    }
    // An odd output is refined at the even size and enlarged by one pixel.
    const bool even = rw == e->depthWidth && rh == e->depthHeight;
    Image* target = even ? output : Temps_make(&t, rw, rh, IMAGE_FORMAT_UINT8, &r);
    if (r == TL_OK)
        r = DepthMapRefiner_crossFilter(&e->refiner, target, &e->disparity, guide, window, guideMode,
                                        sigmaSpace, sigmaRange);
    if (r == TL_OK && !even) r = ImageProc2_resizeImage(&e->imageProc2, output, target);
    Temps_release(&t);
    return r;
}

}  // namespace vq_tl
