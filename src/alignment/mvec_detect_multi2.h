// MvecDetectMulti2: the geometric motion between the images of a short
// sequence (up to 16) from feature points, coarse to fine. The first image
// added is the reference; every later one is measured against it (or, with
// base-image matching off, against an earlier one) and outputMvec gives the
// motion of the last image relative to the first, mapping a point of the
// reference to the same scene point in that image.
//
// Per image: a pyramid (each level about half of the one below), feature
// points on every level of the image matched against; per level from the
// coarsest: each reference feature carried to its expected place by the
// current estimate, matched there by a zero-mean block search on a square
// spiral with a sub-pixel fit, and a fresh robust fit of the model, whose
// result guides the next finer level. The result is the fit of the finest
// level, whose matches also take a few gradient steps on a block of up to
// 15 by 15 so that both axes are measured at once. A block whose best cost
// stays above 60 percent of its own variation (a depth edge, an occlusion,
// noise) counts as a failed match; after the first fit of a level, matches
// further than four times the median residual (at least half a pixel, at
// most outlierThresh) count as outliers.
//
// Failures of a fit (too few matches, a singular system) do not end a run:
// the failure code says so and the estimate of the coarser level stands;
// when the finest fit fails the output is the identity.
//
// Memory: init takes the pyramids, feature lists, matches and records from
// the system allocator, or, with an arena set, carves them from it
// (getArenaSize bytes) and gives them back to it at the next init or at
// destruct, so that a caller who makes a detector per call keeps no pages
// of its own between calls and takes none from the system. The solvers'
// records (well under a kilobyte a level) are allocated either way.
//
// Threads: one caller per detector; with a Pel the response images, the
// cells, the pyramid rows and the block searches of a level are spread
// over its workers, and the results do not depend on how many there are.
#pragma once

#include <cstdint>

#include "alignment/feat_pnt.h"
#include "alignment/mvec_dispatch.h"
#include "alignment/mvec_lsm.h"
#include "image/image.h"
#include "runtime/arena.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

constexpr int32_t kMvecDetectMaxImages = 16;
constexpr int32_t kMvecDetectMaxLevels = 16;  // sides below 65536 halve at most 15 times

// Failure bits beyond the solver's (MVEC_LSM_FAILURE_*).
enum : uint32_t {
    MVEC_DETECT_FAILURE_LOW_RELIABILITY = 0x10,  // inlier share of the finest fit below the sensitivity
};

// Invalid marker of a match coordinate.
constexpr int32_t kMvecDetectInvalid = static_cast<int32_t>(0xE0000000u);

// One image of the sequence: its pyramid and the feature lists of its levels.
struct MvecDetectMulti2_Individual {
    Image level[kMvecDetectMaxLevels];
    FeatPntList list[kMvecDetectMaxLevels];
};

// The matches of one level, one record per reference feature.
struct MvecDetectMulti2_Match {
    int32_t x0, y0;  // reference position, Q15
    int32_t x1, y1;  // matched position, Q15, or kMvecDetectInvalid
    int32_t weight;  // 0: takes no part
    int32_t strength;
    int32_t residual;      // distance from the level's fit, Q15 pixels
    int32_t inlier;        // valid and within the outlier threshold of the fit
    int32_t prevGood;      // the same feature was an inlier in the previous image
    int32_t prevResidual;  // and its residual there
};

struct MvecDetectMulti2_MatchingFeatPntList {
    MvecDetectMulti2_Match* matches;  // owned
    int32_t count, capacity;          // capacity: maxFeatPntsNum at init
};

struct MvecDetectMulti2 {
    Env* env;
    int32_t dof;
    int32_t shrinkRatio;
    int32_t levels;  // -1: from the size at init; else the pyramid depth wanted
    int32_t halfSearchSize;
    int32_t halfBlockMatchSize;
    int32_t featPntWindowSize;
    int32_t baseImageMatching;
    int32_t reliabilitySensitivity;  // Q15
    uint64_t outlierThresh;          // squared Q15 pixels
    int32_t coarsestPixsNum;
    int32_t maxFeatPntsNum;
    int32_t referenceFrameUpdateInterval;
    int32_t coarsestMatching;
    int32_t adaptiveFeatPnts;
    int32_t subpixelMatching;
    int32_t simpleSadMode;
    int32_t simpleShrink2;
    int32_t viewAngleKind;  // 0 by width, 1 by height, 2 by diagonal
    double viewAngle;       // radians
    double focalLength;     // pixels of the input, from the view angle at init
    Pel* pel;               // not owned
    Arena* arena;           // not owned: where the next init carves its buffers; null: the system's

    // From init.
    int32_t width, height, images;
    int32_t levelCount;                        // pyramid depth in use, 0 before init
    int32_t levelWidth[kMvecDetectMaxLevels];  // sizes of the levels
    int32_t levelHeight[kMvecDetectMaxLevels];
    MvecDetectMulti2_Individual* individuals;        // images records, owned
    MvecDetectMulti2_Lsm lsm[kMvecDetectMaxLevels];  // one solver per level
    MvecDetectMulti2_MatchingFeatPntList matchLists[kMvecDetectMaxLevels];
    // Motion of each image relative to the reference, per level, in that
    // level's coordinates: images by levelCount records, owned.
    MvecDetectMulti2_Mvec* estimates;
    int32_t added;         // images added since init
    uint32_t failureCode;  // of the last image
    int32_t reliability;   // Q15, of the last image
    Arena* carvedFrom;     // the arena of the buffers in use, null when they are the system's
    size_t arenaMark;      // where they start in it
    void* responseWork;    // in the arena: room for the largest level's corner responses
    int32_t responseWorkSize;
};

int32_t MvecDetectMulti2_getBufferSize(int32_t width, int32_t height, int32_t images, int32_t dof);
// Clears the object and sets the defaults: dof 8, shrink ratio 1, search
// half size 3, block half size 3, feature window 4, base-image matching on,
// reliability sensitivity 0.6, outlier threshold 3 pixels, coarsest level
// from 600 pixels, 256 features, reference interval 1, coarsest matching
// on, adaptive features off, sub-pixel matching on, zero-mean cost, the
// smoothing shrink, view angle 60 degrees across the width.
TLResult construct_MvecDetectMulti2(MvecDetectMulti2* detector, Env* env);
TLResult destruct_MvecDetectMulti2(MvecDetectMulti2* detector);
TLResult MvecDetectMulti2_setPel(MvecDetectMulti2* detector, Pel* pel);
// For the next init (null: the system allocator). The arena must outlive
// the detector's buffers, that is the next init or the destruct, and must
// not be rewound below its mark at init by anyone else meanwhile.
TLResult MvecDetectMulti2_setArena(MvecDetectMulti2* detector, Arena* arena);
// The bytes init and the images after it carve from an arena for these
// sizes with the detector's current settings (an arena made by Arena_init
// over this many bytes holds them); -1 where init would refuse them.
int32_t MvecDetectMulti2_getArenaSize(const MvecDetectMulti2* detector, int32_t width, int32_t height,
                                      int32_t images);

// Setters: a value out of its limits gives TL_ERROR_PARAM and keeps the
// field. Those of sizes and models take effect at the next init.
TLResult MvecDetectMulti2_setDof(MvecDetectMulti2* detector, int32_t dof);  // 2, 3, 6, 8, 14, 18, 24
TLResult MvecDetectMulti2_setShrinkRatio(MvecDetectMulti2* detector, int32_t ratio);        // 1 to 16
TLResult MvecDetectMulti2_setHalfSearchSize(MvecDetectMulti2* detector, int32_t size);      // 1 to 8
TLResult MvecDetectMulti2_setHalfBlockMatchSize(MvecDetectMulti2* detector, int32_t size);  // 2 or 3
TLResult MvecDetectMulti2_setFeatPntWindowSize(MvecDetectMulti2* detector, int32_t size);   // 3 or 4
TLResult MvecDetectMulti2_setBaseImageMatchingActivated(MvecDetectMulti2* detector, int32_t on);
// [0, 1]: the inlier share below which the last image is flagged.
TLResult MvecDetectMulti2_setReliabilitySensitivity(MvecDetectMulti2* detector, double value);
// Pixels, above 0 and below 65536.
TLResult MvecDetectMulti2_setOutlierThresh(MvecDetectMulti2* detector, double value);
TLResult MvecDetectMulti2_setCoarsestPixsNum(MvecDetectMulti2* detector, int32_t pixels);  // at least 256
TLResult MvecDetectMulti2_setMaxFeatPntsNum(MvecDetectMulti2* detector, int32_t count);    // 1 to 4096
TLResult MvecDetectMulti2_setReferenceFrameUpdateInterval(MvecDetectMulti2* detector,
                                                          int32_t interval);  // 1 to 15
TLResult MvecDetectMulti2_setCoarsestMatchingActivated(MvecDetectMulti2* detector, int32_t on);
TLResult MvecDetectMulti2_setAdaptiveFeatPntsActivated(MvecDetectMulti2* detector, int32_t on);
TLResult MvecDetectMulti2_setSubpixelMatchingActivated(MvecDetectMulti2* detector, int32_t on);
TLResult MvecDetectMulti2_setSimpleSadModeActivated(MvecDetectMulti2* detector, int32_t on);
TLResult MvecDetectMulti2_setSimpleShrink2ForMvecDetectModeActivated(MvecDetectMulti2* detector, int32_t on);
// degrees in (0, 180); kind 0 across the width, 1 the height, 2 the diagonal.
TLResult MvecDetectMulti2_setViewAngle(MvecDetectMulti2* detector, double degrees, int32_t kind);

// The pyramid depth for a frame: halvings while the area is at least
// coarsestPixsNum, one fewer (not below 1) without coarsest matching.
int32_t MvecDetectMulti2_calcLevels(const MvecDetectMulti2* detector, int32_t width, int32_t height);

// Sizes of at least 1 and a frame of at least one pixel after the shrink,
// images 2 to 16: TL_ERROR_PARAM, images above 16 TL_ERROR_UNSUPPORTED, a
// block half size other than 2 or 3 TL_ERROR_UNSUPPORTED, TL_ERROR_MEMORY.
// A failure leaves the object as construct did, with its settings. With an
// arena too small for getArenaSize: TL_ERROR_MEMORY.
TLResult MvecDetectMulti2_init(MvecDetectMulti2* detector, int32_t width, int32_t height, int32_t images);
// image: UINT8 of the init size (else TL_ERROR_PARAM; other formats
// TL_ERROR_UNSUPPORTED). TL_ERROR_STATE before init or once the sequence is
// full. A failure leaves the results of the images before as they were.
TLResult MvecDetectMulti2_addImage(MvecDetectMulti2* detector, const Image* image);
// The level-0 picture the next addImage fills, for a caller that would
// otherwise shrink into a buffer of its own and have it copied: write the
// picture there and pass this image to addImage, which then copies
// nothing. Null before init, once the sequence is full, and with a shrink
// ratio above 1 (level 0 is then smaller than the input).
Image* MvecDetectMulti2_getNextImage(MvecDetectMulti2* detector);
// The motion of the last image relative to the first, in pixels of the
// input: six Q15 elements a, b, c, d, e, f for dof 2, 6, 14, 24; nine for a
// homography (dof 8, 18), element 8 being 32768; w, x, y, z of the rotation
// quaternion for dof 3. TL_ERROR_STATE before the first image.
TLResult MvecDetectMulti2_outputMvec(MvecDetectMulti2* detector, int32_t* result);
// The same as a record, at full precision.
TLResult MvecDetectMulti2_getMvec(MvecDetectMulti2* detector, MvecDetectMulti2_Mvec* result);
uint32_t MvecDetectMulti2_getFailureCode(const MvecDetectMulti2* detector);  // all bits for null
int32_t MvecDetectMulti2_getReliability(const MvecDetectMulti2* detector);   // Q15; -1 for null

// Steps, callable by themselves.
// One pyramid step: dst of ((w - 2) / 2) by ((h - 2) / 2), pixel (x, y)
// centred on (2x + 1.5, 2y + 1.5) of src: the binomial 1 3 3 1 on both axes,
// or with `simple` the 2 by 2 mean of the middle pixels. UINT8 both.
TLResult MvecDetectMulti2_Shrink_shrink2ForMvecDetect(Pel* pel, Image* dst, const Image* src, int32_t simple);
// The block search of one feature: the block of base round (x, y) looked
// for in target round the prediction (px, py), pixels; out the matched
// position in Q15 or kMvecDetectInvalid twice.
void MvecDetectMulti2_Matching_process(const MvecDetectMulti2* detector, const Image* base,
                                       const Image* target, int32_t x, int32_t y, int32_t px, int32_t py,
                                       int32_t* outX, int32_t* outY);

}  // namespace vq_tl
