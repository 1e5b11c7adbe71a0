// CountDownLatch: threads wait until a count, set at init, has been counted
// down to zero by others.
#pragma once

#include <atomic>
#include <cstdint>

#include "runtime/condition.h"
#include "runtime/env.h"
#include "runtime/lock.h"

namespace vq_tl {

struct CountDownLatch {
    Env* env;
    std::atomic<int32_t> count;  // never below 0
    Lock lock;                   // kind 0
    Condition condition;         // on lock; signalled for all when count reaches 0
};

int32_t CountDownLatch_getBufferSize();
TLResult construct_CountDownLatch(CountDownLatch* self, Env* env);
TLResult destruct_CountDownLatch(CountDownLatch* self);
TLResult CountDownLatch_recycle(CountDownLatch* self);
// A negative count is TL_ERROR_PARAM. Rebuilds the lock and the condition, so
// no thread may wait on the latch meanwhile. The record must stay at its
// address after init.
TLResult CountDownLatch_init(CountDownLatch* self, int32_t count);

// Returns at once when the count is 0 (also on an uninitialised latch).
TLResult CountDownLatch_await(CountDownLatch* self);
// TL_ERROR_TIMEOUT when millis pass without the count reaching 0; a
// negative millis counts as 0.
TLResult CountDownLatch_awaitMillis(CountDownLatch* self, int32_t millis);
// Lowers a positive count by one and wakes all waiters on the step to 0; a
// count of 0 stays 0.
TLResult CountDownLatch_countDown(CountDownLatch* self);
TLResult CountDownLatch_getCount(const CountDownLatch* self, int32_t* out);

}  // namespace vq_tl
