// Fixed-size fields read from the front of a fuzzer input; past its end every
// byte reads as zero, so a short input still makes whole records.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// A promise of the headers broken is a finding like a crash.
#define VQ_FUZZ_CHECK(c) \
    ((c) ? (void)0 : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #c), std::abort()))

namespace vq_tl_test {

struct FuzzInput {
    const uint8_t* data;
    size_t size;

    void fill(void* out, size_t n) {
        const size_t have = size < n ? size : n;
        if (have > 0) std::memcpy(out, data, have);
        std::memset(static_cast<uint8_t*>(out) + have, 0, n - have);
        data += have;
        size -= have;
    }
    template <typename T>
    T take() {
        T value;
        fill(&value, sizeof value);
        return value;
    }
};

}  // namespace vq_tl_test
