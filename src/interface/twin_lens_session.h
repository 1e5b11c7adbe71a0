// The session record that lives at the start of the caller's buffer.
#pragma once

#include <cstdint>

#include "bokeh/cocmap.h"
#include "bokeh/defocus_face_bokeh.h"
#include "image/image.h"
#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "rectify/rectify.h"
#include "runtime/env.h"
#include "runtime/linked_blocking_queue.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "runtime/thread.h"
#include "stereo/disparity_estimator.h"
#include "velquin/twin_lens.h"

namespace vq_tl {

constexpr uint32_t kSessionMagic = 0xDEADBEEFu;
constexpr uint32_t kSessionGuardKey = 0xCAFEBABEu;
constexpr uint32_t kStateReady = 1u;
constexpr uint32_t kStateFrameInProgress = 2u;
constexpr uint32_t kWorkerRun = 2u;
constexpr uint32_t kWorkerStop = 8u;
constexpr int32_t kJobQueueCapacity = 128;
constexpr int32_t kFramePoolCapacity = 2;
constexpr int32_t kWorkerPollMillis = 10;
// Both parallel executors: room for 64 threads and 64 queued forks.
constexpr int32_t kExecutorMaxThreads = 64;
constexpr int32_t kExecutorQueueCapacity = 64;

// One asynchronous frame; owns no pixels.
struct TwinLensFrameJob {
    Image* mainFrame;
    Image* subFrame;
    uint32_t sequence;
};

// The work between taking the row in force and publishing the result: fills
// depthImage[slot] from the two frames. rebuild: the row changed since the
// grids were last built (the dirty mark has already been cleared).
using TwinLensEstimationStep = TLResult (*)(TwinLensSession* session, const TwinLensCameraParam* row,
                                            int32_t rebuild, int32_t slot, Image* main, Image* sub);

}  // namespace vq_tl

// Fields in the order of the session's contract; members of modules that are
// not built yet join at their place as they land.
struct TwinLensSession {
    uint32_t magic;  // 0xDEADBEEF while live
    vq_tl::Env env;
    vq_tl::DisparityEstimator estimator;
    // refocusBokeh joins here.
    vq_tl::DefocusFaceBokeh defocusFaceBokeh;  // blur back-end 0, and small blurs of 1
    // defocusFaceBokehGL joins here.
    vq_tl::Cocmap cocmap;
    vq_tl::Rectify rectify;          // fits the inverse lens coefficients of the rows
    vq_tl::Image foregroundMask[2];  // FLOAT, depth size; 1 foreground, 0 background
    vq_tl::Image depthImage[2];      // UINT8, depth size; double buffer of results
    int32_t writeSlot;               // slot the next frame fills
    uint32_t formatCode;
    int32_t mainWidth, mainHeight, subWidth, subHeight;
    int32_t calibWidth, calibHeight;  // main calibration size of the row in force
    int32_t depthWidth, depthHeight;
    int32_t coarseBokehLevel;
    int32_t matchingMode, refineLevel, blurBackend, asyncMode, rotation;
    TwinLensCameraParam cameraParams[TWIN_LENS_MAX_CAMERA_PARAMS];
    int32_t cameraParamCount;
    int32_t cameraParamIndex;                   // read and written with full fences
    int32_t cameraDirty;                        // non-zero: the next frame rebuilds the grids
    vq_tl::ParallelExecutor executor;           // on pel; image and bokeh modules
    vq_tl::ParallelExecutor estimatorExecutor;  // on estimatorPel; asyncMode 1 only
    vq_tl::Pel pel;                             // image and bokeh modules; the estimator outside asyncMode 1
    vq_tl::Pel estimatorPel;                    // asyncMode 1 only
    vq_tl::ImageProc imageProc;
    vq_tl::ImageProc2 imageProc2;
    uint32_t state;  // bit 0 ready, bit 1 frame in progress
    int32_t priorityEnabled, priority;
    uint32_t guard;        // 0xCAFEBABE ^ address of the handle
    uint32_t workerFlags;  // bit 1 may run, bit 3 must stop; changed with atomic or
    int32_t workerPollMillis;
    vq_tl::Thread worker;                      // the frame worker
    vq_tl::LinkedBlockingQueue jobQueue;       // TwinLensFrameJob records
    vq_tl::LinkedBlockingQueue mainFramePool;  // free members of mainFrames
    vq_tl::LinkedBlockingQueue subFramePool;
    vq_tl::Image mainFrames[2];  // pool members, asynchronous mode only
    vq_tl::Image subFrames[2];
    TwinLensCompletionCallback callback;
    void* callbackUserData;
    uint32_t nextSequence;
    vq_tl::Image maskCopy, maskResized;  // UINT8, depth size
    vq_tl::Image backgroundStore;        // depth size, session format
    vq_tl::Image* background;            // null, or backgroundStore
    // Main-size work images of replaceBackground, made at its first call on
    // a picture of another size than the depth picture.
    vq_tl::Image backgroundResized;
    vq_tl::Image cocImage[2];  // UINT8, depth size; one per slot
    double focusX, focusY;     // normalised focus point
    int32_t frameCounter;      // raised before each frame; the first sees 0
    int32_t refineOnlyRate;
    vq_tl::TwinLensEstimationStep estimationStep;  // set by assembly; tests may replace it
    // What a slot's levels mean: the estimator's depth table and status as
    // the frame that filled the slot left them. The estimator's own are
    // overwritten by the next estimate while readers may still be on this
    // slot; these copies are published with the slot.
    float slotDepthTable[2][vq_tl::kDisparityLevels];
    float slotInverseDepthTable[2][vq_tl::kDisparityLevels];
    int32_t slotStatus[2];
};

namespace vq_tl {

// Builds every member of a session whose parameters have been copied. Any
// failure is reported as it came; the caller takes the failure path.
TLResult TwinLens_assembleSession(TwinLensSession* session);

// Takes the members down in their fixed order; results are not examined.
void TwinLens_destructMembers(TwinLensSession* session);

// Validation of the sizes shared by getBufferSize and initialize.
bool TwinLens_sizesValid(const TwinLensParams* params);

// A calibration row the session can work with: every real it reads finite;
// camera matrices with positive focal lengths, no skew and a last row of
// (0, 0, 1); rotations that are rotations; a translation of non-zero length;
// positive calibration (and, with per-camera rectification, rectified)
// sizes; radial tables of 2 to 41 entries with a positive last radius. Lens
// records of an unknown kind are not looked into here.
bool TwinLens_cameraParamValid(const TwinLensCameraParam* row);
// The lens kinds of a row are both known (0 or 1).
bool TwinLens_lensKindsKnown(const TwinLensCameraParam* row);

// The session's place in a caller's buffer: the first suitably aligned address.
TwinLensSession* TwinLens_sessionInBuffer(void* buffer, int32_t bufferSize);

// The frame path: the driver, the asynchronous hand-off and the worker body.
TLResult TwinLens_estimateFrame(TwinLensSession* session, Image* main, Image* sub);
int32_t TwinLens_enqueueFrame(TwinLensSession* session, const Image* mainView, const Image* subView);
uint32_t TwinLens_frameWorker(void* session);
// The foreground mask of a slot from its depth map; part of the estimation step.
TLResult TwinLens_updateForegroundMask(TwinLensSession* session, int32_t slot);
// The blurred picture of the finished slot into dst, from src (main size).
TLResult TwinLens_renderBlur(TwinLensSession* session, Image* dst, const Image* src, double strength);
// The estimation step of a live session.
TLResult TwinLens_estimationStep(TwinLensSession* session, const TwinLensCameraParam* row, int32_t rebuild,
                                 int32_t slot, Image* main, Image* sub);

}  // namespace vq_tl
