// ublkldlslvs1.cpp - forward substitution, D step and backward substitution
// with a supernodal LDL^T factor: column kernels for one right-hand side
// (serial and over subtree tasks) and BLAS 3 kernels for a block of them.
#include "solve/ublkldlslvs1.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "factor/blas.h"
#include "factor/dense_kernels.h"
#include "factor/scalar_traits.h"
#include "solve/solve_walk.h"

namespace vm {

namespace {

using solve_walk::dot_group;
using solve_walk::first_nonzero_supernode;
using solve_walk::Limits;
using solve_walk::limits_of;
using solve_walk::update_group;

// Steps a selector runs.
enum Step : unsigned {
  kForward = 1u,
  kSqrtAfterForward = 2u,
  kDiagonal = 4u,
  kSqrtBeforeBackward = 8u,
  kBackward = 16u,
};

unsigned steps_of(int s, bool block) {
  switch (s) {
    case 0:
      return kForward | kDiagonal | kBackward;
    case 1:
    case -1:
      return kForward;
    case 2:
      return kDiagonal | kBackward;
    case -2:
      return kDiagonal;
    case -3:
      return kBackward;
    case -12:
      return block ? 0u : kForward | kSqrtAfterForward;
    case -23:
      return block ? 0u : kSqrtBeforeBackward | kBackward;
    default:
      return 0u;
  }
}

// The part of supernode k's panel a pass uses: block columns c0 .. c1-1
// and panel rows up to rend-1 (rows beyond the Schur limit cut off).  With
// Bunch-Kaufman pivots c0 is moved to the start of a pivot.
template <class T>
struct Cut {
  const T *L = nullptr;  // the panel, column-major
  std::int64_t ld = 0;
  const int *rows = nullptr;  // its row list, global one-based rows
  const int *piv = nullptr;   // the block's exchanges
  int ncols = 0;
  int c0 = 0, c1 = 0;
  int rend = 0;
  const T *block() const { return L + c0 + c0 * ld; }
  int width() const { return c1 - c0; }
};

template <class T>
bool cut_supernode(const FactorView<T> &f, int k, int lo, int last, bool bk, Cut<T> *c) {
  const int first = f.xsuper[k - 1];
  const int from = std::max(first, lo), to = std::min(f.xsuper[k] - 1, last);
  if (from > to) return false;
  c->ld = f.xlnz[first] - f.xlnz[first - 1];
  c->L = f.lnz + (f.xlnz[first - 1] - 1);
  c->rows = f.lindx + (f.xlindx[k - 1] - 1);
  c->piv = f.pivot + (first - 1);
  c->ncols = f.xsuper[k] - first;
  int c0 = from - first;
  if (bk && c0 > 0) {  // a 2x2 pivot is not split
    int j = 0;
    while (j < c0) j += c->piv[j] < 0 ? 2 : 1;
    c0 = j;
  }
  c->c0 = c0;
  c->c1 = to - first + 1;
  if (c->c0 >= c->c1) return false;
  int rend = static_cast<int>(c->ld);
  while (rend > c->c1 && c->rows[rend - 1] > last) --rend;
  c->rend = rend;
  return true;
}

// Columns are taken eight at a time, then in pairs, then one.
inline int group_width(int left) {
  return left >= 8 ? 8 : (left >= 2 ? 2 : 1);
}
constexpr int kMaxGroup = 8;

// Row exchanges of a block with 1x1 pivots on m right-hand sides (xb is
// block column c0, columns ldx apart): ascending for the forward pass,
// descending for the backward pass.  The list ends at width - 1.
template <class T>
void exchange(const Cut<T> &c, T *xb, std::int64_t ldx, int m, bool ascending) {
  const int end = std::min(c.c1, c.ncols - 1);
  for (int t = c.c0; t < end; ++t) {
    const int j = ascending ? t : end - 1 - (t - c.c0);
    const int p = c.piv[j] - 1;
    if (p == j || p >= c.c1) continue;
    for (int r = 0; r < m; ++r) std::swap(xb[r * ldx + j - c.c0], xb[r * ldx + p - c.c0]);
  }
}

// Forward step of one supernode for one right-hand side: exchanges and the
// unit L of the block (or dsytrs_fwd), then x(i) -= L(i, j) x(j) for the
// rows below.  Rows at or above `split` go to acc (indexed by row): the
// updates a subtree task makes to the top of the tree.
template <class T, bool kHermitian>
void forward_cut(const Cut<T> &c, bool bk, T *x, int off, T *acc, int split) {
  const int *rows = c.rows;
  int rs = c.rend;
  if (acc != nullptr)
    rs = static_cast<int>(std::lower_bound(rows + c.c1, rows + c.rend, split) - rows);
  T *xb = x + (rows[c.c0] - off);
  if (bk) {
    int info = 0;
    dsytrs_fwd<T, kHermitian>('L', c.width(), 1, c.block(), static_cast<int>(c.ld), c.piv + c.c0,
                              xb, c.width(), &info, c.c0);
  } else {
    exchange(c, xb, 0, 1, true);
  }
  for (int j = c.c0; j < c.c1;) {
    const int g = group_width(c.c1 - j);
    const T *Lg = c.L + j * c.ld;
    T v[kMaxGroup];
    for (int a = 0; a < g; ++a) {
      const int cc = j + a;
      v[a] = x[rows[cc] - off];
      if (bk) continue;  // the block is solved already
      const T *Lc = Lg + a * c.ld;
      for (int r = cc + 1; r < j + g; ++r) x[rows[r] - off] -= Lc[r] * v[a];
    }
    const int r0 = bk ? c.c1 : j + g;
    update_group(g, Lg, c.ld, rows, r0, rs, v, x, off);
    if (rs < c.rend) update_group(g, Lg, c.ld, rows, rs, c.rend, v, acc, 1);
    j += g;
  }
}

// Backward step of one supernode for one right-hand side: x(j) -= sum of
// L(i, j) x(i) over the rows below (conjugated L on the Hermitian form),
// then the unit L^T of the block and the exchanges in reverse (or
// dsytrs_bwd).
template <class T, bool kHermitian>
void backward_cut(const Cut<T> &c, bool bk, T *x, int off) {
  const int *rows = c.rows;
  for (int hi = c.c1; hi > c.c0;) {
    const int g = group_width(hi - c.c0);
    const int j = hi - g;
    const T *Lg = c.L + j * c.ld;
    T s[kMaxGroup];
    dot_group<kHermitian>(g, Lg, c.ld, rows, bk ? c.c1 : hi, c.rend, x, off, s);
    for (int a = g - 1; a >= 0; --a) {
      const int cc = j + a;
      T t = x[rows[cc] - off] - s[a];
      if (!bk) {
        const T *Lc = Lg + a * c.ld;
        for (int r = cc + 1; r < hi; ++r) t -= conj_if<kHermitian>(Lc[r]) * x[rows[r] - off];
      }
      x[rows[cc] - off] = t;
    }
    hi = j;
  }
  T *xb = x + (rows[c.c0] - off);
  if (bk) {
    int info = 0;
    dsytrs_bwd<T, kHermitian>('L', c.width(), 1, c.block(), static_cast<int>(c.ld), c.piv + c.c0,
                              xb, c.width(), &info, c.c0);
  } else {
    exchange(c, xb, 0, 1, false);
  }
}

// D step of one supernode on m right-hand sides (xb: block column c0,
// columns ldx apart, ldx at least the width).
template <class T, bool kHermitian>
void diagonal_cut(const Cut<T> &c, bool bk, T *xb, int ldx, int m) {
  if (bk) {
    int info = 0;
    dsytrs_diag<T, kHermitian>('L', c.width(), m, c.block(), static_cast<int>(c.ld), c.piv + c.c0,
                               xb, ldx, &info);
    return;
  }
  for (int r = 0; r < m; ++r) {
    T *xr = xb + static_cast<std::int64_t>(r) * ldx - c.c0;
    for (int j = c.c0; j < c.c1; ++j) xr[j] /= c.L[j + j * c.ld];
  }
}

// The steps between the passes, over every supernode of the solve: the
// square root of D (one right-hand side only) and D itself.
template <class T, bool kHermitian>
void middle_steps(const FactorView<T> &f, const Limits &lim, bool bk, unsigned steps, int m, T *x,
                  int ldx) {
  const unsigned mine = steps & (kSqrtAfterForward | kDiagonal | kSqrtBeforeBackward);
  if (mine == 0) return;
  const int lo = std::min(lim.fw_first, lim.bw_first);
  Cut<T> c;
  for (int k = 1; k <= f.nsuper; ++k) {
    if (f.xsuper[k - 1] > lim.last) break;
    if (!cut_supernode(f, k, lo, lim.last, bk, &c)) continue;
    T *xb = x + (c.rows[c.c0] - lim.off);
    if (mine & kDiagonal) {
      diagonal_cut<T, kHermitian>(c, bk, xb, m > 1 ? ldx : c.width(), m);
    } else if (bk) {
      std::printf("Not implemented! (ublkldlslvs1)\n");
    } else {
      for (int j = c.c0; j < c.c1; ++j) xb[j - c.c0] /= std::sqrt(c.L[j + j * c.ld]);
    }
  }
  if ((mine & kDiagonal) == 0 && bk) std::fflush(stdout);
}

// The LDL^T family in the shared walk of one right-hand side: Bunch-Kaufman
// blocks when bk, conjugated for the Hermitian types.
template <class T, bool kHermitian>
struct LdlWalk {
  using Piece = Cut<T>;
  bool bk;
  bool piece(const FactorView<T> &f, int k, int lo, const Limits &lim, Piece *p) const {
    return cut_supernode(f, k, lo, lim.last, bk, p);
  }
  bool beyond(const FactorView<T> &f, int k, const Limits &lim) const {
    return f.xsuper[k - 1] > lim.last;
  }
  void forward(const Piece &p, T *x, int off, T *acc, int split) const {
    forward_cut<T, kHermitian>(p, bk, x, off, acc, split);
  }
  void backward(const Piece &p, T *x, int off) const { backward_cut<T, kHermitian>(p, bk, x, off); }
  unsigned passes(int s) const {
    const unsigned steps = steps_of(s, false);
    return ((steps & kForward) ? solve_walk::kWalkForward : 0u) |
           ((steps & (kSqrtAfterForward | kDiagonal | kSqrtBeforeBackward))
                ? solve_walk::kWalkMiddle
                : 0u) |
           ((steps & kBackward) ? solve_walk::kWalkBackward : 0u);
  }
  void middle(const FactorView<T> &f, const Limits &lim, int s, T *x) const {
    middle_steps<T, kHermitian>(f, lim, bk, steps_of(s, false), 1, x, 0);
  }
};

template <class T, bool kHermitian>
void one_rhs(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  solve_walk::walk_one_rhs(f, in, LdlWalk<T, kHermitian>{in.iparm21 != 0}, x, temp);
}

// Panels whose used part has at most this many entries are solved column
// by column for each right-hand side: a BLAS call costs more than the
// arithmetic there.
constexpr std::int64_t kSmallPanel = 1024;

template <class T>
bool small_panel(const Cut<T> &c) {
  return static_cast<std::int64_t>(c.width()) * (c.rend - c.c0) <= kSmallPanel;
}

template <class T, bool kHermitian>
void block_rhs(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx, T *temp) {
  if (f.nsuper < 1 || m < 1) return;
  const Limits lim = limits_of(f, in);
  const bool bk = in.iparm21 != 0;
  const unsigned steps = steps_of(in.selector, true);
  const std::int64_t ld = ldx;
  constexpr char kTrans = kHermitian ? 'C' : 'T';
  Cut<T> c;

  if (steps & kForward) {
    // Start at the first supernode where any right-hand side is nonzero:
    // a later start would be wrong for the others.
    int k0 = f.nsuper + 1;
    for (int j = 0; j < m; ++j) {
      const int kj = first_nonzero_supernode(f, lim, x + j * ld);
      if (kj > 0) k0 = std::min(k0, kj);
    }
    for (int k = k0; k <= f.nsuper; ++k) {
      if (f.xsuper[k - 1] > lim.last) break;
      if (!cut_supernode(f, k, lim.fw_first, lim.last, bk, &c)) continue;
      if (small_panel(c)) {
        for (int j = 0; j < m; ++j)
          forward_cut<T, kHermitian>(c, bk, x + j * ld, lim.off, nullptr, 0);
        continue;
      }
      const int w = c.width(), noff = c.rend - c.c1, ldc = static_cast<int>(c.ld);
      T *x1 = x + (c.rows[c.c0] - lim.off);
      if (bk) {
        int info = 0;
        dsytrs_fwd<T, kHermitian>('L', w, m, c.block(), ldc, c.piv + c.c0, x1, ldx, &info, c.c0);
      } else {
        exchange(c, x1, ld, m, true);
        blas::trsm<T>('L', 'L', 'N', 'U', w, m, T(1), c.block(), ldc, x1, ldx);
      }
      if (noff < 1) continue;
      blas::gemm<T>('N', 'N', noff, m, w, T(-1), c.L + c.c1 + c.c0 * c.ld, ldc, x1, ldx, T(0), temp,
                    noff);
      const int *rows = c.rows + c.c1;
      for (int j = 0; j < m; ++j) {
        T *tj = temp + static_cast<std::int64_t>(j) * noff;
        T *xj = x + j * ld;
        for (int r = 0; r < noff; ++r) {
          xj[rows[r] - lim.off] += tj[r];
          tj[r] = T(0);
        }
      }
    }
  }
  middle_steps<T, kHermitian>(f, lim, bk, steps, m, x, ldx);
  if ((steps & kBackward) && lim.last >= 1) {
    for (int k = f.snode[lim.last - 1]; k >= 1; --k) {
      if (f.xsuper[k] - 1 < lim.bw_first) break;
      if (!cut_supernode(f, k, lim.bw_first, lim.last, bk, &c)) continue;
      if (small_panel(c)) {
        for (int j = 0; j < m; ++j) backward_cut<T, kHermitian>(c, bk, x + j * ld, lim.off);
        continue;
      }
      const int w = c.width(), noff = c.rend - c.c1, ldc = static_cast<int>(c.ld);
      T *x1 = x + (c.rows[c.c0] - lim.off);
      if (noff > 0) {
        const int *rows = c.rows + c.c1;
        for (int j = 0; j < m; ++j) {
          T *tj = temp + static_cast<std::int64_t>(j) * noff;
          const T *xj = x + j * ld;
          for (int r = 0; r < noff; ++r) tj[r] = xj[rows[r] - lim.off];
        }
        blas::gemm<T>(kTrans, 'N', w, m, noff, T(-1), c.L + c.c1 + c.c0 * c.ld, ldc, temp, noff,
                      T(1), x1, ldx);
        std::fill_n(temp, static_cast<std::int64_t>(m) * noff, T(0));
      }
      if (bk) {
        int info = 0;
        dsytrs_bwd<T, kHermitian>('L', w, m, c.block(), ldc, c.piv + c.c0, x1, ldx, &info, c.c0);
      } else {
        blas::trsm<T>('L', 'L', kTrans, 'U', w, m, T(1), c.block(), ldc, x1, ldx);
        exchange(c, x1, ld, m, false);
      }
    }
  }
}

}  // namespace

template <class T>
void BLKLDLSLVS1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  one_rhs<T, false>(f, in, x, temp);
}

template <class T>
void BLKLDLSLVM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx,
                        T *temp) {
  block_rhs<T, false>(f, in, m, x, ldx, temp);
}

template <class T>
void CH_BLKLDLSLVS1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  one_rhs<T, true>(f, in, x, temp);
}

template <class T>
void CH_BLKLDLSLVM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx,
                           T *temp) {
  block_rhs<T, true>(f, in, m, x, ldx, temp);
}

#define VELMORA_LDL_SOLVES(PREFIX, T)                                                              \
  template void PREFIX##BLKLDLSLVS1_VELMORA<T>(const FactorView<T> &, const SolveInput &, T *,     \
                                               T *);                                               \
  template void PREFIX##BLKLDLSLVM_VELMORA<T>(const FactorView<T> &, const SolveInput &, int, T *, \
                                              int, T *);

// Real symmetric (double, and float for the single-precision factor),
// complex symmetric (L^T in the backward pass) and complex Hermitian (L^H).
VELMORA_LDL_SOLVES(, double)
VELMORA_LDL_SOLVES(, float)
VELMORA_LDL_SOLVES(, zcomplex)
VELMORA_LDL_SOLVES(CH_, zcomplex)

#undef VELMORA_LDL_SOLVES

}  // namespace vm
