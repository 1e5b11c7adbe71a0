// The depth result of a session: the depth picture at the caller's size and
// the status of the last estimate, both from the finished slot of the
// double buffer, so that they may run while the next frame is estimated.
#include <cstring>

#include "image/public_image.h"
#include "imageproc/resize.h"
#include "interface/twin_lens_session.h"
#include "runtime/fenced_word.h"

namespace vq_tl {

namespace {

// The slot that the last finished frame filled; writeSlot is read once, so
// a frame that finishes during the call does not move the reader.
int32_t finishedSlot(TwinLensSession* s) { return 1 - FencedWord_load(&s->writeSlot); }

// The estimator's depth picture of one slot, read through the table that was
// published with that slot. DisparityEstimator_getDepthImage takes nothing
// from the estimator record but its depth table and its Pel: a record that
// holds only those two keeps the call away from the live estimator's table,
// which the next estimate rewrites while readers are still on this slot.
TLResult renderSlot(TwinLensSession* s, int32_t slot, Image* depth, float* nearDepth, float* farDepth,
                    int32_t mode) {
    DisparityEstimator reader;
    std::memset(static_cast<void*>(&reader), 0, sizeof reader);
    reader.env = &s->env;
    reader.pel = s->estimator.pel;
    reader.depthTable = s->slotDepthTable[slot];
    return DisparityEstimator_getDepthImage(&reader, depth, nearDepth, farDepth, &s->depthImage[slot], mode);
}

// The shared body of getDepthImage and getDepthImageEx; makeView turns the
// caller's record into a borrowed Image view.
template <typename Record, TLResult (*makeView)(Image*, const Record*, uint32_t)>
TLResult getDepthImage(TwinLensHandle* handle, const Record* image, float* nearDepth, float* farDepth,
                       int32_t mode) {
    if (handle == nullptr || handle->session == nullptr || image == nullptr || image->plane0 == nullptr ||
        nearDepth == nullptr || farDepth == nullptr) {
        return TL_ERROR_PARAM;
    }
    TwinLensSession* s = handle->session;
    const int32_t f = finishedSlot(s);
    Image view, depth;
    TLResult r = construct_Image(&view, &s->env);
    r |= construct_Image(&depth, &s->env);
    if (r == TL_OK) r = makeView(&view, image, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = Image_init(&depth, s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
    if (r == TL_OK) r = renderSlot(s, f, &depth, nearDepth, farDepth, mode != 0 ? 1 : 0);
    if (r == TL_OK) r = ImageProc2_resizeImage(&s->imageProc2, &view, &depth);
    destruct_Image(&view);
    destruct_Image(&depth);
    return r;
}

}  // namespace

}  // namespace vq_tl

using namespace vq_tl;

extern "C" {

TLResult velquin_TwinLens_getDepthImage(TwinLensHandle* handle, const TwinLensImage* image, float* nearDepth,
                                        float* farDepth, int32_t mode) {
    return getDepthImage<TwinLensImage, IF_initImage>(handle, image, nearDepth, farDepth, mode);
}

TLResult velquin_TwinLens_getDepthImageEx(TwinLensHandle* handle, const TwinLensImageEx* image,
                                          float* nearDepth, float* farDepth, int32_t mode) {
    return getDepthImage<TwinLensImageEx, IF_initImageEx>(handle, image, nearDepth, farDepth, mode);
}

TLResult velquin_TwinLens_getEstimateStatus(TwinLensHandle* handle, int32_t* status) {
    if (handle == nullptr || handle->session == nullptr) return TL_ERROR_PARAM;
    TwinLensSession* s = handle->session;
    if ((FencedWord_load(&s->state) & kStateReady) == 0) return TL_ERROR_STATE;
    if (status == nullptr) return TL_ERROR_PARAM;
    const int32_t value = s->slotStatus[finishedSlot(s)];
    *status = value == DISPARITY_STATUS_TOO_NEAR || value == DISPARITY_STATUS_TOO_FAR ? value : 0;
    return TL_OK;
}

}  // extern "C"
