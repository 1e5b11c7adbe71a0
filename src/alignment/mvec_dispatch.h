// One motion record for the multi-scale motion search, whatever the model:
// an affine Q15 map, a homography or a rotation quaternion, chosen by the
// degrees of freedom at init, with its operations in a table.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"

namespace vq_tl {

// Unit quaternion of a camera rotation; it maps the ray (x, y, f) of a pixel
// measured from the image centre.
struct MvecDetectMulti2_Quat {
    double w, x, y, z;
};

enum MvecDetectMulti2_MvecKind : int32_t {
    MVEC_KIND_AFFINE = 0,      // Mvec6F32: dof 2, 6, 14, 24
    MVEC_KIND_PROJECTIVE = 1,  // Mvec8Real: dof 8, 18
    MVEC_KIND_QUATERNION = 2,  // MvecDetectMulti2_Quat: dof 3
};

struct MvecDetectMulti2_Mvec;

struct MvecDetectMulti2_MvecOps {
    TLResult (*setIdentity)(MvecDetectMulti2_Mvec* self);
    // a after b.
    TLResult (*mult)(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* a,
                     const MvecDetectMulti2_Mvec* b);
    // A singular record gives TL_ERROR_PARAM and leaves result as it was.
    TLResult (*inv)(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* m);
    // A Q15 point (centred coordinates for the quaternion) to its image.
    TLResult (*transF32)(const MvecDetectMulti2_Mvec* m, int32_t* outX, int32_t* outY, int32_t x, int32_t y);
    // The same motion one pyramid level finer: the image twice as large.
    TLResult (*upscale)(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* m);
};

struct MvecDetectMulti2_Mvec {
    int32_t dof;
    int32_t kind;
    double focalLength;  // pixels, quaternion only
    union {
        Mvec6F32 affine;
        Mvec8Real projective;
        MvecDetectMulti2_Quat quat;
    } u;
    const MvecDetectMulti2_MvecOps* ops;
};

// Fills the table for dof 2, 3, 6, 8, 14, 18 or 24 and sets the identity;
// other dof give TL_ERROR_PARAM. focalLength is used by the quaternion only
// and must then be positive.
TLResult MvecDetectMulti2_Mvec_init(MvecDetectMulti2_Mvec* self, int32_t dof, double focalLength);

// Dispatchers: null records, a record never initialised, or records of
// different kinds give TL_ERROR_PARAM.
TLResult MvecDetectMulti2_Mvec_setIdentity(MvecDetectMulti2_Mvec* self);
TLResult MvecDetectMulti2_Mvec_mult(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* a,
                                    const MvecDetectMulti2_Mvec* b);
TLResult MvecDetectMulti2_Mvec_inv(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* m);
TLResult MvecDetectMulti2_Mvec_transF32(const MvecDetectMulti2_Mvec* m, int32_t* outX, int32_t* outY,
                                        int32_t x, int32_t y);
TLResult MvecDetectMulti2_Mvec_upscale(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* m);

}  // namespace vq_tl
