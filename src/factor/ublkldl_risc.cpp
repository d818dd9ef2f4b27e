// ublkldl_risc.cpp - supernodal left-looking LDL^T with pivoting inside the
// diagonal blocks (see blkldl.h).
//
// The loop is that of the Cholesky family (ublkl_risc.cpp): a target's
// panel is prepared from A, the descendants waiting on its chain apply
// their updates, the diagonal block is factored, the rows below solved, and
// the supernode linked on to the next target its rows reach.  What differs:
//  - an update is L21 D L21^T: the second factor of the product is the
//    D-scaled copy (1x1 or 2x2 blocks) of the descendant's first m tail
//    rows, written into temp (behind the result block on the buffered
//    path); how an update covers and reaches the panels is the Cholesky
//    family's (symmetric_update.h).
//  - the diagonal block is factored by a pivoting kernel that perturbs
//    small pivots and counts inertia, and the pivots stay inside the block,
//    so the symbolic structure never changes.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include "factor/blas.h"
#include "factor/blkldl.h"
#include "factor/blkldl_mpp.h"
#include "factor/dense_kernels.h"
#include "factor/left_looking.h"
#include "factor/panel.h"
#include "factor/symmetric_update.h"
#include "factor/update_kernels.h"
#include "factor/workspace.h"

namespace vm {

namespace {

UpdateKernelCounts *g_ldl_counts = nullptr;

template <class T>
struct Target {
  int first = 0;
  int last = 0;
  int ncols = 0;
  int len = 0;  // rows of its list and leading dimension of its panel
  T *panel = nullptr;
  int *pivot = nullptr;  // its block-relative exchanges
  int reach = 0;         // last column an update applied at this target covers
  bool alone = false;    // a descendant's earlier pieces do not come along
};

// W = X D for the first m rows X of a descendant's tail (leading dimension
// ldx) and its pivots D, read from its diagonal block (leading dimension
// ldx) and pivots; W is m x ncolj with leading dimension m.  A 2x2 pivot
// on columns c, c+1 has d11, d21, d22 on the diagonal and first
// subdiagonal; its upper entry is d21 (conj(d21) on the Hermitian form).
template <class T, bool kHermitian>
void scaled_copy(int m, int ncolj, const T *x, std::int64_t ldx, const T *blk, const int *piv,
                 bool diagonal_mode, T *w) {
  for (int c = 0; c < ncolj;) {
    const T *xc = x + c * ldx;
    T *wc = w + static_cast<std::int64_t>(c) * m;
    const T d11 = blk[c + c * ldx];
    if (diagonal_mode || piv[c] > 0 || c + 1 == ncolj) {
      for (int i = 0; i < m; ++i) wc[i] = xc[i] * d11;
      c += 1;
    } else {
      const T d21 = blk[c + 1 + c * ldx], d12 = conj_if<kHermitian>(d21);
      const T d22 = blk[c + 1 + (c + 1) * ldx];
      const T *xd = xc + ldx;
      T *wd = wc + m;
      for (int i = 0; i < m; ++i) {
        const T a = xc[i], b = xd[i];
        wc[i] = a * d11 + b * d21;
        wd[i] = a * d12 + b * d22;
      }
      c += 2;
    }
  }
}

// Diagonal pivoting: the block as a full square, LU with diagonal pivots
// (U = D L^T), then the rows below through the same column exchanges and
// L21 = A21 P U^-1.  Returns the kernel's info.
template <class T, bool kHermitian>
int factor_diagonal_mode(const Target<T> &k, double eps, PivotSums &sums, bool determinant) {
  const int nc = k.ncols;
  const std::int64_t ld = k.len;
  T *a = k.panel;
  for (int j = 0; j < nc; ++j)
    for (int i = j + 1; i < nc; ++i) a[j + i * ld] = conj_if<kHermitian>(a[i + j * ld]);
  int info = 0;
  if constexpr (std::is_same_v<T, float>) {
    // The single-precision members take the blocked driver.
    SGETRF_P(nc, nc, a, k.len, k.pivot, &info, &sums.perturbed, &sums.npos, &sums.nneg, eps,
             determinant ? &sums.logdet : nullptr);
  } else if (determinant) {
    dgetf2_diagpiv_logdet<T, kHermitian>(nc, nc, a, k.len, k.pivot, &info, &sums.perturbed,
                                         &sums.npos, &sums.nneg, eps, &sums.logdet);
  } else {
    dgetf2_diagpiv<T, kHermitian>(nc, nc, a, k.len, k.pivot, &info, &sums.perturbed, &sums.npos,
                                  &sums.nneg, eps);
  }
  const int below = k.len - nc;
  if (info != 0 || below == 0) return info;
  for (int j = 0; j + 1 < nc; ++j) {
    const int p = std::abs(k.pivot[j]) - 1;
    if (p != j) blas::swap<T>(below, a + nc + j * ld, 1, a + nc + p * ld, 1);
  }
  blas::trsm<T>('R', 'U', 'N', 'N', below, nc, T(1), a, k.len, a + nc, k.len);
  return 0;
}

// Bunch-Kaufman: dsytf2_pert on the lower triangle, then the rows below
// through temp: L21 = A21 P L^-T D^-1 by dsytrs_half_rows (level 3; the
// strict upper triangle of the block, unused by this layout, receives the
// transposed unit factor).  Returns 0, the kernels' info, or -2 when temp
// is too small for the rows below.
template <class T, bool kHermitian>
int factor_bunch_kaufman(const Target<T> &k, double eps, PivotSums &sums, bool determinant,
                         const TaskWork<T> &w) {
  const int nc = k.ncols;
  T *a = k.panel;
  int info = 0;
  if (determinant) {
    dsytf2_pert_logdet<T, kHermitian>('L', nc, a, k.len, k.pivot, &info, &sums.perturbed,
                                      &sums.npos, &sums.nneg, eps, &sums.logdet);
  } else {
    dsytf2_pert<T, kHermitian>('L', nc, a, k.len, k.pivot, &info, &sums.perturbed, &sums.npos,
                               &sums.nneg, eps);
  }
  const int below = k.len - nc;
  if (info != 0 || below == 0) return info;
  if (panel_temp_entries(nc, below) > w.tmpsiz) return -2;
  dsytrs_half_rows<T, kHermitian>(nc, below, a, k.len, k.pivot, a + nc, k.len, w.temp, below,
                                  w.relind, &info);
  return info;
}

// Unit pivots: the supernode is a run of one-column pivot blocks.  Column
// by column, without exchanges, each pivot is tested as a block of one
// column is (|d| <= eps: replaced by +-value and counted; the magnitude
// is |re| + |im| on complex symmetric blocks), and the columns after it in
// the block are updated by the outer product l (d l)^T; then the rows below
// are solved at once, L21 = A21 L11^-T D^-1.  The factor is stored as the
// Bunch-Kaufman form stores 1x1 pivots, so updates and solves read it as
// such.  Returns 0.
template <class T, bool kHermitian>
int factor_unit_pivots(const Target<T> &k, double eps, PivotSums &sums, bool determinant) {
  using R = real_of<T>;
  constexpr char kAdj = kHermitian ? 'C' : 'T';
  const int nc = k.ncols;
  const std::int64_t ld = k.len;
  T *a = k.panel;
  const R value = static_cast<R>(eps != 0.0 ? std::fabs(eps) : 1e-8);
  for (int j = 0; j < nc; ++j) {
    T *cj = a + j * ld;  // column j of the block, from its diagonal down: cj[j..nc)
    if constexpr (kHermitian) cj[j] = T(real_part(cj[j]));
    R mag;
    if constexpr (kHermitian || !scalar_traits<T>::is_complex) {
      mag = std::abs(real_part(cj[j]));
    } else {
      mag = std::abs(cj[j].real()) + std::abs(cj[j].imag());
    }
    // A magnitude that is not a number compares as 0 here, as in the
    // one-column kernel: the pivot is replaced.
    if (eps >= static_cast<double>(mag > R(0) ? mag : R(0))) {
      ++sums.perturbed;
      cj[j] = real_part(cj[j]) < 0 ? T(-value) : T(value);
    }
    const T d = cj[j];
    if (not_a_number(d)) ++sums.perturbed;
    if (determinant) sums.logdet += std::log(static_cast<double>(abs_of(d)));
    if (real_part(d) < 0) {
      ++sums.nneg;
    } else {
      ++sums.npos;
    }
    const T r = kHermitian ? T(R(1) / real_part(d)) : T(1) / d;
    // a(i, c) -= l_ij * conj(d l_cj) for j < c <= i < nc, column after column.
    for (int c = j + 1; c < nc; ++c) {
      const T w = conj_if<kHermitian>(cj[c]);  // d l_cj before scaling
      const T wl = w * r;
      T *cc = a + c * ld;
      for (int i = c; i < nc; ++i) cc[i] -= cj[i] * wl;
    }
    for (int i = j + 1; i < nc; ++i) cj[i] *= r;
    k.pivot[j] = j + 1;
  }
  const int below = k.len - nc;
  if (below == 0) return 0;
  T *a21 = a + nc;
  blas::trsm<T>('R', 'L', kAdj, 'U', below, nc, T(1), a, k.len, a21, k.len);
  for (int j = 0; j < nc; ++j) {
    const T r = kHermitian ? T(R(1) / real_part(a[j + j * ld])) : T(1) / a[j + j * ld];
    T *col = a21 + j * ld;
    for (int i = 0; i < below; ++i) col[i] *= r;
  }
  return 0;
}

// The family's loop; `partitioned` runs it through the block-partitioned
// driver (blkldl_mpp.h) instead of run_loop.
template <class T, bool kHermitian>
std::int64_t ldl_loop(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                      FactorScalars &sc, bool partitioned = false) {
  constexpr char kAdj = kHermitian ? 'C' : 'T';
  const int first_schur = f.n - f.nschur;
  const bool unit_pivots = sc.pivot_mode == kUnitPivots;
  const bool diagonal_mode = !unit_pivots && (sc.pivot_mode & 1) != 0;
  const bool determinant = sc.determinant == 1;
  auto make = [&](int ksup) {
    Target<T> k;
    k.first = f.xsuper[ksup - 1];
    k.last = f.xsuper[ksup] - 1;
    k.ncols = k.last - k.first + 1;
    k.len = static_cast<int>(f.xlnz[k.first] - f.xlnz[k.first - 1]);
    k.panel = f.lnz + (f.xlnz[k.first - 1] - 1);
    k.pivot = f.pivot + (k.first - 1);
    k.reach = reach_of(f, ksup);
    return k;
  };
  // The second factor of an update is the D-scaled copy of the tail's
  // first m rows; a lone column scatters its rank-one update directly.
  auto scaled = [&](const Piece<T> &p, int m, T *buffer) {
    scaled_copy<T, kHermitian>(m, p.ncolj, p.x, p.lenj, p.blk, p.piv, diagonal_mode, buffer);
    return std::pair<const T *, int>(buffer, m);
  };
  auto ops = [&](LoopTask<T> &task, auto &&visit) {
    auto rank1 = [&](const Piece<T> &p, int m, T *buffer) {
      const T d = p.blk[0];
      for (int c = 0; c < m; ++c) buffer[c] = d * conj_if<kHermitian>(p.x[c]);
      scatter_rank1(m, p.L, p.x, buffer, p.tail, f.xlnz, task.work.indmap, f.lnz);
    };
    auto update = [&](const Target<T> &k, int jsup, int L) {
      return apply_symmetric_update<T, kAdj>(f, k, jsup, L, first_schur, true, task.work,
                                             &task.status, g_ldl_counts, scaled, rank1);
    };
    auto factor = [&](const Target<T> &k) {
      const int status =
          unit_pivots ? factor_unit_pivots<T, kHermitian>(k, sc.eps, task.sums, determinant)
          : diagonal_mode
              ? factor_diagonal_mode<T, kHermitian>(k, sc.eps, task.sums, determinant)
              : factor_bunch_kaufman<T, kHermitian>(k, sc.eps, task.sums, determinant, task.work);
      return status == 0 ? 0 : status == -2 ? -2 : -1;
    };
    visit(make, update, factor);
  };
  const LoopOptions opt{kHermitian, true, determinant};
  if (partitioned) {
    run_block_partitioned(f, in, work, opt, sc, ops);
  } else {
    run_loop(f, in, work, opt, sc, ops);
  }

  const std::int64_t schur = symmetric_schur_entries(f);
  sc.schur_nnz = schur;
  return schur;
}

}  // namespace

void set_ldl_update_kernel_counts(UpdateKernelCounts *counts) {
  g_ldl_counts = counts;
}

template <class T>
std::int64_t BLKLDL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                FactorScalars &sc) {
  return ldl_loop<T, false>(f, in, work, sc);
}

template <class T>
std::int64_t BLKLDL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in, FactorWork<T> &work,
                                 FactorScalars &sc) {
  return BLKLDL_SEQ_VELMORA(f, in, work, sc);
}

template <class T>
std::int64_t BLKLDL_EXACT_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                  FactorWork<T> &work, FactorScalars &sc) {
  work.fixed_order = true;
  return ldl_loop<T, false>(f, in, work, sc);
}

template <class T>
std::int64_t BLKLDL_MPP_ENTRY_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                      FactorWork<T> &work, FactorScalars &sc) {
  return ldl_loop<T, false>(f, in, work, sc, true);
}

template <class T>
std::int64_t CH_BLKLDL_SEQ_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                   FactorWork<T> &work, FactorScalars &sc) {
  static_assert(scalar_traits<T>::is_complex, "the Hermitian member takes a complex type");
  return ldl_loop<T, true>(f, in, work, sc);
}

template <class T>
std::int64_t CH_BLKLDL_RISC_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                    FactorWork<T> &work, FactorScalars &sc) {
  return CH_BLKLDL_SEQ_VELMORA(f, in, work, sc);
}

template <class T>
std::int64_t CH_BLKLDL_EXACT_VELMORA(const FactorView<T> &f, const MatrixInput &in,
                                     FactorWork<T> &work, FactorScalars &sc) {
  work.fixed_order = true;
  return CH_BLKLDL_SEQ_VELMORA(f, in, work, sc);
}

#define VELMORA_LDL_MEMBER(NAME, T)                                                          \
  template std::int64_t NAME<T>(const FactorView<T> &, const MatrixInput &, FactorWork<T> &, \
                                FactorScalars &);

// Real symmetric (double; float: the _32_ members), complex symmetric
// (zcomplex, no conjugation) and complex Hermitian.
VELMORA_LDL_MEMBER(BLKLDL_SEQ_VELMORA, double)
VELMORA_LDL_MEMBER(BLKLDL_RISC_VELMORA, double)
VELMORA_LDL_MEMBER(BLKLDL_MPP_ENTRY_VELMORA, double)
VELMORA_LDL_MEMBER(BLKLDL_SEQ_VELMORA, float)
VELMORA_LDL_MEMBER(BLKLDL_RISC_VELMORA, float)
VELMORA_LDL_MEMBER(BLKLDL_EXACT_VELMORA, float)
VELMORA_LDL_MEMBER(BLKLDL_SEQ_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(BLKLDL_RISC_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(CH_BLKLDL_SEQ_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(CH_BLKLDL_RISC_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(BLKLDL_EXACT_VELMORA, double)
VELMORA_LDL_MEMBER(BLKLDL_EXACT_VELMORA, zcomplex)
VELMORA_LDL_MEMBER(CH_BLKLDL_EXACT_VELMORA, zcomplex)

#undef VELMORA_LDL_MEMBER

}  // namespace vm
