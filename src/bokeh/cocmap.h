// Cocmap: turns an 8-bit code map (a depth or disparity picture whose codes a
// 256-entry float table explains) into an 8-bit circle-of-confusion map for
// one focus. The blur formula runs once per code present, never per pixel:
// three passes over the map (range, histogram for the automatic focus,
// table look-up) and the rest on at most 256 entries.
//
// Output scales (mode): 0 signed, 128 the focus plane, above 128 nearer than
// focus; 1 magnitude, 255 sharp and 0 the largest blur present. Another mode
// builds no table and maps with the previous one. maxCoc receives the largest
// absolute blur among the codes present, clamped to maxSigma: a byte b means
// a radius of (128 - b) / 128 * maxCoc (signed) or (255 - b) / 255 * maxCoc
// (magnitude).
//
// Threads: one caller at a time; the passes run in 4 row stripes on the Pel.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

struct Cocmap {
    Env* env;
    Pel* pel;             // not owned
    uint8_t* cocTableU8;  // 256 output bytes of the last call
    float* cocTableF32;   // 256 blur values of the last call
    float maxSigma;       // clamp of the blur; unset until Cocmap_setMaxSigma
    uint32_t maxSigmaHigh;
};

int32_t Cocmap_getBufferSize();
TLResult construct_Cocmap(Cocmap* self, Env* env);
TLResult destruct_Cocmap(Cocmap* self);
TLResult Cocmap_recycle(Cocmap* self);
// Allocates the two tables; the sizes are not used.
TLResult Cocmap_init(Cocmap* self, int32_t width, int32_t height);
TLResult Cocmap_setPel(Cocmap* self, Pel* pel);
TLResult Cocmap_setMaxSigma(Cocmap* self, float sigma);

// dst: UINT8 of src's size; src: the UINT8 code map; table: 256 floats. x, y:
// the focus, normalised to the map (0 left or top edge, 1 right or bottom).
TLResult Cocmap_getCocMapFromDepthByCoord(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                          const float* table, float scale, float focal, float x, float y,
                                          int32_t mode);
TLResult Cocmap_getCocMapFromDisparityByCoord(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                              const float* table, float scale, float focal, float baseline,
                                              float x, float y, int32_t mode);
// The focus is the peak of the nearer side of the map's histogram.
TLResult Cocmap_getRecommendedCocMapFromDepth(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                              const float* table, float scale, float focal, int32_t mode);
TLResult Cocmap_getRecommendedCocMapFromDisparity(Cocmap* self, Image* dst, float* maxCoc, const Image* src,
                                                  const float* table, float scale, float focal,
                                                  float baseline, int32_t mode);

}  // namespace vq_tl
