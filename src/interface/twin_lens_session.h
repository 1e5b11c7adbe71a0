// The session record that lives at the start of the caller's buffer.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "runtime/env.h"
#include "runtime/linked_blocking_queue.h"
#include "runtime/thread.h"
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

// One asynchronous frame; owns no pixels.
struct TwinLensFrameJob {
    Image* mainFrame;
    Image* subFrame;
    uint32_t sequence;
};

// The work between taking the row in force and publishing the result: fills
// depthImage[slot] from the two frames.
using TwinLensEstimationStep = TLResult (*)(TwinLensSession* session, const TwinLensCameraParam* row,
                                            int32_t slot, Image* main, Image* sub);

// The frame path: the driver, the asynchronous hand-off and the worker body.
TLResult TwinLens_estimateFrame(TwinLensSession* session, Image* main, Image* sub);
int32_t TwinLens_enqueueFrame(TwinLensSession* session, const Image* mainView, const Image* subView);
uint32_t TwinLens_frameWorker(void* session);
// The estimation step of a live session.
TLResult TwinLens_estimationStep(TwinLensSession* session, const TwinLensCameraParam* row, int32_t slot,
                                 Image* main, Image* sub);

}  // namespace vq_tl

// Fields in the order of the session's contract; members of modules that are
// not built yet join at their place as they land.
struct TwinLensSession {
    uint32_t magic;  // 0xDEADBEEF while live
    vq_tl::Env env;
    vq_tl::Image foregroundMask[2];  // FLOAT, depth size; nothing fills it
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
    int32_t cameraParamIndex;  // read and written with full fences
    int32_t cameraDirty;       // non-zero: the next frame rebuilds the grids
    uint32_t state;            // bit 0 ready, bit 1 frame in progress
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
    vq_tl::Image cocImage[2];            // UINT8, depth size; one per slot
    double focusX, focusY;               // normalised focus point
    int32_t frameCounter;                // raised before each frame; the first sees 0
    int32_t refineOnlyRate;
    vq_tl::TwinLensEstimationStep estimationStep;  // set by assembly; tests may replace it
};

namespace vq_tl {

// Builds every member of a session whose parameters have been copied. Any
// failure is reported as it came; the caller takes the failure path.
TLResult TwinLens_assembleSession(TwinLensSession* session);

// Takes the members down in their fixed order; results are not examined.
void TwinLens_destructMembers(TwinLensSession* session);

// Validation of the sizes shared by getBufferSize and initialize.
bool TwinLens_sizesValid(const TwinLensParams* params);

// The session's place in a caller's buffer: the first suitably aligned address.
TwinLensSession* TwinLens_sessionInBuffer(void* buffer, int32_t bufferSize);

// The frame path: the driver, the asynchronous hand-off and the worker body.
TLResult TwinLens_estimateFrame(TwinLensSession* session, Image* main, Image* sub);
int32_t TwinLens_enqueueFrame(TwinLensSession* session, const Image* mainView, const Image* subView);
uint32_t TwinLens_frameWorker(void* session);
// The estimation step of a live session.
TLResult TwinLens_estimationStep(TwinLensSession* session, const TwinLensCameraParam* row, int32_t slot,
                                 Image* main, Image* sub);

}  // namespace vq_tl
