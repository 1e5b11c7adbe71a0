// The instruction sets the kernel tables may use, found once per process.
//
// Every kernel family keeps its scalar form as the definition of the result
// and a table of function pointers that starts with it; each instruction set
// the processor offers (and the build compiled) then replaces the entries it
// does faster, always with the same bytes out. The environment variable
// VQ_TL_CPU_MASK limits the sets for tests, tools and bug reports: a number,
// decimal or 0x hexadecimal, whose bits are the kCpu* values below; 0 runs
// the scalar kernels only. Unset or unreadable, it allows everything.
//
// Threads: Cpu_getFeatures may be called from any thread; the first call
// decides for the process.
#pragma once

#include <cstdint>

namespace vq_tl {

constexpr uint32_t kCpuSse41 = 1u << 0;  // x86-64: SSE2 to SSE4.1
constexpr uint32_t kCpuAvx2 = 1u << 1;   // x86-64: AVX2 with the OS saving its registers
constexpr uint32_t kCpuNeon = 1u << 2;   // 32- and 64-bit Arm: Advanced SIMD
// x86-64: AVX-512 F, BW and VL with BITALG (byte popcounts) and VBMI (byte
// permutes), with the OS saving its registers; chosen only with AVX2.
constexpr uint32_t kCpuAvx512 = 1u << 3;

// The sets this build holds variants for.
uint32_t Cpu_getCompiledFeatures();
// The sets the processor offers, among the compiled ones.
uint32_t Cpu_detectFeatures();
// The value of VQ_TL_CPU_MASK: null, empty or not a whole number gives all
// ones (no limit).
uint32_t Cpu_parseMask(const char* text);
// Detected sets limited by VQ_TL_CPU_MASK; computed at the first call.
uint32_t Cpu_getFeatures();

}  // namespace vq_tl
