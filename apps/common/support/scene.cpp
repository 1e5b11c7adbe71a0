#include "support/scene.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#include "support/camera_model.h"

namespace vq_tl_test {

namespace {

// Calibration sizes and the two cameras: the main one 67 degrees across, the
// sub one about as wide, principal points a few pixels off centre (values
// exact in float, so that rescaling them in float loses nothing).
// Module-sized lens terms: the main lens moves the corners about 28 pixels
// in, the sub lens about 4; both stay monotonic well beyond the corners.
constexpr int32_t kMainWidth = 4000, kMainHeight = 3000, kSubWidth = 2592, kSubHeight = 1944;

SceneCamera calibMain() {
    return {kMainWidth, kMainHeight, camera(3000.0, 2011.5, 1493.25),
            coeffLens(0.08, -0.18, 0.06, 4e-4, -3e-4)};
}
SceneCamera calibSub() {
    return {kSubWidth, kSubHeight, camera(1900.0, 1290.75, 979.5), coeffLens(-0.06, 0.1, -0.03, -5e-4, 2e-4)};
}

// The calibration of a frame of another size with the same aspect: each
// axis scaled as a whole (the principal point too, as a rescaled
// calibration does).
SceneCamera scaled(const SceneCamera& c, int32_t width) {
    SceneCamera out = c;
    out.width = width;
    out.height = 2 * static_cast<int32_t>(std::lround(0.5 * width * c.height / c.width));
    const double sx = static_cast<double>(out.width) / c.width,
                 sy = static_cast<double>(out.height) / c.height;
    out.matrix.m[0] *= sx, out.matrix.m[2] *= sx, out.matrix.m[4] *= sy, out.matrix.m[5] *= sy;
    return out;
}

int32_t evenWidth(int32_t explicitWidth, double scale, int32_t full) {
    return explicitWidth > 0 ? explicitWidth : 2 * static_cast<int32_t>(std::lround(0.5 * scale * full));
}

// The ground: y = 0.7 - 0.05 z, i.e. n . p = 0.7 with n = (0, 1, 0.05).
constexpr double kGroundHeight = 0.7, kGroundRise = 0.05;
// The flat patch in directions from the main camera, on the background.
constexpr double kPatchLeft = 0.18, kPatchRight = 0.26, kPatchTop = -0.22, kPatchBottom = -0.14;

inline int32_t floorInt(double x) {
    const int32_t i = static_cast<int32_t>(x);
    return i - (x < i);
}

// The texture: value noise of four octaves, cells of 16, 8, 4 and 2 texels
// with amplitudes falling by about a quarter per octave, sampled once into a
// tile of 512 by 512 texels that repeats seamlessly (each octave's lattice
// repeats with the tile). Values are roughly normal, standard deviation near
// 0.3. Surfaces read the tile bilinearly, a few nanoseconds where four
// octaves of noise cost about forty; with two texels per finest cell the
// interpolation is not seen at the sizes where the pair is matched.
constexpr int32_t kTile = 512, kCoarsestCell = 16;

struct Tile {
    float v[kTile * kTile];
    Tile() {
        // The lattices' values in [-1, 1]: a fixed linear congruential sequence.
        std::vector<float> lattice(256 * 256);
        uint32_t s = 12345u;
        for (float& x : lattice) {
            s = s * 1664525u + 1013904223u;
            x = static_cast<float>(s >> 8) * (2.0f / 16777216.0f) - 1.0f;
        }
        const double amplitude[4] = {0.34, 0.27, 0.22, 0.17};
        for (int32_t y = 0; y < kTile; ++y) {
            for (int32_t x = 0; x < kTile; ++x) {
                double sum = 0;
                for (int k = 0, cell = kCoarsestCell; k < 4; ++k, cell >>= 1) {
                    const int32_t period = kTile / cell, i = x / cell, j = y / cell, o = 61 * k;
                    double a = static_cast<double>(x % cell) / cell, b = static_cast<double>(y % cell) / cell;
                    a = a * a * (3 - 2 * a), b = b * b * (3 - 2 * b);
                    auto at = [&](int32_t u, int32_t w) {
                        return lattice[256 * ((w % period + 3 * o) & 255) + ((u % period + o) & 255)];
                    };
                    sum += amplitude[k] * ((at(i, j) * (1 - a) + at(i + 1, j) * a) * (1 - b) +
                                           (at(i, j + 1) * (1 - a) + at(i + 1, j + 1) * a) * b);
                }
                v[kTile * y + x] = static_cast<float>(sum);
            }
        }
    }
};

// Built once per process, in about 10 ms.
const Tile& tile() {
    static const Tile t;
    return t;
}
const float* const gTexels = tile().v;

// The texture at (u, w), in coarsest cells.
inline double texture(double u, double w) {
    const float* v = gTexels;
    u *= kCoarsestCell, w *= kCoarsestCell;
    const int32_t iu = floorInt(u), iw = floorInt(w);
    const double a = u - iu, b = w - iw;
    const float* r0 = v + kTile * (iw & (kTile - 1));
    const float* r1 = v + kTile * ((iw + 1) & (kTile - 1));
    const int32_t c0 = iu & (kTile - 1), c1 = (iu + 1) & (kTile - 1);
    return (r0[c0] + a * (r0[c1] - r0[c0])) * (1 - b) + (r1[c0] + a * (r1[c1] - r1[c0])) * b;
}

// Per surface: mean luma, coarsest cells per metre (the finest cell is an
// eighth of the coarsest), an offset into the texture in cells, and chroma
// offsets (V, U).
struct Material {
    double luma, cells, seed, v, u;
};
constexpr Material kMaterials[6] = {
    {128, 1, 0, 0, 0},                // nothing
    {120, 1 / 0.192, 0.0, 6, -10},    // background: cells of 192 to 24 mm
    {112, 1 / 0.096, 11.3, 14, -18},  // ground: 96 to 12 mm
    {138, 1 / 0.048, 21.7, -20, 16},  // box front: 48 to 6 mm
    {104, 1 / 0.048, 5.5, -16, 12},   // box side
    {150, 1, 0, 4, 4},                // flat patch
};

uint8_t toByte(double v) { return static_cast<uint8_t>(std::clamp(v, 8.0, 247.0) + 0.5); }

}  // namespace

void* allocateLarge(size_t bytes) {
    // Whole huge pages, so that the system may back them with huge pages.
    constexpr size_t kHuge = size_t{2} << 20;
    bytes = (bytes + kHuge - 1) & ~(kHuge - 1);
    void* p = std::aligned_alloc(kHuge, bytes);
    if (p == nullptr) std::abort();
#ifdef MADV_HUGEPAGE
    madvise(p, bytes, MADV_HUGEPAGE);
#endif
    return p;
}

Scene::Scene(const SceneConfig& cfg) : config(cfg), mainCalib(calibMain()), subCalib(calibSub()) {
    mainCamera = scaled(mainCalib, evenWidth(cfg.mainWidth, cfg.scale, kMainWidth));
    subCamera = scaled(subCalib, evenWidth(cfg.subWidth, cfg.scale, kSubWidth));
    subCamera.matrix.m[0] *= 1.0 + cfg.subFocalError, subCamera.matrix.m[4] *= 1.0 + cfg.subFocalError;
    rotation = rodrigues(cfg.rotationAxis[0], cfg.rotationAxis[1], cfg.rotationAxis[2],
                         cfg.rotationDegrees * M_PI / 180.0);
    // x_sub = R (x_main - c), so t = -R c.
    for (int r = 0; r < 3; ++r) {
        translation[r] = -(rotation.m[3 * r] * cfg.subCentre[0] + rotation.m[3 * r + 1] * cfg.subCentre[1] +
                           rotation.m[3 * r + 2] * cfg.subCentre[2]);
    }
    baseline = std::hypot(translation[0], translation[1], translation[2]);
    main = std::make_unique<Picture>(mainCamera.width, mainCamera.height, cfg.format, 0);
    sub = std::make_unique<Picture>(subCamera.width, subCamera.height, cfg.format, 0);
    if (cfg.truth) {
        const size_t n = static_cast<size_t>(mainCamera.width) * mainCamera.height;
        depth.assign(n, 0.0f), surface.assign(n, 0), textured.assign(n, 0), occluded.assign(n, 0);
    }
    const int threads = std::max(cfg.threads, 1);
    for (int which = 0; which < 2; ++which) {
        const int32_t h = which == 0 ? mainCamera.height : subCamera.height;
        std::vector<std::thread> pool;
        for (int k = 1; k < threads; ++k)
            pool.emplace_back([=, this] { render(which, h * k / threads, h * (k + 1) / threads); });
        render(which, 0, h / threads);
        for (std::thread& t : pool) t.join();
    }
}

// The box by slabs: a ray is inside between the last entry and the first
// exit, and the face entered last is the one hit. False when it misses.
bool Scene::enterBox(const double o[3], const double d[3], double* enter, int* face) const {
    const SceneBox& b = config.box;
    const double lo[3] = {b.x - 0.5 * b.width, b.y - 0.5 * b.height, b.z},
                 hi[3] = {b.x + 0.5 * b.width, b.y + 0.5 * b.height, b.z + b.thickness};
    // Most rays pass wide of the box: first the line against the box's
    // bounding sphere, |(m - o) x d|^2 > r^2 |d|^2, without a division.
    const double m[3] = {0.5 * (lo[0] + hi[0]) - o[0], 0.5 * (lo[1] + hi[1]) - o[1],
                         0.5 * (lo[2] + hi[2]) - o[2]};
    const double cross[3] = {m[1] * d[2] - m[2] * d[1], m[2] * d[0] - m[0] * d[2], m[0] * d[1] - m[1] * d[0]};
    const double r2 = 0.25 * (b.width * b.width + b.height * b.height + b.thickness * b.thickness);
    if (cross[0] * cross[0] + cross[1] * cross[1] + cross[2] * cross[2] >
        r2 * (d[0] * d[0] + d[1] * d[1] + d[2] * d[2]))
        return false;
    double in = -HUGE_VAL, out = HUGE_VAL;
    for (int a = 0; a < 3; ++a) {
        if (d[a] == 0) {
            if (o[a] < lo[a] || o[a] > hi[a]) return false;
            continue;
        }
        const double inverse = 1.0 / d[a];
        double t0 = (lo[a] - o[a]) * inverse, t1 = (hi[a] - o[a]) * inverse;
        if (t0 > t1) std::swap(t0, t1);
        if (t0 > in) in = t0, *face = a;
        out = std::min(out, t1);
    }
    *enter = in;
    return in <= out && out > 0;
}

SceneHit Scene::cast(const double o[3], const double d[3]) const {
    SceneHit hit{HUGE_VAL, {0, 0, 0}, kSceneNothing};
    auto take = [&](double t, SceneSurface s) {
        if (t > 1e-9 && t < hit.t) hit.t = t, hit.surface = s;
    };
    if (d[2] > 0) take((config.backgroundDepth - o[2]) / d[2], kSceneBackground);
    const double down = d[1] + kGroundRise * d[2];
    if (down > 0) take((kGroundHeight - o[1] - kGroundRise * o[2]) / down, kSceneGround);
    double enter;
    int face = 0;
    if (enterBox(o, d, &enter, &face)) take(enter, face == 2 ? kSceneBoxFront : kSceneBoxSide);
    for (int a = 0; a < 3; ++a) hit.p[a] = o[a] + hit.t * d[a];
    const double* p = hit.p;
    if (hit.surface == kSceneBackground && p[0] >= kPatchLeft * p[2] && p[0] <= kPatchRight * p[2] &&
        p[1] >= kPatchTop * p[2] && p[1] <= kPatchBottom * p[2]) {
        hit.surface = kSceneFlatPatch;
    }
    return hit;
}

double Scene::luma(const SceneHit& hit) const {
    const Material& m = kMaterials[hit.surface];
    const double* p = hit.p;
    const double c = m.cells;
    // Surfaces seen at a slant are stretched along the depth, against the
    // foreshortening: the ground by two, which leaves its finest cells still
    // 1.5 pixels tall at 3 m at the working size, the box's sides by eight.
    switch (hit.surface) {
        case kSceneBackground:
        case kSceneBoxFront: return m.luma + 140 * texture(p[0] * c + m.seed, p[1] * c);
        case kSceneGround: return m.luma + 140 * texture(p[0] * c + m.seed, p[2] * c * 0.5);
        case kSceneBoxSide: {
            // The faces across x run along (z, y), the others along (x, z).
            const SceneBox& b = config.box;
            const bool xFace = std::fabs(std::fabs(p[0] - b.x) - 0.5 * b.width) < 1e-6 * b.width;
            return m.luma + 140 * (xFace ? texture(p[2] * c * 0.125 + m.seed, p[1] * c)
                                         : texture(p[0] * c + m.seed, p[2] * c * 0.125));
        }
        default: return m.luma;
    }
}

void Scene::pixelRay(const SceneCamera& c, double u, double v, double dir[3]) {
    const double dx = (u - c.matrix.m[2]) / c.matrix.m[0], dy = (v - c.matrix.m[5]) / c.matrix.m[4];
    dir[0] = dx, dir[1] = dy, dir[2] = 1.0;
    undistort(c.lens.coeff, dx, dy, &dir[0], &dir[1]);
}

SceneHit Scene::castPixel(int camera, double u, double v) const {
    const double zero[3] = {0, 0, 0};
    double d[3];
    pixelRay(camera == 0 ? mainCamera : subCamera, u, v, d);
    if (camera == 0) return cast(zero, d);
    const double* r = rotation.m;  // the sub camera's ray in main coordinates: R^T d
    const double e[3] = {r[0] * d[0] + r[3] * d[1] + r[6], r[1] * d[0] + r[4] * d[1] + r[7],
                         r[2] * d[0] + r[5] * d[1] + r[8]};
    return cast(config.subCentre, e);
}

bool Scene::project(const SceneCamera& c, const double p[3], double* u, double* v) {
    if (!(p[2] > 0)) return false;
    double x, y;
    const double inverse = 1.0 / p[2];
    distort(c.lens.coeff, p[0] * inverse, p[1] * inverse, &x, &y);
    *u = c.matrix.m[0] * x + c.matrix.m[2];
    *v = c.matrix.m[4] * y + c.matrix.m[5];
    return true;
}

void Scene::toSub(const double p[3], double out[3]) const {
    for (int r = 0; r < 3; ++r) {
        out[r] = rotation.m[3 * r] * p[0] + rotation.m[3 * r + 1] * p[1] + rotation.m[3 * r + 2] * p[2] +
                 translation[r];
    }
}

bool Scene::seenBySub(const double p[3]) const {
    double q[3], u, v;
    toSub(p, q);
    if (!project(subCamera, q, &u, &v) || u < 0 || v < 0 || u > subCamera.width - 1 ||
        v > subCamera.height - 1)
        return false;
    // Nothing between the sub camera's centre and the point. Only the box
    // can be in the way: the cameras and every point that the main camera
    // sees lie on the same side of the ground and of the background.
    const double* c = config.subCentre;
    const double d[3] = {p[0] - c[0], p[1] - c[1], p[2] - c[2]};
    double enter;
    int face;
    return !enterBox(c, d, &enter, &face) || !(enter < 1 - 1e-9);
}

// The ideal rays of a row of pixels, (x, y) pairs with z = 1. Newton's
// method runs from one anchor to the next, every 8 pixels, and for the pixels
// between starts from the line between their anchors, within about 4e-7 of
// the answer: one step each, and no step waits for another pixel's answer.
// Every row starts afresh, so bands of rows give the same frame.
void Scene::rowRays(const SceneCamera& c, int32_t j, double* rays) {
    const double fx = 1.0 / c.matrix.m[0], cx = c.matrix.m[2], dy = (j - c.matrix.m[5]) / c.matrix.m[4];
    const int32_t last = c.width - 1;
    double x = -cx * fx, y = dy;
    for (int32_t a = 0, b; a < last; a = b) {
        b = std::min(a + 8, last);
        if (a == 0) undistort(c.lens.coeff, -cx * fx, dy, &x, &y), rays[0] = x, rays[1] = y;
        undistort(c.lens.coeff, (b - cx) * fx, dy, &x, &y);
        rays[2 * b] = x, rays[2 * b + 1] = y;
        const double step = 1.0 / (b - a), sx = (x - rays[2 * a]) * step, sy = (y - rays[2 * a + 1]) * step;
        for (int32_t i = a + 1; i < b; ++i) {
            double u = rays[2 * a] + (i - a) * sx, v = rays[2 * a + 1] + (i - a) * sy;
            undistort(c.lens.coeff, (i - cx) * fx, dy, &u, &v);
            rays[2 * i] = u, rays[2 * i + 1] = v;
        }
    }
}

void Scene::render(int which, int32_t rowBegin, int32_t rowEnd) {
    const SceneCamera& c = which == 0 ? mainCamera : subCamera;
    Picture& pic = which == 0 ? *main : *sub;
    const double* origin = which == 0 ? nullptr : config.subCentre;
    const double zero[3] = {0, 0, 0};
    const bool vFirst = config.format == vq_tl::IMAGE_FORMAT_YVU420_SEMIPLANAR;
    const bool truth = which == 0 && config.truth;
    std::vector<double> rays(2 * static_cast<size_t>(c.width));
    for (int32_t j = rowBegin; j < rowEnd; ++j) {
        uint8_t* lumaRow = pic.row(0, j);
        uint8_t* chroma = (j & 1) == 0 ? pic.row(1, j >> 1) : nullptr;
        rowRays(c, j, rays.data());
        for (int32_t i = 0; i < c.width; ++i) {
            const double x = rays[2 * i], y = rays[2 * i + 1];
            double d[3] = {x, y, 1.0};
            if (which == 1) {
                // The sub camera's ray in main coordinates: R^T d.
                const double* r = rotation.m;
                const double e[3] = {r[0] * x + r[3] * y + r[6], r[1] * x + r[4] * y + r[7],
                                     r[2] * x + r[5] * y + r[8]};
                std::memcpy(d, e, sizeof d);
            }
            const SceneHit hit = cast(origin != nullptr ? origin : zero, d);
            lumaRow[i] = toByte(luma(hit));
            if (chroma != nullptr && (i & 1) == 0) {
                const Material& m = kMaterials[hit.surface];
                const double* p = hit.p;
                const double wobble = hit.surface == kSceneFlatPatch
                                          ? 0
                                          : texture((p[0] + p[2]) / 3.0, (p[1] - p[2]) / 3.0 + m.seed);
                chroma[i + (vFirst ? 0 : 1)] = toByte(128 + m.v + 100 * wobble);
                chroma[i + (vFirst ? 1 : 0)] = toByte(128 + m.u - 100 * wobble);
            }
            if (truth) {
                const size_t k = static_cast<size_t>(j) * c.width + i;
                depth[k] = static_cast<float>(hit.p[2]);
                surface[k] = hit.surface;
                textured[k] = hit.surface != kSceneFlatPatch && hit.surface != kSceneNothing;
                occluded[k] = !seenBySub(hit.p);
            }
        }
    }
}

void Scene::extrinsics(bool reversed, vq_tl::Mvec8Real* r, float t[3]) const {
    *r = rotation;
    for (int i = 0; i < 3; ++i) t[i] = static_cast<float>(reversed ? -translation[i] : translation[i]);
    if (reversed) {
        for (int i = 0; i < 3; ++i) {
            for (int k = 0; k < 3; ++k) r->m[3 * i + k] = rotation.m[3 * k + i];
        }
    }
}

void Scene::cameraParam(TwinLensCameraParam* row, bool reversed, bool perCamera) const {
    std::memset(row, 0, sizeof *row);
    row->extrinsicsForward = reversed ? 0 : 1;
    row->mainCalibWidth = mainCalib.width, row->mainCalibHeight = mainCalib.height;
    row->subCalibWidth = subCalib.width, row->subCalibHeight = subCalib.height;
    std::memcpy(row->mainCameraMatrix, mainCalib.matrix.m, sizeof row->mainCameraMatrix);
    std::memcpy(row->subCameraMatrix, subCalib.matrix.m, sizeof row->subCameraMatrix);
    TwinLensLensDist* lens[2] = {&row->mainLensDist, &row->subLensDist};
    const vq_tl::RectifyLensDistortionCoeff* coeff[2] = {&mainCalib.lens.coeff, &subCalib.lens.coeff};
    for (int c = 0; c < 2; ++c) {
        lens[c]->kind = 0;
        std::memcpy(lens[c]->u.coeff.k, coeff[c]->k, sizeof coeff[c]->k);
        std::memcpy(lens[c]->u.coeff.p, coeff[c]->p, sizeof coeff[c]->p);
    }
    vq_tl::Mvec8Real r;
    float t[3];
    extrinsics(reversed, &r, t);
    std::memcpy(row->stereoRotation, r.m, sizeof row->stereoRotation);
    for (int i = 0; i < 3; ++i) row->stereoTranslation[i] = t[i];
    if (!perCamera) return;
    // Rows of the main camera's rectifying rotation: the baseline direction
    // c / |c|, then the axis across it and the optical axis (y = z x e1,
    // z = e1 x y). The sub camera's is that times R^T, since
    // x_rect = Rrect (x_main - c) = Rrect R^T x_sub.
    const double* c = config.subCentre;
    const double n = std::hypot(c[0], c[1], c[2]);
    const double e1[3] = {c[0] / n, c[1] / n, c[2] / n};
    const double m = std::hypot(e1[0], e1[1]);
    const double e2[3] = {-e1[1] / m, e1[0] / m, 0};
    const double e3[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                          e1[0] * e2[1] - e1[1] * e2[0]};
    const double* rect[3] = {e1, e2, e3};
    for (int i = 0; i < 3; ++i) {
        for (int k = 0; k < 3; ++k) {
            row->mainRectRotation[3 * i + k] = rect[i][k];
            row->subRectRotation[3 * i + k] = rect[i][0] * rotation.m[3 * k] +
                                              rect[i][1] * rotation.m[3 * k + 1] +
                                              rect[i][2] * rotation.m[3 * k + 2];
        }
    }
    // Both rectified cameras: the main focal length, centred in 4000 by 3000.
    row->mainRectWidth = row->subRectWidth = mainCalib.width;
    row->mainRectHeight = row->subRectHeight = mainCalib.height;
    const vq_tl::Mvec8Real k = camera(mainCalib.matrix.m[0], 0.5 * mainCalib.width, 0.5 * mainCalib.height);
    std::memcpy(row->mainRectCameraMatrix, k.m, sizeof row->mainRectCameraMatrix);
    std::memcpy(row->subRectCameraMatrix, k.m, sizeof row->subRectCameraMatrix);
}

}  // namespace vq_tl_test
