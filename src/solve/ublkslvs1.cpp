// ublkslvs1.cpp - forward and backward substitution with a supernodal
// Cholesky factor: the column kernels for one right-hand side (serial and
// over subtree tasks) and the BLAS 3 kernels for a block of them.
#include "solve/ublkslvs1.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>

#include "factor/blas.h"
#include "factor/scalar_traits.h"
#include "solve/solve_walk.h"

namespace vm {

namespace {

using solve_walk::dot_group;
using solve_walk::first_nonzero_supernode;
using solve_walk::Limits;
using solve_walk::limits_of;
using solve_walk::runs_backward;
using solve_walk::runs_forward;
using solve_walk::update_group;

// The part of supernode k's panel a pass uses: panel columns c0 .. c1-1
// (the supernode's columns inside [lo, last]) and panel rows up to rend-1
// (rows beyond `last` cut off; the row list is sorted).
template <class T>
struct Cut {
  const T *L = nullptr;  // the panel, column-major
  std::int64_t ld = 0;
  const int *rows = nullptr;  // its row list, global one-based rows
  int c0 = 0, c1 = 0;
  int rend = 0;
};

template <class T>
bool cut_supernode(const FactorView<T> &f, int k, int lo, int last, Cut<T> *c) {
  const int first = f.xsuper[k - 1];
  const int from = std::max(first, lo), to = std::min(f.xsuper[k] - 1, last);
  if (from > to) return false;
  c->ld = f.xlnz[first] - f.xlnz[first - 1];
  c->L = f.lnz + (f.xlnz[first - 1] - 1);
  c->rows = f.lindx + (f.xlindx[k - 1] - 1);
  c->c0 = from - first;
  c->c1 = to - first + 1;
  int rend = static_cast<int>(c->ld);
  while (rend > c->c1 && c->rows[rend - 1] > last) --rend;
  c->rend = rend;
  return true;
}

// Columns are taken in groups so that each row below a group is read and
// written once for the whole group.
constexpr int kGroup = 4;

// Forward step of one supernode: x(j) /= L(j,j), then x(i) -= L(i,j) x(j)
// for the rows below.  Rows at or above `split` go to acc (indexed by row)
// instead of x: the updates a subtree task makes to the top of the tree.
template <class T>
void forward_cut(const Cut<T> &c, T *x, int off, T *acc, int split) {
  const int *rows = c.rows;
  int rs = c.rend;
  if (acc != nullptr)
    rs = static_cast<int>(std::lower_bound(rows + c.c1, rows + c.rend, split) - rows);
  for (int j = c.c0; j < c.c1; j += kGroup) {
    const int g = std::min(kGroup, c.c1 - j);
    const T *Lg = c.L + j * c.ld;
    T v[kGroup];
    for (int a = 0; a < g; ++a) {  // the triangle of the group
      const T *Lc = Lg + a * c.ld;
      const int cc = j + a;
      T &xj = x[rows[cc] - off];
      xj /= Lc[cc];
      v[a] = xj;
      for (int r = cc + 1; r < j + g; ++r) x[rows[r] - off] -= Lc[r] * v[a];
    }
    update_group(g, Lg, c.ld, rows, j + g, rs, v, x, off);
    if (rs < c.rend) update_group(g, Lg, c.ld, rows, rs, c.rend, v, acc, 1);
  }
}

// Backward step of one supernode, columns from the last down:
// x(j) = (x(j) - sum over rows i below j of conj(L(i,j)) x(i)) / conj(L(j,j)).
template <class T>
void backward_cut(const Cut<T> &c, T *x, int off) {
  const int *rows = c.rows;
  for (int hi = c.c1; hi > c.c0;) {
    const int g = std::min(kGroup, hi - c.c0);
    const int j = hi - g;
    const T *Lg = c.L + j * c.ld;
    T s[kGroup];
    dot_group<scalar_traits<T>::is_complex>(g, Lg, c.ld, rows, hi, c.rend, x, off, s);
    for (int a = g - 1; a >= 0; --a) {  // the triangle of the group
      const T *Lc = Lg + a * c.ld;
      const int cc = j + a;
      T t = x[rows[cc] - off] - s[a];
      for (int r = cc + 1; r < hi; ++r) t -= conj_of(Lc[r]) * x[rows[r] - off];
      x[rows[cc] - off] = t / conj_of(Lc[cc]);
    }
    hi = j;
  }
}

// The Cholesky family in the shared walk of one right-hand side.
template <class T>
struct CholeskyWalk {
  using Piece = Cut<T>;
  bool piece(const FactorView<T> &f, int k, int lo, const Limits &lim, Piece *p) const {
    return cut_supernode(f, k, lo, lim.last, p);
  }
  bool beyond(const FactorView<T> &f, int k, const Limits &lim) const {
    return f.xsuper[k - 1] > lim.last;
  }
  void forward(const Piece &p, T *x, int off, T *acc, int split) const {
    forward_cut(p, x, off, acc, split);
  }
  void backward(const Piece &p, T *x, int off) const { backward_cut(p, x, off); }
  unsigned passes(int s) const {
    return (runs_forward(s, false) ? solve_walk::kWalkForward : 0u) |
           (runs_backward(s, false) ? solve_walk::kWalkBackward : 0u);
  }
  void middle(const FactorView<T> &, const Limits &, int, T *) const {}
};

// Panels whose used part has at most this many entries are solved column
// by column for each right-hand side: a BLAS call costs more than the
// arithmetic there, and the panel stays in cache across the columns.
constexpr std::int64_t kSmallPanel = 1024;

template <class T>
bool small_panel(const Cut<T> &c) {
  return static_cast<std::int64_t>(c.c1 - c.c0) * (c.rend - c.c0) <= kSmallPanel;
}

}  // namespace

template <class T>
void BLKSLVS1_VELMORA(const FactorView<T> &f, const SolveInput &in, T *x, T *temp) {
  solve_walk::walk_one_rhs(f, in, CholeskyWalk<T>(), x, temp);
}

template <class T>
void BLKSLVM_VELMORA(const FactorView<T> &f, const SolveInput &in, int m, T *x, int ldx, T *temp) {
  if (f.nsuper < 1 || m < 1) return;
  const Limits lim = limits_of(f, in);
  const std::int64_t ld = ldx;
  const char trans = scalar_traits<T>::is_complex ? 'C' : 'T';
  Cut<T> c;

  if (runs_forward(in.selector, true)) {
    // The pass starts at the first supernode where any right-hand side of
    // the block is nonzero: a later start would be wrong for the others.
    int k0 = f.nsuper + 1;
    for (int j = 0; j < m; ++j) {
      const int kj = first_nonzero_supernode(f, lim, x + j * ld);
      if (kj > 0) k0 = std::min(k0, kj);
    }
    for (int k = k0; k >= 1 && k <= f.nsuper; ++k) {
      if (f.xsuper[k - 1] > lim.last) break;
      if (!cut_supernode(f, k, lim.fw_first, lim.last, &c)) continue;
      if (small_panel(c)) {
        for (int j = 0; j < m; ++j) forward_cut<T>(c, x + j * ld, lim.off, nullptr, 0);
        continue;
      }
      const int w = c.c1 - c.c0, noff = c.rend - c.c1;
      T *x1 = x + (c.rows[c.c0] - lim.off);
      blas::trsm<T>('L', 'L', 'N', 'N', w, m, T(1), c.L + c.c0 + c.c0 * c.ld,
                    static_cast<int>(c.ld), x1, ldx);
      if (noff < 1) continue;
      blas::gemm<T>('N', 'N', noff, m, w, T(-1), c.L + c.c1 + c.c0 * c.ld, static_cast<int>(c.ld),
                    x1, ldx, T(0), temp, noff);
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
  if (runs_backward(in.selector, true) && lim.last >= 1) {
    for (int k = f.snode[lim.last - 1]; k >= 1; --k) {
      if (f.xsuper[k] - 1 < lim.bw_first) break;
      if (!cut_supernode(f, k, lim.bw_first, lim.last, &c)) continue;
      if (small_panel(c)) {
        for (int j = 0; j < m; ++j) backward_cut(c, x + j * ld, lim.off);
        continue;
      }
      const int w = c.c1 - c.c0, noff = c.rend - c.c1;
      T *x1 = x + (c.rows[c.c0] - lim.off);
      if (noff > 0) {
        const int *rows = c.rows + c.c1;
        for (int j = 0; j < m; ++j) {
          T *tj = temp + static_cast<std::int64_t>(j) * noff;
          const T *xj = x + j * ld;
          for (int r = 0; r < noff; ++r) tj[r] = xj[rows[r] - lim.off];
        }
        blas::gemm<T>(trans, 'N', w, m, noff, T(-1), c.L + c.c1 + c.c0 * c.ld,
                      static_cast<int>(c.ld), temp, noff, T(1), x1, ldx);
        for (std::int64_t e = 0; e < static_cast<std::int64_t>(m) * noff; ++e) temp[e] = T(0);
      }
      blas::trsm<T>('L', 'L', trans, 'N', w, m, T(1), c.L + c.c0 + c.c0 * c.ld,
                    static_cast<int>(c.ld), x1, ldx);
    }
  }
}

// Real (L L^T) and complex Hermitian (L L^H) factors.
template void BLKSLVS1_VELMORA<double>(const FactorView<double> &, const SolveInput &, double *,
                                       double *);
template void BLKSLVM_VELMORA<double>(const FactorView<double> &, const SolveInput &, int, double *,
                                      int, double *);
template void BLKSLVS1_VELMORA<zcomplex>(const FactorView<zcomplex> &, const SolveInput &,
                                         zcomplex *, zcomplex *);
template void BLKSLVM_VELMORA<zcomplex>(const FactorView<zcomplex> &, const SolveInput &, int,
                                        zcomplex *, int, zcomplex *);

}  // namespace vm
