// IEEE double arithmetic in integer registers, on the raw 64-bit pattern of a
// double, for code that must not touch the floating-point unit.
//
// add, sub, mul, div, sqrt and mul2 round to nearest, ties to even, with
// subnormals, exactly as IEEE 754 binary64 does. An operation on a NaN returns
// that NaN made quiet (the first operand's when both are); an invalid operation
// (inf - inf, 0 * inf, 0 / 0, inf / inf, root of a negative) returns
// 0x7FF8000000000000. Double_cos, _sin, _exp, _log and _pow evaluate the same
// polynomials as RawDouble_* and give the same bits.
#pragma once

#include <cstdint>

namespace vq_tl {

uint64_t Int32ToDouble(int32_t v);
uint64_t Uint32ToDouble(uint32_t v);
uint64_t Int64ToDouble(int64_t v);    // rounds to nearest even above 2^53
uint64_t Uint64ToDouble(uint64_t v);  // rounds to nearest even above 2^53
uint64_t F32ToDouble(uint32_t f);     // exact; f is the pattern of a float

// Conversions to integers truncate towards zero. Out of range they saturate
// and a NaN gives 0, as Arm's conversions do, so a stray value cannot wrap.
int32_t DoubleToInt32(uint64_t d);
uint32_t DoubleToUint32(uint64_t d);
int64_t DoubleToInt64(uint64_t d);
uint64_t DoubleToUint64(uint64_t d);
uint32_t DoubleToF32(uint64_t d);  // rounds to nearest even, with float subnormals

uint64_t Double_add(uint64_t a, uint64_t b);
uint64_t Double_sub(uint64_t a, uint64_t b);
uint64_t Double_mul(uint64_t a, uint64_t b);
uint64_t Double_div(uint64_t a, uint64_t b);
// IEEE a < b: false when either is NaN, and -0 is not below +0.
bool Double_isLessThan(uint64_t a, uint64_t b);
// a times 2^exponent, rounded once (only subnormal results lose bits).
uint64_t Double_mul2(uint64_t a, int32_t exponent);
// The correctly rounded root, as IEEE defines it.
uint64_t Double_sqrt(uint64_t a);

uint64_t Double_cos(uint64_t x);
uint64_t Double_sin(uint64_t x);
uint64_t Double_exp(uint64_t x);
uint64_t Double_log(uint64_t x);
// 2^(log2(x) * y), as RawDouble_incomplete_pow: meant for x > 0.
uint64_t Double_pow(uint64_t x, uint64_t y);

}  // namespace vq_tl
