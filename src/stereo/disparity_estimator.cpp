// DisparityEstimator: tuned values, sizes, life cycle, grids and the valid mask.
#include "stereo/disparity_estimator.h"

#include <cmath>
#include <cstring>

#include "image/image_conv.h"
#include "imageproc/image_stripes.h"
#include "imageproc/rank_filter.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "runtime/memory.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// Tuned values of the two modes: normal, fine.
struct ModeValues {
    double workPercent;
    uint8_t numDisparities;
    int8_t minDisparity;
    uint8_t fractionBits;
    int32_t refinerKind;  // 0 separable bilateral, 4 domain transform
};
constexpr ModeValues kModes[2] = {
    {27.0, 24, -4, 3, 0},
    {18.0, 64, -10, 2, 4},
};

const ModeValues& modeOf(uint32_t fineMode) { return kModes[fineMode != 0 ? 1 : 0]; }

constexpr int32_t kGridCell = 32;
// Margins of the rectified frame round the source, in working pixels.
constexpr int32_t kRectifyMargin = 8;
// Orientation codes of ImageProc2_rotateImageEx: the working frame is
// orientation 1, the matching frame of rotation 1 and 3 orientation 6.
constexpr int32_t kUpright = 1;
constexpr int32_t kTurned = 6;
constexpr int32_t kBands = 4;

constexpr size_t kTableBytes = kDisparityLevels * sizeof(float);
constexpr size_t kHistogramBytes = (kDisparityLevels + 1) * sizeof(uint32_t);

bool isInputFormat(uint32_t format) {
    return format == IMAGE_FORMAT_YUV420_PLANAR || format == IMAGE_FORMAT_YUV420_SEMIPLANAR ||
           format == IMAGE_FORMAT_YVU420_SEMIPLANAR;
}

bool isTransposed(uint32_t rotation) { return rotation == 1 || rotation == 3; }

struct Sizes {
    int32_t work[2], match[2], refine[2], disparity[2];
};

Sizes sizesOf(int32_t mainWidth, int32_t mainHeight, int32_t depthWidth, int32_t depthHeight,
              uint32_t rotation, uint32_t fineMode) {
    Sizes s;
    s.work[0] = DisparityEstimator_workSize(mainWidth, fineMode);
    s.work[1] = DisparityEstimator_workSize(mainHeight, fineMode);
    const bool t = isTransposed(rotation);
    s.match[0] = t ? s.work[1] : s.work[0];
    s.match[1] = t ? s.work[0] : s.work[1];
    s.refine[0] = depthWidth & ~1;
    s.refine[1] = depthHeight & ~1;
    s.disparity[0] = DisparityEstimator_disparitySize(depthWidth);
    s.disparity[1] = DisparityEstimator_disparitySize(depthHeight);
    return s;
}

// An input reaches the working size by an area shrink, which needs it
// larger on both sides, or is taken as it is.
bool shrinksTo(int32_t width, int32_t height, const Sizes& s) {
    return (width == s.work[0] && height == s.work[1]) || (width > s.work[0] && height > s.work[1]);
}

// The valid mask is eroded at a quarter of the working size.
bool sizesUsable(const Sizes& s, int32_t mainWidth, int32_t mainHeight, int32_t subWidth, int32_t subHeight) {
    return s.work[0] >= 4 && s.work[1] >= 4 && s.refine[0] >= 2 && s.refine[1] >= 2 &&
           shrinksTo(mainWidth, mainHeight, s) && shrinksTo(subWidth, subHeight, s);
}

bool argumentsValid(int32_t mainWidth, int32_t mainHeight, int32_t subWidth, int32_t subHeight,
                    int32_t depthWidth, int32_t depthHeight, uint32_t rotation) {
    return mainWidth >= 1 && mainHeight >= 1 && subWidth >= 1 && subHeight >= 1 && depthWidth >= 1 &&
           depthHeight >= 1 && rotation <= 3;
}

// Every pixel below 255 becomes 0.
struct ThresholdJob {
    Image* mask;
};

TLResult thresholdStripe(void* arg, int32_t index, int32_t count) {
    const ThresholdJob& j = *static_cast<const ThresholdJob*>(arg);
    int32_t first, last;
    ImageStripe_rows(j.mask->height, index, count, &first, &last);
    for (int32_t y = first; y < last; ++y) {
        uint8_t* row = j.mask->plane[0] + static_cast<intptr_t>(j.mask->pitch[0]) * y;
        for (int32_t x = 0; x < j.mask->width; ++x) row[x] = row[x] == 255 ? 255 : 0;
    }
    return TL_OK;
}

// A camera matrix that Rectify can invert: no skew, last row (0, 0, 1) and
// finite, non-zero focal lengths and a finite centre.
bool isRectifiableCamera(const Mvec8Real* c) {
    const double* m = c->m;
    if (m[1] != 0.0 || m[3] != 0.0 || m[6] != 0.0 || m[7] != 0.0 || m[8] != 1.0) return false;
    return std::isfinite(m[0]) && std::isfinite(m[4]) && std::isfinite(m[2]) && std::isfinite(m[5]) &&
           m[0] != 0.0 && m[4] != 0.0;
}

bool isUsableDist(const RectifyLensDist* d) { return d->kind == 0 || d->kind == 1; }

bool isFiniteMatrix(const Mvec8Real* m) {
    for (double v : m->m) {
        if (!std::isfinite(v)) return false;
    }
    return true;
}

// After the main grid changed: the valid mask, then the focal lengths. The
// grids count as made only once all of it has succeeded.
TLResult finishMainGrid(DisparityEstimator* e, float focalLength, double calibFx, int32_t calibWidth) {
    TLResult r;
    if (isTransposed(e->rotation)) {
        Image upright;
        construct_Image(&upright, e->env);
        r = Image_init(&upright, e->workWidth, e->workHeight, nullptr, IMAGE_FORMAT_UINT8);
        if (r == TL_OK) r = DisparityEstimator_updateValidMask(e, &upright, &e->validSource, &e->mainGrid);
        if (r == TL_OK)
            r = ImageProc2_rotateImageEx(&e->imageProc2, &e->validMask, &upright, kTurned, kUpright);
        destruct_Image(&upright);
    } else {
        r = DisparityEstimator_updateValidMask(e, &e->validMask, &e->validSource, &e->mainGrid);
    }
    if (r != TL_OK) return r;
    e->focalLength = focalLength;
    e->calibFocalLength = static_cast<float>(calibFx);
    e->calibWidth = calibWidth;
    return TL_OK;
}

bool isInitialised(const DisparityEstimator* e) { return e->disparity.plane[0] != nullptr; }

}  // namespace

int32_t DisparityEstimator_workSize(int32_t size, uint32_t fineMode) {
    const double scaled = modeOf(fineMode).workPercent * size / 100.0 + 0.5;
    return static_cast<int32_t>(scaled) & ~1;
}

int32_t DisparityEstimator_disparitySize(int32_t depthSize) { return (((depthSize | 1) + 1) >> 1) & ~1; }

int32_t DisparityEstimator_getBufferSize(int32_t mainWidth, int32_t mainHeight, int32_t subWidth,
                                         int32_t subHeight, int32_t depthWidth, int32_t depthHeight,
                                         uint32_t format, uint32_t rotation, uint32_t fineMode) {
    if (!argumentsValid(mainWidth, mainHeight, subWidth, subHeight, depthWidth, depthHeight, rotation) ||
        !isInputFormat(format))
        return -1;
    const Sizes s = sizesOf(mainWidth, mainHeight, depthWidth, depthHeight, rotation, fineMode);
    if (!sizesUsable(s, mainWidth, mainHeight, subWidth, subHeight)) return -1;
    const ModeValues& m = modeOf(fineMode);
    const int32_t W = s.work[0], H = s.work[1];
    const int32_t parts[] = {
        ImageProc_getBufferSize(W, H, format),
        ImageProc2_getBufferSize(W, H, format),
        Renderer2_getBufferSize(),
        StereoRectify_getBufferSize(),
        Sgm_getBufferSize(s.match[0], s.match[1], IMAGE_FORMAT_UINT8, m.numDisparities, fineMode != 0),
        DepthMapRefiner_getBufferSize(s.refine[0], s.refine[1], s.disparity[0], s.disparity[1], s.refine[0],
                                      s.refine[1], IMAGE_FORMAT_UINT8, format, m.refinerKind),
    };
    int64_t total = 3 * int64_t{Renderer2_Params_getBufferSize()};
    for (int32_t p : parts) {
        if (p < 0) return -1;
        total += p;
    }
    total += Image_getSize(W, H, IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL);                    // validSource
    total += Image_getSize(s.match[0], s.match[1], IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL);  // validMask
    total += 2 * int64_t{Image_getSize(s.disparity[0], s.disparity[1], IMAGE_FORMAT_UINT8, IMAGE_SIZE_TOTAL)};
    total += 2 * kTableBytes + kHistogramBytes;
    return total > INT32_MAX ? -1 : static_cast<int32_t>(total);
}

TLResult construct_DisparityEstimator(DisparityEstimator* e, Env* env) {
    if (e == nullptr) return TL_ERROR_PARAM;
    std::memset(e, 0, sizeof *e);
    e->env = env;
    construct_ImageProc(&e->imageProc, env);
    construct_ImageProc2(&e->imageProc2, env);
    construct_Renderer2(&e->renderer, env);
    construct_StereoRectify(&e->stereoRectify, env);
    construct_Sgm(&e->sgm, env);
    construct_DepthMapRefiner(&e->refiner, env);
    construct_Renderer2_Params(&e->mainGrid, env);
    construct_Renderer2_Params(&e->subGrid, env);
    construct_Renderer2_Params(&e->disparityGrid, env);
    for (Image* i : {&e->validSource, &e->validMask, &e->confidence, &e->disparity}) construct_Image(i, env);
    e->focusX = 0.5f;
    e->focusY = 0.5f;
    return TL_OK;
}

TLResult destruct_DisparityEstimator(DisparityEstimator* e) {
    if (e == nullptr) return TL_ERROR_PARAM;
    for (Image* i : {&e->validSource, &e->validMask, &e->confidence, &e->disparity}) destruct_Image(i);
    destruct_Renderer2_Params(&e->disparityGrid);
    destruct_Renderer2_Params(&e->subGrid);
    destruct_Renderer2_Params(&e->mainGrid);
    destruct_DepthMapRefiner(&e->refiner);
    destruct_Sgm(&e->sgm);
    destruct_StereoRectify(&e->stereoRectify);
    destruct_Renderer2(&e->renderer);
    destruct_ImageProc2(&e->imageProc2);
    destruct_ImageProc(&e->imageProc);
    Memory_free(e->depthTable);
    Memory_free(e->inverseDepthTable);
    Memory_free(e->roiHistogram);
    Memory_free(e->scaleWork);
    std::memset(e, 0, sizeof *e);
    return TL_OK;
}

TLResult DisparityEstimator_recycle(DisparityEstimator* e) {
    if (e == nullptr) return TL_ERROR_PARAM;
    for (Image* i : {&e->validSource, &e->validMask, &e->confidence, &e->disparity}) Image_recycle(i);
    Renderer2_Params_recycle(&e->disparityGrid);
    Renderer2_Params_recycle(&e->subGrid);
    Renderer2_Params_recycle(&e->mainGrid);
    DepthMapRefiner_recycle(&e->refiner);
    Sgm_recycle(&e->sgm);
    StereoRectify_recycle(&e->stereoRectify);
    // The renderer has no recycle of its own: a fresh one.
    destruct_Renderer2(&e->renderer);
    construct_Renderer2(&e->renderer, e->env);
    ImageProc2_recycle(&e->imageProc2);
    ImageProc_recycle(&e->imageProc);
    e->focalLength = 0.0f;
    return TL_OK;
}

TLResult DisparityEstimator_setPel(DisparityEstimator* e, Pel* pel) {
    if (e == nullptr) return TL_ERROR_PARAM;
    e->pel = pel;
    TLResult r = Sgm_setPel(&e->sgm, pel);
    r |= DepthMapRefiner_setPel(&e->refiner, pel);
    r |= StereoRectify_setPel(&e->stereoRectify, pel);
    r |= ImageProc2_setPel(&e->imageProc2, pel);
    return r;
}

TLResult DisparityEstimator_setParallelExecutor(DisparityEstimator* e, ParallelExecutor* executor) {
    if (e == nullptr) return TL_ERROR_PARAM;
    e->parallelExecutor = executor;
    TLResult r = Sgm_setParallelExecutor(&e->sgm, executor);
    r |= DepthMapRefiner_setParallelExecutor(&e->refiner, executor);
    r |= ImageProc_setParallelExecutor(&e->imageProc, executor);
    return r;
}

TLResult DisparityEstimator_init(DisparityEstimator* e, int32_t mainWidth, int32_t mainHeight,
                                 int32_t subWidth, int32_t subHeight, int32_t depthWidth, int32_t depthHeight,
                                 float baseline, uint32_t format, uint32_t rotation, uint32_t fineMode) {
    if (e == nullptr) return TL_ERROR_PARAM;
    if (!argumentsValid(mainWidth, mainHeight, subWidth, subHeight, depthWidth, depthHeight, rotation))
        return TL_ERROR_PARAM;
    if (!isInputFormat(format)) return TL_ERROR_UNSUPPORTED;
    const Sizes s = sizesOf(mainWidth, mainHeight, depthWidth, depthHeight, rotation, fineMode);
    if (!sizesUsable(s, mainWidth, mainHeight, subWidth, subHeight)) return TL_ERROR_PARAM;
    DisparityEstimator_recycle(e);

    const ModeValues& m = modeOf(fineMode);
    e->fineMode = fineMode != 0 ? 1 : 0;
    e->rotation = rotation;
    e->mainWidth = mainWidth;
    e->mainHeight = mainHeight;
    e->subWidth = subWidth;
    e->subHeight = subHeight;
    e->depthWidth = depthWidth;
    e->depthHeight = depthHeight;
    e->workWidth = e->mainWorkWidth = e->subWorkWidth = s.work[0];
    e->workHeight = e->mainWorkHeight = e->subWorkHeight = s.work[1];
    e->matchWidth = s.match[0];
    e->matchHeight = s.match[1];
    e->refineWidth = s.refine[0];
    e->refineHeight = s.refine[1];
    e->disparityWidth = s.disparity[0];
    e->disparityHeight = s.disparity[1];
    e->subPixelEnabled = 1;
    e->fractionBits = m.fractionBits;
    e->numDisparities = m.numDisparities;
    e->minDisparity = m.minDisparity;
    e->baseline = baseline;
    e->minDisparityPx = e->maxDisparityPx = 0.0f;
    e->roiTotal = 0;
    e->status = DISPARITY_STATUS_USABLE;

    TLResult r = Sgm_init(&e->sgm, e->matchWidth, e->matchHeight, e->numDisparities, e->fineMode);
    if (r == TL_OK) r = ImageProc_init(&e->imageProc);
    if (r == TL_OK) r = ImageProc2_init(&e->imageProc2);
    if (r == TL_OK) r = Renderer2_setMode(&e->renderer, RENDERER2_MODE_HIGH_QUALITY);
    if (r == TL_OK) r = Renderer2_setBoundaryCheck(&e->renderer, 1);
    if (r == TL_OK) r = Renderer2_initWithPel(&e->renderer, e->pel);
    if (r == TL_OK)
        r = DepthMapRefiner_init(&e->refiner, e->refineWidth, e->refineHeight, e->disparityWidth,
                                 e->disparityHeight, e->refineWidth, e->refineHeight, IMAGE_FORMAT_UINT8,
                                 format, m.refinerKind);
    if (r == TL_OK) r = StereoRectify_init(&e->stereoRectify);
    const int32_t workRect[4] = {0, 0, e->workWidth, e->workHeight};
    const int32_t disparityRect[4] = {0, 0, e->disparityWidth, e->disparityHeight};
    if (r == TL_OK) r = Renderer2_Params_initWithGridSize(&e->mainGrid, workRect, kGridCell, kGridCell);
    if (r == TL_OK) r = Renderer2_Params_initWithGridSize(&e->subGrid, workRect, kGridCell, kGridCell);
    if (r == TL_OK)
        r = Renderer2_Params_initWithGridSize(&e->disparityGrid, disparityRect, kGridCell, kGridCell);
    if (r == TL_OK) r = Image_init(&e->validSource, e->workWidth, e->workHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = ImageUint8_clear(&e->validSource, 255);
    if (r == TL_OK) r = Image_init(&e->validMask, e->matchWidth, e->matchHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = ImageUint8_clear(&e->validMask, 0);
    if (r == TL_OK)
        r = Image_init(&e->disparity, e->disparityWidth, e->disparityHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = ImageUint8_clear(&e->disparity, 0);
    if (r == TL_OK)
        r = Image_init(&e->confidence, e->disparityWidth, e->disparityHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = ImageUint8_clear(&e->confidence, 1);
    // The tables survive recycle; a second init reuses them.
    if (r == TL_OK && e->depthTable == nullptr)
        e->depthTable = static_cast<float*>(Memory_alloc(kTableBytes));
    if (r == TL_OK && e->inverseDepthTable == nullptr)
        e->inverseDepthTable = static_cast<float*>(Memory_alloc(kTableBytes));
    if (r == TL_OK && e->roiHistogram == nullptr)
        e->roiHistogram = static_cast<uint32_t*>(Memory_alloc(kHistogramBytes));
    if (r == TL_OK &&
        (e->depthTable == nullptr || e->inverseDepthTable == nullptr || e->roiHistogram == nullptr))
        r = TL_ERROR_MEMORY;
    if (r != TL_OK) {
        DisparityEstimator_recycle(e);
        return r;
    }
    std::memset(e->depthTable, 0, kTableBytes);
    std::memset(e->inverseDepthTable, 0, kTableBytes);
    std::memset(e->roiHistogram, 0, kHistogramBytes);
    return TL_OK;
}

TLResult DisparityEstimator_setFocusCoord(DisparityEstimator* e, float x, float y) {
    if (e == nullptr) return TL_ERROR_PARAM;
    if (!(x >= 0.0f && x <= 1.0f && y >= 0.0f && y <= 1.0f)) return TL_ERROR_PARAM;
    e->focusX = x;
    e->focusY = y;
    return TL_OK;
}

TLResult DisparityEstimator_setDisparityCorrectionMode(DisparityEstimator* e, uint32_t mode) {
    if (e == nullptr) return TL_ERROR_PARAM;
    e->correctionMode = mode;
    return TL_OK;
}

TLResult DisparityEstimator_setCorrectDispParams(DisparityEstimator* e, double minSlope, double maxSlope) {
    if (e == nullptr) return TL_ERROR_PARAM;
    e->minSlope = minSlope;
    e->maxSlope = maxSlope;
    return TL_OK;
}

TLResult DisparityEstimator_getStatus(DisparityEstimator* e, int32_t* status) {
    if (e == nullptr || status == nullptr) return TL_ERROR_PARAM;
    *status = e->status;
    return TL_OK;
}

TLResult DisparityEstimator_calcGridParams(DisparityEstimator* e, const Mvec8Real* mainCamera,
                                           const Mvec8Real* subCamera, RectifyLensDist* mainDist,
                                           RectifyLensDist* subDist, Mvec8Real* stereoRotation,
                                           float translation[3], int32_t extrinsicsForward,
                                           int32_t mainCalibWidth, int32_t mainCalibHeight,
                                           int32_t subCalibWidth, int32_t subCalibHeight) {
    if (e == nullptr || mainCamera == nullptr || subCamera == nullptr || mainDist == nullptr ||
        subDist == nullptr || stereoRotation == nullptr || translation == nullptr)
        return TL_ERROR_PARAM;
    if (!isInitialised(e)) return TL_ERROR_STATE;
    if (mainCalibWidth < 1 || mainCalibHeight < 1 || subCalibWidth < 1 || subCalibHeight < 1)
        return TL_ERROR_PARAM;
    if (!isUsableDist(mainDist) || !isUsableDist(subDist)) return TL_ERROR_UNSUPPORTED;
    if (!isRectifiableCamera(mainCamera) || !isRectifiableCamera(subCamera) ||
        !isFiniteMatrix(stereoRotation))
        return TL_ERROR_GENERAL;
    double length = 0.0;
    for (int i = 0; i < 3; ++i) {
        if (!std::isfinite(translation[i])) return TL_ERROR_GENERAL;
        length += static_cast<double>(translation[i]) * translation[i];
    }
    if (length == 0.0) return TL_ERROR_GENERAL;

    // The extrinsics given the other way round are turned on copies, which go
    // back to the caller once the pair could be rectified.
    Mvec8Real rotation = *stereoRotation;
    float t[3] = {translation[0], translation[1], translation[2]};
    if (extrinsicsForward == 0) {
        const TLResult r = Mvec8Real_inv(&rotation, stereoRotation);
        if (r != TL_OK) return r;
        for (float& v : t) v = -v;
    }
    Mvec8Real rotationMain, rotationSub, newCameraMain, newCameraSub;
    TLResult r = StereoRectify_stereoRectify(
        &e->stereoRectify, &rotationMain, &rotationSub, &newCameraMain, &newCameraSub, mainCamera, subCamera,
        mainDist, subDist, &rotation, t, e->workWidth, e->workHeight, mainCalibWidth, mainCalibHeight,
        subCalibWidth, subCalibHeight, kRectifyMargin, kRectifyMargin);
    if (r != TL_OK) return r;
    *stereoRotation = rotation;
    for (int i = 0; i < 3; ++i) translation[i] = t[i];
    e->focalLength = 0.0f;
    r = StereoRectify_calcRectifyGridParams(&e->stereoRectify, &e->mainGrid, &e->disparityGrid, &rotationMain,
                                            &newCameraMain, mainCamera, mainDist, e->workWidth, e->workHeight,
                                            e->mainWorkWidth, e->mainWorkHeight, e->workWidth, e->workHeight,
                                            mainCalibWidth, mainCalibHeight);
    if (r == TL_OK)
        r = StereoRectify_calcRectifyGridParams(&e->stereoRectify, &e->subGrid, nullptr, &rotationSub,
                                                &newCameraSub, subCamera, subDist, e->workWidth,
                                                e->workHeight, e->subWorkWidth, e->subWorkHeight,
                                                e->workWidth, e->workHeight, subCalibWidth, subCalibHeight);
    if (r != TL_OK) return r;
    return finishMainGrid(e, static_cast<float>(newCameraMain.m[0]), mainCamera->m[0], mainCalibWidth);
}

TLResult DisparityEstimator_calcGridParamsEachCamera(DisparityEstimator* e, const Mvec8Real* camera,
                                                     RectifyLensDist* dist, const Mvec8Real* rectRotation,
                                                     const Mvec8Real* newCamera, int32_t calibWidth,
                                                     int32_t calibHeight, int32_t newCalibWidth,
                                                     int32_t newCalibHeight, int32_t isMain) {
    if (e == nullptr || camera == nullptr || dist == nullptr || rectRotation == nullptr ||
        newCamera == nullptr)
        return TL_ERROR_PARAM;
    if (!isInitialised(e)) return TL_ERROR_STATE;
    if (calibWidth < 1 || calibHeight < 1 || newCalibWidth < 1 || newCalibHeight < 1) return TL_ERROR_PARAM;
    if (!isUsableDist(dist)) return TL_ERROR_UNSUPPORTED;
    if (!isRectifiableCamera(camera) || !isRectifiableCamera(newCamera) || !isFiniteMatrix(rectRotation))
        return TL_ERROR_GENERAL;
    const bool main = isMain != 0;
    if (main) e->focalLength = 0.0f;
    TLResult r = StereoRectify_calcRectifyGridParams(
        &e->stereoRectify, main ? &e->mainGrid : &e->subGrid, main ? &e->disparityGrid : nullptr,
        rectRotation, newCamera, camera, dist, e->workWidth, e->workHeight,
        main ? e->mainWorkWidth : e->subWorkWidth, main ? e->mainWorkHeight : e->subWorkHeight, newCalibWidth,
        newCalibHeight, calibWidth, calibHeight);
    if (r != TL_OK) {
        e->focalLength = 0.0f;  // a grid may be half made: no frames until both are
        return r;
    }
    if (!main) return TL_OK;
    // The new camera's focal length carried over to the working frame by the
    // ratio of the diagonals' scales, square roots of integer areas.
    const double work = RawDouble_sqrt(static_cast<double>(int64_t{e->workWidth} * e->workHeight));
    const double calib = RawDouble_sqrt(static_cast<double>(int64_t{newCalibWidth} * newCalibHeight));
    return finishMainGrid(e, static_cast<float>(newCamera->m[0] * work / calib), camera->m[0], calibWidth);
}

TLResult DisparityEstimator_updateValidMask(DisparityEstimator* e, Image* mask, const Image* source,
                                            const Renderer2_Params* grid) {
    if (e == nullptr || mask == nullptr || source == nullptr || grid == nullptr) return TL_ERROR_PARAM;
    if (mask->format != IMAGE_FORMAT_UINT8 || mask->plane[0] == nullptr || mask->width < 4 ||
        mask->height < 4)
        return TL_ERROR_PARAM;
    TLResult r = ImageUint8_clear(mask, 0);
    if (r == TL_OK) r = Renderer2_render(&e->renderer, mask, source, grid);
    Image quarter;
    construct_Image(&quarter, e->env);
    if (r == TL_OK)
        r = Image_init(&quarter, mask->width >> 2, mask->height >> 2, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = ImageProc2_resizeImage(&e->imageProc2, &quarter, mask);
    if (r == TL_OK) r = ImageProc2_filterMin3x3(&e->imageProc2, &quarter, &quarter, 0);
    if (r == TL_OK) r = ImageProc2_resizeImage(&e->imageProc2, mask, &quarter);
    destruct_Image(&quarter);
    ThresholdJob job{mask};
    const ImageStripeExec exec{e->pel, nullptr};
    if (r == TL_OK) r = ImageStripeExec_run(&exec, thresholdStripe, &job, kBands);
    return r;
}

}  // namespace vq_tl
