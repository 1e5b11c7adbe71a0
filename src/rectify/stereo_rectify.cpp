#include "rectify/stereo_rectify.h"

#include <cstring>

#include "imageproc/image_stripes.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/renderer2_params.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr int32_t kSynthesizeTasks = 4;

struct Synthesis {
    Renderer2_Params* grid;
    const Renderer2_Params* lookup;
};

// Not-a-number goes to low.
inline double clampReal(double v, double low, double high) { return v > low ? (v < high ? v : high) : low; }

TLResult synthesizeRows(void* arg, int32_t task, int32_t count) {
    const Synthesis& s = *static_cast<const Synthesis*>(arg);
    const Renderer2_Params& L = *s.lookup;
    Renderer2_Params& g = *s.grid;
    int32_t first, last;
    ImageStripe_rows(g.rows, task, count, &first, &last);
    const double stepX = 1.0 / L.gridWidth, stepY = 1.0 / L.gridHeight;
    const double lastCol = L.cols - 1, lastRow = L.rows - 1;
    for (int32_t v = first * g.cols; v < last * g.cols; ++v) {
        const double gx = g.x[v] * stepX, gy = g.y[v] * stepY;
        const double x0 = clampReal(RawDouble_floor(gx), 0.0, lastCol);
        const double x1 = clampReal(RawDouble_ceil(gx), 0.0, lastCol);
        const double y0 = clampReal(RawDouble_floor(gy), 0.0, lastRow);
        const double y1 = clampReal(RawDouble_ceil(gy), 0.0, lastRow);
        // a and b are the weights of the left column and the upper row.
        const double a = clampReal(x1 - gx, 0.0, 1.0), b = clampReal(y1 - gy, 0.0, 1.0);
        const int32_t i00 = static_cast<int32_t>(y0) * L.cols + static_cast<int32_t>(x0);
        const int32_t i01 = static_cast<int32_t>(y0) * L.cols + static_cast<int32_t>(x1);
        const int32_t i10 = static_cast<int32_t>(y1) * L.cols + static_cast<int32_t>(x0);
        const int32_t i11 = static_cast<int32_t>(y1) * L.cols + static_cast<int32_t>(x1);
        g.x[v] =
            (1 - a) * b * L.x[i01] + a * b * L.x[i00] + a * (1 - b) * L.x[i10] + (1 - a) * (1 - b) * L.x[i11];
        g.y[v] =
            (1 - a) * b * L.y[i01] + a * b * L.y[i00] + a * (1 - b) * L.y[i10] + (1 - a) * (1 - b) * L.y[i11];
    }
    return TL_OK;
}

bool hasArrays(const Renderer2_Params* g) {
    return g->cols > 0 && g->rows > 0 && g->x != nullptr && g->y != nullptr && g->xs != nullptr &&
           g->ys != nullptr;
}

}  // namespace

int32_t StereoRectify_getBufferSize() { return Rectify_getBufferSize(); }

TLResult construct_StereoRectify(StereoRectify* stereo, Env* env) {
    if (stereo == nullptr) return TL_ERROR_PARAM;
    std::memset(stereo, 0, sizeof *stereo);
    stereo->env = env;
    return construct_Rectify(&stereo->rectify, env);
}

TLResult destruct_StereoRectify(StereoRectify* stereo) {
    if (stereo == nullptr) return TL_ERROR_PARAM;
    destruct_Rectify(&stereo->rectify);
    std::memset(stereo, 0, sizeof *stereo);
    return TL_OK;
}

TLResult StereoRectify_recycle(StereoRectify* stereo) {
    if (stereo == nullptr) return TL_ERROR_PARAM;
    destruct_Rectify(&stereo->rectify);
    const TLResult r = construct_Rectify(&stereo->rectify, stereo->env);
    // The parallel layer belongs to the owner and stays set.
    Rectify_setPel(&stereo->rectify, stereo->pel);
    return r;
}

TLResult StereoRectify_setPel(StereoRectify* stereo, Pel* pel) {
    if (stereo == nullptr) return TL_ERROR_PARAM;
    stereo->pel = pel;
    return Rectify_setPel(&stereo->rectify, pel);
}

TLResult StereoRectify_init(StereoRectify* stereo) {
    if (stereo == nullptr) return TL_ERROR_PARAM;
    return Rectify_init(&stereo->rectify);
}

TLResult StereoRectify_stereoRectify(StereoRectify* stereo, Mvec8Real* rotation1, Mvec8Real* rotation2,
                                     Mvec8Real* newCamera1, Mvec8Real* newCamera2, const Mvec8Real* camera1,
                                     const Mvec8Real* camera2, RectifyLensDist* dist1, RectifyLensDist* dist2,
                                     const Mvec8Real* rotation, const float translation[3], int32_t outWidth,
                                     int32_t outHeight, int32_t width1, int32_t height1, int32_t width2,
                                     int32_t height2, int32_t marginX, int32_t marginY) {
    if (stereo == nullptr || translation == nullptr || camera1 == nullptr || camera2 == nullptr ||
        dist1 == nullptr || dist2 == nullptr) {
        return TL_ERROR_PARAM;
    }
    const double t[3] = {translation[0], translation[1], translation[2]};
    // A guard: the session fits every coefficient record at start already,
    // and a fitted inverse is kept.
    if (dist1->kind == 0) {
        const TLResult r =
            Rectify_estimateUndistortCoeff(&stereo->rectify, &dist1->coeff, camera1, width1, height1);
        if (r != TL_OK) return r;
    }
    if (dist2->kind == 0) {
        const TLResult r =
            Rectify_estimateUndistortCoeff(&stereo->rectify, &dist2->coeff, camera2, width2, height2);
        if (r != TL_OK) return r;
    }
    return Rectify_calcRectifyMat(&stereo->rectify, rotation1, rotation2, newCamera1, newCamera2, camera1,
                                  dist1, camera2, dist2, rotation, t, width1, height1, width2, height2,
                                  outWidth, outHeight, marginX, marginY);
}

TLResult StereoRectify_fitCameraMatrix(Mvec8Real* out, const Mvec8Real* camera, int32_t width, int32_t height,
                                       int32_t calibWidth, int32_t calibHeight) {
    if (out == nullptr || camera == nullptr) return TL_ERROR_PARAM;
    if (width < 1 || height < 1 || calibWidth < 1 || calibHeight < 1) return TL_ERROR_PARAM;
    const double fx = camera->m[0], cx = camera->m[2], fy = camera->m[4], cy = camera->m[5];
    const float w = static_cast<float>(width), h = static_cast<float>(height);
    const float cw = static_cast<float>(calibWidth), ch = static_cast<float>(calibHeight);
    Mvec8Real_setIdentity(out);
    if (int64_t{calibHeight} * width <= int64_t{calibWidth} * height) {
        // The calibration frame is at least as wide: scale by the heights,
        // crop across about the centre.
        const float scale = h / ch, inverse = ch / h;
        out->m[0] = fx * static_cast<double>(scale);
        out->m[4] = fy * static_cast<double>(scale);
        out->m[5] = cy * static_cast<double>(scale);
        const float sum = static_cast<float>(cx) + (cw - inverse * w) * -0.5f;
        out->m[2] = static_cast<double>(scale * sum);
    } else {
        const float scale = w / cw, inverse = cw / w;
        out->m[0] = fx * static_cast<double>(scale);
        out->m[2] = cx * static_cast<double>(scale);
        out->m[4] = fy * static_cast<double>(scale);
        const float sum = static_cast<float>(cy) + (ch - inverse * h) * -0.5f;
        out->m[5] = static_cast<double>(scale * sum);
    }
    return TL_OK;
}

TLResult StereoRectify_calcRectifyGridParams(StereoRectify* stereo, Renderer2_Params* grid,
                                             Renderer2_Params* inverseGrid, const Mvec8Real* rotation,
                                             const Mvec8Real* newCamera, const Mvec8Real* camera,
                                             RectifyLensDist* dist, int32_t rectWidth, int32_t rectHeight,
                                             int32_t imageWidth, int32_t imageHeight, int32_t newCalibWidth,
                                             int32_t newCalibHeight, int32_t calibWidth,
                                             int32_t calibHeight) {
    if (stereo == nullptr) return TL_ERROR_PARAM;
    Mvec8Real fitted, newFitted;
    TLResult r =
        StereoRectify_fitCameraMatrix(&fitted, camera, imageWidth, imageHeight, calibWidth, calibHeight);
    if (r == TL_OK) {
        r = StereoRectify_fitCameraMatrix(&newFitted, newCamera, rectWidth, rectHeight, newCalibWidth,
                                          newCalibHeight);
    }
    if (r != TL_OK) return r;
    return Rectify_calcRectifyGridParams(&stereo->rectify, grid, inverseGrid, &fitted, dist, rotation,
                                         &newFitted, imageWidth, imageHeight);
}

TLResult StereoRectify_synthesizeGrid(StereoRectify* stereo, Renderer2_Params* grid,
                                      const Renderer2_Params* lookup) {
    if (stereo == nullptr || grid == nullptr || lookup == nullptr || grid == lookup) return TL_ERROR_PARAM;
    if (!hasArrays(grid) || !hasArrays(lookup) || grid->x == lookup->x || grid->y == lookup->y) {
        return TL_ERROR_PARAM;
    }
    if (lookup->gridWidth < 1 || lookup->gridHeight < 1) return TL_ERROR_PARAM;
    Synthesis s = {grid, lookup};
    const ImageStripeExec exec = {stereo->pel, nullptr};
    return ImageStripeExec_run(&exec, synthesizeRows, &s, kSynthesizeTasks);
}

}  // namespace vq_tl
