// RandomNumber against a plain Mersenne Twister written here from the
// published algorithm; that twister is itself checked against std::mt19937.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
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

// The library's seeding, from its description: a table of 4096 words, two
// steps of x -> x (2x + 3) + 1 per word, then one step per state word whose
// top 12 bits pick the word. From seed 0, x runs 1, 6, 91, 16836, ..., and the
// first table words are (1 & 0xFFFF0000) | (0 >> 16) = 0 and
// (91 & 0xFFFF0000) | (6 >> 16) = 0.
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

TEST(RandomNumber, ReferenceTwisterIsTheStandardOne) {
    // The authors' seeding of the classic generator.
    RefTwister ref{kMt19937, std::vector<uint32_t>(624), 624};
    ref.mt[0] = 5489;
    for (uint32_t k = 1; k < 624; ++k) ref.mt[k] = 1812433253u * (ref.mt[k - 1] ^ (ref.mt[k - 1] >> 30)) + k;
    std::mt19937 standard(5489);
    for (int i = 0; i < 2000; ++i) ASSERT_EQ(ref.next(), standard()) << i;
}

TEST(RandomNumber, SequencesMatchTheReference) {
    for (int32_t kind : {RANDOM_NUMBER_KIND_351, RANDOM_NUMBER_KIND_MT19937}) {
        for (uint32_t seed : {0u, 1u, 5489u, 0x00010000u, 123456789u, 0xFFFFFFFFu}) {
            Generator g(kind, seed);
            RefTwister ref = librarySeeded(kind == RANDOM_NUMBER_KIND_351 ? kShort : kMt19937, seed);
            ASSERT_EQ(g.rn.count, ref.p.n);
            for (int i = 0; i < ref.p.n; ++i) ASSERT_EQ(g.rn.state[i], ref.mt[i]) << "state word " << i;
            for (int i = 0; i < 3000; ++i) {  // several regenerations of the state
                ASSERT_EQ(RandomNumber_get(&g.rn), ref.next())
                    << "kind " << kind << " seed " << seed << " #" << i;
            }
        }
    }
}

TEST(RandomNumber, LifeCycle) {
    RandomNumber rn;
    EXPECT_EQ(construct_RandomNumber(&rn, nullptr), TL_OK);
    EXPECT_EQ(RandomNumber_get(&rn), 0u);  // before init
    for (int32_t kind : {-1, 2, 7}) {
        rn.kind = kind;
        EXPECT_EQ(RandomNumber_init(&rn, 1), TL_ERROR_GENERAL) << kind;
        EXPECT_EQ(rn.state, nullptr);
    }
    rn.kind = RANDOM_NUMBER_KIND_MT19937;
    ASSERT_EQ(RandomNumber_init(&rn, 42), TL_OK);
    const uint32_t first = RandomNumber_get(&rn);
    RandomNumber_get(&rn);
    ASSERT_EQ(RandomNumber_init(&rn, 42), TL_OK);  // init again restarts the sequence
    EXPECT_EQ(RandomNumber_get(&rn), first);
    rn.kind = RANDOM_NUMBER_KIND_351;  // a late change of kind keeps the generator init made
    for (int i = 0; i < 1000; ++i) RandomNumber_get(&rn);
    EXPECT_EQ(rn.count, 624);
    EXPECT_EQ(RandomNumber_recycle(&rn), TL_OK);
    EXPECT_EQ(RandomNumber_get(&rn), 0u);
    EXPECT_EQ(destruct_RandomNumber(&rn), TL_OK);
}

TEST(RandomNumber, IntegersStayInTheClosedRange) {
    Generator g(RANDOM_NUMBER_KIND_MT19937, 7);
    int counts[6] = {};
    for (int i = 0; i < 60000; ++i) {
        const int32_t v = RandomNumber_nextInt32(&g.rn, -2, 3);
        ASSERT_TRUE(v >= -2 && v <= 3) << v;
        ++counts[v + 2];
    }
    for (int c : counts) EXPECT_NEAR(c, 10000, 600);  // about 6 standard deviations
    EXPECT_EQ(RandomNumber_nextInt32(&g.rn, 5, 5), 5);
    EXPECT_EQ(RandomNumber_nextInt32(&g.rn, 9, 4), 9);
    // The full range takes the word as it is, offset by low.
    Generator twin(RANDOM_NUMBER_KIND_MT19937, 8), h(RANDOM_NUMBER_KIND_MT19937, 8);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(RandomNumber_nextInt32(&h.rn, INT32_MIN, INT32_MAX),
                  static_cast<int32_t>(RandomNumber_get(&twin.rn) ^ 0x80000000u));
    }
    bool sawTop = false, sawBottom = false;
    for (int i = 0; i < 2000; ++i) {
        const int32_t v = RandomNumber_nextInt32(&g.rn, INT32_MAX - 1, INT32_MAX);
        sawTop |= v == INT32_MAX;
        sawBottom |= v == INT32_MAX - 1;
    }
    EXPECT_TRUE(sawTop && sawBottom);
}

TEST(RandomNumber, RealsStayInTheirIntervals) {
    Generator g(RANDOM_NUMBER_KIND_351, 9), twin(RANDOM_NUMBER_KIND_351, 9);
    double sum32 = 0, sum64 = 0;
    for (int i = 0; i < 20000; ++i) {
        const float f = RandomNumber_nextFloat32(&g.rn);
        ASSERT_EQ(f, static_cast<float>(RandomNumber_get(&twin.rn) >> 8) / 16777216.0f);
        const float fe = RandomNumber_nextFloat32ex(&g.rn);
        RandomNumber_get(&twin.rn);
        const double d = RandomNumber_nextFloat64(&g.rn);
        const uint32_t hi = RandomNumber_get(&twin.rn) >> 5, lo = RandomNumber_get(&twin.rn) >> 6;
        ASSERT_EQ(d, (hi * 67108864.0 + lo) / 9007199254740992.0);
        const double de = RandomNumber_nextFloat64ex(&g.rn);
        RandomNumber_get(&twin.rn);
        RandomNumber_get(&twin.rn);
        ASSERT_TRUE(f >= 0.0f && f < 1.0f && fe > 0.0f && fe < 1.0f) << f << " " << fe;
        ASSERT_TRUE(d >= 0.0 && d < 1.0 && de > 0.0 && de < 1.0) << d << " " << de;
        sum32 += f + fe;
        sum64 += d + de;
    }
    EXPECT_NEAR(sum32 / 40000, 0.5, 0.01);
    EXPECT_NEAR(sum64 / 40000, 0.5, 0.01);
}
