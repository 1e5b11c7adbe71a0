// Feature points for the multi-scale motion search: a sparse corner response
// (Harris with the constant 1/16, sampled every `step` pixels) and a grid of
// cells from each of which the strongest response is taken, then the list
// cut to the requested number, strongest first.
//
// Threads: a list belongs to one caller; MvecDetectMulti2_calcFeatPntListWithPel
// spreads the response rows and the cell rows over a Pel and gives the same
// list as calcFeatPntList.
#pragma once

#include <cstdint>

#include "image/image.h"
#include "runtime/env.h"
#include "runtime/pel.h"

namespace vq_tl {

struct FeatPnt {
    int32_t left, top, right, bottom;  // the cell, right and bottom exclusive
    int32_t x, y;                      // pixels on the list's image (Q15 once matching)
    int32_t matchX, matchY;
    int32_t strength;  // 0 to 255: the fourth root of the response times the strength scale
    int32_t reserved;
    int32_t weight;
};

struct FeatPntList {
    FeatPnt* points;  // owned unless external
    int32_t count;
    int32_t capacity;
    int32_t external;  // 1: points borrowed from the caller (initWithBuffer), never freed here
    Env* env;
};

// Responses need a window of `window` by `window` pixels and one more pixel
// on each side for the central differences: a sampled pixel (x, y) takes
// part when x - window / 2 - 1 >= 0 and x + window - window / 2 <= width - 1
// (likewise y); the others stay 0.
constexpr int32_t kFeatPntMinSide = 24;  // smaller images get an empty list

TLResult construct_FeatPntList(FeatPntList* list, Env* env);
TLResult destruct_FeatPntList(FeatPntList* list);
// Room for capacity points, count 0; a former array is released first.
// TL_ERROR_MEMORY leaves the list empty with no room.
TLResult FeatPntList_init(FeatPntList* list, int32_t capacity);
// Room for capacity points at `points`, which the caller keeps alive and
// frees; a former array is released first.
TLResult FeatPntList_initWithBuffer(FeatPntList* list, FeatPnt* points, int32_t capacity);
// TL_ERROR_STATE when the list is full.
TLResult FeatPntList_add(FeatPntList* list, const FeatPnt* point);
// The strongest response of featImage (INT32, one element per step pixels)
// inside cell (left, top, right, bottom, in pixels), the later of equal
// values in raster order, added as a point. A cell whose best response is 0
// is refused, in adaptive mode also one whose scaled root is below 0x30000;
// refusals and a full list give TL_ERROR_STATE, which callers ignore.
TLResult FeatPntList_addFeatPnt(FeatPntList* list, const int32_t cell[4], const Image* featImage,
                                int32_t step, int32_t adaptive, int32_t strengthScale);
// Keeps the count strongest points, in order of falling strength; of equal
// strength the earlier one. The sort needs room for a second copy of the
// points: the list's own room beyond count when it holds one, else a block
// of its own (TL_ERROR_MEMORY when that fails, list unchanged).
TLResult FeatPntList_strip(FeatPntList* list, int32_t count);
// Splits the cell of point `index` into quarters: the point keeps the
// quarter it lies in, the best of each other quarter is added (adaptive
// rules). Cells narrower or lower than two pixels are not split.
TLResult FeatPntList_div(FeatPntList* list, int32_t index, const Image* featImage, int32_t step,
                         int32_t strengthScale);

// Corner response of image (UINT8) into featImage, which must be of format
// `format`, INT32 (else TL_ERROR_PARAM), and of ((w - 1) / step + 1) by
// ((h - 1) / step + 1) elements. For a sampled pixel, over the window, with
// central differences Ix, Iy: A = (sum Ix^2) >> 2, B = (sum Iy^2) >> 2,
// C = (sum Ix Iy) >> 2, response A B - C^2 - ((A + B)^2 >> 4), negative
// values 0 and values beyond 31 bits saturated. window 4 is the detector's;
// 3 is accepted as well, so that its setting of 3 works. step below 1 or
// another window: TL_ERROR_PARAM.
TLResult calcFeatImage(Image* featImage, const Image* image, int32_t step, int32_t window, uint32_t format);

// Up to count points of image (UINT8). Cell side isqrt(w h / count); below 5
// the cell is 4 and the step 2, else the step is 2 below 9, cell / 4 up to
// 35 and 8 beyond. A null list or image or a count below 1 gives an empty
// list (if there is one) and TL_OK, as does an image below 24 pixels on a
// side. adaptive: cells of short lists are split until count is reached or
// a pass adds nothing. strengthScale is Q15 (32768 keeps the root).
// `format` is that of the response image, INT32.
TLResult calcFeatPntList(FeatPntList* list, const Image* image, int32_t count, int32_t window,
                         int32_t adaptive, int32_t strengthScale, uint32_t format);
// The same list, with the response rows and the cell rows spread over pel
// (null: the calling thread).
TLResult MvecDetectMulti2_calcFeatPntListWithPel(Pel* pel, FeatPntList* list, const Image* image,
                                                 int32_t count, int32_t window, int32_t adaptive,
                                                 int32_t strengthScale);
// The same again, the response image laid in `work` when workSize is at
// least FeatPnt_getResponseSize (else allocated as above). With a list of
// FeatPntList_getCapacity room, twice over for the sort, nothing is allocated.
TLResult MvecDetectMulti2_calcFeatPntListWithWork(Pel* pel, FeatPntList* list, const Image* image,
                                                  int32_t count, int32_t window, int32_t adaptive,
                                                  int32_t strengthScale, void* work, int32_t workSize);
// Sizes for a width by height image and count points: the room the list
// needs (adaptive: for the split cells too) and the bytes of the response
// image; 0 for both when the image or count gives an empty list, -1 when
// they do not fit in 31 bits.
int32_t FeatPntList_getCapacity(int32_t width, int32_t height, int32_t count, int32_t adaptive);
int32_t FeatPnt_getResponseSize(int32_t width, int32_t height, int32_t count);

}  // namespace vq_tl
