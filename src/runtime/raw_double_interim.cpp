// Interim forms of the real functions built on the C library, so that geometry
// builds before the library's own implementations are merged. Removed at the
// merge.
#include <cmath>

#include "runtime/raw_double.h"

namespace vq_tl {

double RawDouble_exp2(double x) { return std::exp2(x); }
double RawDouble_log2(double x) { return std::log2(x); }
double RawDouble_exp(double x) { return std::exp(x); }
double RawDouble_log(double x) { return std::log(x); }
double RawDouble_incomplete_pow(double x, double y) { return std::pow(x, y); }
double RawDouble_sqrt(double x) { return std::sqrt(x); }
double RawDouble_cbrt(double x) { return std::cbrt(x); }
double RawDouble_hypot(double a, double b) { return std::hypot(a, b); }
double RawDouble_cos(double x) { return std::cos(x); }
double RawDouble_sin(double x) { return std::sin(x); }
double RawDouble_tan(double x) { return std::tan(x); }
double RawDouble_atan(double x) { return std::atan(x); }
double RawDouble_atan2(double y, double x) { return std::atan2(y, x); }
double RawDouble_asin(double x) { return std::asin(x); }
double RawDouble_acos(double x) { return std::acos(x); }
double RawDouble_sinh(double x) { return std::sinh(x); }
double RawDouble_cosh(double x) { return std::cosh(x); }
double RawDouble_tanh(double x) { return std::tanh(x); }
double RawDouble_ceil(double x) { return std::ceil(x); }
double RawDouble_floor(double x) { return std::floor(x); }
double RawDouble_round(double x) { return std::round(x); }
double RawDouble_ulp(double x) { return std::nextafter(std::fabs(x), INFINITY) - std::fabs(x); }

}  // namespace vq_tl
