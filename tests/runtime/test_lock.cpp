#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "runtime/lock.h"
#include "support/test_env.h"

using namespace vq_tl;

namespace {

// tryLock from another thread, so that the recursive mutex cannot simply let
// its owner in again: 1 when it got the lock (and let it go), 0 when held.
int32_t tryFromOtherThread(Lock* lock) {
    int32_t acquired = -1;
    std::thread([&] {
        EXPECT_EQ(Lock_tryLock(lock, &acquired), TL_OK);
        if (acquired == 1) Lock_unlock(lock);
    }).join();
    return acquired;
}

}  // namespace

// The mutex lets its owner in again and needs as many unlocks; the spin lock
// does not. Init switches the kind (the mutex goes back: LeakSanitizer), an
// unknown kind is refused, recycle and destruct leave no lock.
TEST(Lock, KindsReentryAndReinit) {
    Lock lock;
    construct_Lock(&lock, nullptr);
    EXPECT_EQ(Lock_init(&lock, 2), TL_ERROR_UNSUPPORTED);
    for (const int32_t recursive : {1, 0}) {
        ASSERT_EQ(Lock_init(&lock, recursive ? LOCK_KIND_RECURSIVE_MUTEX : LOCK_KIND_SPIN), TL_OK);
        ASSERT_EQ(Lock_lock(&lock), TL_OK);
        int32_t acquired = 7;
        ASSERT_EQ(Lock_tryLock(&lock, &acquired), TL_OK);
        EXPECT_EQ(acquired, recursive);
        EXPECT_EQ(recursive == 1 ? Lock_unlock(&lock) : TL_OK, TL_OK);
        EXPECT_EQ(tryFromOtherThread(&lock), 0) << "still held";
        EXPECT_EQ(Lock_unlock(&lock), TL_OK);
        EXPECT_EQ(tryFromOtherThread(&lock), 1) << recursive;
    }
    ASSERT_EQ(Lock_recycle(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock) | destruct_Lock(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
}

// A plain counter under the lock: ThreadSanitizer reports it if the lock's
// ordering is too weak, and the sum shows lost updates.
TEST(Lock, FourThreadsNeverOverlapAndLoseNoUpdate) {
    const int each = vq_tl_test_scaled(20000, 1250);
    for (const int32_t kind : {LOCK_KIND_RECURSIVE_MUTEX, LOCK_KIND_SPIN}) {
        Lock lock;
        construct_Lock(&lock, nullptr);
        ASSERT_EQ(Lock_init(&lock, kind), TL_OK);
        long long counter = 0;
        std::atomic<int> inside{0}, faults{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < each; ++i) {
                    faults.fetch_add(
                        Lock_lock(&lock) != TL_OK || inside.fetch_add(1, std::memory_order_relaxed) != 0 ? 1
                                                                                                         : 0);
                    counter += 1;
                    inside.fetch_sub(1, std::memory_order_relaxed);
                    faults.fetch_add(Lock_unlock(&lock) != TL_OK ? 1 : 0);
                }
            });
        }
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(faults.load(), 0) << kind;
        EXPECT_EQ(counter, 4LL * each) << kind;
        EXPECT_EQ(destruct_Lock(&lock), TL_OK);
    }
}
