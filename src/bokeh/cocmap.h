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
// A null argument or a dst of another size: TL_ERROR_PARAM, and before
// Cocmap_init TL_ERROR_STATE, with dst and the tables untouched.
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

// --- The steps of the entry points, callable alone ---------------------------

// The lowest and the highest code of src (UINT8), each of 4 row stripes
// folding its own rows first. low > high only for an empty map.
TLResult Cocmap_getValueRange(Cocmap* self, const Image* src, int32_t* low, int32_t* high);
// The table value at the mean code of a square of +-1% of the map's size
// round (x, y), clipped by the map. Coordinates are taken into 0..1, and a
// square that holds no pixel (maps under about 50 pixels) shrinks to the
// pixel under the coordinate. 0 for an empty map.
float Cocmap_getFocusValueAtCoord(const Image* src, const float* table, float x, float y);

// Fill cocTableF32 and cocTableU8 for codes low..high (limited to 0..255)
// about the focus value, and return maxCoc: 0, with no entry written, when
// low > high. The depth pair scales by scale * focal and pulls every depth a
// quarter of the focus distance towards focus (signed only); the disparity
// pair is linear in disparity with gain scale / baseline and a dead zone
// proportional to baseline.
float Cocmap_buildDepthTableSigned(Cocmap* self, const float* table, int32_t low, int32_t high, float focus,
                                   float scale, float focal);
float Cocmap_buildDepthTableMagnitude(Cocmap* self, const float* table, int32_t low, int32_t high,
                                      float focus, float scale, float focal);
float Cocmap_buildDisparityTableSigned(Cocmap* self, const float* table, int32_t low, int32_t high,
                                       float focus, float scale, float baseline);
float Cocmap_buildDisparityTableMagnitude(Cocmap* self, const float* table, int32_t low, int32_t high,
                                          float focus, float scale, float baseline);

// histogram: 256 counts of the codes of src, counted in 4 row stripes.
TLResult Cocmap_getHistogram(Cocmap* self, const Image* src, uint32_t* histogram);
// Otsu's split of a 256-bin histogram: the first code of the upper class
// (1..255) that maximises the between-class variance, the lowest one among
// equal maxima; 0 when no split leaves both classes occupied.
int32_t Cocmap_getOtsuThreshold(const uint32_t* histogram);
// dst = cocTableU8[src] pixel by pixel, in 4 row stripes.
TLResult Cocmap_mapPixels(Cocmap* self, Image* dst, const Image* src);

}  // namespace vq_tl
