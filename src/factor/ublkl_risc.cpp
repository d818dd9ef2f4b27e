// ublkl_risc.cpp - supernodal left-looking Cholesky (see blkl.h).
//
// For each target supernode in turn: its panel is prepared from A, every
// descendant waiting on its chain applies its update, the diagonal block is
// factored and the rows below it solved, and the supernode is linked on the
// chain of the next supernode its rows reach.
//
// Chains.  link is indexed by first columns: link(first of K) heads the
// chain of supernodes that still owe K an update, link(first of J) is J's
// successor on the chain it sits on.  A supernode is factored before it is
// put on any chain, and by then its own chain is empty, so the one slot
// serves both uses.  length(J) counts the rows of J's list not yet consumed
// by an ancestor; they are the tail of the list.
#include <cassert>
#include <cstdint>

#include "analysis/parallel_fill.h"
#include "factor/blas.h"
#include "factor/blkl.h"
#include "factor/dense_kernels.h"
#include "factor/left_looking.h"
#include "factor/panel.h"
#include "factor/update_kernels.h"

namespace vm {

namespace {

UpdateKernelCounts *g_kernel_counts = nullptr;

inline void count(std::int64_t UpdateKernelCounts::*field) {
  if (g_kernel_counts != nullptr) ++(g_kernel_counts->*field);
}

// The target supernode of the loop.
template <class T>
struct Target {
  int first = 0;
  int last = 0;
  int ncols = 0;
  int len = 0;  // rows of its list and leading dimension of its panel
  T *panel = nullptr;
};

// Applies the update of descendant jsup, through the L rows of its list not
// yet consumed (the tail), to the target.  Returns m, the rows of the tail that are columns
// of the target; sets *iflag to -2 when the buffer is too small.
template <class T>
int apply_update(const FactorView<T> &f, const Target<T> &k, int jsup, int L, int first_schur,
                 FactorWork<T> &w, int *iflag) {
  constexpr char kAdj = blas::adjoint_letter<T>();
  const int jfirst = f.xsuper[jsup - 1];
  const int jlast = f.xsuper[jsup] - 1;
  const int ncolj = jlast - jfirst + 1;
  const int lenj = static_cast<int>(f.xlindx[jsup] - f.xlindx[jsup - 1]);
  const int *tail = f.lindx + (f.xlindx[jsup] - 1 - L);
  const T *x = f.lnz + (f.xlnz[jfirst - 1] - 1) + (lenj - L);

  int m = 0;
  if (L == k.len) {
    m = k.ncols;  // the tail is the target's whole list
  } else {
    while (m < L && tail[m] <= k.last) ++m;
  }
  if (jlast > first_schur) {  // an unfactored Schur panel updates nothing
    count(&UpdateKernelCounts::skipped);
    return m;
  }
  if (L == k.len) {
    count(&UpdateKernelCounts::coinciding);
    blas::gemm<T>('N', kAdj, L, k.ncols, ncolj, T(-1), x, lenj, x, lenj, T(1), k.panel, k.len);
    return m;
  }
  if (ncolj == 1) {
    count(&UpdateKernelCounts::rank1);
    scatter_rank1<true>(m, L, x, tail, f.xlnz, w.indmap, f.lnz);
    return m;
  }
  const int *indmap = w.indmap;
  if (indmap[tail[0] - 1] - indmap[tail[L - 1] - 1] >= L) {
    // The tail has gaps in the target's list: compute the block in the
    // buffer and add it through the gathered positions.
    if (static_cast<std::int64_t>(m) * L > w.tmpsiz) {
      *iflag = -2;
      return m;
    }
    count(&UpdateKernelCounts::buffered);
    for (int i = 0; i < L; ++i) w.relind[i] = indmap[tail[i] - 1];
    blas::gemm<T>('N', kAdj, L, m, ncolj, T(-1), x, lenj, x, lenj, T(1), w.temp, L);
    scatter_add<true>(L, m, w.relind, k.first, k.len, f.xlnz, f.lnz, w.temp);
  } else {
    // The tail is a run of the target's list: write straight into the
    // panel from the diagonal entry of its first row on.
    count(&UpdateKernelCounts::direct);
    const int r1 = tail[0];
    T *c = f.lnz + (f.xlnz[r1 - 1] - 1) + (r1 - k.first);
    blas::gemm<T>('N', kAdj, L, m, ncolj, T(-1), x, lenj, x, lenj, T(1), c, k.len);
  }
  return m;
}

// Factors the diagonal block of the target and solves the rows below it.
// Returns false when a pivot is not positive.
template <class T>
bool factor_panel(const Target<T> &k, double *logdet) {
  int info = 0;
  dpotf2_logdet<T>('L', k.ncols, k.panel, k.len, &info, logdet);
  if (info != 0) return false;
  blas::trsm<T>('R', 'L', blas::adjoint_letter<T>(), 'N', k.len - k.ncols, k.ncols, T(1), k.panel,
                k.len, k.panel + k.ncols, k.len);
  return true;
}

}  // namespace

void set_update_kernel_counts(UpdateKernelCounts *counts) {
  g_kernel_counts = counts;
}

template <class T>
std::int64_t BLKL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                              FactorScalars &sc) {
  constexpr bool kHermitian = scalar_traits<T>::is_complex;
  const int first_schur = f.n - f.nschur;  // columns beyond it stay unfactored
  double *logdet = sc.determinant == 1 ? sc.logdet : nullptr;
  auto make = [&](int ksup) {
    Target<T> k;
    k.first = f.xsuper[ksup - 1];
    k.last = f.xsuper[ksup] - 1;
    k.ncols = k.last - k.first + 1;
    k.len = static_cast<int>(f.xlnz[k.first] - f.xlnz[k.first - 1]);
    k.panel = f.lnz + (f.xlnz[k.first - 1] - 1);
    return k;
  };
  auto update = [&](const Target<T> &k, int jsup, int L) {
    return apply_update(f, k, jsup, L, first_schur, work, &sc.iflag);
  };
  auto factor = [&](const Target<T> &k) { return factor_panel(k, logdet) ? 0 : -1; };
  left_looking(f, in, work, sc, kHermitian, false, logdet, make, update, factor);
  const std::int64_t schur = symmetric_schur_entries(f);
  sc.schur_nnz = schur;
  return schur;
}

template <class T>
std::int64_t BLKL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                               FactorScalars &sc) {
  return BLKL_SEQ_VELMORA(f, in, work, sc);
}

// Real symmetric (double) and complex Hermitian (zcomplex: A = L L^H).
template std::int64_t BLKL_SEQ_VELMORA<double>(const FactorView<double> &, const MatrixInput &,
                                               FactorWork<double> &, FactorScalars &);
template std::int64_t BLKL_RISC_VELMORA<double>(const FactorView<double> &, const MatrixInput &,
                                                FactorWork<double> &, FactorScalars &);
template std::int64_t BLKL_SEQ_VELMORA<zcomplex>(const FactorView<zcomplex> &, const MatrixInput &,
                                                 FactorWork<zcomplex> &, FactorScalars &);
template std::int64_t BLKL_RISC_VELMORA<zcomplex>(const FactorView<zcomplex> &, const MatrixInput &,
                                                  FactorWork<zcomplex> &, FactorScalars &);

}  // namespace vm
