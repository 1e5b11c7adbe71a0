#include "runtime/thread.h"

namespace vq_tl {

namespace {

void* threadMain(void* argument) {
    Thread* self = static_cast<Thread*>(argument);
    self->result = self->function(self->argument);
    return nullptr;
}

TLResult joinStarted(Thread* self) {
    if (pthread_join(self->handle, nullptr) != 0) return TL_ERROR_SYSTEM;
    self->join = nullptr;
    return TL_OK;
}

}  // namespace

int32_t Thread_getBufferSize() { return 0; }

uintptr_t Thread_getId() { return static_cast<uintptr_t>(pthread_self()); }

TLResult construct_Thread(Thread* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    *self = Thread{};
    self->env = env;
    return TL_OK;
}

TLResult destruct_Thread(Thread* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = Thread_join(self);
    if (r != TL_OK) return r;
    *self = Thread{};
    return TL_OK;
}

TLResult Thread_start(Thread* self, ThreadFunction function, void* argument) {
    if (self == nullptr || function == nullptr) return TL_ERROR_PARAM;
    if (self->join != nullptr) return TL_ERROR_STATE;
    self->function = function;
    self->argument = argument;
    self->result = 0;
    if (pthread_create(&self->handle, nullptr, threadMain, self) != 0) return TL_ERROR_SYSTEM;
    self->join = joinStarted;
    return TL_OK;
}

TLResult Thread_join(Thread* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (self->join == nullptr) return TL_OK;
    // After a failed join the thread may still run and write result.
    const TLResult r = self->join(self);
    return r != TL_OK ? r : self->result;
}

TLResult Thread_join2(Thread* self, uint32_t* resultOut) {
    if (self == nullptr) return TL_ERROR_PARAM;
    const TLResult r = self->join != nullptr ? self->join(self) : TL_OK;
    if (r == TL_OK && resultOut != nullptr) *resultOut = self->result;
    return r;
}

}  // namespace vq_tl
