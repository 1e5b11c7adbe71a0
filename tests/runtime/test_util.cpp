// fasthash32 and fasthash128 are MurmurHash3 x86_32 and x86_128: published values and SMHasher's codes.
// RandomNumber against a Mersenne Twister written from the published algorithm. The memory pool, the log.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/fasthash.h"
#include "runtime/log.h"
#include "runtime/mem_pool.h"
#include "runtime/random_number.h"

using namespace vq_tl;

namespace {

uint32_t hash32(const void* data, int32_t length, uint32_t seed) {
    uint32_t state = seed;
    EXPECT_EQ(fasthash32(&state, data, length), TL_OK);
    return state;
}

void hash128(const void* data, int32_t length, uint32_t seed, uint32_t out[4]) {
    out[0] = out[1] = out[2] = out[3] = seed;
    EXPECT_EQ(fasthash128(out, data, length), TL_OK);
}

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

// The library's seeding: 4096 words, two steps of x -> x (2x + 3) + 1 each; then a step per state word,
// whose top 12 bits pick its word.
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

struct Pool {
    MemPool pool;
    Pool() { construct_MemPool(&pool, nullptr); }
    ~Pool() { EXPECT_EQ(destruct_MemPool(&pool), TL_OK); }
};

}  // namespace

// Every tail length takes part in the verification codes below; these add seeds with their high bits set.
TEST(Fasthash, PublishedValues32) {
    const struct {
        std::string key;
        uint32_t seed, want;
    } cases[] = {
        {"\x21\x43\x65\x87", 0x5082EDEEu, 0x2362F9DEu},
        {"Hello, world!", 0x9747B28Cu, 0x24884CBAu},
        {"The quick brown fox jumps over the lazy dog", 0x9747B28Cu, 0x2FA826CDu},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(hash32(c.key.data(), static_cast<int32_t>(c.key.size()), c.seed), c.want)
            << "key of " << c.key.size() << " bytes, seed " << c.seed;
    }
    // Refusals, and the published hash of an empty key under seed 1.
    uint32_t s[4] = {1};
    EXPECT_EQ(fasthash128(s, nullptr, 1) & fasthash32(s, s, -1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash32(s, nullptr, 0), TL_OK);  // nothing to read
    EXPECT_EQ(s[0], 0x514E28B7u);
}

// SMHasher's check: hash the keys {}, {0}, {0, 1}, ... {0..254} with seed 256 - length, then their results
// with seed 0; the first word identifies the function. Every tail length of both functions takes part.
TEST(Fasthash, VerificationCodes) {
    std::vector<uint32_t> results32(256), results128(256 * 4);
    for (int i = 0; i < 256; ++i) {
        // Exactly i bytes on the heap at an odd offset: the address sanitizer sees a read past the end.
        std::vector<uint8_t> storage(static_cast<size_t>(i) + 1);
        for (int k = 0; k < i; ++k) storage[static_cast<size_t>(k) + 1] = static_cast<uint8_t>(k);
        results32[i] = hash32(storage.data() + 1, i, 256 - i);
        hash128(storage.data() + 1, i, 256 - i, &results128[4 * i]);
    }
    EXPECT_EQ(hash32(results32.data(), 256 * 4, 0), 0xB0F57EE3u);
    uint32_t final128[4];
    hash128(results128.data(), 256 * 16, 0, final128);
    EXPECT_EQ(final128[0], 0xB3ECE62Au);
}

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

// Blocks below 4 bytes take 4, the free list's link. The largest pool takes back all its blocks by address.
TEST(MemPool, HandsOutBlocksInAddressOrderThenRunsDry) {
    const struct {
        int32_t blockSize, count;
    } cases[] = {{1, 10}, {4, 10}, {5, 10}, {24, 10}, {5, kMemPoolMaxBlocks}, {4, kMemPoolMaxBlocks}};
    for (const auto& c : cases) {
        Pool p;
        ASSERT_EQ(MemPool_init(&p.pool, 16, 2), TL_OK);
        ASSERT_EQ(MemPool_init(&p.pool, c.blockSize, c.count), TL_OK);  // again: replaces the blocks
        const int32_t stride = c.blockSize < 5 ? 4 : c.blockSize;
        std::vector<uint8_t*> blocks;
        while (uint8_t* b = static_cast<uint8_t*>(MemPool_pop(&p.pool))) blocks.push_back(b);
        ASSERT_EQ(static_cast<int32_t>(blocks.size()), c.count) << c.blockSize;
        for (int32_t i = 1; i < c.count; ++i) ASSERT_EQ(blocks[i], blocks[0] + i * stride) << c.blockSize;
        for (int32_t i = c.count - 1; i >= 0; --i) ASSERT_EQ(MemPool_push(&p.pool, blocks[i]), TL_OK) << i;
        EXPECT_EQ(MemPool_pop(&p.pool), blocks[0]);
        EXPECT_EQ(MemPool_recycle(&p.pool), TL_OK);
        EXPECT_EQ(MemPool_pop(&p.pool), nullptr);
    }
}

// The sink exists on every platform but Android, where lines go to the system log.
#ifndef __ANDROID__

namespace {

void captureLine(void* user, const char* line) {
    static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

}  // namespace

// One line per call: the tag before a colon, one trailing newline dropped, nothing for a null format.
// Replacing the sink takes effect at once; a null sink turns output off even with a user word.
TEST(Log, FormatsOneLinePerCallIntoTheCurrentSink) {
    std::vector<std::string> lines, other;
    Log_setSink(captureLine, &lines);
    Log_printLine("Sgm", "cost %d ms", 17);
    Log_printLine(nullptr, "no tag %d", 3);
    Log_printLine("", "empty tag %d", 4);
    Log_printLine("T", "%d%%", 100);
    Log_printLine("T", "newline dropped %d\n", 1);
    Log_printLine("T", "only one dropped\n\n");
    Log_printLine("Timing", "%s : %f ms, %d", "Depth", 1.5, 42);
    const char* fmt = nullptr;
    Log_printLine("T", fmt);
    Log_setSink(captureLine, &other);
    Log_printLine("B", "second");
    Log_setSink(nullptr, &other);
    Log_printLine("C", "dropped");
    EXPECT_EQ(lines, (std::vector<std::string>{"Sgm: cost 17 ms", "no tag 3", "empty tag 4", "T: 100%",
                                               "T: newline dropped 1", "T: only one dropped\n",
                                               "Timing: Depth : 1.500000 ms, 42"}));
    EXPECT_EQ(other, std::vector<std::string>{"B: second"});
    Log_setSink(nullptr, nullptr);
}

#endif  // __ANDROID__
