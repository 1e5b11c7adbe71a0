// fasthash32 and fasthash128 are MurmurHash3 x86_32 and x86_128: published
// values and the SMHasher verification codes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
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

}  // namespace

TEST(Fasthash, PublishedValues32) {
    const struct {
        std::string key;
        uint32_t seed, want;
    } cases[] = {
        {"", 0, 0},
        {"", 1, 0x514E28B7u},
        {"\x21\x43\x65\x87", 0x5082EDEEu, 0x2362F9DEu},
        {"\x21\x43\x65", 0, 0x7E4A8634u},
        {"\x21", 0, 0x72661CF4u},
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
// Every tail length of both functions takes part.
TEST(Fasthash, VerificationCodes) {
    std::vector<uint32_t> results32(256), results128(256 * 4);
    for (int i = 0; i < 256; ++i) {
        // Exactly i bytes on the heap at an odd offset: a read past the end or
        // an aligned-only load shows up under the address sanitizer.
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

TEST(Fasthash, RefusalsAndAnEmptyKey) {
    uint32_t s[4] = {1};
    EXPECT_EQ(fasthash128(s, nullptr, 1) & fasthash32(s, s, -1), TL_ERROR_PARAM);
    EXPECT_EQ(fasthash32(s, nullptr, 0), TL_OK);  // nothing to read
    EXPECT_EQ(s[0], 0x514E28B7u);
}
