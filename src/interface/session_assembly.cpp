// Assembly and take-down of the session's members, in their fixed order.
#include <sys/resource.h>

#include <cstddef>
#include <cstring>

#include "interface/twin_lens_session.h"
#include "rectify/rectify_lens_dist.h"
#include "runtime/raw_double.h"

namespace vq_tl {

namespace {

// Start callback of the estimator's workers: the nice value that the
// parameters asked for, on the worker's own thread. A value the process may
// not take (a raise of priority without the right to it) leaves the thread
// as it was.
void applyWorkerPriority(void* argument) {
    setpriority(PRIO_PROCESS, 0, *static_cast<const int32_t*>(argument));
}

// Nice values run from -20 to 19: priority + 20 below 40, compared unsigned,
// refuses everything else, INT32_MIN included, without an overflow.
bool priorityHonoured(const TwinLensSession* s) {
    return s->asyncMode == 1 && s->priorityEnabled != 0 && static_cast<uint32_t>(s->priority) + 20u < 40u;
}

TLResult startLayer(Pel* pel, ParallelExecutor* executor) {
    // No thread of the caller works for a Pel: its calls wait instead.
    pel->params.callerParticipates = 0;
    TLResult r = Pel_init(pel);
    if (r != TL_OK) return r;
    executor->pel = pel;
    return ParallelExecutor_init(executor, kExecutorMaxThreads, kExecutorQueueCapacity);
}

// The session's rows with the inverse of every coefficient lens fitted over
// that camera's calibration size; table lenses need none.
TLResult fitInverseLenses(TwinLensSession* s) {
    const int32_t rows =
        s->cameraParamCount < TWIN_LENS_MAX_CAMERA_PARAMS ? s->cameraParamCount : TWIN_LENS_MAX_CAMERA_PARAMS;
    for (int32_t i = 0; i < rows; ++i) {
        TwinLensCameraParam& row = s->cameraParams[i];
        TwinLensLensDist* records[2] = {&row.mainLensDist, &row.subLensDist};
        const double* matrices[2] = {row.mainCameraMatrix, row.subCameraMatrix};
        const int32_t widths[2] = {row.mainCalibWidth, row.subCalibWidth};
        const int32_t heights[2] = {row.mainCalibHeight, row.subCalibHeight};
        for (int c = 0; c < 2; ++c) {
            if (records[c]->kind != 0) continue;
            TwinLensLensCoeff& coeff = records[c]->u.coeff;
            RectifyLensDist lens;
            RectifyLensDist_clear(&lens);
            RectifyLensDist_setDistCoeff(&lens, coeff.k, 3, coeff.p, 2);
            Mvec8Real camera;
            std::memcpy(camera.m, matrices[c], sizeof camera.m);
            const TLResult r =
                Rectify_estimateUndistortCoeff(&s->rectify, &lens.coeff, &camera, widths[c], heights[c]);
            if (r != TL_OK) return r;
            for (int k = 0; k < 3; ++k) coeff.invK[k] = lens.coeff.invK[k];
            for (int k = 0; k < 2; ++k) coeff.invP[k] = lens.coeff.invP[k];
        }
    }
    return TL_OK;
}

// The baseline of row 0, whatever the row in force: the estimator's depth
// scale for the whole session.
float baselineOfRowZero(const TwinLensSession* s) {
    const double* t = s->cameraParams[0].stereoTranslation;
    return static_cast<float>(RawDouble_sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]));
}

// The blur map's clamp until setMaxSigma, in pixels at the reference size.
constexpr float kStartMaxSigma = 15.0f;

uint32_t estimatorRotation(int32_t rotation) {
    return rotation >= 1 && rotation <= 3 ? static_cast<uint32_t>(rotation) : 0u;
}

// A result image at depth size, cleared so that a reader before the first
// frame sees level 0 rather than whatever the allocator left.
TLResult initResultImage(Image* image, int32_t width, int32_t height, uint32_t format) {
    const TLResult r = Image_init(image, width, height, nullptr, format);
    if (r != TL_OK) return r;
    const size_t rowBytes = format == IMAGE_FORMAT_FLOAT ? sizeof(float) * width : static_cast<size_t>(width);
    for (int32_t y = 0; y < height; ++y) {
        std::memset(image->plane[0] + static_cast<ptrdiff_t>(image->pitch[0]) * y, 0, rowBytes);
    }
    return TL_OK;
}

}  // namespace

TLResult TwinLens_assembleSession(TwinLensSession* s) {
    Env* env = &s->env;
    const bool ownEstimatorLayer = s->asyncMode == 1;

    // Construction, in order. The worker, its queues and the background's
    // work images are constructed further down; take-down copes with members
    // still zero-filled, so a failure before then is safe.
    construct_ParallelExecutor(&s->executor, env);
    construct_Pel(&s->pel, env);
    if (ownEstimatorLayer) {
        construct_ParallelExecutor(&s->estimatorExecutor, env);
        construct_Pel(&s->estimatorPel, env);
    }
    construct_ImageProc(&s->imageProc, env);
    construct_ImageProc2(&s->imageProc2, env);
    for (int i = 0; i < 2; ++i) {
        construct_Image(&s->foregroundMask[i], env);
        construct_Image(&s->depthImage[i], env);
        construct_Image(&s->cocImage[i], env);
    }
    for (int i = 0; i < 2; ++i) {
        construct_Image(&s->mainFrames[i], env);
        construct_Image(&s->subFrames[i], env);
    }
    construct_DisparityEstimator(&s->estimator, env);
    // refocusBokeh is constructed here.
    construct_DefocusFaceBokeh(&s->defocusFaceBokeh, env);
    // defocusFaceBokehGL is constructed here.
    construct_Cocmap(&s->cocmap, env);
    construct_Rectify(&s->rectify, env);

    // Parallel layers.
    if (ownEstimatorLayer && priorityHonoured(s)) {
        s->estimatorPel.params.workerStart = applyWorkerPriority;
        s->estimatorPel.params.workerStartArg = &s->priority;
    }
    TLResult r = startLayer(&s->pel, &s->executor);
    if (r != TL_OK) return r;
    if (ownEstimatorLayer) {
        r = startLayer(&s->estimatorPel, &s->estimatorExecutor);
        if (r != TL_OK) return r;
    }

    // Wiring: with asyncMode 1 the estimator runs on its own layer, so that
    // work on the caller's thread does not wait behind a frame.
    Pel* estimatorPel = ownEstimatorLayer ? &s->estimatorPel : &s->pel;
    ParallelExecutor* estimatorExecutor = ownEstimatorLayer ? &s->estimatorExecutor : &s->executor;
    DisparityEstimator_setPel(&s->estimator, estimatorPel);
    DisparityEstimator_setParallelExecutor(&s->estimator, estimatorExecutor);
    Cocmap_setPel(&s->cocmap, estimatorPel);
    ImageProc_setParallelExecutor(&s->imageProc, &s->executor);
    ImageProc2_setPel(&s->imageProc2, &s->pel);
    // refocusBokeh takes executor and pel here.
    DefocusFaceBokeh_setPel(&s->defocusFaceBokeh, &s->pel);
    Rectify_setPel(&s->rectify, &s->pel);
    // defocusFaceBokehGL takes pel here.
    r = ImageProc_init(&s->imageProc);
    if (r != TL_OK) return r;
    r = ImageProc2_init(&s->imageProc2);
    if (r != TL_OK) return r;

    // The frame worker and its queues exist in every mode; only asynchronous
    // sessions start the worker and fill the pools.
    construct_Thread(&s->worker, env);
    construct_LinkedBlockingQueue(&s->jobQueue, env);
    construct_LinkedBlockingQueue(&s->mainFramePool, env);
    construct_LinkedBlockingQueue(&s->subFramePool, env);
    r = LinkedBlockingQueue_init(&s->jobQueue, kJobQueueCapacity);
    if (r != TL_OK) return r;
    r = LinkedBlockingQueue_init(&s->mainFramePool, kFramePoolCapacity);
    if (r != TL_OK) return r;
    r = LinkedBlockingQueue_init(&s->subFramePool, kFramePoolCapacity);
    if (r != TL_OK) return r;
    s->workerPollMillis = kWorkerPollMillis;
    s->estimationStep = TwinLens_estimationStep;

    // The estimator, at the sizes of the session.
    r = DisparityEstimator_init(&s->estimator, s->mainWidth, s->mainHeight, s->subWidth, s->subHeight,
                                s->depthWidth, s->depthHeight, baselineOfRowZero(s), s->formatCode,
                                estimatorRotation(s->rotation), s->matchingMode == 1 ? 1u : 0u);
    if (r != TL_OK) return r;
    r = DisparityEstimator_setDisparityCorrectionMode(&s->estimator, 3);
    if (r != TL_OK) return r;
    r = Rectify_init(&s->rectify);
    if (r != TL_OK) return r;
    r = fitInverseLenses(s);
    if (r != TL_OK) return r;

    Cocmap_setMaxSigma(&s->cocmap, kStartMaxSigma);
    r = Cocmap_init(&s->cocmap, s->depthWidth, s->depthHeight);
    if (r != TL_OK) return r;
    // Back-end 1 sets its blur up for each picture; 2 (the GPU) joins here.
    if (s->blurBackend == 0) {
        r = DefocusFaceBokeh_init(&s->defocusFaceBokeh, s->mainWidth, s->mainHeight, s->formatCode);
        if (r != TL_OK) return r;
    }

    // Result images at depth size.
    for (int i = 0; i < 2; ++i) {
        r = initResultImage(&s->foregroundMask[i], s->depthWidth, s->depthHeight, IMAGE_FORMAT_FLOAT);
        if (r != TL_OK) return r;
        r = initResultImage(&s->depthImage[i], s->depthWidth, s->depthHeight, IMAGE_FORMAT_UINT8);
        if (r != TL_OK) return r;
        r = initResultImage(&s->cocImage[i], s->depthWidth, s->depthHeight, IMAGE_FORMAT_UINT8);
        if (r != TL_OK) return r;
        // A mask of all foreground until the first frame: a replaced
        // background then leaves the picture as it is.
        r = TwinLens_updateForegroundMask(s, i);
        if (r != TL_OK) return r;
    }

    if (s->asyncMode != 0) {
        for (int i = 0; i < 2; ++i) {
            r = Image_init(&s->mainFrames[i], s->mainWidth, s->mainHeight, nullptr, s->formatCode);
            if (r != TL_OK) return r;
            if (LinkedBlockingQueue_offer(&s->mainFramePool, &s->mainFrames[i]) != 1) return TL_ERROR_GENERAL;
            r = Image_init(&s->subFrames[i], s->subWidth, s->subHeight, nullptr, s->formatCode);
            if (r != TL_OK) return r;
            if (LinkedBlockingQueue_offer(&s->subFramePool, &s->subFrames[i]) != 1) return TL_ERROR_GENERAL;
        }
    }

    s->writeSlot = 0;
    construct_Image(&s->maskCopy, env);
    construct_Image(&s->maskResized, env);
    construct_Image(&s->backgroundStore, env);
    construct_Image(&s->backgroundResized, env);
    r = Image_init(&s->maskCopy, s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r != TL_OK) return r;
    r = Image_init(&s->maskResized, s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r != TL_OK) return r;
    r = Image_init(&s->backgroundStore, s->depthWidth, s->depthHeight, nullptr, s->formatCode);
    if (r != TL_OK) return r;
    s->background = nullptr;
    return TL_OK;
}

void TwinLens_destructMembers(TwinLensSession* s) {
    destruct_ImageProc(&s->imageProc);
    destruct_ImageProc2(&s->imageProc2);
    destruct_Thread(&s->worker);
    // A queue is taken down only when empty: the frame worker drains the
    // pools when it stops, but a session that failed in assembly never ran it.
    while (LinkedBlockingQueue_poll(&s->mainFramePool) != nullptr) {
    }
    while (LinkedBlockingQueue_poll(&s->subFramePool) != nullptr) {
    }
    destruct_LinkedBlockingQueue(&s->jobQueue);
    destruct_LinkedBlockingQueue(&s->mainFramePool);
    destruct_LinkedBlockingQueue(&s->subFramePool);
    destruct_ParallelExecutor(&s->executor);
    destruct_Pel(&s->pel);
    if (s->asyncMode == 1) {
        destruct_ParallelExecutor(&s->estimatorExecutor);
        destruct_Pel(&s->estimatorPel);
    }
    for (int i = 0; i < 2; ++i) {
        destruct_Image(&s->foregroundMask[i]);
        destruct_Image(&s->depthImage[i]);
        destruct_Image(&s->cocImage[i]);
    }
    for (int i = 0; i < 2; ++i) {
        destruct_Image(&s->mainFrames[i]);
        destruct_Image(&s->subFrames[i]);
    }
    // refocusBokeh is taken down here.
    destruct_DefocusFaceBokeh(&s->defocusFaceBokeh);
    // defocusFaceBokehGL is taken down here.
    destruct_Cocmap(&s->cocmap);
    destruct_DisparityEstimator(&s->estimator);
    destruct_Rectify(&s->rectify);
    destruct_Image(&s->maskCopy);
    destruct_Image(&s->maskResized);
    destruct_Image(&s->backgroundStore);
    destruct_Image(&s->backgroundResized);
}

}  // namespace vq_tl
