// ublkslv1_unsym.cpp - forward and backward substitution with a supernodal
// LU factor: column kernels for one right-hand side (serial and over
// subtree tasks) and BLAS 3 kernels for a block of them.
//
// Every pass over a supernode is one of two shapes, whatever the factor:
//   forward:  exchanges ascending; a lower triangular solve on the block;
//             x(rows below) -= M x(block);
//   backward: x(block) -= M^T x(rows below); an upper triangular solve on
//             the block; exchanges descending.
// A x = b takes L forward (unit L11, M = L21, row exchanges) and U backward
// (U11, M = unz, column exchanges); A^T x = b takes U^T forward (U11^T, M =
// unz, column exchanges) and L^T backward (L11^T, M = L21, row exchanges).
#include "solve/ublkslv1_unsym.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "factor/blas.h"
#include "factor/scalar_traits.h"
#include "solve/solve_walk.h"

namespace vm {

namespace {

using solve_walk::first_nonzero_supernode;
using solve_walk::Limits;
using solve_walk::limits_of;
using solve_walk::runs_backward;
using solve_walk::runs_forward;

// One supernode as a pass sees it: the block columns c0 .. ncols-1 take
// part, and the nb rows of the list after the block that are not Schur rows.
template <class T>
struct Snode {
  const T *B = nullptr;  // lnz panel: L11\U11 on top, L21 below; leading dimension ld
  const T *U = nullptr;  // unz panel: U12^T, leading dimension uld
  std::int64_t ld = 0, uld = 0;
  const int *below = nullptr;  // global rows after the block
  int first = 0, ncols = 0, c0 = 0, nb = 0;
  const int *rowx = nullptr;  // row exchanges, block-relative, one-based
  const int *colx = nullptr;  // column exchanges, or null
};

// The pass's view of supernode k, or false when it takes no part: it lies in
// the Schur block, or all its columns are before `lo`.
template <class T>
bool snode_of(const FactorView<T> &f, const int *colx, int k, int lo, const Limits &lim,
              Snode<T> *s) {
  const int first = f.xsuper[k - 1], last = f.xsuper[k] - 1;
  if (last > lim.last || last < lo) return false;
  s->first = first;
  s->ncols = last - first + 1;
  s->c0 = std::max(first, lo) - first;
  s->ld = f.xlnz[first] - f.xlnz[first - 1];
  s->uld = s->ld - s->ncols;
  s->B = f.lnz + (f.xlnz[first - 1] - 1);
  s->U = f.unz + (f.xunz[first - 1] - 1);
  const int *rows = f.lindx + (f.xlindx[k - 1] - 1);
  int rend = static_cast<int>(s->ld);
  while (rend > s->ncols && rows[rend - 1] > lim.last) --rend;
  s->below = rows + s->ncols;
  s->nb = rend - s->ncols;
  s->rowx = f.pivot + (first - 1);
  s->colx = colx != nullptr ? colx + (first - 1) : nullptr;
  return true;
}

// Exchanges of a block's entries xb (xb[0] is block column c0), ascending
// or descending; exchanges of columns before c0 are left out.
template <class T>
void exchange(const int *piv, int c0, int ncols, bool ascending, T *xb, std::int64_t ld, int m) {
  if (piv == nullptr) return;
  for (int t = 0; t + 1 < ncols - c0; ++t) {
    const int j = ascending ? c0 + t : ncols - 2 - t;
    const int p = piv[j] - 1;
    if (p == j) continue;
    for (int c = 0; c < m; ++c) std::swap(xb[j - c0 + c * ld], xb[p - c0 + c * ld]);
  }
}

// y(rows[i]) -= sum over a < w of M(i, a) v[a], i in [i0, i1); four columns
// at a time, so that each row is read and written once per four.
template <class T>
void update_rows(const T *M, std::int64_t ldm, int w, const T *v, const int *rows, int i0, int i1,
                 T *y, int off) {
  int a = 0;
  for (; a + 4 <= w; a += 4) {
    const T *m0 = M + a * ldm, *m1 = m0 + ldm, *m2 = m1 + ldm, *m3 = m2 + ldm;
    const T v0 = v[a], v1 = v[a + 1], v2 = v[a + 2], v3 = v[a + 3];
    for (int i = i0; i < i1; ++i)
      y[rows[i] - off] -= m0[i] * v0 + m1[i] * v1 + m2[i] * v2 + m3[i] * v3;
  }
  for (; a < w; ++a) {
    const T *m0 = M + a * ldm;
    const T v0 = v[a];
    for (int i = i0; i < i1; ++i) y[rows[i] - off] -= m0[i] * v0;
  }
}

// v[a] -= sum over i < nb of M(i, a) y(rows[i]), for a < w.
template <class T>
void subtract_dots(const T *M, std::int64_t ldm, int w, const int *rows, int nb, const T *y,
                   int off, T *v) {
  int a = 0;
  for (; a + 4 <= w; a += 4) {
    const T *m0 = M + a * ldm, *m1 = m0 + ldm, *m2 = m1 + ldm, *m3 = m2 + ldm;
    T s0 = T(0), s1 = T(0), s2 = T(0), s3 = T(0);
    for (int i = 0; i < nb; ++i) {
      const T yi = y[rows[i] - off];
      s0 += m0[i] * yi;
      s1 += m1[i] * yi;
      s2 += m2[i] * yi;
      s3 += m3[i] * yi;
    }
    v[a] -= s0;
    v[a + 1] -= s1;
    v[a + 2] -= s2;
    v[a + 3] -= s3;
  }
  for (; a < w; ++a) {
    const T *m0 = M + a * ldm;
    T s0 = T(0);
    for (int i = 0; i < nb; ++i) s0 += m0[i] * y[rows[i] - off];
    v[a] -= s0;
  }
}

// Forward step of one supernode on one right-hand side.  Rows at or above
// `split` go to acc (indexed by row) instead of x: the updates a subtree
// task makes to the top of the tree.
template <class T>
void forward_one(const Snode<T> &s, bool trans, T *x, int off, T *acc, int split) {
  const int c0 = s.c0, w = s.ncols - c0;
  T *xb = x + (s.first + c0 - off);
  const T *B = s.B + c0 + c0 * s.ld;
  exchange(trans ? s.colx : s.rowx, c0, s.ncols, true, xb, 0, 1);
  for (int j = 0; j < w; ++j) {
    if (trans) {  // U11^T: lower, U's diagonal
      xb[j] /= B[j + j * s.ld];
      for (int r = j + 1; r < w; ++r) xb[r] -= B[j + r * s.ld] * xb[j];
    } else {  // L11: unit lower
      for (int r = j + 1; r < w; ++r) xb[r] -= B[r + j * s.ld] * xb[j];
    }
  }
  const T *M = trans ? s.U + c0 * s.uld : s.B + s.ncols + c0 * s.ld;
  const std::int64_t ldm = trans ? s.uld : s.ld;
  int rs = s.nb;
  if (acc != nullptr)
    rs = static_cast<int>(std::lower_bound(s.below, s.below + s.nb, split) - s.below);
  update_rows(M, ldm, w, xb, s.below, 0, rs, x, off);
  if (rs < s.nb) update_rows(M, ldm, w, xb, s.below, rs, s.nb, acc, 1);
}

// Backward step of one supernode on one right-hand side.
template <class T>
void backward_one(const Snode<T> &s, bool trans, T *x, int off) {
  const int c0 = s.c0, w = s.ncols - c0;
  T *xb = x + (s.first + c0 - off);
  const T *B = s.B + c0 + c0 * s.ld;
  const T *M = trans ? s.B + s.ncols + c0 * s.ld : s.U + c0 * s.uld;
  subtract_dots(M, trans ? s.ld : s.uld, w, s.below, s.nb, x, off, xb);
  for (int j = w - 1; j >= 0; --j) {
    if (trans) {  // L11^T: unit upper
      for (int r = 0; r < j; ++r) xb[r] -= B[j + r * s.ld] * xb[j];
    } else {  // U11: upper
      xb[j] /= B[j + j * s.ld];
      for (int r = 0; r < j; ++r) xb[r] -= B[r + j * s.ld] * xb[j];
    }
  }
  exchange(trans ? s.rowx : s.colx, c0, s.ncols, false, xb, 0, 1);
}

// What every kernel of the family needs besides the factor.
struct Pass {
  const int *colx;  // column exchanges of the general family, or null
  bool trans;
};

// The LU families in the shared walk of one right-hand side.  A supernode
// is solved whole or not at all: the forward pass stops at the first one
// that ends past the solve's last column.
template <class T>
struct LuWalk {
  using Piece = Snode<T>;
  Pass pass;
  bool piece(const FactorView<T> &f, int k, int lo, const Limits &lim, Piece *p) const {
    return snode_of(f, pass.colx, k, lo, lim, p);
  }
  bool beyond(const FactorView<T> &f, int k, const Limits &lim) const {
    return f.xsuper[k] - 1 > lim.last;
  }
  void forward(const Piece &p, T *x, int off, T *acc, int split) const {
    forward_one(p, pass.trans, x, off, acc, split);
  }
  void backward(const Piece &p, T *x, int off) const { backward_one(p, pass.trans, x, off); }
  unsigned passes(int s) const {
    return (runs_forward(s, false) ? solve_walk::kWalkForward : 0u) |
           (runs_backward(s, false) ? solve_walk::kWalkBackward : 0u);
  }
  void middle(const FactorView<T> &, const Limits &, int, T *) const {}
};

template <class T>
void solve_one(const FactorView<T> &f, const SolveInput &in, const Pass &p, T *x, T *temp) {
  solve_walk::walk_one_rhs(f, in, LuWalk<T>{p}, x, temp);
}

// Panels whose used part has at most this many entries are solved column
// by column for each right-hand side: a BLAS call costs more than the
// arithmetic there.
constexpr std::int64_t kSmallPanel = 1024;

template <class T>
void solve_block(const FactorView<T> &f, const SolveInput &in, const Pass &p, int m, T *x, int ldx,
                 T *temp) {
  if (f.nsuper < 1 || m < 1) return;
  const Limits lim = limits_of(f, in);
  const std::int64_t ld = ldx;
  const bool tr = p.trans;
  Snode<T> s;
  auto small = [](const Snode<T> &sn) {
    const std::int64_t w = sn.ncols - sn.c0;
    return w * (w + sn.nb) <= kSmallPanel;
  };

  if (runs_forward(in.selector, true)) {
    // The pass starts at the first supernode where any right-hand side of
    // the block is nonzero: a later start would be wrong for the others.
    int k0 = f.nsuper + 1;
    for (int j = 0; j < m; ++j) {
      const int kj = first_nonzero_supernode(f, lim, x + j * ld);
      if (kj > 0) k0 = std::min(k0, kj);
    }
    for (int k = k0; k <= f.nsuper; ++k) {
      if (f.xsuper[k] - 1 > lim.last) break;
      if (!snode_of(f, p.colx, k, lim.fw_first, lim, &s)) continue;
      if (small(s)) {
        for (int j = 0; j < m; ++j) forward_one<T>(s, tr, x + j * ld, lim.off, nullptr, 0);
        continue;
      }
      const int w = s.ncols - s.c0;
      T *x1 = x + (s.first + s.c0 - lim.off);
      exchange(tr ? s.colx : s.rowx, s.c0, s.ncols, true, x1, ld, m);
      blas::trsm<T>('L', tr ? 'U' : 'L', tr ? 'T' : 'N', tr ? 'N' : 'U', w, m, T(1),
                    s.B + s.c0 + s.c0 * s.ld, static_cast<int>(s.ld), x1, ldx);
      if (s.nb < 1) continue;
      const T *M = tr ? s.U + s.c0 * s.uld : s.B + s.ncols + s.c0 * s.ld;
      blas::gemm<T>('N', 'N', s.nb, m, w, T(-1), M, static_cast<int>(tr ? s.uld : s.ld), x1, ldx,
                    T(0), temp, s.nb);
      for (int j = 0; j < m; ++j) {
        T *tj = temp + static_cast<std::int64_t>(j) * s.nb;
        T *xj = x + j * ld;
        for (int r = 0; r < s.nb; ++r) {
          xj[s.below[r] - lim.off] += tj[r];
          tj[r] = T(0);
        }
      }
    }
  }
  if (runs_backward(in.selector, true) && lim.last >= 1) {
    for (int k = f.snode[lim.last - 1]; k >= 1; --k) {
      if (f.xsuper[k] - 1 < lim.bw_first) break;
      if (!snode_of(f, p.colx, k, lim.bw_first, lim, &s)) continue;
      if (small(s)) {
        for (int j = 0; j < m; ++j) backward_one(s, tr, x + j * ld, lim.off);
        continue;
      }
      const int w = s.ncols - s.c0;
      T *x1 = x + (s.first + s.c0 - lim.off);
      if (s.nb > 0) {
        for (int j = 0; j < m; ++j) {
          T *tj = temp + static_cast<std::int64_t>(j) * s.nb;
          const T *xj = x + j * ld;
          for (int r = 0; r < s.nb; ++r) tj[r] = xj[s.below[r] - lim.off];
        }
        const T *M = tr ? s.B + s.ncols + s.c0 * s.ld : s.U + s.c0 * s.uld;
        blas::gemm<T>('T', 'N', w, m, s.nb, T(-1), M, static_cast<int>(tr ? s.ld : s.uld), temp,
                      s.nb, T(1), x1, ldx);
        std::fill_n(temp, static_cast<std::int64_t>(m) * s.nb, T(0));
      }
      blas::trsm<T>('L', tr ? 'L' : 'U', tr ? 'T' : 'N', tr ? 'U' : 'N', w, m, T(1),
                    s.B + s.c0 + s.c0 * s.ld, static_cast<int>(s.ld), x1, ldx);
      exchange(tr ? s.rowx : s.colx, s.c0, s.ncols, false, x1, ld, m);
    }
  }
}

}  // namespace

template <class T>
void BLKSLV1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  solve_one(f, in, Pass{nullptr, in.transposed != 0}, x, temp);
}

template <class T>
void BLKSLV1_UNSYM_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  solve_one(f, in, Pass{f.pivot_col, in.transposed != 0}, x, temp);
}

template <class T>
void BLKSLV1M_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx, T *temp) {
  solve_block(f, in, Pass{nullptr, in.transposed != 0}, m, x, ldx, temp);
}

template <class T>
void BLKSLV1M_UNSYM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx,
                            T *temp) {
  solve_block(f, in, Pass{f.pivot_col, in.transposed != 0}, m, x, ldx, temp);
}

#define VELMORA_LU_SOLVES(T)                                                                   \
  template void BLKSLV1_VELMORA<T>(const FactorView<T> &, const SolveInput &, T *, T *);       \
  template void BLKSLV1_UNSYM_VELMORA<T>(const FactorView<T> &, const SolveInput &, T *, T *); \
  template void BLKSLV1M_VELMORA<T>(const FactorView<T> &, const SolveInput &, int, T *, int,  \
                                    T *);                                                      \
  template void BLKSLV1M_UNSYM_VELMORA<T>(const FactorView<T> &, const SolveInput &, int, T *, \
                                          int, T *);

VELMORA_LU_SOLVES(double)
VELMORA_LU_SOLVES(float)
VELMORA_LU_SOLVES(zcomplex)
VELMORA_LU_SOLVES(ccomplex)

#undef VELMORA_LU_SOLVES

}  // namespace vm
