// The two kernel objects: life cycle, layer references, size queries.
#include <gtest/gtest.h>

#include "image/image.h"
#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"

using namespace vq_tl;

TEST(ImageProc, LifeCycleAndExecutor) {
    EXPECT_EQ(construct_ImageProc(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_ImageProc(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_init(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_setParallelExecutor(nullptr, nullptr), TL_ERROR_PARAM);
    Env env{};
    ImageProc p;
    ASSERT_EQ(construct_ImageProc(&p, &env), TL_OK);
    EXPECT_EQ(p.env, &env);
    EXPECT_EQ(p.parallelExecutor, nullptr);
    ParallelExecutor e;
    construct_ParallelExecutor(&e, &env);
    EXPECT_EQ(ImageProc_setParallelExecutor(&p, &e), TL_OK);
    EXPECT_EQ(ImageProc_init(&p), TL_OK);
    EXPECT_EQ(p.parallelExecutor, &e);
    const ImageStripeExec exec = ImageProc_getStripeExec(&p);
    EXPECT_EQ(exec.pel, nullptr);
    EXPECT_EQ(exec.executor, &e);
    EXPECT_EQ(ImageProc_recycle(&p), TL_OK);
    EXPECT_EQ(destruct_ImageProc(&p), TL_OK);
    EXPECT_EQ(p.parallelExecutor, nullptr);
    destruct_ParallelExecutor(&e);
}

TEST(ImageProc, BufferSize) {
    const struct {
        int32_t width, height;
        uint32_t format;
        int32_t size;
    } cases[] = {
        // 50 rows of (100 + 10) words, and the half block at its floor of 1440 by 1080.
        {100, 50, IMAGE_FORMAT_UINT8, 50 * 110 * 4 + 1080 * 1450 * 4},
        {2880, 2160, IMAGE_FORMAT_YUV420_SEMIPLANAR, 2160 * 2890 * 4 + 1080 * 1450 * 4},
        // Above 2880 by 2160 the half block follows the input.
        {4608, 3456, IMAGE_FORMAT_YUV420_SEMIPLANAR, 3456 * 4618 * 4 + 1728 * 2314 * 4},
        {2882, 100, IMAGE_FORMAT_UINT8, 100 * 2892 * 4 + 1080 * 1451 * 4},
        {0, 10, IMAGE_FORMAT_UINT8, -1},
        {10, 0, IMAGE_FORMAT_UINT8, -1},
        {10, 10, 72, -1},
        {30000, 30000, IMAGE_FORMAT_UINT8, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ImageProc_getBufferSize(c.width, c.height, c.format), c.size) << c.width << "x" << c.height;
    }
}

TEST(ImageProc2, LifeCycleAndPel) {
    EXPECT_EQ(construct_ImageProc2(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_ImageProc2(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_recycle(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_init(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_setPel(nullptr, nullptr), TL_ERROR_PARAM);
    Env env{};
    ImageProc2 p;
    ASSERT_EQ(construct_ImageProc2(&p, &env), TL_OK);
    EXPECT_EQ(p.pel, nullptr);
    Pel pel;
    construct_Pel(&pel, &env);
    EXPECT_EQ(ImageProc2_setPel(&p, &pel), TL_OK);
    EXPECT_EQ(ImageProc2_init(&p), TL_OK);
    EXPECT_EQ(p.pel, &pel);
    const ImageStripeExec exec = ImageProc2_getStripeExec(&p);
    EXPECT_EQ(exec.pel, &pel);
    EXPECT_EQ(exec.executor, nullptr);
    // A work image left in the scratch record is released by init and recycle.
    ASSERT_EQ(Image_init(&p.scratch, 16, 8, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    EXPECT_NE(p.scratch.plane[0], nullptr);
    EXPECT_EQ(ImageProc2_init(&p), TL_OK);
    EXPECT_EQ(p.scratch.plane[0], nullptr);
    EXPECT_EQ(p.scratch.env, &env);
    EXPECT_EQ(p.pel, &pel) << "the layer reference outlives init";
    ASSERT_EQ(Image_init(&p.scratch, 16, 8, nullptr, IMAGE_FORMAT_UINT8), TL_OK);
    EXPECT_EQ(destruct_ImageProc2(&p), TL_OK);
    destruct_Pel(&pel);
}

TEST(ImageProc2, BufferSizeIsOneWorkImage) {
    EXPECT_EQ(ImageProc2_getBufferSize(64, 32, IMAGE_FORMAT_UINT8), 64 * 32);
    EXPECT_EQ(ImageProc2_getBufferSize(64, 32, IMAGE_FORMAT_FLOAT), 64 * 32 * 4);
    EXPECT_EQ(ImageProc2_getBufferSize(64, 32, IMAGE_FORMAT_YUV420_SEMIPLANAR), 64 * 32 * 3 / 2);
    EXPECT_EQ(ImageProc2_getBufferSize(0, 32, IMAGE_FORMAT_UINT8), -1);
    EXPECT_EQ(ImageProc2_getBufferSize(64, 32, 72), -1);
}
