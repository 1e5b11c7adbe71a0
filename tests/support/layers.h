// One set of parallel layers for the tests that a kernel's result does not depend on the layer; built once.
#pragma once

#include <gtest/gtest.h>

#include "imageproc/image_stripes.h"
#include "runtime/parallel_executor.h"
#include "runtime/pel.h"

namespace vq_tl_test {

struct Layers {
    vq_tl::Pel pel;                    // 3 workers, fixed shares, the caller waits
    vq_tl::Pel balanced;               // 4 workers, range splitting, the caller helps
    vq_tl::ParallelExecutor overPel;   // over `pel`, 16 places: four bands and the remainder
    vq_tl::ParallelExecutor pool;      // a pool of its own: two threads, the caller waits
    vq_tl::ParallelExecutor twoBands;  // one pool thread and a working caller
    static constexpr int kCount = 5;   // the order of exec()

    Layers() {
        using namespace vq_tl;
        construct_Pel(&pel, nullptr);
        pel.params.numberOfWorkers = 3;
        pel.params.callerParticipates = 0;
        EXPECT_EQ(Pel_init(&pel), TL_OK);
        construct_Pel(&balanced, nullptr);
        balanced.params.numberOfWorkers = 4;
        balanced.params.dynamicBalance = 1;
        EXPECT_EQ(Pel_init(&balanced), TL_OK);
        construct_ParallelExecutor(&overPel, nullptr);
        overPel.pel = &pel;
        EXPECT_EQ(ParallelExecutor_init(&overPel, 16, 16), TL_OK);
        construct_ParallelExecutor(&pool, nullptr);
        pool.numberOfThreads = 2;
        pool.setAffinity = 0;
        EXPECT_EQ(ParallelExecutor_init(&pool, 4, 16), TL_OK);
        construct_ParallelExecutor(&twoBands, nullptr);
        twoBands.numberOfThreads = 1;
        twoBands.callerWorks = 1;
        twoBands.setAffinity = 0;
        EXPECT_EQ(ParallelExecutor_init(&twoBands, 2, 16), TL_OK);
    }
    ~Layers() {
        using namespace vq_tl;
        EXPECT_EQ(destruct_ParallelExecutor(&twoBands), TL_OK);
        EXPECT_EQ(destruct_ParallelExecutor(&pool), TL_OK);
        EXPECT_EQ(destruct_ParallelExecutor(&overPel), TL_OK);
        EXPECT_EQ(destruct_Pel(&balanced), TL_OK);
        EXPECT_EQ(destruct_Pel(&pel), TL_OK);
    }

    // Layer i as the stripe helper's record: a Pel or an executor.
    vq_tl::ImageStripeExec exec(int i) {
        vq_tl::Pel* pels[kCount] = {&pel, &balanced, nullptr, nullptr, nullptr};
        vq_tl::ParallelExecutor* executors[kCount] = {nullptr, nullptr, &overPel, &pool, &twoBands};
        return {pels[i], executors[i]};
    }
};

class LayersEnvironment : public ::testing::Environment {
public:
    Layers* layers = nullptr;
    void TearDown() override {
        delete layers;
        layers = nullptr;
    }
};

inline LayersEnvironment* const kLayersEnvironment =
    static_cast<LayersEnvironment*>(::testing::AddGlobalTestEnvironment(new LayersEnvironment));

inline Layers& sharedLayers() {
    if (kLayersEnvironment->layers == nullptr) kLayersEnvironment->layers = new Layers();
    return *kLayersEnvironment->layers;
}

}  // namespace vq_tl_test
