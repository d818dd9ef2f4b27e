// solve.cpp - SOLVE_VELMORA: gather, substitution by matrix type, scatter,
// with the split of many right-hand sides into parallel blocks.
#include "solve/solve.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "common/matrix_type.h"
#include "factor/scalar_traits.h"
#include "solve/convert.h"
#include "solve/gather_scatter.h"
#include "solve/ublkldlslvs1.h"
#include "solve/ublkslv1_unsym.h"
#include "solve/ublkslvs1.h"

namespace vm {

namespace {

bool uses_task_form(const SolveInput &in) {
  return in.nrhs == 1 && in.ntasks > 1 && in.parallel != 0;
}

// Blocks of right-hand sides for a solve of several: one a thread, and
// never more than there are right-hand sides (iparm(3) may ask for any
// team).
int block_count(const SolveInput &in) {
  return std::clamp(in.nthreads, 1, std::max(in.nrhs, 1));
}

// The substitution of the symmetric families: LDL^T for mtype -2, the
// complex symmetric 6 (L^T without conjugation) and the Hermitian -4 (L^H);
// Cholesky for 2 and the Hermitian 4 (whose kernels conjugate on complex
// types).  one: one right-hand side with the kernel's own parallelism.
template <class T>
void substitute_symmetric(const FactorView<T> &f, const SolveInput &in, bool one, int m, T *z,
                          T *block, T *temp, int ld) {
  if constexpr (scalar_traits<T>::is_complex) {
    if (in.mtype == -4) {
      if (one) {
        CH_BLKLDLSLVS1_VELMORA<T>(f, in, z, temp);
      } else {
        CH_BLKLDLSLVM_VELMORA<T>(f, in, m, z, ld, block);
      }
      return;
    }
  }
  if (in.mtype == -2 || in.mtype == 6) {
    if (one && in.partitioned != 0) {
      BLKLDLSLVS1_MPPL<T>(f, in, z, temp);
    } else if (one) {
      BLKLDLSLVS1_VELMORA<T>(f, in, z, temp);
    } else {
      BLKLDLSLVM_VELMORA<T>(f, in, m, z, ld, block);
    }
  } else if constexpr (!std::is_same_v<T, float>) {  // no single-precision Cholesky
    if (one) {
      BLKSLVS1_VELMORA<T>(f, in, z, temp);
    } else {
      BLKSLVM_VELMORA<T>(f, in, m, z, ld, block);
    }
  }
}

// The vector the gather fills and the scatter reads: z itself, or with a
// single-precision factor the doubles of the same array (kGatherWidth).
template <class T>
using Gathered = std::conditional_t<std::is_same_v<T, float>, double, T>;

// Before the substitution: a single-precision solve narrows the m gathered
// columns of ld doubles in place to floats.  After it: widens them back.
template <class T>
void to_factor_precision(int ld, int m, Gathered<T> *z) {
  if constexpr (std::is_same_v<T, float>) rhs_to_single(ld, m, z);
}
template <class T>
void to_working_precision(int ld, int m, Gathered<T> *z) {
  if constexpr (std::is_same_v<T, float>) sol_to_double(ld, m, z);
}

// The symmetric dispatcher: m right-hand sides, columns ld apart in b, x, z
// and block.  rhsparallel is 1 when the caller already runs blocks of right-
// hand sides in parallel; then, or with more than one right-hand side, the
// serial block kernels run, else the one-right-hand-side kernel with its own
// parallel region.  The transpose flag is 0: A^T is A.
template <class T>
void solve_symmetric(const FactorView<T> &f, const SolveInput &in, int rhsparallel, int m,
                     double *b, double *x, T *z, T *block, T *temp, int ld) {
  const int n = in.n;
  using G = Gathered<T>;
  G *zg = reinterpret_cast<G *>(z);
  PSOL_FWGATH_VELMORA<G>(0, n, in.mtype, m, b, zg, in.perm, in.q, in.scale, in.unselected,
                         in.scaling_on, in.selector, in.k, ld, in.partial);
  to_factor_precision<T>(ld, m, zg);
  substitute_symmetric<T>(f, in, m == 1 && rhsparallel == 0, m, z, block, temp, ld);
  to_working_precision<T>(ld, m, zg);
  PSOL_BWSCAT_VELMORA<G>(0, in.to_b, n, in.mtype, m, b, zg, x, in.perm, in.q, in.scale,
                         in.unselected, in.scaling_on, in.selector, in.k, ld, in.partial);
}

// The unsymmetric dispatcher: as the symmetric one, with the LU kernels
// (row exchanges only for the structurally symmetric types, row and column
// exchanges for the general ones) and the transpose flag iparm(12), which
// also tells the gather and the scatter which side each scaling takes.
template <class T>
void solve_unsymmetric(const FactorView<T> &f, const SolveInput &in, int rhsparallel, int m,
                       double *b, double *x, T *z, T *block, T *temp, int ld) {
  const int n = in.n;
  const bool general = is_unsym_group(in.mtype);
  using G = Gathered<T>;
  G *zg = reinterpret_cast<G *>(z);
  PSOL_FWGATH_VELMORA<G>(in.transposed, n, in.mtype, m, b, zg, in.perm, in.q, in.scale,
                         in.unselected, in.scaling_on, in.selector, in.k, ld, in.partial);
  to_factor_precision<T>(ld, m, zg);
  if (m == 1 && rhsparallel == 0 && general) {
    BLKSLV1_UNSYM_VELMORA<T>(f, in, z, temp);
  } else if (m == 1 && rhsparallel == 0) {
    BLKSLV1_VELMORA<T>(f, in, z, temp);
  } else if (general) {
    BLKSLV1M_UNSYM_VELMORA<T>(f, in, m, z, ld, block);
  } else {
    BLKSLV1M_VELMORA<T>(f, in, m, z, ld, block);
  }
  to_working_precision<T>(ld, m, zg);
  PSOL_BWSCAT_VELMORA<G>(in.transposed, in.to_b, n, in.mtype, m, b, zg, x, in.perm, in.q, in.scale,
                         in.unselected, in.scaling_on, in.selector, in.k, ld, in.partial);
}

template <class T>
void solve_dispatch(const FactorView<T> &f, const SolveInput &in, int rhsparallel, int m, double *b,
                    double *x, T *z, T *block, T *temp, int ld) {
  if (stores_u(in.mtype)) {
    solve_unsymmetric<T>(f, in, rhsparallel, m, b, x, z, block, temp, ld);
  } else {
    solve_symmetric<T>(f, in, rhsparallel, m, b, x, z, block, temp, ld);
  }
}

// Whether this element type has a substitution family for mtype: the
// Cholesky, LDL^T and the two LU families, real for mtype 2, -2, 1, 11
// and complex for 4, -4, 6, 3, 13; in single precision LDL^T and LU only
// (mtype -2, 1, 11).
template <class T>
bool family_available(int mtype) {
  if constexpr (scalar_traits<T>::is_complex) {
    return is_complex_type(mtype);
  } else if constexpr (std::is_same_v<T, float>) {
    return mtype == -2 || mtype == 1 || mtype == 11;
  } else {
    return is_real_type(mtype);
  }
}

}  // namespace

int solve_vector_length(const SolveInput &in) {
  return in.partial >= 2 ? std::clamp(in.k, 0, std::max(in.n, 0)) : std::max(in.n, 0);
}

SolveWorkSize solve_work_size(const SolveInput &in) {
  SolveWorkSize sz;
  const std::int64_t len = solve_vector_length(in);
  const std::int64_t nrhs = std::max(in.nrhs, 0);
  sz.z = nrhs * len;
  if (uses_task_form(in)) sz.temp = static_cast<std::int64_t>(in.ntasks) * std::max(in.n, 0);
  if (nrhs > 1) {
    sz.block = nrhs * len;
    sz.starts = block_count(in) + 1;
  }
  return sz;
}

template <class T>
void SOLVE_VELMORA(const FactorView<T> &f, const SolveInput &in, double *b, double *x,
                   const SolveWork<T> &w, int *error) {
  *error = kSolveOk;
  if (!family_available<T>(in.mtype)) {
    *error = kSolveTypeNotAvailable;
    return;
  }
  if (in.n < 1 || in.nrhs < 1) return;
  const int len = solve_vector_length(in);

  if (in.nrhs == 1) {
    solve_dispatch<T>(f, in, 0, 1, b, x, w.z, w.block, w.temp, len);
    return;
  }

  // Blocks of right-hand sides: nrhs / p each, the first nrhs mod p one
  // more; starts run from 1.
  const int p = block_count(in);
  int *start = w.starts;
  start[0] = 1;
  for (int k = 0; k < p; ++k) start[k + 1] = start[k] + in.nrhs / p + (k < in.nrhs % p ? 1 : 0);

  // Offsets in elements: T for z and the buffers, doubles (pairs for
  // complex) for the caller's b and x.
  const int width = scalar_traits<T>::doubles;
#pragma omp parallel for schedule(dynamic, 1) num_threads(p) if (p > 1)
  for (int k = 0; k < p; ++k) {
    const int m = start[k + 1] - start[k];
    if (m < 1) continue;
    const std::int64_t at = static_cast<std::int64_t>(start[k] - 1) * len;
    double *xk = x != nullptr ? x + at * width : nullptr;  // x is unused when b takes the result
    solve_dispatch<T>(f, in, 1, m, b + at * width, xk, w.z + at * kGatherWidth<T>, w.block + at,
                      nullptr, len);
  }
}

template void SOLVE_VELMORA<double>(const FactorView<double> &, const SolveInput &, double *,
                                    double *, const SolveWork<double> &, int *);
template void SOLVE_VELMORA<float>(const FactorView<float> &, const SolveInput &, double *,
                                   double *, const SolveWork<float> &, int *);
template void SOLVE_VELMORA<zcomplex>(const FactorView<zcomplex> &, const SolveInput &, double *,
                                      double *, const SolveWork<zcomplex> &, int *);

}  // namespace vm
