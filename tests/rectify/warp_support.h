// Helpers of the rectification and warp tests: owned grids and renderers, sample layouts, smooth pictures.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>

#include "alignment/mvec.h"
#include "imageproc/image_stripes.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/renderer2.h"
#include "rectify/stereo_rectify.h"
#include "support/camera_model.h"
#include "support/owned.h"
#include "support/picture.h"

namespace vq_tl_test {

// A source position for each destination pixel.
using Map = std::function<void(double x, double y, double* sx, double* sy)>;

struct Grid {
    vq_tl::Env env{};
    vq_tl::Renderer2_Params g;
    Grid() { vq_tl::construct_Renderer2_Params(&g, &env); }
    Grid(int32_t width, int32_t height, int32_t cell) : Grid() {
        const int32_t rect[4] = {0, 0, width, height};
        vq_tl::Renderer2_Params_initWithGridSize(&g, rect, cell, cell);
    }
    ~Grid() { vq_tl::destruct_Renderer2_Params(&g); }
    int32_t count() const { return g.cols * g.rows; }
    void apply(const Map& map) {
        for (int32_t v = 0; v < count(); ++v) map(g.xs[v], g.ys[v], &g.x[v], &g.y[v]);
    }
};

// The warp's map at (rx, ry): its cell's vertices blended bilinearly, as drawn. False on an invalid vertex.
inline bool gridAt(const vq_tl::Renderer2_Params& g, double rx, double ry, double* s) {
    const int32_t i = std::clamp(static_cast<int32_t>(rx / g.gridWidth), 0, g.cols - 2),
                  v = std::clamp(static_cast<int32_t>(ry / g.gridHeight), 0, g.rows - 2) * g.cols + i;
    const double u = (rx - g.xs[v]) / (g.xs[v + 1] - g.xs[v]),
                 w = (ry - g.ys[v]) / (g.ys[v + g.cols] - g.ys[v]);
    const int32_t corner[4] = {v, v + 1, v + g.cols, v + g.cols + 1};
    const double weight[4] = {(1 - u) * (1 - w), u * (1 - w), (1 - u) * w, u * w};
    s[0] = s[1] = 0;
    for (int c = 0; c < 4; ++c) {
        if (g.x[corner[c]] >= vq_tl::kRenderer2InvalidVertex) return false;
        s[0] += weight[c] * g.x[corner[c]];
        s[1] += weight[c] * g.y[corner[c]];
    }
    return true;
}

// A renderer running its cells on `layer`'s Pel or executor; none: the calling thread.
struct Renderer {
    vq_tl::Env env{};
    vq_tl::Renderer2 r;
    explicit Renderer(int32_t mode = 0, int32_t boundaryCheck = 0, vq_tl::ImageStripeExec layer = {}) {
        vq_tl::construct_Renderer2(&r, &env);
        layer.executor ? vq_tl::Renderer2_init(&r, layer.executor)
                       : vq_tl::Renderer2_initWithPel(&r, layer.pel);
        vq_tl::Renderer2_setMode(&r, mode), vq_tl::Renderer2_setBoundaryCheck(&r, boundaryCheck);
    }
    ~Renderer() { vq_tl::destruct_Renderer2(&r); }
};

struct Stereo : Owned<vq_tl::StereoRectify, vq_tl::construct_StereoRectify, vq_tl::destruct_StereoRectify> {
    explicit Stereo(vq_tl::Pel* pel = nullptr) { vq_tl::StereoRectify_setPel(this, pel); }
};

inline TLResult render(Renderer& r, Picture& dst, const Picture& src, const Grid& grid) {
    return vq_tl::Renderer2_render(&r.r, &dst.image, &src.image, &grid.g);
}

// Where a format keeps its samples: luma at row(0, y)[lumaStep x + lumaOffset], chroma component c (in memory
// order) at row(plane + c planeStep, cy)[chromaStep cx + chromaOffset + c componentStep].
struct Layout {
    bool hasChroma;
    int32_t chromaShiftY;  // 1 for 4:2:0; chroma is always half as wide
    int32_t lumaStep, lumaOffset, plane, planeStep, chromaStep, chromaOffset, componentStep;

    static Layout of(uint32_t format) {
        switch (format) {
            case vq_tl::IMAGE_FORMAT_UINT8: return {false, 0, 1, 0, 0, 0, 0, 0, 0};
            case 16:
            case 17: return {true, 0, 2, 0, 0, 0, 4, 1, 2};
            case 20:
            case 21: return {true, 0, 2, 1, 0, 0, 4, 0, 2};
            case vq_tl::IMAGE_FORMAT_YUV422_PLANAR: return {true, 0, 1, 0, 1, 1, 1, 0, 0};
            case vq_tl::IMAGE_FORMAT_YUV420_PLANAR: return {true, 1, 1, 0, 1, 1, 1, 0, 0};
            default: return {true, 1, 1, 0, 1, 0, 2, 0, 1};  // semi-planar 4:2:0
        }
    }
    int32_t chromaWidth(int32_t w) const { return (w + 1) >> 1; }
    int32_t chromaHeight(int32_t h) const { return (h + chromaShiftY) >> chromaShiftY; }
    uint8_t& luma(const Picture& p, int32_t x, int32_t y) const {
        return p.row(0, y)[lumaStep * x + lumaOffset];
    }
    uint8_t& chroma(const Picture& p, int c, int32_t cx, int32_t cy) const {
        return p.row(plane + c * planeStep, cy)[chromaStep * cx + chromaOffset + c * componentStep];
    }
};

// Smooth pictures: luma changes by at most 2.7 levels per pixel, so groups placing samples up to an eighth of
// a pixel short (phase and lane offset truncated to sixteenths) stay within one level.
inline void fillSmooth(Picture& p, const Layout& l, int32_t w, int32_t h) {
    for (int32_t i = 0; i < w * h; ++i) {
        const double x = i % w, y = i / w;
        l.luma(p, i % w, i / w) = static_cast<uint8_t>(
            std::lround(128 + 24 * std::sin(0.09 * x + 0.04 * y) + 18 * std::cos(0.06 * y - 0.03 * x)));
    }
    const int32_t cw = l.chromaWidth(w);
    for (int32_t i = 0; l.hasChroma && i < 2 * cw * l.chromaHeight(h); ++i) {
        const double x = i / 2 % cw, y = i / 2 / cw;
        l.chroma(p, i % 2, i / 2 % cw, i / 2 / cw) =
            static_cast<uint8_t>(std::lround(i % 2 == 0 ? 128 + 50 * std::sin(0.035 * x + 0.02 * y)
                                                        : 120 + 45 * std::cos(0.03 * y - 0.025 * x)));
    }
}

// Bilinear luma of p at (sx, sy): the warp done per pixel in real arithmetic.
inline double referenceLuma(const Picture& p, const Layout& l, int32_t w, int32_t h, double sx, double sy) {
    return bilinear([&](int32_t x, int32_t y) { return l.luma(p, x, y); }, w, h, sx, sy);
}

}  // namespace vq_tl_test
