#include "runtime/random_number.h"

#include <cstdlib>
#include <cstring>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

struct TwisterParams {
    int32_t count;   // state words
    int32_t middle;  // offset of the word that is xor'ed in
    uint32_t matrix;
    uint32_t maskB;
    uint32_t maskC;
    int32_t shiftL;  // last tempering shift; the others are 11, 7 and 15 for both kinds
};

// Kind 0 takes the constants of the 351-word twister with middle offset 175,
// but the one-bit upper mask of kind 1.
constexpr TwisterParams kParams[2] = {
    {351, 175, 0xCCAB8EE7u, 0x31B6AB00u, 0xFFE50000u, 17},
    {624, 397, 0x9908B0DFu, 0x9D2C5680u, 0xEFC60000u, 18},
};
constexpr uint32_t kUpperMask = 0x80000000u;
constexpr uint32_t kLowerMask = 0x7FFFFFFFu;
constexpr int32_t kSeedTableSize = 4096;  // indexed by the top 12 bits of the seeding sequence
constexpr int32_t kMaxCount = 624;

// x (2x + 3) + 1 modulo 2^32: an invertible quadratic map with a single cycle
// through all 2^32 values.
inline uint32_t seedStep(uint32_t x) { return x * (2u * x + 3u) + 1u; }

// By the state size init gave, so that a kind changed after init cannot run
// the wrong parameters over the state.
inline const TwisterParams& paramsOf(const RandomNumber* self) {
    return kParams[self->count == kParams[RANDOM_NUMBER_KIND_MT19937].count ? 1 : 0];
}

void twist(RandomNumber* self) {
    const TwisterParams& p = paramsOf(self);
    uint32_t* mt = self->state;
    const int32_t n = p.count;
    for (int32_t k = 0; k < n; ++k) {
        const uint32_t y = (mt[k] & kUpperMask) | (mt[k + 1 < n ? k + 1 : 0] & kLowerMask);
        const int32_t j = k + p.middle < n ? k + p.middle : k + p.middle - n;
        mt[k] = mt[j] ^ (y >> 1) ^ ((y & 1u) ? p.matrix : 0u);
    }
    self->index = 0;
}

}  // namespace

int32_t RandomNumber_getBufferSize() {
    return (kMaxCount + kSeedTableSize) * static_cast<int32_t>(sizeof(uint32_t));
}

TLResult construct_RandomNumber(RandomNumber* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    memset(self, 0, sizeof(*self));
    self->env = env;
    return TL_OK;
}

TLResult destruct_RandomNumber(RandomNumber* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Memory_free(self->state);
    memset(self, 0, sizeof(*self));
    return TL_OK;
}

TLResult RandomNumber_recycle(RandomNumber* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    Env* env = self->env;
    Memory_free(self->state);
    memset(self, 0, sizeof(*self));
    self->env = env;
    return TL_OK;
}

TLResult RandomNumber_init(RandomNumber* self, uint32_t seed) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (self->kind != RANDOM_NUMBER_KIND_351 && self->kind != RANDOM_NUMBER_KIND_MT19937)
        return TL_ERROR_GENERAL;
    Memory_free(self->state);
    self->state = nullptr;
    self->count = 0;
    self->index = 0;

    const int32_t n = kParams[self->kind].count;
    uint32_t* state = static_cast<uint32_t*>(Memory_alloc(sizeof(uint32_t) * n));
    uint32_t* table = static_cast<uint32_t*>(Memory_alloc(sizeof(uint32_t) * kSeedTableSize));
    if (state == nullptr || table == nullptr) {
        Memory_free(state);
        Memory_free(table);
        return TL_ERROR_MEMORY;
    }
    // Each table entry: the high half of the first of two steps over the high
    // half of the x the two steps started from.
    uint32_t x = seed;
    for (int32_t i = 0; i < kSeedTableSize; ++i) {
        const uint32_t previous = x;
        const uint32_t first = seedStep(x);
        x = seedStep(first);
        table[i] = (first & 0xFFFF0000u) | (previous >> 16);
    }
    // Each state word: one more step, its top 12 bits pick the entry.
    for (int32_t i = 0; i < n; ++i) {
        x = seedStep(x);
        state[i] = table[x >> 20];
    }
    Memory_free(table);
    self->state = state;
    self->count = n;
    self->index = n;
    return TL_OK;
}

uint32_t RandomNumber_get(RandomNumber* self) {
    if (self->state == nullptr) return 0;
    if (self->index >= self->count) twist(self);
    const TwisterParams& p = paramsOf(self);
    uint32_t y = self->state[self->index++];
    y ^= y >> 11;
    y ^= (y << 7) & p.maskB;
    y ^= (y << 15) & p.maskC;
    y ^= y >> p.shiftL;
    return y;
}

int32_t RandomNumber_nextInt32(RandomNumber* self, int32_t low, int32_t high) {
    if (high <= low) return low;
    const uint32_t range =
        static_cast<uint32_t>(high) - static_cast<uint32_t>(low) + 1u;  // 0: all 2^32 values
    uint32_t r = RandomNumber_get(self);
    if (range != 0) {
        // Reject the top partial copy of the range so every value is equally likely.
        const uint32_t limit = UINT32_MAX - (UINT32_MAX % range + 1u) % range;
        while (r > limit) r = RandomNumber_get(self);
        r %= range;
    }
    return static_cast<int32_t>(static_cast<uint32_t>(low) + r);
}

float RandomNumber_nextFloat32(RandomNumber* self) {
    return static_cast<float>(RandomNumber_get(self) >> 8) * (1.0f / 16777216.0f);
}

float RandomNumber_nextFloat32ex(RandomNumber* self) {
    return (static_cast<float>(RandomNumber_get(self) >> 9) * 2.0f + 1.0f) * (1.0f / 16777216.0f);
}

double RandomNumber_nextFloat64(RandomNumber* self) {
    const uint32_t a = RandomNumber_get(self) >> 5;
    const uint32_t b = RandomNumber_get(self) >> 6;
    return (a * 67108864.0 + b) * (1.0 / 9007199254740992.0);
}

double RandomNumber_nextFloat64ex(RandomNumber* self) {
    const uint32_t a = RandomNumber_get(self) >> 5;
    const uint32_t b = RandomNumber_get(self) >> 6;
    return ((a * 67108864.0 + b) * 2.0 + 1.0) * (1.0 / 18014398509481984.0);
}

}  // namespace vq_tl
