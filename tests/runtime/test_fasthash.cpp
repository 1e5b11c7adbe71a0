// fasthash32 and fasthash128 are MurmurHash3 x86_32 and x86_128: published
// values, the SMHasher verification codes, and a byte-at-a-time transcription
// of the algorithm on random buffers of every tail length.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "runtime/fasthash.h"

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

uint32_t rotl(uint32_t v, int r) { return (v << r) | (v >> (32 - r)); }
uint32_t fmix(uint32_t h) {
    h ^= h >> 16;
    h *= 0x85EBCA6Bu;
    h ^= h >> 13;
    h *= 0xC2B2AE35u;
    return h ^ (h >> 16);
}
// Little-endian word from bytes, whatever the host.
uint32_t word(const uint8_t* p, int count) {
    uint32_t v = 0;
    for (int i = 0; i < count; ++i) v |= static_cast<uint32_t>(p[i]) << (8 * i);
    return v;
}

uint32_t refHash32(const uint8_t* p, int len, uint32_t seed) {
    uint32_t h = seed;
    int i = 0;
    for (; i + 4 <= len; i += 4) {
        const uint32_t k = rotl(word(p + i, 4) * 0xCC9E2D51u, 15) * 0x1B873593u;
        h = rotl(h ^ k, 13) * 5 + 0xE6546B64u;
    }
    if (i < len) h ^= rotl(word(p + i, len - i) * 0xCC9E2D51u, 15) * 0x1B873593u;
    return fmix(h ^ static_cast<uint32_t>(len));
}

void refHash128(const uint8_t* p, int len, uint32_t seed, uint32_t out[4]) {
    const uint32_t c[4] = {0x239B961Bu, 0xAB0E9789u, 0x38B34AE5u, 0xA1E38B93u};
    const int rk[4] = {15, 16, 17, 18};  // rotation of input word j
    const int rh[4] = {19, 17, 15, 13};  // rotation of lane j
    const uint32_t add[4] = {0x561CCD1Bu, 0x0BCAA747u, 0x96CD1C35u, 0x32AC3B17u};
    uint32_t h[4] = {seed, seed, seed, seed};
    auto mixWord = [&](int j, uint32_t k) { return rotl(k * c[j], rk[j]) * c[(j + 1) % 4]; };
    int i = 0;
    for (; i + 16 <= len; i += 16) {
        for (int j = 0; j < 4; ++j) {
            h[j] ^= mixWord(j, word(p + i + 4 * j, 4));
            h[j] = (rotl(h[j], rh[j]) + h[(j + 1) % 4]) * 5 + add[j];
        }
    }
    for (int j = 0; i + 4 * j < len; ++j) {
        const int n = len - i - 4 * j < 4 ? len - i - 4 * j : 4;
        h[j] ^= mixWord(j, word(p + i + 4 * j, n));
    }
    for (uint32_t& x : h) x ^= static_cast<uint32_t>(len);
    h[0] += h[1] + h[2] + h[3];
    for (int j = 1; j < 4; ++j) h[j] += h[0];
    for (uint32_t& x : h) x = fmix(x);
    h[0] += h[1] + h[2] + h[3];
    for (int j = 1; j < 4; ++j) h[j] += h[0];
    memcpy(out, h, sizeof(h));
}

}  // namespace

TEST(Fasthash, PublishedValues32) {
    const struct {
        std::string key;
        uint32_t seed, want;
    } cases[] = {
        {"", 0, 0},
        {"", 1, 0x514E28B7u},
        {"", 0xFFFFFFFFu, 0x81F16F39u},
        {std::string(4, '\0'), 0, 0x2362F9DEu},
        {"\xff\xff\xff\xff", 0, 0x76293B50u},
        {"\x21\x43\x65\x87", 0, 0xF55B516Bu},
        {"\x21\x43\x65\x87", 0x5082EDEEu, 0x2362F9DEu},
        {"\x21\x43\x65", 0, 0x7E4A8634u},
        {"\x21\x43", 0, 0xA0F7B07Au},
        {"\x21", 0, 0x72661CF4u},
        {std::string(3, '\0'), 0, 0x85F0B427u},
        {std::string(2, '\0'), 0, 0x30F4C306u},
        {std::string(1, '\0'), 0, 0x514E28B7u},
        {"Hello, world!", 0x9747B28Cu, 0x24884CBAu},
        {"The quick brown fox jumps over the lazy dog", 0x9747B28Cu, 0x2FA826CDu},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(hash32(c.key.data(), static_cast<int32_t>(c.key.size()), c.seed), c.want)
            << "key of " << c.key.size() << " bytes, seed " << c.seed;
    }
}

// SMHasher's check: hash the keys {}, {0}, {0, 1}, ... {0..254} with seed 256 - length,
// then hash the concatenated results with seed 0; the first word identifies the function.
TEST(Fasthash, VerificationCodes) {
    uint8_t key[256];
    std::vector<uint32_t> results32(256), results128(256 * 4);
    for (int i = 0; i < 256; ++i) {
        key[i] = static_cast<uint8_t>(i);
        results32[i] = hash32(key, i, 256 - i);
        hash128(key, i, 256 - i, &results128[4 * i]);
    }
    EXPECT_EQ(hash32(results32.data(), 256 * 4, 0), 0xB0F57EE3u);
    uint32_t final128[4];
    hash128(results128.data(), 256 * 16, 0, final128);
    EXPECT_EQ(final128[0], 0xB3ECE62Au);
}

TEST(Fasthash, RandomBuffersMatchTheTranscription) {
    std::mt19937 rng(41);
    for (int len = 0; len <= 80; ++len) {
        for (int trial = 0; trial < 20; ++trial) {
            // Exactly len bytes on the heap at an odd offset: a read past the end or
            // an aligned-only load shows up under the address sanitizer.
            std::vector<uint8_t> storage(len + 1);
            uint8_t* p = storage.data() + 1;
            for (int i = 0; i < len; ++i) p[i] = static_cast<uint8_t>(rng());
            const uint32_t seed = rng();
            ASSERT_EQ(hash32(p, len, seed), refHash32(p, len, seed)) << len;
            uint32_t got[4], want[4];
            hash128(p, len, seed, got);
            refHash128(p, len, seed, want);
            for (int j = 0; j < 4; ++j) ASSERT_EQ(got[j], want[j]) << len << " word " << j;
        }
    }
}

TEST(Fasthash, StateCarriesFourIndependentWords) {
    // A state whose words differ is a valid input: every word changes the result.
    const char text[] = "depth from a stereo pair";
    uint32_t base[4] = {1, 2, 3, 4};
    ASSERT_EQ(fasthash128(base, text, sizeof(text) - 1), TL_OK);
    for (int j = 0; j < 4; ++j) {
        uint32_t s[4] = {1, 2, 3, 4};
        s[j] ^= 0x100;
        fasthash128(s, text, sizeof(text) - 1);
        EXPECT_NE(memcmp(s, base, sizeof(s)), 0) << j;
    }
}

TEST(Fasthash, BadArguments) {
    uint32_t s[4] = {};
    const uint8_t byte = 0;
    EXPECT_EQ(fasthash32(nullptr, &byte, 1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash128(nullptr, &byte, 1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash32(s, &byte, -1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash128(s, &byte, -1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash32(s, nullptr, 1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash128(s, nullptr, 1), TL_ERROR_PARAM);
    s[0] = 1;
    EXPECT_EQ(fasthash32(s, nullptr, 0), TL_OK);  // nothing to read
    EXPECT_EQ(s[0], 0x514E28B7u);
}
