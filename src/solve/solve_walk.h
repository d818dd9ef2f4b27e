// solve_walk.h - pieces shared by the substitution kernels of the three
// factor families: the columns a pass may touch, the selectors' passes,
// and the column-group kernels that apply a supernode's rows below its
// block to one right-hand side.
#ifndef VELMORA_SOLVE_SOLVE_WALK_H
#define VELMORA_SOLVE_SOLVE_WALK_H

#include <algorithm>
#include <cstdint>

#include "factor/factor_args.h"
#include "factor/scalar_traits.h"
#include "solve/solve.h"

namespace vm {
namespace solve_walk {

// Columns a solve may touch, as elimination positions (one-based).
struct Limits {
  int n = 0;
  int last = 0;      // n - nschur: later columns and rows are the Schur block
  int fw_first = 1;  // first column of the forward pass
  int bw_first = 1;  // first column the backward pass produces
  int off = 1;       // x[i - off] is position i: 1 + the positions not stored
};

template <class T>
Limits limits_of(const FactorView<T> &f, const SolveInput &in) {
  Limits lim;
  const int n = f.n;
  lim.n = n;
  const int nschur = f.nschur > 0 && f.nschur <= n ? f.nschur : 0;
  lim.last = n - nschur;
  int fw = n, bw = n;
  if (in.partial != 0) {
    fw = std::clamp(in.fwnodes, 0, n);
    bw = std::clamp(in.bwnodes, 0, n);
  }
  const int base = in.partial >= 2 ? n - std::clamp(in.k, 0, n) : 0;
  lim.fw_first = std::max(n - fw + 1, base + 1);
  lim.bw_first = std::max(n - bw + 1, base + 1);
  lim.off = 1 + base;
  return lim;
}

// The passes of a selector (the one-rhs kernels also take -12 and -23).
inline bool runs_forward(int s, bool block) {
  return s == 0 || s == 1 || s == -1 || (!block && s == -12);
}
inline bool runs_backward(int s, bool block) {
  return s == 0 || s == 2 || s == -3 || (!block && s == -23);
}

// y(rows[r]) -= sum over a < G of L(r, a) v[a], for r in [r0, r1); L points
// at the group's first column, ld apart.
template <int G, class T>
void update_rows(const T *L, std::int64_t ld, const int *rows, int r0, int r1, const T *v, T *y,
                 int off) {
  for (int r = r0; r < r1; ++r) {
    T s = L[r] * v[0];
    for (int a = 1; a < G; ++a) s += L[r + a * ld] * v[a];
    y[rows[r] - off] -= s;
  }
}

// update_rows for a group of g columns, g one of 1, 2, 3, 4, 8.
template <class T>
void update_group(int g, const T *L, std::int64_t ld, const int *rows, int r0, int r1, const T *v,
                  T *y, int off) {
  switch (g) {
    case 8:
      return update_rows<8>(L, ld, rows, r0, r1, v, y, off);
    case 4:
      return update_rows<4>(L, ld, rows, r0, r1, v, y, off);
    case 3:
      return update_rows<3>(L, ld, rows, r0, r1, v, y, off);
    case 2:
      return update_rows<2>(L, ld, rows, r0, r1, v, y, off);
    default:
      return update_rows<1>(L, ld, rows, r0, r1, v, y, off);
  }
}

// s[a] = sum over r in [r0, r1) of L(r, a) y(rows[r]) (conjugated L with
// kConj).
template <int G, bool kConj, class T>
void dot_rows(const T *L, std::int64_t ld, const int *rows, int r0, int r1, const T *y, int off,
              T *s) {
  T acc[G] = {};
  for (int r = r0; r < r1; ++r) {
    const T yr = y[rows[r] - off];
    for (int a = 0; a < G; ++a) acc[a] += conj_if<kConj>(L[r + a * ld]) * yr;
  }
  for (int a = 0; a < G; ++a) s[a] = acc[a];
}

// dot_rows for a group of g columns, g one of 1, 2, 3, 4, 8.
template <bool kConj, class T>
void dot_group(int g, const T *L, std::int64_t ld, const int *rows, int r0, int r1, const T *y,
               int off, T *s) {
  switch (g) {
    case 8:
      return dot_rows<8, kConj>(L, ld, rows, r0, r1, y, off, s);
    case 4:
      return dot_rows<4, kConj>(L, ld, rows, r0, r1, y, off, s);
    case 3:
      return dot_rows<3, kConj>(L, ld, rows, r0, r1, y, off, s);
    case 2:
      return dot_rows<2, kConj>(L, ld, rows, r0, r1, y, off, s);
    default:
      return dot_rows<1, kConj>(L, ld, rows, r0, r1, y, off, s);
  }
}

// ---- the walk of one right-hand side -----------------------------------
//
// Shared by the three families: forward from the first supernode the
// right-hand side reaches, the family's middle step, backward from the
// solve's last column down.  With independent subtrees (in.ntasks > 1 and
// the parallel solve asked for) each subtree is a task: its forward updates
// of the top of the tree gather in a private accumulator (n entries of
// temp per task, indexed by row) and are added before the top is solved;
// the backward pass solves the top first, then the subtrees.
//
// A family F supplies, for element type T:
//   F::Piece                  what a pass uses of one supernode
//   bool piece(f, k, lo, lim, &p)
//                             the part of supernode k from column lo on;
//                             false when the pass has nothing there
//   bool beyond(f, k, lim)    supernode k lies past the forward pass
//   void forward(p, x, off, acc, split)
//                             forward step of a piece; rows at or above
//                             split go to acc instead of x (acc null: none)
//   void backward(p, x, off)  backward step of a piece
//   unsigned passes(s)        kWalkForward | kWalkMiddle | kWalkBackward
//                             for the selector s
//   void middle(f, lim, s, x) the step between the passes (D, or nothing)
enum WalkPass : unsigned { kWalkForward = 1u, kWalkMiddle = 2u, kWalkBackward = 4u };

// First supernode holding a nonzero entry of x among the forward columns,
// or 0 when there is none.  NaN counts as nonzero.
template <class T>
int first_nonzero_supernode(const SymbolicFactor &f, const Limits &lim, const T *x) {
  for (int i = lim.fw_first; i <= lim.last; ++i)
    if (x[i - lim.off] != T(0)) return f.snode[i - 1];
  return 0;
}

template <class T, class F>
void forward_range(const FactorView<T> &f, const F &fam, const Limits &lim, int k0, int k1, T *x,
                   T *acc, int split) {
  typename F::Piece p;
  for (int k = k0; k <= k1; ++k) {
    if (fam.beyond(f, k, lim)) break;
    if (fam.piece(f, k, lim.fw_first, lim, &p)) fam.forward(p, x, lim.off, acc, split);
  }
}

template <class T, class F>
void backward_range(const FactorView<T> &f, const F &fam, const Limits &lim, int k1, int k0, T *x) {
  typename F::Piece p;
  for (int k = k1; k >= k0; --k) {
    if (f.xsuper[k] - 1 < lim.bw_first) break;
    if (fam.piece(f, k, lim.bw_first, lim, &p)) fam.backward(p, x, lim.off);
  }
}

template <class T, class F>
void serial_walk(const FactorView<T> &f, const SolveInput &in, const F &fam, const Limits &lim,
                 T *x) {
  const unsigned passes = fam.passes(in.selector);
  if (passes & kWalkForward) {
    const int k0 = first_nonzero_supernode(f, lim, x);
    if (k0 > 0) forward_range(f, fam, lim, k0, f.nsuper, x, static_cast<T *>(nullptr), 0);
  }
  if (passes & kWalkMiddle) fam.middle(f, lim, in.selector, x);
  if ((passes & kWalkBackward) && lim.last >= 1)
    backward_range(f, fam, lim, f.snode[lim.last - 1], 1, x);
}

template <class T, class F>
void task_walk(const FactorView<T> &f, const SolveInput &in, const F &fam, const Limits &lim, T *x,
               T *temp) {
  const int ntasks = in.ntasks, n = f.n;
  const int *range = in.taskrange;
  const int top = range[2 * ntasks - 1] + 1;  // first supernode of the top
  const int top_col = top <= f.nsuper ? f.xsuper[top - 1] : n + 1;
  const unsigned passes = fam.passes(in.selector);

  if (passes & kWalkForward) {
#pragma omp parallel for schedule(dynamic, 1)
    for (int t = 0; t < ntasks; ++t) {
      T *acc = temp + static_cast<std::int64_t>(t) * n;
      for (int i = top_col; i <= lim.last; ++i) acc[i - 1] = T(0);
      forward_range(f, fam, lim, range[2 * t], range[2 * t + 1], x, acc, top_col);
    }
    const int from = std::max(top_col, lim.off);
    for (int t = 0; t < ntasks; ++t) {
      const T *acc = temp + static_cast<std::int64_t>(t) * n;
      for (int i = from; i <= lim.last; ++i) x[i - lim.off] += acc[i - 1];
    }
    forward_range(f, fam, lim, top, f.nsuper, x, static_cast<T *>(nullptr), 0);
  }
  if (passes & kWalkMiddle) fam.middle(f, lim, in.selector, x);
  if (passes & kWalkBackward) {
    backward_range(f, fam, lim, f.nsuper, top, x);
#pragma omp parallel for schedule(dynamic, 1)
    for (int t = 0; t < ntasks; ++t) backward_range(f, fam, lim, range[2 * t + 1], range[2 * t], x);
  }
}

// One right-hand side x (the working vector in elimination order), temp
// n * in.ntasks entries for the task form.
template <class T, class F>
void walk_one_rhs(const FactorView<T> &f, const SolveInput &in, const F &fam, T *x, T *temp) {
  if (f.nsuper < 1) return;
  const Limits lim = limits_of(f, in);
  if (in.ntasks > 1 && in.parallel != 0 && in.taskrange != nullptr && temp != nullptr) {
    task_walk(f, in, fam, lim, x, temp);
    return;
  }
  // Serial form: the whole team enters, the first to arrive does the work.
  int arrived = 0;
#pragma omp parallel shared(arrived)
  {
    int mine = 0;
#pragma omp critical(velmora_solve_entry)
    mine = ++arrived;
    if (mine == 1) serial_walk(f, in, fam, lim, x);
  }
}

}  // namespace solve_walk
}  // namespace vm

#endif  // VELMORA_SOLVE_SOLVE_WALK_H
