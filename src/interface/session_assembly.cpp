// Assembly and take-down of the session's members, in their fixed order.
#include <cstddef>

#include "interface/twin_lens_session.h"

namespace vq_tl {

TLResult TwinLens_assembleSession(TwinLensSession* s) {
    Env* env = &s->env;
    TLResult r = TL_OK;

    // Construction, in order.
    for (int i = 0; i < 2; ++i) {
        r |= construct_Image(&s->foregroundMask[i], env);
        r |= construct_Image(&s->depthImage[i], env);
        r |= construct_Image(&s->cocImage[i], env);
    }
    for (int i = 0; i < 2; ++i) {
        r |= construct_Image(&s->mainFrames[i], env);
        r |= construct_Image(&s->subFrames[i], env);
    }
    if (r != TL_OK) return r;

    // The frame worker and its queues exist in every mode; only asynchronous
    // sessions start the worker and fill the pools.
    r = construct_Thread(&s->worker, env);
    r |= construct_LinkedBlockingQueue(&s->jobQueue, env);
    r |= construct_LinkedBlockingQueue(&s->mainFramePool, env);
    r |= construct_LinkedBlockingQueue(&s->subFramePool, env);
    if (r != TL_OK) return r;
    r = LinkedBlockingQueue_init(&s->jobQueue, kJobQueueCapacity);
    if (r != TL_OK) return r;
    r = LinkedBlockingQueue_init(&s->mainFramePool, kFramePoolCapacity);
    if (r != TL_OK) return r;
    r = LinkedBlockingQueue_init(&s->subFramePool, kFramePoolCapacity);
    if (r != TL_OK) return r;
    s->workerPollMillis = kWorkerPollMillis;
    s->estimationStep = TwinLens_estimationStep;

    // Result images at depth size.
    for (int i = 0; i < 2; ++i) {
        r = Image_init(&s->foregroundMask[i], s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_FLOAT);
        if (r != TL_OK) return r;
        r = Image_init(&s->depthImage[i], s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
        if (r != TL_OK) return r;
        r = Image_init(&s->cocImage[i], s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
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
    r = construct_Image(&s->maskCopy, env);
    r |= construct_Image(&s->maskResized, env);
    r |= construct_Image(&s->backgroundStore, env);
    if (r != TL_OK) return r;
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
    for (int i = 0; i < 2; ++i) {
        destruct_Image(&s->foregroundMask[i]);
        destruct_Image(&s->depthImage[i]);
        destruct_Image(&s->cocImage[i]);
    }
    for (int i = 0; i < 2; ++i) {
        destruct_Image(&s->mainFrames[i]);
        destruct_Image(&s->subFrames[i]);
    }
    destruct_Image(&s->maskCopy);
    destruct_Image(&s->maskResized);
    destruct_Image(&s->backgroundStore);
}

}  // namespace vq_tl
