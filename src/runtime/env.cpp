#include "runtime/env.h"

#include <time.h>

namespace vq_tl {

TLResult construct_Env(Env* env, void* buffer, int32_t size) {
    (void)buffer;
    (void)size;
    if (env == nullptr) return TL_ERROR_PARAM;
    env->word = 0;
    return TL_OK;
}

TLResult destruct_Env(Env* env) {
    (void)env;
    return TL_OK;
}

void swap_Env(Env* a, Env* b) {
    if (a == nullptr || b == nullptr) return;
    const uint32_t t = a->word;
    a->word = b->word;
    b->word = t;
}

uint64_t Env_getTick(Env* env) {
    (void)env;
    struct timespec ts;
#ifdef CLOCK_MONOTONIC_RAW
    const clockid_t id = CLOCK_MONOTONIC_RAW;
#else
    const clockid_t id = CLOCK_MONOTONIC;  // systems without the raw clock
#endif
    if (clock_gettime(id, &ts) != 0) return 0;
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace vq_tl
