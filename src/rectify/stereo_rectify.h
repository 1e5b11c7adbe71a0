// StereoRectify: the pair-level wrapper of Rectify. It reconciles three
// sizes: the one the calibration was made at, the one the images come in
// and the one the rectified pair is wanted in, by rescaling and
// centre-cropping camera matrices; and it composes two grids into one.
//
// For a pair: StereoRectify_stereoRectify once, then
// StereoRectify_calcRectifyGridParams for the first camera (rotation1,
// newCamera1, with the inverse grid) and for the second (rotation2,
// newCamera2, no inverse grid).
//
// Threads: as Rectify; one call at a time per object.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "rectify/rectify.h"

namespace vq_tl {

struct StereoRectify {
    Env* env;
    Pel* pel;  // not owned
    Rectify rectify;
};

int32_t StereoRectify_getBufferSize();
TLResult construct_StereoRectify(StereoRectify* stereo, Env* env);
TLResult destruct_StereoRectify(StereoRectify* stereo);
// Destructs and constructs the inner Rectify again.
TLResult StereoRectify_recycle(StereoRectify* stereo);
TLResult StereoRectify_setPel(StereoRectify* stereo, Pel* pel);
TLResult StereoRectify_init(StereoRectify* stereo);

// Rectifying rotations and the shared new camera matrix of a pair (the
// first four arguments are the results). translation is three floats, in
// the direction of the relative rotation: X2 = rotation * X1 + translation;
// a caller with the extrinsics the other way round inverts the rotation and
// negates the translation first. Lens records of the coefficient kind get
// their inverse fitted (at the calibration sizes width1 by height1 and
// width2 by height2) before Rectify_calcRectifyMat.
TLResult StereoRectify_stereoRectify(StereoRectify* stereo, Mvec8Real* rotation1, Mvec8Real* rotation2,
                                     Mvec8Real* newCamera1, Mvec8Real* newCamera2, const Mvec8Real* camera1,
                                     const Mvec8Real* camera2, RectifyLensDist* dist1, RectifyLensDist* dist2,
                                     const Mvec8Real* rotation, const float translation[3], int32_t outWidth,
                                     int32_t outHeight, int32_t width1, int32_t height1, int32_t width2,
                                     int32_t height2, int32_t marginX, int32_t marginY);

// The grid of one camera: camera (calibrated at calibWidth by calibHeight)
// fitted to images of imageWidth by imageHeight, newCamera (made for
// newCalibWidth by newCalibHeight) fitted to the rectified frame of
// rectWidth by rectHeight, then Rectify_calcRectifyGridParams. The fitted
// matrices carry fx, fy, cx and cy only, so a skew term is dropped here;
// StereoRectify_stereoRectify refuses a skewed first camera.
TLResult StereoRectify_calcRectifyGridParams(StereoRectify* stereo, Renderer2_Params* grid,
                                             Renderer2_Params* inverseGrid, const Mvec8Real* rotation,
                                             const Mvec8Real* newCamera, const Mvec8Real* camera,
                                             RectifyLensDist* dist, int32_t rectWidth, int32_t rectHeight,
                                             int32_t imageWidth, int32_t imageHeight, int32_t newCalibWidth,
                                             int32_t newCalibHeight, int32_t calibWidth, int32_t calibHeight);

// The matrix of a camera calibrated at calibWidth by calibHeight, for images
// of width by height: scaled by the ratio of heights and cropped about the
// centre across when the calibration frame is at least as wide as the
// target (in aspect), else scaled by the ratio of widths and cropped down.
// The scale is a 32-bit float; sizes below 1: TL_ERROR_PARAM.
TLResult StereoRectify_fitCameraMatrix(Mvec8Real* out, const Mvec8Real* camera, int32_t width, int32_t height,
                                       int32_t calibWidth, int32_t calibHeight);

// Composes grid with lookup in place: each vertex of grid, read as a pixel
// of lookup's frame, is replaced by lookup's bilinear interpolation there.
// Vertices outside lookup take its edge; an invalid vertex is not treated
// apart. grid and lookup must be two grids (TL_ERROR_PARAM otherwise).
TLResult StereoRectify_synthesizeGrid(StereoRectify* stereo, Renderer2_Params* grid,
                                      const Renderer2_Params* lookup);

}  // namespace vq_tl
