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

}  // namespace solve_walk
}  // namespace vm

#endif  // VELMORA_SOLVE_SOLVE_WALK_H
