// refine.h - the solve of phase 33 with iterative refinement.
//
// REFINE_VELMORA runs the first solve and then, when refinement is on,
// steps of: residual r = b - A x on the caller's matrix, correction
// A d = r through the same factor, x = x + d.  All norms are sums of
// absolute values over every double of a vector (real and imaginary parts
// count separately).  The loop stops on contraction, not on a tolerance:
// after step `it`, in this order,
//   1. it == 2 with iparm(8) == 0: iparm(20) := -34, stop;
//   2. it == 1 with sumres > sumrhs: warning line, prevres := 2 sumres;
//   3. it == |iparm(8)|: stop (the normal end);
//   4. 0.9 prevres > sumres: prevres := sumres, next step;
//   5. otherwise, when it >= 4 or it >= |iparm(8)|: stop, with -112 if the
//      second number of the step's last report line is above 0.5 in
//      absolute value (rel err after a relative report; sumrhs after an
//      absolute report or after the warning); else the next step, prevres
//      unchanged.
//
// Two paths by the sign of iparm(8).  iparm(8) >= 0: the residual in
// double, r = A x by AMUXY_VELMORA then r = b - r, sums taken serially in a
// fixed order.  iparm(8) < 0: the solution is carried in extended
// precision (CONV8_16), the residual formed from it by AMUXY_RES_VELMORA
// with every product accumulated in extended precision, the corrections
// added by SUM8_16, and the solution rounded back by CONV16_8 at the end.
//
// The factor is not known here: `solve` is any callable
// int solve(const T *rhs, T *out) that solves for the nrhs columns of rhs
// with the stored factor and returns 0 or its error code.  It must accept
// rhs == out (the corrections are solved in place, as iparm(6) = 1 does).
#ifndef VELMORA_SOLVE_REFINE_H
#define VELMORA_SOLVE_REFINE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

#include "factor/scalar_traits.h"

namespace vm {

// The error slot after a refinement that does not contract.
constexpr int kRefineNoContraction = -112;
// iparm(20) after automatic refinement (iparm(8) 0) stopped at step 2.
constexpr int kRefineStoppedAtTwo = -34;
// The work handed in is below refine_work_min_doubles; nothing was solved.
constexpr int kRefineWorkTooSmall = -2;

struct RefineSettings {
  int n = 0;
  int nrhs = 1;
  int mtype = 11;
  int transposed = 0;  // iparm(12) as the control block keeps it (0 for symmetric types)
  int to_b = 0;        // iparm(6): 1, the solution overwrites b
  int max_steps = 0;   // iparm(8)
  int perturbed = 0;   // perturbed pivots of the factorization
  int selector = 0;    // iparm(26); nonzero turns refinement off, as do the three below
  int sparse_rhs = 0;  // iparm(31)
  int identical = 0;   // iparm(34)
  int schur = 0;       // iparm(38)
  int nthreads = 1;    // team of the products
  int msglvl = 0;      // the report lines print when above 0
};

// Settings from the caller's iparm (slots 6, 8, 26, 31, 34, 38) and the
// handle's values.
RefineSettings refine_settings(const int *iparm, int n, int nrhs, int mtype, int transposed,
                               int perturbed, int nthreads, int msglvl);

// Refinement runs when none of iparm(26), (31), (34), (38) is set and
// iparm(8) is nonzero or a pivot was perturbed.
bool refine_enabled(const RefineSettings &s);

// The work array, in doubles; c = 1 real, 2 complex; N = n*nrhs; p =
// nthreads.  Refinement off: none.
//
//   iparm(8) >= 0                        iparm(8) < 0
//   [0, cN)    r, then d in place        [0, cN)   b saved (iparm(6) 1) up to
//   [cN, 2cN)  b saved (iparm(6) 1 only)           step 1, then r and d
//   rest       accumulators of the       [cN, 3cN) x in extended precision
//              product: c*n per thread   rest      partial sums (one per thread),
//              for one right-hand side             then extended accumulators,
//              of a symmetric or                   2c*n per column in flight,
//              transposed product                  for the same forms
//
// In the extended path with iparm(6) 1 the saved b goes back into the
// caller's b once x is in extended precision, and the loop reads it there.
// The products take as many threads (at most p) as their accumulators fit
// into the rest; one accumulator always suffices (serial product).
//
// refine_work_min_doubles: the least that the loop takes.  The group of
// c*nrhs*(n*m + 2p) doubles, with m = 2, or 3 for iparm(8) < 0, or 5 for
// iparm(8) < 0 with a symmetric or transposed product, always holds it.
// refine_work_doubles: what runs every product on the full team.
std::int64_t refine_work_min_doubles(const RefineSettings &s);
std::int64_t refine_work_doubles(const RefineSettings &s);

// The caller's matrix, for the residual.
template <class T>
struct RefineMatrix {
  const int *ia = nullptr;
  const int *ja = nullptr;
  const T *a = nullptr;
};

// What the call leaves for the driver.
struct RefineResult {
  int error = 0;    // 0; the solve's code; kRefineNoContraction; kRefineWorkTooSmall
  int steps = 0;    // iparm(7): steps made, also after an error
  int iparm20 = 0;  // kRefineStoppedAtTwo, or 0: iparm(20) keeps its value
  double sumrhs = 0.0, sumx = 0.0, sumres = 0.0, sumdx = 0.0;  // of the last step
};

// A non-owning reference to the solve callable; it never allocates.
template <class T>
class SolveRef {
 public:
  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, SolveRef>>>
  SolveRef(F &&f)  // NOLINT: implicit, so that a lambda can be passed directly
      : obj_(const_cast<void *>(static_cast<const void *>(std::addressof(f)))),
        call_(&invoke<std::remove_reference_t<F>>) {}
  int operator()(const T *rhs, T *out) const { return call_(obj_, rhs, out); }

 private:
  template <class F>
  static int invoke(void *obj, const T *rhs, T *out) {
    return (*static_cast<F *>(obj))(rhs, out);
  }
  void *obj_;
  int (*call_)(void *, const T *, T *);
};

// REFINE_VELMORA
//   in:   s; m, the caller's matrix; b, nrhs columns of n right-hand sides
//   out:  x, or b when s.to_b is 1: the solution; the result record
//   work: work_len doubles, laid out as above (may be null when refinement
//         is off)
// Report lines go to standard output at s.msglvl above 0.  T is double or
// zcomplex (the caller's pairs).
template <class T>
RefineResult REFINE_VELMORA(const RefineSettings &s, const RefineMatrix<T> &m, T *b, T *x,
                            double *work, std::int64_t work_len, SolveRef<T> solve);

// The text of a Fortran e12.3 edit of v, as the report lines print it.
void edit_e12_3(double v, char *out, std::size_t size);

}  // namespace vm

#endif  // VELMORA_SOLVE_REFINE_H
