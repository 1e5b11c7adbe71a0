// The same pixels whichever layer runs the stripes; through the object that
// holds that kind of layer (ImageProc an executor, ImageProc2 a Pel).
#include <gtest/gtest.h>

#include <random>

#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/image_stripes.h"
#include "imageproc/rank_filter.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Layers;
using vq_tl_test::Picture;

namespace {

// Operation `op` through the object holding the layer of `e` (null: the
// calling thread); ImageProc's own rank filters run on the caller on a Pel layer.
TLResult apply(int op, const ImageStripeExec* e, Image* d, const Image* s) {
    ImageProc proc;
    ImageProc2 proc2;
    construct_ImageProc(&proc, nullptr), ImageProc_setParallelExecutor(&proc, e ? e->executor : nullptr);
    construct_ImageProc2(&proc2, nullptr), ImageProc2_setPel(&proc2, e ? e->pel : nullptr);
    TLResult r = ImageProc_init(&proc) | ImageProc2_init(&proc2);
    const bool p = e != nullptr && e->pel != nullptr;
    switch (op) {
        case 0: r |= p ? ImageProc2_resizeImage(&proc2, d, s) : ImageProc_resizeImage(&proc, d, s); break;
        case 1: r |= p ? Resize_shrink2(e, d, s) : ImageProc_shrink2(&proc, d, s); break;
        case 2: r |= p ? ImageProc2_averageShrink(&proc2, d, s) : ImageProc_shrinkImage(&proc, d, s); break;
        case 3:
            r |= p ? ImageProc2_rotateImageEx(&proc2, d, s, 1, 6) : Rotate_rotateImageEx(e, d, s, 1, 6);
            break;
        case 4:
            r |= p ? ImageProc2_filterMax3x3(&proc2, d, s, 0) : ImageProc_filterMax3x3(&proc, d, s, 0);
            break;
        case 5:
            r |= p ? ImageProc2_filterMin3x3(&proc2, d, s, 0) : ImageProc_filterMin3x3(&proc, d, s, 0);
            break;
        case 6: r |= ImageProc_filterMedian3x3(&proc, d, s, 0); break;
        case 7: r |= ImageProc_filterMedianCross(&proc, d, s, 0); break;
        case 8: r |= ImageProc_filterRankMax5x5(&proc, d, s, 0); break;
        default: r |= ImageProc_filterRankMin3x3(&proc, d, s, 0);
    }
    destruct_ImageProc2(&proc2), destruct_ImageProc(&proc);
    return r;
}

}  // namespace

TEST(KernelsOnLayers, SamePixelsOnEveryLayer) {
    Layers& layers = vq_tl_test::sharedLayers();
    // In place: stripes must keep the rows their neighbours still read.
    const struct {
        int op;
        int32_t sw, sh, dw, dh;
        uint32_t format;
        bool inPlace;
    } cases[] = {
        {0, 123, 77, 301, 190, IMAGE_FORMAT_YUV420_SEMIPLANAR, false},
        {0, 200, 150, 97, 61, IMAGE_FORMAT_UINT88, false},
        {1, 251, 181, 126, 91, IMAGE_FORMAT_UINT8, false},
        {2, 240, 170, 71, 50, IMAGE_FORMAT_YUV420_SEMIPLANAR, false},
        {3, 130, 70, 70, 130, IMAGE_FORMAT_UINT16, false},
        {4, 41, 9, 41, 9, IMAGE_FORMAT_UINT8, false},
        {5, 37, 23, 37, 23, IMAGE_FORMAT_YUV420_SEMIPLANAR, true},
        {5, 7, 2, 7, 2, IMAGE_FORMAT_UINT1616, true},  // more stripes than rows
        {6, 41, 9, 41, 9, IMAGE_FORMAT_RGB888, true},
        {7, 30, 20, 30, 20, IMAGE_FORMAT_INT16, false},
        {8, 29, 17, 29, 17, IMAGE_FORMAT_INT32, true},
        {9, 33, 12, 33, 12, IMAGE_FORMAT_YUV420_PLANAR, false},
    };
    std::mt19937 rng(5);
    for (int round = 0; round < vq_tl_test_scaled(3, 1); ++round) {
        for (const auto& c : cases) {
            Picture src(c.sw, c.sh, c.format), reference(c.dw, c.dh, c.format);
            src.fillRandom(rng);
            for (int i = -1; i < Layers::kCount; ++i) {
                const ImageStripeExec exec = i < 0 ? ImageStripeExec{} : layers.exec(i);
                Picture dst(c.dw, c.dh, c.format);
                if (c.inPlace) dst.copyPixels(src);
                ASSERT_EQ(
                    apply(c.op, i < 0 ? nullptr : &exec, &dst.image, c.inPlace ? &dst.image : &src.image),
                    TL_OK)
                    << &c - cases << " " << i;
                if (i < 0) reference.copyPixels(dst);
                EXPECT_TRUE(dst.samePixels(reference) && dst.canariesIntact()) << &c - cases << " on " << i;
            }
        }
    }
}
