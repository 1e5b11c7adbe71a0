// Mersenne Twister pseudo-random numbers with the library's own seeding.
#pragma once

#include <cstdint>

#include "runtime/env.h"

namespace vq_tl {

enum : int32_t {
    RANDOM_NUMBER_KIND_351 = 0,      // 351 words of state, tempering shifts 11, 7, 15, 17
    RANDOM_NUMBER_KIND_MT19937 = 1,  // 624 words, the classic parameters
};

struct RandomNumber {
    Env* env;
    int32_t kind;     // chosen before RandomNumber_init; construct leaves 0
    int32_t count;    // state words of the kind, 0 before init
    int32_t index;    // next state word to temper; count means the state is used up
    uint32_t* state;  // owned, count words
};

// Peak bytes of RandomNumber_init: the largest state plus its seeding table.
int32_t RandomNumber_getBufferSize();
TLResult construct_RandomNumber(RandomNumber* self, Env* env);
TLResult destruct_RandomNumber(RandomNumber* self);
TLResult RandomNumber_recycle(RandomNumber* self);
// TL_ERROR_GENERAL for a kind other than 0 or 1, TL_ERROR_MEMORY when the
// allocator fails.
TLResult RandomNumber_init(RandomNumber* self, uint32_t seed);

// The next tempered 32-bit word (0 before init).
uint32_t RandomNumber_get(RandomNumber* self);
// Uniform in [low, high], both ends included; low when high is below low.
int32_t RandomNumber_nextInt32(RandomNumber* self, int32_t low, int32_t high);
float RandomNumber_nextFloat32(RandomNumber* self);     // [0, 1), 24-bit steps
float RandomNumber_nextFloat32ex(RandomNumber* self);   // (0, 1), odd multiples of 2^-24
double RandomNumber_nextFloat64(RandomNumber* self);    // [0, 1), 53-bit steps from two words
double RandomNumber_nextFloat64ex(RandomNumber* self);  // (0, 1), odd multiples of 2^-54

}  // namespace vq_tl
