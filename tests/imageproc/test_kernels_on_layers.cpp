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
using vq_tl_test::sharedLayers;

namespace {

struct Objects {
    ImageProc proc;
    ImageProc2 proc2;
    bool pel;  // ImageProc2 holds the layer
    explicit Objects(const ImageStripeExec* exec) : pel(exec != nullptr && exec->pel != nullptr) {
        construct_ImageProc(&proc, nullptr);
        construct_ImageProc2(&proc2, nullptr);
        if (exec != nullptr) {
            ImageProc_setParallelExecutor(&proc, exec->executor);
            ImageProc2_setPel(&proc2, exec->pel);
        }
        EXPECT_EQ(ImageProc_init(&proc), TL_OK);
        EXPECT_EQ(ImageProc2_init(&proc2), TL_OK);
    }
    ~Objects() {
        destruct_ImageProc2(&proc2);
        destruct_ImageProc(&proc);
    }
};

using Operation = TLResult (*)(const ImageStripeExec* exec, Image* dst, const Image* src);

TLResult resize(const ImageStripeExec* e, Image* d, const Image* s) {
    Objects o(e);
    return o.pel ? ImageProc2_resizeImage(&o.proc2, d, s) : ImageProc_resizeImage(&o.proc, d, s);
}
TLResult areaMean(const ImageStripeExec* e, Image* d, const Image* s) {
    Objects o(e);
    return o.pel ? ImageProc2_averageShrink(&o.proc2, d, s) : ImageProc_shrinkImage(&o.proc, d, s);
}
TLResult halve(const ImageStripeExec* e, Image* d, const Image* s) {
    Objects o(e);
    return o.pel ? Resize_shrink2(e, d, s) : ImageProc_shrink2(&o.proc, d, s);
}
TLResult quarterTurn(const ImageStripeExec* e, Image* d, const Image* s) {
    Objects o(e);
    return o.pel ? ImageProc2_rotateImageEx(&o.proc2, d, s, 1, 6) : Rotate_rotateImageEx(e, d, s, 1, 6);
}
using Filter = TLResult (*)(ImageProc*, Image*, const Image*, uint32_t);
using Filter2 = TLResult (*)(ImageProc2*, Image*, const Image*, uint32_t);

template <Filter F, Filter2 F2>
TLResult either(const ImageStripeExec* e, Image* d, const Image* s) {
    Objects o(e);
    return o.pel ? F2(&o.proc2, d, s, 0) : F(&o.proc, d, s, 0);
}
// ImageProc alone: on a Pel layer it runs on the calling thread.
template <Filter F>
TLResult procOnly(const ImageStripeExec* e, Image* d, const Image* s) {
    Objects o(e);
    return F(&o.proc, d, s, 0);
}

}  // namespace

TEST(KernelsOnLayers, SamePixelsOnEveryLayer) {
    Layers& layers = sharedLayers();
    // In place: stripes must keep the rows their neighbours still read.
    const struct {
        const char* name;
        Operation op;
        int32_t sw, sh, dw, dh;
        uint32_t format;
        bool inPlace;
    } cases[] = {
        {"resize", resize, 123, 77, 301, 190, IMAGE_FORMAT_YUV420_SEMIPLANAR, false},
        {"resize two channels", resize, 200, 150, 97, 61, IMAGE_FORMAT_UINT88, false},
        {"halve", halve, 251, 181, 126, 91, IMAGE_FORMAT_UINT8, false},
        {"area mean", areaMean, 240, 170, 71, 50, IMAGE_FORMAT_YUV420_SEMIPLANAR, false},
        {"quarter turn", quarterTurn, 130, 70, 70, 130, IMAGE_FORMAT_UINT16, false},
        {"max 3x3", either<ImageProc_filterMax3x3, ImageProc2_filterMax3x3>, 41, 9, 41, 9, IMAGE_FORMAT_UINT8,
         false},
        {"min 3x3 in place", either<ImageProc_filterMin3x3, ImageProc2_filterMin3x3>, 37, 23, 37, 23,
         IMAGE_FORMAT_YUV420_SEMIPLANAR, true},
        {"min 3x3, more stripes than rows", either<ImageProc_filterMin3x3, ImageProc2_filterMin3x3>, 7, 2, 7,
         2, IMAGE_FORMAT_UINT1616, true},
        {"median 3x3 in place", procOnly<ImageProc_filterMedian3x3>, 41, 9, 41, 9, IMAGE_FORMAT_RGB888, true},
        {"median cross", procOnly<ImageProc_filterMedianCross>, 30, 20, 30, 20, IMAGE_FORMAT_INT16, false},
        {"rank max 5x5 in place", procOnly<ImageProc_filterRankMax5x5>, 29, 17, 29, 17, IMAGE_FORMAT_INT32,
         true},
        {"rank min 3x3", procOnly<ImageProc_filterRankMin3x3>, 33, 12, 33, 12, IMAGE_FORMAT_YUV420_PLANAR,
         false},
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
                ASSERT_EQ(c.op(i < 0 ? nullptr : &exec, &dst.image, c.inPlace ? &dst.image : &src.image),
                          TL_OK)
                    << c.name << " " << i;
                if (i < 0) reference.copyPixels(dst);
                EXPECT_TRUE(dst.samePixels(reference) && dst.canariesIntact())
                    << c.name << " on " << layers.names[i < 0 ? 0 : i];
            }
        }
    }
}
