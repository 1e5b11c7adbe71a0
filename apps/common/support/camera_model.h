// Pinhole cameras with lens distortion, written out independently of the
// library: rotations, camera matrices, coefficient lens records, and the
// forward lens model with its inverse by Newton's method.
#pragma once

#include <cmath>

#include "alignment/mvec.h"
#include "rectify/rectify_lens_dist.h"

namespace vq_tl_test {

// Rotation about a unit axis, written out: Rodrigues' formula.
inline vq_tl::Mvec8Real rodrigues(double ax, double ay, double az, double angle) {
    const double n = std::sqrt(ax * ax + ay * ay + az * az);
    ax /= n, ay /= n, az /= n;
    const double c = std::cos(angle), s = std::sin(angle), t = 1 - c;
    return vq_tl::Mvec8Real{{t * ax * ax + c, t * ax * ay - s * az, t * ax * az + s * ay,
                             t * ax * ay + s * az, t * ay * ay + c, t * ay * az - s * ax,
                             t * ax * az - s * ay, t * ay * az + s * ax, t * az * az + c}};
}

inline vq_tl::Mvec8Real camera(double f, double cx, double cy, double fy = 0) {
    return vq_tl::Mvec8Real{{f, 0, cx, 0, fy != 0 ? fy : f, cy, 0, 0, 1}};
}

inline vq_tl::RectifyLensDist coeffLens(double k1, double k2, double k3, double p1, double p2) {
    vq_tl::RectifyLensDist d;
    vq_tl::RectifyLensDist_clear(&d);
    const double k[3] = {k1, k2, k3}, p[2] = {p1, p2};
    vq_tl::RectifyLensDist_setDistCoeff(&d, k, 3, p, 2);
    return d;
}

// The forward lens model, written out: ideal to distorted normalised point.
inline void distort(const vq_tl::RectifyLensDistortionCoeff& c, double x, double y, double* dx, double* dy) {
    const double r2 = x * x + y * y;
    const double radial = 1 + c.k[0] * r2 + c.k[1] * r2 * r2 + c.k[2] * r2 * r2 * r2;
    *dx = x * radial + 2 * c.p[0] * x * y + c.p[1] * (r2 + 2 * x * x);
    *dy = y * radial + c.p[0] * (r2 + 2 * y * y) + 2 * c.p[1] * x * y;
}

// The ideal point that the forward model takes to (dx, dy), by Newton's
// method from (*x, *y); a neighbour's answer makes a good start. Converges
// wherever the model is monotonic along rays. Each step squares the error,
// so once a step is below 1e-6 what is left is near 1e-12, a billionth of a
// pixel at the focal lengths in use.
inline void undistort(const vq_tl::RectifyLensDistortionCoeff& c, double dx, double dy, double* x,
                      double* y) {
    const double k1 = c.k[0], k2 = c.k[1], k3 = c.k[2], p1 = c.p[0], p2 = c.p[1];
    for (int i = 0; i < 20; ++i) {
        const double u = *x, v = *y, r2 = u * u + v * v;
        const double radial = 1 + r2 * (k1 + r2 * (k2 + r2 * k3));
        const double slope = 2 * (k1 + r2 * (2 * k2 + r2 * 3 * k3));  // d radial / d r2, doubled
        const double fx = u * radial + 2 * p1 * u * v + p2 * (r2 + 2 * u * u) - dx;
        const double fy = v * radial + p1 * (r2 + 2 * v * v) + 2 * p2 * u * v - dy;
        const double a = radial + u * u * slope + 2 * p1 * v + 6 * p2 * u;
        const double b = u * v * slope + 2 * p1 * u + 2 * p2 * v;
        const double d = radial + v * v * slope + 6 * p1 * v + 2 * p2 * u;
        const double inverse = 1.0 / (a * d - b * b);
        const double sx = (d * fx - b * fy) * inverse, sy = (a * fy - b * fx) * inverse;
        *x = u - sx, *y = v - sy;
        if (std::fabs(sx) + std::fabs(sy) < 1e-6) return;
    }
}

}  // namespace vq_tl_test
