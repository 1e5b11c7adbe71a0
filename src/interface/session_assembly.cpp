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

    // Result images at depth size.
    for (int i = 0; i < 2; ++i) {
        r = Image_init(&s->foregroundMask[i], s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_FLOAT);
        if (r != TL_OK) return r;
        r = Image_init(&s->depthImage[i], s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
        if (r != TL_OK) return r;
        r = Image_init(&s->cocImage[i], s->depthWidth, s->depthHeight, nullptr, IMAGE_FORMAT_UINT8);
        if (r != TL_OK) return r;
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
