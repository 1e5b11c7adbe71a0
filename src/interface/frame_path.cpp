// The frame path: process and processEx, the frame driver, the asynchronous
// hand-off to the frame worker, and the worker itself.
#include <cstdlib>
#include <cstring>

#include "image/public_image.h"
#include "interface/twin_lens_session.h"
#include "runtime/fenced_word.h"
#include "runtime/memory.h"

namespace vq_tl {

namespace {

void clearFrameInProgress(TwinLensSession* s) { FencedWord_fetchAnd(&s->state, ~kStateFrameInProgress); }

void returnToPools(TwinLensSession* s, Image* mainFrame, Image* subFrame) {
    if (mainFrame != nullptr) LinkedBlockingQueue_offer(&s->mainFramePool, mainFrame);
    if (subFrame != nullptr) LinkedBlockingQueue_offer(&s->subFramePool, subFrame);
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

TLResult TwinLens_estimationStep(TwinLensSession* session, const TwinLensCameraParam* row, int32_t slot,
                                 Image* main, Image* sub) {
    // The estimator joins here; until then a frame publishes the slot as it is.
    (void)session;
    (void)row;
    (void)slot;
    (void)main;
    (void)sub;
    return TL_OK;
}

TLResult TwinLens_estimateFrame(TwinLensSession* s, Image* main, Image* sub) {
    const int32_t slot = FencedWord_load(&s->writeSlot);
    int32_t index = FencedWord_load(&s->cameraParamIndex);
    if (index < 0 || index >= TWIN_LENS_MAX_CAMERA_PARAMS) index = 0;
    // A private copy, so that a setter running meanwhile cannot tear this frame's values.
    TwinLensCameraParam row;
    std::memcpy(&row, &s->cameraParams[index], sizeof row);

    if (main == nullptr || sub == nullptr || main->plane[0] == nullptr || sub->plane[0] == nullptr) {
        return TL_ERROR_PARAM;
    }
    ++s->frameCounter;

    Image work;
    TLResult result = construct_Image(&work, &s->env);
    const TLResult step = s->estimationStep(s, &row, slot, main, sub);
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
