// pre_cgs.h - the hybrid iteration: CGS, or CG for a positive definite
// type, on the caller's new matrix, preconditioned by the stored factor of
// an older one.
//
// A caller who solves a sequence of similar matrices (iparm(4) = s*(10 L +
// K)) pays a factorization only when this iteration fails.  Both methods
// start from x0, the solve of b with the old factor, and measure
//   res = sqrt(max over the right-hand sides of |r|^2 / |r(x = 0)|^2)
// with the residual r = b - A x for CG and the preconditioned residual
// M^-1 (b - A x) for CGS (left preconditioning: every product with A is
// followed by a solve).  After each step, in this order:
//   1. tol > res: success (0);
//   2. res > div: divergence (-1);
//   3. best := min(best, res);
//   4. at the stagnation check (CGS: count == check; CG: count >= check)
//      with best > sqrt(tol): stagnation (-2);
//   5. count == budget: the limit (-3).
// A work array below hybrid_work_doubles gives -4 before anything runs; a
// breakdown of the CGS recursion (rho or sigma zero) counts as divergence;
// an error of the solve stops the iteration with that error.
//
// Inner products conjugate their first argument.  Nothing here allocates;
// the products and solves use the caller's callables.
#ifndef VELMORA_SOLVE_PRE_CGS_H
#define VELMORA_SOLVE_PRE_CGS_H

#include <cstdint>

#include "solve/refine.h"

namespace vm {

struct HybridSettings {
  int n = 0;
  int nrhs = 1;
  int mtype = 11;
  int transposed = 0;
  int nthreads = 1;
  int msglvl = 0;
  int method = 1;  // 1 CGS, 2 CG
  double tol = 1e-12;
  int budget = 0;
  int check = 0;
  double div = 10000.0;
};

struct HybridResult {
  int code = 0;        // 0, -1 .. -4 as above
  int iterations = 0;  // the count, 1 when x0 already met tol
  int solve_error = 0;
};

// Doubles of the work array: seven vectors of n*nrhs, the per right-hand
// side scalars, and the product's accumulators.
std::int64_t hybrid_work_doubles(const HybridSettings &s);

// x holds x0 on entry and the iterate on return (the best of a failed run
// is not kept: the caller refactors or reports).  T is double or zcomplex.
template <class T>
HybridResult PRE_CGS_VELMORA(const HybridSettings &s, const RefineMatrix<T> &m, const T *b, T *x,
                             double *work, std::int64_t work_len, SolveRef<T> solve);

}  // namespace vm

#endif  // VELMORA_SOLVE_PRE_CGS_H
