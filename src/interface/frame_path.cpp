// The frame path: process and processEx, the frame driver, the asynchronous
// hand-off to the frame worker, and the worker itself.
#include <cstdlib>
#include <cstring>

#include "image/public_image.h"
#include "interface/twin_lens_session.h"
#include "rectify/rectify_lens_dist.h"
#include "runtime/fenced_word.h"
#include "runtime/memory.h"

namespace vq_tl {

namespace {

// The estimator's settings of a frame: SGM penalties for a step of one
// disparity and for larger steps, the left-right consistency limit in
// pixels, the confidence values of inconsistent and consistent pixels, and
// the refinement filter's spatial and range sigmas.
constexpr uint32_t kSmallPenalty = 5, kLargePenalty = 40;
constexpr float kConsistencyPixels = 1.0f;
constexpr uint8_t kFailValue = 0, kPassValue = 255;
constexpr float kSigmaSpace = 10.0f, kSigmaRange = 15.0f;

void loadMatrix(Mvec8Real* m, const double* values) {
    Mvec8Real_setIdentity(m);
    std::memcpy(m->m, values, sizeof m->m);
}

// A row's lens record as the rectification takes it. Coefficient lenses
// come with the inverse that initialize fitted, so no frame fits one.
TLResult loadLens(RectifyLensDist* lens, const TwinLensLensDist* record) {
    RectifyLensDist_clear(lens);
    lens->kind = record->kind;
    if (record->kind == 1) {
        const TwinLensLensTable& t = record->u.data;
        return RectifyLensDist_setDistData(lens, t.table, t.count, t.maxRadius);
    }
    if (record->kind != 0) return TL_ERROR_GENERAL;
    const TwinLensLensCoeff& c = record->u.coeff;
    const TLResult r = RectifyLensDist_setDistCoeff(lens, c.k, 3, c.p, 2);
    if (r != TL_OK) return r;
    lens->coeff.invValid = 1;
    for (int k = 0; k < 3; ++k) lens->coeff.invK[k] = c.invK[k];
    for (int k = 0; k < 2; ++k) lens->coeff.invP[k] = c.invP[k];
    return TL_OK;
}

// The estimator's grids from a row: from the stereo extrinsics, or from each
// camera's own rectification when the row gives one (the first row of
// mainRectRotation not all zero). The estimator refuses frames while a
// failure has left its grids half built.
TLResult rebuildGrids(TwinLensSession* s, const TwinLensCameraParam* row) {
    s->calibWidth = row->mainCalibWidth;
    s->calibHeight = row->mainCalibHeight;
    Mvec8Real mainCamera, subCamera, mainRect, subRect, mainRectCamera, subRectCamera, stereoRotation;
    loadMatrix(&mainCamera, row->mainCameraMatrix);
    loadMatrix(&subCamera, row->subCameraMatrix);
    loadMatrix(&mainRect, row->mainRectRotation);
    loadMatrix(&subRect, row->subRectRotation);
    loadMatrix(&mainRectCamera, row->mainRectCameraMatrix);
    loadMatrix(&subRectCamera, row->subRectCameraMatrix);
    loadMatrix(&stereoRotation, row->stereoRotation);
    float translation[3];
    for (int i = 0; i < 3; ++i) translation[i] = static_cast<float>(row->stereoTranslation[i]);
    RectifyLensDist mainLens, subLens;
    TLResult r = loadLens(&mainLens, &row->mainLensDist);
    if (r != TL_OK) return r;
    r = loadLens(&subLens, &row->subLensDist);
    if (r != TL_OK) return r;

    DisparityEstimator* e = &s->estimator;
    const double* first = row->mainRectRotation;
    if (first[0] == 0.0 && first[1] == 0.0 && first[2] == 0.0) {
        return DisparityEstimator_calcGridParams(e, &mainCamera, &subCamera, &mainLens, &subLens,
                                                 &stereoRotation, translation, row->extrinsicsForward,
                                                 row->mainCalibWidth, row->mainCalibHeight,
                                                 row->subCalibWidth, row->subCalibHeight);
    }
    r = DisparityEstimator_calcGridParamsEachCamera(e, &mainCamera, &mainLens, &mainRect, &mainRectCamera,
                                                    row->mainCalibWidth, row->mainCalibHeight,
                                                    row->mainRectWidth, row->mainRectHeight, 1);
    if (r != TL_OK) return r;
    return DisparityEstimator_calcGridParamsEachCamera(e, &subCamera, &subLens, &subRect, &subRectCamera,
                                                       row->subCalibWidth, row->subCalibHeight,
                                                       row->subRectWidth, row->subRectHeight, 0);
}

void clearFrameInProgress(TwinLensSession* s) { FencedWord_fetchAnd(&s->state, ~kStateFrameInProgress); }

void returnToPools(TwinLensSession* s, Image* mainFrame, Image* subFrame) {
    if (mainFrame != nullptr) LinkedBlockingQueue_offer(&s->mainFramePool, mainFrame);
    if (subFrame != nullptr) LinkedBlockingQueue_offer(&s->subFramePool, subFrame);
}

// Every plane that the frame's format has is there, with rows that go
// forward. The asynchronous hand-off makes the same test when it borrows
// the planes, with the consequences its header tells.
bool planesPresent(const Image* frame) {
    const int32_t planes = Image_getPlaneCount(frame->format);
    for (int32_t k = 0; k < planes; ++k) {
        if (frame->plane[k] == nullptr || frame->pitch[k] < 1) return false;
    }
    return true;
}

// The shared body of process and processEx; makeView turns a public record
// into a borrowed Image view.
template <typename Record, TLResult (*makeView)(Image*, const Record*, uint32_t)>
TLResult processFrame(TwinLensHandle* handle, const Record* main, const Record* sub, int32_t* sequenceOut) {
    if (handle == nullptr || handle->session == nullptr || main == nullptr || sub == nullptr) {
        return TL_ERROR_PARAM;
    }
    TwinLensSession* s = handle->session;
    if (main->plane0 == nullptr || sub->plane0 == nullptr || main->width != s->mainWidth ||
        main->height != s->mainHeight || sub->width != s->subWidth || sub->height != s->subHeight) {
        return TL_ERROR_PARAM;
    }
    const uint32_t state = FencedWord_load(&s->state);
    if ((state & kStateReady) == 0) return TL_ERROR_STATE;
    int32_t localSequence;
    if (sequenceOut == nullptr) sequenceOut = &localSequence;
    if ((state & kStateFrameInProgress) != 0) {
        // One frame at a time: this one is skipped and its pixels are the caller's again.
        *sequenceOut = -1;
        return TL_OK;
    }

    Image mainView;
    Image subView;
    TLResult r = construct_Image(&mainView, &s->env);
    r |= construct_Image(&subView, &s->env);
    if (r != TL_OK) return r;
    r = makeView(&mainView, main, s->formatCode);
    if (r == TL_OK) r = makeView(&subView, sub, s->formatCode);
    if (r != TL_OK) {
        destruct_Image(&mainView);
        destruct_Image(&subView);
        return r;
    }

    if (s->asyncMode == 0 && (!planesPresent(&mainView) || !planesPresent(&subView))) {
        // The estimator reads every plane of both frames on this thread.
        destruct_Image(&mainView);
        destruct_Image(&subView);
        return TL_ERROR_PARAM;
    }

    FencedWord_fetchOr(&s->state, kStateFrameInProgress);
    if (s->asyncMode != 0) {
        const int32_t sequence = TwinLens_enqueueFrame(s, &mainView, &subView);
        if (sequence >= 0) {
            *sequenceOut = sequence;
        } else {
            r = static_cast<TLResult>(sequence);
        }
    } else {
        r = TwinLens_estimateFrame(s, &mainView, &subView);
        if (r == TL_OK) *sequenceOut = 0;
    }
    destruct_Image(&mainView);
    destruct_Image(&subView);
    return r;
}

}  // namespace

TLResult TwinLens_estimationStep(TwinLensSession* s, const TwinLensCameraParam* row, int32_t rebuild,
                                 int32_t slot, Image* main, Image* sub) {
    DisparityEstimator* e = &s->estimator;
    if (rebuild != 0) {
        const TLResult r = rebuildGrids(s, row);
        if (r != TL_OK) return r;
    }
    // The refinement window by refineLevel, with the colour guide; any other
    // level is the plain bilinear enlargement.
    uint8_t radius = 0;
    int32_t guideMode = 0;
    if (s->refineLevel >= 1 && s->refineLevel <= 3) {
        static constexpr uint8_t kRadius[3] = {5, 7, 15};
        radius = kRadius[s->refineLevel - 1];
        guideMode = 3;
    }
    // In asyncMode 1 only every refineOnlyRate-th frame is matched; the ones
    // between refine the last map under their own main image.
    const bool refineOnly =
        s->asyncMode == 1 && s->refineOnlyRate > 1 && s->frameCounter % s->refineOnlyRate != 0;
    if (!refineOnly) {
        const TLResult r = DisparityEstimator_estimateDisparity(e, main, sub, kSmallPenalty, kLargePenalty,
                                                                kConsistencyPixels, kFailValue, kPassValue);
        if (r != TL_OK) return r;
    }
    const TLResult r = DisparityEstimator_refineDisparity(e, &s->depthImage[slot], main, radius, guideMode,
                                                          kSigmaSpace, kSigmaRange);
    if (r != TL_OK) return r;
    std::memcpy(s->slotDepthTable[slot], e->depthTable, sizeof s->slotDepthTable[slot]);
    std::memcpy(s->slotInverseDepthTable[slot], e->inverseDepthTable, sizeof s->slotInverseDepthTable[slot]);
    s->slotStatus[slot] = e->status;
    return TwinLens_updateForegroundMask(s, slot);
}

TLResult TwinLens_estimateFrame(TwinLensSession* s, Image* main, Image* sub) {
    const int32_t slot = FencedWord_load(&s->writeSlot);
    if (main == nullptr || sub == nullptr || main->plane[0] == nullptr || sub->plane[0] == nullptr) {
        return TL_ERROR_PARAM;
    }
    // The mark is cleared before the row is copied, and at once, so that a
    // failed rebuild is not tried again. A setter writes the row before it
    // marks the session: a mark seen here comes with its row, and a mark set
    // after this exchange stays for the next frame.
    const int32_t rebuild = FencedWord_fetchAnd(&s->cameraDirty, 0) != 0 ? 1 : 0;
    int32_t index = FencedWord_load(&s->cameraParamIndex);
    if (index < 0 || index >= TWIN_LENS_MAX_CAMERA_PARAMS) index = 0;
    // A private copy, so that a setter running meanwhile cannot tear this frame's values.
    TwinLensCameraParam row;
    std::memcpy(&row, &s->cameraParams[index], sizeof row);
    ++s->frameCounter;

    Image work;
    TLResult result = construct_Image(&work, &s->env);
    const TLResult step = s->estimationStep(s, &row, rebuild, slot, main, sub);
    result |= step;
    if (step == TL_OK) {
        // The one store that hands the new result to every reader.
        FencedWord_store(&s->writeSlot, (slot + 1) % 2);
    }
    destruct_Image(&work);
    clearFrameInProgress(s);
    return result;
}

int32_t TwinLens_enqueueFrame(TwinLensSession* s, const Image* mainView, const Image* subView) {
    TwinLensFrameJob* job = static_cast<TwinLensFrameJob*>(LinkedBlockingQueue_poll(&s->jobQueue));
    Image* mainFrame;
    Image* subFrame;
    if (job != nullptr) {
        // A job that has not begun is superseded; its record and frames carry the new pair.
        if (s->callback != nullptr) s->callback(s->callbackUserData, job->sequence, 1);
        mainFrame = job->mainFrame;
        subFrame = job->subFrame;
    } else {
        mainFrame = static_cast<Image*>(LinkedBlockingQueue_poll(&s->mainFramePool));
        subFrame = static_cast<Image*>(LinkedBlockingQueue_poll(&s->subFramePool));
    }
    if (mainFrame == nullptr || subFrame == nullptr ||
        Image_initSubImage(mainFrame, mainView, 0, 0, mainView->width, mainView->height) != TL_OK ||
        Image_initSubImage(subFrame, subView, 0, 0, subView->width, subView->height) != TL_OK) {
        Memory_free(job);
        returnToPools(s, mainFrame, subFrame);
        return static_cast<int32_t>(TL_ERROR_GENERAL);
    }
    if (job == nullptr) {
        job = static_cast<TwinLensFrameJob*>(Memory_alloc(sizeof *job));
        if (job == nullptr) {
            // Kept as it is: success with sequence 0 and no job; the frames go back.
            returnToPools(s, mainFrame, subFrame);
            return 0;
        }
    }
    job->mainFrame = mainFrame;
    job->subFrame = subFrame;
    const uint32_t sequence = s->nextSequence++;
    job->sequence = sequence;
    // From here on the worker owns the job and may already have freed it.
    LinkedBlockingQueue_put(&s->jobQueue, job);
    return static_cast<int32_t>(sequence);
}

uint32_t TwinLens_frameWorker(void* argument) {
    TwinLensSession* s = static_cast<TwinLensSession*>(argument);
    for (;;) {
        if ((FencedWord_load(&s->workerFlags) & kWorkerRun) == 0) break;
        TwinLensFrameJob* job =
            static_cast<TwinLensFrameJob*>(LinkedBlockingQueue_pollMillis(&s->jobQueue, s->workerPollMillis));
        if (job != nullptr) {
            if (FencedWord_load(&s->state) != 0) {
                TwinLens_estimateFrame(s, job->mainFrame, job->subFrame);
                if (s->callback != nullptr) s->callback(s->callbackUserData, job->sequence, 0);
                returnToPools(s, job->mainFrame, job->subFrame);
                Memory_free(job);
            } else {
                LinkedBlockingQueue_put(&s->jobQueue, job);
            }
        }
        if ((FencedWord_load(&s->workerFlags) & kWorkerStop) != 0) break;
    }
    // Jobs left are dropped without a callback; the pools are drained so that
    // their destructors find them empty.
    while (void* job = LinkedBlockingQueue_poll(&s->jobQueue)) Memory_free(job);
    while (LinkedBlockingQueue_poll(&s->mainFramePool) != nullptr) {
    }
    while (LinkedBlockingQueue_poll(&s->subFramePool) != nullptr) {
    }
    return 0;
}

}  // namespace vq_tl

using namespace vq_tl;

extern "C" {

TLResult velquin_TwinLens_process(TwinLensHandle* handle, const TwinLensImage* main, const TwinLensImage* sub,
                                  int32_t* sequenceOut) {
    return processFrame<TwinLensImage, IF_initImage>(handle, main, sub, sequenceOut);
}

TLResult velquin_TwinLens_processEx(TwinLensHandle* handle, const TwinLensImageEx* main,
                                    const TwinLensImageEx* sub, int32_t* sequenceOut) {
    return processFrame<TwinLensImageEx, IF_initImageEx>(handle, main, sub, sequenceOut);
}

}  // extern "C"
