#include "runtime/cpu_features.h"

#include <cstdlib>

#if defined(__arm__) && defined(__linux__)
#include <sys/auxv.h>
#endif

namespace vq_tl {

uint32_t Cpu_getCompiledFeatures() {
    uint32_t compiled = 0;
#if defined(VQ_TL_KERNELS_X86)
    compiled |= kCpuSse41 | kCpuAvx2 | kCpuAvx512;
#endif
#if defined(VQ_TL_KERNELS_NEON)
    compiled |= kCpuNeon;
#endif
    return compiled;
}

uint32_t Cpu_detectFeatures() {
    uint32_t found = 0;
#if defined(VQ_TL_KERNELS_X86) && (defined(__x86_64__) || defined(__i386__))
    __builtin_cpu_init();
    if (__builtin_cpu_supports("sse4.1")) found |= kCpuSse41;
    // The runtime's answer for AVX2 includes the OS's saving of the ymm state.
    if ((found & kCpuSse41) != 0 && __builtin_cpu_supports("avx2")) found |= kCpuAvx2;
    // Likewise the zmm and mask state for the AVX-512 sets.
    if ((found & kCpuAvx2) != 0 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512bitalg") &&
        __builtin_cpu_supports("avx512vbmi"))
        found |= kCpuAvx512;
#endif
#if defined(VQ_TL_KERNELS_NEON)
#if defined(__aarch64__)
    found |= kCpuNeon;
#elif defined(__linux__)
    // HWCAP_NEON of the 32-bit Arm kernel ABI.
    if ((getauxval(AT_HWCAP) & (1ul << 12)) != 0) found |= kCpuNeon;
#else
    found |= kCpuNeon;  // built for a NEON baseline
#endif
#endif
    return found & Cpu_getCompiledFeatures();
}

uint32_t Cpu_parseMask(const char* text) {
    if (text == nullptr || *text == '\0') return ~0u;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 0);
    if (end == text || *end != '\0' || text[0] == '-') return ~0u;
    return static_cast<uint32_t>(value);
}

uint32_t Cpu_getFeatures() {
    // A function-local static: initialised once, safely, on first use.
    static const uint32_t features = Cpu_detectFeatures() & Cpu_parseMask(std::getenv("VQ_TL_CPU_MASK"));
    return features;
}

}  // namespace vq_tl
