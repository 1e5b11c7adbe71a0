// DefocusFaceBokeh: the CPU bokeh of a YUV 4:2:0 picture (26, 27, 29) under
// an 8-bit blur map on the magnitude scale (255 sharp, 0 the largest blur).
// A large Gaussian is never run at full size: the picture is reduced to the
// pyramid level where the wanted sigma is at most 1.8 pixels, blurred there
// with 7 taps, doubled back bilinearly and mixed with the sharp source pixel
// by pixel. The reduction and the level blur weight each pixel by how blurred
// it is meant to be, so a sharp foreground does not bleed into the blurred
// background round it.
//
// Threads: one caller at a time; every pass runs in 4 row stripes on the Pel.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_proc2.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

constexpr int32_t kDefocusFaceBokehLevels = 8;

struct DefocusFaceBokeh {
    Env* env;
    Pel* pel;  // not owned
    ImageProc2 imageProc2;
    Image y[kDefocusFaceBokehLevels], u[kDefocusFaceBokehLevels], v[kDefocusFaceBokehLevels];
    Image blurY[kDefocusFaceBokehLevels], blurU[kDefocusFaceBokehLevels], blurV[kDefocusFaceBokehLevels];
    Image weight[kDefocusFaceBokehLevels + 1];
    Image coc[kDefocusFaceBokehLevels + 1];
    Image scratch[2];   // full size: value and weight of the separable passes
    Image chromaIn[4];  // half size: de-interleaved chroma, and working space
    uint8_t levelThreshold[kDefocusFaceBokehLevels + 1];
    uint8_t numLevels;
    double maxBlurSigma;
    uint8_t depth;
    int32_t width, height;
};

int32_t DefocusFaceBokeh_getBufferSize(int32_t width, int32_t height, uint32_t format);
TLResult construct_DefocusFaceBokeh(DefocusFaceBokeh* self, Env* env);
TLResult destruct_DefocusFaceBokeh(DefocusFaceBokeh* self);
TLResult DefocusFaceBokeh_recycle(DefocusFaceBokeh* self);
TLResult DefocusFaceBokeh_setPel(DefocusFaceBokeh* self, Pel* pel);
TLResult DefocusFaceBokeh_init(DefocusFaceBokeh* self, int32_t width, int32_t height, uint32_t format);

// dst, src: YUV 4:2:0 of one size and format, at most init's size; dst may
// be null. cocMap: UINT8 of any size (resized to src's). sigma in pixels of
// src, limited to what the pyramid serves.
TLResult DefocusFaceBokeh_getBlurImage(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                       const Image* cocMap, double sigma);
// Blurs every level and mixes level with level, so the blur radius follows
// the map's byte rather than only the mixing weight.
TLResult DefocusFaceBokeh_getBlurImageMultiLayer(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                                 const Image* cocMap, double sigma);

}  // namespace vq_tl
