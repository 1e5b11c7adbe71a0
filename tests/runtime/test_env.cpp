#include <gtest/gtest.h>

#include "runtime/env.h"

using namespace vq_tl;

TEST(Env, ConstructAcceptsNullBufferAndSwapExchanges) {
    Env a{7};
    Env b{9};
    EXPECT_EQ(construct_Env(&a, nullptr, 0), TL_OK);
    EXPECT_EQ(a.word, 0u);
    swap_Env(&a, &b);
    EXPECT_EQ(a.word, 9u);
    EXPECT_EQ(b.word, 0u);
    EXPECT_EQ(destruct_Env(&a), TL_OK);
    EXPECT_EQ(construct_Env(nullptr, nullptr, 0), TL_ERROR_PARAM);
}

TEST(Env, TickNeverGoesBackwards) {
    Env env{};
    uint64_t last = Env_getTick(&env);
    ASSERT_NE(last, 0u);
    for (int i = 0; i < 100000; ++i) {
        const uint64_t now = Env_getTick(&env);
        ASSERT_GE(now, last);
        last = now;
    }
}
