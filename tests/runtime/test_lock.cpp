#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "runtime/condition.h"
#include "runtime/lock.h"
#include "runtime/thread.h"
#include "stress_count.h"

using namespace vq_tl;

namespace {

// Runs tryLock on another thread, so that the recursive mutex cannot simply
// let its owner in again.
struct TryFromOtherThread {
    Lock* lock;
    int32_t acquired;
    TLResult result;
};

uint32_t tryLockAndRelease(void* argument) {
    TryFromOtherThread* t = static_cast<TryFromOtherThread*>(argument);
    t->result = Lock_tryLock(t->lock, &t->acquired);
    if (t->acquired) Lock_unlock(t->lock);
    return 0;
}

int32_t tryFromOtherThread(Lock* lock) {
    TryFromOtherThread t{lock, -1, TL_ERROR_GENERAL};
    Thread thread;
    construct_Thread(&thread, nullptr);
    EXPECT_EQ(Thread_start(&thread, tryLockAndRelease, &t), TL_OK);
    EXPECT_EQ(destruct_Thread(&thread), TL_OK);
    EXPECT_EQ(t.result, TL_OK);
    return t.acquired;
}

}  // namespace

TEST(Lock, BufferSizeByKind) {
    const struct {
        int32_t kind;
        int32_t size;
    } cases[] = {{0, 4}, {1, 0}, {2, -1}, {-1, -1}};
    for (const auto& c : cases) EXPECT_EQ(Lock_getBufferSize(c.kind), c.size) << "kind " << c.kind;
}

TEST(Lock, BadArgumentsAndUnknownKind) {
    Lock lock;
    int32_t acquired = 0;
    EXPECT_EQ(construct_Lock(nullptr, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(destruct_Lock(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Lock_init(nullptr, 0), TL_ERROR_PARAM);
    EXPECT_EQ(Lock_lock(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Lock_unlock(nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Lock_tryLock(nullptr, &acquired), TL_ERROR_PARAM);
    ASSERT_EQ(construct_Lock(&lock, nullptr), TL_OK);
    EXPECT_EQ(Lock_tryLock(&lock, nullptr), TL_ERROR_PARAM);
    EXPECT_EQ(Lock_init(&lock, 2), TL_ERROR_UNSUPPORTED);
    // A refused kind leaves a working lock as it was.
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    EXPECT_EQ(Lock_init(&lock, 7), TL_ERROR_UNSUPPORTED);
    EXPECT_EQ(Lock_lock(&lock), TL_OK);
    EXPECT_EQ(Lock_unlock(&lock), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock), TL_OK);
}

TEST(Lock, UninitialisedRecordsAnswerStateThroughWrappersAndPointers) {
    Lock constructed;
    ASSERT_EQ(construct_Lock(&constructed, nullptr), TL_OK);
    Lock zeroed;
    std::memset(&zeroed, 0, sizeof zeroed);
    for (Lock* lock : {&constructed, &zeroed}) {
        int32_t acquired = 7;
        EXPECT_EQ(Lock_lock(lock), TL_ERROR_STATE);
        EXPECT_EQ(Lock_unlock(lock), TL_ERROR_STATE);
        EXPECT_EQ(Lock_tryLock(lock, &acquired), TL_ERROR_STATE);
        EXPECT_EQ(acquired, 0);
        EXPECT_EQ(Lock_getMutex(lock), nullptr);
        EXPECT_EQ(destruct_Lock(lock), TL_OK);
    }
    ASSERT_EQ(construct_Lock(&constructed, nullptr), TL_OK);
    int32_t acquired = 7;
    EXPECT_EQ(constructed.lock(&constructed), TL_ERROR_STATE);
    EXPECT_EQ(constructed.unlock(&constructed), TL_ERROR_STATE);
    EXPECT_EQ(constructed.tryLock(&constructed, &acquired), TL_ERROR_STATE);
    EXPECT_EQ(constructed.destroy, nullptr);
}

TEST(Lock, RecursiveMutexReentersAndNeedsAsManyUnlocks) {
    Lock lock;
    construct_Lock(&lock, nullptr);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    ASSERT_EQ(Lock_lock(&lock), TL_OK);
    ASSERT_EQ(Lock_lock(&lock), TL_OK);
    int32_t acquired = 0;
    ASSERT_EQ(Lock_tryLock(&lock, &acquired), TL_OK);
    EXPECT_EQ(acquired, 1);  // third level, by the owner
    EXPECT_EQ(tryFromOtherThread(&lock), 0);
    EXPECT_EQ(Lock_unlock(&lock), TL_OK);
    EXPECT_EQ(Lock_unlock(&lock), TL_OK);
    EXPECT_EQ(tryFromOtherThread(&lock), 0);
    EXPECT_EQ(Lock_unlock(&lock), TL_OK);
    EXPECT_EQ(tryFromOtherThread(&lock), 1);
    EXPECT_EQ(destruct_Lock(&lock), TL_OK);
}

TEST(Lock, SpinLockIsNotRecursiveAndTryLockOnHeldGivesZero) {
    Lock lock;
    construct_Lock(&lock, nullptr);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_SPIN), TL_OK);
    EXPECT_EQ(lock.destroy, nullptr);
    ASSERT_EQ(Lock_lock(&lock), TL_OK);
    int32_t acquired = 7;
    EXPECT_EQ(Lock_tryLock(&lock, &acquired), TL_OK);
    EXPECT_EQ(acquired, 0);
    EXPECT_EQ(tryFromOtherThread(&lock), 0);
    EXPECT_EQ(Lock_unlock(&lock), TL_OK);
    EXPECT_EQ(tryFromOtherThread(&lock), 1);
    EXPECT_EQ(Lock_tryLock(&lock, &acquired), TL_OK);
    EXPECT_EQ(acquired, 1);
    EXPECT_EQ(Lock_unlock(&lock), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock), TL_OK);
}

TEST(Lock, ReinitSwitchesKindAndDestructTwiceIsSafe) {
    Lock lock;
    construct_Lock(&lock, nullptr);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    ASSERT_NE(Lock_getMutex(&lock), nullptr);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_SPIN), TL_OK);  // the mutex goes back (LeakSanitizer)
    EXPECT_EQ(Lock_getMutex(&lock), nullptr);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    ASSERT_EQ(Lock_recycle(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
    ASSERT_EQ(Lock_init(&lock, LOCK_KIND_RECURSIVE_MUTEX), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock), TL_OK);
    EXPECT_EQ(destruct_Lock(&lock), TL_OK);
    EXPECT_EQ(Lock_lock(&lock), TL_ERROR_STATE);
}

namespace {

// Each worker adds to a plain counter under the lock and checks that it is
// alone inside; ThreadSanitizer reports the counter if the lock's ordering
// is too weak, and the final sum shows lost updates.
struct ExclusionRun {
    Lock lock;
    int iterations;
    long long counter;
    std::atomic<int> inside;
    std::atomic<int> overlaps;
};

uint32_t exclusionWorker(void* argument) {
    ExclusionRun* run = static_cast<ExclusionRun*>(argument);
    for (int i = 0; i < run->iterations; ++i) {
        if (Lock_lock(&run->lock) != TL_OK) return TL_ERROR_GENERAL;
        if (run->inside.fetch_add(1, std::memory_order_relaxed) != 0) run->overlaps.fetch_add(1);
        run->counter += 1;
        run->inside.fetch_sub(1, std::memory_order_relaxed);
        if (Lock_unlock(&run->lock) != TL_OK) return TL_ERROR_GENERAL;
    }
    return TL_OK;
}

}  // namespace

class LockExclusion : public ::testing::TestWithParam<int32_t> {};

TEST_P(LockExclusion, FourThreadsNeverOverlapAndLoseNoUpdate) {
    constexpr int kThreads = 4;
    ExclusionRun run;
    construct_Lock(&run.lock, nullptr);
    ASSERT_EQ(Lock_init(&run.lock, GetParam()), TL_OK);
    run.iterations = stressCount(20000);
    run.counter = 0;
    run.inside = 0;
    run.overlaps = 0;
    Thread threads[kThreads];
    for (Thread& t : threads) {
        construct_Thread(&t, nullptr);
        ASSERT_EQ(Thread_start(&t, exclusionWorker, &run), TL_OK);
    }
    for (Thread& t : threads) EXPECT_EQ(destruct_Thread(&t), TL_OK);
    EXPECT_EQ(run.overlaps.load(), 0);
    EXPECT_EQ(run.counter, static_cast<long long>(kThreads) * run.iterations);
    destruct_Lock(&run.lock);
}

INSTANTIATE_TEST_SUITE_P(Kinds, LockExclusion, ::testing::Values(LOCK_KIND_RECURSIVE_MUTEX, LOCK_KIND_SPIN),
                         [](const ::testing::TestParamInfo<int32_t>& info) {
                             return info.param == LOCK_KIND_SPIN ? std::string("Spin")
                                                                 : std::string("RecursiveMutex");
                         });
