// The library's own real functions and integer-only double arithmetic next to
// the C library and the floating-point unit.
#include <benchmark/benchmark.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <vector>

#include "runtime/raw_double.h"
#include "runtime/soft_double.h"

using namespace vq_tl;

namespace {

// 1024 arguments spread over the range of interest, so no branch is learned by heart.
std::vector<double> arguments(double lo, double hi) {
    std::vector<double> v(1024);
    uint32_t x = 12345;
    for (double& d : v) {
        x = x * 1664525u + 1013904223u;
        d = lo + (hi - lo) * (x >> 8) / 16777216.0;
    }
    return v;
}

template <double (*F)(double)>
void runUnary(benchmark::State& state, double lo, double hi) {
    const std::vector<double> v = arguments(lo, hi);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(F(v[i]));
        i = (i + 1) & 1023;
    }
}

double libExp2(double x) { return std::exp2(x); }
double libLog2(double x) { return std::log2(x); }
double libCos(double x) { return std::cos(x); }

void BM_RawDouble_exp2(benchmark::State& s) { runUnary<RawDouble_exp2>(s, -60.0, 60.0); }
void BM_libm_exp2(benchmark::State& s) { runUnary<libExp2>(s, -60.0, 60.0); }
void BM_RawDouble_log2(benchmark::State& s) { runUnary<RawDouble_log2>(s, 1e-6, 1e6); }
void BM_libm_log2(benchmark::State& s) { runUnary<libLog2>(s, 1e-6, 1e6); }
void BM_RawDouble_cos(benchmark::State& s) { runUnary<RawDouble_cos>(s, -10.0, 10.0); }
void BM_libm_cos(benchmark::State& s) { runUnary<libCos>(s, -10.0, 10.0); }
BENCHMARK(BM_RawDouble_exp2);
BENCHMARK(BM_libm_exp2);
BENCHMARK(BM_RawDouble_log2);
BENCHMARK(BM_libm_log2);
BENCHMARK(BM_RawDouble_cos);
BENCHMARK(BM_libm_cos);

template <uint64_t (*Op)(uint64_t, uint64_t)>
void runSoft(benchmark::State& state) {
    const std::vector<double> a = arguments(-1e3, 1e3), b = arguments(0.5, 2.0);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Op(std::bit_cast<uint64_t>(a[i]), std::bit_cast<uint64_t>(b[i])));
        i = (i + 1) & 1023;
    }
}

void BM_Double_add(benchmark::State& s) { runSoft<Double_add>(s); }
void BM_Double_mul(benchmark::State& s) { runSoft<Double_mul>(s); }
void BM_Double_div(benchmark::State& s) { runSoft<Double_div>(s); }
BENCHMARK(BM_Double_add);
BENCHMARK(BM_Double_mul);
BENCHMARK(BM_Double_div);

void BM_hardware_mul(benchmark::State& state) {
    const std::vector<double> a = arguments(-1e3, 1e3), b = arguments(0.5, 2.0);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(a[i] * b[i]);
        i = (i + 1) & 1023;
    }
}
BENCHMARK(BM_hardware_mul);

void BM_Double_sqrt(benchmark::State& state) {
    const std::vector<double> a = arguments(1e-3, 1e3);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(Double_sqrt(std::bit_cast<uint64_t>(a[i])));
        i = (i + 1) & 1023;
    }
}
BENCHMARK(BM_Double_sqrt);

}  // namespace
