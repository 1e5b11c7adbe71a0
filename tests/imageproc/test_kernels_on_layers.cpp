// The kernels of this folder give the same pixels whichever layer runs
// their stripes: the calling thread, a Pel (fixed shares or balanced), or a
// ParallelExecutor of either engine.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "imageproc/image_stripes.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/layers.h"
#include "support/picture.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Layers;
using vq_tl_test::Picture;
using vq_tl_test::sharedLayers;

namespace {

using Operation = TLResult (*)(const ImageStripeExec* exec, Image* dst, const Image* src);

TLResult rotateQuarter(const ImageStripeExec* exec, Image* dst, const Image* src) {
    return Rotate_rotateImageEx(exec, dst, src, 1, 6);
}

}  // namespace

TEST(KernelsOnLayers, SamePixelsOnEveryLayer) {
    Layers& layers = sharedLayers();
    const struct {
        const char* name;
        Operation op;
        int32_t sw, sh, dw, dh;
        uint32_t format;
    } cases[] = {
        {"resize", Resize_resizeImage, 123, 77, 301, 190, IMAGE_FORMAT_YUV420_SEMIPLANAR},
        {"resize two channels", Resize_resizeImage, 200, 150, 97, 61, IMAGE_FORMAT_UINT88},
        {"halve", Resize_shrink2, 250, 180, 125, 90, IMAGE_FORMAT_UINT8},
        {"area mean", Resize_averageShrink, 240, 170, 71, 50, IMAGE_FORMAT_YUV420_SEMIPLANAR},
        {"quarter turn", rotateQuarter, 130, 70, 70, 130, IMAGE_FORMAT_UINT16},
    };
    std::mt19937 rng(5);
    for (int round = 0; round < vq_tl_test_scaled(3, 1); ++round) {
        for (const auto& c : cases) {
            Picture src(c.sw, c.sh, c.format);
            src.fillRandom(rng);
            Picture reference(c.dw, c.dh, c.format);
            ASSERT_EQ(c.op(nullptr, &reference.image, &src.image), TL_OK) << c.name;
            for (int i = 0; i < Layers::kCount; ++i) {
                const ImageStripeExec exec = layers.exec(i);
                Picture dst(c.dw, c.dh, c.format);
                ASSERT_EQ(c.op(&exec, &dst.image, &src.image), TL_OK) << c.name << " on " << layers.names[i];
                EXPECT_TRUE(dst.samePixels(reference)) << c.name << " on " << layers.names[i];
                EXPECT_TRUE(dst.canariesIntact()) << c.name << " on " << layers.names[i];
            }
        }
    }
}
