#include <gtest/gtest.h>

#include <cstring>

#include "runtime/memory.h"

namespace vq_tl_test {

using namespace vq_tl;

// Large blocks come back for a request of about their size, within the budget
// (the oldest leaving first), and all go back to the system on release; small
// blocks are never kept.
TEST(Memory, LargeBlocksAreKeptForTheNextFrameWithinTheBudgetOldestLeavingFirst) {
    Memory_releaseCache();
    const size_t mib = size_t{1} << 20;
    void* a = Memory_alloc(8 * mib);
    ASSERT_NE(a, nullptr);
    std::memset(a, 0x5A, 8 * mib);
    Memory_free(a);
    if (Memory_getCacheBudget() == 0) {
        EXPECT_EQ(Memory_getCachedBytes(), 0u);
        GTEST_SKIP() << "this build keeps no blocks (AddressSanitizer)";
    }
    EXPECT_EQ(Memory_getCachedBytes(), 8 * mib);
    void* small = Memory_alloc(5 * mib);  // more than a quarter smaller: a fresh block
    EXPECT_NE(small, a);
    void* b = Memory_alloc(7 * mib);  // within a quarter: the kept one
    EXPECT_EQ(b, a);
    EXPECT_EQ(Memory_getCachedBytes(), 0u);
    Memory_free(small);
    Memory_free(b);
    EXPECT_EQ(Memory_getCachedBytes(), 13 * mib);
    Memory_free(Memory_alloc(1000));
    EXPECT_EQ(Memory_getCachedBytes(), 13 * mib);
    // Beyond the budget a given-back block goes straight to the system.
    void* c = Memory_alloc(Memory_getCacheBudget() + mib);
    if (c != nullptr) {
        Memory_free(c);
        EXPECT_EQ(Memory_getCachedBytes(), 13 * mib);
    }
    // A block that fits only without older ones pushes out the oldest first:
    // the 5 MiB one (given back before the 8 MiB one), and no more.
    void* d = Memory_alloc(Memory_getCacheBudget() - 10 * mib);
    if (d != nullptr) {
        Memory_free(d);
        EXPECT_EQ(Memory_getCachedBytes(), Memory_getCacheBudget() - 2 * mib);
        void* e = Memory_alloc(7 * mib);
        EXPECT_EQ(e, a);
        Memory_free(e);
    }
    Memory_releaseCache();
    EXPECT_EQ(Memory_getCachedBytes(), 0u);
}

}  // namespace vq_tl_test
