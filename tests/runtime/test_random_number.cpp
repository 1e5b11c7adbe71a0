// RandomNumber against a plain Mersenne Twister written here from the
// published algorithm.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "runtime/random_number.h"

using namespace vq_tl;

namespace {

struct Params {
    int n, m;
    uint32_t a, b, c;
    int l;
};
constexpr Params kMt19937{624, 397, 0x9908B0DFu, 0x9D2C5680u, 0xEFC60000u, 18};
constexpr Params kShort{351, 175, 0xCCAB8EE7u, 834054912u, static_cast<uint32_t>(-1769472), 17};

// The textbook generator: one bit of the current word over 31 bits of the next.
struct RefTwister {
    Params p;
    std::vector<uint32_t> mt;
    int i;

    uint32_t next() {
        if (i == p.n) {
            for (int k = 0; k < p.n; ++k) {
                const uint32_t y = (mt[k] & 0x80000000u) | (mt[(k + 1) % p.n] & 0x7FFFFFFFu);
                mt[k] = mt[(k + p.m) % p.n] ^ (y >> 1) ^ (y & 1 ? p.a : 0);
            }
            i = 0;
        }
        uint32_t y = mt[i++];
        y ^= y >> 11;
        y ^= (y << 7) & p.b;
        y ^= (y << 15) & p.c;
        return y ^ (y >> p.l);
    }
};

// The library's seeding: a table of 4096 words, two steps of x -> x (2x + 3) + 1
// per word, then one step per state word whose top 12 bits pick the word.
RefTwister librarySeeded(const Params& p, uint32_t seed) {
    auto step = [](uint32_t x) { return x * (2 * x + 3) + 1; };
    std::vector<uint32_t> table(4096);
    uint32_t x = seed;
    for (auto& entry : table) {
        const uint32_t before = x;
        const uint32_t first = step(x);
        x = step(first);
        entry = (first & 0xFFFF0000u) | (before >> 16);
    }
    RefTwister t{p, std::vector<uint32_t>(p.n), p.n};
    for (auto& word : t.mt) {
        x = step(x);
        word = table[x >> 20];
    }
    return t;
}

struct Generator {
    RandomNumber rn;
    Generator(int32_t kind, uint32_t seed) {
        construct_RandomNumber(&rn, nullptr);
        rn.kind = kind;
        EXPECT_EQ(RandomNumber_init(&rn, seed), TL_OK);
    }
    ~Generator() { EXPECT_EQ(destruct_RandomNumber(&rn), TL_OK); }
};

}  // namespace

TEST(RandomNumber, SequencesMatchTheReference) {
    for (int32_t kind : {RANDOM_NUMBER_KIND_351, RANDOM_NUMBER_KIND_MT19937}) {
        for (uint32_t seed : {0u, 1u, 5489u, 0x00010000u, 123456789u, 0xFFFFFFFFu}) {
            Generator g(kind, seed);
            RefTwister ref = librarySeeded(kind == RANDOM_NUMBER_KIND_351 ? kShort : kMt19937, seed);
            for (int i = 0; i < 3000; ++i) {  // several regenerations of the state
                ASSERT_EQ(RandomNumber_get(&g.rn), ref.next())
                    << "kind " << kind << " seed " << seed << " #" << i;
            }
        }
    }
}
