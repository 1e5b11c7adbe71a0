// Rectification: rotations, camera matrices, grid maps and the lens model against hand-worked and closed
// forms, the fitted inverse and its solver, a synthetic calibrated pair whose points share rows in both
// frames. The public converter of calibration records. The grid warp against known answers and a bilinear
// reference.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "rectify/rectify.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/rectify_util.h"
#include "rectify/renderer2.h"
#include "rectify/renderer2_kernels.h"
#include "rectify/stereo_rectify.h"
#include "support/layers.h"
#include "support/test_env.h"
#include "velquin/rectify_data_converter.h"
#include "warp_support.h"

using namespace vq_tl;
using namespace vq_tl_test;

namespace {

struct Fixture : Owned<Rectify, construct_Rectify, destruct_Rectify> {
    explicit Fixture(Pel* pel = nullptr) { Rectify_setPel(this, pel); }
};

const Mvec8Real kIdentity = {{1, 0, 0, 0, 1, 0, 0, 0, 1}};

void expectMatrixNear(const Mvec8Real& a, const Mvec8Real& e, double tolerance, const char* what) {
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(a.m[i], e.m[i], tolerance) << what << " " << i;
}

// Grid map tests: camera f 320 at (203, 148) on 400 by 300, new camera f 300 at (108, 81), this rotation.
const Mvec8Real kCamera = camera(320, 203, 148), kNewCamera = camera(300, 108, 81);
const Mvec8Real kRotation = rodrigues(0.2, -0.5, 0.8, 0.02);

// Rectified pixel (x, y) to source pixel: K distort(R^T newK^-1 p), written out.
void forward(const RectifyLensDist& lens, double x, double y, double* sx, double* sy) {
    const double* r = kRotation.m;
    const double nx = (x - 108) / 300, ny = (y - 81) / 300;
    const double px = r[0] * nx + r[3] * ny + r[6], py = r[1] * nx + r[4] * ny + r[7],
                 pz = r[2] * nx + r[5] * ny + r[8];
    distort(lens.coeff, px / pz, py / pz, sx, sy);
    *sx = 320 * *sx + 203;
    *sy = 320 * *sy + 148;
}

// An independent inverse of the forward model: p = d - (forward(p) - p) iterated in long double.
void referenceUndistort(const RectifyLensDistortionCoeff& c, double xd, double yd, double* x, double* y) {
    long double px = xd, py = yd;
    for (int it = 0; it < 200; ++it) {
        const long double r2 = px * px + py * py, radial = 1 + r2 * (c.k[0] + r2 * (c.k[1] + r2 * c.k[2]));
        px += xd - (px * radial + 2 * c.p[0] * px * py + c.p[1] * (r2 + 2 * px * px));
        py += yd - (py * radial + c.p[0] * (r2 + 2 * py * py) + 2 * c.p[1] * px * py);
    }
    *x = static_cast<double>(px);
    *y = static_cast<double>(py);
}

// A float matrix, element k row-major; rows padded so that code which ignores the pitch is caught.
struct Matrix : Picture {
    Matrix(int32_t rows, int32_t cols, std::initializer_list<float> v = {})
        : Picture(cols, rows, IMAGE_FORMAT_FLOAT, 12) {
        int k = 0;
        for (float x : v) at(k++) = x;
    }
    float& at(int k) { return Picture::at<float>(k % image.width, k / image.width); }
};

struct PairResult {
    double worstRowOffset = 0, worstDisparity = 0;  // |row 1 - row 2|; disparity against f B / Z
    double worstGrid = 0;                           // the grid's map against the camera model
    int32_t points = 0;                             // seen by both cameras and compared
    Mvec8Real newCamera[2];
};

// Rectifies a pair of 4000 by 3000 phone cameras (f 3200, module-sized lens terms, centres a few pixels off)
// at the working size, 1080 by 810 in cells of 32, and projects 3D points into both.
PairResult rectifyPair(const float baseline[3], const Mvec8Real& rotation, Pel* pel) {
    PairResult res;
    Stereo st(pel);
    const Mvec8Real k[2] = {camera(3200, 2003.5, 1497.2), camera(3150, 1995.0, 1506.0)};
    RectifyLensDist lens[2] = {coeffLens(0.06, -0.12, 0.04, 6e-4, -4e-4),
                               coeffLens(-0.05, 0.08, -0.02, -5e-4, 3e-4)};
    constexpr int32_t kW = 1080, kH = 810;
    Mvec8Real r[2], *n = res.newCamera, fitted[2];
    EXPECT_EQ(StereoRectify_stereoRectify(&st, &r[0], &r[1], &n[0], &n[1], &k[0], &k[1], &lens[0], &lens[1],
                                          &rotation, baseline, kW, kH, 4000, 3000, 4000, 3000, 8, 8),
              TL_OK);
    // The main camera with the inverse grid (at half the working size), then the sub.
    Grid grid[2] = {{kW, kH, 32}, {kW, kH, 32}}, inverseGrid(kW / 2, kH / 2, 32);
    for (int c = 0; c < 2; ++c) {
        EXPECT_EQ(
            StereoRectify_calcRectifyGridParams(&st, &grid[c].g, c == 0 ? &inverseGrid.g : nullptr, &r[c],
                                                &n[c], &k[c], &lens[c], kW, kH, kW, kH, kW, kH, 4000, 3000),
            TL_OK);
        StereoRectify_fitCameraMatrix(&fitted[c], &k[c], kW, kH, 4000, 3000);
    }
    const double b = std::hypot(double{baseline[0]}, double{baseline[1]}, double{baseline[2]});
    const int32_t steps = vq_tl_test_scaled(15, 7);
    for (const double depth : {500.0, 900.0, 2000.0, 5000.0}) {
        for (int32_t i = 0; i < (steps + 1) * (steps + 1); ++i) {
            // Directions over the main camera's field, to its corners.
            double p[2][3] = {{depth * (-0.6 + 1.2 * (i % (steps + 1)) / steps),
                               depth * (-0.45 + 0.9 * (i / (steps + 1)) / steps), depth}};
            Mvec8Real_trans3DReal(&rotation, p[1], p[0]);
            for (int a = 0; a < 3; ++a) p[1][a] += baseline[a];
            double u[2], v[2], x[2][2], q[3], at[2];
            bool seen = true;
            for (int c = 0; c < 2; ++c) {
                distort(lens[c].coeff, p[c][0] / p[c][2], p[c][1] / p[c][2], &u[c], &v[c]);
                u[c] = fitted[c].m[0] * u[c] + fitted[c].m[2];
                v[c] = fitted[c].m[4] * v[c] + fitted[c].m[5];
                seen = seen && u[c] >= 0 && u[c] <= kW && v[c] >= 0 && v[c] <= kH;
                // The rectified pixel of the point: the new camera of the turned frame.
                Mvec8Real_trans3DReal(&r[c], q, p[c]);
                x[c][0] = n[c].m[0] * q[0] / q[2] + n[c].m[2];
                x[c][1] = n[c].m[4] * q[1] / q[2] + n[c].m[5];
            }
            if (!seen) continue;
            // The warp fills that pixel from where the camera sees the point.
            for (int c = 0; c < 2; ++c) {
                EXPECT_TRUE(gridAt(grid[c].g, x[c][0], x[c][1], at)) << x[c][0] << "," << x[c][1];
                res.worstGrid = std::fmax(res.worstGrid, std::hypot(at[0] - u[c], at[1] - v[c]));
            }
            // The whole source frame lies inside the rectified frame.
            EXPECT_TRUE(x[0][0] >= 0 && x[0][0] <= kW && x[0][1] >= 0 && x[0][1] <= kH) << x[0][0];
            res.worstRowOffset = std::fmax(res.worstRowOffset, std::fabs(x[0][1] - x[1][1]));
            res.worstDisparity = std::fmax(res.worstDisparity,
                                           std::fabs(std::fabs(x[0][0] - x[1][0]) - n[0].m[0] * b / depth));
            ++res.points;
        }
    }
    return res;
}

// A converter context in a caller's buffer, as a camera service would hold it.
struct Converter {
    alignas(8) uint8_t buffer[64];
    RectifyDataConverterHandle handle{nullptr};
    explicit Converter(int32_t tableCapacity = 41, int32_t coefficientCount = 3) {
        EXPECT_EQ(velquin_RectifyDataConverter_initialize(&handle, buffer, sizeof buffer, tableCapacity,
                                                          coefficientCount),
                  TL_OK);
    }
    ~Converter() {
        if (handle.context != nullptr) velquin_RectifyDataConverter_finalize(&handle);
    }
};

// The hand-made record. Power-of-two pitches keep it exact: main f = 4.0 mm / 2^-10 mm = 4096 pixels, sub f =
// 3.0 mm / 1.953125 um = 1536. Centres off by (8, -12) and (-3, 0) pixels; crop origins round to (3, -1) and
// (0, 2), sizes to 3996 by 2996 and 2000 by 1500. The sub table: R2 = t^2 1250^2 / 1536^2 at fraction t.
const float kMainTable[5] = {0.0f, 0.24f, 0.47f, 0.69f, 0.9f};
constexpr float kSubK1 = -0.05f, kSubK2 = 0.01f;
float gSubTable[11];

RectifyDataConverterParam handMadeRecord() {
    for (int i = 0; i < 11; ++i) {
        const double t = i / 10.0, r2 = t * t * (1250.0 * 1250.0) / (1536.0 * 1536.0);
        gSubTable[i] = static_cast<float>(t * (1.0 + kSubK1 * r2 + kSubK2 * r2 * r2));
    }
    // In the record's order: the forward flag, pitches, focal lengths, sensor sizes, centre offsets, the main
    // and sub crops (left, top, width, height), lens kinds, counts, tables, translation, rotation angles.
    return {1,          0.9765625f,   1.953125f,     4.0f, 3.0f, 4000,  3000,    2000,       1500,
            0.0078125f, -0.01171875f, -0.005859375f, 0.0f, 2.5f, -0.5f, 3995.5f, 2996.4f,    0.49f,
            1.5f,       1999.5f,      1499.5f,       1,    0,    5,     11,      kMainTable, gSubTable,
            -10.5f,     0.25f,        1.0f,          0.0f, 0.0f, 90.0f};
}

// A row whose every byte is 0x5A, so that fields left alone can be told.
TwinLensCameraParam sentinelRow() {
    TwinLensCameraParam row;
    return static_cast<TwinLensCameraParam*>(std::memset(&row, 0x5A, sizeof row))[0];
}

bool untouched(const void* field, size_t bytes) {
    const uint8_t* p = static_cast<const uint8_t*>(field);
    return std::all_of(p, p + bytes, [](uint8_t b) { return b == 0x5A; });
}

struct FormatMode {
    uint32_t format;
    int32_t mode;
};

// Every format with a kernel, in every mode selecting another: 16, 17, 20, 21 the interleaved 4:2:2 orders.
constexpr uint32_t kGray = IMAGE_FORMAT_UINT8, k422P = IMAGE_FORMAT_YUV422_PLANAR,
                   k420P = IMAGE_FORMAT_YUV420_PLANAR, k420SP = IMAGE_FORMAT_YUV420_SEMIPLANAR,
                   k420VU = IMAGE_FORMAT_YVU420_SEMIPLANAR;
const FormatMode kAllKernels[] = {{16, 0},     {17, 0},     {20, 0},     {21, 0},     {k422P, 0},
                                  {kGray, 0},  {k420P, 0},  {k420P, 1},  {k420P, 3},  {k420SP, 0},
                                  {k420SP, 1}, {k420SP, 2}, {k420SP, 3}, {k420VU, 1}, {k420VU, 3}};

bool isCopy(const FormatMode& f) { return f.mode == 3 && Layout::of(f.format).chromaShiftY == 1; }
bool isNearest(const FormatMode& f) { return f.mode == 2 && f.format != k420P; }

std::string nameOf(const FormatMode& f) {
    return std::string(Image_getImageFormatStr(f.format)) + " mode " + std::to_string(f.mode);
}

// Whether the vertices of pixel (x, y)'s cell (at most `last` from the end) lie in [0, w - m] by [0, h - m].
bool cellInside(const Grid& grid, int32_t x, int32_t y, int32_t w, int32_t h, int32_t margin, int32_t last) {
    const int32_t v = std::min(y / grid.g.gridHeight, grid.g.rows - last) * grid.g.cols +
                      std::min(x / grid.g.gridWidth, grid.g.cols - last);
    const int32_t c[4] = {v, v + 1, v + grid.g.cols, v + grid.g.cols + 1};
    return std::all_of(c, c + 4, [&](int32_t i) {
        return grid.g.x[i] >= 0 && grid.g.x[i] <= w - margin && grid.g.y[i] >= 0 && grid.g.y[i] <= h - margin;
    });
}

// The corners of a one-cell grid (top left, top right, bottom left, bottom right).
void setCorners(Grid& grid, const double v[8]) {
    for (int32_t i = 0; i < 8; ++i) (i % 2 == 0 ? grid.g.x : grid.g.y)[i / 2] = v[i];
}

Map projective(const std::vector<double>& m) {
    return [m](double x, double y, double* sx, double* sy) {
        const double w = m[6] * x + m[7] * y + m[8];
        *sx = (m[0] * x + m[1] * y + m[2]) / w;
        *sy = (m[3] * x + m[4] * y + m[5]) / w;
    };
}
Map affine(double a, double b, double c, double d, double e, double f) {
    return projective({a, b, c, d, e, f, 0, 0, 1});
}

// Samples moved by whole steps: luma from (x + d, y + d), columns up to lastColumn(y); chroma by (cdx, cdy).
void expectMoved(const Picture& dst, const Picture& src, const Layout& l, int32_t w, int32_t h, bool luma,
                 int32_t d, int32_t cdx, int32_t cdy, const std::string& what,
                 const std::function<int32_t(int32_t)>& lastColumn = nullptr) {
    for (int32_t y = 0; luma && y < h; ++y) {
        const int32_t limit = lastColumn ? lastColumn(y) : INT32_MAX;
        for (int32_t x = 0; x < w; ++x)
            ASSERT_EQ(l.luma(dst, x, y), l.luma(src, std::min(x + d, limit), y + d))
                << what << " " << x << "," << y;
    }
    for (int32_t cy = 0; l.hasChroma && cy < l.chromaHeight(h); ++cy) {
        for (int32_t cx = 0; cx < l.chromaWidth(w); ++cx) {
            for (int c = 0; c < 2; ++c)
                ASSERT_EQ(l.chroma(dst, c, cx, cy), l.chroma(src, c, cx + cdx, cy + cdy))
                    << what << " chroma " << cx;
        }
    }
}

}  // namespace

TEST(Rectify, RectifyingRotationsWorkedByHand) {
    Fixture f;
    const double h = std::sqrt(0.5);
    const Mvec8Real turn = {{0.8, 0.6, 0, -0.6, 0.8, 0, 0, 0, 1}}, eighth = {{h, -h, 0, h, h, 0, 0, 0, 1}};
    const Mvec8Real ry10 = rodrigues(0, 1, 0, M_PI / 18), ryMinus10 = rodrigues(0, 1, 0, -M_PI / 18);
    const struct {
        const char* name;
        Mvec8Real rotation;
        double t[3];
        Mvec8Real rotation1, rotation2;
    } cases[] = {
        // No rotation, baseline along x: nothing to turn. A vertical baseline takes the y axis, either sign.
        {"baseline -x", kIdentity, {-10, 0, 0}, kIdentity, kIdentity},
        {"baseline +y", kIdentity, {0, 5, 0}, kIdentity, kIdentity},
        // (3, 4, 0): y is strictly greater, n = (0.6, 0.8, 0), and align turns y onto n by acos(0.8) about
        // -z. (-4, 3, 0): x is greater and negative, so t becomes (4, -3, 0): the same turn.
        {"baseline (3, 4, 0)", kIdentity, {3, 4, 0}, turn, turn},
        {"baseline (-4, 3, 0)", kIdentity, {-4, 3, 0}, turn, turn},
        // Equal parts count as horizontal: 45 degrees about z.
        {"baseline (2, 2, 0)", kIdentity, {2, 2, 0}, eighth, eighth},
        // 10 degrees about y with the baseline along -x: the halves are Ry(5) and Ry(-5), t = Ry(-5) (-10, 0,
        // 0) turned positive is (cos 5, 0, sin 5) * 10, and align = Ry(-5) takes x onto it. With align itself
        // in both products: rotation1 = Ry(-5) Ry(5) = I and rotation2 = Ry(-5) Ry(-5) = Ry(-10).
        {"10 degrees about y", ry10, {-10, 0, 0}, kIdentity, ryMinus10},
    };
    for (const auto& c : cases) {
        Mvec8Real r1, r2;
        ASSERT_EQ(Rectify_calcRectifyRotMat(&f, &r1, &r2, &c.rotation, c.t), TL_OK) << c.name;
        expectMatrixNear(r1, c.rotation1, 1e-12, c.name);
        expectMatrixNear(r2, c.rotation2, 1e-12, c.name);
    }
    // Refused, outputs untouched: not a rotation (the sine of its angle above 1), no baseline, not a number.
    Mvec8Real r1 = kIdentity, r2 = kIdentity;
    const Mvec8Real notRotation = {{1, 0, 0, 0, 1, -3, 0, 3, 1}},
                    notANumber = {{1, 0, 0, 0, 1, NAN, 0, 0, 1}};
    const double t[3] = {-10, 0.1, 0.2}, zero[3] = {0, 0, 0};
    for (const auto& [rotation, baseline] :
         {std::pair{&notRotation, t}, {&kRotation, zero}, {&notANumber, t}})
        EXPECT_EQ(Rectify_calcRectifyRotMat(&f, &r1, &r2, rotation, baseline), TL_ERROR_GENERAL);
    expectMatrixNear(r1, kIdentity, 0, "untouched");
}

TEST(Rectify, GridMapsMatchClosedFormsAndTheInverseGridUndoesThem) {
    // Each vertex against the model written out, serially and over a Pel. Each vertex of the inverse grid,
    // sent forward through the exact model, comes back to its source within the fitted inverse's accuracy.
    Fixture serial, parallel(&sharedLayers().pel);
    const RectifyLensDist none = coeffLens(0, 0, 0, 0, 0), mild = coeffLens(0.05, -0.08, 0.02, 4e-4, -3e-4);
    for (const RectifyLensDist& lens : {none, mild}) {
        for (Fixture* f : {&serial, &parallel}) {
            RectifyLensDist d = lens;
            Grid grid(216, 162, 16), inverse(400, 300, 25);
            ASSERT_EQ(Rectify_calcRectifyGridParams(f, &grid.g, &inverse.g, &kCamera, &d, &kRotation,
                                                    &kNewCamera, 400, 300),
                      TL_OK);
            double sx, sy, worst = 0;
            for (int32_t v = 0; v < grid.count(); ++v) {
                forward(d, grid.g.xs[v], grid.g.ys[v], &sx, &sy);
                ASSERT_TRUE(std::fabs(grid.g.x[v] - sx) < 1e-9 && std::fabs(grid.g.y[v] - sy) < 1e-9) << v;
            }
            for (int32_t v = 0; v < inverse.count(); ++v) {
                forward(d, inverse.g.x[v], inverse.g.y[v], &sx, &sy);
                worst = std::fmax(worst, std::hypot(sx - inverse.g.xs[v], sy - inverse.g.ys[v]));
            }
            EXPECT_LT(worst, 0.1);
        }
    }
    // Laid out on 100 by 60 of the 400 by 300 image: the scaled inverse multiplies the focal terms by 4
    // across and 5 down, so with no lens, no rotation and one camera vertex (x, y) maps to (4 x, 5 y).
    RectifyLensDist d = none;
    Grid grid(400, 300, 32), inverse(100, 60, 8);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&serial, &grid.g, &inverse.g, &kCamera, &d, &kIdentity, &kCamera,
                                            400, 300),
              TL_OK);
    for (int32_t v = 0; v < inverse.count(); ++v)
        ASSERT_TRUE(std::fabs(inverse.g.x[v] - 4.0 * inverse.g.xs[v]) < 1e-9 &&
                    std::fabs(inverse.g.y[v] - 5.0 * inverse.g.ys[v]) < 1e-9);
}

TEST(Rectify, VerticesBeyondTheRadiusLimitAreInvalid) {
    // No distortion: the limit is the radius of the corners pushed out by 32 pixels, hypot(232, 182) / 320. A
    // short new focal length of 100 sends the outer vertices of the rectified frame beyond it.
    Fixture f;
    const Mvec8Real k = camera(320, 200, 150), newK = camera(100, 108, 81);
    RectifyLensDist none = coeffLens(0, 0, 0, 0, 0);
    Grid grid(216, 162, 8);
    ASSERT_EQ(Rectify_calcRectifyGridParams(&f, &grid.g, nullptr, &k, &none, &kIdentity, &newK, 400, 300),
              TL_OK);
    int32_t invalid = 0;
    for (int32_t v = 0; v < grid.count(); ++v) {
        const bool beyond = std::hypot((grid.g.xs[v] - 108) / 100.0, (grid.g.ys[v] - 81) / 100.0) >
                            std::hypot(232.0, 182.0) / 320;
        invalid += beyond;
        ASSERT_NEAR(grid.g.x[v], beyond ? kRenderer2InvalidVertex : 200 + 3.2 * (grid.g.xs[v] - 108), 1e-9);
        ASSERT_EQ(grid.g.y[v] == kRenderer2InvalidVertex, beyond);
    }
    EXPECT_TRUE(invalid > 20 && invalid < grid.count() / 2) << invalid;
}

TEST(Rectify, ComplementingTwoGrids) {
    Fixture f, parallel(&sharedLayers().pel);
    Grid a(64, 48, 16), b(64, 48, 16), out(64, 48, 16), out2(64, 48, 16);
    a.apply([](double x, double y, double* sx, double* sy) { *sx = x + 4.0, *sy = y - 2.0; });
    b.apply([](double x, double y, double* sx, double* sy) { *sx = x * 0.5, *sy = y * 0.25 + 1.0; });
    a.g.x[3] = kRenderer2InvalidVertex;
    b.g.y[7] = kRenderer2InvalidVertex;
    for (const double alpha : {0.0, 0.25, 1.0}) {
        ASSERT_EQ(Rectify_complementGridMap(&f, &out.g, &a.g, &b.g, alpha), TL_OK);
        ASSERT_EQ(Rectify_complementGridMap(&parallel, &out2.g, &a.g, &b.g, alpha), TL_OK);
        EXPECT_EQ(std::memcmp(out.g.x, out2.g.x, sizeof(double) * out.count()), 0);
        for (int32_t v = 0; v < a.count(); ++v) {
            // An invalid coordinate in either input invalidates both outputs.
            const bool invalid = v == 3 || v == 7;
            const double x = (1 - alpha) * b.g.x[v] + alpha * a.g.x[v],
                         y = (1 - alpha) * b.g.y[v] + alpha * a.g.y[v];
            EXPECT_TRUE(out.g.x[v] == (invalid ? kRenderer2InvalidVertex : x) &&
                        out.g.y[v] == (invalid ? kRenderer2InvalidVertex : y))
                << v;
        }
    }
    // Refused: alpha outside [0, 1].
    for (const double alpha : {-0.01, 1.01, static_cast<double>(NAN)})
        EXPECT_EQ(Rectify_complementGridMap(&f, &out.g, &a.g, &b.g, alpha), TL_ERROR_PARAM) << alpha;
}

TEST(RectifyLensDist, FittedInverseUndoesPhoneLenses) {
    // 4000 by 3000 phone cameras, f 3200: over 41 by 31 distorted points, distort(undistort(p)) - p and the
    // fitted inverse against the reference. The single-precision fit comes to about 0.8 pixel at the corners
    // for the strong barrel lens, 0.25 for the pincushion, 0.04 for the mild one, over a Pel too.
    const struct {
        double k1, k2, k3, p1, p2, tolerancePixels;
    } lenses[] = {{-0.12, 0.05, -0.01, 0.0010, -0.0008, 1.0},
                  {0.08, -0.02, 0.005, -0.0005, 0.0012, 0.35},
                  {-0.035, 0.012, 0.0, 0.0002, 0.0003, 0.08}};
    const Mvec8Real k = camera(3200, 2000, 1500);
    Fixture serial, parallel(&sharedLayers().pel);
    for (const auto& lens : lenses) {
        RectifyLensDist d = coeffLens(lens.k1, lens.k2, lens.k3, lens.p1, lens.p2), e = d;
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&serial, &d.coeff, &k, 4000, 3000), TL_OK);
        ASSERT_EQ(Rectify_estimateUndistortCoeff(&parallel, &e.coeff, &k, 4000, 3000), TL_OK);
        EXPECT_EQ(std::memcmp(&d, &e, sizeof d), 0) << lens.k1;
        double roundTrip = 0, versusReference = 0;
        for (int i = 0; i < 41 * 31; ++i) {
            const double xd = (100.0 * (i % 41) - 2000) / 3200, yd = (100.0 * (i / 41) - 1500) / 3200;
            double xi, yi, xr, yr, xb, yb;
            ASSERT_EQ(Rectify_undistortPoint(xd, yd, &xi, &yi, &d), TL_OK);
            ASSERT_EQ(Rectify_distortPoint(xi, yi, &xb, &yb, &d), TL_OK);
            referenceUndistort(d.coeff, xd, yd, &xr, &yr);
            roundTrip = std::fmax(roundTrip, 3200 * std::hypot(xb - xd, yb - yd));
            versusReference = std::fmax(versusReference, 3200 * std::hypot(xi - xr, yi - yr));
        }
        EXPECT_LT(std::fmax(roundTrip, versusReference), lens.tolerancePixels) << lens.k1;
    }
}

TEST(RectifyLensDist, ModelsWorkedByHand) {
    // x' = x (1 + k1 r2) / (1 + k4 r2) + 2 p1 x y + p2 (r2 + 2 x^2), r2 = 0.3125.
    RectifyLensDist d = coeffLens(0.2, 0, 0, 0.01, -0.02);
    d.coeff.k[3] = 0.1;
    double x, y;
    ASSERT_EQ(Rectify_distortPoint(0.5, -0.25, &x, &y, &d), TL_OK);
    const double r2 = 0.3125, radial = (1 + 0.2 * r2) / (1 + 0.1 * r2);
    EXPECT_DOUBLE_EQ(x, 0.5 * radial + 2 * 0.01 * 0.5 * -0.25 + -0.02 * (r2 + 2 * 0.25));
    EXPECT_DOUBLE_EQ(y, -0.25 * radial + 0.01 * (r2 + 2 * 0.0625) + 2 * -0.02 * 0.5 * -0.25);
    // The inverse direction uses invK and invP in the same formulas.
    d.coeff.invK[0] = -0.2;
    d.coeff.invP[1] = 0.02;
    ASSERT_EQ(Rectify_undistortPoint(0.5, -0.25, &x, &y, &d), TL_OK);
    EXPECT_DOUBLE_EQ(x, 0.5 * (1 - 0.2 * r2) + 0.02 * (r2 + 0.5));
    EXPECT_DOUBLE_EQ(y, -0.25 * (1 - 0.2 * r2) + 2 * 0.02 * 0.5 * -0.25);
    // Three knots at ideal radii 0, 1, 2 (maxRadius 2): distorted 0, 0.8, 2.4. Beyond the last knot the
    // factor is T[n-1] (3 * 1.2), 1 / T[n-1] back: the map jumps. The centre and points within 1e-15 stay.
    RectifyLensDist t;
    const double knots[3] = {0.0, 0.4, 1.2};
    RectifyLensDist_clear(&t), RectifyLensDist_setDistData(&t, knots, 3, 2.0);
    const struct {
        double ideal, distorted, cosine;
    } cases[] = {{0.5, 0.4, 0.6}, {1.0, 0.8, 0.6}, {1.5, 1.6, 0.6},
                 {3.0, 3.6, 1.0}, {0, 0, 0.6},     {1e-16, 1e-16, 0.6}};
    for (const auto& c : cases) {
        const double sine = std::sqrt(1 - c.cosine * c.cosine);
        for (const bool forward : {true, false}) {
            const double from = forward ? c.ideal : c.distorted, to = forward ? c.distorted : c.ideal;
            ASSERT_EQ((forward ? Rectify_distortPoint : Rectify_undistortPoint)(from * c.cosine, from * sine,
                                                                                &x, &y, &t),
                      TL_OK);
            EXPECT_TRUE(std::fabs(x - to * c.cosine) < 1e-15 && std::fabs(y - to * sine) < 1e-15) << from;
        }
    }
}

TEST(RectifyUtil, GaussianElimination) {
    // Random diagonally dominant systems from a known solution, in double, stored as float.
    std::mt19937 rng(31337);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int round = 0; round < 100; ++round) {
        const int n = 1 + round % 7;
        Matrix a(n, n), b(n, 1);
        std::vector<double> x(n), rhs(n, 0.0);
        for (int i = 0; i < n; ++i) x[i] = u(rng) * 10.0;
        for (int i = 0; i < n * n; ++i)
            rhs[i / n] += (a.at(i) = u(rng) + (i % (n + 1) == 0 ? 4 : 0)) * x[i % n];
        for (int i = 0; i < n; ++i) b.at(i) = static_cast<float>(rhs[i]);
        ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&a.image, &b.image), TL_OK);
        for (int i = 0; i < n; ++i) EXPECT_NEAR(b.at(i), x[i], 1e-4) << "n " << n << " row " << i;
    }
    // A zero diagonal needs the row swap; b is swapped over its whole width.
    Matrix s(2, 2, {0, 1, 1, 0}), sb(2, 2, {5, 50, 7, 70});
    ASSERT_EQ(RectifyUtil_laSolveGaussianElimination(&s.image, &sb.image), TL_OK);
    EXPECT_TRUE(sb.at(0) == 7 && sb.at(1) == 70 && sb.at(2) == 5 && sb.at(3) == 50);
    // A singular matrix is refused.
    Matrix singular(2, 2, {1, 2, 2, 4}), b(2, 1, {1, 1});
    EXPECT_EQ(RectifyUtil_laSolveGaussianElimination(&singular.image, &b.image), TL_ERROR_GENERAL);
}

TEST(StereoRectify, FitCameraMatrixWorkedByHand) {
    // From 4000 by 3000, f 3200 by 3190 at (2003.3, 1497.7). One aspect scales; wider frames scale by height
    // and crop across (square: 1 / 3, cx 500 off), taller by width, down (16:9: 0.48, cy 375).
    const Mvec8Real k = camera(3200, 2003.3, 1497.7, 3190);
    const struct {
        int32_t width, height;
        double f, fy, cx, cy;
    } cases[] = {
        {4000, 3000, 3200, 3190, 2003.3, 1497.7},
        {1000, 750, 800, 797.5, 500.825, 374.425},
        {1080, 810, 864, 861.3, 540.891, 404.379},
        {1000, 1000, 3200 / 3.0, 3190 / 3.0, (2003.3 - 500) / 3, 1497.7 / 3},
        {1920, 1080, 1536, 1531.2, 961.584, 0.48 * (1497.7 - 375)},
    };
    for (const auto& c : cases) {
        Mvec8Real out;
        ASSERT_EQ(StereoRectify_fitCameraMatrix(&out, &k, c.width, c.height, 4000, 3000), TL_OK);
        const Mvec8Real expected = camera(c.f, c.cx, c.cy, c.fy);
        for (int i = 0; i < 9; ++i) EXPECT_NEAR(out.m[i], expected.m[i], 2e-4) << c.width << " " << i;
    }
}

TEST(StereoRectify, SynthesizeGridComposesTwoMaps) {
    // A lookup holding an affine map at its vertices: bilinear interpolation reproduces it exactly
    // inside, and its edge outside. The 4 row tasks over a Pel agree. One grid for both is refused.
    Stereo serial, parallel(&sharedLayers().pel);
    Grid lookup(64, 48, 16), grid(40, 30, 8), again(40, 30, 8);
    lookup.apply(
        [](double x, double y, double* sx, double* sy) { *sx = 2.0 * x + 1.0, *sy = -3.0 * y + 0.5 * x; });
    for (Grid* g : {&grid, &again}) {
        g->apply(
            [](double x, double y, double* sx, double* sy) { *sx = 1.3 * x + 0.7, *sy = 1.1 * y + 2.25; });
        // Outside on two sides, and the invalid marker, which reads the last column and row.
        g->g.x[0] = -10;
        g->g.y[0] = 60;
        g->g.x[1] = g->g.y[1] = kRenderer2InvalidVertex;
    }
    const std::vector<double> x(grid.g.x, grid.g.x + grid.count()), y(grid.g.y, grid.g.y + grid.count());
    ASSERT_EQ(StereoRectify_synthesizeGrid(&serial, &grid.g, &lookup.g), TL_OK);
    ASSERT_EQ(StereoRectify_synthesizeGrid(&parallel, &again.g, &lookup.g), TL_OK);
    for (int32_t v = 0; v < grid.count(); ++v) {
        const double cx = std::clamp(x[v], 0.0, 64.0), cy = std::clamp(y[v], 0.0, 48.0);
        ASSERT_TRUE(std::fabs(grid.g.x[v] - (2.0 * cx + 1.0)) < 1e-9 &&
                    std::fabs(grid.g.y[v] - (-3.0 * cy + 0.5 * cx)) < 1e-9)
            << v;
    }
    EXPECT_TRUE(!std::memcmp(again.g.x, grid.g.x, sizeof(double) * grid.count()) &&
                !std::memcmp(again.g.y, grid.g.y, sizeof(double) * grid.count()));
    EXPECT_EQ(StereoRectify_synthesizeGrid(&serial, &grid.g, &grid.g), TL_ERROR_PARAM);
}

TEST(StereoRectify, PointsLandOnTheSameRowOfBothFrames) {
    // A 10 mm baseline along x, a residual rotation of 0.3 degree: every point from 0.5 m to 5 m lands on the
    // same row of both frames within a quarter of a pixel, at the disparity (1.7 to 17 pixels) of the
    // baseline at the new focal length. Vertical and depth parts of tenths of a millimetre part the rows (the
    // rotation turns the baseline by twice its angle), within the 4 rows each way the matcher searches.
    const Mvec8Real turn = rodrigues(0.3, -0.5, 0.8, 0.3 * M_PI / 180),
                    tilt = rodrigues(-0.7, 0.2, 0.4, 0.4 * M_PI / 180);
    const struct {
        float baseline[3];
        const Mvec8Real& rotation;
        double rows, disparity;
    } cases[] = {{{-10.0f, 0.0f, 0.0f}, turn, 0.25, 0.15},
                 {{-10.0f, 0.3f, 0.3f}, tilt, 4.0, 1e9},
                 {{-10.0f, -0.4f, 0.2f}, tilt, 4.0, 1e9},
                 {{10.0f, 0.3f, -0.4f}, tilt, 4.0, 1e9}};
    for (const auto& c : cases) {
        const PairResult r = rectifyPair(c.baseline, c.rotation, nullptr);
        EXPECT_GT(r.points, vq_tl_test_scaled(500, 100));
        EXPECT_LT(r.worstRowOffset, c.rows) << c.baseline[1];
        EXPECT_LT(r.worstDisparity, c.disparity) << c.baseline[1];
        EXPECT_LT(r.worstGrid, 0.15) << c.baseline[1];
        // One new camera for both, at about a quarter of the calibration's focal length.
        EXPECT_EQ(std::memcmp(&r.newCamera[0], &r.newCamera[1], sizeof(Mvec8Real)), 0);
        EXPECT_TRUE(r.newCamera[0].m[0] > 800 && r.newCamera[0].m[0] < 870) << r.newCamera[0].m[0];
    }
    EXPECT_EQ(rectifyPair(cases[0].baseline, turn, &sharedLayers().pel).worstGrid,
              rectifyPair(cases[0].baseline, turn, nullptr).worstGrid);
}

TEST(StereoRectify, SmallFrameWithAStrongLensKeepsItsCoverage) {
    // A 640 by 480 camera, f 560, with a strong k3, at its working size of 172 by 130: the radius limit
    // pushes the corners out by 32 pixels, far beyond where the lens inverse was fitted (the frame grown by a
    // tenth), where the fitted inverse folds back inside. The grid must still cover what the lens images: the
    // share drawn from a white frame within 3 points of the share whose rays land in the frame (about 81 %).
    constexpr int32_t kW = 172, kH = 130;
    const Mvec8Real k[2] = {camera(560, 322.5, 238), camera(560, 318, 241)};
    RectifyLensDist lens[2] = {coeffLens(-0.27, -0.05, 0.25, 0, 0), coeffLens(-0.27, -0.05, 0.25, 0, 0)};
    const Mvec8Real turn = rodrigues(0.3, -0.5, 0.8, 0.3 * M_PI / 180);
    const float baseline[3] = {-10.0f, 0.0f, 0.0f};
    Stereo st;
    Mvec8Real r[2], n[2], fitted;
    ASSERT_EQ(StereoRectify_stereoRectify(&st, &r[0], &r[1], &n[0], &n[1], &k[0], &k[1], &lens[0], &lens[1],
                                          &turn, baseline, kW, kH, 640, 480, 640, 480, 8, 8),
              TL_OK);
    Grid grid(kW, kH, 32);
    ASSERT_EQ(StereoRectify_calcRectifyGridParams(&st, &grid.g, nullptr, &r[0], &n[0], &k[0], &lens[0], kW,
                                                  kH, kW, kH, kW, kH, 640, 480),
              TL_OK);
    Picture white(kW, kH, IMAGE_FORMAT_UINT8), drawn(kW, kH, IMAGE_FORMAT_UINT8);
    white.fillPlanes(255), drawn.fillPlanes(0);
    Renderer renderer(1, 1);
    ASSERT_EQ(render(renderer, drawn, white, grid), TL_OK);
    StereoRectify_fitCameraMatrix(&fitted, &k[0], kW, kH, 640, 480);
    int32_t covered = 0, imaged = 0;
    for (int32_t i = 0; i < kW * kH; ++i) {
        const int32_t x = i % kW, y = i / kW;
        covered += drawn.u8(x, y) == 255;
        // The ray of the rectified pixel in the camera, by the transposed rotation.
        const double q[3] = {(x - n[0].m[2]) / n[0].m[0], (y - n[0].m[5]) / n[0].m[4], 1};
        double p[3], u, v;
        for (int a = 0; a < 3; ++a) p[a] = r[0].m[a] * q[0] + r[0].m[3 + a] * q[1] + r[0].m[6 + a] * q[2];
        distort(lens[0].coeff, p[0] / p[2], p[1] / p[2], &u, &v);
        u = fitted.m[0] * u + fitted.m[2], v = fitted.m[4] * v + fitted.m[5];
        imaged += u >= 0 && v >= 0 && u <= kW - 1 && v <= kH - 1;
    }
    EXPECT_GT(imaged, 0.75 * kW * kH);
    EXPECT_NEAR(static_cast<double>(covered) / (kW * kH), static_cast<double>(imaged) / (kW * kH), 0.03);
}

TEST(RectifyDataConverter, HandMadeRecordGivesTheRowWorkedOutByHand) {
    Converter c;
    const RectifyDataConverterParam p = handMadeRecord();
    TwinLensCameraParam row = sentinelRow();
    ASSERT_EQ(velquin_RectifyDataConverter_convert(&c.handle, &row, &p), TL_OK);
    EXPECT_EQ(row.extrinsicsForward, 1);
    // Camera matrices: main cx = 8 + 2000 - 3, cy = -12 + 1500 + 1; sub 997, 748 likewise.
    const double mainK[9] = {4096, 0, 2005, 0, 4096, 1489, 0, 0, 1},
                 subK[9] = {1536, 0, 997, 0, 1536, 748, 0, 0, 1};
    EXPECT_TRUE(std::equal(mainK, mainK + 9, row.mainCameraMatrix));
    EXPECT_TRUE(std::equal(subK, subK + 9, row.subCameraMatrix));
    // Rz(90 degrees) with the radians in float: fl(pi / 2) lies 4.371139e-8 above pi / 2, the cosine below 0.
    const double z = std::cos(static_cast<double>(static_cast<float>(M_PI / 2))),
                 rotation[9] = {z, -1, 0, 1, z, 0, 0, 0, 1};
    for (int i = 0; i < 9; ++i) EXPECT_NEAR(row.stereoRotation[i], rotation[i], 1e-14) << i;
    EXPECT_TRUE(row.stereoTranslation[0] == -10.5 && row.stereoTranslation[1] == 0.25 &&
                row.stereoTranslation[2] == 1.0);
    EXPECT_TRUE(row.mainCalibWidth == 3996 && row.mainCalibHeight == 2996 && row.subCalibWidth == 2000 &&
                row.subCalibHeight == 1500 && row.mainRectWidth == 3996 && row.mainRectHeight == 2996 &&
                row.subRectWidth == 2000 && row.subRectHeight == 1500);
    // Main lens kept as a table: half the diagonal over f is hypot(4000, 3000) / 4096 / 2 = 0.6103515625.
    EXPECT_TRUE(row.mainLensDist.kind == 1 && row.mainLensDist.u.data.count == 5);
    EXPECT_NEAR(row.mainLensDist.u.data.maxRadius, 0.6103515625, 1e-15);
    EXPECT_TRUE(std::equal(kMainTable, kMainTable + 5, row.mainLensDist.u.data.table));
    EXPECT_TRUE(untouched(&row.mainLensDist.u.data.table[5], sizeof(double)));
    // Sub lens fitted: k1 and k2 come back, p1 and p2 are 0; what the fit does not produce is left alone.
    EXPECT_EQ(row.subLensDist.kind, 0);
    const auto& sub = row.subLensDist.u.coeff;
    EXPECT_TRUE(std::fabs(sub.k[0] - kSubK1) < 2e-4 && std::fabs(sub.k[1] - kSubK2) < 5e-4 &&
                std::fabs(sub.k[2]) < 5e-4)
        << sub.k[0] << " " << sub.k[1] << " " << sub.k[2];
    EXPECT_TRUE(sub.p[0] == 0.0 && sub.p[1] == 0.0);
    EXPECT_TRUE(untouched(&sub.k[3], 3 * sizeof(double)) && untouched(&sub.invK, sizeof sub.invK) &&
                untouched(&sub.invValid, sizeof(int32_t)));
    // The caller's fields stay as they were.
    EXPECT_TRUE(untouched(&row.focusPosition, sizeof row.focusPosition) &&
                untouched(row.mainRectRotation, sizeof row.mainRectRotation) &&
                untouched(row.subRectRotation, sizeof row.subRectRotation) &&
                untouched(row.mainRectCameraMatrix, sizeof row.mainRectCameraMatrix) &&
                untouched(row.subRectCameraMatrix, sizeof row.subRectCameraMatrix));
}

TEST(RectifyDataConverter, CropsRoundHalfAwayFromZero) {
    Converter c;
    const struct {
        float value;
        int32_t rounded;
    } cases[] = {{-0.5f, -1}, {0.5f, 1}, {1.49f, 1}, {-1.5f, -2}, {2.5f, 3}, {-0.49f, 0}, {0.0f, 0}};
    for (const auto& k : cases) {
        RectifyDataConverterParam p = handMadeRecord();
        p.mainCropWidth = k.value;
        p.subCropHeight = -k.value;
        TwinLensCameraParam row = sentinelRow();
        ASSERT_EQ(velquin_RectifyDataConverter_convertCalibSize(&c.handle, &row, &p), TL_OK);
        EXPECT_TRUE(row.mainCalibWidth == k.rounded && row.mainRectWidth == k.rounded &&
                    row.subCalibHeight == -k.rounded &&
                    untouched(row.mainCameraMatrix, sizeof row.mainCameraMatrix))
            << k.value;
        // Crop origins move the principal point by the rounded amount.
        p.mainCropLeft = k.value;
        ASSERT_EQ(velquin_RectifyDataConverter_convertCameraMatrix(&c.handle, &row, &p), TL_OK);
        EXPECT_EQ(row.mainCameraMatrix[2], 8.0 + 2000.0 - k.rounded) << k.value;
        EXPECT_TRUE(untouched(row.stereoRotation, sizeof row.stereoRotation));
    }
}

TEST(RectifyDataConverter, LensKindsAndCounts) {
    Converter c;
    const float zeros[4] = {0, 0, 0, 0};
    const float ramp[42] = {0.0f, 0.1f, 0.2f};
    const struct {
        const char* what;
        int32_t kind, count;
        const float* table;
        TLResult result;
        int32_t rowKind;  // -1: not checked
    } cases[] = {
        {"all-zero table is undistorted", 1, 4, zeros, TL_OK, 0},
        {"count 0 is undistorted", 1, 0, nullptr, TL_OK, 0},
        {"42 entries kept as a table", 1, 42, ramp, TL_ERROR_GENERAL, -1},
        {"41 entries kept as a table", 1, 41, ramp, TL_OK, 1},
        {"unknown kind", 2, 3, ramp, TL_ERROR_GENERAL, -1},
        {"count without a table", 1, 3, nullptr, TL_ERROR_PARAM, -1},
        {"fit of fewer knots than coefficients", 0, 3, ramp, TL_ERROR_PARAM, -1},
    };
    for (const auto& k : cases) {
        RectifyDataConverterParam p = handMadeRecord();
        p.mainDistKind = k.kind;
        p.mainDistCount = k.count;
        p.mainDistTable = k.table;
        TwinLensCameraParam row = sentinelRow();
        EXPECT_EQ(velquin_RectifyDataConverter_convert(&c.handle, &row, &p), k.result) << k.what;
        EXPECT_TRUE(k.rowKind < 0 || row.mainLensDist.kind == k.rowKind) << k.what;
        const auto& coeff = row.mainLensDist.u.coeff;
        EXPECT_TRUE(k.rowKind != 0 || (std::all_of(coeff.k, coeff.k + 3, [](double v) { return v == 0; }) &&
                                       coeff.p[0] == 0 && coeff.p[1] == 0))
            << k.what;
        // A failure comes at the main lens, after the sub lens and before the sizes.
        EXPECT_TRUE(k.result == TL_OK || (row.subLensDist.kind == 0 && untouched(&row.mainCalibWidth, 4)))
            << k.what;
    }
}

TEST(RectifyDataConverter, PublicLifeCycle) {
    constexpr auto init = velquin_RectifyDataConverter_initialize;
    constexpr auto finalize = velquin_RectifyDataConverter_finalize;
    constexpr auto convert = velquin_RectifyDataConverter_convert;
    const uint32_t size = velquin_RectifyDataConverter_getBufferSize(41, 3);
    EXPECT_TRUE(velquin_RectifyDataConverter_getBufferSize(0, 3) == TL_ERROR_PARAM &&
                velquin_RectifyDataConverter_getBufferSize(41, 0) == TL_ERROR_PARAM);
    alignas(8) uint8_t buffer[64];
    RectifyDataConverterHandle handle{nullptr};
    const struct {
        RectifyDataConverterHandle* handle;
        void* buffer;
        int32_t size, capacity;
        TLResult expected;
    } refused[] = {{nullptr, buffer, 64, 41, TL_ERROR_PARAM},
                   {&handle, nullptr, 64, 41, TL_ERROR_PARAM},
                   {&handle, buffer, 0, 41, TL_ERROR_PARAM},
                   {&handle, buffer, static_cast<int32_t>(size) - 1, 41, TL_ERROR_SYSTEM},
                   {&handle, buffer, 64, 0, TL_ERROR_GENERAL}};
    for (const auto& r : refused) EXPECT_EQ(init(r.handle, r.buffer, r.size, r.capacity, 3), r.expected);
    EXPECT_EQ(handle.context, nullptr);
    // Calls before initialize, with missing arguments, and on a context that is not initialised.
    const RectifyDataConverterParam p = handMadeRecord();
    TwinLensCameraParam row = sentinelRow();
    alignas(8) uint8_t blank[64] = {};
    RectifyDataConverterHandle stale{reinterpret_cast<RectifyDataConverterContext*>(blank)};
    using Call =
        TLResult (*)(RectifyDataConverterHandle*, TwinLensCameraParam*, const RectifyDataConverterParam*);
    for (const Call call : {convert, velquin_RectifyDataConverter_convertCameraMatrix,
                            velquin_RectifyDataConverter_convertCalibSize})
        EXPECT_TRUE(call(&handle, &row, &p) == TL_ERROR_PARAM && call(&stale, &row, &p) == TL_ERROR_STATE);
    EXPECT_TRUE(finalize(&handle) == TL_ERROR_PARAM && finalize(nullptr) == TL_ERROR_PARAM &&
                finalize(&stale) == TL_ERROR_STATE);
    ASSERT_EQ(init(&handle, buffer, static_cast<int32_t>(size), 41, 3), TL_OK);
    EXPECT_TRUE(convert(&handle, nullptr, &p) == TL_ERROR_PARAM &&
                convert(&handle, &row, nullptr) == TL_ERROR_PARAM);
    EXPECT_EQ(convert(&handle, &row, &p), TL_OK);
    EXPECT_EQ(finalize(&handle), TL_OK);
    EXPECT_EQ(handle.context, nullptr);
    EXPECT_EQ(finalize(&handle), TL_ERROR_PARAM);
    EXPECT_TRUE(std::all_of(buffer, buffer + size, [](uint8_t b) { return b == 0; })) << "context not zeroed";
}

// Cases take the shared layers by turns here and in the reference test: no layer may change the pixels. 33
// rows in cells of 8 are 5 cell rows, which an executor of more than two workers splits into four bands and
// one.
TEST(Renderer2, IdentityReproducesTheSource) {
    const struct { int32_t w, h, cell; } sizes[] = {{37, 33, 8}, {64, 48, 16}, {21, 9, 8}, {91, 35, 32}};
    std::mt19937 random(11);
    int32_t turn = 0;
    for (const FormatMode& f : kAllKernels) {
        for (const auto& s : sizes) {
            const std::string what = nameOf(f) + " " + std::to_string(s.w) + "x" + std::to_string(s.h);
            Picture src(s.w, s.h, f.format), dst(s.w, s.h, f.format);
            src.fillRandom(random);
            Grid grid(s.w, s.h, s.cell);
            Renderer r(f.mode, 0, sharedLayers().exec(turn++ % Layers::kCount));
            ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
            EXPECT_TRUE(dst.canariesIntact()) << what;
            // Bilinear luma is exact, but the tail limits its column to width - 2: in the last cell (groups
            // stop 16 pixels before the end) and the last column of cells of a width not a multiple of 8.
            const int32_t lastLeft = grid.g.xs[grid.g.cols - 2],
                          lastTop = grid.g.ys[(grid.g.rows - 2) * grid.g.cols];
            const bool exact = isCopy(f) || isNearest(f);
            expectMoved(dst, src, Layout::of(f.format), s.w, s.h, true, 0, 0, 0, what, [&](int32_t y) {
                return !exact && (y >= lastTop || (s.w - lastLeft) % 8 != 0) ? s.w - 2 : s.w - 1;
            });
        }
    }
}

TEST(Renderer2, GroupArithmeticWorkedByHand) {
    // A half-pixel shift between columns of 10 and 13: groups of 8 give the rounded mean 12, the tail's
    // pixels the truncated 11. In the last cell groups stop 16 pixels before the end: on a 40-pixel row they
    // cover 0 to 31, the tail 32 to 39; the same cell as the first of two runs groups to 8 before its end.
    Picture src(96, 8, kGray);
    for (int32_t i = 0; i < 96 * 8; ++i) src.u8(i % 96, i / 96) = i % 2 == 0 ? 10 : 13;
    Renderer r;
    for (const int32_t w : {40, 80}) {
        Picture dst(w, 8, kGray);
        Grid grid(w, 8, 40);
        grid.apply(affine(1, 0, 0.5, 0, 1, 0));
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        for (int32_t i = 0; i < w * 8; ++i)
            ASSERT_EQ(dst.u8(i % w, i / w), i % w % 40 < 32 || i % w < w - 40 ? 12 : 11) << i % w;
    }
    // A top edge rising 0.6 pixel over 128: dy = trunc(-0.6 * 32768 / 128) = -153, dy >> 3 = -20, and lane
    // k's row offset in sixteenths is (-20 k + 255) >> 8 = 0: the first group reads row 4 of a ramp of 16
    // levels per row exactly, 64. (Without the 255: 63 past the first lane.)
    Picture ramp(136, 140, kGray), dst(128, 128, kGray);
    for (int32_t i = 0; i < 136 * 140; ++i)
        ramp.u8(i % 136, i / 136) = static_cast<uint8_t>(std::min(16 * (i / 136), 255));
    Grid grid(128, 128, 128);
    setCorners(grid, std::array<double, 8>{0, 4, 128, 3.4, 0, 132, 128, 131.4}.data());
    ASSERT_EQ(render(r, dst, ramp, grid), TL_OK);
    for (int32_t x = 0; x < 8; ++x) EXPECT_TRUE(dst.u8(x, 0) == 64 && dst.u8(x, 1) == 80) << x;
}

TEST(Renderer2, TrimmedRowsAndSkippedCellsLeaveTheDestinationAlone) {
    // The boundary check trims rows by pairs until their ends map inside [0, width - 2] by [0, height - 2];
    // without it a cell with a vertex outside is skipped, as is one with an invalid vertex. Expected: 0
    // untouched (fill 1, the source is 100 or more), 1 the source at the rounded map, 2 drawn, -1 any.
    auto marker = [](double x, double y, double* sx, double* sy) {
        const bool at = x == 32 && y == 32;
        *sx = at ? kRenderer2InvalidVertex : x;
        *sy = at ? kRenderer2InvalidVertex : y;
    };
    auto low = [](double x, double y, double* sx, double* sy) {
        *sx = x == 16 && y == 0 ? -0.5 : x;
        *sy = y;
    };
    const struct {
        const char* name;
        uint32_t format;
        int32_t srcW, srcH, dstW, dstH, cell, boundaryCheck;
        Map map;
        int (*expect)(int32_t x, int32_t y);
    } cases[] = {
        // Identity: odd sizes lose their last column and row, then pairs until width - 2.
        {"identity 37x29", k420SP, 37, 29, 37, 29, 8, 1, affine(1, 0, 0, 0, 1, 0),
         [](int32_t x, int32_t y) { return int{x < 35 && y < 28}; }},
        // Columns 40 to 104 of a 64-wide source: the second cell's rows lose two pixels at a time from 31
        // until the end maps to 62 or less: 21 is the last drawn. Cells from 32 have no vertex inside.
        {"one vertex inside", kGray, 64, 64, 64, 64, 16, 1, affine(1, 0, 40, 0, 1, 0),
         [](int32_t x, int32_t) { return int{x <= 21}; }},
        // An invalid vertex at (32, 32): its four cells are skipped.
        {"invalid vertex", kGray, 64, 64, 64, 64, 16, 1, marker,
         [](int32_t x, int32_t y) { return x >= 62                                  ? -1
                                           : x >= 16 && x < 48 && y >= 16 && y < 48 ? 0
                                                                                    : 2; }},
        // Without the boundary check a vertex at -0.5 skips its two cells.
        {"vertex outside", kGray, 64, 64, 64, 64, 16, 0, low,
         [](int32_t x, int32_t y) { return x < 32 && y < 16 ? 0 : 2; }},
    };
    std::mt19937 random(13);
    for (const auto& c : cases) {
        const Layout l = Layout::of(c.format);
        Picture src(c.srcW, c.srcH, c.format), dst(c.dstW, c.dstH, c.format);
        src.fillRandom(random);
        for (uint8_t& b : src.storage) b = static_cast<uint8_t>(100 + b % 156);
        dst.fillPlanes(1);
        Grid grid(c.dstW, c.dstH, c.cell);
        grid.apply(c.map);
        Renderer r(1, c.boundaryCheck);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK) << c.name;
        EXPECT_TRUE(dst.canariesIntact()) << c.name;
        for (int32_t y = 0; y < c.dstH; ++y) {
            for (int32_t x = 0; x < c.dstW; ++x) {
                const int e = c.expect(x, y), got = l.luma(dst, x, y);
                double sx, sy;
                c.map(x, y, &sx, &sy);
                const bool ok = e < 0 || (e == 0   ? got == 1
                                          : e == 2 ? got != 1
                                                   : got == l.luma(src, static_cast<int32_t>(std::lround(sx)),
                                                                   static_cast<int32_t>(std::lround(sy))));
                ASSERT_TRUE(ok) << c.name << " at " << x << "," << y;
            }
        }
    }
}

TEST(Renderer2, WarpsAgreeWithAPerPixelBilinearReference) {
    // Widths of whole groups: cells away from the last column and row are drawn in groups of 8 only.
    const int32_t w = vq_tl_test_scaled(136, 72), h = vq_tl_test_scaled(101, 51);
    const Map maps[] = {
        affine(1, 0, 2.3125, 0, 1, 1.75),                   // shift
        affine(0.93, 0, 5.2, 0, 0.95, 3.1),                 // scale
        affine(0.9994, -0.0349, 4.1, 0.0349, 0.9994, 1.3),  // rotation
        affine(1.02, 0.03, 1.0, -0.025, 0.98, 4.0),         // shear
        projective({1.01, 0.02, 4.0, -0.015, 0.99, 3.0, 2e-5, -1e-5, 1.0}),
        projective({0.97, -0.035, 6.0, 0.03, 1.02, 1.5, -6e-5, 4e-5, 1.0}),
    };
    for (const FormatMode& f : kAllKernels) {
        if (isCopy(f)) continue;
        const Layout l = Layout::of(f.format);
        Picture src(w, h, f.format);
        fillSmooth(src, l, w, h);
        for (int k = 0; k < 12; ++k) {
            const int m = k / 2, cell = k % 2 == 0 ? 16 : 32, bc = k % 2 == 0 ? 1 : 0;
            const std::string what = nameOf(f) + " case " + std::to_string(k);
            Picture dst(w, h, f.format);
            Grid grid(w, h, cell);
            grid.apply(maps[m]);
            Renderer r(f.mode, bc, sharedLayers().exec(k % Layers::kCount));
            ASSERT_EQ(render(r, dst, src, grid), TL_OK) << what;
            EXPECT_TRUE(dst.canariesIntact()) << what;
            // Without the boundary check only cells inside the source are drawn. One level inside; tails
            // (last column, row, trimmed rows) truncate, a level lower; nearest luma may be half a pixel off.
            auto drawn = [&](int32_t x, int32_t y) { return bc != 0 || cellInside(grid, x, y, w, h, 0, 2); };
            int32_t compared = 0;
            for (int32_t y = 0; y < h; ++y) {
                for (int32_t x = 0; x < w; ++x) {
                    double sx, sy;
                    maps[m](x, y, &sx, &sy);
                    if (sx < 2 || sy < 2 || sx > w - 4 || sy > h - 4 || !drawn(x, y)) continue;
                    const bool inner = x / cell < grid.g.cols - 2 && y / cell < grid.g.rows - 2 &&
                                       cellInside(grid, x, y, w, h, 2, 1);
                    ASSERT_NEAR(l.luma(dst, x, y), referenceLuma(src, l, w, h, sx, sy),
                                isNearest(f) ? 3.0 : (inner ? 1.0 : 1.5))
                        << what << " " << x << "," << y;
                    ++compared;
                }
            }
            EXPECT_GT(compared, w * h / 2) << what;
        }
    }
}

TEST(Renderer2, ChromaNearestAndCopySamplesKnownAnswers) {
    // A shift of 1.25 pixels on both axes. The plain 4:2:0 rule truncates: (x + 1.25) / 2 for even x is
    // chroma column x / 2, row y / 2. The HQ rule adds half a step and a half (2 + 0.25 in all): x / 2 + 1
    // and y / 2 + 1. Interleaved 4:2:2 rounds likewise to macro-pixel x / 2 + 1 on luma row y + 1; planar
    // 4:2:2 truncates the column. Nearest luma rounds 1.25 to 1; copy mode truncates 1.25 and 1.75 to 1 for
    // luma and (x + 1.75) / 2 to x / 2 for chroma, and moves an even shift of 6 whole: chroma by 3.
    const struct {
        FormatMode f;
        double shift;
        bool lumaMoved;
        int32_t chromaDx, chromaDy;
    } cases[] = {
        {{k420SP, 0}, 1.25, false, 0, 0}, {{k420VU, 0}, 1.25, false, 0, 0}, {{k420P, 0}, 1.25, false, 0, 0},
        {{k420SP, 1}, 1.25, false, 1, 1}, {{k420P, 1}, 1.25, false, 1, 1},  {{k420SP, 2}, 1.25, true, 1, 1},
        {{k420SP, 3}, 1.25, true, 0, 0},  {{k420P, 3}, 1.75, true, 0, 0},   {{k420SP, 3}, 6, true, 3, 3},
        {{k420P, 3}, 6, true, 3, 3},      {{16, 0}, 1.25, false, 1, 1},     {{21, 0}, 1.25, false, 1, 1},
        {{k422P, 0}, 1.25, false, 0, 1},
    };
    std::mt19937 random(20);
    for (const auto& c : cases) {
        Picture src(48, 40, c.f.format), dst(32, 24, c.f.format);
        src.fillRandom(random);
        Grid grid(32, 24, 8);
        grid.apply(affine(1, 0, c.shift, 0, 1, c.shift));
        Renderer r(c.f.mode, 1);
        ASSERT_EQ(render(r, dst, src, grid), TL_OK);
        expectMoved(dst, src, Layout::of(c.f.format), 32, 24, c.lumaMoved, static_cast<int32_t>(c.shift),
                    c.chromaDx, c.chromaDy, nameOf(c.f) + " shift " + std::to_string(c.shift));
    }
}

TEST(Renderer2, CellsAreClassifiedByShape) {
    // Deviations of the 128-pixel cell: a from a parallelogram in x, b in y, c the top edge's drop; 0.5 is
    // the threshold. Each cell is drawn by the renderer and two kernels, the wrong one giving other pixels.
    const Renderer2_DrawFn noRot = Renderer2_Uint8_drawRectNoRot, parallel = Renderer2_Uint8_drawRectParallel,
                           general = Renderer2_Uint8_drawRect;
    const struct {
        double v[8];  // xTL, yTL, xTR, yTR, xBL, yBL, xBR, yBR
        Renderer2_DrawFn expected, notThis;
    } cases[] = {
        {{10, 12, 140, 12.49, 10, 140, 140, 140.49}, noRot, parallel},    // top edge drops 0.49
        {{10, 12, 140, 12.5, 10, 140, 140, 140.5}, parallel, noRot},      // top edge drops 0.5
        {{10, 12, 140, 16, 6, 140, 136, 144}, parallel, noRot},           // rotated parallelogram
        {{10, 12, 140, 12.3, 10, 140, 140.49, 140.3}, noRot, parallel},   // x off by 0.49
        {{10, 12, 140, 12.3, 10, 140, 140.5, 140.3}, general, parallel},  // x off by 0.5
        {{10, 12, 140, 12, 10, 140, 140, 140.6}, general, parallel},      // y off by 0.6
        {{10, 12, 140, 12, 14, 140, 136, 140}, general, parallel},        // trapezoid
    };
    Picture src(160, 160, kGray);
    fillSmooth(src, Layout::of(kGray), 160, 160);
    const int32_t rect[4] = {0, 0, 128, 128};
    for (size_t i = 0; i < std::size(cases); ++i) {
        Grid grid(128, 128, 128);
        setCorners(grid, cases[i].v);
        Picture viaRenderer(128, 128, kGray), expected(128, 128, kGray), other(128, 128, kGray);
        Renderer r;
        ASSERT_EQ(render(r, viaRenderer, src, grid), TL_OK);
        const Renderer2_DrawArg a = {&expected.image, &src.image, cases[i].v, rect, 0},
                                b = {&other.image, &src.image, cases[i].v, rect, 0};
        ASSERT_TRUE(cases[i].expected(&a) == TL_OK && cases[i].notThis(&b) == TL_OK);
        EXPECT_TRUE(viaRenderer.samePixels(expected)) << i;
        EXPECT_FALSE(viaRenderer.samePixels(other)) << i;
    }
}

TEST(Renderer2Params, LayoutsWorkedOutByHand) {
    // Vertices at left + i * cell while below right, one more at right; the same down. p: cell width or
    // division; q: cell height. A cell width of 0 marks a refused layout, which leaves the grid as it was.
    enum Kind { kGridSize, kDivision };
    const struct {
        const char* name;
        Kind kind;
        int32_t rect[4], p, q;
        int32_t gridWidth, gridHeight, cols, rows;
    } cases[] = {
        {"the last cell is the remainder", kGridSize, {3, 5, 40, 30}, 16, 8, 16, 8, 4, 5},
        {"exact multiple adds no empty cell", kGridSize, {0, 0, 64, 32}, 32, 16, 32, 16, 3, 3},
        {"division 16: 810 / 16 = 50, cleared to 48", kDivision, {0, 0, 1080, 810}, 16, 0, 48, 48, 24, 18},
        {"division 1 is one cell", kDivision, {0, 0, 50, 20}, 1, 0, 50, 20, 2, 2},
        {"share below 16 clears to 0, raised to 8", kDivision, {0, 0, 40, 30}, 4, 0, 8, 8, 6, 5},
        {"16384 vertices", kGridSize, {0, 0, 127 * 8, 127 * 8}, 8, 8, 8, 8, 128, 128},
        {"cell of 7", kGridSize, {0, 0, 4096, 4096}, 7, 64, 0, 0, 0, 0},
        {"cell height of 7", kGridSize, {0, 0, 4096, 4096}, 64, 7, 0, 0, 0, 0},
        {"513 by 513 vertices", kGridSize, {0, 0, 4096, 4096}, 8, 8, 0, 0, 0, 0},
        {"128 by 129 vertices", kGridSize, {0, 0, 127 * 8, 128 * 8}, 8, 8, 0, 0, 0, 0},
        {"empty rectangle", kGridSize, {5, 5, 5, 20}, 8, 8, 0, 0, 0, 0},
        {"whole cell below 8", kDivision, {0, 0, 7, 64}, 1, 0, 0, 0, 0, 0},
    };
    Grid grid(64, 64, 16);
    const int any = 0;
    for (const auto& c : cases) {
        const int32_t* r = c.rect;
        const int32_t colsBefore = grid.g.cols;
        const double* xBefore = grid.g.x;
        const TLResult result = c.kind == kGridSize ? Renderer2_Params_initWithGridSize(&grid.g, r, c.p, c.q)
                                                    : Renderer2_Params_init(&grid.g, &any, r[2], r[3], c.p);
        if (c.gridWidth == 0) {
            EXPECT_TRUE(result == TL_ERROR_PARAM && grid.g.cols == colsBefore && grid.g.x == xBefore)
                << c.name;
            continue;
        }
        ASSERT_TRUE(result == TL_OK && grid.g.cols == c.cols && grid.g.rows == c.rows &&
                    grid.g.gridWidth == c.gridWidth && grid.g.gridHeight == c.gridHeight)
            << c.name;
        for (int32_t v = 0; v < grid.count(); ++v) {
            const int32_t i = v % c.cols, j = v / c.cols,
                          xs = i == c.cols - 1 ? r[2] : r[0] + i * c.gridWidth,
                          ys = j == c.rows - 1 ? r[3] : r[1] + j * c.gridHeight;
            ASSERT_TRUE(grid.g.xs[v] == xs && grid.g.ys[v] == ys && grid.g.x[v] == xs && grid.g.y[v] == ys)
                << c.name << " " << v;
        }
    }
}

TEST(Renderer2Params, MatrixAndConfine) {
    // The grid of a homography: every vertex is its image under the matrix.
    Grid a(100, 60, 16);
    const Mvec8Real h = {{1.5, 0.25, -3.0, 0.125, 0.75, 9.0, 1e-3, 2e-3, 1.0}};
    ASSERT_EQ(Renderer2_Params_setMvec8Real(&a.g, &h), TL_OK);
    for (int32_t v = 0; v < a.count(); ++v) {
        const double x = a.g.xs[v], y = a.g.ys[v], w = 1e-3 * x + 2e-3 * y + 1.0;
        ASSERT_DOUBLE_EQ(a.g.x[v], (1.5 * x + 0.25 * y - 3.0) / w);
        ASSERT_DOUBLE_EQ(a.g.y[v], (0.125 * x + 0.75 * y + 9.0) / w);
    }
    a.g.x[0] = kRenderer2InvalidVertex;
    const std::vector<double> x(a.g.x, a.g.x + a.count()), y(a.g.y, a.g.y + a.count());
    // Confining clamps to [left, right - 2] and [top, bottom - 2], markers too.
    const int32_t rect[4] = {2, 3, 50, 40};
    ASSERT_EQ(Renderer2_Grid_confineWithinRect(&a.g, rect), TL_OK);
    for (int32_t v = 0; v < a.count(); ++v)
        ASSERT_TRUE(a.g.x[v] == std::clamp(x[v], 2.0, 48.0) && a.g.y[v] == std::clamp(y[v], 3.0, 38.0)) << v;
}
