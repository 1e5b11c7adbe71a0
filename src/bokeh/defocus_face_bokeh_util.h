// The passes of DefocusFaceBokeh one by one: level geometry, Gaussian taps,
// and the pixel kernels, each a job of 4 row stripes on the object's Pel (a
// null Pel runs them on the calling thread). The object's calls chain them;
// they are declared here so that every pass can be checked by itself.
//
// Images are UINT8 single planes unless a line says otherwise; widths and
// heights come from the images. The results are the integer formulas given
// with each call: every division is an exact integer quotient, so results do
// not depend on the Pel or on the processor's vector units.
#pragma once

#include <cstdint>

#include "bokeh/defocus_face_bokeh.h"
#include "image/image.h"

namespace vq_tl {

// ---- Level geometry ---------------------------------------------------------
// A side goes s(0) = size + 1, s(k + 1) = 1 + (s(k) >> 1): the luma of level k
// is s(k) & ~1 long, the chroma s(k) >> 1. Level 0 is the source, whose
// chroma planes have (size + 1) >> 1 pixels a side.
int32_t DefocusFaceBokeh_getLumaSize(int32_t size, int32_t level);
int32_t DefocusFaceBokeh_getChromaSize(int32_t size, int32_t level);
// Levels 0, 1, ... (8 at most) whose luma, from the shorter side, is at least
// 32 long; 0 for pictures below 31 pixels a side.
int32_t DefocusFaceBokeh_getLevelCount(int32_t width, int32_t height);
// 1.8 * 2^(levels - 1) - 1e-6, the largest sigma that the deepest level
// serves with the 7-tap kernel; -1e-6 for no level.
double DefocusFaceBokeh_getMaxBlurSigma(int32_t levels);

// ---- Gaussian taps ----------------------------------------------------------
// taps[0 .. 2 radius] for offsets -radius .. radius (radius 1 to 3), summing
// to exactly scale: e(i) = exp(-i^2 / (2 sigma^2)) narrowed to float, S their
// float sum from one outermost tap to the other, side taps (e(i) / S) * scale
// in float truncated, and the centre the rest. False when the side taps are
// all 0 (the kernel is a copy), as for every sigma that is not above 0.
bool DefocusFaceBokeh_makeTaps(int32_t* taps, int32_t radius, double sigma, int32_t scale);

// ---- Reductions -------------------------------------------------------------
// The weight of a CoC byte c: 256 - c, and 255 for c = 0, so that a sharp
// pixel (255) counts 1 and one of full blur 255. dst at most coc's size.
TLResult DefocusFaceBokehUtil_weightOfCoc(DefocusFaceBokeh* self, Image* dst, const Image* coc);
// dst(x, y) from source rows 2y and 2y + 1 (each limited to the last row):
// (a + b + c + d + 2) >> 2 of the 2 by 2 block for x below min(dst width,
// src width / 2), and (p + q + 1) >> 1 of the last source column beyond. Any
// dst size.
TLResult DefocusFaceBokehUtil_shrinkImageU8(DefocusFaceBokeh* self, Image* dst, const Image* src);
// The same blocks weighted by srcWeight (src's size, weights 1 to 255): with
// W the sum of the four weights, dst = (sum of w p + (W >> 1)) / W and
// dstWeight = (W + 2) >> 2; beyond src width / 2 the two samples of the last
// column, dst = (w1 p1 + w2 p2 + ((w1 + w2) >> 1)) / (w1 + w2) and dstWeight
// = (w1 + w2 + 1) >> 1. dstWeight may be null; else it has dst's size. A
// zero weight sum gives 0.
TLResult DefocusFaceBokehUtil_shrinkWeightedU8(DefocusFaceBokeh* self, Image* dst, Image* dstWeight,
                                               const Image* src, const Image* srcWeight);

// ---- Enlargement ------------------------------------------------------------
// Bilinear doubling: source pixel i sits between destination pixels 2i and
// 2i + 1, so destination 2i + 1 is (3 a + b) / 4 and 2i + 2 is (a + 3 b) / 4
// of neighbours a = i, b = i + 1, indices limited to the source (destination
// 0 copies source 0, and the last of an even width 2 * src width the last
// source pixel). Along both axes: (9a + 3b + 3c + d + 8) >> 4 and its mirror
// forms, which is (3p + q + 2) >> 2 on a row or column that meets one source
// line and a copy where both do. dst at most twice src each way.
TLResult DefocusFaceBokehUtil_enlargeImageTwofoldU8(DefocusFaceBokeh* self, Image* dst, const Image* src);

// ---- Blurs ------------------------------------------------------------------
// Normalised separable convolution weighted by weight (src's size, weights 1
// to 255) with taps summing to 2^shift (shift 8 or 16; radius 1 to 3),
// indices limited to the plane. Row pass into midValue and midWeight: D =
// sum of t w, N = sum of t w p, value = (N + (D >> 1)) / D, weight = (D +
// 2^(shift - 1)) >> shift. Column pass from them into dst by the same value
// rule. The mid images have src's size; dst may be src.
TLResult DefocusFaceBokehUtil_blurWeightedU8(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                             const Image* weight, Image* midValue, Image* midWeight,
                                             const int32_t* taps, int32_t radius, int32_t shift);
// Plain separable convolution with 8-bit taps summing to 256 (radius 1 to
// 3): row pass into mid, column pass into dst, each (sum of t p + 128) >> 8
// limited to 255.
TLResult DefocusFaceBokehUtil_blurU8(DefocusFaceBokeh* self, Image* dst, const Image* src, Image* mid,
                                     const int32_t* taps, int32_t radius);

// ---- Mixing -----------------------------------------------------------------
// out = ((255 - alpha) b + alpha f + f + 128) >> 8 per pixel, alpha =
// min(255, max(c - threshold, 0) << shift) with c from coc: 255 with shift 0
// gives f exactly. out and fine have one size, coc at least that size.
// blendLevel takes b as the doubling of coarse at the pixel (the rule of
// enlargeImageTwofoldU8, fused); mixPlane takes b from blurred, of out's
// size. out may be fine.
TLResult DefocusFaceBokeh_blendLevel(DefocusFaceBokeh* self, Image* out, const Image* fine,
                                     const Image* coarse, const Image* coc, int32_t threshold, int32_t shift);
TLResult DefocusFaceBokehUtil_mixPlane(DefocusFaceBokeh* self, Image* out, const Image* fine,
                                       const Image* blurred, const Image* coc, int32_t threshold,
                                       int32_t shift);
// The same mix on interleaved chroma: out and fine UINT88 of one size, the
// first byte of each pair against first and the second against second, both
// bytes under one alpha. With doubled, first and second are doubled as in
// blendLevel; otherwise they have out's size.
TLResult DefocusFaceBokehUtil_mixInterleaved(DefocusFaceBokeh* self, Image* out, const Image* fine,
                                             const Image* first, const Image* second, bool doubled,
                                             const Image* coc, int32_t threshold, int32_t shift);
// Interleaved chroma (UINT88) into two planes of its size: the first byte
// of each pair to first.
TLResult DefocusFaceBokehUtil_splitInterleaved(DefocusFaceBokeh* self, Image* first, Image* second,
                                               const Image* src);
// The first (channel 0) or second (channel 1) byte of each pair of
// interleaved chroma shrunk into dst as by shrinkImageU8.
TLResult DefocusFaceBokehUtil_shrinkInterleavedU8(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                                  int32_t channel);

// ---- Stages of the object ---------------------------------------------------
// Sizes and depth n from the object's width, height and depth of the call.
// Level 1: plain shrinks of luma, chroma and cocMap, weight[1] = 256 - c (255
// for c = 0). Levels 2 to n: weighted shrinks; luma first, whose weight[k]
// then weights the chroma of level k - 1. Then weight[n + 1] and coc[n + 1].
TLResult DefocusFaceBokeh_buildPyramid(DefocusFaceBokeh* self, const Image* src, const Image* cocMap);
// y[k] under weight[k] into blurY[k], 7 taps summing to 65536 of sigma.
TLResult DefocusFaceBokeh_blurLumaLevel(DefocusFaceBokeh* self, int32_t level, double sigma);
// u[k], v[k] under weight[k + 1] into blurU[k], blurV[k], 3 taps summing to
// 256 of sigma / 2.
TLResult DefocusFaceBokeh_blurChromaLevel(DefocusFaceBokeh* self, int32_t level, double sigma);
// The whole blur for sigma up to 1.8, without a pyramid: plain 7-tap luma
// and 3-tap chroma (sigma / 2), mixed under the map (chroma under coc[1]).
TLResult DefocusFaceBokeh_blurSingleLevel(DefocusFaceBokeh* self, Image* dst, const Image* src,
                                          const Image* cocMap, double sigma);
// One plane through the plain 3-tap kernel of sigma, scratch[0] in between;
// a degenerate kernel copies.
TLResult DefocusFaceBokeh_blurPlane3(DefocusFaceBokeh* self, Image* dst, const Image* src, double sigma);

}  // namespace vq_tl
