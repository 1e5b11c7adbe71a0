#include "rectify/rectify.h"

#include <cstring>

#include "image/image.h"
#include "imageproc/image_stripes.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/rectify_util.h"
#include "rectify/renderer2_params.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// Below this sine the relative rotation counts as none.
constexpr double kNoRotation = 1e-30;
constexpr double kAlignedCosine = 1e-20;
constexpr double kNoAxis = 1e-16;
// align must take the axis onto the baseline to this precision.
constexpr double kSelfCheck = 1e-10;
// Points per edge of the border walk.
constexpr int32_t kBorderPoints = 30;
// Rays beyond the image corners pushed out this far have no source pixel.
constexpr double kRadiusMargin = 32.0;
// Steps from the optical centre to a pushed corner in which the fitted
// inverse must grow, and in which the forward model is walked instead.
constexpr int32_t kLimitSteps = 64;

inline double absolute(double v) { return v < 0.0 ? -v : v; }
inline bool isFinite(double v) { return v == v && v - v == 0.0; }
inline double norm3(const double v[3]) { return RawDouble_sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }

// A camera matrix without skew whose last row is (0, 0, 1), exactly.
bool isPlainCamera(const Mvec8Real* k) {
    return k->m[1] == 0.0 && k->m[3] == 0.0 && k->m[6] == 0.0 && k->m[7] == 0.0 && k->m[8] == 1.0;
}

// The vertex loops: one Pel task per vertex, the results or'ed; without a
// Pel in order on the calling thread, stopping at the first failure.
TLResult runVertices(Pel* pel, ImageStripeFn fn, void* arg, int32_t count) {
    if (pel != nullptr) {
        const ImageStripeExec exec = {pel, nullptr};
        return ImageStripeExec_run(&exec, fn, arg, count);
    }
    for (int32_t v = 0; v < count; ++v) {
        const TLResult r = fn(arg, v, count);
        if (r != TL_OK) return r;
    }
    return TL_OK;
}

struct ForwardMap {
    Renderer2_Params* grid;
    Mvec8Real back;    // rectified pixel to ideal ray of the camera
    Mvec8Real camera;  // distorted normalised point to source pixel
    const RectifyLensDist* dist;
    double limit;  // largest ideal radius with a source pixel
};

TLResult forwardVertex(void* arg, int32_t v, int32_t count) {
    (void)count;
    const ForwardMap& m = *static_cast<const ForwardMap*>(arg);
    double x, y;
    TLResult r = Mvec8Real_trans2DReal(&m.back, &x, &y, m.grid->xs[v], m.grid->ys[v]);
    if (r != TL_OK) return r;
    // A ray beyond the limit would fold back through the lens polynomial.
    if (!(RawDouble_hypot(x, y) <= m.limit)) {
        m.grid->x[v] = kRenderer2InvalidVertex;
        m.grid->y[v] = kRenderer2InvalidVertex;
        return TL_OK;
    }
    double dx, dy;
    r = Rectify_distortPoint(x, y, &dx, &dy, m.dist);
    if (r != TL_OK) return r;
    return Mvec8Real_trans2DReal(&m.camera, &m.grid->x[v], &m.grid->y[v], dx, dy);
}

struct InverseMap {
    Renderer2_Params* grid;
    Mvec8Real scaled;   // grid pixel to distorted normalised point
    Mvec8Real forward;  // ideal ray to rectified pixel
    const RectifyLensDist* dist;
};

TLResult inverseVertex(void* arg, int32_t v, int32_t count) {
    (void)count;
    const InverseMap& m = *static_cast<const InverseMap*>(arg);
    double x, y, ux, uy;
    TLResult r = Mvec8Real_trans2DReal(&m.scaled, &x, &y, m.grid->xs[v], m.grid->ys[v]);
    if (r == TL_OK) r = Rectify_undistortPoint(x, y, &ux, &uy, m.dist);
    if (r == TL_OK) r = Mvec8Real_trans2DReal(&m.forward, &m.grid->x[v], &m.grid->y[v], ux, uy);
    return r;
}

struct Blend {
    Renderer2_Params* out;
    const Renderer2_Params* a;
    const Renderer2_Params* b;
    double alpha;
};

TLResult blendVertex(void* arg, int32_t v, int32_t count) {
    (void)count;
    const Blend& s = *static_cast<const Blend*>(arg);
    if (s.a->xs[v] != s.out->xs[v] || s.b->xs[v] != s.out->xs[v] || s.a->ys[v] != s.out->ys[v] ||
        s.b->ys[v] != s.out->ys[v]) {
        return TL_ERROR_GENERAL;
    }
    const double ax = s.a->x[v], ay = s.a->y[v], bx = s.b->x[v], by = s.b->y[v];
    if (!isFinite(ax) || !isFinite(ay) || !isFinite(bx) || !isFinite(by)) return TL_ERROR_PARAM;
    if (ax == kRenderer2InvalidVertex || ay == kRenderer2InvalidVertex || bx == kRenderer2InvalidVertex ||
        by == kRenderer2InvalidVertex) {
        s.out->x[v] = kRenderer2InvalidVertex;
        s.out->y[v] = kRenderer2InvalidVertex;
        return TL_OK;
    }
    s.out->x[v] = (1.0 - s.alpha) * bx + s.alpha * ax;
    s.out->y[v] = (1.0 - s.alpha) * by + s.alpha * ay;
    return TL_OK;
}

// The ideal radius of a pushed corner, the distorted normalised point (x, y):
// by the fitted inverse when it grows all the way out to the corner, else by
// the forward model, walked outwards until it reaches the corner's radius.
TLResult cornerRadius(const RectifyLensDist* dist, double x, double y, double* radius) {
    double ux, uy;
    TLResult r = Rectify_undistortPoint(x, y, &ux, &uy, dist);
    if (r != TL_OK) return r;
    *radius = RawDouble_hypot(ux, uy);
    double last = 0.0;
    bool monotonic = true;
    for (int32_t i = 1; i < kLimitSteps && monotonic; ++i) {
        const double s = static_cast<double>(i) / kLimitSteps;
        r = Rectify_undistortPoint(x * s, y * s, &ux, &uy, dist);
        if (r != TL_OK) return r;
        const double h = RawDouble_hypot(ux, uy);
        monotonic = h > last;
        last = h;
    }
    if (monotonic && *radius > last) return TL_OK;
    // The forward model from the centre outwards, in steps of a sixty-fourth
    // of the distorted radius, then halving the step that reaches it.
    const double target = RawDouble_hypot(x, y);
    if (!(target > 0.0)) return TL_OK;
    const double cx = x / target, cy = y / target, step = target / kLimitSteps;
    double inside = 0.0, reached = 0.0, previous = 0.0;
    for (int32_t i = 1; i <= 4 * kLimitSteps && reached == 0.0; ++i) {
        const double t = step * i;
        double dx, dy;
        r = Rectify_distortPoint(cx * t, cy * t, &dx, &dy, dist);
        if (r != TL_OK) return r;
        const double h = RawDouble_hypot(dx, dy);
        if (!(h > previous)) break;  // the lens folds back here: its last growing radius is the limit
        previous = h;
        if (h >= target) {
            reached = t;
        } else {
            inside = t;
        }
    }
    if (reached == 0.0) {
        *radius = inside;
        return TL_OK;
    }
    for (int32_t i = 0; i < 40; ++i) {
        const double t = 0.5 * (inside + reached);
        double dx, dy;
        r = Rectify_distortPoint(cx * t, cy * t, &dx, &dy, dist);
        if (r != TL_OK) return r;
        if (RawDouble_hypot(dx, dy) >= target) {
            reached = t;
        } else {
            inside = t;
        }
    }
    *radius = reached;
    return TL_OK;
}

bool hasArrays(const Renderer2_Params* g) {
    return g->cols > 0 && g->rows > 0 && g->x != nullptr && g->y != nullptr && g->xs != nullptr &&
           g->ys != nullptr;
}

bool sameLayout(const Renderer2_Params* a, const Renderer2_Params* b) {
    return a->cols == b->cols && a->rows == b->rows && a->left == b->left && a->top == b->top &&
           a->right == b->right && a->bottom == b->bottom;
}

}  // namespace

int32_t Rectify_getBufferSize() {
    // The lens fit: A (5 by 8192), b (1 by 8192), A transposed, AtA, Atb.
    const int32_t sizes[5][2] = {{5, 8192}, {1, 8192}, {8192, 5}, {5, 5}, {1, 5}};
    int32_t total = 0;
    for (const auto& s : sizes) total += Image_getSize(s[0], s[1], IMAGE_FORMAT_FLOAT, IMAGE_SIZE_TOTAL);
    return total;
}

TLResult construct_Rectify(Rectify* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    self->env = env;
    return TL_OK;
}

TLResult destruct_Rectify(Rectify* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    std::memset(self, 0, sizeof *self);
    return TL_OK;
}

TLResult Rectify_init(Rectify* self) { return self == nullptr ? TL_ERROR_PARAM : TL_OK; }

TLResult Rectify_recycle(Rectify* self) { return self == nullptr ? TL_ERROR_PARAM : TL_OK; }

TLResult Rectify_setPel(Rectify* self, Pel* pel) {
    if (self == nullptr) return TL_ERROR_PARAM;
    self->pel = pel;
    return TL_OK;
}

TLResult Rectify_rotationFromAxisAngle(Mvec8Real* out, const double axis[3], double angle) {
    if (out == nullptr || axis == nullptr) return TL_ERROR_PARAM;
    const double c = RawDouble_cos(angle), s = RawDouble_sin(angle);
    const double a0 = axis[0], a1 = axis[1], a2 = axis[2];
    const double skew[9] = {0.0, -a2, a1, a2, 0.0, -a0, -a1, a0, 0.0};
    for (int r = 0; r < 3; ++r) {
        for (int col = 0; col < 3; ++col) {
            const double identity = r == col ? c : 0.0;
            out->m[3 * r + col] = identity + (1.0 - c) * axis[r] * axis[col] + s * skew[3 * r + col];
        }
    }
    return TL_OK;
}

TLResult Rectify_calcRectifyRotMat(Rectify* rectify, Mvec8Real* rotation1, Mvec8Real* rotation2,
                                   const Mvec8Real* rotation, const double translation[3]) {
    if (rectify == nullptr || rotation1 == nullptr || rotation2 == nullptr || rotation == nullptr ||
        translation == nullptr) {
        return TL_ERROR_PARAM;
    }
    const double* R = rotation->m;
    // The axis scaled by the sine of the angle, from the antisymmetric part.
    const double v[3] = {(R[7] - R[5]) / 2.0, (R[2] - R[6]) / 2.0, (R[3] - R[1]) / 2.0};
    const double s = norm3(v);
    if (s > 1.0) return TL_ERROR_GENERAL;
    double axis[3] = {1.0, 0.0, 0.0};
    double angle = 0.0;
    if (!(s < kNoRotation)) {
        for (int i = 0; i < 3; ++i) axis[i] = v[i] / s;
        // Rotations are taken to be within 90 degrees: the trace is not consulted.
        angle = RawDouble_asin(s);
        if (angle != angle) return TL_ERROR_GENERAL;
    }
    Mvec8Real half, halfInverse;
    Rectify_rotationFromAxisAngle(&half, axis, angle * 0.5);
    if (Mvec8Real_inv(&halfInverse, &half) != TL_OK) return TL_ERROR_GENERAL;

    double t[3];
    Mvec8Real_trans3DReal(&halfInverse, t, translation);
    const double length = norm3(t);
    if (!(length > 0.0)) return TL_ERROR_GENERAL;
    // The baseline counts as horizontal unless its vertical part is strictly the greater.
    const int axisIndex = absolute(t[0]) < absolute(t[1]) ? 1 : 0;
    // The rectified order of the cameras does not depend on the sign of the translation.
    if (t[axisIndex] <= 0.0) {
        for (double& c : t) c = -c;
    }
    const double n[3] = {t[0] / length, t[1] / length, t[2] / length};
    double e[3] = {0.0, 0.0, 0.0};
    e[axisIndex] = 1.0;

    Mvec8Real align;
    Mvec8Real_setIdentity(&align);
    const double c = n[axisIndex] < 1.0 ? n[axisIndex] : 1.0;
    if (!(absolute(c - 1.0) < kAlignedCosine)) {
        const double theta = RawDouble_acos(c);
        // w = e x n, the skew matrix of e applied to n.
        double w[3] = {e[1] * n[2] - e[2] * n[1], e[2] * n[0] - e[0] * n[2], e[0] * n[1] - e[1] * n[0]};
        const double wLength = norm3(w);
        if (!(wLength < kNoAxis)) {
            for (double& x : w) x /= wLength;
            Rectify_rotationFromAxisAngle(&align, w, theta);
        }
    }
    double check[3];
    Mvec8Real_trans3DReal(&align, check, e);
    for (int i = 0; i < 3; ++i) {
        if (!(absolute(check[i] - n[i]) <= kSelfCheck)) return TL_ERROR_GENERAL;
    }
    // align itself, not its inverse, in both products: a settled choice; the
    // grid map inverts the whole product.
    Mvec8Real_mult(rotation1, &align, &half);
    Mvec8Real_mult(rotation2, &align, &halfInverse);
    return TL_OK;
}

TLResult Rectify_calcRectifyNewCameraMat(Rectify* rectify, Mvec8Real* newCamera1, Mvec8Real* newCamera2,
                                         const Mvec8Real* rotation1, const Mvec8Real* camera1,
                                         RectifyLensDist* dist1, const Mvec8Real* rotation2,
                                         const Mvec8Real* camera2, const RectifyLensDist* dist2,
                                         int32_t width1, int32_t height1, int32_t width2, int32_t height2,
                                         int32_t outWidth, int32_t outHeight, int32_t marginX,
                                         int32_t marginY) {
    (void)width2;
    (void)height2;
    if (rectify == nullptr || newCamera1 == nullptr || newCamera2 == nullptr || rotation1 == nullptr ||
        camera1 == nullptr || dist1 == nullptr || rotation2 == nullptr || camera2 == nullptr ||
        dist2 == nullptr) {
        return TL_ERROR_PARAM;
    }
    if (width1 < 1 || height1 < 1) return TL_ERROR_PARAM;
    if (RectifyLensDist_needCalcInv(dist1)) {
        const TLResult r = Rectify_estimateUndistortCoeff(rectify, &dist1->coeff, camera1, width1, height1);
        if (r != TL_OK) return r;
    }
    Mvec8Real_setIdentity(newCamera1);
    Mvec8Real_setIdentity(newCamera2);
    Mvec8Real inverse;
    const TLResult r = RectifyUtil_invCameraMatrix(&inverse, camera1);
    if (r != TL_OK) return r;

    double minX = 1e30, maxX = -1e30, minY = 1e30, maxY = -1e30;
    const double W = width1, H = height1;
    for (int32_t side = 0; side < 2; ++side) {
        for (int32_t j = 0; j < kBorderPoints; ++j) {
            // One point on the top or bottom edge, one on the left or right.
            const double points[2][2] = {{W * j / (kBorderPoints - 1), H * side},
                                         {W * side, H * j / (kBorderPoints - 1)}};
            for (const auto& p : points) {
                // The steps are not tested: a failed one leaves the point as it was.
                double nx = p[0], ny = p[1];
                Mvec8Real_trans2DReal(&inverse, &nx, &ny, p[0], p[1]);
                double ux = nx, uy = ny;
                Rectify_undistortPoint(nx, ny, &ux, &uy, dist1);
                double rx = ux, ry = uy;
                Mvec8Real_trans2DReal(rotation1, &rx, &ry, ux, uy);
                minX = rx < minX ? rx : minX;
                maxX = rx > maxX ? rx : maxX;
                minY = ry < minY ? ry : minY;
                maxY = ry > maxY ? ry : maxY;
            }
        }
    }
    const double availX = static_cast<double>(outWidth) - marginX;
    const double availY = static_cast<double>(outHeight) - marginY;
    const double fx = availX / (maxX - minX), fy = availY / (maxY - minY);
    // One focal length for both axes, so that the whole source frame fits.
    const double f = fx < fy ? fx : fy;
    // A frame that spans nothing, or no room for it, has no camera.
    if (!(f > 0.0) || !isFinite(f)) return TL_ERROR_GENERAL;
    const double cx = marginX * 0.5 - minX * f + (availX - (maxX - minX) * f) * 0.5;
    const double cy = marginY * 0.5 - minY * f + (availY - (maxY - minY) * f) * 0.5;
    newCamera1->m[0] = f;
    newCamera1->m[2] = cx;
    newCamera1->m[4] = f;
    newCamera1->m[5] = cy;
    *newCamera2 = *newCamera1;
    return TL_OK;
}

TLResult Rectify_calcRectifyMat(Rectify* rectify, Mvec8Real* rotation1, Mvec8Real* rotation2,
                                Mvec8Real* newCamera1, Mvec8Real* newCamera2, const Mvec8Real* camera1,
                                RectifyLensDist* dist1, const Mvec8Real* camera2,
                                const RectifyLensDist* dist2, const Mvec8Real* rotation,
                                const double translation[3], int32_t width1, int32_t height1, int32_t width2,
                                int32_t height2, int32_t outWidth, int32_t outHeight, int32_t marginX,
                                int32_t marginY) {
    if (rectify == nullptr || rotation1 == nullptr || rotation2 == nullptr || newCamera1 == nullptr ||
        newCamera2 == nullptr || camera1 == nullptr || dist1 == nullptr || camera2 == nullptr ||
        dist2 == nullptr || rotation == nullptr || translation == nullptr) {
        return TL_ERROR_PARAM;
    }
    const TLResult r = Rectify_calcRectifyRotMat(rectify, rotation1, rotation2, rotation, translation);
    if (r != TL_OK) return r;
    return Rectify_calcRectifyNewCameraMat(rectify, newCamera1, newCamera2, rotation1, camera1, dist1,
                                           rotation2, camera2, dist2, width1, height1, width2, height2,
                                           outWidth, outHeight, marginX, marginY);
}

TLResult Rectify_calcRectifyGridParams(Rectify* rectify, Renderer2_Params* grid,
                                       Renderer2_Params* inverseGrid, const Mvec8Real* camera,
                                       RectifyLensDist* dist, const Mvec8Real* rotation,
                                       const Mvec8Real* newCamera, int32_t width, int32_t height) {
    if (rectify == nullptr || grid == nullptr || camera == nullptr || dist == nullptr ||
        rotation == nullptr || newCamera == nullptr) {
        return TL_ERROR_PARAM;
    }
    if (dist->kind != 0 && dist->kind != 1) return TL_ERROR_UNSUPPORTED;
    if (!isPlainCamera(camera) || !isPlainCamera(newCamera)) return TL_ERROR_GENERAL;
    if (!hasArrays(grid) || (inverseGrid != nullptr && !hasArrays(inverseGrid))) return TL_ERROR_PARAM;
    if (RectifyLensDist_needCalcInv(dist)) {
        const TLResult r = Rectify_estimateUndistortCoeff(rectify, &dist->coeff, camera, width, height);
        if (r != TL_OK) return r;
    }
    Mvec8Real rotationInverse, newInverse, cameraInverse;
    if (Mvec8Real_inv(&rotationInverse, rotation) != TL_OK) return TL_ERROR_GENERAL;
    RectifyUtil_invCameraMatrix(&newInverse, newCamera);
    RectifyUtil_invCameraMatrix(&cameraInverse, camera);

    ForwardMap forward;
    forward.grid = grid;
    Mvec8Real_mult(&forward.back, &rotationInverse, &newInverse);
    forward.camera = *camera;
    forward.dist = dist;
    // The radius limit: the image corners pushed out by 32 pixels, undistorted.
    // Where the fitted inverse folds back short of a pushed corner, the forward model is inverted instead.
    const double m = kRadiusMargin;
    const double corners[4][2] = {{-m, -m}, {width + m, -m}, {-m, height + m}, {width + m, height + m}};
    forward.limit = 0.0;
    for (const auto& p : corners) {
        double x, y, radius;
        Mvec8Real_trans2DReal(&cameraInverse, &x, &y, p[0], p[1]);
        const TLResult r = cornerRadius(dist, x, y, &radius);
        if (r != TL_OK) return r;
        forward.limit = radius > forward.limit ? radius : forward.limit;
    }
    TLResult r = runVertices(rectify->pel, forwardVertex, &forward, grid->cols * grid->rows);
    if (r != TL_OK || inverseGrid == nullptr) return r;

    InverseMap inverse;
    inverse.grid = inverseGrid;
    Mvec8Real_mult(&inverse.forward, newCamera, rotation);
    // The inverse grid may be laid out on a smaller frame than width by
    // height: its last vertex stands for the far corner of the image.
    const int32_t last = inverseGrid->cols * inverseGrid->rows - 1;
    const double lastX = inverseGrid->xs[last], lastY = inverseGrid->ys[last];
    if (!(lastX > 0.0) || !(lastY > 0.0)) return TL_ERROR_PARAM;
    inverse.scaled = cameraInverse;
    inverse.scaled.m[0] *= width / lastX;
    inverse.scaled.m[4] *= height / lastY;
    inverse.dist = dist;
    return runVertices(rectify->pel, inverseVertex, &inverse, inverseGrid->cols * inverseGrid->rows);
}

TLResult Rectify_complementGridMap(Rectify* rectify, Renderer2_Params* out, const Renderer2_Params* gridA,
                                   const Renderer2_Params* gridB, double alpha) {
    if (rectify == nullptr || out == nullptr || gridA == nullptr || gridB == nullptr) return TL_ERROR_PARAM;
    if (!(alpha >= 0.0 && alpha <= 1.0)) return TL_ERROR_PARAM;
    if (!sameLayout(out, gridA) || !sameLayout(out, gridB)) return TL_ERROR_GENERAL;
    if (!hasArrays(out) || !hasArrays(gridA) || !hasArrays(gridB)) return TL_ERROR_PARAM;
    Blend blend = {out, gridA, gridB, alpha};
    return runVertices(rectify->pel, blendVertex, &blend, out->cols * out->rows);
}

}  // namespace vq_tl
