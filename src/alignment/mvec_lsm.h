// The motion solvers of the multi-scale motion search: weighted point pairs
// between images of a sequence in, one motion per image out, behind one
// table of operations chosen by the degrees of freedom.
//
// Every solver fits, for each image i above 0, the map that carries its
// points onto the reference image 0; pairs of two later images ask that
// both land on the same reference point. outputMvec hands out the inverse:
// the motion from the reference to image i, in top-left pixel coordinates
// (centred ones for the rotation quaternion).
//
// Positions are Q15 pixels, weights small positive integers (the detector
// passes the strength byte). A solve that cannot be done (too few points,
// a singular system, no convergence) sets its failure code and leaves the
// former solutions; a fresh solver holds identities.
//
// Threads: a solver belongs to one caller.
#pragma once

#include <cstdint>

#include "alignment/mvec_dispatch.h"
#include "runtime/env.h"

namespace vq_tl {

constexpr int32_t kMvecLsmMaxImages = 16;

// Failure codes; a solve may set several.
enum : uint32_t {
    MVEC_LSM_FAILURE_TOO_FEW_POINTS = 0x1,  // some image has fewer than half as many points as unknowns
    MVEC_LSM_FAILURE_SINGULAR = 0x2,        // the normal system has no unique solution
    MVEC_LSM_FAILURE_NOT_CONVERGED = 0x4,   // an iterative solver ran out of steps
    MVEC_LSM_FAILURE_MEMORY = 0x8,          // a point pair could not be stored
};

// ---- The linear family: dof 2, 6, 14 (four parameters, horizontal form) and
// 24 (vertical form) share one record; the model decides which of the six
// affine elements are unknowns.
//
//   dof 2   x' = x + c,           y' = y + f
//   dof 6   x' = a x + b y + c,   y' = d x + e y + f
//   dof 14  x' = a x + b y + c,   y' = y + f
//   dof 24  x' = x + c,           y' = d x + e y + f

// Moments of the points of one pair of images (i below j), coordinates Q15
// relative to the image centre, each product shifted right by 15 and then
// weighted: the sum of weights, x1, y1, x2, y2, x1 x1, x1 y1, y1 y1, x2 x2,
// x2 y2, y2 y2, x1 x2, x1 y2, y1 x2, y1 y2; and the number of pairs.
struct MvecDetectMulti2_LsmPairSums {
    int64_t w, x1, y1, x2, y2, x1x1, x1y1, y1y1, x2x2, x2y2, y2y2, x1x2, x1y2, y1x2, y1y2;
    int32_t points;
};

struct MvecDetectMulti2_Lsm6 {
    uint32_t failureCode;                    // 0 when the last solve succeeded
    uint32_t images;                         // N, at most 16
    uint32_t failureFlags;                   // the images (bit i) that the last solve found short of points
    MvecDetectMulti2_LsmPairSums* pairSums;  // N * N records, pair (i, j) at i * N + j; owned
    double (*solution)[6];                   // per image, affine elements, image to reference, centred
    uint32_t width, height;
    int32_t halfWidth, halfHeight;  // width << 14, height << 14: the centre in Q15
    int32_t dof;                    // the model
    int32_t used;                   // images that have had points: 1 + the highest index seen
    Env* env;
};

TLResult construct_MvecDetectMulti2_Lsm6(MvecDetectMulti2_Lsm6* lsm, Env* env);
TLResult destruct_MvecDetectMulti2_Lsm6(MvecDetectMulti2_Lsm6* lsm);
// images 2 to 16, sizes of at least 1, else TL_ERROR_PARAM. TL_ERROR_MEMORY
// leaves nothing allocated. The forms of the other models set the model.
TLResult MvecDetectMulti2_Lsm6_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                    int32_t images);
TLResult MvecDetectMulti2_Lsm2_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                    int32_t images);
TLResult MvecDetectMulti2_Lsm4H_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                     int32_t images);
TLResult MvecDetectMulti2_Lsm4V_init(MvecDetectMulti2_Lsm6* lsm, int32_t width, int32_t height,
                                     int32_t images);
TLResult MvecDetectMulti2_Lsm6_clear(MvecDetectMulti2_Lsm6* lsm);
// Zeroes the pairs that involve `image`.
TLResult MvecDetectMulti2_Lsm6_clearBlock(MvecDetectMulti2_Lsm6* lsm, int32_t image);
// Images in [0, N) and different, weight at least 0 (0 adds nothing), else
// TL_ERROR_PARAM. The pair is kept with the lower image first.
TLResult MvecDetectMulti2_Lsm6_addF32(MvecDetectMulti2_Lsm6* lsm, int32_t image1, int32_t x1, int32_t y1,
                                      int32_t image2, int32_t x2, int32_t y2, int32_t weight);
// Homogeneous points (x, y, z), Q15: added as (x / z, y / z). z of 0: TL_ERROR_PARAM.
TLResult MvecDetectMulti2_Lsm6_add3DF32(MvecDetectMulti2_Lsm6* lsm, int32_t image1, const int32_t p1[3],
                                        int32_t image2, const int32_t p2[3], int32_t weight);
// Solves images 1 to used - 1 together. TL_OK also when the solve fails:
// the failure code tells.
TLResult MvecDetectMulti2_Lsm6_solve(MvecDetectMulti2_Lsm6* lsm);
uint32_t MvecDetectMulti2_Lsm6_getFailureCode(const MvecDetectMulti2_Lsm6* lsm);
// The motion from the reference to image, as an affine record (mvec must be
// initialised for an affine dof): the solution rounded half away from zero
// to Q15, inverted and moved to the top-left origin; identity for image 0
// or when either step fails.
TLResult MvecDetectMulti2_Lsm6_outputMvec(MvecDetectMulti2_Lsm6* lsm, MvecDetectMulti2_Mvec* mvec,
                                          int32_t image);
// The solution of image from such a motion; TL_ERROR_PARAM for a singular one.
TLResult MvecDetectMulti2_Lsm6_setInitialMvec(MvecDetectMulti2_Lsm6* lsm, const MvecDetectMulti2_Mvec* mvec,
                                              int32_t image);
// Drops image from the sums and solutions; later images move down by one.
TLResult MvecDetectMulti2_Lsm6_update(MvecDetectMulti2_Lsm6* lsm, int32_t image);

// ---- Pure rotation (dof 3): unit quaternions, points as rays (x - cx,
// y - cy, focalLength), Gauss-Newton on the chordal distance of the rays.

struct MvecDetectMulti2_LsmPoint {
    int32_t image1, image2;
    double x1, y1, x2, y2;  // pixels, centred
    double weight;
};

// A growing store of point pairs for the iterative solvers.
struct MvecDetectMulti2_LsmPoints {
    MvecDetectMulti2_LsmPoint* points;  // owned
    int32_t count, capacity;
    int32_t lost;  // pairs that could not be stored since the last clear
};

struct MvecDetectMulti2_Lsm3Q {
    uint32_t failureCode;
    int32_t images, used;
    int32_t width, height;
    double focalLength;  // pixels; 1000 until set
    MvecDetectMulti2_LsmPoints store;
    MvecDetectMulti2_Quat rotation[kMvecLsmMaxImages];  // image ray to reference ray
    Env* env;
};

TLResult construct_MvecDetectMulti2_Lsm3Q(MvecDetectMulti2_Lsm3Q* lsm, Env* env);
TLResult destruct_MvecDetectMulti2_Lsm3Q(MvecDetectMulti2_Lsm3Q* lsm);
TLResult MvecDetectMulti2_Lsm3Q_init(MvecDetectMulti2_Lsm3Q* lsm, int32_t width, int32_t height,
                                     int32_t images);
// focalLength must be positive, else TL_ERROR_PARAM.
TLResult MvecDetectMulti2_Lsm3Q_setFocalLength(MvecDetectMulti2_Lsm3Q* lsm, double focalLength);
TLResult MvecDetectMulti2_Lsm3Q_clear(MvecDetectMulti2_Lsm3Q* lsm);
TLResult MvecDetectMulti2_Lsm3Q_clearBlock(MvecDetectMulti2_Lsm3Q* lsm, int32_t image);
// Positions in top-left Q15 pixels; a pair that cannot be stored sets
// MVEC_LSM_FAILURE_MEMORY for the next solve and returns TL_ERROR_MEMORY.
TLResult MvecDetectMulti2_Lsm3Q_addF32(MvecDetectMulti2_Lsm3Q* lsm, int32_t image1, int32_t x1, int32_t y1,
                                       int32_t image2, int32_t x2, int32_t y2, int32_t weight);
TLResult MvecDetectMulti2_Lsm3Q_solve(MvecDetectMulti2_Lsm3Q* lsm);
uint32_t MvecDetectMulti2_Lsm3Q_getFailureCode(const MvecDetectMulti2_Lsm3Q* lsm);
// A quaternion record (dof 3) with this solver's focal length.
TLResult MvecDetectMulti2_Lsm3Q_outputMvec(MvecDetectMulti2_Lsm3Q* lsm, MvecDetectMulti2_Mvec* mvec,
                                           int32_t image);
TLResult MvecDetectMulti2_Lsm3Q_setInitialMvec(MvecDetectMulti2_Lsm3Q* lsm, const MvecDetectMulti2_Mvec* mvec,
                                               int32_t image);
TLResult MvecDetectMulti2_Lsm3Q_update(MvecDetectMulti2_Lsm3Q* lsm, int32_t image);

// ---- Generic iterative solvers of homographies, one per image: MILsm8St
// on coordinates centred and scaled by half the larger side, MILsm8R on
// camera rays (centred, divided by the focal length), started from the best
// pure rotation. Levenberg-Marquardt on the distances in the reference.

struct MILsm8St {
    uint32_t failureCode;
    int32_t images, used;
    int32_t width, height;
    double centreX, centreY, scale;  // pixel = centre + scale * normalised
    double restraint;                // weight pulling every element back to its initial value
    MvecDetectMulti2_LsmPoints store;
    double homography[kMvecLsmMaxImages][9];  // normalised, image to reference, element 8 is 1
    double initial[kMvecLsmMaxImages][9];
    int32_t fromRotation;  // MILsm8R: start from the best rotation
    Env* env;
};
using MILsm8R = MILsm8St;

TLResult construct_MILsm8St(MILsm8St* ml, Env* env);
TLResult destruct_MILsm8St(MILsm8St* ml);
TLResult MILsm8St_init(MILsm8St* ml, int32_t width, int32_t height, int32_t images);
// Removes all pairs and sets the number of images (2 to 16), keeping the
// solutions of the images that stay.
TLResult MILsm8St_changeImageNum(MILsm8St* ml, int32_t images);
// dst takes src's settings, pairs and solutions; TL_ERROR_MEMORY leaves dst as it was.
TLResult MILsm8St_copy(MILsm8St* dst, const MILsm8St* src);
TLResult MILsm8St_clear(MILsm8St* ml);
TLResult MILsm8St_clearBlock(MILsm8St* ml, int32_t image);
// Top-left pixels as floats, as Q15 and as reals.
TLResult MILsm8St_add(MILsm8St* ml, int32_t image1, float x1, float y1, int32_t image2, float x2, float y2,
                      float weight);
TLResult MILsm8St_addF32(MILsm8St* ml, int32_t image1, int32_t x1, int32_t y1, int32_t image2, int32_t x2,
                         int32_t y2, int32_t weight);
TLResult MILsm8St_addReal(MILsm8St* ml, int32_t image1, double x1, double y1, int32_t image2, double x2,
                          double y2, double weight);
// restraint at least 0 (else TL_ERROR_PARAM): added to the cost times the
// squared distance of the normalised elements from their initial values.
TLResult MILsm8St_setRestraint(MILsm8St* ml, double restraint);
TLResult MILsm8St_solve(MILsm8St* ml);
uint32_t MILsm8St_getFailureCode(const MILsm8St* ml);
// The motion from the reference to image in top-left pixels, element 8 = 1.
TLResult MILsm8St_outputMvecReal(const MILsm8St* ml, Mvec8Real* m, int32_t image);
TLResult MILsm8St_outputMvec(const MILsm8St* ml, MvecDetectMulti2_Mvec* mvec, int32_t image);
// Sets both the solution and the initial value of image; a singular record
// gives TL_ERROR_PARAM.
TLResult MILsm8St_setInitialMvecReal(MILsm8St* ml, const Mvec8Real* m, int32_t image);
TLResult MILsm8St_setInitialMvec(MILsm8St* ml, const MvecDetectMulti2_Mvec* mvec, int32_t image);

TLResult construct_MILsm8R(MILsm8R* ml, Env* env);
TLResult destruct_MILsm8R(MILsm8R* ml);
TLResult MILsm8R_init(MILsm8R* ml, int32_t width, int32_t height, int32_t images);
// The camera: focal length in pixels (positive) and principal point.
TLResult MILsm8R_setCameraParam(MILsm8R* ml, double focalLength, double centreX, double centreY);
TLResult MILsm8R_solve(MILsm8R* ml);

// ---- The table of operations and the thin object over it.

struct MvecDetectMulti2_LsmOps {
    TLResult (*init)(void* state, int32_t width, int32_t height, int32_t images);
    TLResult (*clear)(void* state);
    TLResult (*addF32)(void* state, int32_t image1, int32_t x1, int32_t y1, int32_t image2, int32_t x2,
                       int32_t y2, int32_t weight);
    TLResult (*add3DF32)(void* state, int32_t image1, const int32_t p1[3], int32_t image2,
                         const int32_t p2[3], int32_t weight);
    TLResult (*solve)(void* state);
    uint32_t (*getFailureCode)(const void* state);
    TLResult (*outputMvec)(void* state, MvecDetectMulti2_Mvec* mvec, int32_t image);
    TLResult (*update)(void* state, int32_t image);
    TLResult (*setInitialMvec)(void* state, const MvecDetectMulti2_Mvec* mvec, int32_t image);
    TLResult (*setFocalLength)(void* state, double focalLength);  // null where the model has none
    TLResult (*clearBlock)(void* state, int32_t image);
    void (*release)(void* state);  // what init took
    int32_t unknowns;              // per image
};

struct MvecDetectMulti2_Lsm {
    int32_t dof;
    const MvecDetectMulti2_LsmOps* ops;
    void* state;  // owned, of the solver's record type
    Env* env;
};

TLResult construct_MvecDetectMulti2_Lsm(MvecDetectMulti2_Lsm* lsm, Env* env);
TLResult destruct_MvecDetectMulti2_Lsm(MvecDetectMulti2_Lsm* lsm);
// dof 2, 3, 6, 8, 14, 18 or 24 (else TL_ERROR_PARAM); a former solver is
// released first. TL_ERROR_MEMORY leaves nothing allocated.
TLResult MvecDetectMulti2_Lsm_init(MvecDetectMulti2_Lsm* lsm, int32_t dof, int32_t width, int32_t height,
                                   int32_t images);
// Dispatchers; TL_ERROR_PARAM (getFailureCode: all bits) before init.
TLResult MvecDetectMulti2_Lsm_clear(MvecDetectMulti2_Lsm* lsm);
TLResult MvecDetectMulti2_Lsm_clearBlock(MvecDetectMulti2_Lsm* lsm, int32_t image);
TLResult MvecDetectMulti2_Lsm_addF32(MvecDetectMulti2_Lsm* lsm, int32_t image1, int32_t x1, int32_t y1,
                                     int32_t image2, int32_t x2, int32_t y2, int32_t weight);
TLResult MvecDetectMulti2_Lsm_add3DF32(MvecDetectMulti2_Lsm* lsm, int32_t image1, const int32_t p1[3],
                                       int32_t image2, const int32_t p2[3], int32_t weight);
TLResult MvecDetectMulti2_Lsm_solve(MvecDetectMulti2_Lsm* lsm);
uint32_t MvecDetectMulti2_Lsm_getFailureCode(const MvecDetectMulti2_Lsm* lsm);
TLResult MvecDetectMulti2_Lsm_outputMvec(MvecDetectMulti2_Lsm* lsm, MvecDetectMulti2_Mvec* mvec,
                                         int32_t image);
TLResult MvecDetectMulti2_Lsm_update(MvecDetectMulti2_Lsm* lsm, int32_t image);
TLResult MvecDetectMulti2_Lsm_setInitialMvec(MvecDetectMulti2_Lsm* lsm, const MvecDetectMulti2_Mvec* mvec,
                                             int32_t image);
// TL_OK without effect for models that need no focal length.
TLResult MvecDetectMulti2_Lsm_setFocalLength(MvecDetectMulti2_Lsm* lsm, double focalLength);

// Symmetric positive definite solve in place by Cholesky: a is n by n, row
// major, b the right-hand side (becomes the solution). False when a pivot
// falls below 1e-10 of the largest diagonal element (singular).
bool MvecDetectMulti2_Lsm_solveSpd(double* a, double* b, int32_t n);

}  // namespace vq_tl
