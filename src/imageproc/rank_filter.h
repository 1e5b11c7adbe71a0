// Rank filters: maximum, minimum and median over small windows, for cleaning
// disparity maps and growing masks.
//
// Every operation takes self, dst, src and a plane mask. Bit k of the mask
// selects plane k of a multi-plane picture (YUV planar and semi-planar forms
// are filtered plane by plane); 0 selects every plane. A plane that is not
// selected is copied from src when dst is another picture.
//
// Border rule: the output has the size of the input, and a pixel near the edge
// takes the part of its window that lies inside the image. For the medians an
// even count of samples takes the lower of the two middle ones.
//
// dst may be src (the same planes at the same pitch): the 3 by 3 and cross
// kernels then work through row buffers of their own, the separable rank
// kernels through their work image. Other overlaps are refused.
//
// Results: TL_ERROR_PARAM for an absent self or image, sizes or formats that
// differ, or a partial overlap of dst and src; TL_ERROR_UNSUPPORTED for a
// format without a kernel; TL_ERROR_MEMORY when a work buffer cannot be had.
//
// Element layouts with a kernel: UINT8 (60), UINT88 (67), UINT16 (64),
// UINT1616 (69), INT16 (68), INT32 (61), FLOAT (66), the 3-byte pixels (2, 3,
// 30 to 35, 62) and the 4-byte pixels (4 to 15) channel by channel, and the
// planes of 26 to 29 and 36 to 38.
//
// Threads: one caller per object; each call returns when its stripes are done.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"

namespace vq_tl {

// Bytes of the work image of the separable rank kernels for a picture of this
// size and format: one picture of the same size and format. 0 for a format
// without a kernel, -1 for sizes below 1.
int32_t ImageProc_filterRank_getBufferSize(int32_t width, int32_t height, uint32_t format);
// Bytes of the row buffers that ImageProc2_filterMax3x3 and _filterMin3x3 take
// when dst is src. -1 for sizes below 1 or a format without a kernel.
int32_t ImageProc2_getBufferSizeForFilter3x3(int32_t width, int32_t height, uint32_t format);

// 3 by 3 window, over the executor (ImageProc) or the Pel (ImageProc2).
TLResult ImageProc_filterMax3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);
TLResult ImageProc_filterMin3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);
TLResult ImageProc2_filterMax3x3(ImageProc2* self, Image* dst, const Image* src, uint32_t planeMask);
TLResult ImageProc2_filterMin3x3(ImageProc2* self, Image* dst, const Image* src, uint32_t planeMask);
// The fifth of nine, by a fixed exchange network on sorted columns.
TLResult ImageProc_filterMedian3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);
// One row of ImageProc_filterMedian3x3 on a one-channel byte plane, on the
// calling thread: d (apart from the other rows) from the rows above, at and
// below; above is null at the first row, below at the last. For drivers that
// filter each row while its neighbours are still in cache.
void RankFilter_median3x3RowU8(uint8_t* d, const uint8_t* above, const uint8_t* at, const uint8_t* below,
                               int32_t width);
// The third of five over the pixel and its four direct neighbours.
TLResult ImageProc_filterMedianCross(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);
// Separable forms: a row pass into a work image of ImageProc_filterRank_getBufferSize
// bytes, then a column pass into dst. Same results as the direct forms.
TLResult ImageProc_filterRankMax3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);
TLResult ImageProc_filterRankMin3x3(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);
TLResult ImageProc_filterRankMax5x5(ImageProc* self, Image* dst, const Image* src, uint32_t planeMask);

}  // namespace vq_tl
