// extended.h - double-double arithmetic for the extended-precision residual
// of refinement (iparm(8) negative).
//
// An extended value is an unevaluated pair (hi, lo) of doubles with
// |lo| <= ulp(hi)/2, about 106 significant bits.  Arrays of extended values
// store the pair side by side: entry k of a real array at 2k, 2k+1; a
// complex entry is its real part's pair followed by its imaginary part's,
// so a complex array is a real array of twice the count.  An array of
// extended values therefore takes twice the doubles of the solution it
// holds.
//
// Why a pair of doubles and not long double: the pair gives the same
// 106 bits on every platform, with ordinary IEEE double operations that the
// compiler vectorises, and fills the two words of the residual array
// exactly; long double is the 64-bit-mantissa x87 format on x86-64 (only
// 11 bits more than double, and slow), a software quadruple on AArch64, and
// plain double on several other ABIs.
//
// The error-free transformations below need each operation rounded on its
// own: the library is built in strict ISO mode, where the compiler does not
// contract a*b+c into a fused multiply-add behind our back.
#ifndef VELMORA_SOLVE_EXTENDED_H
#define VELMORA_SOLVE_EXTENDED_H

#include <cmath>

namespace vm::ext {

// s + e == a + b exactly, s = fl(a + b).
inline void two_sum(double a, double b, double &s, double &e) {
  s = a + b;
  const double bb = s - a;
  e = (a - (s - bb)) + (b - bb);
}

// The same when |a| >= |b| (or a == 0).
inline void fast_two_sum(double a, double b, double &s, double &e) {
  s = a + b;
  e = b - (s - a);
}

// p + e == a * b exactly, p = fl(a * b) (barring underflow).
inline void two_prod(double a, double b, double &p, double &e) {
  p = a * b;
#ifdef FP_FAST_FMA
  e = std::fma(a, b, -p);
#else
  // Veltkamp's split into 26-bit halves and Dekker's product.  The split
  // overflows beyond about 2^996; such factors keep only the rounded
  // product, which loses the extra precision and nothing else.
  constexpr double kSplit = 134217729.0;  // 2^27 + 1
  constexpr double kLimit = 6.69692879491417e+299;
  if (std::fabs(a) > kLimit || std::fabs(b) > kLimit) {
    e = 0.0;
    return;
  }
  double t = kSplit * a;
  const double ah = t - (t - a), al = a - ah;
  t = kSplit * b;
  const double bh = t - (t - b), bl = b - bh;
  e = ((ah * bh - p) + ah * bl + al * bh) + al * bl;
#endif
}

// (sh, sl) += a * (xh + xl).
inline void add_prod(double &sh, double &sl, double a, double xh, double xl) {
  double p, pe, s, se;
  two_prod(a, xh, p, pe);
  two_sum(sh, p, s, se);
  se += sl + pe + a * xl;
  fast_two_sum(s, se, sh, sl);
}

// (sh, sl) += v.
inline void add(double &sh, double &sl, double v) {
  double s, e;
  two_sum(sh, v, s, e);
  e += sl;
  fast_two_sum(s, e, sh, sl);
}

// (sh, sl) += (vh, vl).
inline void add(double &sh, double &sl, double vh, double vl) {
  double s, e;
  two_sum(sh, vh, s, e);
  e += sl + vl;
  fast_two_sum(s, e, sh, sl);
}

// b - (sh + sl), rounded once to double.
inline double sub_round(double b, double sh, double sl) {
  double s, e;
  two_sum(b, -sh, s, e);
  return s + (e - sl);
}

}  // namespace vm::ext

#endif  // VELMORA_SOLVE_EXTENDED_H
