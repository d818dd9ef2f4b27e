// ublkl_risc.cpp - supernodal left-looking Cholesky (see blkl.h).
//
// For each target supernode in turn: its panel is prepared from A, every
// descendant waiting on its chain applies its update, the diagonal block is
// factored and the rows below it solved, and the supernode is linked on the
// chain of the next supernode its rows reach.  An update is L21 L21^H,
// both factors read from the descendant's tail; what it covers and how it
// lands in the panels is in symmetric_update.h.
//
// Chains.  link is indexed by first columns: link(first of K) heads the
// chain of supernodes that still owe K an update, link(first of J) is J's
// successor on the chain it sits on.  A supernode is factored before it is
// put on any chain, and by then its own chain is empty, so the one slot
// serves both uses.  length(J) counts the rows of J's list not yet consumed
// by an ancestor; they are the tail of the list.
#include <cassert>
#include <cstdint>
#include <utility>

#include "factor/blas.h"
#include "factor/blkl.h"
#include "factor/dense_kernels.h"
#include "factor/left_looking.h"
#include "factor/panel.h"
#include "factor/symmetric_update.h"
#include "factor/update_kernels.h"

namespace vm {

namespace {

UpdateKernelCounts *g_kernel_counts = nullptr;

// The target supernode of the loop.
template <class T>
struct Target {
  int first = 0;
  int last = 0;
  int ncols = 0;
  int len = 0;  // rows of its list and leading dimension of its panel
  T *panel = nullptr;
  int reach = 0;       // last column an update applied at this target covers
  bool alone = false;  // a descendant's earlier pieces do not come along
};

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
  const bool determinant = sc.determinant == 1;
  auto make = [&](int ksup) {
    Target<T> k;
    k.first = f.xsuper[ksup - 1];
    k.last = f.xsuper[ksup] - 1;
    k.ncols = k.last - k.first + 1;
    k.len = static_cast<int>(f.xlnz[k.first] - f.xlnz[k.first - 1]);
    k.panel = f.lnz + (f.xlnz[k.first - 1] - 1);
    k.reach = reach_of(f, ksup);
    return k;
  };
  // The second factor of an update is the descendant's tail itself; a
  // lone column scatters its rank-one update directly.
  auto tail_rows = [](const Piece<T> &p, int, T *) {
    return std::pair<const T *, int>(p.x, p.lenj);
  };
  auto ops = [&](LoopTask<T> &task, auto &&visit) {
    double *logdet = determinant ? &task.sums.logdet : nullptr;
    auto rank1 = [&](const Piece<T> &p, int m, T *) {
      scatter_rank1(m, p.L, p.x, p.tail, f.xlnz, task.work.indmap, f.lnz);
    };
    auto update = [&](const Target<T> &k, int jsup, int L) {
      return apply_symmetric_update<T, blas::adjoint_letter<T>()>(
          f, k, jsup, L, first_schur, false, task.work, &task.status, g_kernel_counts, tail_rows,
          rank1);
    };
    auto factor = [&](const Target<T> &k) { return factor_panel(k, logdet) ? 0 : -1; };
    visit(make, update, factor);
  };
  run_loop(f, in, work, LoopOptions{kHermitian, true, determinant}, sc, ops);

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
