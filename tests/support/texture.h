// A continuous texture for motion tests and benchmarks: value noise of three octaves (cells of 16, 8 and 4
// pixels) with smoothstep interpolation, defined at every real position, so that a picture and its copy
// under a known map can both be sampled exactly. Values lie roughly in [-1, 1].
#pragma once

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "support/picture.h"

namespace vq_tl_test {

class Texture {
public:
    explicit Texture(uint32_t seed) : lattice_(kSide * kSide) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        for (float& v : lattice_) v = u(rng);
    }

    double at(double x, double y) const {
        constexpr double kCell[3] = {16.0, 8.0, 4.0}, kAmplitude[3] = {0.5, 0.3, 0.2};
        double sum = 0.0;
        for (int k = 0; k < 3; ++k) {
            const double u = x / kCell[k] + 37.0 * k, v = y / kCell[k] + 91.0 * k;
            const double fu = std::floor(u), fv = std::floor(v);
            const int32_t i = static_cast<int32_t>(fu), j = static_cast<int32_t>(fv);
            double a = u - fu, b = v - fv;
            a = a * a * (3 - 2 * a), b = b * b * (3 - 2 * b);
            const double top = node(i, j) + a * (node(i + 1, j) - node(i, j));
            const double bottom = node(i, j + 1) + a * (node(i + 1, j + 1) - node(i, j + 1));
            sum += kAmplitude[k] * (top + b * (bottom - top));
        }
        return sum;
    }

    // Pixel (x, y) of `picture` (UINT8) shows the texture at m(x, y), m = (a, b, c, d, e, f) as x' = a x + b
    // y + c, y' = d x + e y + f, plus Gaussian noise of `noise` levels: 128 + 90 t, rounded and clamped.
    void render(Picture& picture, const double m[6], double noise, uint32_t seed) const {
        const double h[9] = {m[0], m[1], m[2], m[3], m[4], m[5], 0, 0, 1};
        renderProjective(picture, h, noise, seed);
    }
    // The same through a homography h (row by row).
    void renderProjective(Picture& picture, const double h[9], double noise, uint32_t seed) const {
        std::mt19937 rng(seed);
        std::normal_distribution<double> n(0.0, noise > 0.0 ? noise : 1.0);
        const vq_tl::Image& image = picture.image;
        for (int32_t y = 0; y < image.height; ++y) {
            for (int32_t x = 0; x < image.width; ++x) {
                const double w = h[6] * x + h[7] * y + h[8];
                double v =
                    128.0 + 90.0 * at((h[0] * x + h[1] * y + h[2]) / w, (h[3] * x + h[4] * y + h[5]) / w);
                if (noise > 0.0) v += n(rng);
                picture.u8(x, y) = static_cast<uint8_t>(std::lround(std::fmin(255.0, std::fmax(0.0, v))));
            }
        }
    }

private:
    static constexpr int32_t kSide = 256;
    double node(int32_t i, int32_t j) const {
        return lattice_[kSide * (j & (kSide - 1)) + (i & (kSide - 1))];
    }
    std::vector<float> lattice_;
};

// The inverse of an affine map (a, b, c, d, e, f).
inline void invertAffine(const double m[6], double out[6]) {
    const double det = m[0] * m[4] - m[1] * m[3];
    out[0] = m[4] / det, out[1] = -m[1] / det, out[3] = -m[3] / det, out[4] = m[0] / det;
    out[2] = -(out[0] * m[2] + out[1] * m[5]);
    out[5] = -(out[3] * m[2] + out[4] * m[5]);
}

// A motion about the centre of a w by h picture: horizontal scale sx, vertical scale sy, rotation by `angle`
// radians, then a shift (tx, ty); as (a, b, c, d, e, f) on top-left pixel coordinates.
inline void motionAboutCentre(int32_t w, int32_t h, double sx, double sy, double angle, double tx, double ty,
                              double out[6]) {
    const double c = std::cos(angle), s = std::sin(angle), cx = 0.5 * w, cy = 0.5 * h;
    out[0] = sx * c, out[1] = -sy * s, out[3] = sx * s, out[4] = sy * c;
    out[2] = cx + tx - out[0] * cx - out[1] * cy;
    out[5] = cy + ty - out[3] * cx - out[4] * cy;
}

}  // namespace vq_tl_test
