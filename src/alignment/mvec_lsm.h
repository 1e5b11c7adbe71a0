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
// dof 2, 6, 14 or 24 (else TL_ERROR_PARAM); a former solver is
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
