// DisparityEstimator: depth from the stereo pair. It holds the warping grids
// of the pair, the matcher and the refiner, the current disparity and
// confidence maps, the depth tables and the estimate status.
//
// Frames (rotation 0 shown; 1 and 3 transpose the matching frame):
//   working frame   the rectified pair, workWidth by workHeight: 27 % of the
//                   main size (18 % in fine mode), even;
//   matching frame  the working frame, transposed for rotation 1 or 3;
//   disparity frame the main camera's view at half the depth size, even.
// estimateDisparity warps both inputs into the working frame, matches there,
// warps the result back into the main view at the disparity frame's size and
// stretches it over the byte range, with a table from levels to depth.
// refineDisparity lifts that map to the depth size under the guide of the
// main image.
//
// Map values: after matching (disparity - minDisparity) << fractionBits;
// after an estimate a level 0 to 255 that depthTable turns into a depth (in
// the unit of the baseline) and inverseDepthTable into disparity over focal
// length. The level's disparity is minDisparityPx + (maxDisparityPx -
// minDisparityPx) * level / 255 working pixels, still offset by
// -minDisparity: the tables take that value as the disparity.
//
// Results: the first failing step's code. Arguments are checked before any
// state changes, and a frame's maps, tables and status replace the previous
// ones only once the frame has come through, so a refused or failed frame
// leaves the last good result in force.
//
// Threads: one caller at a time for the life cycle, the grids and the frame
// calls, which block until their parallel work is done. getStatus,
// getDepthTable, getValidDepthRange and getDepthImage read fields and tables
// without a lock and may run on another thread while a frame runs; a frame
// may overwrite what they read.
#pragma once

#include <cstdint>

#include "alignment/mvec.h"
#include "depth/depth_map_refiner.h"
#include "image/image.h"
#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "rectify/rectify_lens_dist.h"
#include "rectify/renderer2.h"
#include "rectify/renderer2_params.h"
#include "rectify/stereo_rectify.h"
#include "runtime/env.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "stereo/sgm.h"

namespace vq_tl {

constexpr int32_t kDisparityLevels = 256;

// Estimate status.
enum DisparityEstimatorStatus : int32_t {
    DISPARITY_STATUS_USABLE = 0,
    DISPARITY_STATUS_TOO_NEAR = 1,  // over 70 % of the focus window at the top of the range or unconfident
    DISPARITY_STATUS_TOO_FAR = 2,   // over 70 % of the focus window below one pixel of disparity
};

struct DisparityEstimator {
    Env* env;
    Pel* pel;                            // not owned
    ParallelExecutor* parallelExecutor;  // not owned
    uint32_t fineMode;                   // non-zero: the fine matching mode
    ImageProc imageProc;
    ImageProc2 imageProc2;
    Renderer2 renderer;  // mode 1, boundary check on
    StereoRectify stereoRectify;
    Sgm sgm;
    DepthMapRefiner refiner;
    // The hole filler of fine mode joins here once it exists.
    Renderer2_Params mainGrid;       // working frame to main input, 32 by 32 cells
    Renderer2_Params subGrid;        // working frame to sub input
    Renderer2_Params disparityGrid;  // disparity frame to working frame
    Image validSource;               // UINT8, working size, all 255
    Image validMask;                 // UINT8, matching size: 255 where the main grid covers the frame
    Image confidence;                // UINT8, disparity frame; 255 consistent
    Image disparity;                 // UINT8, disparity frame
    uint32_t rotation;               // quarter turns of the pair, 0 to 3
    int32_t mainWidth, mainHeight, subWidth, subHeight;
    int32_t mainWorkWidth, mainWorkHeight, subWorkWidth, subWorkHeight;  // what inputs are shrunk to
    int32_t depthWidth, depthHeight;
    int32_t workWidth, workHeight;
    int32_t matchWidth, matchHeight;
    int32_t refineWidth, refineHeight;  // the depth size, even
    int32_t disparityWidth, disparityHeight;
    uint32_t subPixelEnabled;
    uint8_t fractionBits;      // 3 normally, 2 in fine mode
    uint8_t numDisparities;    // 24 normally, 64 in fine mode
    int8_t minDisparity;       // -4 normally, -10 in fine mode
    float focalLength;         // rectified focal length in working pixels; 0 until the grids are made
    float calibFocalLength;    // fx of the main calibration
    int32_t calibWidth;        // width that calibration holds for
    float baseline;            // in the calibration's unit
    float* depthTable;         // [256], owned
    float* inverseDepthTable;  // [256], owned
    float minDisparityPx, maxDisparityPx;
    uint32_t* roiHistogram;  // [257], owned; the last bin counts unconfident pixels
    uint32_t roiTotal;
    int32_t status;  // DisparityEstimatorStatus
    float focusX, focusY;
    float lowerInnerRadius, lowerOuterRadius, lowerRate;  // radial lowering of fine mode
    uint8_t lowerAmount;
    double centreScale, leftScale, rightScale;
    uint32_t correctionMode;
    double minSlope, maxSlope;
    // Stage 7's work area, owned: the motion detector of each estimate is
    // carved from it with all its pictures and lists. Taken at the first
    // estimate (init does not know the views' size), grown when a larger
    // view comes, kept over recycle and freed at destruct.
    uint8_t* scaleWork;
    int32_t scaleWorkSize;
};

// Working size of one side: trunc(percent * size / 100 + 0.5) with bit 0
// cleared, percent 27 normally and 18 in fine mode.
int32_t DisparityEstimator_workSize(int32_t size, uint32_t fineMode);
// The disparity frame's side for a depth side: half of it, rounded up to
// even (1920 and 1921 give 960, 1922 gives 962).
int32_t DisparityEstimator_disparitySize(int32_t depthSize);

// Bytes of the members, images and tables for these sizes; -1 where init
// would refuse the arguments.
int32_t DisparityEstimator_getBufferSize(int32_t mainWidth, int32_t mainHeight, int32_t subWidth,
                                         int32_t subHeight, int32_t depthWidth, int32_t depthHeight,
                                         uint32_t format, uint32_t rotation, uint32_t fineMode);
TLResult construct_DisparityEstimator(DisparityEstimator* estimator, Env* env);
// Frees the tables too.
TLResult destruct_DisparityEstimator(DisparityEstimator* estimator);
// Tears the members down and leaves the images empty; the tables stay.
TLResult DisparityEstimator_recycle(DisparityEstimator* estimator);
TLResult DisparityEstimator_setPel(DisparityEstimator* estimator, Pel* pel);
TLResult DisparityEstimator_setParallelExecutor(DisparityEstimator* estimator, ParallelExecutor* executor);
// format: the main image's, 26, 27 or 29 (else TL_ERROR_UNSUPPORTED);
// rotation 0 to 3, a working frame of at least 4 by 4, a depth size of at
// least 2 by 2 and inputs either of the working size or larger on both
// sides (else TL_ERROR_PARAM). A failure
// leaves the object recycled. The grids start as identities and the frame
// calls answer TL_ERROR_STATE until calcGridParams or
// calcGridParamsEachCamera has run.
TLResult DisparityEstimator_init(DisparityEstimator* estimator, int32_t mainWidth, int32_t mainHeight,
                                 int32_t subWidth, int32_t subHeight, int32_t depthWidth, int32_t depthHeight,
                                 float baseline, uint32_t format, uint32_t rotation, uint32_t fineMode);
// x, y in [0, 1], else TL_ERROR_PARAM and the old point stays.
TLResult DisparityEstimator_setFocusCoord(DisparityEstimator* estimator, float x, float y);
TLResult DisparityEstimator_setDisparityCorrectionMode(DisparityEstimator* estimator, uint32_t mode);
TLResult DisparityEstimator_setCorrectDispParams(DisparityEstimator* estimator, double minSlope,
                                                 double maxSlope);
TLResult DisparityEstimator_getStatus(DisparityEstimator* estimator, int32_t* status);

// The grids from the stereo extrinsics: X_sub = stereoRotation * X_main +
// translation when extrinsicsForward is non-zero. With extrinsicsForward 0
// the caller's stereoRotation is inverted and its translation negated in
// place first. Lens records of the coefficient kind get their inverse fitted
// in place. A calibration that cannot be rectified (a camera matrix with
// skew, a zero or non-finite focal length, a zero baseline) gives
// TL_ERROR_GENERAL, a singular stereoRotation the code of its inversion,
// with the caller's records and the grids unchanged.
TLResult DisparityEstimator_calcGridParams(DisparityEstimator* estimator, const Mvec8Real* mainCamera,
                                           const Mvec8Real* subCamera, RectifyLensDist* mainDist,
                                           RectifyLensDist* subDist, Mvec8Real* stereoRotation,
                                           float translation[3], int32_t extrinsicsForward,
                                           int32_t mainCalibWidth, int32_t mainCalibHeight,
                                           int32_t subCalibWidth, int32_t subCalibHeight);
// The grid of one camera from its own rectifying rotation and new camera
// matrix: the main camera (isMain non-zero) first, then the sub camera.
TLResult DisparityEstimator_calcGridParamsEachCamera(DisparityEstimator* estimator, const Mvec8Real* camera,
                                                     RectifyLensDist* dist, const Mvec8Real* rectRotation,
                                                     const Mvec8Real* newCamera, int32_t calibWidth,
                                                     int32_t calibHeight, int32_t newCalibWidth,
                                                     int32_t newCalibHeight, int32_t isMain);
// The area of the working frame that grid covers, eroded: source (all 255)
// warped into mask (UINT8), a 3x3 minimum at a quarter of the size, then
// every pixel below 255 set to 0.
TLResult DisparityEstimator_updateValidMask(DisparityEstimator* estimator, Image* mask, const Image* source,
                                            const Renderer2_Params* grid);

// One frame: mainImage of format 26, 27 or 29 and the init size, subImage of
// one of those or UINT8 at the sub size. The session passes penalties 5 and
// 40, threshold 1.0 (pixels, truncated), failValue 0, passValue 255.
// TL_ERROR_PARAM for absent or mis-sized images or a threshold outside
// [0, 256); TL_ERROR_UNSUPPORTED for other formats; TL_ERROR_STATE before
// init or before the grids. Fine mode answers TL_ERROR_UNSUPPORTED at the
// hole filling, which it does not have yet.
TLResult DisparityEstimator_estimateDisparity(DisparityEstimator* estimator, const Image* mainImage,
                                              const Image* subImage, uint32_t smallPenalty,
                                              uint32_t largePenalty, float threshold, uint8_t failValue,
                                              uint8_t passValue);
// output: UINT8 of the depth size. window 0: the map enlarged bilinearly;
// otherwise DepthMapRefiner_crossFilter with a guide from mainImage by
// guideMode (1 luma, 2 chroma, 3 RGB). sigmaRange above 64 is TL_ERROR_PARAM.
TLResult DisparityEstimator_refineDisparity(DisparityEstimator* estimator, Image* output,
                                            const Image* mainImage, uint8_t window, int32_t guideMode,
                                            float sigmaSpace, float sigmaRange);

// ---- Steps of a frame, callable by themselves --------------------------------

// The luma of an input: formats 26, 27, 29 and 60; TL_ERROR_UNSUPPORTED else.
TLResult DisparityEstimator_lumaView(Image* view, const Image* image);
// (0, 128, 128) for 26, 27, 29; 0 for UINT8; TL_ERROR_UNSUPPORTED else.
TLResult DisparityEstimator_clearImage(DisparityEstimator* estimator, Image* image);
// source shrunk to the camera's working input size when it differs, then
// warped through the camera's grid into destination.
TLResult DisparityEstimator_warpToWork(DisparityEstimator* estimator, Image* destination, const Image* source,
                                       int32_t isMain);
// UINT88 chroma of a rectified main image (26, 27, 29) at guide's size.
TLResult DisparityEstimator_makeChromaGuide(DisparityEstimator* estimator, Image* guide, const Image* main);
// Matching of the rectified pair (matching frame) into disparity and
// confidence of that size, the confidence masked and eroded along rows.
TLResult DisparityEstimator_matchU8(DisparityEstimator* estimator, Image* disparity, Image* confidence,
                                    const Image* main, const Image* sub, uint32_t smallPenalty,
                                    uint32_t largePenalty, float threshold, uint8_t failValue,
                                    uint8_t passValue);
// Stages after matching, on the working-frame map and confidence: back into
// the main view at the disparity frame's size, holes filled along rows (fine
// mode: TL_ERROR_UNSUPPORTED, its filler does not exist yet), the radial
// lowering of fine mode, then (11) the range, the stretch, the tables and
// the status of that map, then (12, rotation 0 or 2) the tilt correction
// by the range just measured. The new map and confidence replace the
// estimator's once they are complete; a failure leaves the last good maps,
// tables and status.
TLResult DisparityEstimator_finishDisparity(DisparityEstimator* estimator, const Image* map,
                                            const Image* confidence, uint8_t passValue);
// Radial lowering of a UINT8 map by lowerRate (or lowerAmount); nothing when
// both are 0.
TLResult DisparityEstimator_lowerDisparity(DisparityEstimator* estimator, Image* map);
// Smallest and largest value of a UINT8 map.
TLResult DisparityEstimator_getDisparityRange(DisparityEstimator* estimator, uint8_t* low, uint8_t* high,
                                              const Image* map);
// map (UINT8) stretched in place so that low becomes 0 and high 255; a flat
// range (high equal to low) gives 0.
TLResult DisparityEstimator_stretchDisparity(DisparityEstimator* estimator, Image* map, uint8_t low,
                                             uint8_t high);
// minDisparityPx, maxDisparityPx, depthTable and inverseDepthTable for a
// map whose raw range was low to high.
void DisparityEstimator_updateDepthTables(DisparityEstimator* estimator, uint8_t low, uint8_t high);
// The status of a stretched map from the window round the focus point, with
// roiHistogram and roiTotal; needs the tables of that map.
TLResult DisparityEstimator_updateStatus(DisparityEstimator* estimator, int32_t* status,
                                         const Image* disparity, const Image* confidence, uint8_t validValue);

// Stage 7, one estimate: the scale of subView against mainView (luma views
// of the same size) along the axis that is not reduced. Both are shrunk to
// a quarter of their width, a six-parameter motion is fitted and its
// vertical scale read. Views without texture give 1.0.
TLResult DisparityEstimator_estimateScale(DisparityEstimator* estimator, double* scale, const Image* mainView,
                                          const Image* subView);
// Stage 7 on the rectified pair by correctionMode: mode 2 centreScale from
// the whole pair; mode 3 from three full-height strips of w = width / 6:
// the centre (w, width - 2w), then right (width - w, w), then left (0, w).
// Other modes do nothing.
TLResult DisparityEstimator_estimateScales(DisparityEstimator* estimator, const Image* main,
                                           const Image* sub);
// One ramp: columns x0 to x0 + width - 1 of map take value + slope * (pivot
// - (x - x0)), rounded and clamped to bytes; |slope| below 1e-6 does nothing.
TLResult DisparityEstimator_addRamp(DisparityEstimator* estimator, Image* map, int32_t x0, int32_t width,
                                    double slope, int32_t pivot);
// Stage 12 on a stretched map whose range was minPx to maxPx working
// pixels: with levels = 255 / (maxPx - minPx) and g the working pixels per
// pixel of the map, mode 1 ramps by the slope of the column minima, modes
// 2 and 3 by (centreScale - 1) levels g, both clamped to minSlope and
// maxSlope times levels g, about the middle column; mode 3 bends the ramp
// in the outer sixths by the side strips' scales, unclamped. The scale's
// slope is negated at rotation 0 (disparity x_main - x_sub); rotations 1
// and 3 leave the map as it is.
TLResult DisparityEstimator_correctDisparity(DisparityEstimator* estimator, Image* disparity, float minPx,
                                             float maxPx);

// ---- Depth outputs -------------------------------------------------------------

// The 256 floats of depthTable.
TLResult DisparityEstimator_getDepthTable(DisparityEstimator* estimator, float* table);
// farDepth: the depth at one pixel of disparity; nearDepth: at the top of
// the matching range.
TLResult DisparityEstimator_getValidDepthRange(DisparityEstimator* estimator, float* nearDepth,
                                               float* farDepth);
// output (UINT8, disparity's size) from a stretched map: mode 0 linear in
// depth, mode 1 linear in disparity, near end 0 and far end 255; levels
// deeper than 10 units saturate. Another mode writes only the two depths.
TLResult DisparityEstimator_getDepthImage(DisparityEstimator* estimator, Image* output, float* nearDepth,
                                          float* farDepth, const Image* disparity, int32_t mode);

}  // namespace vq_tl
