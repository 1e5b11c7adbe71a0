// The kernels of this folder give the same pixels whichever layer runs
// their stripes: the calling thread, a Pel (fixed shares or balanced), or a
// ParallelExecutor of either engine.
#include <gtest/gtest.h>

#include <memory>
#include <random>

#include "imageproc/image_stripes.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "picture.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"
#include "support/test_env.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

struct Layer {
    const char* name;
    ImageStripeExec exec;
};

using Operation = TLResult (*)(const ImageStripeExec* exec, Image* dst, const Image* src);

TLResult rotateQuarter(const ImageStripeExec* exec, Image* dst, const Image* src) {
    return Rotate_rotateImageEx(exec, dst, src, 1, 6);
}

}  // namespace

TEST(KernelsOnLayers, SamePixelsOnEveryLayer) {
    auto pel = std::make_unique<Pel>();
    construct_Pel(pel.get(), nullptr);
    pel->params.numberOfWorkers = 3;
    pel->params.callerParticipates = 0;
    ASSERT_EQ(Pel_init(pel.get()), TL_OK);
    auto balanced = std::make_unique<Pel>();
    construct_Pel(balanced.get(), nullptr);
    balanced->params.numberOfWorkers = 4;
    balanced->params.dynamicBalance = 1;
    ASSERT_EQ(Pel_init(balanced.get()), TL_OK);
    ParallelExecutor overPel, pool;
    construct_ParallelExecutor(&overPel, nullptr);
    overPel.pel = pel.get();
    ASSERT_EQ(ParallelExecutor_init(&overPel, 64, 64), TL_OK);
    construct_ParallelExecutor(&pool, nullptr);
    pool.numberOfThreads = 2;
    pool.setAffinity = 0;
    ASSERT_EQ(ParallelExecutor_init(&pool, 4, 16), TL_OK);
    const Layer layers[] = {
        {"pel", {pel.get(), nullptr}},
        {"balanced pel", {balanced.get(), nullptr}},
        {"executor over pel", {nullptr, &overPel}},
        {"pool executor", {nullptr, &pool}},
    };
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
            for (const Layer& layer : layers) {
                Picture dst(c.dw, c.dh, c.format);
                ASSERT_EQ(c.op(&layer.exec, &dst.image, &src.image), TL_OK) << c.name << " on " << layer.name;
                EXPECT_TRUE(dst.samePixels(reference)) << c.name << " on " << layer.name;
                EXPECT_TRUE(dst.canariesIntact()) << c.name << " on " << layer.name;
            }
        }
    }
    EXPECT_EQ(destruct_ParallelExecutor(&pool), TL_OK);
    EXPECT_EQ(destruct_ParallelExecutor(&overPel), TL_OK);
    EXPECT_EQ(destruct_Pel(balanced.get()), TL_OK);
    EXPECT_EQ(destruct_Pel(pel.get()), TL_OK);
}
