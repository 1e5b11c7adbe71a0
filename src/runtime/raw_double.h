// Transcendental functions on IEEE doubles that do not depend on the platform's
// mathematics library. Everything is built from one base-2 logarithm, one base-2
// power and one cosine, evaluated with hardware add, multiply and divide only,
// so tables derived from them come out the same on every device.
//
// They are not correctly rounded: most results are within a few units of the
// last place of the true value, and RawDouble_sqrt in particular differs from
// the hardware root in the last bits on purpose (it must match the devices
// that computed it this way).
#pragma once

namespace vq_tl {

double RawDouble_exp2(double x);
double RawDouble_log2(double x);
double RawDouble_exp(double x);
double RawDouble_log(double x);
// 2^(log2(x) * y); meant for x > 0 only.
double RawDouble_incomplete_pow(double x, double y);
double RawDouble_sqrt(double x);
double RawDouble_cbrt(double x);
double RawDouble_hypot(double a, double b);

double RawDouble_cos(double x);
double RawDouble_sin(double x);
double RawDouble_tan(double x);
double RawDouble_atan(double x);
double RawDouble_atan2(double y, double x);
double RawDouble_asin(double x);
double RawDouble_acos(double x);

double RawDouble_sinh(double x);
double RawDouble_cosh(double x);
double RawDouble_tanh(double x);

double RawDouble_ceil(double x);
double RawDouble_floor(double x);
// Halves go away from zero.
double RawDouble_round(double x);
// The spacing of doubles just above |x| (the smallest subnormal for zeros and subnormals).
double RawDouble_ulp(double x);

}  // namespace vq_tl
