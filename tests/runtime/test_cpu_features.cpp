#include <gtest/gtest.h>

#include "runtime/cpu_features.h"

namespace vq_tl_test {

using namespace vq_tl;

TEST(CpuFeatures, MaskTextLimitsOnlyWhenItIsAWholeNumber) {
    const struct {
        const char* text;
        uint32_t mask;
    } cases[] = {{nullptr, ~0u}, {"", ~0u},   {"0", 0u},     {"3", 3u},
                 {"0x4", 4u},    {"5x", ~0u}, {"avx2", ~0u}, {"-1", ~0u}};
    for (const auto& c : cases) EXPECT_EQ(Cpu_parseMask(c.text), c.mask) << (c.text ? c.text : "null");
    // What the processor offers is always something the build holds, and the
    // process's sets never exceed what the processor offers.
    EXPECT_EQ(Cpu_detectFeatures() & ~Cpu_getCompiledFeatures(), 0u);
    EXPECT_EQ(Cpu_getFeatures() & ~Cpu_detectFeatures(), 0u);
}

}  // namespace vq_tl_test
