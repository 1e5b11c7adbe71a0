// The scaling and turning operations of the kernel objects run on the layer
// the object holds and give the pixels of the calling-thread kernels.
#include <gtest/gtest.h>

#include <random>

#include "imageproc/image_proc.h"
#include "imageproc/image_proc2.h"
#include "imageproc/resize.h"
#include "imageproc/rotate.h"
#include "support/picture.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"

using namespace vq_tl;
using vq_tl_test::Picture;

namespace {

bool samePixels(const Picture& a, const Picture& b) {
    const Image& x = a.image;
    const Image& y = b.image;
    for (int k = 0; k < Image_getPlaneCount(x.format); ++k) {
        for (int32_t r = 0; r < a.rows[k]; ++r) {
            if (std::memcmp(x.plane[k] + r * x.pitch[k], y.plane[k] + r * y.pitch[k], a.rowBytes[k]) != 0) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

TEST(KernelObjects, OperationsRunOnTheObjectsLayer) {
    Pel pel;
    construct_Pel(&pel, nullptr);
    pel.params.numberOfWorkers = 3;
    ASSERT_EQ(Pel_init(&pel), TL_OK);
    ParallelExecutor executor;
    construct_ParallelExecutor(&executor, nullptr);
    executor.pel = &pel;
    ASSERT_EQ(ParallelExecutor_init(&executor, 64, 64), TL_OK);
    ImageProc proc;
    ImageProc2 proc2;
    construct_ImageProc(&proc, nullptr);
    construct_ImageProc2(&proc2, nullptr);
    ImageProc_setParallelExecutor(&proc, &executor);
    ImageProc2_setPel(&proc2, &pel);
    ASSERT_EQ(ImageProc_init(&proc), TL_OK);
    ASSERT_EQ(ImageProc2_init(&proc2), TL_OK);

    std::mt19937 rng(11);
    Picture src(201, 151, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    src.fillRandom(rng);
    Picture small(67, 50, IMAGE_FORMAT_YUV420_SEMIPLANAR);
    Picture reference(67, 50, IMAGE_FORMAT_YUV420_SEMIPLANAR);

    ASSERT_EQ(Resize_resizeImage(nullptr, &reference.image, &src.image), TL_OK);
    ASSERT_EQ(ImageProc2_resizeImage(&proc2, &small.image, &src.image), TL_OK);
    EXPECT_TRUE(samePixels(small, reference));
    ASSERT_EQ(ImageProc_resizeImage(&proc, &small.image, &src.image), TL_OK);
    EXPECT_TRUE(samePixels(small, reference));

    ASSERT_EQ(Resize_averageShrink(nullptr, &reference.image, &src.image), TL_OK);
    ASSERT_EQ(ImageProc2_averageShrink(&proc2, &small.image, &src.image), TL_OK);
    EXPECT_TRUE(samePixels(small, reference));
    ASSERT_EQ(ImageProc_shrinkImage(&proc, &small.image, &src.image), TL_OK);
    EXPECT_TRUE(samePixels(small, reference));

    Picture half(100, 75, IMAGE_FORMAT_UINT8);
    Picture halfReference(100, 75, IMAGE_FORMAT_UINT8);
    Picture plane(201, 151, IMAGE_FORMAT_UINT8);
    plane.fillRandom(rng);
    ASSERT_EQ(Resize_shrink2(nullptr, &halfReference.image, &plane.image), TL_OK);
    ASSERT_EQ(ImageProc_shrink2(&proc, &half.image, &plane.image), TL_OK);
    EXPECT_TRUE(samePixels(half, halfReference));

    Picture turned(151, 201, IMAGE_FORMAT_UINT8);
    Picture turnedReference(151, 201, IMAGE_FORMAT_UINT8);
    ASSERT_EQ(Rotate_rotateImageEx(nullptr, &turnedReference.image, &plane.image, 1, 8), TL_OK);
    ASSERT_EQ(ImageProc2_rotateImageEx(&proc2, &turned.image, &plane.image, 1, 8), TL_OK);
    EXPECT_TRUE(samePixels(turned, turnedReference));

    EXPECT_EQ(ImageProc2_resizeImage(nullptr, &small.image, &src.image), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_averageShrink(nullptr, &small.image, &src.image), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc2_rotateImageEx(nullptr, &turned.image, &plane.image, 1, 8), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_resizeImage(nullptr, &small.image, &src.image), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_shrinkImage(nullptr, &small.image, &src.image), TL_ERROR_PARAM);
    EXPECT_EQ(ImageProc_shrink2(nullptr, &half.image, &plane.image), TL_ERROR_PARAM);

    destruct_ImageProc(&proc);
    destruct_ImageProc2(&proc2);
    destruct_ParallelExecutor(&executor);
    destruct_Pel(&pel);
}
