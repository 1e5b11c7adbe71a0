// Rectify: turns a calibrated stereo pair into what the grid warp needs: a
// rectifying rotation for each camera, one new camera matrix shared by both,
// and sparse maps from rectified pixels to source pixels (and back). Exact
// coordinates are computed only at the vertices of a grid; Renderer2
// interpolates inside each cell, so no per-pixel pass ever touches real
// arithmetic.
//
// A rotation maps a camera's coordinates to the rectified frame; camera
// matrices have fx, cx, fy, cy at elements 0, 2, 4, 5, element 8 equal to 1
// and no skew. The relative rotation and translation of the pair take
// points of the first camera to the second: X2 = rotation * X1 + translation.
//
// Threads: the object holds no state of its own; its vertex loops run as
// one Pel task per vertex when a Pel is set, writing only their own vertex.
// The lens fit must not run on one lens record from two threads at once.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "runtime/env.h"

namespace vq_tl {

struct Pel;
struct RectifyLensDist;
struct Renderer2_Params;

struct Rectify {
    Env* env;
    Pel* pel;  // not owned; null runs the parallel steps on the calling thread
};

// The work memory of the lens fit: its five single-precision matrices.
int32_t Rectify_getBufferSize();
TLResult construct_Rectify(Rectify* self, Env* env);
TLResult destruct_Rectify(Rectify* self);
TLResult Rectify_init(Rectify* self);
TLResult Rectify_recycle(Rectify* self);
TLResult Rectify_setPel(Rectify* self, Pel* pel);

// cos(angle) * I + (1 - cos(angle)) * axis * axis^T + sin(angle) * [axis]x,
// the rotation by angle (radians) about axis, which is taken to be of unit
// length.
TLResult Rectify_rotationFromAxisAngle(Mvec8Real* out, const double axis[3], double angle);

// The relative rotation split in two halves, turned so that the baseline
// lies along x (or y, when its vertical component is strictly the greater).
// Results: rotation1 = align * half and rotation2 = align * half^-1, where
// align takes the axis to the baseline. A rotation of more than 90 degrees
// or a zero baseline gives TL_ERROR_GENERAL.
TLResult Rectify_calcRectifyRotMat(Rectify* rectify, Mvec8Real* rotation1, Mvec8Real* rotation2,
                                   const Mvec8Real* rotation, const double translation[3]);

// One focal length and principal point for both rectified cameras, chosen
// from the first camera alone so that its whole frame (its border walked
// at 30 points per edge, undistorted and rotated) fits in outWidth by
// outHeight less the margins, centred. Fits the lens inverse of dist1 when
// it has none. The second camera's arguments are checked for null only.
TLResult Rectify_calcRectifyNewCameraMat(Rectify* rectify, Mvec8Real* newCamera1, Mvec8Real* newCamera2,
                                         const Mvec8Real* rotation1, const Mvec8Real* camera1,
                                         RectifyLensDist* dist1, const Mvec8Real* rotation2,
                                         const Mvec8Real* camera2, const RectifyLensDist* dist2,
                                         int32_t width1, int32_t height1, int32_t width2, int32_t height2,
                                         int32_t outWidth, int32_t outHeight, int32_t marginX,
                                         int32_t marginY);

// Rectify_calcRectifyRotMat, then on success Rectify_calcRectifyNewCameraMat.
TLResult Rectify_calcRectifyMat(Rectify* rectify, Mvec8Real* rotation1, Mvec8Real* rotation2,
                                Mvec8Real* newCamera1, Mvec8Real* newCamera2, const Mvec8Real* camera1,
                                RectifyLensDist* dist1, const Mvec8Real* camera2,
                                const RectifyLensDist* dist2, const Mvec8Real* rotation,
                                const double translation[3], int32_t width1, int32_t height1, int32_t width2,
                                int32_t height2, int32_t outWidth, int32_t outHeight, int32_t marginX,
                                int32_t marginY);

// Fills x, y of every vertex of grid (laid out on the rectified frame) with
// its position in the source image of width by height pixels: through the
// new camera's inverse, the rotation's inverse, the forward lens model and
// the camera matrix. A vertex whose ideal ray lies beyond the undistorted
// image corners pushed out by 32 pixels gets 16777216.0 in both
// coordinates. inverseGrid, when given, gets the opposite map: its vertices
// are source pixels of a frame that may be smaller than width by height (the
// scale is taken from its last vertex), mapped to rectified pixels.
// Matrices with skew or a last row other than (0, 0, 1): TL_ERROR_GENERAL.
// A lens record of an unknown kind: TL_ERROR_UNSUPPORTED.
TLResult Rectify_calcRectifyGridParams(Rectify* rectify, Renderer2_Params* grid,
                                       Renderer2_Params* inverseGrid, const Mvec8Real* camera,
                                       RectifyLensDist* dist, const Mvec8Real* rotation,
                                       const Mvec8Real* newCamera, int32_t width, int32_t height);

// out = (1 - alpha) * gridB + alpha * gridA per vertex, for three grids of
// one layout (TL_ERROR_GENERAL otherwise). A vertex that is invalid in
// either input is invalid in out. alpha outside [0, 1] or not finite, or a
// coordinate that is not finite: TL_ERROR_PARAM.
TLResult Rectify_complementGridMap(Rectify* rectify, Renderer2_Params* out, const Renderer2_Params* gridA,
                                   const Renderer2_Params* gridB, double alpha);

}  // namespace vq_tl
