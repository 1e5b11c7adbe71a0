#include "runtime/fasthash.h"

#include <bit>
#include <cstring>

namespace vq_tl {

namespace {

constexpr uint32_t kC1 = 0xCC9E2D51u, kC2 = 0x1B873593u;  // 32-bit form
constexpr uint32_t kD1 = 0x239B961Bu, kD2 = 0xAB0E9789u, kD3 = 0x38B34AE5u,
                   kD4 = 0xA1E38B93u;  // 128-bit form

inline uint32_t rotl(uint32_t v, int r) { return (v << r) | (v >> (32 - r)); }

// One input word: multiply, rotate, multiply.
inline uint32_t scramble(uint32_t k, uint32_t c1, int r, uint32_t c2) { return rotl(k * c1, r) * c2; }

inline uint32_t fmix(uint32_t h) {
    h ^= h >> 16;
    h *= 0x85EBCA6Bu;
    h ^= h >> 13;
    h *= 0xC2B2AE35u;
    h ^= h >> 16;
    return h;
}

// A little-endian word at any alignment.
inline uint32_t loadWord(const uint8_t* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
    return v;
}

// The last 1..3 bytes as the low bytes of a word. The bytes are gathered one
// at a time: the value is that of a whole word read and masked, without
// reading past the caller's buffer.
inline uint32_t loadTail(const uint8_t* p, int32_t count) {
    uint32_t v = 0;
    for (int32_t i = count - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

inline bool badArguments(const uint32_t* state, const void* data, int32_t length) {
    return state == nullptr || length < 0 || (data == nullptr && length > 0);
}

}  // namespace

TLResult fasthash32(uint32_t* state, const void* data, int32_t length) {
    if (badArguments(state, data, length)) return TL_ERROR_PARAM;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    const int32_t blocks = length / 4;
    uint32_t h = *state;
    for (int32_t i = 0; i < blocks; ++i) {
        h ^= scramble(loadWord(bytes + 4 * i), kC1, 15, kC2);
        h = rotl(h, 13) * 5 + 0xE6546B64u;
    }
    const int32_t rest = length & 3;
    if (rest != 0) h ^= scramble(loadTail(bytes + 4 * blocks, rest), kC1, 15, kC2);
    h ^= static_cast<uint32_t>(length);
    *state = fmix(h);
    return TL_OK;
}

TLResult fasthash128(uint32_t* state, const void* data, int32_t length) {
    if (badArguments(state, data, length)) return TL_ERROR_PARAM;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    const int32_t blocks = length / 16;
    uint32_t h1 = state[0], h2 = state[1], h3 = state[2], h4 = state[3];
    for (int32_t i = 0; i < blocks; ++i) {
        const uint8_t* b = bytes + 16 * i;
        h1 ^= scramble(loadWord(b), kD1, 15, kD2);
        h1 = (rotl(h1, 19) + h2) * 5 + 0x561CCD1Bu;
        h2 ^= scramble(loadWord(b + 4), kD2, 16, kD3);
        h2 = (rotl(h2, 17) + h3) * 5 + 0x0BCAA747u;
        h3 ^= scramble(loadWord(b + 8), kD3, 17, kD4);
        h3 = (rotl(h3, 15) + h4) * 5 + 0x96CD1C35u;
        h4 ^= scramble(loadWord(b + 12), kD4, 18, kD1);
        h4 = (rotl(h4, 13) + h1) * 5 + 0x32AC3B17u;
    }
    // Tail of up to 15 bytes: whole words first, the last partial word masked.
    const uint8_t* tail = bytes + 16 * blocks;
    const int32_t rest = length & 15;
    uint32_t k[4] = {0, 0, 0, 0};
    for (int32_t w = 0; w * 4 < rest; ++w) {
        const int32_t count = rest - 4 * w < 4 ? rest - 4 * w : 4;
        k[w] = count == 4 ? loadWord(tail + 4 * w) : loadTail(tail + 4 * w, count);
    }
    if (rest > 12) h4 ^= scramble(k[3], kD4, 18, kD1);
    if (rest > 8) h3 ^= scramble(k[2], kD3, 17, kD4);
    if (rest > 4) h2 ^= scramble(k[1], kD2, 16, kD3);
    if (rest > 0) h1 ^= scramble(k[0], kD1, 15, kD2);

    const uint32_t len = static_cast<uint32_t>(length);
    h1 ^= len;
    h2 ^= len;
    h3 ^= len;
    h4 ^= len;
    h1 += h2 + h3 + h4;
    h2 += h1;
    h3 += h1;
    h4 += h1;
    h1 = fmix(h1);
    h2 = fmix(h2);
    h3 = fmix(h3);
    h4 = fmix(h4);
    h1 += h2 + h3 + h4;
    h2 += h1;
    h3 += h1;
    h4 += h1;
    state[0] = h1;
    state[1] = h2;
    state[2] = h3;
    state[3] = h4;
    return TL_OK;
}

}  // namespace vq_tl
