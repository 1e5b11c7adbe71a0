// The kernel harness: every instruction-set form of a kernel against its
// scalar reference, byte for byte, on random rows with canaries round every
// output; with --bench, the same kernels timed side by side.
//
// A family registers itself from its own file with a KernelFamily record;
// its run function fills the scalar table and the table of each variant the
// processor has, and checks every entry that differs from the scalar one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vq_tl_test {

// splitmix64: a seed reproduces every input.
struct CheckRandom {
    uint64_t state;
};
uint32_t CheckRandom_next(CheckRandom* r);
// Uniform in [lo, hi].
int32_t CheckRandom_range(CheckRandom* r, int32_t lo, int32_t hi);
// Random bytes; about one call in eight gives an extreme pattern instead:
// all 0, all 255, alternating 0 and 255, or values within 3 of 0 or 255.
void CheckRandom_fill(CheckRandom* r, uint8_t* data, size_t n);
// The same for 16-bit words, extremes 0, 0xFFFF and their neighbours.
void CheckRandom_fill16(CheckRandom* r, uint16_t* data, size_t n);

// Rows of rowBytes bytes, pitch above rowBytes by 0 to 40 bytes (a multiple
// of `align`), the first row at an address that is a multiple of `align` but
// not of 16 (align 1: odd). Everything outside the rows is a canary.
struct GuardedPlane {
    std::vector<uint8_t> storage;
    uint8_t* data;
    int32_t rowBytes, rows, pitch;
    size_t lead;  // canary bytes before the first row
};
void GuardedPlane_init(GuardedPlane* p, int32_t rowBytes, int32_t rows, int32_t align, CheckRandom* r);
inline uint8_t* GuardedPlane_row(GuardedPlane* p, int32_t y) {
    return p->data + static_cast<ptrdiff_t>(p->pitch) * y;
}
// The rows of `from` copied into `p` (same geometry of rows, not of pitch).
void GuardedPlane_copyRows(GuardedPlane* p, const GuardedPlane* from);
// False and a description in `where` when a canary changed.
bool GuardedPlane_canariesIntact(const GuardedPlane* p, char* where, size_t size);
// The first byte where the rows differ: -1 when they are the same.
int64_t GuardedPlane_firstDifference(const GuardedPlane* a, const GuardedPlane* b, int32_t* x, int32_t* y);

struct Variant {
    const char* name;
    uint32_t features;  // kCpu* bits for the tables' fill functions
};
// The instruction-set ladders this build and processor have, without the
// scalar one: each later rung includes the earlier ones.
const std::vector<Variant>& Check_variants();

struct CheckContext {
    CheckRandom random;
    int32_t iterations;  // random cases per kernel
    bool bench;
    int32_t failures;
    int32_t kernelsChecked;
};

// Compares two outputs of a kernel (same geometry) and their canaries;
// reports the first difference. Returns true when all is well.
bool Check_outputs(CheckContext* ctx, const char* kernel, const Variant& v, const GuardedPlane* ref,
                   const GuardedPlane* var, const char* caseText);

// Nanoseconds per call of fn(arg), the best of several runs of `reps` calls.
double Check_timeNs(void (*fn)(void* arg), void* arg, int32_t reps);
// One line of the --bench table.
void Check_reportBench(const char* kernel, const char* variant, double ns, double refNs, double units,
                       const char* unitName);

struct KernelFamily {
    const char* name;
    void (*run)(CheckContext* ctx);
    KernelFamily* next;
};
struct KernelFamilyRegistration {
    explicit KernelFamilyRegistration(KernelFamily* family);
};

}  // namespace vq_tl_test
