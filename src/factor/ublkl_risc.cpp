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

// Puts the supernode whose first column is jfirst at the head of the chain
// of the supernode whose first column is tfirst.
inline void push_on_chain(int *link, int tfirst, int jfirst) {
  link[jfirst - 1] = link[tfirst - 1];
  link[tfirst - 1] = jfirst;
}

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
  const int n = f.n;
  const int first_schur = n - f.nschur;  // columns beyond it stay unfactored
  int *link = work.link;
  int *length = work.length;
  double *logdet = sc.determinant == 1 ? sc.logdet : nullptr;

  parallel_fill(link, n, 0);
  parallel_fill(length, f.nsuper, 0);
  parallel_fill(work.temp, work.tmpsiz, T(0));

  for (int ksup = 1; ksup <= f.nsuper && sc.iflag == 0; ++ksup) {
    Target<T> k;
    k.first = f.xsuper[ksup - 1];
    k.last = f.xsuper[ksup] - 1;
    k.ncols = k.last - k.first + 1;
    k.len = static_cast<int>(f.xlnz[k.first] - f.xlnz[k.first - 1]);
    k.panel = f.lnz + (f.xlnz[k.first - 1] - 1);

    prepare_panel(ksup, f, in, work.indmap, kHermitian, logdet);

    // Updates of the descendants waiting on this supernode's chain.
    const int nmod = work.nmod[ksup - 1];
    for (int u = 0; u < nmod; ++u) {
      const int jfirst = link[k.first - 1];
      assert(jfirst > 0 && "update chain shorter than nmod");
      link[k.first - 1] = link[jfirst - 1];
      const int jsup = f.snode[jfirst - 1];
      const int L = length[jsup - 1];
      const int m = apply_update(f, k, jsup, L, first_schur, work, &sc.iflag);
      if (sc.iflag != 0) break;
      length[jsup - 1] = L - m;
      if (L > m) {
        const int next_row = f.lindx[f.xlindx[jsup] - 1 - L + m];
        push_on_chain(link, f.xsuper[f.snode[next_row - 1] - 1], jfirst);
      }
    }
    if (sc.iflag != 0) break;

    // A Schur supernode keeps what it has received.
    if (k.last <= first_schur && !factor_panel(k, logdet)) {
      sc.iflag = -1;
      break;
    }
    length[ksup - 1] = k.len - k.ncols;
    if (k.len > k.ncols) {
      const int next_row = f.lindx[f.xlindx[ksup - 1] - 1 + k.ncols];
      push_on_chain(link, f.xsuper[f.snode[next_row - 1] - 1], k.first);
    }
  }

  // Entries of the Schur block: the lower trapezoid of each Schur panel.
  std::int64_t schur = 0;
  if (f.nschur > 0) {
    for (int s = 1; s <= f.nsuper; ++s) {
      const std::int64_t c = f.xsuper[s] - f.xsuper[s - 1];
      if (f.xsuper[s] - 1 <= first_schur) continue;
      const std::int64_t r = f.xlindx[s] - f.xlindx[s - 1];
      schur += c * r - c * (c - 1) / 2;
    }
  }
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
