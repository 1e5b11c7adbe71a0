// A synthetic stereo shot for tests and benchmarks: a phone's main and sub
// camera, both with lens distortion, looking at textured planes at known
// depths, rendered by casting one ray per pixel, with the main view's ground
// truth (depth, surface, texture, occlusion).
//
// Coordinates are the main camera's, in metres, the unit the library's
// depth limits take from the calibration: x right, y down, z along the
// optical axis. The sub camera sits about 10 mm to the right (x_sub = R
// x_main + t). The world:
// - a fronto-parallel background at 3.5 m,
// - a ground plane 0.7 m below the cameras that rises by 5 cm per metre of
//   depth (the cameras look slightly down), seen from 1.27 m at the bottom
//   row of the main frame to the background,
// - a box, the subject, whose front face is 0.8 m away, left of centre;
//   both cameras also see its right side,
// - a flat patch without texture on the background, upper right.
// Textures are value noise of four octaves in surface coordinates, so both
// views see the same surface; their finest cells span 3 to 8 pixels of a
// frame at 27 percent of the main size, where the pair is matched. The full
// pair with truth takes about a second of one core; Debug builds compile the
// scene optimised.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "alignment/mvec.h"
#include "image/image.h"
#include "rectify/rectify_lens_dist.h"
#include "support/picture.h"
#include "velquin/twin_lens.h"

namespace vq_tl_test {

enum SceneSurface : uint8_t {
    kSceneNothing = 0,
    kSceneBackground = 1,
    kSceneGround = 2,
    kSceneBoxFront = 3,
    kSceneBoxSide = 4,  // any other face of the box; of the default box the cameras see the right one
    kSceneFlatPatch = 5,
};

// An axis-aligned box: the centre of its front face, that face's depth, and
// its size, in metres.
struct SceneBox {
    double x, y, z, width, height, thickness;
};

struct SceneConfig {
    // Frames of 4000 by 3000 (main) and 2592 by 1944 (sub) times `scale`,
    // rounded to even sizes; the camera matrices scale with them.
    double scale = 1.0;
    // Explicit frame widths override the scale per camera (the height keeps
    // 4:3), e.g. 1080 for both to render straight at the working size.
    int32_t mainWidth = 0, subWidth = 0;
    double backgroundDepth = 3.5;
    SceneBox box{-0.25, 0.1, 0.8, 0.4, 0.5, 0.3};
    // The sub camera's centre in main coordinates: a 10 mm baseline with
    // small vertical and depth components.
    double subCentre[3] = {0.010, 0.0003, -0.00025};
    // Relative rotation: 0.3 degrees about a skew axis.
    double rotationAxis[3] = {0.3, -0.5, 0.8};
    double rotationDegrees = 0.3;
    // The sub camera's true focal length over its calibration's, less 1:
    // 0.005 renders the sub frame 0.5 percent magnified about its principal
    // point, as a camera that moved since it was calibrated.
    double subFocalError = 0.0;
    // YVU420_SEMIPLANAR is NV21: the luma plane, then V,U pairs at half size.
    // YUV420_SEMIPLANAR (U first) is also accepted.
    uint32_t format = vq_tl::IMAGE_FORMAT_YVU420_SEMIPLANAR;
    bool truth = true;  // the main view's ground truth
    int threads = 1;    // row bands; the result does not depend on it
};

struct SceneCamera {
    int32_t width, height;
    vq_tl::Mvec8Real matrix;      // focal lengths and principal point, in pixels
    vq_tl::RectifyLensDist lens;  // coefficient kind, inverse not fitted
};

struct SceneHit {
    double t;     // along the ray: the point is origin + t dir
    double p[3];  // the point, main coordinates
    SceneSurface surface;
};

// Large arrays in memory that the system may back with huge pages: first
// touches of small pages cost as much as the rendering in some virtual
// machines.
void* allocateLarge(size_t bytes);
template <typename T>
struct LargeAllocator {
    using value_type = T;
    LargeAllocator() = default;
    template <typename U>
    LargeAllocator(const LargeAllocator<U>&) {}
    T* allocate(size_t n) { return static_cast<T*>(allocateLarge(n * sizeof(T))); }
    void deallocate(T* p, size_t) { std::free(p); }
    friend bool operator==(const LargeAllocator&, const LargeAllocator&) { return true; }
};
template <typename T>
using LargeVector = std::vector<T, LargeAllocator<T>>;

class Scene {
public:
    explicit Scene(const SceneConfig& config = SceneConfig());
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    SceneConfig config;
    // The calibration, measured at the full sizes 4000 by 3000 and 2592 by 1944.
    SceneCamera mainCalib, subCalib;
    // The cameras of the rendered frames: the calibration scaled to their sizes.
    SceneCamera mainCamera, subCamera;
    vq_tl::Mvec8Real rotation;  // x_sub = rotation x_main + translation
    double translation[3];
    double baseline;  // |translation|, metres

    std::unique_ptr<Picture> main, sub;  // tight rows, config.format
    // Ground truth of the main frame, row by row (empty without config.truth):
    // depth z in metres, the surface seen, 1 on textured surfaces, and 1 where
    // the point is hidden from the sub camera or outside its frame.
    LargeVector<float> depth;
    LargeVector<uint8_t> surface, textured, occluded;

    // The nearest surface along origin + t dir, t > 0 (main coordinates).
    SceneHit cast(const double origin[3], const double dir[3]) const;
    // The ray of pixel (u, v) of a camera, in its own coordinates, with z = 1.
    static void pixelRay(const SceneCamera& c, double u, double v, double dir[3]);
    // What pixel (u, v) of the main (0) or sub (1) frame sees.
    SceneHit castPixel(int camera, double u, double v) const;
    // Where a point in a camera's coordinates lands in its frame, by the
    // forward lens model. False behind the camera.
    static bool project(const SceneCamera& c, const double p[3], double* u, double* v);
    void toSub(const double p[3], double out[3]) const;
    // The sub camera sees a surface point: in its frame and not hidden.
    bool seenBySub(const double p[3]) const;
    // The rendered luma of a surface point, before rounding.
    double luma(const SceneHit& hit) const;

    // The extrinsics as the library takes them. Reversed: the inverse
    // rotation and the negated translation, which is what a calibration row
    // with extrinsicsForward 0 holds, since the session inverts and negates
    // such a row back.
    void extrinsics(bool reversed, vq_tl::Mvec8Real* r, float t[3]) const;
    // The calibration as a session row. With perCamera the row also gives a
    // rectifying rotation for each camera and a shared rectified camera
    // matrix at 4000 by 3000, made here independently: the rectified x axis
    // is the baseline.
    void cameraParam(TwinLensCameraParam* row, bool reversed = false, bool perCamera = false) const;

private:
    bool enterBox(const double o[3], const double d[3], double* enter, int* face) const;
    static void rowRays(const SceneCamera& c, int32_t j, double* rays);
    void render(int which, int32_t rowBegin, int32_t rowEnd);
};

}  // namespace vq_tl_test
