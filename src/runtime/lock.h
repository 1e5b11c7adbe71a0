// Lock: a recursive POSIX mutex (kind 0) or a spin lock on one word (kind 1),
// with its operations as function pointers in the record.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

enum : int32_t {
    LOCK_KIND_RECURSIVE_MUTEX = 0,
    LOCK_KIND_SPIN = 1,
};

struct Lock {
    Env* env;
    // Kind 0: the owned pthread_mutex_t from malloc; kind 1: the spin word
    // itself, 0 free and 1 held, only ever touched by atomic operations.
    uintptr_t impl;
    // A constructed record that never had Lock_init answers TL_ERROR_STATE
    // through these; destroy stays null until there is something to destroy.
    TLResult (*tryLock)(Lock* self, int32_t* acquired);
    TLResult (*lock)(Lock* self);
    TLResult (*unlock)(Lock* self);
    TLResult (*destroy)(Lock* self);
};

// Bytes of the mutex on the 32-bit target for kind 0, nothing for the spin
// word, -1 for an unknown kind.
int32_t Lock_getBufferSize(int32_t kind);
TLResult construct_Lock(Lock* self, Env* env);
TLResult destruct_Lock(Lock* self);
TLResult Lock_recycle(Lock* self);
// TL_ERROR_UNSUPPORTED for a kind other than 0 or 1, TL_ERROR_MEMORY when the
// mutex cannot be allocated, TL_ERROR_SYSTEM when pthread refuses it.
TLResult Lock_init(Lock* self, int32_t kind);

TLResult Lock_lock(Lock* self);
TLResult Lock_unlock(Lock* self);
// acquired gets 1, or 0 when another thread holds the lock (not an error).
TLResult Lock_tryLock(Lock* self, int32_t* acquired);

// The mutex of an initialised kind-0 lock, for condition variables; null for
// a spin lock or an uninitialised record.
pthread_mutex_t* Lock_getMutex(const Lock* self);

}  // namespace vq_tl
