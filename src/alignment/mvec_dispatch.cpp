#include "alignment/mvec_dispatch.h"

#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

constexpr double kQ15 = 32768.0;

int32_t roundHalfAway(double v) {
    return static_cast<int32_t>(v >= 0.0 ? RawDouble_floor(v + 0.5) : -RawDouble_floor(-v + 0.5));
}

// Affine records.
TLResult affineIdentity(MvecDetectMulti2_Mvec* self) { return Mvec6F32_setIdentity(&self->u.affine); }
TLResult affineMult(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* a,
                    const MvecDetectMulti2_Mvec* b) {
    return Mvec6F32_mult(&r->u.affine, &a->u.affine, &b->u.affine);
}
TLResult affineInv(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* m) {
    return Mvec6F32_inv(&r->u.affine, &m->u.affine);
}
TLResult affineTrans(const MvecDetectMulti2_Mvec* m, int32_t* ox, int32_t* oy, int32_t x, int32_t y) {
    return MvecDetectMulti2_Mvec6F32_transF32(&m->u.affine, ox, oy, x, y);
}
TLResult affineUpscale(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* m) {
    return MvecDetectMulti2_Mvec6F32_upscale(&r->u.affine, &m->u.affine);
}

// Homographies of pixel coordinates.
TLResult projIdentity(MvecDetectMulti2_Mvec* self) { return Mvec8Real_setIdentity(&self->u.projective); }
TLResult projMult(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* a, const MvecDetectMulti2_Mvec* b) {
    return Mvec8Real_mult(&r->u.projective, &a->u.projective, &b->u.projective);
}
TLResult projInv(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* m) {
    return Mvec8Real_inv(&r->u.projective, &m->u.projective);
}
TLResult projTrans(const MvecDetectMulti2_Mvec* m, int32_t* ox, int32_t* oy, int32_t x, int32_t y) {
    return Mvec8Real_trans2DF32(&m->u.projective, ox, oy, x, y);
}
// S * H * S^-1 with S = diag(2, 2, 1): translations double, the perspective row halves.
TLResult projUpscale(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* m) {
    Mvec8Real h = m->u.projective;
    h.m[2] *= 2.0;
    h.m[5] *= 2.0;
    h.m[6] *= 0.5;
    h.m[7] *= 0.5;
    r->u.projective = h;
    return TL_OK;
}

// Rotations.
MvecDetectMulti2_Quat quatProduct(const MvecDetectMulti2_Quat& a, const MvecDetectMulti2_Quat& b) {
    return {a.w * b.w - a.x * b.x - a.y * b.y - a.z * b.z, a.w * b.x + a.x * b.w + a.y * b.z - a.z * b.y,
            a.w * b.y - a.x * b.z + a.y * b.w + a.z * b.x, a.w * b.z + a.x * b.y - a.y * b.x + a.z * b.w};
}
TLResult quatIdentity(MvecDetectMulti2_Mvec* self) {
    self->u.quat = {1.0, 0.0, 0.0, 0.0};
    return TL_OK;
}
TLResult quatMult(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* a, const MvecDetectMulti2_Mvec* b) {
    r->u.quat = quatProduct(a->u.quat, b->u.quat);
    return TL_OK;
}
TLResult quatInv(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* m) {
    const MvecDetectMulti2_Quat& q = m->u.quat;
    const double n = q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z;
    if (n == 0.0) return TL_ERROR_PARAM;
    r->u.quat = {q.w / n, -q.x / n, -q.y / n, -q.z / n};
    return TL_OK;
}
// The ray (x, y, f) turned by q (as q v q*, for a unit q) and projected back.
// A ray turned behind the camera has no image: TL_ERROR_PARAM, outputs unchanged.
TLResult quatTrans(const MvecDetectMulti2_Mvec* m, int32_t* ox, int32_t* oy, int32_t x, int32_t y) {
    const MvecDetectMulti2_Quat& q = m->u.quat;
    const double f = m->focalLength;
    const MvecDetectMulti2_Quat v = {0.0, x / kQ15, y / kQ15, f};
    const MvecDetectMulti2_Quat conj = {q.w, -q.x, -q.y, -q.z};
    const MvecDetectMulti2_Quat t = quatProduct(quatProduct(q, v), conj);
    if (t.z <= 0.0) return TL_ERROR_PARAM;
    *ox = roundHalfAway(f * t.x / t.z * kQ15);
    *oy = roundHalfAway(f * t.y / t.z * kQ15);
    return TL_OK;
}
// The rotation is the same on every level; only the focal length in pixels doubles.
TLResult quatUpscale(MvecDetectMulti2_Mvec* r, const MvecDetectMulti2_Mvec* m) {
    r->u.quat = m->u.quat;
    r->focalLength = m->focalLength * 2.0;
    return TL_OK;
}

constexpr MvecDetectMulti2_MvecOps kAffineOps = {affineIdentity, affineMult, affineInv, affineTrans,
                                                 affineUpscale};
constexpr MvecDetectMulti2_MvecOps kProjectiveOps = {projIdentity, projMult, projInv, projTrans, projUpscale};
constexpr MvecDetectMulti2_MvecOps kQuaternionOps = {quatIdentity, quatMult, quatInv, quatTrans, quatUpscale};

bool ready(const MvecDetectMulti2_Mvec* m) { return m != nullptr && m->ops != nullptr; }

bool sameKind(const MvecDetectMulti2_Mvec* a, const MvecDetectMulti2_Mvec* b) {
    return ready(a) && ready(b) && a->kind == b->kind;
}

}  // namespace

TLResult MvecDetectMulti2_Mvec_init(MvecDetectMulti2_Mvec* self, int32_t dof, double focalLength) {
    if (self == nullptr) return TL_ERROR_PARAM;
    switch (dof) {
        case 2:
        case 6:
        case 14:
        case 24:
            self->kind = MVEC_KIND_AFFINE;
            self->ops = &kAffineOps;
            break;
        case 8:
        case 18:
            self->kind = MVEC_KIND_PROJECTIVE;
            self->ops = &kProjectiveOps;
            break;
        case 3:
            if (!(focalLength > 0.0)) return TL_ERROR_PARAM;
            self->kind = MVEC_KIND_QUATERNION;
            self->ops = &kQuaternionOps;
            break;
        default: return TL_ERROR_PARAM;
    }
    self->dof = dof;
    self->focalLength = focalLength;
    return self->ops->setIdentity(self);
}

TLResult MvecDetectMulti2_Mvec_setIdentity(MvecDetectMulti2_Mvec* self) {
    return ready(self) ? self->ops->setIdentity(self) : TL_ERROR_PARAM;
}

TLResult MvecDetectMulti2_Mvec_mult(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* a,
                                    const MvecDetectMulti2_Mvec* b) {
    if (!sameKind(a, b) || !sameKind(result, a)) return TL_ERROR_PARAM;
    return a->ops->mult(result, a, b);
}

TLResult MvecDetectMulti2_Mvec_inv(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* m) {
    if (!sameKind(result, m)) return TL_ERROR_PARAM;
    return m->ops->inv(result, m);
}

TLResult MvecDetectMulti2_Mvec_transF32(const MvecDetectMulti2_Mvec* m, int32_t* outX, int32_t* outY,
                                        int32_t x, int32_t y) {
    if (!ready(m) || outX == nullptr || outY == nullptr) return TL_ERROR_PARAM;
    return m->ops->transF32(m, outX, outY, x, y);
}

TLResult MvecDetectMulti2_Mvec_upscale(MvecDetectMulti2_Mvec* result, const MvecDetectMulti2_Mvec* m) {
    if (!sameKind(result, m)) return TL_ERROR_PARAM;
    return m->ops->upscale(result, m);
}

}  // namespace vq_tl
