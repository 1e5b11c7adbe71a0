// Condition: a POSIX condition variable on the monotonic clock, bound to a
// kind-0 Lock, with its operations as function pointers in the record.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "runtime/env.h"
#include "runtime/lock.h"

namespace vq_tl {

struct Condition {
    Env* env;
    pthread_cond_t* impl;  // owned, from malloc; null until Condition_init
    // Not owned. Its mutex is looked up at each wait, so the lock may be
    // initialised after the condition, and rebuilt, as long as the record
    // stays at its address. The caller holds it exactly once around a wait.
    Lock* lock;
    // A constructed record that never had Condition_init answers
    // TL_ERROR_STATE through these, except signalAll, which has nobody to
    // wake and answers TL_OK; destroy stays null until there is something
    // to destroy.
    TLResult (*await)(Condition* self);
    TLResult (*awaitMillis)(Condition* self, int32_t millis);
    TLResult (*signal)(Condition* self);
    TLResult (*signalAll)(Condition* self);
    TLResult (*destroy)(Condition* self);
};

// Bytes of the condition variable on the 32-bit target.
int32_t Condition_getBufferSize();
TLResult construct_Condition(Condition* self, Env* env);
TLResult destruct_Condition(Condition* self);
TLResult Condition_recycle(Condition* self);
// Both arguments are required (TL_ERROR_PARAM). TL_ERROR_MEMORY when the
// variable cannot be allocated, TL_ERROR_SYSTEM when pthread refuses it.
TLResult Condition_init(Condition* self, Lock* lock);

// Waits must be entered with the lock held; TL_ERROR_STATE if the lock is
// not an initialised kind-0 lock.
TLResult Condition_await(Condition* self);
// A negative millis counts as 0. TL_ERROR_TIMEOUT when the deadline passes.
TLResult Condition_awaitMillis(Condition* self, int32_t millis);
TLResult Condition_signal(Condition* self);
TLResult Condition_signalAll(Condition* self);

}  // namespace vq_tl
