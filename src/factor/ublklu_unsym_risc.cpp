// ublklu_unsym_risc.cpp - supernodal left-looking LU (see blklu.h).
//
// The loop is the Cholesky one (ublkl_risc.cpp): each target supernode is
// prepared from A (lnz and unz), updated by the descendants waiting on its
// chain, factored, and linked on to the next supernode its rows reach.  An
// update takes two products where Cholesky takes one: the descendant's L
// rows times its U rows at the target's columns go into lnz (the whole
// diagonal block and the rows below it), and its U rows below the target's
// columns times its L rows at those columns go into unz.
//
// A descendant J with tail rows R (the L rows of its list not yet consumed)
// and the first m of them inside the target's columns C contributes
//   lnz(R, C) -= L_J(R, :) U_J(:, C)   = x  u_m^T   (x: L rows, u: unz rows)
//   unz(R', C) -= U_J(:, R')^T L_J(C, :)^T = u' x_m^T (R': R after its m)
// with x and u both read from the tail on, columns of J as columns.
#include <cassert>
#include <cmath>
#include <cstdint>
#include <utility>

#include "factor/blas.h"
#include "factor/blklu.h"
#include "factor/dense_kernels.h"
#include "factor/left_looking.h"
#include "factor/panel.h"
#include "factor/update_kernels.h"
#include "factor/update_kernels_unsym.h"
#include "factor/workspace.h"

namespace vm {

namespace {

UpdateKernelCounts *g_lu_counts = nullptr;

inline void count(std::int64_t UpdateKernelCounts::*field) {
  if (g_lu_counts != nullptr) ++(g_lu_counts->*field);
}

// The target supernode of the loop: its lnz panel (len x ncols, leading
// dimension len) and its unz panel (len-ncols x ncols, leading dimension
// uld = len-ncols).
template <class T>
struct Target {
  int first = 0;
  int last = 0;
  int ncols = 0;
  int len = 0;
  int uld = 0;
  T *panel = nullptr;
  T *upanel = nullptr;
};

// Exchanges columns j and piv(j) of an m-row matrix (leading dimension ld)
// for j = 1 .. ncols-1 in turn, piv one-based and block-relative.
template <class T>
void exchange_columns(int m, int ncols, const int *piv, T *a, std::int64_t ld) {
  for (int j = 0; j + 1 < ncols; ++j) {
    const int p = (piv[j] < 0 ? -piv[j] : piv[j]) - 1;
    if (p == j) continue;
    T *cj = a + j * ld;
    T *cp = a + p * ld;
    for (int i = 0; i < m; ++i) std::swap(cj[i], cp[i]);
  }
}

// Applies the update of descendant jsup through the L rows of its tail to
// the target.  Returns m, the tail rows that are columns of the target;
// sets *iflag to -2 when the buffer is too small.
template <class T>
int apply_update(const FactorView<T> &f, const Target<T> &k, int jsup, int L, int first_schur,
                 const TaskWork<T> &w, int *iflag) {
  const int jfirst = f.xsuper[jsup - 1];
  const int jlast = f.xsuper[jsup] - 1;
  const int ncolj = jlast - jfirst + 1;
  const int lenj = static_cast<int>(f.xlindx[jsup] - f.xlindx[jsup - 1]);
  const int uldj = lenj - ncolj;
  const int *tail = f.lindx + (f.xlindx[jsup] - 1 - L);
  const T *x = f.lnz + (f.xlnz[jfirst - 1] - 1) + (lenj - L);
  const T *u = f.unz + (f.xunz[jfirst - 1] - 1) + (uldj - L);

  int m = 0;
  if (L == k.len) {
    m = k.ncols;
  } else {
    while (m < L && tail[m] <= k.last) ++m;
  }
  if (jlast > first_schur) {  // an unfactored Schur panel updates nothing
    count(&UpdateKernelCounts::skipped);
    return m;
  }
  if (L == k.len) {
    count(&UpdateKernelCounts::coinciding);
    blas::gemm<T>('N', 'T', L, m, ncolj, T(-1), x, lenj, u, uldj, T(1), k.panel, k.len);
    blas::gemm<T>('N', 'T', L - m, m, ncolj, T(-1), u + m, uldj, x, lenj, T(1), k.upanel, k.uld);
    return m;
  }
  if (ncolj == 1) {
    count(&UpdateKernelCounts::rank1);
    scatter_rank1_pair(m, 0, L, x, u, tail, f.xlnz, w.indmap, f.lnz);
    scatter_rank1_pair(m, m, L, u, x, tail, f.xunz, w.indmap, f.unz);
    return m;
  }
  const int *indmap = w.indmap;
  if (indmap[tail[0] - 1] - indmap[tail[L - 1] - 1] >= L) {
    // Gaps in the target's list: both products through the buffer, split
    // along the long runs of the target's rows so that blocks dense in a
    // panel are written there directly.  The L product covers every tail
    // row at the target's columns, the U product the rows after them.
    if (update_temp_entries(m, L, 0) > w.tmpsiz) {
      *iflag = -2;
      return m;
    }
    count(&UpdateKernelCounts::buffered);
    BlockRuns runs;
    find_runs(L, m, tail, indmap, f.snode, w.relind, &runs);
    if (runs.nrows > 0 && runs.ncols > 0) count(&UpdateKernelCounts::split);
    const int *rel = w.relind;
    // One product: rows [row0, L) of `a` times the first m rows of `b`
    // into the factor array dst (column ends by xptr), whose target panel
    // holds the row at list position q at panel[q - skip] (leading
    // dimension ld).
    auto product = [&](int row0, const T *a, int lda, const T *b, int ldb, const std::int64_t *xptr,
                       T *dst, T *panel, int ld, int skip) {
      auto at = [&](int i) { return k.len - 1 - rel[i]; };  // list position of tail row i
      for_each_part(
          L, m, runs, row0,
          [&](int r0, int r1, int c0, int c1) {
            const int nr = r1 - r0;
            blas::gemm<T>('N', 'T', nr, c1 - c0, ncolj, T(-1), a + r0, lda, b + c0, ldb, T(0),
                          w.temp, nr);
            scatter_add_rows(nr, c1 - c0, rel + r0, rel + c0, k.first, k.len, xptr, dst, w.temp);
          },
          [&](int r0, int r1, int c0, int c1) {
            T *c = panel + static_cast<std::int64_t>(at(c0)) * ld + (at(r0) - skip);
            blas::gemm<T>('N', 'T', r1 - r0, c1 - c0, ncolj, T(-1), a + r0, lda, b + c0, ldb, T(1),
                          c, ld);
          });
    };
    product(0, x, lenj, u, uldj, f.xlnz, f.lnz, k.panel, k.len, 0);
    product(m, u, uldj, x, lenj, f.xunz, f.unz, k.upanel, k.uld, k.ncols);
  } else {
    // The tail is a run of the target's list, from the diagonal of its
    // first row r1: its rows after the m inside the block are the first
    // rows of unz.
    count(&UpdateKernelCounts::direct);
    const int r1 = tail[0];
    T *c = f.lnz + (f.xlnz[r1 - 1] - 1) + (r1 - k.first);
    blas::gemm<T>('N', 'T', L, m, ncolj, T(-1), x, lenj, u, uldj, T(1), c, k.len);
    if (L > m) {
      T *cu = f.unz + (f.xunz[r1 - 1] - 1) + (r1 - k.first + m - k.ncols);
      blas::gemm<T>('N', 'T', L - m, m, ncolj, T(-1), u + m, uldj, x, lenj, T(1), cu, k.uld);
    }
  }
  return m;
}

// Factors the diagonal block of the target and solves the rows below it
// (L21 = A21 Q U11^-1) and the unz panel (U12^T = (L11^-1 P A12)^T).
// Returns false when the kernel reports a failure.
template <bool kGeneral, class T>
bool factor_panel(const Target<T> &k, int *pivot, int *pivot_col, double eps, PivotSums &sums) {
  int info = 0;
  if constexpr (kGeneral) {
    dgetrf_p<T>(k.ncols, k.ncols, k.panel, k.len, pivot, pivot_col, &sums.perturbed, eps, &info);
  } else {
    info = blas::getrf<T>(k.ncols, k.ncols, k.panel, k.len, pivot);
    // Pivots that values which are not numbers reached are counted with
    // the perturbed ones (this form perturbs none).
    for (int i = 0; info == 0 && i < k.ncols; ++i)
      if (not_a_number(k.panel[i + static_cast<std::ptrdiff_t>(i) * k.len])) ++sums.perturbed;
  }
  if (info != 0) return false;
  if (k.uld == 0) return true;
  T *below = k.panel + k.ncols;
  if constexpr (kGeneral) exchange_columns(k.uld, k.ncols, pivot_col, below, k.len);
  blas::trsm<T>('R', 'U', 'N', 'N', k.uld, k.ncols, T(1), k.panel, k.len, below, k.len);
  exchange_columns(k.uld, k.ncols, pivot, k.upanel, k.uld);
  blas::trsm<T>('R', 'L', 'T', 'U', k.uld, k.ncols, T(1), k.panel, k.len, k.upanel, k.uld);
  return true;
}

template <bool kGeneral, class T>
std::int64_t lu_loop(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                     FactorScalars &sc) {
  assert(f.unz != nullptr && f.xunz != nullptr && f.pivot != nullptr);
  assert(!kGeneral || f.pivot_col != nullptr);
  const int first_schur = f.n - f.nschur;
  auto make = [&](int ksup) {
    Target<T> k;
    k.first = f.xsuper[ksup - 1];
    k.last = f.xsuper[ksup] - 1;
    k.ncols = k.last - k.first + 1;
    k.len = static_cast<int>(f.xlnz[k.first] - f.xlnz[k.first - 1]);
    k.uld = k.len - k.ncols;
    k.panel = f.lnz + (f.xlnz[k.first - 1] - 1);
    k.upanel = f.unz + (f.xunz[k.first - 1] - 1);
    return k;
  };
  auto ops = [&](LoopTask<T> &task, auto &&visit) {
    auto update = [&](const Target<T> &k, int jsup, int L) {
      return apply_update(f, k, jsup, L, first_schur, task.work, &task.status);
    };
    auto factor = [&](const Target<T> &k) {
      return factor_panel<kGeneral>(k, f.pivot + (k.first - 1),
                                    kGeneral ? f.pivot_col + (k.first - 1) : nullptr, sc.eps,
                                    task.sums)
                 ? 0
                 : -1;
    };
    visit(make, update, factor);
  };
  run_loop(f, in, work, LoopOptions{false, false, sc.determinant == 1}, sc, ops);

  // Entries of the Schur block: the square block and the L and U parts
  // beside it, (2 r - c) c per supernode.
  std::int64_t schur = 0;
  for (int s = f.nsuper; s >= 1 && f.xsuper[s] - 1 > first_schur; --s) {
    const std::int64_t c = f.xsuper[s] - f.xsuper[s - 1];
    const std::int64_t r = f.xlindx[s] - f.xlindx[s - 1];
    schur += (2 * r - c) * c;
  }
  sc.schur_nnz = schur;
  return schur;
}

}  // namespace

void set_lu_update_kernel_counts(UpdateKernelCounts *counts) {
  g_lu_counts = counts;
}

template <class T>
std::int64_t BLKLU_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                               FactorScalars &sc) {
  return lu_loop<false>(f, in, work, sc);
}

template <class T>
std::int64_t BLKLU_UNSYM_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                     FactorWork<T> &work, FactorScalars &sc) {
  return lu_loop<true>(f, in, work, sc);
}

template <class T>
std::int64_t BLKLU_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                FactorScalars &sc) {
  return BLKLU_SEQ_VELMORA(f, in, work, sc);
}

template <class T>
std::int64_t BLKLU_UNSYM_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                      FactorWork<T> &work, FactorScalars &sc) {
  return BLKLU_UNSYM_SEQ_VELMORA(f, in, work, sc);
}

// Calls visit(u, column, j) for the diagonal entry u of U at position j
// of each factored supernode (column: its first column), up to the first
// Schur column.
template <class T, class Visit>
void for_each_u_diagonal(const FactorView<T> &f, Visit visit) {
  const int first_schur = f.n - f.nschur;
  for (int s = 1; s <= f.nsuper && f.xsuper[s] - 1 <= first_schur; ++s) {
    const int first = f.xsuper[s - 1];
    const std::int64_t len = f.xlnz[first] - f.xlnz[first - 1];
    const T *panel = f.lnz + (f.xlnz[first - 1] - 1);
    for (int j = 0; j < f.xsuper[s] - first; ++j) visit(panel[j + j * len], first, j);
  }
}

template <class T>
double lu_log_determinant(const FactorView<T> &f) {
  double sum = 0.0;
  for_each_u_diagonal(
      f, [&](const T &u, int, int) { sum += std::log(static_cast<double>(abs_of(u))); });
  return sum;
}

template <class T>
double lu_log_determinant_arg(const FactorView<T> &f, bool general) {
  constexpr double kPiSingle = 3.1415927410125732;
  double sum = 0.0;
  for_each_u_diagonal(f, [&](const T &u, int first, int j) {
    if constexpr (scalar_traits<T>::is_complex) sum += std::atan2(u.imag(), u.real());
    if (f.pivot[first - 1 + j] != j + 1) sum += kPiSingle;
    if (general && f.pivot_col[first - 1 + j] != j + 1) sum += kPiSingle;
  });
  return sum;
}

#define VELMORA_LU_MEMBERS(T)                                                                   \
  template std::int64_t BLKLU_SEQ_VELMORA<T>(const FactorView<T> &, const MatrixInput &,        \
                                             FactorWork<T> &, FactorScalars &);                 \
  template std::int64_t BLKLU_UNSYM_SEQ_VELMORA<T>(const FactorView<T> &, const MatrixInput &,  \
                                                   FactorWork<T> &, FactorScalars &);           \
  template std::int64_t BLKLU_RISC_VELMORA<T>(const FactorView<T> &, const MatrixInput &,       \
                                              FactorWork<T> &, FactorScalars &);                \
  template std::int64_t BLKLU_UNSYM_RISC_VELMORA<T>(const FactorView<T> &, const MatrixInput &, \
                                                    FactorWork<T> &, FactorScalars &);          \
  template double lu_log_determinant<T>(const FactorView<T> &);                                 \
  template double lu_log_determinant_arg<T>(const FactorView<T> &, bool);

VELMORA_LU_MEMBERS(double)
VELMORA_LU_MEMBERS(float)
VELMORA_LU_MEMBERS(zcomplex)
VELMORA_LU_MEMBERS(ccomplex)

#undef VELMORA_LU_MEMBERS

}  // namespace vm
