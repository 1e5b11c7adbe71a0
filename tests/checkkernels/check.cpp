#include "check.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/cpu_features.h"

namespace vq_tl_test {

namespace {

constexpr uint8_t kCanary = 0xA5;
KernelFamily* gFamilies = nullptr;

}  // namespace

uint32_t CheckRandom_next(CheckRandom* r) {
    uint64_t z = (r->state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<uint32_t>((z ^ (z >> 31)) >> 32);
}

int32_t CheckRandom_range(CheckRandom* r, int32_t lo, int32_t hi) {
    const uint32_t span = static_cast<uint32_t>(hi - lo) + 1u;
    return lo + static_cast<int32_t>(CheckRandom_next(r) % span);
}

void CheckRandom_fill(CheckRandom* r, uint8_t* data, size_t n) {
    const uint32_t pick = CheckRandom_next(r) % 32;
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = CheckRandom_next(r);
        switch (pick) {
            case 0: data[i] = 0; break;
            case 1: data[i] = 255; break;
            case 2: data[i] = (i & 1) != 0 ? 255 : 0; break;
            case 3: data[i] = static_cast<uint8_t>((v & 1) != 0 ? 252 + (v >> 1) % 4 : (v >> 1) % 4); break;
            default: data[i] = static_cast<uint8_t>(v); break;
        }
    }
}

void CheckRandom_fill16(CheckRandom* r, uint16_t* data, size_t n) {
    const uint32_t pick = CheckRandom_next(r) % 32;
    for (size_t i = 0; i < n; ++i) {
        const uint32_t v = CheckRandom_next(r);
        switch (pick) {
            case 0: data[i] = 0; break;
            case 1: data[i] = 0xFFFF; break;
            case 2: data[i] = (i & 1) != 0 ? 0xFFFF : 0; break;
            case 3:
                data[i] = static_cast<uint16_t>((v & 1) != 0 ? 0xFFFC + (v >> 1) % 4 : (v >> 1) % 4);
                break;
            default: data[i] = static_cast<uint16_t>(v); break;
        }
    }
}

void GuardedPlane_init(GuardedPlane* p, int32_t rowBytes, int32_t rows, int32_t align, CheckRandom* r) {
    const int32_t extra = CheckRandom_range(r, 0, 40 / align) * align;
    p->rowBytes = rowBytes;
    p->rows = rows;
    p->pitch = rowBytes + extra;
    const size_t body = static_cast<size_t>(p->pitch) * (rows > 0 ? rows - 1 : 0) + rowBytes;
    p->storage.assign(body + 160, kCanary);
    // An address that is a multiple of align but not of 16.
    const uintptr_t base = reinterpret_cast<uintptr_t>(p->storage.data());
    uintptr_t start = (base + 64 + 15) & ~static_cast<uintptr_t>(15);
    start += static_cast<uintptr_t>(align < 16 ? align : 0);
    p->lead = start - base;
    p->data = p->storage.data() + p->lead;
    for (int32_t y = 0; y < rows; ++y)
        CheckRandom_fill(r, GuardedPlane_row(p, y), static_cast<size_t>(rowBytes));
}

void GuardedPlane_copyRows(GuardedPlane* p, const GuardedPlane* from) {
    for (int32_t y = 0; y < p->rows && y < from->rows; ++y)
        std::memcpy(GuardedPlane_row(p, y), from->data + static_cast<ptrdiff_t>(from->pitch) * y,
                    static_cast<size_t>(p->rowBytes < from->rowBytes ? p->rowBytes : from->rowBytes));
}

bool GuardedPlane_canariesIntact(const GuardedPlane* p, char* where, size_t size) {
    for (size_t i = 0; i < p->lead; ++i) {
        if (p->storage[i] != kCanary) {
            std::snprintf(where, size, "%zu bytes before the first row", p->lead - i);
            return false;
        }
    }
    for (int32_t y = 0; y < p->rows; ++y) {
        const uint8_t* row = p->data + static_cast<ptrdiff_t>(p->pitch) * y;
        const int32_t gap = y + 1 < p->rows ? p->pitch - p->rowBytes : 0;
        for (int32_t i = 0; i < gap; ++i) {
            if (row[p->rowBytes + i] != kCanary) {
                std::snprintf(where, size, "%d bytes right of row %d", i + 1, y);
                return false;
            }
        }
    }
    const size_t end =
        p->lead + static_cast<size_t>(p->pitch) * (p->rows > 0 ? p->rows - 1 : 0) + p->rowBytes;
    for (size_t i = end; i < p->storage.size(); ++i) {
        if (p->storage[i] != kCanary) {
            std::snprintf(where, size, "%zu bytes after the last row", i - end + 1);
            return false;
        }
    }
    return true;
}

int64_t GuardedPlane_firstDifference(const GuardedPlane* a, const GuardedPlane* b, int32_t* x, int32_t* y) {
    for (int32_t r = 0; r < a->rows; ++r) {
        const uint8_t* ra = a->data + static_cast<ptrdiff_t>(a->pitch) * r;
        const uint8_t* rb = b->data + static_cast<ptrdiff_t>(b->pitch) * r;
        for (int32_t c = 0; c < a->rowBytes; ++c) {
            if (ra[c] != rb[c]) {
                *x = c;
                *y = r;
                return static_cast<int64_t>(r) * a->rowBytes + c;
            }
        }
    }
    return -1;
}

const std::vector<Variant>& Check_variants() {
    static const std::vector<Variant> variants = [] {
        std::vector<Variant> v;
        const uint32_t have = vq_tl::Cpu_getFeatures();
        using vq_tl::kCpuAvx2, vq_tl::kCpuAvx512, vq_tl::kCpuNeon, vq_tl::kCpuSse41;
        if ((have & kCpuSse41) != 0) v.push_back({"sse41", kCpuSse41});
        if ((have & kCpuSse41) != 0 && (have & kCpuAvx2) != 0) v.push_back({"avx2", kCpuSse41 | kCpuAvx2});
        if ((have & kCpuSse41) != 0 && (have & kCpuAvx2) != 0 && (have & kCpuAvx512) != 0)
            v.push_back({"avx512", kCpuSse41 | kCpuAvx2 | kCpuAvx512});
        if ((have & kCpuNeon) != 0) v.push_back({"neon", kCpuNeon});
        return v;
    }();
    return variants;
}

bool Check_outputs(CheckContext* ctx, const char* kernel, const Variant& v, const GuardedPlane* ref,
                   const GuardedPlane* var, const char* caseText) {
    char where[96];
    if (!GuardedPlane_canariesIntact(var, where, sizeof(where))) {
        std::printf("FAIL %s/%s: wrote %s (%s)\n", kernel, v.name, where, caseText);
        ++ctx->failures;
        return false;
    }
    int32_t x = 0, y = 0;
    if (GuardedPlane_firstDifference(ref, var, &x, &y) >= 0) {
        const uint8_t a = ref->data[static_cast<ptrdiff_t>(ref->pitch) * y + x];
        const uint8_t b = var->data[static_cast<ptrdiff_t>(var->pitch) * y + x];
        std::printf("FAIL %s/%s: byte %d of row %d is %u, the reference says %u (%s)\n", kernel, v.name, x, y,
                    b, a, caseText);
        ++ctx->failures;
        return false;
    }
    return true;
}

double Check_timeNs(void (*fn)(void* arg), void* arg, int32_t reps) {
    double best = 1e30;
    for (int run = 0; run < 5; ++run) {
        const auto t0 = std::chrono::steady_clock::now();
        for (int32_t i = 0; i < reps; ++i) fn(arg);
        const auto t1 = std::chrono::steady_clock::now();
        const double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / reps;
        if (ns < best) best = ns;
    }
    return best;
}

void Check_reportBench(const char* kernel, const char* variant, double ns, double refNs, double units,
                       const char* unitName) {
    std::printf("  %-28s %-7s %10.1f us  %8.3f ns/%s  x%.2f\n", kernel, variant, ns / 1000.0, ns / units,
                unitName, refNs / ns);
}

KernelFamilyRegistration::KernelFamilyRegistration(KernelFamily* family) {
    family->next = gFamilies;
    gFamilies = family;
}

}  // namespace vq_tl_test

using namespace vq_tl_test;

int main(int argc, char** argv) {
    uint64_t seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    int32_t iterations = 200;
    bool bench = false;
    const char* only = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc) {
            seed = std::strtoull(argv[++i], nullptr, 0);
        } else if (std::strcmp(argv[i], "--iterations") == 0 && i + 1 < argc) {
            iterations = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--bench") == 0) {
            bench = true;
        } else if (std::strcmp(argv[i], "--family") == 0 && i + 1 < argc) {
            only = argv[++i];
        } else {
            std::printf("usage: %s [--seed N] [--iterations N] [--family NAME] [--bench]\n", argv[0]);
            return 2;
        }
    }
    std::printf("seed %" PRIu64 ", variants:", seed);
    for (const Variant& v : Check_variants()) std::printf(" %s", v.name);
    std::printf("%s\n", Check_variants().empty() ? " none (scalar only)" : "");
    int32_t failures = 0, kernels = 0;
    for (KernelFamily* f = gFamilies; f != nullptr; f = f->next) {
        if (only != nullptr && std::strcmp(only, f->name) != 0) continue;
        CheckContext ctx{{seed}, iterations, bench, 0, 0};
        f->run(&ctx);
        std::printf("%-12s %d kernel forms checked, %d failures\n", f->name, ctx.kernelsChecked,
                    ctx.failures);
        failures += ctx.failures;
        kernels += ctx.kernelsChecked;
    }
    if (failures > 0) {
        std::printf("%d failures; reproduce with --seed %" PRIu64 "\n", failures, seed);
        return 1;
    }
    std::printf("all %d kernel forms match their references\n", kernels);
    return 0;
}
