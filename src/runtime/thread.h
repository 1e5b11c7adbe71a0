// Thread: one POSIX thread that runs function(argument) and keeps its result.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

using ThreadFunction = uint32_t (*)(void* argument);

struct Thread {
    Env* env;
    // Set while a started thread waits to be joined; null means not started
    // or already joined. Returns the join's own error, not the thread's result.
    TLResult (*join)(Thread* self);
    pthread_t handle;
    uint32_t result;  // what function returned; read only after the join
    ThreadFunction function;
    void* argument;
};

// The record holds all of a thread's state; nothing is allocated for it.
int32_t Thread_getBufferSize();
// pthread_self of the calling thread as a number, for tables sorted by id.
uintptr_t Thread_getId();

TLResult construct_Thread(Thread* self, Env* env);
// Joins first. A non-zero join leaves the record as it is and is returned.
TLResult destruct_Thread(Thread* self);
// TL_ERROR_PARAM for a null thread or function, TL_ERROR_STATE while a
// started thread is not joined, TL_ERROR_SYSTEM when pthread_create fails.
// The record must stay at its address until the join.
TLResult Thread_start(Thread* self, ThreadFunction function, void* argument);
// TL_OK if not started (or joined before); otherwise the join's error or'ed
// with the thread's result.
TLResult Thread_join(Thread* self);
// The same, with the thread's result going to resultOut instead.
TLResult Thread_join2(Thread* self, uint32_t* resultOut);

}  // namespace vq_tl
